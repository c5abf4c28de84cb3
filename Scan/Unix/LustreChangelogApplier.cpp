#include "Scan/Unix/LustreChangelogApplier.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <memory>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Scan/Unix/LustreChangelogReader.h"
#include "Scan/Unix/ZrScanDBLustreRecord.h"

namespace {
constexpr size_t kParentCacheLimit = 65536;

std::string Esc(std::string_view text) { return FXString::EscapeControl(text); }

std::string Join(const std::string& strParent, const std::string& strName) {
  std::string strPath;
  strPath.reserve(strParent.size() + strName.size() + 1);
  strPath = strParent;
  if (strPath.empty() || strPath.back() != '/') strPath.push_back('/');
  strPath += strName;
  return strPath;
}

// A FID of one path: its record read from the tree is the FID's whole state. (Of a FID with
// several links the refresh reads the first path, which need not be the one just read.)
bool HasOnePath(const struct stat& st) { return S_ISDIR(st.st_mode) || st.st_nlink == 1; }

// A name that cannot be a path component would make a wrong key.
bool IsValidName(const std::string& strName) {
  return !strName.empty() && strName != "." && strName != ".." && strName.find('/') == std::string::npos &&
         strName.find('\0') == std::string::npos;
}
}  // namespace

CLustreChangelogApplier::CLustreChangelogApplier(CScanDbStore& store, LustreAPI& api, std::string strMount,
                                                 std::vector<std::string> lstRoots, CLustreHardlinkManager* pHardlinks)
    : m_store(store), m_api(api), m_strMount(std::move(strMount)), m_lstRoots(std::move(lstRoots)),
      m_pHardlinks(pHardlinks) {
  for (std::string& strRoot : m_lstRoots) strRoot = FXPath::RemoveTrailingDelimiters(strRoot);
}

CQiError CLustreChangelogApplier::ProcessChangelogs(const std::string& strFile, int64_t llFirst, int64_t llLast,
                                                    SCounts& counts) {
  CLustreChangelogReader reader;
  QI_RETURN_IF_ERROR(reader.Open(strFile, llFirst, llLast));
  CQiError firstError;
  CLustreChangelogRecord record;
  for (;;) {
    bool bEnd = false;
    CQiError error = reader.Next(record, bEnd);
    if (bEnd) {
      if (error.IsError()) return QI_PUSH(error);  // the file could not be read
      break;
    }
    ++counts.ullRecords;
    if (error.IsSuccess()) error = Apply(record, counts);
    if (error.IsError()) {
      ++counts.ullFailed;
      if (firstError.IsSuccess()) firstError = QI_PUSH(error);
    }
  }
  counts.llLastIndex = reader.GetLastIndex();
  CQiError flushError = Flush(counts);
  if (flushError.IsError() && firstError.IsSuccess()) firstError = QI_PUSH(flushError);
  if (firstError.IsError()) return QI_PUSH(firstError, "Cannot Process Changelogs");
  return CQiError();
}

CQiError CLustreChangelogApplier::Apply(const CLustreChangelogRecord& record, SCounts& counts) {
  bool bApplied = false;
  CQiError error = ApplyRecord(record, bApplied);
  if (error.IsError()) {
    ZRLOG(-1, "Changelog record %lld not applied, error=%s", static_cast<long long>(record.m_llIndex),
          error.AsString().c_str());
    return QI_PUSH(error);
  }
  if (record.m_eChange != kLustreModified) ++(bApplied ? counts.ullApplied : counts.ullIgnored);
  return CQiError();
}

bool CLustreChangelogApplier::IsInsideContent(const std::string& strPath) const {
  for (const std::string& strRoot : m_lstRoots)
    if (FXPath::IsAncestorOf(strRoot, strPath, true)) return true;
  return false;
}

CQiError CLustreChangelogApplier::ResolveParent(const std::string& strFid, std::string& strPath, EWhere& eWhere) {
  eWhere = EWhere::kInside;
  auto it = m_mapParents.find(strFid);
  if (it != m_mapParents.end()) {
    strPath = it->second;
    return CQiError();
  }
  CQiError error = m_store.LookupPathByFileId(strFid, strPath);
  if (error.IsSuccess()) {
    if (m_mapParents.size() >= kParentCacheLimit) m_mapParents.clear();
    m_mapParents.emplace(strFid, strPath);
    return CQiError();
  }
  if (!error.IsWin32(QiErrorCode::NotFound)) return QI_PUSH(error);
  // Not in the database: outside the content, unless the file system places it inside.
  LustreAPI::CLustreFID fid;
  std::vector<std::string> lstPaths;
  error = LustreAPI::CLustreFID::FromText(strFid, fid) ? m_api.GetPathFromFID(m_strMount, fid, lstPaths)
                                                       : QI_ERROR_WIN32(QiErrorCode::InvalidData, "Invalid FID");
  eWhere = EWhere::kOutside;
  if (error.IsWin32(QiErrorCode::NotFound)) return CQiError();
  QI_RETURN_IF_ERROR(error, "Cannot convert FID to Path due to %s", error.AsString().c_str());
  for (const std::string& strFound : lstPaths) {
    if (IsInsideContent(strFound))
      return QI_ERROR_WIN32(QiErrorCode::NotFound,
                            "The parent FID %s (%s) is not present in the Database. Possible Database corruption",
                            strFid.c_str(), Esc(strFound).c_str());
  }
  return CQiError();
}

CQiError CLustreChangelogApplier::AddPath(const std::string& strPath, const std::string& strFid, bool bFolder) {
  ZrScanDBLustreRecord record;
  bool bExists = false;
  record.FromPath(strPath, strFid, bFolder ? S_IFDIR : S_IFREG, bExists);
  CQiError error = m_store.Add(record);
  // A path still recorded (a replaced object) takes the new one's record.
  if (error.IsErrNo(EEXIST)) error = m_store.Update(record);
  if (error.IsError()) {
    ZRLOG(-1, bFolder ? "Cannot Add Folder Record to the Database %s" : "Cannot Add File Record to the Database %s",
          Esc(strPath).c_str());
    return QI_PUSH(error);
  }
  if (bExists && HasOnePath(record.GetStat())) m_setFresh.insert(strFid);
  if (!bFolder && m_pHardlinks != nullptr && record.GetStat().st_nlink > 1) m_pHardlinks->Add(strFid);
  ZRLOG(5, bFolder ? "Add Folder Record %s" : "Add File Record %s", Esc(strPath).c_str());
  return CQiError();
}

CQiError CLustreChangelogApplier::RemovePath(const std::string& strPath, bool bFolder) {
  CQiError error = m_store.Remove(strPath, bFolder);
  if (error.IsWin32(QiErrorCode::NotFound)) {
    // Nothing to remove: the database holds what the file system holds.
    if (bFolder) ZRLOG(1, "Cannot remove Folder since the Folder doesn't exist in the Database");
    else ZRLOG(1, "Cannot Remove File Record from the Database %s", Esc(strPath).c_str());
    return CQiError();
  }
  if (error.IsError()) {
    ZRLOG(-1, bFolder ? "Cannot Remove Folder Record to the Database %s. Possible Database Corruption."
                      : "Cannot Remove File Record from the Database %s",
          Esc(strPath).c_str());
    return QI_PUSH(error);
  }
  if (bFolder) ForgetParents();
  ZRLOG(5, bFolder ? "Remove Folder Record %s" : "Remove File Record %s", Esc(strPath).c_str());
  return CQiError();
}

CQiError CLustreChangelogApplier::ApplyRecord(const CLustreChangelogRecord& record, bool& bApplied) {
  bApplied = false;
  const LustreChangeType eChange = record.m_eChange;
  if (eChange == kLustreChangeNone) {
    if (record.m_eType == kLustreUnknownType)
      ZRLOG(1, "Unknown Lustre changelog record type %s in record %lld changes nothing",
            Esc(record.m_strTypeToken).c_str(), static_cast<long long>(record.m_llIndex));
    return CQiError();
  }
  if (eChange == kLustreModified) {
    ++m_mapModified[record.m_strTargetFID];
    return CQiError();
  }
  if (!record.HasParent() || !IsValidName(record.m_strName) ||
      (eChange == kLustreRenamed && !IsValidName(record.m_strOldName)))
    return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Invalid Changelog Line processed: record %lld",
                          static_cast<long long>(record.m_llIndex));
  if (eChange == kLustreRenamed) return Rename(record, bApplied);
  std::string strParent;
  EWhere eWhere;
  QI_RETURN_IF_ERROR(ResolveParent(record.m_strTargetParentFID, strParent, eWhere));
  if (eWhere == EWhere::kOutside) {
    ZRLOG(5, "Changelog record %lld lies outside the content", static_cast<long long>(record.m_llIndex));
    return CQiError();
  }
  const std::string strPath = Join(strParent, record.m_strName);
  m_setParents.insert(record.m_strTargetParentFID);
  switch (eChange) {
    case kLustreFileCreated:
    case kLustreHardlinkAdded:
      QI_RETURN_IF_ERROR(AddPath(strPath, record.m_strTargetFID, false));
      if (eChange == kLustreHardlinkAdded && m_pHardlinks != nullptr) m_pHardlinks->Add(record.m_strTargetFID);
      break;
    case kLustreFolderCreated: QI_RETURN_IF_ERROR(AddPath(strPath, record.m_strTargetFID, true)); break;
    case kLustreFileRemoved: QI_RETURN_IF_ERROR(RemovePath(strPath, false)); break;
    case kLustreFolderRemoved: QI_RETURN_IF_ERROR(RemovePath(strPath, true)); break;
    default:
      return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Unknown Lustre ChangeType %d", static_cast<int>(eChange));
  }
  bApplied = true;
  return CQiError();
}

CQiError CLustreChangelogApplier::RefreshByFid(const std::string& strFid, bool& bFound) {
  bFound = false;
  std::string strPath;
  CQiError error = m_store.LookupPathByFileId(strFid, strPath);
  if (error.IsWin32(QiErrorCode::NotFound)) return CQiError();
  if (error.IsError()) {
    ZRLOG(-1, "Cannot check whether the record exists in the Database %s", strFid.c_str());
    return QI_PUSH(error);
  }
  // Gone since (a later record says how): nothing to refresh.
  struct stat st {};
  if (lstat(strPath.c_str(), &st) != 0) return CQiError();
  bFound = true;
  error = m_store.UpdateState(CScanDbRecord(strPath, st, strFid));
  if (error.IsError()) {
    ZRLOG(-1, "Error in updating the record %s due to %s", Esc(strPath).c_str(), error.AsString().c_str());
    return QI_PUSH(error);
  }
  ZRLOG(5, "Update Record %s successfully", Esc(strPath).c_str());
  return CQiError();
}

CQiError CLustreChangelogApplier::Flush(SCounts& counts) {
  CQiError firstError;
  for (const auto& [strFid, ullRecords] : m_mapModified) {
    bool bFound = m_setFresh.count(strFid) != 0;
    CQiError error = bFound ? CQiError() : RefreshByFid(strFid, bFound);
    if (error.IsError()) {
      counts.ullFailed += ullRecords;
      if (firstError.IsSuccess()) firstError = QI_PUSH(error);
      continue;
    }
    if (!bFound)
      ZRLOG(5, "The Target FID %s is not present in the Database. Possible Database corruption/Record not found.",
            strFid.c_str());
    else
      ZRLOG(5, "The Target FID %s is present in the Database", strFid.c_str());
    (bFound ? counts.ullApplied : counts.ullIgnored) += ullRecords;
  }
  for (const std::string& strFid : m_setParents) {
    if (m_mapModified.count(strFid) != 0 || m_setFresh.count(strFid) != 0) continue;
    bool bFound = false;
    CQiError error = RefreshByFid(strFid, bFound);
    if (error.IsError() && firstError.IsSuccess()) firstError = QI_PUSH(error);
  }
  m_mapModified.clear();
  m_setParents.clear();
  m_setFresh.clear();
  return firstError;
}

CQiError CLustreChangelogApplier::Rename(const CLustreChangelogRecord& record, bool& bApplied) {
  std::string strOldParent, strNewParent;
  EWhere eOld, eNew;
  QI_RETURN_IF_ERROR(ResolveParent(record.m_strSourceParentFID, strOldParent, eOld));
  QI_RETURN_IF_ERROR(ResolveParent(record.m_strTargetParentFID, strNewParent, eNew));
  const std::string strOld = Join(strOldParent, record.m_strOldName);
  const std::string strNew = Join(strNewParent, record.m_strName);
  if (eOld == EWhere::kOutside && eNew == EWhere::kOutside) return CQiError();
  bApplied = true;
  if (eOld == EWhere::kInside) m_setParents.insert(record.m_strSourceParentFID);
  if (eNew == EWhere::kInside) m_setParents.insert(record.m_strTargetParentFID);
  if (eNew == EWhere::kOutside) return RemovePath(strOld, true);
  // A replaced target goes first.
  LustreAPI::CLustreFID victim;
  if (LustreAPI::CLustreFID::FromText(record.m_strTargetFID, victim) && !victim.IsZero()) {
    CQiError error = m_store.Remove(strNew, true);
    if (error.IsError() && !error.IsWin32(QiErrorCode::NotFound)) return QI_PUSH(error);
  }
  if (eOld == EWhere::kOutside) return AddSubtree(strNew);
  bool bFolder = false;
  CQiError error = m_store.Rename(strOld, strNew, nullptr, &bFolder);
  if (error.IsErrNo(EEXIST)) {
    ForgetParents();
    QI_RETURN_IF_ERROR(m_store.Remove(strNew, true));
    error = m_store.Rename(strOld, strNew, nullptr, &bFolder);
  }
  if (error.IsWin32(QiErrorCode::NotFound)) {
    ZRLOG(1, "Cannot rename %s to %s due to %s", Esc(strOld).c_str(), Esc(strNew).c_str(), error.AsString().c_str());
    return AddSubtree(strNew);
  }
  if (error.IsError()) {
    ZRLOG(-1, "Cannot rename %s to %s due to %s", Esc(strOld).c_str(), Esc(strNew).c_str(), error.AsString().c_str());
    return QI_PUSH(error);
  }
  ZRLOG(5, "Renaming Record from %s to %s", Esc(strOld).c_str(), Esc(strNew).c_str());
  if (m_pRenameList != nullptr &&
      fprintf(m_pRenameList, "Old:%s\tNew:%s\tFID:%s\n", Esc(strOld).c_str(), Esc(strNew).c_str(),
              Esc(record.m_strSourceFID).c_str()) < 0)
    return QI_ERROR_ERRNO(errno != 0 ? errno : EIO, "Cannot write the rename list");
  // A moved folder moves the paths of the parents cached below it.
  if (bFolder) ForgetParents();
  // The moved object's change time moved with it.
  struct stat st {};
  if (lstat(strNew.c_str(), &st) == 0) {
    QI_RETURN_IF_ERROR(m_store.Update(CScanDbRecord(strNew, st, record.m_strSourceFID)));
    if (HasOnePath(st)) m_setFresh.insert(record.m_strSourceFID);
  }
  return CQiError();
}

CQiError CLustreChangelogApplier::AddSubtree(const std::string& strPath) {
  struct stat st {};
  if (lstat(strPath.c_str(), &st) != 0) return CQiError();  // gone again: a later record removes it
  LustreAPI::CLustreFID fid;
  QI_RETURN_IF_ERROR(m_api.GetFIDFromPath(strPath, fid));
  CScanDbRecord record(strPath, st, fid.ToString());
  QI_RETURN_IF_ERROR(m_store.Update(record), "Cannot Add File Record to the Database %s", Esc(strPath).c_str());
  if (!S_ISDIR(st.st_mode)) {
    if (st.st_nlink > 1 && m_pHardlinks != nullptr) m_pHardlinks->Add(record.GetFileId());
    return CQiError();
  }
  std::unique_ptr<DIR, int (*)(DIR*)> pDir(opendir(strPath.c_str()), closedir);
  if (!pDir) return QI_ERROR_ERRNO(errno, "Error in Adding Folder %s", Esc(strPath).c_str());
  while (const struct dirent* pEntry = readdir(pDir.get())) {
    const std::string strName = pEntry->d_name;
    if (strName == "." || strName == "..") continue;
    QI_RETURN_IF_ERROR(AddSubtree(Join(strPath, strName)));
  }
  return CQiError();
}
