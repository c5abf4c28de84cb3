#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <stdexcept>
#include <string>

#include <unistd.h>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXEvent.h"
#include "Platform/ZrThread.h"
#include "Support/LogCapture.h"
#include "Support/PlatformTestSupport.h"

namespace {
constexpr uint32_t kSafetyMs = 30000;

std::string ReadThreadComm(pid_t tid) {
  std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/comm");
  std::string strName;
  std::getline(in, strName);
  return strName;
}

unsigned TimesTwo(void* pArg) { return 2 * *static_cast<unsigned*>(pArg); }

class CFailingThread : public ZrThread {
 public:
  CFailingThread() : ZrThread("failing") {}
  ~CFailingThread() override { (void)Join(); }

 protected:
  CQiError Run() override { return QI_ERROR_WIN32(QiErrorCode::NoContent, "nothing to scan here"); }
};

class ZrThreadTest : public ::testing::Test {
 protected:
  CLogCapture writer{1};
};
}  // namespace

TEST_F(ZrThreadTest, PlainFunctionRunsOnItsOwnThreadWithItsExitCode) {
  ZrThread thread("doubler");
  unsigned uArg = 21;
  ASSERT_TRUE(thread.Create(&TimesTwo, &uArg).IsSuccess());
  ASSERT_TRUE(thread.Join().IsSuccess());
  EXPECT_EQ(thread.GetExitCode(), 42u);
  EXPECT_TRUE(thread.GetLastError().IsSuccess());
  EXPECT_NE(thread.GetThreadId(), 0);
  EXPECT_NE(thread.GetThreadId(), static_cast<pid_t>(gettid()));
}

struct NameRow {
  std::string strName;
  std::string strKernelName;
};
class ZrThreadNames : public ZrThreadTest, public ::testing::WithParamInterface<NameRow> {};

TEST_P(ZrThreadNames, KernelSeesTheNameCutTo15Bytes) {
  ZrThread thread(GetParam().strName);
  FXEvent release(FXEvent::EResetMode::Manual), running(FXEvent::EResetMode::Manual);
  ASSERT_TRUE(thread
                  .Create([&] {
                    running.Set();
                    return release.Wait(kSafetyMs) == FXEvent::EWaitResult::Signalled ? 0u : 1u;
                  })
                  .IsSuccess());
  ASSERT_EQ(running.Wait(kSafetyMs), FXEvent::EWaitResult::Signalled);
  EXPECT_EQ(ReadThreadComm(thread.GetThreadId()), GetParam().strKernelName);
  EXPECT_TRUE(thread.IsRunning());
  release.Set();
  ASSERT_TRUE(thread.Join().IsSuccess());
  EXPECT_EQ(thread.GetExitCode(), 0u);
  EXPECT_EQ(thread.GetName(), GetParam().strName);
}

INSTANTIATE_TEST_SUITE_P(Table, ZrThreadNames,
                         ::testing::Values(NameRow{"exactly15chars_", "exactly15chars_"},
                                           NameRow{"BasicScannerPrivate", "BasicScannerPri"}));

// An exception in the thread or an error of Run becomes the thread's last error and exit code.
TEST_F(ZrThreadTest, ExceptionOrRunErrorBecomesTheLastError) {
  ZrThread thread("thrower");
  CFailingThread failing;
  ASSERT_TRUE(
      thread.Create([]() -> unsigned { throw std::runtime_error("disk on fire"); }).IsSuccess());
  ASSERT_TRUE(failing.Start().IsSuccess());
  ASSERT_TRUE(thread.Join().IsSuccess() && failing.Join().IsSuccess());
  std::string got;
  for (ZrThread* t : {&thread, static_cast<ZrThread*>(&failing)})
    got += ErrorCode(t->GetLastError()) + " " + std::to_string(t->GetExitCode()) + " " +
           t->GetLastError().GetMessage() + "\n";
  EXPECT_EQ(got,
            "W1627 1627 Thread ended by an exception, Thread=thrower, what=disk on fire\n"
            "W232 232 nothing to scan here\n");
  EXPECT_EQ(writer->Count("Thread ended by an exception, Thread=thrower, what=disk on fire", -1),
            1u);
}

TEST_F(ZrThreadTest, StartWhileRunningFailsAndRestartAfterJoinWorks) {
  ZrThread thread("twice");
  FXEvent release(FXEvent::EResetMode::Manual);
  auto body = [&] { return release.Wait(kSafetyMs) == FXEvent::EWaitResult::Signalled ? 7u : 1u; };
  ASSERT_TRUE(thread.Create(body).IsSuccess());
  CQiError error = thread.Create(body);
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidParameter));
  EXPECT_EQ(error.GetMessage(), "Thread is already running, Thread=twice");
  EXPECT_FALSE(thread.Wait(10));
  release.Set();
  EXPECT_TRUE(thread.Wait(kSafetyMs));
  ASSERT_TRUE(thread.Create(body).IsSuccess());  // joins the ended thread first
  ASSERT_TRUE(thread.Join().IsSuccess());
  EXPECT_EQ(thread.GetExitCode(), 7u);
}

TEST_F(ZrThreadTest, DestroyingAStartedThreadJoinsIt) {
  std::atomic<bool> bFinished{false};
  FXEvent release(FXEvent::EResetMode::Manual);
  {
    ZrThread thread("joined");
    ASSERT_TRUE(thread
                    .Create([&] {
                      (void)release.Wait(kSafetyMs);
                      bFinished = true;
                      return 0u;
                    })
                    .IsSuccess());
    release.Set();
  }
  EXPECT_TRUE(bFinished.load());
}

TEST_F(ZrThreadTest, AThreadCannotJoinItselfNorRunNothing) {
  ZrThread thread("self"), empty("empty");
  CQiError joinError;
  FXEvent go(FXEvent::EResetMode::Manual);
  ASSERT_TRUE(thread
                  .Create([&] {
                    (void)go.Wait(kSafetyMs);  // the object is fully started before the join
                    joinError = thread.Join();
                    return 0u;
                  })
                  .IsSuccess());
  go.Set();
  ASSERT_TRUE(thread.Join().IsSuccess());
  EXPECT_TRUE(empty.Join().IsSuccess() && empty.Wait(0));  // never started
  CQiError error = empty.Create(nullptr, nullptr);
  EXPECT_FALSE(empty.IsStarted());
  EXPECT_EQ(ErrorCode(joinError) + " " + joinError.GetMessage() + "\n" + ErrorCode(error) + " " +
                error.GetMessage(),
            "W87 A thread cannot join itself, Thread=self\n"
            "W87 No thread function given, Thread=empty");
}
