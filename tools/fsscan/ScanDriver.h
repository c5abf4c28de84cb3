// CScanDriver: what fsscan's scan drivers (CFastScanDriver, CArbiterScanDriver) share: the work
// unit manager that turns the content paths into work units, and the finalization that gives
// every unit the filters and exceptions and writes the traversal worker count ("MaxWorkers")
// into its bag.
//
// Threads: the caller's thread only.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include "Platform/Bag.h"
#include "Platform/StringCompare.h"
#include "Scan/ScannerCallback.h"
#include "Scan/Unix/WorkUnitManager.h"

class CScanDriver {
 public:
  using ItemSet = std::set<std::string, __less_fscase_cmp>;

  // The bag is the scan's configuration bag (the manager's, and the engines' or the arbiter's).
  CScanDriver(int64_t llScanId, CScannerCallbackPtr pCallback, CBagPtr pBag, int iMaxWorkers);
  virtual ~CScanDriver();
  CScanDriver(const CScanDriver&) = delete;
  CScanDriver& operator=(const CScanDriver&) = delete;

  CQiError AddLocalContentItem(const std::string& strPath);
  // Hadoop content: the path of the Hadoop file system, assigned with "isHadoopScan" set.
  CQiError AddHadoopContentItem(const std::string& strPath);
  const CWorkUnitManagerPtr& GetWorkUnitManager() const { return m_pWorkUnitManager; }

 protected:
  // Finalizes the work units once and writes "MaxWorkers" into each unit's bag.
  CQiError FinalizeWorkUnits(const ItemSet& setScanContentExceptions, const ItemSet& setFilters,
                             const ItemSet& setFilterExceptions);

  const int64_t m_llScanId;
  const CScannerCallbackPtr m_pCallback;
  const CBagPtr m_pBag;
  const int m_iMaxWorkers;
  const CWorkUnitManagerPtr m_pWorkUnitManager;
};
