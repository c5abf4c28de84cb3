// CHadoopFS: the client of a Hadoop distributed file system, as the Hadoop scan engine uses it.
//
// An interface, so that the engine does not care how the file system is reached; CWebHdfsFS
// is the implementation over the WebHDFS REST interface. The operations:
//   - ListDirectory: every entry of one directory (in the order the server lists them, which
//     for HDFS is byte order of the names), with their number;
//   - GetFileInfo: the status of one path, as a struct stat;
//   - ConvertToStatStructure: one listing entry as a struct stat (shared by all clients);
//   - GetHadoopPathPrefix: the URI prefix ("webhdfs://host:port") that the names of listing
//     entries carry in front of their absolute path, as the names of the Hadoop client library
//     do ("hdfs://namenode:8020/user/a").
// Paths given to the client are absolute paths of the file system ("/user/a"), without prefix.
//
// Failures are errno errors that the traversal understands: ENOENT for a path that does not
// exist, EACCES for one the user may not read, ENOTDIR for listing a file; transport failures
// carry their own errno (ECONNREFUSED, ETIMEDOUT, ELOOP for redirect loops, EPROTO for TLS and
// protocol failures, ECONNRESET for a connection closed mid-answer); a malformed answer is
// Win32 13 (invalid data). Every message names the operation and the path.
//
// Threads: an implementation may be called from several threads at once (the engine's
// enumerators share one handle); it serialises what it must.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Platform/QiError.h"

enum class EHadoopFileType : uint8_t { File, Directory, Symlink };

// One entry of a listing, or the status of one path.
struct CHadoopFileInfo {
  std::string strName;            // GetHadoopPathPrefix() followed by the absolute path
  EHadoopFileType eType = EHadoopFileType::File;
  int64_t llLength = 0;           // bytes, never negative
  int64_t llModificationTime = 0; // milliseconds since the epoch
  int64_t llAccessTime = 0;       // milliseconds since the epoch
  uint32_t uPermission = 0;       // the permission bits, at most 07777
  std::string strOwner;
  std::string strGroup;
  int32_t iReplication = 0;
  int64_t llBlockSize = 0;
  int64_t llFileId = 0;           // 0 when the server does not give one (older servers)
  int32_t iChildrenNum = -1;      // -1 when the server does not give it
  std::string strSymlinkTarget;   // for symbolic links
};

using CHadoopFileInfoArray = std::vector<CHadoopFileInfo>;

class CHadoopFS {
 public:
  CHadoopFS() = default;
  virtual ~CHadoopFS() = default;
  CHadoopFS(const CHadoopFS&) = delete;
  CHadoopFS& operator=(const CHadoopFS&) = delete;

  // Lists one directory; iCount is the number of entries (the array's size).
  virtual CQiError ListDirectory(const std::string& strPath, CHadoopFileInfoArray& arrEntries,
                                 int& iCount) = 0;
  virtual CQiError GetFileInfo(const std::string& strPath, struct stat& st) = 0;
  // st_mode: the type bits (S_IFREG, S_IFDIR, S_IFLNK) and the permission; st_size the length;
  // the three times from milliseconds (the change time is the modification time: Hadoop keeps
  // none); st_ino the file id; st_blksize the block size; st_blocks the length in 512-byte
  // blocks, rounded up; st_nlink 1. Owner and group stay 0: Hadoop names them, no ids.
  virtual CQiError ConvertToStatStructure(const CHadoopFileInfo& info, struct stat& st);
  virtual std::string GetHadoopPathPrefix() = 0;
};

using CHadoopFSPtr = std::shared_ptr<CHadoopFS>;
