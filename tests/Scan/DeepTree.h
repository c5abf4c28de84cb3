// A real folder tree whose full path is far longer than PATH_MAX, for the suites of the long
// path handler and the path enumerator. It is made relative to descriptors, since mkdir on its
// full path fails with ENAMETOOLONG; CTempTree removes it the same way.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "Support/TempTree.h"

namespace LongPathTestSupport {

inline constexpr int kLevels = 40;

// "L07_nnn...": 220 bytes.
inline std::string LevelName(int level) {
  char prefix[8];
  snprintf(prefix, sizeof(prefix), "L%02d_", level);
  return prefix + std::string(220 - strlen(prefix), 'n');
}

// The identity of a file-system object.
struct SId {
  dev_t dev = 0;
  ino_t ino = 0;
  bool operator==(const SId& other) const { return dev == other.dev && ino == other.ino; }
};

inline SId IdOfFd(int fd) {
  struct stat st {};
  if (fstat(fd, &st) != 0) throw std::runtime_error("fstat failed");
  return SId{st.st_dev, st.st_ino};
}

inline SId IdOfCwd() {
  struct stat st {};
  if (stat(".", &st) != 0) throw std::runtime_error("stat . failed");
  return SId{st.st_dev, st.st_ino};
}

inline std::string Cwd() {
  char buffer[PATH_MAX];
  return getcwd(buffer, sizeof(buffer)) != nullptr ? std::string(buffer) : std::string();
}

inline void WriteAt(int dirFd, const char* name, const std::string& content) {
  const int fd = openat(dirFd, name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  const bool bWritten = fd >= 0 && write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
  if (fd >= 0) close(fd);
  if (!bWritten) throw std::runtime_error(std::string("writing failed: ") + name);
}

// Makes a folder below dirFd and returns an open descriptor of it.
inline int MakeDirAt(int dirFd, const std::string& name) {
  if (mkdirat(dirFd, name.c_str(), 0755) != 0 && errno != EEXIST) throw std::runtime_error("mkdirat failed: " + name);
  const int fd = openat(dirFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) throw std::runtime_error("openat failed: " + name);
  return fd;
}

// The deep tree:
//   <root>/top.txt
//   <root>/L01_.../L02_.../.../L40_...        (the deep folder, > 8,000 bytes)
//       file1 ("hello"), file2 ("0123456789"), link -> file1, sub/inner.txt, subway/way.txt
//   <level 20>/side/side.txt
//   <level 39>/sibling/sibling.txt
class CDeepTree {
 public:
  CDeepTree() {
    m_tree.MakeFile("top.txt", "top");
    std::string path = m_tree.Root();
    int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) throw std::runtime_error("open root failed");
    m_vLevels.push_back(path);
    m_vIds.push_back(IdOfFd(fd));
    for (int level = 1; level <= kLevels; ++level) {
      const int child = MakeDirAt(fd, LevelName(level));
      close(fd);
      fd = child;
      m_vLevels.push_back(path += "/" + LevelName(level));
      m_vIds.push_back(IdOfFd(fd));
      if (level == 20) MakeFolderWithFile(fd, "side", "side");
      if (level == kLevels - 1) MakeFolderWithFile(fd, "sibling", "sibling");
    }
    WriteAt(fd, "file1", "hello");
    WriteAt(fd, "file2", "0123456789");
    if (symlinkat("file1", fd, "link") != 0) throw std::runtime_error("symlinkat failed");
    MakeFolderWithFile(fd, "sub", "inner");
    MakeFolderWithFile(fd, "subway", "way");
    close(fd);
  }

  const CTempTree& Tree() const { return m_tree; }
  const std::string& Level(int level) const { return m_vLevels.at(level); }
  const std::string& Deep() const { return m_vLevels.back(); }
  SId IdOfLevel(int level) const { return m_vIds.at(level); }
  SId IdOfDeep() const { return m_vIds.back(); }
  std::string Side() const { return Level(20) + "/side"; }
  std::string Sibling() const { return Level(kLevels - 1) + "/sibling"; }
  // The identity of the folder "side", "sibling", "sub" or "subway".
  SId Id(const std::string& name) const { return m_mapIds.at(name); }

 private:
  // Makes the folder name below dirFd with the file <file>.txt holding <file>.
  void MakeFolderWithFile(int dirFd, const char* name, const std::string& file) {
    const int fd = MakeDirAt(dirFd, name);
    WriteAt(fd, (file + ".txt").c_str(), file);
    m_mapIds[name] = IdOfFd(fd);
    close(fd);
  }

  CTempTree m_tree;
  std::vector<std::string> m_vLevels;  // [0] the root, [i] level i
  std::vector<SId> m_vIds;
  std::map<std::string, SId> m_mapIds;
};

}  // namespace LongPathTestSupport
