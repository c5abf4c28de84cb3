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
};

using CFindFirstScanEnginePtr = std::shared_ptr<CFindFirstScanEngine>;
