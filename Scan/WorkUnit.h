// CWorkUnit: the piece of a scan that one scan engine processes: the content of one volume.
//
// A work unit holds
//   - where its content lies: the physical-media id, the local volume name (the mount point
//     through which this machine reads it), the volume's unique id and the source volume name
//     (the volume as the protected host names it);
//   - its scan paths (CScanPath), in the order the content was added;
//   - three filter sets: the scan content (the source scan paths as includes, and the scan
//     content exceptions), the filters and the system filters of the job;
//   - its own bag of per-unit settings ("VolumeName", cataloguing switches);
//   - after processing, its disposition: the engine that processed it and that engine's status.
//
// Filter strings are added to a unit only when they can touch its paths (see
// AddFilterItem), so that each unit carries the filters of its own content even when a job
// gives many filters for many volumes. Filter strings follow the syntax of docs/filters.md.
//
// Lifecycle: the work unit manager (Scan/Unix/WorkUnitManager.h) creates and fills the unit on
// the caller's thread while content is added, finalization gives it its filters once, then one
// engine thread at a time processes it and sets its disposition. After finalization the filter
// sets are only read, by any number of traversal threads at once; nothing here takes a lock.
//
// Ownership: the manager's maps own units through CWorkUnitPtr; volume work units share them.
// The unit owns its scan paths, filter sets and bag (shared so that items can keep the bag).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Platform/Bag.h"
#include "Platform/FVBase.h"
#include "Platform/FilterNodeState.h"
#include "Platform/FilterSet.h"
#include "Platform/FilterTermOptions.h"
#include "Platform/LineWriter.h"
#include "Platform/QiError.h"
#include "Platform/ZRDebugFunction.h"
#include "Scan/ScanPath.h"

class CWorkUnit {
 public:
  CWorkUnit();
  // Virtual so that a CRawDeviceWorkUnit held through a CWorkUnit pointer is destroyed whole.
  virtual ~CWorkUnit();
  CWorkUnit(const CWorkUnit&) = delete;
  CWorkUnit& operator=(const CWorkUnit&) = delete;

  void SetPhysicalMediaId(const std::string& strId) { m_strPhysicalMediaId = strId; }
  void SetLocalVolumeName(const std::string& strName) { m_strLocalVolumeName = strName; }
  void SetLocalVolumeUniqueId(const std::string& strId) { m_strLocalVolumeUniqueId = strId; }
  void SetSourceVolumeName(const std::string& strName) { m_strSourceVolumeName = strName; }
  const std::string& GetPhysicalMediaId() const { return m_strPhysicalMediaId; }
  const std::string& GetLocalVolumeName() const { return m_strLocalVolumeName; }
  const std::string& GetLocalVolumeUniqueId() const { return m_strLocalVolumeUniqueId; }
  const std::string& GetSourceVolumeName() const { return m_strSourceVolumeName; }
  const std::string& GetProcessor() const { return m_strProcessor; }

  // Marks the unit as holding a wildcard scan path that starts at the top of the volume (its
  // filter prefix is empty): filter strings then concern the unit by its source volume name.
  void SetContainsVolumeWildcardScanPaths() { m_bContainsVolumeWildcardScanPaths = true; }
  bool ContainsVolumeWildcardScanPaths() const { return m_bContainsVolumeWildcardScanPaths; }

  // Appends a scan path (an empty pointer is ignored).
  virtual void AddScanPath(const CScanPathPtr& pScanPath);
  const std::vector<CScanPathPtr>& GetScanPaths() const { return m_lstScanPaths; }
  // The local scan paths, minus every path that lies below (or repeats) an earlier or later
  // one, in the order added: the surfaces an engine walks.
  std::vector<std::string> GetSurfaceList() const;

  const CFilterSetPtr& GetScanContent() const { return m_pScanContent; }
  const CFilterSetPtr& GetFilters() const { return m_pFilters; }
  const CFilterSetPtr& GetSystemFilters() const { return m_pSystemFilters; }
  const CBagPtr& GetBag() const { return m_pBag; }

  // Adds a content path (source form) to the scan content as an include item. The item is
  // recorded under the source volume name when the unit's bag asks for index-log cataloguing
  // ("UseIdxLogWriterBasedCataloging") or a file-server scan ("SC:FileServerScan"), else under
  // the local volume name.
  CQiError AddScanContentItem(const std::string& strPath);
  CQiError AddScanContentItem(const std::string& strPath, const FVBasePtr& pContext);

  // Filter strings: each is added only when it concerns this unit (see the .cpp). Failures of
  // the filter set (malformed patterns) are returned.
  CQiError AddScanContentExceptionItem(const std::string& strItem);
  CQiError AddFilterItem(const std::string& strItem);
  CQiError AddFilterExceptionItem(const std::string& strItem);
  CQiError AddSystemFilterItem(const std::string& strItem);
  CQiError AddSystemFilterExceptionItem(const std::string& strItem);

  // Records the engine that processed the unit and its status; a later call replaces it.
  void SetDisposition(const std::string& strProcessor, uint32_t uStatus);
  uint32_t GetFinalStatus() const { return m_uFinalStatus; }
  // True when an engine processed the unit with status 0.
  bool IsSuccessfullyProcessed() const;
  // "NotProcessed", "Processed(<engine>)" or "Failed(<engine>=<status>)".
  std::string DispositionAsString() const;
  std::string AsString() const;

  // Filter queries (paths in source form, as the scan content holds them).
  // True when the file is outside the scan content, or the filters or system filters hold it.
  bool IsFileFilteredOut(const std::string& strFile) const;
  // True when something at or below the folder may be in the scan content and neither the
  // filters nor the system filters take the whole folder out.
  bool IsMatchPossibleInFolder(const std::string& strFolder) const;
  // The same question about the second (source) path of a local/source pair.
  bool IsMatchPossibleInFolder(const std::string& strLocalFolder,
                               const std::string& strSourceFolder) const;
  // True when the filters or the system filters take the whole folder out.
  bool IsAlwaysFiltered(const std::string& strFolder) const;

  // Case-insensitive wildcard matching in all three filter sets.
  void SetUseInsensitiveFilterForWildCard(bool bInsensitive);
  bool IsUseInsensitiveFilterForWildCardSet() const;

  // Writes the unit, its scan paths and its filter sets, every line starting with the prefix.
  CQiError DumpDiagnosticData(const CLineWriterPtr& pWriter, const std::string& strPrefix) const;

 protected:
  // True when a path (a filter string or a pattern's prefix) can touch this unit's content.
  bool Concerns(const std::string& strPath) const;

 private:
  CQiError AddFilterString(const std::string& strItem, const CFilterSetPtr& pSet,
                           BFilterNodeState eState, BFilterTermOptions eOptions);

  std::unique_ptr<ZRDebugFunction> m_pObjectTrace;
  std::string m_strPhysicalMediaId;
  std::string m_strLocalVolumeName;
  std::string m_strLocalVolumeUniqueId;
  std::string m_strSourceVolumeName;
  bool m_bContainsVolumeWildcardScanPaths = false;
  std::vector<CScanPathPtr> m_lstScanPaths;
  CFilterSetPtr m_pScanContent;
  CFilterSetPtr m_pFilters;
  CFilterSetPtr m_pSystemFilters;
  std::string m_strProcessor;
  uint32_t m_uFinalStatus = 0;
  CBagPtr m_pBag;
};

using CWorkUnitPtr = std::shared_ptr<CWorkUnit>;
