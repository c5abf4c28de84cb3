// The path enumerator on real temporary trees: items built from a path in its four forms, the
// long path boundary, folder listings in kernel order, the mount path cache's refusals, entries
// whose status cannot be read, clones, and items recycled between entries.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Bag.h"
#include "Platform/FXFile.h"
#include "Platform/PrefixContentMapper.h"
#include "Scan/BasicPathEnumerator.h"
#include "Scan/FabricatedItem.h"
#include "Scan/FindFirstItem.h"
#include "Scan/LongPathHandler.h"
#include "Support/LogCapture.h"
#include "Support/RunAsNobody.h"
#include "Support/TempTree.h"

namespace {

std::string Cwd() {
  char buffer[PATH_MAX];
  return getcwd(buffer, sizeof(buffer)) != nullptr ? std::string(buffer) : std::string();
}
using TNames = std::vector<std::string>;

constexpr uint32_t kNoMoreFiles = QiErrorCode::NoMoreFiles;
const char* const kNoHandler = "Failed to create long path backup handler, long path backup will fail";

// The entries of a folder in the order the kernel lists them, "." and ".." left out.
TNames KernelOrder(const std::string& folder) {
  TNames names;
  DIR* dir = opendir(folder.c_str());
  while (struct dirent* entry = dir ? readdir(dir) : nullptr)
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) names.emplace_back(entry->d_name);
  if (dir) closedir(dir);
  return names;
}

template <typename TBody>
void OnOtherThread(TBody body) {
  std::thread(body).join();
}

// Lists a folder to its end; every item and the error that came with it (success for most).
struct SListing {
  std::vector<CItemPtr> vItems;
  std::vector<CQiError> vItemErrors;
  CQiError endError;  // the error that ended the listing (no item with it)
  TNames Names() const {
    TNames names;
    for (const CItemPtr& pItem : vItems) names.push_back(pItem->GetItemName());
    return names;
  }
};

SListing ListAll(CBasicPathEnumerator& enumerator, const std::string& pattern, CItemPtr pParent) {
  SListing listing;
  CItemPtr pItem;
  for (CQiError error = enumerator.FindFirst(pattern, pParent, pItem);; error = enumerator.FindNext(pItem)) {
    if (!pItem) return listing.endError = error, listing;
    listing.vItems.push_back(pItem);
    listing.vItemErrors.push_back(error);
  }
}

class BasicPathEnumeratorFixture : public ::testing::Test {
 protected:
  void TearDown() override { LongPathHandler::ReleaseHandler(); }

  // The item of a folder, reported under strSource.
  CItemPtr FolderItem(const std::string& strLocal, const std::string& strSource, bool bNewInImage = false) {
    CItemPtr pItem;
    EXPECT_TRUE(CBasicPathEnumerator().GetItemByPath(m_pBag, strLocal, strSource, pItem).IsSuccess());
    if (pItem && bNewInImage) pItem->setNewInImage();
    return pItem;
  }

  CTempTree m_tree;
  CLogCapture m_pLog;
  CBagPtr m_pBag = std::make_shared<CBag>();
};

// ---- GetItemByPath, its four forms ----

enum class EForm { PathMapper, LocalSource, BagPathMapper, BagLocalSource };

struct SPathCase {
  const char* name;
  EForm eForm;
  std::string strTarget;  // relative to the tree, "" for an empty path
  bool bMapper;
  int iErrno;       // expected errno error (0: success)
  uint32_t uWin32;  // expected Win32 error instead (then no item)
};

class GetItemByPathTest : public BasicPathEnumeratorFixture, public ::testing::WithParamInterface<SPathCase> {};

TEST_P(GetItemByPathTest, Builds) {
  const SPathCase& c = GetParam();
  m_tree.MakeFile("host/file.txt", "12345");
  m_tree.MakeDir("host/folder");
  m_tree.MakeSymlink("host/link", m_tree.Path("host/folder"));
  m_tree.MakeFile("host/\xff\xfe.bin", "x");
  m_tree.MakeFile("elsewhere.txt", "x");
  CPrefixContentMapper mapper;
  ASSERT_TRUE(mapper.AddMapping("/export/home", m_tree.Path("host")).IsSuccess());
  const std::string strLocal = c.strTarget.empty() ? "" : m_tree.Path(c.strTarget);
  ContentMapperAPI* pMapper = c.bMapper ? &mapper : nullptr;

  CBasicPathEnumerator enumerator;
  CItemPtr pItem;
  const bool bBagForm = c.eForm == EForm::BagPathMapper || c.eForm == EForm::BagLocalSource;
  const bool bSourceForm = c.eForm == EForm::LocalSource || c.eForm == EForm::BagLocalSource;
  CQiError error = bSourceForm ? bBagForm ? enumerator.GetItemByPath(m_pBag, strLocal, "/given/source", pItem)
                                          : enumerator.GetItemByPath(strLocal, "/given/source", pItem)
                               : bBagForm ? enumerator.GetItemByPath(m_pBag, strLocal, pItem, pMapper)
                                          : enumerator.GetItemByPath(strLocal, pItem, pMapper);
  if (c.uWin32 != 0) {
    EXPECT_TRUE(error.IsWin32(c.uWin32)) << error.AsString();
    EXPECT_EQ(pItem, nullptr);
    return;
  }
  EXPECT_TRUE(c.iErrno ? error.IsErrNo(c.iErrno) : error.IsSuccess()) << error.AsString();
  // An error has the raising place and the caller's frame.
  EXPECT_GE(error.GetFrames().size(), c.iErrno ? 2u : 0u);
  // The item exists either way; its file data tells whether the status could be read.
  auto pFindFirst = std::dynamic_pointer_cast<CFindFirstItem>(pItem);
  ASSERT_NE(pFindFirst, nullptr);
  EXPECT_EQ(pItem->GetLocalFullyQualifiedItemName(), strLocal);
  const std::string strSource = bSourceForm ? "/given/source"
                                : c.bMapper  ? "/export/home" + strLocal.substr(m_tree.Path("host").size())
                                             : strLocal;
  EXPECT_EQ(pItem->GetSourceFullyQualifiedItemName(), strSource);
  EXPECT_EQ(pItem->GetWorkUnitBag(), bBagForm ? m_pBag : CBagPtr());
  if (c.iErrno != 0) {
    EXPECT_EQ(pFindFirst->GetFileData().getStatusState(), FXFile::CFileData::kStatusFailed);
    EXPECT_EQ(pFindFirst->GetFileData().getLastError(), c.iErrno);
    EXPECT_EQ(pItem->GetAttributes(), CItem::kAttributesUnknown);
    return;
  }
  struct stat st {};
  ASSERT_EQ(lstat(strLocal.c_str(), &st), 0);
  EXPECT_EQ(pItem->GetAttributes(), st.st_mode);
  EXPECT_EQ(pItem->GetFileId(), st.st_ino);
  EXPECT_EQ(pItem->IsReparsePoint(), S_ISLNK(st.st_mode));
  EXPECT_FALSE(pItem->IsFolder());
  EXPECT_TRUE(m_pLog->GetEntries().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Table, GetItemByPathTest,
    ::testing::Values(SPathCase{"PathFileMapped", EForm::PathMapper, "host/file.txt", true, 0, 0},
                      SPathCase{"PathMissingStillAnItem", EForm::PathMapper, "host/missing", false, ENOENT, 0},
                      SPathCase{"PathEmpty", EForm::PathMapper, "", false, ENOENT, 0},
                      SPathCase{"PathNulByte", EForm::PathMapper, std::string("host/file.txt\0x", 15), false, EINVAL, 0},
                      SPathCase{"PathLinkNotFollowed", EForm::PathMapper, "host/link", false, 0, 0},
                      SPathCase{"PathNonUtf8Name", EForm::PathMapper, "host/\xff\xfe.bin", true, 0, 0},
                      SPathCase{"PathMapperRefuses", EForm::PathMapper, "elsewhere.txt", true, 0, 87},
                      SPathCase{"LocalSource", EForm::LocalSource, "host/file.txt", false, 0, 0},
                      SPathCase{"BagPathMapped", EForm::BagPathMapper, "host/file.txt", true, 0, 0},
                      SPathCase{"BagPathMissingMapped", EForm::BagPathMapper, "host/missing", true, ENOENT, 0},
                      SPathCase{"BagLocalSource", EForm::BagLocalSource, "host/file.txt", false, 0, 0}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- 959 characters take the ordinary path, 960 the long path handler (main thread only) ----

struct SLengthCase {
  const char* name;
  size_t uLength;
  bool bExists, bMainThread;
  int iErrno;       // expected errno error, item built
  uint32_t uWin32;  // expected Win32 error, no item
};

class LongPathBoundaryTest : public BasicPathEnumeratorFixture, public ::testing::WithParamInterface<SLengthCase> {};

TEST_P(LongPathBoundaryTest, Route) {
  const SLengthCase& c = GetParam();
  // A path of exactly uLength characters, its file made when it should exist.
  const std::string strFolder = m_tree.MakeDir(std::string(200, 'a') + "/" + std::string(200, 'b') + "/" +
                                               std::string(200, 'c') + "/" + std::string(200, 'e'));
  const std::string strPath = strFolder + "/" + std::string(c.uLength - strFolder.size() - 1, c.bExists ? 'f' : 'm');
  ASSERT_EQ(strPath.size(), c.uLength);
  if (c.bExists) m_tree.MakeFile(strPath.substr(m_tree.Root().size() + 1), "xyz");
  const std::string strCwd = Cwd();
  m_pLog->SetLevel(0);  // leaves out the handler's own tracing

  CQiError error;
  CItemPtr pItem;
  {
    CBasicPathEnumerator enumerator;
    auto get = [&] { error = enumerator.GetItemByPath(strPath, pItem, nullptr); };
    if (c.bMainThread) get();
    else OnOtherThread(get);
  }
  // The handler taken for a long path was given back: the process is at its start directory.
  EXPECT_EQ(Cwd(), strCwd);

  const auto entries = m_pLog->GetEntries();
  if (c.uWin32 != 0) {
    EXPECT_TRUE(error.IsWin32(c.uWin32)) << error.AsString();
    EXPECT_EQ(pItem, nullptr);
    const std::string strLine = c.uWin32 == QiErrorCode::OutOfMemory ? kNoHandler
                                                                      : "Failed to stat path [" + strPath + "] with error [2]";
    EXPECT_EQ(error.GetMessage(), strLine);
    ASSERT_EQ(entries.size(), c.uWin32 == QiErrorCode::OutOfMemory ? 0u : 1u);
    for (const auto& entry : entries) EXPECT_EQ(std::to_string(entry.level) + " " + entry.text, "-1 " + strLine);
    return;
  }
  ASSERT_NE(pItem, nullptr);
  EXPECT_EQ(pItem->GetLocalFullyQualifiedItemName(), strPath);
  EXPECT_TRUE(entries.empty());
  EXPECT_TRUE(c.iErrno ? error.IsErrNo(c.iErrno) : error.IsSuccess()) << error.AsString();
  EXPECT_EQ(pItem->GetAttributes(), c.iErrno ? CItem::kAttributesUnknown : (S_IFREG | 0644));
  EXPECT_EQ(pItem->GetFileSize(), c.iErrno ? 0u : 3u);
}

INSTANTIATE_TEST_SUITE_P(Table, LongPathBoundaryTest,
                         ::testing::Values(SLengthCase{"Ordinary959OffMainThread", 959, true, false, 0, 0},
                                           SLengthCase{"Long960RefusedOffMainThread", 960, true, false, 0, 14},
                                           SLengthCase{"Long960OnMainThread", 960, true, true, 0, 0},
                                           SLengthCase{"Ordinary959MissingIsErrnoWithItem", 959, false, true, ENOENT, 0},
                                           SLengthCase{"Long960MissingIs774", 960, false, true, 0, 774}),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- listing a folder ----

TEST_F(BasicPathEnumeratorFixture, RootFolderJoinsWithOneDelimiter) {
  CBasicPathEnumerator enumerator;
  CItemPtr pItem;
  ASSERT_TRUE(enumerator.FindFirst("/", FolderItem("/", "/"), pItem).IsSuccess());
  ASSERT_NE(pItem, nullptr);
  EXPECT_EQ(pItem->GetLocalFullyQualifiedItemName(), "/" + pItem->GetItemName());
  EXPECT_EQ(pItem->GetSourceFullyQualifiedItemName(), "/" + pItem->GetItemName());
}

// Listings that give no item at all.
struct SNoItemCase {
  const char* name;
  int iCase;  // 0 empty folder, 1 missing folder, 2 no parent, 3 FindNext before FindFirst
  uint32_t uWin32;
  int iErrno;
};

class NoItemTest : public BasicPathEnumeratorFixture, public ::testing::WithParamInterface<SNoItemCase> {};

TEST_P(NoItemTest, ErrorAndNoItem) {
  const SNoItemCase& c = GetParam();
  const std::string strEmpty = m_tree.MakeDir("empty");
  CBasicPathEnumerator enumerator;
  CItemPtr pItem = std::make_shared<CFabricatedItem>(CBagPtr(), "/stale", "/stale");
  CQiError error = c.iCase == 3 ? enumerator.FindNext(pItem)
                                : enumerator.FindFirst(strEmpty + (c.iCase == 1 ? "/missing" : ""),
                                                       c.iCase == 2 ? nullptr : FolderItem(strEmpty, "/src"), pItem);
  EXPECT_TRUE(c.uWin32 ? error.IsWin32(c.uWin32) : error.IsErrNo(c.iErrno)) << error.AsString();
  EXPECT_EQ(pItem, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Table, NoItemTest,
                         ::testing::Values(SNoItemCase{"OnlyDotEntries", 0, kNoMoreFiles, 0},
                                           SNoItemCase{"MissingFolder", 1, 0, ENOENT},
                                           SNoItemCase{"NoParent", 2, QiErrorCode::InvalidParameter, 0},
                                           SNoItemCase{"FindNextWithoutListing", 3, QiErrorCode::InvalidHandle, 0}),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- a listing: every entry once, in kernel order, less the exact hits in the mount path cache
// (the ignoreFS rule) ----

struct SMountCase {
  const char* name;
  bool bCheck;                       // options bit 0
  TNames vCache;                     // source paths ("@" stands for the local folder)
  std::set<std::string> setRefused;  // entry names left out
};

class ListingTest : public BasicPathEnumeratorFixture, public ::testing::WithParamInterface<SMountCase> {};

TEST_P(ListingTest, ListsEveryEntryOnceLeavingOutExactHits) {
  const SMountCase& c = GetParam();
  m_tree.MakeFile("m/a", "abc");
  m_tree.MakeFile("m/b/inside");
  m_tree.MakeSymlink("m/link", "a");
  m_tree.MakeFifo("m/pipe");
  m_tree.MakeFile("m/\xff\x01name");
  const std::string strFolder = m_tree.Path("m");
  CPathCacheUnorderedT<std::string> cache;
  for (const std::string& strPath : c.vCache) cache.Insert(strPath[0] == '@' ? strFolder + strPath.substr(1) : strPath, "mount");
  CBasicPathEnumerator enumerator;
  if (c.bCheck) enumerator.SetFileOperationOptions(FXFile::kFindOptionMountPathCheck);
  enumerator.SetMountPathCache(cache);

  SListing listing = ListAll(enumerator, strFolder + "/*", FolderItem(strFolder, "/src/m"));
  EXPECT_TRUE(listing.endError.IsWin32(kNoMoreFiles)) << listing.endError.AsString();
  TNames vExpected;
  for (const std::string& strName : KernelOrder(strFolder))
    if (c.setRefused.count(strName) == 0) vExpected.push_back(strName);
  EXPECT_EQ(listing.Names(), vExpected);
  for (size_t i = 0; i < listing.vItems.size(); ++i) {
    const CItemPtr& pItem = listing.vItems[i];
    const std::string& strName = pItem->GetItemName();
    struct stat st {};
    ASSERT_EQ(lstat((strFolder + "/" + strName).c_str(), &st), 0);
    EXPECT_TRUE(listing.vItemErrors[i].IsSuccess() && std::dynamic_pointer_cast<CFindFirstItem>(pItem) &&
                pItem->GetWorkUnitBag() == m_pBag && !pItem->isNewInImage()) << strName;
    EXPECT_EQ(pItem->GetLocalFullyQualifiedItemName() + "|" + pItem->GetSourceFullyQualifiedItemName() + "|" +
                  std::to_string(pItem->GetAttributes()),
              strFolder + "/" + strName + "|/src/m/" + strName + "|" + std::to_string(st.st_mode));
  }
  // The end stays the end.
  CItemPtr pItem;
  EXPECT_TRUE(enumerator.FindNext(pItem).IsWin32(kNoMoreFiles));
  EXPECT_EQ(pItem, nullptr);
  // Each refusal is logged at level 0, and nothing else.
  std::multiset<std::string> setLogged, setExpectedLines;
  for (const auto& entry : m_pLog->GetEntries()) setLogged.insert(std::to_string(entry.level) + " " + entry.text);
  for (const std::string& strName : c.setRefused) setExpectedLines.insert("0 [/src/m/" + strName + "] skipped by ignoreFS rule");
  EXPECT_EQ(setLogged, setExpectedLines);
}

INSTANTIATE_TEST_SUITE_P(
    Table, ListingTest,
    ::testing::Values(SMountCase{"NoCache", false, {}, {}},
                      SMountCase{"CheckOffNeverConsultsCache", false, {"/src/m/a", "/src/m/b"}, {}},
                      SMountCase{"ExactSourceHitLeftOut", true, {"/src/m/b"}, {"b"}},
                      SMountCase{"EveryKindRefused", true, {"/src/m/a", "/src/m/b", "/src/m/link", "/src/m/pipe"},
                                 {"a", "b", "link", "pipe"}},
                      SMountCase{"ParentHitIsNotExact", true, {"/src/m"}, {}},
                      SMountCase{"LocalPathIsNotTheKey", true, {"@/a", "@/b"}, {}}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- entries whose status cannot be read ----

TEST_F(BasicPathEnumeratorFixture, EntryRemovedAfterListingIsAFabricatedItem) {
  for (const char* name : {"x1", "x2", "x3", "x4", "x5"}) m_tree.MakeFile(std::string("gone/") + name);
  const std::string strFolder = m_tree.Path("gone");
  const TNames vOrder = KernelOrder(strFolder);
  CBasicPathEnumerator enumerator;
  CItemPtr pItem;
  ASSERT_TRUE(enumerator.FindFirst(strFolder, FolderItem(strFolder, "/src/gone", true), pItem).IsSuccess());
  // The first read of the listing holds every entry; the third goes before its status is read.
  ASSERT_EQ(unlink((strFolder + "/" + vOrder[2]).c_str()), 0);
  TNames vNames;
  CQiError error;
  for (; pItem; error = enumerator.FindNext(pItem)) {
    vNames.push_back(pItem->GetItemName());
    EXPECT_TRUE(pItem->isNewInImage()) << pItem->GetItemName();  // as the parent
    if (pItem->GetItemName() != vOrder[2]) {
      EXPECT_TRUE(error.IsSuccess()) << error.AsString();
      continue;
    }
    EXPECT_TRUE(error.IsErrNo(ENOENT)) << error.AsString();
    EXPECT_EQ(error.GetMessage(), "Entry is not good, Entry=" + vOrder[2]);
    ASSERT_NE(std::dynamic_pointer_cast<CFabricatedItem>(pItem), nullptr);
    EXPECT_EQ(pItem->GetSourceFullyQualifiedItemName() + " " + pItem->GetLocalFullyQualifiedItemName(),
              "/src/gone/" + vOrder[2] + " " + strFolder + "/" + vOrder[2]);
    EXPECT_EQ(pItem->GetWorkUnitBag(), m_pBag);
  }
  EXPECT_TRUE(error.IsWin32(kNoMoreFiles)) << error.AsString();
  EXPECT_EQ(vNames, vOrder);  // the listing goes on past the bad entry
}

// As nobody, a folder that can be read but not searched lists names whose status fails with
// EACCES: every entry comes back fabricated, except one refused by the cache, never returned.
TEST_F(BasicPathEnumeratorFixture, UnsearchableFolderGivesFabricatedItemsButNeverRefusedOnes) {
  for (const char* szName : {"r/one", "r/two", "r/skip"}) m_tree.MakeFile(szName);
  const std::string strFolder = m_tree.MakeDir("r", 0744);
  EXPECT_EQ(RunAsNobody([&]() -> int {
              CLogCapture log;
              CPathCacheUnorderedT<std::string> cache;
              cache.Insert("/src/r/skip", "mount");
              CBasicPathEnumerator enumerator;
              enumerator.SetFileOperationOptions(FXFile::kFindOptionMountPathCheck);
              enumerator.SetMountPathCache(cache);
              const SListing listing =
                  ListAll(enumerator, strFolder, std::make_shared<CFabricatedItem>(CBagPtr(), strFolder, "/src/r"));
              if (!listing.endError.IsWin32(kNoMoreFiles)) return 1;
              for (size_t i = 0; i < listing.vItems.size(); ++i) {
                const CQiError& error = listing.vItemErrors[i];
                if (!std::dynamic_pointer_cast<CFabricatedItem>(listing.vItems[i]) || !error.IsErrNo(EACCES) ||
                    error.GetMessage() != "Entry is not good, Entry=" + listing.vItems[i]->GetItemName())
                  return 2;
              }
              const TNames vNames = listing.Names();
              if (std::set<std::string>(vNames.begin(), vNames.end()) != std::set<std::string>{"one", "two"}) return 3;
              return log->Count("[/src/r/skip] skipped by ignoreFS rule", 0) == 1 ? 0 : 4;
            }),
            0);
}

// ---- clones ----

TEST_F(BasicPathEnumeratorFixture, CloneStartsWithoutListingAndKeepsOptionsAndCache) {
  for (const char* name : {"p", "q", "r"}) m_tree.MakeFile(std::string("c/") + name);
  const std::string strFolder = m_tree.Path("c");
  CPathCacheUnorderedT<std::string> cache;
  cache.Insert("/src/c/q", "mount");
  CBasicPathEnumerator original;
  original.SetFileOperationOptions(FXFile::kFindOptionMountPathCheck);
  original.SetFileOperationOptions(FXFile::kFindOptionNoStatus);  // bits add up
  original.SetMountPathCache(cache);
  CItemPtr pItem, pCloneItem;
  ASSERT_TRUE(original.FindFirst(strFolder, FolderItem(strFolder, "/src/c"), pItem).IsSuccess());
  std::unique_ptr<CPathEnumerator> pClone(original.Clone());
  EXPECT_TRUE(pClone->FindNext(pCloneItem).IsWin32(QiErrorCode::InvalidHandle));
  EXPECT_EQ(pCloneItem, nullptr);
  // The clone lists on its own, with the options and cache it was given; the original goes on.
  auto* pBasicClone = static_cast<CBasicPathEnumerator*>(pClone.get());
  EXPECT_EQ(pBasicClone->GetFileOperationOptions(), FXFile::kFindOptionMountPathCheck | FXFile::kFindOptionNoStatus);
  const TNames vClone = ListAll(*pBasicClone, strFolder, FolderItem(strFolder, "/src/c")).Names();
  TNames vOriginal{pItem->GetItemName()}, vExpected;
  while ((void)original.FindNext(pItem), pItem) vOriginal.push_back(pItem->GetItemName());
  for (const std::string& strName : KernelOrder(strFolder))
    if (strName != "q") vExpected.push_back(strName);
  EXPECT_EQ(vClone, vExpected);
  EXPECT_EQ(vOriginal, vExpected);
}

// A caller that drops each item before asking for the next gets recycled items: each must look
// exactly as a newly built one (no bag values, flags or cached names of the entry before), and
// an item still held must never change under its holder.
TEST_F(BasicPathEnumeratorFixture, DroppedItemsComeBackAsNewAndHeldOnesNeverChange) {
  for (const char* szName : {"a-long-file-name-beyond-the-short-string.txt", "b", "sub", "c.txt"})
    m_tree.MakeFile(std::string("recycle/") + szName, szName);
  m_tree.MakeSymlink("recycle/link", "b");
  const std::string strFolder = m_tree.Path("recycle");
  CItemPtr pParent = FolderItem(strFolder, "/src/recycle");
  CBasicPathEnumerator reference, enumerator;
  const SListing expected = ListAll(reference, strFolder, pParent);
  ASSERT_EQ(expected.vItems.size(), 5u);

  CItemPtr pHeld, pItem;  // pHeld: the first item, kept to the end
  CQiError error = enumerator.FindFirst(strFolder, pParent, pItem);
  for (size_t i = 0; pItem; ++i, error = enumerator.FindNext(pItem)) {
    ASSERT_LT(i, expected.vItems.size());
    const CItemPtr& pWant = expected.vItems[i];
    auto describe = [](const CItemPtr& p) {
      bool bMarked = false;
      return p->GetSourceFullyQualifiedParentFolder() + "|" + p->GetSourceFullyQualifiedItemName() + "|" +
             std::to_string(p->GetAttributes()) + "|" + std::to_string(p->GetFileSize()) + "|" +
             std::to_string(p->isSelected()) + std::to_string(p->GetItemBag()->Read("mark", bMarked).IsError());
    };
    EXPECT_EQ(describe(pItem), describe(pWant));
    // Marks the item, then drops it (all but the first).
    (void)pItem->GetItemBag()->Write("mark", true);
    pItem->setSelected();
    if (i == 0) pHeld = pItem;
    pItem.reset();
  }
  EXPECT_TRUE(error.IsWin32(kNoMoreFiles)) << error.AsString();
  ASSERT_NE(pHeld, nullptr);
  EXPECT_EQ(pHeld->GetLocalFullyQualifiedItemName(), expected.vItems[0]->GetLocalFullyQualifiedItemName());
  EXPECT_TRUE(pHeld->isSelected());
}

}  // namespace
