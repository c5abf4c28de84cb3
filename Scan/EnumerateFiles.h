// CEnumerateFiles: the folder traversal that scan engines use. It is bound to one engine and
// applies the work unit's selection to every entry it meets:
//   - the excluded attributes (an item sharing a bit with the mask is left out),
//   - the scan content (what is not part of it is left out),
//   - the system filters (and, when switched on, the built-in system-protected-files list),
//   - the job's filters.
// Files and links that pass go to the engine's ScanQueryCallback; a file that does not pass is
// dropped (not reported as filtered). A folder that passes is reported and walked; one that does
// not is walked only when something below it could still be selected (IsMatchPossibleInFolder).
// Paths that cannot be listed or described go to the scan-failure consumer of the engine's
// scanner callback, with the error's number under "errorCode" in the item bag.
//
// Filter questions are asked about the output (source) path of each entry, as the work unit's
// filter sets hold source paths. An empty scan content set is taken as "no content limit".
//
// Built-in system-protected files: on this platform the kernel's virtual trees and run-time
// state, which a backup never restores: /proc, /sys, /dev and /run (and everything below them).
// They are normally separate pseudo file systems and left out by the engine's ignore-mount list
// already; the list catches them where they are reached as plain folders (a chroot, a container
// image, a copied root file system).
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
    m_uExcludedAttributes = uExcludedAttributes;
  }
  // The work unit's bag: items carry it, and its "VolumeName" names the per-thread counters.
  void SetWorkUnitBag(CBagPtr pBag);
  void SetScanContent(CFilterSetPtr pScanContent) { m_pScanContent = std::move(pScanContent); }
  void SetFilters(CFilterSetPtr pFilters) { m_pFilters = std::move(pFilters); }
  void SetSystemFilters(CFilterSetPtr pSystemFilters) { m_pSystemFilters = std::move(pSystemFilters); }
  void EnableBuiltInSystemProtectedFilesFilter(bool bEnable) {
    m_bBuiltInSystemProtectedFilesFilter = bEnable;
  }

  // The built-in system-protected-files list (see the class comment).
  static const CFilterSet& GetBuiltInSystemProtectedFiles();

  // Writes the failure record of a path to a scan-failure consumer: the item of the path as it
  // is now (built with a fresh CBasicPathEnumerator, carrying the bag) with the error's number
  // under "errorCode". Calls are serialised (a CScanFailureConsumer's own mutex, else one lock
  // for all other consumers).
  static CQiError WriteFailureRecord(const CItemConsumerPtr& pConsumer, const CBagPtr& pBag,
                                     const std::string& strLocalPath,
                                     const std::string& strSourcePath, const CQiError& error);

 private:
  bool IsInSystemFilters(const CFilterTermTestString& test) const;
  static bool MayBeBuiltInSystemPath(const std::string& strPath);
  // Whether the folder holding strPath is entirely in the content set (answer cached per thread).
  bool IsFolderEntirelyInContent(const std::string& strPath) const;

  CScanEngine* m_pEngine;
  const uint64_t m_ullTraversalId;  // tells this traversal's cached answers from another's
  unsigned int m_uExcludedAttributes = 0;
  CFilterSetPtr m_pScanContent;
  CFilterSetPtr m_pFilters;
  CFilterSetPtr m_pSystemFilters;
  bool m_bBuiltInSystemProtectedFilesFilter = false;
};

using CEnumerateFilesPtr = std::shared_ptr<CEnumerateFiles>;
