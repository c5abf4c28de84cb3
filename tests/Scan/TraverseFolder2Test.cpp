// The second-generation folder traversal on real temporary trees: completion, scan failures
// raised by a worker while others are busy, abort from another thread, and the coordinator never
// listing folders itself.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>

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
      tree.MakeFile("d" + std::to_string(i) + "/s/f" + std::to_string(j), "x");
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

}  // namespace
