// The Traverse scan engine on real temporary trees: its configuration from the bags, the refused
// item path, one output handler per volume across all surfaces of a work unit, and the exact item
// set, which must be the FindFirst engine's, byte for byte.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Platform/FXErrorUtil.h"
#include "Scan/FindFirstScanEngine.h"
#include "Scan/ScannerConfigurationBagId.h"
#include "Scan/TraverseScanEngine.h"
#include "Support/TempTree.h"
#include "TraversalTestSupport.h"

using namespace TraversalTestSupport;

namespace {

CWorkUnitPtr MakeUnit(const std::string& strPath) {
  auto pUnit = std::make_shared<CWorkUnit>();
  pUnit->SetLocalVolumeName("/");
  pUnit->SetSourceVolumeName("/");
  pUnit->AddScanPath(std::make_shared<CScanPath>(strPath, strPath));
  if (pUnit->AddScanContentItem(strPath).IsError()) return nullptr;
  return pUnit;
}

// ---- the refused item path ----

TEST(TraverseScanEngineItemPath, IsRefused) {
  CTraverseScanEngine engine;
  const struct {
    CQiError error;
    uint32_t uCode;
    const char* szText;
  } kRows[] = {
      {engine.OpenOutputHandler("/"), 1359, "does not support output handlers at this level"},
      {engine.CloseOutputHandler(), 1359, "does not support output handlers at this level"},
      {engine.ScanQueryCallback(nullptr), 50, "does not support callbacks at this level"},
  };
  for (const auto& row : kRows) {
    EXPECT_TRUE(row.error.IsWin32(row.uCode)) << row.error.AsString();
    EXPECT_NE(row.error.AsString().find(row.szText), std::string::npos) << row.error.AsString();
  }
  EXPECT_EQ(engine.getDescription(), "Traverse");
}

// ---- configuration ----

struct SConfigCase {
  const char* szName;
  bool bScannerBag;
  int iScannerMaxWorkers;  // 0: absent
  int iUnitMaxWorkers;     // 0: absent
  int iCrossOS;            // -1: absent
  bool bAbortEventSet;
  const char* szWorkersLine;
  size_t nCrossOSLines;
  uint32_t uExpectedCode;
};

const SConfigCase kConfigCases[] = {
    {"NoBagUsesDefaults", false, 0, 3, -1, false, "[1] Worker threads will be created.", 0, 0},
    {"ScannerMaxWorkers", true, 2, 0, -1, false, "[2] Worker threads will be created.", 0, 0},
    {"WorkUnitMaxWorkersWins", true, 2, 3, -1, false, "[3] Worker threads will be created.", 0, 0},
    {"CrossOSLogged", true, 0, 0, 1, false, "[1] Worker threads will be created.", 1, 0},
    {"AbortEventEndsTheScan", true, 2, 0, 0, true, "[2] Worker threads will be created.", 1, 995},
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
    if (c.iScannerMaxWorkers != 0) {
      ASSERT_TRUE(pBag->Write("MaxWorkers", c.iScannerMaxWorkers).IsSuccess());
    }
    if (c.iCrossOS >= 0) {
      ASSERT_TRUE(pBag->Write("CrossOSNFSBackup", c.iCrossOS != 0).IsSuccess());
    }
    auto pEvent = FXEvent::Create(FXEvent::EResetMode::Manual, c.bAbortEventSet);
    ASSERT_TRUE(pBag->WriteAny("AbortEvent:Scanner", std::any(pEvent)).IsSuccess());
    ASSERT_TRUE(engine.SetScannerConfigurationBag(pBag).IsSuccess());
  }
  CWorkUnitPtr pUnit = MakeUnit(tree.Root());
  ASSERT_TRUE(pUnit);
  if (c.iUnitMaxWorkers != 0) {
    ASSERT_TRUE(pUnit->GetBag()->Write("MaxWorkers", c.iUnitMaxWorkers).IsSuccess());
  }

  CQiError error = engine.ProcessWorkUnit(pUnit);
  if (c.uExpectedCode == 0) {
    EXPECT_TRUE(error.IsSuccess()) << error.AsString();
    EXPECT_EQ(pCallback->m_pHandler->Records().size(), 3u);
  } else {
    EXPECT_TRUE(error.IsWin32(c.uExpectedCode)) << error.AsString();
  }
  EXPECT_EQ(log->CountContaining(c.szWorkersLine), 1u);
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
    if (m_uInitializeFails != 0) return QI_ERROR_WIN32(m_uInitializeFails, "cannot start volume");
    return CQiError();
  }
  CQiError Complete() override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_vEvents.push_back("Complete");
    m_vFinal = m_vItems;
    if (m_uCompleteFails != 0) return QI_ERROR_WIN32(m_uCompleteFails, "cannot finish volume");
    return CQiError();
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
  std::vector<std::string> Events() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_vEvents;
  }
  // The items that the volume held when it was completed, sorted.
  std::vector<std::string> Final() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> lstFinal = m_vFinal;
    std::sort(lstFinal.begin(), lstFinal.end());
    return lstFinal;
  }

  uint32_t m_uInitializeFails = 0;
  uint32_t m_uCompleteFails = 0;
  std::function<void(const std::string&)> m_fnOnItem;

 private:
  mutable std::mutex m_mutex;
  std::vector<std::string> m_vEvents;
  std::vector<std::string> m_vItems;
  std::vector<std::string> m_vFinal;
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

enum class EVolumeFault { None, SecondSurfaceMissing, AbortInSecondSurface, InitializeFails,
                          CompleteFails, Unconfigured };

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
    {"SecondSurfaceMissing", EVolumeFault::SecondSurfaceMissing, 2, ENOENT, 0,
     "Traverse failed, LocalVolumeName=[/]", 1, false},
    {"AbortInSecondSurface", EVolumeFault::AbortInSecondSurface, 2, 0, 995, "Operation aborted", 1,
     false},
    // Never opened, so never completed; nothing is traversed.
    {"InitializeFails", EVolumeFault::InitializeFails, 2, 0, 5, "Output handler Initialize failed",
     0, false},
    {"CompleteFails", EVolumeFault::CompleteFails, 2, 0, 6, "Output handler Complete failed", 1,
     true},
    {"Unconfigured", EVolumeFault::Unconfigured, 2, 0, 0, "Output handler is unconfigured", 0,
     false},
};

void PrintTo(const SVolumeCase& c, std::ostream* pStream) { *pStream << c.szName; }

class TraverseScanEngineVolumeHandler : public ::testing::TestWithParam<SVolumeCase> {};

TEST_P(TraverseScanEngineVolumeHandler, OpenedOnceForAllSurfaces) {
  const SVolumeCase& c = GetParam();
  CLogCapture log(1);
  CTempTree tree;
  tree.MakeFile("s1/f1", "1");
  tree.MakeFile("s1/f2", "2");
  tree.MakeFile("s2/sub/f3", "3");
  tree.MakeFile("s3/f4", "4");
  auto pCallback = std::make_shared<CVolumeCallback>();
  CVolumeHandler& handler = *pCallback->m_pVolumeHandler;
  if (c.eFault == EVolumeFault::InitializeFails) handler.m_uInitializeFails = 5;
  if (c.eFault == EVolumeFault::CompleteFails) handler.m_uCompleteFails = 6;
  if (c.eFault == EVolumeFault::AbortInSecondSurface) {
    const std::string strSecond = tree.Path("s2/");
    handler.m_fnOnItem = [&, strSecond](const std::string& strPath) {
      if (strPath.rfind(strSecond, 0) == 0) (void)pCallback->Abort();
    };
  }
  std::shared_ptr<CVolumeHandler> pHandler = pCallback->m_pVolumeHandler;
  if (c.eFault == EVolumeFault::Unconfigured) pCallback->m_pVolumeHandler.reset();

  auto pUnit = std::make_shared<CWorkUnit>();
  pUnit->SetLocalVolumeName("/");
  pUnit->SetSourceVolumeName("/");
  for (const char* szSurface : {"s1", "s2", "s3"}) {
    const std::string strPath =
        tree.Path(c.eFault == EVolumeFault::SecondSurfaceMissing && szSurface[1] == '2' ? "gone"
                                                                                         : szSurface);
    pUnit->AddScanPath(std::make_shared<CScanPath>(strPath, strPath));
    ASSERT_TRUE(pUnit->AddScanContentItem(strPath).IsSuccess());
  }
  ASSERT_TRUE(pUnit->GetBag()->Write("MaxWorkers", c.iWorkers).IsSuccess());
  CTraverseScanEngine engine;
  ASSERT_TRUE(engine.SetScannerCallback(pCallback).IsSuccess());

  CQiError error = engine.ProcessWorkUnit(pUnit);

  if (c.iErrNo != 0) {
    EXPECT_TRUE(error.IsErrNo(c.iErrNo)) << error.AsString();
  } else if (c.uWin32 != 0) {
    EXPECT_TRUE(error.IsWin32(c.uWin32)) << error.AsString();
  } else {
    EXPECT_TRUE(error.IsSuccess()) << error.AsString();
  }
  if (c.szText != nullptr) {
    if (error.IsError()) {
      EXPECT_NE(error.AsString().find(c.szText), std::string::npos) << error.AsString();
    } else {
      EXPECT_EQ(log->CountContaining(c.szText), 1u) << c.szText;
    }
  }
  EXPECT_EQ(pCallback->m_iHandlerRequests.load(), 1);
  const std::vector<std::string> lstEvents = pHandler->Events();
  const auto Count = [&](const char* szEvent) {
    return std::count(lstEvents.begin(), lstEvents.end(), std::string(szEvent));
  };
  EXPECT_EQ(Count("Initialize"), c.eFault == EVolumeFault::InitializeFails ? 1 : c.iOpened);
  EXPECT_EQ(Count("Complete"), c.iOpened);
  if (c.iOpened == 1) {
    // Every item of every surface lies between the one Initialize and the one Complete.
    EXPECT_EQ(lstEvents.front(), "Initialize");
    EXPECT_EQ(lstEvents.back(), "Complete");
  } else {
    EXPECT_EQ(lstEvents.size(), static_cast<size_t>(Count("Initialize"))) << "items were delivered";
  }
  if (c.bAllSurfaces) {
    EXPECT_EQ(pHandler->Final(),
              (std::vector<std::string>{tree.Path("s1/f1"), tree.Path("s1/f2"), tree.Path("s2/sub"),
                                        tree.Path("s2/sub/f3"), tree.Path("s3/f4")}));
  } else if (c.iOpened == 1) {
    // The scan stopped at the second surface: the third was never traversed.
    const std::vector<std::string> lstFinal = pHandler->Final();
    EXPECT_NE(std::find(lstFinal.begin(), lstFinal.end(), tree.Path("s1/f1")), lstFinal.end());
    EXPECT_EQ(std::find(lstFinal.begin(), lstFinal.end(), tree.Path("s3/f4")), lstFinal.end());
  }
}

INSTANTIATE_TEST_SUITE_P(Surfaces, TraverseScanEngineVolumeHandler,
                         ::testing::ValuesIn(kVolumeCases),
                         [](const auto& info) { return std::string(info.param.szName); });

// ---- the exact item set, as an unprivileged user ----

struct SExactRun {
  int iWorkers;
  std::string strRoot;
  std::string strOut;
};

// One engine's result as bytes: its sorted items (path, size, mode) and sorted failure lines.
std::string RunEngine(CScanEngine& engine, const SExactRun& run, const std::string& strTag,
                      int& iStatus) {
  auto pCallback = std::make_shared<CTestCallback>();
  pCallback->UseFailuresFile(run.strOut + "/failures-" + strTag);
  (void)engine.SetScannerCallback(pCallback);
  CWorkUnitPtr pUnit = MakeUnit(run.strRoot);
  if (!pUnit || pUnit->GetBag()->Write(SXScannerConfigurationBagId::idMaxWorkers, run.iWorkers).IsError() ||
      pUnit->AddFilterItem("*.tmp").IsError() || pUnit->AddFilterItem(run.strRoot + "/skipme").IsError()) {
    iStatus = 1;
    return "";
  }
  if (engine.ProcessWorkUnit(pUnit).IsError()) iStatus = 2;
  std::vector<std::string> lstLines;
  for (const SRecord& record : pCallback->m_pHandler->Records())
    lstLines.push_back(record.strPath + '\0' + std::to_string(record.ullSize) + ' ' +
                       std::to_string(record.uMode));
  std::sort(lstLines.begin(), lstLines.end());
  std::vector<std::string> lstFailures = pCallback->FailureLines();
  std::sort(lstFailures.begin(), lstFailures.end());
  std::string strAll;
  for (const std::string& strLine : lstLines) strAll += strLine + '\n';
  strAll += "--failures--\n";
  for (const std::string& strLine : lstFailures) strAll += strLine + '\n';
  return strAll;
}

int ScanBothAsNobody(void* pArg) {
  const SExactRun& run = *static_cast<const SExactRun*>(pArg);
  int iStatus = 0;
  CFindFirstScanEngine findFirst;
  CTraverseScanEngine traverse;
  const std::string strFF = RunEngine(findFirst, run, "ff", iStatus);
  const std::string strTR = RunEngine(traverse, run, "tr", iStatus);
  for (const auto& [strName, strBytes] : {std::pair{"ff", strFF}, std::pair{"tr", strTR}}) {
    std::ofstream file(run.strOut + "/" + strName, std::ios::binary);
    file << strBytes;
  }
  return iStatus;
}

std::string ReadAll(const std::string& strPath) {
  std::ifstream file(strPath, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

class TraverseScanEngineExactSet : public ::testing::TestWithParam<int> {};

TEST_P(TraverseScanEngineExactSet, EqualsTheFindFirstEngine) {
  CTempTree tree, out;
  const std::string strOut = out.MakeDir("o", 0777);
  for (const std::string& strName : AwkwardNames()) {
    tree.MakeFile("files/" + strName, "12345");
    tree.MakeFile("dir " + strName + "/inner " + strName, "x");
    tree.MakeSymlink("links/" + strName, tree.Path("files/" + strName));
  }
  tree.MakeSymlink("folder link", tree.Path("files"));  // never followed
  tree.MakeSymlink("dangling", "/nonexistent/target");
  tree.MakeFifo("pipe");
  tree.MakeFile("deep/a/b/c/d/e/f.txt", std::string(10000, 'z'));
  tree.MakeFile("excluded.tmp");
  tree.MakeFile("skipme/hidden");
  tree.MakeFile("locked/secret");
  chmod(tree.Path("locked").c_str(), 0);

  SExactRun run{GetParam(), tree.Root(), strOut};
  ASSERT_EQ(RunAsNobody(ScanBothAsNobody, &run), 0);
  const std::string strFF = ReadAll(strOut + "/ff");
  const std::string strTR = ReadAll(strOut + "/tr");
  EXPECT_EQ(strTR, strFF);
  EXPECT_NE(strTR.find(tree.Path("files/new\nline")), std::string::npos);
  EXPECT_NE(strTR.find(tree.Path("pipe")), std::string::npos);
  EXPECT_EQ(strTR.find(tree.Path("folder link/")), std::string::npos);
  // The unreadable folder is reported, listed as itself, and recorded as a failure.
  const std::string strFailures = strTR.substr(strTR.find("--failures--"));
  EXPECT_NE(strFailures.find(tree.Path("locked")), std::string::npos) << strFailures;
}

INSTANTIATE_TEST_SUITE_P(Workers, TraverseScanEngineExactSet, ::testing::Values(1, 4),
                         [](const auto& info) { return std::to_string(info.param) + "Workers"; });

}  // namespace
