#include "Scan/Unix/ZrScanDBLustreRecord.h"

#include <sys/stat.h>

void ZrScanDBLustreRecord::FromPath(const std::string& strPath, const std::string& strFid, mode_t fallbackMode,
                                    bool& bExists) {
  struct stat st {};
  bExists = lstat(strPath.c_str(), &st) == 0;
  if (!bExists) {
    st = {};
    st.st_mode = fallbackMode;
    st.st_nlink = 1;
  }
  SetPath(strPath);
  SetStat(st);
  SetFileId(strFid);
}

bool ZrScanDBLustreRecord::SameState(const CScanDbRecord& a, const CScanDbRecord& b) {
  const struct stat& x = a.GetStat();
  const struct stat& y = b.GetStat();
  return x.st_mode == y.st_mode && x.st_uid == y.st_uid && x.st_gid == y.st_gid && x.st_size == y.st_size &&
         x.st_nlink == y.st_nlink && x.st_ino == y.st_ino && x.st_mtim.tv_sec == y.st_mtim.tv_sec &&
         x.st_mtim.tv_nsec == y.st_mtim.tv_nsec && x.st_ctim.tv_sec == y.st_ctim.tv_sec &&
         x.st_ctim.tv_nsec == y.st_ctim.tv_nsec && a.GetFileId() == b.GetFileId();
}
