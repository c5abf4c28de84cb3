#include "Scan/TraverseScanEngine.h"

#include <any>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Platform/MemoryLineWriter.h"
#include "Platform/ZRDebugFunction.h"
#include "Scan/VolumeOutputHandler.h"

namespace {
std::string Esc(const std::string& strText) { return FXString::EscapeControl(strText); }

}  // namespace

CTraverseScanEngine::CTraverseScanEngine() = default;

CTraverseScanEngine::~CTraverseScanEngine() = default;

std::string CTraverseScanEngine::getDescription() { return "Traverse"; }

CQiError CTraverseScanEngine::OpenOutputHandler(const std::string& /*strName*/) {
  return QI_ERROR_WIN32(QiErrorCode::ItemPathMisuse,
                        "Traverse scan engine does not support output handlers at this level; "
                        "object is not being used properly");
}

CQiError CTraverseScanEngine::CloseOutputHandler() {
  return QI_ERROR_WIN32(QiErrorCode::ItemPathMisuse,
                        "Traverse scan engine does not support output handlers at this level; "
                        "object is not being used properly");
}

CQiError CTraverseScanEngine::ScanQueryCallback(CItemPtr /*pItem*/) {
  return QI_ERROR_WIN32(QiErrorCode::NotSupported,
                        "Traverse scan engine does not support callbacks at this level; object "
                        "is not being used properly");
}

CQiError CTraverseScanEngine::Process() {
  ZRDEBUG_FUNCTION(1);
  return ProcessVolumesOfMedium(
      "No volume work units assigned to this physical media work unit; nothing to do, "
      "PhysicalMediaId=[%s]");
}

CQiError CTraverseScanEngine::ProcessVolumeWorkUnit(CVolumeWorkUnitPtr pVolumeUnit) {
  return ProcessWorkUnitsOfVolume(pVolumeUnit, kEngineTag, 1);
}

CQiError CTraverseScanEngine::ProcessWorkUnit(CWorkUnitPtr pWorkUnit) {
  ZRDEBUG_FUNCTION(2);
  if (!pWorkUnit) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "No work unit");
  for (const CScanPathPtr& pScanPath : pWorkUnit->GetScanPaths())
    ZRLOG(1, "LocalScanPath=[%s], SourceScanPath=[%s]", Esc(pScanPath->GetLocalScanPath()).c_str(),
          Esc(pScanPath->GetSourceScanPath()).c_str());
  // The traversal's outputs read their settings through the callback.
  if (m_pScannerCallback && m_pConfigurationBag)
    QI_RETURN_IF_ERROR(m_pScannerCallback->SetScannerConfigurationBag(m_pConfigurationBag));

  // One open handler for the whole work unit, completed whatever happens to its traversals.
  const std::string& strLocalVolumeName = pWorkUnit->GetLocalVolumeName();
  CVolumeOutputHandler output;
  QI_RETURN_IF_ERROR(output.Open(m_pScannerCallback, pWorkUnit->GetSourceVolumeName()),
                     "LocalVolumeName=[%s]", Esc(strLocalVolumeName).c_str());
  CQiError error = TraverseWorkUnit(pWorkUnit, output.Get());
  CQiError closeError = output.Close();
  if (error.IsError()) {
    if (closeError.IsError())
      ZRLOG(-1, "CloseOutputHandler failed, LocalVolumeName=[%s], error=%s",
            Esc(strLocalVolumeName).c_str(), closeError.AsString().c_str());
    return QI_PUSH(error);
  }
  QI_RETURN_IF_ERROR(closeError, "LocalVolumeName=[%s]", Esc(strLocalVolumeName).c_str());
  return CQiError();
}

CQiError CTraverseScanEngine::TraverseWorkUnit(const CWorkUnitPtr& pWorkUnit,
                                               const COutputHandlerPtr& pHandler) {
  if (pWorkUnit->ContainsVolumeWildcardScanPaths()) {
    QI_RETURN_IF_ERROR(TraverseContent(pWorkUnit, pHandler, pWorkUnit->GetLocalVolumeName(),
                                       pWorkUnit->GetSourceVolumeName()),
                       "Traverse failed, LocalVolumeName=[%s]",
                       Esc(pWorkUnit->GetLocalVolumeName()).c_str());
    return CQiError();
  }
  const std::vector<std::string> lstSurfaces = pWorkUnit->GetSurfaceList();
  const unsigned long long ullSurfaces = lstSurfaces.size();
  ZRLOG(1, "Processing work unit by surface (%llu surfaces)", ullSurfaces);
  const std::string strSourceVolume =
      FXPath::RemoveTrailingDelimiters(pWorkUnit->GetSourceVolumeName());
  const std::string strLocalVolume = FXPath::RemoveTrailingDelimiters(pWorkUnit->GetLocalVolumeName());
  for (size_t i = 0; i < lstSurfaces.size(); ++i) {
    const std::string& strSurface = lstSurfaces[i];
    const std::string strSourceSurface = GetSourceSurfacePath(strSurface, strLocalVolume, strSourceVolume);
    ZRLOG(1, "SourceSurface=[%s], LocalSurface=[%s], (%d of %llu)", Esc(strSourceSurface).c_str(),
          Esc(strSurface).c_str(), static_cast<int>(i + 1), ullSurfaces);
    QI_RETURN_IF_ERROR(TraverseContent(pWorkUnit, pHandler, strSurface, strSourceSurface),
                       "Traverse failed, LocalVolumeName=[%s]",
                       Esc(pWorkUnit->GetLocalVolumeName()).c_str());
  }
  return CQiError();
}

CQiError CTraverseScanEngine::TraverseContent(const CWorkUnitPtr& pWorkUnit,
                                              const COutputHandlerPtr& pHandler,
                                              const std::string& strLocalPath,
                                              const std::string& strSourcePath) {
  CTraverseFolder2 traversal(pWorkUnit, m_pScannerCallback);
  traversal.UseOutputHandler(pHandler);
  traversal.AddFolderToList(strLocalPath, strSourcePath);
  traversal.SetExcludedAttributes(m_uExcludedAttributes);
  traversal.SetAbortCheck(m_pScannerCallback.get());
  ConfigureFromBag(pWorkUnit, traversal);
  if (ZRLOG_ON(6)) {
    auto pWriter = std::make_shared<CMemoryLineWriter>();
    pWorkUnit->GetScanContent()->DumpDiagnosticData(pWriter, "ScanContent ");
    pWorkUnit->GetFilters()->DumpDiagnosticData(pWriter, "Filters ");
    pWorkUnit->GetSystemFilters()->DumpDiagnosticData(pWriter, "SystemFilters ");
    for (const std::string& strLine : pWriter->GetLines()) ZRLOG(6, "%s", Esc(strLine).c_str());
  }
  QI_RETURN_IF_ERROR(traversal.Traverse());
  return CQiError();
}

void CTraverseScanEngine::ConfigureFromBag(CWorkUnitPtr pWorkUnit, CTraverseFolder2& traversal) {
  if (!m_pConfigurationBag) return;
  const CBag& bag = *m_pConfigurationBag;
  std::any anyEvent;
  if (bag.ReadAny(kKeyAbortEvent, anyEvent).IsSuccess()) {
    if (const FXEventPtr* pEvent = std::any_cast<FXEventPtr>(&anyEvent))
      traversal.SetAbortEvent(*pEvent);
  }
  bool bBuiltIn = true;
  if (bag.Read(kKeySystemProtectedFilesFilterBuiltIn, bBuiltIn).IsSuccess())
    traversal.EnableBuiltInSystemProtectedFilesFilter(bBuiltIn);
  int iMaxWorkers = 1;
  if (bag.Read(kKeyMaxWorkers, iMaxWorkers).IsSuccess()) traversal.SetMaxWorkers(iMaxWorkers);
  // The work unit's own value wins.
  if (pWorkUnit && pWorkUnit->GetBag() &&
      pWorkUnit->GetBag()->Read(kKeyMaxWorkers, iMaxWorkers).IsSuccess())
    traversal.SetMaxWorkers(iMaxWorkers);
  unsigned int uEnhanced = 0;
  if (bag.Read(kKeyEnhancedSymbolicLinkIdentification, uEnhanced).IsSuccess())
    traversal.SetEnhancedSymbolicLinkIdentification(uEnhanced);
  bool bFollowDFS = true;
  if (bag.Read(kKeyFollowDFSReparsePoints, bFollowDFS).IsSuccess())
    traversal.SetFollowDFSReparsePoints(bFollowDFS);
  bool bCrossOS = false;
  if (bag.Read(kKeyCrossOSNFSBackup, bCrossOS).IsSuccess()) {
    traversal.SetCrossOSNFSBackup(bCrossOS);
    ZRLOG(1, "CrossOSNFSBackup=[%s]", bCrossOS ? "True" : "False");
  }
}
