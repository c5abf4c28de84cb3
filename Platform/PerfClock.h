// CPerfClock: the clock of the scan performance timers. A traversal times several steps of
// every entry it meets, so reading the clock must cost next to nothing.
//
// When the kernel itself keeps time with the processor's time-stamp counter (clock source
// "tsc": the counter is then constant-rate and synchronized between CPUs), a reading is one
// rdtsc instruction; otherwise it is the steady clock in nanoseconds. Elapsed readings turn into
// nanoseconds with ToNanoseconds. The counter's rate is measured against the steady clock: first
// over a short interval when the clock is first used, then again whenever the time since the
// first use has doubled, so the rate gets more exact the longer the process runs.
//
// Threads: every operation may be called from any thread at any time.
#pragma once

#include <atomic>
#include <cstdint>

#if defined(__x86_64__)
#include <x86intrin.h>
#endif

class CPerfClock {
 public:
  using Ticks = uint64_t;

  static Ticks Now() {
    const int iMode = s_iMode.load(std::memory_order_relaxed);
#if defined(__x86_64__)
    if (iMode == kModeTsc) return __rdtsc();
#endif
    if (iMode == kModeSteady) return SteadyNanoseconds();
    return NowFirstTime();
  }

  // The nanoseconds of an elapsed reading (the difference of two readings); the later reading
  // lets the rate be measured again when it is due.
  static uint64_t ToNanoseconds(Ticks elapsed, Ticks later);
  static uint64_t ToNanoseconds(Ticks elapsed) { return ToNanoseconds(elapsed, Now()); }

 private:
  static constexpr int kModeUnknown = 0;
  static constexpr int kModeTsc = 1;
  static constexpr int kModeSteady = 2;

  static Ticks NowFirstTime();
  static uint64_t SteadyNanoseconds();

  static std::atomic<int> s_iMode;
};
