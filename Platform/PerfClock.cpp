#include "Platform/PerfClock.h"

#include <chrono>
#include <fstream>
#include <mutex>
#include <string>

std::atomic<int> CPerfClock::s_iMode{CPerfClock::kModeUnknown};

namespace {

// The counter's rate is first measured over this long (a busy wait, once per process).
constexpr uint64_t kFirstCalibrationNs = 200 * 1000;

struct SCalibration {
  uint64_t ullTicks0 = 0;  // the first reading of both clocks
  uint64_t ullNs0 = 0;
  std::atomic<double> dNsPerTick{1.0};
  std::atomic<uint64_t> ullNextTicks{0};  // ticks since ullTicks0 at which to measure again
  std::mutex mutex;                       // one measurement at a time
};

SCalibration& Calibration() {
  static SCalibration* pCalibration = new SCalibration();  // outlives every thread
  return *pCalibration;
}

bool KernelKeepsTimeWithTsc() {
  std::ifstream in("/sys/devices/system/clocksource/clocksource0/current_clocksource");
  std::string strSource;
  return in && (in >> strSource) && strSource == "tsc";
}

#if defined(__x86_64__)
// Measures the rate from the first readings to now; the caller holds the mutex.
void Measure(SCalibration& calibration, uint64_t ullTicksNow, uint64_t ullNsNow) {
  const uint64_t ullTicks = ullTicksNow - calibration.ullTicks0;
  if (ullTicks == 0) return;
  calibration.dNsPerTick.store(static_cast<double>(ullNsNow - calibration.ullNs0) / static_cast<double>(ullTicks),
                               std::memory_order_relaxed);
  calibration.ullNextTicks.store(2 * ullTicks, std::memory_order_relaxed);
}
#endif

}  // namespace

uint64_t CPerfClock::SteadyNanoseconds() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                   std::chrono::steady_clock::now().time_since_epoch())
                                   .count());
}

CPerfClock::Ticks CPerfClock::NowFirstTime() {
  static std::once_flag s_once;
  std::call_once(s_once, [] {
    int iMode = kModeSteady;
#if defined(__x86_64__)
    if (KernelKeepsTimeWithTsc()) {
      SCalibration& calibration = Calibration();
      std::lock_guard<std::mutex> lock(calibration.mutex);
      calibration.ullNs0 = SteadyNanoseconds();
      calibration.ullTicks0 = __rdtsc();
      uint64_t ullNs = calibration.ullNs0;
      while (ullNs - calibration.ullNs0 < kFirstCalibrationNs) ullNs = SteadyNanoseconds();
      Measure(calibration, __rdtsc(), ullNs);
      iMode = kModeTsc;
    }
#endif
    s_iMode.store(iMode, std::memory_order_release);
  });
  return Now();
}

uint64_t CPerfClock::ToNanoseconds(Ticks elapsed, Ticks later) {
  if (s_iMode.load(std::memory_order_acquire) != kModeTsc) return elapsed;
#if defined(__x86_64__)
  SCalibration& calibration = Calibration();
  if (later - calibration.ullTicks0 >= calibration.ullNextTicks.load(std::memory_order_relaxed)) {
    // Due for a new measurement; a thread that finds one under way uses the current rate.
    std::unique_lock<std::mutex> lock(calibration.mutex, std::try_to_lock);
    if (lock.owns_lock() &&
        later - calibration.ullTicks0 >= calibration.ullNextTicks.load(std::memory_order_relaxed)) {
      const uint64_t ullNs = SteadyNanoseconds();
      Measure(calibration, __rdtsc(), ullNs);
    }
  }
  return static_cast<uint64_t>(static_cast<double>(elapsed) *
                               calibration.dNsPerTick.load(std::memory_order_relaxed));
#else
  (void)later;
  return elapsed;
#endif
}
