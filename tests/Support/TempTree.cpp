#include "Support/TempTree.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace {
int OpenUp(const char* path, const struct stat*, int type, struct FTW*) {
  if (type == FTW_D || type == FTW_DNR) chmod(path, 0700);
  return 0;
}
// Makes the folders on the way to path; returns path.
std::string MakeParents(const std::string& path) {
  for (size_t pos = 1; (pos = path.find('/', pos)) != std::string::npos; ++pos) mkdir(path.substr(0, pos).c_str(), 0755);
  return path;
}
std::string Check(bool bDone, const char* szWhat, const std::string& path) {
  if (!bDone) throw std::runtime_error(std::string(szWhat) + " failed: " + path + ": " + strerror(errno));
  return path;
}
}  // namespace

CTempTree::CTempTree(const std::string& strBase) {
  const char* base = getenv("TMPDIR");
  std::string templ = (strBase.empty() ? std::string(base && *base ? base : "/tmp") : strBase) + "/fsscan-test-XXXXXX";
  m_strRoot = Check(mkdtemp(templ.data()) != nullptr, "mkdtemp", templ);
  chmod(m_strRoot.c_str(), 0755);  // lets a child that dropped to nobody reach test folders
}

CTempTree::~CTempTree() {
  // Open up every folder that a path reaches, then remove everything relative to descriptors
  // (trees deeper than PATH_MAX included).
  nftw(m_strRoot.c_str(), OpenUp, 32, FTW_PHYS);
  RemoveTreeAt(AT_FDCWD, m_strRoot.c_str());
}

bool RemoveTreeAt(int iDirFd, const char* szName) {
  const int fd = openat(iDirFd, szName, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return unlinkat(iDirFd, szName, 0) == 0;
  DIR* pDir = fdopendir(fd);
  if (pDir == nullptr) return close(fd), false;
  std::vector<std::string> lstNames;
  while (struct dirent* pEntry = readdir(pDir))
    if (strcmp(pEntry->d_name, ".") != 0 && strcmp(pEntry->d_name, "..") != 0) lstNames.emplace_back(pEntry->d_name);
  bool bRemoved = true;
  for (const std::string& strName : lstNames) {
    // A folder made unreadable beyond the reach of a path is opened up here (links are never
    // followed: their targets may lie outside the tree).
    struct stat st {};
    if (fstatat(fd, strName.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode) && (st.st_mode & 0700) != 0700)
      fchmodat(fd, strName.c_str(), 0700, 0);
    bRemoved = RemoveTreeAt(fd, strName.c_str()) && bRemoved;
  }
  closedir(pDir);
  return unlinkat(iDirFd, szName, AT_REMOVEDIR) == 0 && bRemoved;
}

std::string CTempTree::Path(const std::string& relative) const {
  return relative.empty() ? m_strRoot : m_strRoot + "/" + relative;
}

std::string CTempTree::MakeDir(const std::string& relative, unsigned mode) {
  const std::string path = MakeParents(Path(relative));
  Check(mkdir(path.c_str(), 0755) == 0 || errno == EEXIST, "mkdir", path);
  chmod(path.c_str(), mode);
  return path;
}

std::string CTempTree::MakeFile(const std::string& relative, const std::string& content, unsigned mode) {
  const std::string path = MakeParents(Path(relative));
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  Check(fd >= 0, "open", path);
  for (size_t done = 0; done < content.size();) {
    const ssize_t n = write(fd, content.data() + done, content.size() - done);
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  close(fd);
  chmod(path.c_str(), mode);
  return path;
}

std::string CTempTree::MakeSymlink(const std::string& relative, const std::string& target) {
  const std::string path = MakeParents(Path(relative));
  return Check(symlink(target.c_str(), path.c_str()) == 0, "symlink", path);
}

std::string CTempTree::MakeFifo(const std::string& relative) {
  const std::string path = MakeParents(Path(relative));
  return Check(mkfifo(path.c_str(), 0644) == 0, "mkfifo", path);
}

int RunAsNobody(int (*body)(void*), void* arg) {
  const pid_t pid = fork();
  if (pid < 0) return -1;
  if (pid == 0) {
    const uid_t nobody = 65534;
    if (setresgid(nobody, nobody, nobody) != 0 || setresuid(nobody, nobody, nobody) != 0) _exit(120);
    _exit(body(arg));
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
}
