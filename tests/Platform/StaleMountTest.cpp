// Stale-mount detection with injected probes: hanging, failing and answering mounts.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "Platform/FXFolder.h"
#include "Platform/MountPathInfo.h"
#include "Platform/StaleMountDetector.h"
#include "Support/LogCapture.h"
#include "Support/PlatformTestSupport.h"
#include "Support/TempTree.h"

namespace {
constexpr auto kSafetyNet = std::chrono::seconds(30);  // bounded waits; never reached when passing

// A scripted probe: answers per mount point, hangs on the "hung" ones until Release(), and
// counts its calls. Shared with the probe threads, which may outlive the test body.
struct SScript {
  std::mutex mtx;
  std::condition_variable cv;
  bool bReleased = false;
  std::map<std::string, int> mapAnswers;  // mount point -> errno (0 answers)
  std::map<std::string, int> mapCalls;
  std::vector<std::string> lstHung;

  int Probe(const std::string& mountPoint) {
    std::unique_lock<std::mutex> lock(mtx);
    ++mapCalls[mountPoint];
    if (std::find(lstHung.begin(), lstHung.end(), mountPoint) != lstHung.end())
      cv.wait_for(lock, kSafetyNet, [&] { return bReleased; });
    auto it = mapAnswers.find(mountPoint);
    return it == mapAnswers.end() ? 0 : it->second;
  }
  void Release() {
    {
      std::lock_guard<std::mutex> lock(mtx);
      bReleased = true;
    }
    cv.notify_all();
  }
  // The probes so far, "mount point*calls" in order of mount points.
  std::string Calls() {
    std::lock_guard<std::mutex> lock(mtx);
    std::string out;
    for (const auto& [mountPoint, calls] : mapCalls)
      out += mountPoint + "*" + std::to_string(calls) + " ";
    return out;
  }
  CStaleMountDetector::StatFunction Function(const std::shared_ptr<SScript>& self) {
    return [self](const std::string& mountPoint) { return self->Probe(mountPoint); };
  }
};

// Releases the hung probes when a test ends, however it ends.
struct SReleaseAtEnd {
  std::shared_ptr<SScript> pScript;
  ~SReleaseAtEnd() { pScript->Release(); }
};

std::vector<SLogicalVolume> Parse(const std::string& text) {
  std::vector<SLogicalVolume> volumes;
  FXFolder::ParseMountInfo(text, volumes);
  return volumes;
}

const char* const kTable =
    "1 0 8:1 / / rw - ext4 /dev/sda1 rw\n"
    "2 1 8:2 / /data rw - ext4 /dev/sda2 rw\n"
    "3 1 0:40 / /mnt/hung rw - nfs4 srv1:/a rw\n"
    "4 1 0:41 / /mnt/stale rw - nfs srv2:/b rw\n"
    "5 1 0:42 / /mnt/eio rw - fuse.sshfs u@h:/ rw\n"
    "6 1 0:43 / /mnt/ok rw - cifs //srv/share rw\n"
    "7 1 0:44 / /mnt/squashed rw - nfs4 srv3:/c rw\n"
    "8 1 0:45 / /mnt/notconn rw - glusterfs g:/vol rw\n";
}  // namespace

class StaleMounts : public ::testing::Test {
 protected:
  void SetUp() override {
    m_pScript->mapAnswers = {{"/mnt/stale", ESTALE},
                             {"/mnt/eio", EIO},
                             {"/mnt/squashed", EACCES},
                             {"/mnt/notconn", ENOTCONN}};
    m_pScript->lstHung = {"/mnt/hung"};
    m_detector.SetStatFunction(m_pScript->Function(m_pScript));
    m_detector.SetTimeout(std::chrono::milliseconds(100));
  }
  void TearDown() override {
    m_pScript->Release();
    EXPECT_TRUE(m_detector.WaitForPendingProbes(kSafetyNet));
  }

  std::shared_ptr<SScript> m_pScript = std::make_shared<SScript>();
  CStaleMountDetector m_detector;
};

TEST_F(StaleMounts, HangingAndFailingNetworkMountsAreStale) {
  CLogCapture log;
  ASSERT_TRUE(m_detector.Refresh(Parse(kTable)).IsSuccess());
  EXPECT_EQ(m_detector.GetStaleFSList(),
            (std::vector<std::string>{"/mnt/hung", "/mnt/stale", "/mnt/eio", "/mnt/notconn"}));
  EXPECT_TRUE(m_detector.IsStaleFSPresent());
  // Local file systems are never probed.
  EXPECT_EQ(m_pScript->Calls(),
            "/mnt/eio*1 /mnt/hung*1 /mnt/notconn*1 /mnt/ok*1 /mnt/squashed*1 /mnt/stale*1 ");
  EXPECT_EQ(
      log->Count("Mount point [/mnt/hung] (nfs4) did not answer within 100 ms; treated as stale",
                 -1),
      1u);
  EXPECT_EQ(
      log->Count("Mount point [/mnt/stale] (nfs) is stale, errno=116 (Stale file handle)", -1), 1u);
  EXPECT_EQ(log->CountContaining("[/mnt/ok]", -1), 0u);
  EXPECT_EQ(log->CountContaining("[/mnt/squashed]", -1), 0u);
}

TEST_F(StaleMounts, AStillHungProbeIsNotRepeatedAndARecoveredMountIsNotStale) {
  CLogCapture log;
  ASSERT_TRUE(m_detector.Refresh(Parse(kTable)).IsSuccess());
  EXPECT_EQ(m_detector.GetPendingProbeCount(), 1u);

  // The first probe still hangs: no second thread for that mount, still stale.
  ASSERT_TRUE(m_detector.Refresh(Parse(kTable)).IsSuccess());
  EXPECT_EQ(m_pScript->Calls(),
            "/mnt/eio*2 /mnt/hung*1 /mnt/notconn*2 /mnt/ok*2 /mnt/squashed*2 /mnt/stale*2 ");
  EXPECT_TRUE(m_detector.CheckInStaleFSList("/mnt/hung"));
  EXPECT_EQ(
      log->Count(
          "Mount point [/mnt/hung] (nfs4) has not answered an earlier probe; treated as stale", -1),
      1u);

  // The server answers again.
  m_pScript->Release();
  ASSERT_TRUE(m_detector.WaitForPendingProbes(kSafetyNet));
  ASSERT_TRUE(m_detector.Refresh(Parse(kTable)).IsSuccess());
  EXPECT_EQ(m_pScript->Calls().substr(0, 23), "/mnt/eio*3 /mnt/hung*2 ");
  EXPECT_FALSE(m_detector.CheckInStaleFSList("/mnt/hung"));
  EXPECT_TRUE(m_detector.CheckInStaleFSList("/mnt/stale"));
}

TEST_F(StaleMounts, FirstQueryRefreshesFromTheMountTable) {
  CTempTree tree;
  FXFolder::SetMountInfoPath(tree.MakeFile("mountinfo", kTable));
  EXPECT_FALSE(m_detector.HasRefreshed());
  EXPECT_TRUE(m_detector.IsStaleFSPresent());
  EXPECT_TRUE(m_detector.CheckInStaleFSList("/mnt/eio"));
  FXFolder::SetMountInfoPath("");

  // A table that cannot be read counts as "nothing stale" and says why.
  CLogCapture log;
  m_detector.Reset();
  FXFolder::SetMountInfoPath(tree.Path("missing"));
  EXPECT_FALSE(m_detector.IsStaleFSPresent());
  EXPECT_EQ(log->CountContaining("Stale file system check failed, error=", -1), 1u);
  EXPECT_TRUE(m_detector.Refresh().IsErrNo(ENOENT));
  FXFolder::SetMountInfoPath("");
}

TEST_F(StaleMounts, ConcurrentQueriesDuringARefresh) {
  WhileReading(
      3,
      [&](int) {
        (void)m_detector.CheckInStaleFSList("/mnt/stale/x");
        (void)m_detector.GetStaleFSList();
      },
      [&] {
        for (int i = 0; i < 3; ++i) ASSERT_TRUE(m_detector.Refresh(Parse(kTable)).IsSuccess());
      });
  EXPECT_TRUE(m_detector.CheckInStaleFSList("/mnt/stale/x"));
}

TEST(StaleMountsLifetime, DetectorMayGoWhileAProbeHangs) {
  auto script = std::make_shared<SScript>();
  script->lstHung = {"/mnt/hung"};
  SReleaseAtEnd release{script};
  {
    CStaleMountDetector detector;
    detector.SetStatFunction(script->Function(script));
    detector.SetTimeout(std::chrono::milliseconds(20));
    ASSERT_TRUE(detector.Refresh(Parse(kTable)).IsSuccess());
    EXPECT_TRUE(detector.CheckInStaleFSList("/mnt/hung"));
  }
  // The detached probe still holds only its own state; letting it finish now is safe.
  script->Release();
}

// ---- the process detector through MountPathInfo ---------------------------------------------

class ProcessStaleMounts : public ::testing::Test {
 protected:
  void SetUp() override {
    m_pScript->mapAnswers = {{"/data/a-net", ESTALE}};
    CStaleMountDetector::Process().SetStatFunction(m_pScript->Function(m_pScript));
  }
  void TearDown() override {
    CStaleMountDetector::Process().SetStatFunction(nullptr);
    CStaleMountDetector::Process().Reset();
  }
  std::shared_ptr<SScript> m_pScript = std::make_shared<SScript>();
};

TEST_F(ProcessStaleMounts, PathsOnAStaleMountAreNotResolvedThroughTheKernel) {
  CTempTree tree;
  tree.MakeDir("target");
  tree.MakeSymlink("mnt/link", tree.Path("target"));
  std::string mountPoint = tree.Path("mnt");
  m_pScript->mapAnswers = {{mountPoint, ESTALE}};
  ASSERT_TRUE(CStaleMountDetector::Process()
                  .Refresh(Parse("1 0 8:1 / / rw - ext4 /dev/sda1 rw\n"
                                 "2 1 0:40 / " +
                                 mountPoint + " rw - nfs srv:/x rw\n"))
                  .IsSuccess());
  std::string real;
  ASSERT_TRUE(MountPathInfo::ResolvePath(tree.Path("mnt/link/./f"), real).IsSuccess());
  EXPECT_EQ(real, tree.Path("mnt/link/f"));  // the link was not followed

  CStaleMountDetector::Process().Reset();
  ASSERT_TRUE(MountPathInfo::ResolvePath(tree.Path("mnt/link/./f"), real).IsSuccess());
  EXPECT_EQ(real, tree.Path("target/f"));
}
