#include "Scan/ItemSelection.h"

#include <atomic>
#include <string>
#include <string_view>

#include "Platform/AutoTimeCounter.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Platform/ScanPerformanceCounterSet.h"

namespace {
// The last folder a thread asked about and the answer, for the entries of one folder that come
// one after another. Selections get ids that are never reused, so a selection made at the address
// of a destroyed one never takes the old one's answer.
std::atomic<uint64_t> g_ullNextSelectionId{1};
struct SContentFolderCache {
  uint64_t ullSelectionId = 0;
  const CFilterSet* pContent = nullptr;
  // A folder entirely in content: so is every folder below it, which is then not asked again.
  std::string strEntireRoot;
  bool bHasEntireRoot = false;
  // The last folder asked about (outside strEntireRoot) and its answer.
  std::string strFolder;
  bool bFolderKnown = false;
  bool bEntirelyInContent = false;
};

bool IsAtOrBelow(std::string_view folder, const std::string& strRoot) {
  if (folder.size() < strRoot.size() || folder.compare(0, strRoot.size(), strRoot) != 0) return false;
  return folder.size() == strRoot.size() || strRoot.back() == '/' || folder[strRoot.size()] == '/';
}
thread_local SContentFolderCache t_contentFolder;

bool HasItems(const CFilterSetPtr& pSet) { return pSet && !pSet->IsEmpty(); }
}  // namespace

CItemSelection::CItemSelection()
    : m_ullSelectionId(g_ullNextSelectionId.fetch_add(1, std::memory_order_relaxed)) {}


const CFilterSet& CItemSelection::GetBuiltInSystemProtectedFiles() {
  static CFilterSet set;
  static const bool bFilled = [] {
    for (const char* szPath : {"/proc", "/sys", "/dev", "/run"})
      (void)set.AddFilterItem(BFilterNodeState::Include, szPath);
    return true;
  }();
  (void)bFilled;
  return set;
}

bool CItemSelection::IsInSystemFilters(const CFilterTermTestString& test) const {
  if (HasItems(m_pSystemFilters) && m_pSystemFilters->IsIn(test, CFilterSet::kAppliesAll))
    return true;
  return m_bBuiltInSystemProtectedFilesFilter &&
         GetBuiltInSystemProtectedFiles().IsIn(test, CFilterSet::kAppliesAll);
}

// Whether a path can be in the built-in system filter: its items are the plain, case-sensitive
// paths /proc, /sys, /dev and /run, so only paths whose first component is one of those names
// can match. Lets the common entry skip building a test string.
bool CItemSelection::MayBeBuiltInSystemPath(const std::string& strPath) {
  size_t nStart = 0;
  while (nStart < strPath.size() && strPath[nStart] == '/') ++nStart;
  if (nStart == 0) return true;  // not absolute: leave it to the filter set
  const size_t nEnd = strPath.find('/', nStart);
  const std::string_view first(strPath.data() + nStart,
                               (nEnd == std::string::npos ? strPath.size() : nEnd) - nStart);
  return first == "proc" || first == "sys" || first == "dev" || first == "run";
}

bool CItemSelection::IsFolderEntirelyInContent(const std::string& strPath) const {
  const size_t nSlash = strPath.rfind('/');
  if (nSlash == std::string::npos) return false;
  const std::string_view folder(strPath.data(), nSlash == 0 ? 1 : nSlash);
  SContentFolderCache& cache = t_contentFolder;
  if (cache.ullSelectionId != m_ullSelectionId || cache.pContent != m_pScanContent.get()) {
    cache.ullSelectionId = m_ullSelectionId;
    cache.pContent = m_pScanContent.get();
    cache.bHasEntireRoot = false;
    cache.bFolderKnown = false;
  }
  if (cache.bHasEntireRoot && IsAtOrBelow(folder, cache.strEntireRoot)) return true;
  if (cache.bFolderKnown && cache.strFolder == folder) return cache.bEntirelyInContent;
  cache.strFolder.assign(folder);
  cache.bFolderKnown = true;
  cache.bEntirelyInContent = m_pScanContent->IsMatchEntireFolder(CFilterTermTestString(folder));
  if (cache.bEntirelyInContent) {
    cache.strEntireRoot.assign(folder);
    cache.bHasEntireRoot = true;
  }
  return cache.bEntirelyInContent;
}

bool CItemSelection::IsFiltered(const CItem& item, const std::string& strTestString) const {
  CAutoTimeCounter timer(EScanPerfCounterType::TIME_ISFILTERED);
  if (m_uExcludedAttributes != 0 && (item.GetAttributes() & m_uExcludedAttributes) != 0)
    return true;
  // Only the content set can take the entry (the usual case of a scan without filters): when
  // the entry's folder is entirely in content, the entry is too, and no test string is built.
  if (!HasItems(m_pSystemFilters) && !HasItems(m_pFilters) && !ZRLOG_ON(5) &&
      !(m_bBuiltInSystemProtectedFilesFilter && MayBeBuiltInSystemPath(strTestString))) {
    if (!HasItems(m_pScanContent) || IsFolderEntirelyInContent(strTestString)) return false;
  }
  CFilterTermTestString test(strTestString);
  // The log lines name the folder the entry was met in.
  auto folder = [&] { return FXString::EscapeControl(item.GetSourceFullyQualifiedParentFolder()); };
  if (HasItems(m_pScanContent) && !m_pScanContent->IsIn(test, CFilterSet::kAppliesAll)) {
    if (ZRLOG_ON(5))
      ZRLOG(5, "Not part of content, Folder=(%s) TestString=(%s)", folder().c_str(),
            test.GetStringWithLeadingBackslash().c_str());
    return true;
  }
  if (IsInSystemFilters(test)) {
    if (ZRLOG_ON(5))
      ZRLOG(5, "Filtered by system filter, Folder=(%s) TestString=(%s)", folder().c_str(),
            test.GetStringWithLeadingBackslash().c_str());
    return true;
  }
  if (HasItems(m_pFilters) && m_pFilters->IsIn(test, CFilterSet::kAppliesAll)) {
    if (ZRLOG_ON(5))
      ZRLOG(5, "Filtered by content filter, Folder=(%s) TestString=(%s)", folder().c_str(),
            test.GetStringWithLeadingBackslash().c_str());
    return true;
  }
  if (ZRLOG_ON(5))
    ZRLOG(5, "Not filtered, Folder=(%s) TestString=(%s)", folder().c_str(),
          test.GetStringWithLeadingBackslash().c_str());
  return false;
}

bool CItemSelection::IsMatchPossibleInFolder(const std::string& strFolder) const {
  CFilterTermTestString test(strFolder);
  if (HasItems(m_pScanContent) && !m_pScanContent->IsMatchPossibleInFolder(test)) {
    if (ZRLOG_ON(5))
      ZRLOG(5, "No matching possible in content, Folder=%s",
            FXString::EscapeControl(strFolder).c_str());
    return false;
  }
  if ((HasItems(m_pSystemFilters) && m_pSystemFilters->IsMatchEntireFolder(test)) ||
      (m_bBuiltInSystemProtectedFilesFilter &&
       GetBuiltInSystemProtectedFiles().IsMatchEntireFolder(test))) {
    if (ZRLOG_ON(5))
      ZRLOG(5, "System filter excludes all content, Folder=%s",
            FXString::EscapeControl(strFolder).c_str());
    return false;
  }
  if (HasItems(m_pFilters) && m_pFilters->IsMatchEntireFolder(test)) {
    if (ZRLOG_ON(5))
      ZRLOG(5, "Filter excludes all content, Folder=%s", FXString::EscapeControl(strFolder).c_str());
    return false;
  }
  return true;
}

