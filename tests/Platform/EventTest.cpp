#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "Platform/FXEvent.h"

namespace {
// A safety net for waits that must succeed: long enough never to expire on a loaded machine.
constexpr uint32_t kSafetyMs = 30000;

using EMode = FXEvent::EResetMode;
using EWait = FXEvent::EWaitResult;
}  // namespace

struct ResetRow {
  EMode eMode;
  bool bInitiallySet;
  bool bSetBeforeWait;
  EWait eFirst;    // first Wait(0)
  EWait eSecond;   // second Wait(0)
  bool bSetAfter;  // IsSet() after both waits
};

class EventResetModes : public ::testing::TestWithParam<ResetRow> {};

TEST_P(EventResetModes, WaitPassesAsTheModeAllows) {
  const ResetRow& row = GetParam();
  FXEvent event(row.eMode, row.bInitiallySet);
  if (row.bSetBeforeWait) event.Set();
  EXPECT_EQ(event.Wait(0), row.eFirst);
  EXPECT_EQ(event.Wait(0), row.eSecond);
  EXPECT_EQ(event.IsSet(), row.bSetAfter);
}

INSTANTIATE_TEST_SUITE_P(
    Table, EventResetModes,
    ::testing::Values(
        // manual: stays set for every waiter until Reset
        ResetRow{EMode::Manual, false, true, EWait::Signalled, EWait::Signalled, true},
        ResetRow{EMode::Manual, true, false, EWait::Signalled, EWait::Signalled, true},
        ResetRow{EMode::Manual, false, false, EWait::TimedOut, EWait::TimedOut, false},
        // auto: one wait passes per Set, then the event is clear
        ResetRow{EMode::Auto, false, true, EWait::Signalled, EWait::TimedOut, false},
        ResetRow{EMode::Auto, true, false, EWait::Signalled, EWait::TimedOut, false},
        ResetRow{EMode::Auto, false, false, EWait::TimedOut, EWait::TimedOut, false}));

TEST(EventTest, SetTwiceOnAnAutoEventLetsOneWaitPass) {
  FXEvent event(EMode::Auto);
  event.Set();
  event.Set();
  EXPECT_EQ(event.Wait(0), EWait::Signalled);
  EXPECT_EQ(event.Wait(0), EWait::TimedOut);
}

TEST(EventTest, ResetClearsAManualEvent) {
  FXEvent event(EMode::Manual, true);
  event.Reset();
  EXPECT_FALSE(event.IsSet());
  EXPECT_EQ(event.Wait(5), EWait::TimedOut);
}

TEST(EventTest, WaitWithTimeOutReturnsTimedOut) {
  FXEvent event(EMode::Auto);
  EXPECT_EQ(event.Wait(20), EWait::TimedOut);
}

TEST(EventTest, SetBeforeAnInfiniteWaitIsKept) {
  FXEvent event(EMode::Auto);
  event.Set();
  EXPECT_EQ(event.Wait(FXEvent::kInfinite), EWait::Signalled);
}

TEST(EventTest, SetFromAnotherThreadWakesABlockedWaiter) {
  for (EMode eMode : {EMode::Auto, EMode::Manual}) {
    FXEvent event(eMode);
    FXEvent started(EMode::Manual);
    EWait eResult = EWait::TimedOut;
    std::thread waiter([&] {
      started.Set();
      eResult = event.Wait(kSafetyMs);
    });
    ASSERT_EQ(started.Wait(kSafetyMs), EWait::Signalled);
    event.Set();
    waiter.join();
    EXPECT_EQ(eResult, EWait::Signalled);
  }
}

TEST(EventTest, ManualEventReleasesEveryWaiter) {
  constexpr int kWaiters = 6;
  FXEvent event(EMode::Manual);
  std::atomic<int> iPassed{0};
  std::vector<std::thread> lstThreads;
  for (int i = 0; i < kWaiters; ++i)
    lstThreads.emplace_back([&] {
      if (event.Wait(kSafetyMs) == EWait::Signalled) ++iPassed;
    });
  event.Set();
  for (auto& t : lstThreads) t.join();
  EXPECT_EQ(iPassed.load(), kWaiters);
  EXPECT_TRUE(event.IsSet());
}

TEST(EventTest, AutoEventReleasesOneWaiterPerSet) {
  constexpr int kWaiters = 5;
  FXEvent event(EMode::Auto);
  std::mutex mutex;
  std::condition_variable cv;
  int iPassed = 0;
  std::vector<std::thread> lstThreads;
  for (int i = 0; i < kWaiters; ++i)
    lstThreads.emplace_back([&] {
      if (event.Wait(kSafetyMs) != EWait::Signalled) return;
      std::lock_guard<std::mutex> lock(mutex);
      ++iPassed;
      cv.notify_all();
    });
  for (int iSet = 1; iSet <= kWaiters; ++iSet) {
    event.Set();
    std::unique_lock<std::mutex> lock(mutex);
    ASSERT_TRUE(
        cv.wait_for(lock, std::chrono::milliseconds(kSafetyMs), [&] { return iPassed >= iSet; }));
    // The one signal was consumed by exactly one waiter.
    EXPECT_EQ(iPassed, iSet);
    EXPECT_FALSE(event.IsSet());
  }
  for (auto& t : lstThreads) t.join();
  EXPECT_EQ(iPassed, kWaiters);
}

struct WaitAnyRow {
  std::vector<int> lstSet;  // indexes of the events set before the wait
  int iExpected;
};

class EventWaitAny : public ::testing::TestWithParam<WaitAnyRow> {};

TEST_P(EventWaitAny, ReturnsTheLowestSetEventAndConsumesOnlyIt) {
  FXEvent a(EMode::Auto), b(EMode::Auto), c(EMode::Manual);
  FXEvent* events[] = {&a, &b, &c};
  for (int i : GetParam().lstSet) events[i]->Set();
  EXPECT_EQ(FXEvent::WaitAny(events, 0), GetParam().iExpected);
  for (int i : GetParam().lstSet) {
    const bool bConsumed = i == GetParam().iExpected && !events[i]->IsManualReset();
    EXPECT_EQ(events[i]->IsSet(), !bConsumed) << "event " << i;
  }
}

INSTANTIATE_TEST_SUITE_P(Table, EventWaitAny,
                         ::testing::Values(WaitAnyRow{{}, FXEvent::kWaitTimedOut},
                                           WaitAnyRow{{0}, 0}, WaitAnyRow{{1}, 1},
                                           WaitAnyRow{{2}, 2}, WaitAnyRow{{1, 2}, 1},
                                           WaitAnyRow{{0, 1, 2}, 0}, WaitAnyRow{{2, 0}, 0}));

TEST(EventTest, WaitAnyWakesWhenAnyEventIsSetLater) {
  for (int iTarget = 0; iTarget < 3; ++iTarget) {
    FXEvent a(EMode::Auto), b(EMode::Manual), c(EMode::Auto);
    FXEvent* events[] = {&a, &b, &c};
    int iResult = -2;
    std::thread waiter([&] { iResult = FXEvent::WaitAny({&a, &b, &c}, kSafetyMs); });
    events[iTarget]->Set();
    waiter.join();
    EXPECT_EQ(iResult, iTarget);
  }
}

TEST(EventTest, WaitAnyTimesOutAndIgnoresNullEntries) {
  FXEvent a(EMode::Auto);
  EXPECT_EQ(FXEvent::WaitAny({nullptr, &a}, 10), FXEvent::kWaitTimedOut);
  a.Set();
  EXPECT_EQ(FXEvent::WaitAny({nullptr, &a}, 10), 1);
  EXPECT_EQ(FXEvent::WaitAny(std::span<FXEvent* const>(), 5), FXEvent::kWaitTimedOut);
}

// Many producers and consumers on shared auto events: every signal taken is counted once, and
// no consumer is left asleep once the producers are done (run under ThreadSanitizer).
TEST(EventTest, ConcurrentSetAndWaitAnyLoseNoWakeUp) {
  constexpr int kRounds = 2000;
  FXEvent work(EMode::Auto), stop(EMode::Manual), ack(EMode::Auto);
  std::atomic<int> iTaken{0};
  std::vector<std::thread> lstConsumers;
  for (int i = 0; i < 3; ++i)
    lstConsumers.emplace_back([&] {
      for (;;) {
        int iIndex = FXEvent::WaitAny({&stop, &work}, kSafetyMs);
        if (iIndex != 1) return;
        ++iTaken;
        ack.Set();
      }
    });
  for (int i = 0; i < kRounds; ++i) {
    work.Set();
    ASSERT_EQ(ack.Wait(kSafetyMs), EWait::Signalled);
  }
  stop.Set();
  for (auto& t : lstConsumers) t.join();
  EXPECT_EQ(iTaken.load(), kRounds);
}
