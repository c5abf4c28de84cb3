// Scan-DB store: records, folder listings and cursors, subtree renames and removals, file ids,
// bulk mode from several threads, and the database kinds of a job, on real SQLite files in
// temporary folders. What it shares with the plug-in store (refusals, durability, damaged files,
// stores that cannot be opened) is in the contract suite of ScanDatabaseTest.cpp.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "Platform/ErrorCodes.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Scan/ScanDB/ScanDbFiles.h"
#include "Scan/ScanDB/ScanDbStore.h"
#include "Support/TempTree.h"

namespace {

struct stat MakeStat(mode_t mode, off_t size, ino_t inode = 7) {
  struct stat st;
  memset(&st, 0, sizeof(st));
  st.st_mode = mode;
  st.st_uid = 1000;
  st.st_gid = 50;
  st.st_size = size;
  st.st_blocks = (size + 511) / 512;
  st.st_nlink = S_ISDIR(mode) ? 2 : 1;
  st.st_ino = inode;
  st.st_dev = 0xfd01;
  st.st_atim = {1700000001, 111111111};
  st.st_mtim = {1700000002, 222222222};
  st.st_ctim = {1700000003, 999999999};
  return st;
}

CScanDbRecord Folder(const std::string& path) {
  return CScanDbRecord(path, MakeStat(S_IFDIR | 0755, 4096));
}
CScanDbRecord File(const std::string& path, off_t size = 10) {
  return CScanDbRecord(path, MakeStat(S_IFREG | 0644, size));
}

void ExpectSameStat(const struct stat& a, const struct stat& b) {
  auto fields = [](const struct stat& s) {
    return std::make_tuple(s.st_mode, s.st_uid, s.st_gid, s.st_size, s.st_blocks, s.st_nlink, s.st_ino,
                           s.st_dev, s.st_atim.tv_sec, s.st_atim.tv_nsec, s.st_mtim.tv_sec,
                           s.st_mtim.tv_nsec, s.st_ctim.tv_sec, s.st_ctim.tv_nsec);
  };
  EXPECT_EQ(fields(a), fields(b));
}

std::vector<std::string> ListNames(CScanDbStore& store, const std::string& folder) {
  std::vector<std::string> names;
  CQiError err = store.ListFolder(folder, [&](const CScanDbRecord& record) {
    names.emplace_back(record.GetName());
    return CQiError();
  });
  EXPECT_TRUE(err.IsSuccess()) << err.AsString();
  return names;
}

class ScanDbStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_strFolder = m_tree.Path("job/vol_TemporaryBackupDatabase");
    CQiError err = m_store.Open(m_strFolder);
    ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  }
  void AddAll(const std::vector<CScanDbRecord>& records) {
    for (const CScanDbRecord& record : records) {
      CQiError err = m_store.Add(record);
      ASSERT_TRUE(err.IsSuccess()) << record.GetPath() << ": " << err.AsString();
    }
  }
  // The store holds exactly these paths: each is found and the count matches.
  void ExpectExactly(const std::set<std::string>& paths) {
    uint64_t count = 0;
    ASSERT_TRUE(m_store.GetRecordCount(count).IsSuccess());
    EXPECT_EQ(count, paths.size());
    CScanDbRecord record;
    for (const std::string& path : paths) {
      CQiError err = m_store.Lookup(path, record);
      EXPECT_TRUE(err.IsSuccess()) << "missing " << path;
      if (err.IsSuccess()) {
        EXPECT_EQ(record.GetPath(), path);
      }
    }
  }

  CTempTree m_tree;
  std::string m_strFolder;
  CScanDbStore m_store;
};

// --- Records: add, lookup, update, remove, for paths of every shape ---------------------------

struct SPathRow {
  const char* name;
  std::string path;
  std::string expectParent;
  std::string expectName;
};

class ScanDbRecordTest : public ScanDbStoreTest, public ::testing::WithParamInterface<SPathRow> {};

TEST_P(ScanDbRecordTest, AddLookupUpdateRemove) {
  const SPathRow& row = GetParam();
  struct stat st = MakeStat(S_IFREG | 0640, 1234567, 0xF000000000000001ull);
  CScanDbRecord added(row.path, st, "[0x200000401:0x1:0x0]");
  ASSERT_TRUE(m_store.Add(added).IsSuccess());

  CScanDbRecord found;
  CQiError err = m_store.Lookup(row.path, found);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  EXPECT_EQ(found.GetParent(), row.expectParent);
  EXPECT_EQ(found.GetName(), row.expectName);
  EXPECT_EQ(found.GetFileId(), "[0x200000401:0x1:0x0]");
  ExpectSameStat(found.GetStat(), st);

  err = m_store.Add(added);
  EXPECT_TRUE(err.IsErrNo(EEXIST)) << err.AsString();

  st.st_size = 99;
  st.st_mtim = {1800000000, 5};
  ASSERT_TRUE(m_store.Update(CScanDbRecord(row.path, st)).IsSuccess());
  ASSERT_TRUE(m_store.Lookup(row.path, found).IsSuccess());
  ExpectSameStat(found.GetStat(), st);
  EXPECT_EQ(found.GetFileId(), "");

  ASSERT_TRUE(m_store.Remove(row.path, false).IsSuccess());
  EXPECT_TRUE(m_store.Lookup(row.path, found).IsWin32(QiErrorCode::NotFound));
  EXPECT_TRUE(m_store.Remove(row.path, false).IsWin32(QiErrorCode::NotFound));
}

INSTANTIATE_TEST_SUITE_P(
    Paths, ScanDbRecordTest,
    ::testing::Values(SPathRow{"Plain", "/mnt/vol/a.txt", "/mnt/vol", "a.txt"},
                      SPathRow{"InRoot", "/a", "/", "a"}, SPathRow{"Root", "/", "", "/"},
                      SPathRow{"TrailingSlash", "/mnt/dir//", "/mnt", "dir"},
                      SPathRow{"Newline", "/mnt/line\nbreak", "/mnt", "line\nbreak"},
                      SPathRow{"NotUtf8", "/mnt/\xff\xfe/x\x80", "/mnt/\xff\xfe", "x\x80"},
                      SPathRow{"LongerThanPathMax", "/deep/" + std::string(PATH_MAX, 'n'), "/deep",
                               std::string(PATH_MAX, 'n')}),
    [](const auto& info) { return info.param.name; });

struct SBadPathRow {
  const char* name;
  std::string path;
  const char* reason;
};

class ScanDbBadPathTest : public ScanDbStoreTest,
                          public ::testing::WithParamInterface<SBadPathRow> {};

TEST_P(ScanDbBadPathTest, EveryOperationRefusesIt) {
  const SBadPathRow& row = GetParam();
  CScanDbRecord record;
  std::vector<CQiError> errors;
  errors.push_back(m_store.Add(File(row.path)));
  errors.push_back(m_store.Update(File(row.path)));
  errors.push_back(m_store.Lookup(row.path, record));
  errors.push_back(m_store.Remove(row.path, true));
  errors.push_back(m_store.Rename(row.path, "/ok"));
  errors.push_back(m_store.Rename("/ok", row.path));
  errors.push_back(m_store.ListFolder(row.path, [](const CScanDbRecord&) { return CQiError(); }));
  for (const CQiError& err : errors) {
    EXPECT_TRUE(err.IsWin32(QiErrorCode::InvalidParameter)) << err.AsString();
    EXPECT_NE(err.GetMessage().find(row.reason), std::string::npos) << err.GetMessage();
  }
}

INSTANTIATE_TEST_SUITE_P(
    Paths, ScanDbBadPathTest,
    ::testing::Values(SBadPathRow{"Empty", "", "the path is empty"},
                      SBadPathRow{"Relative", "mnt/a", "the path is not absolute"},
                      SBadPathRow{"EmptyComponent", "/mnt//a", "empty component"},
                      SBadPathRow{"Dot", "/mnt/./a", "\".\" or \"..\" component"},
                      SBadPathRow{"DotDot", "/mnt/a/..", "\".\" or \"..\" component"},
                      SBadPathRow{"Nul", std::string("/mnt/a\0b", 8), "NUL byte"}),
    [](const auto& info) { return info.param.name; });

// --- Folder listing ----------------------------------------------------------------------------

TEST_F(ScanDbStoreTest, ListsAFolderInByteOrderOfNames) {
  const std::vector<std::string> names = {"b",   "a",        "a\nb",    "\xff\xfe", "A",
                                          "a b", "\xc3\xa4", ".hidden", "a\x01",    "z"};
  AddAll({Folder("/v"), Folder("/v/sub"), File("/v/sub/inner"), File("/w"), File("/vv")});
  for (const std::string& name : names) AddAll({File("/v/" + name)});

  std::vector<std::string> expected = names;
  expected.push_back("sub");
  std::sort(expected.begin(), expected.end());  // std::string compares bytes as unsigned
  EXPECT_EQ(ListNames(m_store, "/v"), expected);
  EXPECT_EQ(ListNames(m_store, "/v/"), expected);
  EXPECT_EQ(ListNames(m_store, "/"), (std::vector<std::string>{"v", "vv", "w"}));
  EXPECT_TRUE(ListNames(m_store, "/nothing").empty());

  // A cursor streams the same rows, survives the store being closed, and ends with 18.
  CScanDbFolderCursor cursor;
  ASSERT_TRUE(m_store.OpenFolderCursor("/v", cursor).IsSuccess());
  ASSERT_TRUE(m_store.Close().IsSuccess());
  CScanDbRecord record;
  std::vector<std::string> streamed;
  CQiError err;
  while ((err = cursor.Next(record)).IsSuccess()) streamed.push_back(record.GetPath());
  EXPECT_TRUE(err.IsWin32(QiErrorCode::NoMoreFiles)) << err.AsString();
  ASSERT_EQ(streamed.size(), expected.size());
  EXPECT_EQ(streamed.front(), "/v/" + expected.front());
  cursor.Close();
  EXPECT_TRUE(cursor.Next(record).IsWin32(QiErrorCode::InvalidHandle));
}

TEST_F(ScanDbStoreTest, ListingCallbackErrorStopsTheListing) {
  AddAll({File("/d/1"), File("/d/2"), File("/d/3")});
  int calls = 0;
  CQiError err = m_store.ListFolder("/d", [&](const CScanDbRecord&) {
    return ++calls == 2 ? QI_ERROR_WIN32(QiErrorCode::OperationAborted) : CQiError();
  });
  EXPECT_TRUE(err.IsWin32(QiErrorCode::OperationAborted));
  EXPECT_EQ(calls, 2);
}

// --- Rename and remove of subtrees -------------------------------------------------------------

// A tree with siblings whose names share the folder's name as a prefix ("/a/bc", "/a/b.d",
// "/a/b!x"): byte order puts their children just around the subtree of "/a/b".
const std::set<std::string> kTree = {"/a",       "/a/b",    "/a/b/c",    "/a/b/c/d", "/a/b/f",
                                     "/a/bc",    "/a/bc/e", "/a/b.d",    "/a/b.d/g", "/a/b!x",
                                     "/a/b!x/h", "/a/\xff", "/a/\xff/\n"};

struct SRenameRow {
  const char* name;
  std::string from;
  std::string to;
  uint32_t win32;  // expected Win32 code, 0 for none
  int err;         // expected errno, 0 for none
  uint64_t moved;
  std::set<std::string> extra;  // records added to kTree before the rename
};

class ScanDbRenameTest : public ScanDbStoreTest,
                         public ::testing::WithParamInterface<SRenameRow> {};

TEST_P(ScanDbRenameTest, MovesTheSubtreeOrNothing) {
  const SRenameRow& row = GetParam();
  std::set<std::string> before = kTree;
  before.insert(row.extra.begin(), row.extra.end());
  for (const std::string& path : before) AddAll({Folder(path)});

  uint64_t moved = 0;
  CQiError err = m_store.Rename(row.from, row.to, &moved);
  std::set<std::string> after;
  if (row.win32 != 0 || row.err != 0) {
    if (row.win32 != 0) {
      EXPECT_TRUE(err.IsWin32(row.win32)) << err.AsString();
    } else {
      EXPECT_TRUE(err.IsErrNo(row.err)) << err.AsString();
    }
    after = before;  // nothing changed, nothing lost
  } else {
    ASSERT_TRUE(err.IsSuccess()) << err.AsString();
    for (const std::string& path : before) {
      bool below = path == row.from || path.rfind(row.from + "/", 0) == 0;
      after.insert(below ? row.to + path.substr(row.from.size()) : path);
    }
  }
  EXPECT_EQ(moved, row.moved);
  ExpectExactly(after);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ScanDbRenameTest,
    ::testing::Values(
        SRenameRow{"FolderWithChildren", "/a/b", "/x/y", 0, 0, 4, {}},
        SRenameRow{"FolderInPlace", "/a/b", "/a/bb", 0, 0, 4, {}},
        SRenameRow{"Leaf", "/a/b/c/d", "/a/d", 0, 0, 1, {}},
        SRenameRow{"PathBelowTargetExists", "/a/b", "/z", 0, EEXIST, 0, {"/z/c"}},
        SRenameRow{"IntoItself", "/a/b", "/a/b/c/x", QiErrorCode::InvalidParameter, 0, 0, {}},
        SRenameRow{"Root", "/", "/r", QiErrorCode::InvalidParameter, 0, 0, {}}),
    [](const auto& info) { return info.param.name; });

struct SRemoveRow {
  const char* name;
  std::string path;
  bool subtree;
  uint64_t removed;
  std::set<std::string> gone;
};

class ScanDbRemoveTest : public ScanDbStoreTest,
                         public ::testing::WithParamInterface<SRemoveRow> {};

TEST_P(ScanDbRemoveTest, RemovesTheEntryOrItsSubtree) {
  const SRemoveRow& row = GetParam();
  for (const std::string& path : kTree) AddAll({Folder(path)});
  uint64_t removed = 0;
  CQiError err = m_store.Remove(row.path, row.subtree, &removed);
  if (row.removed == 0) {
    EXPECT_TRUE(err.IsWin32(QiErrorCode::NotFound)) << err.AsString();
  } else {
    EXPECT_TRUE(err.IsSuccess()) << err.AsString();
  }
  EXPECT_EQ(removed, row.removed);
  std::set<std::string> left;
  for (const std::string& path : kTree)
    if (!row.gone.count(path)) left.insert(path);
  ExpectExactly(left);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ScanDbRemoveTest,
    ::testing::Values(
        SRemoveRow{"Subtree", "/a/b", true, 4, {"/a/b", "/a/b/c", "/a/b/c/d", "/a/b/f"}},
        SRemoveRow{"EntryOnly", "/a/b", false, 1, {"/a/b"}},
        SRemoveRow{"Everything", "/", true, kTree.size(), kTree}),
    [](const auto& info) { return info.param.name; });

// --- File identifiers --------------------------------------------------------------------------

TEST_F(ScanDbStoreTest, LooksUpByFileIdAcrossRenamesAndHardLinks) {
  const std::string fid = "[0x200000401:0x1:0x0]";
  AddAll({CScanDbRecord("/l/dir", MakeStat(S_IFDIR | 0755, 4096), "[0x200000402:0x2:0x0]"),
          CScanDbRecord("/l/dir/f", MakeStat(S_IFREG | 0644, 1), fid),
          CScanDbRecord("/l/b-link", MakeStat(S_IFREG | 0644, 1), fid), File("/l/nofid")});
  CScanDbRecord found;
  ASSERT_TRUE(m_store.LookupByFileId(fid, found).IsSuccess());
  EXPECT_EQ(found.GetPath(), "/l/b-link");  // the first of the links in byte order

  ASSERT_TRUE(m_store.Remove("/l/b-link", false).IsSuccess());
  ASSERT_TRUE(m_store.Rename("/l/dir", "/l/moved").IsSuccess());
  ASSERT_TRUE(m_store.LookupByFileId(fid, found).IsSuccess());
  EXPECT_EQ(found.GetPath(), "/l/moved/f");
  ASSERT_TRUE(m_store.LookupByFileId("[0x200000402:0x2:0x0]", found).IsSuccess());
  EXPECT_EQ(found.GetPath(), "/l/moved");
  EXPECT_TRUE(found.IsFolder());

  EXPECT_TRUE(m_store.LookupByFileId("[0x1:0x1:0x0]", found).IsWin32(QiErrorCode::NotFound));
  EXPECT_TRUE(m_store.LookupByFileId("", found).IsWin32(QiErrorCode::InvalidParameter));
}

// --- Bulk mode and threads ---------------------------------------------------------------------

TEST_F(ScanDbStoreTest, BulkModeCommitsOrDiscardsOneTransaction) {
  ASSERT_TRUE(m_store.BeginBulk().IsSuccess());
  EXPECT_TRUE(m_store.BeginBulk().IsWin32(QiErrorCode::InvalidParameter));
  AddAll({File("/discarded")});
  ASSERT_TRUE(m_store.EndBulk(false).IsSuccess());
  EXPECT_TRUE(m_store.EndBulk().IsWin32(QiErrorCode::InvalidParameter));

  // Two threads add into one bulk transaction; a duplicate fails alone and the rest commit.
  ASSERT_TRUE(m_store.BeginBulk().IsSuccess());
  auto adder = [this](int first) {
    for (int i = first; i < first + 500; ++i)
      EXPECT_TRUE(m_store.Add(File("/bulk/" + std::to_string(i))).IsSuccess());
  };
  std::thread one(adder, 0), two(adder, 500);
  one.join();
  two.join();
  EXPECT_TRUE(m_store.Add(File("/bulk/7")).IsErrNo(EEXIST));
  ASSERT_TRUE(m_store.Rename("/bulk", "/renamed-in-bulk").IsWin32(QiErrorCode::NotFound));
  ASSERT_TRUE(m_store.EndBulk().IsSuccess());

  uint64_t count = 0;
  ASSERT_TRUE(m_store.GetRecordCount(count).IsSuccess());
  EXPECT_EQ(count, 1000u);
  EXPECT_EQ(ListNames(m_store, "/bulk").size(), 1000u);

  // Closing in bulk mode discards the bulk's changes.
  ASSERT_TRUE(m_store.BeginBulk().IsSuccess());
  AddAll({File("/late")});
  ASSERT_TRUE(m_store.Close().IsSuccess());
  ASSERT_TRUE(m_store.Open(m_strFolder).IsSuccess());
  CScanDbRecord record;
  EXPECT_TRUE(m_store.Lookup("/late", record).IsWin32(QiErrorCode::NotFound));
  EXPECT_FALSE(m_store.IsInBulk());
}

// --- Database kinds of a job: copy, replace, remove --------------------------------------------

TEST_F(ScanDbStoreTest, JobCycleCopiesAndReplacesTheKinds) {
  ASSERT_TRUE(m_store.Close().IsSuccess());
  const std::string prefix = m_tree.Path("job/vol");
  const std::string full = CScanDbFiles::GetKindFolder(prefix, EScanDbKind::kFull);
  const std::string current = CScanDbFiles::GetKindFolder(prefix, EScanDbKind::kCurrent);
  const std::string temporary = CScanDbFiles::GetKindFolder(prefix, EScanDbKind::kTemporary);
  EXPECT_EQ(full, m_tree.Path("job/vol_FullBackupDatabase"));
  EXPECT_EQ(current, m_tree.Path("job/vol_CurrentBackupDatabase"));
  EXPECT_EQ(temporary, m_strFolder);

  // Full job: the full database is filled; it stays open while it is copied to current (its
  // last changes are still in its log).
  CScanDbStore fullStore;
  ASSERT_TRUE(fullStore.Open(full).IsSuccess());
  ASSERT_TRUE(fullStore.SetReferenceTime(100).IsSuccess());
  ASSERT_TRUE(fullStore.Add(File("/f/full-only")).IsSuccess());
  CQiError err = CScanDbFiles::Copy(full, current);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  ASSERT_TRUE(fullStore.Close().IsSuccess());

  // Incremental job: current is copied to temporary, changed there, and replaces current.
  for (int job = 1; job <= 2; ++job) {
    ASSERT_TRUE(CScanDbFiles::Copy(current, temporary).IsSuccess());
    CScanDbStore tempStore;
    ASSERT_TRUE(tempStore.Open(temporary).IsSuccess());
    ASSERT_TRUE(tempStore.SetReferenceTime(100 + job).IsSuccess());
    ASSERT_TRUE(tempStore.Add(File("/f/incr" + std::to_string(job))).IsSuccess());
    ASSERT_TRUE(tempStore.Close().IsSuccess());
    err = CScanDbFiles::Replace(temporary, current);
    ASSERT_TRUE(err.IsSuccess()) << err.AsString();
    EXPECT_FALSE(CScanDbFiles::Exists(temporary));
  }

  CScanDbStore check;
  ASSERT_TRUE(check.Open(current).IsSuccess());
  EXPECT_EQ(ListNames(check, "/f"), (std::vector<std::string>{"full-only", "incr1", "incr2"}));
  uint64_t referenceTime = 0;
  ASSERT_TRUE(check.GetReferenceTime(referenceTime).IsSuccess());
  EXPECT_EQ(referenceTime, 102u);
  EXPECT_TRUE(check.Validate().IsSuccess());
  ASSERT_TRUE(check.Close().IsSuccess());
  ASSERT_TRUE(check.Open(full).IsSuccess());
  EXPECT_EQ(ListNames(check, "/f"), (std::vector<std::string>{"full-only"}));
  ASSERT_TRUE(check.Close().IsSuccess());

  // A copy over an existing database replaces it whole; no staging folder is left behind.
  ASSERT_TRUE(CScanDbFiles::Copy(full, current).IsSuccess());
  ASSERT_TRUE(check.Open(current).IsSuccess());
  EXPECT_EQ(ListNames(check, "/f"), (std::vector<std::string>{"full-only"}));
  ASSERT_TRUE(check.Close().IsSuccess());
  EXPECT_FALSE(FXPath::DoesPathExist(current + ".copying"));

  EXPECT_TRUE(CScanDbFiles::Copy(temporary, current).IsWin32(QiErrorCode::NotFound));
  EXPECT_TRUE(CScanDbFiles::Replace(temporary, current).IsWin32(QiErrorCode::NotFound));
  EXPECT_TRUE(CScanDbFiles::Exists(current));
  ASSERT_TRUE(CScanDbFiles::Remove(current).IsSuccess());
  EXPECT_FALSE(FXPath::DoesPathExist(current));
  EXPECT_TRUE(CScanDbFiles::Remove(current).IsSuccess());
}

}  // namespace
