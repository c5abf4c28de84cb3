#include "Scan/OnDemandEnumerateFiles.h"

#include "Platform/AutoTimeCounter.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/FXFile.h"
#include "Platform/FXPath.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Scan/BasicPathEnumerator.h"
#include "Scan/PathCacheUnorderedT.h"

namespace {
bool HasItems(const CFilterSetPtr& pSet) { return pSet && !pSet->IsEmpty(); }
}  // namespace

COnDemandEnumerateFiles::COnDemandEnumerateFiles(CScanEngine* pEngine,
                                                 CPathEnumeratorPtr pEnumerator)
    : CEnumerateFiles(pEngine, std::move(pEnumerator)) {}

COnDemandEnumerateFiles::~COnDemandEnumerateFiles() = default;

void COnDemandEnumerateFiles::SetOnDemandFilters(const std::vector<std::string>& lstNestedVolumes) {
  m_lstNestedVolumes.clear();
  for (const std::string& strVolume : lstNestedVolumes)
    m_lstNestedVolumes.push_back(FXPath::RemoveTrailingDelimiters(strVolume));
}

void COnDemandEnumerateFiles::SetBlackListFilter(CFilterSetPtr& pBlackListFilter) {
  m_pBlackListFilter = pBlackListFilter;
}

void COnDemandEnumerateFiles::SetListedPaths(const std::unordered_set<std::string>* pListed,
                                             const std::string& strRoot) {
  m_pListed = pListed;
  m_strListedRoot = strRoot;
}

bool COnDemandEnumerateFiles::IsListedElsewhere(const std::string& strLocalPath) const {
  return m_pListed != nullptr && m_pListed->count(strLocalPath) != 0 &&
         strLocalPath != m_strListedRoot;
}

CQiError COnDemandEnumerateFiles::SetIgnoredMountPaths(
    const std::vector<std::string>& lstMountPoints) {
  if (lstMountPoints.empty()) return CQiError();
  // The listing looks every entry up by its source path; on-demand traversals report entries
  // under their local paths, so the local mount points are the keys.
  auto* pBasic = dynamic_cast<CBasicPathEnumerator*>(GetPathEnumerator().get());
  if (pBasic == nullptr)
    return QI_ERROR_WIN32(QiErrorCode::NotSupported,
                          "The path enumerator cannot leave mount points out, MountPoint=%s",
                          FXString::EscapeControl(lstMountPoints.front()).c_str());
  CPathCacheUnorderedT<std::string> cache;
  for (const std::string& strMountPoint : lstMountPoints) {
    cache.Insert(FXPath::RemoveTrailingDelimiters(strMountPoint), strMountPoint);
    if (ZRLOG_ON(5))
      ZRLOG(5, "Leaving mount point [%s] out of the traversal",
            FXString::EscapeControl(strMountPoint).c_str());
  }
  pBasic->SetMountPathCache(cache);
  pBasic->SetFileOperationOptions(FXFile::kFindOptionMountPathCheck);
  return CQiError();
}

void COnDemandEnumerateFiles::SetExcludedAttributes(unsigned int uExcludedAttributes) {
  m_uOnDemandExcludedAttributes = uExcludedAttributes;
  CEnumerateFiles::SetExcludedAttributes(uExcludedAttributes);
}

void COnDemandEnumerateFiles::SetFilters(CFilterSetPtr pFilters) {
  m_pOnDemandFilters = pFilters;
  CEnumerateFiles::SetFilters(std::move(pFilters));
}

void COnDemandEnumerateFiles::SetSystemFilters(CFilterSetPtr pSystemFilters) {
  m_pOnDemandSystemFilters = pSystemFilters;
  CEnumerateFiles::SetSystemFilters(std::move(pSystemFilters));
}

void COnDemandEnumerateFiles::EnableBuiltInSystemProtectedFilesFilter(bool bEnable) {
  m_bOnDemandBuiltInFilter = bEnable;
  CEnumerateFiles::EnableBuiltInSystemProtectedFilesFilter(bEnable);
}

bool COnDemandEnumerateFiles::IsInSystemFilters(const CFilterTermTestString& test) const {
  if (HasItems(m_pOnDemandSystemFilters) &&
      m_pOnDemandSystemFilters->IsIn(test, CFilterSet::kAppliesAll))
    return true;
  return m_bOnDemandBuiltInFilter &&
         GetBuiltInSystemProtectedFiles().IsIn(test, CFilterSet::kAppliesAll);
}

bool COnDemandEnumerateFiles::IsOnNestedVolume(const std::string& strLocalPath) const {
  for (const std::string& strVolume : m_lstNestedVolumes)
    if (FXPath::IsDescendantOf(strLocalPath, strVolume, true)) return true;
  return false;
}

bool COnDemandEnumerateFiles::IsFiltered(CItemPtr& pItem, const std::string& strTestString) {
  CAutoTimeCounter timer(EScanPerfCounterType::TIME_ISFILTERED);
  if (m_uOnDemandExcludedAttributes != 0 &&
      (pItem->GetAttributes() & m_uOnDemandExcludedAttributes) != 0)
    return true;
  CFilterTermTestString test(strTestString);
  // The log lines name the folder the entry was met in.
  auto folder = [&] {
    return FXString::EscapeControl(pItem->GetSourceFullyQualifiedParentFolder());
  };
  if (IsInSystemFilters(test)) {
    if (ZRLOG_ON(5)) ZRLOG(5, "Filtered by system filter, Folder=(%s)", folder().c_str());
    return true;
  }
  if (HasItems(m_pOnDemandFilters) && m_pOnDemandFilters->IsIn(test, CFilterSet::kAppliesAll)) {
    if (ZRLOG_ON(5)) ZRLOG(5, "Filtered by content filter, Folder=(%s)", folder().c_str());
    return true;
  }
  // Nested volumes are local mount points, so the local path is compared.
  if (IsOnNestedVolume(pItem->GetLocalFullyQualifiedItemName())) {
    if (ZRLOG_ON(5)) ZRLOG(5, "Filtered by nested volume filter, Folder=(%s)", folder().c_str());
    return true;
  }
  if (IsListedElsewhere(pItem->GetLocalFullyQualifiedItemName())) {
    if (ZRLOG_ON(5)) ZRLOG(5, "Filtered by listed path filter, Folder=(%s)", folder().c_str());
    return true;
  }
  if (HasItems(m_pBlackListFilter) && m_pBlackListFilter->IsIn(test, CFilterSet::kAppliesAll)) {
    if (ZRLOG_ON(5)) ZRLOG(5, "Filtered by BlackList filter, Folder=(%s)", folder().c_str());
    return true;
  }
  if (ZRLOG_ON(6)) ZRLOG(6, "Not filtered, Folder=(%s)", folder().c_str());
  return false;
}

bool COnDemandEnumerateFiles::IsMatchPossibleInFolder(CItemPtr& pItem,
                                                      const std::string& strFolder) {
  // A nested volume is walked by its own entry; a black-listed folder is out with its subtree.
  if (IsOnNestedVolume(pItem->GetLocalFullyQualifiedItemName())) return false;
  // A listed folder is walked by its own line.
  if (IsListedElsewhere(pItem->GetLocalFullyQualifiedItemName())) return false;
  CFilterTermTestString test(strFolder);
  if (HasItems(m_pBlackListFilter) && m_pBlackListFilter->IsMatchEntireFolder(test)) return false;
  if (HasItems(m_pOnDemandSystemFilters) && m_pOnDemandSystemFilters->IsMatchEntireFolder(test))
    return false;
  if (m_bOnDemandBuiltInFilter && GetBuiltInSystemProtectedFiles().IsMatchEntireFolder(test))
    return false;
  if (HasItems(m_pOnDemandFilters) && m_pOnDemandFilters->IsMatchEntireFolder(test)) return false;
  return true;
}
