#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "Platform/BackgroundWriter.h"
#include "Support/FileText.h"
#include "Support/TempTree.h"

namespace {

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
