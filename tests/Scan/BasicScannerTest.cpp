// The scanner facade and its work threads, on real temporary trees: one on the root file system
// (/tmp) and one on /dev/shm (tmpfs), which are two physical media.
#include <gtest/gtest.h>

#include <mutex>
#include <set>

#include "Platform/CaptureLogWriter.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/MemoryLineWriter.h"
#include "Scan/BasicScanner.h"
#include "Scan/ConsumerOutputHandler.h"
#include "WorkUnitTestSupport.h"

namespace {

// Keeps the source paths of the items it is given.
class CCollectingConsumer : public CItemConsumer {
 public:
  CQiError Process(CItemPtr pItem) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_setPaths.insert(pItem->GetSourceFullyQualifiedItemName());
    return CQiError();
  }
  std::set<std::string> Paths() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_setPaths;
  }

 private:
  mutable std::mutex m_mutex;
  std::set<std::string> m_setPaths;
};

class CTestCallback : public CScannerCallback {
 public:
  CQiError GetOutputHandler(const std::string&, COutputHandlerPtr& pHandler) override {
    auto pConsumerHandler = std::make_shared<CConsumerOutputHandler>();
    pConsumerHandler->SetItemConsumer(m_pItems);
    pHandler = pConsumerHandler;
    return CQiError();
  }
  CQiError GetScanFailureConsumer(CItemConsumerPtr& pConsumer) override {
    pConsumer = m_pFailures;
    return CQiError();
  }
  std::shared_ptr<CCollectingConsumer> m_pItems = std::make_shared<CCollectingConsumer>();
  std::shared_ptr<CCollectingConsumer> m_pFailures = std::make_shared<CCollectingConsumer>();
};

// What the engines of a scan were given, recorded by CStubEngine: excluded attributes, instance,
// configuration bag and callback of each.
using TEngineSettings = std::tuple<unsigned, std::string, CBagPtr, CScannerCallbackPtr>;
struct SEngineRecord {
  std::mutex mutex;
  std::vector<TEngineSettings> lstSettings;
};

// A FindFirst engine whose Process only records its settings and returns a set result.
class CStubEngine : public CFindFirstScanEngine {
 public:
  CStubEngine(std::shared_ptr<SEngineRecord> pRecord, CQiError result)
      : m_pRecord(std::move(pRecord)), m_result(std::move(result)) {}
  CQiError Process() override {
    std::lock_guard<std::mutex> lock(m_pRecord->mutex);
    m_pRecord->lstSettings.emplace_back(GetExcludedAttributes(), GetInstance(), GetScannerConfigurationBag(),
                                        GetScannerCallback());
    return m_result;
  }

 private:
  std::shared_ptr<SEngineRecord> m_pRecord;
  CQiError m_result;
};

// Two trees on two physical media, a callback and a scanner with a capturing log writer.
class BasicScannerFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    m_pShm = std::make_unique<CTempTree>("/dev/shm");
    for (CTempTree* pTree : {&m_tmp, m_pShm.get()}) {
      pTree->MakeFile("content/a.txt", "abc");
      pTree->MakeFile("content/sub/b.dat", "0123456789");
      pTree->MakeDir("content/empty");
    }
    m_pScanner = std::make_unique<CBasicScanner>(42, "Instance007", m_pCallback);
    (void)m_pScanner->SetLogWriter(m_pLog);
    (void)m_pScanner->SetConfigurationBag(m_pBag);
  }

  // Adds both content folders; skips the test when they do not land on two media here.
  void AddBothContents() {
    ASSERT_TRUE(m_pScanner->AddLocalContentItem(m_tmp.Path("content")).IsSuccess());
    ASSERT_TRUE(m_pScanner->AddLocalContentItem(m_pShm->Path("content")).IsSuccess());
    if (m_pScanner->GetWorkUnitManager()->GetPhysicalMediaVolumeWorkUnitMap().size() != 2)
      GTEST_SKIP() << "/tmp and /dev/shm are not two physical media on this machine";
  }

  // The lines written at log level -1, which the operator sees.
  std::vector<std::string> OperatorLines() const {
    std::vector<std::string> lines;
    for (const auto& entry : m_pLog->GetEntries())
      if (entry.level == -1) lines.push_back(entry.text);
    return lines;
  }

  CTempTree m_tmp;
  std::unique_ptr<CTempTree> m_pShm;
  std::shared_ptr<CTestCallback> m_pCallback = std::make_shared<CTestCallback>();
  std::shared_ptr<CCaptureLogWriter> m_pLog = std::make_shared<CCaptureLogWriter>(2);
  CBagPtr m_pBag = std::make_shared<CBag>();
  std::unique_ptr<CBasicScanner> m_pScanner;
};

TEST(BasicScannerStart, WithoutContentFailsWithNothingToDo) {
  CBasicScanner scanner(1, "Instance001", std::make_shared<CTestCallback>());
  CQiError error = scanner.Start();
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidParameter)) << error.AsString();
  EXPECT_EQ(error.GetMessage(), "No work threads exist to run; nothing to do");
  EXPECT_TRUE(scanner.GetPrivate()->GetWorkThreads().empty());
  EXPECT_FALSE(scanner.GetPrivate()->GetThreadPool());
}

// A real scan: one FindFirst work thread per medium, all items of both trees, and the engine
// never sees the caller's excluded-attributes mask.
TEST_F(BasicScannerFixture, RunsOneFindFirstThreadPerPhysicalMedium) {
  AddBothContents();
  if (IsSkipped() || HasFatalFailure()) return;
  (void)m_pScanner->SetExcludedAttributes(0x4000);  // would hide every folder if it were applied
  ASSERT_TRUE(m_pScanner->Start().IsSuccess());
  ASSERT_TRUE(m_pScanner->WaitForScanToComplete().IsSuccess());

  const auto& lstThreads = m_pScanner->GetPrivate()->GetWorkThreads();
  ASSERT_EQ(lstThreads.size(), 2u);
  auto itMedium = m_pScanner->GetWorkUnitManager()->GetPhysicalMediaVolumeWorkUnitMap().begin();
  for (size_t i = 0; i < lstThreads.size(); ++i, ++itMedium) {
    EXPECT_EQ(lstThreads[i]->GetThreadIndex(), static_cast<int>(i) + 1);
    EXPECT_EQ(lstThreads[i]->GetPhysicalMediaWorkUnit(), itMedium->second);
    ASSERT_TRUE(lstThreads[i]->GetScanEngine());
    const auto& pEngine = lstThreads[i]->GetScanEngine();
    EXPECT_EQ(pEngine->getDescription() + " " + pEngine->GetInstance() + " " +
                  std::to_string(pEngine->GetExcludedAttributes()),
              "FindFirst Instance007 0");
  }
  EXPECT_EQ(m_pScanner->GetPrivate()->GetThreadPool()->GetMinThreads(), 2);
  EXPECT_EQ(m_pScanner->GetPrivate()->GetThreadPool()->GetMaxThreads(), 3);

  std::set<std::string> setExpected;
  for (CTempTree* pTree : {&m_tmp, m_pShm.get()})
    for (const char* szPath : {"content/a.txt", "content/sub", "content/sub/b.dat", "content/empty"})
      setExpected.insert(pTree->Path(szPath));
  EXPECT_EQ(m_pCallback->m_pItems->Paths(), setExpected);
  EXPECT_TRUE(m_pCallback->m_pFailures->Paths().empty());
  for (const auto& [strKey, pUnit] : m_pScanner->GetWorkUnitManager()->GetWorkUnitMap())
    EXPECT_EQ(pUnit->DispositionAsString(), "Processed(FF)") << strKey;
  EXPECT_TRUE(OperatorLines().empty());
}

// What a work thread makes of its engine's result: never a failed wait; failures only in the log.
struct SEngineOutcomeCase {
  const char* szName;
  enum class EEngine { Succeeds, Fails, Aborts, CannotBeMade, RealAborted } eEngine;
  const char* szLevelMinusOnePrefix;  // every level -1 line starts with it; null: no such line
  size_t nAbortNotices;               // "Operation was aborted" at level 1, per medium
};

class BasicScannerEngineOutcome : public BasicScannerFixture,
                                  public ::testing::WithParamInterface<SEngineOutcomeCase> {};

TEST_P(BasicScannerEngineOutcome, WaitSucceedsAndOnlyTheLogTellsOfFailures) {
  const SEngineOutcomeCase& testCase = GetParam();
  AddBothContents();
  if (IsSkipped() || HasFatalFailure()) return;
  auto pRecord = std::make_shared<SEngineRecord>();
  using EEngine = SEngineOutcomeCase::EEngine;
  switch (testCase.eEngine) {
    case EEngine::Succeeds:
    case EEngine::Fails:
    case EEngine::Aborts: {
      CQiError result;
      if (testCase.eEngine == EEngine::Fails) result = QI_ERROR_ERRNO(5, "medium unreadable");
      if (testCase.eEngine == EEngine::Aborts) result = QI_ERROR_WIN32(QiErrorCode::OperationAborted, "Operation aborted");
      m_pScanner->GetPrivate()->SetScanEngineFactory(
          [pRecord, result] { return std::make_shared<CStubEngine>(pRecord, result); });
      break;
    }
    case EEngine::CannotBeMade:
      m_pScanner->GetPrivate()->SetScanEngineFactory([] { return CFindFirstScanEnginePtr(); });
      break;
    case EEngine::RealAborted:
      (void)m_pCallback->Abort();
      break;
  }
  (void)m_pScanner->SetExcludedAttributes(0xFFFFFFFFu);
  ASSERT_TRUE(m_pScanner->Start().IsSuccess());
  EXPECT_TRUE(m_pScanner->WaitForScanToComplete().IsSuccess());

  // One operator line per medium, each starting with the prefix.
  const std::string prefix = testCase.szLevelMinusOnePrefix ? testCase.szLevelMinusOnePrefix : "";
  std::vector<std::string> lines = OperatorLines();
  for (std::string& line : lines) line = line.substr(0, prefix.size());
  EXPECT_EQ(lines, std::vector<std::string>(prefix.empty() ? 0 : 2, prefix));
  EXPECT_EQ(m_pLog->Count("Operation was aborted", 1), testCase.nAbortNotices * 2);
  // Stub engines were given the scanner's settings, never the caller's excluded attributes.
  const bool bStub = testCase.eEngine != EEngine::CannotBeMade && testCase.eEngine != EEngine::RealAborted;
  std::lock_guard<std::mutex> lock(pRecord->mutex);
  EXPECT_EQ(pRecord->lstSettings, std::vector<TEngineSettings>(bStub ? 2 : 0, {0u, "Instance007", m_pBag, m_pCallback}));
  EXPECT_TRUE(testCase.eEngine != EEngine::RealAborted || m_pCallback->m_pItems->Paths().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Outcomes, BasicScannerEngineOutcome,
    ::testing::Values(
        SEngineOutcomeCase{"Fails", SEngineOutcomeCase::EEngine::Fails, "TryScanner(FindFirst) failed, error=errno 5", 0},
        SEngineOutcomeCase{"Aborts", SEngineOutcomeCase::EEngine::Aborts, nullptr, 1},
        SEngineOutcomeCase{"CannotBeMade", SEngineOutcomeCase::EEngine::CannotBeMade, "Run failed, error=Win32 error 14", 0},
        SEngineOutcomeCase{"RealEngineAborted", SEngineOutcomeCase::EEngine::RealAborted, nullptr, 1}),
    [](const auto& info) { return std::string(info.param.szName); });

// IsItemValidContent: every path before finalization, afterwards the first work unit's answer.
struct SValidContentCase {
  const char* szName;
  bool bInitialize;
  bool bOnShm;         // the path lies in the /dev/shm tree (the second work unit)
  const char* szPath;  // relative to the tree's root
  bool bExpected;
};

class BasicScannerValidContent : public BasicScannerFixture,
                                 public ::testing::WithParamInterface<SValidContentCase> {};

TEST_P(BasicScannerValidContent, AnswersFromTheFirstWorkUnitOnly) {
  const SValidContentCase& testCase = GetParam();
  AddBothContents();
  if (IsSkipped() || HasFatalFailure()) return;
  const auto& mapUnits = m_pScanner->GetWorkUnitManager()->GetWorkUnitMap();
  ASSERT_EQ(mapUnits.size(), 2u);
  ASSERT_EQ(mapUnits.begin()->second->GetLocalVolumeName(), "/") << "the /tmp tree must be the first unit";
  (void)m_pScanner->AddFilterItem("*.tmp");
  (void)m_pScanner->AddFilterExceptionItem("keep.tmp");
  (void)m_pScanner->AddSystemFilterItem(m_tmp.Path("content/sys"));
  (void)m_pScanner->AddSystemFilterExceptionItem(m_tmp.Path("content/sys/keep"));
  (void)m_pScanner->AddScanContentExceptionItem(m_tmp.Path("content/skip"));
  if (testCase.bInitialize) {
    ASSERT_TRUE(m_pScanner->Initialize().IsSuccess());
    (void)m_pScanner->AddFilterItem("*.late");  // after finalization: never applied
  }
  const std::string strPath = (testCase.bOnShm ? *m_pShm : m_tmp).Path(testCase.szPath);
  EXPECT_EQ(m_pScanner->IsItemValidContent(strPath), testCase.bExpected) << strPath;
}

INSTANTIATE_TEST_SUITE_P(
    Paths, BasicScannerValidContent,
    ::testing::Values(SValidContentCase{"BeforeInitializeAnything", false, false, "elsewhere/x.tmp", true},
                      SValidContentCase{"ContentFile", true, false, "content/a.txt", true},
                      SValidContentCase{"OutsideContent", true, false, "elsewhere/a.txt", false},
                      SValidContentCase{"SecondUnitsContent", true, true, "content/a.txt", false},
                      SValidContentCase{"FilterException", true, false, "content/keep.tmp", true},
                      SValidContentCase{"SystemFiltered", true, false, "content/sys/x", false},
                      SValidContentCase{"SystemFilterException", true, false, "content/sys/keep/x", true},
                      SValidContentCase{"FilterAddedAfterInitialize", true, false, "content/x.late", true}),
    [](const auto& info) { return std::string(info.param.szName); });

// The diagnostic dump: made while the threads are created only above log level 3, and on
// request whatever the level.
struct SDiagnosticCase {
  const char* szName;
  int iLogLevel;
  bool bRequestDump;
  size_t nDumpsPerMedium;
};

class BasicScannerDiagnostics : public BasicScannerFixture,
                                public ::testing::WithParamInterface<SDiagnosticCase> {};

TEST_P(BasicScannerDiagnostics, DumpsEveryMediumFollowedByABlankLine) {
  const SDiagnosticCase& testCase = GetParam();
  AddBothContents();
  if (IsSkipped() || HasFatalFailure()) return;
  m_pLog->SetLevel(testCase.iLogLevel);
  auto pDiagnostics = std::make_shared<CMemoryLineWriter>();
  (void)m_pScanner->SetDiagnosticWriter(pDiagnostics);
  auto pRecord = std::make_shared<SEngineRecord>();
  m_pScanner->GetPrivate()->SetScanEngineFactory([pRecord] { return std::make_shared<CStubEngine>(pRecord, CQiError()); });
  ASSERT_TRUE(m_pScanner->Start().IsSuccess());
  ASSERT_TRUE(m_pScanner->WaitForScanToComplete().IsSuccess());
  if (testCase.bRequestDump) { ASSERT_TRUE(m_pScanner->DumpDiagnosticData().IsSuccess()); }

  // Each medium's dump starts with its line and ends with a blank one: "M" and "_" below.
  std::string strShape;
  for (const std::string& strLine : pDiagnostics->GetLines())
    if (strLine.rfind("PhysicalMediaWorkUnit=", 0) == 0 || strLine == " ") strShape += strLine == " " ? "_" : "M";
  std::string strExpected;
  for (size_t i = 0; i < 2 * testCase.nDumpsPerMedium; ++i) strExpected += "M_";
  EXPECT_EQ(strShape, strExpected);
  EXPECT_TRUE(strExpected.empty() || pDiagnostics->GetLines().back() == " ");
}

INSTANTIATE_TEST_SUITE_P(Levels, BasicScannerDiagnostics,
                         ::testing::Values(SDiagnosticCase{"Level3NoDump", 3, false, 0},
                                           SDiagnosticCase{"Level3OnRequest", 3, true, 1},
                                           SDiagnosticCase{"Level4AtStartAndOnRequest", 4, true, 2}),
                         [](const auto& info) { return std::string(info.param.szName); });

}  // namespace
