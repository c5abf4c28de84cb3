// CEnumerateFiles: the folder traversal that scan engines use. It is bound to one engine and
// applies the work unit's selection (CItemSelection: excluded attributes, scan content, system
// filters with the optional built-in list, filters) to every entry it meets.
// Files and links that pass go to the engine's ScanQueryCallback; a file that does not pass is
// dropped (not reported as filtered). A folder that passes is reported and walked; one that does
// not is walked only when something below it could still be selected (IsMatchPossibleInFolder).
// Paths that cannot be listed or described go to the scan-failure consumer of the engine's
// scanner callback, with the error's number under "errorCode" in the item bag.
//
// Threads: the setters are called before Traverse; while it runs the filter sets are only read,
// from every worker at once. Failure records are written one at a time (WriteFailureRecord). The engine must outlive the
// traversal (plain pointer, not owned).
#pragma once

#include <memory>
#include <string>

#include "Platform/Bag.h"
#include "Platform/FilterSet.h"
#include "Scan/ItemConsumer.h"
#include "Scan/ItemSelection.h"
#include "Scan/ScanTraverseFolder.h"

class CScanEngine;

class CEnumerateFiles : public CScanTraverseFolder {
 public:
  // A null enumerator keeps the default CBasicPathEnumerator.
  explicit CEnumerateFiles(CScanEngine* pEngine, CPathEnumeratorPtr pEnumerator = nullptr);
  ~CEnumerateFiles() override;

  CQiError OnFolder(const std::string& strInput, const std::string& strOutput,
                    CItemPtr& pItem) override;
  CQiError OnFile(const std::string& strInput, const std::string& strOutput,
                  CItemPtr& pItem) override;
  CQiError OnReparsePointFile(const std::string& strInput, const std::string& strOutput,
                              CItemPtr& pItem) override;
  CQiError OnFailedContent(const std::string& strInput, const std::string& strOutput, bool bIsFile,
                           const CQiError& error) override;
  CQiError OnInitializeWorker() override;

  // True when the item is to be left out; strTestString is its output (source) path.
  virtual bool IsFiltered(CItemPtr& pItem, const std::string& strTestString);
  // False when nothing at or below the (filtered) folder can be selected.
  virtual bool IsMatchPossibleInFolder(CItemPtr& pItem, const std::string& strFolder);

  void SetExcludedAttributes(unsigned int uExcludedAttributes) {
    m_selection.SetExcludedAttributes(uExcludedAttributes);
  }
  // The work unit's bag: items carry it, and its "VolumeName" names the per-thread counters.
  void SetWorkUnitBag(CBagPtr pBag);
  void SetScanContent(CFilterSetPtr pScanContent) { m_selection.SetScanContent(std::move(pScanContent)); }
  void SetFilters(CFilterSetPtr pFilters) { m_selection.SetFilters(std::move(pFilters)); }
  void SetSystemFilters(CFilterSetPtr pSystemFilters) {
    m_selection.SetSystemFilters(std::move(pSystemFilters));
  }
  void EnableBuiltInSystemProtectedFilesFilter(bool bEnable) {
    m_selection.EnableBuiltInSystemProtectedFilesFilter(bEnable);
  }

  // The built-in system-protected-files list (see CItemSelection).
  static const CFilterSet& GetBuiltInSystemProtectedFiles() {
    return CItemSelection::GetBuiltInSystemProtectedFiles();
  }

  // Writes the failure record of a path to a scan-failure consumer: the item of the path as it
  // is now (built with a fresh CBasicPathEnumerator, carrying the bag) with the error's number
  // under "errorCode". Calls are serialised (a CScanFailureConsumer's own mutex, else one lock
  // for all other consumers).
  static CQiError WriteFailureRecord(const CItemConsumerPtr& pConsumer, const CBagPtr& pBag,
                                     const std::string& strLocalPath,
                                     const std::string& strSourcePath, const CQiError& error);

 private:
  CScanEngine* m_pEngine;
  CItemSelection m_selection;
};

using CEnumerateFilesPtr = std::shared_ptr<CEnumerateFiles>;
