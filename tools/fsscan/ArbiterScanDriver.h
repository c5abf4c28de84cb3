// CArbiterScanDriver: runs fsscan --engines/--traverse/--from-file. The scan goes through the
// library's scan arbiter, the way a backup job runs it:
//   1. a CWorkUnitManager turns the content paths into work units (AddLocalContentItem);
//   2. Run finalizes them once with the filter and exception items and writes "MaxWorkers"=N
//      into every work unit's bag (the fast FindFirst and Traverse engines take their traversal
//      workers from it; the others run one);
//   3. a CScanArbiter runs the given number of CScanner threads; each asks the callback for its
//      engines (CFsscanCallback::GetScanEngineList, new objects per scanner) and offers every
//      work unit to them in list order; the first engine that succeeds wins;
//   4. Run returns when every scanner has ended.
// The bag given at construction is the arbiter's configuration bag (the scanners hand it to
// every engine); it should be the callback's bag too and hold "EnableFolderLevelMultithread"
// =true, or the fast engine refuses every unit. Per-unit results are in the work units'
// dispositions (GetWorkUnitManager()).
//
// Run's result: set-up errors (finalization), or Win32 995 when the scan was aborted (an
// interrupt, or a scanner that met an error that ends the scan: out of memory, too many open
// files, no space left); success otherwise, whatever the units' dispositions.
//
// Threads: the public operations run on the caller's thread; Run blocks until all scanners are
// done. The scanners share the callback and the bag.
#pragma once

#include "ScanDriver.h"

class CArbiterScanDriver : public CScanDriver {
 public:
  // iMaxWorkers traversal workers per work unit, iScanners scanner threads.
  CArbiterScanDriver(int64_t llScanId, CScannerCallbackPtr pCallback, CBagPtr pBag, int iMaxWorkers,
                     int iScanners);

  CQiError Run(const ItemSet& setScanContentExceptions, const ItemSet& setFilters,
               const ItemSet& setFilterExceptions);

 private:
  const int m_iScanners;
};
