// The scan failure consumer: the failures file byte for byte (one "<kind> <path>:<code>" line per
// item), its counters across re-opens, and every way of failing to write: not open, a full
// device, a record cut short by the file-size limit; each returned, logged and told to the job.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <csignal>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXFile.h"
#include "Scan/FabricatedItem.h"
#include "Scan/FindFirstItem.h"
#include "Scan/ScanFailureConsumer.h"
#include "Support/CoreTestSupport.h"
#include "Support/FileText.h"
#include "Support/LogCapture.h"
#include "Support/TempTree.h"

namespace {

constexpr uint32_t kWriteEvent = 0x11000027, kOpenEvent = 0x600001E;

class ScanFailureFixture : public ::testing::Test {
 protected:
  // A failure item for a real object; errorCode < 0 leaves the key out.
  CItemPtr FailedItem(const std::string& path, int errorCode) {
    FXFile::CFileData data(path, FXFile::CFileData::kModeFullPath);
    EXPECT_TRUE(data.good()) << path;
    CItemPtr item = std::make_shared<CFindFirstItem>(nullptr, path, data);
    EXPECT_TRUE(errorCode < 0 || item->GetItemBag()->Write("errorCode", errorCode).IsSuccess());
    return item;
  }
  // Exactly one event was raised, naming the file.
  void ExpectOneEvent(uint32_t id, const std::string& fileName) {
    EXPECT_EQ(m_events.Events(), (std::vector<CEventCapture::SEvent>{{id, "", "\"" + fileName + "\""}}));
  }

  CTempTree m_tree;
  CLogCapture m_log;
  CEventCapture m_events;
  const std::string m_output = m_tree.Path("failures.txt");
};

// ---------------------------------------------------------------------------------------------
// The failures file, byte for byte.

TEST_F(ScanFailureFixture, WritesOneRawLinePerItem) {
  const std::string file = m_tree.MakeFile("data/a.txt", "12345");
  const std::string folder = m_tree.MakeDir("data/sub");
  const std::string link = m_tree.MakeSymlink("data/link", "a.txt");
  const std::string colon = m_tree.MakeFile("data/x:y.txt", "1234567");
  const std::string newline = m_tree.MakeFile("data/two\nlines", "");
  const std::string local = m_tree.MakeFile("snap/data/a.txt", "x");

  CScanFailureConsumer consumer(3, m_output, "w");
  ASSERT_TRUE(consumer.IsOpen());
  EXPECT_EQ(m_output, consumer.GetFileName());
  EXPECT_EQ(0, consumer.tellp());
  for (const auto& [path, code] : std::vector<std::pair<std::string, int>>{
           {file, 5}, {folder, 13}, {link, -1}, {colon, 2}, {newline, -1}, {"/dev/null", -1}})
    ASSERT_TRUE(consumer.Process(FailedItem(path, code)).IsSuccess());
  // An error code that is not an int cannot be read: the default 14.
  CItemPtr wide = FailedItem(file, -1);
  ASSERT_TRUE(wide->GetItemBag()->Write("errorCode", 5LL).IsSuccess());
  ASSERT_TRUE(consumer.Process(wide).IsSuccess());
  // A negative code is written signed; an item without a type is a "folder".
  CItemPtr fabricated = std::make_shared<CFabricatedItem>(nullptr, "/snap/gone", "/data/gone");
  ASSERT_TRUE(fabricated->GetItemBag()->Write("errorCode", -3).IsSuccess());
  ASSERT_TRUE(consumer.Process(fabricated).IsSuccess());
  // The source path is written, not the local one.
  FXFile::CFileData data(local, FXFile::CFileData::kModeFullPath);
  ASSERT_TRUE(data.good());
  auto snapped = std::make_shared<CFindFirstItem>(nullptr, local, "/data/a.txt", data);
  ASSERT_TRUE(snapped->GetItemBag()->Write("errorCode", 5).IsSuccess());
  ASSERT_TRUE(consumer.Process(snapped).IsSuccess());

  EXPECT_EQ(9u, consumer.getProcessedItemsCount());
  // File sizes: a.txt twice, x:y.txt, the snapped file; a folder's and a link's sizes count too.
  const uint64_t folderSize = FailedItem(folder, -1)->GetFileSize(), linkSize = FailedItem(link, -1)->GetFileSize();
  EXPECT_EQ(5u + folderSize + linkSize + 7u + 5u + 1u, consumer.GetBytesTotal());
  const std::string expected = "file " + file + ":5\nfolder " + folder + ":13\nfolder " + link + ":14\nfile " + colon +
                               ":2\nfile " + newline + ":14\nfolder /dev/null:14\nfile " + file +
                               ":14\nfolder /data/gone:-3\nfile /data/a.txt:5\n";
  EXPECT_EQ(static_cast<int64_t>(expected.size()), consumer.tellp());
  ASSERT_TRUE(consumer.Close().IsSuccess());
  EXPECT_EQ(expected, ReadFileText(m_output));
  EXPECT_FALSE(consumer.IsOpen());
  EXPECT_EQ(0, consumer.tellp());
  EXPECT_TRUE(consumer.Close().IsSuccess());  // closing twice is fine
  EXPECT_TRUE(m_events.Events().empty());
}

// ---------------------------------------------------------------------------------------------
// Re-opening: an append keeps the counters, anything else starts afresh.

struct SOpenCase {
  const char* name;
  const char* mode;
  bool keeps;  // counters and content
};

class ScanFailureOpen : public ScanFailureFixture, public ::testing::WithParamInterface<SOpenCase> {};

TEST_P(ScanFailureOpen, CountersFollowTheMode) {
  const SOpenCase& c = GetParam();
  CScanFailureConsumer consumer(0, m_output, "w");
  ASSERT_TRUE(consumer.RawWriteItem("file /a:1", 100).IsSuccess());
  ASSERT_TRUE(consumer.RawWriteItem("file /b:2", 20).IsSuccess());
  ASSERT_TRUE(consumer.Open(c.mode).IsSuccess());
  ASSERT_TRUE(consumer.IsOpen());
  EXPECT_EQ(c.keeps ? 2u : 0u, consumer.getProcessedItemsCount());
  EXPECT_EQ(c.keeps ? 120u : 0u, consumer.GetBytesTotal());
  ASSERT_TRUE(consumer.RawWriteItem("folder /c:3", 1).IsSuccess());
  EXPECT_EQ(c.keeps ? 3u : 1u, consumer.getProcessedItemsCount());
  EXPECT_EQ(c.keeps ? 121u : 1u, consumer.GetBytesTotal());
  ASSERT_TRUE(consumer.Close().IsSuccess());
  EXPECT_EQ(c.keeps ? "file /a:1\nfile /b:2\nfolder /c:3\n" : "folder /c:3\n", ReadFileText(m_output));
}

INSTANTIATE_TEST_SUITE_P(Modes, ScanFailureOpen,
                         ::testing::Values(SOpenCase{"Append", "a", true}, SOpenCase{"Write", "w", false},
                                           SOpenCase{"Empty", "", false}),
                         [](const auto& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------------------------
// A consumer without a file reports every attempt to write, to the caller and to the job.

// The three ways of writing: 0 Process, 1 RawWriteItem, 2 RawAppendFile (of `input`).
CQiError Write(CScanFailureConsumer& consumer, int operation, const CItemPtr& item, const std::string& input) {
  if (operation == 0) return consumer.Process(item);
  return operation == 1 ? consumer.RawWriteItem("file /lost:3", 10) : consumer.RawAppendFile(input);
}

class ScanFailureNotOpen : public ScanFailureFixture, public ::testing::WithParamInterface<int> {};

TEST_P(ScanFailureNotOpen, FailsWithInvalidHandleAndRaisesTheWriteEvent) {
  const std::string output = m_tree.Path("no/such/folder/failures.txt");
  CScanFailureConsumer consumer(0, output, "w");
  EXPECT_FALSE(consumer.IsOpen());
  // The failed open at construction is only logged.
  const auto entries = m_log->GetEntries();
  ASSERT_EQ(1u, entries.size());
  EXPECT_EQ(-1, entries[0].level);
  const std::string prefix = "Failed to open output file '" + output + "', error=errno 2 ";
  EXPECT_EQ(prefix, entries[0].text.substr(0, prefix.size())) << entries[0].text;
  EXPECT_TRUE(m_events.Events().empty());

  const std::string input = m_tree.MakeFile("input.txt", "a\n");
  CQiError error = Write(consumer, GetParam(), FailedItem(input, 5), input);
  EXPECT_TRUE(error.IsWin32(6)) << error.AsString();
  ExpectOneEvent(kWriteEvent, output);
  EXPECT_EQ(0u, consumer.getProcessedItemsCount());
  EXPECT_EQ(0u, consumer.GetBytesTotal());
}

INSTANTIATE_TEST_SUITE_P(Operations, ScanFailureNotOpen, ::testing::Values(0, 1, 2), [](const auto& info) {
  return std::string(info.param == 0 ? "Process" : info.param == 1 ? "RawWriteItem" : "RawAppendFile");
});

TEST_F(ScanFailureFixture, FailedOpenRaisesTheOpenEventAndNamesTheFile) {
  const std::string output = m_tree.Path("missing/failures.txt");
  CScanFailureConsumer consumer(0, output, "w");
  m_log->Clear();
  CQiError error = consumer.Open("a");
  EXPECT_TRUE(error.IsErrNo(2)) << error.AsString();
  EXPECT_EQ("Failed to open output file '" + output + "'", error.GetFrames().back().text);
  ExpectOneEvent(kOpenEvent, output);
  EXPECT_EQ(1u, m_log->CountContaining("Failed to open output file '" + output + "', error=errno 2", -1));
  EXPECT_FALSE(consumer.IsOpen());
  // Once the folder exists the same consumer opens; a closed one refuses until it is opened again.
  m_tree.MakeDir("missing");
  EXPECT_TRUE(consumer.Open("").IsSuccess());
  ASSERT_TRUE(consumer.Close().IsSuccess());
  EXPECT_TRUE(consumer.RawWriteItem("file /a:1", 1).IsWin32(6));
  ASSERT_TRUE(consumer.Open("a").IsSuccess());
  EXPECT_TRUE(consumer.RawWriteItem("file /b:1", 1).IsSuccess());
  ASSERT_TRUE(consumer.Close().IsSuccess());
  EXPECT_EQ("file /b:1\n", ReadFileText(output));
}

// A write that fails: a full device, or a file that reaches the process's file-size limit in the
// middle of a record. The operation returns the errno, the job hears of it once, the counters
// stay, and nothing of the lost record reaches the file, then or with the next record.

// Lowers RLIMIT_FSIZE for the scope; writes beyond it fail with EFBIG instead of killing us.
class CFileSizeLimit {
 public:
  explicit CFileSizeLimit(rlim_t limit) : m_oldHandler(signal(SIGXFSZ, SIG_IGN)) {
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
  sighandler_t m_oldHandler;
  struct rlimit m_old {};
};

struct SWriteFailureCase {
  const char* name;
  int operation;    // as for Write()
  bool fullDevice;  // /dev/full; else a regular file under a file-size limit
};

class ScanFailureWriteFailure : public ScanFailureFixture, public ::testing::WithParamInterface<SWriteFailureCase> {};

TEST_P(ScanFailureWriteFailure, ReturnsTheErrnoRaisesTheEventAndLeavesNoPartOfTheRecord) {
  const SWriteFailureCase& c = GetParam();
  const std::string output = c.fullDevice ? std::string("/dev/full") : m_output;
  const std::string input = m_tree.MakeFile("input.txt", "file /x:1\nfile /y:2\n");
  CScanFailureConsumer consumer(0, output, "w");
  ASSERT_TRUE(consumer.IsOpen());
  ASSERT_TRUE(c.fullDevice || consumer.RawWriteItem("file /first:1", 7).IsSuccess());
  CQiError error;
  {
    // Room for 4 more bytes: the record is cut short in the file.
    CFileSizeLimit limit(c.fullDevice ? RLIM_INFINITY : ReadFileText(output).size() + 4);
    error = Write(consumer, c.operation, FailedItem(input, 5), input);
  }
  EXPECT_TRUE(error.IsErrNo(c.fullDevice ? ENOSPC : EFBIG)) << error.AsString();
  ExpectOneEvent(kWriteEvent, output);
  EXPECT_EQ(c.fullDevice ? 0u : 1u, consumer.getProcessedItemsCount());
  EXPECT_EQ(c.fullDevice ? 0u : 7u, consumer.GetBytesTotal());
  if (c.operation == 0) {
    EXPECT_EQ("RawWriteItem failed", error.GetFrames().back().text);
    EXPECT_EQ(1u, m_log->CountContaining(error.GetMessage() + ": " + error.AsString(), -1));
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
    EXPECT_EQ("file /first:1\nfile /last:2\n", ReadFileText(output));
    EXPECT_EQ(2u, consumer.getProcessedItemsCount());
    EXPECT_EQ(8u, consumer.GetBytesTotal());
  }
}

INSTANTIATE_TEST_SUITE_P(Operations, ScanFailureWriteFailure,
                         ::testing::Values(SWriteFailureCase{"ProcessFullDevice", 0, true},
                                           SWriteFailureCase{"RawWriteItemFullDevice", 1, true},
                                           SWriteFailureCase{"RawAppendFileFullDevice", 2, true},
                                           SWriteFailureCase{"ProcessShortWrite", 0, false},
                                           SWriteFailureCase{"RawWriteItemShortWrite", 1, false},
                                           SWriteFailureCase{"RawAppendFileShortWrite", 2, false}),
                         [](const auto& info) { return std::string(info.param.name); });

// Appending another list: its lines without their line ends; the destructor closes the file.
TEST_F(ScanFailureFixture, AppendFileCopiesLinesWithoutTheirLineEnds) {
  const std::string input = m_tree.MakeFile("other.txt", "file /a:1\r\nfolder /b:2\n\nfile /c:3\r\r\nfile /d\r:4");
  {
    CScanFailureConsumer consumer(0, m_output, "w");
    ASSERT_TRUE(consumer.RawWriteItem("file /first:9", 50).IsSuccess());
    ASSERT_TRUE(consumer.RawAppendFile(input).IsSuccess());
    EXPECT_EQ(6u, consumer.getProcessedItemsCount());
    EXPECT_EQ(50u, consumer.GetBytesTotal());  // appended lines add no bytes
    // An input that cannot be opened gives no lines and no error.
    EXPECT_TRUE(consumer.RawAppendFile(m_tree.Path("absent.txt")).IsSuccess());
    EXPECT_TRUE(consumer.RawAppendFile("").IsSuccess());
    EXPECT_EQ(6u, consumer.getProcessedItemsCount());
    // The failures file cannot be appended to itself.
    EXPECT_TRUE(consumer.RawAppendFile(m_output).IsWin32(87));
  }
  EXPECT_EQ("file /first:9\nfile /a:1\nfolder /b:2\n\nfile /c:3\nfile /d\r:4\n", ReadFileText(m_output));
  EXPECT_TRUE(m_events.Events().empty());
}

}  // namespace
