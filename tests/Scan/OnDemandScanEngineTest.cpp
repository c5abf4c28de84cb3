// The on-demand engine on real temporary trees: content files listing files, folders and
// symbolic links, the line "/", empty lines, vanished paths, folders named as content files,
// paths on a second volume (/dev/shm), black-list content, folders that vanish before their
// listing, nested volumes (a tmpfs mounted inside the tree, when the test may mount), pseudo and
// stale mounts below a listed folder (a recorded mount table), and a listed folder giving the
// same items as the FindFirst engine.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Platform/FXFolder.h"
#include "Platform/MountPathInfo.h"
#include "Platform/StaleMountDetector.h"
#include "Scan/FindFirstScanEngine.h"
#include "Scan/OnDemandScanEngine.h"
#include "Scan/ScannerConfigurationBagId.h"
#include "Support/TempTree.h"
#include "TraversalTestSupport.h"

using namespace TraversalTestSupport;

namespace {

// Also records the name of every output handler asked for.
class CNamingCallback : public CTestCallback {
 public:
  CQiError GetOutputHandler(const std::string& strName, COutputHandlerPtr& pHandler) override {
    m_vHandlerNames.push_back(strName);
    return CTestCallback::GetOutputHandler(strName, pHandler);
  }
  std::vector<std::string> m_vHandlerNames;
};

// A temporary tree on /dev/shm, the second volume of the test machine.
std::unique_ptr<CTempTree> MakeShmTree() {
  const char* szOld = getenv("TMPDIR");
  const std::string strOld = szOld != nullptr ? szOld : "";
  setenv("TMPDIR", "/dev/shm", 1);
  auto pTree = std::make_unique<CTempTree>();
  if (szOld != nullptr) {
    setenv("TMPDIR", strOld.c_str(), 1);
  } else {
    unsetenv("TMPDIR");
  }
  return pTree;
}

std::string WriteContentFile(const std::string& strPath, const std::vector<std::string>& lstLines) {
  std::ofstream out(strPath, std::ios::binary);
  for (const std::string& strLine : lstLines) out << strLine << '\n';
  return strPath;
}

// A volume work unit of the root volume whose scan paths name the given content files.
CVolumeWorkUnitPtr MakeVolume(const std::vector<std::string>& lstContentFiles,
                              CWorkUnitPtr& pUnit) {
  pUnit = std::make_shared<CWorkUnit>();
  pUnit->SetLocalVolumeName("/");
  pUnit->SetSourceVolumeName("/");
  for (const std::string& strFile : lstContentFiles) {
    pUnit->AddScanPath(std::make_shared<CScanPath>(strFile, strFile));
    (void)pUnit->AddScanContentItem(strFile);
  }
  auto pVolume = std::make_shared<CVolumeWorkUnit>();
  pVolume->AddWorkUnit(pUnit);
  return pVolume;
}

// ---- content files ----

struct SContentCase {
  const char* szName;
  std::vector<std::string> lstLines;  // "%R" the tree, "%S" the /dev/shm tree
  int iAutoExpand;                    // -1 unset, else the value of "OnDemand::AutoExpandDirs"
  const char* szContentFileFirst;     // a content file that comes first ("%O/none"), or null
  std::vector<std::string> lstBlackList;
  std::vector<std::string> lstReported;
  std::vector<std::string> lstFailureLines;
  std::vector<std::string> lstHandlerNames;
  const char* szLogLine;   // one level-0 line expected exactly once, or null
  size_t nHandlerChanges;  // "Changing output handler" lines
};

const SContentCase kContentCases[] = {
    {"ListedFilesAreReported",
     {"%R/a.txt", "%R/dir/b.txt"},
     -1,
     nullptr,
     {},
     {"%R/a.txt", "%R/dir/b.txt"},
     {},
     {"/"},
     nullptr,
     0},
    {"ListedFolderIsExpanded",
     {"%R/dir"},
     -1,
     nullptr,
     {},
     {"%R/dir/b.txt", "%R/dir/sub", "%R/dir/sub/c.txt", "%R/dir/skip", "%R/dir/skip/d.txt"},
     {},
     {"/"},
     nullptr,
     0},
    {"ListedFolderNotExpanded",
     {"%R/dir", "%R/a.txt"},
     0,
     nullptr,
     {},
     {"%R/a.txt"},
     {},
     {"/"},
     nullptr,
     0},
    {"RootLineIsNeverScanned",
     {"/"},
     -1,
     nullptr,
     {},
     {},
     {},
     {},
     "Not Processing [/] as content.",
     0},
    {"EmptyLinesAreSkipped",
     {"", "%R/a.txt", ""},
     -1,
     nullptr,
     {},
     {"%R/a.txt"},
     {},
     {"/"},
     nullptr,
     0},
    {"MissingContentFileIsSkipped",
     {"%R/a.txt"},
     -1,
     "%O/none",
     {},
     {"%R/a.txt"},
     {},
     {"/"},
     "Unable open content file (%O/none), not processing it.",
     0},
    {"VanishedPathIsRecorded",
     {"%R/gone", "%R/dir/gone/x", "%R/a.txt"},
     -1,
     nullptr,
     {},
     {"%R/a.txt"},
     {"folder %R/gone:2", "folder %R/dir/gone/x:2"},
     {"/"},
     "Path does not exist, NOT adding content [%R/gone]",
     0},
    {"RelativePathIsRecorded",
     {"a.txt", "%R/a.txt"},
     -1,
     nullptr,
     {},
     {"%R/a.txt"},
     {"folder a.txt:87"},
     {"/"},
     nullptr,
     0},
    {"NonUtf8NameIsReported",
     {"%R/bad\xff\xfe"},
     -1,
     nullptr,
     {},
     {"%R/bad\xff\xfe"},
     {},
     {"/"},
     nullptr,
     0},
    {"OtherVolumeSwitchesHandler",
     {"%R/a.txt", "%S/s.txt", "%S/sdir", "%R/dir/b.txt", "%R/dir/sub/c.txt"},
     -1,
     nullptr,
     {},
     {"%R/a.txt", "%S/s.txt", "%S/sdir/t.txt", "%R/dir/b.txt", "%R/dir/sub/c.txt"},
     {},
     {"/", "/dev/shm/", "/"},
     nullptr,
     2},
    {"FolderAsContentFileIsSkipped",
     {"%R/a.txt"},
     -1,
     "%R/dir",
     {},
     {"%R/a.txt"},
     {},
     {"/"},
     "Unable open content file (%R/dir), not processing it.",
     0},
    // Links are entries of their folders: a link to the other volume and a link to itself
    // (whose real path cannot be resolved) both stay with the root volume.
    {"ListedLinksBelongToTheirFolder",
     {"%R/a.txt", "%R/shmlink", "%R/loop", "%R/dir/b.txt"},
     -1,
     nullptr,
     {},
     {"%R/a.txt", "%R/shmlink", "%R/loop", "%R/dir/b.txt"},
     {},
     {"/"},
     nullptr,
     0},
    {"LinkOnOtherVolumeSwitchesHandler",
     {"%R/a.txt", "%S/rootlink"},
     -1,
     nullptr,
     {},
     {"%R/a.txt", "%S/rootlink"},
     {},
     {"/", "/dev/shm/"},
     nullptr,
     1},
    // Every object once per content file: repeated lines (in any spelling), files and folders
    // listed below a listed folder before or after it, a missing path listed twice.
    {"RepeatedAndNestedLinesScanOnce",
     {"%R/dir/sub/c.txt", "%R/dir", "%R/dir/", "%R/a.txt", "%R/./a.txt", "%R/dir/sub", "%R//dir/b.txt",
      "%R/gone", "%R/gone"},
     -1,
     nullptr,
     {},
     {"%R/a.txt", "%R/dir/b.txt", "%R/dir/sub", "%R/dir/sub/c.txt", "%R/dir/skip", "%R/dir/skip/d.txt"},
     {"folder %R/gone:2"},
     {"/"},
     nullptr,
     0},
    {"RepeatedLinesBelowAFolderNotExpanded",
     {"%R/dir", "%R/dir/b.txt", "%R/dir/b.txt", "%R/dir/sub"},
     0,
     nullptr,
     {},
     {"%R/dir/b.txt"},
     {},
     {"/"},
     nullptr,
     0},
    {"BlackListContentIsLeftOut",
     {"%R/dir", "%R/a.txt", "%R/other/e.txt"},
     -1,
     nullptr,
     {"%R/dir/skip", "%R/a.txt", "%R/other"},
     {"%R/dir/b.txt", "%R/dir/sub", "%R/dir/sub/c.txt"},
     {},
     {"/"},
     nullptr,
     0},
};

class OnDemandContent : public ::testing::TestWithParam<SContentCase> {};

TEST_P(OnDemandContent, ReportsExactlyTheListedPaths) {
  const SContentCase& row = GetParam();
  CLogCapture log;
  CTempTree tree, out;
  std::unique_ptr<CTempTree> pShm = MakeShmTree();
  tree.MakeFile("a.txt", "aa");
  tree.MakeFile("dir/b.txt", "b");
  tree.MakeFile("dir/sub/c.txt");
  tree.MakeFile("dir/skip/d.txt");
  tree.MakeFile("other/e.txt");
  tree.MakeFile("bad\xff\xfe");
  pShm->MakeFile("s.txt");
  pShm->MakeFile("sdir/t.txt");
  tree.MakeSymlink("shmlink", pShm->Path("sdir"));
  tree.MakeSymlink("loop", tree.Path("loop"));
  pShm->MakeSymlink("rootlink", tree.Path("dir"));
  auto expand = [&](std::string strText) {
    for (const auto& [szToken, strValue] : {std::pair<const char*, std::string>{"%R", tree.Root()},
                                            {"%S", pShm->Root()},
                                            {"%O", out.Root()}})
      for (size_t pos; (pos = strText.find(szToken)) != std::string::npos;)
        strText.replace(pos, 2, strValue);
    return strText;
  };
  auto expandAll = [&](const std::vector<std::string>& lstIn) {
    std::vector<std::string> lstOut;
    for (const std::string& strText : lstIn) lstOut.push_back(expand(strText));
    return lstOut;
  };

  auto pCallback = std::make_shared<CNamingCallback>();
  pCallback->UseFailuresFile(out.Path("failures"));
  if (row.iAutoExpand >= 0)
    pCallback->Set(COnDemandScanEngine::kParamAutoExpandDirs, row.iAutoExpand != 0);
  COnDemandScanEngine engine;
  (void)engine.SetScannerCallback(pCallback);
  engine.SetBlackListScanContent(expandAll(row.lstBlackList));
  std::vector<std::string> lstContentFiles;
  if (row.szContentFileFirst != nullptr) lstContentFiles.push_back(expand(row.szContentFileFirst));
  lstContentFiles.push_back(WriteContentFile(out.Path("content"), expandAll(row.lstLines)));
  CWorkUnitPtr pUnit;

  ASSERT_TRUE(engine.ProcessVolumeWorkUnit(MakeVolume(lstContentFiles, pUnit)).IsSuccess());

  EXPECT_EQ(pUnit->DispositionAsString(), "Processed(OD)");
  std::vector<std::string> lstPaths = pCallback->m_pHandler->Paths();
  std::vector<std::string> lstExpected = expandAll(row.lstReported);
  EXPECT_EQ(std::multiset<std::string>(lstPaths.begin(), lstPaths.end()),
            std::multiset<std::string>(lstExpected.begin(), lstExpected.end()));
  EXPECT_EQ(pCallback->FailureLines(), expandAll(row.lstFailureLines));
  std::vector<std::string> lstHandlerNames = expandAll(row.lstHandlerNames);
  EXPECT_EQ(pCallback->m_vHandlerNames, lstHandlerNames);
  // Every handler opened is closed again.
  EXPECT_EQ(pCallback->m_pHandler->m_iInitialized.load(), static_cast<int>(lstHandlerNames.size()));
  EXPECT_EQ(pCallback->m_pHandler->m_iCompleted.load(), static_cast<int>(lstHandlerNames.size()));
  EXPECT_FALSE(engine.GetOutputHandler());
  if (row.szLogLine != nullptr) {
    EXPECT_EQ(log->Count(expand(row.szLogLine), 0), 1u);
  }
  EXPECT_EQ(log->CountContaining("Changing output handler. Original scan path = [", 0),
            row.nHandlerChanges);
}

INSTANTIATE_TEST_SUITE_P(Lines, OnDemandContent, ::testing::ValuesIn(kContentCases),
                         [](const auto& info) { return std::string(info.param.szName); });

// The exact messages of a folder on the second volume, with the switch from the root volume.
TEST(OnDemandMessages, FolderOnOtherVolume) {
  CLogCapture log;
  CTempTree tree, out;
  std::unique_ptr<CTempTree> pShm = MakeShmTree();
  const std::string strFile = tree.MakeFile("a.txt");
  pShm->MakeFile("sdir/t.txt");
  const std::string strFolder = pShm->Path("sdir");
  auto pCallback = std::make_shared<CNamingCallback>();
  COnDemandScanEngine engine;
  (void)engine.SetScannerCallback(pCallback);
  CWorkUnitPtr pUnit;
  ASSERT_TRUE(engine
                  .ProcessVolumeWorkUnit(MakeVolume(
                      {WriteContentFile(out.Path("content"), {strFile, strFolder})}, pUnit))
                  .IsSuccess());

  for (const std::string& strLine :
       {"For scan path = [" + strFolder +
            "] Source volume  = [/], current volume path = [/dev/shm/]",
        "Content [" + strFolder + "] is a directory, check nested mount points.",
        "Traversing path [" + strFolder + "] for source path [" + strFolder + "]",
        "Content = " + strFolder + " is a directory"})
    EXPECT_EQ(log->Count(strLine, 5), 1u) << strLine;
  EXPECT_EQ(log->Count("Traversing path [" + strFolder + "]", 5), 2u);
  EXPECT_EQ(log->Count("Changing output handler. Original scan path = [" + strFolder +
                           "], current volume = [/], new volume = [/dev/shm/]",
                       0),
            1u);
}

// ---- failures that end the work unit ----

// Refuses the output handler of one volume.
class CRefusingCallback : public CNamingCallback {
 public:
  CQiError GetOutputHandler(const std::string& strName, COutputHandlerPtr& pHandler) override {
    if (strName == m_strRefused) {
      m_vHandlerNames.push_back(strName);
      return QI_ERROR_WIN32(5, "handler refused");
    }
    return CNamingCallback::GetOutputHandler(strName, pHandler);
  }
  std::string m_strRefused;
};

struct SFailCase {
  const char* szName;
  bool bRefuseShm;  // the /dev/shm handler is refused
  bool bAbort;      // the callback is aborted before the scan
  const char* szDisposition;
  uint32_t uProcessCode;  // of ProcessVolumeWorkUnit
  int iReported;
};

const SFailCase kFailCases[] = {
    {"HandlerSwitchRefused", true, false, "Failed(OD=5)", 0, 1},
    {"Aborted", false, true, "Failed(OD=995)", 995, 0},
};

class OnDemandUnitFails : public ::testing::TestWithParam<SFailCase> {};

TEST_P(OnDemandUnitFails, EndsTheUnitAndClosesTheHandler) {
  const SFailCase& row = GetParam();
  CLogCapture log;
  CTempTree tree, out;
  std::unique_ptr<CTempTree> pShm = MakeShmTree();
  auto pCallback = std::make_shared<CRefusingCallback>();
  if (row.bRefuseShm) pCallback->m_strRefused = "/dev/shm/";
  if (row.bAbort) (void)pCallback->Abort();
  COnDemandScanEngine engine;
  (void)engine.SetScannerCallback(pCallback);
  const std::string strContent =
      WriteContentFile(out.Path("content"),
                       {tree.MakeFile("a.txt"), pShm->MakeFile("s.txt"), tree.MakeFile("b.txt")});
  CWorkUnitPtr pUnit;

  CQiError error = engine.ProcessVolumeWorkUnit(MakeVolume({strContent}, pUnit));

  EXPECT_EQ(error.GetCode(), row.uProcessCode) << error.AsString();
  EXPECT_EQ(pUnit->DispositionAsString(), row.szDisposition);
  EXPECT_EQ(static_cast<int>(pCallback->m_pHandler->Records().size()), row.iReported);
  EXPECT_EQ(pCallback->m_pHandler->m_iCompleted.load(),
            pCallback->m_pHandler->m_iInitialized.load());
  EXPECT_FALSE(engine.GetOutputHandler());
}

INSTANTIATE_TEST_SUITE_P(Units, OnDemandUnitFails, ::testing::ValuesIn(kFailCases),
                         [](const auto& info) { return std::string(info.param.szName); });

// A listed link whose target lies in a folder the scan may not search is still an entry of its
// own folder: the volume lookup must not depend on reaching the target.
TEST(OnDemandLink, TargetBeyondReachStaysWithItsFolder) {
  CTempTree tree, out;
  tree.MakeFile("closed/target/f.txt");
  chmod(tree.Path("closed").c_str(), 0700);
  struct SArgs {
    std::string strLink, strFile, strContent;
  } args{tree.MakeSymlink("tolocked", tree.Path("closed/target")), tree.MakeFile("a.txt"), ""};
  args.strContent = WriteContentFile(out.Path("content"), {args.strLink, args.strFile});

  const int iStatus = RunAsNobody(
      [](void* pArgs) -> int {
        const SArgs& a = *static_cast<SArgs*>(pArgs);
        auto pCallback = std::make_shared<CNamingCallback>();
        COnDemandScanEngine engine;
        (void)engine.SetScannerCallback(pCallback);
        CWorkUnitPtr pUnit;
        if (engine.ProcessVolumeWorkUnit(MakeVolume({a.strContent}, pUnit)).IsError()) return 1;
        if (pUnit->DispositionAsString() != "Processed(OD)") return 2;
        if (pCallback->m_pHandler->Paths() != std::vector<std::string>{a.strLink, a.strFile})
          return 3;
        if (pCallback->m_vHandlerNames != std::vector<std::string>{"/"}) return 4;
        return 0;
      },
      &args);

  EXPECT_EQ(iStatus, 0);
}

// ---- a listed folder that changes between its check and its listing ----

// Runs a step at the first abort check of a traversal worker after it is armed. With a file
// listed before the folder, arming it when the file's item arrives makes the step run where the
// worker asks before it takes the folder, after the engine has checked and described the folder
// and before it is listed. (The traversal's coordinator asks too, at any time: not there.)
class CHookCallback : public CNamingCallback {
 public:
  bool IsAborted() const override {
    char szThread[16] = {};
    pthread_getname_np(pthread_self(), szThread, sizeof(szThread));
    if (std::string(szThread).rfind("TraverseWkr", 0) == 0) {
      std::function<void()> fnStep;
      fnStep.swap(m_fnAtNextAbortCheck);
      if (fnStep) fnStep();
    }
    return CNamingCallback::IsAborted();
  }
  mutable std::function<void()> m_fnAtNextAbortCheck;
};

enum class EFolderChange { Removed, ReplacedByFile, ItemsRefused };

struct SChangeCase {
  const char* szName;
  EFolderChange eChange;
  const char* szDisposition;
  std::vector<std::string> lstReported;  // "%R" the tree
  std::vector<std::string> lstFailureLines;
  size_t nMissingLines;  // "Path does not exist, NOT adding content [%R/dir]"
};

const SChangeCase kChangeCases[] = {
    // Gone: recorded once, like a path that does not exist, and the next line follows.
    {"Removed",
     EFolderChange::Removed,
     "Processed(OD)",
     {"%R/a.txt", "%R/z.txt"},
     {"folder %R/dir:2"},
     1},
    {"ReplacedByFile",
     EFolderChange::ReplacedByFile,
     "Processed(OD)",
     {"%R/a.txt", "%R/z.txt"},
     {"file %R/dir:20"},
     1},
    // Any other failure of the traversal still ends the unit.
    {"ItemsRefused",
     EFolderChange::ItemsRefused,
     "Failed(OD=5)",
     {"%R/a.txt", "%R/dir/b.txt"},
     {},
     0},
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
    switch (row.eChange) {
      case EFolderChange::Removed:
        std::filesystem::remove_all(strFolder);
        break;
      case EFolderChange::ReplacedByFile:
        std::filesystem::remove_all(strFolder);
        tree.MakeFile("dir");
        break;
      case EFolderChange::ItemsRefused:
        pCallback->m_pHandler->m_uFailCode = 5;
        break;
    }
  };
  pCallback->m_pHandler->m_fnOnItem = [&](size_t nCount) {
    if (nCount == 1) pCallback->m_fnAtNextAbortCheck = fnChange;
  };
  COnDemandScanEngine engine;
  (void)engine.SetScannerCallback(pCallback);
  const std::string strContent = WriteContentFile(
      out.Path("content"), {tree.MakeFile("a.txt"), strFolder, tree.MakeFile("z.txt")});
  CWorkUnitPtr pUnit;

  (void)engine.ProcessVolumeWorkUnit(MakeVolume({strContent}, pUnit));

  auto expand = [&](std::string strText) {
    for (size_t pos; (pos = strText.find("%R")) != std::string::npos;)
      strText.replace(pos, 2, tree.Root());
    return strText;
  };
  std::vector<std::string> lstExpected;
  for (const std::string& strPath : row.lstReported) lstExpected.push_back(expand(strPath));
  std::vector<std::string> lstFailures;
  for (const std::string& strLine : row.lstFailureLines) lstFailures.push_back(expand(strLine));
  EXPECT_EQ(pUnit->DispositionAsString(), row.szDisposition);
  EXPECT_EQ(pCallback->m_pHandler->Paths(), lstExpected);
  EXPECT_EQ(pCallback->FailureLines(), lstFailures);
  EXPECT_EQ(log->Count("Path does not exist, NOT adding content [" + strFolder + "]", 0),
            row.nMissingLines);
  EXPECT_EQ(pCallback->m_pHandler->m_iCompleted.load(), 1);
  EXPECT_FALSE(engine.GetOutputHandler());
}

INSTANTIATE_TEST_SUITE_P(Folders, OnDemandFolderChanges, ::testing::ValuesIn(kChangeCases),
                         [](const auto& info) { return std::string(info.param.szName); });

// ---- a listed folder gives what the FindFirst engine gives ----

TEST(OnDemandFolder, SameItemsAsFindFirst) {
  CTempTree tree, out;
  for (const std::string& strName : AwkwardNames()) tree.MakeFile("top/" + strName, "x");
  tree.MakeFile("top/deep/er/f", "12345");
  tree.MakeDir("top/empty");
  tree.MakeSymlink("top/link", "deep");
  tree.MakeFifo("top/fifo");
  const std::string strTop = tree.Path("top");

  auto pFindFirstCallback = std::make_shared<CTestCallback>();
  CFindFirstScanEngine findFirst;
  (void)findFirst.SetScannerCallback(pFindFirstCallback);
  auto pUnit = std::make_shared<CWorkUnit>();
  pUnit->SetLocalVolumeName("/");
  pUnit->SetSourceVolumeName("/");
  pUnit->AddScanPath(std::make_shared<CScanPath>(strTop, strTop));
  ASSERT_TRUE(pUnit->AddScanContentItem(strTop).IsSuccess());
  ASSERT_TRUE(findFirst.ProcessWorkUnit(pUnit).IsSuccess());

  auto pCallback = std::make_shared<CTestCallback>();
  COnDemandScanEngine onDemand;
  (void)onDemand.SetScannerCallback(pCallback);
  CWorkUnitPtr pOnDemandUnit;
  ASSERT_TRUE(onDemand
                  .ProcessVolumeWorkUnit(
                      MakeVolume({WriteContentFile(out.Path("content"), {strTop})}, pOnDemandUnit))
                  .IsSuccess());

  std::vector<SRecord> lstExpected = pFindFirstCallback->m_pHandler->Records();
  std::vector<SRecord> lstActual = pCallback->m_pHandler->Records();
  ASSERT_EQ(lstExpected.size(), AwkwardNames().size() + 6);
  EXPECT_EQ(std::multiset<SRecord>(lstActual.begin(), lstActual.end()),
            std::multiset<SRecord>(lstExpected.begin(), lstExpected.end()));
}

// ---- nested volumes ----

// A tmpfs mounted inside the tree while it lives; unmounted again before the tree goes.
class CScopedTmpfs {
 public:
  explicit CScopedTmpfs(const std::string& strPath) : m_strPath(strPath) {
    m_bMounted = mount("ondemand-test", strPath.c_str(), "tmpfs", 0, "size=1m") == 0;
  }
  ~CScopedTmpfs() {
    if (m_bMounted) umount2(m_strPath.c_str(), MNT_DETACH);
  }
  bool IsMounted() const { return m_bMounted; }

 private:
  std::string m_strPath;
  bool m_bMounted = false;
};

TEST(OnDemandNestedVolume, LeftToItsOwnEntry) {
  CLogCapture log;
  CTempTree tree, out;
  tree.MakeFile("dir/b.txt");
  const std::string strMount = tree.MakeDir("dir/mnt");
  CScopedTmpfs tmpfs(strMount);
  if (!tmpfs.IsMounted()) GTEST_SKIP() << "cannot mount a tmpfs here";
  tree.MakeFile("dir/mnt/x.txt");
  tree.MakeFile("dir/mnt/y/z.txt");

  auto pCallback = std::make_shared<CNamingCallback>();
  COnDemandScanEngine engine;
  (void)engine.SetScannerCallback(pCallback);
  CWorkUnitPtr pUnit;
  ASSERT_TRUE(engine
                  .ProcessVolumeWorkUnit(MakeVolume(
                      {WriteContentFile(out.Path("content"), {tree.Path("dir")})}, pUnit))
                  .IsSuccess());

  // Each object once: the mount point is not reported from the outer volume, its contents come
  // from the nested volume's own traversal, under its own output handler.
  std::vector<std::string> lstPaths = pCallback->m_pHandler->Paths();
  EXPECT_EQ(std::multiset<std::string>(lstPaths.begin(), lstPaths.end()),
            (std::multiset<std::string>{tree.Path("dir/b.txt"), tree.Path("dir/mnt/x.txt"),
                                        tree.Path("dir/mnt/y"), tree.Path("dir/mnt/y/z.txt")}));
  EXPECT_EQ(pCallback->m_vHandlerNames, (std::vector<std::string>{"/", strMount + "/"}));
  EXPECT_EQ(log->Count(
                "Traversing path [" + strMount + "] for source path [" + tree.Path("dir") + "]", 5),
            1u);
  EXPECT_EQ(log->CountContaining(
                "Filtered by nested volume filter, Folder=(" + tree.Path("dir") + ")", 5),
            1u);
}

// ---- mounts below a listed folder that get no entry of their own ----

// Makes a recorded mount table the process's table, with one of its network mounts stale, while
// it lives.
class CRecordedMounts {
 public:
  CRecordedMounts(const std::string& strTableFile, const std::string& strStaleMount) {
    FXFolder::SetMountInfoPath(strTableFile);
    CStaleMountDetector& detector = CStaleMountDetector::Process();
    detector.SetStatFunction([strStaleMount](const std::string& strMount) {
      return strMount == strStaleMount ? ESTALE : 0;
    });
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
  std::vector<std::string> lstReported;
  std::vector<std::string> lstHandlerNames;
  std::vector<std::string> lstSkipped;  // mount points the listings passed over
};

const SMountCase kMountCases[] = {
    {"FolderAbovePseudoAndStaleMounts",
     "%R/dir",
     {"%R/dir/b.txt", "%R/dir/vol/v.txt"},
     {"/", "%R/dir/vol/"},
     {"%R/dir/nfs", "%R/dir/proc", "%R/dir/vol/sys"}},
    {"NestedVolumeListedItself",
     "%R/dir/vol",
     {"%R/dir/vol/v.txt"},
     {"%R/dir/vol/"},
     {"%R/dir/vol/sys"}},
    // The mount points are left out in the form the folder was listed in.
    {"FolderThroughLinkedParent",
     "%R/up/dir",
     {"%R/up/dir/b.txt", "%R/up/dir/vol/v.txt"},
     {"/", "%R/dir/vol/"},
     {"%R/up/dir/nfs", "%R/up/dir/proc", "%R/up/dir/vol/sys"}},
};

class OnDemandLeftOutMounts : public ::testing::TestWithParam<SMountCase> {};

TEST_P(OnDemandLeftOutMounts, AreNeitherReportedNorWalked) {
  const SMountCase& row = GetParam();
  CLogCapture log;
  CTempTree tree, out;
  tree.MakeFile("dir/b.txt");
  tree.MakeFile("dir/proc/1/status");
  tree.MakeFile("dir/proc/sub/x");
  tree.MakeFile("dir/nfs/n.txt");
  tree.MakeFile("dir/vol/v.txt");
  tree.MakeFile("dir/vol/sys/kernel");
  tree.MakeSymlink("up", tree.Root());
  const std::string strR = tree.Root();
  // proc and sysfs are pseudo file systems (the xfs below proc goes with it), the nfs4 mount is
  // stale, and the xfs at dir/vol is a nested volume with an entry of its own.
  CRecordedMounts mounts(out.MakeFile("mountinfo", "1 0 8:1 / / rw - ext4 /dev/sda1 rw\n"
                                                   "2 1 0:5 / " + strR + "/dir/proc rw - proc proc rw\n"
                                                   "3 2 0:40 / " + strR + "/dir/proc/sub rw - xfs /dev/sdd rw\n"
                                                   "4 1 0:41 / " + strR + "/dir/nfs rw - nfs4 srv:/export rw\n"
                                                   "5 1 8:3 / " + strR + "/dir/vol rw - xfs /dev/sdc rw\n"
                                                   "6 5 0:6 / " + strR + "/dir/vol/sys rw - sysfs sysfs rw\n"),
                         strR + "/dir/nfs");
  ASSERT_TRUE(mounts.m_refreshError.IsSuccess()) << mounts.m_refreshError.AsString();
  ASSERT_TRUE(MountPathInfo::CheckInStaleFSList(strR + "/dir/nfs"));
  auto expand = [&](std::string strText) {
    for (size_t pos; (pos = strText.find("%R")) != std::string::npos;) strText.replace(pos, 2, strR);
    return strText;
  };
  auto expandAll = [&](const std::vector<std::string>& lstIn) {
    std::vector<std::string> lstOut;
    for (const std::string& strText : lstIn) lstOut.push_back(expand(strText));
    return lstOut;
  };
  auto pCallback = std::make_shared<CNamingCallback>();
  COnDemandScanEngine engine;
  (void)engine.SetScannerCallback(pCallback);
  CWorkUnitPtr pUnit;

  ASSERT_TRUE(engine
                  .ProcessVolumeWorkUnit(MakeVolume(
                      {WriteContentFile(out.Path("content"), {expand(row.szListed)})}, pUnit))
                  .IsSuccess());

  EXPECT_EQ(pUnit->DispositionAsString(), "Processed(OD)");
  std::vector<std::string> lstPaths = pCallback->m_pHandler->Paths();
  std::vector<std::string> lstExpected = expandAll(row.lstReported);
  EXPECT_EQ(std::multiset<std::string>(lstPaths.begin(), lstPaths.end()),
            std::multiset<std::string>(lstExpected.begin(), lstExpected.end()));
  EXPECT_EQ(pCallback->m_vHandlerNames, expandAll(row.lstHandlerNames));
  for (const std::string& strSkipped : expandAll(row.lstSkipped))
    EXPECT_EQ(log->Count("[" + strSkipped + "] skipped by ignoreFS rule", 0), 1u) << strSkipped;
  EXPECT_EQ(log->CountContaining("] skipped by ignoreFS rule", 0), row.lstSkipped.size());
}

INSTANTIATE_TEST_SUITE_P(Mounts, OnDemandLeftOutMounts, ::testing::ValuesIn(kMountCases),
                         [](const auto& info) { return std::string(info.param.szName); });

}  // namespace
