#include <gtest/gtest.h>

#include "Platform/CaptureLogWriter.h"
#include "Platform/FileLogWriter.h"
#include "Platform/ZRDebugFunction.h"
#include "Support/FileText.h"
#include "Support/TempTree.h"

namespace {
int g_formatCalls = 0;
const char* CountedArg() {
  ++g_formatCalls;
  return "x";
}

class LogWriterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    writer = std::make_shared<CCaptureLogWriter>(3);
    CLogWriterInterface::SetProcessLogWriter(writer);
  }
  void TearDown() override { CLogWriterInterface::SetProcessLogWriter(nullptr); }
  std::shared_ptr<CCaptureLogWriter> writer;
};
}  // namespace

struct LevelRow {
  int writerLevel;
  int messageLevel;
  bool written;
  bool bLoggingOn = true;  // off silences even level -1
};
class LogLevels : public LogWriterTest, public ::testing::WithParamInterface<LevelRow> {};

TEST_P(LogLevels, MessageIsWrittenOnlyWhenTheLevelReachesIt) {
  writer->SetLevel(GetParam().writerLevel);
  writer->SetLoggingOn(GetParam().bLoggingOn);
  ZRLOG(GetParam().messageLevel, "message %d", 1);
  EXPECT_EQ(writer->Count("message 1", GetParam().messageLevel), GetParam().written ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(Table, LogLevels,
                         ::testing::Values(LevelRow{-1, -1, true}, LevelRow{-1, 0, false},
                                           LevelRow{7, 7, true}, LevelRow{1, -1, false, false}));

TEST_F(LogWriterTest, ArgumentsAreNotEvaluatedWhenTheLevelIsOff) {
  g_formatCalls = 0;
  ZRLOG(6, "value %s", CountedArg());
  EXPECT_EQ(g_formatCalls, 0);
  ZRLOG(1, "value %s", CountedArg());
  EXPECT_EQ(g_formatCalls, 1);
  EXPECT_FALSE(ZRDebugFunction(6, "f()", 1).IsActive());  // a trace below the level is off
}

TEST(FileLogWriter, WritesWholeLinesToTheFile) {
  CTempTree tree;
  std::string path = tree.Path("scan.log");
  {
    auto writer = std::make_shared<CFileLogWriter>(2);
    ASSERT_TRUE(writer->Open(path).IsSuccess());
    writer->Log(-1, "f()", 12, "Failed to open output file '%s', error=%s", "a", "b");
    writer->Log(3, "f()", 13, "too detailed");
  }
  std::vector<std::string> lines = ReadFileLines(path);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(lines[0].ends_with(" -1 f()(12): Failed to open output file 'a', error=b"))
      << lines[0];
}

TEST(FileLogWriter, OpenOfAnUnwritablePathIsAnErrNoError) {
  CFileLogWriter writer;
  CQiError error = writer.Open("/nonexistent-folder/x.log");
  EXPECT_TRUE(error.IsErrNo(ENOENT));
  EXPECT_EQ(error.GetMessage(), "Failed to open log file '/nonexistent-folder/x.log'");
}
