// The Traverse scan engine on real temporary trees: its configuration from the bags, the refused
// item path and one output handler per volume across all surfaces of a work unit. (Its item set
// is compared with find's in the FindFirst engines' suite.)
#include <gtest/gtest.h>
#include <sys/stat.h>

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
  EXPECT_EQ(engine.getDescription(), "Traverse");
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

// ---- one output handler per volume, opened once for all surfaces of a work unit ----

enum class EVolumeFault { None, SecondSurfaceMissing, AbortInSecondSurface, InitializeFails, CompleteFails, Unconfigured };

struct SVolumeCase {
  const char* szName;
  EVolumeFault eFault;
  int iWorkers;
  int iErrNo;          // expected errno failure, or
  uint32_t uWin32;     // expected Win32 failure (both 0: success)
  const char* szText;  // in the error's text, or in the log on success
  std::vector<std::string> lstEvents;  // of the handler; "@N": after N items
  bool bAllSurfaces;   // the items of all three surfaces were delivered
};

const SVolumeCase kVolumeCases[] = {
    {"AllSurfacesOneWorker", EVolumeFault::None, 1, 0, 0, nullptr, {"Initialize@0", "Complete@5"}, true},
    {"AllSurfacesThreeWorkers", EVolumeFault::None, 3, 0, 0, nullptr, {"Initialize@0", "Complete@5"}, true},
    {"SecondSurfaceMissing", EVolumeFault::SecondSurfaceMissing, 2, ENOENT, 0, "Traverse failed, LocalVolumeName=[/]",
     {"Initialize@0", "Complete@2"}, false},
    {"AbortInSecondSurface", EVolumeFault::AbortInSecondSurface, 2, 0, 995, "Operation aborted",
     {"Initialize@0", "Complete@"}, false},
    // Never opened, so never completed; nothing is traversed.
    {"InitializeFails", EVolumeFault::InitializeFails, 2, 0, 5, "Output handler Initialize failed", {"Initialize@0"}, false},
    {"CompleteFails", EVolumeFault::CompleteFails, 2, 0, 6, "Output handler Complete failed",
     {"Initialize@0", "Complete@5"}, true},
    {"Unconfigured", EVolumeFault::Unconfigured, 2, 0, 0, "Output handler is unconfigured", {}, false},
};

class TraverseScanEngineVolumeHandler : public ::testing::TestWithParam<SVolumeCase> {};

TEST_P(TraverseScanEngineVolumeHandler, OpenedOnceForAllSurfaces) {
  const SVolumeCase& c = GetParam();
  CLogCapture log(1);
  CTempTree tree;
  for (const char* szFile : {"s1/f1", "s1/f2", "s2/sub/f3", "s3/f4"}) tree.MakeFile(szFile);
  auto pCallback = std::make_shared<CTestCallback>();
  const std::shared_ptr<CRecordingHandler> pHandler = pCallback->m_pHandler;
  pHandler->m_uInitializeFails = c.eFault == EVolumeFault::InitializeFails ? 5 : 0;
  pHandler->m_uCompleteFails = c.eFault == EVolumeFault::CompleteFails ? 6 : 0;
  if (c.eFault == EVolumeFault::AbortInSecondSurface) {
    pHandler->m_fnHook = [&, strSecond = tree.Path("s2/")](const CItemPtr& pItem) {
      if (pItem->GetSourceFullyQualifiedItemName().rfind(strSecond, 0) == 0) (void)pCallback->Abort();
    };
  }
  if (c.eFault == EVolumeFault::Unconfigured) pCallback->m_pHandler.reset();
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
  // Every item of every surface lies between the one Initialize and the one Complete.
  std::vector<std::string> lstEvents = pHandler->m_vEvents;
  if (c.eFault == EVolumeFault::AbortInSecondSurface && lstEvents.size() == 2) lstEvents[1].resize(lstEvents[1].find('@') + 1);
  EXPECT_EQ(lstEvents, c.lstEvents);
  const std::multiset<std::string> setPaths = Bag(pHandler->Paths());
  const STokens tokens{{{"%R", tree.Root()}}};
  if (c.bAllSurfaces) {
    EXPECT_EQ(setPaths, Bag(tokens(std::vector<std::string>{"%R/s1/f1", "%R/s1/f2", "%R/s2/sub", "%R/s2/sub/f3", "%R/s3/f4"})));
  } else if (c.lstEvents.size() == 2) {
    // The scan stopped at the second surface: the third was never traversed.
    EXPECT_EQ(setPaths.count(tree.Path("s1/f1")), 1u);
    EXPECT_EQ(setPaths.count(tree.Path("s3/f4")), 0u);
  }
}

INSTANTIATE_TEST_SUITE_P(Surfaces, TraverseScanEngineVolumeHandler, ::testing::ValuesIn(kVolumeCases),
                         [](const auto& info) { return std::string(info.param.szName); });

}  // namespace
