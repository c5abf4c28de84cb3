// FXFolder: the mount table of this process, as the kernel reports it in /proc/self/mountinfo.
//
// getLogicalVolumeList reads the table from its source file (by default /proc/self/mountinfo;
// tests point it at a recorded copy with SetMountInfoPath) and parses it with ParseMountInfo.
// A line of the table reads
//   36 35 98:0 /mnt1 /mnt/parent rw,noatime master:1 - ext3 /dev/root rw,errors=continue
// (mount id, parent id, major:minor, root within the file system, mount point, mount options,
// optional fields up to "-", file-system type, mount source, super-block options). The kernel
// escapes blanks, tabs, new-lines and back-slashes in the text fields as \040, \011, \012 and
// \134; the parser turns every three-digit octal escape back into its byte. A line that cannot be
// parsed is skipped with a level -1 log line; it never fails the whole listing.
//
// FilterVisibleVolumes drops mounts that the process cannot reach: mounts stacked under another
// mount at the same mount point, and mounts whose parent is hidden that way.
//
// All functions are static and safe from any thread; the source path is guarded by a lock.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Platform/QiError.h"

// One mount of the mount table. Text fields hold the unescaped bytes.
struct SLogicalVolume {
  int m_iMountId = 0;
  int m_iParentId = 0;
  unsigned m_uMajor = 0;
  unsigned m_uMinor = 0;
  std::string m_strRoot;                   // the folder of the file system that is mounted
  std::string m_strMountPoint;             // where it is mounted, relative to the process root
  std::string m_strMountOptions;           // per-mount options ("rw,relatime")
  std::vector<std::string> m_lstOptionalFields;  // "shared:1", "master:2", ...
  std::string m_strFSType;                 // "ext4", "nfs4", "fuse.sshfs", ...
  std::string m_strMountSource;            // "/dev/sda1", "server:/export", "tmpfs"
  std::string m_strSuperOptions;           // per-super-block options

  // "major:minor" of the file system's device.
  std::string DeviceNumber() const;
};

class FXFolder {
 public:
  static constexpr const char* kDefaultMountInfoPath = "/proc/self/mountinfo";

  // Reads and parses the mount table from the current source, in the kernel's order.
  static CQiError getLogicalVolumeList(std::vector<SLogicalVolume>& lstVolumes);
  // Reads and parses the mount table from a given file.
  static CQiError ReadMountInfoFile(const std::string& path, std::vector<SLogicalVolume>& lstVolumes);
  // Parses mountinfo text; malformed lines are logged at level -1 and skipped. Returns the number
  // of lines skipped.
  static size_t ParseMountInfo(std::string_view text, std::vector<SLogicalVolume>& lstVolumes);
  // Parses one line; false when it is malformed (the volume is then unspecified).
  static bool ParseMountInfoLine(std::string_view line, SLogicalVolume& volume);
  // Turns the kernel's octal escapes (\040 and the like) back into bytes; other text is kept.
  static std::string UnescapeMountField(std::string_view field);

  // The source file of getLogicalVolumeList. An empty path restores the default.
  static void SetMountInfoPath(const std::string& path);
  static std::string GetMountInfoPath();

  // The mounts the process can reach, in table order: of several mounts at one mount point only
  // the top one is kept, and a mount whose parent is not reachable is dropped.
  static std::vector<SLogicalVolume> FilterVisibleVolumes(const std::vector<SLogicalVolume>& lstVolumes);
};
