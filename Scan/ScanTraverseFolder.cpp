#include "Scan/ScanTraverseFolder.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include "Platform/AutoTimeCounter.h"
#include "Platform/BlockingCallWatch.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Platform/FXString.h"
#include "Platform/ListingFolderCache.h"
#include "Platform/LogWriterInterface.h"
#include "Platform/PerfClock.h"
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

// An entry that vanished since the listing (2) is no longer there to back up: no failure. An
// entry this process may not describe (13: a folder that can be listed but not searched, or a
// network file system that squashes root) still exists and is not backed up, so it is recorded
// like any other entry whose status cannot be read, which goes further than the traversal's
// original rule of passing it over in silence.
bool IsSilentEntryError(const CQiError& error) { return error.IsErrNo(ENOENT); }

// The quiet end of a worker given up while stuck in the file system: nothing of the traversal
// may be touched any more, not even to log.
CQiError AbandonedError() {
  return QI_ERROR_WIN32(QiErrorCode::OperationAborted, "Traversal worker was given up");
}

// A folder that is gone (or is no folder any more) by the time it is listed.
bool IsMissingFolderError(const CQiError& error) {
  return error.IsErrNo(ENOENT) || error.IsErrNo(ENOTDIR);
}
}  // namespace

// The state of one folder listing (both passes).
struct CScanTraverseFolder::SListing {
  const CScanFoldersToTraverse& entry;
  CPathEnumerator& enumerator;
  CScanPerformanceCounterSet& counters;
  bool bFirstFolder;
  std::string strFolder;   // the folder listed: the input folder or the end substitute name
  std::string strPattern;  // the folder with a trailing delimiter (a folder named "*" stays one)
  CItemPtr pFolderItem;
  CItemPtr pLastProcessed;  // where a restarted listing resumes
  // The folder's reparse points, dispatched once all its other entries have been.
  std::vector<CItemPtr> lstReparsePoints;
  // Too many reparse points to hold: they are left out of the listing and passed on by a second
  // listing of the folder (bReparsePass), which passes on nothing else.
  bool bRelistReparsePoints = false;
  bool bReparsePass = false;
  int iRetries = 0;
};

namespace {
// The per-entry steps of a listing (the next entry, the dispatch of one entry) are timed with one
// clock reading between them and added to their counters once per folder: a counter update per
// entry cost more than the reading itself.
class CEntryTimes {
 public:
  explicit CEntryTimes(CScanPerformanceCounter& findNext)
      : m_findNext(findNext),
        m_processItem(CScanPerformanceCounter::GetCounter(EScanPerfCounterType::TIME_PROCESS_ITEM)),
        m_tMark(CPerfClock::Now()) {}
  ~CEntryTimes() {
    const CPerfClock::Ticks tNow = CPerfClock::Now();
    if (m_ullFindNextSamples != 0)
      m_findNext.Add(CPerfClock::ToNanoseconds(m_findNextTicks, tNow), m_ullFindNextSamples);
    if (m_ullProcessSamples != 0)
      m_processItem.Add(CPerfClock::ToNanoseconds(m_processTicks, tNow), m_ullProcessSamples);
  }
  CEntryTimes(const CEntryTimes&) = delete;
  CEntryTimes& operator=(const CEntryTimes&) = delete;

  // Ends the step under way as a dispatch (EndProcess) or a FindNext (EndFindNext).
  void EndProcess() { m_processTicks += Lap(); ++m_ullProcessSamples; }
  void EndFindNext() { m_findNextTicks += Lap(); ++m_ullFindNextSamples; }
  // Starts the next step now, the time since the last mark counted nowhere.
  void Restart() { m_tMark = CPerfClock::Now(); }

 private:
  CPerfClock::Ticks Lap() {
    const CPerfClock::Ticks tNow = CPerfClock::Now();
    const CPerfClock::Ticks tLap = tNow - m_tMark;
    m_tMark = tNow;
    return tLap;
  }

  CScanPerformanceCounter& m_findNext;
  CScanPerformanceCounter& m_processItem;
  CPerfClock::Ticks m_tMark;
  CPerfClock::Ticks m_findNextTicks = 0;
  CPerfClock::Ticks m_processTicks = 0;
  uint64_t m_ullFindNextSamples = 0;
  uint64_t m_ullProcessSamples = 0;
};
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

void CScanTraverseFolder::AddFolderToList(CItemPtr pFolder, const std::string& strInput,
                                          const std::string& strOutput) {
  if (ZRLOG_ON(6))
    ZRLOG(6, "Adding folder, InputPath=%s, OutputPath=%s", Esc(strInput).c_str(),
          Esc(strOutput).c_str());
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

bool CScanTraverseFolder::ShouldRetry(const CQiError& /*error*/) { return false; }

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
    QI_RETURN_IF_ERROR(ProcessTopLevelContent());
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

CQiError CScanTraverseFolder::ProcessTopLevelContent() {
  // Every queued root that exists is reported itself; ProcessItem queues it again (through
  // OnFolder) when it is to be walked. A root that does not exist is left to the walk, which
  // reports it as missing.
  for (CScanFoldersToTraverse& entry : m_pPrivate->TakeAll()) {
    const std::string& strInput = entry.GetInputFolder();
    const std::string& strOutput = entry.GetOutputFolder();
    if (ZRLOG_ON(3)) ZRLOG(3, "item:%s oFolder:%s", Esc(strInput).c_str(), Esc(strOutput).c_str());
    bool bMissing = true;
    CItemPtr pItem = entry.GetFolderItem();
    CQiError error = FXPath::DoesPathExist(strInput, bMissing);
    if (error.IsSuccess() && !bMissing && !pItem)
      error = m_pPrivate->GetPathEnumerator()->GetItemByPath(m_pPrivate->GetBag(), strInput,
                                                             strOutput, pItem);
    if (error.IsError() || bMissing || !pItem) {
      m_pPrivate->AddFolder(std::move(entry));
      continue;
    }
    std::string strParentL, strNameL, strParentS, strNameS;
    (void)FXPath::SplitParent(strInput, strParentL, strNameL);
    (void)FXPath::SplitParent(strOutput, strParentS, strNameS);
    if (ZRLOG_ON(3))
      ZRLOG(3, "oFile.name=%s oFile.dir=(L:%s S:%s)", Esc(strNameL).c_str(),
            Esc(strParentL).c_str(), Esc(strParentS).c_str());
    error = ProcessItem(strParentL, strParentS, pItem);
    if (error.IsError())
      return QI_PUSH(error, "ProcessItem failed, cannot process, InputFolder=%s",
                     Esc(strInput).c_str());
  }
  return CQiError();
}

CQiError CScanTraverseFolder::StartWorker(int iIndex, bool bSolo) {
  // A solo worker lists with the traversal's own enumerator, as the caller's thread would; the
  // others (and a solo worker's replacement) with clones.
  std::shared_ptr<CPathEnumerator> pEnumerator;
  if (bSolo && m_pPrivate->GetWorkers().empty() && iIndex == 1)
    pEnumerator = m_pPrivate->GetPathEnumerator();
  else
    pEnumerator.reset(m_pPrivate->GetPathEnumerator()->Clone());
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
  std::vector<CScanTraverseFolderWorkerPtr>& lstWorkers = m_pPrivate->GetWorkers();
  for (size_t i = 0; i < lstWorkers.size(); ++i) {
    CScanTraverseFolderWorkerPtr pWorker = lstWorkers[i];
    if (!pWorker->GetWatch()->IsStalled(tNow, timeout)) continue;
    std::string strInput, strOutput;
    const bool bHasFolder = pWorker->GetCurrentFolder(strInput, strOutput);
    if (!pWorker->GetWatch()->Abandon()) continue;  // its call has just returned
    // The worker no longer counts as busy, and its thread is left to itself.
    m_pPrivate->MarkIdle(pWorker->GetIdleFlag());
    lstWorkers.erase(lstWorkers.begin() + static_cast<std::ptrdiff_t>(i));
    --i;
    CScanTraverseFolderWorker::LeaveBehind(pWorker);
    ZRLOG(-1,
          "Traversal worker %d did not return from the file system within %lld ms, "
          "Folder=%s; the folder is recorded as failed and the worker is left behind",
          pWorker->GetIndex(), static_cast<long long>(timeout.count()),
          bHasFolder ? Esc(strInput).c_str() : "");
    if (bHasFolder) {
      CQiError stalled = QI_ERROR_ERRNO(ETIMEDOUT, "Folder did not answer within %lld ms, Path=%s",
                                        static_cast<long long>(timeout.count()),
                                        Esc(strInput).c_str());
      CQiError reportError = OnFailedContent(strInput, strOutput, false, stalled);
      if (reportError.IsError())
        ZRLOG(-1, "OnFailedContent failed, Path=%s, error=%s", Esc(strInput).c_str(),
              reportError.AsString().c_str());
    }
    // The rest of the traversal goes on with a new worker in its place.
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
  CScanPerformanceCounterSet& counters =
      CScanPerformanceCounter::GetThreadCounter(m_pPrivate->GetVolumeName());
  CAutoTimeCounter timer(counters[EScanPerfCounterType::TIME_TRAVERSE_FOLDER]);
  const std::string& strInput = entry.GetInputFolder();
  const std::string& strOutput = entry.GetOutputFolder();
  SListing listing{entry, enumerator, counters, bFirstFolder, strInput, std::string(), {}, {}, {}, 0};

  // The queuing hooks (OnTraverseFolder, OnTraverseReparsePoint) are not called again for an
  // entry taken from the queue: in their base form they queue, so the entry would come back.
  if (entry.IsReparsePointEntry()) {
    // The folder behind the reparse point is what gets listed; without one there is nothing.
    if (entry.GetEndSubstituteName().empty()) {
      if (ZRLOG_ON(2)) ZRLOG(2, "Skipping traversal of %s", Esc(strInput).c_str());
      return CQiError();
    }
    listing.strFolder = entry.GetEndSubstituteName();
  } else {
    listing.pFolderItem = entry.GetFolderItem();
    if (ZRLOG_ON(6))
      ZRLOG(6, "OnTraverseFolder(%s,%s,%s) FoldersToTraverse=%llu",
            listing.pFolderItem ? Esc(listing.pFolderItem->GetItemName()).c_str() : "",
            Esc(strInput).c_str(), Esc(strOutput).c_str(),
            static_cast<unsigned long long>(m_pPrivate->GetFolderCount()));
  }

  // A folder met in a listing carries its item; a content root is described now.
  CQiError error;
  if (!listing.pFolderItem) {
    error = enumerator.GetItemByPath(m_pPrivate->GetBag(), listing.strFolder, strOutput,
                                     listing.pFolderItem);
    if (CBlockingCallWatch::IsAbandoned()) return AbandonedError();
  }
  if (error.IsError() || !listing.pFolderItem) {
    if (error.IsSuccess()) error = QI_ERROR_WIN32(QiErrorCode::InvalidHandle, "No folder item");
    ZRLOG(-1, "Content path [%s] not found (%s)", Esc(listing.strFolder).c_str(),
          error.AsString().c_str());
    CQiError reportError = OnFailedContent(listing.strFolder, strOutput, true, error);
    if (reportError.IsError())
      ZRLOG(-1, "OnFailedContent failed, Path=%s, error=%s", Esc(listing.strFolder).c_str(),
            reportError.AsString().c_str());
    if (bFirstFolder)
      return QI_PUSH(error, "Traverse failed, Content Path=%s not found",
                     Esc(listing.strFolder).c_str());
    return CQiError();
  }

  if (!listing.pFolderItem->IsFolder()) {
    if (ZRLOG_ON(2)) ZRLOG(2, "SearchPath=%s is a file", Esc(listing.strFolder).c_str());
    std::string strParentL, strNameL, strParentS, strNameS;
    (void)FXPath::SplitParent(listing.strFolder, strParentL, strNameL);
    (void)FXPath::SplitParent(strOutput, strParentS, strNameS);
    error = ProcessItem(strParentL, strParentS, listing.pFolderItem);
    if (error.IsError())
      return QI_PUSH(error, "Traverse failed, cannot process, ContentPath=%s",
                     Esc(listing.strFolder).c_str());
    return CQiError();
  }

  listing.strPattern = FXPath::AddTrailingDelimiter(listing.strFolder);
  QI_RETURN_IF_ERROR(ListFolder(listing));
  // Reparse points come after every other entry of their folder. Up to kMaxHeldReparsePoints
  // of them are kept aside during the listing: the order of a second listing that passes only
  // them, without listing (and describing every entry of) the folder twice. A folder with more
  // is listed a second time, so that memory stays bounded whatever the folder holds.
  if (listing.bRelistReparsePoints) {
    if (ZRLOG_ON(3))
      ZRLOG(3, "Listing folder again for its reparse points, Folder=%s", Esc(listing.strFolder).c_str());
    listing.bReparsePass = true;
    listing.pLastProcessed.reset();
    listing.iRetries = 0;
    QI_RETURN_IF_ERROR(ListFolder(listing));
    return CQiError();
  }
  for (CItemPtr& pItem : listing.lstReparsePoints) {
    if (IsAborted()) return AbortedError(listing);
    CQiError itemError = ProcessItem(listing.strFolder, strOutput, pItem);
    if (itemError.IsError() && failOnConsumerError(itemError))
      return QI_PUSH(itemError, "Failed to report failed item.");
    pItem.reset();
  }
  return CQiError();
}

CQiError CScanTraverseFolder::ListFolder(SListing& listing) {
  const std::string& strOutput = listing.entry.GetOutputFolder();
  if (ZRLOG_ON(6))
    ZRLOG(6, "FindFirst, SearchPath=%s", Esc(listing.strFolder).c_str());
  CItemPtr pItem;
  CQiError error;
  {
    CAutoTimeCounter timer(listing.counters[EScanPerfCounterType::TIME_FINDFIRST]);
    error = listing.enumerator.FindFirst(listing.strPattern, listing.pFolderItem, pItem);
  }
  if (CBlockingCallWatch::IsAbandoned()) return AbandonedError();
  if (error.IsError() && !pItem && !error.IsWin32(QiErrorCode::NoMoreFiles)) {
    if (listing.bFirstFolder) {
      CQiError reportError = OnFailedContent(listing.strFolder, strOutput, false, error);
      if (reportError.IsError())
        ZRLOG(-1, "OnFailedContent failed, Path=%s, error=%s", Esc(listing.strFolder).c_str(),
              reportError.AsString().c_str());
      return QI_PUSH(error, "FindFirst failed, Content Path=%s", Esc(listing.strFolder).c_str());
    }
    if (IsMissingFolderError(error)) {
      // Queued while it existed, gone (or replaced) by now: skipped like a missing root.
      ZRLOG(-1, "Content path [%s] not found (%s)", Esc(listing.strFolder).c_str(),
            error.AsString().c_str());
      CQiError reportError = OnFailedContent(listing.strFolder, strOutput, true, error);
      if (reportError.IsError())
        ZRLOG(-1, "OnFailedContent failed, Path=%s, error=%s", Esc(listing.strFolder).c_str(),
              reportError.AsString().c_str());
      return CQiError();
    }
  }

  bool bSkipping = false;  // a restarted listing passes over what was already processed
  CEntryTimes times(listing.counters[EScanPerfCounterType::TIME_FINDNEXT]);
  for (;;) {
    // A worker given up while stuck in a file-system call stops here, before anything of the
    // traversal is touched.
    if (CBlockingCallWatch::IsAbandoned()) return AbandonedError();
    if (error.IsError() && !pItem) {
      if (error.IsWin32(QiErrorCode::NoMoreFiles)) return CQiError();
      if (ShouldRetry(error) && listing.iRetries < kMaxListingRetries) {
        ++listing.iRetries;
        ZRLOG(1,
              "Retrying folder enumeration after error encountered, Folder=%s, "
              "LastProcessedFileName=%s, error=%s",
              Esc(listing.strFolder).c_str(),
              listing.pLastProcessed ? Esc(listing.pLastProcessed->GetItemName()).c_str() : "",
              error.AsString().c_str());
        std::this_thread::sleep_for(std::chrono::milliseconds(kListingRetryDelayMs));
        pItem.reset();
        error = listing.enumerator.FindFirst(listing.strPattern, listing.pFolderItem, pItem);
        bSkipping = listing.pLastProcessed != nullptr;
        times.Restart();
        continue;
      }
      if (listing.iRetries > 0)
        ZRLOG(-1, "ZRFindFirstFile failed, SearchPath=%s, Retries=%d",
              Esc(listing.strFolder).c_str(), listing.iRetries);
      return OnListingError(listing, error);
    }
    if (IsAborted()) return AbortedError(listing);
    if (bSkipping) {
      bSkipping = !(pItem && pItem->GetItemName() == listing.pLastProcessed->GetItemName());
    } else {
      QI_RETURN_IF_ERROR(ProcessEntry(listing, error, pItem));
    }
    pItem.reset();
    times.EndProcess();
    error = listing.enumerator.FindNext(pItem);
    times.EndFindNext();
  }
}

CQiError CScanTraverseFolder::ProcessEntry(SListing& listing, CQiError& entryError,
                                           CItemPtr& pItem) {
  if (listing.bReparsePass) {
    // The second listing passes on its reparse points only; the rest was dealt with before.
    if (entryError.IsSuccess() && pItem && pItem->IsReparsePoint()) {
      CQiError error = ProcessItem(listing.strFolder, listing.entry.GetOutputFolder(), pItem);
      if (error.IsError() && failOnConsumerError(error))
        return QI_PUSH(error, "Failed to report failed item.");
    }
    if (pItem) listing.pLastProcessed = std::move(pItem);
    return CQiError();
  }
  if (entryError.IsError()) {
    // The entry was listed but its status could not be read.
    if (IsSilentEntryError(entryError)) return CQiError();
    const std::string& strLocal = pItem->GetLocalFullyQualifiedItemName();
    if (ZRLOG_ON(0))
      ZRLOG(0, "Stat failure. Adding %s to failed file and continue. Error [%s]",
            Esc(strLocal).c_str(), entryError.AsString().c_str());
    CQiError reportError =
        OnFailedContent(strLocal, pItem->GetSourceFullyQualifiedItemName(), false, entryError);
    if (reportError.IsError())
      ZRLOG(-1, "OnFailedContent failed, Path=%s, error=%s", Esc(strLocal).c_str(),
            reportError.AsString().c_str());
    return CQiError();
  }
  if (!pItem) return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Invalid directory entry");
  if (pItem->IsReparsePoint()) {
    if (listing.lstReparsePoints.size() < kMaxHeldReparsePoints) {
      listing.lstReparsePoints.push_back(pItem);
    } else if (!listing.bRelistReparsePoints) {
      listing.lstReparsePoints.clear();
      listing.bRelistReparsePoints = true;
    }
  } else {
    CQiError error = DispatchItem(listing.strFolder, listing.entry.GetOutputFolder(), pItem);
    if (error.IsError() && failOnConsumerError(error))
      return QI_PUSH(error, "Failed to report failed item.");
  }
  listing.pLastProcessed = std::move(pItem);
  return CQiError();
}

CQiError CScanTraverseFolder::OnListingError(SListing& listing, const CQiError& error) {
  if (ZRLOG_ON(0))
    ZRLOG(0, "Error: %s for [%s]", error.AsString().c_str(), Esc(listing.strFolder).c_str());
  CQiError reportError =
      OnFailedContent(listing.strFolder, listing.entry.GetOutputFolder(), false, error);
  if (reportError.IsError())
    ZRLOG(-1, "OnFailedContent failed, Path=%s, error=%s", Esc(listing.strFolder).c_str(),
          reportError.AsString().c_str());
  ZRLOG(-1, "ZRFindFirstFile failed, ignoring, SearchPath=%s, error=%s",
        Esc(listing.strFolder).c_str(), error.AsString().c_str());
  return CQiError();
}

CQiError CScanTraverseFolder::AbortedError(const SListing& listing) const {
  if (ZRLOG_ON(3))
    ZRLOG(3, "Traverse(%s,%s) aborted, FoldersToTraverse=%llu",
          Esc(listing.entry.GetInputFolder()).c_str(),
          Esc(listing.entry.GetOutputFolder()).c_str(),
          static_cast<unsigned long long>(m_pPrivate->GetFolderCount()));
  return QI_ERROR_WIN32(QiErrorCode::OperationAborted, "Operation aborted");
}

// ---- one entry ----

CQiError CScanTraverseFolder::ProcessItem(const std::string& strInput, const std::string& strOutput,
                                          CItemPtr& pItem) {
  CAutoTimeCounter timer(EScanPerfCounterType::TIME_PROCESS_ITEM);
  return DispatchItem(strInput, strOutput, pItem);
}

CQiError CScanTraverseFolder::DispatchItem(const std::string& strInput, const std::string& strOutput,
                                           CItemPtr& pItem) {
  if (!pItem) return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Invalid directory entry");
  const bool bFolder = pItem->IsFolder();
  const std::string* pLocal = &pItem->GetLocalFullyQualifiedItemName();
  const std::string* pSource = &pItem->GetSourceFullyQualifiedItemName();
  // An item without names of its own is placed in the given folders.
  std::string strJoinedLocal, strJoinedSource;
  if (pLocal->empty()) {
    strJoinedLocal = FXPath::Append(strInput, pItem->GetItemName());
    if (bFolder) strJoinedLocal = FXPath::AddTrailingDelimiter(strJoinedLocal);
    pLocal = &strJoinedLocal;
  }
  if (pSource->empty()) {
    strJoinedSource = FXPath::Append(strOutput, pItem->GetItemName());
    if (bFolder) strJoinedSource = FXPath::AddTrailingDelimiter(strJoinedSource);
    pSource = &strJoinedSource;
  }
  if (ZRLOG_ON(6))
    ZRLOG(6, "oFile.name=%s input=%s output=%s", Esc(pItem->GetItemName()).c_str(),
          Esc(*pLocal).c_str(), Esc(*pSource).c_str());
  if (pItem->IsReparsePoint()) {
    if (bFolder) return OnReparsePointFolder(*pLocal, *pSource, pItem);
    return OnReparsePointFile(*pLocal, *pSource, pItem);
  }
  if (bFolder) return OnFolder(*pLocal, *pSource, pItem);
  return OnFile(*pLocal, *pSource, pItem);
}
