// Both folder traversals against a hostile file system, with one and several workers: a folder
// swapped for a link or another folder between its listing and its opening, entries that cannot
// be described for lack of search permission, a mount that never answers (a FUSE mount whose
// daemon never replies), a descriptor limit below what the traversal keeps, and a handler that
// keeps weak references to the items it was given.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <dirent.h>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Platform/StaleMountDetector.h"
#include "Platform/ZRPlatformInfo.h"
#include "Scan/EnumerateFiles.h"
#include "Scan/FindFirstScanEngine.h"
#include "Scan/ScanEngine.h"
#include "Scan/ScanPath.h"
#include "Scan/TraverseFolder2.h"
#include "Support/TempTree.h"
#include "TraversalTestSupport.h"

using namespace TraversalTestSupport;
using namespace std::chrono_literals;

namespace {

struct SKind {
  const char* szName;
  bool bSecondGeneration;
  int iWorkers;
};

const SKind kKinds[] = {{"FirstGenOneWorker", false, 1},
                        {"FirstGenThreeWorkers", false, 3},
                        {"SecondGenOneWorker", true, 1},
                        {"SecondGenTwoWorkers", true, 2}};

std::string KindName(const ::testing::TestParamInfo<SKind>& info) { return info.param.szName; }

// A recording handler that first shows each item to a hook.
class CHookHandler : public CRecordingHandler {
 public:
  CQiError OnItem(CItemPtr pItem) override {
    if (m_fnHook) m_fnHook(pItem);
    return CRecordingHandler::OnItem(pItem);
  }
  std::function<void(const CItemPtr&)> m_fnHook;
};

std::shared_ptr<CTestCallback> MakeCallback(std::shared_ptr<CHookHandler>* ppHandler = nullptr) {
  auto pCallback = std::make_shared<CTestCallback>();
  auto pHandler = std::make_shared<CHookHandler>();
  pCallback->m_pHandler = pHandler;
  if (ppHandler != nullptr) *ppHandler = pHandler;
  return pCallback;
}

// One traversal of strRoot (reported under itself) of the given kind.
CQiError Traverse(const SKind& kind, const std::shared_ptr<CTestCallback>& pCallback,
                  const std::string& strRoot, std::chrono::milliseconds stall = 0ms) {
  if (kind.bSecondGeneration) {
    auto pUnit = std::make_shared<CWorkUnit>();
    pUnit->SetLocalVolumeName("/");
    pUnit->SetSourceVolumeName("/");
    CTraverseFolder2 traversal(pUnit, pCallback);
    traversal.SetMaxWorkers(kind.iWorkers);
    traversal.SetStallTimeout(stall);
    traversal.AddFolderToList(strRoot);
    return traversal.Traverse();
  }
  CScanEngine engine;
  (void)engine.SetScannerCallback(pCallback);
  if (CQiError error = engine.OpenOutputHandler("vol"); error.IsError()) return error;
  CEnumerateFiles traversal(&engine);
  traversal.SetMaxWorkers(kind.iWorkers);
  traversal.SetStallTimeout(stall);
  traversal.AddFolderToList(strRoot, strRoot);
  CQiError error = traversal.Traverse();
  (void)engine.CloseOutputHandler();
  return error;
}

std::set<std::string> Sorted(const std::vector<std::string>& v) { return {v.begin(), v.end()}; }

// ---- a folder swapped between its listing and its opening ----

struct SSwapCase {
  const char* szName;
  bool bLink;      // swapped for a link to a folder outside the tree, else for another folder
  int iExpected;   // the failure record's code
};

class SwappedFolder : public ::testing::TestWithParam<std::tuple<SKind, SSwapCase>> {};

TEST_P(SwappedFolder, IsRecordedAndNeverWalked) {
  const auto& [kind, swap] = GetParam();
  CTempTree tree, elsewhere, out;
  tree.MakeFile("a/inside.txt");
  tree.MakeFile("a/sub/deep.txt");
  tree.MakeFile("keep.txt");
  elsewhere.MakeFile("secret/secret.txt");
  elsewhere.MakeFile("secret/more/secret2.txt");
  // What "a" is swapped with lies outside the tree: a link to the secret folder, or the folder.
  const std::string strA = tree.Path("a"), strAside = elsewhere.Path("aside");
  if (swap.bLink) {
    ASSERT_EQ(symlink(elsewhere.Path("secret").c_str(), strAside.c_str()), 0);
  } else {
    ASSERT_EQ(rename(elsewhere.Path("secret").c_str(), strAside.c_str()), 0);
  }
  std::shared_ptr<CHookHandler> pHandler;
  auto pCallback = MakeCallback(&pHandler);
  pCallback->UseFailuresFile(out.Path("failures"));
  // "a" is delivered when its parent is listed, before it is opened: swap it then.
  pHandler->m_fnHook = [&](const CItemPtr& pItem) {
    if (pItem->GetSourceFullyQualifiedItemName() == strA) {
      EXPECT_EQ(renameat2(AT_FDCWD, strA.c_str(), AT_FDCWD, strAside.c_str(), RENAME_EXCHANGE), 0);
    }
  };

  ASSERT_TRUE(Traverse(kind, pCallback, tree.Root()).IsSuccess());
  EXPECT_EQ(Sorted(pHandler->Paths()), (std::set<std::string>{strA, tree.Path("keep.txt")}));
  EXPECT_EQ(pCallback->FailureLines(),
            std::vector<std::string>{"folder " + strA + ":" + std::to_string(swap.iExpected)});
}

const SSwapCase kSwapCases[] = {{"ForALink", true, ENOTDIR}, {"ForAnotherFolder", false, ESTALE}};

INSTANTIATE_TEST_SUITE_P(Kinds, SwappedFolder,
                         ::testing::Combine(::testing::ValuesIn(kKinds), ::testing::ValuesIn(kSwapCases)),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param).szName) +
                                  std::get<1>(info.param).szName;
                         });

// ---- hostile runs of a whole tree ----

class HostileRun : public ::testing::TestWithParam<SKind> {};

// Entries of a folder that can be listed but not searched are recorded with errno 13 each.
struct SLockedRun {
  SKind kind;
  std::string strRoot, strFailures;
};

int TraverseLockedAsNobody(void* pArg) {
  const SLockedRun& run = *static_cast<const SLockedRun*>(pArg);
  std::shared_ptr<CHookHandler> pHandler;
  auto pCallback = MakeCallback(&pHandler);
  pCallback->UseFailuresFile(run.strFailures);
  if (Traverse(run.kind, pCallback, run.strRoot).IsError()) return 1;
  if (Sorted(pHandler->Paths()) != std::set<std::string>{run.strRoot + "/locked", run.strRoot + "/open.txt"})
    return 2;
  const std::vector<std::string> expected = {"folder " + run.strRoot + "/locked/f1:13",
                                             "folder " + run.strRoot + "/locked/f2:13",
                                             "folder " + run.strRoot + "/locked/sub:13"};
  std::vector<std::string> lines = pCallback->FailureLines();
  std::sort(lines.begin(), lines.end());
  return lines == expected ? 0 : 3;
}

TEST_P(HostileRun, RecordsEveryEntryOfAnUnsearchableFolder) {
  CTempTree tree, out;
  tree.MakeFile("open.txt");
  tree.MakeFile("locked/f1");
  tree.MakeFile("locked/f2");
  tree.MakeFile("locked/sub/f3");
  ASSERT_EQ(chmod(tree.Path("locked").c_str(), 0744), 0);
  ASSERT_EQ(chmod(out.Root().c_str(), 0777), 0);
  SLockedRun run{GetParam(), tree.Root(), out.Path("failures")};
  EXPECT_EQ(RunAsNobody(TraverseLockedAsNobody, &run), 0);
  chmod(tree.Path("locked").c_str(), 0755);
}

// Far fewer descriptors than the traversal keeps: every object is still reported.
struct SLimitRun {
  SKind kind;
  std::string strRoot;
  size_t nExpected;
};

int TraverseWithFewDescriptors(void* pArg) {
  const SLimitRun& run = *static_cast<const SLimitRun*>(pArg);
  int nOpen = 0;
  if (DIR* pDir = opendir("/proc/self/fd")) {
    while (readdir(pDir) != nullptr) ++nOpen;
    closedir(pDir);
  }
  // What is open now (less ".", ".." and the listing's own), and room for a few listings more.
  const rlim_t uLimit = static_cast<rlim_t>(nOpen - 3 + 2 + run.kind.iWorkers);
  const struct rlimit limit = {uLimit, uLimit};
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return 1;
  std::shared_ptr<CHookHandler> pHandler;
  auto pCallback = MakeCallback(&pHandler);
  if (Traverse(run.kind, pCallback, run.strRoot).IsError()) return 2;
  return pHandler->Paths().size() == run.nExpected ? 0 : 3;
}

TEST_P(HostileRun, ReportsEverythingUnderALowDescriptorLimit) {
  CTempTree tree;
  size_t nObjects = 0;
  for (int i = 0; i < 30; ++i) {
    const std::string strFolder = std::string("d").append(std::to_string(i)).append("/e/f");
    tree.MakeFile(strFolder + "/x");
    tree.MakeFile(strFolder + "/y");
    nObjects += 5;
  }
  SLimitRun run{GetParam(), tree.Root(), nObjects};
  EXPECT_EQ(RunAsNobody(TraverseWithFewDescriptors, &run), 0);
}

// A handler may keep weak references to items: an item never turns into another object.
TEST_P(HostileRun, ItemsKeptByWeakReferenceStayTheirObjects) {
  CTempTree tree;
  for (int i = 0; i < 50; ++i) tree.MakeFile("d/f" + std::to_string(i));
  std::shared_ptr<CHookHandler> pHandler;
  auto pCallback = MakeCallback(&pHandler);
  std::mutex mutex;
  std::vector<std::pair<std::weak_ptr<CItem>, std::string>> kept;
  pHandler->m_fnHook = [&](const CItemPtr& pItem) {
    std::lock_guard<std::mutex> lock(mutex);
    kept.emplace_back(pItem, pItem->GetSourceFullyQualifiedItemName());
  };
  ASSERT_TRUE(Traverse(GetParam(), pCallback, tree.Root()).IsSuccess());
  for (const auto& [pWeak, strPath] : kept) {
    if (CItemPtr pItem = pWeak.lock()) {
      EXPECT_EQ(pItem->GetSourceFullyQualifiedItemName(), strPath);
    }
  }
}

// ---- a mount that never answers ----

// A FUSE mount whose daemon never answers: every call that reaches it blocks until the
// connection is aborted (by closing the device), which the destructor does.
class CHungMount {
 public:
  CHungMount(const std::string& strPath, const char* szType) : m_strPath(strPath) {
    m_iFd = open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (m_iFd < 0) return;
    const std::string strOptions =
        "fd=" + std::to_string(m_iFd) + ",rootmode=40000,user_id=0,group_id=0,allow_other";
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

TEST_P(HostileRun, MountThatStopsAnsweringEndsInBoundedTime) {
  CTempTree tree, out;
  tree.MakeFile("a/f");
  tree.MakeFile("c/f");
  tree.MakeFile("b/mnt/.keep");
  CHungMount hung(tree.Path("b/mnt"), "fuse");
  if (!hung.IsMounted()) GTEST_SKIP() << "no FUSE on this machine";
  std::shared_ptr<CHookHandler> pHandler;
  auto pCallback = MakeCallback(&pHandler);
  pCallback->UseFailuresFile(out.Path("failures"));

  const auto tStart = std::chrono::steady_clock::now();
  CQiError error = Traverse(GetParam(), pCallback, tree.Root(), 300ms);
  EXPECT_LT(std::chrono::steady_clock::now() - tStart, 20s);
  ASSERT_TRUE(error.IsSuccess()) << error.AsString();
  const std::set<std::string> reported = Sorted(pHandler->Paths());
  for (const char* szPath : {"a", "a/f", "b", "c", "c/f"})
    EXPECT_EQ(reported.count(tree.Path(szPath)), 1u) << szPath;
  EXPECT_EQ(pCallback->FailureLines(),
            std::vector<std::string>{"folder " + tree.Path("b") + ":" + std::to_string(ETIMEDOUT)});
}

INSTANTIATE_TEST_SUITE_P(Kinds, HostileRun, ::testing::ValuesIn(kKinds), KindName);

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
  auto pCallback = MakeCallback();
  pCallback->UseFailuresFile(out.Path("failures"));
  auto pEngine = std::make_shared<CFindFirstScanEngine>();
  (void)pEngine->SetScannerCallback(pCallback);
  auto pUnit = std::make_shared<CWorkUnit>();
  pUnit->SetLocalVolumeName("/");
  pUnit->SetSourceVolumeName("/");
  pUnit->AddScanPath(std::make_shared<CScanPath>(tree.Root(), tree.Root()));
  ASSERT_TRUE(pUnit->AddScanContentItem(tree.Root()).IsSuccess());
  EXPECT_TRUE(pEngine->ProcessWorkUnit(pUnit).IsSuccess());
  EXPECT_EQ(Sorted(pCallback->m_pHandler->Paths()),
            (std::set<std::string>{tree.Path("a"), tree.Path("a/f"), tree.Path("b")}));
  EXPECT_TRUE(pCallback->FailureLines().empty());
  EXPECT_EQ(log->CountContaining(std::string("[").append(tree.Path("b/mnt")).append("] skipped by ignoreFS rule")), 1u);
  detector.Reset();
}

}  // namespace
