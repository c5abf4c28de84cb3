#include "Scan/TraverseFolderPrivate2.h"

#include <utility>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Scan/TraverseFolderWorker2.h"

CTraverseFolderPrivate2::CTraverseFolderPrivate2(CWorkUnitPtr pWorkUnit,
                                                 CScannerCallbackPtr pCallback,
                                                 CTraverseFolder2* pTraversal)
    : m_pWorkUnit(std::move(pWorkUnit)),
      m_pCallback(std::move(pCallback)),
      m_pTraversal(pTraversal),
      m_pCoordinatorEvent(FXEvent::Create(FXEvent::EResetMode::Auto)) {}

CTraverseFolderPrivate2::~CTraverseFolderPrivate2() = default;

void CTraverseFolderPrivate2::MarkTopLevelEntries() {
  for (CFoldersToTraverse2& entry : m_queue.TakeAll()) {
    entry.SetTopLevel(true);
    m_queue.Add(std::move(entry));
  }
}

void CTraverseFolderPrivate2::SetScanFailure(const CQiError& error) {
  {
    FXMutex::CScopedLock lock(m_mutexFailure);
    // The first failure is the one the scan ends with; later ones are consequences.
    if (!m_bHasScanFailure.load(std::memory_order_relaxed)) {
      m_scanFailure = error;
      m_bHasScanFailure.store(true, std::memory_order_release);
    }
  }
  ZRLOG(-1, "Scan failure encountered, terminating worker threads, error=%s",
        error.AsString().c_str());
  SignalCoordinator();
}

CQiError CTraverseFolderPrivate2::GetScanFailure() const {
  FXMutex::CScopedLock lock(m_mutexFailure);
  return m_scanFailure;
}

bool CTraverseFolderPrivate2::IsAborted() const {
  if (m_pAbortCheck != nullptr && m_pAbortCheck->IsAborted()) return true;
  return m_pAbortEvent && m_pAbortEvent->IsSet();
}

// ---- CVolumeOutputHandler ----

CVolumeOutputHandler::~CVolumeOutputHandler() {
  if (!m_pHandler) return;
  CQiError error = Close();
  if (error.IsError())
    ZRLOG(-1, "Output handler Complete failed, Volume=[%s], error=%s",
          FXString::EscapeControl(m_strVolume).c_str(), error.AsString().c_str());
}

CQiError CVolumeOutputHandler::Open(const CScannerCallbackPtr& pCallback,
                                    const std::string& strVolume) {
  if (m_pHandler)
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Output handler already open, Volume=[%s]",
                          FXString::EscapeControl(m_strVolume).c_str());
  if (!pCallback) return CQiError();
  COutputHandlerPtr pHandler;
  QI_RETURN_IF_ERROR(pCallback->GetOutputHandler(strVolume, pHandler),
                     "GetOutputHandler failed, Volume=[%s]", FXString::EscapeControl(strVolume).c_str());
  if (!pHandler) {
    // The traversals still run; their items are dropped.
    ZRLOG(0, "Output handler is unconfigured");
    return CQiError();
  }
  QI_RETURN_IF_ERROR(pHandler->Initialize(), "Output handler Initialize failed, Volume=[%s]",
                     FXString::EscapeControl(strVolume).c_str());
  m_pHandler = std::move(pHandler);
  m_strVolume = strVolume;
  return CQiError();
}

CQiError CVolumeOutputHandler::Close() {
  if (!m_pHandler) return CQiError();
  // Forgotten before Complete: a failed Complete is not tried again.
  COutputHandlerPtr pHandler = std::move(m_pHandler);
  m_pHandler.reset();
  QI_RETURN_IF_ERROR(pHandler->Complete(), "Output handler Complete failed, Volume=[%s]",
                     FXString::EscapeControl(m_strVolume).c_str());
  return CQiError();
}
