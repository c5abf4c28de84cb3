// The parallel folder traversal (CScanTraverseFolder) and the engines' traversal (CEnumerateFiles)
// on real temporary trees, with one and with several workers.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Platform/FXEvent.h"
#include "Platform/FXPath.h"
#include "Scan/BasicPathEnumerator.h"
#include "Scan/EnumerateFiles.h"
#include "Scan/FabricatedItem.h"
#include "Scan/ScanEngine.h"
#include "Scan/ScanTraverseFolder.h"
#include "Support/TempTree.h"
#include "TraversalTestSupport.h"

using namespace TraversalTestSupport;

namespace {

// Records what the base traversal dispatches, in order, from any number of workers.
class CRecordingTraversal : public CScanTraverseFolder {
 public:
  struct SFailure {
    std::string strPath;
    bool bIsFile;
    uint32_t uCode;
  };

  CQiError OnFolder(const std::string& strInput, const std::string& strOutput,
                    CItemPtr& pItem) override {
    Record("folder:" + strInput);
    // Gone once it has been met: its queued entry finds nothing to list. (Removed before it is
    // queued, so that no other worker can list it first.)
    if (pItem->GetItemName() == m_strRemoveAfterQueueing) rmdir(strInput.c_str());
    return CScanTraverseFolder::OnFolder(strInput, strOutput, pItem);
  }
  CQiError OnFile(const std::string& strInput, const std::string&, CItemPtr&) override {
    Record("file:" + strInput);
    return CQiError();
  }
  CQiError OnReparsePointFile(const std::string& strInput, const std::string&, CItemPtr&) override {
    Record("link:" + strInput);
    return CQiError();
  }
  CQiError OnFailedContent(const std::string& strInput, const std::string&, bool bIsFile,
                           const CQiError& error) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_vFailures.push_back({strInput, bIsFile, error.GetCode()});
    return CQiError();
  }

  std::vector<std::string> Events() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_vEvents;
  }

  std::string m_strRemoveAfterQueueing;
  std::vector<SFailure> m_vFailures;

 private:
  void Record(const std::string& strEvent) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_vEvents.push_back(strEvent);
  }
  std::mutex m_mutex;
  std::vector<std::string> m_vEvents;
};

std::multiset<std::string> AsSet(const std::vector<std::string>& v) {
  return std::multiset<std::string>(v.begin(), v.end());
}

// ---- content roots: what a traversal does with what it is given ----

struct SRootCase {
  const char* szName;
  // Builds the tree, queues the roots, sets the traversal up; returns the events expected (in
  // any order).
  std::vector<std::string> (*fnSetUp)(CTempTree&, CRecordingTraversal&);
  uint32_t uErrnoExpected;        // 0: success
  const char* szFailurePath;      // relative path reported through OnFailedContent, or null
  const char* szLogFragment;      // a line that must be logged, or null ("%R" is the tree root)
};

std::vector<std::string> EmptyQueue(CTempTree&, CRecordingTraversal&) { return {}; }

std::vector<std::string> FileRoot(CTempTree& tree, CRecordingTraversal& traversal) {
  std::string strFile = tree.MakeFile("only.txt", "x");
  traversal.AddFolderToList(strFile, strFile);
  return {"file:" + strFile};
}

std::vector<std::string> LinkRoot(CTempTree& tree, CRecordingTraversal& traversal) {
  tree.MakeFile("target/inside.txt");
  std::string strLink = tree.MakeSymlink("link", tree.Path("target"));
  traversal.AddFolderToList(strLink, strLink);
  return {"link:" + strLink};
}

std::vector<std::string> MissingFirstRoot(CTempTree& tree, CRecordingTraversal& traversal) {
  traversal.AddFolderToList(tree.Path("missing"), tree.Path("missing"));
  return {};
}

std::vector<std::string> VanishedAfterQueueing(CTempTree& tree, CRecordingTraversal& traversal) {
  tree.MakeDir("gone");
  std::string strKept = tree.MakeFile("kept/a.txt");
  traversal.m_strRemoveAfterQueueing = "gone";
  traversal.AddFolderToList(tree.Root(), tree.Root());
  return {"folder:" + tree.Path("gone"), "folder:" + tree.Path("kept"), "file:" + strKept};
}

std::vector<std::string> TopLevelRoot(CTempTree& tree, CRecordingTraversal& traversal) {
  std::string strFile = tree.MakeFile("sub/f.txt");
  traversal.SetProcessTopLevelContentItem(true);
  traversal.AddFolderToList(tree.Root(), tree.Root());
  return {"folder:" + tree.Root(), "folder:" + tree.Path("sub"), "file:" + strFile};
}

const SRootCase kRootCases[] = {
    {"EmptyQueue", EmptyQueue, 0, nullptr, nullptr},
    {"FileRootIsOneItem", FileRoot, 0, nullptr, "SearchPath=%R/only.txt is a file"},
    {"LinkRootIsNotFollowed", LinkRoot, 0, nullptr, "SearchPath=%R/link is a file"},
    {"MissingFirstRootFails", MissingFirstRoot, ENOENT, "missing", "Content path [%R/missing] not found ("},
    {"VanishedFolderIsSkipped", VanishedAfterQueueing, 0, "gone", "Content path [%R/gone] not found ("},
    {"TopLevelRootReportedOnce", TopLevelRoot, 0, nullptr, "oFile.name="},
};

class TraverseRoots : public ::testing::TestWithParam<std::tuple<SRootCase, int>> {};

TEST_P(TraverseRoots, ReportsWhatTheRootsHold) {
  const SRootCase& row = std::get<0>(GetParam());
  const int iWorkers = std::get<1>(GetParam());
  CLogCapture log;
  CTempTree tree;
  CRecordingTraversal traversal;
  traversal.SetMaxWorkers(iWorkers);
  std::vector<std::string> expected = row.fnSetUp(tree, traversal);

  CQiError error = traversal.Traverse();

  EXPECT_EQ(AsSet(traversal.Events()), AsSet(expected));
  if (row.uErrnoExpected == 0) {
    EXPECT_TRUE(error.IsSuccess()) << error.AsString();
  } else {
    EXPECT_TRUE(error.IsErrNo(static_cast<int>(row.uErrnoExpected))) << error.AsString();
    const std::string strMissing = tree.Path(row.szFailurePath);
    EXPECT_NE(error.AsString().find("Traverse failed, Content Path=" + strMissing + " not found"),
              std::string::npos);
    if (iWorkers > 1) {
      EXPECT_NE(error.AsString().find("One or more workers failed"), std::string::npos);
    }
  }
  if (row.szFailurePath != nullptr) {
    ASSERT_EQ(traversal.m_vFailures.size(), 1u);
    EXPECT_EQ(traversal.m_vFailures[0].strPath, tree.Path(row.szFailurePath));
    EXPECT_TRUE(traversal.m_vFailures[0].bIsFile);
    EXPECT_EQ(traversal.m_vFailures[0].uCode, static_cast<uint32_t>(ENOENT));
  } else {
    EXPECT_TRUE(traversal.m_vFailures.empty());
  }
  if (row.szLogFragment != nullptr) {
    std::string strFragment = row.szLogFragment;
    if (size_t pos = strFragment.find("%R"); pos != std::string::npos)
      strFragment.replace(pos, 2, tree.Root());
    EXPECT_GE(log->CountContaining(strFragment), 1u) << strFragment;
  }
  EXPECT_EQ(traversal.GetFoldersToTraverseCount(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Roots, TraverseRoots,
                         ::testing::Combine(::testing::ValuesIn(kRootCases), ::testing::Values(1, 4)),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param).szName) + "_" +
                                  std::to_string(std::get<1>(info.param)) + "Workers";
                         });

// ---- order ----

// Depth-first: the folder added last is listed next, both for queued roots and for the
// subfolders met in a listing (whose order is the file system's).
TEST(TraverseOrder, LastFolderAddedIsListedNext) {
  CTempTree tree;
  CRecordingTraversal traversal;
  for (const char* szRoot : {"A", "B", "C"}) {
    tree.MakeFile(std::string(szRoot) + "/f");
    traversal.AddFolderToList(tree.Path(szRoot), tree.Path(szRoot));
  }
  for (int i = 0; i < 12; ++i) tree.MakeFile("D/sub" + std::to_string(i) + "/f");
  traversal.AddFolderToList(tree.Path("D"), tree.Path("D"));
  traversal.AddFolderToList(tree.Path("C"), tree.Path("C"));  // again: listed first

  ASSERT_TRUE(traversal.Traverse().IsSuccess());

  std::vector<std::string> lstQueued, lstFiles;
  for (const std::string& strEvent : traversal.Events()) {
    if (strEvent.rfind("folder:", 0) == 0) lstQueued.push_back(FXPath::GetName(strEvent));
    if (strEvent.rfind("file:", 0) == 0) lstFiles.push_back(FXPath::GetName(FXPath::GetParent(strEvent)));
  }
  // C first (added last), then D's subfolders in the reverse of the order they were met, then
  // the remaining roots C, B, A.
  std::vector<std::string> expected = {"C"};
  expected.insert(expected.end(), lstQueued.rbegin(), lstQueued.rend());
  expected.insert(expected.end(), {"C", "B", "A"});
  EXPECT_EQ(lstFiles, expected);
}

// Links of a folder are dispatched after every other entry of that folder, in every folder,
// whatever order the file system lists them in; also in a folder with more links than are held
// aside (listed a second time for them), each exactly once.
class TraverseReparsePoints : public ::testing::TestWithParam<int> {};

TEST_P(TraverseReparsePoints, ComeAfterAllOtherEntriesOfTheirFolder) {
  CTempTree tree;
  const int iManyLinks = static_cast<int>(CFolderListing::kMaxHeldReparsePoints) + 5;
  std::map<std::string, int> mapLinks{{"top", 20}, {"top/inner", 20}, {"top/inner/deep", 20},
                                      {"top/many", iManyLinks}};
  for (const auto& [strFolder, iLinks] : mapLinks) {
    const char* szFolder = strFolder.c_str();
    for (int i = 0; i < iLinks; ++i) {
      std::string strBase = std::string(szFolder) + "/" + std::to_string(i);
      tree.MakeFile(strBase + "file");
      tree.MakeSymlink(strBase + "link", i % 2 ? "/nonexistent" : tree.Path("top"));
      if (i % 5 == 0) tree.MakeDir(strBase + "dir");
    }
  }
  CRecordingTraversal traversal;
  traversal.SetMaxWorkers(GetParam());
  traversal.AddFolderToList(tree.Path("top"), tree.Path("top"));
  ASSERT_TRUE(traversal.Traverse().IsSuccess());

  std::map<std::string, std::vector<bool>> mapIsLinkByFolder;
  for (const std::string& strEvent : traversal.Events()) {
    std::string strPath = strEvent.substr(strEvent.find(':') + 1);
    mapIsLinkByFolder[FXPath::GetParent(strPath)].push_back(strEvent.rfind("link:", 0) == 0);
  }
  ASSERT_EQ(mapIsLinkByFolder.size(), 4u);
  for (const auto& [strFolder, lstIsLink] : mapIsLinkByFolder) {
    EXPECT_EQ(std::count(lstIsLink.begin(), lstIsLink.end(), true),
              mapLinks[strFolder.substr(tree.Root().size() + 1)]) << strFolder;
    EXPECT_TRUE(std::is_sorted(lstIsLink.begin(), lstIsLink.end())) << strFolder;
  }
}

INSTANTIATE_TEST_SUITE_P(Workers, TraverseReparsePoints, ::testing::Values(1, 4));

// ---- CEnumerateFiles: the engines' traversal ----

// An engine with the recording handler open.
struct SEngineRig {
  std::shared_ptr<CTestCallback> pCallback = std::make_shared<CTestCallback>();
  CScanEngine engine;
  SEngineRig() {
    (void)engine.SetScannerCallback(pCallback);
    EXPECT_TRUE(engine.OpenOutputHandler("vol").IsSuccess());
  }
  ~SEngineRig() { (void)engine.CloseOutputHandler(); }
};

// A path enumerator that reports chosen entries as not describable, with a chosen errno.
class CFaultyEnumerator : public CBasicPathEnumerator {
 public:
  CFaultyEnumerator(std::string strVictim, int iErrno)
      : m_strVictim(std::move(strVictim)), m_iErrno(iErrno) {}
  CQiError FindFirst(const std::string& strPattern, CItemPtr pParent, CItemPtr& pItem) override {
    return Inject(CBasicPathEnumerator::FindFirst(strPattern, std::move(pParent), pItem), pItem);
  }
  CQiError FindNext(CItemPtr& pItem) override {
    return Inject(CBasicPathEnumerator::FindNext(pItem), pItem);
  }
  CPathEnumerator* Clone() override { return new CFaultyEnumerator(*this); }

 private:
  CQiError Inject(CQiError error, CItemPtr& pItem) {
    if (error.IsError() || !pItem || pItem->GetItemName() != m_strVictim) return error;
    pItem = std::make_shared<CFabricatedItem>(pItem->GetWorkUnitBag(),
                                              pItem->GetLocalFullyQualifiedItemName(),
                                              pItem->GetSourceFullyQualifiedItemName());
    return QI_ERROR_ERRNO(m_iErrno, "Entry is not good, Entry=%s", m_strVictim.c_str());
  }
  std::string m_strVictim;
  int m_iErrno;
};

struct SEntryErrorCase {
  const char* szName;
  int iErrno;
  bool bRecorded;
};

class EntryErrors : public ::testing::TestWithParam<std::tuple<SEntryErrorCase, int>> {};

TEST_P(EntryErrors, OnlyUnexpectedErrorsBecomeFailureRecords) {
  const SEntryErrorCase& row = std::get<0>(GetParam());
  CLogCapture log;
  CTempTree tree, out;
  const std::string strVictim = tree.MakeFile("dir/victim", "v");
  const std::string strOther = tree.MakeFile("dir/other", "o");
  SEngineRig rig;
  rig.pCallback->UseFailuresFile(out.Path("failures"));
  CEnumerateFiles traversal(&rig.engine, std::make_shared<CFaultyEnumerator>("victim", row.iErrno));
  traversal.SetMaxWorkers(std::get<1>(GetParam()));
  traversal.AddFolderToList(tree.Root(), tree.Root());

  ASSERT_TRUE(traversal.Traverse().IsSuccess());

  EXPECT_EQ(AsSet(rig.pCallback->m_pHandler->Paths()), AsSet({tree.Path("dir"), strOther}));
  std::vector<std::string> expected;
  if (row.bRecorded) expected.push_back("file " + strVictim + ":" + std::to_string(row.iErrno));
  EXPECT_EQ(rig.pCallback->FailureLines(), expected);
  EXPECT_EQ(log->CountContaining("Stat failure. Adding " + strVictim + " to failed file and continue. Error ["),
            row.bRecorded ? 1u : 0u);
}

const SEntryErrorCase kEntryErrorCases[] = {
    {"Vanished", ENOENT, false},
    {"PermissionDenied", EACCES, true},
    {"IoError", EIO, true},
    {"TooManyLinks", ELOOP, true},
};

INSTANTIATE_TEST_SUITE_P(Errno, EntryErrors,
                         ::testing::Combine(::testing::ValuesIn(kEntryErrorCases), ::testing::Values(1, 3)),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param).szName) + "_" +
                                  std::to_string(std::get<1>(info.param)) + "Workers";
                         });

// Which entries a traversal reports and which folders it lists, by the unit's selection.
struct SFilterCase {
  const char* szName;
  std::vector<std::string> lstContent;        // relative; empty: no content limit
  std::vector<std::string> lstFilters;        // relative (leading '/') or patterns
  std::vector<std::string> lstSystemFilters;  // relative
  unsigned uExcludedAttributes;
  bool bBuiltIn;
  const char* szOutputRoot;                   // the source path of the tree's root, or null
  std::vector<std::string> lstReported;       // relative to the output root
  std::vector<std::string> lstNotListed;      // folders never opened (relative to the tree)
  const char* szLog;                          // a level-5 line, "%S" is the output root
};

const SFilterCase kFilterCases[] = {
    {"NoSelection", {}, {}, {}, 0, false, nullptr,
     {"keep.txt", "drop.tmp", "skipme", "skipme/inner.txt", "a", "a/b", "a/b/deep.txt", "a/side.txt"},
     {}, "Not filtered, Folder=(%S) TestString=(\\%S/keep.txt)"},
    {"PatternDropsFilesOnly", {}, {"*.tmp"}, {}, 0, false, nullptr,
     {"keep.txt", "skipme", "skipme/inner.txt", "a", "a/b", "a/b/deep.txt", "a/side.txt"},
     {}, "Filtered by content filter, Folder=(%S) TestString=(\\%S/drop.tmp)"},
    {"FilteredFolderIsNotListed", {}, {"/skipme"}, {}, 0, false, nullptr,
     {"keep.txt", "drop.tmp", "a", "a/b", "a/b/deep.txt", "a/side.txt"},
     {"skipme"}, "Filter excludes all content, Folder=%S/skipme"},
    {"SystemFilterFolder", {}, {}, {"/skipme"}, 0, false, nullptr,
     {"keep.txt", "drop.tmp", "a", "a/b", "a/b/deep.txt", "a/side.txt"},
     {"skipme"}, "System filter excludes all content, Folder=%S/skipme"},
    {"ContentBelowAFilteredFolder", {"/a/b"}, {}, {}, 0, false, nullptr,
     {"a/b", "a/b/deep.txt"},
     {"skipme"}, "No matching possible in content, Folder=%S/skipme"},
    {"ExcludedAttributes", {}, {}, {}, S_IFREG, false, nullptr,
     {"skipme", "a", "a/b"}, {}, nullptr},
    {"BuiltInSystemProtectedFiles", {}, {}, {}, 0, true, "/proc/fake",
     {}, {"skipme", "a"}, "System filter excludes all content, Folder=/proc/fake/a"},
    {"BuiltInOffReportsAll", {}, {}, {}, 0, false, "/proc/fake",
     {"keep.txt", "drop.tmp", "skipme", "skipme/inner.txt", "a", "a/b", "a/b/deep.txt", "a/side.txt"},
     {}, nullptr},
};

class EnumerateFilesSelection : public ::testing::TestWithParam<SFilterCase> {};

TEST_P(EnumerateFilesSelection, ReportsSelectedAndListsOnlyWhatMayHoldSelection) {
  const SFilterCase& row = GetParam();
  CLogCapture log;
  CTempTree tree;
  for (const char* szFile : {"keep.txt", "drop.tmp", "skipme/inner.txt", "a/b/deep.txt", "a/side.txt"})
    tree.MakeFile(szFile);
  const std::string strOut = row.szOutputRoot ? row.szOutputRoot : tree.Root();
  auto sets = [&](const std::vector<std::string>& items) {
    auto pSet = std::make_shared<CFilterSet>();
    for (const std::string& item : items)
      EXPECT_TRUE(pSet->AddFilterItem(BFilterNodeState::Include, item[0] == '/' ? strOut + item : item).IsSuccess());
    return pSet;
  };
  SEngineRig rig;
  CEnumerateFiles traversal(&rig.engine);
  traversal.SetScanContent(sets(row.lstContent));
  traversal.SetFilters(sets(row.lstFilters));
  traversal.SetSystemFilters(sets(row.lstSystemFilters));
  traversal.SetExcludedAttributes(row.uExcludedAttributes);
  traversal.EnableBuiltInSystemProtectedFilesFilter(row.bBuiltIn);
  traversal.AddFolderToList(tree.Root(), strOut);

  ASSERT_TRUE(traversal.Traverse().IsSuccess());

  std::vector<std::string> expected;
  for (const std::string& rel : row.lstReported) expected.push_back(strOut + "/" + rel);
  EXPECT_EQ(AsSet(rig.pCallback->m_pHandler->Paths()), AsSet(expected));
  for (const std::string& rel : row.lstNotListed)
    EXPECT_EQ(log->CountContaining("FindFirst, SearchPath=" + tree.Path(rel)), 0u) << rel;
  if (row.szLog != nullptr) {
    std::string strLine = row.szLog;
    for (size_t pos; (pos = strLine.find("%S")) != std::string::npos;) strLine.replace(pos, 2, strOut);
    EXPECT_EQ(log->Count(strLine, 5), 1u) << strLine;
  }
}

INSTANTIATE_TEST_SUITE_P(Selection, EnumerateFilesSelection, ::testing::ValuesIn(kFilterCases),
                         [](const auto& info) { return std::string(info.param.szName); });

// A refusing output handler stops the folder, unless its code is one the traversal ignores.
class ConsumerErrors : public ::testing::TestWithParam<bool> {};

TEST_P(ConsumerErrors, StopTheFolderUnlessIgnored) {
  const bool bIgnored = GetParam();
  CTempTree tree;
  for (int i = 0; i < 5; ++i) tree.MakeFile("f" + std::to_string(i));
  SEngineRig rig;
  rig.pCallback->m_pHandler->m_uFailCode = 112;
  CEnumerateFiles traversal(&rig.engine);
  if (bIgnored) traversal.ignoreConsumerError(112);
  traversal.AddFolderToList(tree.Root(), tree.Root());

  CQiError error = traversal.Traverse();

  if (bIgnored) {
    EXPECT_TRUE(error.IsSuccess()) << error.AsString();
    EXPECT_EQ(rig.pCallback->m_pHandler->Records().size(), 5u);
  } else {
    EXPECT_TRUE(error.IsWin32(112)) << error.AsString();
    EXPECT_NE(error.AsString().find("Failed to report failed item."), std::string::npos);
    EXPECT_EQ(rig.pCallback->m_pHandler->Records().size(), 1u);
  }
}

INSTANTIATE_TEST_SUITE_P(Ignored, ConsumerErrors, ::testing::Bool());

// An abort from another thread ends a large traversal with 995, without a failure line, long
// before it has seen everything.
class TraverseAbort : public ::testing::TestWithParam<int> {
 protected:
  // 50 folders of 1000 files, made once for both rows.
  static void SetUpTestSuite() {
    s_pTree = new CTempTree();
    for (int d = 0; d < 50; ++d) {
      std::string strFolder = s_pTree->MakeDir("d" + std::to_string(d));
      for (int f = 0; f < 1000; ++f)
        close(creat((strFolder + "/f" + std::to_string(f)).c_str(), 0644));
    }
  }
  static void TearDownTestSuite() { delete s_pTree; }
  static CTempTree* s_pTree;
};

CTempTree* TraverseAbort::s_pTree = nullptr;

TEST_P(TraverseAbort, EndsALargeTraversalQuietly) {
  CLogCapture log(CLogWriterInterface::kLevelAlways);
  SEngineRig rig;
  FXEvent reached(FXEvent::EResetMode::Manual), aborted(FXEvent::EResetMode::Manual);
  // Every delivery from the 2000th on waits for the abort (a bounded wait as a safety net).
  rig.pCallback->m_pHandler->m_fnOnItem = [&](size_t nCount) {
    if (nCount < 2000) return;
    reached.Set();
    aborted.Wait(60000);
  };
  std::thread aborter([&] {
    reached.Wait(60000);
    (void)rig.pCallback->Abort();
    aborted.Set();
  });
  CEnumerateFiles traversal(&rig.engine);
  traversal.SetMaxWorkers(GetParam());
  traversal.SetAbortCheck(rig.pCallback.get());
  traversal.AddFolderToList(s_pTree->Root(), s_pTree->Root());

  CQiError error = traversal.Traverse();
  aborter.join();

  EXPECT_TRUE(error.IsWin32(995)) << error.AsString();
  EXPECT_EQ(error.GetMessage(), "Operation aborted");
  EXPECT_LT(rig.pCallback->m_pHandler->Records().size(), 2000u + GetParam());
  EXPECT_EQ(log->CountContaining("", -1), 0u);
}

INSTANTIATE_TEST_SUITE_P(Workers, TraverseAbort, ::testing::Values(1, 4));

}  // namespace
