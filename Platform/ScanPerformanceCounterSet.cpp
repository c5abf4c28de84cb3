#include "Platform/ScanPerformanceCounterSet.h"

#include "Platform/LogWriterInterface.h"

CScanPerformanceCounterSet::CScanPerformanceCounterSet()
    : CScanPerformanceCounterSet(std::string(), 0) {
  m_bPerThread = false;
}

CScanPerformanceCounterSet::CScanPerformanceCounterSet(std::string strVolumeName, long lThreadId)
    : m_bPerThread(true), m_strVolumeName(std::move(strVolumeName)), m_lThreadId(lThreadId) {
  for (size_t i = 0; i < m_aCounters.size(); ++i)
    m_aCounters[i].SetType(static_cast<EScanPerfCounterType>(i));
}

void CScanPerformanceCounterSet::Reset() {
  for (CScanPerformanceCounter& counter : m_aCounters) counter.Reset();
}

void CScanPerformanceCounterSet::LogCounters() const {
  if (!ZRLOG_ON(1)) return;
  for (const CScanPerformanceCounter& counter : m_aCounters) {
    const unsigned long long ullSamples = counter.GetSamples();
    if (ullSamples == 0) continue;
    const unsigned long long ullTotalNs = counter.GetTotalNanoseconds();
    const unsigned long long ullTotalMs = ullTotalNs / 1000000ULL;
    const unsigned long long ullAverageUs = ullTotalNs / ullSamples / 1000ULL;
    if (m_bPerThread) {
      ZRLOG(1, "Volume=%s, ThreadId=%ld, Counter=%s, Total=%llu ms, Samples=%llu, Average=%llu us",
            m_strVolumeName.c_str(), m_lThreadId, counter.GetName(), ullTotalMs, ullSamples,
            ullAverageUs);
    } else {
      ZRLOG(1, "Counter=%s, Total=%llu ms, Samples=%llu, Average=%llu us", counter.GetName(),
            ullTotalMs, ullSamples, ullAverageUs);
    }
  }
}
