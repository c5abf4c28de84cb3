// ZrThread: one joinable thread of the platform.
//
// Two ways to use it:
//   - derive and override Run(); Start() runs it on a new thread and keeps its result as the
//     thread's last error;
//   - Create(function, argument) runs a plain thread function (unsigned (*)(void*)) or a
//     std::function<unsigned()> on a new thread, as the arbiter does with its scanners; the
//     function's return value is the exit code.
// A thread object runs one thread at a time; after it has been joined it may be started again.
//
// The thread carries a name (at most 15 bytes are given to the kernel through
// pthread_setname_np, so that it shows in ps/top/gdb) and, once running, its kernel thread id.
// An exception that escapes the thread's code is caught, logged at level -1 and kept as the last
// error (Win32 1627): it never reaches std::terminate.
//
// Ownership and threads: the object is owned by whoever made it; it must not be moved or copied.
// Start/Create/Join/Wait are meant for the owning thread (one controller at a time); the
// getters may be called from any thread. The destructor joins a started thread. A class derived
// from ZrThread whose Run() uses its own members must join in its own destructor (or have its
// owner join first): by the time ~ZrThread runs, the derived part is already gone. An object
// destroyed by its own thread (its last reference dropped inside Run) is detached, not joined;
// the thread then must not touch the object again.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "Platform/QiError.h"

class ZrThread {
 public:
  using ThreadProc = unsigned (*)(void*);
  static constexpr uint32_t kInfinite = 0xFFFFFFFFu;
  static constexpr size_t kMaxNameLength = 15;  // the kernel's limit for a thread name

  explicit ZrThread(std::string strName = std::string());
  virtual ~ZrThread();
  ZrThread(const ZrThread&) = delete;
  ZrThread& operator=(const ZrThread&) = delete;

  // Runs Run() on a new thread. Fails (Win32 87) while a thread of this object is running, or
  // with the system's errno when no thread can be created; the failure is also the last error.
  virtual CQiError Start();
  // Runs proc(pArg), or the function, on a new thread instead of Run(); same failures as Start.
  CQiError Create(ThreadProc proc, void* pArg);
  CQiError Create(std::function<unsigned()> fnBody);

  // Waits for the thread to end and releases it. Success at once when no thread was started;
  // Win32 87 when called from the thread itself.
  CQiError Join();
  // Waits up to the time-out for the thread to end (it is not joined); true when it has ended
  // or was never started.
  bool Wait(uint32_t uTimeoutMs = kInfinite);

  bool IsStarted() const { return m_bStarted.load(std::memory_order_acquire); }
  bool IsRunning() const;
  // True when the calling thread is this object's thread.
  bool IsCurrentThread() const;

  // The kernel thread id (gettid) of the running or last thread; 0 before the first start.
  pid_t GetThreadId() const { return m_pState->iThreadId.load(std::memory_order_acquire); }
  // The exit code of the last thread: the function's return value, or for Run() 0 on success
  // and the error's code on failure. Meaningful once the thread has ended.
  unsigned GetExitCode() const { return m_pState->uExitCode.load(std::memory_order_acquire); }
  // The last failure: of starting, or the error that Run() returned or an escaped exception.
  CQiError GetLastError() const;

  const std::string& GetName() const { return m_strName; }
  // Takes effect at the next start.
  void SetName(const std::string& strName) { m_strName = strName; }

  // Leaves the running thread behind: pSelf (a reference to this object) is kept by the thread
  // until its body has returned and dropped there, so that whoever gave up the thread may drop
  // its own references at once (the object is then destroyed by its own thread, which detaches).
  // When no thread is running, pSelf is dropped at once.
  void KeepAliveUntilEnd(std::shared_ptr<ZrThread> pSelf);

 protected:
  // The thread's body when started with Start(). The base does nothing.
  virtual CQiError Run();
  void SetLastError(const CQiError& error);

 private:
  // What the running thread and its controller share. The thread holds its own reference, so
  // the state outlives an object that its own thread destroys.
  struct SState {
    std::atomic<pid_t> iThreadId{0};
    std::atomic<unsigned> uExitCode{0};
    mutable std::mutex mutex;  // guards bRunning and lastError
    std::condition_variable cvEnded;
    bool bRunning = false;
    CQiError lastError;
    std::shared_ptr<ZrThread> pKeepAlive;  // see KeepAliveUntilEnd
  };

  CQiError Launch(std::function<CQiError()> fnBody);
  static void ThreadMain(const std::shared_ptr<SState>& pState, const std::string& strName,
                         const std::function<CQiError()>& fnBody);

  std::string m_strName;
  std::thread m_thread;
  std::atomic<bool> m_bStarted{false};
  std::shared_ptr<SState> m_pState;
};

using ZrThreadPtr = std::shared_ptr<ZrThread>;
