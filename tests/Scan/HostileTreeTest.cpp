// Both folder traversals against a hostile file system, with one and several workers: a folder
// swapped for a link or another folder between its listing and its opening, roots and entries
// that cannot be listed or described for lack of permission, a mount that never answers (a FUSE
// mount whose daemon never replies), a descriptor limit below what the traversal keeps, and a
// handler that keeps weak references to the items it was given.
#include <gtest/gtest.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "Platform/StaleMountDetector.h"
#include "Platform/ZRPlatformInfo.h"
#include "Scan/FindFirstScanEngine.h"
#include "Support/RunAsNobody.h"
#include "TraversalTestSupport.h"

using namespace TraversalTestSupport;
using namespace std::chrono_literals;

namespace {

using Paths = std::vector<std::string>;

// ---- a folder swapped between its listing and its opening ----

class SwappedFolder : public ::testing::TestWithParam<std::tuple<SKind, bool>> {};

TEST_P(SwappedFolder, IsRecordedAndNeverWalked) {
  const auto& [kind, bLink] = GetParam();  // swapped for a link to a folder outside, or the folder
  CTempTree tree, elsewhere, out;
  tree.MakeFile("a/inside.txt");
  tree.MakeFile("a/sub/deep.txt");
  tree.MakeFile("keep.txt");
  elsewhere.MakeFile("secret/secret.txt");
  elsewhere.MakeFile("secret/more/secret2.txt");
  const std::string strA = tree.Path("a"), strAside = elsewhere.Path("aside");
  if (bLink) {
    ASSERT_EQ(symlink(elsewhere.Path("secret").c_str(), strAside.c_str()), 0);
  } else {
    ASSERT_EQ(rename(elsewhere.Path("secret").c_str(), strAside.c_str()), 0);
  }
  auto pCallback = std::make_shared<CTestCallback>();
  pCallback->UseFailuresFile(out.Path("failures"));
  // "a" is delivered when its parent is listed, before it is opened: swap it then.
  pCallback->m_pHandler->m_fnHook = [&](const CItemPtr& pItem) {
    if (pItem->GetSourceFullyQualifiedItemName() == strA) {
      EXPECT_EQ(renameat2(AT_FDCWD, strA.c_str(), AT_FDCWD, strAside.c_str(), RENAME_EXCHANGE), 0);
    }
  };

  ASSERT_TRUE(Traverse(kind, pCallback, {tree.Root()}).IsSuccess());
  EXPECT_EQ(Bag(pCallback->m_pHandler->Paths()), Bag(Paths{strA, tree.Path("keep.txt")}));
  EXPECT_EQ(pCallback->FailureLines(), Paths{"folder " + strA + ":" + std::to_string(bLink ? ENOTDIR : ESTALE)});
}

INSTANTIATE_TEST_SUITE_P(Kinds, SwappedFolder, ::testing::Combine(::testing::ValuesIn(kKinds), ::testing::Bool()),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param).szName) +
                                  (std::get<1>(info.param) ? "ForALink" : "ForAnotherFolder");
                         });

// ---- hostile runs of a whole tree ----

class HostileRun : public ::testing::TestWithParam<SKind> {};

// Entries of a folder that can be listed but not searched are recorded with errno 13 each.
TEST_P(HostileRun, RecordsEveryEntryOfAnUnsearchableFolder) {
  CTempTree tree, out;
  tree.MakeFile("open.txt");
  tree.MakeFile("locked/f1");
  tree.MakeFile("locked/f2");
  tree.MakeFile("locked/sub/f3");
  ASSERT_EQ(chmod(tree.Path("locked").c_str(), 0744), 0);
  ASSERT_EQ(chmod(out.Root().c_str(), 0777), 0);
  const STokens tokens{{{"%R", tree.Root()}}};
  EXPECT_EQ(RunAsNobody([&]() -> int {
              auto pCallback = std::make_shared<CTestCallback>();
              pCallback->UseFailuresFile(out.Path("failures"));
              if (Traverse(GetParam(), pCallback, {tree.Root()}).IsError()) return 1;
              if (Bag(pCallback->m_pHandler->Paths()) != Bag(tokens(Paths{"%R/locked", "%R/open.txt"}))) return 2;
              return Bag(pCallback->FailureLines()) ==
                             Bag(tokens(Paths{"folder %R/locked/f1:13", "folder %R/locked/f2:13", "folder %R/locked/sub:13"}))
                         ? 0 : 3;
            }),
            0);
}

// A root that is reported and then cannot be listed is still the first folder: its listing
// failure ends the scan, as it does without top-level processing.
TEST_P(HostileRun, UnreadableRootIsReportedThenFailsAsTheFirstFolder) {
  CTempTree tree;
  const std::string strLocked = tree.MakeDir("locked", 0);
  EXPECT_EQ(RunAsNobody([&]() -> int {
              auto pCallback = std::make_shared<CTestCallback>();
              const CQiError error = Traverse(GetParam(), pCallback, {strLocked}, {true});
              if (!error.IsErrNo(EACCES)) return 1;
              if (error.AsString().find("FindFirst failed, Content Path=" + strLocked) == std::string::npos) return 2;
              return pCallback->m_pHandler->Paths() == Paths{strLocked} ? 0 : 3;
            }),
            0);
}

// Far fewer descriptors than the traversal keeps: every object is still reported.
TEST_P(HostileRun, ReportsEverythingUnderALowDescriptorLimit) {
  CTempTree tree;
  for (int i = 0; i < 30; ++i) {
    tree.MakeFile("d" + std::to_string(i) + "/e/f/x");
    tree.MakeFile("d" + std::to_string(i) + "/e/f/y");
  }
  EXPECT_EQ(RunAsNobody([&]() -> int {
              int nOpen = 0;
              if (DIR* pDir = opendir("/proc/self/fd")) {
                while (readdir(pDir) != nullptr) ++nOpen;
                closedir(pDir);
              }
              // What is open now (less ".", ".." and the listing's own), and room for a few listings more.
              const rlim_t uLimit = static_cast<rlim_t>(nOpen - 3 + 2 + GetParam().iWorkers);
              const struct rlimit limit = {uLimit, uLimit};
              if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return 1;
              auto pCallback = std::make_shared<CTestCallback>();
              if (Traverse(GetParam(), pCallback, {tree.Root()}).IsError()) return 2;
              return pCallback->m_pHandler->Paths().size() == 30 * 5 ? 0 : 3;
            }),
            0);
}

// ---- a mount that never answers ----

// A FUSE mount whose daemon never answers: every call that reaches it blocks until the
// connection is aborted (by closing the device), which the destructor does.
class CHungMount {
 public:
  CHungMount(const std::string& strPath, const char* szType) : m_strPath(strPath) {
    m_iFd = open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (m_iFd < 0) return;
    const std::string strOptions = "fd=" + std::to_string(m_iFd) + ",rootmode=40000,user_id=0,group_id=0,allow_other";
    if (mount("hung", strPath.c_str(), szType, MS_NOSUID | MS_NODEV, strOptions.c_str()) != 0) {
      close(m_iFd);
      m_iFd = -1;
    }
  }
  ~CHungMount() {
    if (m_iFd < 0) return;
    (void)umount2(m_strPath.c_str(), MNT_DETACH);
    close(m_iFd);  // aborts the connection: blocked calls return
    std::this_thread::sleep_for(200ms);  // lets threads that were left behind end
  }
  bool IsMounted() const { return m_iFd >= 0; }

 private:
  std::string m_strPath;
  int m_iFd = -1;
};

// A traversal of roots (paths in the tree) where "b/mnt" is a mount that never answers, its
// failures written into out; it must end within 20 s. Null when there is no FUSE here.
std::shared_ptr<CTestCallback> TraverseWithHungMount(const SKind& kind, CTempTree& tree, CTempTree& out,
                                                     const Paths& lstRoots, bool bTopLevel, CQiError& error) {
  tree.MakeFile("a/f");
  tree.MakeFile("c/f");
  tree.MakeFile("b/mnt/.keep");
  CHungMount hung(tree.Path("b/mnt"), "fuse");
  if (!hung.IsMounted()) return nullptr;
  auto pCallback = std::make_shared<CTestCallback>();
  pCallback->UseFailuresFile(out.Path("failures"));
  Paths lstPaths;
  for (const std::string& strRoot : lstRoots) lstPaths.push_back(tree.Path(strRoot));
  const auto tStart = std::chrono::steady_clock::now();
  error = Traverse(kind, pCallback, lstPaths, {bTopLevel, 300ms});
  EXPECT_LT(std::chrono::steady_clock::now() - tStart, 20s);
  return pCallback;
}

TEST_P(HostileRun, MountThatStopsAnsweringEndsInBoundedTime) {
  CTempTree tree, out;
  CQiError error;
  auto pCallback = TraverseWithHungMount(GetParam(), tree, out, {""}, false, error);
  if (!pCallback) GTEST_SKIP() << "no FUSE on this machine";
  ASSERT_TRUE(error.IsSuccess()) << error.AsString();
  const std::multiset<std::string> reported = Bag(pCallback->m_pHandler->Paths());
  for (const char* szPath : {"a", "a/f", "b", "c", "c/f"}) EXPECT_EQ(reported.count(tree.Path(szPath)), 1u) << szPath;
  EXPECT_EQ(pCallback->FailureLines(), Paths{"folder " + tree.Path("b") + ":" + std::to_string(ETIMEDOUT)});
}

// With top-level content processing a root is reported itself first: a root on a mount that
// stopped answering is given up the same way, never blocking the caller.
TEST_P(HostileRun, RootThatStopsAnsweringIsGivenUp) {
  CTempTree tree, out;
  CQiError error;
  auto pCallback = TraverseWithHungMount(GetParam(), tree, out, {"a", "b/mnt"}, true, error);
  if (!pCallback) GTEST_SKIP() << "no FUSE on this machine";
  EXPECT_EQ(Bag(pCallback->m_pHandler->Paths()), Bag(Paths{tree.Path("a"), tree.Path("a/f")})) << error.AsString();
  EXPECT_EQ(pCallback->FailureLines(), Paths{"folder " + tree.Path("b/mnt") + ":" + std::to_string(ETIMEDOUT)});
}

INSTANTIATE_TEST_SUITE_P(Kinds, HostileRun, ::testing::ValuesIn(kKinds),
                         [](const auto& info) { return std::string(info.param.szName); });

// A stale network mount known before the scan is never touched: no status read of the mount
// point, so nothing blocks and nothing is recorded.
TEST(HostileMounts, KnownStaleMountIsNeverTouched) {
  CTempTree tree, out;
  tree.MakeFile("a/f");
  tree.MakeFile("b/mnt/.keep");
  CHungMount hung(tree.Path("b/mnt"), "fuse.sshfs");
  if (!hung.IsMounted()) GTEST_SKIP() << "no FUSE on this machine";
  ZRPlatformInfo::Instance().LoadFromText("[FileSystemAgent]\nnFileSystemCallTimeoutSec=1\n", "test");
  CStaleMountDetector& detector = CStaleMountDetector::Process();
  detector.SetTimeout(200ms);
  ASSERT_TRUE(detector.Refresh().IsSuccess());
  ASSERT_TRUE(detector.CheckInStaleFSList(tree.Path("b/mnt")));

  CLogCapture log(0);
  auto pCallback = std::make_shared<CTestCallback>();
  pCallback->UseFailuresFile(out.Path("failures"));
  CFindFirstScanEngine engine;
  (void)engine.SetScannerCallback(pCallback);
  EXPECT_TRUE(engine.ProcessWorkUnit(MakeUnit({tree.Root()})).IsSuccess());
  EXPECT_EQ(Bag(pCallback->m_pHandler->Paths()), Bag(Paths{tree.Path("a"), tree.Path("a/f"), tree.Path("b")}));
  EXPECT_TRUE(pCallback->FailureLines().empty());
  EXPECT_EQ(log->CountContaining("[" + tree.Path("b/mnt") + "] skipped by ignoreFS rule"), 1u);
  detector.Reset();
}

}  // namespace
