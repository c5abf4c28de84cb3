#include "Platform/BlockingCallWatch.h"

#include <algorithm>

#include "Platform/AlertableEventThread.h"
#include "Platform/ZRPlatformInfo.h"

thread_local CBlockingCallWatch* CBlockingCallWatch::t_pWatch = nullptr;

CBlockingCallWatch::CThreadScope::CThreadScope(std::shared_ptr<CBlockingCallWatch> pWatch)
    : m_pWatch(std::move(pWatch)), m_pPrevious(t_pWatch) {
  t_pWatch = m_pWatch.get();
}

CBlockingCallWatch::CThreadScope::~CThreadScope() {
  t_pWatch = m_pPrevious;
}

bool CBlockingCallWatch::IsStalled(Clock::time_point tNow, std::chrono::milliseconds timeout) {
  const uint64_t uCalls = m_uCalls.load(std::memory_order_acquire) & ~kAbandonedBit;
  if ((uCalls & 1) == 0 || uCalls != m_uLastSeen) {
    m_uLastSeen = uCalls;
    m_tLastSeenSince = tNow;
    return false;
  }
  return tNow - m_tLastSeenSince >= timeout;
}

bool CBlockingCallWatch::Abandon() {
  uint64_t uExpected = m_uLastSeen;
  if ((uExpected & 1) == 0) return false;
  return m_uCalls.compare_exchange_strong(uExpected, uExpected | kAbandonedBit,
                                          std::memory_order_acq_rel);
}

std::chrono::milliseconds CBlockingCallWatch::GetConfiguredTimeout() {
  int iSeconds = static_cast<int>(kDefaultTimeout.count());
  (void)ZRPlatformInfo::Instance().GetValue(ZRPlatformInfo::kFileSystemAgentSection, kTimeoutKey,
                                            iSeconds);
  if (iSeconds < 1) iSeconds = 1;
  return std::chrono::seconds(iSeconds);
}

bool CBlockingCallWatch::WaitForStopOrGiveUp(CAlertableEventThread& thread, CBlockingCallWatch& watch,
                                             std::chrono::milliseconds timeout) {
  const uint32_t uSliceMs = static_cast<uint32_t>(std::clamp<long long>(timeout.count() / 4, 10, 1000));
  for (;;) {
    if (thread.WaitForStop(uSliceMs).IsSuccess()) return true;
    if (watch.IsStalled(Clock::now(), timeout) && watch.Abandon()) return false;
  }
}
