#include "Scan/Unix/GpfsPlatform.h"

#include <sys/vfs.h>

#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <sstream>
#include <vector>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXFolder.h"
#include "Platform/FXPath.h"
#include "Platform/FXString.h"
#include "Platform/ZrProcess.h"
#include "Platform/ShellQuote.h"

namespace {
std::mutex g_mutexCurrent;
CGpfsPlatformPtr g_pCurrent;
}  // namespace

CQiError CGpfsPlatform::GetFileSystemMagic(const std::string& strPath, uint64_t& ullMagic) {
  struct statfs st {};
  if (statfs(strPath.c_str(), &st) != 0)
    return QI_ERROR_ERRNO(errno, "statfs failed for %s", FXString::EscapeControl(strPath).c_str());
  ullMagic = static_cast<uint64_t>(st.f_type);
  return CQiError();
}

CQiError CGpfsPlatform::GetMountDevice(const std::string& strPath, std::string& strDevice) {
  strDevice.clear();
  std::vector<SLogicalVolume> lstVolumes;
  QI_RETURN_IF_ERROR(FXFolder::getLogicalVolumeList(lstVolumes));
  size_t uBest = 0;
  for (const SLogicalVolume& volume : lstVolumes) {
    const std::string& strPoint = volume.m_strMountPoint;
    if (!FXPath::IsAncestorOf(strPoint, strPath, true)) continue;
    if (strDevice.empty() || strPoint.size() >= uBest) {
      uBest = strPoint.size();
      strDevice = volume.m_strMountSource;
    }
  }
  return CQiError();
}

bool CGpfsPlatform::IsRemoteDevice(const std::string& strDevice, const std::string& strBinDir) {
  ZrProcess process;
  process.SetStderr(ZrProcess::EOutput::Null);
  if (process.Start(ShellQuote::Word(strBinDir + "mmremotefs") + " show all").IsError() ||
      process.WaitForExit(60000).IsError() || process.GetExitCode() != 0)
    return false;
  const std::string strName =
      FXString::StartsWith(strDevice, "/dev/") ? strDevice.substr(5) : strDevice;
  std::istringstream lines(process.GetStdout());
  std::string strLine;
  while (std::getline(lines, strLine)) {
    std::istringstream words(strLine);
    std::string strFirst;
    if (words >> strFirst && strFirst == strName) return true;
  }
  return false;
}

std::string CGpfsPlatform::getOrreryTempDirectory() {
  const char* szTemp = getenv("TMPDIR");
  return szTemp != nullptr && *szTemp != '\0' ? std::string(szTemp) : std::string("/tmp");
}

CGpfsPlatformPtr CGpfsPlatform::Current() {
  std::lock_guard<std::mutex> lock(g_mutexCurrent);
  if (!g_pCurrent) g_pCurrent = std::make_shared<CGpfsPlatform>();
  return g_pCurrent;
}

void CGpfsPlatform::SetCurrent(CGpfsPlatformPtr pPlatform) {
  std::lock_guard<std::mutex> lock(g_mutexCurrent);
  g_pCurrent = std::move(pPlatform);
}
