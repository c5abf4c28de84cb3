// FXEvent: a manual-reset or auto-reset event, the signal that wakes worker threads.
//
// A manual-reset event stays set until Reset(): every waiter passes while it is set. An
// auto-reset event lets exactly one wait pass per Set() and clears itself as that wait returns;
// Set() on an event that is already set does nothing (signals do not count up). Set() before any
// Wait() is kept: the next wait returns at once.
//
// WaitAny() waits on a small list of events at once and returns the index of the one that let
// it pass (an auto-reset event is consumed by it; the others are left untouched). This is how a
// worker waits for "folder available" and "stop" together: the stop event is its own, the
// folder event is shared by all workers, and neither has to know about the other.
//
// All operations are safe from any thread. An event must outlive every wait on it; share it
// through FXEventPtr when several objects use it.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

class FXEvent {
 public:
  enum class EResetMode { Manual, Auto };
  enum class EWaitResult { Signalled, TimedOut };

  // A time-out that never expires.
  static constexpr uint32_t kInfinite = 0xFFFFFFFFu;
  // WaitAny's answer when no event was set within the time-out.
  static constexpr int kWaitTimedOut = -1;

  explicit FXEvent(EResetMode eMode, bool bInitiallySet = false);
  ~FXEvent();
  FXEvent(const FXEvent&) = delete;
  FXEvent& operator=(const FXEvent&) = delete;

  static std::shared_ptr<FXEvent> Create(EResetMode eMode, bool bInitiallySet = false) {
    return std::make_shared<FXEvent>(eMode, bInitiallySet);
  }

  void Set();
  void Reset();
  bool IsSet() const;
  bool IsManualReset() const { return m_eMode == EResetMode::Manual; }

  // Waits until the event is set or the time-out (milliseconds) passes. A time-out of 0 only
  // tests (and, for an auto-reset event, consumes) the state.
  EWaitResult Wait(uint32_t uTimeoutMs = kInfinite);

  // Waits until one of the events is set; returns its index (the lowest index when several are
  // set), or kWaitTimedOut. An empty list waits out the time-out. Null entries are ignored.
  static int WaitAny(std::span<FXEvent* const> events, uint32_t uTimeoutMs = kInfinite);
  static int WaitAny(std::initializer_list<FXEvent*> events, uint32_t uTimeoutMs = kInfinite) {
    return WaitAny(std::span<FXEvent* const>(events.begin(), events.size()), uTimeoutMs);
  }

 private:
  // One WaitAny call in progress; registered with each of its events so that Set() wakes it.
  struct SWaiter {
    std::mutex mutex;
    std::condition_variable cv;
    bool bNotified = false;
  };

  // Consumes the signal when set (auto-reset) and answers whether it was set. Caller holds
  // m_mutex.
  bool TakeSignalLocked();
  bool TryTake();
  void AddWaiter(SWaiter* pWaiter);
  void RemoveWaiter(SWaiter* pWaiter);

  const EResetMode m_eMode;
  mutable std::mutex m_mutex;
  std::condition_variable m_cv;
  bool m_bSignalled;
  std::vector<SWaiter*> m_lstWaiters;  // WaitAny calls currently waiting on this event
};

using FXEventPtr = std::shared_ptr<FXEvent>;
