// A stand-in for the Lustre user-space library, loaded by the tools API's suite through the
// library list of CLustreToolsAPI. Built twice: complete, and without llapi_fid2path
// (FAKE_LUSTREAPI_LACKS_FID2PATH). FIDs come from inode numbers as in the simulated Lustre:
// [0x200000400 + (ino >> 32) : ino & 0xffffffff : 0x0]. llapi_fid2path walks the device path for
// the inode's links, in name order, one per call, advancing linkno while links remain.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <vector>

struct lu_fid {
  uint64_t f_seq;
  uint32_t f_oid;
  uint32_t f_ver;
};

extern "C" {

__attribute__((visibility("default"))) int llapi_path2fid(const char* path, struct lu_fid* fid) {
  struct stat st {};
  if (lstat(path, &st) != 0) return -errno;
  fid->f_seq = 0x200000400ULL + (static_cast<uint64_t>(st.st_ino) >> 32);
  fid->f_oid = static_cast<uint32_t>(st.st_ino & 0xffffffffULL);
  fid->f_ver = 0;
  return 0;
}

#ifndef FAKE_LUSTREAPI_LACKS_FID2PATH
__attribute__((visibility("default"))) int llapi_fid2path(const char* device, const char* fidstr, char* path,
                                                          int pathlen, long long* /*recno*/, int* linkno) {
  uint64_t ullSeq = 0;
  uint32_t uOid = 0, uVer = 0;
  if (sscanf(fidstr, "[0x%" SCNx64 ":0x%" SCNx32 ":0x%" SCNx32 "]", &ullSeq, &uOid, &uVer) != 3) return -EINVAL;
  const uint64_t ullIno = ((ullSeq - 0x200000400ULL) << 32) | uOid;
  std::vector<std::string> lstLinks;
  std::error_code ec;
  for (auto it = std::filesystem::recursive_directory_iterator(device, ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    struct stat st {};
    if (lstat(it->path().c_str(), &st) == 0 && st.st_ino == ullIno)
      lstLinks.push_back(std::filesystem::relative(it->path(), device).string());
  }
  if (lstLinks.empty()) return -ENOENT;
  std::sort(lstLinks.begin(), lstLinks.end());
  const size_t uLink = std::min(static_cast<size_t>(*linkno), lstLinks.size() - 1);
  if (lstLinks[uLink].size() >= static_cast<size_t>(pathlen)) return -ERANGE;
  memcpy(path, lstLinks[uLink].c_str(), lstLinks[uLink].size() + 1);
  if (uLink + 1 < lstLinks.size()) *linkno = static_cast<int>(uLink + 1);
  return 0;
}
#endif
}
