// The long path handler on a real tree far deeper than PATH_MAX: every wrapper, the paths all of
// them refuse, chdir_long and the steps it keeps, release, the owner thread, and the restore
// side (folders made on the way down a long path).
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/statfs.h>
#include <utime.h>

#include <functional>
#include <set>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <map>
#include <stdexcept>

#include "Scan/LongPathHandler.h"
#include "Support/LogCapture.h"
#include "Support/RunAsNobody.h"
#include "Support/TempTree.h"

namespace {

// ---- a real folder tree whose full path is far longer than PATH_MAX, made relative to
// descriptors, since mkdir on its full path fails with ENAMETOOLONG (CTempTree removes it the
// same way) ----

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

using H = LongPathHandler;
using D = CDeepTree;

// Gives the handler back and clears the archive-index flag, so that the next user starts at the
// start directory with no handler.
struct CHandlerGuard {
  ~CHandlerGuard() {
    LongPathHandler::setIsArchiveIndex(false);
    LongPathHandler::ReleaseHandler();
  }
};

size_t CountOpenFds() {
  size_t count = 0;
  DIR* dir = opendir("/proc/self/fd");
  while (struct dirent* entry = dir ? readdir(dir) : nullptr) count += entry->d_name[0] != '.';
  if (dir) closedir(dir);
  return count;
}

std::string UidGid(const struct stat& st) { return std::to_string(st.st_uid) + ":" + std::to_string(st.st_gid); }

std::string ReadAll(int fd) {
  std::string content;
  char buffer[256];
  for (ssize_t n; (n = read(fd, buffer, sizeof(buffer))) > 0;) content.append(buffer, n);
  return content;
}

// Takes the handler for a test and gives it back after it, checking that the process is back
// at its start directory.
class LongPathHandlerTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(m_pHandler, nullptr); }
  void TearDown() override {
    LongPathHandler::setIsArchiveIndex(false);
    LongPathHandler::ReleaseHandler();
    EXPECT_EQ(Cwd(), m_strStartCwd);
  }

  // The current path joined from the pieces on the stack.
  static std::string JoinedPieces(const LongPathHandler& handler) {
    std::string joined;
    for (const LongPathHandler::WorkingPath& working : handler.GetWorkingPaths())
      joined += (!joined.empty() && working.m_strPath.front() != '/' ? "/" : "") + working.m_strPath;
    return joined;
  }

  const std::string m_strStartCwd = Cwd();
  CDeepTree m_deep;
  LongPathHandler* m_pHandler = LongPathHandler::GetHandler();
};

// ---- every wrapper on the files of the deep folder ----

struct SWrapperCase {
  const char* name;
  std::function<void(H&, const D&)> body;
};

class LongPathWrapperTest : public LongPathHandlerTest, public ::testing::WithParamInterface<SWrapperCase> {};

TEST_P(LongPathWrapperTest, WorksInTheDeepFolder) {
  GetParam().body(*m_pHandler, m_deep);
  // The working directory stays in the folder of the last path the wrapper was given.
  if (m_pHandler->GetCurrentPath() == m_deep.Deep()) {
    EXPECT_EQ(IdOfCwd(), m_deep.IdOfDeep());
  }
}

std::string F(const D& d, const char* name) { return d.Deep() + "/" + name; }

// The status of a path through the handler (lstat when bLink); when the call fails, st_size holds
// the negated errno.
struct stat Stat(H& h, const std::string& path, bool bLink = false) {
  struct stat st {};
  errno = 0;
  if ((bLink ? h.lstat_long(path, &st) : h.stat_long(path, &st)) != 0) st.st_size = -errno;
  return st;
}

// What a descriptor reads, closed after.
std::string Drain(int fd) {
  std::string content = ReadAll(fd);
  close(fd);
  return content;
}

INSTANTIATE_TEST_SUITE_P(
    Table, LongPathWrapperTest,
    ::testing::Values(
        SWrapperCase{"StatLstatAndTheirFailures", [](H& h, const D& d) {
          EXPECT_EQ(Stat(h, F(d, "file1")).st_mode, S_IFREG | 0644u);
          EXPECT_EQ(Stat(h, F(d, "link")).st_size, 5);
          EXPECT_TRUE(S_ISLNK(Stat(h, F(d, "link"), true).st_mode));
          EXPECT_EQ(Stat(h, F(d, "missing")).st_size, -ENOENT);
          EXPECT_EQ(h.GetCurrentPath(), d.Deep());
          EXPECT_EQ(Stat(h, F(d, "file1") + "/x", true).st_size, -ENOTDIR);
          EXPECT_EQ(Stat(h, d.Deep() + "/" + std::string(300, 'x') + "/f").st_size, -ENAMETOOLONG);
          EXPECT_EQ(Stat(h, d.Level(30) + "/missing/x").st_size, -ENOENT);  // a folder on the way
        }},
        SWrapperCase{"LstatFolderWithTrailingSlash", [](H& h, const D& d) {
          const struct stat st = Stat(h, d.Deep() + "/", true);
          EXPECT_EQ((SId{st.st_dev, st.st_ino}), d.IdOfDeep());
          EXPECT_EQ(h.GetCurrentPath(), d.Level(kLevels - 1));
        }},
        SWrapperCase{"OpenCreatTruncateFopen", [](H& h, const D& d) {
          close(h.open_long(F(d, "made"), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
          EXPECT_EQ(Stat(h, F(d, "made"), true).st_mode, S_IFREG | 0600u);
          const int fd = h.creat_long(F(d, "created"), 0640);
          EXPECT_EQ(write(fd, "abcdef", 6), 6);
          close(fd);
          ASSERT_EQ(h.truncate_long(F(d, "created"), 3), 0);
          EXPECT_EQ(Drain(h.open_long(F(d, "created"), O_RDONLY | O_CLOEXEC)), "abc");
          FILE* file = h.fopen_long(F(d, "file1"), "re");
          ASSERT_NE(file, nullptr);
          EXPECT_EQ(Drain(dup(fileno(file))), "hello");
          fclose(file);
        }},
        SWrapperCase{"ChmodChownUtime", [](H& h, const D& d) {
          ASSERT_EQ(h.chmod_long(F(d, "file2"), 0604), 0);
          EXPECT_EQ(Stat(h, F(d, "file2")).st_mode, S_IFREG | 0604u);
          struct utimbuf times {1000000000, 1200000000};
          ASSERT_EQ(h.utime_long(F(d, "file1"), &times), 0);
          const struct stat st = Stat(h, F(d, "file1"));
          EXPECT_EQ(std::to_string(st.st_atime) + " " + std::to_string(st.st_mtime), "1000000000 1200000000");
          if (geteuid() != 0) return;  // chown needs root
          ASSERT_EQ(h.chown_long(F(d, "link"), 65534, 65533), 0);  // follows the link
          ASSERT_EQ(h.lchown_long(F(d, "link"), 65533, 65534), 0);
          const struct stat file = Stat(h, F(d, "file1")), link = Stat(h, F(d, "link"), true);
          EXPECT_EQ(UidGid(file) + " " + UidGid(link), "65534:65533 65533:65534");
        }},
        SWrapperCase{"ReadlinkStatfs", [](H& h, const D& d) {
          char buffer[64] = {};
          ASSERT_EQ(h.readlink_long(F(d, "link"), buffer, sizeof(buffer)), 5);
          EXPECT_EQ(std::string(buffer, 5), "file1");
          EXPECT_EQ(h.readlink_long(F(d, "file1"), buffer, sizeof(buffer)), -1);
          EXPECT_EQ(errno, EINVAL);
          struct statfs deep {}, top {};
          ASSERT_EQ(h.statfs_long(F(d, "file1"), &deep), 0);
          ASSERT_EQ(statfs(d.Tree().Root().c_str(), &top), 0);
          EXPECT_EQ(memcmp(&deep.f_fsid, &top.f_fsid, sizeof(deep.f_fsid)), 0);  // the same file system
        }},
        // Opendir, and a name that is not UTF-8 made and found again.
        SWrapperCase{"OpendirAndNameThatIsNotUtf8", [](H& h, const D& d) {
          close(h.open_long(F(d, "bad\xff\xfe\x80name"), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
          DIR* dir = h.opendir_long(d.Deep());
          ASSERT_NE(dir, nullptr);
          std::set<std::string> names;
          while (struct dirent* entry = readdir(dir)) names.insert(entry->d_name);
          closedir(dir);
          EXPECT_EQ(names, (std::set<std::string>{".", "..", "bad\xff\xfe\x80name", "file1", "file2", "link", "sub", "subway"}));
          EXPECT_EQ(h.GetCurrentPath(), d.Level(kLevels - 1));
          EXPECT_EQ(h.opendir_long(d.Level(30) + "/missing/x"), nullptr);
          EXPECT_EQ(errno, ENOENT);
        }},
        SWrapperCase{"ShortPathsToo", [](H& h, const D& d) {
          EXPECT_EQ(Stat(h, d.Tree().Root() + "/top.txt").st_size, 3);
          EXPECT_EQ(h.GetDepth(), 1u);
          EXPECT_EQ(h.GetCurrentPath(), d.Tree().Root());
          EXPECT_TRUE(S_ISDIR(Stat(h, "/").st_mode));
          EXPECT_TRUE(S_ISDIR(Stat(h, "/tmp").st_mode));
          EXPECT_EQ(h.GetCurrentPath(), "/");
        }}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- paths every wrapper refuses: -1 (or null) with errno set, the working directory unchanged ----

class LongPathRefusedTest : public LongPathHandlerTest, public ::testing::WithParamInterface<std::pair<std::string, int>> {};

TEST_P(LongPathRefusedTest, FailsWithMinusOne) {
  const auto& [path, expectedErrno] = GetParam();
  EXPECT_EQ(Stat(*m_pHandler, path).st_size, -expectedErrno);
  EXPECT_EQ(Stat(*m_pHandler, path, true).st_size, -expectedErrno);
  EXPECT_EQ(m_pHandler->open_long(path, O_RDONLY), -1);
  EXPECT_EQ(m_pHandler->opendir_long(path), nullptr);
  EXPECT_EQ(m_pHandler->fopen_long(path, "r"), nullptr);
  char buffer[16];
  EXPECT_EQ(m_pHandler->readlink_long(path, buffer, sizeof(buffer)), -1);
  EXPECT_EQ(m_pHandler->GetDepth(), 0u);
  EXPECT_EQ(Cwd(), m_strStartCwd);
}

INSTANTIATE_TEST_SUITE_P(Table, LongPathRefusedTest,
                         ::testing::Values(std::pair{std::string("file1"), EINVAL}, std::pair{std::string("folder/"), EINVAL},
                                           std::pair{std::string(), ENOENT},
                                           std::pair{std::string("/tmp/a\0b/c", 10), EINVAL}));

// ---- chdir_long and the steps it keeps ----

// 0, -1 or the C library error number of the failed chdir; after failures the handler still
// reaches the right folders.
TEST_F(LongPathHandlerTest, ChdirLongResults) {
  EXPECT_EQ(m_pHandler->chdir_long(""), -1);
  EXPECT_EQ(m_pHandler->chdir_long(m_deep.Deep()), 0);
  EXPECT_EQ(IdOfCwd(), m_deep.IdOfDeep());
  EXPECT_EQ(m_pHandler->chdir_long(m_deep.Deep() + "/file1"), ENOTDIR);
  EXPECT_EQ(m_pHandler->chdir_long(m_deep.Deep() + "/missing"), ENOENT);
  // A name longer than the system takes in any piece.
  EXPECT_EQ(m_pHandler->chdir_long(m_deep.Deep() + "/" + std::string(300, 'x')), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_EQ(m_pHandler->chdir_long(m_deep.Level(25)), 0);
  EXPECT_EQ(IdOfCwd(), m_deep.IdOfLevel(25));
  EXPECT_EQ(m_pHandler->chdir_long(m_deep.Deep() + "//"), 0);
  EXPECT_EQ(IdOfCwd(), m_deep.IdOfDeep());
  EXPECT_EQ(m_pHandler->GetCurrentPath(), m_deep.Deep());
}

// A failure in the middle of a long path leaves the handler in the folder it reached, and the
// next call starts from there correctly.
TEST_F(LongPathHandlerTest, FailureHalfwayLeavesAUsableState) {
  const std::string broken = m_deep.Level(38) + "/missing/deeper";
  EXPECT_EQ(m_pHandler->chdir_long(broken), ENOENT);
  EXPECT_EQ(JoinedPieces(*m_pHandler), m_pHandler->GetCurrentPath());
  EXPECT_EQ(broken.compare(0, m_pHandler->GetCurrentPath().size(), m_pHandler->GetCurrentPath()), 0);
  EXPECT_EQ(Stat(*m_pHandler, m_deep.Deep() + "/file1").st_size, 5);
  EXPECT_EQ(IdOfCwd(), m_deep.IdOfDeep());
}

struct SMoveCase {
  const char* name;
  std::function<std::string(const D&)> folder;  // the folder of the file to stat next
  const char* file;
  std::function<SId(const D&)> id;  // that folder's identity
  size_t expectedKept;              // steps of the deep folder's stack that stay untouched
};

class LongPathMoveTest : public LongPathHandlerTest, public ::testing::WithParamInterface<SMoveCase> {};

// From the deep folder (entered as root+18 levels, 18 levels, 4 levels) to a nearby folder:
// only the steps that are not on the way to the new folder are climbed back. A descriptor that
// is closed and opened again comes back with FD_CLOEXEC, so a cleared flag proves a step kept.
TEST_P(LongPathMoveTest, ClimbsOnlyToTheCommonPart) {
  const SMoveCase& c = GetParam();
  ASSERT_EQ(Stat(*m_pHandler, m_deep.Deep() + "/file1").st_size, 5);
  ASSERT_EQ(m_pHandler->GetDepth(), 3u);
  const auto before = m_pHandler->GetWorkingPaths();
  for (const LongPathHandler::WorkingPath& working : before) ASSERT_EQ(fcntl(working.m_iFd, F_SETFD, 0), 0);
  EXPECT_TRUE(S_ISREG(Stat(*m_pHandler, c.folder(m_deep) + "/" + c.file).st_mode));
  const auto& after = m_pHandler->GetWorkingPaths();
  std::string kept;
  for (size_t i = 0; i < after.size(); ++i)
    kept += i < before.size() && after[i].m_strPath == before[i].m_strPath && fcntl(after[i].m_iFd, F_GETFD) == 0 ? 'k' : 'n';
  EXPECT_EQ(kept.substr(0, c.expectedKept + 1), std::string(c.expectedKept, 'k') + (after.size() > c.expectedKept ? "n" : ""));
  EXPECT_EQ(m_pHandler->GetCurrentPath(), c.folder(m_deep));
  EXPECT_EQ(JoinedPieces(*m_pHandler), c.folder(m_deep));
  EXPECT_EQ(IdOfCwd(), c.id(m_deep));
}

INSTANTIATE_TEST_SUITE_P(
    Table, LongPathMoveTest,
    ::testing::Values(
        SMoveCase{"SameFolder", [](const D& d) { return d.Deep(); }, "file2", [](const D& d) { return d.IdOfDeep(); }, 3},
        SMoveCase{"SiblingOfDeepFolder", [](const D& d) { return d.Sibling(); }, "sibling.txt",
                  [](const D& d) { return d.Id("sibling"); }, 2},
        SMoveCase{"SideFolderHalfWay", [](const D& d) { return d.Side(); }, "side.txt",
                  [](const D& d) { return d.Id("side"); }, 1},
        SMoveCase{"FolderBelow", [](const D& d) { return d.Deep() + "/sub"; }, "inner.txt",
                  [](const D& d) { return d.Id("sub"); }, 3},
        SMoveCase{"OtherTree", [](const D& d) { return d.Tree().Root(); }, "top.txt",
                  [](const D& d) { return d.IdOfLevel(0); }, 0}),
    [](const auto& info) { return std::string(info.param.name); });

// Paths are compared by whole names: "sub" is not a folder on the way to "subway".
TEST_F(LongPathHandlerTest, NameExtendingAnotherIsNotBelowIt) {
  for (const char* name : {"sub/inner.txt", "subway/way.txt", "sub/inner.txt"})
    EXPECT_GT(Stat(*m_pHandler, m_deep.Deep() + "/" + name).st_size, 0) << name;
  EXPECT_EQ(IdOfCwd(), m_deep.Id("sub"));
  EXPECT_EQ(JoinedPieces(*m_pHandler), m_deep.Deep() + "/sub");
}

// A relative path names a file below the start directory, wherever the handler stands.
TEST(LongPathHandlerRelativeTest, RelativeToTheStartDirectory) {
  CDeepTree deep;
  const int startFd = open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(chdir(deep.Tree().Root().c_str()), 0);
  {
    CHandlerGuard guard;
    LongPathHandler* handler = LongPathHandler::GetHandler();
    ASSERT_NE(handler, nullptr);
    EXPECT_STREQ(handler->GetStartDirectory(), deep.Tree().Root().c_str());
    EXPECT_EQ(Stat(*handler, deep.Deep() + "/file1").st_size, 5);
    EXPECT_EQ(Stat(*handler, "./top.txt").st_size, 3);
    EXPECT_EQ(Stat(*handler, deep.Deep().substr(deep.Tree().Root().size() + 1) + "/file2").st_size, 10);
    EXPECT_EQ(IdOfCwd(), deep.IdOfDeep());
    EXPECT_EQ(Stat(*handler, deep.Level(20) + "/side/side.txt").st_size, 4);
  }
  // Released: back in the start directory.
  EXPECT_EQ(Cwd(), deep.Tree().Root());
  ASSERT_EQ(fchdir(startFd), 0);
  close(startFd);
}

// Release: back to the start directory, every descriptor closed; a second release does nothing.
TEST(LongPathHandlerReleaseTest, ReturnsToStartAndClosesEveryDescriptor) {
  CDeepTree deep;
  const std::string cwdBefore = Cwd();
  const size_t fdsBefore = CountOpenFds();
  {
    CHandlerGuard guard;
    LongPathHandler* handler = LongPathHandler::GetHandler();
    ASSERT_NE(handler, nullptr);
    EXPECT_EQ(LongPathHandler::GetHandler(), handler);  // one instance
    EXPECT_GT(Stat(*handler, deep.Sibling() + "/sibling.txt").st_size, 0);
    ASSERT_EQ(handler->chdir_long(deep.Deep()), 0);
    EXPECT_EQ(CountOpenFds(), fdsBefore + handler->GetDepth());
    LongPathHandler::ReleaseHandler();
    EXPECT_EQ(Cwd() + " " + std::to_string(CountOpenFds()), cwdBefore + " " + std::to_string(fdsBefore));
  }
  EXPECT_EQ(Cwd() + " " + std::to_string(CountOpenFds()), cwdBefore + " " + std::to_string(fdsBefore));
}

// ---- the owner thread and the archive-index flag ----

TEST(LongPathHandlerThreadTest, OtherThreadsAreRefused) {
  CDeepTree deep;
  CHandlerGuard guard;
  const std::string cwdBefore = Cwd();
  LongPathHandler* handler = LongPathHandler::GetHandler();
  ASSERT_NE(handler, nullptr);
  std::string results;  // owner, handler, stat (-errno), chdir_long, CreateDirsIteratively_Long refused with EPERM
  LongPathHandler::CreatedFolderSet made;
  std::thread([&] {
    const CQiError error = handler->CreateDirsIteratively_Long(deep.Tree().Root() + "/new", 0755, made);
    results = std::to_string(LongPathHandler::IsOwnerThread()) + " " + std::to_string(LongPathHandler::GetHandler() != nullptr) +
              " " + std::to_string(Stat(*handler, deep.Deep() + "/file1").st_size) + " " +
              std::to_string(handler->chdir_long(deep.Deep())) + " " + std::to_string(error.IsErrNo(EPERM));
    LongPathHandler::ReleaseHandler();  // refused: the instance stays
  }).join();
  EXPECT_EQ(results, "0 0 " + std::to_string(-EPERM) + " -1 1");
  EXPECT_TRUE(made.empty());
  EXPECT_EQ(handler->GetDepth(), 0u);
  EXPECT_EQ(Cwd(), cwdBefore);
  EXPECT_EQ(LongPathHandler::GetHandler(), handler);
}

// Only the main thread gets the handler, and only while the archive-index flag is clear.
class LongPathHandlerArchiveTest : public ::testing::TestWithParam<std::tuple<bool, bool>> {};

TEST_P(LongPathHandlerArchiveTest, GetHandler) {
  const auto [bArchiveIndex, bOnOtherThread] = GetParam();
  CHandlerGuard guard;
  LongPathHandler::setIsArchiveIndex(bArchiveIndex);
  EXPECT_EQ(LongPathHandler::getIsArchiveIndex(), bArchiveIndex);
  LongPathHandler* handler = nullptr;
  if (bOnOtherThread) std::thread([&] { handler = LongPathHandler::GetHandler(); }).join();
  else handler = LongPathHandler::GetHandler();
  EXPECT_EQ(handler != nullptr, !bArchiveIndex && !bOnOtherThread);
  // Clearing the flag gives the main thread its handler again.
  LongPathHandler::setIsArchiveIndex(false);
  EXPECT_NE(LongPathHandler::GetHandler(), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Table, LongPathHandlerArchiveTest, ::testing::Combine(::testing::Bool(), ::testing::Bool()));

// ---- the restore side: missing folders made on the way down a long path ----

std::string LongChain(const std::string& base, int levels) {
  std::string path = base;
  for (int level = 1; level <= levels; ++level) path += "/N" + LevelName(level).substr(1);
  return path;
}

struct SCreateCase {
  const char* name;
  std::function<std::string(const D&)> path;
  mode_t mode;
  int expectedErrno;  // 0: the call succeeds
  const char* message;  // of the failure, "%D" standing for the deep folder
};

class LongPathCreateDirsTest : public LongPathHandlerTest, public ::testing::WithParamInterface<SCreateCase> {};

TEST_P(LongPathCreateDirsTest, CreateDirsIteratively) {
  const SCreateCase& c = GetParam();
  const std::string path = c.path(m_deep);
  LongPathHandler::CreatedFolderSet made;
  CQiError error = m_pHandler->CreateDirsIteratively_Long(path, c.mode, made);
  if (c.expectedErrno != 0) {
    EXPECT_TRUE(error.IsErrNo(c.expectedErrno)) << error.AsString();
    std::string message = c.message;
    if (const size_t pos = message.find("%D"); pos != std::string::npos) message.replace(pos, 2, m_deep.Deep());
    EXPECT_EQ(error.GetMessage(), message);
    return;
  }
  ASSERT_TRUE(error.IsSuccess()) << error.AsString();
  std::string stripped;
  LongPathHandler::StripTrailingSlash(path, stripped);
  EXPECT_EQ(made.count(stripped), 1u);
  // Every folder on the way is known now, and each of them exists as a folder.
  for (const std::string& folder : made) EXPECT_TRUE(S_ISDIR(Stat(*m_pHandler, folder).st_mode)) << folder.size();
  const struct stat st = Stat(*m_pHandler, stripped);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  if (made.size() > static_cast<size_t>(kLevels) + 2) {
    EXPECT_EQ(st.st_mode & 0777, c.mode & ~0022u);  // a folder made here has the mode
  }
  // A second call with the same set succeeds at once.
  EXPECT_TRUE(m_pHandler->CreateDirsIteratively_Long(path, c.mode, made).IsSuccess());
}

INSTANTIATE_TEST_SUITE_P(
    Table, LongPathCreateDirsTest,
    ::testing::Values(
        SCreateCase{"LongNewChain", [](const D& d) { return LongChain(d.Deep() + "/new", 25); }, 0750, 0, nullptr},
        SCreateCase{"NewChainFromShortBase", [](const D& d) { return LongChain(d.Tree().Root(), 30); }, 0700, 0, nullptr},
        SCreateCase{"AlreadyThere", [](const D& d) { return d.Deep(); }, 0755, 0, nullptr},
        SCreateCase{"SlashRunsAndTrailingSlash", [](const D& d) { return d.Deep() + "//x//y/"; }, 0755, 0, nullptr},
        SCreateCase{"FileOnTheWay", [](const D& d) { return d.Deep() + "/file1/x/y"; }, 0755, ENOTDIR, "Not a folder [%D/file1]"},
        SCreateCase{"FileAtTheEnd", [](const D& d) { return d.Deep() + "/file2"; }, 0755, ENOTDIR, "Not a folder [%D/file2]"},
        SCreateCase{"Empty", [](const D&) { return std::string(); }, 0755, ENOENT, "Empty folder path"},
        SCreateCase{"NulByte", [](const D& d) { return d.Deep() + std::string("/a\0b", 4); }, 0755, EINVAL,
                    "Folder path holds a NUL byte"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(LongPathHandlerTest, OpenRestoreFileMakesTheFoldersOnTheWay) {
  LongPathHandler::CreatedFolderSet made;
  const std::string folder = LongChain(m_deep.Deep() + "/restore", 3), file = folder + "/restored.txt";
  int fd = m_pHandler->openRestoreFile_long(file, O_WRONLY | O_CLOEXEC, 0640, made, 0711);
  EXPECT_EQ(write(fd, "data", 4), 4);
  close(fd);
  EXPECT_EQ(made.count(folder), 1u);
  fd = m_pHandler->open_long(file, O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(ReadAll(fd), "data");
  close(fd);
  EXPECT_EQ(Stat(*m_pHandler, folder).st_mode, S_IFDIR | 0711u);
  EXPECT_EQ(Stat(*m_pHandler, file).st_mode, S_IFREG | 0640u);
  // A second file in the same folder; O_EXCL on an existing one fails as open does.
  fd = m_pHandler->openRestoreFile_long(folder + "/second.txt", O_WRONLY | O_CLOEXEC, 0600, made);
  EXPECT_GE(fd, 0);
  close(fd);
  EXPECT_EQ(m_pHandler->openRestoreFile_long(file, O_WRONLY | O_EXCL | O_CLOEXEC, 0600, made), -1);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(m_pHandler->openRestoreFile_long("restored.txt", O_WRONLY, 0600, made), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(LongPathHandlerTest, OpenRestoreFileReportsAFolderItCannotMake) {
  CLogCapture capture;
  LongPathHandler::CreatedFolderSet made;
  EXPECT_EQ(m_pHandler->openRestoreFile_long(m_deep.Deep() + "/file1/x/y.txt", O_WRONLY, 0600, made), -1);
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_EQ(capture->CountContaining("Failed to create the folders of [" + m_deep.Deep() + "/file1/x/y.txt], error=", -1), 1u);
}

// The folder on the way that cannot be made is named; what was made before it is kept.
TEST(LongPathHandlerPermissionTest, CreateDirsFailsWhereTheUserMayNotWrite) {
  CDeepTree deep;
  const std::string locked = deep.Deep() + "/locked";
  {
    CHandlerGuard guard;  // made and given back before the fork: the child starts afresh
    LongPathHandler::CreatedFolderSet made;
    ASSERT_TRUE(LongPathHandler::GetHandler()->CreateDirsIteratively_Long(locked, 0755, made).IsSuccess());
  }
  EXPECT_EQ(0, RunAsNobody([&locked] {
              LongPathHandler* handler = LongPathHandler::GetHandler();
              LongPathHandler::CreatedFolderSet made;
              CQiError error = handler->CreateDirsIteratively_Long(locked + "/a/b", 0755, made);
              return error.IsErrNo(EACCES) &&
                     error.GetMessage() == "Failed to create folder [" + locked + "/a] with error [13]" &&
                     made.count(locked) == 1 && made.count(locked + "/a") == 0 &&
                     Stat(*handler, locked + "/a").st_size == -ENOENT;
            }));
}

}  // namespace
