// CFastFindFirstScanEngine: the FindFirst engine with folder-level multithreading.
//
// It takes a work unit only when the scanner callback's parameter "EnableFolderLevelMultithread"
// is true; otherwise it refuses with Win32 50 "Folder level multithreading is not enabled" before
// touching anything (not even the output handler), so that the scanner tries the next engine.
// Its traversal runs on the number of workers named by the work unit's bag key "MaxWorkers"
// (default 1, and 1 when the value cannot be read), and it hands the items of those workers to
// the output handler one at a time, under a lock of its own.
//
// Threads: one scanner thread drives it; ScanQueryCallback is called by all traversal workers.
#pragma once

#include <memory>
#include <string>

#include "Platform/FXCriticalSection.h"
#include "Scan/FindFirstScanEngine.h"
#include "Scan/ScannerCallback.h"

class CFastFindFirstScanEngine : public CFindFirstScanEngine {
 public:
  CFastFindFirstScanEngine();
  ~CFastFindFirstScanEngine() override;

  CQiError ProcessWorkUnit(CWorkUnitPtr pWorkUnit) override;
  std::string getDescription() override;
  CQiError ScanQueryCallback(CItemPtr pItem) override;
  int GetMaxWorkers(CWorkUnitPtr pWorkUnit) override;

  // Shared by the fast variants: the callback's "EnableFolderLevelMultithread" (false when it
  // cannot be read), and the work unit's "MaxWorkers" (1 when it cannot be read or is below 1).
  static bool IsFolderLevelMultithreadEnabled(const CScannerCallbackPtr& pCallback);
  static int ReadMaxWorkers(const CWorkUnitPtr& pWorkUnit);

 private:
  FXCriticalSection m_csDeliver;
};

using CFastFindFirstScanEnginePtr = std::shared_ptr<CFastFindFirstScanEngine>;
