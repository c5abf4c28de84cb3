#include "TestGpfsPlatform.h"

#include <sys/stat.h>

bool CTestGpfsPlatform::SetVolume(const std::string& strDir) {
  struct stat st {};
  if (stat(strDir.c_str(), &st) != 0) return false;
  m_device = st.st_dev;
  return true;
}

bool CTestGpfsPlatform::IsOnVolume(const std::string& strPath) const {
  struct stat st {};
  return lstat(strPath.c_str(), &st) == 0 && st.st_dev == m_device;
}

CQiError CTestGpfsPlatform::GetFileSystemMagic(const std::string& strPath, uint64_t& ullMagic) {
  if (!IsOnVolume(strPath)) return CGpfsPlatform::GetFileSystemMagic(strPath, ullMagic);
  ullMagic = kGpfsMagic;
  return CQiError();
}

CQiError CTestGpfsPlatform::GetMountDevice(const std::string& strPath, std::string& strDevice) {
  if (!IsOnVolume(strPath)) return CGpfsPlatform::GetMountDevice(strPath, strDevice);
  strDevice = "gpfs0";
  return CQiError();
}

bool CTestGpfsPlatform::IsRemoteDevice(const std::string& strDevice, const std::string& strBinDir) {
  return strDevice == "gpfs0" ? false : CGpfsPlatform::IsRemoteDevice(strDevice, strBinDir);
}
