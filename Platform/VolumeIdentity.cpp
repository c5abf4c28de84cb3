#include "Platform/VolumeIdentity.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Platform/MountPathInfo.h"
#include "Platform/SkipFS.h"

namespace {
constexpr int kMaxStackDepth = 16;  // device-mapper / md stacks deeper than this are refused

std::mutex g_mtxDefault;
std::string g_strDefaultSysRoot = "/sys";
std::string g_strDefaultDevRoot = "/dev";

bool RealPath(const std::string& path, std::string& resolved) {
  std::unique_ptr<char, decltype(&free)> out(realpath(path.c_str(), nullptr), &free);
  if (!out) return false;
  resolved = out.get();
  return true;
}

bool ReadFirstLine(const std::string& path, std::string& line) {
  std::ifstream in(path);
  if (!in) return false;
  std::getline(in, line);
  line = FXString::Trim(line);
  return true;
}

bool ParseDeviceNumber(const std::string& text, unsigned& major, unsigned& minor) {
  size_t colon = text.find(':');
  if (colon == std::string::npos) return false;
  unsigned long long maj = 0, min = 0;
  if (FXString::ToUInt64(text.substr(0, colon), maj).IsError() ||
      FXString::ToUInt64(text.substr(colon + 1), min).IsError() || maj > 0xffffffffULL ||
      min > 0xffffffffULL)
    return false;
  major = static_cast<unsigned>(maj);
  minor = static_cast<unsigned>(min);
  return true;
}

std::string DeviceId(unsigned major, unsigned minor) {
  return "dev-" + std::to_string(major) + ":" + std::to_string(minor);
}

// "/dev/" + kernel name; the kernel writes '/' in device names as '!' ("cciss!c0d0").
std::string DiskNodeName(const std::string& kernelName) {
  std::string name = kernelName;
  std::replace(name.begin(), name.end(), '!', '/');
  return "/dev/" + name;
}
}  // namespace

CVolumeIdentity::CVolumeIdentity() : CVolumeIdentity("/sys", "/dev") {}

CVolumeIdentity::CVolumeIdentity(std::string sysRoot, std::string devRoot)
    : m_strSysRoot(FXPath::RemoveTrailingDelimiters(sysRoot)),
      m_strDevRoot(FXPath::RemoveTrailingDelimiters(devRoot)) {}

CVolumeIdentity CVolumeIdentity::GetDefault() {
  std::lock_guard<std::mutex> lock(g_mtxDefault);
  return CVolumeIdentity(g_strDefaultSysRoot, g_strDefaultDevRoot);
}

void CVolumeIdentity::SetDefaultRoots(const std::string& sysRoot, const std::string& devRoot) {
  std::lock_guard<std::mutex> lock(g_mtxDefault);
  g_strDefaultSysRoot = sysRoot.empty() ? "/sys" : sysRoot;
  g_strDefaultDevRoot = devRoot.empty() ? "/dev" : devRoot;
}

CQiError CVolumeIdentity::GetVolumeName(const std::string& path, std::string& volumeName) const {
  QI_RETURN_IF_ERROR(MountPathInfo::GetVolumeName(path, volumeName));
  return CQiError();
}

CQiError CVolumeIdentity::LookUpVolume(const std::string& volumeName, SLogicalVolume& volume) const {
  QI_RETURN_IF_ERROR(MountPathInfo::ValidateAbsolutePath(volumeName));
  std::string name = FXPath::RemoveTrailingDelimiters(volumeName);
  std::vector<SLogicalVolume> volumes;
  QI_RETURN_IF_ERROR(FXFolder::getLogicalVolumeList(volumes), "getLogicalVolumeList failed");
  std::vector<SLogicalVolume> visible = FXFolder::FilterVisibleVolumes(volumes);
  for (const SLogicalVolume& candidate : visible) {
    if (candidate.m_strMountPoint == name) {
      volume = candidate;
      return CQiError();
    }
  }
  // Not a mount point as written: the volume that holds the path.
  std::string realPath;
  QI_RETURN_IF_ERROR(MountPathInfo::ResolvePath(name, realPath));
  QI_RETURN_IF_ERROR(MountPathInfo::FindVolume(realPath, visible, volume));
  return CQiError();
}

CQiError CVolumeIdentity::GetVolumeUniqueId(const std::string& volumeName, std::string& uniqueId) const {
  SLogicalVolume volume;
  QI_RETURN_IF_ERROR(LookUpVolume(volumeName, volume));
  QI_RETURN_IF_ERROR(GetVolumeUniqueId(volume, uniqueId));
  return CQiError();
}

CQiError CVolumeIdentity::GetPhysicalMediaId(const std::string& volumeName,
                                             std::string& physicalMediaId) const {
  SLogicalVolume volume;
  QI_RETURN_IF_ERROR(LookUpVolume(volumeName, volume));
  QI_RETURN_IF_ERROR(GetPhysicalMediaId(volume, physicalMediaId));
  return CQiError();
}

CQiError CVolumeIdentity::GetVolumeUniqueId(const SLogicalVolume& volume, std::string& uniqueId) const {
  std::string id;
  SBlockDevice device;
  if (skipFS::IsNetworkFSType(volume.m_strFSType)) {
    id = volume.m_strFSType + ":" + volume.m_strMountSource;
  } else if (FindBlockDevice(volume, device).IsSuccess()) {
    if (FindUuid(device, id).IsError()) id = DeviceId(device.m_uMajor, device.m_uMinor);
  } else {
    id = DeviceId(volume.m_uMajor, volume.m_uMinor);
  }
  if (!volume.m_strRoot.empty() && volume.m_strRoot != "/") id += ":" + volume.m_strRoot;
  uniqueId = id;
  return CQiError();
}

CQiError CVolumeIdentity::GetPhysicalMediaId(const SLogicalVolume& volume,
                                             std::string& physicalMediaId) const {
  if (skipFS::IsNetworkFSType(volume.m_strFSType)) {
    physicalMediaId = "UNC";
    return CQiError();
  }
  SBlockDevice device;
  if (FindBlockDevice(volume, device).IsError()) {
    physicalMediaId = DeviceId(volume.m_uMajor, volume.m_uMinor);
    return CQiError();
  }
  std::vector<SBlockDevice> disks;
  CQiError error = FindWholeDisks(device, disks);
  if (error.IsError() || disks.empty()) {
    ZRLOG(1, "Cannot find the disk under block device %s of volume [%s]; using the device itself, error=%s",
          device.m_strName.c_str(), volume.m_strMountPoint.c_str(), error.AsString().c_str());
    physicalMediaId = DiskNodeName(device.m_strName);
    return CQiError();
  }
  physicalMediaId = DiskNodeName(disks.front().m_strName);
  return CQiError();
}

CQiError CVolumeIdentity::DescribeSysPath(const std::string& sysPath, SBlockDevice& device) const {
  std::string text;
  if (!ReadFirstLine(sysPath + "/dev", text))
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "No device number under %s", sysPath.c_str());
  SBlockDevice out;
  if (!ParseDeviceNumber(text, out.m_uMajor, out.m_uMinor))
    return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Bad device number [%s] under %s",
                          FXString::EscapeControl(text).c_str(), sysPath.c_str());
  out.m_strName = FXPath::GetName(sysPath);
  out.m_strSysPath = sysPath;
  device = std::move(out);
  return CQiError();
}

CQiError CVolumeIdentity::FindBlockDevice(const SLogicalVolume& volume, SBlockDevice& device) const {
  std::string sysPath;
  if (RealPath(m_strSysRoot + "/dev/block/" + volume.DeviceNumber(), sysPath)) {
    QI_RETURN_IF_ERROR(DescribeSysPath(sysPath, device));
    return CQiError();
  }
  // The number is not a block device (btrfs and others report an anonymous one): try the mount
  // source when it names a device node.
  const std::string& source = volume.m_strMountSource;
  if (FXString::StartsWith(source, "/dev/") && source.find('\0') == std::string::npos) {
    std::string node;
    if (RealPath(m_strDevRoot + source.substr(4), node)) {
      std::string name = FXPath::GetName(node);
      if (RealPath(m_strSysRoot + "/class/block/" + name, sysPath)) {
        QI_RETURN_IF_ERROR(DescribeSysPath(sysPath, device));
        return CQiError();
      }
    }
  }
  return QI_ERROR_WIN32(QiErrorCode::NotFound, "No block device backs volume [%s] (%s %s)",
                        volume.m_strMountPoint.c_str(), volume.DeviceNumber().c_str(),
                        volume.m_strMountSource.c_str());
}

CQiError CVolumeIdentity::CollectDisks(const SBlockDevice& device, int depth,
                                       std::vector<SBlockDevice>& disks) const {
  if (depth > kMaxStackDepth)
    return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Block devices stacked too deep under %s",
                          device.m_strName.c_str());
  std::error_code ec;
  // A partition: its folder lies in the folder of its disk.
  if (std::filesystem::exists(device.m_strSysPath + "/partition", ec)) {
    SBlockDevice disk;
    QI_RETURN_IF_ERROR(DescribeSysPath(FXPath::GetParent(device.m_strSysPath), disk),
                       "Parent disk of partition %s", device.m_strName.c_str());
    disks.push_back(std::move(disk));
    return CQiError();
  }
  // A device-mapper or md device: the devices it is built on.
  std::vector<std::string> slaves;
  for (std::filesystem::directory_iterator it(device.m_strSysPath + "/slaves", ec), end;
       !ec && it != end; it.increment(ec))
    slaves.push_back(it->path().string());
  if (slaves.empty()) {
    disks.push_back(device);
    return CQiError();
  }
  for (const std::string& slave : slaves) {
    std::string sysPath;
    if (!RealPath(slave, sysPath)) {
      ZRLOG(1, "Cannot resolve slave %s of block device %s", slave.c_str(), device.m_strName.c_str());
      continue;
    }
    SBlockDevice lower;
    QI_RETURN_IF_ERROR(DescribeSysPath(sysPath, lower));
    QI_RETURN_IF_ERROR(CollectDisks(lower, depth + 1, disks));
  }
  return CQiError();
}

CQiError CVolumeIdentity::FindWholeDisks(const SBlockDevice& device,
                                         std::vector<SBlockDevice>& disks) const {
  std::vector<SBlockDevice> found;
  QI_RETURN_IF_ERROR(CollectDisks(device, 0, found));
  std::sort(found.begin(), found.end(), [](const SBlockDevice& a, const SBlockDevice& b) {
    return a.m_uMajor != b.m_uMajor ? a.m_uMajor < b.m_uMajor : a.m_uMinor < b.m_uMinor;
  });
  found.erase(std::unique(found.begin(), found.end(),
                          [](const SBlockDevice& a, const SBlockDevice& b) {
                            return a.m_uMajor == b.m_uMajor && a.m_uMinor == b.m_uMinor;
                          }),
              found.end());
  if (found.empty())
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "No disk under block device %s",
                          device.m_strName.c_str());
  disks = std::move(found);
  return CQiError();
}

CQiError CVolumeIdentity::FindUuid(const SBlockDevice& device, std::string& uuid) const {
  std::error_code ec;
  std::vector<std::string> matches;
  for (std::filesystem::directory_iterator it(m_strDevRoot + "/disk/by-uuid", ec), end;
       !ec && it != end; it.increment(ec)) {
    std::error_code linkError;
    std::filesystem::path target = std::filesystem::read_symlink(it->path(), linkError);
    if (linkError) continue;
    if (target.filename().string() == device.m_strName)
      matches.push_back(it->path().filename().string());
  }
  if (matches.empty())
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "No UUID link names block device %s",
                          device.m_strName.c_str());
  std::sort(matches.begin(), matches.end());
  uuid = matches.front();
  return CQiError();
}
