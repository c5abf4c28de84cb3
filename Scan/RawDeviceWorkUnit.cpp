#include "Scan/RawDeviceWorkUnit.h"

#include "Platform/LogWriterInterface.h"

CRawDeviceWorkUnit::CRawDeviceWorkUnit() {
  if (ZRLOG_ON(2))
    m_pObjectTrace = std::make_unique<ZRDebugFunction>(3, "CRawDeviceWorkUnit::CRawDeviceWorkUnit()",
                                                       __LINE__, "0x%p", static_cast<void*>(this));
}

CRawDeviceWorkUnit::~CRawDeviceWorkUnit() = default;

void CRawDeviceWorkUnit::AddScanPath(const CScanPathPtr& pScanPath) { CWorkUnit::AddScanPath(pScanPath); }

CQiError CRawDeviceWorkUnit::AddSurface(const std::string& strKey, const std::string& strValue) {
  m_mapSurfaces[strKey] = strValue;
  return CQiError();
}

CQiError CRawDeviceWorkUnit::GetSurfaceMap(SurfaceMap& mapSurfaces) const {
  mapSurfaces = m_mapSurfaces;
  return CQiError();
}
