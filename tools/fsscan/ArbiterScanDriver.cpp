#include "ArbiterScanDriver.h"

#include "Scan/ScanArbiter.h"
#include "Scan/ScannerConfigurationBagId.h"

CArbiterScanDriver::CArbiterScanDriver(int64_t llScanId, CScannerCallbackPtr pCallback, CBagPtr pBag,
                                       int iMaxWorkers, int iScanners)
    : m_llScanId(llScanId),
      m_pCallback(std::move(pCallback)),
      m_pBag(std::move(pBag)),
      m_iMaxWorkers(iMaxWorkers),
      m_iScanners(iScanners),
      m_pWorkUnitManager(std::make_shared<CWorkUnitManager>(llScanId)) {
  m_pWorkUnitManager->SetConfigurationBag(m_pBag);
}

CQiError CArbiterScanDriver::AddLocalContentItem(const std::string& strPath) {
  QI_RETURN_IF_ERROR(m_pWorkUnitManager->AssignLocalWorkUnit(strPath));
  return CQiError();
}

CQiError CArbiterScanDriver::Run(const ItemSet& setScanContentExceptions, const ItemSet& setFilters,
                                 const ItemSet& setFilterExceptions) {
  const ItemSet setNone;
  QI_RETURN_IF_ERROR(m_pWorkUnitManager->FinalizeWorkUnits(setScanContentExceptions, setFilters,
                                                           setFilterExceptions, setNone, setNone));
  for (const auto& [strKey, pWorkUnit] : m_pWorkUnitManager->GetWorkUnitMap()) {
    if (pWorkUnit && pWorkUnit->GetBag())
      QI_RETURN_IF_ERROR(pWorkUnit->GetBag()->Write(SXScannerConfigurationBagId::idMaxWorkers, m_iMaxWorkers));
  }
  CScanArbiter arbiter(m_llScanId, m_iScanners, m_pCallback);
  arbiter.SetScannerConfigurationBag(m_pBag);
  QI_RETURN_IF_ERROR(arbiter.Run(*m_pWorkUnitManager));
  return CQiError();
}
