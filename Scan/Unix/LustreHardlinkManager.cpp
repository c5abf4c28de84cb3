#include "Scan/Unix/LustreHardlinkManager.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "Platform/FXFile.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Scan/Unix/ZrScanDBLustreRecord.h"

namespace {
std::string Esc(const std::string& strText) { return FXString::EscapeControl(strText); }
}  // namespace

void CLustreHardlinkManager::Add(const std::string& strFid) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_setFids.insert(strFid);
}

void CLustreHardlinkManager::Clear() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_setFids.clear();
}

size_t CLustreHardlinkManager::GetCount() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_setFids.size();
}

CQiError CLustreHardlinkManager::SaveData(const std::string& strFile) const {
  std::string strText;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const std::string& strFid : m_setFids) strText += strFid + "\n";
  }
  QI_RETURN_IF_ERROR(FXFile::ReplaceWithText(strFile, strText));
  return CQiError();
}

CQiError CLustreHardlinkManager::LoadData(const std::string& strFile) {
  std::set<std::string> setFids;
  FILE* pFile = fopen(strFile.c_str(), "re");
  if (pFile == nullptr) {
    if (errno != ENOENT) return QI_ERROR_ERRNO(errno, "Cannot open %s", Esc(strFile).c_str());
  } else {
    char* pLine = nullptr;
    size_t nSize = 0;
    ssize_t nRead;
    CQiError error;
    while (error.IsSuccess() && (nRead = getline(&pLine, &nSize, pFile)) > 0) {
      std::string_view line(pLine, static_cast<size_t>(nRead));
      if (line.back() == '\n') line.remove_suffix(1);
      LustreAPI::CLustreFID fid;
      if (!LustreAPI::CLustreFID::FromText(line, fid))
        error = QI_ERROR_WIN32(QiErrorCode::InvalidData, "Invalid FID [%s] in %s",
                               FXString::EscapeControl(line).c_str(), Esc(strFile).c_str());
      else
        setFids.insert(fid.ToString());
    }
    free(pLine);
    fclose(pFile);
    QI_RETURN_IF_ERROR(error);
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  m_setFids = std::move(setFids);
  return CQiError();
}

CQiError CLustreHardlinkManager::ProcessHardLinks(CScanDbStore& store, LustreAPI& api, const std::string& strMount,
                                                  const std::vector<std::string>& lstRoots) {
  std::set<std::string> setFids;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    setFids = m_setFids;
  }
  CQiError firstError;
  std::set<std::string> setSingle;
  for (const std::string& strFid : setFids) {
    LustreAPI::CLustreFID fid;
    std::vector<std::string> lstPaths;
    CQiError error = LustreAPI::CLustreFID::FromText(strFid, fid)
                         ? api.GetPathFromFID(strMount, fid, lstPaths)
                         : QI_ERROR_WIN32(QiErrorCode::InvalidData, "Invalid FID %s", strFid.c_str());
    if (error.IsError()) {
      // A file whose last link is gone has nothing left to refresh.
      if (error.IsWin32(QiErrorCode::NotFound)) {
        setSingle.insert(strFid);
        continue;
      }
      ZRLOG(-1, "Cannot convert FID to Path due to %s", error.AsString().c_str());
      if (firstError.IsSuccess()) firstError = QI_PUSH(error);
      continue;
    }
    if (lstPaths.size() <= 1) setSingle.insert(strFid);
    for (const std::string& strPath : lstPaths) {
      if (lstPaths.size() == 1)
        ZRLOG(5, "[FID]=[%s] Link-Count=[1] [Path]=[%s]", strFid.c_str(), Esc(strPath).c_str());
      else
        ZRLOG(5, "[FID]=[%s] Link-Count=[%d] [Path]=[%s]", strFid.c_str(), static_cast<int>(lstPaths.size()),
              Esc(strPath).c_str());
      bool bInside = false;
      for (const std::string& strRoot : lstRoots) bInside = bInside || FXPath::IsAncestorOf(strRoot, strPath, true);
      if (!bInside) continue;
      ZrScanDBLustreRecord record;
      bool bExists = false;
      record.FromPath(strPath, strFid, S_IFREG, bExists);
      if (!bExists) continue;
      error = store.Update(record);
      if (error.IsError()) {
        ZRLOG(-1, "Cannot Add File Record to the Database %s", Esc(strPath).c_str());
        if (firstError.IsSuccess()) firstError = QI_PUSH(error);
      } else {
        ZRLOG(5, "Add File Record %s", Esc(strPath).c_str());
      }
    }
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  for (const std::string& strFid : setSingle) m_setFids.erase(strFid);
  return firstError;
}
