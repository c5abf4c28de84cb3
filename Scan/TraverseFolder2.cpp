#include "Scan/TraverseFolder2.h"

#include <algorithm>
#include <cerrno>

#include "Platform/BlockingCallWatch.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Platform/ScanPerformanceCounter.h"
#include "Platform/ZRDebugFunction.h"
#include "Scan/EnumerateFiles.h"
#include "Scan/TraverseFolderWorker2.h"

namespace {
std::string Esc(const std::string& strText) { return FXString::EscapeControl(strText); }
using Clock = std::chrono::steady_clock;
}  // namespace

CTraverseFolder2::CTraverseFolder2(CWorkUnitPtr pWorkUnit, CScannerCallbackPtr pCallback)
    : m_pPrivate(std::make_shared<CTraverseFolderPrivate2>(std::move(pWorkUnit),
                                                           std::move(pCallback), this)) {}

CTraverseFolder2::~CTraverseFolder2() {
  if (!m_pPrivate->GetWorkers().empty()) StopWorkers(true);
  // The prototype shares the private state, which holds the prototype: break the cycle.
  m_pPrivate->SetPrototypeWorker(nullptr);
}

void CTraverseFolder2::SetExcludedAttributes(unsigned int uExcludedAttributes) {
  m_pPrivate->m_uExcludedAttributes = uExcludedAttributes;
}
void CTraverseFolder2::EnableBuiltInSystemProtectedFilesFilter(bool bEnable) {
  m_pPrivate->m_bBuiltInSystemProtectedFilesFilter = bEnable;
}
void CTraverseFolder2::SetEnhancedSymbolicLinkIdentification(unsigned int uValue) {
  m_pPrivate->m_uEnhancedSymbolicLinkIdentification = uValue;
}
void CTraverseFolder2::SetFollowDFSReparsePoints(bool bFollow) {
  m_pPrivate->m_bFollowDFSReparsePoints = bFollow;
}
void CTraverseFolder2::SetCrossOSNFSBackup(bool bCrossOS) { m_pPrivate->m_bCrossOSNFSBackup = bCrossOS; }
void CTraverseFolder2::SetAbortCheck(CAbortOperationCheck* pAbortCheck) {
  m_pPrivate->SetAbortCheck(pAbortCheck);
}
void CTraverseFolder2::SetAbortEvent(const FXEventPtr& pEvent) { m_pPrivate->SetAbortEvent(pEvent); }
void CTraverseFolder2::SetMaxWorkers(int iMaxWorkers) { m_pPrivate->m_iMaxWorkers = iMaxWorkers; }
void CTraverseFolder2::SetProcessTopLevelContentItem(bool bProcess) {
  m_pPrivate->m_bProcessTopLevelContentItem = bProcess;
}
void CTraverseFolder2::UseOutputHandler(const COutputHandlerPtr& pHandler) {
  m_pPrivate->SetOutputHandler(pHandler);
  m_bOutputHandlerGiven = true;
}
void CTraverseFolder2::SetStallTimeout(std::chrono::milliseconds timeout) {
  m_pPrivate->m_stallTimeout = timeout;
}
void CTraverseFolder2::SetWorker(const CTraverseFolderWorker2Ptr& pWorker) {
  m_pPrivate->SetPrototypeWorker(pWorker);
}

void CTraverseFolder2::AddFolderToList(const std::string& strInput, const std::string& strOutput) {
  AddFolderToList(strInput, strOutput, CItemPtr());
}

void CTraverseFolder2::AddFolderToList(const std::string& strInput) {
  AddFolderToList(strInput, strInput, CItemPtr());
}

void CTraverseFolder2::AddFolderToList(const std::string& strInput, const std::string& strOutput,
                                       CItemPtr pItem) {
  if (ZRLOG_ON(6))
    ZRLOG(6, "Adding folder, InputPath=%s, OutputPath=%s", Esc(strInput).c_str(),
          Esc(strOutput).c_str());
  m_pPrivate->AddFolder(CFoldersToTraverse2(strInput, strOutput, std::move(pItem)));
}

void CTraverseFolder2::AddReparsePointToList(const std::string& strInput,
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
  m_pPrivate->AddFolder(CFoldersToTraverse2(strInput, strEndSubstituteName, strOutput, uAttributes,
                                            strNextSubstituteName));
}

CQiError CTraverseFolder2::CreateWorkerThreads() {
  const int iWorkers = std::max(1, m_pPrivate->m_iMaxWorkers);
  ZRLOG(0, "[%d] Worker threads will be created.", m_pPrivate->m_iMaxWorkers);
  if (!m_pPrivate->GetPrototypeWorker()) {
    auto pPrototype = std::make_shared<CTraverseFolderWorker2>(m_pPrivate, 0);
    if (!pPrototype) return QI_ERROR_WIN32(QiErrorCode::OutOfMemory, "No prototype worker");
    m_pPrivate->SetPrototypeWorker(pPrototype);
  }
  m_iNextWorkerIndex = 1;
  for (int i = 1; i <= iWorkers; ++i) QI_RETURN_IF_ERROR(StartWorker(m_iNextWorkerIndex++));
  return CQiError();
}

CQiError CTraverseFolder2::StartWorker(int iIndex) {
  CTraverseFolderWorker2Ptr pWorker = m_pPrivate->GetPrototypeWorker()->CreateWorker(m_pPrivate, iIndex);
  if (!pWorker) return QI_ERROR_WIN32(QiErrorCode::OutOfMemory, "Failed to create worker %d", iIndex);
  m_pPrivate->GetWorkers().push_back(pWorker);
  QI_RETURN_IF_ERROR(pWorker->Start(), "Failed to start worker %d", iIndex);
  return CQiError();
}

CQiError CTraverseFolder2::GiveUpStalledWorkers(std::chrono::steady_clock::time_point tNow,
                                                std::chrono::milliseconds timeout) {
  size_t nGivenUp = 0;
  const std::vector<CFolderQueueT<CFoldersToTraverse2>::SStalledFolder> lstFolders =
      m_pPrivate->GetQueue().GiveUpStalledWorkers(m_pPrivate->GetWorkers(), tNow, timeout, nGivenUp);
  const CScannerCallbackPtr& pCallback = m_pPrivate->GetScannerCallback();
  CItemConsumerPtr pConsumer;
  if (!lstFolders.empty() && pCallback && pCallback->GetScanFailureConsumer(pConsumer).IsSuccess() &&
      pConsumer) {
    const CWorkUnitPtr& pUnit = m_pPrivate->GetWorkUnit();
    for (const auto& folder : lstFolders) {
      CQiError reportError = CEnumerateFiles::WriteFailureRecord(
          pConsumer, pUnit ? pUnit->GetBag() : CBagPtr(), folder.strInput, folder.strOutput,
          folder.error);
      // A failure record that cannot be written ends the scan, as it does for the workers.
      if (reportError.IsError()) m_pPrivate->SetScanFailure(QI_PUSH(reportError));
    }
  }
  // The rest of the traversal goes on with new workers in their places.
  for (; nGivenUp > 0; --nGivenUp) QI_RETURN_IF_ERROR(StartWorker(m_iNextWorkerIndex++));
  return CQiError();
}

void CTraverseFolder2::StopWorkers(bool bWait) {
  std::vector<CTraverseFolderWorker2Ptr>& lstWorkers = m_pPrivate->GetWorkers();
  // Ask all first, so that they wind down together, then wait for each.
  for (const CTraverseFolderWorker2Ptr& pWorker : lstWorkers) (void)pWorker->Stop(false);
  if (!bWait) return;
  const std::chrono::milliseconds stallTimeout =
      CBlockingCallWatch::EffectiveTimeout(m_pPrivate->m_stallTimeout);
  for (const CTraverseFolderWorker2Ptr& pWorker : lstWorkers) {
    // A worker stuck in the file system is left behind, never waited for without end.
    if (!CBlockingCallWatch::WaitForStopOrGiveUp(*pWorker, *pWorker->GetWatch(), stallTimeout)) {
      ZRLOG(-1, "Traversal worker %d did not return from the file system within %lld ms; left behind",
            pWorker->GetIndex(), static_cast<long long>(stallTimeout.count()));
      CTraverseFolderWorker2::LeaveBehind(pWorker);
    }
  }
  lstWorkers.clear();
}

CQiError CTraverseFolder2::Traverse() {
  ZRDEBUG_FUNCTION(2);
  CVolumeOutputHandler ownOutput;
  if (!m_bOutputHandlerGiven) {
    const CWorkUnitPtr& pUnit = m_pPrivate->GetWorkUnit();
    QI_RETURN_IF_ERROR(ownOutput.Open(m_pPrivate->GetScannerCallback(),
                                      pUnit ? pUnit->GetSourceVolumeName() : std::string()));
    m_pPrivate->SetOutputHandler(ownOutput.Get());
  }
  if (m_pPrivate->m_bProcessTopLevelContentItem) {
    m_pPrivate->MarkTopLevelEntries();
    m_pPrivate->m_bProcessTopLevelContentItem = false;
  }
  CQiError error = RunWorkers();
  // The workers are stopped: nothing delivers any more, and no folder stays open.
  m_pPrivate->GetListingFolderCache()->CloseAll();
  if (m_bOutputHandlerGiven) {
    if (error.IsError()) return QI_PUSH(error);
    return CQiError();
  }
  m_pPrivate->SetOutputHandler(nullptr);
  CQiError closeError = ownOutput.Close();
  if (error.IsError()) {
    if (closeError.IsError())
      ZRLOG(-1, "CloseOutputHandler failed, error=%s", closeError.AsString().c_str());
    return QI_PUSH(error);
  }
  QI_RETURN_IF_ERROR(closeError);
  return CQiError();
}

CQiError CTraverseFolder2::RunWorkers() {
  CQiError error = CreateWorkerThreads();
  if (error.IsError()) {
    StopWorkers(true);
    return QI_PUSH(error);
  }
  QI_RETURN_IF_ERROR(WaitForWorkers());
  return CQiError();
}

CQiError CTraverseFolder2::WaitForWorkers() {
  Clock::time_point tIntervalStart = Clock::now();
  const std::chrono::milliseconds stallTimeout =
      CBlockingCallWatch::EffectiveTimeout(m_pPrivate->m_stallTimeout);
  const uint32_t uWaitMs = static_cast<uint32_t>(std::clamp<long long>(
      stallTimeout.count() / 4, 10, static_cast<long long>(kCoordinatorWaitMs)));
  for (;;) {
    // A scan failure and an abort win over completion: workers that stop on either leave their
    // folders half listed and go idle, so the traversal may look done as well. Completion is
    // read first, so an abort that made it look done is always seen below.
    const bool bDone = m_pPrivate->IsDone();
    if (m_pPrivate->HasScanFailure()) {
      CQiError failure = m_pPrivate->GetScanFailure();
      ZRLOG(1, "Traverse aborted, ScanFailure=%s", failure.AsString().c_str());
      StopWorkers(true);
      return QI_PUSH(failure, "Traverse aborted");
    }
    if (m_pPrivate->IsAborted()) {
      ZRLOG(1, "Traverse aborted, FoldersToTraverse=[%llu]",
            static_cast<unsigned long long>(m_pPrivate->GetFolderCount()));
      StopWorkers(true);
      return QI_ERROR_WIN32(QiErrorCode::OperationAborted, "Operation aborted");
    }
    if (bDone) {
      StopWorkers(true);
      return CQiError();
    }
    CQiError error = GiveUpStalledWorkers(Clock::now(), stallTimeout);
    if (error.IsError()) {
      StopWorkers(true);
      return QI_PUSH(error);
    }
    // Woken at once when a worker goes idle, fails or sees an abort, or the abort event is set.
    (void)FXEvent::WaitAny({m_pPrivate->GetCoordinatorEvent().get(), m_pPrivate->GetAbortEvent().get()},
                           uWaitMs);
    if (Clock::now() - tIntervalStart >= kReportInterval) {
      CScanPerformanceCounter::LogAllCounters();
      CScanPerformanceCounter::LogThreadCounters();
      ZRLOG(4, "FoldersToTraverse=[%llu]",
            static_cast<unsigned long long>(m_pPrivate->GetFolderCount()));
      tIntervalStart = Clock::now();
    }
  }
}
