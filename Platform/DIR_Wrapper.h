// DIR_Wrapper: one open folder listing, read with getdents64.
//
// It owns the folder's descriptor (opened O_RDONLY | O_DIRECTORY | O_CLOEXEC) and a 64 KiB entry
// buffer. Next() hands out one entry at a time from the buffer, refilling it from the kernel when
// it runs dry, and fills the caller's CFileData record in place: name, parent folder (the listed
// folder's path, shared by every record of the listing), the raw directory entry and the status
// read with fstatat(folder fd, name, AT_SYMLINK_NOFOLLOW) relative to the open folder, so no
// full path is resolved per entry. A failed fstatat is not a listing failure: the record gets
// state -1 and the errno (an entry removed since the kernel listed it gives ENOENT).
//
// The entries "." and ".." are returned with their status unread (state 0), as with
// kOptionNoStatus: callers skip them, and their status would cost two fstatat calls per folder.
//
// Open by path goes through CListingFolderCache (relative to a kept descriptor of the parent
// when the thread's traversal keeps one), and Close hands the descriptor to that cache when a
// traversal is active on the thread.
//
// A folder is opened without following a symbolic link in its last component (O_NOFOLLOW), and
// when the caller gives the status it read for the folder while listing its parent, the opened
// folder's device and inode must be that status's: a folder that was replaced between its
// listing and its opening (by a link to somewhere else, or by another folder) fails with ELOOP
// or ESTALE, so that a traversal never walks into what it did not list.
//
// The opens, listing reads and status reads are file-system calls that a traversal's coordinator
// watches (CBlockingCallWatch::CCall).
//
// The buffer is allocated on the first Open and kept across Close, so a handle that lists many
// folders one after another allocates it once. Entries are returned in the kernel's order,
// "." and ".." included.
//
// Owned through auto_find_handle; used by one thread at a time. Not copyable.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "Platform/QiError.h"

class CBlockingCallWatch;
class CFileData;

class DIR_Wrapper {
 public:
  static constexpr size_t kBufferSize = 64 * 1024;
  // Option bit (file operation options): leave the status unread (state 0); the record's
  // getFileInfo() reads it later with an lstat of the full path. For callers that need names only.
  static constexpr long long kOptionNoStatus = 0x4;

  DIR_Wrapper() = default;
  ~DIR_Wrapper();
  DIR_Wrapper(const DIR_Wrapper&) = delete;
  DIR_Wrapper& operator=(const DIR_Wrapper&) = delete;

  // Opens a folder by path (closing any open one). The path is used as given; it is also the
  // parent folder of every record. Errno errors: ENOENT for an empty path, EINVAL for a NUL byte,
  // otherwise that of open(2) (ENOENT, EACCES, ENOTDIR, ENAMETOOLONG, ...).
  // With pExpected, the opened folder must have its st_dev and st_ino (else ESTALE, closed).
  CQiError Open(const std::string& folder, const struct stat* pExpected = nullptr);
  // Opens the folder `name` relative to the open folder descriptor iDirFd (openat), so that
  // folders whose full path exceeds PATH_MAX can be listed. folderPath is the full path the
  // folder stands for: the parent folder of every record and the path in messages.
  CQiError OpenAt(int iDirFd, const std::string& name, const std::string& folderPath,
                  const struct stat* pExpected = nullptr);
  void Close();

  bool IsOpen() const { return m_iFd >= 0; }
  // The open folder's descriptor (-1 when closed); valid until Close. Not to be closed by callers.
  int GetFd() const { return m_iFd; }
  // The listed folder's path; empty when closed.
  const std::string& GetFolder() const;

  // Fills the record with the next entry. Win32 18 (QiErrorCode::NoMoreFiles) at the end of the
  // folder (and on every later call), Win32 6 when no folder is open, the errno of getdents64
  // when reading fails.
  CQiError Next(CFileData& record, long long options);
  // Reads the status of a record that the listing left unread (kOptionNoStatus), relative to the
  // open folder, as Next would have: state 1, or state -1 with the errno. Win32 6 when closed.
  CQiError ReadStatus(CFileData& record);

 private:
  CQiError OpenFd(int iDirFd, const std::string& name, const std::string& folderPath,
                  const struct stat* pExpected);
  void StatEntry(const char* szName, CFileData& record);
  CQiError Fill();

  int m_iFd = -1;
  CBlockingCallWatch* m_pWatch = nullptr;  // the opening thread's, for the listing's calls
  std::shared_ptr<const std::string> m_pFolder;
  std::unique_ptr<char[]> m_pBuffer;
  size_t m_uPos = 0;
  size_t m_uLen = 0;
  bool m_bEnd = false;
};
