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
// Threads: Add is lock-free (relaxed atomics) and may be called from any number of threads at
// once; readers see each counter's own values, not a snapshot across counters. A thread's set
// is meant to be updated by that thread only, but may be read and logged from any thread.
// Usually a counter is fed through CAutoTimeCounter.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

#include "Platform/ScanPerfCounterType.h"

class CScanPerformanceCounterSet;

class alignas(64) CScanPerformanceCounter {  // own cache line: no false sharing between timers
 public:
  explicit CScanPerformanceCounter(
      EScanPerfCounterType eType = EScanPerfCounterType::TIME_TOTAL_SCAN)
      : m_eType(eType) {}
  CScanPerformanceCounter(const CScanPerformanceCounter&) = delete;
  CScanPerformanceCounter& operator=(const CScanPerformanceCounter&) = delete;

  void Add(uint64_t ullNanoseconds, uint64_t ullSamples = 1) {
    m_ullTotalNs.fetch_add(ullNanoseconds, std::memory_order_relaxed);
    m_ullSamples.fetch_add(ullSamples, std::memory_order_relaxed);
  }
  uint64_t GetTotalNanoseconds() const { return m_ullTotalNs.load(std::memory_order_relaxed); }
  uint64_t GetSamples() const { return m_ullSamples.load(std::memory_order_relaxed); }
  void Reset() {
    m_ullTotalNs.store(0, std::memory_order_relaxed);
    m_ullSamples.store(0, std::memory_order_relaxed);
  }

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
  EScanPerfCounterType m_eType;
  std::atomic<uint64_t> m_ullTotalNs{0};
  std::atomic<uint64_t> m_ullSamples{0};
};
