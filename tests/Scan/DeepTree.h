// Shared by the long path handler suites: a real folder tree whose full path is far longer
// than PATH_MAX (made and removed relative to descriptors, since mkdir or unlink on its full
// path fail with ENAMETOOLONG), small file helpers, and the fixture that takes the handler and
// gives it back after each test.
#pragma once

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "Scan/LongPathHandler.h"
#include "Support/TempTree.h"

namespace LongPathTestSupport {


inline constexpr int kLevels = 40;
inline constexpr size_t kNameLength = 220;

inline std::string LevelName(int level) {
  char prefix[8];
  snprintf(prefix, sizeof(prefix), "L%02d_", level);
  std::string name = prefix;
  name.append(kNameLength - name.size(), 'n');
  return name;
}

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

inline void WriteAt(int dirFd, const char* name, const std::string& content) {
  int fd = openat(dirFd, name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) throw std::runtime_error(std::string("openat failed: ") + strerror(errno));
  if (write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
    close(fd);
    throw std::runtime_error("write failed");
  }
  close(fd);
}

// Makes a folder below dirFd and returns an open descriptor of it.
inline int MakeDirAt(int dirFd, const std::string& name) {
  if (mkdirat(dirFd, name.c_str(), 0755) != 0 && errno != EEXIST) {
    throw std::runtime_error(std::string("mkdirat failed: ") + strerror(errno));
  }
  int fd = openat(dirFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) throw std::runtime_error(std::string("openat dir failed: ") + strerror(errno));
  return fd;
}

inline size_t CountOpenFds() {
  size_t count = 0;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return 0;
  while (struct dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') ++count;
  }
  closedir(dir);
  return count;
}

inline std::string Cwd() {
  char buffer[PATH_MAX];
  return getcwd(buffer, sizeof(buffer)) != nullptr ? std::string(buffer) : std::string();
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
      int child = MakeDirAt(fd, LevelName(level));
      path.append("/").append(LevelName(level));
      m_vLevels.push_back(path);
      m_vIds.push_back(IdOfFd(child));
      if (level == 20) {
        int side = MakeDirAt(child, "side");
        WriteAt(side, "side.txt", "side");
        m_idSide = IdOfFd(side);
        close(side);
      }
      if (level == kLevels - 1) {
        int sibling = MakeDirAt(child, "sibling");
        WriteAt(sibling, "sibling.txt", "sibling");
        m_idSibling = IdOfFd(sibling);
        close(sibling);
      }
      close(fd);
      fd = child;
    }
    WriteAt(fd, "file1", "hello");
    WriteAt(fd, "file2", "0123456789");
    if (symlinkat("file1", fd, "link") != 0) throw std::runtime_error("symlinkat failed");
    int sub = MakeDirAt(fd, "sub");
    WriteAt(sub, "inner.txt", "inner");
    m_idSub = IdOfFd(sub);
    close(sub);
    int subway = MakeDirAt(fd, "subway");
    WriteAt(subway, "way.txt", "way");
    m_idSubway = IdOfFd(subway);
    close(subway);
    close(fd);
  }

  const CTempTree& Tree() const { return m_tree; }
  const std::string& Level(int level) const { return m_vLevels.at(level); }
  const std::string& Deep() const { return m_vLevels.back(); }
  SId IdOfLevel(int level) const { return m_vIds.at(level); }
  SId IdOfDeep() const { return m_vIds.back(); }
  std::string Side() const { return Level(20) + "/side"; }
  std::string Sibling() const { return Level(kLevels - 1) + "/sibling"; }
  SId IdOfSide() const { return m_idSide; }
  SId IdOfSibling() const { return m_idSibling; }
  SId IdOfSub() const { return m_idSub; }
  SId IdOfSubway() const { return m_idSubway; }

 private:
  CTempTree m_tree;
  std::vector<std::string> m_vLevels;  // [0] the root, [i] level i
  std::vector<SId> m_vIds;
  SId m_idSide;
  SId m_idSibling;
  SId m_idSub;
  SId m_idSubway;
};

// Gives the handler back and clears the archive-index flag at the end of a test, so that
// other tests start at the start directory with no handler.
class CHandlerGuard {
 public:
  ~CHandlerGuard() {
    LongPathHandler::setIsArchiveIndex(false);
    LongPathHandler::ReleaseHandler();
  }
};

class LongPathHandlerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_strStartCwd = Cwd();
    m_pHandler = LongPathHandler::GetHandler();
    ASSERT_NE(m_pHandler, nullptr);
  }
  void TearDown() override {
    LongPathHandler::setIsArchiveIndex(false);
    LongPathHandler::ReleaseHandler();
    EXPECT_EQ(Cwd(), m_strStartCwd);
  }

  // The current path joined from the pieces on the stack.
  static std::string JoinedPieces(const LongPathHandler& handler) {
    std::string joined;
    for (const LongPathHandler::WorkingPath& working : handler.GetWorkingPaths()) {
      if (!joined.empty() && working.m_strPath.front() != '/') joined += '/';
      joined += working.m_strPath;
    }
    return joined;
  }

  // Clears FD_CLOEXEC on every descriptor of the stack: a descriptor that is closed and opened
  // again by the handler comes back with FD_CLOEXEC, so a cleared flag proves it was kept.
  void MarkStack() {
    for (const LongPathHandler::WorkingPath& working : m_pHandler->GetWorkingPaths()) {
      ASSERT_EQ(fcntl(working.m_iFd, F_SETFD, 0), 0);
    }
  }
  static bool IsMarked(int fd) { return fcntl(fd, F_GETFD) == 0; }

  // The stack after a move to target keeps, untouched, exactly the steps of the old stack
  // that lie on the way to the target; the steps after them are new.
  void ExpectKeptSteps(const std::vector<LongPathHandler::WorkingPath>& before,
                       const std::string& target, size_t expectedKept) {
    const auto& after = m_pHandler->GetWorkingPaths();
    size_t kept = 0;
    std::string reached;
    for (const LongPathHandler::WorkingPath& working : before) {
      std::string next = reached.empty() ? working.m_strPath : reached + "/" + working.m_strPath;
      if (target.compare(0, next.size(), next) != 0 ||
          (target.size() > next.size() && target[next.size()] != '/')) {
        break;
      }
      reached = next;
      ++kept;
    }
    EXPECT_EQ(kept, expectedKept);
    ASSERT_GE(after.size(), kept);
    for (size_t i = 0; i < after.size(); ++i) {
      if (i < kept) {
        EXPECT_EQ(after[i].m_strPath, before[i].m_strPath) << "step " << i;
        EXPECT_EQ(after[i].m_iFd, before[i].m_iFd) << "step " << i;
        EXPECT_TRUE(IsMarked(after[i].m_iFd)) << "step " << i << " was closed and opened again";
      } else {
        EXPECT_FALSE(IsMarked(after[i].m_iFd)) << "step " << i << " should be new";
      }
    }
    EXPECT_EQ(m_pHandler->GetCurrentPath(), target);
    EXPECT_EQ(JoinedPieces(*m_pHandler), target);
  }

  CDeepTree m_deep;
  LongPathHandler* m_pHandler = nullptr;
  std::string m_strStartCwd;
};

inline std::string ReadAll(int fd) {
  std::string content;
  char buffer[256];
  ssize_t n;
  while ((n = read(fd, buffer, sizeof(buffer))) > 0) content.append(buffer, n);
  return content;
}

}  // namespace LongPathTestSupport
