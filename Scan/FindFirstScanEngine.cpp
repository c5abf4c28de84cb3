#include "Scan/FindFirstScanEngine.h"

#include <cerrno>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXFolder.h"
#include "Platform/FXPath.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Platform/MemoryLineWriter.h"
#include "Platform/MountPathInfo.h"
#include "Platform/SkipFS.h"
#include "Platform/ZRDebugFunction.h"
#include "Scan/BasicPathEnumerator.h"
#include "Scan/EnumerateFiles.h"
#include "Scan/PathCacheUnorderedT.h"
#include "Scan/ScannerConfigurationBagId.h"

namespace {
std::string Esc(const std::string& strText) { return FXString::EscapeControl(strText); }


// Writes the three filter sets of a work unit to the log, one line per item.
void DumpFilterSets(const CWorkUnit& workUnit) {
  auto pWriter = std::make_shared<CMemoryLineWriter>();
  workUnit.GetScanContent()->DumpDiagnosticData(pWriter, "ScanContent ");
  workUnit.GetFilters()->DumpDiagnosticData(pWriter, "Filters ");
  workUnit.GetSystemFilters()->DumpDiagnosticData(pWriter, "SystemFilters ");
  for (const std::string& strLine : pWriter->GetLines()) ZRLOG(6, "%s", Esc(strLine).c_str());
}
}  // namespace

// What one work unit's traversals share: the callback's switches and the ignore-mount list.
struct CFindFirstScanEngine::SWorkUnitOptions {
  bool bProcessTopLevelContent = false;
  bool bSkipNonLocalMountDetails = false;
  bool bEnableMultiThread = false;
  bool bStaleFSPresent = false;
  long long llFileOperationOptions = 0;
  CPathCacheUnorderedT<std::string> mountPathCache;
};

CFindFirstScanEngine::CFindFirstScanEngine() = default;

CFindFirstScanEngine::~CFindFirstScanEngine() = default;

std::string CFindFirstScanEngine::getDescription() { return "FindFirst"; }

CQiError CFindFirstScanEngine::GetPathEnumerator(CPathEnumeratorPtr& pEnumerator) {
  pEnumerator.reset();
  return CQiError();
}

int CFindFirstScanEngine::GetMaxWorkers(CWorkUnitPtr /*pWorkUnit*/) { return 1; }

CQiError CFindFirstScanEngine::Process() {
  ZRDEBUG_FUNCTION(1);
  return ProcessVolumesOfMedium();
}

CQiError CFindFirstScanEngine::ProcessVolumeWorkUnit(CVolumeWorkUnitPtr pVolumeUnit) {
  return ProcessWorkUnitsOfVolume(pVolumeUnit, kEngineTag);
}

CQiError CFindFirstScanEngine::ProcessWorkUnit(CWorkUnitPtr pWorkUnit) {
  ZRDEBUG_FUNCTION(2);
  if (!pWorkUnit) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "No work unit");
  const std::string& strLocalVolume = pWorkUnit->GetLocalVolumeName();
  if (ZRLOG_ON(2)) {
    ZRLOG(2, "WorkUnit: SourceVolumeName=%s, LocalVolumeName=%s",
          Esc(pWorkUnit->GetSourceVolumeName()).c_str(), Esc(strLocalVolume).c_str());
    for (const CScanPathPtr& pScanPath : pWorkUnit->GetScanPaths())
      ZRLOG(2, "WorkUnit: SourceScanPath=%s, LocalScanPath=%s",
            Esc(pScanPath->GetSourceScanPath()).c_str(), Esc(pScanPath->GetLocalScanPath()).c_str());
  }

  QI_RETURN_IF_ERROR(OpenOutputHandler(pWorkUnit->GetSourceVolumeName()));
  // From here on every early exit closes the handler.
  struct SCloseGuard {
    CFindFirstScanEngine* pEngine;
    const std::string& strVolume;
    bool bArmed = true;
    ~SCloseGuard() {
      if (!bArmed || !pEngine->GetOutputHandler()) return;
      CQiError error = pEngine->CloseOutputHandler();
      if (error.IsError())
        ZRLOG(-1, "CloseOutputHandler failed, LocalVolumeName=[%s], error=%s",
              Esc(strVolume).c_str(), error.AsString().c_str());
    }
  } guard{this, strLocalVolume};

  SWorkUnitOptions options;
  QI_RETURN_IF_ERROR(PrepareOptions(options));
  if (!pWorkUnit->ContainsVolumeWildcardScanPaths()) {
    QI_RETURN_IF_ERROR(ProcessSurfaces(pWorkUnit, options));
  } else {
    bool bMissing = false;
    CQiError error = TraverseContent(pWorkUnit, options, strLocalVolume,
                                     pWorkUnit->GetSourceVolumeName(), false, bMissing);
    if (error.IsError())
      return QI_PUSH(error, "Traverse failed, LocalVolumeName=[%s]", Esc(strLocalVolume).c_str());
  }

  guard.bArmed = false;
  // A handler that the callback left unconfigured is not open, so there is nothing to close.
  if (GetOutputHandler()) {
    QI_RETURN_IF_ERROR(CloseOutputHandler(), "LocalVolumeName=[%s]", Esc(strLocalVolume).c_str());
  }
  return CQiError();
}

CQiError CFindFirstScanEngine::PrepareOptions(SWorkUnitOptions& options) {
  if (m_pScannerCallback) {
    (void)m_pScannerCallback->GetParameter(SXScannerConfigurationBagId::idProcessTopLevelContent,
                                           options.bProcessTopLevelContent);
    (void)m_pScannerCallback->GetParameter(kParamSkipNonLocalMountDetails,
                                           options.bSkipNonLocalMountDetails);
    (void)m_pScannerCallback->GetParameter(kParamEnableMultiThread, options.bEnableMultiThread);
  }
  options.bStaleFSPresent = MountPathInfo::IsStaleFSPresent();
  if (options.bSkipNonLocalMountDetails || options.bStaleFSPresent) {
    options.llFileOperationOptions |= kOptionMountPathCheck;
    std::vector<SLogicalVolume> lstVolumes;
    QI_RETURN_IF_ERROR(FXFolder::getLogicalVolumeList(lstVolumes), "getLogicalVolumeList failed");
    // Pseudo file systems are matched by whole type name: a substring search of the ignore
    // list would also leave out "tmpfs" (it occurs in "devtmpfs") and "fuse" (in "fusectl").
    for (const SLogicalVolume& volume : lstVolumes) {
      if (MountPathInfo::CheckInStaleFSList(volume.m_strMountPoint) ||
          skipFS::IsIgnoredFSType(volume.m_strFSType))
        options.mountPathCache.Insert(volume.m_strMountPoint, volume.m_strFSType);
    }
  }
  if (options.bEnableMultiThread) options.llFileOperationOptions |= FXFile::kFindOptionMultiThread;
  return CQiError();
}

CQiError CFindFirstScanEngine::ProcessSurfaces(const CWorkUnitPtr& pWorkUnit,
                                               const SWorkUnitOptions& options) {
  const std::vector<std::string> lstSurfaces = pWorkUnit->GetSurfaceList();
  const unsigned long long ullSurfaces = lstSurfaces.size();
  ZRLOG(1, "Processing work unit by surface (%llu surfaces)", ullSurfaces);
  const std::string strSourceVolume =
      FXPath::RemoveTrailingDelimiters(pWorkUnit->GetSourceVolumeName());
  const std::string strLocalVolume = FXPath::RemoveTrailingDelimiters(pWorkUnit->GetLocalVolumeName());
  unsigned long long ullSucceeded = 0;
  for (size_t i = 0; i < lstSurfaces.size(); ++i) {
    const std::string& strSurface = lstSurfaces[i];
    const std::string strSourceSurface = GetSourceSurfacePath(strSurface, strLocalVolume, strSourceVolume);
    if (ZRLOG_ON(2)) {
      ZRLOG(2, "LocalSurfacePath=[%s], sourceVolumeName=[%s], localVolumeName=[%s]",
            Esc(strSurface).c_str(), Esc(strSourceVolume).c_str(), Esc(strLocalVolume).c_str());
      ZRLOG(2, "Surface=%s(%s) (%d of %llu)", Esc(strSurface).c_str(), Esc(strSourceSurface).c_str(),
            static_cast<int>(i + 1), ullSurfaces);
    }
    bool bMissing = false;
    CQiError error =
        TraverseContent(pWorkUnit, options, strSurface, strSourceSurface, true, bMissing);
    if (error.IsError()) {
      if (!error.IsWin32(QiErrorCode::OperationAborted))
        ZRLOG(-1, "Traverse() return %s", error.AsString().c_str());
      if (error.IsErrNo(EACCES)) {
        ZRLOG(1, "Process next surface");
        continue;
      }
      return QI_PUSH(error, "Traverse failed, LocalVolumeName=[%s]",
                     Esc(pWorkUnit->GetLocalVolumeName()).c_str());
    }
    if (!bMissing) ++ullSucceeded;
  }
  if (!lstSurfaces.empty() && ullSucceeded == 0)
    return QI_ERROR_WIN32(QiErrorCode::NoContent, "No content available for scanning");
  return CQiError();
}

CQiError CFindFirstScanEngine::TraverseContent(const CWorkUnitPtr& pWorkUnit,
                                               const SWorkUnitOptions& options,
                                               const std::string& strLocalPath,
                                               const std::string& strSourcePath, bool bSurface,
                                               bool& bMissing) {
  bMissing = false;
  CPathEnumeratorPtr pEnumerator;
  QI_RETURN_IF_ERROR(GetPathEnumerator(pEnumerator));
  CEnumerateFiles traversal(this, pEnumerator);
  pEnumerator = traversal.GetPathEnumerator();

  CItemPtr pRoot;
  CQiError error = pEnumerator->GetItemByPath(pWorkUnit->GetBag(), strLocalPath, strSourcePath, pRoot);
  if (error.IsError() || !pRoot) {
    if (error.IsSuccess()) error = QI_ERROR_WIN32(QiErrorCode::InvalidHandle, "No content item");
    if (bSurface) {
      ZRLOG(-1, "Content path [%s] not found, error=%s", Esc(strLocalPath).c_str(),
            error.AsString().c_str());
    } else {
      ZRLOG(-1, "Content path not found, error=%s", error.AsString().c_str());
    }
    QI_RETURN_IF_ERROR(ReportMissingContent(pWorkUnit, strLocalPath, strSourcePath, error));
    if (bSurface) {
      bMissing = true;
      return CQiError();
    }
    return QI_PUSH(error, "Traverse failed for [%s]", Esc(strLocalPath).c_str());
  }

  if (options.bSkipNonLocalMountDetails || options.bEnableMultiThread || options.bStaleFSPresent) {
    if (auto* pBasic = dynamic_cast<CBasicPathEnumerator*>(pEnumerator.get())) {
      pBasic->SetMountPathCache(options.mountPathCache);
      pBasic->SetFileOperationOptions(options.llFileOperationOptions);
    }
  }
  traversal.SetMaxWorkers(GetMaxWorkers(pWorkUnit));
  if (bSurface) {
    ZRLOG(1, "Will scan local folder [%s] for source path [%s]", Esc(strLocalPath).c_str(),
          Esc(strSourcePath).c_str());
  } else if (ZRLOG_ON(2)) {
    ZRLOG(2, "Will scan local folder [%s] for source path [%s]", Esc(strLocalPath).c_str(),
          Esc(strSourcePath).c_str());
  }
  // The root's item is queued with it, so it is not described a second time.
  traversal.AddFolderToList(pRoot, strLocalPath, strSourcePath);
  traversal.SetExcludedAttributes(m_uExcludedAttributes);
  traversal.SetWorkUnitBag(pWorkUnit->GetBag());
  traversal.SetScanContent(pWorkUnit->GetScanContent());
  traversal.SetFilters(pWorkUnit->GetFilters());
  traversal.SetSystemFilters(pWorkUnit->GetSystemFilters());
  traversal.SetAbortCheck(m_pScannerCallback.get());
  bool bBuiltInFilter = false;
  if (pWorkUnit->GetBag())
    (void)pWorkUnit->GetBag()->Read(kKeySystemProtectedFilesFilterBuiltIn, bBuiltInFilter);
  traversal.EnableBuiltInSystemProtectedFilesFilter(bBuiltInFilter);
  if (ZRLOG_ON(6)) DumpFilterSets(*pWorkUnit);
  if (options.bProcessTopLevelContent) {
    if (bSurface) ZRLOG(0, "ProcessTopLevelContent (%s)", Esc(strLocalPath).c_str());
    traversal.SetProcessTopLevelContentItem(true);
  }
  QI_RETURN_IF_ERROR(traversal.Traverse());
  return CQiError();
}

CQiError CFindFirstScanEngine::ReportMissingContent(const CWorkUnitPtr& pWorkUnit,
                                                    const std::string& strLocalPath,
                                                    const std::string& strSourcePath,
                                                    const CQiError& error) {
  CItemConsumerPtr pConsumer;
  if (!m_pScannerCallback || m_pScannerCallback->GetScanFailureConsumer(pConsumer).IsError() ||
      !pConsumer)
    return QI_ERROR_WIN32(QiErrorCode::FunctionFailed, "Failed to report scan failures");
  QI_RETURN_IF_ERROR(CEnumerateFiles::WriteFailureRecord(pConsumer, pWorkUnit->GetBag(),
                                                         strLocalPath, strSourcePath, error));
  return CQiError();
}
