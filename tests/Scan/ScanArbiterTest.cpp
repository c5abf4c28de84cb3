// The scan arbiter and its scanner threads on real trees split over several fake physical media:
// one scanner per medium at a time, volumes of a medium in order, the engine trial of a work unit
// (first success wins, 50 passes on, OnScannerError's flags, missing content, the errors that end
// the scan with their events), "NC" units, and the fatal empty engine list.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>

#include "Platform/ErrorCodes.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/FXEvent.h"
#include "Platform/FXString.h"
#include "Platform/FileLogWriter.h"
#include "Scan/ScanArbiter.h"
#include "Scan/ScanEngine.h"
#include "Scan/Scanner.h"
#include "Scan/Unix/WorkUnitManager.h"
#include "Support/CoreTestSupport.h"
#include "WorkUnitTestSupport.h"

namespace {

constexpr uint32_t kBoundedWaitMs = 10000;  // safety net only; waits end on a signal

// What a scripted engine answers for a unit: "-" success, "W<code>" a Win32 code, "E<code>" an errno.
CQiError MakeResult(const std::string& strAnswer) {
  if (strAnswer == "-") return CQiError();
  const auto uCode = static_cast<uint32_t>(std::stoul(strAnswer.substr(1)));
  if (strAnswer[0] == 'W') return QI_ERROR_WIN32(uCode, "scripted failure");
  return QI_ERROR_ERRNO(static_cast<int>(uCode), "scripted failure");
}

// Everything the engines of one run note, under one mutex.
struct SJournal {
  std::mutex mutex;
  std::string strCalls;                                // engine names in call order
  std::vector<std::string> lstVolumes;                 // volume of each call, in call order
  std::map<std::string, int> mapActive;                // medium -> engines running on it now
  std::map<std::string, std::vector<std::string>> mapOrder;  // medium -> volumes in start order
  int iActiveTotal = 0;
  int iMaxActiveTotal = 0;
  bool bOverlapOnOneMedium = false;
  std::vector<std::vector<std::string>> lstSurfaces;  // of each call
  std::map<std::string, std::shared_ptr<FXEvent>>* pRendezvous = nullptr;  // medium -> started
  std::atomic<bool> bRendezvousTimedOut{false};
};

// An engine that notes the call and the unit's surfaces, and answers as scripted for
// the first volume of the scan (the others succeed). With a rendezvous set, an engine waits until
// an engine on another medium has started, which proves two media are scanned at once.
class CTestEngine : public CScanEngine {
 public:
  CTestEngine(std::string strName, SJournal& journal, std::string strResult, std::string strScriptedVolume)
      : m_strName(std::move(strName)), m_journal(journal), m_strResult(std::move(strResult)),
        m_strScriptedVolume(std::move(strScriptedVolume)) {}

  std::string getDescription() override { return m_strName; }

  CQiError ProcessWorkUnit(CWorkUnitPtr pUnit) override {
    const std::string strMedium = pUnit->GetPhysicalMediaId();
    const std::string strVolume = pUnit->GetLocalVolumeName();
    {
      std::lock_guard<std::mutex> lock(m_journal.mutex);
      m_journal.strCalls += m_strName;
      m_journal.lstVolumes.push_back(strVolume);
      m_journal.lstSurfaces.push_back(pUnit->GetSurfaceList());
      m_journal.mapOrder[strMedium].push_back(strVolume);
      if (++m_journal.mapActive[strMedium] > 1) m_journal.bOverlapOnOneMedium = true;
      m_journal.iMaxActiveTotal = std::max(m_journal.iMaxActiveTotal, ++m_journal.iActiveTotal);
    }
    if (m_journal.pRendezvous) {
      m_journal.pRendezvous->at(strMedium)->Set();
      for (auto& [strOther, pEvent] : *m_journal.pRendezvous)
        if (strOther != strMedium && pEvent->Wait(kBoundedWaitMs) == FXEvent::EWaitResult::TimedOut)
          m_journal.bRendezvousTimedOut = true;
    }
    {
      std::lock_guard<std::mutex> lock(m_journal.mutex);
      --m_journal.mapActive[strMedium];
      --m_journal.iActiveTotal;
    }
    return MakeResult(strVolume == m_strScriptedVolume ? m_strResult : "-");
  }

 private:
  std::string m_strName;
  SJournal& m_journal;
  std::string m_strResult;
  std::string m_strScriptedVolume;
};

// Gives every scanner engines of its own (an engine is driven by one scanner thread).
class CTestCallback : public CScannerCallback {
 public:
  CTestCallback(SJournal& journal, std::string strScriptedVolume)
      : m_journal(journal), m_strScriptedVolume(std::move(strScriptedVolume)) {}

  CQiError GetScanEngineList(CScanEngineList& lstEngines) override {
    lstEngines.clear();
    for (const auto& [strName, strResult] : m_lstEngines)
      lstEngines.push_back(std::make_shared<CTestEngine>(strName, m_journal, strResult, m_strScriptedVolume));
    return CQiError();
  }
  CQiError OnScannerError(CScanEnginePtr, const CQiError& error, bool& bAbort, bool& bSkip,
                          bool& bTryNext) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lstErrorCodes.push_back(error.GetCode());
    bAbort = m_bAbort;
    bSkip = m_bSkip;
    bTryNext = m_bTryNext;
    return CQiError();
  }
  CQiError Abort() override {
    ++m_iAbortCalls;
    return CScannerCallback::Abort();
  }

  SJournal& m_journal;
  std::string m_strScriptedVolume;
  std::vector<std::pair<std::string, std::string>> m_lstEngines;  // name and answer for mA/v0
  bool m_bAbort = false, m_bSkip = false, m_bTryNext = true;
  std::mutex m_mutex;
  std::vector<uint32_t> m_lstErrorCodes;
  std::atomic<int> m_iAbortCalls{0};
};

// An arbiter whose threads cannot be created: every scanner runs on the calling thread.
class CThreadlessArbiter : public CScanArbiter {
 public:
  using CScanArbiter::CScanArbiter;

 protected:
  CQiError StartScannerThread(ZrThread&, const CScannerPtr&) override {
    return QI_ERROR_ERRNO(EAGAIN, "no thread for this test");
  }
};

// Media "mA", "mB", ... each with its volumes as folders of a temp tree, one work unit per
// volume with the volume folder as scan path, registered in a manager's media map.
class ScanArbiterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_pCallback = std::make_shared<CTestCallback>(m_journal, m_tree.Path("mA/v0"));
  }

  void AddMedia(int iMedia, int iVolumes) {
    for (int m = 0; m < iMedia; ++m) {
      std::string strMedium = std::string("m") + static_cast<char>('A' + m);
      auto pMedia = std::make_shared<CPhysicalMediaWorkUnit>();
      pMedia->SetPhysicalMediaId(strMedium);
      for (int v = 0; v < iVolumes; ++v) {
        std::string strVolume = m_tree.MakeDir(strMedium + "/v" + std::to_string(v));
        auto pVolume = std::make_shared<CVolumeWorkUnit>();
        pVolume->SetLocalVolumeName(strVolume);
        pVolume->SetLocalVolumeUniqueId(strMedium + std::to_string(v));
        auto pUnit = std::make_shared<CWorkUnit>();
        pUnit->SetPhysicalMediaId(strMedium);
        pUnit->SetLocalVolumeName(strVolume);
        pUnit->AddScanPath(std::make_shared<CScanPath>(strVolume, strVolume));
        pVolume->AddWorkUnit(pUnit);
        pMedia->AddVolumeWorkUnit(pVolume);
        m_lstUnits.push_back(pUnit);
      }
      m_manager.GetPhysicalMediaVolumeWorkUnitMap()[strMedium] = pMedia;
    }
  }

  CTempTree m_tree;
  CWorkUnitManager m_manager{7};
  std::vector<CWorkUnitPtr> m_lstUnits;
  SJournal m_journal;
  std::shared_ptr<CTestCallback> m_pCallback;
  CEventCapture m_events;
};

// Whole runs with several scanners over several media.
struct SScheduleCase {
  const char* pszName;
  int iMedia;
  int iVolumes;
  int iScanners;
  bool bThreadless;  // thread creation fails: scanners run on the arbiter's thread
};

class ScanArbiterScheduleTest : public ScanArbiterTest,
                                public ::testing::WithParamInterface<SScheduleCase> {};

TEST_P(ScanArbiterScheduleTest, OneScannerPerMediumVolumesInOrder) {
  const SScheduleCase& c = GetParam();
  CLogCapture log;
  AddMedia(c.iMedia, c.iVolumes);
  m_pCallback->m_lstEngines.emplace_back("A", "-");
  std::map<std::string, std::shared_ptr<FXEvent>> mapRendezvous;
  // Two media and at least two threads: each medium's first engine waits for the other's.
  const bool bRendezvous = c.iMedia == 2 && c.iScanners >= 2 && !c.bThreadless;
  if (bRendezvous) {
    for (const char* psz : {"mA", "mB"}) mapRendezvous[psz] = FXEvent::Create(FXEvent::EResetMode::Manual);
    m_journal.pRendezvous = &mapRendezvous;
  }
  std::unique_ptr<CScanArbiter> pArbiter =
      c.bThreadless ? std::make_unique<CThreadlessArbiter>(7, c.iScanners, m_pCallback)
                    : std::make_unique<CScanArbiter>(7, c.iScanners, m_pCallback);
  ASSERT_TRUE(pArbiter->Run(m_manager).IsSuccess());

  EXPECT_FALSE(m_journal.bOverlapOnOneMedium);
  EXPECT_LE(m_journal.iMaxActiveTotal, std::min(c.iMedia, c.iScanners));
  if (bRendezvous) {
    EXPECT_FALSE(m_journal.bRendezvousTimedOut.load());
    EXPECT_EQ(m_journal.iMaxActiveTotal, 2);
  }
  EXPECT_EQ(m_journal.lstVolumes.size(), static_cast<size_t>(c.iMedia * c.iVolumes));
  for (const auto& [strMedium, lstOrder] : m_journal.mapOrder) {
    std::vector<std::string> lstExpected;
    for (int v = 0; v < c.iVolumes; ++v) lstExpected.push_back(m_tree.Path(strMedium + "/v" + std::to_string(v)));
    EXPECT_EQ(lstOrder, lstExpected) << strMedium;
  }
  for (size_t i = 0; i < m_journal.lstVolumes.size(); ++i)
    EXPECT_EQ(m_journal.lstSurfaces[i], std::vector<std::string>{m_journal.lstVolumes[i]});
  for (const CWorkUnitPtr& pUnit : m_lstUnits) EXPECT_EQ(pUnit->DispositionAsString(), "Processed(A)");
  EXPECT_EQ(log->Count("Falling back to direct scanner execution...", 0),
            c.bThreadless ? static_cast<size_t>(c.iScanners) : 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Schedules, ScanArbiterScheduleTest,
    ::testing::Values(SScheduleCase{"TwoMediaTwoScanners", 2, 3, 2, false},
                      SScheduleCase{"ThreeMediaOneScanner", 3, 2, 1, false},
                      SScheduleCase{"ThreadsCannotBeCreated", 2, 2, 2, true}),
    [](const auto& info) { return std::string(info.param.pszName); });

// The engine trial on the first unit of medium mA (one scanner; mA holds two volumes, the second
// always succeeds unless the scan has ended).
struct STrialCase {
  const char* pszName;
  const char* pszEngines;  // the answers of engines "A", "B", ... for mA/v0, blank-separated
  const char* pszFlags;    // OnScannerError's answer: 'a' abort, 's' skip, 'x' no try-next; 'n' mA/v0 is "NC"
  const char* pszCalls;        // engines called for mA/v0
  const char* pszDisposition;  // of mA/v0
  size_t uOnScannerError;      // OnScannerError calls
  bool bEndsScan;              // Abort called, Run answers 995, mA/v1 never scanned
  size_t uFailedLog;           // "Failed to scan work unit" lines
  size_t uMissingLog;          // content-missing lines
  uint32_t eventId = 0;        // 0: no event
  const char* pszEventText = "";
  const char* pszEventArgs = "";
};

class ScanArbiterTrialTest : public ScanArbiterTest, public ::testing::WithParamInterface<STrialCase> {};

TEST_P(ScanArbiterTrialTest, EngineTrial) {
  const STrialCase& c = GetParam();
  const std::string strFlags = c.pszFlags;
  CLogCapture log;
  AddMedia(1, 2);
  char cName = 'A';
  for (const std::string& strAnswer : FXString::Split(c.pszEngines, ' '))
    m_pCallback->m_lstEngines.emplace_back(std::string(1, cName++), strAnswer);
  m_pCallback->m_bAbort = strFlags.find('a') != std::string::npos;
  m_pCallback->m_bSkip = strFlags.find('s') != std::string::npos;
  m_pCallback->m_bTryNext = strFlags.find('x') == std::string::npos;
  const bool bNoScanUnit = strFlags.find('n') != std::string::npos;
  if (bNoScanUnit) m_lstUnits[0]->SetDisposition(CScanner::kNoScanProcessor, 0);

  CScanArbiter arbiter(7, 1, m_pCallback);
  CQiError error = arbiter.Run(m_manager);

  const std::string strV0 = m_tree.Path("mA/v0");
  std::string strCallsV0;
  for (size_t i = 0; i < m_journal.lstVolumes.size(); ++i)
    if (m_journal.lstVolumes[i] == strV0) strCallsV0 += m_journal.strCalls[i];
  EXPECT_EQ(strCallsV0, c.pszCalls);
  EXPECT_EQ(m_lstUnits[0]->DispositionAsString(), c.pszDisposition);
  EXPECT_EQ(m_pCallback->m_lstErrorCodes.size(), c.uOnScannerError);
  EXPECT_EQ(m_pCallback->m_iAbortCalls.load(), c.bEndsScan ? 1 : 0);
  EXPECT_EQ(error.IsWin32(QiErrorCode::OperationAborted), c.bEndsScan) << error.AsString();
  EXPECT_EQ(error.IsSuccess(), !c.bEndsScan);
  EXPECT_EQ(m_lstUnits[1]->IsSuccessfullyProcessed(), !c.bEndsScan);
  EXPECT_EQ(log->CountContaining("Failed to scan work unit, WorkUnit=[", -1), c.uFailedLog);
  EXPECT_EQ(log->Count("Scanner reported that content is missing or inaccessible, skipping and continuing "
                       "with rest of the content", -1), c.uMissingLog);
  EXPECT_EQ(log->Count("WorkUnit marked completed.", 0), bNoScanUnit ? 1u : 0u);
  std::string strVolumeName;
  EXPECT_EQ(m_lstUnits[0]->GetBag()->Read("VolumeName", strVolumeName).IsSuccess(), !bNoScanUnit);
  EXPECT_EQ(strVolumeName, bNoScanUnit ? "" : strV0);
  std::vector<CEventCapture::SEvent> expected;
  if (c.eventId) expected.push_back({c.eventId, c.pszEventText, c.pszEventArgs});
  EXPECT_EQ(m_events.Events(), expected);
}

INSTANTIATE_TEST_SUITE_P(
    Trials, ScanArbiterTrialTest,
    ::testing::Values(
        STrialCase{"FirstSuccessWins", "- -", "", "A", "Processed(A)", 0, false, 0, 0},
        STrialCase{"NotSupportedPassesOn", "W50 - -", "", "AB", "Processed(B)", 1, false, 0, 0},
        STrialCase{"AllRefuse", "W50 W50", "", "AB", "Failed(B=50)", 2, false, 1, 0},
        STrialCase{"TryNextFalseStopsTrial", "W87 -", "x", "A", "Failed(A=87)", 1, false, 1, 0},
        STrialCase{"SkipStillTriesTheNextEngine", "W87 -", "s", "AB", "Processed(B)", 1, false, 0, 0},
        STrialCase{"SkipAfterEveryEngineIsQuiet", "W87 W50", "s", "AB", "Failed(B=50)", 2, false, 0, 0},
        STrialCase{"AbortFromOnScannerError", "W50 -", "a", "A", "Failed(A=50)", 1, true, 0, 0},
        STrialCase{"EngineAborted", "W995 -", "", "A", "Failed(A=995)", 0, false, 1, 0},
        STrialCase{"ContentMissingErrNo", "E2 -", "", "A", "Failed(A=2)", 0, false, 0, 1},
        STrialCase{"NoContentWin32", "W232 -", "", "A", "Failed(A=232)", 0, false, 0, 1},
        STrialCase{"OutOfMemoryEndsScan", "E12 -", "", "A", "Failed(A=12)", 0, true, 0, 0, 0x11000002u,
                   "File Scan: Memory allocation error while proccessing the directory"},
        STrialCase{"TooManyOpenFilesEndsScan", "E24 -", "", "A", "Failed(A=24)", 0, true, 0, 0, 0x1100008Bu, "",
                   "9, 0"},
        STrialCase{"NoSpaceEndsScan", "E28 -", "", "A", "Failed(A=28)", 0, true, 0, 0, 0x11000002u,
                   "File Scan: No space left on device"},
        STrialCase{"NoScanUnitGoesToNoEngine", "-", "n", "", "Processed(NC)", 0, false, 0, 0}),
    [](const auto& info) { return std::string(info.param.pszName); });

// No engine at all is a misconfiguration the process does not survive.
TEST_F(ScanArbiterTest, EmptyEngineListStopsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  AddMedia(1, 1);
  // The child runs the test again from the start and dies with its own tree in place: that tree
  // is made inside this one, which goes at the end of the test.
  const char* szTmpDir = getenv("TMPDIR");
  const std::string strSavedTmpDir = szTmpDir ? szTmpDir : "";
  setenv("TMPDIR", m_tree.MakeDir("death").c_str(), 1);
  EXPECT_DEATH(
      {
        CLogWriterInterface::SetProcessLogWriter(std::make_shared<CFileLogWriter>(-1));
        CScanArbiter arbiter(7, 1, m_pCallback);
        (void)arbiter.Run(m_manager);
      },
      "No scan engine is configured, stopping the process");
  if (szTmpDir) setenv("TMPDIR", strSavedTmpDir.c_str(), 1); else unsetenv("TMPDIR");
}

}  // namespace
