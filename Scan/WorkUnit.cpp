#include "Scan/WorkUnit.h"

#include "Platform/FXPath.h"
#include "Platform/FXString.h"
#include "Platform/FilterTerm.h"
#include "Platform/FilterTermTestString.h"
#include "Platform/LogWriterInterface.h"
#include "Scan/ScannerConfigurationBagId.h"

CWorkUnit::CWorkUnit()
    : m_pScanContent(std::make_shared<CFilterSet>()),
      m_pFilters(std::make_shared<CFilterSet>()),
      m_pSystemFilters(std::make_shared<CFilterSet>()),
      m_pBag(std::make_shared<CBag>()) {
  // The object trace logs the unit's creation and end; it costs nothing when tracing is off.
  if (ZRLOG_ON(2))
    m_pObjectTrace = std::make_unique<ZRDebugFunction>(3, "CWorkUnit::CWorkUnit()", __LINE__, "0x%p",
                                                       static_cast<void*>(this));
}

CWorkUnit::~CWorkUnit() = default;

void CWorkUnit::AddScanPath(const CScanPathPtr& pScanPath) {
  if (pScanPath) m_lstScanPaths.push_back(pScanPath);
}

std::vector<std::string> CWorkUnit::GetSurfaceList() const {
  std::vector<std::string> surfaces;
  for (size_t i = 0; i < m_lstScanPaths.size(); ++i) {
    const std::string& path = m_lstScanPaths[i]->GetLocalScanPath();
    bool bCovered = false;
    for (size_t j = 0; j < m_lstScanPaths.size() && !bCovered; ++j) {
      if (i == j) continue;
      const std::string& other = m_lstScanPaths[j]->GetLocalScanPath();
      // Below another path, or the same path given again earlier.
      bCovered = FXPath::IsAncestorOf(other, path, false) ||
                 (j < i && FXPath::IsAncestorOf(other, path, true));
    }
    if (!bCovered) surfaces.push_back(path);
  }
  return surfaces;
}

CQiError CWorkUnit::AddScanContentItem(const std::string& strPath) {
  QI_RETURN_IF_ERROR(AddScanContentItem(strPath, FVBasePtr()));
  return CQiError();
}

CQiError CWorkUnit::AddScanContentItem(const std::string& strPath, const FVBasePtr& pContext) {
  unsigned long long ullIdxLogWriter = 0;
  bool bFileServerScan = false;
  (void)m_pBag->Read(SXScannerConfigurationBagId::idUseIdxLogWriterBasedCataloging, ullIdxLogWriter);
  (void)m_pBag->Read(SXScannerConfigurationBagId::idFileServerScan, bFileServerScan);
  const std::string& volume =
      (ullIdxLogWriter != 0 || bFileServerScan) ? m_strSourceVolumeName : m_strLocalVolumeName;
  QI_RETURN_IF_ERROR(m_pScanContent->AddFilterItem(BFilterNodeState::Include, strPath, volume, pContext),
                     "AddFilterItem failed for scan content, Path=%s", strPath.c_str());
  return CQiError();
}

bool CWorkUnit::Concerns(const std::string& strPath) const {
  if (m_bContainsVolumeWildcardScanPaths &&
      (FXPath::IsAncestorOf(strPath, m_strSourceVolumeName, true) ||
       FXPath::IsAncestorOf(m_strSourceVolumeName, strPath, true)))
    return true;
  for (const CScanPathPtr& pScanPath : m_lstScanPaths) {
    const std::string& prefix = pScanPath->GetSourceScanPrefix();
    if (prefix.empty()) continue;
    if (FXPath::IsAncestorOf(strPath, prefix, true) || FXPath::IsAncestorOf(prefix, strPath, true))
      return true;
  }
  return false;
}

// Adds a filter string when it concerns the unit. A plain path concerns the unit when it is an
// ancestor or a descendant of one of its scan prefixes (or of the source volume name when the
// unit holds volume-wide wildcards); a wildcard item is judged by its filter prefix. Items that
// can match at any depth (a wildcard with an empty prefix, or a plain name without '/') concern
// every unit.
CQiError CWorkUnit::AddFilterString(const std::string& strItem, const CFilterSetPtr& pSet,
                                    BFilterNodeState eState, BFilterTermOptions eOptions) {
  if (!CFilterTerm::IsWildcardItem(strItem)) {
    if (FXPath::IsAbsolute(strItem) && !Concerns(strItem)) return CQiError();
    QI_RETURN_IF_ERROR(pSet->AddFilterItem(eState, strItem, m_strSourceVolumeName),
                       "AddFilterItem failed, Item=%s", strItem.c_str());
    return CQiError();
  }
  auto pTerm = std::make_shared<CFilterTerm>(eOptions);
  QI_RETURN_IF_ERROR(pTerm->LoadRaw(strItem), "LoadRaw failed, Item=%s", strItem.c_str());
  const std::string& prefix = pTerm->GetFilterPrefix();
  if (!prefix.empty() && !Concerns(prefix)) return CQiError();
  QI_RETURN_IF_ERROR(pSet->AddFilterTerm(eState, pTerm), "AddFilterTerm failed, Item=%s", strItem.c_str());
  return CQiError();
}

CQiError CWorkUnit::AddScanContentExceptionItem(const std::string& strItem) {
  ZRLOG(2, "adding scan content exception [%s]", strItem.c_str());
  QI_RETURN_IF_ERROR(AddFilterString(strItem, m_pScanContent, BFilterNodeState::Exception,
                                     BFilterTermOptions::None));
  return CQiError();
}

CQiError CWorkUnit::AddFilterItem(const std::string& strItem) {
  ZRLOG(2, "adding filter item [%s]", strItem.c_str());
  QI_RETURN_IF_ERROR(AddFilterString(strItem, m_pFilters, BFilterNodeState::Include, BFilterTermOptions::None));
  return CQiError();
}

CQiError CWorkUnit::AddFilterExceptionItem(const std::string& strItem) {
  ZRLOG(2, "adding exception item [%s]", strItem.c_str());
  QI_RETURN_IF_ERROR(AddFilterString(strItem, m_pFilters, BFilterNodeState::Exception,
                                     BFilterTermOptions::None));
  return CQiError();
}

CQiError CWorkUnit::AddSystemFilterItem(const std::string& strItem) {
  QI_RETURN_IF_ERROR(AddFilterString(strItem, m_pSystemFilters, BFilterNodeState::Include,
                                     BFilterTermOptions::Default));
  return CQiError();
}

CQiError CWorkUnit::AddSystemFilterExceptionItem(const std::string& strItem) {
  QI_RETURN_IF_ERROR(AddFilterString(strItem, m_pSystemFilters, BFilterNodeState::Exception,
                                     BFilterTermOptions::Default));
  return CQiError();
}

void CWorkUnit::SetDisposition(const std::string& strProcessor, uint32_t uStatus) {
  m_strProcessor = strProcessor;
  m_uFinalStatus = uStatus;
}

bool CWorkUnit::IsSuccessfullyProcessed() const { return !m_strProcessor.empty() && m_uFinalStatus == 0; }

std::string CWorkUnit::DispositionAsString() const {
  if (m_strProcessor.empty()) return "NotProcessed";
  if (m_uFinalStatus != 0) return FXString::Format("Failed(%s=%u)", m_strProcessor.c_str(), m_uFinalStatus);
  return FXString::Format("Processed(%s)", m_strProcessor.c_str());
}

std::string CWorkUnit::AsString() const {
  return FXString::Format(
      "WorkUnit=[0x%p], PhysicalMediaId=[%s], LocalVolumeName=[%s], LocalVolumeUniqueId=[%s], "
      "SourceVolumeName=[%s], ScanPaths=[%llu], Disposition=[%s]",
      static_cast<const void*>(this), m_strPhysicalMediaId.c_str(), m_strLocalVolumeName.c_str(),
      m_strLocalVolumeUniqueId.c_str(), m_strSourceVolumeName.c_str(),
      static_cast<unsigned long long>(m_lstScanPaths.size()), DispositionAsString().c_str());
}

bool CWorkUnit::IsFileFilteredOut(const std::string& strFile) const {
  CFilterTermTestString test(strFile);
  bool bOut = !m_pScanContent->IsIn(test, CFilterSet::kAppliesAll) ||
              m_pFilters->IsIn(test, CFilterSet::kAppliesAll) ||
              m_pSystemFilters->IsIn(test, CFilterSet::kAppliesAll);
  if (bOut) ZRLOG(3, "Matched, File=[%s]", strFile.c_str());
  return bOut;
}

bool CWorkUnit::IsMatchPossibleInFolder(const std::string& strFolder) const {
  CFilterTermTestString test(strFolder);
  return m_pScanContent->IsMatchPossibleInFolder(test) && !m_pFilters->IsMatchEntireFolder(test) &&
         !m_pSystemFilters->IsMatchEntireFolder(test);
}

bool CWorkUnit::IsMatchPossibleInFolder(const std::string& /*strLocalFolder*/,
                                        const std::string& strSourceFolder) const {
  return IsMatchPossibleInFolder(strSourceFolder);
}

bool CWorkUnit::IsAlwaysFiltered(const std::string& strFolder) const {
  CFilterTermTestString test(strFolder);
  return m_pFilters->IsMatchEntireFolder(test) || m_pSystemFilters->IsMatchEntireFolder(test);
}

void CWorkUnit::SetUseInsensitiveFilterForWildCard(bool bInsensitive) {
  m_pScanContent->SetUseInsensitiveFilterForWildCard(bInsensitive);
  m_pFilters->SetUseInsensitiveFilterForWildCard(bInsensitive);
  m_pSystemFilters->SetUseInsensitiveFilterForWildCard(bInsensitive);
}

bool CWorkUnit::IsUseInsensitiveFilterForWildCardSet() const {
  return m_pScanContent->IsUseInsensitiveFilterForWildCardSet();
}

CQiError CWorkUnit::DumpDiagnosticData(const CLineWriterPtr& pWriter, const std::string& strPrefix) const {
  if (!pWriter) return CQiError();
  QI_RETURN_IF_ERROR(pWriter->WriteLine(strPrefix + AsString()));
  const std::string child = strPrefix + "  ";
  for (const CScanPathPtr& pScanPath : m_lstScanPaths) {
    QI_RETURN_IF_ERROR(pWriter->WriteLine(FXString::Format(
        "%sScanPath: LocalScanPath=[%s], SourceScanPath=[%s], SourceScanPrefix=[%s]", child.c_str(),
        FXString::EscapeControl(pScanPath->GetLocalScanPath()).c_str(),
        FXString::EscapeControl(pScanPath->GetSourceScanPath()).c_str(),
        FXString::EscapeControl(pScanPath->GetSourceScanPrefix()).c_str())));
  }
  const struct {
    const char* name;
    const CFilterSetPtr& set;
  } sets[] = {{"ScanContent", m_pScanContent}, {"Filters", m_pFilters}, {"SystemFilters", m_pSystemFilters}};
  for (const auto& entry : sets) {
    QI_RETURN_IF_ERROR(pWriter->WriteLine(child + entry.name + ":"));
    entry.set->DumpDiagnosticData(pWriter, child + "  ");
  }
  return CQiError();
}
