// FXPathVolume: the platform's volume-mount-point lookup, kept apart from FXPath so that the
// path helpers stay free of the mount table.
//
// ZRGetVolumeNameForVolumeMountPoint gives the mount point of the volume that holds a path
// ("/" for the root volume), without a trailing delimiter; callers that need one add it. It is
// MountPathInfo::GetVolumeName under the name the engines use, with the same errors.
//
// Stateless; safe from any thread.
#pragma once

#include <string>

#include "Platform/QiError.h"

class FXPathVolume {
 public:
  static CQiError ZRGetVolumeNameForVolumeMountPoint(const std::string& path, std::string& volumeName);
};
