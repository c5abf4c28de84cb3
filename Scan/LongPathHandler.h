// LongPathHandler: file calls on paths too long for one system call (ENAMETOOLONG).
//
// The handler moves the process's working directory down such a path step by step, each step
// as long as the system accepts, and keeps an open descriptor of every directory it left so it
// can climb back with fchdir. A wrapper (stat_long, open_long, ...) moves to the folder of the
// path and applies its call to the last component, relative to the working directory. The
// working directory stays where it was moved, so a following call on a nearby path climbs only
// to the part both paths share and goes down from there.
//
// Splitting a path: trailing '/' are dropped, the folder is the text before the last '/' and the
// call is applied to the name after it; "/name" has the root as its folder, "/" itself is
// reached as "." in the root, and a bare name without any '/' is refused (-1, EINVAL). The
// working directory is reused only for a folder on the way to the new path by whole names
// ("/a/b" is not on the way to "/a/bc").
//
// Paths are byte strings passed to the kernel unchanged (names that are not valid UTF-8 are
// fine). A relative path is taken relative to the start directory (the working directory when
// the handler was made), wherever the handler has moved since. A path holding a NUL byte is
// refused with EINVAL, an empty path with ENOENT. The handler follows the text of the paths: if
// a folder it stands in is renamed or removed meanwhile, the next call on a path below it still
// reaches the folder it holds open; callers that need a fresh view release the handler.
//
// Lifetime and ownership: one instance per process, made by the first GetHandler() on the owner
// thread and destroyed by ReleaseHandler(); destruction returns the process to the start
// directory and closes every descriptor it holds. The pointer GetHandler() returns is not
// owned by the caller and must not be kept across a ReleaseHandler(): take it again before use.
//
// Threads: the working directory belongs to the whole process, so only the owner thread may use
// the handler. The owner thread is the process's main thread: on Linux the thread whose kernel
// thread id (gettid) equals the process id (getpid). Other threads get no handler from
// GetHandler(), every wrapper called on them fails with -1 and errno EPERM, and ReleaseHandler()
// does nothing there. No locks are taken; the archive-index flag may be set from any thread.
#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/types.h>
#include <utime.h>

#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "Platform/QiError.h"
#include "Platform/StringCompare.h"

class LongPathHandler {
 public:
  // One step taken down from the start directory: the path piece entered and an open
  // descriptor (O_PATH) of the directory that was current before the step. Owned by the stack.
  struct WorkingPath {
    std::string m_strPath;
    int m_iFd = -1;
  };

  // Folders known to exist (made or found) by CreateDirsIteratively_Long, by the text given.
  using CreatedFolderSet = std::set<std::string, __less_fscase_cmp>;

  static constexpr size_t kStartDirectorySize = 1024;

  // The process's instance, made on first use; none when the archive-index flag is set or when
  // called on any thread but the owner thread (callers then use the ordinary calls).
  static LongPathHandler* GetHandler();
  // Destroys the instance, if any (on the owner thread only): returns to the start directory
  // and closes every descriptor.
  static void ReleaseHandler();
  static void setIsArchiveIndex(bool bIsArchiveIndex);
  static bool getIsArchiveIndex();
  // True on the owner thread (the main thread).
  static bool IsOwnerThread();

  LongPathHandler(const LongPathHandler&) = delete;
  LongPathHandler& operator=(const LongPathHandler&) = delete;

  // Moves the working directory to the folder: 0 on success, -1 (errno set) or the C library
  // error number of a failed chdir otherwise.
  int chdir_long(const std::string& path);

  // The wrappers: each takes the full path and returns what its call returns (-1 or null on
  // failure, with errno set).
  int open_long(const std::string& path, int flags);
  int open_long(const std::string& path, int flags, mode_t mode);
  int stat_long(const std::string& path, struct stat* buffer);
  int lstat_long(const std::string& path, struct stat* buffer);
  int creat_long(const std::string& path, mode_t mode);
  int truncate_long(const std::string& path, off_t length);
  FILE* fopen_long(const std::string& path, const char* mode);
  int chmod_long(const std::string& path, mode_t mode);
  int chown_long(const std::string& path, uid_t user, gid_t group);
  int lchown_long(const std::string& path, uid_t user, gid_t group);
  int utime_long(const std::string& path, const struct utimbuf* times);
  ssize_t readlink_long(const std::string& path, char* buffer, size_t size);
  int statfs_long(const std::string& path, struct statfs* buffer);
  DIR* opendir_long(const std::string& path);

  // Restore side. CreateDirsIteratively_Long makes the folder and every missing folder above
  // it, going down from the top one name at a time:
  //  - a folder whose text is in createdFolders is taken as existing, without a system call
  //    (the set is the caller's memory across calls: pass the same set for every file of a
  //    restore, and drop it when folders may have been removed meanwhile);
  //  - otherwise the folder is stat'ed (following links, so a link to a folder serves); a
  //    folder is recorded, anything else fails with ENOTDIR "Not a folder [%s]", a missing one
  //    is made with mkdir(mode) (the umask applies); below a folder made here the rest are
  //    made without asking first; EEXIST from a folder made meanwhile is accepted;
  //  - every folder made or found is added to createdFolders, by its text as given (trailing
  //    '/' stripped, runs of '/' kept as written);
  //  - a relative path is made below the start directory.
  // Errors are C library errors with the folder in the text ("Failed to create folder [%s]
  // with error [%d]"); folders made before a failure stay. Owner thread only (EPERM).
  CQiError CreateDirsIteratively_Long(const std::string& path, mode_t mode,
                                      CreatedFolderSet& createdFolders);
  // Makes the missing folders above the file (as CreateDirsIteratively_Long, with folderMode)
  // and opens the file with flags | O_CREAT and the mode. Returns the descriptor (owned by the
  // caller) or -1 with errno set.
  int openRestoreFile_long(const std::string& path, int flags, mode_t mode,
                           CreatedFolderSet& createdFolders, mode_t folderMode = 0755);

  // Number of leading characters the current path and the path share; one less when they part
  // inside both strings.
  size_t FindCommonPath(const std::string& path) const;
  // The path without its trailing '/' (a lone "/" is kept).
  static void StripTrailingSlash(const std::string& path, std::string& outPath);

  // State, for diagnostics and tests.
  const std::string& GetCurrentPath() const { return m_strCurrentPath; }
  size_t GetDepth() const { return m_lstWorkingPaths.size(); }
  const std::vector<WorkingPath>& GetWorkingPaths() const { return m_lstWorkingPaths; }
  // The start directory as getcwd gave it (empty when it did not fit or getcwd failed).
  const char* GetStartDirectory() const { return m_szStartDirectory; }

 private:
  LongPathHandler();
  ~LongPathHandler();

  // Enters the path relative to the working directory in as few steps as possible.
  int JumpToDir(const std::string& path);
  // Steps back out of the top working path; false when fchdir failed (the handler is then
  // reset to the start directory).
  bool PopWorkingPath();
  // Back to the start directory; every descriptor closed, the current path cleared.
  void ClimbToStart();
  // Checks the thread and the path and moves to the folder of the path; on success name is
  // the last component to apply the call to. false with errno set otherwise.
  bool PrepareCall(const std::string& path, std::string& name);
  // The working directory is a folder of the path's text: the path starts with the current
  // path at a component boundary.
  bool IsCurrentPathPrefixOf(const std::string& path) const;

  char m_szStartDirectory[kStartDirectorySize];
  std::string m_strCurrentPath;
  std::vector<WorkingPath> m_lstWorkingPaths;
};
