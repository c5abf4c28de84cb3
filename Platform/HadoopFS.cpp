#include "Platform/HadoopFS.h"

#include <cstring>

#include "Platform/FXErrorUtil.h"

namespace {
// Milliseconds since the epoch as a time stamp; floor division keeps times before 1970 right.
struct timespec FromMilliseconds(int64_t llMs) {
  int64_t llSeconds = llMs / 1000;
  int64_t llRest = llMs % 1000;
  if (llRest < 0) {
    llRest += 1000;
    --llSeconds;
  }
  struct timespec ts {};
  ts.tv_sec = static_cast<time_t>(llSeconds);
  ts.tv_nsec = static_cast<long>(llRest * 1000000);
  return ts;
}
}  // namespace

CQiError CHadoopFS::ConvertToStatStructure(const CHadoopFileInfo& info, struct stat& st) {
  if (info.llLength < 0)
    return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Negative length %lld of %s",
                          static_cast<long long>(info.llLength), info.strName.c_str());
  memset(&st, 0, sizeof(st));
  mode_t type = S_IFREG;
  if (info.eType == EHadoopFileType::Directory) type = S_IFDIR;
  if (info.eType == EHadoopFileType::Symlink) type = S_IFLNK;
  st.st_mode = type | (info.uPermission & 07777);
  st.st_size = static_cast<off_t>(info.llLength);
  st.st_nlink = 1;
  st.st_ino = static_cast<ino_t>(info.llFileId);
  st.st_blksize = static_cast<blksize_t>(info.llBlockSize);
  st.st_blocks = static_cast<blkcnt_t>((info.llLength + 511) / 512);
  st.st_mtim = FromMilliseconds(info.llModificationTime);
  st.st_atim = FromMilliseconds(info.llAccessTime);
  st.st_ctim = st.st_mtim;
  return CQiError();
}
