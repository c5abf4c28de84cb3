// The second-generation folder traversal on real temporary trees: scan failures raised by a
// worker while others are busy, abort from another thread, the coordinator never listing folders
// itself, workers of a derived kind, and roots selected by the work unit.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "Scan/TraverseFolderWorker2.h"
#include "TraversalTestSupport.h"

using namespace TraversalTestSupport;

namespace {

enum class EFault { None, HandlerFails, AbortMidway, MissingRoot, EmptyQueue };

struct SCase {
  const char* szName;
  EFault eFault;
  int iWorkers;
  uint32_t uWin32;  // expected Win32 code (0: success, unless an errno is expected)
  int iErrNo;
  const char* szLog;
};

const SCase kCases[] = {
    {"EmptyQueueFourWorkers", EFault::EmptyQueue, 4, 0, 0, "[4] Worker threads will be created."},
    {"WholeTreeOneWorker", EFault::None, 1, 0, 0, "[1] Worker threads will be created."},
    {"WholeTreeFourWorkers", EFault::None, 4, 0, 0, "[4] Worker threads will be created."},
    // The handler fails while other workers are busy: the scan ends with its failure, not 995.
    {"HandlerFailsOneWorker", EFault::HandlerFails, 1, 5, 0, "Traverse aborted, ScanFailure="},
    {"HandlerFailsFourWorkers", EFault::HandlerFails, 4, 5, 0, "Traverse aborted, ScanFailure="},
    {"AbortFromWorkerThread", EFault::AbortMidway, 3, 995, 0, "Traverse aborted, FoldersToTraverse=["},
    {"MissingRootEndsTheScan", EFault::MissingRoot, 2, 0, ENOENT,
     "Scan failure encountered, terminating worker threads, error="},
};

class TraverseFolder2Run : public ::testing::TestWithParam<SCase> {};

TEST_P(TraverseFolder2Run, EndsAsExpected) {
  const SCase& c = GetParam();
  CLogCapture log(1);
  CTempTree tree;
  for (int i = 0; i < 6; ++i)
    for (int j = 0; j < 20; ++j) tree.MakeFile("d" + std::to_string(i) + "/s/f" + std::to_string(j), "x");
  auto pCallback = std::make_shared<CTestCallback>();
  const pid_t iMainThread = gettid();
  std::atomic<int> iOnMainThread{0};
  auto& handler = *pCallback->m_pHandler;
  handler.m_fnOnItem = [&](size_t nCount) {
    if (gettid() == iMainThread) ++iOnMainThread;
    if (c.eFault == EFault::AbortMidway && nCount == 10) (void)pCallback->Abort();
  };
  if (c.eFault == EFault::HandlerFails) handler.m_uFailCode = 5;

  CTraverseFolder2 traversal(MakeUnit({}), pCallback);
  traversal.SetMaxWorkers(c.iWorkers);
  traversal.SetAbortCheck(pCallback.get());
  if (c.eFault != EFault::EmptyQueue) traversal.AddFolderToList(tree.Path(c.eFault == EFault::MissingRoot ? "nope" : ""));

  CQiError error = traversal.Traverse();
  EXPECT_TRUE(c.iErrNo ? error.IsErrNo(c.iErrNo) : c.uWin32 ? error.IsWin32(c.uWin32) : error.IsSuccess())
      << error.AsString();
  EXPECT_EQ(log->CountContaining(c.szLog), 1u) << c.szLog;
  EXPECT_EQ(iOnMainThread.load(), 0) << "the coordinator listed a folder itself";
  if (c.eFault == EFault::None || c.eFault == EFault::EmptyQueue) {
    EXPECT_EQ(handler.Records().size(), c.eFault == EFault::None ? 6u * 22u : 0u);
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
  CTraverseFolderWorker2Ptr CreateWorker(CTraverseFolderPrivate2Ptr pPrivate, int iIndex) const override {
    ++s_iCreated;
    return std::make_shared<CCountingWorker>(std::move(pPrivate), iIndex);
  }
  static inline std::atomic<int> s_iCreated{0};
};

TEST(TraverseFolder2Prototype, DerivedPrototypeMakesEveryWorker) {
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

// The root is filtered like any entry: outside the content it is not reported, but still listed
// for the content below it; a root that the filters exclude whole is neither reported nor listed.
class TraverseFolder2SelectedRoot : public ::testing::TestWithParam<std::tuple<bool, int>> {};

TEST_P(TraverseFolder2SelectedRoot, IsReportedAndListedAsSelected) {
  const auto [bExcluded, iWorkers] = GetParam();
  CTempTree tree;
  tree.MakeFile("a/f1", "1");
  tree.MakeFile("a/b/f2", "22");
  CWorkUnitPtr pUnit = MakeUnit({});
  // A filter path counts for a work unit whose scan paths it concerns.
  pUnit->AddScanPath(std::make_shared<CScanPath>(tree.Root(), tree.Root()));
  ASSERT_TRUE((bExcluded ? pUnit->AddFilterItem(tree.Path("a")) : pUnit->AddScanContentItem(tree.Path("a/b"))).IsSuccess());
  auto pCallback = std::make_shared<CTestCallback>();
  ASSERT_TRUE(Traverse({"", true, iWorkers}, pCallback, {tree.Path(bExcluded ? "a" : "")}, {true, {}, pUnit}).IsSuccess());
  EXPECT_EQ(Bag(pCallback->m_pHandler->Paths()),
            Bag(bExcluded ? std::vector<std::string>{} : std::vector{tree.Path("a/b"), tree.Path("a/b/f2")}));
}

INSTANTIATE_TEST_SUITE_P(Roots, TraverseFolder2SelectedRoot, ::testing::Combine(::testing::Bool(), ::testing::Values(1, 3)));

}  // namespace
