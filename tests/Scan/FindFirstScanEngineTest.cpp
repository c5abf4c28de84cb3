// The FindFirst engines on real temporary trees: work unit handling, missing and unreadable
// content, and the exact item set of every tree engine compared with find(1), run as an
// unprivileged user.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "Scan/FastFindFirstDeleteScanEngine.h"
#include "Scan/FastFindFirstScanEngine.h"
#include "Scan/FindFirstScanEngine.h"
#include "Scan/ScannerConfigurationBagId.h"
#include "Scan/TraverseScanEngine.h"
#include "Support/RunAsNobody.h"
#include "TraversalTestSupport.h"

using namespace TraversalTestSupport;

namespace {

using Paths = std::vector<std::string>;
enum class EKind { FindFirst, Fast, FastDelete, Traverse };
const char* const kKindNames[] = {"FindFirst", "Fast", "FastDelete", "Traverse"};

std::shared_ptr<CScanEngine> MakeEngine(EKind eKind, const CScannerCallbackPtr& pCallback) {
  std::shared_ptr<CScanEngine> pEngine;
  switch (eKind) {
    case EKind::FindFirst: pEngine = std::make_shared<CFindFirstScanEngine>(); break;
    case EKind::Fast: pEngine = std::make_shared<CFastFindFirstScanEngine>(); break;
    case EKind::FastDelete: pEngine = std::make_shared<CFastFindFirstDeleteScanEngine>(); break;
    case EKind::Traverse: pEngine = std::make_shared<CTraverseScanEngine>(); break;
  }
  (void)pEngine->SetScannerCallback(pCallback);
  return pEngine;
}

// The fast variants refuse to run without folder-level multithreading, and touch nothing.
class FastVariantRefusal : public ::testing::TestWithParam<EKind> {};

TEST_P(FastVariantRefusal, WithoutFolderLevelMultithreadTouchesNothing) {
  CTempTree tree;
  tree.MakeFile("a.txt");
  auto pCallback = std::make_shared<CTestCallback>();
  CWorkUnitPtr pUnit = MakeUnit({tree.Root()});
  CQiError error = MakeEngine(GetParam(), pCallback)->ProcessWorkUnit(pUnit);
  EXPECT_TRUE(error.IsWin32(50)) << error.AsString();
  EXPECT_EQ(error.GetMessage(), "Folder level multithreading is not enabled");
  EXPECT_EQ(pCallback->m_iHandlerRequests.load(), 0);
  EXPECT_EQ(pUnit->DispositionAsString(), "NotProcessed");
}

INSTANTIATE_TEST_SUITE_P(Variants, FastVariantRefusal, ::testing::Values(EKind::Fast, EKind::FastDelete));

// Process(): the physical medium's volumes, one after another; a unit processed before is
// skipped, each volume scanned reports its completion, and an abort ends it.
struct SProcessCase {
  const char* szName;
  int iVolumes;    // -1: no medium; the first of two is a wildcard unit whose volume is missing
  bool bAbort;
  uint32_t uWin32;  // 0: success
  Paths lstDispositions;  // of the units made, in order
  const char* szLogLine;  // a level -1 line, or null
  Paths lstCompleted = {};  // "%R" is the tree
};

const SProcessCase kProcessCases[] = {
    {"NoMedium", -1, false, 0, {}, "No physical media work unit assigned; nothing to do"},
    {"NoVolumes", 0, false, 0, {},
     "No volume work units assigned to this physical media work unit; nothing to do, PhysicalMediaId=disk0"},
    {"FailedVolumeThenNext", 2, false, 0, {"Failed(FF=1627)", "Processed(FF)", "Processed(FF)"}, nullptr, {"FF|%R/data|/"}},
    {"AbortEndsProcess", 2, true, 995, {"Failed(FF=995)", "NotProcessed", "Processed(FF)"}, nullptr},
};

class FindFirstProcess : public ::testing::TestWithParam<SProcessCase> {};

TEST_P(FindFirstProcess, WalksTheMediumsVolumes) {
  const SProcessCase& row = GetParam();
  CLogCapture log;
  CTempTree tree;
  tree.MakeFile("data/f");
  auto pCallback = std::make_shared<CTestCallback>();
  auto pEngine = std::static_pointer_cast<CFindFirstScanEngine>(MakeEngine(EKind::FindFirst, pCallback));
  std::vector<CWorkUnitPtr> lstUnits;
  CPhysicalMediaWorkUnitPtr pMedium;
  if (row.iVolumes >= 0) {
    pMedium = std::make_shared<CPhysicalMediaWorkUnit>();
    pMedium->SetPhysicalMediaId("disk0");
  }
  for (int i = 0; i < row.iVolumes; ++i) {
    lstUnits.push_back(i == 0 && !row.bAbort ? MakeUnit({}, tree.Path("missing")) : MakeUnit({tree.Path("data")}));
    if (i == 0 && !row.bAbort) lstUnits[0]->SetContainsVolumeWildcardScanPaths();
    auto pVolume = std::make_shared<CVolumeWorkUnit>();
    pVolume->AddWorkUnit(lstUnits.back());
    if (i == 1) {  // and a unit processed before, that would fail: the folder does not exist
      lstUnits.push_back(MakeUnit({tree.Path("old")}));
      lstUnits.back()->SetDisposition("FF", 0);
      pVolume->AddWorkUnit(lstUnits.back());
    }
    pMedium->AddVolumeWorkUnit(pVolume);
  }
  (void)pEngine->SetPhysicalMediaWorkUnit(pMedium);
  if (row.bAbort) (void)pCallback->Abort();

  CQiError error = pEngine->Process();

  EXPECT_EQ(error.GetCode(), row.uWin32) << error.AsString();
  Paths lstDispositions;
  for (const CWorkUnitPtr& pUnit : lstUnits) lstDispositions.push_back(pUnit->DispositionAsString());
  EXPECT_EQ(lstDispositions, row.lstDispositions);
  const STokens tokens{{{"%R", tree.Root()}}};
  EXPECT_EQ(pCallback->m_vCompleted, tokens(row.lstCompleted));
  EXPECT_EQ(pCallback->m_pHandler->Paths(), row.uWin32 || row.iVolumes < 2 ? Paths{} : Paths{tree.Path("data/f")});
  if (row.szLogLine != nullptr) {
    EXPECT_EQ(log->Count(row.szLogLine, -1), 1u);
  }
}

INSTANTIATE_TEST_SUITE_P(Media, FindFirstProcess, ::testing::ValuesIn(kProcessCases),
                         [](const auto& info) { return std::string(info.param.szName); });

// One work unit: surfaces, whole volumes, missing content.
struct SUnitCase {
  const char* szName;
  Paths lstSurfaces;         // "%R" is the tree's root
  const char* szVolume;      // a wildcard unit of this volume (its content the volume), or null
  bool bFailuresFile, bTopLevel;
  int iErrorCode;            // 0: success
  const char* szErrorText;   // a fragment of the error
  Paths lstFailureLines;
  Paths lstReported;
};

const SUnitCase kUnitCases[] = {
    {"EmptySurfaceListSucceeds", {}, nullptr, false, false, 0, nullptr, {}, {}},
    {"MissingSurfaceIsRecorded", {"%R/missing"}, nullptr, true, false, 232, "No content available for scanning",
     {"folder %R/missing:2"}, {}},
    {"MissingSurfaceUnrecordable", {"%R/missing"}, nullptr, false, false, 1627, "Failed to report scan failures", {}, {}},
    {"OtherSurfaceStillScanned", {"%R/missing", "%R/here"}, nullptr, true, false, 0, nullptr, {"folder %R/missing:2"},
     {"%R/here/f"}},
    {"NestedSurfaceScannedOnce", {"%R/top/sub", "%R/top"}, nullptr, false, false, 0, nullptr, {}, {"%R/top/sub", "%R/top/sub/f"}},
    {"TopLevelContentReported", {"%R/top/sub", "%R/top"}, nullptr, false, true, 0, nullptr, {},
     {"%R/top", "%R/top/sub", "%R/top/sub/f"}},
    {"MissingVolumeIsRecorded", {}, "%R/missing", true, false, ENOENT, "Traverse failed for [%R/missing]",
     {"folder %R/missing:2"}, {}},
    {"WholeVolume", {}, "%R/vol", false, false, 0, nullptr, {}, {"%R/vol/a", "%R/vol/a/f"}},
};

class FindFirstWorkUnit : public ::testing::TestWithParam<SUnitCase> {};

TEST_P(FindFirstWorkUnit, ScansWhatExistsAndRecordsWhatDoesNot) {
  const SUnitCase& row = GetParam();
  CLogCapture log;
  CTempTree tree, out;
  for (const char* szFile : {"here/f", "top/sub/f", "vol/a/f"}) tree.MakeFile(szFile);
  const STokens tokens{{{"%R", tree.Root()}}};
  auto pCallback = std::make_shared<CTestCallback>();
  if (row.bFailuresFile) pCallback->UseFailuresFile(out.Path("failures"));
  if (row.bTopLevel) pCallback->Set(SXScannerConfigurationBagId::idProcessTopLevelContent, true);
  auto pEngine = MakeEngine(EKind::FindFirst, pCallback);
  CWorkUnitPtr pUnit = MakeUnit(tokens(row.lstSurfaces), row.szVolume ? tokens(row.szVolume) : "/");
  if (row.szVolume) {
    pUnit->SetContainsVolumeWildcardScanPaths();
    (void)pUnit->AddScanContentItem(tokens(row.szVolume));
  }

  CQiError error = pEngine->ProcessWorkUnit(pUnit);

  EXPECT_EQ(error.GetCode(), static_cast<uint32_t>(row.iErrorCode)) << error.AsString();
  if (row.szErrorText != nullptr) {
    EXPECT_NE(error.AsString().find(tokens(row.szErrorText)), std::string::npos) << error.AsString();
  }
  EXPECT_EQ(pCallback->FailureLines(), tokens(row.lstFailureLines));
  EXPECT_EQ(Bag(pCallback->m_pHandler->Paths()), Bag(tokens(row.lstReported)));
  // The handler is opened once and closed on every way out.
  EXPECT_EQ(pCallback->m_pHandler->m_iInitialized.load(), 1);
  EXPECT_EQ(pCallback->m_pHandler->m_iCompleted.load(), 1);
  EXPECT_FALSE(pEngine->GetOutputHandler());
}

INSTANTIATE_TEST_SUITE_P(Units, FindFirstWorkUnit, ::testing::ValuesIn(kUnitCases),
                         [](const auto& info) { return std::string(info.param.szName); });

// Surfaces that exist but cannot be listed: each is skipped, and with none left the unit ends
// with 232.
TEST(FindFirstPermissions, AllSurfacesUnreadableGivesNoContent) {
  CTempTree tree;
  tree.MakeFile("locked1/f");
  tree.MakeFile("locked2/f");
  chmod(tree.Path("locked1").c_str(), 0);
  chmod(tree.Path("locked2").c_str(), 0);
  EXPECT_EQ(RunAsNobody([&]() -> int {
              CLogCapture log;
              auto pCallback = std::make_shared<CTestCallback>();
              CQiError error = MakeEngine(EKind::FindFirst, pCallback)
                                   ->ProcessWorkUnit(MakeUnit({tree.Path("locked1"), tree.Path("locked2")}));
              if (!error.IsWin32(232) || error.GetMessage() != "No content available for scanning") return 1;
              if (log->Count("Process next surface", 1) != 2) return 2;
              return pCallback->m_pHandler->m_iCompleted == 1 && pCallback->m_pHandler->Records().empty() ? 0 : 3;
            }),
            0);
}

// The item set of a scan by every tree engine is exactly what find lists (less the excluded
// entries), byte for byte, with lstat's size and mode: awkward names, links (not followed), FIFOs
// and an unreadable folder, reported itself and recorded as a failure.
class EngineExactSet : public ::testing::TestWithParam<std::tuple<EKind, int>> {};

TEST_P(EngineExactSet, EqualsFindLessTheExcludedEntries) {
  const auto [eKind, iWorkers] = GetParam();
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
  for (const char* szExcluded : {"excluded.tmp", "dir.tmp/hidden", "skipme/hidden"}) tree.MakeFile(szExcluded);
  tree.MakeFile("locked/secret");
  tree.MakeDir("locked/sub");
  chmod(tree.Path("locked").c_str(), 0);

  const std::string strRoot = tree.Root();
  ASSERT_EQ(RunAsNobody([&]() -> int {
              auto pCallback = std::make_shared<CTestCallback>();
              pCallback->UseFailuresFile(strOut + "/failures");
              pCallback->Set(CFindFirstScanEngine::kParamEnableFolderLevelMultithread, true);
              // Several workers also set the multi-threaded enumeration bit, which must not change the set.
              pCallback->Set(CFindFirstScanEngine::kParamEnableMultiThread, iWorkers > 1);
              CWorkUnitPtr pUnit = MakeUnit({strRoot});
              if (pUnit->GetBag()->Write(SXScannerConfigurationBagId::idMaxWorkers, iWorkers).IsError() ||
                  pUnit->AddFilterItem("*.tmp").IsError() || pUnit->AddFilterItem(strRoot + "/skipme").IsError())
                return 1;
              if (MakeEngine(eKind, pCallback)->ProcessWorkUnit(pUnit).IsError()) return 2;
              std::string strItems;
              for (const SRecord& record : pCallback->m_pHandler->Records())
                strItems += record.strPath + '\0' + std::to_string(record.ullSize) + '\0' + std::to_string(record.uMode) + '\0';
              if (!WriteFileText(strOut + "/items", strItems)) return 3;
              const std::string strFind = "find '" + strRoot + "' -mindepth 1 -print0 > '" + strOut + "/find' 2>/dev/null";
              return system(strFind.c_str()) >= 0 ? 0 : 4;
            }),
            0);

  std::multiset<SRecord> scanned, found;
  const Paths lstItems = SplitNul(ReadFileText(strOut + "/items"));
  for (size_t i = 0; i + 2 < lstItems.size(); i += 3)
    scanned.insert({lstItems[i], std::stoull(lstItems[i + 1]), static_cast<uint32_t>(std::stoul(lstItems[i + 2]))});
  for (const std::string& strPath : SplitNul(ReadFileText(strOut + "/find"))) {
    const std::string strRel = strPath.substr(tree.Root().size());
    if (strRel.find(".tmp") != std::string::npos || strRel.rfind("/skipme", 0) == 0) continue;
    struct stat st {};
    ASSERT_EQ(lstat(strPath.c_str(), &st), 0) << strPath;
    found.insert({strPath, static_cast<uint64_t>(st.st_size), st.st_mode});
  }
  EXPECT_GT(found.size(), 40u);
  EXPECT_EQ(scanned, found);
  EXPECT_EQ(ReadFileLines(strOut + "/failures"), Paths{"folder " + tree.Path("locked") + ":13"});
}

INSTANTIATE_TEST_SUITE_P(Engines, EngineExactSet,
                         ::testing::Values(std::make_tuple(EKind::FindFirst, 1), std::make_tuple(EKind::Fast, 1),
                                           std::make_tuple(EKind::Fast, 4), std::make_tuple(EKind::FastDelete, 4),
                                           std::make_tuple(EKind::Traverse, 1), std::make_tuple(EKind::Traverse, 4)),
                         [](const auto& info) {
                           return std::string(kKindNames[static_cast<int>(std::get<0>(info.param))]) + "_" +
                                  std::to_string(std::get<1>(info.param)) + "Workers";
                         });

}  // namespace
