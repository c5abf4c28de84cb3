#include "Scan/Unix/WorkUnitManager.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>

#include "Platform/ErrorCodes.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/FXFile.h"
#include "Platform/FXPath.h"
#include "Platform/FXString.h"
#include "Platform/FilterTerm.h"
#include "Platform/MountPathInfo.h"
#include "Platform/ZRDebugFunction.h"
#include "Scan/ContentContext.h"
#include "Scan/FabricatedItem.h"
#include "Scan/ScanFailureConsumer.h"
#include "Scan/ScannerConfigurationBagId.h"

using Id = SXScannerConfigurationBagId;

// What the context says about a content path.
struct CWorkUnitManager::SContentKind {
  bool bHadoop = false;
  bool bGpfsSnap = false;
  bool bGluster = false;
  bool bLongPath = false;
  std::string strLongPathVolumeName;
  bool bCriteriaBasedAutoMount = false;
};

// One piece of a content path on its way to a work unit.
struct CWorkUnitManager::SAssignEntry {
  enum class EKind { Content, Mount, Fileset };
  std::string strLocalMountPath;
  std::string strSourceMountPath;
  std::string strVolumeName;
  EKind eKind = EKind::Content;
};

namespace {
// The path `path` at or below `from`, moved to lie at the same place below `to`. A path that is
// not below `from` is returned unchanged.
std::string Rebase(const std::string& path, const std::string& from, const std::string& to) {
  if (path == from) return to;
  if (!FXString::StartsWith(path, from)) return path;
  std::string_view rest(path);
  rest.remove_prefix(from.size());
  if (from != "/" && (rest.empty() || rest[0] != '/')) return path;
  return FXPath::Append(to, rest);
}

bool SameScanPath(const CScanPath& scanPath, const std::string& local, const std::string& source) {
  return scanPath.GetLocalScanPath() == local && scanPath.GetSourceScanPath() == source;
}
}  // namespace

CWorkUnitManager::CWorkUnitManager(int64_t llScanId)
    : m_llScanId(llScanId), m_pConfigurationBag(std::make_shared<CBag>()),
      m_volumeIdentity(CVolumeIdentity::GetDefault()) {}

CWorkUnitManager::~CWorkUnitManager() = default;

void CWorkUnitManager::SetFollowMountPaths(bool bFollow) {
  if (bFollow != m_bFollowMountPaths && !m_mapWorkUnits.empty())
    ZRLOG(1, "New setting applies only to new work units, FollowMountPaths=%u", bFollow ? 1u : 0u);
  m_bFollowMountPaths = bFollow;
}

void CWorkUnitManager::SetAutoExcludeMountPoints(bool bExclude) {
  if (bExclude != m_bAutoExcludeMountPoints && !m_mapWorkUnits.empty())
    ZRLOG(1, "New setting applies only to new work units, AutoExcludeMountPoints=%u", bExclude ? 1u : 0u);
  m_bAutoExcludeMountPoints = bExclude;
}

// ---- assignment entry points ---------------------------------------------------------------

CQiError CWorkUnitManager::AssignSourceWorkUnit(const std::string& strSourcePath) {
  QI_RETURN_IF_ERROR(AssignSourceWorkUnit(strSourcePath, m_pDefaultContext, false));
  return CQiError();
}

CQiError CWorkUnitManager::AssignSourceWorkUnit(const std::string& strSourcePath, const FVBasePtr& pContext,
                                                bool bReportFailedContent) {
  std::string strLocalPath = strSourcePath;
  if (m_pContentMapper) {
    CQiError error = m_pContentMapper->MakeProxyPathFromHostPath(strSourcePath, strLocalPath);
    if (error.IsError()) {
      CQiError failure = QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                                        "Failed to convert host path to proxy path, SourceScanPath=%s",
                                        strSourcePath.c_str());
      if (bReportFailedContent) {
        CQiError reported = OnFailedContent(strSourcePath, strSourcePath, failure);
        if (reported.IsError()) return reported;
      }
      return failure;
    }
  }
  ZRLOG(3, "For SourceScanPath=%s LocalScanPath=%s", strSourcePath.c_str(), strLocalPath.c_str());
  QI_RETURN_IF_ERROR(AssignWorkUnit(strSourcePath, strLocalPath, pContext, bReportFailedContent));
  return CQiError();
}

CQiError CWorkUnitManager::AssignLocalWorkUnit(const std::string& strLocalPath) {
  QI_RETURN_IF_ERROR(AssignLocalWorkUnit(strLocalPath, m_pDefaultContext, false));
  return CQiError();
}

CQiError CWorkUnitManager::AssignLocalWorkUnit(const std::string& strLocalPath, const FVBasePtr& pContext,
                                               bool bReportFailedContent) {
  std::string strSourcePath = strLocalPath;
  if (m_pContentMapper) {
    CQiError error = m_pContentMapper->MakeHostPathFromProxyPath(strLocalPath, strSourcePath);
    if (error.IsError()) {
      CQiError failure = QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                                        "Failed to convert proxy path to host path, LocalScanPath=%s",
                                        strLocalPath.c_str());
      if (bReportFailedContent) {
        CQiError reported = OnFailedContent(strLocalPath, strLocalPath, failure);
        if (reported.IsError()) return reported;
      }
      return failure;
    }
  }
  ZRLOG(3, "SourceScanPath=%s", strSourcePath.c_str());
  QI_RETURN_IF_ERROR(AssignWorkUnit(strSourcePath, strLocalPath, pContext, bReportFailedContent));
  return CQiError();
}

CQiError CWorkUnitManager::AssignWorkUnit(const std::string& strSourcePath, const std::string& strLocalPath,
                                          bool bReportFailedContent) {
  QI_RETURN_IF_ERROR(AssignWorkUnit(strSourcePath, strLocalPath, m_pDefaultContext, bReportFailedContent));
  return CQiError();
}

CQiError CWorkUnitManager::AssignWorkUnit(const std::string& strSourcePath, const std::string& strLocalPath,
                                          const FVBasePtr& pContext, bool bReportFailedContent) {
  ZRDebugFunction trace(2, __PRETTY_FUNCTION__, __LINE__, "SourceScanPath=%s, LocalScanPath=%s",
                        strSourcePath.c_str(), strLocalPath.c_str());
  bool bReported = false;
  CQiError error = AssignWorkUnitCore(strSourcePath, strLocalPath, pContext, bReported);
  if (error.IsSuccess()) return error;
  // A failed scan path was reported on the way; other failures only when asked.
  if (bReportFailedContent && !bReported) {
    CQiError reported = OnFailedContent(strLocalPath.empty() ? strSourcePath : strLocalPath,
                                        strSourcePath.empty() ? strLocalPath : strSourcePath, error);
    if (reported.IsError()) return QI_PUSH(reported);
  }
  return QI_PUSH(error);
}

// ---- the assignment ------------------------------------------------------------------------

CQiError CWorkUnitManager::ReadContentKind(const FVBasePtr& pContext, SContentKind& kind) const {
  CBagPtr pBag;
  if (auto* pContentContext = dynamic_cast<CContentContext*>(pContext.get()))
    pBag = pContentContext->GetBag();
  else if (auto* pItem = dynamic_cast<CItem*>(pContext.get()))
    pBag = pItem->GetItemBag();
  if (!pBag) pBag = m_pConfigurationBag;
  if (!pBag) return CQiError();
  // Absent keys leave the defaults (false); a key of the wrong type is a caller's error.
  auto read = [&](const char* key, auto& value) -> CQiError {
    CQiError error = pBag->Read(key, value);
    if (error.IsError() && !error.IsWin32(QiErrorCode::NotFound))
      return QI_PUSH(error, "Cannot read content setting %s", key);
    return CQiError();
  };
  bool bCriteriaBased = false;
  bool bAutoMount = false;
  QI_RETURN_IF_ERROR(read(Id::idIsHadoopScan, kind.bHadoop));
  QI_RETURN_IF_ERROR(read(Id::idGpfsSnap, kind.bGpfsSnap));
  QI_RETURN_IF_ERROR(read(Id::idIsGlusterScan, kind.bGluster));
  QI_RETURN_IF_ERROR(read(Id::idLongPathScan, kind.bLongPath));
  if (kind.bLongPath) QI_RETURN_IF_ERROR(read(Id::idLongPathVolumeName, kind.strLongPathVolumeName));
  QI_RETURN_IF_ERROR(read(Id::idOnDemandAdHocCriteriaBased, bCriteriaBased));
  QI_RETURN_IF_ERROR(read(Id::idAutoMountRequired, bAutoMount));
  kind.bCriteriaBasedAutoMount = bCriteriaBased && bAutoMount;
  return CQiError();
}

CQiError CWorkUnitManager::AssignWorkUnitCore(const std::string& strSourcePathIn, const std::string& strLocalPathIn,
                                              const FVBasePtr& pContext, bool& bReported) {
  SContentKind kind;
  QI_RETURN_IF_ERROR(ReadContentKind(pContext, kind));

  std::string strLocalScanPath = FXPath::RemoveTrailingDelimiters(strLocalPathIn.empty() ? strSourcePathIn : strLocalPathIn);
  std::string strSourceScanPath = FXPath::RemoveTrailingDelimiters(strSourcePathIn.empty() ? strLocalPathIn : strSourcePathIn);
  if (strLocalScanPath.empty())
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Content path is empty");
  if (strLocalScanPath.find('\0') != std::string::npos || strSourceScanPath.find('\0') != std::string::npos)
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Content path holds a NUL byte, LocalScanPath=%s",
                          strLocalScanPath.c_str());

  // The path that decides the volume: a wildcard's fixed leading folders, else the path.
  std::string strIdPath = strLocalScanPath;
  std::string strSourceIdPath = strSourceScanPath;
  const bool bWildcard = CFilterTerm::IsWildcardItem(strLocalScanPath);
  bool bVolumeWildcard = false;
  if (bWildcard) {
    CFilterTerm term;
    QI_RETURN_IF_ERROR(term.LoadRaw(strLocalScanPath), "LoadRaw failed for wildcard scan path, LocalScanPath=%s",
                       strLocalScanPath.c_str());
    if (!term.GetFilterPrefix().empty()) {
      strIdPath = term.GetFilterPrefix();
      strSourceIdPath = CScanPath::ScanPrefixOf(strSourceScanPath);
      ZRLOG(3, "Using filter prefix for wildcard scan path volume identification, LocalScanPath=%s, Prefix=%s",
            strLocalScanPath.c_str(), strIdPath.c_str());
    } else {
      bVolumeWildcard = true;
    }
  } else if (!kind.bHadoop && !kind.bLongPath) {
    // Device nodes, and links to them, are raw-device content.
    struct stat st {};
    if (FXFile::zrlstat(strLocalScanPath, st) == 0) {
      if (S_ISBLK(st.st_mode) || S_ISCHR(st.st_mode)) {
        QI_RETURN_IF_ERROR(AddToRawDeviceWorkUnit(strLocalScanPath, {strLocalScanPath}, pContext),
                           "AddToRawDeviceWorkUnit failed");
        return CQiError();
      }
      std::string strRealPath;
      struct stat target {};
      if (S_ISLNK(st.st_mode) && FXPath::MakeRealPath(strLocalScanPath, strRealPath).IsSuccess() &&
          FXFile::zrlstat(strRealPath, target) == 0 && (S_ISBLK(target.st_mode) || S_ISCHR(target.st_mode))) {
        QI_RETURN_IF_ERROR(AddToRawDeviceWorkUnit(strLocalScanPath, {strRealPath}, pContext),
                           "AddToRawDeviceWorkUnit failed");
        return CQiError();
      }
    }
  }

  std::vector<SAssignEntry> lstEntries;
  QI_RETURN_IF_ERROR(CollectEntries(strIdPath, strSourceIdPath, kind, lstEntries));
  const bool bFollow = m_bFollowMountPaths && !bWildcard;
  if (bFollow && m_pContentMapper) QI_RETURN_IF_ERROR(AddNestedMounts(lstEntries));

  CWorkUnitPtr pContentUnit;
  std::vector<const SAssignEntry*> lstExcluded;
  for (const SAssignEntry& entry : lstEntries) {
    if (entry.eKind == SAssignEntry::EKind::Mount && !bFollow) {
      lstExcluded.push_back(&entry);
      continue;
    }
    CWorkUnitPtr pWorkUnit;
    CQiError error = GetWorkUnitForLocalVolumeName(pWorkUnit, entry.strVolumeName);
    if (error.IsSuccess()) {
      if (entry.eKind == SAssignEntry::EKind::Content) {
        ZRLOG(3, "Adding path '%s' to WorkUnit.", strLocalScanPath.c_str());
        if (bVolumeWildcard) {
          pWorkUnit->SetContainsVolumeWildcardScanPaths();
          pWorkUnit->SetUseInsensitiveFilterForWildCard(true);
        }
        error = AddScanPathToWorkUnit(pWorkUnit, entry.strLocalMountPath, entry.strSourceMountPath,
                                      strLocalScanPath, pContext);
        pContentUnit = pWorkUnit;
      } else {
        ZRLOG(3, "Adding path '%s' to WorkUnit for Volume '%s'", entry.strLocalMountPath.c_str(),
              entry.strVolumeName.c_str());
        error = AddScanPathToWorkUnit(pWorkUnit, entry.strLocalMountPath, entry.strSourceMountPath,
                                      entry.strLocalMountPath, pContext);
      }
    }
    if (error.IsError()) {
      // A unit made for this content alone does not stay behind empty.
      if (pWorkUnit && pWorkUnit->GetScanPaths().empty()) UnregisterWorkUnit(pWorkUnit);
      CQiError reported = OnFailedContent(entry.strLocalMountPath, entry.strSourceMountPath, error);
      if (reported.IsError()) error = reported;
      bReported = true;
      if (entry.eKind == SAssignEntry::EKind::Content)
        return QI_PUSH(error, "AddScanPathToWorkUnit failed, LocalScanPathForVolumeIdentification=%s, LocalScanPath=%s",
                       strIdPath.c_str(), strLocalScanPath.c_str());
      return QI_PUSH(error, "AddScanPathToWorkUnit failed, LocalMountPath=%s", entry.strLocalMountPath.c_str());
    }
  }

  // Mount points below the content that are not followed are left out of its scan content.
  if (pContentUnit && m_bAutoExcludeMountPoints)
    for (const SAssignEntry* pEntry : lstExcluded) ExcludeMountPoint(pContentUnit, *pEntry);
  return CQiError();
}

CQiError CWorkUnitManager::CollectEntries(const std::string& strIdPath, const std::string& strSourceIdPath,
                                          const SContentKind& kind, std::vector<SAssignEntry>& lstEntries) {
  using EKind = SAssignEntry::EKind;
  if (kind.bHadoop) {
    ZRLOG(0, "Hadoop Scan");
    lstEntries.push_back({strIdPath, strSourceIdPath, kHadoopVolumeName, EKind::Content});
    return CQiError();
  }
  if (kind.bLongPath) {
    ZRLOG(0, "LongPath Scan");
    if (kind.strLongPathVolumeName.empty())
      return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                            "Long path content needs a volume name (%s), LocalScanPath=%.64s...",
                            Id::idLongPathVolumeName, strIdPath.c_str());
    lstEntries.push_back({strIdPath, strSourceIdPath, kind.strLongPathVolumeName, EKind::Content});
    return CQiError();
  }
  if (kind.bCriteriaBasedAutoMount) {
    ZRLOG(3, "Criteria based Adhoc Automount Scan");
    lstEntries.push_back({strIdPath, strSourceIdPath, strIdPath, EKind::Content});
    return CQiError();
  }

  if (kind.bGpfsSnap && !m_pContentMapper)
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "The backup is GPFS snap. ContentMapper is not set");
  ZRLOG(3, "strLocalScanPathForVolumeIdentification  %s", strIdPath.c_str());
  std::vector<SContentEntry> lstExpanded;
  QI_RETURN_IF_ERROR(MountPathInfo::expandContentPathByVolumes(strIdPath, lstExpanded, nullptr),
                     "expandContentPathByVolumes failed");
  const std::string strCallerIdPath = FXPath::RemoveTrailingDelimiters(strIdPath);
  for (const SContentEntry& expanded : lstExpanded) {
    SAssignEntry entry{expanded.m_strLocalMountPath, std::string(), expanded.m_strVolumeName,
                       expanded.m_bContentPath ? EKind::Content : EKind::Mount};
    if (m_pContentMapper) {
      if (m_pContentMapper->MakeHostPathFromProxyPath(entry.strLocalMountPath, entry.strSourceMountPath).IsError())
        return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                              "Failed to convert proxy path to host path, LocalMountPath=%s",
                              entry.strLocalMountPath.c_str());
    } else {
      entry.strSourceMountPath = expanded.m_bContentPath
                                     ? strSourceIdPath
                                     : Rebase(entry.strLocalMountPath, strCallerIdPath, strSourceIdPath);
    }
    lstEntries.push_back(std::move(entry));
  }

  if (kind.bGpfsSnap) {
    // Each fileset below the content is a unit of its own, keyed by its proxy path.
    for (const std::string& strFileset : m_lstGpfsFilesets) {
      if (!FXPath::IsAncestorOf(strSourceIdPath, strFileset, true)) continue;
      std::string strProxy;
      if (m_pContentMapper->MakeProxyPathFromHostPath(strFileset, strProxy).IsError())
        return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Failed to convert host path to proxy path, fileset %s",
                              strFileset.c_str());
      ZRLOG(3, "Adding to ContentEntry %s as proxy path %s", strFileset.c_str(), strProxy.c_str());
      bool bKnown = false;
      for (SAssignEntry& entry : lstEntries) {
        if (entry.strLocalMountPath != strProxy) continue;
        entry.strVolumeName = strProxy;
        if (entry.eKind == EKind::Mount) entry.eKind = EKind::Fileset;
        bKnown = true;
      }
      if (!bKnown) lstEntries.push_back({strProxy, FXPath::RemoveTrailingDelimiters(strFileset), strProxy, EKind::Fileset});
    }
  }
  return CQiError();
}

// With a mapper, the volumes mounted below each entry are looked up again through the entry's
// own path, so that mounts reached only through a mapped path are scanned too.
CQiError CWorkUnitManager::AddNestedMounts(std::vector<SAssignEntry>& lstEntries) {
  const size_t nEntries = lstEntries.size();
  for (size_t i = 0; i < nEntries; ++i) {
    const std::string strLocalMountPath = lstEntries[i].strLocalMountPath;
    std::string strSourceMountPath;
    if (m_pContentMapper->MakeHostPathFromProxyPath(strLocalMountPath, strSourceMountPath).IsError())
      return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Failed to convert proxy path to host path, LocalMountPath=%s",
                            strLocalMountPath.c_str());
    ZRLOG(3, "Checking for Nested Mounts of LocalMountPath=%s SourceMountPath=%s", strLocalMountPath.c_str(),
          strSourceMountPath.c_str());
    std::vector<SContentEntry> lstExpanded;
    CQiError error = MountPathInfo::expandContentPathByVolumes(strLocalMountPath, lstExpanded, nullptr);
    if (error.IsError()) {
      ZRLOG(1, "Cannot list nested mounts of %s, error=%s", strLocalMountPath.c_str(), error.AsString().c_str());
      continue;
    }
    for (const SContentEntry& nested : lstExpanded) {
      if (nested.m_bContentPath || !FXPath::IsDescendantOf(nested.m_strLocalMountPath, strLocalMountPath, false))
        continue;
      bool bKnown = false;
      for (const SAssignEntry& entry : lstEntries) bKnown = bKnown || entry.strLocalMountPath == nested.m_strLocalMountPath;
      if (bKnown) continue;
      SAssignEntry entry{nested.m_strLocalMountPath, std::string(), nested.m_strVolumeName, SAssignEntry::EKind::Mount};
      if (m_pContentMapper->MakeHostPathFromProxyPath(entry.strLocalMountPath, entry.strSourceMountPath).IsError())
        return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                              "Failed to convert proxy path to host path, LocalMountPath=%s",
                              entry.strLocalMountPath.c_str());
      ZRLOG(3, "SourceMountPath=%s", entry.strSourceMountPath.c_str());
      ZRLOG(3, "Adding Local Mount %s (Nested Mount %s of source %s)", entry.strLocalMountPath.c_str(),
            entry.strVolumeName.c_str(), strSourceMountPath.c_str());
      lstEntries.push_back(std::move(entry));
    }
  }
  return CQiError();
}

void CWorkUnitManager::ExcludeMountPoint(const CWorkUnitPtr& pContentUnit, const SAssignEntry& entry) {
  std::string strRealPath = entry.strLocalMountPath;
  if (FXPath::MakeRealPath(entry.strLocalMountPath, strRealPath).IsError()) {
    ZRLOG(1, "MakeRealPath failed for %s.", entry.strLocalMountPath.c_str());
    strRealPath = entry.strLocalMountPath;
  }
  ZRLOG(3, "MakeHostPathFromProxyPath Local [%s] to Source [%s]", strRealPath.c_str(),
        entry.strSourceMountPath.c_str());
  CQiError error = pContentUnit->AddScanContentExceptionItem(entry.strSourceMountPath);
  if (error.IsError())
    ZRLOG(-1, "AddScanContentExceptionItem failed, MountPointName=%s, skipping", entry.strSourceMountPath.c_str());
}

// ---- units ---------------------------------------------------------------------------------

std::string CWorkUnitManager::FindGpfsFileset(const std::string& strLocalPath) const {
  std::string strBestHost;
  size_t nBest = 0;
  for (const std::string& strFileset : m_lstGpfsFilesets) {
    std::string strProxy = strFileset;
    if (m_pContentMapper && m_pContentMapper->MakeProxyPathFromHostPath(strFileset, strProxy).IsError()) continue;
    strProxy = FXPath::RemoveTrailingDelimiters(strProxy);
    if (!FXPath::IsAncestorOf(strProxy, strLocalPath, true) || strProxy.size() < nBest) continue;
    nBest = strProxy.size();
    strBestHost = FXPath::RemoveTrailingDelimiters(strFileset);
  }
  return strBestHost;
}

void CWorkUnitManager::CopyUnitSettings(const CWorkUnitPtr& pWorkUnit) const {
  const CBagPtr& pBag = pWorkUnit->GetBag();
  if (m_pConfigurationBag) {
    for (const char* key : {Id::idUseIdxLogWriterBasedCataloging, Id::idFileServerScan}) {
      std::any value;
      if (m_pConfigurationBag->ReadAny(key, value).IsSuccess()) (void)pBag->WriteAny(key, std::move(value));
    }
  }
  (void)pBag->Write(Id::idVolumeName, pWorkUnit->GetLocalVolumeName());
}

void CWorkUnitManager::RegisterWorkUnit(const CWorkUnitPtr& pWorkUnit) {
  CPhysicalMediaWorkUnitPtr& pMedia = m_mapPhysicalMediaVolumeWorkUnits[pWorkUnit->GetPhysicalMediaId()];
  if (!pMedia) {
    pMedia = std::make_shared<CPhysicalMediaWorkUnit>();
    pMedia->SetPhysicalMediaId(pWorkUnit->GetPhysicalMediaId());
  }
  CVolumeWorkUnitPtr pVolume;
  for (const CVolumeWorkUnitPtr& pCandidate : pMedia->GetVolumeWorkUnits())
    if (FXString::EqualsNoCase(pCandidate->GetLocalVolumeName(), pWorkUnit->GetLocalVolumeName())) pVolume = pCandidate;
  if (!pVolume) {
    pVolume = std::make_shared<CVolumeWorkUnit>();
    pVolume->SetLocalVolumeUniqueId(pWorkUnit->GetLocalVolumeUniqueId());
    pVolume->SetLocalVolumeName(pWorkUnit->GetLocalVolumeName());
    pVolume->SetSourceVolumeName(pWorkUnit->GetSourceVolumeName());
    pMedia->AddVolumeWorkUnit(pVolume);
  }
  pVolume->AddWorkUnit(pWorkUnit);
  m_mapWorkUnits[pWorkUnit->GetLocalVolumeName()] = pWorkUnit;
}

void CWorkUnitManager::UnregisterWorkUnit(const CWorkUnitPtr& pWorkUnit) {
  auto it = m_mapWorkUnits.find(pWorkUnit->GetLocalVolumeName());
  if (it != m_mapWorkUnits.end() && it->second == pWorkUnit) m_mapWorkUnits.erase(it);
  auto media = m_mapPhysicalMediaVolumeWorkUnits.find(pWorkUnit->GetPhysicalMediaId());
  if (media == m_mapPhysicalMediaVolumeWorkUnits.end() || !media->second) return;
  const std::vector<CVolumeWorkUnitPtr> lstVolumes = media->second->GetVolumeWorkUnits();
  for (const CVolumeWorkUnitPtr& pVolume : lstVolumes) {
    pVolume->RemoveWorkUnit(pWorkUnit);
    if (pVolume->GetWorkUnits().empty()) media->second->RemoveVolumeWorkUnit(pVolume);
  }
  if (media->second->GetVolumeWorkUnits().empty()) m_mapPhysicalMediaVolumeWorkUnits.erase(media);
}

CQiError CWorkUnitManager::GetWorkUnitForLocalVolumeName(CWorkUnitPtr& pWorkUnit, const std::string& strLocalVolumeName) {
  auto it = m_mapWorkUnits.find(strLocalVolumeName);
  if (it != m_mapWorkUnits.end() && it->second) {
    pWorkUnit = it->second;
    return CQiError();
  }
  auto pNew = std::make_shared<CWorkUnit>();
  pNew->SetLocalVolumeName(strLocalVolumeName);
  // Names that are not paths (the Hadoop volume) are their own ids and are not mapped.
  const bool bPath = FXPath::IsAbsolute(strLocalVolumeName);
  std::string strUniqueId = strLocalVolumeName;
  if (bPath)
    QI_RETURN_IF_ERROR(m_volumeIdentity.GetVolumeUniqueId(strLocalVolumeName, strUniqueId),
                       "GetVolumeUniqueId failed, LocalVolumeName=%s", strLocalVolumeName.c_str());

  std::string strSourceVolumeName = strLocalVolumeName;
  if (m_pContentMapper && bPath) {
    std::string strHostPath;
    if (m_pContentMapper->MakeHostPathFromProxyPath(strLocalVolumeName, strHostPath).IsError())
      return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Failed to convert proxy path to host path, LocalVolumeName=%s",
                            strLocalVolumeName.c_str());
    strSourceVolumeName = FXPath::AddTrailingDelimiter(strHostPath);
    ZRLOG(3, "SourceVolumeName=%s for local VolumeName '%s' with volumeId '%s'", strSourceVolumeName.c_str(),
          strLocalVolumeName.c_str(), strUniqueId.c_str());
  }
  pNew->SetSourceVolumeName(strSourceVolumeName);

  if (bPath) {
    std::string strFileset = FindGpfsFileset(strLocalVolumeName);
    if (!strFileset.empty()) {
      strUniqueId += ":" + strFileset;
      ZRLOG(2, "Volume ID is modified to '%s' for gpfs local path '%s'", strUniqueId.c_str(),
            strLocalVolumeName.c_str());
    }
  }
  pNew->SetLocalVolumeUniqueId(strUniqueId);

  std::string strPhysicalMediaId = strLocalVolumeName;
  if (bPath)
    QI_RETURN_IF_ERROR(m_volumeIdentity.GetPhysicalMediaId(strLocalVolumeName, strPhysicalMediaId),
                       "GetPhysicalMediaId failed, LocalVolumeName=%s", strLocalVolumeName.c_str());
  QI_RETURN_IF_ERROR(IdentifyPhysicalMediaId(strLocalVolumeName, strUniqueId, strPhysicalMediaId));
  pNew->SetPhysicalMediaId(strPhysicalMediaId);

  CopyUnitSettings(pNew);
  RegisterWorkUnit(pNew);
  pWorkUnit = pNew;
  return CQiError();
}

CQiError CWorkUnitManager::AddScanPathToWorkUnit(const CWorkUnitPtr& pWorkUnit, const std::string& strLocalMountPath,
                                                 const std::string& strSourceMountPath,
                                                 const std::string& strLocalScanPath, const FVBasePtr& pContext) {
  if (!pWorkUnit) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "No work unit to add the scan path to");
  std::string strSourceMount = strSourceMountPath;
  std::string strLocalScan = strLocalScanPath;
  if (m_pContentMapper && FXPath::IsAbsolute(strLocalMountPath)) {
    if (m_pContentMapper->MakeHostPathFromProxyPath(strLocalMountPath, strSourceMount).IsError())
      return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Failed to convert proxy path to host path, LocalMountPath=%s",
                            strLocalMountPath.c_str());
  }
  std::string strSourceScan = Rebase(strLocalScanPath, strLocalMountPath, strSourceMount);
  if (m_pContentMapper && FXPath::IsAbsolute(strLocalMountPath)) {
    if (m_pContentMapper->MakeProxyPathFromHostPath(strSourceScan, strLocalScan).IsError())
      return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Failed to convert host path to proxy path, SourcePath=%s",
                            strSourceScan.c_str());
  }
  if (!FindGpfsFileset(pWorkUnit->GetLocalVolumeName()).empty())
    ZRLOG(3, "GPFS LocalFilesetPath %s", strLocalMountPath.c_str());

  auto pScanPath = std::make_shared<CScanPath>(strLocalScan, strSourceScan, pContext);
  if (pWorkUnit->IsAlwaysFiltered(pScanPath->GetSourceScanPrefix()))
    ZRLOG(3, "Match will not possible in '%s' with content '%s'", pScanPath->GetSourceScanPrefix().c_str(),
          strSourceScan.c_str());
  for (const CScanPathPtr& pExisting : pWorkUnit->GetScanPaths()) {
    if (SameScanPath(*pExisting, strLocalScan, strSourceScan)) {
      ZRLOG(3, "Scan path already in WorkUnit, LocalScanPath=%s", strLocalScan.c_str());
      return CQiError();
    }
  }
  ZRLOG(3, "WorkUnit=0x%p, PhysicalMediaId=%s, LocalVolumeUniqueId=%s, LocalVolumeName=%s, LocalScanPath=%s",
        static_cast<void*>(pWorkUnit.get()), pWorkUnit->GetPhysicalMediaId().c_str(),
        pWorkUnit->GetLocalVolumeUniqueId().c_str(), pWorkUnit->GetLocalVolumeName().c_str(), strLocalScan.c_str());
  pWorkUnit->AddScanPath(pScanPath);
  return CQiError();
}

// ---- raw devices ---------------------------------------------------------------------------

CQiError CWorkUnitManager::AddToRawDeviceWorkUnit(const std::string& strDevicePath,
                                                  const std::vector<std::string>& lstResolvedPaths,
                                                  const FVBasePtr& pContext) {
  if (strDevicePath.empty()) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Raw device path is empty");
  std::string strSourceDevice = strDevicePath;
  if (m_pContentMapper && m_pContentMapper->MakeHostPathFromProxyPath(strDevicePath, strSourceDevice).IsError())
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Failed to convert proxy path to host path, LocalScanPath=%s",
                          strDevicePath.c_str());
  ZRLOG(3, "SourceRawDevice=%s", strSourceDevice.c_str());

  const std::string& strNode = lstResolvedPaths.empty() ? strDevicePath : lstResolvedPaths.front();
  const std::string strKey = std::string(kRawDeviceVolumePrefix) + strNode;
  CRawDeviceWorkUnitPtr pRawUnit;
  auto it = m_mapWorkUnits.find(strKey);
  if (it != m_mapWorkUnits.end() && it->second) {
    pRawUnit = std::dynamic_pointer_cast<CRawDeviceWorkUnit>(it->second);
    if (!pRawUnit)
      return QI_ERROR_WIN32(QiErrorCode::InvalidData, "CRawDeviceWorkUnit cast failed, LocalVolumeName=%s",
                            strKey.c_str());
  } else {
    struct stat st {};
    if (stat(strNode.c_str(), &st) != 0)
      return QI_ERROR_ERRNO(errno, "Cannot read raw device %s", strNode.c_str());
    pRawUnit = std::make_shared<CRawDeviceWorkUnit>();
    pRawUnit->SetLocalVolumeName(strKey);
    pRawUnit->SetSourceVolumeName(std::string(kRawDeviceVolumePrefix) + strSourceDevice);
    std::string strUniqueId = strKey;
    std::string strPhysicalMediaId = strKey;
    if (S_ISBLK(st.st_mode)) {
      // A block device lies on the same medium as the file systems of its disk.
      SLogicalVolume device;
      device.m_uMajor = major(st.st_rdev);
      device.m_uMinor = minor(st.st_rdev);
      device.m_strMountPoint = strNode;
      device.m_strMountSource = strNode;
      device.m_strRoot.assign(1, FXPath::kDelimiter);  // by character: GCC 12 -O3 raises a false -Wrestrict
      (void)m_volumeIdentity.GetVolumeUniqueId(device, strUniqueId);
      (void)m_volumeIdentity.GetPhysicalMediaId(device, strPhysicalMediaId);
    } else {
      strUniqueId = FXString::Format("chr-%u:%u", major(st.st_rdev), minor(st.st_rdev));
    }
    QI_RETURN_IF_ERROR(IdentifyPhysicalMediaId(strKey, strUniqueId, strPhysicalMediaId));
    pRawUnit->SetLocalVolumeUniqueId(strUniqueId);
    pRawUnit->SetPhysicalMediaId(strPhysicalMediaId);
    CopyUnitSettings(pRawUnit);
    RegisterWorkUnit(pRawUnit);
  }

  (void)pRawUnit->AddSurface(strDevicePath, FXString::Join(lstResolvedPaths.empty()
                                                               ? std::vector<std::string>{strDevicePath}
                                                               : lstResolvedPaths,
                                                           "\n"));
  bool bKnown = false;
  for (const CScanPathPtr& pExisting : pRawUnit->GetScanPaths())
    bKnown = bKnown || SameScanPath(*pExisting, strDevicePath, strSourceDevice);
  if (!bKnown) pRawUnit->AddScanPath(std::make_shared<CScanPath>(strDevicePath, strSourceDevice, pContext));
  ZRLOG(3, "WorkUnit=0x%p, PhysicalMediaId=%s, LocalVolumeUniqueId=%s, LocalScanPath=%s SourceScanPath=%s",
        static_cast<void*>(pRawUnit.get()), pRawUnit->GetPhysicalMediaId().c_str(),
        pRawUnit->GetLocalVolumeUniqueId().c_str(), strDevicePath.c_str(), strSourceDevice.c_str());
  return CQiError();
}

CQiError CWorkUnitManager::IdentifyPhysicalMediaId(const std::string& /*strLocalVolumeName*/,
                                                   const std::string& /*strVolumeUniqueId*/,
                                                   std::string& /*strPhysicalMediaId*/) {
  return CQiError();
}

// ---- failures and status -------------------------------------------------------------------

CQiError CWorkUnitManager::OnFailedContent(const std::string& strLocalPath, const std::string& strSourcePath,
                                           const CQiError& error) {
  if (!m_pScanFailureConsumer) {
    CQiError extended = error;
    return QI_PUSH(extended, "%s. Reporting scan failures is not supported.", error.GetMessage().c_str());
  }
  auto pItem = std::make_shared<CFabricatedItem>(CBagPtr(), strLocalPath, strSourcePath);
  (void)pItem->GetItemBag()->Write(CScanFailureConsumer::kErrorCodeKey, static_cast<int>(error.GetCode()));
  ZRLOG(1, "Reporting content that cannot be scanned, SourceScanPath=%s, error=%s", strSourcePath.c_str(),
        error.AsString().c_str());
  QI_RETURN_IF_ERROR(m_pScanFailureConsumer->Process(pItem), "Cannot report failed content, SourceScanPath=%s",
                     strSourcePath.c_str());
  return CQiError();
}

CQiError CWorkUnitManager::ExamineWorkUnits() {
  for (const auto& [strKey, pWorkUnit] : m_mapWorkUnits) {
    if (!pWorkUnit) continue;
    // Hadoop and raw-device units are named, not mounted: their scan paths do not lie below
    // their volume name, and the engine of the unit decides what there is to scan.
    if (!FXPath::IsAbsolute(pWorkUnit->GetSourceVolumeName())) continue;
    if (!pWorkUnit->IsMatchPossibleInFolder(pWorkUnit->GetSourceVolumeName())) {
      ZRLOG(1, "Volume has no content to scan, marking work unit as completed, SourceVolumeName=%s",
            pWorkUnit->GetSourceVolumeName().c_str());
      pWorkUnit->SetDisposition(kNoContentProcessor, 0);
    }
  }
  return CQiError();
}

uint32_t CWorkUnitManager::GetFinalStatus() const {
  uint32_t uStatus = 1;
  for (const auto& [strKey, pWorkUnit] : m_mapWorkUnits) {
    if (!pWorkUnit) continue;
    if (pWorkUnit->GetFinalStatus() == 0) return 0;
    uStatus = pWorkUnit->GetFinalStatus();
  }
  return uStatus;
}
