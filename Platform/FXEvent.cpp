#include "Platform/FXEvent.h"

#include <algorithm>
#include <chrono>

namespace {
using Clock = std::chrono::steady_clock;

Clock::time_point DeadlineFrom(uint32_t uTimeoutMs) {
  return Clock::now() + std::chrono::milliseconds(uTimeoutMs);
}
}  // namespace

FXEvent::FXEvent(EResetMode eMode, bool bInitiallySet)
    : m_eMode(eMode), m_bSignalled(bInitiallySet) {}

FXEvent::~FXEvent() = default;

void FXEvent::Set() {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_bSignalled) return;
  m_bSignalled = true;
  if (m_eMode == EResetMode::Manual) {
    m_cv.notify_all();
  } else {
    m_cv.notify_one();
  }
  // WaitAny callers sleep on their own condition; wake each so it re-tests its events. Lock
  // order is always event, then waiter.
  for (SWaiter* pWaiter : m_lstWaiters) {
    std::lock_guard<std::mutex> waiterLock(pWaiter->mutex);
    pWaiter->bNotified = true;
    pWaiter->cv.notify_one();
  }
}

void FXEvent::Reset() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_bSignalled = false;
}

bool FXEvent::IsSet() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_bSignalled;
}

bool FXEvent::TakeSignalLocked() {
  if (!m_bSignalled) return false;
  if (m_eMode == EResetMode::Auto) m_bSignalled = false;
  return true;
}

bool FXEvent::TryTake() {
  std::lock_guard<std::mutex> lock(m_mutex);
  return TakeSignalLocked();
}

FXEvent::EWaitResult FXEvent::Wait(uint32_t uTimeoutMs) {
  std::unique_lock<std::mutex> lock(m_mutex);
  if (uTimeoutMs == kInfinite) {
    m_cv.wait(lock, [this] { return m_bSignalled; });
  } else if (!m_cv.wait_until(lock, DeadlineFrom(uTimeoutMs), [this] { return m_bSignalled; })) {
    return EWaitResult::TimedOut;
  }
  TakeSignalLocked();
  return EWaitResult::Signalled;
}

void FXEvent::AddWaiter(SWaiter* pWaiter) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_lstWaiters.push_back(pWaiter);
}

void FXEvent::RemoveWaiter(SWaiter* pWaiter) {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto it = std::find(m_lstWaiters.begin(), m_lstWaiters.end(), pWaiter);
  if (it != m_lstWaiters.end()) m_lstWaiters.erase(it);
}

int FXEvent::WaitAny(std::span<FXEvent* const> events, uint32_t uTimeoutMs) {
  const Clock::time_point tDeadline =
      uTimeoutMs == kInfinite ? Clock::time_point::max() : DeadlineFrom(uTimeoutMs);

  // Register first, then test: a Set() that comes after a test has found the event clear
  // always finds the waiter registered and marks it notified, so no wake-up is lost.
  SWaiter waiter;
  for (FXEvent* pEvent : events)
    if (pEvent != nullptr) pEvent->AddWaiter(&waiter);

  int iResult = kWaitTimedOut;
  for (;;) {
    for (size_t i = 0; i < events.size(); ++i) {
      if (events[i] != nullptr && events[i]->TryTake()) {
        iResult = static_cast<int>(i);
        break;
      }
    }
    if (iResult != kWaitTimedOut) break;

    std::unique_lock<std::mutex> lock(waiter.mutex);
    if (uTimeoutMs == kInfinite) {
      waiter.cv.wait(lock, [&] { return waiter.bNotified; });
    } else if (!waiter.cv.wait_until(lock, tDeadline, [&] { return waiter.bNotified; })) {
      // Timed out; one last test below catches a Set() that raced with the deadline.
      lock.unlock();
      for (size_t i = 0; i < events.size() && iResult == kWaitTimedOut; ++i)
        if (events[i] != nullptr && events[i]->TryTake()) iResult = static_cast<int>(i);
      break;
    }
    waiter.bNotified = false;
  }

  for (FXEvent* pEvent : events)
    if (pEvent != nullptr) pEvent->RemoveWaiter(&waiter);
  return iResult;
}
