#include "Scan/ScanTraverseFolder.h"

#include <optional>

#include <algorithm>
#include <chrono>

#include "Platform/BlockingCallWatch.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Platform/FXString.h"
#include "Platform/ListingFolderCache.h"
#include "Platform/LogWriterInterface.h"
#include "Platform/ScanPerformanceCounterSet.h"
#include "Platform/ZRDebugFunction.h"
#include "Scan/BasicPathEnumerator.h"
#include "Scan/ScanTraverseFolderWorker.h"
#include "Scan/ScannerConfigurationBagId.h"

namespace {
// Paths in log lines: control bytes escaped so that every message stays on one line. Only
// called once the level is known to be on.
std::string Esc(const std::string& strPath) { return FXString::EscapeControl(strPath); }

using Clock = std::chrono::steady_clock;

}  // namespace

CScanTraverseFolder::CScanTraverseFolder()
    : m_pPrivate(std::make_shared<CScanTraverseFolderPrivate>()) {
  m_pPrivate->SetPathEnumerator(std::make_shared<CBasicPathEnumerator>());
}

CScanTraverseFolder::~CScanTraverseFolder() {
  // Traverse stops its workers before it returns; this only covers a traversal torn down while
  // its workers still run (their hooks call into this object).
  if (!m_pPrivate->GetWorkers().empty()) (void)StopWorkers(true, false);
}

// ---- hooks ----

CQiError CScanTraverseFolder::OnTraverseFolder(CItemPtr pFolder, const std::string& strInput,
                                               const std::string& strOutput) {
  AddFolderToList(std::move(pFolder), strInput, strOutput);
  return CQiError();
}

CQiError CScanTraverseFolder::OnTraverseReparsePoint(CItemPtr pItem, const std::string& strInput,
                                                     const std::string& strEndSubstituteName,
                                                     const std::string& strOutput,
                                                     unsigned int uAttributes,
                                                     const std::string& strNextSubstituteName) {
  AddReparsePointToList(std::move(pItem), strInput, strEndSubstituteName, strOutput, uAttributes,
                        strNextSubstituteName);
  return CQiError();
}

CQiError CScanTraverseFolder::OnFolder(const std::string& strInput, const std::string& strOutput,
                                       CItemPtr& pItem) {
  QI_RETURN_IF_ERROR(OnTraverseFolder(pItem, strInput, strOutput));
  return CQiError();
}

CQiError CScanTraverseFolder::OnFile(const std::string&, const std::string&, CItemPtr&) {
  return CQiError();
}

CQiError CScanTraverseFolder::OnReparsePointFolder(const std::string&, const std::string&,
                                                   CItemPtr&) {
  return CQiError();
}

CQiError CScanTraverseFolder::OnReparsePointFile(const std::string&, const std::string&,
                                                 CItemPtr&) {
  return CQiError();
}

CQiError CScanTraverseFolder::OnFailedContent(const std::string&, const std::string&, bool,
                                              const CQiError&) {
  return CQiError();
}

CQiError CScanTraverseFolder::OnInitializeWorker() { return CQiError(); }

// ---- queue and configuration ----

void CScanTraverseFolder::AddFolderToList(const std::string& strInput,
                                          const std::string& strOutput) {
  AddFolderToList(CItemPtr(), strInput, strOutput);
}

// The folder a top-level entry's root queues while it is reported, per thread (a worker reports
// one root at a time); held by the traversal that set it, for the next folder queued only.
thread_local CScanTraverseFolder::SHeldFolder* CScanTraverseFolder::SHeldFolder::t_pCurrent = nullptr;

void CScanTraverseFolder::AddFolderToList(CItemPtr pFolder, const std::string& strInput,
                                          const std::string& strOutput) {
  if (ZRLOG_ON(6))
    ZRLOG(6, "Adding folder, InputPath=%s, OutputPath=%s", Esc(strInput).c_str(),
          Esc(strOutput).c_str());
  SHeldFolder* pHold = SHeldFolder::t_pCurrent;
  if (pHold != nullptr && pHold->pTraversal == this && !pHold->held) {
    pHold->held.emplace(std::move(pFolder), strInput, strOutput);
    return;
  }
  m_pPrivate->AddFolder(CScanFoldersToTraverse(std::move(pFolder), strInput, strOutput));
}

void CScanTraverseFolder::AddReparsePointToList(CItemPtr pItem, const std::string& strInput,
                                                const std::string& strEndSubstituteName,
                                                const std::string& strOutput,
                                                unsigned int uAttributes,
                                                const std::string& strNextSubstituteName) {
  if (ZRLOG_ON(6))
    ZRLOG(6,
          "Adding reparse point, InputPath=%s, EndSubstituteName=%s, OutputPath=%s, "
          "NextSubstituteName=%s",
          Esc(strInput).c_str(), Esc(strEndSubstituteName).c_str(), Esc(strOutput).c_str(),
          Esc(strNextSubstituteName).c_str());
  m_pPrivate->AddFolder(CScanFoldersToTraverse(std::move(pItem), strInput, strEndSubstituteName,
                                               strOutput, uAttributes, strNextSubstituteName));
}

bool CScanTraverseFolder::FolderWillAlreadyBeTraversed(const std::string& strPath,
                                                       std::string& strNewOutputPath) const {
  CScanFoldersToTraverse root;
  if (m_pPrivate->FindQueuedAncestor(strPath, root)) {
    // The folder's part below the root, appended to the root's output path.
    std::string strRest = FXPath::RemoveTrailingDelimiters(strPath).substr(
        FXPath::RemoveTrailingDelimiters(root.GetInputFolder()).size());
    strNewOutputPath = FXPath::Append(root.GetOutputFolder(), strRest);
    if (ZRLOG_ON(6))
      ZRLOG(6, "Folder %s will already be traversed through %s, NewOutputPath=%s",
            Esc(strPath).c_str(), Esc(root.GetInputFolder()).c_str(),
            Esc(strNewOutputPath).c_str());
    return true;
  }
  if (ZRLOG_ON(6)) ZRLOG(6, "Folder %s not already being traversed", Esc(strPath).c_str());
  return false;
}

void CScanTraverseFolder::SetPathEnumerator(CPathEnumeratorPtr pEnumerator) {
  m_pPrivate->SetPathEnumerator(std::move(pEnumerator));
}

void CScanTraverseFolder::SetProcessTopLevelContentItem(bool bProcess) {
  m_pPrivate->SetProcessTopLevelContentItem(bProcess);
}

void CScanTraverseFolder::SetMaxWorkers(int iMaxWorkers) { m_pPrivate->SetMaxWorkers(iMaxWorkers); }

void CScanTraverseFolder::ignoreConsumerError(uint32_t uCode) {
  m_pPrivate->AddIgnoredConsumerError(uCode);
}

bool CScanTraverseFolder::failOnConsumerError(const CQiError& error) const {
  return error.IsError() && m_pPrivate->GetIgnoredConsumerErrors().count(error.GetCode()) == 0;
}

void CScanTraverseFolder::SetAbortCheck(CAbortOperationCheck* pAbortCheck) {
  m_pPrivate->SetAbortCheck(pAbortCheck);
}

void CScanTraverseFolder::SetBag(CBagPtr pBag) { m_pPrivate->SetBag(std::move(pBag)); }

// ---- Traverse ----

CQiError CScanTraverseFolder::Traverse() {
  ZRDEBUG_FUNCTION(2);
  std::string strVolumeName;
  if (m_pPrivate->GetBag())
    (void)m_pPrivate->GetBag()->Read(SXScannerConfigurationBagId::idVolumeName, strVolumeName);
  m_pPrivate->SetVolumeName(strVolumeName);

  if (m_pPrivate->GetFolderCount() != 0 && !m_pPrivate->GetPathEnumerator())
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "No path enumerator to traverse with");

  if (m_pPrivate->GetProcessTopLevelContentItem()) {
    // Each root is reported by the worker that takes it (ProcessTopLevelEntry): its status read
    // may block on a file system that stopped answering, and only a worker can be given up.
    for (CScanFoldersToTraverse& entry : m_pPrivate->TakeAll()) {
      entry.SetTopLevel(true);
      m_pPrivate->AddFolder(std::move(entry));
    }
    m_pPrivate->SetProcessTopLevelContentItem(false);
  }
  // No folder stays open once the traversal is over, however it ends.
  struct SCloseFolders {
    const CListingFolderCachePtr& pCache;
    ~SCloseFolders() { pCache->CloseAll(); }
  } closeFolders{m_pPrivate->GetListingFolderCache()};
  // Every folder is listed on workers, one when the traversal has one, while this thread
  // watches them: a file system that stops answering blocks a worker, never the caller.
  QI_RETURN_IF_ERROR(TraverseWithWorkers());
  return CQiError();
}

CQiError CScanTraverseFolder::ProcessTopLevelEntry(const CScanFoldersToTraverse& entry, CPathEnumerator& enumerator,
                                                   bool bFirstFolder) {
  // The root is reported itself; ProcessItem would queue it again (through OnFolder) when it is
  // to be walked: that entry is kept here and listed at once, so that it keeps its place as the
  // first folder. A root that does not exist is left to its listing, which reports it missing.
  bool bReported = false;
  std::optional<CScanFoldersToTraverse> root;
  CQiError error;
  {
    SHeldFolder hold(this);
    CFolderListing listing(*this, m_pPrivate->GetBag(), m_pPrivate->GetVolumeName());
    error = listing.ProcessRoot(entry.GetInputFolder(), entry.GetOutputFolder(), entry.GetFolderItem(), enumerator,
                                bReported);
    root = std::move(hold.held);
  }
  QI_RETURN_IF_ERROR(error);
  if (!bReported) QI_RETURN_IF_ERROR(TraverseFolder(entry, enumerator, bFirstFolder));
  if (root) QI_RETURN_IF_ERROR(TraverseFolder(*root, enumerator, bFirstFolder));
  return CQiError();
}

CQiError CScanTraverseFolder::StartWorker(int iIndex, bool bSolo) {
  // Every worker lists with a clone of the traversal's enumerator, so that a worker left behind
  // shares no enumerator with the one that replaces it. An enumerator that cannot be cloned
  // serves a solo worker itself (its worker can then not be replaced).
  std::shared_ptr<CPathEnumerator> pEnumerator(m_pPrivate->GetPathEnumerator()->Clone());
  if (!pEnumerator && bSolo && m_pPrivate->GetWorkers().empty() && iIndex == 1)
    pEnumerator = m_pPrivate->GetPathEnumerator();
  if (!pEnumerator)
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                          "The path enumerator cannot be cloned for worker threads");
  auto pWorker = std::make_shared<CScanTraverseFolderWorker>(this, m_pPrivate, std::move(pEnumerator),
                                                             iIndex, bSolo);
  m_pPrivate->GetWorkers().push_back(pWorker);
  QI_RETURN_IF_ERROR(pWorker->Start(), "Failed to start a traversal worker");
  return CQiError();
}

CQiError CScanTraverseFolder::TraverseWithWorkers() {
  const bool bSolo = m_pPrivate->GetMaxWorkers() <= 1;
  const int iWorkers = bSolo ? 1 : m_pPrivate->GetMaxWorkers();
  int iNextIndex = 1;
  for (; iNextIndex <= iWorkers; ++iNextIndex) {
    CQiError error = StartWorker(iNextIndex, bSolo);
    if (error.IsError()) {
      (void)StopWorkers(true, false);
      return QI_PUSH(error);
    }
  }
  const std::chrono::milliseconds stallTimeout =
      CBlockingCallWatch::EffectiveTimeout(m_pPrivate->GetStallTimeout());
  const uint32_t uWaitMs = static_cast<uint32_t>(std::clamp<long long>(
      stallTimeout.count() / 4, 10, static_cast<long long>(kCoordinatorWaitMs)));

  // Wait for the workers: woken at once when one goes idle, fails or sees an abort; the
  // counters are logged 10 s after the start and then every 30 minutes; workers stuck in the
  // file system are looked for at every wake-up.
  const Clock::time_point tStart = Clock::now();
  Clock::time_point tNextLog = tStart + std::chrono::milliseconds(kCoordinatorWaitMs);
  for (;;) {
    if (IsAborted()) {
      ZRLOG(bSolo ? 3 : 1, "Traverse aborted, FoldersToTraverse=%llu",
            static_cast<unsigned long long>(m_pPrivate->GetFolderCount()));
      (void)StopWorkers(true, false);
      return QI_ERROR_WIN32(QiErrorCode::OperationAborted, "Operation aborted");
    }
    CQiError failure = m_pPrivate->TakeWorkerFailure();
    if (failure.IsError()) {
      // A solo worker ends at its first failure, which ends the traversal.
      (void)StopWorkers(true, false);
      return QI_PUSH(failure);
    }
    if (m_pPrivate->IsDone()) {
      CQiError error = StopWorkers(true, !bSolo);
      if (error.IsError()) return QI_PUSH(error, "One or more workers failed");
      return CQiError();
    }
    const Clock::time_point tNow = Clock::now();
    QI_RETURN_IF_ERROR(GiveUpStalledWorkers(tNow, stallTimeout, bSolo, iNextIndex));
    if (tNow >= tNextLog) {
      CScanPerformanceCounter::LogAllCounters();
      ZRLOG(1, "FoldersToTraverse=%llu",
            static_cast<unsigned long long>(m_pPrivate->GetFolderCount()));
      CScanPerformanceCounter::LogThreadCounters();
      tNextLog += std::chrono::seconds(kCounterLogIntervalSeconds);
      continue;
    }
    auto msToLog = std::chrono::duration_cast<std::chrono::milliseconds>(tNextLog - tNow).count();
    (void)m_pPrivate->GetWorkerStateEvent()->Wait(
        static_cast<uint32_t>(std::min<long long>(uWaitMs, msToLog + 1)));
  }
}

CQiError CScanTraverseFolder::GiveUpStalledWorkers(Clock::time_point tNow,
                                                   std::chrono::milliseconds timeout, bool bSolo,
                                                   int& iNextIndex) {
  size_t nGivenUp = 0;
  for (const auto& folder : m_pPrivate->GetQueue().GiveUpStalledWorkers(m_pPrivate->GetWorkers(), tNow,
                                                                        timeout, nGivenUp)) {
    CQiError reportError = OnFailedContent(folder.strInput, folder.strOutput, false, folder.error);
    if (reportError.IsError())
      ZRLOG(-1, "OnFailedContent failed, Path=%s, error=%s", Esc(folder.strInput).c_str(),
            reportError.AsString().c_str());
  }
  // The rest of the traversal goes on with new workers in their places.
  for (; nGivenUp > 0; --nGivenUp) {
    CQiError error = StartWorker(iNextIndex++, bSolo);
    if (error.IsError()) {
      (void)StopWorkers(true, false);
      return QI_PUSH(error);
    }
  }
  return CQiError();
}

CQiError CScanTraverseFolder::StopWorkers(bool bWait, bool bCollectErrors) {
  ZRLOG(3, "Wait=%d", bWait ? 1 : 0);
  std::vector<CScanTraverseFolderWorkerPtr>& lstWorkers = m_pPrivate->GetWorkers();
  // Ask all first, so that they wind down together, then wait for each.
  for (const CScanTraverseFolderWorkerPtr& pWorker : lstWorkers) (void)pWorker->Stop(false);
  const std::chrono::milliseconds stallTimeout =
      CBlockingCallWatch::EffectiveTimeout(m_pPrivate->GetStallTimeout());
  CQiError firstError;
  for (const CScanTraverseFolderWorkerPtr& pWorker : lstWorkers) {
    // A worker stuck in the file system is left behind, never waited for without end.
    if (bWait &&
        !CBlockingCallWatch::WaitForStopOrGiveUp(*pWorker, *pWorker->GetWatch(), stallTimeout)) {
      ZRLOG(-1, "Traversal worker %d did not return from the file system within %lld ms; left behind",
            pWorker->GetIndex(), static_cast<long long>(stallTimeout.count()));
      CScanTraverseFolderWorker::LeaveBehind(pWorker);
      continue;
    }
    if (!bCollectErrors) continue;
    CQiError error = pWorker->GetLastError();
    if (error.IsError()) {
      if (!error.IsWin32(QiErrorCode::OperationAborted))
        ZRLOG(-1, "Worker failed with error %s", error.AsString().c_str());
      if (firstError.IsSuccess()) firstError = error;
    }
  }
  // A worker's destructor waits for its thread, so releasing them is safe either way.
  lstWorkers.clear();
  return firstError;
}

// ---- one folder ----

CQiError CScanTraverseFolder::TraverseFolder(const CScanFoldersToTraverse& entry,
                                             CPathEnumerator& enumerator, bool bFirstFolder) {
  const CFolderListing::SEntry view{entry.GetInputFolder(), entry.GetOutputFolder(),
                                    entry.GetFolderItem(), entry.IsReparsePointEntry(),
                                    entry.GetEndSubstituteName()};
  CFolderListing listing(*this, m_pPrivate->GetBag(), m_pPrivate->GetVolumeName());
  QI_RETURN_IF_ERROR(listing.TraverseFolder(view, enumerator, bFirstFolder));
  return CQiError();
}

CQiError CScanTraverseFolder::ProcessItem(const std::string& strInput, const std::string& strOutput,
                                          CItemPtr& pItem) {
  CFolderListing listing(*this, m_pPrivate->GetBag(), m_pPrivate->GetVolumeName());
  return listing.ProcessItem(strInput, strOutput, pItem);
}
