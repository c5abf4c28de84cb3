#include <gtest/gtest.h>

#include <sys/resource.h>

#include <cerrno>
#include <csignal>

#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "Platform/CaptureLogWriter.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/FXFile.h"
#include "Platform/SendEventInterface.h"
#include "Scan/FabricatedItem.h"
#include "Scan/FindFirstItem.h"
#include "Scan/ScanFailureConsumer.h"
#include "Support/TempTree.h"

namespace {

// Keeps every event raised while it is the process-wide sink.
class CRecordingSink : public ISendEventInterface {
 public:
  struct SEvent {
    uint32_t id;
    CEventArgumentList args;
  };
  CQiError SendEvent(const CQiError& eventMessage, const CEventArgumentList& args) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_vEvents.push_back(SEvent{eventMessage.GetCode(), args});
    return CQiError();
  }
  std::vector<SEvent> Events() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_vEvents;
  }

 private:
  mutable std::mutex m_mutex;
  std::vector<SEvent> m_vEvents;
};

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream content;
  content << in.rdbuf();
  return content.str();
}

class ScanFailureFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    m_pLog = std::make_shared<CCaptureLogWriter>(CLogWriterInterface::kLevelMax);
    CLogWriterInterface::SetProcessLogWriter(m_pLog);
    m_pSink = std::make_shared<CRecordingSink>();
    ISendEventInterface::SetProcessEventSink(m_pSink);
  }
  void TearDown() override {
    ISendEventInterface::SetProcessEventSink(nullptr);
    CLogWriterInterface::SetProcessLogWriter(nullptr);
  }

  // A failure item for a real object; errorCode < 0 leaves the key out.
  CItemPtr FailedItem(const std::string& path, int errorCode) {
    FXFile::CFileData data(path, FXFile::CFileData::kModeFullPath);
    EXPECT_TRUE(data.good()) << path;
    CItemPtr item = std::make_shared<CFindFirstItem>(nullptr, path, data);
    if (errorCode >= 0) {
      EXPECT_TRUE(item->GetItemBag()->Write("errorCode", errorCode).IsSuccess());
    }
    return item;
  }

  void ExpectOneEvent(uint32_t id, const std::string& fileName) {
    std::vector<CRecordingSink::SEvent> events = m_pSink->Events();
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(id, events[0].id);
    ASSERT_EQ(1u, events[0].args.size());
    EXPECT_EQ(CEventArgument(fileName), events[0].args[0]);
  }

  CTempTree m_tree;
  std::shared_ptr<CCaptureLogWriter> m_pLog;
  std::shared_ptr<CRecordingSink> m_pSink;
};

// ---------------------------------------------------------------------------------------------
// The failures file, byte for byte.

TEST_F(ScanFailureFixture, WritesOneRawLinePerItem) {
  const std::string file = m_tree.MakeFile("data/a.txt", "12345");
  const std::string folder = m_tree.MakeDir("data/sub");
  const std::string link = m_tree.MakeSymlink("data/link", "a.txt");
  const std::string colon = m_tree.MakeFile("data/x:y.txt", "1234567");
  const std::string newline = m_tree.MakeFile("data/two\nlines", "");
  const std::string output = m_tree.Path("failures.txt");

  CScanFailureConsumer consumer(3, output, "w");
  ASSERT_TRUE(consumer.IsOpen());
  EXPECT_EQ(output, consumer.GetFileName());
  ASSERT_TRUE(consumer.Process(FailedItem(file, 5)).IsSuccess());
  ASSERT_TRUE(consumer.Process(FailedItem(folder, 13)).IsSuccess());
  ASSERT_TRUE(consumer.Process(FailedItem(link, -1)).IsSuccess());
  ASSERT_TRUE(consumer.Process(FailedItem(colon, 2)).IsSuccess());
  ASSERT_TRUE(consumer.Process(FailedItem(newline, -1)).IsSuccess());
  ASSERT_TRUE(consumer.Process(FailedItem("/dev/null", -1)).IsSuccess());

  // An error code that is not an int cannot be read: the default 14.
  CItemPtr wide = FailedItem(file, -1);
  ASSERT_TRUE(wide->GetItemBag()->Write("errorCode", 5LL).IsSuccess());
  ASSERT_TRUE(consumer.Process(wide).IsSuccess());
  // A negative code is written signed; an item without a type is a "folder".
  CItemPtr fabricated = std::make_shared<CFabricatedItem>(nullptr, "/snap/gone", "/data/gone");
  ASSERT_TRUE(fabricated->GetItemBag()->Write("errorCode", -3).IsSuccess());
  ASSERT_TRUE(consumer.Process(fabricated).IsSuccess());

  EXPECT_EQ(8u, consumer.getProcessedItemsCount());
  // File sizes: a.txt twice, x:y.txt; a folder's and a link's sizes count too.
  const uint64_t folderSize = FailedItem(folder, -1)->GetFileSize();
  const uint64_t linkSize = FailedItem(link, -1)->GetFileSize();
  EXPECT_EQ(5u + folderSize + linkSize + 7u + 0u + 0u + 5u + 0u, consumer.GetBytesTotal());
  const int64_t written = consumer.tellp();
  ASSERT_TRUE(consumer.Close().IsSuccess());

  const std::string expected = "file " + file + ":5\n" +
                               "folder " + folder + ":13\n" +
                               "folder " + link + ":14\n" +
                               "file " + colon + ":2\n" +
                               "file " + newline + ":14\n" +
                               "folder /dev/null:14\n" +
                               "file " + file + ":14\n" +
                               "folder /data/gone:-3\n";
  EXPECT_EQ(expected, ReadAll(output));
  EXPECT_EQ(static_cast<int64_t>(expected.size()), written);
  EXPECT_TRUE(m_pSink->Events().empty());
}

TEST_F(ScanFailureFixture, WritesTheSourcePath) {
  const std::string local = m_tree.MakeFile("snap/data/a.txt", "x");
  const std::string output = m_tree.Path("failures.txt");
  FXFile::CFileData data(local, FXFile::CFileData::kModeFullPath);
  ASSERT_TRUE(data.good());
  auto item = std::make_shared<CFindFirstItem>(nullptr, local, "/data/a.txt", data);
  ASSERT_TRUE(item->GetItemBag()->Write("errorCode", 5).IsSuccess());
  {
    CScanFailureConsumer consumer(0, output, "");
    ASSERT_TRUE(consumer.Process(item).IsSuccess());
  }  // the destructor closes the file
  EXPECT_EQ("file /data/a.txt:5\n", ReadAll(output));
}

// ---------------------------------------------------------------------------------------------
// Re-opening: an append keeps the counters, anything else starts afresh.

struct SOpenCase {
  const char* name;
  const char* mode;
  bool keepsCounters;
  bool keepsContent;
};

void PrintTo(const SOpenCase& c, std::ostream* out) { *out << c.name; }

class ScanFailureOpen : public ScanFailureFixture,
                        public ::testing::WithParamInterface<SOpenCase> {};

TEST_P(ScanFailureOpen, CountersFollowTheMode) {
  const SOpenCase& c = GetParam();
  const std::string output = m_tree.Path("failures.txt");
  CScanFailureConsumer consumer(0, output, "w");
  ASSERT_TRUE(consumer.RawWriteItem("file /a:1", 100).IsSuccess());
  ASSERT_TRUE(consumer.RawWriteItem("file /b:2", 20).IsSuccess());
  ASSERT_EQ(2u, consumer.getProcessedItemsCount());
  ASSERT_EQ(120u, consumer.GetBytesTotal());

  ASSERT_TRUE(consumer.Open(c.mode).IsSuccess());
  ASSERT_TRUE(consumer.IsOpen());
  EXPECT_EQ(c.keepsCounters ? 2u : 0u, consumer.getProcessedItemsCount());
  EXPECT_EQ(c.keepsCounters ? 120u : 0u, consumer.GetBytesTotal());
  ASSERT_TRUE(consumer.RawWriteItem("folder /c:3", 1).IsSuccess());
  EXPECT_EQ(c.keepsCounters ? 3u : 1u, consumer.getProcessedItemsCount());
  EXPECT_EQ(c.keepsCounters ? 121u : 1u, consumer.GetBytesTotal());
  ASSERT_TRUE(consumer.Close().IsSuccess());
  EXPECT_EQ(c.keepsContent ? "file /a:1\nfile /b:2\nfolder /c:3\n" : "folder /c:3\n",
            ReadAll(output));
}

INSTANTIATE_TEST_SUITE_P(Modes, ScanFailureOpen,
                         ::testing::Values(SOpenCase{"Append", "a", true, true},
                                           SOpenCase{"AppendUpdate", "a+", true, true},
                                           SOpenCase{"Write", "w", false, false},
                                           SOpenCase{"Empty", "", false, false},
                                           SOpenCase{"WriteUpdate", "w+", false, false}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(ScanFailureFixture, TellpIsTheOffsetWhileOpenAndZeroWhenClosed) {
  const std::string output = m_tree.Path("failures.txt");
  CScanFailureConsumer consumer(0, output, "w");
  EXPECT_EQ(0, consumer.tellp());
  ASSERT_TRUE(consumer.RawWriteItem("file /a:1", 0).IsSuccess());
  EXPECT_EQ(10, consumer.tellp());
  ASSERT_TRUE(consumer.Close().IsSuccess());
  EXPECT_FALSE(consumer.IsOpen());
  EXPECT_EQ(0, consumer.tellp());
  EXPECT_TRUE(consumer.Close().IsSuccess());  // closing twice is fine
}

// ---------------------------------------------------------------------------------------------
// A consumer without a file reports every attempt to write, to the caller and to the job.

struct SClosedCase {
  const char* name;
  int operation;  // 0 Process, 1 RawWriteItem, 2 RawAppendFile
};

void PrintTo(const SClosedCase& c, std::ostream* out) { *out << c.name; }

class ScanFailureNotOpen : public ScanFailureFixture,
                           public ::testing::WithParamInterface<SClosedCase> {};

TEST_P(ScanFailureNotOpen, FailsWithInvalidHandleAndRaisesTheWriteEvent) {
  const std::string output = m_tree.Path("no/such/folder/failures.txt");
  CScanFailureConsumer consumer(0, output, "w");
  EXPECT_FALSE(consumer.IsOpen());
  // The failed open at construction is only logged.
  const std::vector<CCaptureLogWriter::SEntry> entries = m_pLog->GetEntries();
  ASSERT_EQ(1u, entries.size());
  EXPECT_EQ(-1, entries[0].level);
  const std::string prefix = "Failed to open output file '" + output + "', error=errno 2 ";
  EXPECT_EQ(prefix, entries[0].text.substr(0, prefix.size())) << entries[0].text;
  EXPECT_TRUE(m_pSink->Events().empty());

  const std::string input = m_tree.MakeFile("input.txt", "a\n");
  CQiError error;
  switch (GetParam().operation) {
    case 0: error = consumer.Process(FailedItem(input, 5)); break;
    case 1: error = consumer.RawWriteItem("file /a:1", 1); break;
    default: error = consumer.RawAppendFile(input); break;
  }
  EXPECT_TRUE(error.IsWin32(6)) << error.AsString();
  ExpectOneEvent(0x11000027, output);
  EXPECT_EQ(0u, consumer.getProcessedItemsCount());
  EXPECT_EQ(0u, consumer.GetBytesTotal());
}

INSTANTIATE_TEST_SUITE_P(Operations, ScanFailureNotOpen,
                         ::testing::Values(SClosedCase{"Process", 0},
                                           SClosedCase{"RawWriteItem", 1},
                                           SClosedCase{"RawAppendFile", 2}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(ScanFailureFixture, ClosedConsumerRefusesUntilOpenSucceeds) {
  const std::string output = m_tree.Path("failures.txt");
  CScanFailureConsumer consumer(0, output, "w");
  ASSERT_TRUE(consumer.Close().IsSuccess());
  EXPECT_TRUE(consumer.RawWriteItem("file /a:1", 1).IsWin32(6));
  ASSERT_TRUE(consumer.Open("a").IsSuccess());
  EXPECT_TRUE(consumer.RawWriteItem("file /a:1", 1).IsSuccess());
  ASSERT_TRUE(consumer.Close().IsSuccess());
  EXPECT_EQ("file /a:1\n", ReadAll(output));
}

TEST_F(ScanFailureFixture, FailedOpenRaisesTheOpenEventAndNamesTheFile) {
  const std::string output = m_tree.Path("missing/failures.txt");
  CScanFailureConsumer consumer(0, output, "w");
  m_pLog->Clear();
  CQiError error = consumer.Open("a");
  EXPECT_TRUE(error.IsErrNo(2)) << error.AsString();
  EXPECT_EQ("Failed to open output file '" + output + "'", error.GetFrames().back().text);
  ExpectOneEvent(0x600001E, output);
  EXPECT_EQ(1u, m_pLog->CountContaining(
                    "Failed to open output file '" + output + "', error=errno 2", -1));
  EXPECT_FALSE(consumer.IsOpen());
  // Once the folder exists the same consumer opens.
  m_tree.MakeDir("missing");
  EXPECT_TRUE(consumer.Open("").IsSuccess());
  EXPECT_TRUE(consumer.IsOpen());
}

// A write that fails: a full device, or a file that reaches the process's file-size limit in the
// middle of a record. The operation returns the errno, the job hears of it once, the counters
// stay, and nothing of the lost record reaches the file, then or with the next record.

// Lowers RLIMIT_FSIZE for the scope; writes beyond it fail with EFBIG instead of killing us.
class CFileSizeLimit {
 public:
  explicit CFileSizeLimit(rlim_t limit) {
    m_oldHandler = signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &m_old);
    struct rlimit lowered = m_old;
    lowered.rlim_cur = limit;
    EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &lowered));
  }
  ~CFileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &m_old);
    signal(SIGXFSZ, m_oldHandler);
  }

 private:
  struct rlimit m_old {};
  sighandler_t m_oldHandler;
};

struct SWriteFailureCase {
  const char* name;
  int operation;  // 0 Process, 1 RawWriteItem, 2 RawAppendFile
  bool fullDevice;  // /dev/full; else a regular file under a file-size limit
};

void PrintTo(const SWriteFailureCase& c, std::ostream* out) { *out << c.name; }

class ScanFailureWriteFailure : public ScanFailureFixture,
                                public ::testing::WithParamInterface<SWriteFailureCase> {};

TEST_P(ScanFailureWriteFailure, ReturnsTheErrnoRaisesTheEventAndLeavesNoPartOfTheRecord) {
  const SWriteFailureCase& c = GetParam();
  const std::string output = c.fullDevice ? std::string("/dev/full") : m_tree.Path("failures.txt");
  const std::string input = m_tree.MakeFile("input.txt", "file /x:1\nfile /y:2\n");
  CScanFailureConsumer consumer(0, output, "w");
  ASSERT_TRUE(consumer.IsOpen());
  uint64_t countBefore = 0, bytesBefore = 0;
  if (!c.fullDevice) {
    ASSERT_TRUE(consumer.RawWriteItem("file /first:1", 7).IsSuccess());
    countBefore = 1;
    bytesBefore = 7;
  }
  CQiError error;
  {
    // Room for 4 more bytes: the record is cut short in the file.
    CFileSizeLimit limit(c.fullDevice ? RLIM_INFINITY : ReadAll(output).size() + 4);
    switch (c.operation) {
      case 0: error = consumer.Process(FailedItem(input, 5)); break;
      case 1: error = consumer.RawWriteItem("file /lost:3", 10); break;
      default: error = consumer.RawAppendFile(input); break;
    }
  }
  const int expectedErrno = c.fullDevice ? ENOSPC : EFBIG;
  EXPECT_TRUE(error.IsErrNo(expectedErrno)) << error.AsString();
  ExpectOneEvent(0x11000027, output);
  EXPECT_EQ(countBefore, consumer.getProcessedItemsCount());
  EXPECT_EQ(bytesBefore, consumer.GetBytesTotal());
  if (c.operation == 0) {
    EXPECT_EQ("RawWriteItem failed", error.GetFrames().back().text);
    EXPECT_EQ(1u, m_pLog->CountContaining(error.GetMessage() + ": " + error.AsString(), -1));
  }

  // The next record: on the full device it fails as well; in the file it follows the last
  // whole record, and nothing of the lost one comes with it.
  CQiError next = consumer.RawWriteItem("file /last:2", 1);
  CQiError closed = consumer.Close();
  if (c.fullDevice) {
    EXPECT_TRUE(next.IsErrNo(ENOSPC)) << next.AsString();
    EXPECT_EQ(0u, consumer.getProcessedItemsCount());
  } else {
    EXPECT_TRUE(next.IsSuccess()) << next.AsString();
    EXPECT_TRUE(closed.IsSuccess()) << closed.AsString();
    EXPECT_EQ("file /first:1\nfile /last:2\n", ReadAll(output));
    EXPECT_EQ(2u, consumer.getProcessedItemsCount());
    EXPECT_EQ(8u, consumer.GetBytesTotal());
  }
}

INSTANTIATE_TEST_SUITE_P(
    Operations, ScanFailureWriteFailure,
    ::testing::Values(SWriteFailureCase{"ProcessFullDevice", 0, true},
                      SWriteFailureCase{"RawWriteItemFullDevice", 1, true},
                      SWriteFailureCase{"RawAppendFileFullDevice", 2, true},
                      SWriteFailureCase{"ProcessShortWrite", 0, false},
                      SWriteFailureCase{"RawWriteItemShortWrite", 1, false},
                      SWriteFailureCase{"RawAppendFileShortWrite", 2, false}),
    [](const auto& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------------------------
// Appending another list.

TEST_F(ScanFailureFixture, AppendFileCopiesLinesWithoutTheirLineEnds) {
  const std::string output = m_tree.Path("failures.txt");
  const std::string input =
      m_tree.MakeFile("other.txt", "file /a:1\r\nfolder /b:2\n\nfile /c:3\r\r\nfile /d\r:4");
  CScanFailureConsumer consumer(0, output, "w");
  ASSERT_TRUE(consumer.RawWriteItem("file /first:9", 50).IsSuccess());
  ASSERT_TRUE(consumer.RawAppendFile(input).IsSuccess());
  EXPECT_EQ(6u, consumer.getProcessedItemsCount());
  EXPECT_EQ(50u, consumer.GetBytesTotal());  // appended lines add no bytes

  // An input that cannot be opened gives no lines and no error.
  EXPECT_TRUE(consumer.RawAppendFile(m_tree.Path("absent.txt")).IsSuccess());
  EXPECT_TRUE(consumer.RawAppendFile("").IsSuccess());
  EXPECT_EQ(6u, consumer.getProcessedItemsCount());

  // The failures file cannot be appended to itself.
  EXPECT_TRUE(consumer.RawAppendFile(output).IsWin32(87));

  ASSERT_TRUE(consumer.Close().IsSuccess());
  EXPECT_EQ("file /first:9\nfile /a:1\nfolder /b:2\n\nfile /c:3\nfile /d\r:4\n", ReadAll(output));
  EXPECT_TRUE(m_pSink->Events().empty());
}

}  // namespace
