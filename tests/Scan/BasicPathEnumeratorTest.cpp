#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Bag.h"
#include "Platform/CaptureLogWriter.h"
#include "Platform/FXFile.h"
#include "Platform/PrefixContentMapper.h"
#include "Scan/BasicPathEnumerator.h"
#include "Scan/DeepTree.h"
#include "Scan/FabricatedItem.h"
#include "Scan/FindFirstItem.h"
#include "Scan/LongPathHandler.h"
#include "Support/TempTree.h"

namespace {

using LongPathTestSupport::Cwd;

constexpr uint32_t kNoMoreFiles = QiErrorCode::NoMoreFiles;
const char* const kNoHandler =
    "Failed to create long path backup handler, long path backup will fail";

// The entries of a folder in the order the kernel lists them, "." and ".." left out.
std::vector<std::string> KernelOrder(const std::string& folder) {
  std::vector<std::string> names;
  DIR* dir = opendir(folder.c_str());
  if (dir == nullptr) return names;
  while (struct dirent* entry = readdir(dir)) {
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
      names.emplace_back(entry->d_name);
  }
  closedir(dir);
  return names;
}

template <typename TBody>
void OnOtherThread(TBody body) {
  std::thread thread(body);
  thread.join();
}

// Lists a folder to its end; every item and the error that came with it (success for most).
struct SListing {
  std::vector<CItemPtr> vItems;
  std::vector<CQiError> vItemErrors;
  CQiError endError;  // the error that ended the listing (no item with it)

  std::vector<std::string> Names() const {
    std::vector<std::string> names;
    for (const CItemPtr& pItem : vItems) names.push_back(pItem->GetItemName());
    return names;
  }
};

SListing ListAll(CBasicPathEnumerator& enumerator, const std::string& pattern, CItemPtr pParent) {
  SListing listing;
  CItemPtr pItem;
  CQiError error = enumerator.FindFirst(pattern, pParent, pItem);
  while (pItem) {
    listing.vItems.push_back(pItem);
    listing.vItemErrors.push_back(error);
    error = enumerator.FindNext(pItem);
  }
  listing.endError = error;
  return listing;
}

class BasicPathEnumeratorFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    m_pLog = std::make_shared<CCaptureLogWriter>(CLogWriterInterface::kLevelMax);
    CLogWriterInterface::SetProcessLogWriter(m_pLog);
    m_pBag = std::make_shared<CBag>();
  }
  void TearDown() override {
    CLogWriterInterface::SetProcessLogWriter(nullptr);
    LongPathHandler::ReleaseHandler();
  }

  // The item of a folder, reported under strSource.
  CItemPtr FolderItem(const std::string& strLocal, const std::string& strSource,
                      bool bNewInImage = false) {
    CBasicPathEnumerator enumerator;
    CItemPtr pItem;
    EXPECT_TRUE(enumerator.GetItemByPath(m_pBag, strLocal, strSource, pItem).IsSuccess());
    if (pItem && bNewInImage) pItem->setNewInImage();
    return pItem;
  }

  CTempTree m_tree;
  std::shared_ptr<CCaptureLogWriter> m_pLog;
  CBagPtr m_pBag;
};

// ---------------------------------------------------------------------------------------------
// GetItemByPath, its four forms.

enum class EForm { PathMapper, LocalSource, BagPathMapper, BagLocalSource };
enum class ETarget { File, Missing, Empty, NulByte, LinkToFolder, NonUtf8, OutsideMapper };

struct SPathCase {
  const char* name;
  EForm eForm;
  ETarget eTarget;
  bool bMapper;
  int iErrno;            // expected errno error (0: success)
  uint32_t uWin32;       // expected Win32 error instead (then no item)
};

void PrintTo(const SPathCase& c, std::ostream* os) { *os << c.name; }

class GetItemByPathTest : public BasicPathEnumeratorFixture,
                          public ::testing::WithParamInterface<SPathCase> {};

TEST_P(GetItemByPathTest, Builds) {
  const SPathCase& c = GetParam();
  m_tree.MakeFile("host/file.txt", "12345");
  m_tree.MakeDir("host/folder");
  m_tree.MakeSymlink("host/link", m_tree.Path("host/folder"));
  m_tree.MakeFile("host/\xff\xfe.bin", "x");
  m_tree.MakeFile("elsewhere.txt", "x");
  CPrefixContentMapper mapper;
  ASSERT_TRUE(mapper.AddMapping("/export/home", m_tree.Path("host")).IsSuccess());

  std::string strLocal;
  switch (c.eTarget) {
    case ETarget::File: strLocal = m_tree.Path("host/file.txt"); break;
    case ETarget::Missing: strLocal = m_tree.Path("host/missing"); break;
    case ETarget::Empty: break;
    case ETarget::NulByte: strLocal = m_tree.Path("host/file.txt") + std::string("\0x", 2); break;
    case ETarget::LinkToFolder: strLocal = m_tree.Path("host/link"); break;
    case ETarget::NonUtf8: strLocal = m_tree.Path("host/\xff\xfe.bin"); break;
    case ETarget::OutsideMapper: strLocal = m_tree.Path("elsewhere.txt"); break;
  }
  const std::string strGivenSource = "/given/source";
  ContentMapperAPI* pMapper = c.bMapper ? &mapper : nullptr;

  CBasicPathEnumerator enumerator;
  CItemPtr pItem;
  CQiError error;
  switch (c.eForm) {
    case EForm::PathMapper: error = enumerator.GetItemByPath(strLocal, pItem, pMapper); break;
    case EForm::LocalSource:
      error = enumerator.GetItemByPath(strLocal, strGivenSource, pItem);
      break;
    case EForm::BagPathMapper:
      error = enumerator.GetItemByPath(m_pBag, strLocal, pItem, pMapper);
      break;
    case EForm::BagLocalSource:
      error = enumerator.GetItemByPath(m_pBag, strLocal, strGivenSource, pItem);
      break;
  }

  if (c.uWin32 != 0) {
    EXPECT_TRUE(error.IsWin32(c.uWin32)) << error.AsString();
    EXPECT_EQ(pItem, nullptr);
    return;
  }
  if (c.iErrno != 0) {
    EXPECT_TRUE(error.IsErrNo(c.iErrno)) << error.AsString();
    EXPECT_GE(error.GetFrames().size(), 2u);  // the raising place and the caller's frame
  } else {
    EXPECT_TRUE(error.IsSuccess()) << error.AsString();
  }
  // The item exists either way; its file data tells whether the status could be read.
  auto pFindFirst = std::dynamic_pointer_cast<CFindFirstItem>(pItem);
  ASSERT_NE(pFindFirst, nullptr);
  EXPECT_EQ(pItem->GetLocalFullyQualifiedItemName(), strLocal);
  std::string strSource = strLocal;
  if (c.bMapper) strSource = "/export/home" + strLocal.substr(m_tree.Path("host").size());
  if (c.eForm == EForm::LocalSource || c.eForm == EForm::BagLocalSource) strSource = strGivenSource;
  EXPECT_EQ(pItem->GetSourceFullyQualifiedItemName(), strSource);
  const bool bBagForm = c.eForm == EForm::BagPathMapper || c.eForm == EForm::BagLocalSource;
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
  if (c.eTarget == ETarget::LinkToFolder) {
    EXPECT_TRUE(pItem->IsReparsePoint());
    EXPECT_FALSE(pItem->IsFolder());
  }
  EXPECT_TRUE(m_pLog->GetEntries().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Table, GetItemByPathTest,
    ::testing::Values(
        SPathCase{"PathFile", EForm::PathMapper, ETarget::File, false, 0, 0},
        SPathCase{"PathFileMapped", EForm::PathMapper, ETarget::File, true, 0, 0},
        SPathCase{"PathMissingStillAnItem", EForm::PathMapper, ETarget::Missing, false, ENOENT, 0},
        SPathCase{"PathEmpty", EForm::PathMapper, ETarget::Empty, false, ENOENT, 0},
        SPathCase{"PathNulByte", EForm::PathMapper, ETarget::NulByte, false, EINVAL, 0},
        SPathCase{"PathLinkNotFollowed", EForm::PathMapper, ETarget::LinkToFolder, false, 0, 0},
        SPathCase{"PathNonUtf8Name", EForm::PathMapper, ETarget::NonUtf8, true, 0, 0},
        SPathCase{"PathMapperRefuses", EForm::PathMapper, ETarget::OutsideMapper, true, 0, 87},
        SPathCase{"LocalSource", EForm::LocalSource, ETarget::File, false, 0, 0},
        SPathCase{"LocalSourceMissing", EForm::LocalSource, ETarget::Missing, false, ENOENT, 0},
        SPathCase{"BagPathMapped", EForm::BagPathMapper, ETarget::File, true, 0, 0},
        SPathCase{"BagPathMissingMapped", EForm::BagPathMapper, ETarget::Missing, true, ENOENT, 0},
        SPathCase{"BagLocalSource", EForm::BagLocalSource, ETarget::File, false, 0, 0},
        SPathCase{"BagLocalSourceMissing", EForm::BagLocalSource, ETarget::Missing, false, ENOENT,
                  0}),
    [](const ::testing::TestParamInfo<SPathCase>& info) { return info.param.name; });

// ---------------------------------------------------------------------------------------------
// 959 characters take the ordinary path, 960 the long path handler (main thread only).

struct SLengthCase {
  const char* name;
  size_t uLength;
  bool bExists;
  bool bMainThread;
  int iErrno;       // expected errno error, item built
  uint32_t uWin32;  // expected Win32 error, no item
};

void PrintTo(const SLengthCase& c, std::ostream* os) { *os << c.name; }

class LongPathBoundaryTest : public BasicPathEnumeratorFixture,
                             public ::testing::WithParamInterface<SLengthCase> {
 protected:
  // A path of exactly uLength characters, its file made when bCreate is set.
  std::string PathOfLength(size_t uLength, bool bCreate) {
    const std::string strRelative = std::string(200, 'a') + "/" + std::string(200, 'b') + "/" +
                                    std::string(200, 'c') + "/" + std::string(200, 'e');
    const std::string strFolder = m_tree.MakeDir(strRelative);
    const size_t uFolder = strFolder.size() + 1;
    EXPECT_GT(uLength, uFolder);
    EXPECT_LE(uLength - uFolder, 255u);
    const std::string strPath = strFolder + "/" + std::string(uLength - uFolder, bCreate ? 'f' : 'm');
    if (bCreate) m_tree.MakeFile(strPath.substr(m_tree.Root().size() + 1), "xyz");
    return strPath;
  }
};

TEST_P(LongPathBoundaryTest, Route) {
  const SLengthCase& c = GetParam();
  const std::string strPath = PathOfLength(c.uLength, c.bExists);
  ASSERT_EQ(strPath.size(), c.uLength);
  const std::string strCwd = Cwd();
  m_pLog->SetLevel(0);  // leaves out the handler's own tracing

  CQiError error;
  CItemPtr pItem;
  {
    CBasicPathEnumerator enumerator;
    if (c.bMainThread)
      error = enumerator.GetItemByPath(strPath, pItem, nullptr);
    else
      OnOtherThread([&] { error = enumerator.GetItemByPath(strPath, pItem, nullptr); });
  }
  // The handler taken for a long path was given back: the process is at its start directory.
  EXPECT_EQ(Cwd(), strCwd);

  const auto entries = m_pLog->GetEntries();
  if (c.uWin32 != 0) {
    EXPECT_TRUE(error.IsWin32(c.uWin32)) << error.AsString();
    EXPECT_EQ(pItem, nullptr);
    if (c.uWin32 == QiErrorCode::OutOfMemory) {
      EXPECT_EQ(error.GetMessage(), kNoHandler);
      EXPECT_TRUE(entries.empty());
    } else {
      const std::string strLine = "Failed to stat path [" + strPath + "] with error [2]";
      EXPECT_EQ(error.GetMessage(), strLine);
      ASSERT_EQ(entries.size(), 1u);
      EXPECT_EQ(entries[0].level, -1);
      EXPECT_EQ(entries[0].text, strLine);
    }
    return;
  }
  ASSERT_NE(pItem, nullptr);
  EXPECT_EQ(pItem->GetLocalFullyQualifiedItemName(), strPath);
  EXPECT_TRUE(entries.empty());
  if (c.iErrno != 0) {
    EXPECT_TRUE(error.IsErrNo(c.iErrno)) << error.AsString();
    EXPECT_EQ(pItem->GetAttributes(), CItem::kAttributesUnknown);
  } else {
    EXPECT_TRUE(error.IsSuccess()) << error.AsString();
    EXPECT_TRUE(pItem->IsRegularFile());
    EXPECT_EQ(pItem->GetFileSize(), 3u);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, LongPathBoundaryTest,
    ::testing::Values(SLengthCase{"Ordinary959OffMainThread", 959, true, false, 0, 0},
                      SLengthCase{"Long960RefusedOffMainThread", 960, true, false, 0, 14},
                      SLengthCase{"Long960OnMainThread", 960, true, true, 0, 0},
                      SLengthCase{"Ordinary959MissingIsErrnoWithItem", 959, false, true, ENOENT, 0},
                      SLengthCase{"Long960MissingIs774", 960, false, true, 0, 774}),
    [](const ::testing::TestParamInfo<SLengthCase>& info) { return info.param.name; });

TEST_F(BasicPathEnumeratorFixture, PathBeyond8000BytesOnlyOnTheMainThread) {
  LongPathTestSupport::CDeepTree deep;
  const std::string strFile = deep.Deep() + "/file1";
  ASSERT_GT(strFile.size(), 8000u);
  const std::string strCwd = Cwd();
  {
    CBasicPathEnumerator enumerator;
    CItemPtr pItem;
    CQiError error = enumerator.GetItemByPath(m_pBag, strFile, "/src/file1", pItem);
    ASSERT_TRUE(error.IsSuccess()) << error.AsString();
    ASSERT_NE(std::dynamic_pointer_cast<CFindFirstItem>(pItem), nullptr);
    EXPECT_TRUE(pItem->IsRegularFile());
    EXPECT_EQ(pItem->GetFileSize(), 5u);
    EXPECT_EQ(pItem->GetSourceFullyQualifiedItemName(), "/src/file1");
    EXPECT_EQ(pItem->GetLocalFullyQualifiedItemName(), strFile);
    EXPECT_EQ(pItem->GetWorkUnitBag(), m_pBag);

    CItemPtr pFolder;
    ASSERT_TRUE(enumerator.GetItemByPath(deep.Deep(), pFolder, nullptr).IsSuccess());
    EXPECT_TRUE(pFolder->IsFolder());

    CQiError threadError;
    CItemPtr pThreadItem;
    OnOtherThread([&] { threadError = enumerator.GetItemByPath(strFile, pThreadItem, nullptr); });
    EXPECT_TRUE(threadError.IsWin32(QiErrorCode::OutOfMemory)) << threadError.AsString();
    EXPECT_EQ(threadError.GetMessage(), kNoHandler);
    EXPECT_EQ(pThreadItem, nullptr);
  }
  EXPECT_EQ(Cwd(), strCwd);
}

// ---------------------------------------------------------------------------------------------
// Listing a folder.

TEST_F(BasicPathEnumeratorFixture, ListsEveryEntryOnceInKernelOrder) {
  m_tree.MakeFile("list/a.txt", "abc");
  m_tree.MakeDir("list/sub");
  m_tree.MakeFile("list/sub/inner.txt");
  m_tree.MakeSymlink("list/link", "a.txt");
  m_tree.MakeFifo("list/pipe");
  m_tree.MakeFile("list/\xff\x01name");
  const std::string strFolder = m_tree.Path("list");
  CItemPtr pParent = FolderItem(strFolder, "/src/list");
  ASSERT_NE(pParent, nullptr);

  CBasicPathEnumerator enumerator;
  SListing listing = ListAll(enumerator, strFolder + "/*", pParent);
  EXPECT_TRUE(listing.endError.IsWin32(kNoMoreFiles)) << listing.endError.AsString();
  EXPECT_EQ(listing.Names(), KernelOrder(strFolder));
  for (size_t i = 0; i < listing.vItems.size(); ++i) {
    const CItemPtr& pItem = listing.vItems[i];
    const std::string& strName = pItem->GetItemName();
    EXPECT_TRUE(listing.vItemErrors[i].IsSuccess()) << listing.vItemErrors[i].AsString();
    ASSERT_NE(std::dynamic_pointer_cast<CFindFirstItem>(pItem), nullptr) << strName;
    EXPECT_EQ(pItem->GetLocalFullyQualifiedItemName(), strFolder + "/" + strName);
    EXPECT_EQ(pItem->GetSourceFullyQualifiedItemName(), "/src/list/" + strName);
    EXPECT_EQ(pItem->GetWorkUnitBag(), m_pBag);
    EXPECT_FALSE(pItem->isNewInImage());
    struct stat st {};
    ASSERT_EQ(lstat(pItem->GetLocalFullyQualifiedItemName().c_str(), &st), 0);
    EXPECT_EQ(pItem->GetAttributes(), st.st_mode) << strName;
  }
  // The end stays the end.
  CItemPtr pItem;
  EXPECT_TRUE(enumerator.FindNext(pItem).IsWin32(kNoMoreFiles));
  EXPECT_EQ(pItem, nullptr);
  EXPECT_TRUE(m_pLog->GetEntries().empty());
}

TEST_F(BasicPathEnumeratorFixture, RootFolderJoinsWithOneDelimiter) {
  CItemPtr pParent = FolderItem("/", "/");
  CBasicPathEnumerator enumerator;
  CItemPtr pItem;
  ASSERT_TRUE(enumerator.FindFirst("/", pParent, pItem).IsSuccess());
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

void PrintTo(const SNoItemCase& c, std::ostream* os) { *os << c.name; }

class NoItemTest : public BasicPathEnumeratorFixture,
                   public ::testing::WithParamInterface<SNoItemCase> {};

TEST_P(NoItemTest, ErrorAndNoItem) {
  const SNoItemCase& c = GetParam();
  const std::string strEmpty = m_tree.MakeDir("empty");
  CBasicPathEnumerator enumerator;
  CItemPtr pItem = std::make_shared<CFabricatedItem>(CBagPtr(), "/stale", "/stale");
  CQiError error;
  switch (c.iCase) {
    case 0: error = enumerator.FindFirst(strEmpty, FolderItem(strEmpty, "/src"), pItem); break;
    case 1:
      error = enumerator.FindFirst(strEmpty + "/missing", FolderItem(strEmpty, "/src"), pItem);
      break;
    case 2: error = enumerator.FindFirst(strEmpty, nullptr, pItem); break;
    case 3: error = enumerator.FindNext(pItem); break;
  }
  if (c.uWin32 != 0)
    EXPECT_TRUE(error.IsWin32(c.uWin32)) << error.AsString();
  else
    EXPECT_TRUE(error.IsErrNo(c.iErrno)) << error.AsString();
  EXPECT_EQ(pItem, nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Table, NoItemTest,
    ::testing::Values(SNoItemCase{"OnlyDotEntries", 0, kNoMoreFiles, 0},
                      SNoItemCase{"MissingFolder", 1, 0, ENOENT},
                      SNoItemCase{"NoParent", 2, QiErrorCode::InvalidParameter, 0},
                      SNoItemCase{"FindNextWithoutListing", 3, QiErrorCode::InvalidHandle, 0}),
    [](const ::testing::TestParamInfo<SNoItemCase>& info) { return info.param.name; });

// ---------------------------------------------------------------------------------------------
// The ignoreFS rule: entries whose source path is an exact hit in the mount path cache.

struct SMountCase {
  const char* name;
  bool bCheck;                          // options bit 0
  std::vector<std::string> vCache;      // source paths ("@" stands for the local folder)
  std::set<std::string> setRefused;     // entry names left out
};

void PrintTo(const SMountCase& c, std::ostream* os) { *os << c.name; }

class MountPathCacheTest : public BasicPathEnumeratorFixture,
                           public ::testing::WithParamInterface<SMountCase> {};

TEST_P(MountPathCacheTest, LeavesOutExactHits) {
  const SMountCase& c = GetParam();
  m_tree.MakeFile("m/a");
  m_tree.MakeDir("m/b");
  m_tree.MakeFile("m/b/inside");
  m_tree.MakeFile("m/c");
  const std::string strFolder = m_tree.Path("m");
  CPathCacheUnorderedT<std::string> cache;
  for (std::string strPath : c.vCache) {
    if (strPath[0] == '@') strPath = strFolder + strPath.substr(1);
    cache.Insert(strPath, "mount");
  }
  CBasicPathEnumerator enumerator;
  if (c.bCheck) enumerator.SetFileOperationOptions(FXFile::kFindOptionMountPathCheck);
  enumerator.SetMountPathCache(cache);

  SListing listing = ListAll(enumerator, strFolder, FolderItem(strFolder, "/src/m"));
  EXPECT_TRUE(listing.endError.IsWin32(kNoMoreFiles)) << listing.endError.AsString();
  std::vector<std::string> vExpected;
  for (const std::string& strName : KernelOrder(strFolder)) {
    if (c.setRefused.count(strName) == 0) vExpected.push_back(strName);
  }
  EXPECT_EQ(listing.Names(), vExpected);

  const auto entries = m_pLog->GetEntries();
  ASSERT_EQ(entries.size(), c.setRefused.size());
  std::set<std::string> setLogged;
  for (const auto& entry : entries) {
    EXPECT_EQ(entry.level, 0);
    setLogged.insert(entry.text);
  }
  for (const std::string& strName : c.setRefused)
    EXPECT_EQ(setLogged.count("[/src/m/" + strName + "] skipped by ignoreFS rule"), 1u) << strName;
}

INSTANTIATE_TEST_SUITE_P(
    Table, MountPathCacheTest,
    ::testing::Values(
        SMountCase{"CheckOffNeverConsultsCache", false, {"/src/m/a", "/src/m/b"}, {}},
        SMountCase{"ExactSourceHitLeftOut", true, {"/src/m/b"}, {"b"}},
        SMountCase{"EachRefusalLogged", true, {"/src/m/a", "/src/m/c"}, {"a", "c"}},
        SMountCase{"EveryEntryRefused", true, {"/src/m/a", "/src/m/b", "/src/m/c"}, {"a", "b", "c"}},
        SMountCase{"ParentHitIsNotExact", true, {"/src/m"}, {}},
        SMountCase{"AncestorHitIsNotExact", true, {"/src"}, {}},
        SMountCase{"PathBelowEntryIsNotExact", true, {"/src/m/b/inside"}, {}},
        SMountCase{"LocalPathIsNotTheKey", true, {"@/a", "@/b"}, {}}),
    [](const ::testing::TestParamInfo<SMountCase>& info) { return info.param.name; });

// ---------------------------------------------------------------------------------------------
// Entries whose status cannot be read.

TEST_F(BasicPathEnumeratorFixture, EntryRemovedAfterListingIsAFabricatedItem) {
  for (bool bNewInImage : {false, true}) {
    SCOPED_TRACE(bNewInImage ? "parent new in image" : "parent not new");
    const std::string strRelative = bNewInImage ? "gone-new" : "gone";
    for (const char* name : {"x1", "x2", "x3", "x4", "x5"})
      m_tree.MakeFile(strRelative + "/" + name);
    const std::string strFolder = m_tree.Path(strRelative);
    const std::string strSource = "/src/" + strRelative;
    const std::vector<std::string> vOrder = KernelOrder(strFolder);
    ASSERT_EQ(vOrder.size(), 5u);

    CBasicPathEnumerator enumerator;
    CItemPtr pItem;
    ASSERT_TRUE(enumerator.FindFirst(strFolder, FolderItem(strFolder, strSource, bNewInImage),
                                     pItem).IsSuccess());
    ASSERT_NE(pItem, nullptr);
    EXPECT_EQ(pItem->GetItemName(), vOrder[0]);
    // The first read of the listing holds every entry; the third goes before its status is read.
    ASSERT_EQ(unlink((strFolder + "/" + vOrder[2]).c_str()), 0);

    std::vector<std::string> vNames{pItem->GetItemName()};
    EXPECT_EQ(pItem->isNewInImage(), bNewInImage);
    CQiError error;
    while ((error = enumerator.FindNext(pItem)), pItem) {
      vNames.push_back(pItem->GetItemName());
      EXPECT_EQ(pItem->isNewInImage(), bNewInImage) << pItem->GetItemName();
      if (pItem->GetItemName() != vOrder[2]) {
        EXPECT_TRUE(error.IsSuccess()) << error.AsString();
        EXPECT_NE(std::dynamic_pointer_cast<CFindFirstItem>(pItem), nullptr);
        continue;
      }
      EXPECT_TRUE(error.IsErrNo(ENOENT)) << error.AsString();
      EXPECT_EQ(error.GetMessage(), "Entry is not good, Entry=" + vOrder[2]);
      ASSERT_NE(std::dynamic_pointer_cast<CFabricatedItem>(pItem), nullptr);
      EXPECT_EQ(pItem->GetLocalFullyQualifiedItemName(), strFolder + "/" + vOrder[2]);
      EXPECT_EQ(pItem->GetSourceFullyQualifiedItemName(), strSource + "/" + vOrder[2]);
      EXPECT_EQ(pItem->GetWorkUnitBag(), m_pBag);
    }
    EXPECT_TRUE(error.IsWin32(kNoMoreFiles)) << error.AsString();
    EXPECT_EQ(vNames, vOrder);  // the listing goes on past the bad entry
  }
}

// As nobody, a folder that can be read but not searched lists names whose status fails with
// EACCES: every entry comes back fabricated, except one refused by the cache, never returned.
struct SNoSearchArg {
  std::string strFolder;
};

int ListWithoutSearchPermission(void* pArg) {
  const auto* pNoSearch = static_cast<SNoSearchArg*>(pArg);
  auto pLog = std::make_shared<CCaptureLogWriter>(CLogWriterInterface::kLevelMax);
  CLogWriterInterface::SetProcessLogWriter(pLog);
  CPathCacheUnorderedT<std::string> cache;
  cache.Insert("/src/r/skip", "mount");
  CBasicPathEnumerator enumerator;
  enumerator.SetFileOperationOptions(FXFile::kFindOptionMountPathCheck);
  enumerator.SetMountPathCache(cache);
  auto pParent = std::make_shared<CFabricatedItem>(CBagPtr(), pNoSearch->strFolder, "/src/r");
  SListing listing = ListAll(enumerator, pNoSearch->strFolder, pParent);
  if (!listing.endError.IsWin32(kNoMoreFiles)) return 1;
  std::set<std::string> setNames;
  for (size_t i = 0; i < listing.vItems.size(); ++i) {
    if (!std::dynamic_pointer_cast<CFabricatedItem>(listing.vItems[i])) return 2;
    const CQiError& error = listing.vItemErrors[i];
    const std::string& strName = listing.vItems[i]->GetItemName();
    if (!error.IsErrNo(EACCES) || error.GetMessage() != "Entry is not good, Entry=" + strName)
      return 3;
    setNames.insert(strName);
  }
  if (setNames != std::set<std::string>{"one", "two"}) return 4;
  if (pLog->Count("[/src/r/skip] skipped by ignoreFS rule", 0) != 1) return 5;
  return 0;
}

TEST_F(BasicPathEnumeratorFixture, UnsearchableFolderGivesFabricatedItemsButNeverRefusedOnes) {
  m_tree.MakeFile("r/one");
  m_tree.MakeFile("r/two");
  m_tree.MakeFile("r/skip");
  SNoSearchArg arg{m_tree.MakeDir("r", 0744)};
  EXPECT_EQ(RunAsNobody(ListWithoutSearchPermission, &arg), 0);
}

// ---------------------------------------------------------------------------------------------
// Clones.

TEST_F(BasicPathEnumeratorFixture, CloneStartsWithoutListingAndKeepsOptionsAndCache) {
  for (const char* name : {"p", "q", "r"}) m_tree.MakeFile(std::string("c/") + name);
  const std::string strFolder = m_tree.Path("c");
  const std::vector<std::string> vOrder = KernelOrder(strFolder);
  CPathCacheUnorderedT<std::string> cache;
  cache.Insert("/src/c/q", "mount");

  CBasicPathEnumerator original;
  original.SetFileOperationOptions(FXFile::kFindOptionMountPathCheck);
  original.SetFileOperationOptions(FXFile::kFindOptionNoStatus);  // bits add up
  original.SetMountPathCache(cache);
  CItemPtr pItem;
  ASSERT_TRUE(original.FindFirst(strFolder, FolderItem(strFolder, "/src/c"), pItem).IsSuccess());
  std::vector<std::string> vOriginal{pItem->GetItemName()};

  std::unique_ptr<CPathEnumerator> pClone(original.Clone());
  ASSERT_NE(dynamic_cast<CBasicPathEnumerator*>(pClone.get()), nullptr);
  auto& clone = static_cast<CBasicPathEnumerator&>(*pClone);
  EXPECT_EQ(clone.GetFileOperationOptions(),
            FXFile::kFindOptionMountPathCheck | FXFile::kFindOptionNoStatus);
  CItemPtr pCloneItem;
  EXPECT_TRUE(clone.FindNext(pCloneItem).IsWin32(QiErrorCode::InvalidHandle));
  EXPECT_EQ(pCloneItem, nullptr);

  // The clone lists on its own, with the cache it was given; the original goes on undisturbed.
  SListing cloneListing = ListAll(clone, strFolder, FolderItem(strFolder, "/src/c"));
  while ((void)original.FindNext(pItem), pItem) vOriginal.push_back(pItem->GetItemName());

  std::vector<std::string> vExpected;
  for (const std::string& strName : vOrder)
    if (strName != "q") vExpected.push_back(strName);
  EXPECT_EQ(cloneListing.Names(), vExpected);
  EXPECT_EQ(vOriginal, vExpected);
  EXPECT_EQ(m_pLog->Count("[/src/c/q] skipped by ignoreFS rule", 0), 2u);
}

}  // namespace

// A caller that drops each item before asking for the next gets recycled items: each must look
// exactly as a newly built one (no bag values, flags or cached names of the entry before), and
// an item still held must never change under its holder.
TEST_F(BasicPathEnumeratorFixture, DroppedItemsComeBackAsNewAndHeldOnesNeverChange) {
  for (const char* szName : {"a-long-file-name-beyond-the-short-string.txt", "b", "sub", "c.txt"})
    m_tree.MakeFile(std::string("recycle/") + szName, szName);
  m_tree.MakeSymlink("recycle/link", "b");
  const std::string strFolder = m_tree.Path("recycle");
  CItemPtr pParent = FolderItem(strFolder, "/src/recycle");
  CBasicPathEnumerator reference;
  const SListing expected = ListAll(reference, strFolder, pParent);
  ASSERT_EQ(expected.vItems.size(), 5u);

  CBasicPathEnumerator enumerator;
  CItemPtr pHeld;  // the first item, kept to the end
  CItemPtr pItem;
  CQiError error = enumerator.FindFirst(strFolder, pParent, pItem);
  for (size_t i = 0; pItem; ++i) {
    ASSERT_LT(i, expected.vItems.size());
    const CItemPtr& pWant = expected.vItems[i];
    EXPECT_EQ(pItem->GetItemName(), pWant->GetItemName());
    EXPECT_EQ(pItem->GetSourceFullyQualifiedParentFolder(), "/src/recycle");
    EXPECT_EQ(pItem->GetSourceFullyQualifiedItemName(), pWant->GetSourceFullyQualifiedItemName());
    EXPECT_EQ(pItem->GetAttributes(), pWant->GetAttributes());
    EXPECT_EQ(pItem->GetFileSize(), pWant->GetFileSize());
    EXPECT_FALSE(pItem->isSelected());
    bool bMarked = false;
    EXPECT_TRUE(pItem->GetItemBag()->Read("mark", bMarked).IsError()) << pItem->GetItemName();
    // Marks the item, then drops it (all but the first).
    (void)pItem->GetItemBag()->Write("mark", true);
    pItem->setSelected();
    if (i == 0) pHeld = pItem;
    pItem.reset();
    error = enumerator.FindNext(pItem);
  }
  EXPECT_TRUE(error.IsWin32(kNoMoreFiles)) << error.AsString();
  ASSERT_NE(pHeld, nullptr);
  EXPECT_EQ(pHeld->GetItemName(), expected.vItems[0]->GetItemName());
  EXPECT_EQ(pHeld->GetLocalFullyQualifiedItemName(), expected.vItems[0]->GetLocalFullyQualifiedItemName());
  EXPECT_TRUE(pHeld->isSelected());
}
