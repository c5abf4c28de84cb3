// CFastScanDriver: runs fsscan --workers N (N > 1). The scanner facade always runs the plain
// FindFirst engine with one traversal worker per medium, so for N workers fsscan drives the
// engines itself, the way the facade does but with the fast engine:
//   1. a CWorkUnitManager turns the content paths into work units (AddLocalContentItem);
//   2. Run finalizes them once with the filter and exception items, writes "MaxWorkers"=N into
//      every work unit's bag, and starts one thread per physical-media work unit;
//   3. each thread runs a CFastFindFirstScanEngine over its medium (the callback's bag must hold
//      "EnableFolderLevelMultithread"=true, or the engine refuses every unit); an abort ends a
//      medium quietly, any other engine failure is kept for the caller (GetMediumErrors);
//   4. Run returns when every medium is done.
// Per-unit results are in the work units' dispositions (GetWorkUnitManager()).
//
// Threads: the public operations run on the caller's thread; Run blocks until all media are
// done. The media threads share the callback and the bag.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ScanDriver.h"

class CFastScanDriver : public CScanDriver {
 public:
  CFastScanDriver(int64_t llScanId, const std::string& strInstance, CScannerCallbackPtr pCallback,
                  CBagPtr pBag, int iMaxWorkers);

  CQiError Run(const ItemSet& setScanContentExceptions, const ItemSet& setFilters,
               const ItemSet& setFilterExceptions);

  // One line per medium whose engine failed otherwise than by an abort.
  const std::vector<std::string>& GetMediumErrors() const { return m_lstMediumErrors; }

 private:
  CQiError RunMedium(const CPhysicalMediaWorkUnitPtr& pMediaUnit);

  std::string m_strInstance;
  std::vector<std::string> m_lstMediumErrors;
};
