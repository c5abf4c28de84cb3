// skipFS: the file-system types a backup treats specially.
//
// GetIgnoreFSTypes lists the pseudo file systems that a backup never enters (kernel interfaces,
// control file systems, automount triggers), space-separated. The engines build their
// ignore-mount lists with IsIgnoredFSType, which compares whole names: a substring search of the
// text would also match "tmpfs" (inside "devtmpfs") and a bare "fuse" (inside "fusectl") and
// leave real data out of the backup. For a caller that searches it as text all the same, the list leaves
// out pseudo file systems whose names hold a real file system's name, which the substring
// search would then ignore: "selinuxfs" (holds "xfs"), "xenfs", "functionfs" and "nfsd" (hold
// "nfs"), "openpromfs" ("romfs"), "spufs" ("ufs"). They are mounted below /sys or /proc, which
// are ignored themselves, so nothing more is entered.
//
// GetNetworkFSTypes lists the network and cluster file systems: their volumes have the
// physical-media id "UNC", and they are the mounts that stale-mount detection probes.
//
// Stateless; safe from any thread.
#pragma once

#include <string>
#include <string_view>

class skipFS {
 public:
  // "proc sysfs devpts devtmpfs cgroup cgroup2 ..." (space-separated, no leading blank).
  static const std::string& GetIgnoreFSTypes();
  // "nfs nfs4 cifs smb3 ..." (space-separated).
  static const std::string& GetNetworkFSTypes();

  // Whole-name tests against the lists above.
  static bool IsIgnoredFSType(std::string_view fsType);
  static bool IsNetworkFSType(std::string_view fsType);
};
