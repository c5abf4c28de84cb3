#include "Scan/TraverseFolderPrivate2.h"

#include <utility>

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
