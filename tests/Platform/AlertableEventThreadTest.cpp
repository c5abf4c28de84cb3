#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Platform/AlertableEventThread.h"
#include "Platform/FXErrorUtil.h"

namespace {
constexpr uint32_t kSafetyMs = 30000;

// Records every hook call in order and lets the test wait for a number of calls of a hook, so
// that nothing depends on sleeps. Hooks may be told to fail, to throw or to stop the loop.
class CRecordingThread : public CAlertableEventThread {
 public:
  explicit CRecordingThread(std::string strName = "recorder")
      : CAlertableEventThread(std::move(strName)) {}
  ~CRecordingThread() override { (void)Stop(true); }

  std::vector<std::string> Calls() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lstCalls;
  }
  int Count(const std::string& strHook) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return CountLocked(strHook);
  }
  // Waits (bounded) until the hook has been called at least n times.
  bool WaitFor(const std::string& strHook, int n) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cv.wait_for(lock, std::chrono::milliseconds(kSafetyMs),
                         [&] { return CountLocked(strHook) >= n; });
  }

  std::string m_strFailIn;            // hook that returns an error
  std::string m_strThrowIn;           // hook that throws
  std::string m_strStopIn;            // hook that calls InternalStop ...
  int m_iStopAfter = 1;               // ... on this call
  bool m_bStopWaitingInHook = false;  // use Stop(true) instead of InternalStop
  CQiError m_waitForStopInHook;       // what WaitForStop answered inside a hook

  using CAlertableEventThread::WaitForEventOrStop;

 protected:
  CQiError OnStart() override { return Hook("OnStart"); }
  CQiError OnStop() override { return Hook("OnStop"); }
  CQiError OnEvent() override { return Hook("OnEvent"); }
  CQiError OnTimeout() override { return Hook("OnTimeout"); }
  CQiError OnCompletion() override { return Hook("OnCompletion"); }

 private:
  int CountLocked(const std::string& strHook) const {
    return static_cast<int>(std::count(m_lstCalls.begin(), m_lstCalls.end(), strHook));
  }
  CQiError Hook(const std::string& strHook) {
    int iCalls;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_lstCalls.push_back(strHook);
      iCalls = CountLocked(strHook);
      m_cv.notify_all();
    }
    if (strHook == m_strStopIn && iCalls == m_iStopAfter) {
      m_waitForStopInHook = WaitForStop(0);
      if (m_bStopWaitingInHook) {
        QI_RETURN_IF_ERROR(Stop(true));
      } else {
        InternalStop();
      }
    }
    if (strHook == m_strThrowIn) throw std::runtime_error("hook exploded");
    if (strHook == m_strFailIn)
      return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Invalid directory entry");
    return CQiError();
  }

  mutable std::mutex m_mutex;
  std::condition_variable m_cv;
  std::vector<std::string> m_lstCalls;
};

using Calls = std::vector<std::string>;
}  // namespace

// With no time-out the thread can only leave its wait through the stop event: if Stop did not
// wake it, WaitForStop would run into its (generous) safety limit.
TEST(AlertableEventThreadTest, StopWakesABlockedThreadAtOnce) {
  CRecordingThread thread;
  auto pShared = FXEvent::Create(FXEvent::EResetMode::Manual);  // a stop must not set it
  thread.SetEvent(pShared);
  ASSERT_EQ(thread.GetTimeout(), FXEvent::kInfinite);
  ASSERT_TRUE(thread.Start().IsSuccess());
  ASSERT_TRUE(thread.WaitFor("OnStart", 1));
  ASSERT_TRUE(thread.Stop(false).IsSuccess());
  ASSERT_TRUE(thread.WaitForStop(kSafetyMs).IsSuccess());
  EXPECT_EQ(thread.Calls(), (Calls{"OnStart", "OnStop", "OnCompletion"}));
  EXPECT_FALSE(pShared->IsSet());
}

TEST(AlertableEventThreadTest, StopWithWaitFromItsOwnHookDoesNotDeadlock) {
  for (bool bSynchronous : {true, false}) {
    CRecordingThread thread;
    thread.m_strStopIn = "OnEvent";
    thread.m_bStopWaitingInHook = true;
    thread.Signal();  // kept until the loop waits
    if (bSynchronous) {
      EXPECT_TRUE(thread.StartSynchronously().IsSuccess());
    } else {
      ASSERT_TRUE(thread.Start().IsSuccess());
      ASSERT_TRUE(thread.WaitForStop(kSafetyMs).IsSuccess());
    }
    EXPECT_EQ(thread.Calls(), (Calls{"OnStart", "OnEvent", "OnStop", "OnCompletion"}));
  }
}

// While a synchronous run is active a second start of either kind is refused; a stop from
// another thread ends the run.
TEST(AlertableEventThreadTest, StopFromAnotherThreadEndsASynchronousRun) {
  CRecordingThread thread;
  CQiError runError = QI_ERROR_WIN32(QiErrorCode::FunctionFailed);
  std::thread runner([&] { runError = thread.StartSynchronously(); });
  ASSERT_TRUE(thread.WaitFor("OnStart", 1));
  EXPECT_TRUE(thread.IsActive());
  CQiError error = thread.Start();
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidParameter));
  EXPECT_EQ(error.GetMessage(), "Thread is already running, Thread=recorder");
  EXPECT_TRUE(thread.StartSynchronously().IsWin32(QiErrorCode::InvalidParameter));
  ASSERT_TRUE(thread.Stop(true).IsSuccess());
  EXPECT_FALSE(thread.IsActive());
  runner.join();
  EXPECT_TRUE(runError.IsSuccess());
  EXPECT_EQ(thread.Calls(), (Calls{"OnStart", "OnStop", "OnCompletion"}));
}

struct FailRow {
  std::string strHook;
  Calls lstExpected;
};
class AlertableEventThreadFailures : public ::testing::TestWithParam<FailRow> {};

// A failing hook ends the run; the error is the thread's last error, in both run modes.
TEST_P(AlertableEventThreadFailures, FailingHookEndsTheRunAndIsKept) {
  for (bool bSynchronous : {true, false}) {
    CRecordingThread thread;
    thread.m_strFailIn = GetParam().strHook;
    thread.SetTimeout(0);              // OnTimeout comes at once
    thread.m_strStopIn = "OnTimeout";  // ends a run in which nothing fails
    thread.m_iStopAfter = 1;
    if (GetParam().strHook == "OnEvent") {
      thread.SetTimeout(FXEvent::kInfinite);
      thread.Signal();
    }
    CQiError runError;
    if (bSynchronous) {
      runError = thread.StartSynchronously();
    } else {
      ASSERT_TRUE(thread.Start().IsSuccess());
      ASSERT_TRUE(thread.WaitForStop(kSafetyMs).IsSuccess());
      runError = thread.GetLastError();
    }
    EXPECT_TRUE(runError.IsWin32(QiErrorCode::InvalidData));
    EXPECT_EQ(runError.GetMessage(), "Invalid directory entry");
    EXPECT_TRUE(thread.GetLastError().IsWin32(QiErrorCode::InvalidData));
    EXPECT_EQ(thread.Calls(), GetParam().lstExpected);
    EXPECT_FALSE(thread.IsStopRequested());  // the request ended with its run
    // InternalStop came from OnTimeout, whose own thread cannot wait for the stop.
    EXPECT_TRUE(thread.Count("OnTimeout") == 0 || thread.m_waitForStopInHook.GetMessage() ==
                    "A thread cannot wait for its own stop, Thread=recorder");
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, AlertableEventThreadFailures,
    ::testing::Values(FailRow{"OnStart", {"OnStart", "OnCompletion"}},
                      FailRow{"OnEvent", {"OnStart", "OnEvent", "OnStop", "OnCompletion"}},
                      FailRow{"OnTimeout", {"OnStart", "OnTimeout", "OnStop", "OnCompletion"}},
                      FailRow{"OnStop", {"OnStart", "OnTimeout", "OnStop", "OnCompletion"}},
                      FailRow{"OnCompletion", {"OnStart", "OnTimeout", "OnStop", "OnCompletion"}}));

TEST(AlertableEventThreadTest, ExceptionInAHookBecomesTheLastError) {
  CRecordingThread thread;
  thread.m_strThrowIn = "OnEvent";
  thread.Signal();
  ASSERT_TRUE(thread.Start().IsSuccess());
  ASSERT_TRUE(thread.WaitForStop(kSafetyMs).IsSuccess());
  CQiError error = thread.GetLastError();
  EXPECT_TRUE(error.IsWin32(QiErrorCode::FunctionFailed));
  EXPECT_EQ(error.GetMessage(),
            "Thread hook OnEvent ended by an exception, Thread=recorder, what=hook exploded");
  // The loop ends as after an error; the run still goes through OnStop and OnCompletion.
  EXPECT_EQ(thread.Calls(), (Calls{"OnStart", "OnEvent", "OnStop", "OnCompletion"}));
  // The object is usable again.
  thread.m_strThrowIn.clear();
  ASSERT_TRUE(thread.Start().IsSuccess());
  thread.Signal();
  ASSERT_TRUE(thread.WaitFor("OnEvent", 2));
  ASSERT_TRUE(thread.Stop(true).IsSuccess());
  EXPECT_TRUE(thread.GetLastError().IsSuccess());
}

TEST(AlertableEventThreadTest, WaitForEventOrStopTellsWhichCameFirst) {
  CRecordingThread thread;
  FXEvent other(FXEvent::EResetMode::Auto);
  using EWait = CAlertableEventThread::EWaitResult;
  EXPECT_EQ(thread.WaitForEventOrStop(&other, 0), EWait::TimedOut);
  other.Set();
  EXPECT_EQ(thread.WaitForEventOrStop(&other, 0), EWait::Signalled);
  // A running base thread is stopped and joined by its destructor.
  auto pThread = std::make_unique<CAlertableEventThread>("plain");
  ASSERT_TRUE(pThread->Start().IsSuccess());
  pThread->Signal();
  pThread.reset();
}
