#include "Platform/AlertableEventThread.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <exception>

#include "Platform/FXErrorUtil.h"

namespace {
pid_t CurrentTid() {
  thread_local pid_t tid = static_cast<pid_t>(syscall(SYS_gettid));
  return tid;
}
}  // namespace

CAlertableEventThread::CAlertableEventThread(std::string strName)
    : ZrThread(std::move(strName)),
      m_pOwnEvent(FXEvent::Create(FXEvent::EResetMode::Auto)),
      m_pEvent(m_pOwnEvent) {}

CAlertableEventThread::~CAlertableEventThread() {
  if (!IsOwnThread()) {
    (void)Stop(true);
  } else {
    InternalStop();
  }
}

CQiError CAlertableEventThread::Start() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_bActive)
      return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Thread is already running, Thread=%s",
                            GetName().c_str());
    m_bActive = true;
    m_bSynchronous = false;
  }
  // The previous run's thread (if any) has left its loop; release it before the next one.
  (void)Join();
  CQiError error = ZrThread::Start();
  if (error.IsError()) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bActive = false;
    m_bStopRequested.store(false, std::memory_order_release);
    m_stopEvent.Reset();
    m_cvRunEnded.notify_all();
    return QI_PUSH(error);
  }
  return CQiError();
}

CQiError CAlertableEventThread::StartSynchronously() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_bActive)
      return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Thread is already running, Thread=%s",
                            GetName().c_str());
    m_bActive = true;
    m_bSynchronous = true;
    m_iSyncThreadId = CurrentTid();
  }
  return Run();
}

CQiError CAlertableEventThread::Run() {
  SetLastError(CQiError());
  CQiError error = RunHooks();

  // Kept before the run is marked ended, so that a waiter sees it as soon as WaitForStop returns.
  if (error.IsError()) SetLastError(error);

  // The run is over: a stop request applied to it and is cleared with it, under the same lock
  // that Stop() takes, so no request can slip in between and linger.
  std::lock_guard<std::mutex> lock(m_mutex);
  m_bActive = false;
  m_bStopRequested.store(false, std::memory_order_release);
  m_stopEvent.Reset();
  m_cvRunEnded.notify_all();
  return error;
}

template <typename F>
CQiError CAlertableEventThread::CallHook(const char* szHook, F&& fnHook) {
  try {
    return fnHook();
  } catch (const std::exception& e) {
    return QI_ERROR_WIN32(QiErrorCode::FunctionFailed,
                          "Thread hook %s ended by an exception, Thread=%s, what=%s", szHook,
                          GetName().c_str(), e.what());
  } catch (...) {
    return QI_ERROR_WIN32(QiErrorCode::FunctionFailed,
                          "Thread hook %s ended by an unknown exception, Thread=%s", szHook,
                          GetName().c_str());
  }
}

CQiError CAlertableEventThread::RunHooks() {
  CQiError error = CallHook("OnStart", [this] { return OnStart(); });
  if (error.IsError()) {
    QI_PUSH(error, "OnStart failed, Thread=%s", GetName().c_str());
  } else {
    error = CallHook("OnRun", [this] { return OnRun(); });
    CQiError stopError = CallHook("OnStop", [this] { return OnStop(); });
    if (error.IsSuccess() && stopError.IsError()) error = stopError;
  }
  CQiError completionError = CallHook("OnCompletion", [this] { return OnCompletion(); });
  if (error.IsSuccess() && completionError.IsError()) error = completionError;
  return error;
}

CQiError CAlertableEventThread::OnRun() {
  while (!IsStopRequested()) {
    EWaitResult eResult = EWaitResult::StopRequested;
    QI_RETURN_IF_ERROR(CallHook("WaitForEvent", [&] { return WaitForEvent(eResult); }),
                       "WaitForEvent failed, Thread=%s", GetName().c_str());
    switch (eResult) {
      case EWaitResult::Signalled:
        QI_RETURN_IF_ERROR(CallHook("OnEvent", [this] { return OnEvent(); }),
                           "OnEvent failed, Thread=%s", GetName().c_str());
        break;
      case EWaitResult::TimedOut:
        QI_RETURN_IF_ERROR(CallHook("OnTimeout", [this] { return OnTimeout(); }),
                           "OnTimeout failed, Thread=%s", GetName().c_str());
        break;
      case EWaitResult::Abandoned:
        QI_RETURN_IF_ERROR(CallHook("OnAbandoned", [this] { return OnAbandoned(); }),
                           "OnAbandoned failed, Thread=%s", GetName().c_str());
        break;
      case EWaitResult::StopRequested:
        break;
    }
  }
  return CQiError();
}

CQiError CAlertableEventThread::WaitForEvent(EWaitResult& eResult) {
  eResult = WaitForEventOrStop(GetEvent().get(), GetTimeout());
  return CQiError();
}

CAlertableEventThread::EWaitResult CAlertableEventThread::WaitForEventOrStop(FXEvent* pEvent,
                                                                             uint32_t uTimeoutMs) {
  // The stop event comes first: when both are set, the stop wins.
  int iIndex = FXEvent::WaitAny({&m_stopEvent, pEvent}, uTimeoutMs);
  if (iIndex == 0) return EWaitResult::StopRequested;
  if (iIndex == 1) return EWaitResult::Signalled;
  return IsStopRequested() ? EWaitResult::StopRequested : EWaitResult::TimedOut;
}

CQiError CAlertableEventThread::OnStart() { return CQiError(); }
CQiError CAlertableEventThread::OnStop() { return CQiError(); }
CQiError CAlertableEventThread::OnEvent() { return CQiError(); }
CQiError CAlertableEventThread::OnCompletion() { return CQiError(); }
CQiError CAlertableEventThread::OnTimeout() { return CQiError(); }

CQiError CAlertableEventThread::OnAbandoned() {
  InternalStop();
  return CQiError();
}

void CAlertableEventThread::InternalStop() {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (!m_bActive) return;
  m_bStopRequested.store(true, std::memory_order_release);
  m_stopEvent.Set();
}

CQiError CAlertableEventThread::Stop(bool bWait) {
  InternalStop();
  if (!bWait || IsOwnThread()) return CQiError();
  QI_RETURN_IF_ERROR(WaitForStop());
  return CQiError();
}

CQiError CAlertableEventThread::WaitForStop(uint32_t uTimeoutMs) {
  if (IsOwnThread())
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                          "A thread cannot wait for its own stop, Thread=%s", GetName().c_str());
  {
    std::unique_lock<std::mutex> lock(m_mutex);
    auto ended = [this] { return !m_bActive; };
    if (uTimeoutMs == FXEvent::kInfinite) {
      m_cvRunEnded.wait(lock, ended);
    } else if (!m_cvRunEnded.wait_for(lock, std::chrono::milliseconds(uTimeoutMs), ended)) {
      return QI_ERROR_WIN32(kErrorWaitTimeout, "Thread did not stop within %u ms, Thread=%s",
                            uTimeoutMs, GetName().c_str());
    }
  }
  // An asynchronous run has left its loop; release its thread.
  QI_RETURN_IF_ERROR(Join());
  return CQiError();
}

void CAlertableEventThread::SetTimeout(uint32_t uTimeoutMs) {
  m_uTimeoutMs.store(uTimeoutMs, std::memory_order_relaxed);
}

void CAlertableEventThread::Signal() { GetEvent()->Set(); }

void CAlertableEventThread::SetEvent(FXEventPtr pEvent) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_pEvent = pEvent ? std::move(pEvent) : m_pOwnEvent;
}

FXEventPtr CAlertableEventThread::GetEvent() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_pEvent;
}

bool CAlertableEventThread::IsActive() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_bActive;
}

bool CAlertableEventThread::IsOwnThread() const {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_bActive && m_bSynchronous && m_iSyncThreadId == CurrentTid()) return true;
  }
  return IsCurrentThread();
}
