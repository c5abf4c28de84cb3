// CScanPerformanceCounterSet: the 29 scan timers together, as the per-scan set or as one
// thread's set for one volume (see CScanPerformanceCounter for where sets live and how they are
// logged).
//
// A set is made and owned by the registry in CScanPerformanceCounter; users hold references
// that stay valid while the set's thread lives (the per-scan set lives for the process). Its
// counters may be added to from any thread without a lock.
#pragma once

#include <array>
#include <string>

#include "Platform/ScanPerformanceCounter.h"

class CScanPerformanceCounterSet {
 public:
  // A per-scan set (no volume, no thread).
  CScanPerformanceCounterSet();
  // One thread's set for a volume.
  CScanPerformanceCounterSet(std::string strVolumeName, long lThreadId);
  CScanPerformanceCounterSet(const CScanPerformanceCounterSet&) = delete;
  CScanPerformanceCounterSet& operator=(const CScanPerformanceCounterSet&) = delete;

  CScanPerformanceCounter& Get(EScanPerfCounterType eType) {
    return m_aCounters[static_cast<size_t>(eType)];
  }
  const CScanPerformanceCounter& Get(EScanPerfCounterType eType) const {
    return m_aCounters[static_cast<size_t>(eType)];
  }
  CScanPerformanceCounter& operator[](EScanPerfCounterType eType) { return Get(eType); }

  bool IsPerThread() const { return m_bPerThread; }
  const std::string& GetVolumeName() const { return m_strVolumeName; }
  long GetThreadId() const { return m_lThreadId; }

  void Reset();
  // One level-1 line per timer with samples (the formats in ScanPerformanceCounter.h).
  void LogCounters() const;

 private:
  bool m_bPerThread;
  std::string m_strVolumeName;
  long m_lThreadId;
  std::array<CScanPerformanceCounter, kScanPerfCounterTypeCount> m_aCounters;
};
