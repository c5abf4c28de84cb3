#include <gtest/gtest.h>

#include <thread>

#include "Platform/CaptureLogWriter.h"
#include "Platform/FileLogWriter.h"
#include "Platform/LogWriterInterfaceThreadWrapper.h"
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
                                           LevelRow{0, -1, true}, LevelRow{1, 1, true},
                                           LevelRow{1, 2, false}, LevelRow{7, 7, true},
                                           LevelRow{5, 6, false}, LevelRow{1, -1, false, false}));

TEST_F(LogWriterTest, ArgumentsAreNotEvaluatedWhenTheLevelIsOff) {
  g_formatCalls = 0;
  ZRLOG(6, "value %s", CountedArg());
  EXPECT_EQ(g_formatCalls, 0);
  ZRLOG(1, "value %s", CountedArg());
  EXPECT_EQ(g_formatCalls, 1);
}

TEST_F(LogWriterTest, RecordsCarryTheFunctionSignature) {
  ZRLOG(1, "here");
  auto entries = writer->GetEntries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_NE(entries[0].function.find("TestBody"), std::string::npos);
}

TEST_F(LogWriterTest, ThreadWrapperRoutesAndTagsThatThreadOnly) {
  auto other = std::make_shared<CCaptureLogWriter>(7);
  std::thread worker([&] {
    auto wrapper = other->GetThreadWrapper("worker-1");
    ZRLOG(2, "from worker");
    {
      auto nested = writer->GetThreadWrapper("nested");
      ZRLOG(2, "nested line");
    }
    ZRLOG(2, "after nested");
  });
  worker.join();
  ZRLOG(2, "from main");
  auto entries = other->GetEntries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].text, "from worker");
  EXPECT_EQ(entries[0].context, "worker-1");
  EXPECT_EQ(entries[1].text, "after nested");
  EXPECT_EQ(writer->Count("nested line"), 1u);
  EXPECT_EQ(writer->Count("from main"), 1u);
  EXPECT_EQ(writer->GetEntries().back().context, "");
}

TEST_F(LogWriterTest, DebugFunctionTracesEntryAndExitOnlyWhenOn) {
  {
    ZRDebugFunction trace(3, "CWorkUnit::CWorkUnit()", 10, "0x%p", (void*)0x1234);
    EXPECT_TRUE(trace.IsActive());
  }
  auto entries = writer->GetEntries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].function, "CWorkUnit::CWorkUnit()");
  EXPECT_EQ(entries[0].text, "Entering 0x0x1234");
  EXPECT_EQ(entries[1].text.rfind("Leaving 0x0x1234, Elapsed=", 0), 0u);
  writer->Clear();
  {
    ZRDebugFunction quiet(4, "f", 1);
    EXPECT_FALSE(quiet.IsActive());
  }
  EXPECT_TRUE(writer->GetEntries().empty());
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
