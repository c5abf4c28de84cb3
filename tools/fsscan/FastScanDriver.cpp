#include "FastScanDriver.h"

#include <thread>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"
#include "Scan/FastFindFirstScanEngine.h"

CFastScanDriver::CFastScanDriver(int64_t llScanId, const std::string& strInstance, CScannerCallbackPtr pCallback,
                                 CBagPtr pBag, int iMaxWorkers)
    : CScanDriver(llScanId, std::move(pCallback), std::move(pBag), iMaxWorkers), m_strInstance(strInstance) {}

CQiError CFastScanDriver::Run(const ItemSet& setScanContentExceptions, const ItemSet& setFilters,
                              const ItemSet& setFilterExceptions) {
  QI_RETURN_IF_ERROR(FinalizeWorkUnits(setScanContentExceptions, setFilters, setFilterExceptions));

  // One thread per medium, all at once, as the facade runs them.
  const auto& mapMedia = m_pWorkUnitManager->GetPhysicalMediaVolumeWorkUnitMap();
  std::vector<CQiError> lstResults(mapMedia.size());
  std::vector<std::string> lstIds;
  std::vector<std::thread> lstThreads;
  size_t i = 0;
  for (const auto& [strMediaId, pMediaUnit] : mapMedia) {
    lstIds.push_back(strMediaId);
    lstThreads.emplace_back([this, pMediaUnit, &lstResults, i] { lstResults[i] = RunMedium(pMediaUnit); });
    ++i;
  }
  for (std::thread& thread : lstThreads) thread.join();

  for (size_t j = 0; j < lstResults.size(); ++j) {
    if (lstResults[j].IsSuccess() || lstResults[j].IsWin32(QiErrorCode::OperationAborted)) continue;
    ZRLOG(-1, "FastFindFirst failed, PhysicalMediaId=[%s], error=%s", lstIds[j].c_str(),
          lstResults[j].AsString().c_str());
    m_lstMediumErrors.push_back(FXString::Format("medium %s: %s", lstIds[j].c_str(),
                                                 lstResults[j].GetMessage().c_str()));
  }
  return CQiError();
}

CQiError CFastScanDriver::RunMedium(const CPhysicalMediaWorkUnitPtr& pMediaUnit) {
  auto pEngine = std::make_shared<CFastFindFirstScanEngine>();
  QI_RETURN_IF_ERROR(pEngine->SetInstance(m_strInstance));
  QI_RETURN_IF_ERROR(pEngine->SetPhysicalMediaWorkUnit(pMediaUnit));
  QI_RETURN_IF_ERROR(pEngine->SetExcludedAttributes(0));
  QI_RETURN_IF_ERROR(pEngine->SetScannerCallback(m_pCallback));
  QI_RETURN_IF_ERROR(pEngine->SetScannerConfigurationBag(m_pBag));
  QI_RETURN_IF_ERROR(pEngine->Process());
  return CQiError();
}
