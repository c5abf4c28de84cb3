#include "Scan/Scanner.h"

#include <cerrno>
#include <cstdlib>
#include <utility>

#include "Platform/AutoTimeCounter.h"
#include "Platform/ErrorCodes.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/LogWriterInterface.h"
#include "Platform/ScanPerformanceCounter.h"
#include "Platform/ScanPerformanceCounterSet.h"
#include "Platform/SendEventInterface.h"
#include "Platform/ZRDebugFunction.h"
#include "Scan/ScanArbiter.h"

namespace {

// Event ids of the job's event catalogue.
constexpr uint32_t kEventFileScanError = 0x11000002;
constexpr uint32_t kEventTooManyOpenFiles = 0x1100008B;

bool EndsScan(const CQiError& error) {
  return error.IsErrNo(ENOMEM) || error.IsErrNo(EMFILE) || error.IsErrNo(ENOSPC);
}

}  // namespace

CScanner::CScanner(int64_t llScanId, CScannerCallbackPtr pCallback, CScanArbiter* pArbiter)
    : m_llScanId(llScanId), m_pCallback(std::move(pCallback)), m_pArbiter(pArbiter) {}

CScanner::~CScanner() = default;

unsigned CScanner::RunStub(const std::shared_ptr<CScanner>& pScanner) {
  if (!pScanner) return QiErrorCode::InvalidParameter;
  CQiError error = pScanner->StartScan();
  if (error.IsError()) {
    ZRLOG(-1, "Run failed, error=%s", error.AsString().c_str());
    return error.GetCode();
  }
  return 0;
}

CQiError CScanner::StartScan() {
  ZRDEBUG_FUNCTION(2);
  if (!m_pCallback || m_pArbiter == nullptr) {
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Scanner has no callback or arbiter");
  }
  m_lstEngines.clear();
  CQiError error = m_pCallback->GetScanEngineList(m_lstEngines);
  if (error.IsError()) {
    (void)m_pCallback->Abort();
    return QI_PUSH(error, "GetScanEngineList failed");
  }
  CBagPtr pBag = m_pArbiter->GetScannerConfigurationBag();
  if (!pBag) pBag = std::make_shared<CBag>();

  for (;;) {
    // An ended scan takes no more volumes; the engines would only answer 995.
    if (m_pCallback->IsAborted()) {
      ZRLOG(3, "Scan aborted, no more work units taken");
      return CQiError();
    }
    CVolumeWorkUnitPtr pVolume = m_pArbiter->GetNextVolumeWorkUnit(this);
    if (!pVolume) {
      ZRLOG(3, "No more work units to process");
      return CQiError();
    }
    ZRLOG(3, "VolumeWorkUnit=[%s]", pVolume->AsString().c_str());
    CAutoTimeCounter volumeTimer(CScanPerformanceCounter::GetThreadCounter(pVolume->GetLocalVolumeName())
                                     .Get(EScanPerfCounterType::TIME_VOLUME_SCAN));
    for (const CWorkUnitPtr& pUnit : pVolume->GetWorkUnits()) {
      if (ProcessWorkUnit(pVolume, pUnit, pBag) == EUnitResult::EndScan) {
        m_pArbiter->ReturnVolumeWorkUnit(pVolume, this);
        (void)m_pCallback->Abort();
        return CQiError();
      }
    }
    m_pArbiter->ReturnVolumeWorkUnit(pVolume, this);
  }
}

CScanner::EUnitResult CScanner::ProcessWorkUnit(const CVolumeWorkUnitPtr& pVolume,
                                                const CWorkUnitPtr& pUnit, const CBagPtr& pBag) {
  if (!pUnit) return EUnitResult::Next;
  ZRLOG(3, "WorkUnit=[%s]", pUnit->AsString().c_str());
  if (pUnit->GetProcessor() == kNoScanProcessor) {
    ZRLOG(0, "WorkUnit marked completed.");
    return EUnitResult::Next;
  }
  if (pUnit->GetBag()) {
    CQiError writeError = pUnit->GetBag()->Write("VolumeName", pVolume->GetLocalVolumeName());
    if (writeError.IsError()) {
      ZRLOG(-1, "Failed to record VolumeName, error=%s", writeError.AsString().c_str());
    }
  }

  CQiError error = QI_ERROR_WIN32(QiErrorCode::ScanEngineNotDefined, "ScanEngine not defined");
  bool bSkipped = false;
  bool bEngineTried = false;
  for (const CScanEnginePtr& pEngine : m_lstEngines) {
    if (!pEngine) continue;
    bEngineTried = true;
    const std::string strEngine = pEngine->getDescription();
    ZRLOG(3, "Found engine for work unit, Engine=[%s], WorkUnit=[%s]", strEngine.c_str(),
          pUnit->AsString().c_str());
    (void)pEngine->SetScannerCallback(m_pCallback);
    (void)pEngine->SetScannerConfigurationBag(pBag);
    ZRLOG(3, "Starting processing work unit.");
    error = pEngine->ProcessWorkUnit(pUnit);
    pUnit->SetDisposition(strEngine, error.GetCode());

    if (error.IsSuccess() || error.IsWin32(QiErrorCode::OperationAborted)) break;
    if (error.IsErrNo(ENOENT) || error.IsWin32(QiErrorCode::NoContent)) {
      ZRLOG(-1, "Scanner reported that content is missing or inaccessible, skipping and "
                "continuing with rest of the content");
      m_pArbiter->ReturnVolumeWorkUnit(pVolume, this);
      bSkipped = true;
      break;
    }
    if (EndsScan(error)) {
      RaiseEndOfScanEvent(error);
      return EUnitResult::EndScan;
    }

    bool bAbort = false;
    bool bSkip = false;
    bool bTryNext = true;
    CQiError callbackError = m_pCallback->OnScannerError(pEngine, error, bAbort, bSkip, bTryNext);
    if (callbackError.IsError()) ZRLOG(-1, "OnScannerError failed: %s", error.AsString().c_str());
    if (bAbort) return EUnitResult::EndScan;
    // Skip only settles how a unit that no engine scans ends (quietly); the trial goes on
    // while the callback asks for the next engine.
    if (bSkip) bSkipped = true;
    if (!bTryNext) break;
    ZRLOG(3, "Scan engine cannot process work unit, Engine=[%s], WorkUnit=[%s], Disposition=[%s], "
             "result=%s",
          strEngine.c_str(), pUnit->AsString().c_str(), pUnit->DispositionAsString().c_str(),
          error.AsString().c_str());
  }

  if (!bSkipped && error.IsError()) {
    if (!bEngineTried) {
      // No engine at all: a misconfigured scan must not pass as one that found nothing.
      ZRLOG(-1, "No scan engine is configured, stopping the process, WorkUnit=[%s], Error=[%s]",
            pUnit->AsString().c_str(), error.AsString().c_str());
      std::abort();
    }
    ZRLOG(-1, "Failed to scan work unit, WorkUnit=[%s], Disposition=[%s], Error=[%s]",
          pUnit->AsString().c_str(), pUnit->DispositionAsString().c_str(), error.AsString().c_str());
  }
  if (error.IsSuccess()) {
    ZRLOG(3, "Processing work unit completed successfully, WorkUnit=[%s]", pUnit->AsString().c_str());
  }
  return EUnitResult::Next;
}

void CScanner::RaiseEndOfScanEvent(const CQiError& error) {
  CQiError sendError;
  if (error.IsErrNo(ENOMEM)) {
    sendError = ISendEventInterface::SendEventMessage(QI_ERROR_EVENT(
        kEventFileScanError, "File Scan: Memory allocation error while proccessing the directory"));
  } else if (error.IsErrNo(EMFILE)) {
    sendError = ISendEventInterface::SendEventMessage(QI_ERROR_EVENT(kEventTooManyOpenFiles),
                                                      {9LL, 0LL});
  } else {
    sendError = ISendEventInterface::SendEventMessage(
        QI_ERROR_EVENT(kEventFileScanError, "File Scan: No space left on device"));
  }
  if (sendError.IsError()) ZRLOG(-1, "Failed to send event, error=%s", sendError.AsString().c_str());
}
