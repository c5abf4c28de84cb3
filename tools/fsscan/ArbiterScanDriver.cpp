#include "ArbiterScanDriver.h"

#include "Scan/ScanArbiter.h"

CArbiterScanDriver::CArbiterScanDriver(int64_t llScanId, CScannerCallbackPtr pCallback, CBagPtr pBag,
                                       int iMaxWorkers, int iScanners)
    : CScanDriver(llScanId, std::move(pCallback), std::move(pBag), iMaxWorkers), m_iScanners(iScanners) {}

CQiError CArbiterScanDriver::Run(const ItemSet& setScanContentExceptions, const ItemSet& setFilters,
                                 const ItemSet& setFilterExceptions) {
  QI_RETURN_IF_ERROR(FinalizeWorkUnits(setScanContentExceptions, setFilters, setFilterExceptions));
  CScanArbiter arbiter(m_llScanId, m_iScanners, m_pCallback);
  arbiter.SetScannerConfigurationBag(m_pBag);
  QI_RETURN_IF_ERROR(arbiter.Run(*m_pWorkUnitManager));
  return CQiError();
}
