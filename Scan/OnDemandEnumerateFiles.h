// COnDemandEnumerateFiles: the folder traversal of the on-demand engine (COnDemandScanEngine).
//
// It is a CEnumerateFiles with its own filter decision (IsFiltered), asked in this order:
//   - excluded attributes (silently),
//   - the system filters (and the built-in system-protected files when switched on),
//   - the job's filters,
//   - the nested-volume filter: an entry at or below one of the volumes mounted under the path
//     being traversed is left to that volume's own traversal,
//   - the listed-path filter: an entry that the content file lists on a line of its own is left
//     to that line (with everything below it), so that no object is reported twice,
//   - the black-list filter built by the engine for the path.
// Mounts below the path that no traversal is to enter (pseudo file systems, stale mounts) are
// left out before any filter is asked: the listing passes over them (SetIgnoredMountPaths, the
// path enumerator's mount path cache), so they are neither reported nor walked.
// The work unit's scan content is not consulted: the scan paths of an on-demand unit name the
// content files that list the paths, not the paths themselves.
//
// The filter setters below hide the base ones of the same name so that this class keeps its own
// references (the base keeps its sets private); call them on a COnDemandEnumerateFiles.
//
// Threads: setters before Traverse; during it the sets are only read, from every worker.
#pragma once

#include <string>
#include <unordered_set>
#include <vector>

#include "Platform/FilterSet.h"
#include "Scan/EnumerateFiles.h"

class COnDemandEnumerateFiles : public CEnumerateFiles {
 public:
  explicit COnDemandEnumerateFiles(CScanEngine* pEngine, CPathEnumeratorPtr pEnumerator = nullptr);
  ~COnDemandEnumerateFiles() override;

  bool IsFiltered(CItemPtr& pItem, const std::string& strTestString) override;
  bool IsMatchPossibleInFolder(CItemPtr& pItem, const std::string& strFolder) override;

  // The mount points of the volumes nested below the traversed path (local paths).
  void SetOnDemandFilters(const std::vector<std::string>& lstNestedVolumes);
  // Entries matched by the set are left out, with everything below them.
  void SetBlackListFilter(CFilterSetPtr& pBlackListFilter);
  // Entries whose local path is in the set are left out, with everything below them; strRoot,
  // the traversed path, is not. The set is the caller's and must outlive Traverse.
  void SetListedPaths(const std::unordered_set<std::string>* pListed, const std::string& strRoot);
  // Mount points (local paths) that the listing passes over, with everything below them. Set
  // before Traverse. Win32 50 when the path enumerator has no mount path cache.
  CQiError SetIgnoredMountPaths(const std::vector<std::string>& lstMountPoints);

  void SetExcludedAttributes(unsigned int uExcludedAttributes);
  void SetFilters(CFilterSetPtr pFilters);
  void SetSystemFilters(CFilterSetPtr pSystemFilters);
  void EnableBuiltInSystemProtectedFilesFilter(bool bEnable);

 private:
  bool IsInSystemFilters(const CFilterTermTestString& test) const;
  bool IsOnNestedVolume(const std::string& strLocalPath) const;
  bool IsListedElsewhere(const std::string& strLocalPath) const;

  unsigned int m_uOnDemandExcludedAttributes = 0;
  CFilterSetPtr m_pOnDemandFilters;
  CFilterSetPtr m_pOnDemandSystemFilters;
  bool m_bOnDemandBuiltInFilter = false;
  std::vector<std::string> m_lstNestedVolumes;
  CFilterSetPtr m_pBlackListFilter;
  const std::unordered_set<std::string>* m_pListed = nullptr;
  std::string m_strListedRoot;
};

using COnDemandEnumerateFilesPtr = std::shared_ptr<COnDemandEnumerateFiles>;
