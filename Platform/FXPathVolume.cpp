#include "Platform/FXPathVolume.h"

#include "Platform/MountPathInfo.h"

CQiError FXPathVolume::ZRGetVolumeNameForVolumeMountPoint(const std::string& path,
                                                          std::string& volumeName) {
  QI_RETURN_IF_ERROR(MountPathInfo::GetVolumeName(path, volumeName),
                     "ZRGetVolumeNameForVolumeMountPoint failed");
  return CQiError();
}
