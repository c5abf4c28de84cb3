#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Scan/FailedFilesScanner.h"
#include "Scan/FindFirstItem.h"
#include "Scan/OutputHandler.h"
#include "Support/TempTree.h"
#include "Support/LogCapture.h"

namespace {

// Keeps the items it is given; refuses them with a set code when asked to.
class CRecordingHandler : public COutputHandler {
 public:
  explicit CRecordingHandler(uint32_t failCode = 0) : m_uFailCode(failCode) {}
  CQiError OnItem(CItemPtr pItem) override {
    if (m_uFailCode != 0) return QI_ERROR_WIN32(m_uFailCode, "handler refused");
    m_vItems.push_back(pItem);
    return CQiError();
  }
  std::vector<std::string> Paths() const {
    std::vector<std::string> paths;
    for (const CItemPtr& item : m_vItems) paths.push_back(item->GetSourceFullyQualifiedItemName());
    return paths;
  }
  std::vector<CItemPtr> m_vItems;
  uint32_t m_uFailCode;
};

// Names the content root that holds a path and that root's handler.
class CRootsCallback : public CFailedFilesScannerCallback {
 public:
  struct SRoot {
    std::string path;
    COutputHandlerPtr handler;
  };
  CQiError GetOutputHandler(const std::string& strFailedPath, std::string& strContentPath,
                            COutputHandlerPtr& pHandler) override {
    m_vAsked.push_back(strFailedPath);
    if (m_uFailCode != 0) return QI_ERROR_WIN32(m_uFailCode, "no handler for you");
    for (const SRoot& root : m_vRoots) {
      if (FXPath::IsDescendantOf(strFailedPath, root.path, true)) {
        strContentPath = root.path;
        pHandler = root.handler;
        return CQiError();
      }
    }
    strContentPath.clear();
    pHandler.reset();
    return CQiError();
  }
  std::vector<SRoot> m_vRoots;
  std::vector<std::string> m_vAsked;
  uint32_t m_uFailCode = 0;
};

class FailedFilesScannerFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    m_strJobFolder = m_tree.MakeDir("job");
    m_pCallback = std::make_shared<CRootsCallback>();
  }

  void WriteList(const std::string& content) { m_tree.MakeFile("job/failures.zrf", content); }
  CQiError Run() { return CFailedFilesScanner(12, m_pCallback, m_strJobFolder).Run(); }

  CTempTree m_tree;
  CLogCapture m_pLog;
  std::string m_strJobFolder;
  std::shared_ptr<CRootsCallback> m_pCallback;
};

TEST_F(FailedFilesScannerFixture, MissingListIsNotAnError) {
  const std::string list = m_strJobFolder + "/failures.zrf";
  EXPECT_TRUE(Run().IsSuccess());
  EXPECT_TRUE(m_pCallback->m_vAsked.empty());

  // A folder that does not exist at all: the same.
  EXPECT_TRUE(CFailedFilesScanner(1, m_pCallback, m_tree.Path("nowhere")).Run().IsSuccess());
}

TEST_F(FailedFilesScannerFixture, ListThatCannotBeOpenedIsNotAnError) {
  // The name exists (a dangling link) but cannot be opened for reading.
  m_tree.MakeSymlink("job/failures.zrf", "/nowhere/list");
  EXPECT_TRUE(Run().IsSuccess());
  EXPECT_TRUE(m_pCallback->m_vAsked.empty());
}

TEST_F(FailedFilesScannerFixture, RescansReadablePathsThroughTheirContentsHandler) {
  const std::string a = m_tree.MakeDir("A");
  const std::string b = m_tree.MakeDir("B");
  const std::string f1 = m_tree.MakeFile("A/f1", "one");
  const std::string f2 = m_tree.MakeFile("A/sub/f2", "two!");
  const std::string sub = m_tree.Path("A/sub");
  const std::string f3 = m_tree.MakeFile("B/f3", "");
  const std::string f4 = m_tree.MakeFile("A/f 4", "four");
  const std::string gone = m_tree.Path("A/gone");
  auto handlerA = std::make_shared<CRecordingHandler>();
  auto handlerB = std::make_shared<CRecordingHandler>();
  m_pCallback->m_vRoots = {{a, handlerA}, {b, handlerB}};

  WriteList("\n" + f1 + "\r\n" +      // carriage return
            "   \t\r\n" +             // blank
            f2 + "  \t\n" +           // trailing blanks and tab
            gone + "\n" +             // vanished since the failure
            "\n\n" +                  //
            sub + "\n" +              // a folder
            f3 + "\n" +               // another content path: asks again
            f4 + "\r");               // back under A: asks again; no final line feed

  CQiError error = Run();
  ASSERT_TRUE(error.IsSuccess()) << error.AsString();

  EXPECT_EQ((std::vector<std::string>{f1, f3, f4}), m_pCallback->m_vAsked);
  EXPECT_EQ((std::vector<std::string>{f1, f2, sub, f4}), handlerA->Paths());
  EXPECT_EQ((std::vector<std::string>{f3}), handlerB->Paths());

  // Items are real find-first items sharing the run's one bag.
  ASSERT_EQ(4u, handlerA->m_vItems.size());
  EXPECT_EQ(3u, handlerA->m_vItems[0]->GetFileSize());
  EXPECT_EQ(4u, handlerA->m_vItems[1]->GetFileSize());
  EXPECT_TRUE(handlerA->m_vItems[2]->IsFolder());
  EXPECT_TRUE(handlerA->m_vItems[0]->GetWorkUnitBag());
  EXPECT_EQ(handlerA->m_vItems[0]->GetWorkUnitBag(), handlerB->m_vItems[0]->GetWorkUnitBag());
  EXPECT_EQ(handlerA->m_vItems[0]->GetWorkUnitBag(), handlerA->m_vItems[3]->GetWorkUnitBag());
}

TEST_F(FailedFilesScannerFixture, ConsecutivePathsUnderOneContentAskOnce) {
  const std::string root = m_tree.MakeDir("data");
  std::string list;
  for (int i = 0; i < 5; ++i) {
    list += m_tree.MakeFile("data/d" + std::to_string(i) + "/f", "x") + "\n";
  }
  list += root + "\n";  // the content path itself is under it too
  WriteList(list);
  auto handler = std::make_shared<CRecordingHandler>();
  m_pCallback->m_vRoots = {{root, handler}};

  ASSERT_TRUE(Run().IsSuccess());
  EXPECT_EQ(1u, m_pCallback->m_vAsked.size());
  EXPECT_EQ(6u, handler->m_vItems.size());
}

TEST_F(FailedFilesScannerFixture, ContentWithoutHandlerIsSkipped) {
  const std::string skipped = m_tree.MakeDir("skipped");
  const std::string kept = m_tree.MakeDir("kept");
  auto handler = std::make_shared<CRecordingHandler>();
  m_pCallback->m_vRoots = {{skipped, nullptr}, {kept, handler}};
  const std::string s1 = m_tree.MakeFile("skipped/1", "");
  const std::string s2 = m_tree.MakeFile("skipped/2", "");
  const std::string k1 = m_tree.MakeFile("kept/1", "");
  const std::string outside = m_tree.MakeFile("outside", "");
  WriteList(s1 + "\n" + s2 + "\n" + k1 + "\n" + outside + "\n");

  ASSERT_TRUE(Run().IsSuccess());
  // The content path is remembered even without a handler; a path under no content asks again.
  EXPECT_EQ((std::vector<std::string>{s1, k1, outside}), m_pCallback->m_vAsked);
  EXPECT_EQ((std::vector<std::string>{k1}), handler->Paths());
}

TEST_F(FailedFilesScannerFixture, CallbackFailureStopsTheRun) {
  const std::string f1 = m_tree.MakeFile("A/f1", "");
  WriteList(f1 + "\n" + m_tree.MakeFile("B/f2", "") + "\n");
  m_pCallback->m_uFailCode = 1168;
  CQiError error = Run();
  EXPECT_TRUE(error.IsWin32(1168)) << error.AsString();
  EXPECT_EQ("failed get output handler", error.GetFrames().back().text);
  EXPECT_EQ((std::vector<std::string>{f1}), m_pCallback->m_vAsked);
}

TEST_F(FailedFilesScannerFixture, HandlerRefusalStopsTheRun) {
  const std::string root = m_tree.MakeDir("A");
  const std::string f1 = m_tree.MakeFile("A/f1", "");
  WriteList(f1 + "\n" + m_tree.MakeFile("A/f2", "") + "\n");
  auto handler = std::make_shared<CRecordingHandler>(50);
  m_pCallback->m_vRoots = {{root, handler}};
  CQiError error = Run();
  EXPECT_TRUE(error.IsWin32(50)) << error.AsString();
  EXPECT_EQ("failed process item [" + f1 + "] by failed output handler",
            error.GetFrames().back().text);
  EXPECT_EQ("handler refused", error.GetMessage());
}

TEST_F(FailedFilesScannerFixture, BaseHandlerRefusesWithNotSupported) {
  const std::string root = m_tree.MakeDir("A");
  WriteList(m_tree.MakeFile("A/f1", "") + "\n");
  m_pCallback->m_vRoots = {{root, std::make_shared<COutputHandler>()}};
  EXPECT_TRUE(Run().IsWin32(50));
}

// Lines that cannot name a file are skipped like vanished paths, never a crash.
TEST_F(FailedFilesScannerFixture, UnusablePathsAreSkipped) {
  const std::string root = m_tree.MakeDir("A");
  const std::string ok = m_tree.MakeFile("A/ok", "");
  const std::string withNul = root + std::string("/x\0y", 4);
  const std::string tooLong = root + "/" + std::string(5000, 'n');
  WriteList(withNul + "\n" + tooLong + "\n" + ok + "\n");
  auto handler = std::make_shared<CRecordingHandler>();
  m_pCallback->m_vRoots = {{root, handler}};
  ASSERT_TRUE(Run().IsSuccess());
  EXPECT_EQ((std::vector<std::string>{ok}), handler->Paths());
}

TEST_F(FailedFilesScannerFixture, EmptyListDoesNothing) {
  WriteList("\n \r\n\t\n");
  EXPECT_TRUE(Run().IsSuccess());
  EXPECT_TRUE(m_pCallback->m_vAsked.empty());
}

TEST(FailedFilesScanner, IsNeverAborted) {
  CFailedFilesScanner scanner(1, nullptr, "/tmp");
  EXPECT_FALSE(scanner.IsAborted());
  EXPECT_EQ("/tmp/failures.zrf", scanner.GetFailedFilesListPath());
}

}  // namespace
