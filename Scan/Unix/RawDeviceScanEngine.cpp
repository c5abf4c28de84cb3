#include "Scan/Unix/RawDeviceScanEngine.h"

#include <sys/stat.h>

#include <cerrno>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Platform/ZRDebugFunction.h"
#include "Scan/EnumerateFiles.h"
#include "Scan/RawDeviceWorkUnit.h"
#include "Scan/Unix/RawDeviceItem.h"

namespace {
std::string Esc(const std::string& strText) { return FXString::EscapeControl(strText); }
}  // namespace

CRawDeviceScanEngine::CRawDeviceScanEngine() = default;

CRawDeviceScanEngine::~CRawDeviceScanEngine() = default;

std::string CRawDeviceScanEngine::getDescription() { return "RawDevice"; }

CQiError CRawDeviceScanEngine::Process() {
  ZRDEBUG_FUNCTION(1);
  return ProcessVolumesOfMedium();
}

CQiError CRawDeviceScanEngine::ProcessVolumeWorkUnit(CVolumeWorkUnitPtr pVolumeUnit) {
  return ProcessWorkUnitsOfVolume(pVolumeUnit, kEngineTag);
}

CQiError CRawDeviceScanEngine::ProcessWorkUnit(CWorkUnitPtr pWorkUnit) {
  ZRDEBUG_FUNCTION(2);
  if (!std::dynamic_pointer_cast<CRawDeviceWorkUnit>(pWorkUnit)) {
    ZRLOG(2, "Not a RawDevice WorkUnit");
    return QI_ERROR_ERRNO(EINVAL, "Not a RawDevice WorkUnit");
  }
  if (ZRLOG_ON(2)) {
    ZRLOG(2, "WorkUnit: SourceVolumeName=%s, LocalVolumeName=%s", Esc(pWorkUnit->GetSourceVolumeName()).c_str(),
          Esc(pWorkUnit->GetLocalVolumeName()).c_str());
    for (const CScanPathPtr& pScanPath : pWorkUnit->GetScanPaths())
      ZRLOG(2, "WorkUnit: SourceScanPath=%s, LocalScanPath=%s", Esc(pScanPath->GetSourceScanPath()).c_str(),
            Esc(pScanPath->GetLocalScanPath()).c_str());
  }
  QI_RETURN_IF_ERROR(OpenOutputHandler(pWorkUnit->GetSourceVolumeName()));
  size_t nItems = 0;
  CQiError error = ReportSurfaces(pWorkUnit, nItems);
  if (GetOutputHandler()) {
    CQiError closeError = CloseOutputHandler();
    if (closeError.IsError() && error.IsSuccess()) error = closeError;
    else if (closeError.IsError())
      ZRLOG(-1, "CloseOutputHandler failed, LocalVolumeName=[%s], error=%s",
            Esc(pWorkUnit->GetLocalVolumeName()).c_str(), closeError.AsString().c_str());
  }
  if (error.IsError()) return QI_PUSH(error);
  if (nItems == 0) return QI_ERROR_WIN32(QiErrorCode::NoContent, "No content available for scanning");
  return CQiError();
}

CQiError CRawDeviceScanEngine::ReportSurfaces(const CWorkUnitPtr& pWorkUnit, size_t& nItems) {
  CRawDeviceWorkUnit::SurfaceMap mapSurfaces;
  QI_RETURN_IF_ERROR(static_cast<CRawDeviceWorkUnit&>(*pWorkUnit).GetSurfaceMap(mapSurfaces), "GetSurface failed");
  for (const auto& [strDevice, strResolved] : mapSurfaces) {
    ZRLOG(2, "Surface=%s ", Esc(strDevice).c_str());
    // The device the path leads to: a link given as content stands for its device.
    std::string strSource = strDevice;
    for (const CScanPathPtr& pScanPath : pWorkUnit->GetScanPaths())
      if (pScanPath->GetLocalScanPath() == strDevice) strSource = pScanPath->GetSourceScanPath();
    struct stat st {};
    if (stat(strDevice.c_str(), &st) != 0) {
      // Left out of the backup: logged, and recorded as a scan failure where there is a consumer.
      CQiError error = QI_ERROR_ERRNO(errno, "Cannot read raw device %s (%s)", Esc(strDevice).c_str(),
                                      Esc(strResolved).c_str());
      ZRLOG(-1, "%s", error.AsString().c_str());
      CItemConsumerPtr pConsumer;
      if (m_pScannerCallback && m_pScannerCallback->GetScanFailureConsumer(pConsumer).IsSuccess() && pConsumer)
        QI_RETURN_IF_ERROR(
            CEnumerateFiles::WriteFailureRecord(pConsumer, pWorkUnit->GetBag(), strDevice, strSource, error));
      continue;
    }
    FXFile::CFileData fileData(strDevice, FXFile::CFileData::kModeFullPath, &st);
    QI_RETURN_IF_ERROR(
        ScanQueryCallback(std::make_shared<CRawDeviceItem>(pWorkUnit->GetBag(), strDevice, strSource, fileData)));
    ++nItems;
  }
  return CQiError();
}
