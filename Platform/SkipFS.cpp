#include "Platform/SkipFS.h"

namespace {
// Tests whether `name` is one of the blank-separated words of `list`.
bool ContainsWord(const std::string& list, std::string_view name) {
  if (name.empty()) return false;
  size_t pos = 0;
  while ((pos = list.find(name, pos)) != std::string::npos) {
    bool startOk = pos == 0 || list[pos - 1] == ' ';
    size_t end = pos + name.size();
    bool endOk = end == list.size() || list[end] == ' ';
    if (startOk && endOk) return true;
    pos = end;
  }
  return false;
}
}  // namespace

const std::string& skipFS::GetIgnoreFSTypes() {
  static const std::string types =
      "proc sysfs devpts devtmpfs cgroup cgroup2 securityfs debugfs tracefs pstore bpf "
      "configfs fusectl mqueue hugetlbfs binfmt_misc autofs rpc_pipefs nsfs efivarfs "
      "gadgetfs fuse.gvfsd-fuse fuse.portal fuse.lxcfs";
  return types;
}

const std::string& skipFS::GetNetworkFSTypes() {
  static const std::string types =
      "nfs nfs4 cifs smb3 smbfs ncpfs 9p afs coda ceph fuse.ceph-fuse glusterfs "
      "fuse.glusterfs lustre gpfs beegfs fuse.sshfs sshfs fuse.s3fs fuse.rclone "
      "fuse.gcsfuse davfs fuse.davfs2 fuse.lizardfs fuse.moosefs";
  return types;
}

bool skipFS::IsIgnoredFSType(std::string_view fsType) {
  return ContainsWord(GetIgnoreFSTypes(), fsType);
}

bool skipFS::IsNetworkFSType(std::string_view fsType) {
  return ContainsWord(GetNetworkFSTypes(), fsType);
}
