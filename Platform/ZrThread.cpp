#include "Platform/ZrThread.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <exception>
#include <system_error>

#include "Platform/FXErrorUtil.h"
#include "Platform/LogWriterInterface.h"

namespace {
pid_t CurrentTid() {
  thread_local pid_t tid = static_cast<pid_t>(syscall(SYS_gettid));
  return tid;
}
}  // namespace

ZrThread::ZrThread(std::string strName)
    : m_strName(std::move(strName)), m_pState(std::make_shared<SState>()) {}

ZrThread::~ZrThread() {
  if (!m_thread.joinable()) return;
  if (IsCurrentThread()) {
    m_thread.detach();  // destroyed by its own thread: joining would deadlock
  } else {
    m_thread.join();
  }
}

CQiError ZrThread::Run() { return CQiError(); }

CQiError ZrThread::Start() {
  return Launch([this] { return Run(); });
}

CQiError ZrThread::Create(ThreadProc proc, void* pArg) {
  if (proc == nullptr) {
    CQiError error = QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                                    "No thread function given, Thread=%s", m_strName.c_str());
    SetLastError(error);
    return error;
  }
  return Create([proc, pArg] { return proc(pArg); });
}

CQiError ZrThread::Create(std::function<unsigned()> fnBody) {
  if (!fnBody) {
    CQiError error = QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                                    "No thread function given, Thread=%s", m_strName.c_str());
    SetLastError(error);
    return error;
  }
  SState* pState = m_pState.get();
  return Launch([pState, fn = std::move(fnBody)] {
    pState->uExitCode.store(fn(), std::memory_order_release);
    return CQiError();
  });
}

CQiError ZrThread::Launch(std::function<CQiError()> fnBody) {
  {
    std::lock_guard<std::mutex> lock(m_pState->mutex);
    if (m_pState->bRunning) {
      CQiError error = QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                                      "Thread is already running, Thread=%s", m_strName.c_str());
      m_pState->lastError = error;
      return error;
    }
  }
  // A thread that ended but was not joined yet is released before the next one starts.
  if (m_thread.joinable()) m_thread.join();

  {
    std::lock_guard<std::mutex> lock(m_pState->mutex);
    m_pState->bRunning = true;
    m_pState->lastError.Clear();
  }
  m_pState->uExitCode.store(0, std::memory_order_release);
  m_pState->iThreadId.store(0, std::memory_order_release);
  try {
    m_thread = std::thread(&ZrThread::ThreadMain, m_pState, m_strName, std::move(fnBody));
  } catch (const std::system_error& e) {
    CQiError error =
        QI_ERROR_ERRNO(e.code().value(), "Failed to create thread, Thread=%s", m_strName.c_str());
    std::lock_guard<std::mutex> lock(m_pState->mutex);
    m_pState->bRunning = false;
    m_pState->lastError = error;
    return error;
  }
  m_bStarted.store(true, std::memory_order_release);
  return CQiError();
}

void ZrThread::ThreadMain(const std::shared_ptr<SState>& pState, const std::string& strName,
                          const std::function<CQiError()>& fnBody) {
  pState->iThreadId.store(CurrentTid(), std::memory_order_release);
  if (!strName.empty()) {
    std::string strKernelName = strName.substr(0, kMaxNameLength);
    pthread_setname_np(pthread_self(), strKernelName.c_str());
  }

  CQiError result;
  try {
    result = fnBody();
  } catch (const std::exception& e) {
    ZRLOG(-1, "Thread ended by an exception, Thread=%s, what=%s", strName.c_str(), e.what());
    result = QI_ERROR_WIN32(QiErrorCode::FunctionFailed,
                            "Thread ended by an exception, Thread=%s, what=%s", strName.c_str(),
                            e.what());
  } catch (...) {
    ZRLOG(-1, "Thread ended by an unknown exception, Thread=%s", strName.c_str());
    result = QI_ERROR_WIN32(QiErrorCode::FunctionFailed,
                            "Thread ended by an unknown exception, Thread=%s", strName.c_str());
  }
  if (result.IsError())
    pState->uExitCode.store(result.GetCode() != 0 ? result.GetCode() : 1,
                            std::memory_order_release);

  // A thread left behind drops the last reference to its object while it still counts as
  // running, so that the object's destructor sees its own thread and detaches it.
  std::shared_ptr<ZrThread> pKeepAlive;
  {
    std::lock_guard<std::mutex> lock(pState->mutex);
    pKeepAlive = std::move(pState->pKeepAlive);
  }
  pKeepAlive.reset();

  std::lock_guard<std::mutex> lock(pState->mutex);
  if (result.IsError()) pState->lastError = result;
  pState->bRunning = false;
  pState->cvEnded.notify_all();
}

void ZrThread::KeepAliveUntilEnd(std::shared_ptr<ZrThread> pSelf) {
  std::lock_guard<std::mutex> lock(m_pState->mutex);
  if (m_pState->bRunning) m_pState->pKeepAlive = std::move(pSelf);
}

CQiError ZrThread::Join() {
  if (!m_thread.joinable()) return CQiError();
  if (IsCurrentThread())
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "A thread cannot join itself, Thread=%s",
                          m_strName.c_str());
  m_thread.join();
  return CQiError();
}

bool ZrThread::Wait(uint32_t uTimeoutMs) {
  std::unique_lock<std::mutex> lock(m_pState->mutex);
  auto ended = [this] { return !m_pState->bRunning; };
  if (uTimeoutMs == kInfinite) {
    m_pState->cvEnded.wait(lock, ended);
    return true;
  }
  return m_pState->cvEnded.wait_for(lock, std::chrono::milliseconds(uTimeoutMs), ended);
}

bool ZrThread::IsRunning() const {
  std::lock_guard<std::mutex> lock(m_pState->mutex);
  return m_pState->bRunning;
}

bool ZrThread::IsCurrentThread() const {
  // The id is that of the running thread or of the last one; a running check keeps a reused
  // kernel id of a long-gone thread from matching.
  pid_t tid = GetThreadId();
  return tid != 0 && tid == CurrentTid() && IsRunning();
}

CQiError ZrThread::GetLastError() const {
  std::lock_guard<std::mutex> lock(m_pState->mutex);
  return m_pState->lastError;
}

void ZrThread::SetLastError(const CQiError& error) {
  std::lock_guard<std::mutex> lock(m_pState->mutex);
  m_pState->lastError = error;
}
