// CFastFindFirstDeleteScanEngine: the FindFirst engine with folder-level multithreading whose
// items reach the output handler from all traversal workers at once, without a lock of the
// engine (the output handler guards itself).
//
// Like CFastFindFirstScanEngine it takes a work unit only when the scanner callback's parameter
// "EnableFolderLevelMultithread" is true (else Win32 50 "Folder level multithreading is not
// enabled", touching nothing), and runs as many traversal workers as the work unit's "MaxWorkers"
// says (default 1).
//
// Threads: one scanner thread drives it; ScanQueryCallback is called by all traversal workers.
#pragma once

#include <memory>
#include <string>

#include "Scan/FindFirstScanEngine.h"

class CFastFindFirstDeleteScanEngine : public CFindFirstScanEngine {
 public:
  CFastFindFirstDeleteScanEngine();
  ~CFastFindFirstDeleteScanEngine() override;

  CQiError ProcessWorkUnit(CWorkUnitPtr pWorkUnit) override;
  std::string getDescription() override;
  int GetMaxWorkers(CWorkUnitPtr pWorkUnit) override;
};

using CFastFindFirstDeleteScanEnginePtr = std::shared_ptr<CFastFindFirstDeleteScanEngine>;
