#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Platform/FXEvent.h"

namespace {
// A safety net for waits that must succeed: long enough never to expire on a loaded machine.
constexpr uint32_t kSafetyMs = 30000;

using EMode = FXEvent::EResetMode;
using EWait = FXEvent::EWaitResult;
}  // namespace

// A script of steps on one event and what the waits and probes answered: 'S' Set, 'R' Reset,
// 'w' Wait(0), 't' Wait(20 ms), 'W' Wait(infinite) give '1' signalled or '0' timed out; '?'
// gives IsSet() as '1' or '0'.
struct SScriptRow {
  EMode eMode;
  bool bInitiallySet;
  const char* script;
  const char* expected;
};
class EventScript : public ::testing::TestWithParam<SScriptRow> {};

TEST_P(EventScript, WaitPassesAsTheModeAllows) {
  FXEvent event(GetParam().eMode, GetParam().bInitiallySet);
  std::string got;
  for (const char* step = GetParam().script; *step != '\0'; ++step) {
    const uint32_t ms = *step == 'w' ? 0 : *step == 't' ? 20 : FXEvent::kInfinite;
    if (*step == 'S') event.Set();
    if (*step == 'R') event.Reset();
    if (*step == '?') got += event.IsSet() ? '1' : '0';
    if (*step == 'w' || *step == 't' || *step == 'W')
      got += event.Wait(ms) == EWait::Signalled ? '1' : '0';
  }
  EXPECT_EQ(got, GetParam().expected) << GetParam().script;
}

INSTANTIATE_TEST_SUITE_P(
    Table, EventScript,
    ::testing::Values(
        // manual: stays set for every waiter until Reset
        SScriptRow{EMode::Manual, false, "Sww?", "111"},
        SScriptRow{EMode::Manual, true, "R?t", "00"},
        // auto: one wait passes per Set, then the event is clear
        SScriptRow{EMode::Auto, true, "ww?", "100"}, SScriptRow{EMode::Auto, false, "SSwwSW", "101"}));

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
                                           WaitAnyRow{{2}, 2}, WaitAnyRow{{1, 2}, 1},
                                           WaitAnyRow{{0, 1, 2}, 0}, WaitAnyRow{{2, 0}, 0}));

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
