// COnDemandScanEngine: scans the paths that the caller lists in content files instead of whole
// volumes. Each scan path of a work unit names a text file; every line of it is one path.
//
//   - A file (or link, device, ...) is reported as a single item.
//   - A folder is split by the volumes mounted below it; each part is traversed by a
//     COnDemandEnumerateFiles that leaves the nested volumes to their own parts. Mounts below
//     it that get no part (pseudo file systems such as proc or sysfs, stale mounts) are left
//     out of every traversal altogether. With "OnDemand::AutoExpandDirs" false a folder is
//     neither traversed nor reported.
//   - A symbolic link is reported as the link, on the volume of the folder that holds it.
//   - The output handler follows the volumes: it is opened (named by the volume's mount point
//     with a trailing delimiter) for the volume of the first path, and closed and reopened
//     whenever a path lies on another volume; the last one is closed at the end of the unit.
//   - A path that does not exist (or cannot be described) is written to the scan-failure
//     consumer and the next line follows; so is a folder that vanishes (or stops being a
//     folder) before its listing starts. The line "/" and empty lines are never scanned.
//   - Black-list content (SetBlackListScanContent) is left out of every path it applies to:
//     entries at, above or below the path (entries with wildcards always apply).
//   - Every object is reported once per content file, whatever its lines repeat or nest, in
//     whatever order. The file is read whole first; lines are compared in a plain form (repeated
//     and trailing delimiters and "." components removed, which is also the form scanned). A
//     line seen before is skipped. A listed path below a listed folder is left out of that
//     folder's traversal (with everything below it) and scanned by its own line, the path itself
//     reported as the folder's traversal would have (a folder with its top level); so is a
//     volume mounted at or below such a path. Each line is thus scanned alone, even where the
//     folder's traversal could not have reached it (an unreadable folder on the way).
// Content files that cannot be opened, and folders named as content files, are skipped; a
// failed volume lookup, output-handler switch or traversal ends the work unit. Disposition tag
// "OD".
//
// Ownership: as CScanEngine; the traversals are local to each path. Threads: one scanner thread
// drives the engine; traversals run on that thread (one worker), so no lock is taken here.
#pragma once

#include <string>
#include <unordered_set>
#include <vector>

#include "Platform/FilterSet.h"
#include "Scan/ScanEngine.h"

class COnDemandScanEngine : public CScanEngine {
 public:
  static constexpr const char* kEngineTag = "OD";
  // bool callback parameter, default true (also when it cannot be read).
  static constexpr const char* kParamAutoExpandDirs = "OnDemand::AutoExpandDirs";

  COnDemandScanEngine();
  ~COnDemandScanEngine() override;

  CQiError ProcessWorkUnit(CWorkUnitPtr pWorkUnit) override;
  CQiError Process() override;
  CQiError ProcessVolumeWorkUnit(CVolumeWorkUnitPtr pVolumeUnit) override;
  std::string getDescription() override;

  // Scans one existing path: a folder is traversed (leaving out the nested volumes), anything
  // else is reported as one item. A path that vanished is recorded as a scan failure.
  CQiError TraverseScanPath(const std::string& strPath,
                            const std::vector<std::string>& lstNestedVolumes,
                            CWorkUnitPtr pWorkUnit);
  // Writes the error's number under "errorCode" into the item's bag and hands the item to the
  // callback's scan-failure consumer.
  CQiError ReportScanFailure(CItemPtr pItem, const CQiError& error);
  // Builds the black-list filter set of the entries that apply to the scan path.
  CQiError ConfigureBlackListFilter(const std::string& strScanPath, CFilterSetPtr& pFilter);
  void SetBlackListScanContent(const std::vector<std::string>& lstBlackListContent);
  bool IsAutoExpandDir();

 private:
  // The paths of one content file, in their plain form, for the checks that keep each object
  // to one report.
  struct SContentList {
    std::unordered_set<std::string> setListed;       // every listed absolute path but "/"
    std::unordered_set<std::string> setAboveListed;  // the folders above a listed path
    void Add(const std::string& strPath);
    bool IsListed(const std::string& strPath) const { return setListed.count(strPath) != 0; }
    bool HasListedBelow(const std::string& strPath) const { return setAboveListed.count(strPath) != 0; }
    // True when a folder above the path is listed too: its traversal leaves the path to this line.
    bool IsBelowListedFolder(const std::string& strPath) const;
    // True when the path, or a folder between strTop (excluded) and it, is listed.
    bool IsAtOrBelowListed(const std::string& strPath, const std::string& strTop) const;
  };

  // One line of a content file; strOpenVolume is the volume whose output handler is open.
  CQiError ProcessContentPath(const CWorkUnitPtr& pWorkUnit, const std::string& strPath,
                              const SContentList& list, std::string& strOpenVolume);
  // TraverseScanPath that also keeps the listing out of the given mount points and of the
  // other listed paths (pList may be null), and reports the path itself when bReportTop.
  CQiError TraverseScanPath(const std::string& strPath,
                            const std::vector<std::string>& lstNestedVolumes,
                            const std::vector<std::string>& lstIgnoredMounts,
                            const SContentList* pList, bool bReportTop, CWorkUnitPtr pWorkUnit);
  CQiError SwitchOutputHandler(const std::string& strScanPath, const std::string& strVolume,
                               std::string& strOpenVolume);
  // Records a path that cannot be scanned (the item as far as it can be described).
  void ReportPathFailure(const CWorkUnitPtr& pWorkUnit, const std::string& strPath,
                         const CQiError& error);

  std::vector<std::string> m_lstBlackListContent;
};

using COnDemandScanEnginePtr = std::shared_ptr<COnDemandScanEngine>;
