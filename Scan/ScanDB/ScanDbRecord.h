// CScanDbRecord: one entry of a scan database: its full path, its lstat data and, on Lustre, its
// file identifier (the FID text "[0x200000401:0x1:0x0]"; empty elsewhere).
//
// The store keeps the path split into parent folder and name; the record keeps the whole path
// and answers the two parts as views into it, so that building a record costs one string.
// Paths are byte strings (any byte but NUL; newlines and invalid UTF-8 are kept as they are).
// The stat fields kept are mode, uid, gid, size, blocks, nlink, inode, device and the three
// times with nanoseconds; the other fields of GetStat() read back as zero.
//
// A record is a value: one thread uses one record; copies are independent.
#pragma once

#include <sys/stat.h>

#include <string>
#include <string_view>

#include "Platform/QiError.h"

class CScanDbRecord {
 public:
  CScanDbRecord();
  CScanDbRecord(std::string strPath, const struct stat& st, std::string strFileId = std::string());

  const std::string& GetPath() const { return m_strPath; }
  std::string& GetPath() { return m_strPath; }
  void SetPath(std::string strPath) { m_strPath = std::move(strPath); }
  // The parent folder and the last component ("/a/b" -> "/a", "b"; "/a" -> "/", "a";
  // "/" -> "", "/"). Valid while the path is not changed.
  std::string_view GetParent() const;
  std::string_view GetName() const;

  const struct stat& GetStat() const { return m_stat; }
  struct stat& GetStat() {
    return m_stat;
  }
  void SetStat(const struct stat& st);

  const std::string& GetFileId() const { return m_strFileId; }
  std::string& GetFileId() { return m_strFileId; }
  void SetFileId(std::string strFileId) { m_strFileId = std::move(strFileId); }

  bool IsFolder() const { return S_ISDIR(m_stat.st_mode); }

  // Checks that a path can be a key of the store: absolute, without NUL bytes, empty, "." or
  // ".." components. Trailing '/' are allowed (they are dropped). Win32 87 with the reason.
  static CQiError ValidatePath(std::string_view path);
  // The path without trailing '/' ("/" stays "/"), split into parent folder and name.
  static void SplitPath(std::string_view path, std::string_view& parent, std::string_view& name);

 private:
  std::string m_strPath;
  std::string m_strFileId;
  struct stat m_stat;
};
