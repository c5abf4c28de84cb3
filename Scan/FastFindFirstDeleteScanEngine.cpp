#include "Scan/FastFindFirstDeleteScanEngine.h"

#include "Platform/FXErrorUtil.h"
#include "Scan/FastFindFirstScanEngine.h"

CFastFindFirstDeleteScanEngine::CFastFindFirstDeleteScanEngine() = default;

CFastFindFirstDeleteScanEngine::~CFastFindFirstDeleteScanEngine() = default;

std::string CFastFindFirstDeleteScanEngine::getDescription() { return "FastFindFirstDelete"; }

CQiError CFastFindFirstDeleteScanEngine::ProcessWorkUnit(CWorkUnitPtr pWorkUnit) {
  if (!CFastFindFirstScanEngine::IsFolderLevelMultithreadEnabled(m_pScannerCallback))
    return QI_ERROR_WIN32(QiErrorCode::NotSupported, "Folder level multithreading is not enabled");
  QI_RETURN_IF_ERROR(CFindFirstScanEngine::ProcessWorkUnit(std::move(pWorkUnit)));
  return CQiError();
}

int CFastFindFirstDeleteScanEngine::GetMaxWorkers(CWorkUnitPtr pWorkUnit) {
  return CFastFindFirstScanEngine::ReadMaxWorkers(pWorkUnit);
}
