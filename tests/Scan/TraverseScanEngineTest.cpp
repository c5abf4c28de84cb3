// The Traverse scan engine on real temporary trees: its configuration from the bags, the refused
// item path and one output handler per volume across all surfaces of a work unit. (Its item set
// is compared with find's in the FindFirst engines' suite.)
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "Scan/TraverseScanEngine.h"
#include "TraversalTestSupport.h"

using namespace TraversalTestSupport;

namespace {

// The item path is refused: the engine scans whole work units only.
TEST(TraverseScanEngineItemPath, IsRefused) {
  CTraverseScanEngine engine;
  for (const auto& [error, uCode, szText] :
       {std::tuple{engine.OpenOutputHandler("/"), 1359u, "does not support output handlers at this level"},
        std::tuple{engine.CloseOutputHandler(), 1359u, "does not support output handlers at this level"},
        std::tuple{engine.ScanQueryCallback(nullptr), 50u, "does not support callbacks at this level"}}) {
    EXPECT_TRUE(error.IsWin32(uCode)) << error.AsString();
    EXPECT_NE(error.AsString().find(szText), std::string::npos) << error.AsString();
  }
}

// The number of workers and the cross-OS switch from the scanner's and the unit's bags.
struct SConfigCase {
  const char* szName;
  bool bScannerBag;
  int iScannerMaxWorkers, iUnitMaxWorkers;  // 0: absent
  int iCrossOS;                             // -1: absent
  bool bAbortEventSet;
  int iWorkers;  // as logged
  size_t nCrossOSLines;
  uint32_t uExpectedCode;
};

const SConfigCase kConfigCases[] = {
    {"NoBagUsesDefaults", false, 0, 3, -1, false, 1, 0, 0},
    {"ScannerMaxWorkers", true, 2, 0, -1, false, 2, 0, 0},
    {"WorkUnitMaxWorkersWins", true, 2, 3, -1, false, 3, 0, 0},
    {"CrossOSLogged", true, 0, 0, 1, false, 1, 1, 0},
    {"AbortEventEndsTheScan", true, 2, 0, 0, true, 2, 1, 995},
};

class TraverseScanEngineConfig : public ::testing::TestWithParam<SConfigCase> {};

TEST_P(TraverseScanEngineConfig, AppliesTheBags) {
  const SConfigCase& c = GetParam();
  CLogCapture log(1);
  CTempTree tree;
  tree.MakeFile("a/b/c", "x");
  auto pCallback = std::make_shared<CTestCallback>();
  CTraverseScanEngine engine;
  ASSERT_TRUE(engine.SetScannerCallback(pCallback).IsSuccess());
  if (c.bScannerBag) {
    auto pBag = std::make_shared<CBag>();
    if (c.iScannerMaxWorkers != 0) (void)pBag->Write("MaxWorkers", c.iScannerMaxWorkers);
    if (c.iCrossOS >= 0) (void)pBag->Write("CrossOSNFSBackup", c.iCrossOS != 0);
    (void)pBag->WriteAny("AbortEvent:Scanner", std::any(FXEvent::Create(FXEvent::EResetMode::Manual, c.bAbortEventSet)));
    ASSERT_TRUE(engine.SetScannerConfigurationBag(pBag).IsSuccess());
  }
  CWorkUnitPtr pUnit = MakeUnit({tree.Root()});
  if (c.iUnitMaxWorkers != 0) (void)pUnit->GetBag()->Write("MaxWorkers", c.iUnitMaxWorkers);

  CQiError error = engine.ProcessWorkUnit(pUnit);

  EXPECT_EQ(error.GetCode(), c.uExpectedCode) << error.AsString();
  EXPECT_EQ(pCallback->m_pHandler->Records().size(), c.uExpectedCode ? 0u : 3u);
  EXPECT_EQ(log->CountContaining("[" + std::to_string(c.iWorkers) + "] Worker threads will be created."), 1u);
  EXPECT_EQ(log->CountContaining("CrossOSNFSBackup=["), c.nCrossOSLines);
  EXPECT_EQ(log->CountContaining("Processing work unit by surface (1 surfaces)"), 1u);
}

INSTANTIATE_TEST_SUITE_P(Bags, TraverseScanEngineConfig, ::testing::ValuesIn(kConfigCases),
                         [](const auto& info) { return std::string(info.param.szName); });

// ---- one output handler per volume ----

// A volume handler as a caller might write it: Initialize starts the volume afresh, Complete
// takes the volume's items as final. It records every call in order.
class CVolumeHandler : public COutputHandler {
 public:
  CQiError Initialize() override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_vEvents.push_back("Initialize");
    m_vItems.clear();
    return m_uInitializeFails ? QI_ERROR_WIN32(m_uInitializeFails, "cannot start volume") : CQiError();
  }
  CQiError Complete() override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_vEvents.push_back("Complete");
    m_vFinal = m_vItems;
    std::sort(m_vFinal.begin(), m_vFinal.end());
    return m_uCompleteFails ? QI_ERROR_WIN32(m_uCompleteFails, "cannot finish volume") : CQiError();
  }
  CQiError OnItem(CItemPtr pItem) override {
    const std::string strPath = pItem->GetSourceFullyQualifiedItemName();
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_vEvents.push_back(strPath);
      m_vItems.push_back(strPath);
    }
    if (m_fnOnItem) m_fnOnItem(strPath);
    return CQiError();
  }

  uint32_t m_uInitializeFails = 0, m_uCompleteFails = 0;
  std::function<void(const std::string&)> m_fnOnItem;
  std::mutex m_mutex;
  std::vector<std::string> m_vEvents, m_vItems, m_vFinal;  // m_vFinal: sorted, as completed
};

// Hands out the volume handler (none when it is empty).
class CVolumeCallback : public CTestCallback {
 public:
  CQiError GetOutputHandler(const std::string&, COutputHandlerPtr& pHandler) override {
    ++m_iHandlerRequests;
    pHandler = m_pVolumeHandler;
    return CQiError();
  }
  std::shared_ptr<CVolumeHandler> m_pVolumeHandler = std::make_shared<CVolumeHandler>();
};

enum class EVolumeFault { None, SecondSurfaceMissing, AbortInSecondSurface, InitializeFails, CompleteFails, Unconfigured };

struct SVolumeCase {
  const char* szName;
  EVolumeFault eFault;
  int iWorkers;
  int iErrNo;          // expected errno failure, or
  uint32_t uWin32;     // expected Win32 failure (both 0: success)
  const char* szText;  // in the error's text, or in the log on success
  int iOpened;         // Initialize and Complete calls expected (each)
  bool bAllSurfaces;   // the completed volume holds the items of all three surfaces
};

const SVolumeCase kVolumeCases[] = {
    {"AllSurfacesOneWorker", EVolumeFault::None, 1, 0, 0, nullptr, 1, true},
    {"AllSurfacesThreeWorkers", EVolumeFault::None, 3, 0, 0, nullptr, 1, true},
    {"SecondSurfaceMissing", EVolumeFault::SecondSurfaceMissing, 2, ENOENT, 0, "Traverse failed, LocalVolumeName=[/]", 1, false},
    {"AbortInSecondSurface", EVolumeFault::AbortInSecondSurface, 2, 0, 995, "Operation aborted", 1, false},
    // Never opened, so never completed; nothing is traversed.
    {"InitializeFails", EVolumeFault::InitializeFails, 2, 0, 5, "Output handler Initialize failed", 0, false},
    {"CompleteFails", EVolumeFault::CompleteFails, 2, 0, 6, "Output handler Complete failed", 1, true},
    {"Unconfigured", EVolumeFault::Unconfigured, 2, 0, 0, "Output handler is unconfigured", 0, false},
};

class TraverseScanEngineVolumeHandler : public ::testing::TestWithParam<SVolumeCase> {};

TEST_P(TraverseScanEngineVolumeHandler, OpenedOnceForAllSurfaces) {
  const SVolumeCase& c = GetParam();
  CLogCapture log(1);
  CTempTree tree;
  for (const char* szFile : {"s1/f1", "s1/f2", "s2/sub/f3", "s3/f4"}) tree.MakeFile(szFile);
  auto pCallback = std::make_shared<CVolumeCallback>();
  const std::shared_ptr<CVolumeHandler> pHandler = pCallback->m_pVolumeHandler;
  if (c.eFault == EVolumeFault::InitializeFails) pHandler->m_uInitializeFails = 5;
  if (c.eFault == EVolumeFault::CompleteFails) pHandler->m_uCompleteFails = 6;
  if (c.eFault == EVolumeFault::AbortInSecondSurface) {
    pHandler->m_fnOnItem = [&, strSecond = tree.Path("s2/")](const std::string& strPath) {
      if (strPath.rfind(strSecond, 0) == 0) (void)pCallback->Abort();
    };
  }
  if (c.eFault == EVolumeFault::Unconfigured) pCallback->m_pVolumeHandler.reset();
  const bool bMissing = c.eFault == EVolumeFault::SecondSurfaceMissing;
  CWorkUnitPtr pUnit = MakeUnit({tree.Path("s1"), tree.Path(bMissing ? "gone" : "s2"), tree.Path("s3")});
  ASSERT_TRUE(pUnit && pUnit->GetBag()->Write("MaxWorkers", c.iWorkers).IsSuccess());
  CTraverseScanEngine engine;
  ASSERT_TRUE(engine.SetScannerCallback(pCallback).IsSuccess());

  CQiError error = engine.ProcessWorkUnit(pUnit);

  EXPECT_TRUE(c.iErrNo ? error.IsErrNo(c.iErrNo) : c.uWin32 ? error.IsWin32(c.uWin32) : error.IsSuccess())
      << error.AsString();
  if (c.szText != nullptr && error.IsError()) {
    EXPECT_NE(error.AsString().find(c.szText), std::string::npos) << error.AsString();
  } else if (c.szText != nullptr) {
    EXPECT_EQ(log->CountContaining(c.szText), 1u) << c.szText;
  }
  EXPECT_EQ(pCallback->m_iHandlerRequests.load(), 1);
  const std::vector<std::string>& lstEvents = pHandler->m_vEvents;
  const auto Count = [&](const char* szEvent) { return std::count(lstEvents.begin(), lstEvents.end(), szEvent); };
  EXPECT_EQ(Count("Initialize"), c.eFault == EVolumeFault::InitializeFails ? 1 : c.iOpened);
  EXPECT_EQ(Count("Complete"), c.iOpened);
  if (c.iOpened == 1) {
    // Every item of every surface lies between the one Initialize and the one Complete.
    EXPECT_EQ(lstEvents.front() + " " + lstEvents.back(), "Initialize Complete");
  } else {
    EXPECT_EQ(lstEvents.size(), static_cast<size_t>(Count("Initialize"))) << "items were delivered";
  }
  const std::vector<std::string>& lstFinal = pHandler->m_vFinal;
  if (c.bAllSurfaces) {
    const STokens tokens{{{"%R", tree.Root()}}};
    EXPECT_EQ(lstFinal, tokens(std::vector<std::string>{"%R/s1/f1", "%R/s1/f2", "%R/s2/sub", "%R/s2/sub/f3", "%R/s3/f4"}));
  } else if (c.iOpened == 1) {
    // The scan stopped at the second surface: the third was never traversed.
    EXPECT_NE(std::find(lstFinal.begin(), lstFinal.end(), tree.Path("s1/f1")), lstFinal.end());
    EXPECT_EQ(std::find(lstFinal.begin(), lstFinal.end(), tree.Path("s3/f4")), lstFinal.end());
  }
}

INSTANTIATE_TEST_SUITE_P(Surfaces, TraverseScanEngineVolumeHandler, ::testing::ValuesIn(kVolumeCases),
                         [](const auto& info) { return std::string(info.param.szName); });

}  // namespace
