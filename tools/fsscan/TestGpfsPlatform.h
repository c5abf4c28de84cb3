// CTestGpfsPlatform: fsscan's test option --test-gpfs-volume DIR. It declares the file system
// that holds DIR to be a GPFS volume with device "gpfs0", mounted locally, so that the gpfs
// engine runs on this machine against the fake GPFS tools of a test (named by "sGpfsBin" in the
// settings file). Every other file system keeps its real answer; the waiting times stay the
// engine's own.
//
// Threads: as CGpfsPlatform (stateless after construction).
#pragma once

#include <sys/types.h>

#include <string>

#include "Scan/Unix/GpfsPlatform.h"

class CTestGpfsPlatform : public CGpfsPlatform {
 public:
  // False when DIR cannot be described (the option is then refused).
  bool SetVolume(const std::string& strDir);

  CQiError GetFileSystemMagic(const std::string& strPath, uint64_t& ullMagic) override;
  CQiError GetMountDevice(const std::string& strPath, std::string& strDevice) override;
  bool IsRemoteDevice(const std::string& strDevice, const std::string& strBinDir) override;

 private:
  bool IsOnVolume(const std::string& strPath) const;

  dev_t m_device = 0;
};
