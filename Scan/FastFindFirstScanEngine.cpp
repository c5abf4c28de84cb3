#include "Scan/FastFindFirstScanEngine.h"

#include "Platform/FXErrorUtil.h"
#include "Scan/ScannerConfigurationBagId.h"

CFastFindFirstScanEngine::CFastFindFirstScanEngine() = default;

CFastFindFirstScanEngine::~CFastFindFirstScanEngine() = default;

std::string CFastFindFirstScanEngine::getDescription() { return "FastFindFirst"; }

bool CFastFindFirstScanEngine::IsFolderLevelMultithreadEnabled(const CScannerCallbackPtr& pCallback) {
  bool bEnabled = false;
  if (pCallback && pCallback->GetParameter(kParamEnableFolderLevelMultithread, bEnabled).IsError())
    bEnabled = false;
  return bEnabled;
}

int CFastFindFirstScanEngine::ReadMaxWorkers(const CWorkUnitPtr& pWorkUnit) {
  int iWorkers = 1;
  if (!pWorkUnit || !pWorkUnit->GetBag() ||
      pWorkUnit->GetBag()->Read(SXScannerConfigurationBagId::idMaxWorkers, iWorkers).IsError())
    return 1;
  return iWorkers < 1 ? 1 : iWorkers;
}

CQiError CFastFindFirstScanEngine::ProcessWorkUnit(CWorkUnitPtr pWorkUnit) {
  if (!IsFolderLevelMultithreadEnabled(m_pScannerCallback))
    return QI_ERROR_WIN32(QiErrorCode::NotSupported, "Folder level multithreading is not enabled");
  QI_RETURN_IF_ERROR(CFindFirstScanEngine::ProcessWorkUnit(std::move(pWorkUnit)));
  return CQiError();
}

CQiError CFastFindFirstScanEngine::ScanQueryCallback(CItemPtr pItem) {
  FXCriticalSection::CScopedLock lock(m_csDeliver);
  return CFindFirstScanEngine::ScanQueryCallback(std::move(pItem));
}

int CFastFindFirstScanEngine::GetMaxWorkers(CWorkUnitPtr pWorkUnit) {
  return ReadMaxWorkers(pWorkUnit);
}
