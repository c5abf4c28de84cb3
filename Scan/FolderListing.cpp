#include "Scan/FolderListing.h"

#include <cerrno>
#include <chrono>
#include <thread>

#include "Platform/AutoTimeCounter.h"
#include "Platform/BlockingCallWatch.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Platform/PerfClock.h"
#include "Platform/ScanPerformanceCounterSet.h"

namespace {
// Paths in log lines: control bytes escaped so that every message stays on one line. Only
// called once the level is known to be on.
std::string Esc(const std::string& strPath) { return FXString::EscapeControl(strPath); }

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

bool CFolderListing::ShouldRetry(const CQiError& /*error*/) { return false; }

CQiError CFolderListing::ProcessRoot(const std::string& strInput, const std::string& strOutput,
                                     CItemPtr pItem, CPathEnumerator& enumerator, bool& bReported) {
  bReported = false;
  if (ZRLOG_ON(3)) ZRLOG(3, "item:%s oFolder:%s", Esc(strInput).c_str(), Esc(strOutput).c_str());
  bool bMissing = true;
  CQiError error = FXPath::DoesPathExist(strInput, bMissing);
  if (error.IsSuccess() && !bMissing && !pItem)
    error = enumerator.GetItemByPath(m_pBag, strInput, strOutput, pItem);
  if (CBlockingCallWatch::IsAbandoned()) return AbandonedError();
  if (error.IsError() || bMissing || !pItem) return CQiError();
  std::string strParentL, strNameL, strParentS, strNameS;
  (void)FXPath::SplitParent(strInput, strParentL, strNameL);
  (void)FXPath::SplitParent(strOutput, strParentS, strNameS);
  if (ZRLOG_ON(3))
    ZRLOG(3, "oFile.name=%s oFile.dir=(L:%s S:%s)", Esc(strNameL).c_str(), Esc(strParentL).c_str(),
          Esc(strParentS).c_str());
  bReported = true;
  error = ProcessItem(strParentL, strParentS, pItem);
  if (error.IsError())
    return QI_PUSH(error, "ProcessItem failed, cannot process, InputFolder=%s", Esc(strInput).c_str());
  return CQiError();
}

// The state of one folder listing (both passes).
struct CFolderListing::SListing {
  const SEntry& entry;
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
CQiError CFolderListing::TraverseFolder(const SEntry& entry, CPathEnumerator& enumerator,
                                        bool bFirstFolder) {
  CScanPerformanceCounterSet& counters = CScanPerformanceCounter::GetThreadCounter(m_strVolumeName);
  CAutoTimeCounter timer(counters[EScanPerfCounterType::TIME_TRAVERSE_FOLDER]);
  const std::string& strInput = entry.strInput;
  const std::string& strOutput = entry.strOutput;
  SListing listing{entry, enumerator, counters, bFirstFolder, strInput, std::string(), {}, {}, {}, 0};

  // The queuing hooks (OnTraverseFolder, OnTraverseReparsePoint) are not called again for an
  // entry taken from the queue: in their base form they queue, so the entry would come back.
  if (entry.bReparsePoint) {
    // The folder behind the reparse point is what gets listed; without one there is nothing.
    if (entry.strEndSubstituteName.empty()) {
      if (ZRLOG_ON(2)) ZRLOG(2, "Skipping traversal of %s", Esc(strInput).c_str());
      return CQiError();
    }
    listing.strFolder = entry.strEndSubstituteName;
  } else {
    listing.pFolderItem = entry.pFolderItem;
    if (ZRLOG_ON(6))
      ZRLOG(6, "OnTraverseFolder(%s,%s,%s) FoldersToTraverse=%llu",
            listing.pFolderItem ? Esc(listing.pFolderItem->GetItemName()).c_str() : "",
            Esc(strInput).c_str(), Esc(strOutput).c_str(),
            static_cast<unsigned long long>(m_hooks.GetQueuedFolderCount()));
  }

  // A folder met in a listing carries its item; a content root is described now.
  CQiError error;
  if (!listing.pFolderItem) {
    error = enumerator.GetItemByPath(m_pBag, listing.strFolder, strOutput,
                                     listing.pFolderItem);
    if (CBlockingCallWatch::IsAbandoned()) return AbandonedError();
  }
  if (error.IsError() || !listing.pFolderItem) {
    if (error.IsSuccess()) error = QI_ERROR_WIN32(QiErrorCode::InvalidHandle, "No folder item");
    ReportMissingFolder(listing, error);
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
    if (m_hooks.IsListingAborted()) return AbortedError(listing);
    CQiError itemError = ProcessItem(listing.strFolder, strOutput, pItem);
    if (itemError.IsError() && m_hooks.FailOnConsumerError(itemError))
      return QI_PUSH(itemError, "Failed to report failed item.");
    pItem.reset();
  }
  return CQiError();
}

CQiError CFolderListing::ListFolder(SListing& listing) {
  const std::string& strOutput = listing.entry.strOutput;
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
      CQiError reportError = m_hooks.OnFailedContent(listing.strFolder, strOutput, false, error);
      if (reportError.IsError())
        ZRLOG(-1, "OnFailedContent failed, Path=%s, error=%s", Esc(listing.strFolder).c_str(),
              reportError.AsString().c_str());
      return QI_PUSH(error, "FindFirst failed, Content Path=%s", Esc(listing.strFolder).c_str());
    }
    if (IsMissingFolderError(error)) {
      // Queued while it existed, gone (or replaced) by now: skipped like a missing root.
      ReportMissingFolder(listing, error);
      return CQiError();
    }
  }

  const CBlockingCallWatch* const pWatch = CBlockingCallWatch::Current();
  bool bSkipping = false;  // a restarted listing passes over what was already processed
  CEntryTimes times(listing.counters[EScanPerfCounterType::TIME_FINDNEXT]);
  for (;;) {
    // A worker given up while stuck in a file-system call stops here, before anything of the
    // traversal is touched.
    if (pWatch != nullptr && pWatch->WasAbandoned()) return AbandonedError();
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
    if (m_hooks.IsListingAborted()) return AbortedError(listing);
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

CQiError CFolderListing::ProcessEntry(SListing& listing, CQiError& entryError,
                                           CItemPtr& pItem) {
  if (listing.bReparsePass) {
    // The second listing passes on its reparse points only; the rest was dealt with before.
    if (entryError.IsSuccess() && pItem && pItem->IsReparsePoint()) {
      CQiError error = ProcessItem(listing.strFolder, listing.entry.strOutput, pItem);
      if (error.IsError() && m_hooks.FailOnConsumerError(error))
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
        m_hooks.OnFailedContent(strLocal, pItem->GetSourceFullyQualifiedItemName(), false, entryError);
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
    CQiError error = DispatchItem(listing.strFolder, listing.entry.strOutput, pItem);
    if (error.IsError() && m_hooks.FailOnConsumerError(error))
      return QI_PUSH(error, "Failed to report failed item.");
  }
  listing.pLastProcessed = std::move(pItem);
  return CQiError();
}

void CFolderListing::ReportMissingFolder(const SListing& listing, const CQiError& error) {
  ZRLOG(-1, "Content path [%s] not found (%s)", Esc(listing.strFolder).c_str(),
        error.AsString().c_str());
  CQiError reportError = m_hooks.OnFailedContent(listing.strFolder, listing.entry.strOutput, true, error);
  if (reportError.IsError())
    ZRLOG(-1, "OnFailedContent failed, Path=%s, error=%s", Esc(listing.strFolder).c_str(),
          reportError.AsString().c_str());
}

CQiError CFolderListing::OnListingError(SListing& listing, const CQiError& error) {
  if (ZRLOG_ON(0))
    ZRLOG(0, "Error: %s for [%s]", error.AsString().c_str(), Esc(listing.strFolder).c_str());
  CQiError reportError =
      m_hooks.OnFailedContent(listing.strFolder, listing.entry.strOutput, false, error);
  if (reportError.IsError())
    ZRLOG(-1, "OnFailedContent failed, Path=%s, error=%s", Esc(listing.strFolder).c_str(),
          reportError.AsString().c_str());
  ZRLOG(-1, "ZRFindFirstFile failed, ignoring, SearchPath=%s, error=%s",
        Esc(listing.strFolder).c_str(), error.AsString().c_str());
  return CQiError();
}

CQiError CFolderListing::AbortedError(const SListing& listing) const {
  if (ZRLOG_ON(3))
    ZRLOG(3, "Traverse(%s,%s) aborted, FoldersToTraverse=%llu",
          Esc(listing.entry.strInput).c_str(),
          Esc(listing.entry.strOutput).c_str(),
          static_cast<unsigned long long>(m_hooks.GetQueuedFolderCount()));
  return QI_ERROR_WIN32(QiErrorCode::OperationAborted, "Operation aborted");
}

// ---- one entry ----

CQiError CFolderListing::ProcessItem(const std::string& strInput, const std::string& strOutput,
                                          CItemPtr& pItem) {
  CAutoTimeCounter timer(EScanPerfCounterType::TIME_PROCESS_ITEM);
  return DispatchItem(strInput, strOutput, pItem);
}

CQiError CFolderListing::DispatchItem(const std::string& strInput, const std::string& strOutput,
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
    if (bFolder) return m_hooks.OnReparsePointFolder(*pLocal, *pSource, pItem);
    return m_hooks.OnReparsePointFile(*pLocal, *pSource, pItem);
  }
  if (bFolder) return m_hooks.OnFolder(*pLocal, *pSource, pItem);
  return m_hooks.OnFile(*pLocal, *pSource, pItem);
}
