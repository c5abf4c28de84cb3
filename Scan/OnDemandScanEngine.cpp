#include "Scan/OnDemandScanEngine.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <unordered_set>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXFile.h"
#include "Platform/FXPath.h"
#include "Platform/FXPathVolume.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Platform/MountPathInfo.h"
#include "Platform/ZRDebugFunction.h"
#include "Scan/FabricatedItem.h"
#include "Scan/OnDemandEnumerateFiles.h"
#include "Scan/ScanFailureConsumer.h"
#include "Scan/ScannerConfigurationBagId.h"

namespace {
std::string Esc(const std::string& strText) { return FXString::EscapeControl(strText); }

// True when a traversal failed because its folder is gone: the failure is that of a missing
// folder, and the path is no longer a folder. Any other failure of the traversal stands.
bool HasVanished(const std::string& strPath, const CQiError& error) {
  if (!error.IsErrNo(ENOENT) && !error.IsErrNo(ENOTDIR)) return false;
  struct stat st {};
  return FXFile::zrlstat(strPath, st) != 0 || !S_ISDIR(st.st_mode);
}

bool HasWildcard(const std::string& strPath) {
  return strPath.find_first_of("*?[") != std::string::npos;
}

// The plain form of an absolute path: repeated and trailing delimiters and "." components
// removed ("/a//b/./c/" is "/a/b/c"). ".." stays: what it names depends on links. Anything else
// (a relative path) is returned as it is.
std::string PlainPath(const std::string& strPath) {
  if (strPath.empty() || strPath.front() != FXPath::kDelimiter) return strPath;
  std::string strPlain;
  strPlain.reserve(strPath.size());
  for (size_t start = 0; start < strPath.size();) {
    size_t end = strPath.find(FXPath::kDelimiter, start);
    if (end == std::string::npos) end = strPath.size();
    const std::string_view name = std::string_view(strPath).substr(start, end - start);
    if (!name.empty() && name != ".") {
      strPlain.push_back(FXPath::kDelimiter);
      strPlain.append(name);
    }
    start = end + 1;
  }
  return strPlain.empty() ? std::string(1, FXPath::kDelimiter) : strPlain;
}

// Frees the buffer of getline.
struct SLineBuffer {
  char* pLine = nullptr;
  size_t nSize = 0;
  ~SLineBuffer() { free(pLine); }
};
}  // namespace

COnDemandScanEngine::COnDemandScanEngine() = default;

COnDemandScanEngine::~COnDemandScanEngine() = default;

std::string COnDemandScanEngine::getDescription() { return "OnDemandScanEngine"; }

void COnDemandScanEngine::SetBlackListScanContent(
    const std::vector<std::string>& lstBlackListContent) {
  m_lstBlackListContent = lstBlackListContent;
}

bool COnDemandScanEngine::IsAutoExpandDir() {
  bool bAutoExpand = true;
  if (m_pScannerCallback &&
      m_pScannerCallback->GetParameter(kParamAutoExpandDirs, bAutoExpand).IsError())
    bAutoExpand = true;
  return bAutoExpand;
}

CQiError COnDemandScanEngine::Process() {
  ZRDEBUG_FUNCTION(1);
  return ProcessVolumesOfMedium();
}

CQiError COnDemandScanEngine::ProcessVolumeWorkUnit(CVolumeWorkUnitPtr pVolumeUnit) {
  return ProcessWorkUnitsOfVolume(pVolumeUnit, kEngineTag);
}

CQiError COnDemandScanEngine::ProcessWorkUnit(CWorkUnitPtr pWorkUnit) {
  ZRDEBUG_FUNCTION(2);
  if (!pWorkUnit) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "No work unit");
  if (ZRLOG_ON(2)) {
    ZRLOG(2, "WorkUnit : SourceVolumeName=%s, LocalVolumeName=%s",
          Esc(pWorkUnit->GetSourceVolumeName()).c_str(),
          Esc(pWorkUnit->GetLocalVolumeName()).c_str());
    for (const CScanPathPtr& pScanPath : pWorkUnit->GetScanPaths())
      ZRLOG(2, "WorkUnit :SourceScanPath=%s, LocalScanPath=%s",
            Esc(pScanPath->GetSourceScanPath()).c_str(),
            Esc(pScanPath->GetLocalScanPath()).c_str());
  }

  // The volume whose output handler is open; empty until the first path needs one. Every way
  // out closes the handler.
  std::string strOpenVolume;
  struct SCloseGuard {
    COnDemandScanEngine* pEngine;
    ~SCloseGuard() {
      if (!pEngine->GetOutputHandler()) return;
      CQiError error = pEngine->CloseOutputHandler();
      if (error.IsError())
        ZRLOG(-1, "CloseOutputHandler failed, error=%s", error.AsString().c_str());
    }
  } guard{this};

  for (const CScanPathPtr& pScanPath : pWorkUnit->GetScanPaths()) {
    const std::string& strContentFile = pScanPath->GetLocalScanPath();
    FXFile::FILEPtr pFile;
    // A folder opens for reading, but every read of it fails (EISDIR): it is no content file.
    struct stat stFile {};
    if (FXFile::zrfopen(strContentFile, "r", pFile).IsError() ||
        (fstat(fileno(pFile.get()), &stFile) == 0 && S_ISDIR(stFile.st_mode))) {
      ZRLOG(0, "Unable open content file (%s), not processing it.", Esc(strContentFile).c_str());
      continue;
    }
    // The whole file first: whether a path is scanned by its own line or by a listed folder's
    // traversal depends on the lines that follow it too.
    std::vector<std::string> lstLines;
    SContentList list;
    SLineBuffer buffer;
    ssize_t nRead;
    errno = 0;
    while ((nRead = getline(&buffer.pLine, &buffer.nSize, pFile.get())) >= 0) {
      std::string strLine(buffer.pLine, static_cast<size_t>(nRead));
      if (!strLine.empty() && strLine.back() == '\n') strLine.pop_back();
      lstLines.push_back(PlainPath(strLine));
      list.Add(lstLines.back());
      errno = 0;
    }
    // The lines read before a read error are scanned; the error ends the unit after them.
    CQiError readError;
    if (ferror(pFile.get()) != 0) {
      readError = QI_ERROR_ERRNO(errno != 0 ? errno : EIO, "Failed to read content file (%s)",
                                 Esc(strContentFile).c_str());
    }
    pFile.reset();
    std::unordered_set<std::string> setScanned;
    for (const std::string& strPath : lstLines) {
      if (!strPath.empty() && strPath != "/" && !setScanned.insert(strPath).second) {
        if (ZRLOG_ON(3)) ZRLOG(3, "Content [%s] is listed again, scanned once", Esc(strPath).c_str());
        continue;
      }
      CQiError error = ProcessContentPath(pWorkUnit, strPath, list, strOpenVolume);
      if (error.IsError()) return QI_PUSH(error, "Content file (%s)", Esc(strContentFile).c_str());
    }
    if (readError.IsError()) return readError;
  }

  if (GetOutputHandler()) QI_RETURN_IF_ERROR(CloseOutputHandler());
  return CQiError();
}

void COnDemandScanEngine::SContentList::Add(const std::string& strPath) {
  if (!FXPath::IsAbsolute(strPath) || strPath == "/") return;
  if (!setListed.insert(strPath).second) return;
  for (size_t pos = strPath.rfind(FXPath::kDelimiter); pos != std::string::npos && pos > 0;
       pos = strPath.rfind(FXPath::kDelimiter, pos - 1)) {
    if (!setAboveListed.insert(strPath.substr(0, pos)).second) break;  // and all above it
  }
}

bool COnDemandScanEngine::SContentList::IsBelowListedFolder(const std::string& strPath) const {
  for (size_t pos = strPath.rfind(FXPath::kDelimiter); pos != std::string::npos && pos > 0;
       pos = strPath.rfind(FXPath::kDelimiter, pos - 1)) {
    const std::string strAbove = strPath.substr(0, pos);
    struct stat st {};
    if (IsListed(strAbove) && FXFile::zrlstat(strAbove, st) == 0 && S_ISDIR(st.st_mode)) return true;
  }
  return false;
}

bool COnDemandScanEngine::SContentList::IsAtOrBelowListed(const std::string& strPath,
                                                          const std::string& strTop) const {
  for (size_t end = strPath.size(); end > strTop.size() && end != std::string::npos;
       end = strPath.rfind(FXPath::kDelimiter, end - 1)) {
    if (IsListed(strPath.substr(0, end))) return true;
  }
  return false;
}

CQiError COnDemandScanEngine::ProcessContentPath(const CWorkUnitPtr& pWorkUnit,
                                                 const std::string& strPath,
                                                 const SContentList& list,
                                                 std::string& strOpenVolume) {
  // Empty lines carry no path.
  if (strPath.empty()) return CQiError();
  if (FXPath::RemoveTrailingDelimiters(strPath) == "/") {
    ZRLOG(0, "Not Processing [%s] as content.", Esc(strPath).c_str());
    return CQiError();
  }
  if (strPath.front() != FXPath::kDelimiter) {
    CQiError error =
        QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Content path [%s] is not an absolute path",
                       Esc(strPath).c_str());
    ZRLOG(-1, "NOT adding content [%s], error=%s", Esc(strPath).c_str(), error.AsString().c_str());
    ReportPathFailure(pWorkUnit, strPath, error);
    return CQiError();
  }
  struct stat st {};
  if (FXFile::zrlstat(strPath, st) != 0) {
    const int iErrNo = errno;
    CQiError error = QI_ERROR_ERRNO(iErrNo, "Content path [%s]", Esc(strPath).c_str());
    if (iErrNo == ENOENT || iErrNo == ENOTDIR) {
      ZRLOG(0, "Path does not exist, NOT adding content [%s]", Esc(strPath).c_str());
    } else {
      ZRLOG(-1, "NOT adding content [%s], error=%s", Esc(strPath).c_str(),
            error.AsString().c_str());
    }
    ReportPathFailure(pWorkUnit, strPath, error);
    return CQiError();
  }

  // A symbolic link is an entry of its folder: it belongs to the folder's volume, wherever it
  // points (and whether or not its target can be reached at all).
  const std::string strVolumeOf = S_ISLNK(st.st_mode) ? FXPath::GetParent(strPath) : strPath;
  std::string strVolume;
  QI_RETURN_IF_ERROR(FXPathVolume::ZRGetVolumeNameForVolumeMountPoint(strVolumeOf, strVolume),
                     "Volume lookup failed for [%s]", Esc(strPath).c_str());
  strVolume = FXPath::AddTrailingDelimiter(strVolume);
  if (ZRLOG_ON(5))
    ZRLOG(5, "For scan path = [%s] Source volume  = [%s], current volume path = [%s]",
          Esc(strPath).c_str(), Esc(pWorkUnit->GetSourceVolumeName()).c_str(),
          Esc(strVolume).c_str());

  if (!S_ISDIR(st.st_mode)) {
    QI_RETURN_IF_ERROR(SwitchOutputHandler(strPath, strVolume, strOpenVolume));
    QI_RETURN_IF_ERROR(TraverseScanPath(strPath, {}, pWorkUnit));
    return CQiError();
  }

  if (ZRLOG_ON(5))
    ZRLOG(5, "Content [%s] is a directory, check nested mount points.", Esc(strPath).c_str());
  std::vector<SContentEntry> lstEntries;
  // Mounts below the folder that get no entry (pseudo file systems, stale mounts) are kept out
  // of every traversal of its entries.
  std::vector<std::string> lstLeftOut;
  QI_RETURN_IF_ERROR(MountPathInfo::expandContentPathByVolumes(strPath, lstEntries, lstLeftOut),
                     "expandContentPathByVolumes failed");
  // A folder below another listed folder is left out of that one's traversal: its own line
  // reports it, as that traversal would have.
  const bool bReportTop = list.IsBelowListedFolder(strPath);
  for (const SContentEntry& entry : lstEntries) {
    const std::string& strLocal = entry.m_strLocalMountPath;
    if (FXPath::IsDescendantOf(strLocal, strPath) && list.IsAtOrBelowListed(strLocal, strPath)) {
      if (ZRLOG_ON(5))
        ZRLOG(5, "Volume [%s] below [%s] is left to its own content line", Esc(strLocal).c_str(),
              Esc(strPath).c_str());
      continue;
    }
    if (ZRLOG_ON(5))
      ZRLOG(5, "Traversing path [%s] for source path [%s]", Esc(strLocal).c_str(),
            Esc(strPath).c_str());
    QI_RETURN_IF_ERROR(SwitchOutputHandler(
        strPath, FXPath::AddTrailingDelimiter(entry.m_strVolumeName), strOpenVolume));
    // The volumes below this entry are left to their own entries.
    std::vector<std::string> lstNested;
    for (const SContentEntry& other : lstEntries) {
      if (FXPath::IsAncestorOf(strLocal, other.m_strLocalMountPath))
        lstNested.push_back(other.m_strLocalMountPath);
    }
    if (ZRLOG_ON(5)) ZRLOG(5, "Traversing path [%s]", Esc(strLocal).c_str());
    QI_RETURN_IF_ERROR(TraverseScanPath(strLocal, lstNested, lstLeftOut,
                                        list.HasListedBelow(strLocal) ? &list : nullptr,
                                        bReportTop && strLocal == strPath, pWorkUnit));
  }
  return CQiError();
}

CQiError COnDemandScanEngine::SwitchOutputHandler(const std::string& strScanPath,
                                                  const std::string& strVolume,
                                                  std::string& strOpenVolume) {
  if (strVolume == strOpenVolume) return CQiError();
  if (!strOpenVolume.empty()) {
    ZRLOG(0,
          "Changing output handler. Original scan path = [%s], current volume = [%s], new volume = "
          "[%s]",
          Esc(strScanPath).c_str(), Esc(strOpenVolume).c_str(), Esc(strVolume).c_str());
    // A callback that left the handler unconfigured has nothing open.
    if (GetOutputHandler())
      QI_RETURN_IF_ERROR(CloseOutputHandler(), "Volume=[%s]", Esc(strOpenVolume).c_str());
  }
  strOpenVolume.clear();
  QI_RETURN_IF_ERROR(OpenOutputHandler(strVolume), "Volume=[%s]", Esc(strVolume).c_str());
  strOpenVolume = strVolume;
  return CQiError();
}

CQiError COnDemandScanEngine::TraverseScanPath(const std::string& strPath,
                                               const std::vector<std::string>& lstNestedVolumes,
                                               CWorkUnitPtr pWorkUnit) {
  return TraverseScanPath(strPath, lstNestedVolumes, {}, nullptr, false, std::move(pWorkUnit));
}

CQiError COnDemandScanEngine::TraverseScanPath(const std::string& strPath,
                                               const std::vector<std::string>& lstNestedVolumes,
                                               const std::vector<std::string>& lstIgnoredMounts,
                                               const SContentList* pList, bool bReportTop,
                                               CWorkUnitPtr pWorkUnit) {
  if (!pWorkUnit) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "No work unit");
  if (ZRLOG_ON(5)) ZRLOG(5, "Traversing path [%s]", Esc(strPath).c_str());
  COnDemandEnumerateFiles traversal(this);
  CPathEnumeratorPtr pEnumerator = traversal.GetPathEnumerator();
  CItemPtr pItem;
  CQiError error = pEnumerator->GetItemByPath(pWorkUnit->GetBag(), strPath, strPath, pItem);
  if (error.IsError() || !pItem) {
    if (error.IsSuccess())
      error = QI_ERROR_WIN32(QiErrorCode::InvalidHandle, "No item for the path");
    ZRLOG(-1, "Path [%s] not found, error=%s", Esc(strPath).c_str(), error.AsString().c_str());
    ReportPathFailure(pWorkUnit, strPath, error);
    return CQiError();
  }

  const bool bFolder = pItem->IsFolder();
  if (bFolder) {
    if (ZRLOG_ON(2))
      ZRLOG(2, "Will scan local folder [%s] for source path [%s]", Esc(strPath).c_str(),
            Esc(strPath).c_str());
    traversal.AddFolderToList(pItem, strPath, strPath);
  }
  traversal.SetExcludedAttributes(m_uExcludedAttributes);
  traversal.SetWorkUnitBag(pWorkUnit->GetBag());
  traversal.SetScanContent(pWorkUnit->GetScanContent());
  traversal.SetFilters(pWorkUnit->GetFilters());
  traversal.SetSystemFilters(pWorkUnit->GetSystemFilters());
  traversal.SetOnDemandFilters(lstNestedVolumes);
  QI_RETURN_IF_ERROR(traversal.SetIgnoredMountPaths(lstIgnoredMounts));
  if (pList != nullptr) traversal.SetListedPaths(&pList->setListed, strPath);
  traversal.SetAbortCheck(m_pScannerCallback.get());
  traversal.SetMaxWorkers(1);
  bool bTopLevel = false;
  if (m_pScannerCallback)
    (void)m_pScannerCallback->GetParameter(SXScannerConfigurationBagId::idProcessTopLevelContent,
                                           bTopLevel);
  if (bTopLevel || bReportTop) traversal.SetProcessTopLevelContentItem(true);

  CFilterSetPtr pBlackList;
  error = ConfigureBlackListFilter(strPath, pBlackList);
  if (error.IsError()) {
    ZRLOG(-1, "Failed to configure BlackListContent for [%s], error [%s]", Esc(strPath).c_str(),
          error.AsString().c_str());
    pBlackList.reset();
  } else {
    traversal.SetBlackListFilter(pBlackList);
  }
  // The path itself may be black-listed (an entry at or above it).
  if (pBlackList && !pBlackList->IsEmpty() && pBlackList->IsIn(CFilterTermTestString(strPath))) {
    if (ZRLOG_ON(5)) ZRLOG(5, "Filtered by BlackList filter, Folder=(%s)", Esc(strPath).c_str());
    return CQiError();
  }

  if (bFolder) {
    if (ZRLOG_ON(5)) ZRLOG(5, "Content = %s is a directory", Esc(strPath).c_str());
    if (!IsAutoExpandDir()) return CQiError();
    error = traversal.Traverse();
    if (error.IsError() && HasVanished(strPath, error)) {
      // Gone (or replaced) since it was described: skipped like a path that does not exist.
      // The traversal has recorded the failure of its listing already.
      ZRLOG(0, "Path does not exist, NOT adding content [%s]", Esc(strPath).c_str());
      return CQiError();
    }
  } else {
    error = ScanQueryCallback(pItem);
  }
  if (error.IsError()) {
    if (error.IsWin32(QiErrorCode::OperationAborted)) return QI_PUSH(error);
    return QI_PUSH(error, "Traverse failed, strScanPath=%s, LocalVolumeName=%s, Error:%s",
                   Esc(strPath).c_str(), Esc(pWorkUnit->GetLocalVolumeName()).c_str(),
                   error.AsString().c_str());
  }
  return CQiError();
}

CQiError COnDemandScanEngine::ConfigureBlackListFilter(const std::string& strScanPath,
                                                       CFilterSetPtr& pFilter) {
  pFilter = std::make_shared<CFilterSet>();
  const std::string strPath = FXPath::RemoveTrailingDelimiters(strScanPath);
  for (const std::string& strEntry : m_lstBlackListContent) {
    if (strEntry.empty()) continue;
    const std::string strBlack = FXPath::RemoveTrailingDelimiters(strEntry);
    const bool bApplies = HasWildcard(strBlack) || FXPath::IsAncestorOf(strBlack, strPath, true) ||
                          FXPath::IsAncestorOf(strPath, strBlack);
    if (!bApplies) continue;
    QI_RETURN_IF_ERROR(pFilter->AddFilterItem(BFilterNodeState::Include, strBlack),
                       "BlackListContent [%s]", Esc(strEntry).c_str());
    if (ZRLOG_ON(5))
      ZRLOG(5, "Added BlackListContent [%s] for ScanPath [%s]", Esc(strEntry).c_str(),
            Esc(strScanPath).c_str());
  }
  return CQiError();
}

CQiError COnDemandScanEngine::ReportScanFailure(CItemPtr pItem, const CQiError& error) {
  if (!pItem) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "No item to report");
  CItemConsumerPtr pConsumer;
  if (!m_pScannerCallback || m_pScannerCallback->GetScanFailureConsumer(pConsumer).IsError() ||
      !pConsumer)
    return QI_ERROR_WIN32(QiErrorCode::NotSupported, "Reporting scan failures is not supported");
  QI_RETURN_IF_ERROR(pItem->GetItemBag()->Write(CScanFailureConsumer::kErrorCodeKey,
                                                static_cast<int>(error.GetCode())));
  // Traversal workers write failure records under the consumer's own mutex; so does this.
  CQiError result;
  if (auto* pFailures = dynamic_cast<CScanFailureConsumer*>(pConsumer.get())) {
    FXMutex::CScopedLock lock(pFailures->GetMutex());
    result = pConsumer->Process(pItem);
  } else {
    result = pConsumer->Process(pItem);
  }
  if (result.IsError()) {
    ZRLOG(-1, "Failed to report into scan failures, error='%s'", result.AsString().c_str());
    return QI_PUSH(result);
  }
  return CQiError();
}

void COnDemandScanEngine::ReportPathFailure(const CWorkUnitPtr& pWorkUnit,
                                            const std::string& strPath, const CQiError& error) {
  // The item as far as the path can be described; a vanished path is recorded by name alone.
  COnDemandEnumerateFiles traversal(this);
  CItemPtr pItem;
  (void)traversal.GetPathEnumerator()->GetItemByPath(pWorkUnit->GetBag(), strPath, strPath, pItem);
  if (!pItem) pItem = std::make_shared<CFabricatedItem>(pWorkUnit->GetBag(), strPath, strPath);
  CQiError result = ReportScanFailure(pItem, error);
  // Not ending the unit: the path is skipped, but never without a line in the log.
  if (result.IsError() && !result.IsWin32(QiErrorCode::OperationAborted))
    ZRLOG(-1, "Scan failure of [%s] not recorded, error=%s", Esc(strPath).c_str(),
          result.AsString().c_str());
}
