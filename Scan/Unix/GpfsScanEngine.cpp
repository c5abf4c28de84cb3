#include "Scan/Unix/GpfsScanEngine.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>

#include "Platform/BatchSort.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Platform/MemoryLineWriter.h"
#include "Platform/SendEventInterface.h"
#include "Platform/ShellQuote.h"
#include "Platform/ZRDebugBreak.h"
#include "Platform/ZRDebugFunction.h"
#include "Platform/ZRPlatformInfo.h"
#include "Scan/ScannerConfigurationBagId.h"
#include "Scan/Unix/GpfsEnumerateFiles.h"
#include "Scan/Unix/GpfsPathEnumerator.h"
#include "Scan/Unix/GpfsPolicy.h"

namespace {
using Clock = std::chrono::steady_clock;

constexpr const char* kSection = ZRPlatformInfo::kFileSystemAgentSection;
constexpr const char* kParamGpfsScan = "RegKey:GpfsScan";
constexpr const char* kParamLongPathEnabled = "SC:LongPathEnabled";
constexpr const char* kParamProcessLongPaths = "ProcessLongPaths";
constexpr const char* kParamGpfsSnap = "SC:GpfsSnap";
constexpr const char* kParamMtime = "JO:MTIME";
constexpr const char* kParamCtime = "JO:CTIME";
constexpr const char* kParamHardLinks = "HL:enable";
constexpr const char* kParamDiskCleanup = "OnePass::DiskCleanupEnabled";
constexpr const char* kParamTrueUp = "SC:TrueUpQualified";
constexpr const char* kParamBuiltInFilter = "SystemProtectedFilesFilter:BuiltIn";
constexpr const char* kClusterActive = "active:active:";
constexpr uint32_t kCommandSliceMs = 200;

std::string Esc(const std::string& strText) { return FXString::EscapeControl(strText); }

// Writes the whole text into a file made afresh with the given mode (not narrowed by umask).
CQiError WriteWholeFile(const std::string& strPath, const std::string& strText, mode_t mode) {
  const int fd = open(strPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) return QI_ERROR_ERRNO(errno, "Failed to create %s", Esc(strPath).c_str());
  struct SClose {
    int fd;
    ~SClose() { close(fd); }
  } closer{fd};
  if (fchmod(fd, mode) != 0) return QI_ERROR_ERRNO(errno, "Failed to set the mode of %s", Esc(strPath).c_str());
  size_t uDone = 0;
  while (uDone < strText.size()) {
    const ssize_t n = write(fd, strText.data() + uDone, strText.size() - uDone);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return QI_ERROR_ERRNO(n < 0 ? errno : EIO, "Failed to write %s", Esc(strPath).c_str());
    uDone += static_cast<size_t>(n);
  }
  return CQiError();
}
}  // namespace

CGpfsScanEngine::CGpfsScanEngine()
    : m_strGpfsBinDir(kDefaultBinDir),
      m_ullSuspendTimeout(kDefaultSuspendTimeoutSec),
      m_bFailOnScanError(false),
      m_ullScanAttempts(kDefaultScanAttempts),
      m_bDisableStderrParsing(false) {
  m_bInitialized = Initialize().IsSuccess();
}

CGpfsScanEngine::~CGpfsScanEngine() = default;

std::string CGpfsScanEngine::getDescription() { return "CGpfsScanEngine"; }

CQiError CGpfsScanEngine::Initialize() {
  const ZRPlatformInfo& settings = ZRPlatformInfo::Instance();
  std::string strValue;
  if (settings.GetValue(kSection, "sGpfsBin", strValue).IsSuccess() && !strValue.empty())
    m_strGpfsBinDir = FXPath::HasTrailingDelimiter(strValue) ? strValue : strValue + "/";
  strValue.clear();
  if (settings.GetValue(kSection, "sGpfsTemp", strValue).IsSuccess() && !strValue.empty()) {
    m_strWorkDir = strValue;
  } else {
    m_strWorkDir = CGpfsPlatform::Current()->getOrreryTempDirectory();
  }
  ZRLOG(0, "Using GPFS temp location as %s", Esc(m_strWorkDir).c_str());
  // The time-out is replaced only when the one held is above 120 seconds, which the default
  // never is: the key is read but does not change the time-out.
  long long llValue = 0;
  if (settings.GetValue(kSection, "nGpfsTimeout", llValue).IsSuccess() &&
      m_ullSuspendTimeout > kDefaultSuspendTimeoutSec)
    m_ullSuspendTimeout = static_cast<uint64_t>(llValue);
  llValue = 0;
  if (settings.GetValue(kSection, "nGpfsFailOnScanError", llValue).IsSuccess() && llValue != 0) {
    m_bFailOnScanError = true;
    ZRLOG(0, "GpfsScan error will be considered fatal and job will be failed.");
  }
  llValue = 0;
  // A negative count would make the retries endless: only a positive one is taken.
  if (settings.GetValue(kSection, "nGpfsScanNumRetry", llValue).IsSuccess() && llValue > 0) {
    m_ullScanAttempts = static_cast<uint64_t>(llValue);
    ZRLOG(0, "GpfsScan will be retried %lu times.", static_cast<unsigned long>(m_ullScanAttempts));
  }
  llValue = 0;
  if (settings.GetValue(kSection, "nDisableParseGpfsScanErrors", llValue).IsSuccess() && llValue != 0) {
    m_bDisableStderrParsing = true;
    ZRLOG(0, "GpfsScan stderr will not be parsed to look for ENOENT errors. Return code 2 will be "
             "considered as success");
  }
  return CQiError();
}

template <typename T>
void CGpfsScanEngine::ReadParameter(const char* szName, T& value) const {
  if (m_pScannerCallback) (void)m_pScannerCallback->GetParameter(szName, value);
}

bool CGpfsScanEngine::IsJobAborted() const { return m_pScannerCallback && m_pScannerCallback->IsAborted(); }

bool CGpfsScanEngine::SleepUnlessAborted(uint32_t uMs) const {
  const Clock::time_point tEnd = Clock::now() + std::chrono::milliseconds(uMs);
  while (!IsJobAborted()) {
    const Clock::time_point tNow = Clock::now();
    if (tNow >= tEnd) return true;
    std::this_thread::sleep_for(std::min<Clock::duration>(tEnd - tNow, std::chrono::milliseconds(100)));
  }
  return false;
}

uint32_t CGpfsScanEngine::GetErrorCodeValue(uint32_t uCode) const {
  return m_bFailOnScanError ? QiErrorCode::OperationAborted : uCode;
}

CQiError CGpfsScanEngine::GetErrorCode(uint32_t uCode, const char* szFormat, ...) const {
  va_list args;
  va_start(args, szFormat);
  const std::string strText = FXString::FormatV(szFormat, args);
  va_end(args);
  return QI_ERROR_WIN32(GetErrorCodeValue(uCode), "%s", strText.c_str());
}

void CGpfsScanEngine::SetFailJobSet() {
  CBagPtr pBag = m_pScannerCallback ? m_pScannerCallback->GetScannerConfigurationBag() : CBagPtr();
  if (!pBag) pBag = m_pConfigurationBag;
  if (!pBag) return;
  CQiError error = pBag->Write(SXScannerConfigurationBagId::idFailJobSet, true);
  if (error.IsError()) ZRLOG(-1, "Failed to set FailJobSet, error=%s", error.AsString().c_str());
}

CQiError CGpfsScanEngine::Process() {
  ZRDEBUG_FUNCTION(1);
  return ProcessVolumesOfMedium();
}

CQiError CGpfsScanEngine::ProcessVolumeWorkUnit(CVolumeWorkUnitPtr pVolumeUnit) {
  return ProcessWorkUnitsOfVolume(pVolumeUnit, kEngineTag);
}

CQiError CGpfsScanEngine::ProcessWorkUnit(CWorkUnitPtr pWorkUnit) {
  ZRDEBUG_FUNCTION(2);
  if (!pWorkUnit) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "No work unit");
  if (ZRLOG_ON(2))
    ZRLOG(2, "WorkUnit: SourceVolumeName=%s, LocalVolumeName=%s",
          Esc(pWorkUnit->GetSourceVolumeName()).c_str(), Esc(pWorkUnit->GetLocalVolumeName()).c_str());
  bool bEnabled = false;
  ReadParameter(kParamGpfsScan, bEnabled);
  if (!bEnabled) {
    ZRLOG(0, "Gpfs Scan not enabled. ");
    return QI_ERROR_ERRNO(EINVAL, "Gpfs Scan not enabled.");
  }
  // Long paths are left to the fallback scan: off while the policy scan runs, back on when it
  // fails.
  bool bLongPathEnabled = false;
  bool bProcessLongPaths = false;
  ReadParameter(kParamLongPathEnabled, bLongPathEnabled);
  ReadParameter(kParamProcessLongPaths, bProcessLongPaths);
  CBagPtr pBag = m_pScannerCallback ? m_pScannerCallback->GetScannerConfigurationBag() : m_pConfigurationBag;
  const bool bSwitchLongPaths = bLongPathEnabled && bProcessLongPaths && pBag;
  if (bSwitchLongPaths) (void)pBag->Write(kParamProcessLongPaths, false);
  CQiError error = ProcessWorkUnit2(pWorkUnit);
  if (error.IsError()) {
    if (bSwitchLongPaths) (void)pBag->Write(kParamProcessLongPaths, true);
    return QI_PUSH(error);
  }
  return CQiError();
}

CQiError CGpfsScanEngine::IsGpfs(const std::string& strPath, std::string& strDevice,
                                 uint64_t& ullDevice) {
  struct stat st {};
  if (lstat(strPath.c_str(), &st) != 0) {
    const int iErrNo = errno;
    ZRLOG(-1, "stat failed for %s", Esc(strPath).c_str());
    return QI_ERROR_ERRNO(iErrNo, "stat failed");
  }
  uint64_t ullMagic = 0;
  QI_RETURN_IF_ERROR(m_pPlatform->GetFileSystemMagic(strPath, ullMagic));
  if (ullMagic != CGpfsPlatform::kGpfsMagic) return QI_ERROR_ERRNO(EINVAL, "Not a Gpfs volume");
  QI_RETURN_IF_ERROR(m_pPlatform->GetMountDevice(strPath, strDevice));
  if (strDevice.empty()) {
    ZRLOG(-1, "Unable to get DeviceName. mntEntry is null");
    return QI_ERROR_ERRNO(EINVAL, "Unable to get DeviceName. mntEntry is null");
  }
  ullDevice = static_cast<uint64_t>(st.st_dev);
  return CQiError();
}

CQiError CGpfsScanEngine::RunCommand(const std::string& strCommand, std::string& strOutput,
                                     int& iExitCode) {
  strOutput.clear();
  iExitCode = -1;
  ZrProcess process;
  QI_RETURN_IF_ERROR(process.Start(strCommand));
  CQiError error = process.WaitForExit(ZrProcess::kInfinite, [this] { return IsJobAborted(); },
                                       kCommandSliceMs);
  strOutput = process.GetStdout() + process.GetStderr();
  QI_RETURN_IF_ERROR(error);
  iExitCode = process.GetExitCode();
  return CQiError();
}

CQiError CGpfsScanEngine::IsGpfsClusterUp() {
  std::string strOutput;
  int iExitCode = -1;
  CQiError error = RunCommand(CGpfsPolicy::ClusterStateCommand(m_strGpfsBinDir), strOutput, iExitCode);
  if (error.IsWin32(QiErrorCode::OperationAborted)) return QI_PUSH(error);
  if (error.IsError())
    return QI_ERROR_ERRNO(EINVAL, "Command failed. Failed to get GPFS cluster status. err %s",
                          error.AsString().c_str());
  ZRLOG(-1, "Current status '%s'.", Esc(strOutput).c_str());
  if (strOutput != kClusterActive) return QI_ERROR_ERRNO(EINVAL, "Cluster status %s", Esc(strOutput).c_str());
  return CQiError();
}

CQiError CGpfsScanEngine::GpfsFlushIoOnAllNodes(const std::string& strDevice) {
  CQiError error = GpfsSuspend(strDevice);
  if (error.IsSuccess()) error = GpfsResume(strDevice);
  if (error.IsError()) {
    ZRLOG(-1, "Unable to suspend/resume io on %s.", Esc(strDevice).c_str());
    return QI_PUSH(error);
  }
  return CQiError();
}

CQiError CGpfsScanEngine::GpfsSuspendInternal(const std::string& strDevice, const char* szMode) {
  ZRLOG(0, "Suspending %s", Esc(strDevice).c_str());
  const std::string strCommand = ShellQuote::Word(m_strGpfsBinDir + "mmfsctl") + " " +
                                 ShellQuote::Argument(strDevice) + " " + szMode;
  ZrProcess process;
  CQiError error = process.Start(strCommand);
  if (error.IsError())
    return QI_ERROR_WIN32(QiErrorCode::FunctionFailed, "Command failed. Failed to suspend %s. err %s",
                          Esc(strDevice).c_str(), error.AsString().c_str());
  const CGpfsPlatform::STimings& timings = m_pPlatform->GetTimings();
  const uint64_t ullTimeout = timings.ullSuspendTimeoutSec != 0 ? timings.ullSuspendTimeoutSec : m_ullSuspendTimeout;
  const Clock::time_point tEnd = Clock::now() + std::chrono::seconds(ullTimeout);
  for (;;) {
    bool bFinished = false;
    QI_RETURN_IF_ERROR(process.Wait(timings.uSuspendSliceMs, bFinished));
    if (bFinished) break;
    if (IsJobAborted()) {
      ZRLOG(-1, "File Scan interrupted by Job Manager. Killing process '%s'. pid %d",
            Esc(strCommand).c_str(), static_cast<int>(process.GetPid()));
      if (process.Kill(SIGTERM).IsError())
        ZRLOG(-1, "Failed to kill '%s'. pid %d", Esc(strCommand).c_str(), static_cast<int>(process.GetPid()));
      return QI_ERROR_WIN32(QiErrorCode::OperationAborted, "Operation aborted");
    }
    if (Clock::now() >= tEnd) {
      if (process.Kill(SIGKILL).IsError()) ZRLOG(-1, "Failed to kill '%s'", Esc(strCommand).c_str());
      ZRLOG(-1, "%s taking more time than %lu seconds. Reverting back to default scan",
            Esc(strCommand).c_str(), static_cast<unsigned long>(ullTimeout));
      return QI_ERROR_WIN32(QiErrorCode::FunctionFailed, "%s taking more time than %lu seconds",
                            Esc(strCommand).c_str(), static_cast<unsigned long>(ullTimeout));
    }
  }
  if (process.GetExitCode() != 0)
    return QI_ERROR_WIN32(QiErrorCode::FunctionFailed, "Failed to suspend %s. err %s",
                          Esc(strDevice).c_str(), Esc(process.GetStdout() + process.GetStderr()).c_str());
  return CQiError();
}

bool CGpfsScanEngine::ShouldRetrySuspend() {
  std::string strOutput;
  int iExitCode = -1;
  if (RunCommand(ShellQuote::Word(m_strGpfsBinDir + "mmfsctl"), strOutput, iExitCode).IsError())
    return false;
  if (strOutput.find("suspend-write") != std::string::npos) return false;
  ZRLOG(-1, "mmfsctl suspend-write is not supported.");
  return true;
}

CQiError CGpfsScanEngine::GpfsSuspend(const std::string& strDevice) {
  CQiError error = GpfsSuspendInternal(strDevice, "suspend-write");
  if (error.IsError() && !error.IsWin32(QiErrorCode::OperationAborted) && ShouldRetrySuspend())
    error = GpfsSuspendInternal(strDevice, "suspend");
  if (error.IsSuccess()) return CQiError();
  if (error.IsWin32(QiErrorCode::OperationAborted)) return QI_PUSH(error);
  if (m_pPlatform->IsRemoteDevice(strDevice, m_strGpfsBinDir)) {
    ZRLOG(-1, "%s is a gpfs device mounted from a remote cluster. GPFS optimized scan cannot be used",
          Esc(strDevice).c_str());
    CQiError sendError =
        ISendEventInterface::SendEventMessage(QI_ERROR_EVENT(kEventRemoteDevice), {strDevice});
    if (sendError.IsError()) ZRLOG(-1, "Failed to send event, error=%s", sendError.AsString().c_str());
    if (m_bFailOnScanError) {
      SetFailJobSet();
    } else {
      ZRLOG(-1, "Reverting back to default scan");
    }
  } else {
    ZRLOG(-1, "Command failed. Failed to suspend %s. err %s. Reverting back to default scan",
          Esc(strDevice).c_str(), error.AsString().c_str());
  }
  return GetErrorCode(QiErrorCode::FunctionFailed, "Failed to suspend %s. err %s",
                      Esc(strDevice).c_str(), error.AsString().c_str());
}

CQiError CGpfsScanEngine::GpfsResume(const std::string& strDevice) {
  ZRLOG(0, "Resuming %s", Esc(strDevice).c_str());
  const std::string strCommand = ShellQuote::Word(m_strGpfsBinDir + "mmfsctl") + " " +
                                 ShellQuote::Argument(strDevice) + " resume";
  std::string strOutput;
  for (int iAttempt = 1;; ++iAttempt) {
    int iExitCode = -1;
    CQiError error = RunCommand(strCommand, strOutput, iExitCode);
    if (error.IsWin32(QiErrorCode::OperationAborted)) return QI_PUSH(error);
    if (error.IsSuccess() && iExitCode == 0) break;
    if (error.IsError()) strOutput = error.AsString();
    if (iAttempt == 2)
      return GetErrorCode(QiErrorCode::FunctionFailed, "Command failed. Failed to resume %s. err %s",
                          Esc(strDevice).c_str(), Esc(strOutput).c_str());
    ZRLOG(-1, "Command failed. Failed to resume %s. err %s. Retrying", Esc(strDevice).c_str(),
          Esc(strOutput).c_str());
  }
  ZRLOG(0, "Resumed %s", Esc(strDevice).c_str());
  return CQiError();
}

CQiError CGpfsScanEngine::ProcessWorkUnit2(CWorkUnitPtr pWorkUnit) {
  ZRDEBUG_FUNCTION(2);
  if (!pWorkUnit) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "No work unit");
  m_pPlatform = CGpfsPlatform::Current();
  const std::string& strLocalVolume = pWorkUnit->GetLocalVolumeName();
  std::string strDevice;
  QI_RETURN_IF_ERROR(IsGpfs(strLocalVolume, strDevice, m_ullDevice));
  const std::string strPolicyBinary = m_strGpfsBinDir + "mmapplypolicy";
  struct stat st {};
  if (stat(strPolicyBinary.c_str(), &st) != 0) {
    ZRLOG(0, "Unable to locate GPFS binary path at %s. Please set correct location of GPFS binary "
             "path in registry key 'sGpfsBin' in in Additional Settings of GUI and resume the job.",
          Esc(m_strGpfsBinDir).c_str());
    return QI_ERROR_WIN32(QiErrorCode::OperationAborted, "Invalid gpfs binary path");
  }
  CQiError clusterError = IsGpfsClusterUp();
  if (clusterError.IsError()) {
    // A cluster that is not up fails the check (EINVAL: the default scan runs instead), unless
    // scan errors fail the job, as every other failure of this scan does.
    if (clusterError.IsWin32(QiErrorCode::OperationAborted) || !m_bFailOnScanError) return QI_PUSH(clusterError);
    SetFailJobSet();
    return QI_PUSH(GetErrorCode(QiErrorCode::FunctionFailed, "%s", clusterError.AsString().c_str()));
  }
  QI_RETURN_IF_ERROR(GpfsFlushIoOnAllNodes(strDevice));

  std::string strJobResults;
  if (!m_pScannerCallback ||
      m_pScannerCallback->GetParameter(SXScannerConfigurationBagId::idJobResultsDirectory, strJobResults, true)
          .IsError() ||
      strJobResults.empty())
    return QI_ERROR_ERRNO(EINVAL, "Unable to get SubClient Directory.");
  unsigned long long ullReferenceTime = 0;
  if (m_pScannerCallback->GetParameter(SXScannerConfigurationBagId::idReferenceTime, ullReferenceTime, true)
          .IsError())
    return QI_ERROR_ERRNO(EINVAL, "Unable to get ReferenceTime.");
  m_ullReferenceTime = ullReferenceTime;
  bool bSnap = false, bHardLinks = false, bDiskCleanup = false, bTrueUp = false, bTopLevel = false;
  ReadParameter(kParamGpfsSnap, bSnap);
  ZRLOG(5, "IsGpfsSnap %d", bSnap ? 1 : 0);
  ReadParameter(kParamHardLinks, bHardLinks);
  ReadParameter(kParamDiskCleanup, bDiskCleanup);
  ReadParameter(kParamTrueUp, bTrueUp);
  ReadParameter(SXScannerConfigurationBagId::idProcessTopLevelContent, bTopLevel);
  for (const CScanPathPtr& pScanPath : pWorkUnit->GetScanPaths())
    ZRLOG(0, "LocalScanPath=%s, SourceScanPath=%s", Esc(pScanPath->GetLocalScanPath()).c_str(),
          Esc(pScanPath->GetSourceScanPath()).c_str());

  // The volume's output handler, open from the first traversal on; every way out closes it.
  struct SCloseGuard {
    CGpfsScanEngine* pEngine;
    const std::string& strVolume;
    ~SCloseGuard() {
      if (!pEngine->GetOutputHandler()) return;
      CQiError error = pEngine->CloseOutputHandler();
      if (error.IsError())
        ZRLOG(-1, "CloseOutputHandler failed, LocalVolumeName=%s Error:%s", Esc(strVolume).c_str(),
              error.AsString().c_str());
    }
  } guard{this, strLocalVolume};
  auto scanOne = [&](const std::string& strLocal, const std::string& strSource) -> CQiError {
    std::string strCollectFile;
    QI_RETURN_IF_ERROR(ProcessScanPath(strLocal, strJobResults, m_ullReferenceTime, strCollectFile,
                                       pWorkUnit->GetLocalVolumeUniqueId()));
    if (!GetOutputHandler()) QI_RETURN_IF_ERROR(OpenOutputHandler(pWorkUnit->GetSourceVolumeName()));
    QI_RETURN_IF_ERROR(TraverseCollect(pWorkUnit, strLocal, strSource, strCollectFile, bHardLinks,
                                       bDiskCleanup, bTrueUp, bTopLevel));
    return CQiError();
  };

  const std::vector<std::string> lstSurfaces = pWorkUnit->GetSurfaceList();
  if (lstSurfaces.empty()) {
    CQiError error = scanOne(strLocalVolume, pWorkUnit->GetSourceVolumeName());
    if (error.IsError())
      return QI_PUSH(error, "Traverse failed, LocalVolumeName=%s", Esc(strLocalVolume).c_str());
  } else {
    const unsigned long long ullSurfaces = lstSurfaces.size();
    ZRLOG(1, "Processing work unit by surface (%llu surfaces)", ullSurfaces);
    const std::string strSourceVolume = FXPath::RemoveTrailingDelimiters(pWorkUnit->GetSourceVolumeName());
    const std::string strLocalBase = FXPath::RemoveTrailingDelimiters(strLocalVolume);
    for (size_t i = 0; i < lstSurfaces.size(); ++i) {
      const std::string& strSurface = lstSurfaces[i];
      ZRLOG(1, "Surface=%s (%d of %llu)", Esc(strSurface).c_str(), static_cast<int>(i + 1), ullSurfaces);
      ZRLOG(2, "strLocalSurfacePath [%s] sourceVolumeName[%s] localVolumeName [%s]", Esc(strSurface).c_str(),
            Esc(strSourceVolume).c_str(), Esc(strLocalBase).c_str());
      CQiError error = scanOne(strSurface, GetSourceSurfacePath(strSurface, strLocalBase, strSourceVolume));
      if (error.IsError())
        return QI_PUSH(error, "Traverse failed, LocalVolumeName=%s Error:%s", Esc(strLocalVolume).c_str(),
                       error.AsString().c_str());
    }
  }
  if (GetOutputHandler()) {
    CQiError error = CloseOutputHandler();
    if (error.IsError()) {
      ZRLOG(-1, "CloseOutputHandler failed, LocalVolumeName=%s Error:%s", Esc(strLocalVolume).c_str(),
            error.AsString().c_str());
      return QI_PUSH(error);
    }
  }
  return CQiError();
}

CQiError CGpfsScanEngine::TraverseCollect(const CWorkUnitPtr& pWorkUnit, const std::string& strLocalPath,
                                          const std::string& strSourcePath, const std::string& strCollectFile,
                                          bool bHardLinks, bool bDiskCleanup, bool bTrueUp, bool bTopLevel) {
  auto pEnumerator = std::make_shared<CGpfsPathEnumerator>(strCollectFile, m_ullDevice, m_ullReferenceTime,
                                                           strLocalPath, strSourcePath, bHardLinks,
                                                           bDiskCleanup, bTrueUp);
  CGpfsEnumerateFiles traversal(this, pEnumerator, strLocalPath, bTopLevel);
  ZRLOG(0, "Folder Level Multi-threading is not supported for GPFS Scan. Setting Number of Threads to 1.");
  traversal.SetMaxWorkers(1);
  traversal.AddFolderToList(strLocalPath, strSourcePath);
  traversal.SetExcludedAttributes(m_uExcludedAttributes);
  traversal.SetWorkUnitBag(pWorkUnit->GetBag());
  traversal.SetScanContent(pWorkUnit->GetScanContent());
  traversal.SetFilters(pWorkUnit->GetFilters());
  traversal.SetSystemFilters(pWorkUnit->GetSystemFilters());
  traversal.SetAbortCheck(m_pScannerCallback.get());
  bool bBuiltInFilter = false;
  ReadParameter(kParamBuiltInFilter, bBuiltInFilter);
  traversal.EnableBuiltInSystemProtectedFilesFilter(bBuiltInFilter);
  traversal.SetProcessTopLevelContentItem(bTopLevel);
  if (ZRLOG_ON(6)) {
    auto pWriter = std::make_shared<CMemoryLineWriter>();
    pWorkUnit->GetScanContent()->DumpDiagnosticData(pWriter, "ScanContent ");
    pWorkUnit->GetFilters()->DumpDiagnosticData(pWriter, "Filters ");
    pWorkUnit->GetSystemFilters()->DumpDiagnosticData(pWriter, "SystemFilters ");
    for (const std::string& strLine : pWriter->GetLines()) ZRLOG(6, "%s", Esc(strLine).c_str());
  }
  QI_RETURN_IF_ERROR(traversal.Traverse(), "Traverse failed for [%s]", Esc(strLocalPath).c_str());
  // A listing that met an invalid record stopped there: the unit is not reported in part.
  CQiError collectError = pEnumerator->GetCollectError();
  if (collectError.IsError()) return QI_PUSH(collectError, "Traverse failed for [%s]", Esc(strLocalPath).c_str());
  return CQiError();
}

CQiError CGpfsScanEngine::ProcessScanPath(const std::string& strScanPath, const std::string& strJobResults,
                                          uint64_t ullReferenceTime, std::string& strCollectFile,
                                          const std::string& strId) {
  ZRDEBUG_FUNCTION(2);
  const std::string strPolicyFile = FXString::Format("%s/GpfsMmPolicy_%s", strJobResults.c_str(), strId.c_str());
  const std::string strScriptFile =
      FXString::Format("%s/GpfsMmApplyPolicy_%s.sh", strJobResults.c_str(), strId.c_str());
  strCollectFile = FXString::Format("%s/GpfsCollect_%s.zrf", strJobResults.c_str(), strId.c_str());
  ZRLOG(0, "ScanPath %s. CollectFile %s, timeout %lu", Esc(strScanPath).c_str(), Esc(strCollectFile).c_str(),
        static_cast<unsigned long>(m_ullSuspendTimeout));
  CQiError error = GenerateGpfsScripts(strScanPath, strPolicyFile, strScriptFile, strCollectFile, ullReferenceTime);
  if (error.IsError()) {
    ZRLOG(-1, "Unable to create Gpfs scripts, error=%s", error.AsString().c_str());
    if (!m_bFailOnScanError) SendPendingEventOnGpfsScriptFailure();
    return GetErrorCode(QiErrorCode::FunctionFailed, "Unable to create Gpfs scripts");
  }
  error = RunPolicyScan(strScriptFile, strCollectFile + ".stderr");
  if (error.IsSuccess()) error = FinishPolicyScan(strScanPath, strCollectFile + ".stdout", strCollectFile);
  ZRDebugBreak::Hook(kDoneHookFile, [this] { return IsJobAborted(); });
  if (error.IsError()) {
    // An abort ends the job anyway; any other failure either fails it or falls back.
    if (!IsJobAborted()) {
      if (m_bFailOnScanError) {
        SetFailJobSet();
        SendPendingEventOnGpfsScanFailure();
      } else {
        SendPendingEventOnGpfsScriptFailure();
      }
    }
    return QI_PUSH(error);
  }
  return CQiError();
}

CQiError CGpfsScanEngine::RunPolicyScan(const std::string& strScriptFile, const std::string& strStderrFile) {
  const CGpfsPlatform::STimings& timings = m_pPlatform->GetTimings();
  const std::string strCommand = ShellQuote::Argument(strScriptFile);
  uint64_t ullAttemptsLeft = m_ullScanAttempts;
  for (;;) {
    CQiError error;
    ZrProcess process;
    CQiError startError = process.Start(strCommand);
    if (startError.IsError()) {
      error = GetErrorCode(QiErrorCode::FunctionFailed, "Command failed. GPFS scan will not be performed. error %s",
                           startError.AsString().c_str());
    } else {
      for (bool bFinished = false; !bFinished;) {
        QI_RETURN_IF_ERROR(process.Wait(timings.uPolicyPollMs, bFinished));
        if (bFinished || !IsJobAborted()) continue;
        ZRLOG(-1, "File Scan interrupted by Job Manager. Killing process '%s'. pid %d", Esc(strCommand).c_str(),
              static_cast<int>(process.GetPid()));
        GpfsCleanup(process.GetPid());
        // Whatever the cleanup missed goes with the script's process group.
        if (process.Kill(SIGTERM).IsError())
          ZRLOG(-1, "Failed to kill '%s'. pid %d", Esc(strCommand).c_str(), static_cast<int>(process.GetPid()));
        return QI_ERROR_WIN32(QiErrorCode::OperationAborted, "Operation aborted");
      }
      const int iExitCode = process.GetExitCode();
      if (iExitCode == 0) return CQiError();
      ZRLOG(-1, "mmapplypolicy command failed with return code %d", iExitCode);
      if (iExitCode == 2) {
        if (m_bDisableStderrParsing) return CQiError();
        QI_RETURN_IF_ERROR(ValidateGpfsScanErrors(strStderrFile));
        return CQiError();
      }
      error = GetErrorCode(QiErrorCode::FunctionFailed,
                           "mmapplypolicy command failed. GPFS scan will not be performed. error %d", iExitCode);
    }
    ZRLOG(-1, "%s", error.AsString().c_str());
    if (--ullAttemptsLeft == 0) return error;
    ZRLOG(0, "Gpfs scan will be retried again. Num Retries left: %lu.", static_cast<unsigned long>(ullAttemptsLeft));
    ZRLOG(0, "Sleeping for %d seconds before retrying", static_cast<int>((timings.uRetryPauseMs + 999) / 1000));
    if (!SleepUnlessAborted(timings.uRetryPauseMs))
      return QI_ERROR_WIN32(QiErrorCode::OperationAborted, "Operation aborted");
  }
}

CQiError CGpfsScanEngine::ValidateGpfsScanErrors(const std::string& strStderrFile) {
  ZRLOG(0, "Parsing %s to validate gpfs error", Esc(strStderrFile).c_str());
  std::string strFatalLine;
  CQiError error = CGpfsPolicy::FindFatalError(strStderrFile, strFatalLine);
  if (error.IsError()) {
    ZRLOG(-1, "%s", error.AsString().c_str());
    return GetErrorCode(QiErrorCode::FunctionFailed, "Failed to open %s. errno %d", Esc(strStderrFile).c_str(),
                        static_cast<int>(error.GetCode()));
  }
  if (strFatalLine.empty()) return CQiError();
  ZRLOG(-1, "Found a fatal error. Do not use mmapplypolicy output. Line: '%s'", Esc(strFatalLine).c_str());
  return GetErrorCode(QiErrorCode::FunctionFailed, "Found a fatal error. Do not use mmapplypolicy output. Line: '%s'",
                      Esc(strFatalLine).c_str());
}

CQiError CGpfsScanEngine::FinishPolicyScan(const std::string& strScanPath, const std::string& strStdoutFile,
                                           const std::string& strCollectFile) {
  ZRLOG(0, "Gpfs Scan completed %s. Proceeding to process modified files", Esc(strScanPath).c_str());
  struct stat st {};
  if (stat(strStdoutFile.c_str(), &st) != 0 || st.st_size == 0) {
    ZRLOG(-1, "Gpfs Scan failed. %s does not exist or is empty.", Esc(strStdoutFile).c_str());
    return GetErrorCode(QiErrorCode::FunctionFailed, "Gpfs Scan failed. %s does not exist or is empty.",
                        Esc(strStdoutFile).c_str());
  }
  CQiError error = CGpfsPolicy::PreProcessOutput(strStdoutFile, strCollectFile);
  if (error.IsSuccess()) error = SortCollectFile(strCollectFile);
  if (error.IsError()) {
    ZRLOG(-1, "%s", error.AsString().c_str());
    return GetErrorCode(QiErrorCode::FunctionFailed, "%s", error.AsString().c_str());
  }
  return CQiError();
}

CQiError CGpfsScanEngine::SortCollectFile(const std::string& strCollectFile) {
  const std::string strSorted = strCollectFile + ".tmp";
  const std::string strScratch = m_strWorkDir + "/GpfsCollect.tmpdir";
  if (mkdir(strScratch.c_str(), 0700) != 0 && errno != EEXIST)
    return QI_ERROR_ERRNO(errno, "Unable to sort %s", Esc(strCollectFile).c_str());
  CQiError error = BatchSort(strCollectFile, strSorted, strScratch);
  if (error.IsError()) return QI_PUSH(error, "Unable to sort %s", Esc(strCollectFile).c_str());
  if (unlink(strCollectFile.c_str()) != 0 || rename(strSorted.c_str(), strCollectFile.c_str()) != 0)
    return QI_ERROR_ERRNO(errno, "Unable to sort %s", Esc(strCollectFile).c_str());
  ZRLOG(0, "'%s' sorted.", Esc(strCollectFile).c_str());
  return CQiError();
}

CQiError CGpfsScanEngine::GenerateGpfsScripts(const std::string& strScanPath, const std::string& strPolicyFile,
                                              const std::string& strScriptFile, const std::string& strCollectFile,
                                              uint64_t ullReferenceTime) {
  CGpfsPolicy::SOptions options;
  long long llSkipOffline = 0;
  (void)ZRPlatformInfo::Instance().GetValue(kSection, "nSkipGpfsOfflineFiles", llSkipOffline);
  options.bSkipOffline = llSkipOffline != 0;
  ReadParameter(kParamMtime, options.bUseMtime);
  ReadParameter(kParamCtime, options.bUseCtime);
  ReadParameter(kParamHardLinks, options.bHardLinks);
  ReadParameter(kParamDiskCleanup, options.bDiskCleanup);
  ReadParameter(kParamTrueUp, options.bTrueUp);
  std::string strPolicy;
  CQiError error = CGpfsPolicy::BuildPolicyText(options, strPolicy);
  if (error.IsError()) {
    ZRLOG(-1, "Invalid option. Both m_bUseMtimeForIncr and m_bUseCtimeForIncr not selected");
    return QI_PUSH(error);
  }
  QI_RETURN_IF_ERROR(WriteWholeFile(strPolicyFile, strPolicy, 0644));
  const std::string strLine =
      CGpfsPolicy::BuildScriptLine(m_strGpfsBinDir, strScanPath, strPolicyFile, ullReferenceTime,
                                   strCollectFile + ".stderr", m_strWorkDir, strCollectFile + ".stdout");
  QI_RETURN_IF_ERROR(WriteWholeFile(strScriptFile, strLine + "\n", 0777));
  return CQiError();
}

void CGpfsScanEngine::GpfsCleanup(pid_t pid) {
  const std::string strCommand = FXString::Format(
      "pstree -A -la -p %d | egrep \"(sh|awk|mmapplypolicy|tsapolicy)\" | head -4 | awk -F \",\" '{print $2}' | "
      "awk '{print $1}' ",
      static_cast<int>(pid));
  // The job is aborted already: this command is waited for without the abort check.
  ZrProcess process;
  process.SetStderr(ZrProcess::EOutput::Null);
  if (process.Start(strCommand).IsError() || process.WaitForExit(30000).IsError()) {
    ZRLOG(-1, "Unable to get child pids");
    return;
  }
  for (const std::string& strLine : FXString::Split(process.GetStdout(), '\n')) {
    long long llPid = 0;
    if (FXString::ToInt64(FXString::Trim(strLine), llPid).IsError() || llPid <= 1) continue;
    ZRLOG(0, "Killing pid %d", static_cast<int>(llPid));
    (void)ZrProcess::KillPids({static_cast<pid_t>(llPid)}, SIGKILL);
  }
}

void CGpfsScanEngine::SendPendingEventOnGpfsScanFailure() {
  CQiError error = ISendEventInterface::SendEventMessage(QI_ERROR_EVENT(kEventScanFailure));
  if (error.IsError()) ZRLOG(-1, "Failed to send event, error=%s", error.AsString().c_str());
}

void CGpfsScanEngine::SendPendingEventOnGpfsScriptFailure() {
  CQiError error = ISendEventInterface::SendEventMessage(QI_ERROR_EVENT(kEventScriptFailure));
  if (error.IsError()) ZRLOG(-1, "Failed to send event, error=%s", error.AsString().c_str());
}
