// The folder traversals on real temporary trees: what both generations make of their roots and
// where they deliver links, and what the engines' traversal of the first generation
// (CEnumerateFiles) does with entry errors, selections, refusing handlers and aborts.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "Platform/FXEvent.h"
#include "Platform/FXPath.h"
#include "Scan/BasicPathEnumerator.h"
#include "Scan/FabricatedItem.h"
#include "TraversalTestSupport.h"

using namespace TraversalTestSupport;

namespace {

// ---- the roots, by both generations ----

struct SRootCase {
  const char* szName;
  bool bTopLevel;
  std::vector<std::string> lstRoots;     // "%R" is the tree's root
  std::vector<std::string> lstReported;  // in any order; each root comes before what it holds
  int iErrNo;                            // 0: success
  std::vector<std::string> lstFailures;  // the failures file
  const char* szRemovedWhenMet = "";     // a folder removed when its item is delivered, before its listing
};

const SRootCase kRootCases[] = {
    {"EmptyQueue", true, {}, {}, 0, {}},
    {"FolderRootNotReported", false, {"%R"}, {"%R/a", "%R/a/b", "%R/a/b/f2", "%R/a/f1", "%R/g", "%R/link"}, 0, {}},
    {"FolderRootReportedFirst", true, {"%R"}, {"%R", "%R/a", "%R/a/b", "%R/a/b/f2", "%R/a/f1", "%R/g", "%R/link"}, 0, {}},
    {"EveryRootReportedFirst", true, {"%R/a/b", "%R/g"}, {"%R/a/b", "%R/a/b/f2", "%R/g"}, 0, {}},
    {"FileRoot", false, {"%R/g"}, {"%R/g"}, 0, {}},
    {"FileRootReportedOnce", true, {"%R/g"}, {"%R/g"}, 0, {}},
    {"LinkRootNotFollowed", true, {"%R/link"}, {"%R/link"}, 0, {}},
    // The folder added last is listed first: missing, it ends the scan; missing later, it is recorded.
    {"MissingFirstRootFails", true, {"%R/missing"}, {}, ENOENT, {"folder %R/missing:2"}},
    {"MissingLaterRootIsRecorded", true, {"%R/missing", "%R/a/b"}, {"%R/a/b", "%R/a/b/f2"}, 0, {"folder %R/missing:2"}},
    // Gone after it was met: recorded as missing, and the traversal goes on.
    {"FolderGoneBeforeItsListing", false, {"%R/a"}, {"%R/a/b", "%R/a/f1"}, 0, {"folder %R/a/b:2"}, "b"},
};

void PrintTo(const SRootCase& row, std::ostream* pStream) { *pStream << row.szName; }

class TraverseRoots : public ::testing::TestWithParam<std::tuple<SRootCase, SKind>> {};

TEST_P(TraverseRoots, ReportsWhatTheRootsHold) {
  const auto& [row, kind] = GetParam();
  CTempTree tree, out;
  tree.MakeFile("a/f1", "1");
  tree.MakeFile("a/b/f2", "22");
  tree.MakeFile("g", "333");
  tree.MakeSymlink("link", tree.Path("a"));
  const STokens tokens{{{"%R", tree.Root()}}};
  auto pCallback = std::make_shared<CTestCallback>();
  pCallback->UseFailuresFile(out.Path("failures"));
  pCallback->m_pHandler->m_fnHook = [&](const CItemPtr& pItem) {
    if (pItem->GetItemName() == row.szRemovedWhenMet) RemoveTreeAt(AT_FDCWD, pItem->GetLocalFullyQualifiedItemName().c_str());
  };

  CQiError error = Traverse(kind, pCallback, tokens(row.lstRoots), {row.bTopLevel});

  EXPECT_TRUE(row.iErrNo ? error.IsErrNo(row.iErrNo) : error.IsSuccess()) << error.AsString();
  if (row.iErrNo != 0) {
    EXPECT_NE(error.AsString().find("Traverse failed, Content Path=" + tokens(row.lstRoots.back()) + " not found"),
              std::string::npos) << error.AsString();
  }
  const std::vector<std::string> lstPaths = pCallback->m_pHandler->Paths();
  EXPECT_EQ(Bag(lstPaths), Bag(tokens(row.lstReported)));
  for (const std::string& strRoot : row.bTopLevel ? tokens(row.lstRoots) : std::vector<std::string>{}) {
    const auto itRoot = std::find(lstPaths.begin(), lstPaths.end(), strRoot);
    for (auto it = lstPaths.begin(); it != itRoot; ++it)
      EXPECT_NE(it->rfind(strRoot + "/", 0), 0u) << *it << " came before its root " << strRoot;
  }
  EXPECT_EQ(pCallback->FailureLines(), tokens(row.lstFailures));
  EXPECT_EQ(pCallback->m_pHandler->m_vEvents,
            (std::vector<std::string>{"Initialize@0", "Complete@" + std::to_string(lstPaths.size())}));
}

INSTANTIATE_TEST_SUITE_P(Roots, TraverseRoots, ::testing::Combine(::testing::ValuesIn(kRootCases), ::testing::ValuesIn(kKinds)),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param).szName) + "_" + std::get<1>(info.param).szName;
                         });

class TraverseKinds : public ::testing::TestWithParam<SKind> {};

// Links of a folder are delivered after every other entry of that folder, in every folder,
// whatever order the file system lists them in; also in a folder with more links than are held
// aside (listed a second time for them), each exactly once. A handler may keep weak references
// to the items: an item never turns into another object.
TEST_P(TraverseKinds, LinksComeAfterAllOtherEntriesOfTheirFolder) {
  CTempTree tree;
  const int iManyLinks = static_cast<int>(CFolderListing::kMaxHeldReparsePoints) + 5;
  std::map<std::string, int> mapLinks{{"top", 20}, {"top/inner", 20}, {"top/inner/deep", 20}, {"top/many", iManyLinks}};
  for (const auto& [strFolder, iLinks] : mapLinks) {
    for (int i = 0; i < iLinks; ++i) {
      const std::string strBase = strFolder + "/" + std::to_string(i);
      tree.MakeFile(strBase + "file");
      tree.MakeSymlink(strBase + "link", i % 2 ? "/nonexistent" : tree.Path("top"));
      if (i % 5 == 0) tree.MakeDir(strBase + "dir");
    }
  }
  auto pCallback = std::make_shared<CTestCallback>();
  std::mutex mutex;
  std::vector<std::pair<std::weak_ptr<CItem>, std::string>> lstKept;
  pCallback->m_pHandler->m_fnHook = [&](const CItemPtr& pItem) {
    std::lock_guard<std::mutex> lock(mutex);
    lstKept.emplace_back(pItem, pItem->GetSourceFullyQualifiedItemName());
  };
  ASSERT_TRUE(Traverse(GetParam(), pCallback, {tree.Path("top")}).IsSuccess());
  for (const auto& [pWeak, strPath] : lstKept) {
    const CItemPtr pItem = pWeak.lock();
    EXPECT_EQ(pItem ? pItem->GetSourceFullyQualifiedItemName() : strPath, strPath);
  }

  std::map<std::string, std::vector<bool>> mapIsLinkByFolder;
  for (const SRecord& record : pCallback->m_pHandler->Records())
    mapIsLinkByFolder[FXPath::GetParent(record.strPath)].push_back(S_ISLNK(record.uMode));
  ASSERT_EQ(mapIsLinkByFolder.size(), 4u);
  for (const auto& [strFolder, lstIsLink] : mapIsLinkByFolder) {
    EXPECT_EQ(std::count(lstIsLink.begin(), lstIsLink.end(), true), mapLinks[strFolder.substr(tree.Root().size() + 1)])
        << strFolder;
    EXPECT_TRUE(std::is_sorted(lstIsLink.begin(), lstIsLink.end())) << strFolder;
  }
}

INSTANTIATE_TEST_SUITE_P(Kinds, TraverseKinds, ::testing::ValuesIn(kKinds),
                         [](const auto& info) { return std::string(info.param.szName); });

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

// A path enumerator that reports one entry as not describable, with a chosen errno.
class CFaultyEnumerator : public CBasicPathEnumerator {
 public:
  CFaultyEnumerator(std::string strVictim, int iErrno) : m_strVictim(std::move(strVictim)), m_iErrno(iErrno) {}
  CQiError FindFirst(const std::string& strPattern, CItemPtr pParent, CItemPtr& pItem) override {
    return Inject(CBasicPathEnumerator::FindFirst(strPattern, std::move(pParent), pItem), pItem);
  }
  CQiError FindNext(CItemPtr& pItem) override { return Inject(CBasicPathEnumerator::FindNext(pItem), pItem); }
  CPathEnumerator* Clone() override { return new CFaultyEnumerator(*this); }

 private:
  CQiError Inject(CQiError error, CItemPtr& pItem) {
    if (error.IsError() || !pItem || pItem->GetItemName() != m_strVictim) return error;
    pItem = std::make_shared<CFabricatedItem>(pItem->GetWorkUnitBag(), pItem->GetLocalFullyQualifiedItemName(),
                                              pItem->GetSourceFullyQualifiedItemName());
    return QI_ERROR_ERRNO(m_iErrno, "Entry is not good, Entry=%s", m_strVictim.c_str());
  }
  std::string m_strVictim;
  int m_iErrno;
};

// Only unexpected errors of an entry become failure records; a vanished entry is passed over.
class EntryErrors : public ::testing::TestWithParam<std::tuple<int, int>> {};

TEST_P(EntryErrors, OnlyUnexpectedErrorsBecomeFailureRecords) {
  const auto [iErrno, iWorkers] = GetParam();
  const bool bRecorded = iErrno != ENOENT;
  CLogCapture log;
  CTempTree tree, out;
  const std::string strVictim = tree.MakeFile("dir/victim", "v");
  const std::string strOther = tree.MakeFile("dir/other", "o");
  SEngineRig rig;
  rig.pCallback->UseFailuresFile(out.Path("failures"));
  CEnumerateFiles traversal(&rig.engine, std::make_shared<CFaultyEnumerator>("victim", iErrno));
  traversal.SetMaxWorkers(iWorkers);
  traversal.AddFolderToList(tree.Root(), tree.Root());

  ASSERT_TRUE(traversal.Traverse().IsSuccess());

  EXPECT_EQ(Bag(rig.pCallback->m_pHandler->Paths()), Bag(std::vector{tree.Path("dir"), strOther}));
  std::vector<std::string> expected;
  if (bRecorded) expected.push_back("file " + strVictim + ":" + std::to_string(iErrno));
  EXPECT_EQ(rig.pCallback->FailureLines(), expected);
  EXPECT_EQ(log->CountContaining("Stat failure. Adding " + strVictim + " to failed file and continue. Error ["),
            bRecorded ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(Errno, EntryErrors, ::testing::Combine(::testing::Values(ENOENT, EACCES, EIO), ::testing::Values(1, 3)),
                         [](const auto& info) {
                           return "Errno" + std::to_string(std::get<0>(info.param)) + "_" +
                                  std::to_string(std::get<1>(info.param)) + "Workers";
                         });

// Which entries a traversal reports and which folders it lists, by the unit's selection.
struct SFilterCase {
  const char* szName;
  std::vector<std::string> lstContent, lstFilters, lstSystemFilters;  // "/x": below the output root
  unsigned uExcludedAttributes;
  bool bBuiltIn;
  const char* szOutputRoot;               // the source path of the tree's root, or null
  std::vector<std::string> lstReported;   // relative to the output root
  std::vector<std::string> lstNotListed;  // folders never opened (relative to the tree)
};

const std::vector<std::string> kAll = {"keep.txt", "drop.tmp", "skipme", "skipme/inner.txt",
                                       "a",        "a/b",      "a/b/deep.txt", "a/side.txt"};
const std::vector<std::string> kAllButSkipme = {"keep.txt", "drop.tmp", "a", "a/b", "a/b/deep.txt", "a/side.txt"};

const SFilterCase kFilterCases[] = {
    {"PatternDropsFilesOnly", {}, {"*.tmp"}, {}, 0, false, nullptr,
     {"keep.txt", "skipme", "skipme/inner.txt", "a", "a/b", "a/b/deep.txt", "a/side.txt"}, {}},
    {"FilteredFolderIsNotListed", {}, {"/skipme"}, {}, 0, false, nullptr, kAllButSkipme, {"skipme"}},
    {"SystemFilterFolder", {}, {}, {"/skipme"}, 0, false, nullptr, kAllButSkipme, {"skipme"}},
    {"ContentBelowAFilteredFolder", {"/a/b"}, {}, {}, 0, false, nullptr, {"a/b", "a/b/deep.txt"}, {"skipme"}},
    {"ExcludedAttributes", {}, {}, {}, S_IFREG, false, nullptr, {"skipme", "a", "a/b"}, {}},
    {"BuiltInSystemProtectedFiles", {}, {}, {}, 0, true, "/proc/fake", {}, {"skipme", "a"}},
    {"BuiltInOffReportsAll", {}, {}, {}, 0, false, "/proc/fake", kAll, {}},
};

class EnumerateFilesSelection : public ::testing::TestWithParam<SFilterCase> {};

TEST_P(EnumerateFilesSelection, ReportsSelectedAndListsOnlyWhatMayHoldSelection) {
  const SFilterCase& row = GetParam();
  CLogCapture log;
  CTempTree tree;
  for (const char* szFile : {"keep.txt", "drop.tmp", "skipme/inner.txt", "a/b/deep.txt", "a/side.txt"}) tree.MakeFile(szFile);
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
  EXPECT_EQ(Bag(rig.pCallback->m_pHandler->Paths()), Bag(expected));
  EXPECT_GE(log->CountContaining("FindFirst, SearchPath=" + tree.Root()), 1u);  // the line the checks below look for
  for (const std::string& rel : row.lstNotListed)
    EXPECT_EQ(log->CountContaining("FindFirst, SearchPath=" + tree.Path(rel)), 0u) << rel;
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

  EXPECT_EQ(rig.pCallback->m_pHandler->Records().size(), bIgnored ? 5u : 1u);
  EXPECT_TRUE(bIgnored ? error.IsSuccess() : error.IsWin32(112)) << error.AsString();
  if (!bIgnored) {
    EXPECT_NE(error.AsString().find("Failed to report failed item."), std::string::npos);
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
      const std::string strFolder = s_pTree->MakeDir("d" + std::to_string(d));
      for (int f = 0; f < 1000; ++f) close(creat((strFolder + "/f" + std::to_string(f)).c_str(), 0644));
    }
  }
  static void TearDownTestSuite() { delete s_pTree; }
  static inline CTempTree* s_pTree = nullptr;
};

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
