// ZrThreadPool: a pool of worker threads that runs queued jobs, used by the scanner facade to run
// one work thread per physical medium, all at once.
//
// Initialize(name, queueLimit, minThreads, maxThreads, initialThreads):
//   name            names the pool in log lines and its threads ("<name>/<n>", cut to the
//                   kernel's 15 bytes);
//   queueLimit      how many jobs may wait for a thread at once (>= 1); a job queued beyond it
//                   is refused (jobs that an idle thread has yet to pick up do not wait);
//   minThreads      threads the pool always has (>= 0);
//   maxThreads      threads it may grow to (>= 1, >= minThreads);
//   initialThreads  threads started by Initialize, raised to minThreads and cut to maxThreads.
// The facade's call Initialize("BasicScannerPrivate", 200, N, N + 1, N) therefore starts N
// threads, lets up to 200 jobs wait and may grow to N + 1 threads. Whenever a job is queued and
// no idle thread is left to take it, the pool starts another thread, up to maxThreads, so jobs
// run at once up to the thread count. Threads are kept until the pool is destroyed.
//
// Results follow the platform's conventions: Initialize and WaitForAll return 1 on success;
// QueueJob returns the job's index (0, 1, 2, ... for the pool's life) or -1. On any other answer
// GetLastError()/GetLastErrorCode() tell why:
//   87                  invalid arguments, not initialized, already initialized, shut down
//   kErrorQueueFull     queueLimit jobs are already waiting
//   kErrorWaitTimeout   WaitForAll's time-out passed
//   errno               a thread could not be created
//
// WaitForAll(bWaitAll, bAlertable, bRemoveJobs, timeoutMs):
//   bWaitAll     true: until every queued job has finished; false: until at least one has;
//   bAlertable   accepted for the platform's signature; Linux has no alertable waits, ignored;
//   bRemoveJobs  after a successful wait, forget the finished jobs' records (their results can
//                no longer be read; indexes are never reused);
//   timeoutMs    negative waits without limit (the facade passes -1).
// It returns 1 when the condition holds, 0 on time-out, -1 when the pool was never initialized.
// With no job queued there is nothing to wait for and it returns 1 at once.
//
// A job that throws is caught: the exception is logged at level -1, the job's record keeps Win32
// 1627 with the exception's text (GetJobError), and its thread goes on with the next job.
//
// Threads: every call is safe from any thread, but Initialize must complete before other calls.
// The destructor (or Shutdown) refuses new jobs, lets the threads finish every job already
// queued, and joins them; it must not be called from one of the pool's jobs.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Platform/QiError.h"
#include "Platform/ZrThread.h"

class ZrThreadPool {
 public:
  using JobProc = unsigned (*)(void*);
  using JobFunction = std::function<int()>;

  static constexpr int kResultSuccess = 1;
  static constexpr int kResultTimedOut = 0;
  static constexpr int kResultFailed = -1;
  static constexpr int kInvalidJob = -1;
  static constexpr uint32_t kErrorWaitTimeout = 258;  // Win32 WAIT_TIMEOUT
  static constexpr uint32_t kErrorQueueFull = 1816;   // Win32 ERROR_NOT_ENOUGH_QUOTA

  ZrThreadPool();
  ~ZrThreadPool();
  ZrThreadPool(const ZrThreadPool&) = delete;
  ZrThreadPool& operator=(const ZrThreadPool&) = delete;

  int Initialize(const std::string& strName, int iQueueLimit, int iMinThreads, int iMaxThreads,
                 int iInitialThreads);

  // Queues proc(pArg); its return value is the job's exit code.
  int QueueJob(JobProc proc, void* pArg);
  // Queues a function; its return value (as unsigned) is the job's exit code.
  int QueueJob(JobFunction fnJob);

  int WaitForAll(bool bWaitAll, bool bAlertable, bool bRemoveJobs, int iTimeoutMs = -1);

  // Refuses new jobs, finishes the queued ones and joins the threads. Idempotent.
  void Shutdown();

  const std::string& GetName() const { return m_strName; }
  int GetQueueLimit() const { return m_iQueueLimit; }
  int GetMinThreads() const { return m_iMinThreads; }
  int GetMaxThreads() const { return m_iMaxThreads; }
  // Threads started so far.
  int GetThreadCount() const;
  // Jobs queued and not yet finished (waiting or running).
  int GetUnfinishedJobCount() const;

  // The exit code of a finished job; false when the job is unknown or not finished.
  bool GetJobExitCode(int iJob, unsigned& uExitCode) const;
  // The failure of a finished job that threw; empty for any other job.
  CQiError GetJobError(int iJob) const;

  CQiError GetLastError() const;
  uint32_t GetLastErrorCode() const { return GetLastError().GetCode(); }

 private:
  enum class EJobState { Queued, Running, Finished };
  struct SJob {
    JobFunction fnJob;  // released once the job has run
    EJobState eState = EJobState::Queued;
    unsigned uExitCode = 0;
    CQiError error;
  };

  // Starts one more thread; caller holds m_mutex.
  CQiError StartThreadLocked();
  void WorkerMain();
  void SetLastErrorLocked(const CQiError& error) { m_lastError = error; }

  std::string m_strName;
  int m_iQueueLimit = 0;
  int m_iMinThreads = 0;
  int m_iMaxThreads = 0;

  mutable std::mutex m_mutex;           // guards everything below
  std::condition_variable m_cvWork;     // a job was queued, or the pool shuts down
  std::condition_variable m_cvJobDone;  // a job finished
  bool m_bInitialized = false;
  bool m_bShutdown = false;
  std::vector<std::unique_ptr<ZrThread>> m_lstThreads;
  int m_iBusyThreads = 0;
  std::deque<int> m_lstQueue;     // indexes of jobs waiting for a thread, oldest first
  std::map<int, SJob> m_mapJobs;  // every job not yet removed by WaitForAll
  int m_iNextJob = 0;
  int m_iUnfinishedJobs = 0;
  int m_iFinishedRecords = 0;  // finished jobs still in m_mapJobs
  CQiError m_lastError;
};

using ZrThreadPoolPtr = std::shared_ptr<ZrThreadPool>;
