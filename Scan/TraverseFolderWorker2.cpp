#include "Scan/TraverseFolderWorker2.h"

#include <optional>

#include "Platform/AutoTimeCounter.h"
#include "Platform/BlockingCallWatch.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"
#include "Platform/ListingFolderCache.h"
#include "Platform/ScanPerformanceCounterSet.h"
#include "Scan/BasicPathEnumerator.h"
#include "Scan/EnumerateFiles.h"
#include "Scan/FolderListing.h"
#include "Scan/ItemSelection.h"
#include "Scan/TraverseFolder2.h"

// The worker's listing hooks: the shared listing core (CFolderListing) with the work unit's
// selection (CItemSelection), the item path redirected to the traversal's output handler, its
// queue and the callback's scan-failure consumer. Made on the worker's thread, used only there.
class CTraverseFolderWorker2::CFolderLister : public CFolderListing::CHooks {
 public:
  explicit CFolderLister(CTraverseFolderPrivate2& shared)
      : m_shared(shared), m_pEnumerator(std::make_shared<CBasicPathEnumerator>()) {
    const CWorkUnitPtr& pUnit = shared.GetWorkUnit();
    m_selection.SetExcludedAttributes(shared.m_uExcludedAttributes);
    m_selection.EnableBuiltInSystemProtectedFilesFilter(shared.m_bBuiltInSystemProtectedFilesFilter);
    if (pUnit) {
      m_pBag = pUnit->GetBag();
      m_selection.SetScanContent(pUnit->GetScanContent());
      m_selection.SetFilters(pUnit->GetFilters());
      m_selection.SetSystemFilters(pUnit->GetSystemFilters());
    }
  }

  CPathEnumerator& GetEnumerator() { return *m_pEnumerator; }
  const CBagPtr& GetBag() const { return m_pBag; }
  CFolderListing MakeListing() { return CFolderListing(*this, m_pBag, m_strVolumeName); }

  // The next folder that would be queued is kept for the caller instead (a content root that
  // the worker reports and then lists itself).
  void HoldNextQueuedFolder() {
    m_bHoldNextFolder = true;
    m_heldFolder.reset();
  }
  // The folder kept since HoldNextQueuedFolder, if any; holding ends.
  std::optional<CFoldersToTraverse2> TakeHeldFolder() {
    m_bHoldNextFolder = false;
    std::optional<CFoldersToTraverse2> held = std::move(m_heldFolder);
    m_heldFolder.reset();
    return held;
  }

  CQiError OnFolder(const std::string& strInput, const std::string& strOutput,
                    CItemPtr& pItem) override {
    if (!m_selection.IsFiltered(*pItem, strOutput)) {
      QI_RETURN_IF_ERROR(Deliver(pItem));
    } else if (!m_selection.IsMatchPossibleInFolder(strOutput)) {
      return CQiError();
    }
    if (m_bHoldNextFolder) {
      m_bHoldNextFolder = false;
      m_heldFolder.emplace(strInput, strOutput, pItem);
      return CQiError();
    }
    m_shared.GetTraversal()->AddFolderToList(strInput, strOutput, pItem);
    return CQiError();
  }

  CQiError OnFile(const std::string& /*strInput*/, const std::string& strOutput,
                  CItemPtr& pItem) override {
    if (!m_selection.IsFiltered(*pItem, strOutput)) QI_RETURN_IF_ERROR(Deliver(pItem));
    return CQiError();
  }

  CQiError OnReparsePointFile(const std::string& strInput, const std::string& strOutput,
                              CItemPtr& pItem) override {
    return OnFile(strInput, strOutput, pItem);
  }

  // A link to a folder is reported like any link and never followed.
  CQiError OnReparsePointFolder(const std::string& strInput, const std::string& strOutput,
                                CItemPtr& pItem) override {
    return OnFile(strInput, strOutput, pItem);
  }

  CQiError OnFailedContent(const std::string& strInput, const std::string& strOutput,
                           bool /*bIsFile*/, const CQiError& error) override {
    CAutoTimeCounter timer(EScanPerfCounterType::TIME_FAILED_CONTENT);
    const CScannerCallbackPtr& pCallback = m_shared.GetScannerCallback();
    CItemConsumerPtr pConsumer;
    if (!pCallback || pCallback->GetScanFailureConsumer(pConsumer).IsError() || !pConsumer) {
      ZRLOG(5, "Not supported");
      return CQiError();
    }
    QI_RETURN_IF_ERROR(CEnumerateFiles::WriteFailureRecord(pConsumer, m_pBag, strInput, strOutput, error));
    return CQiError();
  }

  // Listings stop between entries on an abort and also once another worker has raised a scan
  // failure, so that the traversal winds down at once.
  bool IsListingAborted() const override {
    return m_shared.IsAborted() || m_shared.HasScanFailure();
  }
  // Every consumer error counts.
  bool FailOnConsumerError(const CQiError& /*error*/) const override { return true; }
  uint64_t GetQueuedFolderCount() const override { return m_shared.GetFolderCount(); }

 private:
  // Hands a selected item to the volume's output handler; a refusal (Win32 50) skips it.
  CQiError Deliver(CItemPtr& pItem) {
    const COutputHandlerPtr& pHandler = m_shared.GetOutputHandler();
    if (!pHandler) return CQiError();
    CQiError error = pHandler->OnItem(pItem);
    if (error.IsWin32(QiErrorCode::NotSupported)) {
      if (ZRLOG_ON(7))
        ZRLOG(7, "Output handler refused item, Path=%s, error=%s",
              FXString::EscapeControl(pItem->GetSourceFullyQualifiedItemName()).c_str(),
              error.AsString().c_str());
      return CQiError();
    }
    if (error.IsError())
      return QI_PUSH(error, "OnItem failed, Path=%s",
                     FXString::EscapeControl(pItem->GetSourceFullyQualifiedItemName()).c_str());
    return CQiError();
  }

  CTraverseFolderPrivate2& m_shared;
  CItemSelection m_selection;
  CBagPtr m_pBag;
  const std::string m_strVolumeName;  // the per-thread counters of this traversal
  std::shared_ptr<CBasicPathEnumerator> m_pEnumerator;
  bool m_bHoldNextFolder = false;
  std::optional<CFoldersToTraverse2> m_heldFolder;
};

CTraverseFolderWorker2::CTraverseFolderWorker2(CTraverseFolderPrivate2Ptr pPrivate, int iIndex)
    : CAlertableEventThread("TraverseWkr2-" + std::to_string(iIndex)),
      m_pPrivate(std::move(pPrivate)),
      m_iIndex(iIndex) {
  if (CLogWriterInterfaceThreadWrapper* pWrapper =
          CLogWriterInterfaceThreadWrapper::CurrentForThread()) {
    m_pLogWriter = pWrapper->GetWriter()->shared_from_this();
    m_strLogContext = pWrapper->GetContext();
  }
}

CTraverseFolderWorker2::~CTraverseFolderWorker2() {
  // The hooks use this object's members: the loop must end before they go.
  (void)Stop(true);
}

CTraverseFolderWorker2Ptr CTraverseFolderWorker2::CreateWorker(CTraverseFolderPrivate2Ptr pPrivate,
                                                               int iIndex) const {
  return std::make_shared<CTraverseFolderWorker2>(std::move(pPrivate), iIndex);
}

CQiError CTraverseFolderWorker2::Start() {
  if (!m_pPrivate) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "No traversal state");
  SetEvent(m_pPrivate->GetFolderAvailableEvent());
  SetTimeout(kWorkerTimeoutMs);
  QI_RETURN_IF_ERROR(CAlertableEventThread::Start());
  return CQiError();
}

CQiError CTraverseFolderWorker2::WaitForEvent(EWaitResult& eResult) {
  eResult = WaitForEventOrStop(GetEvent().get(), GetTimeout());
  return CQiError();
}

CQiError CTraverseFolderWorker2::OnStart() {
  if (m_pLogWriter)
    m_pLogWrapper = std::make_unique<CLogWriterInterfaceThreadWrapper>(m_pLogWriter, m_strLogContext);
  m_pLister = std::make_unique<CFolderLister>(*m_pPrivate);
  return CQiError();
}

CQiError CTraverseFolderWorker2::OnCompletion() {
  // Both belong to this thread: dropped here, on it.
  m_pLister.reset();
  m_pLogWrapper.reset();
  return CQiError();
}

CQiError CTraverseFolderWorker2::OnEvent() { return ProcessPendingFolders(); }

CQiError CTraverseFolderWorker2::OnTimeout() { return ProcessPendingFolders(); }

void CTraverseFolderWorker2::GoIdle() {
  m_pPrivate->MarkIdle(m_bIdle);
  m_pPrivate->SignalCoordinator();
  InternalStop();
}

bool CTraverseFolderWorker2::GetCurrentFolder(std::string& strInput, std::string& strOutput) const {
  std::lock_guard<std::mutex> lock(m_mtxCurrent);
  if (!m_bHasCurrent) return false;
  strInput = m_current.GetInputFolder();
  strOutput = m_current.GetOutputFolder();
  return true;
}

void CTraverseFolderWorker2::LeaveBehind(const CTraverseFolderWorker2Ptr& pSelf) {
  pSelf->KeepAliveUntilEnd(pSelf);
}

CQiError CTraverseFolderWorker2::ProcessPendingFolders() {
  // Sub-folders open relative to their parents (this worker's or another's); the file-system
  // calls of this thread are watched by the coordinator.
  CListingFolderCache::CThreadScope folderScope(m_pPrivate->GetListingFolderCache());
  CBlockingCallWatch::CThreadScope watchScope(m_pWatch);
  for (;;) {
    if (IsStopRequested() || m_pPrivate->IsAborted() || m_pPrivate->HasScanFailure()) {
      GoIdle();
      return CQiError();
    }
    bool bFirstFolder = false;
    CQiError error;
    {
      std::lock_guard<std::mutex> lock(m_mtxCurrent);
      error = m_pPrivate->GetFolderToTraverse(m_current, bFirstFolder, &m_bIdle);
      m_bHasCurrent = error.IsSuccess();
    }
    if (error.IsWin32(QiErrorCode::NoMoreItems)) {
      m_pPrivate->SignalCoordinator();
      return CQiError();
    }
    if (error.IsError()) {
      m_pPrivate->SetScanFailure(QI_PUSH(error, "GetFolderToTraverse failed"));
      GoIdle();
      return CQiError();
    }
    error = m_current.IsTopLevel() ? ProcessTopLevelEntry(m_current, bFirstFolder)
                                   : TraverseFolder(m_current, bFirstFolder);
    if (CBlockingCallWatch::IsAbandoned()) {
      // Given up while stuck in the file system: the traversal may be gone by now.
      InternalStop();
      return CQiError();
    }
    {
      std::lock_guard<std::mutex> lock(m_mtxCurrent);
      m_bHasCurrent = false;
    }
    if (error.IsWin32(QiErrorCode::OperationAborted)) {
      // An abort, or another worker's scan failure: a quiet end either way.
      GoIdle();
      return CQiError();
    }
    if (error.IsError()) {
      QI_PUSH(error, "TraverseFolder failed");
      SetLastError(error);
      m_pPrivate->SetScanFailure(error);
      GoIdle();
      return CQiError();
    }
  }
}

CQiError CTraverseFolderWorker2::TraverseFolder(const CFoldersToTraverse2& entry,
                                                bool bFirstFolder) {
  if (!m_pLister) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Worker not started");
  const CFolderListing::SEntry view{entry.GetInputFolder(), entry.GetOutputFolder(),
                                    entry.GetFolderItem(), entry.IsReparsePointEntry(),
                                    entry.GetEndSubstituteName()};
  QI_RETURN_IF_ERROR(
      m_pLister->MakeListing().TraverseFolder(view, m_pLister->GetEnumerator(), bFirstFolder));
  return CQiError();
}

CQiError CTraverseFolderWorker2::ProcessTopLevelEntry(const CFoldersToTraverse2& entry,
                                                      bool bFirstFolder) {
  if (!m_pLister) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Worker not started");
  // A folder root that is to be listed would be queued (OnFolder): it is kept and listed here,
  // so that it keeps its place as the first folder.
  m_pLister->HoldNextQueuedFolder();
  bool bReported = false;
  CQiError error = m_pLister->MakeListing().ProcessRoot(entry.GetInputFolder(), entry.GetOutputFolder(),
                                                        entry.GetFolderItem(),
                                                        m_pLister->GetEnumerator(), bReported);
  std::optional<CFoldersToTraverse2> root = m_pLister->TakeHeldFolder();
  QI_RETURN_IF_ERROR(error);
  // A root that could not be described is left to its listing, which reports it.
  if (!bReported) QI_RETURN_IF_ERROR(TraverseFolder(entry, bFirstFolder));
  if (root) QI_RETURN_IF_ERROR(TraverseFolder(*root, bFirstFolder));
  return CQiError();
}
