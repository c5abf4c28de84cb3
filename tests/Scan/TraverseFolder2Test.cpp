// The second-generation folder traversal on real temporary trees: completion, scan failures
// raised by a worker while others are busy, abort from another thread, the coordinator never
// listing folders itself, and the reporting of the content roots themselves (top-level
// processing).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "Scan/TraverseFolder2.h"
#include "Scan/TraverseFolderWorker2.h"
#include "Support/TempTree.h"
#include "TraversalTestSupport.h"

using namespace TraversalTestSupport;

namespace {

enum class EFault { None, HandlerFails, AbortMidway, MissingRoot, EmptyQueue };

struct SCase {
  const char* szName;
  EFault eFault;
  int iWorkers;
  uint32_t uExpectedCode;  // 0: success
  bool bExpectErrNo;
  const char* szExpectedLog;
};

const SCase kCases[] = {
    {"EmptyQueueOneWorker", EFault::EmptyQueue, 1, 0, false, "[1] Worker threads will be created."},
    {"EmptyQueueFourWorkers", EFault::EmptyQueue, 4, 0, false, "[4] Worker threads will be created."},
    {"WholeTreeOneWorker", EFault::None, 1, 0, false, "[1] Worker threads will be created."},
    {"WholeTreeFourWorkers", EFault::None, 4, 0, false, "[4] Worker threads will be created."},
    // The handler fails while other workers are busy: the scan ends with its failure, not 995.
    {"HandlerFailsOneWorker", EFault::HandlerFails, 1, 5, false, "Traverse aborted, ScanFailure="},
    {"HandlerFailsFourWorkers", EFault::HandlerFails, 4, 5, false, "Traverse aborted, ScanFailure="},
    {"AbortFromWorkerThread", EFault::AbortMidway, 3, 995, false,
     "Traverse aborted, FoldersToTraverse=["},
    {"MissingRootEndsTheScan", EFault::MissingRoot, 2, ENOENT, true,
     "Scan failure encountered, terminating worker threads, error="},
};

class TraverseFolder2Run : public ::testing::TestWithParam<SCase> {};

TEST_P(TraverseFolder2Run, EndsAsExpected) {
  const SCase& c = GetParam();
  CLogCapture log(1);
  CTempTree tree;
  for (int i = 0; i < 6; ++i)
    for (int j = 0; j < 20; ++j)
      tree.MakeFile(std::string("d").append(std::to_string(i)).append("/s/f").append(std::to_string(j)), "x");
  auto pCallback = std::make_shared<CTestCallback>();
  auto pUnit = std::make_shared<CWorkUnit>();
  pUnit->SetLocalVolumeName("/");
  pUnit->SetSourceVolumeName("/");

  const pid_t iMainThread = gettid();
  std::atomic<int> iOnMainThread{0};
  auto& handler = *pCallback->m_pHandler;
  handler.m_fnOnItem = [&](size_t nCount) {
    if (gettid() == iMainThread) ++iOnMainThread;
    if (c.eFault == EFault::AbortMidway && nCount == 10) (void)pCallback->Abort();
  };
  if (c.eFault == EFault::HandlerFails) handler.m_uFailCode = 5;

  CTraverseFolder2 traversal(pUnit, pCallback);
  traversal.SetMaxWorkers(c.iWorkers);
  traversal.SetAbortCheck(pCallback.get());
  if (c.eFault == EFault::MissingRoot) traversal.AddFolderToList(tree.Path("nope"));
  else if (c.eFault != EFault::EmptyQueue) traversal.AddFolderToList(tree.Root());

  CQiError error = traversal.Traverse();
  if (c.uExpectedCode == 0) {
    EXPECT_TRUE(error.IsSuccess()) << error.AsString();
  } else if (c.bExpectErrNo) {
    EXPECT_TRUE(error.IsErrNo(static_cast<int>(c.uExpectedCode))) << error.AsString();
  } else {
    EXPECT_TRUE(error.IsWin32(c.uExpectedCode)) << error.AsString();
  }
  EXPECT_EQ(log->CountContaining(c.szExpectedLog), 1u) << c.szExpectedLog;
  EXPECT_EQ(iOnMainThread.load(), 0) << "the coordinator listed a folder itself";
  if (c.eFault == EFault::None) {
    EXPECT_EQ(handler.Records().size(), 6u * 22u);
  }
  if (c.eFault == EFault::EmptyQueue) {
    EXPECT_TRUE(handler.Records().empty());
  }
  // The handler is opened and closed once whatever the outcome.
  EXPECT_EQ(handler.m_iInitialized.load(), 1);
  EXPECT_EQ(handler.m_iCompleted.load(), 1);
}

INSTANTIATE_TEST_SUITE_P(Cases, TraverseFolder2Run, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.szName); });

// A prototype worker of a derived kind yields workers of that kind.
class CCountingWorker : public CTraverseFolderWorker2 {
 public:
  using CTraverseFolderWorker2::CTraverseFolderWorker2;
  CTraverseFolderWorker2Ptr CreateWorker(CTraverseFolderPrivate2Ptr pPrivate,
                                         int iIndex) const override {
    ++s_iCreated;
    return std::make_shared<CCountingWorker>(std::move(pPrivate), iIndex);
  }
  static inline std::atomic<int> s_iCreated{0};
};

TEST(TraverseFolder2Prototype, DerivedPrototypeMakesEveryWorker) {
  CCountingWorker::s_iCreated = 0;
  CTempTree tree;
  tree.MakeFile("a/b", "x");
  auto pCallback = std::make_shared<CTestCallback>();
  CTraverseFolder2 traversal(std::make_shared<CWorkUnit>(), pCallback);
  traversal.SetWorker(std::make_shared<CCountingWorker>(traversal.GetPrivate()));
  traversal.SetMaxWorkers(3);
  traversal.AddFolderToList(tree.Root());
  ASSERT_TRUE(traversal.Traverse().IsSuccess());
  EXPECT_EQ(CCountingWorker::s_iCreated.load(), 3);
  EXPECT_EQ(pCallback->m_pHandler->Records().size(), 2u);
}

// ---- top-level processing ----

// What one row sets up: the tree, the work unit's selection and the queued roots; it returns the
// paths that the handler must receive (in any order) and the roots that must precede everything
// below them.
struct STopLevelSetUp {
  std::vector<std::string> lstExpected;
  std::vector<std::string> lstRootsFirst;
};

struct STopLevelCase {
  const char* szName;
  bool bProcessTopLevel;
  std::function<STopLevelSetUp(CTempTree&, CWorkUnit&, CTraverseFolder2&)> fnSetUp;
  int iErrNo;                 // 0: success
  const char* szErrorText;    // in the error's text, %R standing for the tree's root
};

std::string WithRoot(const char* szText, const std::string& strRoot) {
  std::string strResult = szText;
  if (size_t pos = strResult.find("%R"); pos != std::string::npos) strResult.replace(pos, 2, strRoot);
  return strResult;
}

void MakeSmallTree(CTempTree& tree) {
  tree.MakeFile("a/f1", "1");
  tree.MakeFile("a/b/f2", "22");
  tree.MakeFile("g", "333");
}

std::vector<std::string> SmallTreeItems(const CTempTree& tree) {
  return {tree.Path("a"), tree.Path("a/b"), tree.Path("a/b/f2"), tree.Path("a/f1"),
          tree.Path("g")};
}

const STopLevelCase kTopLevelCases[] = {
    {"FolderRootReportedBeforeItsContent", true,
     [](CTempTree& tree, CWorkUnit&, CTraverseFolder2& traversal) {
       MakeSmallTree(tree);
       traversal.AddFolderToList(tree.Root());
       STopLevelSetUp setUp{SmallTreeItems(tree), {tree.Root()}};
       setUp.lstExpected.push_back(tree.Root());
       return setUp;
     },
     0, nullptr},
    {"FolderRootNotReportedWithoutTheSwitch", false,
     [](CTempTree& tree, CWorkUnit&, CTraverseFolder2& traversal) {
       MakeSmallTree(tree);
       traversal.AddFolderToList(tree.Root());
       return STopLevelSetUp{SmallTreeItems(tree), {}};
     },
     0, nullptr},
    {"EveryQueuedRootReported", true,
     [](CTempTree& tree, CWorkUnit&, CTraverseFolder2& traversal) {
       tree.MakeFile("r1/x", "1");
       tree.MakeFile("r2/y/z", "2");
       traversal.AddFolderToList(tree.Path("r1"));
       traversal.AddFolderToList(tree.Path("r2"));
       return STopLevelSetUp{{tree.Path("r1"), tree.Path("r1/x"), tree.Path("r2"),
                              tree.Path("r2/y"), tree.Path("r2/y/z")},
                             {tree.Path("r1"), tree.Path("r2")}};
     },
     0, nullptr},
    // A root that is a file (or a link) is one item, reported once, not once more by its listing.
    {"FileRootReportedOnce", true,
     [](CTempTree& tree, CWorkUnit&, CTraverseFolder2& traversal) {
       traversal.AddFolderToList(tree.MakeFile("only.txt", "abc"));
       return STopLevelSetUp{{tree.Path("only.txt")}, {}};
     },
     0, nullptr},
    {"LinkRootReportedOnceNotFollowed", true,
     [](CTempTree& tree, CWorkUnit&, CTraverseFolder2& traversal) {
       tree.MakeFile("target/inside", "x");
       traversal.AddFolderToList(tree.MakeSymlink("link", tree.Path("target")));
       return STopLevelSetUp{{tree.Path("link")}, {}};
     },
     0, nullptr},
    // A missing root is left to its listing, which fails the scan as the first folder.
    {"MissingRootStillEndsTheScan", true,
     [](CTempTree& tree, CWorkUnit&, CTraverseFolder2& traversal) {
       traversal.AddFolderToList(tree.Path("missing"));
       return STopLevelSetUp{};
     },
     ENOENT, "Traverse failed, Content Path=%R/missing not found"},
    // The root is filtered like any entry: outside the content it is not reported, but still
    // listed for the content below it.
    {"RootOutsideContentListedNotReported", true,
     [](CTempTree& tree, CWorkUnit& unit, CTraverseFolder2& traversal) {
       MakeSmallTree(tree);
       EXPECT_TRUE(unit.AddScanContentItem(tree.Path("a/b")).IsSuccess());
       traversal.AddFolderToList(tree.Root());
       return STopLevelSetUp{{tree.Path("a/b"), tree.Path("a/b/f2")}, {}};
     },
     0, nullptr},
    // A root that the filters exclude whole is neither reported nor listed.
    {"ExcludedRootNeitherReportedNorListed", true,
     [](CTempTree& tree, CWorkUnit& unit, CTraverseFolder2& traversal) {
       MakeSmallTree(tree);
       // A filter path counts for a work unit whose scan paths it concerns.
       unit.AddScanPath(std::make_shared<CScanPath>(tree.Root(), tree.Root()));
       EXPECT_TRUE(unit.AddFilterItem(tree.Path("a")).IsSuccess());
       traversal.AddFolderToList(tree.Path("a"));
       return STopLevelSetUp{};
     },
     0, nullptr},
};

void PrintTo(const STopLevelCase& c, std::ostream* pStream) { *pStream << c.szName; }

class TraverseFolder2TopLevel
    : public ::testing::TestWithParam<std::tuple<STopLevelCase, int>> {};

TEST_P(TraverseFolder2TopLevel, ReportsTheRootsAsSelected) {
  const STopLevelCase& c = std::get<0>(GetParam());
  const int iWorkers = std::get<1>(GetParam());
  CTempTree tree;
  auto pCallback = std::make_shared<CTestCallback>();
  auto pUnit = std::make_shared<CWorkUnit>();
  pUnit->SetLocalVolumeName("/");
  pUnit->SetSourceVolumeName("/");
  CTraverseFolder2 traversal(pUnit, pCallback);
  traversal.SetMaxWorkers(iWorkers);
  traversal.SetProcessTopLevelContentItem(c.bProcessTopLevel);
  const STopLevelSetUp setUp = c.fnSetUp(tree, *pUnit, traversal);

  CQiError error = traversal.Traverse();

  if (c.iErrNo == 0) {
    EXPECT_TRUE(error.IsSuccess()) << error.AsString();
  } else {
    EXPECT_TRUE(error.IsErrNo(c.iErrNo)) << error.AsString();
    const std::string strText = WithRoot(c.szErrorText, tree.Root());
    EXPECT_NE(error.AsString().find(strText), std::string::npos) << error.AsString();
  }
  const std::vector<std::string> lstPaths = pCallback->m_pHandler->Paths();
  std::vector<std::string> lstSorted = lstPaths, lstExpected = setUp.lstExpected;
  std::sort(lstSorted.begin(), lstSorted.end());
  std::sort(lstExpected.begin(), lstExpected.end());
  EXPECT_EQ(lstSorted, lstExpected);
  // A root comes before everything below it.
  for (const std::string& strRoot : setUp.lstRootsFirst) {
    const auto itRoot = std::find(lstPaths.begin(), lstPaths.end(), strRoot);
    ASSERT_NE(itRoot, lstPaths.end()) << strRoot;
    for (auto it = lstPaths.begin(); it != itRoot; ++it)
      EXPECT_NE(it->rfind(strRoot + "/", 0), 0u) << *it << " came before its root " << strRoot;
  }
  EXPECT_EQ(pCallback->m_pHandler->m_iInitialized.load(), 1);
  EXPECT_EQ(pCallback->m_pHandler->m_iCompleted.load(), 1);
}

INSTANTIATE_TEST_SUITE_P(Roots, TraverseFolder2TopLevel,
                         ::testing::Combine(::testing::ValuesIn(kTopLevelCases),
                                            ::testing::Values(1, 3)),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param).szName) + "_" +
                                  std::to_string(std::get<1>(info.param)) + "Workers";
                         });

// A root that is reported and then cannot be listed is still the first folder: its listing
// failure ends the scan, as it does without top-level processing. Run as an unprivileged user,
// so that the permission is real.
struct SUnreadableRun {
  int iWorkers;
  std::string strRoot;
  std::string strOut;
};

int TraverseUnreadableRoot(void* pArg) {
  const SUnreadableRun& run = *static_cast<const SUnreadableRun*>(pArg);
  auto pCallback = std::make_shared<CTestCallback>();
  CTraverseFolder2 traversal(std::make_shared<CWorkUnit>(), pCallback);
  traversal.SetMaxWorkers(run.iWorkers);
  traversal.SetProcessTopLevelContentItem(true);
  traversal.AddFolderToList(run.strRoot);
  const CQiError error = traversal.Traverse();
  std::ofstream file(run.strOut, std::ios::binary);
  file << (error.IsErrNo(EACCES) ? "EACCES" : "other") << '\n' << error.AsString() << '\n';
  for (const std::string& strPath : pCallback->m_pHandler->Paths()) file << strPath << '\n';
  return file.good() ? 0 : 1;
}

class TraverseFolder2UnreadableRoot : public ::testing::TestWithParam<int> {};

TEST_P(TraverseFolder2UnreadableRoot, ReportedThenFailsAsTheFirstFolder) {
  CTempTree tree, out;
  tree.MakeFile("locked/secret");
  chmod(tree.Path("locked").c_str(), 0);
  SUnreadableRun run{GetParam(), tree.Path("locked"), out.MakeDir("o", 0777) + "/result"};
  ASSERT_EQ(RunAsNobody(TraverseUnreadableRoot, &run), 0);
  std::ifstream file(run.strOut, std::ios::binary);
  std::string strKind, strError, strPath;
  std::getline(file, strKind);
  std::getline(file, strError);
  std::vector<std::string> lstPaths;
  while (std::getline(file, strPath)) lstPaths.push_back(strPath);
  EXPECT_EQ(strKind, "EACCES") << strError;
  EXPECT_NE(strError.find("FindFirst failed, Content Path=" + tree.Path("locked")), std::string::npos)
      << strError;
  EXPECT_EQ(lstPaths, std::vector<std::string>{tree.Path("locked")});
}

INSTANTIATE_TEST_SUITE_P(Workers, TraverseFolder2UnreadableRoot, ::testing::Values(1, 3),
                         [](const auto& info) { return std::to_string(info.param) + "Workers"; });

}  // namespace
