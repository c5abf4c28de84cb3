#include "Scan/LongPathHandler.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>

#include "Platform/FXErrorUtil.h"
#include "Platform/LogWriterInterface.h"

namespace {

// The process's instance. A plain pointer on purpose: it is destroyed by ReleaseHandler() only,
// never by static destruction at exit (the log writer may already be gone by then, and the
// working directory of an exiting process does not matter).
LongPathHandler* g_pInstance = nullptr;
std::atomic<bool> g_bIsArchiveIndex{false};

bool HasNul(const std::string& path) { return path.find('\0') != std::string::npos; }

// Checks that the path can be handed to the kernel; errno set and false otherwise.
bool IsUsablePath(const std::string& path) {
  if (path.empty()) {
    errno = ENOENT;
    return false;
  }
  if (HasNul(path)) {
    errno = EINVAL;
    return false;
  }
  return true;
}

void StripLeadingSlashes(std::string& path) {
  size_t count = 0;
  while (count < path.size() && path[count] == '/') ++count;
  path.erase(0, count);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// The instance and its owner thread.

bool LongPathHandler::IsOwnerThread() { return gettid() == getpid(); }

LongPathHandler* LongPathHandler::GetHandler() {
  if (g_bIsArchiveIndex.load(std::memory_order_relaxed)) return nullptr;
  if (!IsOwnerThread()) return nullptr;
  if (g_pInstance == nullptr) {
    g_pInstance = new (std::nothrow) LongPathHandler();
    if (g_pInstance == nullptr) {
      ZRLOG(-1, "Failed to allocate the long path handler");
      return nullptr;
    }
    ZRLOG(3, "Long path handler made, StartDirectory=[%s]", g_pInstance->m_szStartDirectory);
  }
  return g_pInstance;
}

void LongPathHandler::ReleaseHandler() {
  if (g_pInstance == nullptr) return;
  if (!IsOwnerThread()) {
    // Destroying it here would move the working directory under the owner thread's feet.
    ZRLOG(3, "Long path handler not released: called on a thread other than the main thread");
    return;
  }
  delete g_pInstance;
  g_pInstance = nullptr;
}

void LongPathHandler::setIsArchiveIndex(bool bIsArchiveIndex) {
  g_bIsArchiveIndex.store(bIsArchiveIndex, std::memory_order_relaxed);
}

bool LongPathHandler::getIsArchiveIndex() {
  return g_bIsArchiveIndex.load(std::memory_order_relaxed);
}

LongPathHandler::LongPathHandler() {
  memset(m_szStartDirectory, 0, sizeof(m_szStartDirectory));
  if (getcwd(m_szStartDirectory, kStartDirectorySize - 1) == nullptr) {
    m_szStartDirectory[0] = '\0';  // too long or removed; the descriptor stack still leads back
  }
}

LongPathHandler::~LongPathHandler() { ClimbToStart(); }

// ---------------------------------------------------------------------------------------------
// Moving the working directory.

void LongPathHandler::StripTrailingSlash(const std::string& path, std::string& outPath) {
  size_t end = path.size();
  while (end > 1 && path[end - 1] == '/') --end;
  outPath.assign(path, 0, end);
}

size_t LongPathHandler::FindCommonPath(const std::string& path) const {
  const std::string& current = m_strCurrentPath;
  size_t count = 0;
  while (count < current.size() && count < path.size() && current[count] == path[count]) ++count;
  if (count < current.size() && count < path.size()) return count > 0 ? count - 1 : 0;
  return count;
}

bool LongPathHandler::IsCurrentPathPrefixOf(const std::string& path) const {
  const std::string& current = m_strCurrentPath;
  if (current.empty() || path.size() < current.size()) return false;
  if (path.compare(0, current.size(), current) != 0) return false;
  return path.size() == current.size() || path[current.size()] == '/' || current.back() == '/';
}

void LongPathHandler::ClimbToStart() {
  if (!m_lstWorkingPaths.empty()) {
    // The bottom descriptor is the start directory itself.
    if (fchdir(m_lstWorkingPaths.front().m_iFd) != 0) {
      int err = errno;
      if (m_szStartDirectory[0] == '\0' || chdir(m_szStartDirectory) != 0) {
        ZRLOG(-1, "Failed to return to the start directory [%s] with error [%d]",
              m_szStartDirectory, err);
      }
    }
    for (WorkingPath& working : m_lstWorkingPaths) close(working.m_iFd);
    m_lstWorkingPaths.clear();
  }
  m_strCurrentPath.clear();
}

bool LongPathHandler::PopWorkingPath() {
  WorkingPath& top = m_lstWorkingPaths.back();
  if (fchdir(top.m_iFd) != 0) {
    int err = errno;
    ZRLOG(-1, "Failed to climb back out of [%s] with error [%d]", top.m_strPath.c_str(), err);
    ClimbToStart();
    errno = err;
    return false;
  }
  close(top.m_iFd);
  // Cut the current path back before the piece (and the '/' put in front of it).
  size_t keep = m_strCurrentPath.size() >= top.m_strPath.size()
                    ? m_strCurrentPath.size() - top.m_strPath.size()
                    : 0;
  m_lstWorkingPaths.pop_back();
  if (m_lstWorkingPaths.empty()) {
    m_strCurrentPath.clear();
    return true;
  }
  if (keep > 1 && m_strCurrentPath[keep - 1] == '/') --keep;
  m_strCurrentPath.resize(keep);
  return true;
}

int LongPathHandler::JumpToDir(const std::string& path) {
  std::string remaining = path;
  while (!remaining.empty()) {
    // The directory being left, to climb back to; O_PATH needs no read permission on it.
    int fd = open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
      int err = errno;
      ZRLOG(6, "Failed to open the working directory with error [%d]", err);
      errno = err;
      return -1;
    }

    // Enter as much of the path as the system takes: cut it back at its last '/' while the
    // call says the text is too long.
    std::string piece = remaining;
    std::string rest;
    bool bCut = false;
    auto cutAt = [&](size_t slash) {
      size_t end = slash;
      while (end > 0 && piece[end - 1] == '/') --end;
      rest = remaining.substr(slash + 1);
      piece = end == 0 ? std::string("/") : piece.substr(0, end);
      bCut = true;
    };
    while (chdir(piece.c_str()) != 0) {
      int err = errno;
      size_t slash = err == ENAMETOOLONG ? piece.rfind('/') : std::string::npos;
      if (err == ENAMETOOLONG && slash != std::string::npos && piece != "/") {
        cutAt(slash);
        continue;
      }
      close(fd);
      ZRLOG(6, "Failed to enter [%s] with error [%d]", piece.c_str(), err);
      errno = err;
      return err == ENAMETOOLONG ? -1 : err;
    }

    // The current path grows by the piece: an absolute piece as it is, a following piece after
    // a '/'. A relative first piece stays relative (no '/' put in front), so that it is never
    // taken for the absolute path of the same text.
    const size_t previousLength = m_strCurrentPath.size();
    if (m_strCurrentPath.empty() || piece.front() == '/' || m_strCurrentPath.back() == '/') {
      m_strCurrentPath += piece;
    } else {
      m_strCurrentPath += '/';
      m_strCurrentPath += piece;
    }
    try {
      m_lstWorkingPaths.push_back(WorkingPath{piece, fd});
    } catch (const std::bad_alloc&) {
      // Cannot remember the way back: return at once and forget the piece.
      if (fchdir(fd) == 0) {
        m_strCurrentPath.resize(previousLength);
      } else {
        ClimbToStart();
      }
      close(fd);
      errno = ENOMEM;
      return -1;
    }
    if (!bCut) return 0;
    remaining = rest;
    StripLeadingSlashes(remaining);
  }
  return 0;
}

int LongPathHandler::chdir_long(const std::string& path) {
  if (!IsOwnerThread()) {
    errno = EPERM;
    return -1;
  }
  if (!IsUsablePath(path)) return -1;
  std::string target;
  StripTrailingSlash(path, target);
  if (target == m_strCurrentPath) return 0;
  if (m_strCurrentPath.empty()) return JumpToDir(target);

  size_t common = FindCommonPath(target);
  if (common == 0) {
    ClimbToStart();
    return JumpToDir(target);
  }
  if (common == m_strCurrentPath.size() && IsCurrentPathPrefixOf(target)) {
    std::string below = target.substr(common);
    StripLeadingSlashes(below);
    return JumpToDir(below);
  }

  // Climb to the shared part, piece by piece, until the working directory is a folder on the
  // way to the target (the shared text may end inside a name).
  while (!m_lstWorkingPaths.empty() &&
         (m_strCurrentPath.size() > common || !IsCurrentPathPrefixOf(target))) {
    if (!PopWorkingPath()) break;
  }
  if (m_lstWorkingPaths.empty()) {
    m_strCurrentPath.clear();
    return JumpToDir(target);
  }
  if (target == m_strCurrentPath) return 0;
  std::string below = target.substr(m_strCurrentPath.size());
  StripLeadingSlashes(below);
  return JumpToDir(below);
}

bool LongPathHandler::PrepareCall(const std::string& path, std::string& name) {
  if (!IsOwnerThread()) {
    errno = EPERM;
    return false;
  }
  if (!IsUsablePath(path)) return false;
  std::string stripped;
  StripTrailingSlash(path, stripped);
  size_t slash = stripped.rfind('/');
  if (slash == std::string::npos) {
    errno = EINVAL;  // a bare name: there is no folder to move to
    return false;
  }
  std::string folder = stripped.substr(0, slash);
  name = stripped.substr(slash + 1);
  // Single characters assigned with assign(1, c): GCC 12 at -O3 reports a false -Wrestrict on
  // operator=(const char*) here.
  if (folder.empty()) folder.assign(1, '/');  // "/name": the folder is the root
  if (name.empty()) name.assign(1, '.');      // "/": the root itself
  int result = chdir_long(folder);
  if (result != 0) {
    if (result > 0) errno = result;
    return false;
  }
  return true;
}

// ---------------------------------------------------------------------------------------------
// The wrappers: move to the folder, apply the call to the last component.

int LongPathHandler::open_long(const std::string& path, int flags) {
  std::string name;
  if (!PrepareCall(path, name)) return -1;
  return open(name.c_str(), flags);
}

int LongPathHandler::open_long(const std::string& path, int flags, mode_t mode) {
  std::string name;
  if (!PrepareCall(path, name)) return -1;
  return open(name.c_str(), flags, mode);
}

int LongPathHandler::stat_long(const std::string& path, struct stat* buffer) {
  std::string name;
  if (!PrepareCall(path, name)) return -1;
  return stat(name.c_str(), buffer);
}

int LongPathHandler::lstat_long(const std::string& path, struct stat* buffer) {
  std::string name;
  if (!PrepareCall(path, name)) return -1;
  return lstat(name.c_str(), buffer);
}

int LongPathHandler::creat_long(const std::string& path, mode_t mode) {
  std::string name;
  if (!PrepareCall(path, name)) return -1;
  return creat(name.c_str(), mode);
}

int LongPathHandler::truncate_long(const std::string& path, off_t length) {
  std::string name;
  if (!PrepareCall(path, name)) return -1;
  return truncate(name.c_str(), length);
}

FILE* LongPathHandler::fopen_long(const std::string& path, const char* mode) {
  std::string name;
  if (!PrepareCall(path, name)) return nullptr;
  return fopen(name.c_str(), mode);
}

int LongPathHandler::chmod_long(const std::string& path, mode_t mode) {
  std::string name;
  if (!PrepareCall(path, name)) return -1;
  return chmod(name.c_str(), mode);
}

int LongPathHandler::chown_long(const std::string& path, uid_t user, gid_t group) {
  std::string name;
  if (!PrepareCall(path, name)) return -1;
  return chown(name.c_str(), user, group);
}

int LongPathHandler::lchown_long(const std::string& path, uid_t user, gid_t group) {
  std::string name;
  if (!PrepareCall(path, name)) return -1;
  return lchown(name.c_str(), user, group);
}

int LongPathHandler::utime_long(const std::string& path, const struct utimbuf* times) {
  std::string name;
  if (!PrepareCall(path, name)) return -1;
  return utime(name.c_str(), times);
}

ssize_t LongPathHandler::readlink_long(const std::string& path, char* buffer, size_t size) {
  std::string name;
  if (!PrepareCall(path, name)) return -1;
  return readlink(name.c_str(), buffer, size);
}

int LongPathHandler::statfs_long(const std::string& path, struct statfs* buffer) {
  std::string name;
  if (!PrepareCall(path, name)) return -1;
  return statfs(name.c_str(), buffer);
}

DIR* LongPathHandler::opendir_long(const std::string& path) {
  std::string name;
  if (!PrepareCall(path, name)) return nullptr;
  return opendir(name.c_str());
}

// ---------------------------------------------------------------------------------------------
// Restore side: missing folders made on the way.

CQiError LongPathHandler::CreateDirsIteratively_Long(const std::string& path, mode_t mode,
                                                     CreatedFolderSet& createdFolders) {
  if (!IsOwnerThread()) {
    return QI_ERROR_ERRNO(EPERM, "Long path calls are allowed on the main thread only, Path=%s",
                          path.c_str());
  }
  if (path.empty()) return QI_ERROR_ERRNO(ENOENT, "Empty folder path");
  if (HasNul(path)) return QI_ERROR_ERRNO(EINVAL, "Folder path holds a NUL byte");
  std::string target;
  StripTrailingSlash(path, target);
  if (createdFolders.count(target) != 0) return CQiError();

  // A relative path is made below the start directory; "./" gives the wrappers a folder.
  const bool bRelative = target.front() != '/';
  bool bMadeAbove = false;  // below a folder made here nothing can exist yet
  size_t end = 0;
  while (end < target.size()) {
    end = target.find('/', end + 1);
    if (end == std::string::npos) end = target.size();
    if (end > 0 && target[end - 1] == '/') continue;  // inside a run of slashes
    std::string folder = target.substr(0, end);
    if (folder == "/" || createdFolders.count(folder) != 0) continue;
    std::string callPath = bRelative ? "./" + folder : folder;

    if (!bMadeAbove) {
      struct stat st {};
      if (stat_long(callPath, &st) == 0) {
        if (!S_ISDIR(st.st_mode)) {
          return QI_ERROR_ERRNO(ENOTDIR, "Not a folder [%s]", folder.c_str());
        }
        createdFolders.insert(folder);
        continue;
      }
      if (errno != ENOENT) {
        int err = errno;
        return QI_ERROR_ERRNO(err, "Failed to stat folder [%s] with error [%d]", folder.c_str(),
                              err);
      }
    }
    std::string name;
    if (!PrepareCall(callPath, name)) {
      int err = errno;
      return QI_ERROR_ERRNO(err, "Failed to reach the parent of folder [%s] with error [%d]",
                            folder.c_str(), err);
    }
    if (mkdir(name.c_str(), mode) != 0) {
      int err = errno;
      struct stat st {};
      // Made meanwhile by someone else: fine when it is a folder.
      if (err != EEXIST || stat(name.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        return QI_ERROR_ERRNO(err, "Failed to create folder [%s] with error [%d]",
                              folder.c_str(), err);
      }
    } else {
      bMadeAbove = true;
      ZRLOG(6, "Created folder [%s]", folder.c_str());
    }
    createdFolders.insert(folder);
  }
  return CQiError();
}

int LongPathHandler::openRestoreFile_long(const std::string& path, int flags, mode_t mode,
                                          CreatedFolderSet& createdFolders, mode_t folderMode) {
  if (!IsOwnerThread()) {
    errno = EPERM;
    return -1;
  }
  if (!IsUsablePath(path)) return -1;
  std::string target;
  StripTrailingSlash(path, target);
  size_t slash = target.rfind('/');
  if (slash == std::string::npos) {
    errno = EINVAL;
    return -1;
  }
  if (slash > 0) {
    CQiError error = CreateDirsIteratively_Long(target.substr(0, slash), folderMode,
                                                createdFolders);
    if (error.IsError()) {
      ZRLOG(-1, "Failed to create the folders of [%s], error=%s", target.c_str(),
            error.AsString().c_str());
      errno = error.IsErrNo() ? static_cast<int>(error.GetCode()) : EIO;
      return -1;
    }
  }
  return open_long(target, flags | O_CREAT, mode);
}
