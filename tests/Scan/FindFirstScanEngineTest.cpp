// The FindFirst engines on real temporary trees: work unit handling, missing and unreadable
// content, and the exact item set compared with find(1), run as an unprivileged user.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Platform/FXPath.h"
#include "Scan/FastFindFirstDeleteScanEngine.h"
#include "Scan/FastFindFirstScanEngine.h"
#include "Scan/FindFirstScanEngine.h"
#include "Scan/ScannerConfigurationBagId.h"
#include "Support/TempTree.h"
#include "TraversalTestSupport.h"

using namespace TraversalTestSupport;

namespace {

enum class EKind { FindFirst, Fast, FastDelete };

CFindFirstScanEnginePtr MakeEngine(EKind eKind, const CScannerCallbackPtr& pCallback) {
  CFindFirstScanEnginePtr pEngine;
  switch (eKind) {
    case EKind::FindFirst: pEngine = std::make_shared<CFindFirstScanEngine>(); break;
    case EKind::Fast: pEngine = std::make_shared<CFastFindFirstScanEngine>(); break;
    case EKind::FastDelete: pEngine = std::make_shared<CFastFindFirstDeleteScanEngine>(); break;
  }
  (void)pEngine->SetScannerCallback(pCallback);
  return pEngine;
}

// A work unit of the root volume whose scan paths (and scan content) are the given paths.
CWorkUnitPtr MakeUnit(const std::vector<std::string>& lstPaths, const std::string& strVolume = "/") {
  auto pUnit = std::make_shared<CWorkUnit>();
  pUnit->SetLocalVolumeName(strVolume);
  pUnit->SetSourceVolumeName(strVolume);
  for (const std::string& strPath : lstPaths) {
    pUnit->AddScanPath(std::make_shared<CScanPath>(strPath, strPath));
    if (pUnit->AddScanContentItem(strPath).IsError()) return nullptr;
  }
  return pUnit;
}

// ---- refusal of the fast variants ----

class FastVariantRefusal : public ::testing::TestWithParam<EKind> {};

TEST_P(FastVariantRefusal, WithoutFolderLevelMultithreadTouchesNothing) {
  CTempTree tree;
  tree.MakeFile("a.txt");
  auto pCallback = std::make_shared<CTestCallback>();
  auto pEngine = MakeEngine(GetParam(), pCallback);
  CWorkUnitPtr pUnit = MakeUnit({tree.Root()});

  CQiError error = pEngine->ProcessWorkUnit(pUnit);

  EXPECT_TRUE(error.IsWin32(50)) << error.AsString();
  EXPECT_EQ(error.GetMessage(), "Folder level multithreading is not enabled");
  EXPECT_EQ(pCallback->m_iHandlerRequests.load(), 0);
  EXPECT_EQ(pUnit->DispositionAsString(), "NotProcessed");
}

INSTANTIATE_TEST_SUITE_P(Variants, FastVariantRefusal,
                         ::testing::Values(EKind::Fast, EKind::FastDelete));

// ---- volume work units ----

TEST(FindFirstVolume, SkipsUnitsAlreadyProcessedAndReportsCompletion) {
  CTempTree tree;
  const std::string strFile = tree.MakeFile("new/a.txt");
  auto pCallback = std::make_shared<CTestCallback>();
  auto pEngine = MakeEngine(EKind::FindFirst, pCallback);
  CWorkUnitPtr pDone = MakeUnit({tree.Path("old")});  // would fail: the folder does not exist
  pDone->SetDisposition("FF", 0);
  CWorkUnitPtr pFresh = MakeUnit({tree.Path("new")});
  auto pVolume = std::make_shared<CVolumeWorkUnit>();
  pVolume->AddWorkUnit(pDone);
  pVolume->AddWorkUnit(pFresh);

  ASSERT_TRUE(pEngine->ProcessVolumeWorkUnit(pVolume).IsSuccess());

  EXPECT_EQ(pCallback->m_iHandlerRequests.load(), 1);
  EXPECT_EQ(pCallback->m_pHandler->Paths(), std::vector<std::string>{strFile});
  EXPECT_EQ(pDone->DispositionAsString(), "Processed(FF)");
  EXPECT_EQ(pFresh->DispositionAsString(), "Processed(FF)");
  EXPECT_EQ(pCallback->m_vCompleted, std::vector<std::string>{"FF|" + tree.Path("new") + "|/"});
}

// Process(): the physical medium's volumes, one after another; an abort ends it.
struct SProcessCase {
  const char* szName;
  // Builds the medium (or none) for the engine.
  CPhysicalMediaWorkUnitPtr (*fnMedium)(CTempTree&, std::vector<CWorkUnitPtr>&);
  bool bAbort;
  uint32_t uWin32;                             // 0: success
  std::vector<std::string> lstDispositions;    // of the units made, in order
  const char* szLogLine;                       // a level -1 line, or null
};

CPhysicalMediaWorkUnitPtr NoMedium(CTempTree&, std::vector<CWorkUnitPtr>&) { return nullptr; }

CPhysicalMediaWorkUnitPtr EmptyMedium(CTempTree&, std::vector<CWorkUnitPtr>&) {
  auto pMedium = std::make_shared<CPhysicalMediaWorkUnit>();
  pMedium->SetPhysicalMediaId("disk0");
  return pMedium;
}

// Two volumes: the first holds a wildcard unit whose volume is missing, the second a real one.
CPhysicalMediaWorkUnitPtr TwoVolumes(CTempTree& tree, std::vector<CWorkUnitPtr>& lstUnits) {
  tree.MakeFile("data/f");
  auto pMedium = std::make_shared<CPhysicalMediaWorkUnit>();
  lstUnits.push_back(MakeUnit({}, tree.Path("missing")));
  lstUnits[0]->SetContainsVolumeWildcardScanPaths();
  lstUnits.push_back(MakeUnit({tree.Path("data")}));
  for (const CWorkUnitPtr& pUnit : lstUnits) {
    auto pVolume = std::make_shared<CVolumeWorkUnit>();
    pVolume->AddWorkUnit(pUnit);
    pMedium->AddVolumeWorkUnit(pVolume);
  }
  return pMedium;
}

// Two volumes, each with a real folder.
CPhysicalMediaWorkUnitPtr TwoRealVolumes(CTempTree& tree, std::vector<CWorkUnitPtr>& lstUnits) {
  auto pMedium = std::make_shared<CPhysicalMediaWorkUnit>();
  for (const char* szFolder : {"one", "two"}) {
    tree.MakeFile(std::string(szFolder) + "/f");
    lstUnits.push_back(MakeUnit({tree.Path(szFolder)}));
    auto pVolume = std::make_shared<CVolumeWorkUnit>();
    pVolume->AddWorkUnit(lstUnits.back());
    pMedium->AddVolumeWorkUnit(pVolume);
  }
  return pMedium;
}

const SProcessCase kProcessCases[] = {
    {"NoMedium", NoMedium, false, 0, {}, "No physical media work unit assigned; nothing to do"},
    {"NoVolumes", EmptyMedium, false, 0, {},
     "No volume work units assigned to this physical media work unit; nothing to do, "
     "PhysicalMediaId=disk0"},
    {"FailedVolumeThenNext", TwoVolumes, false, 0, {"Failed(FF=1627)", "Processed(FF)"}, nullptr},
    {"AbortEndsProcess", TwoRealVolumes, true, 995, {"Failed(FF=995)", "NotProcessed"}, nullptr},
};

class FindFirstProcess : public ::testing::TestWithParam<SProcessCase> {};

TEST_P(FindFirstProcess, WalksTheMediumsVolumes) {
  const SProcessCase& row = GetParam();
  CLogCapture log;
  CTempTree tree;
  auto pCallback = std::make_shared<CTestCallback>();
  auto pEngine = MakeEngine(EKind::FindFirst, pCallback);
  std::vector<CWorkUnitPtr> lstUnits;
  (void)pEngine->SetPhysicalMediaWorkUnit(row.fnMedium(tree, lstUnits));
  if (row.bAbort) (void)pCallback->Abort();

  CQiError error = pEngine->Process();

  EXPECT_EQ(error.GetCode(), row.uWin32) << error.AsString();
  std::vector<std::string> lstDispositions;
  for (const CWorkUnitPtr& pUnit : lstUnits) lstDispositions.push_back(pUnit->DispositionAsString());
  EXPECT_EQ(lstDispositions, row.lstDispositions);
  if (row.szLogLine != nullptr) {
    EXPECT_EQ(log->Count(row.szLogLine, -1), 1u);
  }
}

INSTANTIATE_TEST_SUITE_P(Media, FindFirstProcess, ::testing::ValuesIn(kProcessCases),
                         [](const auto& info) { return std::string(info.param.szName); });

// ---- one work unit: surfaces, whole volumes, missing content ----

struct SUnitCase {
  const char* szName;
  // Builds the tree and the unit; relative names below are under the tree's root.
  CWorkUnitPtr (*fnUnit)(CTempTree&);
  bool bFailuresFile;
  bool bTopLevel;
  int iErrorCode;                            // 0: success
  const char* szErrorText;                   // a fragment of the error, "%R" is the root
  std::vector<std::string> lstFailureLines;  // "%R" is the root
  std::vector<std::string> lstReported;      // relative to the root
};

CWorkUnitPtr NoScanPaths(CTempTree&) { return MakeUnit({}); }
CWorkUnitPtr MissingSurface(CTempTree& tree) { return MakeUnit({tree.Path("missing")}); }
CWorkUnitPtr OneOfTwoSurfaces(CTempTree& tree) {
  tree.MakeFile("here/f");
  return MakeUnit({tree.Path("missing"), tree.Path("here")});
}
CWorkUnitPtr NestedSurfaces(CTempTree& tree) {
  tree.MakeFile("top/sub/f");
  return MakeUnit({tree.Path("top/sub"), tree.Path("top")});
}
CWorkUnitPtr MissingVolume(CTempTree& tree) {
  CWorkUnitPtr pUnit = MakeUnit({}, tree.Path("missing"));
  pUnit->SetContainsVolumeWildcardScanPaths();
  return pUnit;
}
CWorkUnitPtr WholeVolume(CTempTree& tree) {
  tree.MakeFile("vol/a/f");
  CWorkUnitPtr pUnit = MakeUnit({}, tree.Path("vol"));
  pUnit->SetContainsVolumeWildcardScanPaths();
  (void)pUnit->AddScanContentItem(tree.Path("vol"));
  return pUnit;
}

const SUnitCase kUnitCases[] = {
    {"EmptySurfaceListSucceeds", NoScanPaths, false, false, 0, nullptr, {}, {}},
    {"MissingSurfaceIsRecorded", MissingSurface, true, false, 232,
     "No content available for scanning", {"folder %R/missing:2"}, {}},
    {"MissingSurfaceUnrecordable", MissingSurface, false, false, 1627,
     "Failed to report scan failures", {}, {}},
    {"OtherSurfaceStillScanned", OneOfTwoSurfaces, true, false, 0, nullptr,
     {"folder %R/missing:2"}, {"here/f"}},
    {"NestedSurfaceScannedOnce", NestedSurfaces, false, false, 0, nullptr, {},
     {"top/sub", "top/sub/f"}},
    {"TopLevelContentReported", NestedSurfaces, false, true, 0, nullptr, {},
     {"top", "top/sub", "top/sub/f"}},
    {"MissingVolumeIsRecorded", MissingVolume, true, false, ENOENT, "Traverse failed for [%R/missing]",
     {"folder %R/missing:2"}, {}},
    {"WholeVolume", WholeVolume, false, false, 0, nullptr, {}, {"vol/a", "vol/a/f"}},
};

class FindFirstWorkUnit : public ::testing::TestWithParam<SUnitCase> {};

TEST_P(FindFirstWorkUnit, ScansWhatExistsAndRecordsWhatDoesNot) {
  const SUnitCase& row = GetParam();
  CLogCapture log;
  CTempTree tree, out;
  auto root = [&](std::string strText) {
    for (size_t pos; (pos = strText.find("%R")) != std::string::npos;) strText.replace(pos, 2, tree.Root());
    return strText;
  };
  auto pCallback = std::make_shared<CTestCallback>();
  if (row.bFailuresFile) pCallback->UseFailuresFile(out.Path("failures"));
  if (row.bTopLevel) pCallback->Set(SXScannerConfigurationBagId::idProcessTopLevelContent, true);
  auto pEngine = MakeEngine(EKind::FindFirst, pCallback);
  CWorkUnitPtr pUnit = row.fnUnit(tree);

  CQiError error = pEngine->ProcessWorkUnit(pUnit);

  EXPECT_EQ(error.GetCode(), static_cast<uint32_t>(row.iErrorCode)) << error.AsString();
  if (row.szErrorText != nullptr) {
    EXPECT_NE(error.AsString().find(root(row.szErrorText)), std::string::npos) << error.AsString();
  }
  std::vector<std::string> lstFailures;
  for (const std::string& strLine : row.lstFailureLines) lstFailures.push_back(root(strLine));
  EXPECT_EQ(pCallback->FailureLines(), lstFailures);
  std::multiset<std::string> expected;
  for (const std::string& rel : row.lstReported) expected.insert(tree.Path(rel));
  std::vector<std::string> lstPaths = pCallback->m_pHandler->Paths();
  EXPECT_EQ(std::multiset<std::string>(lstPaths.begin(), lstPaths.end()), expected);
  // The handler is opened once and closed on every way out.
  EXPECT_EQ(pCallback->m_pHandler->m_iInitialized.load(), 1);
  EXPECT_EQ(pCallback->m_pHandler->m_iCompleted.load(), 1);
  EXPECT_FALSE(pEngine->GetOutputHandler());
}

INSTANTIATE_TEST_SUITE_P(Units, FindFirstWorkUnit, ::testing::ValuesIn(kUnitCases),
                         [](const auto& info) { return std::string(info.param.szName); });

// ---- runs as nobody ----

// Surfaces that exist but cannot be listed: each is skipped, and with none left the unit ends
// with 232.
int SurfacesWithoutPermission(void* pArg) {
  const CTempTree& tree = *static_cast<const CTempTree*>(pArg);
  CLogCapture log;
  auto pCallback = std::make_shared<CTestCallback>();
  auto pEngine = MakeEngine(EKind::FindFirst, pCallback);
  CQiError error = pEngine->ProcessWorkUnit(MakeUnit({tree.Path("locked1"), tree.Path("locked2")}));
  if (!error.IsWin32(232)) return 1;
  if (error.GetMessage() != "No content available for scanning") return 2;
  if (log->Count("Process next surface", 1) != 2) return 3;
  if (pCallback->m_pHandler->m_iCompleted != 1 || !pCallback->m_pHandler->Records().empty()) return 4;
  return 0;
}

TEST(FindFirstPermissions, AllSurfacesUnreadableGivesNoContent) {
  CTempTree tree;
  tree.MakeFile("locked1/f");
  tree.MakeFile("locked2/f");
  chmod(tree.Path("locked1").c_str(), 0);
  chmod(tree.Path("locked2").c_str(), 0);
  EXPECT_EQ(RunAsNobody(SurfacesWithoutPermission, &tree), 0);
}

// The item set of a scan is exactly what find lists (less the excluded entries), byte for byte,
// with lstat's size and mode: awkward names, links (not followed), FIFOs and an unreadable folder.
struct SExactRun {
  EKind eKind;
  int iWorkers;
  std::string strRoot;
  std::string strItemsFile;
  std::string strFindFile;
};

int ScanAndFindAsNobody(void* pArg) {
  const SExactRun& run = *static_cast<const SExactRun*>(pArg);
  auto pCallback = std::make_shared<CTestCallback>();
  pCallback->Set(CFindFirstScanEngine::kParamEnableFolderLevelMultithread, true);
  // Several workers also set the multi-threaded enumeration bit, which must not change the set.
  pCallback->Set(CFindFirstScanEngine::kParamEnableMultiThread, run.iWorkers > 1);
  auto pEngine = MakeEngine(run.eKind, pCallback);
  CWorkUnitPtr pUnit = MakeUnit({run.strRoot});
  if (!pUnit || pUnit->GetBag()->Write(SXScannerConfigurationBagId::idMaxWorkers, run.iWorkers).IsError() ||
      pUnit->AddFilterItem("*.tmp").IsError() || pUnit->AddFilterItem(run.strRoot + "/skipme").IsError())
    return 1;
  if (pEngine->ProcessWorkUnit(pUnit).IsError()) return 2;
  FILE* pFile = fopen(run.strItemsFile.c_str(), "w");
  if (pFile == nullptr) return 3;
  for (const SRecord& record : pCallback->m_pHandler->Records()) {
    fwrite(record.strPath.data(), 1, record.strPath.size() + 1, pFile);
    fprintf(pFile, "%llu %u", static_cast<unsigned long long>(record.ullSize), record.uMode);
    fputc('\0', pFile);
  }
  fclose(pFile);
  const std::string strCommand =
      "find '" + run.strRoot + "' -mindepth 1 -print0 > '" + run.strFindFile + "' 2>/dev/null";
  (void)system(strCommand.c_str());
  return 0;
}

std::vector<std::string> ReadNulSeparated(const std::string& strPath) {
  std::ifstream file(strPath, std::ios::binary);
  std::string strAll((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  std::vector<std::string> lstParts;
  for (size_t start = 0, end; (end = strAll.find('\0', start)) != std::string::npos; start = end + 1)
    lstParts.push_back(strAll.substr(start, end - start));
  return lstParts;
}

std::string KindName(EKind eKind) {
  switch (eKind) {
    case EKind::FindFirst: return "FindFirst";
    case EKind::Fast: return "Fast";
    case EKind::FastDelete: return "FastDelete";
  }
  return "";
}

class FindFirstExactSet : public ::testing::TestWithParam<std::tuple<EKind, int>> {};

TEST_P(FindFirstExactSet, EqualsFindLessTheExcludedEntries) {
  CTempTree tree, out;
  const std::string strOut = out.MakeDir("o", 0777);
  for (const std::string& strName : AwkwardNames()) {
    tree.MakeFile("files/" + strName, "12345");
    tree.MakeFile("dir " + strName + "/inner " + strName, "x");
    tree.MakeSymlink("links/" + strName, tree.Path("files/" + strName));
    tree.MakeFile("*/" + strName);  // listed through the folder named "*"
  }
  tree.MakeSymlink("folder link", tree.Path("*"));  // never followed
  tree.MakeSymlink("dangling", "/nonexistent/target");
  tree.MakeFifo("pipe");
  tree.MakeFile("deep/a/b/c/d/e/f.txt", std::string(10000, 'z'));
  tree.MakeFile("excluded.tmp");
  tree.MakeFile("dir.tmp/hidden");
  tree.MakeFile("skipme/hidden");
  tree.MakeFile("locked/secret");
  tree.MakeDir("locked/sub");
  chmod(tree.Path("locked").c_str(), 0);

  SExactRun run{std::get<0>(GetParam()), std::get<1>(GetParam()), tree.Root(), strOut + "/items",
                strOut + "/find"};
  ASSERT_EQ(RunAsNobody(ScanAndFindAsNobody, &run), 0);

  std::set<SRecord> scanned;
  std::vector<std::string> lstItems = ReadNulSeparated(run.strItemsFile);
  ASSERT_EQ(lstItems.size() % 2, 0u);
  for (size_t i = 0; i < lstItems.size(); i += 2) {
    SRecord record{lstItems[i], 0, 0};
    unsigned long long ullSize = 0;
    ASSERT_EQ(sscanf(lstItems[i + 1].c_str(), "%llu %u", &ullSize, &record.uMode), 2);
    record.ullSize = ullSize;
    EXPECT_TRUE(scanned.insert(record).second) << "reported twice: " << record.strPath;
  }
  std::set<SRecord> found;
  for (const std::string& strPath : ReadNulSeparated(run.strFindFile)) {
    const std::string strRel = strPath.substr(tree.Root().size());
    if (strRel.find(".tmp") != std::string::npos || strRel.rfind("/skipme", 0) == 0) continue;
    struct stat st {};
    ASSERT_EQ(lstat(strPath.c_str(), &st), 0) << strPath;
    found.insert({strPath, static_cast<uint64_t>(st.st_size), st.st_mode});
  }
  EXPECT_GT(found.size(), 40u);
  EXPECT_EQ(scanned, found);
}

INSTANTIATE_TEST_SUITE_P(
    Engines, FindFirstExactSet,
    ::testing::Values(std::make_tuple(EKind::FindFirst, 1), std::make_tuple(EKind::Fast, 1),
                      std::make_tuple(EKind::Fast, 4), std::make_tuple(EKind::FastDelete, 4)),
    [](const auto& info) {
      return KindName(std::get<0>(info.param)) + "_" + std::to_string(std::get<1>(info.param)) +
             "Workers";
    });

}  // namespace
