#include "Scan/ScanTraverseFolderWorker.h"

#include "Platform/AutoTimeCounter.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/ListingFolderCache.h"
#include "Platform/ScanPerformanceCounterSet.h"
#include "Scan/ScanTraverseFolder.h"

CScanTraverseFolderWorker::CScanTraverseFolderWorker(CScanTraverseFolder* pTraversal,
                                                     CScanTraverseFolderPrivatePtr pPrivate,
                                                     std::shared_ptr<CPathEnumerator> pEnumerator,
                                                     int iIndex, bool bSolo)
    : CAlertableEventThread("TraverseWkr" + std::to_string(iIndex)),
      m_pTraversal(pTraversal),
      m_pPrivate(std::move(pPrivate)),
      m_pEnumerator(std::move(pEnumerator)),
      m_iIndex(iIndex),
      m_bSolo(bSolo) {
  if (CLogWriterInterfaceThreadWrapper* pWrapper =
          CLogWriterInterfaceThreadWrapper::CurrentForThread()) {
    m_pLogWriter = pWrapper->GetWriter()->shared_from_this();
    m_strLogContext = pWrapper->GetContext();
  }
}

CScanTraverseFolderWorker::~CScanTraverseFolderWorker() {
  // The hooks use this object's members: the loop must end before they go.
  (void)Stop(true);
}

void CScanTraverseFolderWorker::Prepare() {
  SetEvent(m_pPrivate->GetFolderAvailableEvent());
  SetTimeout(kWorkerTimeoutMs);
}

CQiError CScanTraverseFolderWorker::Start() {
  Prepare();
  QI_RETURN_IF_ERROR(CAlertableEventThread::Start());
  return CQiError();
}

CQiError CScanTraverseFolderWorker::StartSynchronously() {
  Prepare();
  QI_RETURN_IF_ERROR(CAlertableEventThread::StartSynchronously());
  return CQiError();
}

CQiError CScanTraverseFolderWorker::WaitForEvent(EWaitResult& eResult) {
  CAutoTimeCounter timer(CScanPerformanceCounter::GetThreadCounter(
      m_pPrivate->GetVolumeName())[EScanPerfCounterType::TIME_WAIT_FOR_FOLDER]);
  eResult = WaitForEventOrStop(GetEvent().get(), GetTimeout());
  return CQiError();
}

CQiError CScanTraverseFolderWorker::OnStart() {
  if (m_pLogWriter)
    m_pLogWrapper = std::make_unique<CLogWriterInterfaceThreadWrapper>(m_pLogWriter, m_strLogContext);
  return CQiError();
}

CQiError CScanTraverseFolderWorker::OnStop() { return CQiError(); }

CQiError CScanTraverseFolderWorker::OnCompletion() {
  // The wrapper belongs to this thread: it is dropped here, on it.
  m_pLogWrapper.reset();
  return CQiError();
}

CQiError CScanTraverseFolderWorker::OnEvent() { return ProcessPendingFolders(); }

CQiError CScanTraverseFolderWorker::OnTimeout() { return ProcessPendingFolders(); }

bool CScanTraverseFolderWorker::GetCurrentFolder(std::string& strInput,
                                                 std::string& strOutput) const {
  std::lock_guard<std::mutex> lock(m_mtxCurrent);
  if (!m_bHasCurrent) return false;
  strInput = m_current.GetInputFolder();
  strOutput = m_current.GetOutputFolder();
  return true;
}

void CScanTraverseFolderWorker::LeaveBehind(const std::shared_ptr<CScanTraverseFolderWorker>& pSelf) {
  pSelf->KeepAliveUntilEnd(pSelf);
}

CQiError CScanTraverseFolderWorker::ProcessPendingFolders() {
  if (!m_pEnumerator) return CQiError();
  // Sub-folders open relative to their parents (this worker's or another's); the file-system
  // calls of this thread are watched by the coordinator.
  CListingFolderCache::CThreadScope folderScope(m_pPrivate->GetListingFolderCache());
  CBlockingCallWatch::CThreadScope watchScope(m_pWatch);
  if (!m_bInitialized) {
    m_bInitialized = true;
    CQiError error = m_pTraversal->OnInitializeWorker();
    if (error.IsError()) ZRLOG(-1, "OnInitializeWorker failed, error=%s", error.AsString().c_str());
  }
  for (;;) {
    const bool bAborted = m_pPrivate->IsAborted();
    if (bAborted || IsStopRequested()) {
      m_pPrivate->MarkIdle(m_bIdle);
      m_pPrivate->SignalWorkerState();
      // Nothing more to do for this run; the coordinator stops the others.
      if (bAborted) InternalStop();
      return CQiError();
    }
    bool bFirstFolder = false;
    CQiError error;
    {
      std::lock_guard<std::mutex> lock(m_mtxCurrent);
      error = m_pPrivate->TakeFolder(m_current, bFirstFolder, &m_bIdle);
      m_bHasCurrent = error.IsSuccess();
    }
    if (error.IsWin32(QiErrorCode::NoMoreItems)) {
      m_pPrivate->SignalWorkerState();
      return CQiError();
    }
    if (error.IsError()) {
      // The queue cannot fail otherwise; should it, this worker stops taking folders.
      QI_PUSH(error, "GetFolderToTraverse failed");
      ZRLOG(-1, "ProcessPendingFolders failed unexpectedly, error=%s", error.AsString().c_str());
      SetLastError(error);
      if (m_bSolo) m_pPrivate->SetWorkerFailure(error);
      m_pPrivate->MarkIdle(m_bIdle);
      m_pPrivate->SignalWorkerState();
      InternalStop();
      return CQiError();
    }
    error = m_current.IsTopLevel() ? m_pTraversal->ProcessTopLevelEntry(m_current, *m_pEnumerator, bFirstFolder)
                                   : m_pTraversal->TraverseFolder(m_current, *m_pEnumerator, bFirstFolder);
    if (CBlockingCallWatch::IsAbandoned()) {
      // Given up while stuck in the file system: the traversal may be gone by now.
      InternalStop();
      return CQiError();
    }
    {
      std::lock_guard<std::mutex> lock(m_mtxCurrent);
      m_bHasCurrent = false;
    }
    if (error.IsError()) {
      QI_PUSH(error, "TraverseFolder failed");
      // Kept for the coordinator; an abort is a quiet end, anything else is worth a line.
      if (!error.IsWin32(QiErrorCode::OperationAborted) && !m_bSolo)
        ZRLOG(-1, "ProcessPendingFolders failed unexpectedly, error=%s", error.AsString().c_str());
      SetLastError(error);
      if (m_bSolo) {
        m_pPrivate->SetWorkerFailure(error);
        m_pPrivate->MarkIdle(m_bIdle);
        m_pPrivate->SignalWorkerState();
        InternalStop();
        return CQiError();
      }
      m_pPrivate->SignalWorkerState();
    }
  }
}
