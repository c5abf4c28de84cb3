#include "Scan/ScanArbiter.h"

#include <utility>
#include <vector>

#include "Platform/AutoTimeCounter.h"
#include "Platform/ErrorCodes.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/LogWriterInterface.h"
#include "Platform/ZRDebugFunction.h"
#include "Scan/Scanner.h"

CScanArbiter::CScanArbiter(int64_t llScanId, int iMaxWorkerThreads, CScannerCallbackPtr pCallback)
    : m_llScanId(llScanId), m_iMaxWorkerThreads(iMaxWorkerThreads), m_pCallback(std::move(pCallback)) {}

CScanArbiter::~CScanArbiter() = default;

CQiError CScanArbiter::Run(CWorkUnitManager& manager) {
  ZRDEBUG_FUNCTION(1);
  return RunScanners(manager);
}

CQiError CScanArbiter::RunForLogMonitoring(CWorkUnitManager& manager) {
  ZRDEBUG_FUNCTION(1);
  return RunScanners(manager);
}

CQiError CScanArbiter::StartScannerThread(ZrThread& thread, const CScannerPtr& pScanner) {
  return thread.Create([pScanner]() { return CScanner::RunStub(pScanner); });
}

CQiError CScanArbiter::RunScanners(CWorkUnitManager& manager) {
  // One record per medium, in the manager's map order, each with a copy of its volume list.
  m_lstArbiterVolumeWorkUnits.clear();
  for (const auto& [strMediaId, pMedia] : manager.GetPhysicalMediaVolumeWorkUnitMap()) {
    if (!pMedia) continue;
    m_lstArbiterVolumeWorkUnits.push_back(
        std::make_shared<CArbiterVolumeWorkUnits>(strMediaId, pMedia->GetVolumeWorkUnits()));
  }
  ZRLOG(3, "m_lstArbiterVolumeWorkUnits.size=%llu, m_iMaxWorkerThreads=%d",
        static_cast<unsigned long long>(m_lstArbiterVolumeWorkUnits.size()), m_iMaxWorkerThreads);

  CAutoTimeCounter runTimer(EScanPerfCounterType::TIME_SCANNER_RUN);

  std::vector<std::unique_ptr<ZrThread>> lstThreads;
  for (int i = 0; i < m_iMaxWorkerThreads; ++i) {
    auto pThread = std::make_unique<ZrThread>("Scanner");
    auto pScanner = std::make_shared<CScanner>(m_llScanId, m_pCallback, this);
    ZRLOG(3, "Starting scanner, 0x%p", static_cast<void*>(pThread.get()));
    CQiError error = StartScannerThread(*pThread, pScanner);
    if (error.IsError()) {
      CQiError lastError = pThread->GetLastError();
      if (lastError.IsSuccess()) lastError = error;
      ZRLOG(-1, "Failed to start a scanner thread: %s", lastError.AsString().c_str());
      ZRLOG(0, "Falling back to direct scanner execution...");
      (void)CScanner::RunStub(pScanner);
      continue;
    }
    lstThreads.push_back(std::move(pThread));
  }
  for (auto& pThread : lstThreads) {
    ZRLOG(3, "Waiting for scanner 0x%p", static_cast<void*>(pThread.get()));
    CQiError error = pThread->Join();
    if (error.IsError()) ZRLOG(-1, "Failed to wait for scanner, error=%s", error.AsString().c_str());
  }

  if (m_pCallback && m_pCallback->IsAborted()) {
    return QI_ERROR_WIN32(QiErrorCode::OperationAborted, "The scan was aborted");
  }
  ZRLOG(2, "Run completed");
  return CQiError();
}

CVolumeWorkUnitPtr CScanArbiter::GetNextVolumeWorkUnit(const void* pScanner) {
  // Take the first free medium with volumes; its busy flag gives it to this scanner alone.
  CArbiterVolumeWorkUnitsPtr pTaken;
  for (const auto& pMedia : m_lstArbiterVolumeWorkUnits) {
    if (pMedia->TryTake()) {
      pTaken = pMedia;
      break;
    }
  }
  if (!pTaken) return CVolumeWorkUnitPtr();

  std::lock_guard<std::mutex> lock(m_mutex);
  m_mapInUse[pScanner] = pTaken;
  return pTaken->TakeFirstVolume(pScanner);
}

void CScanArbiter::ReturnVolumeWorkUnit(const CVolumeWorkUnitPtr& /*pVolume*/, const void* pScanner) {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto it = m_mapInUse.find(pScanner);
  if (it == m_mapInUse.end()) return;
  it->second->Release();
  m_mapInUse.erase(it);
}

CBagPtr CScanArbiter::GetScannerConfigurationBag() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_pConfigurationBag;
}

void CScanArbiter::SetScannerConfigurationBag(CBagPtr pBag) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_pConfigurationBag = std::move(pBag);
}
