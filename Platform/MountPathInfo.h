// MountPathInfo: which volume holds a path, and which volumes are mounted below it.
//
// A volume is a mount of the mount table (FXFolder); its name is its mount point. The volume of
// a path is the mount whose mount point is the longest ancestor-or-self of the path's real path
// (symbolic links resolved). A path that does not exist yet is resolved as far as it exists and
// the rest is taken as written, so content that vanished still gets a volume; the engines report
// it as missing later. Paths under a stale mount are never resolved through the kernel (that
// could hang); they are taken as written.
//
// expandContentPathByVolumes splits a content path by the volumes mounted below it: the result
// is the path's own entry first, then one entry per mount point strictly below it, in path order
// (component by component, so a folder comes right before what lies in it). Left out are mounts
// of pseudo file systems (skipFS::IsIgnoredFSType), mounts lying below such a mount, stale mounts
// (CheckInStaleFSList) and mounts the process cannot reach (stacked under another mount).
// Whoever traverses the entries must still keep out of the reachable mounts that were left out
// (pseudo file systems, mounts below them, stale mounts): the traversal of /srv/chroot would
// otherwise walk its /proc, and a stale mount hangs every call that touches it. The overloads
// with lstLeftOut / pLeftOut give their mount points, in path order.
// Entries are given in the caller's form of the path (a nested mount reached through a linked
// content path is given below the content path as written); the volume name is the mount
// point as the mount table has it. With a content mapper the source path of each entry is the
// mapper's host path of its local path, else the local path itself.
//
// Paths are byte strings (any byte but NUL). Errors: Win32 87 for an empty path, a NUL byte or a
// relative path; errno ENAMETOOLONG for a path of PATH_MAX bytes or more; the errno of a failed
// resolution (EACCES, ELOOP); Win32 1168 when no mounted volume holds the path; Win32 87
// "Failed to convert proxy path to host path, LocalMountPath=%s" when the mapper refuses.
//
// The stale-mount queries are those of CStaleMountDetector::Process().
//
// All functions are static and safe from any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Platform/ContentMapperAPI.h"
#include "Platform/FXFolder.h"
#include "Platform/QiError.h"

// One piece of a content path: a path to scan and the volume it lies on.
struct SContentEntry {
  std::string m_strLocalMountPath;   // the path to scan, as seen on this machine
  std::string m_strSourceMountPath;  // the same path on the protected host (mapper), else local
  std::string m_strVolumeName;       // mount point of the volume holding the local path
  bool m_bContentPath = false;       // true for the content path's own entry
};

class MountPathInfo {
 public:
  // Splits a content path by the volumes of the current mount table.
  static CQiError expandContentPathByVolumes(const std::string& path,
                                             std::vector<SContentEntry>& lstEntries,
                                             ContentMapperAPI* pMapper = nullptr);
  // The same, and the mount points strictly below the path that were left out (given in the
  // caller's form, like the entries; no mapper applies to them).
  static CQiError expandContentPathByVolumes(const std::string& path,
                                             std::vector<SContentEntry>& lstEntries,
                                             std::vector<std::string>& lstLeftOut,
                                             ContentMapperAPI* pMapper = nullptr);
  // The same over a given table, for a path taken as already real (nothing is resolved). Source
  // paths equal local paths. pLeftOut, when given, receives the mount points left out.
  static CQiError expandContentPathByVolumes(const std::string& realPath,
                                             const std::vector<SLogicalVolume>& lstVolumes,
                                             std::vector<SContentEntry>& lstEntries,
                                             std::vector<std::string>* pLeftOut = nullptr);

  // The mount point of the volume holding the path ("/" for the root volume).
  static CQiError GetVolumeName(const std::string& path, std::string& volumeName);
  // The mount of the volume holding the path, from the current mount table.
  static CQiError GetVolumeForPath(const std::string& path, SLogicalVolume& volume);
  // The mount holding a path taken as already real, from a given table.
  static CQiError FindVolume(const std::string& realPath, const std::vector<SLogicalVolume>& lstVolumes,
                             SLogicalVolume& volume);

  // The real path: links resolved as far as the path exists, the rest taken as written with
  // "." and ".." applied; no trailing delimiter.
  static CQiError ResolvePath(const std::string& path, std::string& realPath);
  // The checks every entry point makes: not empty, no NUL, absolute, shorter than PATH_MAX.
  static CQiError ValidateAbsolutePath(const std::string& path);
  // Path order: byte order with the delimiter ranking below every other byte. <0, 0, >0.
  static int ComparePaths(std::string_view a, std::string_view b);

  // CStaleMountDetector::Process().IsStaleFSPresent() / CheckInStaleFSList(path).
  static bool IsStaleFSPresent();
  static bool CheckInStaleFSList(const std::string& path);
};
