// The scan engine's item paths (selected, filtered, deleted items reaching the output handler,
// aborts, the debug line per item, the logged refusals), and opening and closing its output
// handler.
#include <gtest/gtest.h>

#include <mutex>

#include "Platform/Bag.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/FXFile.h"
#include "Scan/FindFirstItem.h"
#include "Scan/ScanEngine.h"
#include "Scan/ScannerConfigurationBagId.h"
#include "Support/LogCapture.h"
#include "Support/TempTree.h"

namespace {

CQiError MakeError(uint32_t uCode) {
  return uCode == 0 ? CQiError() : QI_ERROR_WIN32(uCode, "test handler failure %u", uCode);
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
    return MakeError(std::exchange(m_uCompleteError, 0));  // fails once
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

  uint32_t m_uInitializeError = 0, m_uCompleteError = 0;
  uint32_t m_uItemError = 0;  // for OnItem and OnDeletedItem
  int m_iInitialize = 0, m_iComplete = 0;
  CQiError m_lastError;

 private:
  CQiError Take(std::vector<CItemPtr>& vTarget, CItemPtr pItem) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lastError = MakeError(m_uItemError);
    if (m_lastError.IsSuccess()) vTarget.push_back(std::move(pItem));
    return m_lastError;
  }
  mutable std::mutex m_mutex;
  std::vector<CItemPtr> m_vItems, m_vDeleted;
};

class CFakeCallback : public CScannerCallback {
 public:
  CQiError GetOutputHandler(const std::string& strName, COutputHandlerPtr& pHandler) override {
    m_vNames.push_back(strName);
    pHandler = m_uError == 0 ? m_pHandler : nullptr;
    return MakeError(m_uError);
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

class ScanEngineFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    // A real file, reported under another source path.
    FXFile::CFileData fileData(m_strLocal, FXFile::CFileData::kModeFullPath);
    ASSERT_TRUE(fileData.good());
    m_uMode = fileData.getRawData().st_mode;
    m_pItem = std::make_shared<CFindFirstItem>(CBagPtr(), m_strLocal, m_strSource, fileData);
    m_pCallback->m_pHandler = m_pHandler;
  }
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
  const std::string m_strLocal = m_tree.MakeFile("data/report.txt", "abc");
  const std::string m_strSource = "/source/data/report.txt";
  uint32_t m_uMode = 0;
  CItemPtr m_pItem;
  std::shared_ptr<CRecordingHandler> m_pHandler = std::make_shared<CRecordingHandler>();
  std::shared_ptr<CFakeCallback> m_pCallback = std::make_shared<CFakeCallback>();
};

// ---------------------------------------------------------------------------------------------
// The three ways an item leaves an engine.

enum class EPath { Selected, Filtered, Deleted };
enum class ELine { None, Debug, DebugFiltered, OnItemFailed, OnDeletedFailed };

struct SItemCase {
  const char* name;
  EPath ePath;
  bool bCallback, bAborted, bHandler;
  uint32_t uHandlerError;
  bool bDebug;
  int iLogLevel;
  uint32_t uExpectedError;  // Deleted: 0 means "go on" (true), 995 means "stop" (false)
  size_t uDelivered;
  ELine eLine;  // the only line expected (none at all for ELine::None)
};

class ScanEngineItemPathTest : public ScanEngineFixture, public ::testing::WithParamInterface<SItemCase> {};

TEST_P(ScanEngineItemPathTest, Rules) {
  const SItemCase& c = GetParam();
  CTestEngine engine;
  auto pBag = std::make_shared<CBag>();
  ASSERT_TRUE(pBag->Write(SXScannerConfigurationBagId::idFileScanDebugEnabled, true).IsSuccess());
  ASSERT_TRUE(!c.bDebug || engine.SetScannerConfigurationBag(pBag).IsSuccess());
  ASSERT_TRUE(!c.bCallback || engine.SetScannerCallback(m_pCallback).IsSuccess());
  ASSERT_TRUE(!(c.bHandler && c.bCallback) || engine.OpenOutputHandler("/vol").IsSuccess());
  if (c.bHandler && !c.bCallback) engine.InstallHandler(m_pHandler);
  ASSERT_TRUE(!c.bAborted || m_pCallback->Abort().IsSuccess());
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
    EXPECT_TRUE(c.uExpectedError == 0 ? error.IsSuccess() : error.IsWin32(c.uExpectedError)) << error.AsString();
    // Any other error than an abort is the handler's own, passed up with the engine's frame on it.
    if (c.uExpectedError == QiErrorCode::OperationAborted) {
      EXPECT_EQ(error.GetMessage(), "Operation aborted");
    } else if (c.uExpectedError != 0) {
      EXPECT_GT(error.GetFrames().size(), m_pHandler->m_lastError.GetFrames().size());
    }
    uDelivered = m_pHandler->Items();
  }
  EXPECT_EQ(uDelivered, c.uDelivered);

  std::vector<std::pair<int, std::string>> expected, lines;
  if (c.eLine == ELine::Debug || c.eLine == ELine::DebugFiltered)
    expected.emplace_back(0, DebugLine(c.eLine == ELine::DebugFiltered));
  if (c.eLine == ELine::OnItemFailed)
    expected.emplace_back(7, "OnItem failed, continuing, error=" + m_pHandler->m_lastError.AsString());
  if (c.eLine == ELine::OnDeletedFailed)
    expected.emplace_back(-1, "OnDeletedItems failed, error=" + m_pHandler->m_lastError.AsString());
  for (const auto& entry : m_pLog->GetEntries()) lines.emplace_back(entry.level, entry.text);
  EXPECT_EQ(expected, lines);
}

constexpr EPath S = EPath::Selected, F = EPath::Filtered, D = EPath::Deleted;
INSTANTIATE_TEST_SUITE_P(
    Table, ScanEngineItemPathTest,
    ::testing::Values(
        // name, path, callback, aborted, handler, handler error, debug, log level,
        // expected error, delivered, line
        SItemCase{"NoHandlerDropsSilently", S, true, false, false, 0, false, 7, 0, 0, ELine::None},
        SItemCase{"Delivered", S, true, false, true, 0, false, 7, 0, 1, ELine::None},
        SItemCase{"RefusalSkippedAtLevel7", S, true, false, true, 50, false, 7, 0, 0, ELine::OnItemFailed},
        SItemCase{"RefusalQuietBelowLevel7", S, true, false, true, 50, false, 6, 0, 0, ELine::None},
        SItemCase{"OtherErrorStops", S, true, false, true, 5, false, 7, 5, 0, ELine::None},
        SItemCase{"AbortStops", S, true, true, true, 0, false, 7, 995, 0, ELine::None},
        SItemCase{"DebugLinePerItem", S, true, false, true, 0, true, 0, 0, 1, ELine::Debug},
        SItemCase{"FilteredNotCountedByBaseHandler", F, true, false, true, 5, false, 7, 0, 0, ELine::None},
        SItemCase{"FilteredDebugLineBeforeAbort", F, true, true, true, 0, true, 7, 995, 0, ELine::DebugFiltered},
        SItemCase{"DeletedNoHandler", D, true, false, false, 0, false, 7, 0, 0, ELine::None},
        SItemCase{"DeletedDelivered", D, true, false, true, 0, false, 7, 0, 1, ELine::None},
        SItemCase{"DeletedAbortStops", D, true, true, true, 0, false, 7, 995, 0, ELine::None},
        SItemCase{"DeletedFailureLoggedGoesOn", D, true, false, true, 5, false, 1, 0, 0, ELine::OnDeletedFailed},
        SItemCase{"DeletedRefusalQuietBelow7", D, true, false, true, 50, false, 6, 0, 0, ELine::None},
        SItemCase{"DeletedRefusalLoggedAt7", D, true, false, true, 50, false, 7, 0, 0, ELine::OnDeletedFailed}),
    [](const ::testing::TestParamInfo<SItemCase>& info) { return info.param.name; });

// ---------------------------------------------------------------------------------------------
// Opening and closing the output handler: a script of steps, 'o' open "/vol", 'c' close, 'd'
// destroy the engine, and the code each open or close answers.

struct SHandlerCase {
  const char* name;
  uint32_t uCallbackError, uInitializeError, uCompleteError;
  bool bNoHandler, bNoCallback;
  const char* pszSteps;
  std::vector<uint32_t> codes;  // of each 'o' and 'c'
  int iInitialize, iComplete;
  int iLogEntries;  // -1: not checked
};

class ScanEngineHandlerTest : public ScanEngineFixture, public ::testing::WithParamInterface<SHandlerCase> {};

TEST_P(ScanEngineHandlerTest, Lifecycle) {
  const SHandlerCase& c = GetParam();
  m_pCallback->m_uError = c.uCallbackError;
  m_pHandler->m_uInitializeError = c.uInitializeError;
  m_pHandler->m_uCompleteError = c.uCompleteError;
  if (c.bNoHandler) m_pCallback->m_pHandler.reset();
  auto pEngine = std::make_unique<CTestEngine>();
  ASSERT_TRUE(c.bNoCallback || pEngine->SetScannerCallback(m_pCallback).IsSuccess());
  m_pLog->Clear();
  std::vector<uint32_t> codes;
  for (const char* p = c.pszSteps; *p != '\0'; ++p) {
    if (*p == 'd') {
      pEngine.reset();
      continue;
    }
    CQiError error = *p == 'o' ? pEngine->OpenOutputHandler("/vol") : pEngine->CloseOutputHandler();
    codes.push_back(error.GetCode());
    // The handler's or the callback's failure is passed up with the engine's frame on it.
    EXPECT_TRUE(!(error.IsWin32(1627) || error.IsWin32(5)) || error.GetFrames().size() >= 2) << error.AsString();
  }
  EXPECT_EQ(codes, c.codes);
  EXPECT_EQ(m_pHandler->m_iInitialize, c.iInitialize);
  EXPECT_EQ(m_pHandler->m_iComplete, c.iComplete);
  EXPECT_EQ(m_pCallback->m_vNames, c.bNoCallback ? std::vector<std::string>{} : std::vector<std::string>{"/vol"});
  EXPECT_EQ(c.iLogEntries < 0 ? -1 : static_cast<int>(m_pLog->GetEntries().size()), c.iLogEntries);
}

INSTANTIATE_TEST_SUITE_P(
    Table, ScanEngineHandlerTest,
    ::testing::Values(SHandlerCase{"CallbackErrorReturned", 1627, 0, 0, false, false, "oc", {1627, 1168}, 0, 0, -1},
                      SHandlerCase{"NoHandlerIsUnconfigured", 0, 0, 0, true, false, "oc", {0, 1168}, 0, 0, 1},
                      SHandlerCase{"InitializeFailureKeepsHandler", 0, 5, 0, false, false, "oc", {5, 0}, 1, 1, 0},
                      SHandlerCase{"CloseTwice", 0, 0, 0, false, false, "occ", {0, 0, 1168}, 1, 1, -1},
                      SHandlerCase{"DestroyedOpenNeverCompletes", 0, 0, 0, false, false, "od", {0}, 1, 0, -1},
                      SHandlerCase{"NoCallbackToAsk", 0, 0, 0, false, true, "o", {87}, 0, 0, -1}),
    [](const ::testing::TestParamInfo<SHandlerCase>& info) { return info.param.name; });

}  // namespace
