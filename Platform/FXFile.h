// FXFile: the file layer of the platform: folder listing into file-data records, the UTF-8
// stdio and lstat wrappers, and the size of raw devices.
//
// Paths are byte strings. On this platform file names are bytes, so the "UTF-8" wrappers pass
// them to the kernel unchanged (a name holding invalid UTF-8 is opened as it is); what they add
// is a clear error for the paths the kernel cannot take: an empty path gives ENOENT, a path
// holding a NUL byte gives EINVAL (instead of silently naming a shorter path).
//
// Folder listing (ZRFindFirstFile / ZRFindNextFile / ZRFindClose):
//  - the pattern is the folder's path. A last component "*" is dropped ("/a/b/*" lists "/a/b";
//    "*" alone lists "."), then trailing '/' are removed ("/" stays "/"). A folder that really is
//    named "*" is given with a trailing '/' ("/a/*/").
//  - every entry, "." and ".." included, fills the caller's record in place (see DIR_Wrapper):
//    name, parent folder = the listed folder, raw dirent, and the status from fstatat relative to
//    the open folder. The record is switched to full-path mode. An entry whose status cannot be
//    read is still returned with success: the record is not good() and getLastError() holds the
//    errno (ENOENT for an entry removed after the kernel listed it). The caller decides.
//  - the end of the folder is Win32 18 (QiErrorCode::NoMoreFiles); a handle that is not open
//    gives Win32 6. Opening fails with the errno (ENOENT, EACCES, ENOTDIR, ENAMETOOLONG for a path
//    longer than PATH_MAX, ...) and the message "Failed to open folder for listing, Path=%s";
//    the handle is then closed.
//  - file operation options (signed 64-bit bit set, passed through by the path enumerators):
//    bit 0 (kFindOptionMountPathCheck) belongs to the caller's mount-path check and bit 1
//    (kFindOptionMultiThread) tells that the caller lists on several threads; both are ignored
//    here (every listing reads each status relative to its own open folder). Bit 2
//    (kFindOptionNoStatus) skips the fstatat (state 0; getFileInfo() reads it lazily). Other bits
//    are ignored.
//  - ZRFindFirstFileAt lists a folder relative to an open folder descriptor, for paths longer
//    than PATH_MAX (the long path handler descends component by component).
//
// Messages quote paths with control bytes escaped (FXString::EscapeControl), so every message
// stays on one log line.
//
// All functions are stateless; a handle and a record are used by one thread at a time.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "Platform/DIR_Wrapper.h"
#include "Platform/FileData.h"
#include "Platform/QiError.h"
#include "Platform/auto_find_handle.h"

class FXFile {
 public:
  using CFileData = ::CFileData;
  using auto_find_handle = ::auto_find_handle;
  using DIR_Wrapper = ::DIR_Wrapper;

  static constexpr long long kFindOptionMountPathCheck = 0x1;  // the caller's; ignored here
  static constexpr long long kFindOptionMultiThread = 0x2;     // ignored here
  static constexpr long long kFindOptionNoStatus = DIR_Wrapper::kOptionNoStatus;
  static_assert(kFindOptionNoStatus != kFindOptionMountPathCheck &&
                kFindOptionNoStatus != kFindOptionMultiThread);

  // Opens the folder named by the pattern and fills the record with its first entry. With
  // pExpected (the folder's status read while its parent was listed), a folder whose device and
  // inode are no longer those fails with ESTALE instead of being listed (see DIR_Wrapper).
  static CQiError ZRFindFirstFile(auto_find_handle& handle, const std::string& pattern,
                                  CFileData& record, long long options = 0,
                                  const struct stat* pExpected = nullptr);
  // Opens the folder `name` relative to the open folder descriptor iDirFd and fills the record
  // with its first entry. folderPath is the full path the folder stands for (records' parent
  // folder, messages); it may be longer than PATH_MAX.
  static CQiError ZRFindFirstFileAt(auto_find_handle& handle, int iDirFd, const std::string& name,
                                    const std::string& folderPath, CFileData& record,
                                    long long options = 0);
  // Fills the record with the next entry; Win32 18 at the end of the folder.
  static CQiError ZRFindNextFile(auto_find_handle& handle, CFileData& record,
                                 long long options = 0);
  // Reads the status of a record that the listing left unread (kFindOptionNoStatus) relative to
  // the open folder; the record then carries it as if the listing had read it.
  static CQiError ZRReadStatus(auto_find_handle& handle, CFileData& record);
  // Closes the listing (the same as handle.reset()).
  static void ZRFindClose(auto_find_handle& handle);

  // The folder path that a pattern lists (see above).
  static std::string FolderFromPattern(const std::string& pattern);

  // fopen with "e" (O_CLOEXEC) added to the mode. Returns null with errno set on failure:
  // ENOENT for an empty path, EINVAL for a NUL byte in the path or an empty mode.
  static FILE* zrfopen(const std::string& path, const std::string& mode);

  struct SFileCloser {
    void operator()(FILE* pFile) const {
      if (pFile != nullptr) fclose(pFile);
    }
  };
  using FILEPtr = std::unique_ptr<FILE, SFileCloser>;
  // The same, with a clear error: "Failed to open file, Path=%s, Mode=%s" and the errno.
  static CQiError zrfopen(const std::string& path, const std::string& mode, FILEPtr& file);

  // lstat with the same path checks as zrfopen: 0, or -1 with errno set.
  static int zrlstat(const std::string& path, struct stat& st);

  // The size in bytes of a block device (ioctl BLKGETSIZE64 on the device opened read-only), or
  // st_size of a regular file. A final symbolic link is followed (/dev/disk/by-id/... names).
  // ENOTBLK for any other kind of file; the errno of stat/open/ioctl otherwise.
  static CQiError GetDeviceSize(const std::string& path, uint64_t& size);

  // Replaces the file with the text, so that a crash leaves either the old or the new whole
  // file: writes path + ".tmp", syncs it and renames it over path. "Cannot create %s" or
  // "Cannot write %s" with the errno; the temporary file is removed on failure.
  static CQiError ReplaceWithText(const std::string& path, std::string_view text);
};
