#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <string>

#include "Scan/DeepTree.h"
#include "Scan/LongPathHandler.h"
#include "Support/LogCapture.h"
#include "Support/RunAsNobody.h"
#include "Support/TempTree.h"

namespace {

using namespace LongPathTestSupport;

// ---------------------------------------------------------------------------------------------
// Restore side: missing folders made on the way down a long path.

std::string LongChain(const std::string& base, int levels) {
  std::string path = base;
  for (int level = 1; level <= levels; ++level) path += "/N" + LevelName(level).substr(1);
  return path;
}

struct SCreateCase {
  const char* name;
  std::function<std::string(const CDeepTree&)> path;
  mode_t mode;
  // Empty when the call succeeds; else the errno and the message of the failure.
  int expectedErrno;
  std::function<std::string(const CDeepTree&)> message;
};

void PrintTo(const SCreateCase& c, std::ostream* os) { *os << c.name; }

class LongPathCreateDirsTest : public LongPathHandlerTest,
                               public ::testing::WithParamInterface<SCreateCase> {};

TEST_P(LongPathCreateDirsTest, CreateDirsIteratively) {
  const SCreateCase& c = GetParam();
  const std::string path = c.path(m_deep);
  LongPathHandler::CreatedFolderSet made;
  CQiError error = m_pHandler->CreateDirsIteratively_Long(path, c.mode, made);
  if (c.expectedErrno != 0) {
    ASSERT_TRUE(error.IsError());
    EXPECT_TRUE(error.IsErrNo(c.expectedErrno)) << error.AsString();
    EXPECT_EQ(error.GetMessage(), c.message(m_deep));
    return;
  }
  ASSERT_TRUE(error.IsSuccess()) << error.AsString();
  std::string stripped;
  LongPathHandler::StripTrailingSlash(path, stripped);
  EXPECT_EQ(made.count(stripped), 1u);
  // Every folder on the way is known now, and each of them exists as a folder.
  for (const std::string& folder : made) {
    struct stat st {};
    ASSERT_EQ(m_pHandler->stat_long(folder, &st), 0) << folder.size();
    EXPECT_TRUE(S_ISDIR(st.st_mode));
  }
  struct stat st {};
  ASSERT_EQ(m_pHandler->stat_long(stripped, &st), 0);
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
        SCreateCase{"LongNewChain",
                    [](const CDeepTree& d) { return LongChain(d.Deep() + "/new", 25); }, 0750, 0,
                    nullptr},
        SCreateCase{"NewChainFromShortBase",
                    [](const CDeepTree& d) { return LongChain(d.Tree().Root(), 30); }, 0700, 0,
                    nullptr},
        SCreateCase{"AlreadyThere", [](const CDeepTree& d) { return d.Deep(); }, 0755, 0,
                    nullptr},
        SCreateCase{"SlashRunsAndTrailingSlash",
                    [](const CDeepTree& d) { return d.Deep() + "//x//y/"; }, 0755, 0, nullptr},
        SCreateCase{"FileOnTheWay",
                    [](const CDeepTree& d) { return d.Deep() + "/file1/x/y"; }, 0755, ENOTDIR,
                    [](const CDeepTree& d) { return "Not a folder [" + d.Deep() + "/file1]"; }},
        SCreateCase{"FileAtTheEnd", [](const CDeepTree& d) { return d.Deep() + "/file2"; },
                    0755, ENOTDIR,
                    [](const CDeepTree& d) { return "Not a folder [" + d.Deep() + "/file2]"; }},
        SCreateCase{"Empty", [](const CDeepTree&) { return std::string(); }, 0755, ENOENT,
                    [](const CDeepTree&) { return std::string("Empty folder path"); }},
        SCreateCase{"NulByte",
                    [](const CDeepTree& d) { return d.Deep() + std::string("/a\0b", 4); }, 0755,
                    EINVAL,
                    [](const CDeepTree&) { return std::string("Folder path holds a NUL byte"); }}),
    [](const ::testing::TestParamInfo<SCreateCase>& info) { return info.param.name; });

TEST_F(LongPathHandlerTest, OpenRestoreFileMakesTheFoldersOnTheWay) {
  LongPathHandler::CreatedFolderSet made;
  const std::string folder = LongChain(m_deep.Deep() + "/restore", 3);
  const std::string file = folder + "/restored.txt";
  int fd = m_pHandler->openRestoreFile_long(file, O_WRONLY | O_CLOEXEC, 0640, made, 0711);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(write(fd, "data", 4), 4);
  close(fd);
  EXPECT_EQ(made.count(folder), 1u);
  fd = m_pHandler->open_long(file, O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(ReadAll(fd), "data");
  close(fd);
  struct stat st {};
  ASSERT_EQ(m_pHandler->stat_long(folder, &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0711u);
  ASSERT_EQ(m_pHandler->stat_long(file, &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);

  // A second file in the same folder; O_EXCL on an existing one fails as open does.
  fd = m_pHandler->openRestoreFile_long(folder + "/second.txt", O_WRONLY | O_CLOEXEC, 0600,
                                        made);
  ASSERT_GE(fd, 0);
  close(fd);
  errno = 0;
  EXPECT_EQ(m_pHandler->openRestoreFile_long(file, O_WRONLY | O_EXCL | O_CLOEXEC, 0600, made), -1);
  EXPECT_EQ(errno, EEXIST);
  errno = 0;
  EXPECT_EQ(m_pHandler->openRestoreFile_long("restored.txt", O_WRONLY, 0600, made), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(LongPathHandlerTest, OpenRestoreFileReportsAFolderItCannotMake) {
  CLogCapture capture;
  LongPathHandler::CreatedFolderSet made;
  errno = 0;
  EXPECT_EQ(m_pHandler->openRestoreFile_long(m_deep.Deep() + "/file1/x/y.txt", O_WRONLY, 0600,
                                             made),
            -1);
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_EQ(capture->CountContaining("Failed to create the folders of [" + m_deep.Deep() +
                                         "/file1/x/y.txt], error=",
                                     -1),
            1u);
}

TEST(LongPathHandlerPermissionTest, CreateDirsFailsWhereTheUserMayNotWrite) {
  CDeepTree deep;
  const std::string locked = deep.Deep() + "/locked";
  {
    CHandlerGuard guard;  // made and given back before the fork: the child starts afresh
    LongPathHandler::CreatedFolderSet made;
    ASSERT_TRUE(LongPathHandler::GetHandler()
                    ->CreateDirsIteratively_Long(locked, 0755, made)
                    .IsSuccess());
  }
  if (geteuid() != 0) GTEST_SKIP() << "needs root to drop to nobody";
  // The folder on the way that cannot be made is named; what was made before it is kept.
  EXPECT_EQ(0, RunAsNobody([&locked] {
              LongPathHandler* handler = LongPathHandler::GetHandler();
              LongPathHandler::CreatedFolderSet made;
              CQiError error = handler->CreateDirsIteratively_Long(locked + "/a/b", 0755, made);
              struct stat st {};
              return error.IsErrNo(EACCES) &&
                     error.GetMessage() == "Failed to create folder [" + locked + "/a] with error [13]" &&
                     made.count(locked) == 1 && made.count(locked + "/a") == 0 &&
                     handler->stat_long(locked + "/a", &st) == -1 && errno == ENOENT;
            }));
}

}  // namespace
