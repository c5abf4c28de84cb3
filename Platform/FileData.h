// CFileData (callers name it FXFile::CFileData): the file-data record of one file-system object,
// that is a directory entry plus its lstat data.
//
// A record is filled in one of two ways:
//  - by the folder listing (FXFile::ZRFindFirstFile / ZRFindNextFile), which sets the name, the
//    parent folder, the raw directory entry and, unless the caller asked for names only, the
//    status read with fstatat relative to the open folder;
//  - by the constructor from a path. In mode kModeFullPath the path is split into parent folder
//    and name ("/" stays whole as the name, with an empty parent); in kModeParentDirectory the
//    path is taken as the parent folder and the name stays empty. The status is then read lazily
//    by getFileInfo()/good(), with lstat (links are never followed).
//
// Status state: 0 not read yet, 1 valid, -1 reading failed (getLastError() holds the errno).
// The data accessors are const and never read the file system: while the state is not 1 they
// answer "unknown" (attributes 0xFFFFFFFF, sizes 0, default time stamps, every is...() false).
// Call good() first on a record built from a path; listed records already carry their status.
//
// Platform answers: attributes are the st_mode bits (file type in attributes & 0xF000);
// the compressed size is the size; the creation time is the earliest of st_ctim and st_mtim
// (struct stat has no birth time, and a restored file's mtime may predate its ctime); the
// archive bit is never set; a symbolic link is a reparse point with tag kReparseTagSymlink.
// Offline is a flag that callers set; nothing on this platform reads it from the file system.
//
// Cost of a copy: items copy the record per entry. The parent folder string is shared between
// all records of one listing (an immutable shared string), so a copy costs the raw dirent and
// stat blocks, the name string and one reference count.
//
// A record is a value: one thread uses one record; copies are independent.
#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <string>

#include "Platform/QiError.h"
#include "Platform/TimeStamp.h"

class DIR_Wrapper;

class CFileData {
 public:
  enum EFileNameMode : uint8_t {
    kModeParentDirectory = 0,  // the given path is the parent folder, the name is empty
    kModeFullPath = 1,         // the given path is split into parent folder and name
  };
  using FileNameMode = EFileNameMode;

  enum EStatusState : int32_t { kStatusFailed = -1, kStatusNotRead = 0, kStatusValid = 1 };

  static constexpr uint32_t kAttributesUnknown = 0xFFFFFFFFu;
  // IO_REPARSE_TAG_SYMLINK, the tag that reports a symbolic link.
  static constexpr uint32_t kReparseTagSymlink = 0xA000000Cu;

  CFileData();
  // In kModeFullPath a non-null pStat is copied and marks the status valid; in
  // kModeParentDirectory pStat is ignored.
  CFileData(const std::string& path, FileNameMode mode, const struct stat* pStat = nullptr);
  CFileData(const CFileData&) = default;
  CFileData(CFileData&&) = default;
  CFileData& operator=(CFileData&&) = default;
  // A copy that re-points the shared parent folder only when it differs: an item refilled with
  // the next record of the same listing then touches no reference count.
  CFileData& operator=(const CFileData& other);

  // Reads the status once, while it has not been read: lstat of parent/name in kModeFullPath,
  // of the name alone otherwise. On failure keeps errno and state -1. True when valid.
  bool getFileInfo();
  bool good() { return getFileInfo(); }
  int32_t getStatusState() const { return m_iStatusState; }
  int getLastError() const { return m_iLastError; }

  // True for the entries "." and "..".
  bool isRelativeFolder() const;

  const std::string& getFileNameAsString() const { return m_strFileName; }
  void setFileName(const std::string& name) { m_strFileName = name; }
  const std::string& getParentDirectoryName() const;
  void setParentDirectoryName(const std::string& parent);
  FileNameMode getFileNameMode() const { return m_eMode; }
  // The parent folder joined with the name (the name alone when there is no parent).
  std::string getFullPath() const;

  // The directory entry as listed (zeroed for a record built from a path).
  const struct dirent& getRawDirent() const { return m_dirent; }
  // The lstat data (zeroed while the state is not 1).
  const struct stat& getRawData() const { return m_stat; }

  uint64_t getSize() const;
  uint64_t getCompressedSize() const { return getSize(); }
  uint32_t getAttributes() const;
  CTimeStamp getCreationTime() const;
  CTimeStamp getLastWriteTime() const;
  CTimeStamp getLastAccessTime() const;
  CTimeStamp getLastChangeTime() const;
  uint64_t getFileID() const;
  uint64_t getDeviceId() const;

  bool isDirectory() const { return isValid() && S_ISDIR(m_stat.st_mode); }
  bool isRegularFile() const { return isValid() && S_ISREG(m_stat.st_mode); }
  bool isArchiveSet() const { return false; }
  bool isOffline() const { return m_bOffline; }
  void setOffline(bool bOffline) { m_bOffline = bOffline; }
  bool isReparsePoint() const { return isValid() && S_ISLNK(m_stat.st_mode); }
  uint32_t getReparseTag() const { return isReparsePoint() ? kReparseTagSymlink : 0; }

  // The size of the block device (or regular file) at getFullPath(); see FXFile::GetDeviceSize.
  CQiError GetDeviceSize(uint64_t& size) const;

 private:
  friend class DIR_Wrapper;  // the listing fills records in place

  bool isValid() const { return m_iStatusState == kStatusValid; }

  struct dirent m_dirent;
  struct stat m_stat;
  std::string m_strFileName;
  std::shared_ptr<const std::string> m_pParentDirectory;  // null means empty
  int32_t m_iStatusState = kStatusNotRead;
  int32_t m_iLastError = 0;
  EFileNameMode m_eMode = kModeParentDirectory;
  bool m_bOffline = false;
};
