// CAutoTimeCounter: a scoped timer. It reads the performance clock (CPerfClock) when made and, when it goes out of
// scope (or at Stop), adds the elapsed nanoseconds and one sample to its counter.
//
//   { CAutoTimeCounter timer(EScanPerfCounterType::TIME_ADD_TO_COLLECT); ... }
//   { CAutoTimeCounter timer(CScanPerformanceCounter::GetThreadCounter(volume)
//                                [EScanPerfCounterType::TIME_FINDFIRST]); ... }
//
// Costs two clock reads (two rdtsc instructions where the kernel keeps time with the time-stamp
// counter) and two relaxed atomic adds. A null counter makes it a no-op. One
// timer belongs to one thread; the counter it feeds may be shared.
#pragma once

#include <cstdint>

#include "Platform/PerfClock.h"
#include "Platform/ScanPerformanceCounter.h"

class CAutoTimeCounter {
 public:
  explicit CAutoTimeCounter(CScanPerformanceCounter* pCounter)
      : m_pCounter(pCounter), m_tStart(CPerfClock::Now()) {}
  explicit CAutoTimeCounter(CScanPerformanceCounter& counter) : CAutoTimeCounter(&counter) {}
  // Times on the per-scan counter of the type.
  explicit CAutoTimeCounter(EScanPerfCounterType eType)
      : CAutoTimeCounter(&CScanPerformanceCounter::GetCounter(eType)) {}
  ~CAutoTimeCounter() { Stop(); }
  CAutoTimeCounter(const CAutoTimeCounter&) = delete;
  CAutoTimeCounter& operator=(const CAutoTimeCounter&) = delete;

  // Adds the time so far to the counter now; later calls and the destructor add nothing.
  void Stop() {
    if (m_pCounter == nullptr) return;
    m_pCounter->Add(GetElapsedNanoseconds());
    m_pCounter = nullptr;
  }

  uint64_t GetElapsedNanoseconds() const {
    const CPerfClock::Ticks now = CPerfClock::Now();
    return CPerfClock::ToNanoseconds(now - m_tStart, now);
  }

 private:
  CScanPerformanceCounter* m_pCounter;
  CPerfClock::Ticks m_tStart;
};
