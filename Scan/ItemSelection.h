// CItemSelection: which entries of a work unit a traversal reports, and which folders it lists.
// Both traversals ask it about every entry (CEnumerateFiles for the first generation, the
// workers of CTraverseFolder2 for the second), so that the rules live in one place:
//   - the excluded attributes (an item sharing a bit with the mask is left out),
//   - the scan content (what is not part of it is left out; an empty set is "no limit"),
//   - the system filters (and, when switched on, the built-in system-protected-files list),
//   - the job's filters.
// Questions are asked about the output (source) path of each entry, as the work unit's filter
// sets hold source paths. The decisions are logged at level 5 with the folder the entry was met
// in: "Not part of content, Folder=(%s) TestString=(%s)", "Filtered by system filter, ...",
// "Filtered by content filter, ...", "Not filtered, ..."; and for folders "No matching possible
// in content, Folder=%s", "System filter excludes all content, Folder=%s", "Filter excludes all
// content, Folder=%s".
//
// Built-in system-protected files: on this platform the kernel's virtual trees and run-time
// state, which a backup never restores: /proc, /sys, /dev and /run (and everything below them).
// They are normally separate pseudo file systems and left out by the engine's ignore-mount list
// already; the list catches them where they are reached as plain folders (a chroot, a container
// image, a copied root file system).
//
// Speed: a scan without filters asks the content set once per subtree (a folder entirely in
// content vouches for every folder below it; the answer is cached per thread).
//
// Threads: the setters are called before a traversal starts; while it runs the selection is only
// read, from every worker at once.
#pragma once

#include <cstdint>
#include <string>

#include "Platform/FilterSet.h"
#include "Scan/Item.h"

class CItemSelection {
 public:
  CItemSelection();

  // True when the item is to be left out; strTestString is its output (source) path.
  bool IsFiltered(const CItem& item, const std::string& strTestString) const;
  // False when nothing at or below the (filtered) folder can be selected.
  bool IsMatchPossibleInFolder(const std::string& strFolder) const;

  void SetExcludedAttributes(unsigned int uExcludedAttributes) {
    m_uExcludedAttributes = uExcludedAttributes;
  }
  void SetScanContent(CFilterSetPtr pScanContent) { m_pScanContent = std::move(pScanContent); }
  void SetFilters(CFilterSetPtr pFilters) { m_pFilters = std::move(pFilters); }
  void SetSystemFilters(CFilterSetPtr pSystemFilters) { m_pSystemFilters = std::move(pSystemFilters); }
  void EnableBuiltInSystemProtectedFilesFilter(bool bEnable) {
    m_bBuiltInSystemProtectedFilesFilter = bEnable;
  }

  // The built-in system-protected-files list (see the class comment).
  static const CFilterSet& GetBuiltInSystemProtectedFiles();

 private:
  bool IsInSystemFilters(const CFilterTermTestString& test) const;
  static bool MayBeBuiltInSystemPath(const std::string& strPath);
  // Whether the folder holding strPath is entirely in the content set (answer cached per thread).
  bool IsFolderEntirelyInContent(const std::string& strPath) const;

  const uint64_t m_ullSelectionId;  // tells this selection's cached answers from another's
  unsigned int m_uExcludedAttributes = 0;
  CFilterSetPtr m_pScanContent;
  CFilterSetPtr m_pFilters;
  CFilterSetPtr m_pSystemFilters;
  bool m_bBuiltInSystemProtectedFilesFilter = false;
};
