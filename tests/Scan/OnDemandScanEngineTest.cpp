// The on-demand engine on real temporary trees: content files listing files, folders and
// symbolic links, the line "/", empty lines, vanished paths, folders named as content files,
// paths on a second volume (/dev/shm), black-list content, folders that change before their
// listing, nested, pseudo and stale mounts below a listed folder (a recorded mount table), and a
// listed folder giving the same items as the FindFirst engine.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "Platform/FXFolder.h"
#include "Platform/MountPathInfo.h"
#include "Platform/StaleMountDetector.h"
#include "Scan/FindFirstScanEngine.h"
#include "Scan/OnDemandScanEngine.h"
#include "Support/RunAsNobody.h"
#include "TraversalTestSupport.h"

using namespace TraversalTestSupport;

namespace {

using Paths = std::vector<std::string>;

// Processes a volume work unit of the root volume whose scan paths are the content files (the
// last of them written with the lines); returns the unit.
CWorkUnitPtr ProcessContent(COnDemandScanEngine& engine, const CScannerCallbackPtr& pCallback, const std::string& strFile,
                            const Paths& lstLines, Paths lstContentFiles = {}, CQiError* pError = nullptr) {
  (void)engine.SetScannerCallback(pCallback);
  std::string strText;
  for (const std::string& strLine : lstLines) strText += strLine + '\n';
  WriteFileText(strFile, strText);
  lstContentFiles.push_back(strFile);
  CWorkUnitPtr pUnit = MakeUnit(lstContentFiles);
  auto pVolume = std::make_shared<CVolumeWorkUnit>();
  pVolume->AddWorkUnit(pUnit);
  const CQiError error = engine.ProcessVolumeWorkUnit(pVolume);
  if (pError) *pError = error;
  else EXPECT_TRUE(error.IsSuccess()) << error.AsString();
  return pUnit;
}

// ---- content files ----

struct SContentCase {
  const char* szName;
  Paths lstLines;           // "%R" the tree, "%S" the /dev/shm tree, "%O" the output folder
  int iAutoExpand;          // -1 unset, else the value of "OnDemand::AutoExpandDirs"
  const char* szFirstFile;  // a content file that comes first, or null
  Paths lstBlackList, lstReported, lstFailureLines;
  Paths lstHandlerNames = {"/"};
  const char* szLogLine = nullptr;  // one level-0 line expected exactly once, or null
};

const Paths kDir = {"%R/dir/b.txt", "%R/dir/sub", "%R/dir/sub/c.txt", "%R/dir/skip", "%R/dir/skip/d.txt"};

const SContentCase kContentCases[] = {
    {"ListedFolderIsExpanded", {"%R/dir"}, -1, nullptr, {}, kDir, {}},
    {"RootLineIsNeverScanned", {"/"}, -1, nullptr, {}, {}, {}, {}, "Not Processing [/] as content."},
    {"MissingContentFileIsSkipped", {"%R/a.txt"}, -1, "%O/none", {}, {"%R/a.txt"}, {}, {"/"},
     "Unable open content file (%O/none), not processing it."},
    {"FolderAsContentFileIsSkipped", {"%R/a.txt"}, -1, "%R/dir", {}, {"%R/a.txt"}, {}, {"/"},
     "Unable open content file (%R/dir), not processing it."},
    {"VanishedPathIsRecorded", {"%R/gone", "%R/dir/gone/x", "%R/a.txt"}, -1, nullptr, {}, {"%R/a.txt"},
     {"folder %R/gone:2", "folder %R/dir/gone/x:2"}, {"/"}, "Path does not exist, NOT adding content [%R/gone]"},
    {"RelativePathAndEmptyLines", {"", "a.txt", "%R/a.txt", ""}, -1, nullptr, {}, {"%R/a.txt"}, {"folder a.txt:87"}},
    {"NonUtf8NameIsReported", {"%R/bad\xff\xfe"}, -1, nullptr, {}, {"%R/bad\xff\xfe"}, {}},
    {"OtherVolumeSwitchesHandler", {"%R/a.txt", "%S/s.txt", "%S/sdir", "%R/dir/b.txt", "%R/dir/sub/c.txt"}, -1, nullptr,
     {}, {"%R/a.txt", "%S/s.txt", "%S/sdir/t.txt", "%R/dir/b.txt", "%R/dir/sub/c.txt"}, {}, {"/", "/dev/shm/", "/"},
     "Changing output handler. Original scan path = [%S/s.txt], current volume = [/], new volume = [/dev/shm/]"},
    // Links are entries of their folders: a link to the other volume and a link to itself
    // (whose real path cannot be resolved) both stay with the root volume.
    {"ListedLinksBelongToTheirFolder", {"%R/a.txt", "%R/shmlink", "%R/loop", "%R/dir/b.txt"}, -1, nullptr, {},
     {"%R/a.txt", "%R/shmlink", "%R/loop", "%R/dir/b.txt"}, {}},
    {"LinkOnOtherVolumeSwitchesHandler", {"%R/a.txt", "%S/rootlink"}, -1, nullptr, {}, {"%R/a.txt", "%S/rootlink"}, {},
     {"/", "/dev/shm/"}},
    // Every object once per content file: repeated lines (in any spelling), files and folders
    // listed below a listed folder before or after it, a missing path listed twice.
    {"RepeatedAndNestedLinesScanOnce",
     {"%R/dir/sub/c.txt", "%R/dir", "%R/dir/", "%R/a.txt", "%R/./a.txt", "%R/dir/sub", "%R//dir/b.txt", "%R/gone", "%R/gone"},
     -1, nullptr, {}, {"%R/a.txt", "%R/dir/b.txt", "%R/dir/sub", "%R/dir/sub/c.txt", "%R/dir/skip", "%R/dir/skip/d.txt"},
     {"folder %R/gone:2"}},
    {"RepeatedLinesBelowAFolderNotExpanded", {"%R/dir", "%R/dir/b.txt", "%R/dir/b.txt", "%R/dir/sub"}, 0, nullptr, {},
     {"%R/dir/b.txt"}, {}},
    {"BlackListContentIsLeftOut", {"%R/dir", "%R/a.txt", "%R/other/e.txt"}, -1, nullptr,
     {"%R/dir/skip", "%R/a.txt", "%R/other"}, {"%R/dir/b.txt", "%R/dir/sub", "%R/dir/sub/c.txt"}, {}},
};

class OnDemandContent : public ::testing::TestWithParam<SContentCase> {};

TEST_P(OnDemandContent, ReportsExactlyTheListedPaths) {
  const SContentCase& row = GetParam();
  CLogCapture log;
  CTempTree tree, out;
  CTempTree shm("/dev/shm");  // the second volume of the test machine
  for (const char* szFile : {"a.txt", "dir/b.txt", "dir/sub/c.txt", "dir/skip/d.txt", "other/e.txt", "bad\xff\xfe"})
    tree.MakeFile(szFile, "x");
  shm.MakeFile("s.txt");
  shm.MakeFile("sdir/t.txt");
  tree.MakeSymlink("shmlink", shm.Path("sdir"));
  tree.MakeSymlink("loop", tree.Path("loop"));
  shm.MakeSymlink("rootlink", tree.Path("dir"));
  const STokens tokens{{{"%R", tree.Root()}, {"%S", shm.Root()}, {"%O", out.Root()}}};
  auto pCallback = std::make_shared<CTestCallback>();
  pCallback->UseFailuresFile(out.Path("failures"));
  if (row.iAutoExpand >= 0) pCallback->Set(COnDemandScanEngine::kParamAutoExpandDirs, row.iAutoExpand != 0);
  COnDemandScanEngine engine;
  engine.SetBlackListScanContent(tokens(row.lstBlackList));

  CWorkUnitPtr pUnit = ProcessContent(engine, pCallback, out.Path("content"), tokens(row.lstLines),
                                      row.szFirstFile ? Paths{tokens(row.szFirstFile)} : Paths{});

  EXPECT_EQ(pUnit->DispositionAsString(), "Processed(OD)");
  EXPECT_EQ(Bag(pCallback->m_pHandler->Paths()), Bag(tokens(row.lstReported)));
  EXPECT_EQ(pCallback->FailureLines(), tokens(row.lstFailureLines));
  EXPECT_EQ(pCallback->m_vHandlerNames, row.lstHandlerNames);
  // Every handler opened is closed again.
  EXPECT_EQ(pCallback->m_pHandler->m_iInitialized.load(), static_cast<int>(row.lstHandlerNames.size()));
  EXPECT_EQ(pCallback->m_pHandler->m_iCompleted.load(), static_cast<int>(row.lstHandlerNames.size()));
  EXPECT_FALSE(engine.GetOutputHandler());
  if (row.szLogLine != nullptr) {
    EXPECT_EQ(log->Count(tokens(row.szLogLine), 0), 1u);
  }
  EXPECT_EQ(log->CountContaining("Changing output handler. Original scan path = [", 0),
            row.lstHandlerNames.empty() ? 0 : row.lstHandlerNames.size() - 1);
}

INSTANTIATE_TEST_SUITE_P(Lines, OnDemandContent, ::testing::ValuesIn(kContentCases),
                         [](const auto& info) { return std::string(info.param.szName); });

// ---- failures that end the work unit ----

class OnDemandUnitFails : public ::testing::TestWithParam<bool> {};

TEST_P(OnDemandUnitFails, EndsTheUnitAndClosesTheHandler) {
  const bool bAbort = GetParam();  // else the /dev/shm handler is refused
  CLogCapture log;
  CTempTree tree, out;
  CTempTree shm("/dev/shm");  // the second volume of the test machine
  auto pCallback = std::make_shared<CTestCallback>();
  if (bAbort) (void)pCallback->Abort();
  else pCallback->m_strRefusedHandler = "/dev/shm/";
  COnDemandScanEngine engine;
  CQiError error;
  CWorkUnitPtr pUnit = ProcessContent(engine, pCallback, out.Path("content"),
                                      {tree.MakeFile("a.txt"), shm.MakeFile("s.txt"), tree.MakeFile("b.txt")}, {}, &error);

  EXPECT_EQ(error.GetCode(), bAbort ? 995u : 0u) << error.AsString();
  EXPECT_EQ(pUnit->DispositionAsString(), bAbort ? "Failed(OD=995)" : "Failed(OD=5)");
  EXPECT_EQ(pCallback->m_pHandler->Records().size(), bAbort ? 0u : 1u);
  EXPECT_EQ(pCallback->m_pHandler->m_iCompleted.load(), pCallback->m_pHandler->m_iInitialized.load());
  EXPECT_FALSE(engine.GetOutputHandler());
}

INSTANTIATE_TEST_SUITE_P(Units, OnDemandUnitFails, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Aborted" : "HandlerSwitchRefused"; });

// A listed link whose target lies in a folder the scan may not search is still an entry of its
// own folder: the volume lookup must not depend on reaching the target.
TEST(OnDemandLink, TargetBeyondReachStaysWithItsFolder) {
  CTempTree tree, out;
  tree.MakeFile("closed/target/f.txt");
  chmod(tree.Path("closed").c_str(), 0700);
  chmod(out.Root().c_str(), 0777);
  const Paths lstListed = {tree.MakeSymlink("tolocked", tree.Path("closed/target")), tree.MakeFile("a.txt")};
  EXPECT_EQ(RunAsNobody([&]() -> int {
              auto pCallback = std::make_shared<CTestCallback>();
              COnDemandScanEngine engine;
              CQiError error;
              CWorkUnitPtr pUnit = ProcessContent(engine, pCallback, out.Path("content"), lstListed, {}, &error);
              if (error.IsError() || pUnit->DispositionAsString() != "Processed(OD)") return 1;
              return pCallback->m_pHandler->Paths() == lstListed && pCallback->m_vHandlerNames == Paths{"/"} ? 0 : 2;
            }),
            0);
}

// ---- a listed folder that changes between its check and its listing ----

// Runs a step at the first abort check of a traversal worker after it is armed. With a file
// listed before the folder, arming it when the file's item arrives makes the step run where the
// worker asks before it takes the folder, after the engine has checked and described the folder
// and before it is listed. (The traversal's coordinator asks too, at any time: not there.)
class CHookCallback : public CTestCallback {
 public:
  bool IsAborted() const override {
    char szThread[16] = {};
    pthread_getname_np(pthread_self(), szThread, sizeof(szThread));
    if (std::string(szThread).rfind("TraverseWkr", 0) == 0) {
      std::function<void()> fnStep;
      fnStep.swap(m_fnAtNextAbortCheck);
      if (fnStep) fnStep();
    }
    return CTestCallback::IsAborted();
  }
  mutable std::function<void()> m_fnAtNextAbortCheck;
};

enum class EFolderChange { Removed, ReplacedByFile, ItemsRefused };

struct SChangeCase {
  const char* szName;
  EFolderChange eChange;
  const char* szDisposition;
  Paths lstReported;  // "%R" the tree
  Paths lstFailureLines;
  size_t nMissingLines;  // "Path does not exist, NOT adding content [%R/dir]"
};

const SChangeCase kChangeCases[] = {
    // Gone: recorded once, like a path that does not exist, and the next line follows.
    {"Removed", EFolderChange::Removed, "Processed(OD)", {"%R/a.txt", "%R/z.txt"}, {"folder %R/dir:2"}, 1},
    {"ReplacedByFile", EFolderChange::ReplacedByFile, "Processed(OD)", {"%R/a.txt", "%R/z.txt"}, {"file %R/dir:20"}, 1},
    // Any other failure of the traversal still ends the unit.
    {"ItemsRefused", EFolderChange::ItemsRefused, "Failed(OD=5)", {"%R/a.txt", "%R/dir/b.txt"}, {}, 0},
};

class OnDemandFolderChanges : public ::testing::TestWithParam<SChangeCase> {};

TEST_P(OnDemandFolderChanges, BeforeItsListing) {
  const SChangeCase& row = GetParam();
  CLogCapture log;
  CTempTree tree, out;
  const std::string strFolder = tree.Path("dir");
  tree.MakeFile("dir/b.txt");
  auto pCallback = std::make_shared<CHookCallback>();
  pCallback->UseFailuresFile(out.Path("failures"));
  std::function<void()> fnChange = [&] {
    if (row.eChange == EFolderChange::ItemsRefused) pCallback->m_pHandler->m_uFailCode = 5;
    else std::filesystem::remove_all(strFolder);
    if (row.eChange == EFolderChange::ReplacedByFile) tree.MakeFile("dir");
  };
  pCallback->m_pHandler->m_fnOnItem = [&](size_t nCount) {
    if (nCount == 1) pCallback->m_fnAtNextAbortCheck = fnChange;
  };
  COnDemandScanEngine engine;
  CQiError error;
  CWorkUnitPtr pUnit = ProcessContent(engine, pCallback, out.Path("content"),
                                      {tree.MakeFile("a.txt"), strFolder, tree.MakeFile("z.txt")}, {}, &error);

  const STokens tokens{{{"%R", tree.Root()}}};
  EXPECT_EQ(pUnit->DispositionAsString(), row.szDisposition);
  EXPECT_EQ(pCallback->m_pHandler->Paths(), tokens(row.lstReported));
  EXPECT_EQ(pCallback->FailureLines(), tokens(row.lstFailureLines));
  EXPECT_EQ(log->Count("Path does not exist, NOT adding content [" + strFolder + "]", 0), row.nMissingLines);
  EXPECT_EQ(pCallback->m_pHandler->m_iCompleted.load(), 1);
  EXPECT_FALSE(engine.GetOutputHandler());
}

INSTANTIATE_TEST_SUITE_P(Folders, OnDemandFolderChanges, ::testing::ValuesIn(kChangeCases),
                         [](const auto& info) { return std::string(info.param.szName); });

// A listed folder gives what the FindFirst engine gives, sizes and modes included.
TEST(OnDemandFolder, SameItemsAsFindFirst) {
  CTempTree tree, out;
  for (const std::string& strName : AwkwardNames()) tree.MakeFile("top/" + strName, "x");
  tree.MakeFile("top/deep/er/f", "12345");
  tree.MakeDir("top/empty");
  tree.MakeSymlink("top/link", "deep");
  tree.MakeFifo("top/fifo");
  auto pFindFirstCallback = std::make_shared<CTestCallback>();
  CFindFirstScanEngine findFirst;
  (void)findFirst.SetScannerCallback(pFindFirstCallback);
  ASSERT_TRUE(findFirst.ProcessWorkUnit(MakeUnit({tree.Path("top")})).IsSuccess());
  auto pCallback = std::make_shared<CTestCallback>();
  COnDemandScanEngine onDemand;
  ProcessContent(onDemand, pCallback, out.Path("content"), {tree.Path("top")});

  ASSERT_EQ(pFindFirstCallback->m_pHandler->Records().size(), AwkwardNames().size() + 6);
  EXPECT_EQ(Bag(pCallback->m_pHandler->Records()), Bag(pFindFirstCallback->m_pHandler->Records()));
}

// ---- mounts below a listed folder that get no entry of their own ----

// Makes a recorded mount table the process's table, with one of its network mounts stale, while
// it lives.
class CRecordedMounts {
 public:
  CRecordedMounts(const std::string& strTableFile, const std::string& strStaleMount) {
    FXFolder::SetMountInfoPath(strTableFile);
    CStaleMountDetector& detector = CStaleMountDetector::Process();
    detector.SetStatFunction([strStaleMount](const std::string& strMount) { return strMount == strStaleMount ? ESTALE : 0; });
    m_refreshError = detector.Refresh();
  }
  ~CRecordedMounts() {
    CStaleMountDetector::Process().Reset();
    CStaleMountDetector::Process().SetStatFunction(nullptr);
    FXFolder::SetMountInfoPath("");
  }
  CQiError m_refreshError;
};

struct SMountCase {
  const char* szName;
  const char* szListed;  // "%R" the tree
  Paths lstReported, lstHandlerNames;
  Paths lstSkipped;  // mount points the listings passed over
};

const SMountCase kMountCases[] = {
    {"FolderAbovePseudoAndStaleMounts", "%R/dir", {"%R/dir/b.txt", "%R/dir/vol/v.txt"}, {"/", "%R/dir/vol/"},
     {"%R/dir/nfs", "%R/dir/proc", "%R/dir/vol/sys"}},
    {"NestedVolumeListedItself", "%R/dir/vol", {"%R/dir/vol/v.txt"}, {"%R/dir/vol/"}, {"%R/dir/vol/sys"}},
    // The mount points are left out in the form the folder was listed in.
    {"FolderThroughLinkedParent", "%R/up/dir", {"%R/up/dir/b.txt", "%R/up/dir/vol/v.txt"}, {"/", "%R/dir/vol/"},
     {"%R/up/dir/nfs", "%R/up/dir/proc", "%R/up/dir/vol/sys"}},
};

class OnDemandLeftOutMounts : public ::testing::TestWithParam<SMountCase> {};

TEST_P(OnDemandLeftOutMounts, AreNeitherReportedNorWalked) {
  const SMountCase& row = GetParam();
  CLogCapture log;
  CTempTree tree, out;
  for (const char* szFile :
       {"dir/b.txt", "dir/proc/1/status", "dir/proc/sub/x", "dir/nfs/n.txt", "dir/vol/v.txt", "dir/vol/sys/kernel"})
    tree.MakeFile(szFile);
  tree.MakeSymlink("up", tree.Root());
  const STokens tokens{{{"%R", tree.Root()}}};
  // proc and sysfs are pseudo file systems (the xfs below proc goes with it), the nfs4 mount is
  // stale, and the xfs at dir/vol is a nested volume with an entry of its own.
  CRecordedMounts mounts(out.MakeFile("mountinfo", tokens("1 0 8:1 / / rw - ext4 /dev/sda1 rw\n"
                                                          "2 1 0:5 / %R/dir/proc rw - proc proc rw\n"
                                                          "3 2 0:40 / %R/dir/proc/sub rw - xfs /dev/sdd rw\n"
                                                          "4 1 0:41 / %R/dir/nfs rw - nfs4 srv:/export rw\n"
                                                          "5 1 8:3 / %R/dir/vol rw - xfs /dev/sdc rw\n"
                                                          "6 5 0:6 / %R/dir/vol/sys rw - sysfs sysfs rw\n")),
                         tree.Path("dir/nfs"));
  ASSERT_TRUE(mounts.m_refreshError.IsSuccess()) << mounts.m_refreshError.AsString();
  ASSERT_TRUE(MountPathInfo::CheckInStaleFSList(tree.Path("dir/nfs")));
  auto pCallback = std::make_shared<CTestCallback>();
  COnDemandScanEngine engine;
  CWorkUnitPtr pUnit = ProcessContent(engine, pCallback, out.Path("content"), {tokens(row.szListed)});

  EXPECT_EQ(pUnit->DispositionAsString(), "Processed(OD)");
  EXPECT_EQ(Bag(pCallback->m_pHandler->Paths()), Bag(tokens(row.lstReported)));
  EXPECT_EQ(pCallback->m_vHandlerNames, tokens(row.lstHandlerNames));
  for (const std::string& strSkipped : tokens(row.lstSkipped))
    EXPECT_EQ(log->Count("[" + strSkipped + "] skipped by ignoreFS rule", 0), 1u) << strSkipped;
  EXPECT_EQ(log->CountContaining("] skipped by ignoreFS rule", 0), row.lstSkipped.size());
}

INSTANTIATE_TEST_SUITE_P(Mounts, OnDemandLeftOutMounts, ::testing::ValuesIn(kMountCases),
                         [](const auto& info) { return std::string(info.param.szName); });

}  // namespace
