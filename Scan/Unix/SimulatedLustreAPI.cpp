#include "Scan/Unix/SimulatedLustreAPI.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Platform/FXString.h"

namespace {
constexpr uint64_t kFidSequenceBase = 0x200000400ULL;

// 2 + the name padded to five, as lfs prints the type.
std::string TypeToken(int iType, const char* szName) { return FXString::Format("%02d%-5s", iType, szName); }

LustreAPI::CLustreFID FidOfStat(const struct stat& st) {
  const uint64_t ullIno = static_cast<uint64_t>(st.st_ino);
  return LustreAPI::CLustreFID(kFidSequenceBase + (ullIno >> 32), static_cast<uint32_t>(ullIno & 0xffffffffu), 0);
}

CQiError ErrnoOf(const char* szWhat, const std::string& strPath) {
  return QI_ERROR_ERRNO(errno, "%s %s failed", szWhat, FXString::EscapeControl(strPath).c_str());
}

// Every path below strFolder (itself included) whose inode is ullIno.
void FindInode(const std::string& strFolder, ino_t ino, std::vector<std::string>& lstPaths) {
  std::unique_ptr<DIR, int (*)(DIR*)> pDir(opendir(strFolder.c_str()), closedir);
  if (!pDir) return;
  while (const struct dirent* pEntry = readdir(pDir.get())) {
    const std::string strName = pEntry->d_name;
    if (strName == "." || strName == "..") continue;
    const std::string strPath = FXPath::Append(strFolder, strName);
    struct stat st {};
    if (lstat(strPath.c_str(), &st) != 0) continue;
    if (st.st_ino == ino) lstPaths.push_back(strPath);
    if (S_ISDIR(st.st_mode)) FindInode(strPath, ino, lstPaths);
  }
}
}  // namespace

CSimulatedLustreAPI::CSimulatedLustreAPI(std::string strMount, std::vector<SMdt> lstMdt, std::string strStateFolder)
    : m_strMount(FXPath::RemoveTrailingDelimiters(strMount)), m_lstMdt(std::move(lstMdt)),
      m_strStateFolder(std::move(strStateFolder)) {
  for (const SMdt& mdt : m_lstMdt) m_mapChangelogs[mdt.strName];
  Load();
}

CQiError CSimulatedLustreAPI::LoadFunctions() {
  struct stat st {};
  if (stat(m_strMount.c_str(), &st) != 0) return ErrnoOf("stat", m_strMount);
  return CQiError();
}

bool CSimulatedLustreAPI::IsLustre(const std::string& strPath, std::string& strFileSystem, std::string& strMount) {
  if (!FXPath::IsAncestorOf(m_strMount, strPath, true)) return false;
  strFileSystem = kFileSystem;
  strMount = m_strMount;
  return true;
}

CQiError CSimulatedLustreAPI::CheckHost(const SMdt& mdt) const {
  if (m_setRefused.count(mdt.strHost) == 0) return CQiError();
  return QI_ERROR_WIN32(QiErrorCode::FunctionFailed, "ssh %s failed with exit code 255: Permission denied "
                        "(publickey,password).", mdt.strHost.c_str());
}

CSimulatedLustreAPI::SChangelog* CSimulatedLustreAPI::Find(const std::string& strMDT) {
  auto it = m_mapChangelogs.find(strMDT);
  return it == m_mapChangelogs.end() ? nullptr : &it->second;
}

CQiError CSimulatedLustreAPI::GetMDTList(const std::string& /*strMount*/, std::vector<SMdt>& lstMdt) {
  std::lock_guard<std::mutex> lock(m_mutex);
  lstMdt = m_lstMdt;
  return CQiError();
}

CQiError CSimulatedLustreAPI::RegisterChangelog(const SMdt& mdt, const std::string& /*strUser*/,
                                                std::string& strChangelogId) {
  std::lock_guard<std::mutex> lock(m_mutex);
  QI_RETURN_IF_ERROR(CheckHost(mdt));
  SChangelog* pLog = Find(mdt.strName);
  if (pLog == nullptr) return QI_ERROR_WIN32(QiErrorCode::FunctionFailed, "No MDT %s", mdt.strName.c_str());
  strChangelogId = "cl" + std::to_string(pLog->iNextReader++);
  pLog->mapReaders[strChangelogId] = pLog->llLastIndex;
  Save(mdt.strName);
  return CQiError();
}

CQiError CSimulatedLustreAPI::DeRegisterChangelog(const SMdt& mdt, const std::string& /*strUser*/,
                                                  const std::string& strChangelogId) {
  std::lock_guard<std::mutex> lock(m_mutex);
  QI_RETURN_IF_ERROR(CheckHost(mdt));
  SChangelog* pLog = Find(mdt.strName);
  if (pLog == nullptr || pLog->mapReaders.erase(strChangelogId) == 0)
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "No changelog reader %s on %s", strChangelogId.c_str(),
                          mdt.strName.c_str());
  Save(mdt.strName);
  return CQiError();
}

CQiError CSimulatedLustreAPI::GetChangelogCurrentIndex(const SMdt& mdt, const std::string& /*strUser*/,
                                                       int64_t& llIndex) {
  std::lock_guard<std::mutex> lock(m_mutex);
  QI_RETURN_IF_ERROR(CheckHost(mdt));
  SChangelog* pLog = Find(mdt.strName);
  if (pLog == nullptr) return QI_ERROR_WIN32(QiErrorCode::FunctionFailed, "No MDT %s", mdt.strName.c_str());
  llIndex = pLog->llLastIndex;
  return CQiError();
}

CQiError CSimulatedLustreAPI::GetStartAndEndChangelogRecordNumbers(const SMdt& mdt, const std::string& /*strUser*/,
                                                                   const std::string& strChangelogId,
                                                                   int64_t& llStart, int64_t& llEnd) {
  std::lock_guard<std::mutex> lock(m_mutex);
  QI_RETURN_IF_ERROR(CheckHost(mdt));
  SChangelog* pLog = Find(mdt.strName);
  auto it = pLog != nullptr ? pLog->mapReaders.find(strChangelogId) : decltype(pLog->mapReaders.end())();
  if (pLog == nullptr || it == pLog->mapReaders.end())
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "No changelog reader %s on %s", strChangelogId.c_str(),
                          mdt.strName.c_str());
  llStart = it->second + 1;
  llEnd = pLog->llLastIndex;
  return CQiError();
}

CQiError CSimulatedLustreAPI::GetChangelogs(const std::string& /*strMount*/, const std::string& strMDT,
                                            int64_t llStart, int64_t llEnd, const std::string& strFile) {
  std::lock_guard<std::mutex> lock(m_mutex);
  SChangelog* pLog = Find(strMDT);
  if (pLog == nullptr) return QI_ERROR_WIN32(QiErrorCode::FunctionFailed, "No MDT %s", strMDT.c_str());
  std::ofstream out(strFile, std::ios::binary | std::ios::trunc);
  for (auto it = pLog->mapRecords.lower_bound(llStart); it != pLog->mapRecords.end() && it->first <= llEnd; ++it)
    out << it->first << ' ' << it->second << '\n';
  if (!out.flush()) return QI_ERROR_ERRNO(EIO, "Cannot write %s", FXString::EscapeControl(strFile).c_str());
  return CQiError();
}

CQiError CSimulatedLustreAPI::ClearChangelog(const std::string& /*strMount*/, const std::string& strMDT,
                                             const std::string& strChangelogId, int64_t llEnd) {
  std::lock_guard<std::mutex> lock(m_mutex);
  SChangelog* pLog = Find(strMDT);
  if (pLog == nullptr || pLog->mapReaders.count(strChangelogId) == 0)
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "No changelog reader %s on %s", strChangelogId.c_str(),
                          strMDT.c_str());
  pLog->mapReaders[strChangelogId] = std::max(pLog->mapReaders[strChangelogId], llEnd);
  int64_t llPurge = pLog->llLastIndex;
  for (const auto& reader : pLog->mapReaders) llPurge = std::min(llPurge, reader.second);
  pLog->mapRecords.erase(pLog->mapRecords.begin(), pLog->mapRecords.upper_bound(llPurge));
  Save(strMDT);
  return CQiError();
}

CQiError CSimulatedLustreAPI::GetPathFromFID(const std::string& /*strMount*/, const CLustreFID& fid,
                                             std::vector<std::string>& lstPaths) {
  lstPaths.clear();
  if (fid.m_ullSeq < kFidSequenceBase) return QI_ERROR_WIN32(QiErrorCode::NotFound, "No such FID");
  const ino_t ino = static_cast<ino_t>(((fid.m_ullSeq - kFidSequenceBase) << 32) | fid.m_uOid);
  struct stat st {};
  if (lstat(m_strMount.c_str(), &st) == 0 && st.st_ino == ino) lstPaths.push_back(m_strMount);
  FindInode(m_strMount, ino, lstPaths);
  if (lstPaths.empty())
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "fid2path: %s: No such file or directory", fid.ToString().c_str());
  return CQiError();
}

CQiError CSimulatedLustreAPI::GetFIDFromPath(const std::string& strPath, CLustreFID& fid) {
  struct stat st {};
  if (lstat(strPath.c_str(), &st) != 0) return ErrnoOf("path2fid", strPath);
  fid = FidOfStat(st);
  return CQiError();
}

std::string CSimulatedLustreAPI::Absolute(const std::string& strRelative) const {
  return FXPath::Append(m_strMount, strRelative);
}

std::string CSimulatedLustreAPI::FidOf(const std::string& strRelative) {
  struct stat st {};
  if (lstat(Absolute(strRelative).c_str(), &st) != 0) return std::string();
  return FidOfStat(st).ToString();
}

std::string CSimulatedLustreAPI::ParentFid(const std::string& strRelative) {
  const size_t pos = strRelative.rfind('/');
  return FidOf(pos == std::string::npos ? std::string() : strRelative.substr(0, pos));
}

std::string CSimulatedLustreAPI::MdtOf(const std::string& strRelative) const {
  const std::string strTop = strRelative.substr(0, strRelative.find('/'));
  return m_lstMdt[std::hash<std::string>()(strTop) % m_lstMdt.size()].strName;
}

int64_t CSimulatedLustreAPI::GetLastIndex(const std::string& strMDT) {
  std::lock_guard<std::mutex> lock(m_mutex);
  SChangelog* pLog = Find(strMDT);
  return pLog == nullptr ? -1 : pLog->llLastIndex;
}

void CSimulatedLustreAPI::AppendRawRecord(const std::string& strMDT, const std::string& strTail) {
  std::lock_guard<std::mutex> lock(m_mutex);
  SChangelog* pLog = Find(strMDT);
  if (pLog == nullptr) return;
  pLog->mapRecords[++pLog->llLastIndex] = strTail;
  Save(strMDT);
}

void CSimulatedLustreAPI::DropReader(const std::string& strMDT, const std::string& strChangelogId) {
  std::lock_guard<std::mutex> lock(m_mutex);
  SChangelog* pLog = Find(strMDT);
  if (pLog == nullptr) return;
  pLog->mapReaders.erase(strChangelogId);
  Save(strMDT);
}

void CSimulatedLustreAPI::Record(const std::string& strRelative, int iType, const char* szName,
                                 const std::string& strTarget, const std::string& strTail) {
  std::string strMDT;
  int64_t llTime = 0;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    strMDT = m_strRecordOn.empty() ? MdtOf(strRelative) : m_strRecordOn;
    struct timespec now {};
    clock_gettime(CLOCK_REALTIME, &now);
    llTime = m_llLastTime =
        std::max<int64_t>(m_llLastTime + 1, static_cast<int64_t>(now.tv_sec) * 1000000000LL + now.tv_nsec);
    llTime += m_mapSkew[strMDT];
  }
  const time_t seconds = static_cast<time_t>(llTime / 1000000000LL);
  struct tm parts {};
  gmtime_r(&seconds, &parts);
  const std::string strTime =
      FXString::Format("%02d:%02d:%02d.%09lld %04d.%02d.%02d", parts.tm_hour, parts.tm_min, parts.tm_sec,
                       static_cast<long long>(llTime % 1000000000LL), parts.tm_year + 1900, parts.tm_mon + 1,
                       parts.tm_mday);
  AppendRawRecord(strMDT, TypeToken(iType, szName) + " " + strTime + " 0x0 t=" + strTarget + " ef=0xf u=0:0 nid=0@lo" +
                              strTail);
}

CQiError CSimulatedLustreAPI::Create(const std::string& strPath, const std::string& strContent) {
  const int fd = open(Absolute(strPath).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) return ErrnoOf("create", strPath);
  const bool bWritten = write(fd, strContent.data(), strContent.size()) == static_cast<ssize_t>(strContent.size());
  close(fd);
  if (!bWritten) return ErrnoOf("write", strPath);
  Record(strPath, 1, "CREAT", FidOf(strPath), " p=" + ParentFid(strPath) + " " + FXPath::GetName(strPath));
  return CQiError();
}

CQiError CSimulatedLustreAPI::Mkdir(const std::string& strPath) {
  if (mkdir(Absolute(strPath).c_str(), 0755) != 0) return ErrnoOf("mkdir", strPath);
  Record(strPath, 2, "MKDIR", FidOf(strPath), " p=" + ParentFid(strPath) + " " + FXPath::GetName(strPath));
  return CQiError();
}

CQiError CSimulatedLustreAPI::Link(const std::string& strExisting, const std::string& strNew) {
  if (link(Absolute(strExisting).c_str(), Absolute(strNew).c_str()) != 0) return ErrnoOf("link", strNew);
  Record(strNew, 3, "HLINK", FidOf(strNew), " p=" + ParentFid(strNew) + " " + FXPath::GetName(strNew));
  return CQiError();
}

CQiError CSimulatedLustreAPI::Symlink(const std::string& strTarget, const std::string& strNew) {
  if (symlink(strTarget.c_str(), Absolute(strNew).c_str()) != 0) return ErrnoOf("symlink", strNew);
  Record(strNew, 4, "SLINK", FidOf(strNew), " p=" + ParentFid(strNew) + " " + FXPath::GetName(strNew));
  return CQiError();
}

CQiError CSimulatedLustreAPI::Mknod(const std::string& strPath) {
  if (mkfifo(Absolute(strPath).c_str(), 0644) != 0) return ErrnoOf("mknod", strPath);
  Record(strPath, 5, "MKNOD", FidOf(strPath), " p=" + ParentFid(strPath) + " " + FXPath::GetName(strPath));
  return CQiError();
}

CQiError CSimulatedLustreAPI::Unlink(const std::string& strPath) {
  const std::string strFid = FidOf(strPath), strParent = ParentFid(strPath);
  if (unlink(Absolute(strPath).c_str()) != 0) return ErrnoOf("unlink", strPath);
  Record(strPath, 6, "UNLNK", strFid, " p=" + strParent + " " + FXPath::GetName(strPath));
  return CQiError();
}

CQiError CSimulatedLustreAPI::Rmdir(const std::string& strPath) {
  const std::string strFid = FidOf(strPath), strParent = ParentFid(strPath);
  if (rmdir(Absolute(strPath).c_str()) != 0) return ErrnoOf("rmdir", strPath);
  Record(strPath, 7, "RMDIR", strFid, " p=" + strParent + " " + FXPath::GetName(strPath));
  return CQiError();
}

CQiError CSimulatedLustreAPI::Rename(const std::string& strOld, const std::string& strNew) {
  const std::string strSource = FidOf(strOld), strSourceParent = ParentFid(strOld);
  std::string strVictim = FidOf(strNew);
  if (strVictim.empty()) strVictim = "[0x0:0x0:0x0]";
  if (rename(Absolute(strOld).c_str(), Absolute(strNew).c_str()) != 0) return ErrnoOf("rename", strOld);
  Record(strNew, 8, "RENME", strVictim,
         " p=" + ParentFid(strNew) + " " + FXPath::GetName(strNew) + " s=" + strSource + " sp=" +
             strSourceParent + " " + FXPath::GetName(strOld));
  Record(strNew, 9, "RNMTO", strSource, " p=" + ParentFid(strNew) + " " + FXPath::GetName(strNew));
  return CQiError();
}

CQiError CSimulatedLustreAPI::Chmod(const std::string& strPath, mode_t mode) {
  if (chmod(Absolute(strPath).c_str(), mode) != 0) return ErrnoOf("chmod", strPath);
  Record(strPath, 14, "SATTR", FidOf(strPath), "");
  return CQiError();
}

CQiError CSimulatedLustreAPI::Write(const std::string& strPath, const std::string& strContent) {
  const int fd = open(Absolute(strPath).c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
  if (fd < 0) return ErrnoOf("open", strPath);
  const bool bWritten = write(fd, strContent.data(), strContent.size()) == static_cast<ssize_t>(strContent.size());
  close(fd);
  if (!bWritten) return ErrnoOf("write", strPath);
  Record(strPath, 11, "CLOSE", FidOf(strPath), "");
  return CQiError();
}

CQiError CSimulatedLustreAPI::Touch(const std::string& strPath) {
  Record(strPath, 19, "ATIME", FidOf(strPath), "");
  return CQiError();
}

void CSimulatedLustreAPI::Load() {
  if (m_strStateFolder.empty()) return;
  for (auto& entry : m_mapChangelogs) {
    SChangelog& log = entry.second;
    std::ifstream readers(m_strStateFolder + "/" + entry.first + ".readers");
    std::string strLine;
    if (std::getline(readers, strLine)) log.llLastIndex = std::atoll(strLine.c_str());
    if (std::getline(readers, strLine)) log.iNextReader = std::atoi(strLine.c_str());
    while (std::getline(readers, strLine)) {
      std::istringstream words(strLine);
      std::string strId;
      long long llIndex = 0;
      if (words >> strId >> llIndex) log.mapReaders[strId] = llIndex;
    }
    std::ifstream records(m_strStateFolder + "/" + entry.first + ".changelog", std::ios::binary);
    while (std::getline(records, strLine)) {
      const size_t pos = strLine.find(' ');
      if (pos == std::string::npos) continue;
      const int64_t llIndex = std::atoll(strLine.c_str());
      log.mapRecords[llIndex] = strLine.substr(pos + 1);
      log.llLastIndex = std::max(log.llLastIndex, llIndex);  // records appended by a test
    }
  }
}

void CSimulatedLustreAPI::Save(const std::string& strMDT) {
  if (m_strStateFolder.empty()) return;
  const SChangelog& log = m_mapChangelogs[strMDT];
  std::ofstream readers(m_strStateFolder + "/" + strMDT + ".readers", std::ios::trunc);
  readers << log.llLastIndex << '\n' << log.iNextReader << '\n';
  for (const auto& reader : log.mapReaders) readers << reader.first << ' ' << reader.second << '\n';
  std::ofstream records(m_strStateFolder + "/" + strMDT + ".changelog", std::ios::binary | std::ios::trunc);
  for (const auto& record : log.mapRecords) records << record.first << ' ' << record.second << '\n';
}
