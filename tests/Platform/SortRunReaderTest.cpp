#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "Platform/BackgroundWriter.h"
#include "Platform/SortRunReader.h"
#include "Support/FileText.h"
#include "Support/TempTree.h"

namespace {

// Runs written and read back in full are compared with coreutils sort by the BatchSort suite.
TEST(SortRun, DamagedRunsAreReportedAsIoErrors) {
  CTempTree tree;
  struct SDamage {
    std::string bytes;
    uint64_t claimed;
    const char* message;
  };
  std::vector<SDamage> cases = {
      {std::string("\x00\x03" "abc", 5), 10, "is shorter than written"},      // file shorter than claimed
      {std::string("\x05\x01" "a", 3), 3, "Damaged sort run"},                // shares more than it has
      {std::string("\x00\x09" "abc", 5), 5, "Damaged sort run"},              // record runs past the end
      {std::string("\x00\x80", 2), 2, "Damaged sort run"}};                   // varint cut short
  for (const SDamage& damage : cases) {
    std::string path = tree.MakeFile("damaged", damage.bytes);
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    CSortRunReader reader(fd, damage.claimed, path, 64);
    const char* data = nullptr;
    size_t length = 0;
    bool have = false;
    CQiError error = reader.Next(data, length, have);
    EXPECT_TRUE(error.IsErrNo(EIO)) << damage.message << ": " << error.AsString();
    EXPECT_NE(error.GetMessage().find(damage.message), std::string::npos) << error.GetMessage();
    EXPECT_FALSE(have);
    close(fd);
  }
}

// The buffered writer under the runs, on the caller's thread and on a helper thread.

class BackgroundWriterMode : public ::testing::TestWithParam<bool> {};

TEST_P(BackgroundWriterMode, WritesEverythingInOrder) {
  CTempTree tree;
  std::string path = tree.Path("out");
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0);
  std::string expected;
  {
    CBackgroundWriter writer(fd, path, 100, GetParam());
    for (int i = 0; i < 5000; ++i) {
      std::string line = "line " + std::to_string(i);
      if (i % 1000 == 0) line += std::string(1000, 'x');  // larger than a buffer
      ASSERT_TRUE(writer.AddLine(line.data(), line.size()).IsSuccess());
      expected += line + "\n";
    }
    char* target = nullptr;
    ASSERT_TRUE(writer.Reserve(3, target).IsSuccess());
    memcpy(target, "end", 3);
    writer.Commit(3);
    expected += "end";
    EXPECT_EQ(writer.GetAppended(), expected.size());
    ASSERT_TRUE(writer.Flush().IsSuccess());
  }
  close(fd);
  EXPECT_TRUE(ReadFileText(path) == expected);
}

TEST_P(BackgroundWriterMode, ReportsAFailedWrite) {
  CTempTree tree;
  std::string path = tree.MakeFile("read-only", "");
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);  // write(2) fails with EBADF
  ASSERT_GE(fd, 0);
  CBackgroundWriter writer(fd, path, 64, GetParam());
  CQiError error;
  for (int i = 0; i < 100 && error.IsSuccess(); ++i) error = writer.AddLine("some text", 9);
  if (error.IsSuccess()) error = writer.Flush();
  EXPECT_TRUE(error.IsErrNo(EBADF)) << error.AsString();
  EXPECT_EQ(error.GetMessage(), "Unable to write to [" + path + "]");
  close(fd);
}

INSTANTIATE_TEST_SUITE_P(Modes, BackgroundWriterMode, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? "HelperThread" : "CallerThread";
                         });

}  // namespace
