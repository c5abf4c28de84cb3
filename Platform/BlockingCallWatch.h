// CBlockingCallWatch: tells a traversal's coordinator that one of its worker threads has been
// inside one file-system call for too long, and lets the coordinator give that thread up.
//
// A call into a file system that stops answering (a hung NFS server, a FUSE daemon that never
// replies) blocks in the kernel and cannot be cancelled; not even a signal ends it. A scan must
// still end: the coordinator records the folder of the stuck worker as failed, gives the worker
// up (Abandon) and goes on with a new one. The stuck thread is left behind; when its call comes
// back one day it sees that it was abandoned (IsAbandoned) and ends without touching anything of
// the caller's: whatever it still uses it holds by shared ownership.
//
// The platform's file calls on the traversal path (folder opens and listings, status reads)
// bracket the system call with a CCall. Outside a thread that holds a CThreadScope a CCall costs a
// thread-local read. Inside one it is a store and an atomic increment of a counter of the
// thread's own (odd while in a call), which the coordinator samples from time to time
// (IsStalled): a counter that stays odd and unchanged for the whole time-out means one call has
// not returned for that long.
//
// Ownership and threads: the worker and its coordinator share the watch (shared_ptr). The
// CThreadScope and CCall belong to the worker's thread; IsStalled is for one coordinator
// thread; Abandon and IsAbandoned may be called from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>

class CAlertableEventThread;

class CBlockingCallWatch {
 public:
  using Clock = std::chrono::steady_clock;

  // The agent's setting of the time-out: section "FileSystemAgent", key below, in seconds; at
  // least 1 s. Absent or unreadable: kDefaultTimeout.
  static constexpr const char* kTimeoutKey = "nFileSystemCallTimeoutSec";
  static constexpr std::chrono::seconds kDefaultTimeout{300};
  static std::chrono::milliseconds GetConfiguredTimeout();

  // The time-out to use: the given one when positive, else the agent's setting.
  static std::chrono::milliseconds EffectiveTimeout(std::chrono::milliseconds timeout) {
    return timeout.count() > 0 ? timeout : GetConfiguredTimeout();
  }

  // Coordinator: waits for a watched thread's run to end (after a stop request). A thread that
  // stays inside one file-system call for the time-out is given up instead (Abandon) and false
  // comes back: the caller leaves it behind rather than wait for ever.
  static bool WaitForStopOrGiveUp(CAlertableEventThread& thread, CBlockingCallWatch& watch,
                                  std::chrono::milliseconds timeout);

  CBlockingCallWatch() = default;
  CBlockingCallWatch(const CBlockingCallWatch&) = delete;
  CBlockingCallWatch& operator=(const CBlockingCallWatch&) = delete;

  // Makes the watch the calling thread's for the scope's life (the previous one comes back
  // afterwards).
  class CThreadScope {
   public:
    explicit CThreadScope(std::shared_ptr<CBlockingCallWatch> pWatch);
    ~CThreadScope();
    CThreadScope(const CThreadScope&) = delete;
    CThreadScope& operator=(const CThreadScope&) = delete;

   private:
    std::shared_ptr<CBlockingCallWatch> m_pWatch;
    CBlockingCallWatch* m_pPrevious;
  };

  // One file-system call, from construction to destruction: of the calling thread's watch, or
  // of a given one (a listing takes its thread's watch once and brackets every call of the
  // listing with it, so that the per-entry calls read no thread-local storage). Calls do not
  // nest.
  class CCall {
   public:
    CCall() : CCall(t_pWatch) {}
    explicit CCall(CBlockingCallWatch* pWatch) : m_pWatch(pWatch) {
      if (m_pWatch != nullptr) m_pWatch->Enter();
    }
    ~CCall() {
      if (m_pWatch != nullptr) m_pWatch->Leave();
    }
    CCall(const CCall&) = delete;
    CCall& operator=(const CCall&) = delete;

   private:
    CBlockingCallWatch* const m_pWatch;
  };

  // The calling thread's watch (null outside a CThreadScope).
  static CBlockingCallWatch* Current() { return t_pWatch; }

  // True when the calling thread's watch has been abandoned by its coordinator: the thread is
  // to end at once without touching what it worked for. Checked right after every file-system
  // call whose caller goes on to touch the caller's objects.
  static bool IsAbandoned() {
    const CBlockingCallWatch* pWatch = t_pWatch;
    return pWatch != nullptr && pWatch->WasAbandoned();
  }

  // Coordinator: true when the thread has been inside the same call at every sample for at least
  // the time-out. Samples are taken by the calls of this function.
  bool IsStalled(Clock::time_point tNow, std::chrono::milliseconds timeout);
  // Coordinator: gives the thread up, but only while it is still inside the call that
  // IsStalled saw; false when that call has returned meanwhile (the thread is then not
  // abandoned and goes on). Once this has returned true the thread sees IsAbandoned() as soon
  // as its call returns, before it does anything else.
  bool Abandon();
  bool WasAbandoned() const {
    return (m_uCalls.load(std::memory_order_acquire) & kAbandonedBit) != 0;
  }

 private:
  static constexpr uint64_t kAbandonedBit = uint64_t{1} << 63;

  // The counter is even between calls: only the watched thread changes it then, by a plain
  // store. Inside a call (odd) the coordinator may set the abandoned bit, so leaving is an
  // atomic increment that keeps the bit.
  void Enter() {
    m_uCalls.store(m_uCalls.load(std::memory_order_relaxed) + 1, std::memory_order_release);
  }
  void Leave() { m_uCalls.fetch_add(1, std::memory_order_acq_rel); }

  static thread_local CBlockingCallWatch* t_pWatch;

  std::atomic<uint64_t> m_uCalls{0};
  // The coordinator's samples.
  uint64_t m_uLastSeen = 0;
  Clock::time_point m_tLastSeenSince;
};

using CBlockingCallWatchPtr = std::shared_ptr<CBlockingCallWatch>;
