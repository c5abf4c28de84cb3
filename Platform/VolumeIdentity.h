// CVolumeIdentity: the names and ids under which the scan groups its work.
//
// - Local volume name of a path: the mount point of the volume holding it (MountPathInfo).
// - Volume unique id: stable for the file system, the same on every mount of it.
//     * network file systems: "<type>:<source>" ("nfs4:server:/export");
//     * block-backed file systems with a UUID: the UUID, from the /dev/disk/by-uuid link whose
//       target is the volume's block device;
//     * otherwise "dev-MAJ:MIN" of the volume's block device, or of the mount's own device
//       number when no block device backs it (tmpfs, overlay, proc).
//   A mount of a sub-folder of the file system (a bind mount, a btrfs subvolume) appends
//   ":" and that folder ("<uuid>:/@home"), so different trees never share an id.
// - Physical-media id: what the volume's data sits on, so that volumes of one disk are scanned
//   one after another and different disks in parallel.
//     * "UNC" for network file systems (skipFS::IsNetworkFSType);
//     * "/dev/<disk>" for the whole disk that backs a block device, found through
//       /sys/dev/block/MAJ:MIN: a partition's parent disk; a device-mapper or md device followed
//       down its "slaves" to the disks under it. When several disks lie under one volume
//       (striped LVM, RAID), the one with the lowest device number (major, then minor) is taken,
//       so the id does not depend on listing order;
//     * "dev-MAJ:MIN", the volume's own device number, for everything else (tmpfs, overlay).
// The block device of a mount is its MAJ:MIN when /sys knows that number as a block device;
// otherwise (btrfs reports an anonymous number) a mount source that names a device node
// ("/dev/sda2", "/dev/mapper/vg-lv") is resolved to its kernel name and looked up in
// /sys/class/block.
//
// The /sys and /dev trees are read under settable roots, so tests build fake trees in a
// temporary folder. Ids are computed afresh on each call; nothing is cached.
//
// An instance is immutable after construction and may be used from any thread. GetDefault()
// returns a copy of the process-wide instance (roots "/sys" and "/dev" unless SetDefaultRoots
// changed them).
#pragma once

#include <string>
#include <vector>

#include "Platform/FXFolder.h"
#include "Platform/QiError.h"

class CVolumeIdentity {
 public:
  // A block device as /sys describes it.
  struct SBlockDevice {
    std::string m_strName;   // kernel name: "sda1", "dm-0"
    unsigned m_uMajor = 0;
    unsigned m_uMinor = 0;
    std::string m_strSysPath;  // its folder under the sysfs root, links resolved
  };

  CVolumeIdentity();  // "/sys" and "/dev"
  CVolumeIdentity(std::string sysRoot, std::string devRoot);

  static CVolumeIdentity GetDefault();
  static void SetDefaultRoots(const std::string& sysRoot, const std::string& devRoot);

  const std::string& GetSysRoot() const { return m_strSysRoot; }
  const std::string& GetDevRoot() const { return m_strDevRoot; }

  // The mount point of the volume holding the path (MountPathInfo::GetVolumeName).
  CQiError GetVolumeName(const std::string& path, std::string& volumeName) const;
  // Ids of a volume given by name (its mount point, trailing delimiters ignored; a path that is
  // not a mount point stands for the volume holding it), from the current mount table.
  CQiError GetVolumeUniqueId(const std::string& volumeName, std::string& uniqueId) const;
  CQiError GetPhysicalMediaId(const std::string& volumeName, std::string& physicalMediaId) const;

  // Ids of a mount given as a mount-table record.
  CQiError GetVolumeUniqueId(const SLogicalVolume& volume, std::string& uniqueId) const;
  CQiError GetPhysicalMediaId(const SLogicalVolume& volume, std::string& physicalMediaId) const;

  // The block device backing a mount; Win32 1168 when none does.
  CQiError FindBlockDevice(const SLogicalVolume& volume, SBlockDevice& device) const;
  // The whole disks under a block device, lowest device number first; a disk gives itself.
  CQiError FindWholeDisks(const SBlockDevice& device, std::vector<SBlockDevice>& disks) const;
  // The UUID whose /dev/disk/by-uuid link names the device; Win32 1168 when there is none.
  CQiError FindUuid(const SBlockDevice& device, std::string& uuid) const;

 private:
  CQiError LookUpVolume(const std::string& volumeName, SLogicalVolume& volume) const;
  CQiError DescribeSysPath(const std::string& sysPath, SBlockDevice& device) const;
  CQiError CollectDisks(const SBlockDevice& device, int depth, std::vector<SBlockDevice>& disks) const;

  std::string m_strSysRoot;
  std::string m_strDevRoot;
};
