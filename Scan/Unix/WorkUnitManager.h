// CWorkUnitManager: turns the content paths of a scan into work units, gives them their filters
// once before the scan starts, and answers the scan's final status afterwards.
//
// Content. Each content path is placed on the volume that holds it: the manager finds or
// creates the CWorkUnit of that volume (one per local volume name), its CVolumeWorkUnit and the
// CPhysicalMediaWorkUnit of the volume's medium, and adds the path as a CScanPath. A path is
// given in its source form (as the protected host names it), its local form (as this machine
// reads it), or both; the content mapper converts between the two when one is set. Besides
// ordinary folders and files the manager recognises
//   - wildcard content (docs/filters.md): placed on the volume of the pattern's filter prefix;
//     a pattern without a fixed prefix marks its unit as holding volume-wide wildcards and makes
//     its wildcard matching case-insensitive;
//   - raw devices: a block or character device node, or a symbolic link to one, becomes a
//     CRawDeviceWorkUnit named "quillon-RawDevice-<device node>" (one per device node, the
//     paths that reach it are its surfaces) and no file-system unit;
//   - Hadoop content (context bag "isHadoopScan"): one unit on the volume "quillon_hadoop_vol";
//   - long-path content ("LongPath:Scan"): one unit on the volume named by
//     "LongPath:VolumeName"; the path is not touched here (the long path handler reads it later);
//   - criteria-based ad-hoc automount content ("OnDemandAdHoc::CriteriaBased" and
//     "SC:AutoMountRequired"): the path is its own volume;
//   - GPFS snapshot backups ("SC:GpfsSnap"): need a content mapper; each fileset (SetGpfsFilesets,
//     host paths) below the content becomes a unit of its own, keyed by its proxy path.
// The content kind is read from the bag of the context given with the content (a
// CContentContext, or an item's item bag); without a context the default context is used, and
// without any context bag the scanner's configuration bag.
//
// Mount points below a content path (MountPathInfo::expandContentPathByVolumes):
//   - followed (SetFollowMountPaths(true)): each mounted volume below the content gets a scan path
//     on its own unit;
//   - not followed (the default): when auto-exclude is on (the default) each mount point becomes
//     a scan-content exception of the content's unit, so it is left out of the scan; with
//     auto-exclude off the mount points stay inside the content and the engines' own rule on
//     nested mounts decides.
// Wildcard content never follows mount points below its prefix: a pattern names paths of one
// volume.
//
// Content that does not exist is placed like any other: the part of the path that exists
// decides the volume, the rest is taken as written, and the engine reports the content as
// missing when it scans it. Bad paths (empty, NUL bytes, relative, PATH_MAX bytes or more) fail
// the assignment with a clear error and leave other content assigned.
//
// Identity (this platform): the local volume name is the mount point that holds the path; its
// unique id and its physical-media id come from CVolumeIdentity when the unit is created: one id
// per whole disk (all partitions and device-mapper volumes of a disk share it), "UNC" for network
// file systems, the volume's own device number otherwise (tmpfs, overlay). IdentifyPhysicalMediaId
// leaves that id unchanged. On GPFS the unique id of a fileset's unit is the volume's unique id
// followed by ":" and the fileset's host path.
//
// The boolean argument of the assignment operations asks for every failure of the assignment to
// be reported through OnFailedContent (the failure of adding a scan path is always reported).
//
// Maps: the work unit map (local volume name -> unit) and the physical-media map (id -> medium)
// are ordered without regard to case (__lesscasecmp), so two volume names that differ only in
// case share one unit. The manager owns the units; engines share them through the maps.
//
// Threads: assignment, finalization and the setters run on the caller's thread before the scan
// starts; nothing is locked. While the scan runs the maps are only read. GetFinalStatus runs
// after all engines have ended.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Platform/Bag.h"
#include "Platform/ContentMapperAPI.h"
#include "Platform/FVBase.h"
#include "Platform/LogWriterInterface.h"
#include "Platform/QiError.h"
#include "Platform/StringCompare.h"
#include "Platform/VolumeIdentity.h"
#include "Scan/ItemConsumer.h"
#include "Scan/PhysicalMediaWorkUnit.h"
#include "Scan/RawDeviceWorkUnit.h"
#include "Scan/VolumeWorkUnit.h"
#include "Scan/WorkUnit.h"

class CWorkUnitManager {
 public:
  using WorkUnitMap = std::map<std::string, CWorkUnitPtr, __lesscasecmp>;
  using PhysicalMediaVolumeWorkUnitMap = std::map<std::string, CPhysicalMediaWorkUnitPtr, __lesscasecmp>;

  // The volume name of Hadoop content (the Hadoop engine works under it).
  static constexpr const char* kHadoopVolumeName = "quillon_hadoop_vol";
  // The prefix of a raw device's volume name.
  static constexpr const char* kRawDeviceVolumePrefix = "quillon-RawDevice-";
  // The processor that marks a unit with nothing to scan; the scanner gives it to no engine.
  static constexpr const char* kNoContentProcessor = "NC";

  explicit CWorkUnitManager(int64_t llScanId);
  virtual ~CWorkUnitManager();
  CWorkUnitManager(const CWorkUnitManager&) = delete;
  CWorkUnitManager& operator=(const CWorkUnitManager&) = delete;

  int64_t GetScanId() const { return m_llScanId; }

  void SetConfigurationBag(CBagPtr pBag) { m_pConfigurationBag = std::move(pBag); }
  const CBagPtr& GetConfigurationBag() const { return m_pConfigurationBag; }
  void SetContentMapper(ContentMapperAPIPtr pMapper) { m_pContentMapper = std::move(pMapper); }
  const ContentMapperAPIPtr& GetContentMapper() const { return m_pContentMapper; }
  void SetDefaultContext(FVBasePtr pContext) { m_pDefaultContext = std::move(pContext); }
  void SetScanFailureConsumer(CItemConsumerPtr pConsumer) { m_pScanFailureConsumer = std::move(pConsumer); }
  // The mount options apply to content assigned after them; changing one while units exist
  // logs that at level 1 and leaves the existing units as they are.
  void SetFollowMountPaths(bool bFollow);
  void SetAutoExcludeMountPoints(bool bExclude);
  bool GetFollowMountPaths() const { return m_bFollowMountPaths; }
  bool GetAutoExcludeMountPoints() const { return m_bAutoExcludeMountPoints; }
  // The GPFS filesets of the file system, as host paths (set by the GPFS engine's setup).
  void SetGpfsFilesets(std::vector<std::string> lstFilesetPaths) { m_lstGpfsFilesets = std::move(lstFilesetPaths); }
  // Where volume unique ids and physical-media ids come from (the process default unless set).
  void SetVolumeIdentity(const CVolumeIdentity& identity) { m_volumeIdentity = identity; }

  // Content given by its source path; the mapper gives the local path (87 when it cannot).
  virtual CQiError AssignSourceWorkUnit(const std::string& strSourcePath);
  virtual CQiError AssignSourceWorkUnit(const std::string& strSourcePath, const FVBasePtr& pContext,
                                        bool bReportFailedContent);
  // Content given by both forms (the facade's AddContentItem); an empty form is taken from the
  // other one.
  virtual CQiError AssignWorkUnit(const std::string& strSourcePath, const std::string& strLocalPath,
                                  bool bReportFailedContent);
  virtual CQiError AssignWorkUnit(const std::string& strSourcePath, const std::string& strLocalPath,
                                  const FVBasePtr& pContext, bool bReportFailedContent);
  // Marks units whose scan content cannot match anything in their source volume with "NC"
  // (not Hadoop and raw-device units, whose volume names are no paths).
  virtual CQiError ExamineWorkUnits();
  // Content given by its local path; the mapper gives the source path (87 when it cannot).
  CQiError AssignLocalWorkUnit(const std::string& strLocalPath);
  CQiError AssignLocalWorkUnit(const std::string& strLocalPath, const FVBasePtr& pContext,
                               bool bReportFailedContent);

  // Finds or creates the unit of a volume (with its volume and physical-media units).
  CQiError GetWorkUnitForLocalVolumeName(CWorkUnitPtr& pWorkUnit, const std::string& strLocalVolumeName);
  // Adds one scan path: the local scan path lies at or below the local mount path, whose source
  // form is the source mount path; the source scan path is derived from them (or through the
  // mapper). A scan path already held by the unit is not added twice.
  CQiError AddScanPathToWorkUnit(const CWorkUnitPtr& pWorkUnit, const std::string& strLocalMountPath,
                                 const std::string& strSourceMountPath, const std::string& strLocalScanPath,
                                 const FVBasePtr& pContext);
  // Creates or extends the raw-device unit of the device that the paths resolve to (the first
  // resolved path; the device path itself when the list is empty).
  CQiError AddToRawDeviceWorkUnit(const std::string& strDevicePath, const std::vector<std::string>& lstResolvedPaths,
                                  const FVBasePtr& pContext = FVBasePtr());
  // On this platform the id chosen at creation stands: success, the id unchanged.
  virtual CQiError IdentifyPhysicalMediaId(const std::string& strLocalVolumeName,
                                           const std::string& strVolumeUniqueId, std::string& strPhysicalMediaId);
  // Reports content that could not be assigned as a failure item (source path, "errorCode")
  // to the scan-failure consumer. Without a consumer the error comes back extended with
  // "<message>. Reporting scan failures is not supported.".
  CQiError OnFailedContent(const std::string& strLocalPath, const std::string& strSourcePath, const CQiError& error);

  WorkUnitMap& GetWorkUnitMap() { return m_mapWorkUnits; }
  const WorkUnitMap& GetWorkUnitMap() const { return m_mapWorkUnits; }
  PhysicalMediaVolumeWorkUnitMap& GetPhysicalMediaVolumeWorkUnitMap() { return m_mapPhysicalMediaVolumeWorkUnits; }
  const PhysicalMediaVolumeWorkUnitMap& GetPhysicalMediaVolumeWorkUnitMap() const {
    return m_mapPhysicalMediaVolumeWorkUnits;
  }

  // Gives every unit its scan content (the source scan paths of its scan paths) and the caller's
  // items, each unit keeping those that concern it, then runs ExamineWorkUnits. The arguments are
  // ordered string collections (std::set<std::string, __less_fscase_cmp> in the facade); the
  // first failure ends the pass.
  template <class TScanContentExceptions, class TFilters, class TFilterExceptions, class TSystemFilters,
            class TSystemFilterExceptions>
  CQiError FinalizeWorkUnits(const TScanContentExceptions& setScanContentExceptions, const TFilters& setFilters,
                             const TFilterExceptions& setFilterExceptions, const TSystemFilters& setSystemFilters,
                             const TSystemFilterExceptions& setSystemFilterExceptions);

  // 0 as soon as one unit has status 0 (a unit never processed has 0); otherwise the status of
  // the last unit in map order; 1 when there are no units.
  uint32_t GetFinalStatus() const;
  bool IsSuccessfullyProcessed() const { return GetFinalStatus() == 0; }

 private:
  struct SContentKind;
  struct SAssignEntry;

  CQiError AssignWorkUnitCore(const std::string& strSourcePath, const std::string& strLocalPath,
                              const FVBasePtr& pContext, bool& bReported);
  CQiError ReadContentKind(const FVBasePtr& pContext, SContentKind& kind) const;
  CQiError CollectEntries(const std::string& strIdPath, const std::string& strSourceIdPath,
                          const SContentKind& kind, std::vector<SAssignEntry>& lstEntries);
  CQiError AddNestedMounts(std::vector<SAssignEntry>& lstEntries);
  void ExcludeMountPoint(const CWorkUnitPtr& pContentUnit, const SAssignEntry& entry);
  // Enters a new unit in the maps, under its volume and medium; and takes one out again.
  void RegisterWorkUnit(const CWorkUnitPtr& pWorkUnit);
  void UnregisterWorkUnit(const CWorkUnitPtr& pWorkUnit);
  void CopyUnitSettings(const CWorkUnitPtr& pWorkUnit) const;
  // The host path of the GPFS fileset whose proxy path holds the local path; empty when none.
  std::string FindGpfsFileset(const std::string& strLocalPath) const;

  template <class TItems>
  static CQiError AddItems(const TItems& items, CWorkUnit& workUnit,
                           CQiError (CWorkUnit::*pfnAdd)(const std::string&));

  int64_t m_llScanId;
  CBagPtr m_pConfigurationBag;
  bool m_bFollowMountPaths = false;
  bool m_bAutoExcludeMountPoints = true;
  ContentMapperAPIPtr m_pContentMapper;
  FVBasePtr m_pDefaultContext;
  CItemConsumerPtr m_pScanFailureConsumer;
  WorkUnitMap m_mapWorkUnits;
  PhysicalMediaVolumeWorkUnitMap m_mapPhysicalMediaVolumeWorkUnits;
  std::vector<std::string> m_lstGpfsFilesets;
  CVolumeIdentity m_volumeIdentity;
};

using CWorkUnitManagerPtr = std::shared_ptr<CWorkUnitManager>;

template <class TItems>
CQiError CWorkUnitManager::AddItems(const TItems& items, CWorkUnit& workUnit,
                                    CQiError (CWorkUnit::*pfnAdd)(const std::string&)) {
  for (const auto& item : items) QI_RETURN_IF_ERROR((workUnit.*pfnAdd)(std::string(item)));
  return CQiError();
}

template <class TScanContentExceptions, class TFilters, class TFilterExceptions, class TSystemFilters,
          class TSystemFilterExceptions>
CQiError CWorkUnitManager::FinalizeWorkUnits(const TScanContentExceptions& setScanContentExceptions,
                                             const TFilters& setFilters, const TFilterExceptions& setFilterExceptions,
                                             const TSystemFilters& setSystemFilters,
                                             const TSystemFilterExceptions& setSystemFilterExceptions) {
  for (const auto& [strKey, pWorkUnit] : m_mapWorkUnits) {
    if (!pWorkUnit) {
      ZRLOG(0, "NULL work unit found in list, key=%s", strKey.c_str());
      continue;
    }
    for (const CScanPathPtr& pScanPath : pWorkUnit->GetScanPaths())
      QI_RETURN_IF_ERROR(pWorkUnit->AddScanContentItem(pScanPath->GetSourceScanPath(), pScanPath->GetContext()));
    QI_RETURN_IF_ERROR(AddItems(setScanContentExceptions, *pWorkUnit, &CWorkUnit::AddScanContentExceptionItem));
    QI_RETURN_IF_ERROR(AddItems(setFilters, *pWorkUnit, &CWorkUnit::AddFilterItem));
    QI_RETURN_IF_ERROR(AddItems(setFilterExceptions, *pWorkUnit, &CWorkUnit::AddFilterExceptionItem));
    QI_RETURN_IF_ERROR(AddItems(setSystemFilters, *pWorkUnit, &CWorkUnit::AddSystemFilterItem));
    QI_RETURN_IF_ERROR(AddItems(setSystemFilterExceptions, *pWorkUnit, &CWorkUnit::AddSystemFilterExceptionItem));
  }
  QI_RETURN_IF_ERROR(ExamineWorkUnits());
  return CQiError();
}
