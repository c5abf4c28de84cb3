#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Bag.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/FXFile.h"
#include "Platform/ZRPI_Focus.h"
#include "Scan/FindFirstItem.h"
#include "Scan/ScanEngine.h"
#include "Scan/ScannerConfigurationBagId.h"
#include "Support/TempTree.h"
#include "Support/LogCapture.h"

namespace {

CQiError MakeError(uint32_t uCode) {
  if (uCode == 0) return CQiError();
  return QI_ERROR_WIN32(uCode, "test handler failure %u", uCode);
}

// An output handler that records what reaches it and fails on request. Guarded, because the
// concurrency test shares it between threads.
class CRecordingHandler : public COutputHandler {
 public:
  CQiError Initialize() override {
    ++m_iInitialize;
    return MakeError(m_uInitializeError);
  }
  CQiError Complete() override {
    ++m_iComplete;
    CQiError error = MakeError(m_uCompleteError);
    m_uCompleteError = 0;  // fails once
    return error;
  }
  CQiError OnItem(CItemPtr pItem) override { return Take(m_vItems, std::move(pItem)); }
  CQiError OnDeletedItem(CItemPtr pItem) override { return Take(m_vDeleted, std::move(pItem)); }

  size_t Items() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_vItems.size();
  }
  size_t Deleted() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_vDeleted.size();
  }

  uint32_t m_uInitializeError = 0;
  uint32_t m_uCompleteError = 0;
  uint32_t m_uItemError = 0;  // for OnItem and OnDeletedItem
  int m_iInitialize = 0;
  int m_iComplete = 0;
  CQiError m_lastError;

 private:
  CQiError Take(std::vector<CItemPtr>& vTarget, CItemPtr pItem) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lastError = MakeError(m_uItemError);
    if (m_lastError.IsSuccess()) vTarget.push_back(std::move(pItem));
    return m_lastError;
  }

  mutable std::mutex m_mutex;
  std::vector<CItemPtr> m_vItems;
  std::vector<CItemPtr> m_vDeleted;
};

class CFakeCallback : public CScannerCallback {
 public:
  CQiError GetOutputHandler(const std::string& strName, COutputHandlerPtr& pHandler) override {
    m_vNames.push_back(strName);
    if (m_uError != 0) return MakeError(m_uError);
    pHandler = m_pHandler;
    return CQiError();
  }
  COutputHandlerPtr m_pHandler;
  uint32_t m_uError = 0;
  std::vector<std::string> m_vNames;
};

// Lets a test open a handler without any callback (engines built by hand).
class CTestEngine : public CScanEngine {
 public:
  void InstallHandler(COutputHandlerPtr pHandler) { m_pOutputHandler = std::move(pHandler); }
};

CBagPtr DebugBag(bool bDebug) {
  auto pBag = std::make_shared<CBag>();
  EXPECT_TRUE(pBag->Write(SXScannerConfigurationBagId::idFileScanDebugEnabled, bDebug).IsSuccess());
  return pBag;
}

class ScanEngineFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    // A real file, reported under another source path.
    m_strLocal = m_tree.MakeFile("data/report.txt", "abc");
    m_strSource = "/source/data/report.txt";
    FXFile::CFileData fileData(m_strLocal, FXFile::CFileData::kModeFullPath);
    ASSERT_TRUE(fileData.good());
    m_uMode = fileData.getRawData().st_mode;
    m_pItem = std::make_shared<CFindFirstItem>(CBagPtr(), m_strLocal, m_strSource, fileData);
    m_pHandler = std::make_shared<CRecordingHandler>();
    m_pCallback = std::make_shared<CFakeCallback>();
    m_pCallback->m_pHandler = m_pHandler;
  }

 public:  // read by the table bodies below
  std::string DebugLine(bool bFiltered) const {
    char szLine[1024];
    snprintf(szLine, sizeof(szLine),
             bFiltered ? "Attributes [0x%08X] Filtered Source Path [%s] Filtered Local Path [%s]"
                       : "Attributes [0x%08X] Source Path [%s] Local Path [%s]",
             m_uMode, m_strSource.c_str(), m_strLocal.c_str());
    return szLine;
  }

  CTempTree m_tree;
  CLogCapture m_pLog;
  std::string m_strLocal;
  std::string m_strSource;
  uint32_t m_uMode = 0;
  CItemPtr m_pItem;
  std::shared_ptr<CRecordingHandler> m_pHandler;
  std::shared_ptr<CFakeCallback> m_pCallback;
};

// ---------------------------------------------------------------------------------------------
// The three ways an item leaves an engine.

enum class EPath { Selected, Filtered, Deleted };
enum class ELine { None, Debug, DebugFiltered, OnItemFailed, OnDeletedFailed };

struct SItemCase {
  const char* name;
  EPath ePath;
  bool bCallback;
  bool bAborted;
  bool bHandler;
  uint32_t uHandlerError;
  bool bDebug;
  int iLogLevel;
  uint32_t uExpectedError;  // Deleted: 0 means "go on" (true), 995 means "stop" (false)
  size_t uDelivered;
  ELine eLine;  // the only line expected (none at all for ELine::None)
};

void PrintTo(const SItemCase& c, std::ostream* os) { *os << c.name; }

class ScanEngineItemPathTest : public ScanEngineFixture,
                               public ::testing::WithParamInterface<SItemCase> {};

TEST_P(ScanEngineItemPathTest, Rules) {
  const SItemCase& c = GetParam();
  CTestEngine engine;
  if (c.bDebug) {
    ASSERT_TRUE(engine.SetScannerConfigurationBag(DebugBag(true)).IsSuccess());
  }
  if (c.bCallback) {
    ASSERT_TRUE(engine.SetScannerCallback(m_pCallback).IsSuccess());
  }
  if (c.bHandler && c.bCallback) {
    ASSERT_TRUE(engine.OpenOutputHandler("/vol").IsSuccess());
  } else if (c.bHandler) {
    engine.InstallHandler(m_pHandler);
  }
  if (c.bAborted) {
    ASSERT_TRUE(m_pCallback->Abort().IsSuccess());
  }
  m_pHandler->m_uItemError = c.uHandlerError;
  m_pLog->SetLevel(c.iLogLevel);
  m_pLog->Clear();

  size_t uDelivered = 0;
  if (c.ePath == EPath::Deleted) {
    EXPECT_EQ(engine.DeletedItemsCallback(m_pItem), c.uExpectedError == 0);
    uDelivered = m_pHandler->Deleted();
  } else {
    CQiError error = c.ePath == EPath::Selected ? engine.ScanQueryCallback(m_pItem)
                                                : engine.ScanQueryCallbackFiltered(m_pItem);
    if (c.uExpectedError == 0) {
      EXPECT_TRUE(error.IsSuccess()) << error.AsString();
    } else {
      EXPECT_TRUE(error.IsWin32(c.uExpectedError)) << error.AsString();
      if (c.uExpectedError == QiErrorCode::OperationAborted)
        EXPECT_EQ(error.GetMessage(), "Operation aborted");
      else  // the handler's own error, passed up with the engine's frame on it
        EXPECT_GT(error.GetFrames().size(), m_pHandler->m_lastError.GetFrames().size());
    }
    uDelivered = m_pHandler->Items();
  }
  EXPECT_EQ(uDelivered, c.uDelivered);

  const auto entries = m_pLog->GetEntries();
  if (c.eLine == ELine::None) {
    EXPECT_TRUE(entries.empty()) << entries.front().text;
    return;
  }
  ASSERT_EQ(entries.size(), 1u);
  switch (c.eLine) {
    case ELine::Debug:
    case ELine::DebugFiltered:
      EXPECT_EQ(entries[0].level, 0);
      EXPECT_EQ(entries[0].text, DebugLine(c.eLine == ELine::DebugFiltered));
      break;
    case ELine::OnItemFailed:
      EXPECT_EQ(entries[0].level, 7);
      EXPECT_EQ(entries[0].text,
                "OnItem failed, continuing, error=" + m_pHandler->m_lastError.AsString());
      break;
    case ELine::OnDeletedFailed:
      EXPECT_EQ(entries[0].level, -1);
      EXPECT_EQ(entries[0].text, "OnDeletedItems failed, error=" + m_pHandler->m_lastError.AsString());
      break;
    case ELine::None:
      break;
  }
}

constexpr EPath S = EPath::Selected;
constexpr EPath F = EPath::Filtered;
constexpr EPath D = EPath::Deleted;

INSTANTIATE_TEST_SUITE_P(
    Table, ScanEngineItemPathTest,
    ::testing::Values(
        // name, path, callback, aborted, handler, handler error, debug, log level,
        // expected error, delivered, line
        SItemCase{"NoCallbackItemsStillFlow", S, false, false, true, 0, false, 7, 0, 1, ELine::None},
        SItemCase{"NoHandlerDropsSilently", S, true, false, false, 0, false, 7, 0, 0, ELine::None},
        SItemCase{"Delivered", S, true, false, true, 0, false, 7, 0, 1, ELine::None},
        SItemCase{"RefusalSkippedAtLevel7", S, true, false, true, 50, false, 7, 0, 0,
                  ELine::OnItemFailed},
        SItemCase{"RefusalQuietBelowLevel7", S, true, false, true, 50, false, 6, 0, 0, ELine::None},
        SItemCase{"OtherErrorStops", S, true, false, true, 5, false, 7, 5, 0, ELine::None},
        SItemCase{"AbortStops", S, true, true, true, 0, false, 7, 995, 0, ELine::None},
        SItemCase{"DebugLinePerItem", S, true, false, true, 0, true, 0, 0, 1, ELine::Debug},
        SItemCase{"DebugLineBeforeAbort", S, true, true, true, 0, true, 7, 995, 0, ELine::Debug},
        SItemCase{"DebugLineWithoutHandler", S, true, false, false, 0, true, 7, 0, 0, ELine::Debug},
        SItemCase{"DebugLineNeedsLevel0", S, true, false, true, 0, true, -1, 0, 1, ELine::None},
        SItemCase{"FilteredNoCallback", F, false, false, true, 0, false, 7, 0, 0, ELine::None},
        SItemCase{"FilteredNoHandler", F, true, false, false, 0, false, 7, 0, 0, ELine::None},
        SItemCase{"FilteredNotCountedByBaseHandler", F, true, false, true, 5, false, 7, 0, 0,
                  ELine::None},
        SItemCase{"FilteredAbortStops", F, true, true, true, 0, false, 7, 995, 0, ELine::None},
        SItemCase{"FilteredDebugLineBeforeAbort", F, true, true, true, 0, true, 7, 995, 0,
                  ELine::DebugFiltered},
        SItemCase{"DeletedNoCallback", D, false, false, true, 0, false, 7, 0, 1, ELine::None},
        SItemCase{"DeletedNoHandler", D, true, false, false, 0, false, 7, 0, 0, ELine::None},
        SItemCase{"DeletedDelivered", D, true, false, true, 0, false, 7, 0, 1, ELine::None},
        SItemCase{"DeletedAbortStops", D, true, true, true, 0, false, 7, 995, 0, ELine::None},
        SItemCase{"DeletedFailureLoggedGoesOn", D, true, false, true, 5, false, 1, 0, 0,
                  ELine::OnDeletedFailed},
        SItemCase{"DeletedRefusalQuietBelow7", D, true, false, true, 50, false, 6, 0, 0,
                  ELine::None},
        SItemCase{"DeletedRefusalLoggedAt7", D, true, false, true, 50, false, 7, 0, 0,
                  ELine::OnDeletedFailed}),
    [](const ::testing::TestParamInfo<SItemCase>& info) { return info.param.name; });

// ---------------------------------------------------------------------------------------------
// Opening and closing the output handler.

struct SHandlerCase {
  const char* name;
  std::function<void(ScanEngineFixture&)> body;
};

void PrintTo(const SHandlerCase& c, std::ostream* os) { *os << c.name; }

class ScanEngineHandlerTest : public ScanEngineFixture,
                              public ::testing::WithParamInterface<SHandlerCase> {};

TEST_P(ScanEngineHandlerTest, Lifecycle) {
  m_pLog->Clear();
  GetParam().body(*this);
}

std::unique_ptr<CTestEngine> EngineWith(const CScannerCallbackPtr& pCallback) {
  auto pEngine = std::make_unique<CTestEngine>();
  EXPECT_TRUE(pEngine->SetScannerCallback(pCallback).IsSuccess());
  return pEngine;
}

INSTANTIATE_TEST_SUITE_P(
    Table, ScanEngineHandlerTest,
    ::testing::Values(
        SHandlerCase{"CallbackErrorReturned",
                     [](ScanEngineFixture& f) {
                       f.m_pCallback->m_uError = 1627;
                       auto pEngine = EngineWith(f.m_pCallback);
                       CQiError error = pEngine->OpenOutputHandler("/vol");
                       EXPECT_TRUE(error.IsWin32(1627)) << error.AsString();
                       EXPECT_GE(error.GetFrames().size(), 2u);
                       EXPECT_EQ(f.m_pHandler->m_iInitialize, 0);
                       EXPECT_TRUE(pEngine->CloseOutputHandler().IsWin32(1168));
                     }},
        SHandlerCase{"NoHandlerIsUnconfigured",
                     [](ScanEngineFixture& f) {
                       f.m_pCallback->m_pHandler.reset();
                       auto pEngine = EngineWith(f.m_pCallback);
                       EXPECT_TRUE(pEngine->OpenOutputHandler("/vol/a").IsSuccess());
                       ASSERT_EQ(f.m_pCallback->m_vNames.size(), 1u);
                       EXPECT_EQ(f.m_pCallback->m_vNames[0], "/vol/a");
                       EXPECT_EQ(f.m_pLog->GetEntries().size(), 1u);
                       EXPECT_TRUE(pEngine->CloseOutputHandler().IsWin32(1168));
                     }},
        SHandlerCase{"InitializeFailureKeepsHandler",
                     [](ScanEngineFixture& f) {
                       f.m_pHandler->m_uInitializeError = 5;
                       auto pEngine = EngineWith(f.m_pCallback);
                       CQiError error = pEngine->OpenOutputHandler("/vol");
                       EXPECT_TRUE(error.IsWin32(5)) << error.AsString();
                       EXPECT_GE(error.GetFrames().size(), 2u);
                       EXPECT_NE(pEngine->GetOutputHandler(), nullptr);
                       EXPECT_TRUE(pEngine->CloseOutputHandler().IsSuccess());
                       EXPECT_EQ(f.m_pHandler->m_iComplete, 1);
                       EXPECT_TRUE(f.m_pLog->GetEntries().empty());
                     }},
        SHandlerCase{"CloseTwice",
                     [](ScanEngineFixture& f) {
                       auto pEngine = EngineWith(f.m_pCallback);
                       ASSERT_TRUE(pEngine->OpenOutputHandler("/vol").IsSuccess());
                       EXPECT_EQ(f.m_pHandler->m_iInitialize, 1);
                       EXPECT_TRUE(pEngine->CloseOutputHandler().IsSuccess());
                       CQiError error = pEngine->CloseOutputHandler();
                       EXPECT_TRUE(error.IsWin32(1168)) << error.AsString();
                       EXPECT_EQ(f.m_pHandler->m_iComplete, 1);
                     }},
        SHandlerCase{"FailingCompleteKeepsHandler",
                     [](ScanEngineFixture& f) {
                       f.m_pHandler->m_uCompleteError = 5;
                       auto pEngine = EngineWith(f.m_pCallback);
                       ASSERT_TRUE(pEngine->OpenOutputHandler("/vol").IsSuccess());
                       CQiError error = pEngine->CloseOutputHandler();
                       EXPECT_TRUE(error.IsWin32(5)) << error.AsString();
                       EXPECT_GE(error.GetFrames().size(), 2u);
                       EXPECT_NE(pEngine->GetOutputHandler(), nullptr);
                       EXPECT_TRUE(pEngine->CloseOutputHandler().IsSuccess());
                       EXPECT_EQ(f.m_pHandler->m_iComplete, 2);
                       EXPECT_TRUE(pEngine->CloseOutputHandler().IsWin32(1168));
                     }},
        SHandlerCase{"DestroyedOpenNeverCompletes",
                     [](ScanEngineFixture& f) {
                       auto pEngine = EngineWith(f.m_pCallback);
                       ASSERT_TRUE(pEngine->OpenOutputHandler("/vol").IsSuccess());
                       pEngine.reset();
                       EXPECT_EQ(f.m_pHandler->m_iComplete, 0);
                     }},
        SHandlerCase{"ClosedThenDestroyedIsQuiet",
                     [](ScanEngineFixture& f) {
                       auto pEngine = EngineWith(f.m_pCallback);
                       ASSERT_TRUE(pEngine->OpenOutputHandler("/vol").IsSuccess());
                       ASSERT_TRUE(pEngine->CloseOutputHandler().IsSuccess());
                       pEngine.reset();
                       EXPECT_TRUE(f.m_pLog->GetEntries().empty());
                     }},
        SHandlerCase{"NoCallbackToAsk",
                     [](ScanEngineFixture& f) {
                       CTestEngine engine;
                       CQiError error = engine.OpenOutputHandler("/vol");
                       EXPECT_TRUE(error.IsWin32(87)) << error.AsString();
                       EXPECT_EQ(f.m_pHandler->m_iInitialize, 0);
                     }}),
    [](const ::testing::TestParamInfo<SHandlerCase>& info) { return info.param.name; });


// ---------------------------------------------------------------------------------------------

// Traversal workers call the item paths at once; an abort from another thread stops the items
// that follow it.
TEST_F(ScanEngineFixture, ConcurrentItemsAndAbortFromAnotherThread) {
  CTestEngine engine;
  ASSERT_TRUE(engine.SetScannerCallback(m_pCallback).IsSuccess());
  ASSERT_TRUE(engine.OpenOutputHandler("/vol").IsSuccess());
  constexpr int kThreads = 4;
  constexpr int kItems = 500;
  std::atomic<int> failures{0};
  std::vector<std::thread> vThreads;
  for (int t = 0; t < kThreads; ++t) {
    vThreads.emplace_back([&] {
      for (int i = 0; i < kItems; ++i) {
        if (engine.ScanQueryCallback(m_pItem).IsError()) ++failures;
      }
    });
  }
  for (auto& thread : vThreads) thread.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(m_pHandler->Items(), static_cast<size_t>(kThreads * kItems));

  std::thread aborter([&] { (void)m_pCallback->Abort(); });
  aborter.join();
  EXPECT_TRUE(engine.ScanQueryCallback(m_pItem).IsWin32(QiErrorCode::OperationAborted));
  EXPECT_FALSE(engine.DeletedItemsCallback(m_pItem));
  EXPECT_EQ(m_pHandler->Items(), static_cast<size_t>(kThreads * kItems));
  EXPECT_TRUE(engine.CloseOutputHandler().IsSuccess());
}

}  // namespace
