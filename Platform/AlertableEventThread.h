// CAlertableEventThread: the base of worker threads that sleep on an event and act when it is
// set, such as the folder traversal workers.
//
// The run of a thread (Run):
//   OnStart()                 once; an error ends the run at once (OnStop is then not called)
//   OnRun()                   the loop, overridable; the base repeats until a stop is requested:
//       WaitForEvent()        waits for the thread's event, the time-out or a stop request
//         signalled  -> OnEvent()
//         time-out   -> OnTimeout()
//         abandoned  -> OnAbandoned()
//         stop       -> leave the loop
//   OnStop()                  once after the loop, when OnStart succeeded
//   OnCompletion()            always, last
// A hook that returns an error (or throws: Win32 1627) ends the loop; the first error of the run is
// the thread's last error (GetLastError), with this class's frame pushed. A hook that wants to note
// a failure and go on calls SetLastError itself and returns success.
//
// The event: by default the thread's own auto-reset event, set by Signal(). SetEvent() before the
// start replaces it with a shared event (for example the "folder available" event of a queue that
// several workers serve; a manual-reset event then wakes all of them). The stop request has an
// event of its own, and the base WaitForEvent waits on both at once (FXEvent::WaitAny): Stop()
// wakes a blocked thread at once, whatever event it waits on. An override of WaitForEvent keeps
// that property by waiting through WaitForEventOrStop().
//
// The time-out (SetTimeout, milliseconds) defaults to FXEvent::kInfinite: no OnTimeout at all.
//
// Starting and stopping: Start() runs the loop on a new thread; StartSynchronously() runs it on
// the caller's thread and returns when the run ends (after InternalStop() from a hook, or Stop()
// from another thread). Stop(true) asks the loop to end and waits for it; Stop(false) only asks.
// A stop request applies to the active run (from the moment Start/StartSynchronously is called,
// so a Stop() that comes before the loop has begun still ends it) and is cleared when that run
// ends; a Stop() while no run is active does nothing. Stop/WaitForStop called from the thread's own
// hooks do not wait (a thread cannot wait for itself): Stop then behaves as InternalStop,
// WaitForStop fails (87).
//
// Threads: Start/StartSynchronously/Stop/WaitForStop belong to the owner (one controller at a
// time); Signal, SetTimeout, IsStopRequested and the getters may be called from any thread. The
// hooks run on the thread's own thread. The destructor stops and waits; a derived class must be
// stopped by its owner (or its own destructor) before it is destroyed, since its hooks run until
// the loop ends.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>

#include "Platform/FXEvent.h"
#include "Platform/ZrThread.h"

class CAlertableEventThread : public ZrThread {
 public:
  enum class EWaitResult { Signalled, TimedOut, Abandoned, StopRequested };

  // Win32 WAIT_TIMEOUT: WaitForStop's code when the thread did not end within its time-out.
  static constexpr uint32_t kErrorWaitTimeout = 258;

  explicit CAlertableEventThread(std::string strName = "AlertableEvent");
  ~CAlertableEventThread() override;

  // Runs the loop on a new thread. Fails (87) while a run is active.
  CQiError Start() override;
  // Runs the loop on the calling thread until it is stopped; returns the run's error.
  virtual CQiError StartSynchronously();
  // Asks the loop to end; with bWait, waits for the run to end.
  virtual CQiError Stop(bool bWait = true);
  // Waits for the current run to end (success when none is active); kErrorWaitTimeout when it
  // goes on past the time-out.
  virtual CQiError WaitForStop(uint32_t uTimeoutMs = FXEvent::kInfinite);
  virtual void SetTimeout(uint32_t uTimeoutMs);

  uint32_t GetTimeout() const { return m_uTimeoutMs.load(std::memory_order_relaxed); }
  // Wakes the thread: sets its event.
  void Signal();
  // Replaces the thread's event (before the start; null restores the own event).
  void SetEvent(FXEventPtr pEvent);
  FXEventPtr GetEvent() const;
  bool IsStopRequested() const { return m_bStopRequested.load(std::memory_order_acquire); }
  // True while a run (asynchronous or synchronous) is active.
  bool IsActive() const;

 protected:
  CQiError Run() override;
  virtual CQiError WaitForEvent(EWaitResult& eResult);
  virtual CQiError OnStart();
  virtual CQiError OnRun();
  virtual CQiError OnStop();
  virtual CQiError OnEvent();
  virtual CQiError OnCompletion();
  virtual CQiError OnTimeout();
  // A waited object was abandoned (only an overridden WaitForEvent can report that); the base
  // ends the loop.
  virtual CQiError OnAbandoned();
  // Asks the loop to end without waiting; safe from hooks and from any thread.
  virtual void InternalStop();

  // Waits for the event, the time-out or a stop request, whichever comes first.
  EWaitResult WaitForEventOrStop(FXEvent* pEvent, uint32_t uTimeoutMs);
  bool IsOwnThread() const;

 private:
  // OnStart, OnRun, OnStop, OnCompletion in order.
  CQiError RunHooks();
  // Calls one hook; an exception escaping it becomes its error (Win32 1627), so the run still
  // goes through OnStop and OnCompletion and ends cleanly.
  template <typename F>
  CQiError CallHook(const char* szHook, F&& fnHook);

  FXEventPtr m_pOwnEvent;
  FXEvent m_stopEvent{FXEvent::EResetMode::Manual};
  std::atomic<bool> m_bStopRequested{false};
  std::atomic<uint32_t> m_uTimeoutMs{FXEvent::kInfinite};

  mutable std::mutex m_mutex;  // guards the members below and the stop request's changes
  std::condition_variable m_cvRunEnded;
  FXEventPtr m_pEvent;
  bool m_bActive = false;       // a run was started and has not ended
  bool m_bSynchronous = false;  // the active run is on its caller's thread
  pid_t m_iSyncThreadId = 0;
};

using CAlertableEventThreadPtr = std::shared_ptr<CAlertableEventThread>;
