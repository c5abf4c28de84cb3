#include "Scan/EnumerateFiles.h"

#include <atomic>
#include <cerrno>
#include <string>
#include <string_view>

#include "Platform/AutoTimeCounter.h"
#include "Platform/BlockingCallWatch.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Platform/ScanPerformanceCounterSet.h"
#include "Scan/BasicPathEnumerator.h"
#include "Scan/FabricatedItem.h"
#include "Scan/ScanEngine.h"
#include "Scan/ScanFailureConsumer.h"

namespace {
// The last folder a thread asked about and the answer, for the entries of one folder that come
// one after another. Traversals get ids that are never reused, so a traversal made at the address
// of a destroyed one never takes the old one's answer.
std::atomic<uint64_t> g_ullNextTraversalId{1};
struct SContentFolderCache {
  uint64_t ullTraversalId = 0;
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

CEnumerateFiles::CEnumerateFiles(CScanEngine* pEngine, CPathEnumeratorPtr pEnumerator)
    : m_pEngine(pEngine), m_ullTraversalId(g_ullNextTraversalId.fetch_add(1, std::memory_order_relaxed)) {
  if (pEnumerator) SetPathEnumerator(std::move(pEnumerator));
}

CEnumerateFiles::~CEnumerateFiles() = default;

void CEnumerateFiles::SetWorkUnitBag(CBagPtr pBag) { SetBag(std::move(pBag)); }

const CFilterSet& CEnumerateFiles::GetBuiltInSystemProtectedFiles() {
  static CFilterSet set;
  static const bool bFilled = [] {
    for (const char* szPath : {"/proc", "/sys", "/dev", "/run"})
      (void)set.AddFilterItem(BFilterNodeState::Include, szPath);
    return true;
  }();
  (void)bFilled;
  return set;
}

bool CEnumerateFiles::IsInSystemFilters(const CFilterTermTestString& test) const {
  if (HasItems(m_pSystemFilters) && m_pSystemFilters->IsIn(test, CFilterSet::kAppliesAll))
    return true;
  return m_bBuiltInSystemProtectedFilesFilter &&
         GetBuiltInSystemProtectedFiles().IsIn(test, CFilterSet::kAppliesAll);
}

// Whether a path can be in the built-in system filter: its items are the plain, case-sensitive
// paths /proc, /sys, /dev and /run, so only paths whose first component is one of those names
// can match. Lets the common entry skip building a test string.
bool CEnumerateFiles::MayBeBuiltInSystemPath(const std::string& strPath) {
  size_t nStart = 0;
  while (nStart < strPath.size() && strPath[nStart] == '/') ++nStart;
  if (nStart == 0) return true;  // not absolute: leave it to the filter set
  const size_t nEnd = strPath.find('/', nStart);
  const std::string_view first(strPath.data() + nStart,
                               (nEnd == std::string::npos ? strPath.size() : nEnd) - nStart);
  return first == "proc" || first == "sys" || first == "dev" || first == "run";
}


bool CEnumerateFiles::IsFolderEntirelyInContent(const std::string& strPath) const {
  const size_t nSlash = strPath.rfind('/');
  if (nSlash == std::string::npos) return false;
  const std::string_view folder(strPath.data(), nSlash == 0 ? 1 : nSlash);
  SContentFolderCache& cache = t_contentFolder;
  if (cache.ullTraversalId != m_ullTraversalId || cache.pContent != m_pScanContent.get()) {
    cache.ullTraversalId = m_ullTraversalId;
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

bool CEnumerateFiles::IsFiltered(CItemPtr& pItem, const std::string& strTestString) {
  CAutoTimeCounter timer(EScanPerfCounterType::TIME_ISFILTERED);
  if (m_uExcludedAttributes != 0 && (pItem->GetAttributes() & m_uExcludedAttributes) != 0)
    return true;
  // Only the content set can take the entry (the usual case of a scan without filters): when
  // the entry's folder is entirely in content, the entry is too, and no test string is built.
  if (!HasItems(m_pSystemFilters) && !HasItems(m_pFilters) && !ZRLOG_ON(5) &&
      !(m_bBuiltInSystemProtectedFilesFilter && MayBeBuiltInSystemPath(strTestString))) {
    if (!HasItems(m_pScanContent) || IsFolderEntirelyInContent(strTestString)) return false;
  }
  CFilterTermTestString test(strTestString);
  // The log lines name the folder the entry was met in.
  auto folder = [&] { return FXString::EscapeControl(pItem->GetSourceFullyQualifiedParentFolder()); };
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

bool CEnumerateFiles::IsMatchPossibleInFolder(CItemPtr& /*pItem*/, const std::string& strFolder) {
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

CQiError CEnumerateFiles::OnFolder(const std::string& strInput, const std::string& strOutput,
                                   CItemPtr& pItem) {
  if (!IsFiltered(pItem, strOutput)) {
    if (m_pEngine != nullptr) QI_RETURN_IF_ERROR(m_pEngine->ScanQueryCallback(pItem));
  } else if (!IsMatchPossibleInFolder(pItem, strOutput)) {
    return CQiError();
  }
  QI_RETURN_IF_ERROR(CScanTraverseFolder::OnFolder(strInput, strOutput, pItem));
  return CQiError();
}

CQiError CEnumerateFiles::OnFile(const std::string& strInput, const std::string& strOutput,
                                 CItemPtr& pItem) {
  if (m_pEngine != nullptr && !IsFiltered(pItem, strOutput))
    QI_RETURN_IF_ERROR(m_pEngine->ScanQueryCallback(pItem));
  QI_RETURN_IF_ERROR(CScanTraverseFolder::OnFile(strInput, strOutput, pItem));
  return CQiError();
}

CQiError CEnumerateFiles::OnReparsePointFile(const std::string& strInput,
                                             const std::string& strOutput, CItemPtr& pItem) {
  if (m_pEngine != nullptr && !IsFiltered(pItem, strOutput))
    QI_RETURN_IF_ERROR(m_pEngine->ScanQueryCallback(pItem));
  QI_RETURN_IF_ERROR(CScanTraverseFolder::OnReparsePointFile(strInput, strOutput, pItem));
  return CQiError();
}

CQiError CEnumerateFiles::OnFailedContent(const std::string& strInput,
                                          const std::string& strOutput, bool /*bIsFile*/,
                                          const CQiError& error) {
  CAutoTimeCounter timer(EScanPerfCounterType::TIME_FAILED_CONTENT);
  CScannerCallbackPtr pCallback = m_pEngine != nullptr ? m_pEngine->GetScannerCallback() : nullptr;
  CItemConsumerPtr pConsumer;
  if (!pCallback || pCallback->GetScanFailureConsumer(pConsumer).IsError() || !pConsumer) {
    ZRLOG(5, "Not supported");
    return CQiError();
  }
  QI_RETURN_IF_ERROR(WriteFailureRecord(pConsumer, GetBag(), strInput, strOutput, error));
  return CQiError();
}

CQiError CEnumerateFiles::WriteFailureRecord(const CItemConsumerPtr& pConsumer,
                                             const CBagPtr& pBag, const std::string& strLocalPath,
                                             const std::string& strSourcePath,
                                             const CQiError& error) {
  static FXMutex s_mutexOtherConsumers;
  // The record describes the path as it is now (the item may know nothing about it), except a
  // path that did not answer: describing it would block again.
  CItemPtr pItem;
  if (!error.IsErrNo(ETIMEDOUT)) {
    CBasicPathEnumerator enumerator;
    (void)enumerator.GetItemByPath(pBag, strLocalPath, strSourcePath, pItem);
    // A worker given up while the path was described no longer reports anything.
    if (CBlockingCallWatch::IsAbandoned())
      return QI_ERROR_WIN32(QiErrorCode::OperationAborted, "Traversal worker was given up");
  }
  // A path the enumerator cannot describe (for example one beyond PATH_MAX off the long path
  // handler's thread) is still recorded, by name alone: a lost record is a file silently left
  // out of the backup.
  if (!pItem) pItem = std::make_shared<CFabricatedItem>(pBag, strLocalPath, strSourcePath);
  QI_RETURN_IF_ERROR(pItem->GetItemBag()->Write(CScanFailureConsumer::kErrorCodeKey,
                                                static_cast<int>(error.GetCode())));
  auto* pFailures = dynamic_cast<CScanFailureConsumer*>(pConsumer.get());
  FXMutex::CScopedLock lock(pFailures != nullptr ? pFailures->GetMutex() : s_mutexOtherConsumers);
  QI_RETURN_IF_ERROR(pConsumer->Process(pItem));
  return CQiError();
}

CQiError CEnumerateFiles::OnInitializeWorker() {
  // Makes the worker's per-volume counters exist from its start, so that the periodic counter
  // lines list every worker, busy or not.
  (void)CScanPerformanceCounter::GetThreadCounter(GetPrivate()->GetVolumeName());
  return CQiError();
}
