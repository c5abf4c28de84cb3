#include "Scan/TraverseFolderPrivate2.h"

#include <utility>

#include "Platform/FXErrorUtil.h"
#include "Platform/LogWriterInterface.h"
#include "Scan/TraverseFolderWorker2.h"

CTraverseFolderPrivate2::CTraverseFolderPrivate2(CWorkUnitPtr pWorkUnit,
                                                 CScannerCallbackPtr pCallback,
                                                 CTraverseFolder2* pTraversal)
    : m_pWorkUnit(std::move(pWorkUnit)),
      m_pCallback(std::move(pCallback)),
      m_pTraversal(pTraversal),
      m_pFolderAvailableEvent(FXEvent::Create(FXEvent::EResetMode::Manual)),
      m_pCoordinatorEvent(FXEvent::Create(FXEvent::EResetMode::Auto)) {}

CTraverseFolderPrivate2::~CTraverseFolderPrivate2() = default;

void CTraverseFolderPrivate2::AddFolder(CFoldersToTraverse2&& entry) {
  FXMutex::CScopedLock lock(m_mutex);
  m_lstFoldersToTraverse.push_back(std::move(entry));
  // Set under the mutex: an idle worker resets it under the mutex too, so it never undoes this.
  m_pFolderAvailableEvent->Set();
}

CQiError CTraverseFolderPrivate2::GetFolderToTraverse(CFoldersToTraverse2& entry,
                                                      bool& bFirstFolder,
                                                      std::atomic<bool>* pIdle) {
  FXMutex::CScopedLock lock(m_mutex);
  if (m_lstFoldersToTraverse.empty()) {
    if (pIdle != nullptr && !pIdle->exchange(true)) --m_iBusyWorkers;
    m_pFolderAvailableEvent->Reset();
    return QI_ERROR_WIN32(QiErrorCode::NoMoreItems);
  }
  entry = std::move(m_lstFoldersToTraverse.back());
  m_lstFoldersToTraverse.pop_back();
  bFirstFolder = m_bFirstFolder;
  m_bFirstFolder = false;
  if (pIdle != nullptr && pIdle->exchange(false)) ++m_iBusyWorkers;
  return CQiError();
}

void CTraverseFolderPrivate2::MarkIdle(std::atomic<bool>& bIdle) {
  FXMutex::CScopedLock lock(m_mutex);
  if (!bIdle.exchange(true)) --m_iBusyWorkers;
}

uint64_t CTraverseFolderPrivate2::GetFolderCount() const {
  FXMutex::CScopedLock lock(m_mutex);
  return m_lstFoldersToTraverse.size();
}

bool CTraverseFolderPrivate2::IsDone() const {
  FXMutex::CScopedLock lock(m_mutex);
  return m_lstFoldersToTraverse.empty() && m_iBusyWorkers == 0;
}

void CTraverseFolderPrivate2::SetScanFailure(const CQiError& error) {
  {
    FXMutex::CScopedLock lock(m_mutex);
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
  FXMutex::CScopedLock lock(m_mutex);
  return m_scanFailure;
}

bool CTraverseFolderPrivate2::IsAborted() const {
  if (m_pAbortCheck != nullptr && m_pAbortCheck->IsAborted()) return true;
  return m_pAbortEvent && m_pAbortEvent->IsSet();
}
