#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Platform/FXEvent.h"
#include "Platform/ZrThreadPool.h"
#include "Support/LogCapture.h"
#include "Support/PlatformTestSupport.h"

namespace {
constexpr uint32_t kSafetyMs = 30000;

// A barrier that every job must reach before any may leave: it can only be passed when all
// `count` jobs run at the same time. A job that waits past the safety limit reports failure
// instead of hanging the test.
class CBarrier {
 public:
  explicit CBarrier(int iCount) : m_iCount(iCount) {}
  bool ArriveAndWait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    ++m_iArrived;
    m_cv.notify_all();
    return m_cv.wait_for(lock, std::chrono::milliseconds(kSafetyMs),
                         [this] { return m_iArrived >= m_iCount; });
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_cv;
  int m_iCount;
  int m_iArrived = 0;
};

class ThreadPoolTest : public ::testing::Test {
 protected:
  CLogCapture writer{1};
};

unsigned ReturnArgument(void* pArg) { return *static_cast<unsigned*>(pArg); }
}  // namespace

class ThreadPoolConcurrency : public ThreadPoolTest, public ::testing::WithParamInterface<int> {};

// The facade's call: N jobs, one per physical medium, must all run at once.
TEST_P(ThreadPoolConcurrency, FacadeInitializationRunsNJobsAtOnce) {
  const int N = GetParam();
  ZrThreadPool pool;
  ASSERT_EQ(pool.Initialize("BasicScannerPrivate", 200, N, N + 1, N), 1);
  EXPECT_EQ(pool.GetThreadCount(), N);

  CBarrier barrier(N);
  std::vector<int> lstJobs;
  for (int i = 0; i < N; ++i) {
    int iJob = pool.QueueJob([&barrier] { return barrier.ArriveAndWait() ? 0 : 1; });
    ASSERT_NE(iJob, ZrThreadPool::kInvalidJob);
    lstJobs.push_back(iJob);
  }
  ASSERT_EQ(pool.WaitForAll(true, false, false, -1), 1);
  for (int iJob : lstJobs) {
    unsigned uExitCode = 99;
    ASSERT_TRUE(pool.GetJobExitCode(iJob, uExitCode));
    EXPECT_EQ(uExitCode, 0u) << "job " << iJob << " did not meet the others";
  }
}

// 250: more media than jobs may wait, all queued before any thread has taken one.
INSTANTIATE_TEST_SUITE_P(Table, ThreadPoolConcurrency, ::testing::Values(3, 250));

TEST_F(ThreadPoolTest, PoolGrowsUpToItsMaximumWhenEveryThreadIsBusy) {
  ZrThreadPool pool;
  ASSERT_EQ(pool.Initialize("grow", 200, 1, 3, 1), 1);
  EXPECT_EQ(pool.GetThreadCount(), 1);
  CBarrier barrier(3);
  std::atomic<int> iMet{0};
  for (int i = 0; i < 3; ++i)
    ASSERT_NE(pool.QueueJob([&] {
      if (barrier.ArriveAndWait()) ++iMet;
      return 0;
    }),
              ZrThreadPool::kInvalidJob);
  ASSERT_EQ(pool.WaitForAll(true, false, true, -1), 1);
  EXPECT_EQ(iMet.load(), 3);
  EXPECT_EQ(pool.GetThreadCount(), 3);
}

TEST_F(ThreadPoolTest, WaitForAllWaitsForEveryJob) {
  ZrThreadPool pool;
  ASSERT_EQ(pool.Initialize("waitall", 200, 4, 4, 4), 1);
  FXEvent gate(FXEvent::EResetMode::Manual);
  std::vector<std::atomic<bool>> lstDone(4);
  for (int i = 0; i < 4; ++i)
    pool.QueueJob([&, i] {
      (void)gate.Wait(kSafetyMs);
      lstDone[i] = true;
      return 0;
    });
  EXPECT_EQ(pool.WaitForAll(true, false, false, 0), 0);
  EXPECT_EQ(pool.GetLastErrorCode(), ZrThreadPool::kErrorWaitTimeout);
  EXPECT_EQ(pool.GetLastError().GetMessage(),
            "Wait for jobs timed out, Name=waitall, TimeoutMs=0, Unfinished=4");
  gate.Set();
  ASSERT_EQ(pool.WaitForAll(true, false, true, -1), 1);
  for (auto& bDone : lstDone) EXPECT_TRUE(bDone.load());
  EXPECT_EQ(pool.GetUnfinishedJobCount(), 0);
}

TEST_F(ThreadPoolTest, WaitForAnyReturnsOnceOneJobHasFinished) {
  ZrThreadPool pool;
  ASSERT_EQ(pool.Initialize("waitany", 200, 2, 2, 2), 1);
  FXEvent gate(FXEvent::EResetMode::Manual);
  pool.QueueJob([] { return 0; });
  pool.QueueJob([&] { return gate.Wait(kSafetyMs) == FXEvent::EWaitResult::Signalled ? 0 : 1; });
  ASSERT_EQ(pool.WaitForAll(false, false, false, -1), 1);
  EXPECT_EQ(pool.GetUnfinishedJobCount(), 1);
  gate.Set();
  ASSERT_EQ(pool.WaitForAll(true, false, false, -1), 1);
}

TEST_F(ThreadPoolTest, PlainJobFunctionsGiveTheirExitCodes) {
  ZrThreadPool pool;
  ASSERT_EQ(pool.Initialize("plain", 200, 2, 2, 2), 1);
  unsigned a = 7, b = 11, uA = 0, uB = 0;
  int iA = pool.QueueJob(&ReturnArgument, &a);
  int iB = pool.QueueJob(&ReturnArgument, &b);
  ASSERT_EQ(pool.WaitForAll(true, false, false, -1), 1);
  ASSERT_TRUE(pool.GetJobExitCode(iA, uA) && pool.GetJobExitCode(iB, uB));
  EXPECT_EQ(std::vector<unsigned>({unsigned(iA), unsigned(iB), uA, uB}),
            std::vector<unsigned>({0, 1, 7, 11}));

  // Removing the finished jobs forgets their records; indexes go on.
  ASSERT_EQ(pool.WaitForAll(true, false, true, -1), 1);
  EXPECT_FALSE(pool.GetJobExitCode(iA, uA));
  EXPECT_EQ(pool.QueueJob(&ReturnArgument, &a), 2);
  ASSERT_EQ(pool.WaitForAll(true, false, true, -1), 1);
}

TEST_F(ThreadPoolTest, QueueingWithoutInitializeOrAfterShutdownFailsClearly) {
  ZrThreadPool pool, closed;
  ASSERT_EQ(closed.Initialize("closed", 200, 1, 1, 1), 1);
  closed.Shutdown();
  std::string got;
  auto note = [&](const ZrThreadPool& p) {
    got += std::to_string(p.GetLastErrorCode()) + " " + p.GetLastError().GetMessage() + "\n";
  };
  EXPECT_EQ(pool.QueueJob([] { return 0; }), ZrThreadPool::kInvalidJob);
  note(pool);
  EXPECT_NE(pool.WaitForAll(true, false, true, -1), 1);
  note(pool);
  EXPECT_EQ(closed.QueueJob([] { return 0; }), ZrThreadPool::kInvalidJob);
  note(closed);
  EXPECT_EQ(closed.QueueJob(nullptr, nullptr), ZrThreadPool::kInvalidJob);
  note(closed);
  EXPECT_EQ(got,
            "87 Thread pool is not initialized or shut down, Name=\n"
            "87 Thread pool is not initialized, Name=\n"
            "87 Thread pool is not initialized or shut down, Name=closed\n"
            "87 No job function given, Name=closed\n");
}

struct InitRow {
  int iQueueLimit, iMin, iMax, iInitial;
};
class ThreadPoolBadArguments : public ThreadPoolTest,
                               public ::testing::WithParamInterface<InitRow> {};

TEST_P(ThreadPoolBadArguments, InitializeRefusesThem) {
  const InitRow& row = GetParam();
  ZrThreadPool pool;
  EXPECT_NE(pool.Initialize("bad", row.iQueueLimit, row.iMin, row.iMax, row.iInitial), 1);
  EXPECT_EQ(pool.GetLastErrorCode(), QiErrorCode::InvalidParameter);
  char szExpected[200];
  snprintf(szExpected, sizeof(szExpected),
           "Invalid thread pool parameters, Name=bad, QueueLimit=%d, MinThreads=%d, "
           "MaxThreads=%d, InitialThreads=%d",
           row.iQueueLimit, row.iMin, row.iMax, row.iInitial);
  EXPECT_EQ(pool.GetLastError().GetMessage(), szExpected);
  EXPECT_EQ(pool.QueueJob([] { return 0; }), ZrThreadPool::kInvalidJob);
}

INSTANTIATE_TEST_SUITE_P(Table, ThreadPoolBadArguments,
                         ::testing::Values(InitRow{0, 1, 2, 1}, InitRow{200, 3, 2, 2},
                                           InitRow{200, 0, 0, 0}, InitRow{200, 1, 2, -1}));

TEST_F(ThreadPoolTest, JobBeyondTheQueueLimitIsRefused) {
  ZrThreadPool pool;
  ASSERT_EQ(pool.Initialize("small", 1, 1, 1, 1), 1);
  FXEvent started(FXEvent::EResetMode::Manual), gate(FXEvent::EResetMode::Manual);
  ASSERT_NE(pool.QueueJob([&] {
    started.Set();
    (void)gate.Wait(kSafetyMs);
    return 0;
  }),
            ZrThreadPool::kInvalidJob);
  ASSERT_EQ(started.Wait(kSafetyMs), FXEvent::EWaitResult::Signalled);
  ASSERT_NE(pool.QueueJob([] { return 0; }), ZrThreadPool::kInvalidJob);  // waits in the queue
  EXPECT_EQ(pool.QueueJob([] { return 0; }), ZrThreadPool::kInvalidJob);
  EXPECT_EQ(pool.GetLastErrorCode(), ZrThreadPool::kErrorQueueFull);
  EXPECT_EQ(pool.GetLastError().GetMessage(),
            "Thread pool queue is full, Name=small, QueueLimit=1");
  gate.Set();
  EXPECT_EQ(pool.WaitForAll(true, false, true, -1), 1);
}

TEST_F(ThreadPoolTest, ThrowingJobDoesNotStopThePool) {
  ZrThreadPool pool;
  ASSERT_EQ(pool.Initialize("throwing", 200, 1, 1, 1), 1);
  int iThrows = pool.QueueJob([]() -> int { throw std::runtime_error("bad medium"); });
  int iOdd = pool.QueueJob([]() -> int { throw 42; });
  std::atomic<int> iRan{0};
  for (int i = 0; i < 5; ++i) pool.QueueJob([&] { return ++iRan, 0; });
  ASSERT_EQ(pool.WaitForAll(true, false, false, -1), 1);
  EXPECT_EQ(iRan.load(), 5);

  CQiError error = pool.GetJobError(iThrows);
  EXPECT_TRUE(error.IsWin32(QiErrorCode::FunctionFailed));
  EXPECT_EQ(error.GetMessage(), "Job ended by an exception, Name=throwing, Job=0, what=bad medium");
  unsigned uExitCode = 0;
  ASSERT_TRUE(pool.GetJobExitCode(iThrows, uExitCode));
  EXPECT_EQ(uExitCode, QiErrorCode::FunctionFailed);
  EXPECT_EQ(pool.GetJobError(iOdd).GetMessage(),
            "Job ended by an unknown exception, Name=throwing, Job=1");
  EXPECT_EQ(
      writer->Count("Thread pool job ended by an exception, Name=throwing, Job=0, what=bad medium",
                    -1) +
          writer->Count("Thread pool job ended by an unknown exception, Name=throwing, Job=1", -1),
      2u);
}

TEST_F(ThreadPoolTest, DestructionFinishesQueuedJobsAndJoins) {
  std::atomic<int> iRan{0};
  {
    ZrThreadPool pool;
    ASSERT_EQ(pool.Initialize("drain", 200, 1, 1, 1), 1);
    for (int i = 0; i < 20; ++i) pool.QueueJob([&] { return ++iRan, 0; });
  }
  EXPECT_EQ(iRan.load(), 20);
}

// Jobs queued from several threads at once, while others finish (run under ThreadSanitizer).
TEST_F(ThreadPoolTest, ConcurrentQueueingFromSeveralThreads) {
  ZrThreadPool pool;
  ASSERT_EQ(pool.Initialize("busy", 1000, 2, 4, 2), 1);
  std::atomic<int> iRan{0};
  RunOnThreads(3, [&](int) {
    for (int i = 0; i < 200; ++i)
      while (pool.QueueJob([&] { return ++iRan, 0; }) == ZrThreadPool::kInvalidJob)
        std::this_thread::yield();  // queue full for a moment: try again
  });
  ASSERT_EQ(pool.WaitForAll(true, false, true, -1), 1);
  EXPECT_EQ(iRan.load(), 600);
  EXPECT_LE(pool.GetThreadCount(), 4);
}
