// CFindFirstScanEngine: the general-purpose engine of a local POSIX file system.
//
// For each work unit it opens the volume's output handler, prepares a CEnumerateFiles traversal
// with the unit's content, filter and system-filter sets, and walks the unit's content either
// surface by surface (GetSurfaceList) or, for volume-wildcard content, as one traversal of the
// volume. Its disposition tag is "FF". GetPathEnumerator gives the enumerator the traversal uses
// (none in this class: the traversal's default CBasicPathEnumerator); GetMaxWorkers the number of
// traversal workers (1 here). CFastFindFirstScanEngine and CFastFindFirstDeleteScanEngine derive
// from it.
//
// Missing content: a content root that cannot be described is written to the scan-failure
// consumer before the work unit fails (whole volume) or the next surface is taken (surfaces).
// A surface whose traversal fails for lack of permission (errno 13) is skipped; when no surface
// succeeds the work unit fails with Win32 232 "No content available for scanning".
//
// Ignore-mount list: with "RegKey:SkipNonLocalMountDetails" or a stale file system present, the
// mounts that are stale or whose type is a pseudo file system (skipFS::IsIgnoredFSType, a
// whole-name comparison) are put in the enumerator's mount path cache and left out of listings.
//
// One scanner thread drives the engine; the traversal's workers call ScanQueryCallback at once.
#pragma once

#include <string>

#include "Scan/PathEnumerator.h"
#include "Scan/ScanEngine.h"

class CFindFirstScanEngine : public CScanEngine {
 public:
  // The disposition tag written into the work units this engine processes.
  static constexpr const char* kEngineTag = "FF";

  CFindFirstScanEngine();
  ~CFindFirstScanEngine() override;

  CQiError ProcessWorkUnit(CWorkUnitPtr pWorkUnit) override;
  CQiError Process() override;
  std::string getDescription() override;
  CQiError ProcessVolumeWorkUnit(CVolumeWorkUnitPtr pVolumeUnit) override;

  virtual CQiError GetPathEnumerator(CPathEnumeratorPtr& pEnumerator);
  virtual int GetMaxWorkers(CWorkUnitPtr pWorkUnit);

  // Configuration read by the FindFirst engines (callback parameters unless said).
  // bool: the fast variants accept work only when it is true.
  static constexpr const char* kParamEnableFolderLevelMultithread = "EnableFolderLevelMultithread";
  // bool: build the ignore-mount list even when no stale file system is present.
  static constexpr const char* kParamSkipNonLocalMountDetails = "RegKey:SkipNonLocalMountDetails";
  // bool: adds option bit 1 (FXFile::kFindOptionMultiThread) and hands the enumerator the
  // ignore-mount list and options even without stale mounts. The listing ignores the bit: it
  // reads each status relative to its own open folder whatever the threads.
  static constexpr const char* kParamEnableMultiThread = "EnableMultiThread";
  // bool, work-unit bag: the traversal's built-in system-protected-files filter.
  static constexpr const char* kKeySystemProtectedFilesFilterBuiltIn =
      "SystemProtectedFilesFilter:BuiltIn";

  // The file operation option bit the engine gives its path enumerator: check the mount path
  // cache.
  static constexpr long long kOptionMountPathCheck = 0x1;

 private:
  struct SWorkUnitOptions;

  CQiError PrepareOptions(SWorkUnitOptions& options);
  // Walks one content root (a surface or the whole volume) with a fresh traversal. A surface
  // that cannot be described is recorded and skipped (bMissing); a missing volume fails.
  CQiError TraverseContent(const CWorkUnitPtr& pWorkUnit, const SWorkUnitOptions& options,
                           const std::string& strLocalPath, const std::string& strSourcePath,
                           bool bSurface, bool& bMissing);
  // Records a content root that cannot be described with the scan-failure consumer.
  CQiError ReportMissingContent(const CWorkUnitPtr& pWorkUnit, const std::string& strLocalPath,
                                const std::string& strSourcePath, const CQiError& error);
  CQiError ProcessSurfaces(const CWorkUnitPtr& pWorkUnit, const SWorkUnitOptions& options);
};

using CFindFirstScanEnginePtr = std::shared_ptr<CFindFirstScanEngine>;
