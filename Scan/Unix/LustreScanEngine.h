// CLustreScanEngine: the scan of a Lustre volume by its MDT changelogs.
//
// A full job walks the content into a scan database keyed by FID (CLustreRecursiveEnumerateFiles)
// and reports everything; an incremental job applies the changelog records written since the
// last backup to a copy of the last backup's database (CLustreChangelogApplier; the records of
// all MDTs merged in time order by CLustreChangelogMerger, fetched in batches of
// "LustreChangelogBatchSize") and reports what differs between the two databases
// (CLustreScanDBPathEnumerator): new and changed entries to the output handler, vanished ones to
// OnDeletedItem. Files in the job results folder ("JR:subclient"), named from the prefix
// "<JR>/<file system name>": the reader and statistics files (CLustreReaderFile), the hard-link
// table "%s_HardlinkFID" (CLustreHardlinkManager), the three databases "%s_FullBackupDatabase",
// "%s_CurrentBackupDatabase", "%s_TemporaryBackupDatabase" (CScanDbFiles), the scan information
// "%s_ScanInfo.zrf" ("ScanType\tFULL\n" or "ScanType\tINCR\n", then "Folder\t" and the database
// folder in use), the pending post-operations "%s_PostOp.zrf", "ZrPostOpState.zrf",
// "scan_Failures_Last.zrf", "LustreRenameFileList.zrf" (the renames an incremental applied, a
// line "Old:<path>\tNew:<path>\tFID:<fid>" each; emptied at the start of every job) and the
// folder "Changelogs_Temporary".
//
// Exactness between jobs:
//   - the changelog index up to which a database is complete is kept in the database itself
//     (meta "LustreChangelogIndex:<MDT>"), written in the same transaction as the records it
//     covers: the full walk's bulk, and each transaction of the merged changelogs (which holds
//     every MDT's index). A job killed anywhere leaves the last successful backup's database
//     untouched (the running job works on the temporary copy), and the next job starts again
//     from the indexes that database holds: no record is skipped or applied twice;
//   - the incremental starts from that index; a reader the MDT no longer has, a reader whose
//     first available record lies beyond it (records purged; checked again after applying), a changed MDT set, a missing
//     database, statistics or post-operation state, a post-operation state of another job, a
//     true-up job, a garbled changelog line or a record the database cannot take each turn the
//     job into a full scan, with the reason logged at level -1. Only an abort (995), a lack of
//     memory, descriptors or space (errno 12, 24, 28) or a failure while items are being
//     delivered end the job instead.
//   - after a successful job the agent calls RunPostOperations: the temporary database becomes
//     the current one (and after a full job also the full one), the statistics rotate (_Tmp ->
//     _Current, and after a full job _Tmp -> _Tot too), the MDTs may purge the records up to the
//     new start (lfs changelog_clear), and "ZrPostOpState.zrf" gets the job id.
//
// Job parameters read from the callback: "JO:BackupType" ("FULL", anything else is
// incremental), "JR:subclient", "ReferenceTime", "SC:TrueUpQualified",
// "JO:ProcessTopLevelContent", "JO:LastSuccessfulJobId", "MaxWorkers" (the full walk).
// Settings ("FileSystemAgent"): "sLustreUser", "LustreChangelogBatchSize".
//
// A volume that is not Lustre is refused with Win32 50 (the next engine scans it). Lustre
// operations go through LustreAPI::Current() (a seam tests replace with CSimulatedLustreAPI).
//
// Ownership: as CScanEngine. Threads: one scanner thread drives an engine; the full walk runs
// on the traversal's workers, the incremental enumeration on one. Disposition tag "LUSTRE".
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Scan/ScanDB/ScanDbStore.h"
#include "Scan/ScanEngine.h"
#include "Scan/Unix/LustreAPI.h"
#include "Scan/Unix/LustreHardlinkManager.h"

class CLustreScanEngine : public CScanEngine {
 public:
  static constexpr const char* kEngineTag = "LUSTRE";
  static constexpr int32_t kDefaultBatchSize = 100000;
  static constexpr uint32_t kScanDbCacheMiB = 256;  // page cache of the job's scan database
  static constexpr const char* kParamBackupType = "JO:BackupType";
  static constexpr const char* kParamLastSuccessfulJobId = "JO:LastSuccessfulJobId";
  static constexpr const char* kIndexKeyPrefix = "LustreChangelogIndex:";
  static constexpr const char* kPostOpStateFile = "ZrPostOpState.zrf";
  static constexpr const char* kScanFailuresFile = "scan_Failures_Last.zrf";
  static constexpr const char* kRenameListFile = "LustreRenameFileList.zrf";
  static constexpr const char* kChangelogFolder = "Changelogs_Temporary";
  static constexpr const char* kFullSleepHook = "/tmp/lustre_full.sleep";
  static constexpr const char* kApplySleepHook = "/tmp/lustre_apply_changelog.sleep";
  static constexpr const char* kFailuresSleepHook = "/tmp/process_scanfailures.sleep";
  static constexpr const char* kKeepChangelogsMarker = "/tmp/keep_lustre_changelogs";

  CLustreScanEngine();
  ~CLustreScanEngine() override;

  CQiError ProcessWorkUnit(CWorkUnitPtr pWorkUnit) override;
  CQiError Process() override;
  CQiError ProcessVolumeWorkUnit(CVolumeWorkUnitPtr pVolumeUnit) override;
  std::string getDescription() override;

  int64_t GetBatchSize() const { return m_llBatchSize; }
  // The post-operations of a successful job (see the class comment) for every Lustre volume
  // the job scanned, then the job id into "ZrPostOpState.zrf".
  static CQiError RunPostOperations(const std::string& strJobResults, unsigned long long ullJobId);

 private:
  CQiError initialize();
  CQiError ProcessWorkUnitInner(const CWorkUnitPtr& pWorkUnit);
  // False (with the reason logged) when the job must be a full one.
  bool CheckPostOpStateFile();
  CQiError CheckMDTConfigurationWithChangelogReaders(bool& bRegistered);
  CQiError CreateIfPossibleChangelogReaders();
  CQiError DeRegisterReaders(const std::vector<sLustreChangelogInfo>& lstReaders);
  // False (reason logged) when the database of the last backup cannot be continued.
  bool CheckChangelogContinuity();
  CQiError NoteEndOfChangelogReaders();
  CQiError ReadEndOfChangelogReaders(const char* szKind, std::vector<sLustreChangelogInfo>& lstInfo);
  CQiError OpenFileSystemScanDB(bool bFull);
  CQiError CloseFileSystemScanDB();
  CQiError ProcessWorkUnitFull(const CWorkUnitPtr& pWorkUnit);
  CQiError ProcessWorkUnitNext(const CWorkUnitPtr& pWorkUnit);
  // Every reader still registered, with none of the records from the first one needed on purged
  // (else an incremental may have holes: an error, and the job scans in full). Checked before the
  // job and again after applying (szWhen says which).
  CQiError CheckRecordsAvailable(const std::vector<std::pair<sLustreChangelogInfo, int64_t>>& lstFrom,
                                 const char* szWhen);
  CQiError ProcessScanFailures(std::set<std::string>& setRescan);

  CQiError EnumerateChanges(const CWorkUnitPtr& pWorkUnit, const std::set<std::string>& setRescan);
  void LustreChangelogCleanup();
  void SetUpTraversal(class CEnumerateFiles& traversal, const CWorkUnitPtr& pWorkUnit);
  std::string StatisticsFile(const char* szKind) const;
  std::string ReadersFile() const;
  bool IsJobAborted() const { return m_pScannerCallback && m_pScannerCallback->IsAborted(); }
  template <typename T>
  void ReadParameter(const char* szName, T& value) const {
    if (m_pScannerCallback) (void)m_pScannerCallback->GetParameter(szName, value);
  }

  // Settings.
  std::string m_strLustreUser = "root";
  int64_t m_llBatchSize = kDefaultBatchSize;
  bool m_bInitialized = false;

  // Per work unit.
  LustreAPIPtr m_pApi;
  CLustreHardlinkManagerPtr m_pHardlinks;
  std::unique_ptr<CScanDbStore> m_pStore;
  std::string m_strFileSystem, m_strMount, m_strJobResults, m_strPrefix;
  std::vector<std::string> m_lstRoots;
  std::vector<LustreAPI::SMdt> m_lstMdt;
  unsigned long long m_ullReferenceTime = 0;
  bool m_bTopLevel = false;
  bool m_bDelivering = false;  // items have gone to the output handler
};

using CLustreScanEnginePtr = std::shared_ptr<CLustreScanEngine>;
