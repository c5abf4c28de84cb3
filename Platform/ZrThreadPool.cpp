#include "Platform/ZrThreadPool.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <string>

#include "Platform/FXErrorUtil.h"
#include "Platform/LogWriterInterface.h"

ZrThreadPool::ZrThreadPool() = default;

ZrThreadPool::~ZrThreadPool() { Shutdown(); }

int ZrThreadPool::Initialize(const std::string& strName, int iQueueLimit, int iMinThreads,
                             int iMaxThreads, int iInitialThreads) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_bInitialized || m_bShutdown) {
    SetLastErrorLocked(QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                                      "Thread pool is already initialized or shut down, Name=%s",
                                      m_strName.c_str()));
    return kResultFailed;
  }
  if (iQueueLimit < 1 || iMinThreads < 0 || iMaxThreads < 1 || iMinThreads > iMaxThreads ||
      iInitialThreads < 0) {
    SetLastErrorLocked(QI_ERROR_WIN32(
        QiErrorCode::InvalidParameter,
        "Invalid thread pool parameters, Name=%s, QueueLimit=%d, MinThreads=%d, MaxThreads=%d, "
        "InitialThreads=%d",
        strName.c_str(), iQueueLimit, iMinThreads, iMaxThreads, iInitialThreads));
    return kResultFailed;
  }

  m_strName = strName.empty() ? std::string("ThreadPool") : strName;
  m_iQueueLimit = iQueueLimit;
  m_iMinThreads = iMinThreads;
  m_iMaxThreads = iMaxThreads;
  const int iStart = std::clamp(iInitialThreads, iMinThreads, iMaxThreads);
  for (int i = 0; i < iStart; ++i) {
    CQiError error = StartThreadLocked();
    if (error.IsError()) {
      SetLastErrorLocked(QI_PUSH(error, "Failed to start the pool's threads, Name=%s, Started=%d",
                                 m_strName.c_str(), i));
      // The threads already started leave when they see the shutdown; they are joined at
      // destruction.
      m_bShutdown = true;
      m_cvWork.notify_all();
      return kResultFailed;
    }
  }
  m_bInitialized = true;
  ZRLOG(2,
        "Thread pool initialized, Name=%s, QueueLimit=%d, MinThreads=%d, MaxThreads=%d, Threads=%d",
        m_strName.c_str(), m_iQueueLimit, m_iMinThreads, m_iMaxThreads, iStart);
  return kResultSuccess;
}

CQiError ZrThreadPool::StartThreadLocked() {
  const std::string strIndex = std::to_string(m_lstThreads.size() + 1);
  const size_t uPrefix = ZrThread::kMaxNameLength - strIndex.size() - 1;
  auto pThread = std::make_unique<ZrThread>(m_strName.substr(0, uPrefix) + "/" + strIndex);
  QI_RETURN_IF_ERROR(pThread->Create([this] {
    WorkerMain();
    return 0u;
  }));
  m_lstThreads.push_back(std::move(pThread));
  return CQiError();
}

int ZrThreadPool::QueueJob(JobProc proc, void* pArg) {
  if (proc == nullptr) {
    std::lock_guard<std::mutex> lock(m_mutex);
    SetLastErrorLocked(QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                                      "No job function given, Name=%s", m_strName.c_str()));
    return kInvalidJob;
  }
  return QueueJob([proc, pArg] { return static_cast<int>(proc(pArg)); });
}

int ZrThreadPool::QueueJob(JobFunction fnJob) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (!fnJob) {
    SetLastErrorLocked(QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                                      "No job function given, Name=%s", m_strName.c_str()));
    return kInvalidJob;
  }
  if (!m_bInitialized || m_bShutdown) {
    SetLastErrorLocked(QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                                      "Thread pool is not initialized or shut down, Name=%s",
                                      m_strName.c_str()));
    return kInvalidJob;
  }
  // Grow when every thread would be busy with this job waiting.
  int iIdle = static_cast<int>(m_lstThreads.size()) - m_iBusyThreads;
  if (static_cast<int>(m_lstQueue.size()) + 1 > iIdle &&
      static_cast<int>(m_lstThreads.size()) < m_iMaxThreads) {
    CQiError error = StartThreadLocked();
    if (error.IsError()) {
      // Not fatal while some thread exists: the job waits for one of them.
      ZRLOG(-1, "Thread pool could not grow, Name=%s, error=%s", m_strName.c_str(),
            error.AsString().c_str());
      if (m_lstThreads.empty()) {
        SetLastErrorLocked(QI_PUSH(error));
        return kInvalidJob;
      }
    }
  }

  // The limit counts the jobs that must wait for a thread: jobs queued faster than idle threads
  // wake up to take them are not waiting, or a facade with more media than the limit could not
  // start although it has a thread for every medium.
  iIdle = static_cast<int>(m_lstThreads.size()) - m_iBusyThreads;
  if (static_cast<int>(m_lstQueue.size()) + 1 - iIdle > m_iQueueLimit) {
    SetLastErrorLocked(QI_ERROR_WIN32(kErrorQueueFull,
                                      "Thread pool queue is full, Name=%s, QueueLimit=%d",
                                      m_strName.c_str(), m_iQueueLimit));
    return kInvalidJob;
  }

  const int iJob = m_iNextJob++;
  m_mapJobs[iJob].fnJob = std::move(fnJob);
  m_lstQueue.push_back(iJob);
  ++m_iUnfinishedJobs;
  m_cvWork.notify_one();
  return iJob;
}

void ZrThreadPool::WorkerMain() {
  std::unique_lock<std::mutex> lock(m_mutex);
  for (;;) {
    m_cvWork.wait(lock, [this] { return m_bShutdown || !m_lstQueue.empty(); });
    if (m_lstQueue.empty()) return;  // shut down and nothing left to run

    const int iJob = m_lstQueue.front();
    m_lstQueue.pop_front();
    SJob& job = m_mapJobs[iJob];  // map nodes stay put while other jobs come and go
    job.eState = EJobState::Running;
    JobFunction fnJob = std::move(job.fnJob);
    job.fnJob = nullptr;
    ++m_iBusyThreads;
    lock.unlock();

    unsigned uExitCode = 0;
    CQiError error;
    try {
      uExitCode = static_cast<unsigned>(fnJob());
    } catch (const std::exception& e) {
      ZRLOG(-1, "Thread pool job ended by an exception, Name=%s, Job=%d, what=%s",
            m_strName.c_str(), iJob, e.what());
      error = QI_ERROR_WIN32(QiErrorCode::FunctionFailed,
                             "Job ended by an exception, Name=%s, Job=%d, what=%s",
                             m_strName.c_str(), iJob, e.what());
    } catch (...) {
      ZRLOG(-1, "Thread pool job ended by an unknown exception, Name=%s, Job=%d", m_strName.c_str(),
            iJob);
      error = QI_ERROR_WIN32(QiErrorCode::FunctionFailed,
                             "Job ended by an unknown exception, Name=%s, Job=%d",
                             m_strName.c_str(), iJob);
    }
    if (error.IsError()) uExitCode = QiErrorCode::FunctionFailed;
    fnJob = nullptr;  // release what the job captured before it counts as finished

    lock.lock();
    --m_iBusyThreads;
    --m_iUnfinishedJobs;
    ++m_iFinishedRecords;
    SJob& done = m_mapJobs[iJob];
    done.eState = EJobState::Finished;
    done.uExitCode = uExitCode;
    done.error = std::move(error);
    m_cvJobDone.notify_all();
  }
}

int ZrThreadPool::WaitForAll(bool bWaitAll, bool /*bAlertable*/, bool bRemoveJobs, int iTimeoutMs) {
  std::unique_lock<std::mutex> lock(m_mutex);
  if (!m_bInitialized) {
    SetLastErrorLocked(QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                                      "Thread pool is not initialized, Name=%s",
                                      m_strName.c_str()));
    return kResultFailed;
  }
  auto done = [this, bWaitAll] {
    if (m_iUnfinishedJobs == 0) return true;
    return !bWaitAll && m_iFinishedRecords > 0;
  };
  if (iTimeoutMs < 0) {
    m_cvJobDone.wait(lock, done);
  } else if (!m_cvJobDone.wait_for(lock, std::chrono::milliseconds(iTimeoutMs), done)) {
    SetLastErrorLocked(QI_ERROR_WIN32(
        kErrorWaitTimeout, "Wait for jobs timed out, Name=%s, TimeoutMs=%d, Unfinished=%d",
        m_strName.c_str(), iTimeoutMs, m_iUnfinishedJobs));
    return kResultTimedOut;
  }

  if (bRemoveJobs) {
    std::erase_if(m_mapJobs,
                  [](const auto& entry) { return entry.second.eState == EJobState::Finished; });
    m_iFinishedRecords = 0;
  }
  return kResultSuccess;
}

void ZrThreadPool::Shutdown() {
  std::vector<std::unique_ptr<ZrThread>> lstThreads;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bShutdown = true;
    lstThreads.swap(m_lstThreads);
  }
  m_cvWork.notify_all();
  for (auto& pThread : lstThreads) (void)pThread->Join();
}

int ZrThreadPool::GetThreadCount() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return static_cast<int>(m_lstThreads.size());
}

int ZrThreadPool::GetUnfinishedJobCount() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_iUnfinishedJobs;
}

bool ZrThreadPool::GetJobExitCode(int iJob, unsigned& uExitCode) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto it = m_mapJobs.find(iJob);
  if (it == m_mapJobs.end() || it->second.eState != EJobState::Finished) return false;
  uExitCode = it->second.uExitCode;
  return true;
}

CQiError ZrThreadPool::GetJobError(int iJob) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto it = m_mapJobs.find(iJob);
  if (it == m_mapJobs.end() || it->second.eState != EJobState::Finished) return CQiError();
  return it->second.error;
}

CQiError ZrThreadPool::GetLastError() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_lastError;
}
