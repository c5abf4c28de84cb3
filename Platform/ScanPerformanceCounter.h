// CScanPerformanceCounter: one timer of the scan performance counters (total time in
// nanoseconds and number of samples), and the process-wide registry of all of them.
//
// Where the timers live:
//   - per scan: one set of the 29 timers for the process, GetCounter(type). The caller resets it
//     (ResetAll) when a scan starts;
//   - per volume and thread: GetThreadCounter(volumeName) gives the calling thread its own set
//     for that volume, made on first use. A thread-local cache answers later calls without a
//     lock. A thread's sets are dropped from the registry when the thread ends.
// LogAllCounters() writes the per-scan timers, LogThreadCounters() the per-thread ones, one
// level-1 line per timer that has samples:
//   "Counter=%s, Total=%llu ms, Samples=%llu, Average=%llu us"
//   "Volume=%s, ThreadId=%ld, Counter=%s, Total=%llu ms, Samples=%llu, Average=%llu us"
// (Total truncated to whole milliseconds, Average = total / samples in whole microseconds.)
//
// Threads: Add is lock-free (relaxed atomics, one stripe per CPU) and may be called from any
// number of threads at once; readers see each counter's own values, not a snapshot across counters. A thread's set
// is meant to be updated by that thread only, but may be read and logged from any thread.
// Usually a counter is fed through CAutoTimeCounter.
#pragma once

#include <sched.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

#include "Platform/ScanPerfCounterType.h"

class CScanPerformanceCounterSet;

class CScanPerformanceCounter {
 public:
  explicit CScanPerformanceCounter(
      EScanPerfCounterType eType = EScanPerfCounterType::TIME_TOTAL_SCAN)
      : m_eType(eType) {}
  CScanPerformanceCounter(const CScanPerformanceCounter&) = delete;
  CScanPerformanceCounter& operator=(const CScanPerformanceCounter&) = delete;

  void Add(uint64_t ullNanoseconds, uint64_t ullSamples = 1) {
    SStripe& stripe = m_aStripes[CurrentStripe()];
    stripe.ullTotalNs.fetch_add(ullNanoseconds, std::memory_order_relaxed);
    stripe.ullSamples.fetch_add(ullSamples, std::memory_order_relaxed);
  }
  uint64_t GetTotalNanoseconds() const;
  uint64_t GetSamples() const;
  void Reset();

  EScanPerfCounterType GetType() const { return m_eType; }
  const char* GetName() const { return GetTypeName(m_eType); }
  void SetType(EScanPerfCounterType eType) { m_eType = eType; }

  // "TIME_ADD_TO_COLLECT" for EScanPerfCounterType::TIME_ADD_TO_COLLECT.
  static const char* GetTypeName(EScanPerfCounterType eType);
  // The type of a counter name; false when there is none of that name.
  static bool FindType(std::string_view strName, EScanPerfCounterType& eType);

  // The per-scan (process-wide) timer of a type.
  static CScanPerformanceCounter& GetCounter(EScanPerfCounterType eType);
  // The calling thread's set of timers for a volume.
  static CScanPerformanceCounterSet& GetThreadCounter(const std::string& strVolumeName);
  static void LogAllCounters();
  static void LogThreadCounters();
  // Zeroes the per-scan timers and every thread's timers.
  static void ResetAll();

 private:
  // The per-scan timers are fed by every traversal worker for every entry: each CPU adds to a
  // stripe of its own (on its own cache line), so that workers on different cores do not take
  // turns owning one line. Reads add the stripes up.
  static constexpr size_t kStripes = 8;
  struct alignas(64) SStripe {
    std::atomic<uint64_t> ullTotalNs{0};
    std::atomic<uint64_t> ullSamples{0};
  };
  static size_t CurrentStripe() {
    const int iCpu = sched_getcpu();
    return iCpu < 0 ? 0 : static_cast<size_t>(iCpu) % kStripes;
  }

  SStripe m_aStripes[kStripes];
  EScanPerfCounterType m_eType;
};
