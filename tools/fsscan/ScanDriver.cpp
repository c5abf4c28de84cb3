#include "ScanDriver.h"

#include "Scan/ContentContext.h"
#include "Scan/ScannerConfigurationBagId.h"

CScanDriver::CScanDriver(int64_t llScanId, CScannerCallbackPtr pCallback, CBagPtr pBag, int iMaxWorkers)
    : m_llScanId(llScanId),
      m_pCallback(std::move(pCallback)),
      m_pBag(std::move(pBag)),
      m_iMaxWorkers(iMaxWorkers),
      m_pWorkUnitManager(std::make_shared<CWorkUnitManager>(llScanId)) {
  m_pWorkUnitManager->SetConfigurationBag(m_pBag);
}

CScanDriver::~CScanDriver() = default;

CQiError CScanDriver::AddLocalContentItem(const std::string& strPath) {
  QI_RETURN_IF_ERROR(m_pWorkUnitManager->AssignLocalWorkUnit(strPath));
  return CQiError();
}

CQiError CScanDriver::AddHadoopContentItem(const std::string& strPath) {
  auto pContext = std::make_shared<CContentContext>();
  QI_RETURN_IF_ERROR(pContext->GetBag()->Write(SXScannerConfigurationBagId::idIsHadoopScan, true));
  QI_RETURN_IF_ERROR(m_pWorkUnitManager->AssignLocalWorkUnit(strPath, pContext, false));
  return CQiError();
}

CQiError CScanDriver::FinalizeWorkUnits(const ItemSet& setScanContentExceptions, const ItemSet& setFilters,
                                        const ItemSet& setFilterExceptions) {
  const ItemSet setNone;
  QI_RETURN_IF_ERROR(m_pWorkUnitManager->FinalizeWorkUnits(setScanContentExceptions, setFilters,
                                                           setFilterExceptions, setNone, setNone));
  for (const auto& [strKey, pWorkUnit] : m_pWorkUnitManager->GetWorkUnitMap()) {
    if (pWorkUnit && pWorkUnit->GetBag())
      QI_RETURN_IF_ERROR(pWorkUnit->GetBag()->Write(SXScannerConfigurationBagId::idMaxWorkers, m_iMaxWorkers));
  }
  return CQiError();
}
