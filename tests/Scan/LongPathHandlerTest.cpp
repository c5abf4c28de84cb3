#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>
#include <utime.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Scan/DeepTree.h"
#include "Scan/LongPathHandler.h"

namespace {

using namespace LongPathTestSupport;

TEST_F(LongPathHandlerTest, DeepTreeIsBeyondTheOrdinaryCalls) {
  ASSERT_GT(m_deep.Deep().size(), 2u * PATH_MAX);
  struct stat st {};
  EXPECT_EQ(stat((m_deep.Deep() + "/file1").c_str(), &st), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
}

// ---------------------------------------------------------------------------------------------
// Every wrapper on the files of the deep folder.

struct SWrapperCase {
  const char* name;
  std::function<void(LongPathHandler&, const CDeepTree&)> body;
};

void PrintTo(const SWrapperCase& c, std::ostream* os) { *os << c.name; }

class LongPathWrapperTest : public LongPathHandlerTest,
                            public ::testing::WithParamInterface<SWrapperCase> {};

TEST_P(LongPathWrapperTest, WorksInTheDeepFolder) {
  GetParam().body(*m_pHandler, m_deep);
  // The working directory stays in the folder of the last path the wrapper was given.
  if (!m_pHandler->GetCurrentPath().empty() && m_pHandler->GetCurrentPath() == m_deep.Deep()) {
    EXPECT_EQ(IdOfCwd(), m_deep.IdOfDeep());
  }
}

std::string F(const CDeepTree& d, const char* name) { return d.Deep() + "/" + name; }

INSTANTIATE_TEST_SUITE_P(
    Table, LongPathWrapperTest,
    ::testing::Values(
        SWrapperCase{"StatFile",
                     [](LongPathHandler& h, const CDeepTree& d) {
                       struct stat st {};
                       ASSERT_EQ(h.stat_long(F(d, "file1"), &st), 0);
                       EXPECT_TRUE(S_ISREG(st.st_mode));
                       EXPECT_EQ(st.st_size, 5);
                       EXPECT_EQ(h.GetCurrentPath(), d.Deep());
                     }},
        SWrapperCase{"StatFollowsLink",
                     [](LongPathHandler& h, const CDeepTree& d) {
                       struct stat st {};
                       ASSERT_EQ(h.stat_long(F(d, "link"), &st), 0);
                       EXPECT_TRUE(S_ISREG(st.st_mode));
                     }},
        SWrapperCase{"LstatLink",
                     [](LongPathHandler& h, const CDeepTree& d) {
                       struct stat st {};
                       ASSERT_EQ(h.lstat_long(F(d, "link"), &st), 0);
                       EXPECT_TRUE(S_ISLNK(st.st_mode));
                     }},
        SWrapperCase{"LstatFolderWithTrailingSlash",
                     [](LongPathHandler& h, const CDeepTree& d) {
                       struct stat st {};
                       ASSERT_EQ(h.lstat_long(d.Deep() + "/", &st), 0);
                       EXPECT_TRUE(S_ISDIR(st.st_mode));
                       EXPECT_EQ((SId{st.st_dev, st.st_ino}), d.IdOfDeep());
                       EXPECT_EQ(h.GetCurrentPath(), d.Level(kLevels - 1));
                     }},
        SWrapperCase{"OpenAndRead",
                     [](LongPathHandler& h, const CDeepTree& d) {
                       int fd = h.open_long(F(d, "file1"), O_RDONLY | O_CLOEXEC);
                       ASSERT_GE(fd, 0);
                       EXPECT_EQ(ReadAll(fd), "hello");
                       close(fd);
                     }},
        SWrapperCase{"OpenCreatesWithMode",
                     [](LongPathHandler& h, const CDeepTree& d) {
                       int fd = h.open_long(F(d, "made"), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC,
                                            0600);
                       ASSERT_GE(fd, 0);
                       close(fd);
                       struct stat st {};
                       ASSERT_EQ(h.lstat_long(F(d, "made"), &st), 0);
                       EXPECT_EQ(st.st_mode & 0777, 0600u);
                     }},
        SWrapperCase{"Creat",
                     [](LongPathHandler& h, const CDeepTree& d) {
                       int fd = h.creat_long(F(d, "created"), 0640);
                       ASSERT_GE(fd, 0);
                       EXPECT_EQ(write(fd, "abc", 3), 3);
                       close(fd);
                       struct stat st {};
                       ASSERT_EQ(h.stat_long(F(d, "created"), &st), 0);
                       EXPECT_EQ(st.st_size, 3);
                     }},
        SWrapperCase{"Truncate",
                     [](LongPathHandler& h, const CDeepTree& d) {
                       ASSERT_EQ(h.truncate_long(F(d, "file2"), 3), 0);
                       struct stat st {};
                       ASSERT_EQ(h.stat_long(F(d, "file2"), &st), 0);
                       EXPECT_EQ(st.st_size, 3);
                     }},
        SWrapperCase{"Fopen",
                     [](LongPathHandler& h, const CDeepTree& d) {
                       FILE* file = h.fopen_long(F(d, "file1"), "re");
                       ASSERT_NE(file, nullptr);
                       char buffer[16] = {};
                       EXPECT_EQ(fread(buffer, 1, sizeof(buffer) - 1, file), 5u);
                       EXPECT_STREQ(buffer, "hello");
                       fclose(file);
                     }},
        SWrapperCase{"Chmod",
                     [](LongPathHandler& h, const CDeepTree& d) {
                       ASSERT_EQ(h.chmod_long(F(d, "file2"), 0604), 0);
                       struct stat st {};
                       ASSERT_EQ(h.stat_long(F(d, "file2"), &st), 0);
                       EXPECT_EQ(st.st_mode & 0777, 0604u);
                     }},
        SWrapperCase{"ChownFollowsLink",
                     [](LongPathHandler& h, const CDeepTree& d) {
                       if (geteuid() != 0) GTEST_SKIP() << "needs root";
                       ASSERT_EQ(h.chown_long(F(d, "link"), 65534, 65534), 0);
                       struct stat st {};
                       ASSERT_EQ(h.stat_long(F(d, "file1"), &st), 0);
                       EXPECT_EQ(st.st_uid, 65534u);
                       ASSERT_EQ(h.lstat_long(F(d, "link"), &st), 0);
                       EXPECT_EQ(st.st_uid, 0u);
                     }},
        SWrapperCase{"LchownChangesLink",
                     [](LongPathHandler& h, const CDeepTree& d) {
                       if (geteuid() != 0) GTEST_SKIP() << "needs root";
                       ASSERT_EQ(h.lchown_long(F(d, "link"), 65534, 65534), 0);
                       struct stat st {};
                       ASSERT_EQ(h.lstat_long(F(d, "link"), &st), 0);
                       EXPECT_EQ(st.st_uid, 65534u);
                       EXPECT_EQ(st.st_gid, 65534u);
                       ASSERT_EQ(h.stat_long(F(d, "file1"), &st), 0);
                       EXPECT_EQ(st.st_uid, 0u);
                     }},
        SWrapperCase{"Utime",
                     [](LongPathHandler& h, const CDeepTree& d) {
                       struct utimbuf times {};
                       times.actime = 1000000000;
                       times.modtime = 1200000000;
                       ASSERT_EQ(h.utime_long(F(d, "file1"), &times), 0);
                       struct stat st {};
                       ASSERT_EQ(h.stat_long(F(d, "file1"), &st), 0);
                       EXPECT_EQ(st.st_mtime, 1200000000);
                       EXPECT_EQ(st.st_atime, 1000000000);
                     }},
        SWrapperCase{"Readlink",
                     [](LongPathHandler& h, const CDeepTree& d) {
                       char buffer[64] = {};
                       ASSERT_EQ(h.readlink_long(F(d, "link"), buffer, sizeof(buffer)), 5);
                       EXPECT_EQ(std::string(buffer, 5), "file1");
                       errno = 0;
                       EXPECT_EQ(h.readlink_long(F(d, "file1"), buffer, sizeof(buffer)), -1);
                       EXPECT_EQ(errno, EINVAL);
                     }},
        SWrapperCase{"Statfs",
                     [](LongPathHandler& h, const CDeepTree& d) {
                       struct statfs deep {}, top {};
                       ASSERT_EQ(h.statfs_long(F(d, "file1"), &deep), 0);
                       ASSERT_EQ(statfs(d.Tree().Root().c_str(), &top), 0);
                       EXPECT_EQ(deep.f_type, top.f_type);
                       EXPECT_EQ(deep.f_bsize, top.f_bsize);
                     }},
        SWrapperCase{"Opendir",
                     [](LongPathHandler& h, const CDeepTree& d) {
                       DIR* dir = h.opendir_long(d.Deep());
                       ASSERT_NE(dir, nullptr);
                       std::set<std::string> names;
                       while (struct dirent* entry = readdir(dir)) names.insert(entry->d_name);
                       closedir(dir);
                       EXPECT_EQ(names, (std::set<std::string>{".", "..", "file1", "file2",
                                                               "link", "sub", "subway"}));
                       EXPECT_EQ(h.GetCurrentPath(), d.Level(kLevels - 1));
                     }},
        SWrapperCase{"NameThatIsNotUtf8",
                     [](LongPathHandler& h, const CDeepTree& d) {
                       const std::string path = d.Deep() + "/bad\xff\xfe\x80name";
                       int fd = h.open_long(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
                       ASSERT_GE(fd, 0);
                       close(fd);
                       struct stat st {};
                       ASSERT_EQ(h.lstat_long(path, &st), 0);
                       EXPECT_TRUE(S_ISREG(st.st_mode));
                       DIR* dir = h.opendir_long(d.Deep());
                       ASSERT_NE(dir, nullptr);
                       bool bFound = false;
                       while (struct dirent* entry = readdir(dir)) {
                         bFound = bFound || std::string(entry->d_name) == "bad\xff\xfe\x80name";
                       }
                       closedir(dir);
                       EXPECT_TRUE(bFound);
                     }},
        SWrapperCase{"MissingFile",
                     [](LongPathHandler& h, const CDeepTree& d) {
                       struct stat st {};
                       errno = 0;
                       EXPECT_EQ(h.stat_long(F(d, "missing"), &st), -1);
                       EXPECT_EQ(errno, ENOENT);
                       EXPECT_EQ(h.GetCurrentPath(), d.Deep());
                     }},
        SWrapperCase{"MissingFolderOnTheWay",
                     [](LongPathHandler& h, const CDeepTree& d) {
                       struct stat st {};
                       errno = 0;
                       EXPECT_EQ(h.stat_long(d.Level(30) + "/missing/x", &st), -1);
                       EXPECT_EQ(errno, ENOENT);
                       EXPECT_EQ(h.opendir_long(d.Level(30) + "/missing/x"), nullptr);
                       EXPECT_EQ(errno, ENOENT);
                     }},
        SWrapperCase{"FileUsedAsFolder",
                     [](LongPathHandler& h, const CDeepTree& d) {
                       struct stat st {};
                       errno = 0;
                       EXPECT_EQ(h.lstat_long(F(d, "file1") + "/x", &st), -1);
                       EXPECT_EQ(errno, ENOTDIR);
                     }},
        SWrapperCase{"NameLongerThanNameMax",
                     [](LongPathHandler& h, const CDeepTree& d) {
                       struct stat st {};
                       errno = 0;
                       EXPECT_EQ(h.stat_long(d.Deep() + "/" + std::string(300, 'x') + "/f", &st),
                                 -1);
                       EXPECT_EQ(errno, ENAMETOOLONG);
                     }},
        SWrapperCase{"ShortPathsToo",
                     [](LongPathHandler& h, const CDeepTree& d) {
                       struct stat st {};
                       ASSERT_EQ(h.stat_long(d.Tree().Root() + "/top.txt", &st), 0);
                       EXPECT_EQ(st.st_size, 3);
                       EXPECT_EQ(h.GetDepth(), 1u);
                       EXPECT_EQ(h.GetCurrentPath(), d.Tree().Root());
                       ASSERT_EQ(h.stat_long("/", &st), 0);
                       EXPECT_TRUE(S_ISDIR(st.st_mode));
                       ASSERT_EQ(h.stat_long("/tmp", &st), 0);
                       EXPECT_EQ(h.GetCurrentPath(), "/");
                     }}),
    [](const ::testing::TestParamInfo<SWrapperCase>& info) { return info.param.name; });

// ---------------------------------------------------------------------------------------------
// Paths every wrapper refuses: -1 (or null) with errno set, the working directory unchanged.

struct SRefusedCase {
  const char* name;
  std::string path;
  int expectedErrno;
};

void PrintTo(const SRefusedCase& c, std::ostream* os) { *os << c.name; }

class LongPathRefusedTest : public LongPathHandlerTest,
                            public ::testing::WithParamInterface<SRefusedCase> {};

TEST_P(LongPathRefusedTest, FailsWithMinusOne) {
  const SRefusedCase& c = GetParam();
  struct stat st {};
  errno = 0;
  EXPECT_EQ(m_pHandler->stat_long(c.path, &st), -1);
  EXPECT_EQ(errno, c.expectedErrno);
  errno = 0;
  EXPECT_EQ(m_pHandler->lstat_long(c.path, &st), -1);
  EXPECT_EQ(errno, c.expectedErrno);
  EXPECT_EQ(m_pHandler->open_long(c.path, O_RDONLY), -1);
  EXPECT_EQ(m_pHandler->opendir_long(c.path), nullptr);
  EXPECT_EQ(m_pHandler->fopen_long(c.path, "r"), nullptr);
  char buffer[16];
  EXPECT_EQ(m_pHandler->readlink_long(c.path, buffer, sizeof(buffer)), -1);
  EXPECT_EQ(m_pHandler->GetDepth(), 0u);
  EXPECT_EQ(Cwd(), m_strStartCwd);
}

INSTANTIATE_TEST_SUITE_P(
    Table, LongPathRefusedTest,
    ::testing::Values(SRefusedCase{"NoSlash", "file1", EINVAL},
                      SRefusedCase{"NoSlashTrailingSlashOnly", "folder/", EINVAL},
                      SRefusedCase{"Empty", "", ENOENT},
                      SRefusedCase{"NulByte", std::string("/tmp/a\0b/c", 10), EINVAL}),
    [](const ::testing::TestParamInfo<SRefusedCase>& info) { return info.param.name; });

// ---------------------------------------------------------------------------------------------
// chdir_long itself: 0, -1 or the C library error number of the failed chdir.

TEST_F(LongPathHandlerTest, ChdirLongResults) {
  EXPECT_EQ(m_pHandler->chdir_long(""), -1);
  EXPECT_EQ(m_pHandler->chdir_long(m_deep.Deep()), 0);
  EXPECT_EQ(IdOfCwd(), m_deep.IdOfDeep());
  EXPECT_EQ(m_pHandler->chdir_long(m_deep.Deep() + "/file1"), ENOTDIR);
  EXPECT_EQ(m_pHandler->chdir_long(m_deep.Deep() + "/missing"), ENOENT);
  // A name longer than the system takes in any piece.
  EXPECT_EQ(m_pHandler->chdir_long(m_deep.Deep() + "/" + std::string(300, 'x')), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
  // After the failures the handler still reaches the right folders.
  EXPECT_EQ(m_pHandler->chdir_long(m_deep.Level(25)), 0);
  EXPECT_EQ(IdOfCwd(), m_deep.IdOfLevel(25));
  EXPECT_EQ(m_pHandler->chdir_long(m_deep.Deep() + "//"), 0);
  EXPECT_EQ(IdOfCwd(), m_deep.IdOfDeep());
  EXPECT_EQ(m_pHandler->GetCurrentPath(), m_deep.Deep());
}

// A failure in the middle of a long path leaves the handler in the folder it reached, and the
// next call starts from there correctly.
TEST_F(LongPathHandlerTest, FailureHalfwayLeavesAUsableState) {
  std::string broken = m_deep.Level(38) + "/missing/deeper";
  EXPECT_EQ(m_pHandler->chdir_long(broken), ENOENT);
  EXPECT_EQ(JoinedPieces(*m_pHandler), m_pHandler->GetCurrentPath());
  if (!m_pHandler->GetCurrentPath().empty()) {
    EXPECT_EQ(broken.compare(0, m_pHandler->GetCurrentPath().size(),
                             m_pHandler->GetCurrentPath()),
              0);
  }
  struct stat st {};
  ASSERT_EQ(m_pHandler->stat_long(m_deep.Deep() + "/file1", &st), 0);
  EXPECT_EQ(st.st_size, 5);
  EXPECT_EQ(IdOfCwd(), m_deep.IdOfDeep());
}

// ---------------------------------------------------------------------------------------------
// Steps: a long path is entered in pieces shorter than the limit, each can be climbed back to,
// and nearby paths reuse the steps they share.

TEST_F(LongPathHandlerTest, EntersInSeveralStepsEachBelowTheLimit) {
  struct stat st {};
  ASSERT_EQ(m_pHandler->stat_long(m_deep.Deep() + "/file1", &st), 0);
  EXPECT_EQ(m_pHandler->GetCurrentPath(), m_deep.Deep());
  EXPECT_EQ(JoinedPieces(*m_pHandler), m_deep.Deep());
  // Over 8,000 bytes: at least three pieces, each one a path the system accepts.
  EXPECT_GE(m_pHandler->GetDepth(), 3u);
  for (const LongPathHandler::WorkingPath& working : m_pHandler->GetWorkingPaths()) {
    EXPECT_LT(working.m_strPath.size(), static_cast<size_t>(PATH_MAX));
    EXPECT_GE(working.m_iFd, 0);
  }
  // As few pieces as the system allows: each piece and the first name of the next together
  // would have been too long.
  const auto& steps = m_pHandler->GetWorkingPaths();
  for (size_t i = 0; i + 1 < steps.size(); ++i) {
    size_t firstName = steps[i + 1].m_strPath.find('/');
    if (firstName == std::string::npos) firstName = steps[i + 1].m_strPath.size();
    EXPECT_GE(steps[i].m_strPath.size() + 1 + firstName, static_cast<size_t>(PATH_MAX) - 1);
  }
  // The descriptor of the first step is the start directory; each next one is the folder the
  // step before entered.
  struct stat start {};
  ASSERT_EQ(stat(m_strStartCwd.c_str(), &start), 0);
  EXPECT_EQ(IdOfFd(steps[0].m_iFd), (SId{start.st_dev, start.st_ino}));
  std::string reached;
  for (size_t i = 1; i < steps.size(); ++i) {
    reached += (i == 1 ? "" : "/") + steps[i - 1].m_strPath;
    size_t level = 0;
    for (int l = 0; l <= kLevels; ++l) {
      if (m_deep.Level(l) == reached) level = static_cast<size_t>(l);
    }
    ASSERT_GT(level, 0u) << "step " << i << " does not start at a folder of the tree";
    EXPECT_EQ(IdOfFd(steps[i].m_iFd), m_deep.IdOfLevel(static_cast<int>(level)));
  }
}

TEST_F(LongPathHandlerTest, EveryLevelCanBeReturnedTo) {
  ASSERT_EQ(m_pHandler->chdir_long(m_deep.Deep()), 0);
  size_t depth = m_pHandler->GetDepth();
  for (int level = kLevels; level >= 1; --level) {
    ASSERT_EQ(m_pHandler->chdir_long(m_deep.Level(level)), 0) << "level " << level;
    EXPECT_EQ(IdOfCwd(), m_deep.IdOfLevel(level)) << "level " << level;
    EXPECT_EQ(m_pHandler->GetCurrentPath(), m_deep.Level(level));
    EXPECT_LE(m_pHandler->GetDepth(), depth);
  }
  // And down again, one level at a time.
  for (int level = 1; level <= kLevels; ++level) {
    ASSERT_EQ(m_pHandler->chdir_long(m_deep.Level(level)), 0) << "level " << level;
    EXPECT_EQ(IdOfCwd(), m_deep.IdOfLevel(level)) << "level " << level;
  }
}

TEST_F(LongPathHandlerTest, SameFolderIsEnteredOnce) {
  struct stat st {};
  ASSERT_EQ(m_pHandler->stat_long(m_deep.Deep() + "/file1", &st), 0);
  auto before = m_pHandler->GetWorkingPaths();
  MarkStack();
  ASSERT_EQ(m_pHandler->stat_long(m_deep.Deep() + "/file2", &st), 0);
  EXPECT_EQ(st.st_size, 10);
  ASSERT_EQ(m_pHandler->GetDepth(), before.size());
  ExpectKeptSteps(before, m_deep.Deep(), before.size());
}

struct SMoveCase {
  const char* name;
  std::function<std::string(const CDeepTree&)> file;    // the file to stat next
  std::function<std::string(const CDeepTree&)> folder;  // its folder
  std::function<SId(const CDeepTree&)> id;              // that folder's identity
  size_t expectedKept;  // steps of the deep folder's stack that stay untouched
};

void PrintTo(const SMoveCase& c, std::ostream* os) { *os << c.name; }

class LongPathMoveTest : public LongPathHandlerTest,
                         public ::testing::WithParamInterface<SMoveCase> {};

// From the deep folder (entered as root+18 levels, 18 levels, 4 levels) to a nearby folder:
// only the steps that are not on the way to the new folder are climbed back.
TEST_P(LongPathMoveTest, ClimbsOnlyToTheCommonPart) {
  const SMoveCase& c = GetParam();
  struct stat st {};
  ASSERT_EQ(m_pHandler->stat_long(m_deep.Deep() + "/file1", &st), 0);
  ASSERT_EQ(m_pHandler->GetDepth(), 3u);
  auto before = m_pHandler->GetWorkingPaths();
  MarkStack();
  ASSERT_EQ(m_pHandler->stat_long(c.file(m_deep), &st), 0);
  EXPECT_TRUE(S_ISREG(st.st_mode));
  ExpectKeptSteps(before, c.folder(m_deep), c.expectedKept);
  EXPECT_EQ(IdOfCwd(), c.id(m_deep));
}

INSTANTIATE_TEST_SUITE_P(
    Table, LongPathMoveTest,
    ::testing::Values(
        SMoveCase{"SiblingOfDeepFolder",
                  [](const CDeepTree& d) { return d.Sibling() + "/sibling.txt"; },
                  [](const CDeepTree& d) { return d.Sibling(); },
                  [](const CDeepTree& d) { return d.IdOfSibling(); }, 2},
        SMoveCase{"SideFolderHalfWay",
                  [](const CDeepTree& d) { return d.Side() + "/side.txt"; },
                  [](const CDeepTree& d) { return d.Side(); },
                  [](const CDeepTree& d) { return d.IdOfSide(); }, 1},
        SMoveCase{"FolderBelow",
                  [](const CDeepTree& d) { return d.Deep() + "/sub/inner.txt"; },
                  [](const CDeepTree& d) { return d.Deep() + "/sub"; },
                  [](const CDeepTree& d) { return d.IdOfSub(); }, 3},
        SMoveCase{"OtherTree",
                  [](const CDeepTree& d) { return d.Tree().Root() + "/top.txt"; },
                  [](const CDeepTree& d) { return d.Tree().Root(); },
                  [](const CDeepTree& d) { return d.IdOfLevel(0); }, 0}),
    [](const ::testing::TestParamInfo<SMoveCase>& info) { return info.param.name; });

// Paths are compared by whole names: "sub" is not a folder on the way to "subway".
TEST_F(LongPathHandlerTest, NameExtendingAnotherIsNotBelowIt) {
  struct stat st {};
  ASSERT_EQ(m_pHandler->stat_long(m_deep.Deep() + "/sub/inner.txt", &st), 0);
  EXPECT_EQ(IdOfCwd(), m_deep.IdOfSub());
  ASSERT_EQ(m_pHandler->stat_long(m_deep.Deep() + "/subway/way.txt", &st), 0);
  EXPECT_EQ(st.st_size, 3);
  EXPECT_EQ(IdOfCwd(), m_deep.IdOfSubway());
  EXPECT_EQ(m_pHandler->GetCurrentPath(), m_deep.Deep() + "/subway");
  ASSERT_EQ(m_pHandler->stat_long(m_deep.Deep() + "/sub/inner.txt", &st), 0);
  EXPECT_EQ(st.st_size, 5);
  EXPECT_EQ(IdOfCwd(), m_deep.IdOfSub());
  EXPECT_EQ(JoinedPieces(*m_pHandler), m_deep.Deep() + "/sub");
}

// A relative path names a file below the start directory, wherever the handler stands.
TEST(LongPathHandlerRelativeTest, RelativeToTheStartDirectory) {
  CDeepTree deep;
  int startFd = open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(startFd, 0);
  ASSERT_EQ(chdir(deep.Tree().Root().c_str()), 0);
  {
    CHandlerGuard guard;
    LongPathHandler* handler = LongPathHandler::GetHandler();
    ASSERT_NE(handler, nullptr);
    EXPECT_STREQ(handler->GetStartDirectory(), deep.Tree().Root().c_str());
    struct stat st {};
    ASSERT_EQ(handler->stat_long(deep.Deep() + "/file1", &st), 0);
    ASSERT_EQ(handler->stat_long("./top.txt", &st), 0);
    EXPECT_EQ(st.st_size, 3);
    std::string relativeDeep = deep.Deep().substr(deep.Tree().Root().size() + 1);
    ASSERT_EQ(handler->stat_long(relativeDeep + "/file2", &st), 0);
    EXPECT_EQ(st.st_size, 10);
    EXPECT_EQ(IdOfCwd(), deep.IdOfDeep());
    ASSERT_EQ(handler->stat_long(deep.Level(20) + "/side/side.txt", &st), 0);
    EXPECT_EQ(st.st_size, 4);
  }
  // Released: back in the start directory.
  EXPECT_EQ(Cwd(), deep.Tree().Root());
  ASSERT_EQ(fchdir(startFd), 0);
  close(startFd);
}

// ---------------------------------------------------------------------------------------------
// Release: back to the start directory, every descriptor closed.

TEST(LongPathHandlerReleaseTest, ReturnsToStartAndClosesEveryDescriptor) {
  CDeepTree deep;
  const std::string cwdBefore = Cwd();
  const size_t fdsBefore = CountOpenFds();
  {
    CHandlerGuard guard;
    LongPathHandler* handler = LongPathHandler::GetHandler();
    ASSERT_NE(handler, nullptr);
    EXPECT_EQ(LongPathHandler::GetHandler(), handler);  // one instance
    struct stat st {};
    ASSERT_EQ(handler->stat_long(deep.Deep() + "/file1", &st), 0);
    ASSERT_EQ(handler->stat_long(deep.Sibling() + "/sibling.txt", &st), 0);
    ASSERT_EQ(handler->stat_long(deep.Side() + "/side.txt", &st), 0);
    ASSERT_EQ(handler->chdir_long(deep.Deep()), 0);
    EXPECT_GE(handler->GetDepth(), 3u);
    EXPECT_EQ(CountOpenFds(), fdsBefore + handler->GetDepth());
    EXPECT_NE(Cwd(), cwdBefore);
    LongPathHandler::ReleaseHandler();
    EXPECT_EQ(Cwd(), cwdBefore);
    EXPECT_EQ(CountOpenFds(), fdsBefore);
    LongPathHandler::ReleaseHandler();  // nothing left to release
  }
  EXPECT_EQ(Cwd(), cwdBefore);
  EXPECT_EQ(CountOpenFds(), fdsBefore);
}

// ---------------------------------------------------------------------------------------------
// The owner thread and the archive-index flag.

TEST(LongPathHandlerThreadTest, OtherThreadsAreRefused) {
  CDeepTree deep;
  CHandlerGuard guard;
  const std::string cwdBefore = Cwd();
  LongPathHandler* handler = LongPathHandler::GetHandler();
  ASSERT_NE(handler, nullptr);
  ASSERT_TRUE(LongPathHandler::IsOwnerThread());

  LongPathHandler* fromThread = handler;
  int statResult = 0, statErrno = 0, chdirResult = 0;
  bool bOwner = true;
  CQiError createError;
  LongPathHandler::CreatedFolderSet made;
  std::thread worker([&] {
    bOwner = LongPathHandler::IsOwnerThread();
    fromThread = LongPathHandler::GetHandler();
    struct stat st {};
    errno = 0;
    statResult = handler->stat_long(deep.Deep() + "/file1", &st);
    statErrno = errno;
    chdirResult = handler->chdir_long(deep.Deep());
    createError = handler->CreateDirsIteratively_Long(deep.Tree().Root() + "/new", 0755, made);
    LongPathHandler::ReleaseHandler();  // refused: the instance stays
  });
  worker.join();
  EXPECT_FALSE(bOwner);
  EXPECT_EQ(fromThread, nullptr);
  EXPECT_EQ(statResult, -1);
  EXPECT_EQ(statErrno, EPERM);
  EXPECT_EQ(chdirResult, -1);
  EXPECT_TRUE(createError.IsErrNo(EPERM));
  EXPECT_TRUE(made.empty());
  EXPECT_EQ(handler->GetDepth(), 0u);
  EXPECT_EQ(Cwd(), cwdBefore);
  EXPECT_EQ(LongPathHandler::GetHandler(), handler);
}

struct SArchiveCase {
  const char* name;
  bool bArchiveIndex;
  bool bOnOtherThread;
  bool bExpectHandler;
};

void PrintTo(const SArchiveCase& c, std::ostream* os) { *os << c.name; }

class LongPathHandlerArchiveTest : public ::testing::TestWithParam<SArchiveCase> {};

TEST_P(LongPathHandlerArchiveTest, GetHandler) {
  const SArchiveCase& c = GetParam();
  CHandlerGuard guard;
  LongPathHandler::setIsArchiveIndex(c.bArchiveIndex);
  EXPECT_EQ(LongPathHandler::getIsArchiveIndex(), c.bArchiveIndex);
  LongPathHandler* handler = nullptr;
  if (c.bOnOtherThread) {
    std::thread worker([&] { handler = LongPathHandler::GetHandler(); });
    worker.join();
  } else {
    handler = LongPathHandler::GetHandler();
  }
  EXPECT_EQ(handler != nullptr, c.bExpectHandler);
  // Clearing the flag gives the main thread its handler again.
  LongPathHandler::setIsArchiveIndex(false);
  EXPECT_NE(LongPathHandler::GetHandler(), nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Table, LongPathHandlerArchiveTest,
    ::testing::Values(SArchiveCase{"MainThread", false, false, true},
                      SArchiveCase{"OtherThread", false, true, false},
                      SArchiveCase{"ArchiveIndexMainThread", true, false, false},
                      SArchiveCase{"ArchiveIndexOtherThread", true, true, false}),
    [](const ::testing::TestParamInfo<SArchiveCase>& info) { return info.param.name; });

}  // namespace
