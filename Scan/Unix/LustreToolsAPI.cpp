#include "Scan/Unix/LustreToolsAPI.h"

#include <dlfcn.h>
#include <limits.h>
#include <mntent.h>
#include <sys/statfs.h>

#include <algorithm>
#include <cerrno>
#include <sstream>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Platform/ShellQuote.h"
#include "Platform/ZrProcess.h"

namespace {
std::string Esc(const std::string& strText) { return FXString::EscapeControl(strText); }
std::string Q(const std::string& strText) { return ShellQuote::Argument(strText); }

bool ParseIndex(std::string_view text, int64_t& llValue) {
  long long ll = 0;
  if (FXString::ToInt64(FXString::Trim(text), ll).IsError()) return false;
  llValue = ll;
  return true;
}
}  // namespace

std::string CLustreToolsAPI::RemoteCommand(const std::string& strUser, const std::string& strHost,
                                           const std::string& strRemote) {
  return "ssh -o BatchMode=yes " + Q(strUser + "@" + strHost) + " " + ShellQuote::Word(strRemote);
}

CLustreToolsAPI::CLustreToolsAPI(std::vector<std::string> lstLibraries)
    : m_lstLibraries(std::move(lstLibraries)), m_pLibrary(nullptr, dlclose) {}

CLustreToolsAPI::~CLustreToolsAPI() = default;

CQiError CLustreToolsAPI::Run(const std::string& strCommand, std::string& strOutput, const std::string& strOutFile,
                              int* pExitCode) {
  ZRLOG(2, "Running %s", Esc(strCommand).c_str());
  ZrProcess process;
  process.SetStdinFromNull(true);
  if (!strOutFile.empty()) process.SetStdout(ZrProcess::EOutput::File, strOutFile);
  QI_RETURN_IF_ERROR(process.Start(strCommand), "Cannot run %s", Esc(strCommand).c_str());
  CQiError error = process.WaitForExit(kCommandTimeoutMs);
  if (error.IsError()) {
    (void)process.Kill(SIGKILL);
    return QI_PUSH(error, "%s did not finish", Esc(strCommand).c_str());
  }
  strOutput = process.GetStdout();
  if (pExitCode != nullptr) {
    *pExitCode = process.GetExitCode();
    if (*pExitCode != 0 && ZRLOG_ON(2))
      ZRLOG(2, "%s exited with %d: %s", Esc(strCommand).c_str(), *pExitCode, Esc(process.GetStderr()).c_str());
    return CQiError();
  }
  if (process.GetExitCode() != 0) {
    const std::string strText = FXString::Trim(process.GetStdout() + process.GetStderr());
    if (strText.find("No such file or directory") != std::string::npos)
      return QI_ERROR_WIN32(QiErrorCode::NotFound, "%s: %s", Esc(strCommand).c_str(), Esc(strText).c_str());
    return QI_ERROR_WIN32(QiErrorCode::FunctionFailed, "%s failed with exit code %d: %s", Esc(strCommand).c_str(),
                          process.GetExitCode(), Esc(strText).c_str());
  }
  return CQiError();
}

CQiError CLustreToolsAPI::LoadFunctions() {
  std::string strOutput;
  CQiError error = Run("command -v lfs lctl ssh", strOutput);
  if (error.IsError()) return QI_PUSH(error, "The Lustre tools lfs, lctl and ssh are not all on PATH");
  std::lock_guard<std::mutex> lock(m_mutexLoad);
  if (m_bLoadTried) return CQiError();
  m_bLoadTried = true;
  std::string strErrors;
  for (const std::string& strLibrary : m_lstLibraries) {
    void* pHandle = dlopen(strLibrary.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (pHandle != nullptr) {
      m_pLibrary.reset(pHandle);
      ZRLOG(1, "Loaded the Lustre library %s", Esc(strLibrary).c_str());
      break;
    }
    const char* szError = dlerror();
    strErrors += (strErrors.empty() ? "" : "; ") + std::string(szError != nullptr ? szError : strLibrary);
  }
  if (!m_pLibrary) {
    ZRLOG(1, "The Lustre library is not available (%s): path2fid and fid2path run lfs", Esc(strErrors).c_str());
    return CQiError();
  }
  // Each function is used when present; a missing one leaves that operation to lfs.
  void* pPath2Fid = dlsym(m_pLibrary.get(), "llapi_path2fid");
  if (pPath2Fid == nullptr) ZRLOG(1, "The Lustre library has no llapi_path2fid: path2fid runs lfs");
  void* pFid2Path = dlsym(m_pLibrary.get(), "llapi_fid2path");
  if (pFid2Path == nullptr) ZRLOG(1, "The Lustre library has no llapi_fid2path: fid2path runs lfs");
  m_pPath2Fid.store(reinterpret_cast<Path2FidFunction>(pPath2Fid), std::memory_order_release);
  m_pFid2Path.store(reinterpret_cast<Fid2PathFunction>(pFid2Path), std::memory_order_release);
  return CQiError();
}

bool CLustreToolsAPI::IsLustre(const std::string& strPath, std::string& strFileSystem, std::string& strMount) {
  struct statfs sfs {};
  if (statfs(strPath.c_str(), &sfs) != 0 || static_cast<uint64_t>(sfs.f_type) != kLustreMagic) return false;
  FILE* pMounts = setmntent("/proc/self/mounts", "r");
  if (pMounts == nullptr) return false;
  strMount.clear();
  struct mntent entry {};
  char szBuffer[4096];
  while (getmntent_r(pMounts, &entry, szBuffer, sizeof(szBuffer)) != nullptr) {
    const std::string strDir = entry.mnt_dir;
    if (std::string(entry.mnt_type) != "lustre" || !FXPath::IsAncestorOf(strDir, strPath, true) ||
        strDir.size() < strMount.size())
      continue;
    strMount = strDir;
    const std::string strSource = entry.mnt_fsname;
    const size_t pos = strSource.find(":/");
    strFileSystem = pos == std::string::npos ? strSource : strSource.substr(pos + 2);
  }
  endmntent(pMounts);
  return !strMount.empty();
}

CQiError CLustreToolsAPI::GetMDTList(const std::string& strMount, std::vector<SMdt>& lstMdt) {
  lstMdt.clear();
  std::string strOutput;
  QI_RETURN_IF_ERROR(Run("lfs mdts " + Q(strMount), strOutput));
  std::istringstream lines(strOutput);
  for (std::string strLine; std::getline(lines, strLine);) {
    std::istringstream words(strLine);
    std::string strNumber, strUuid;
    if (!(words >> strNumber >> strUuid) || strNumber.back() != ':' || !FXString::EndsWith(strUuid, "_UUID")) continue;
    SMdt mdt;
    mdt.strName = strUuid.substr(0, strUuid.size() - 5);
    std::string strConn;
    QI_RETURN_IF_ERROR(Run("lctl get_param -n " + Q("mdc." + mdt.strName + "-mdc-*.mds_conn_uuid"), strConn));
    strConn = FXString::Trim(strConn.substr(0, strConn.find('\n')));
    mdt.strHost = strConn.substr(0, strConn.find('@'));
    if (mdt.strHost.empty())
      return QI_ERROR_WIN32(QiErrorCode::FunctionFailed, "No connection of MDT %s", Esc(mdt.strName).c_str());
    lstMdt.push_back(mdt);
  }
  if (lstMdt.empty())
    return QI_ERROR_WIN32(QiErrorCode::FunctionFailed, "lfs mdts %s listed no MDT: %s", Esc(strMount).c_str(),
                          Esc(strOutput).c_str());
  return CQiError();
}

CQiError CLustreToolsAPI::RegisterChangelog(const SMdt& mdt, const std::string& strUser, std::string& strChangelogId) {
  std::string strOutput;
  QI_RETURN_IF_ERROR(Run(RemoteCommand(strUser, mdt.strHost, "lctl --device " + Q(mdt.strName) + " changelog_register"),
                         strOutput));
  const size_t pos = strOutput.find("changelog userid '");
  const size_t end = pos == std::string::npos ? pos : strOutput.find('\'', pos + 18);
  if (end == std::string::npos || end == pos + 18)
    return QI_ERROR_WIN32(QiErrorCode::FunctionFailed, "Unexpected changelog_register output: %s",
                          Esc(strOutput).c_str());
  strChangelogId = strOutput.substr(pos + 18, end - pos - 18);
  return CQiError();
}

CQiError CLustreToolsAPI::DeRegisterChangelog(const SMdt& mdt, const std::string& strUser,
                                              const std::string& strChangelogId) {
  std::string strOutput;
  QI_RETURN_IF_ERROR(Run(RemoteCommand(strUser, mdt.strHost,
                                       "lctl --device " + Q(mdt.strName) + " changelog_deregister " + Q(strChangelogId)),
                         strOutput));
  return CQiError();
}

CQiError CLustreToolsAPI::ChangelogUsers(const SMdt& mdt, const std::string& strUser, std::string& strOutput) {
  QI_RETURN_IF_ERROR(Run(RemoteCommand(strUser, mdt.strHost,
                                       "lctl get_param " + Q("mdd." + mdt.strName + ".changelog_users")),
                         strOutput));
  return CQiError();
}

CQiError CLustreToolsAPI::ParseChangelogUsers(const std::string& strOutput, const std::string& strChangelogId,
                                              int64_t& llCurrent, int64_t& llCleared) {
  bool bCurrent = false, bReader = false;
  std::istringstream lines(strOutput);
  for (std::string strLine; std::getline(lines, strLine);) {
    const size_t pos = strLine.find("current index:");
    if (pos != std::string::npos) {
      bCurrent = ParseIndex(std::string_view(strLine).substr(pos + 14), llCurrent);
      continue;
    }
    std::istringstream words(strLine);
    std::string strId, strIndex;
    if (!strChangelogId.empty() && words >> strId >> strIndex && strId == strChangelogId)
      bReader = ParseIndex(strIndex, llCleared);
  }
  if (!bCurrent)
    return QI_ERROR_WIN32(QiErrorCode::FunctionFailed, "No current index in changelog_users output: %s",
                          Esc(strOutput).c_str());
  if (!strChangelogId.empty() && !bReader)
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "The changelog reader %s is not registered",
                          Esc(strChangelogId).c_str());
  return CQiError();
}

CQiError CLustreToolsAPI::GetChangelogCurrentIndex(const SMdt& mdt, const std::string& strUser, int64_t& llIndex) {
  std::string strOutput;
  QI_RETURN_IF_ERROR(ChangelogUsers(mdt, strUser, strOutput));
  int64_t llCleared = 0;
  QI_RETURN_IF_ERROR(ParseChangelogUsers(strOutput, std::string(), llIndex, llCleared));
  return CQiError();
}

CQiError CLustreToolsAPI::GetStartAndEndChangelogRecordNumbers(const SMdt& mdt, const std::string& strUser,
                                                               const std::string& strChangelogId, int64_t& llStart,
                                                               int64_t& llEnd) {
  std::string strOutput;
  QI_RETURN_IF_ERROR(ChangelogUsers(mdt, strUser, strOutput));
  int64_t llCleared = 0;
  QI_RETURN_IF_ERROR(ParseChangelogUsers(strOutput, strChangelogId, llEnd, llCleared));
  llStart = llCleared + 1;
  return CQiError();
}

CQiError CLustreToolsAPI::GetChangelogs(const std::string& /*strMount*/, const std::string& strMDT, int64_t llStart,
                                        int64_t llEnd, const std::string& strFile) {
  std::string strOutput;
  QI_RETURN_IF_ERROR(Run(FXString::Format("lfs changelog %s %lld %lld", Q(strMDT).c_str(),
                                          static_cast<long long>(llStart), static_cast<long long>(llEnd)),
                         strOutput, strFile));
  return CQiError();
}

CQiError CLustreToolsAPI::ClearChangelog(const std::string& /*strMount*/, const std::string& strMDT,
                                         const std::string& strChangelogId, int64_t llEnd) {
  std::string strOutput;
  QI_RETURN_IF_ERROR(Run(FXString::Format("lfs changelog_clear %s %s %lld", Q(strMDT).c_str(),
                                          Q(strChangelogId).c_str(), static_cast<long long>(llEnd)),
                         strOutput));
  return CQiError();
}

CQiError CLustreToolsAPI::GetPathFromFID(const std::string& strMount, const CLustreFID& fid,
                                         std::vector<std::string>& lstPaths) {
  lstPaths.clear();
  if (const Fid2PathFunction pFid2Path = m_pFid2Path.load(std::memory_order_acquire)) {
    // One call per link: linkno names the link and the call advances it; a call that does not
    // advance it gave the last one.
    const std::string strFid = fid.ToString();
    char szPath[PATH_MAX];
    int iLink = 0;
    for (int i = 0; i < kMaxLinks; ++i) {
      long long llRecno = -1;
      const int iBefore = iLink;
      const int rc = pFid2Path(strMount.c_str(), strFid.c_str(), szPath, sizeof(szPath), &llRecno, &iLink);
      if (rc != 0) {
        if (!lstPaths.empty()) break;
        return QI_ERROR_ERRNO(-rc, "llapi_fid2path(%s, %s) failed", Esc(strMount).c_str(), strFid.c_str());
      }
      szPath[sizeof(szPath) - 1] = '\0';
      const std::string strRelative = szPath;
      lstPaths.push_back(strRelative.empty() || strRelative == "/" ? strMount
                         : FXPath::IsAbsolute(strRelative)         ? strRelative
                                                                   : FXPath::Append(strMount, strRelative));
      if (iLink <= iBefore) break;
    }
    return CQiError();
  }
  std::string strOutput;
  QI_RETURN_IF_ERROR(Run("lfs fid2path " + Q(strMount) + " " + Q(fid.ToString()), strOutput));
  std::istringstream lines(strOutput);
  for (std::string strLine; std::getline(lines, strLine);) {
    if (strLine.empty()) continue;
    lstPaths.push_back(FXPath::IsAbsolute(strLine) ? strLine : FXPath::Append(strMount, strLine));
  }
  if (lstPaths.empty()) return QI_ERROR_WIN32(QiErrorCode::NotFound, "fid2path %s gave no path", fid.ToString().c_str());
  return CQiError();
}

CQiError CLustreToolsAPI::GetFIDFromPath(const std::string& strPath, CLustreFID& fid) {
  if (const Path2FidFunction pPath2Fid = m_pPath2Fid.load(std::memory_order_acquire)) {
    struct lu_fid luFid {};
    const int rc = pPath2Fid(strPath.c_str(), &luFid);
    if (rc != 0) return QI_ERROR_ERRNO(-rc, "llapi_path2fid(%s) failed", Esc(strPath).c_str());
    fid = CLustreFID(luFid.f_seq, luFid.f_oid, luFid.f_ver);
    return CQiError();
  }
  std::string strOutput;
  QI_RETURN_IF_ERROR(Run("lfs path2fid " + Q(strPath), strOutput));
  // One path prints the FID alone; some versions print "PATH: [FID]".
  const std::string strText = FXString::Trim(strOutput);
  const size_t pos = strText.rfind('[');
  if (pos == std::string::npos || !CLustreFID::FromText(std::string_view(strText).substr(pos), fid))
    return QI_ERROR_WIN32(QiErrorCode::FunctionFailed, "Unexpected path2fid output for %s: %s", Esc(strPath).c_str(),
                          Esc(strText).c_str());
  return CQiError();
}

CQiError CLustreToolsAPI::GetFIDsFromPaths(const std::vector<std::string>& lstPaths, std::vector<CLustreFID>& lstFids,
                                           std::vector<CQiError>& lstErrors) {
  if (HasLibraryPath2Fid()) return LustreAPI::GetFIDsFromPaths(lstPaths, lstFids, lstErrors);
  lstFids.assign(lstPaths.size(), CLustreFID());
  lstErrors.assign(lstPaths.size(), CQiError());
  // Batches bounded in paths and in command-line bytes; a path too long for any batch goes alone.
  static constexpr size_t kFixed = sizeof("lfs path2fid") - 1;
  size_t uFirst = 0;
  while (uFirst < lstPaths.size()) {
    size_t uEnd = uFirst, uBytes = kFixed;
    while (uEnd < lstPaths.size() && uEnd - uFirst < kPath2FidBatchPaths) {
      const size_t uWord = 1 + Q(lstPaths[uEnd]).size();
      if (uEnd > uFirst && uBytes + uWord > kPath2FidBatchBytes) break;
      uBytes += uWord;
      ++uEnd;
    }
    Path2FidBatch(lstPaths, uFirst, uEnd, lstFids, lstErrors);
    uFirst = uEnd;
  }
  return CQiError();
}

void CLustreToolsAPI::Path2FidBatch(const std::vector<std::string>& lstPaths, size_t uFirst, size_t uEnd,
                                    std::vector<CLustreFID>& lstFids, std::vector<CQiError>& lstErrors) {
  // A name holding a newline is asked alone: without one in the batch, every output line is
  // one path's whole answer.
  std::vector<size_t> vBatch;
  for (size_t i = uFirst; i < uEnd; ++i)
    if (lstPaths[i].find('\n') == std::string::npos) vBatch.push_back(i);
  std::vector<bool> vAnswered(uEnd - uFirst, false);
  if (vBatch.size() > 1) {
    std::string strCommand = "lfs path2fid";
    for (size_t i : vBatch) strCommand += " " + Q(lstPaths[i]);
    std::string strOutput;
    int iExit = 0;
    CQiError error = Run(strCommand, strOutput, std::string(), &iExit);
    if (error.IsError()) ZRLOG(1, "path2fid batch failed, each path is asked alone: %s", error.AsString().c_str());
    // The lines of the paths that resolved come in the order given, each "PATH: [FID]" with the
    // path exactly as given; a path whose line is not next has none (it failed).
    std::string_view output(strOutput);
    for (size_t i : vBatch) {
      const std::string& strPath = lstPaths[i];
      if (output.size() <= strPath.size() + 3 || output.compare(0, strPath.size(), strPath) != 0 ||
          output.compare(strPath.size(), 3, ": [") != 0)
        continue;
      const size_t uFid = strPath.size() + 2;
      const size_t uClose = output.find(']', uFid);
      if (uClose == std::string_view::npos || (uClose + 1 < output.size() && output[uClose + 1] != '\n')) continue;
      CLustreFID fid;
      if (!CLustreFID::FromText(output.substr(uFid, uClose + 1 - uFid), fid)) continue;
      lstFids[i] = fid;
      vAnswered[i - uFirst] = true;
      output.remove_prefix(std::min(output.size(), uClose + 2));
    }
    if (ZRLOG_ON(1) && !output.empty())
      ZRLOG(1, "Unexpected path2fid output: %s", Esc(std::string(output.substr(0, 256))).c_str());
  }
  // Unanswered paths (failed, unmatched, or not in the batch) are asked one by one: each gets a
  // FID or its own error.
  for (size_t i = uFirst; i < uEnd; ++i) {
    if (!vAnswered[i - uFirst]) lstErrors[i] = GetFIDFromPath(lstPaths[i], lstFids[i]);
  }
}
