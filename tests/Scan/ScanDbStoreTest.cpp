// Scan-DB store: what only CScanDbStore does, on real SQLite files in temporary folders: full
// status records and their file ids, updates, path checks, folder cursors, the counts of subtree
// renames and removals, bulk mode from several threads, and the database kinds of a job. What it
// shares with the plug-in store (listings, renames and removals, refusals, durability, damaged
// files, stores that cannot be opened) is in the contract suite of ScanDatabaseTest.cpp.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <set>
#include <thread>

#include "Platform/ErrorCodes.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Scan/ScanDB/ScanDbFiles.h"
#include "Scan/ScanDB/ScanDbStore.h"
#include "Support/TempTree.h"

namespace {

struct stat MakeStat(mode_t mode, off_t size, ino_t inode = 7) {
  struct stat st {};
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

CScanDbRecord Folder(const std::string& path) { return CScanDbRecord(path, MakeStat(S_IFDIR | 0755, 4096)); }
CScanDbRecord File(const std::string& path) { return CScanDbRecord(path, MakeStat(S_IFREG | 0644, 10)); }

auto Fields(const struct stat& s) {
  return std::make_tuple(s.st_mode, s.st_uid, s.st_gid, s.st_size, s.st_blocks, s.st_nlink, s.st_ino, s.st_dev,
                         s.st_atim.tv_sec, s.st_atim.tv_nsec, s.st_mtim.tv_sec, s.st_mtim.tv_nsec, s.st_ctim.tv_sec,
                         s.st_ctim.tv_nsec);
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
  // Every path the store holds, found again by lookup, and the store's own count.
  std::set<std::string> All(const std::string& folder = "/") {
    std::set<std::string> paths;
    CScanDbRecord record;
    for (const std::string& name : ListNames(m_store, folder)) {
      const std::string path = (folder == "/" ? "" : folder) + "/" + name;
      EXPECT_TRUE(m_store.Lookup(path, record).IsSuccess()) << path;
      paths.insert(path);
      for (const std::string& below : All(path)) paths.insert(below);
    }
    if (folder == "/") {
      uint64_t count = 0;
      EXPECT_TRUE(m_store.GetRecordCount(count).IsSuccess());
      EXPECT_EQ(count, paths.size() + (m_store.Lookup("/", record).IsSuccess() ? 1 : 0));
    }
    return paths;
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
  CScanDbRecord added(row.path, st, "[0x200000401:0x1:0x0]"), found;
  ASSERT_TRUE(m_store.Add(added).IsSuccess());
  CQiError err = m_store.Lookup(row.path, found);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  EXPECT_EQ(found.GetParent(), row.expectParent);
  EXPECT_EQ(found.GetName(), row.expectName);
  EXPECT_EQ(found.GetFileId(), "[0x200000401:0x1:0x0]");
  EXPECT_EQ(Fields(found.GetStat()), Fields(st));
  EXPECT_TRUE(m_store.Add(added).IsErrNo(EEXIST));

  st.st_size = 99;
  st.st_mtim = {1800000000, 5};
  ASSERT_TRUE(m_store.Update(CScanDbRecord(row.path, st)).IsSuccess());
  ASSERT_TRUE(m_store.Lookup(row.path, found).IsSuccess());
  EXPECT_EQ(Fields(found.GetStat()), Fields(st));
  EXPECT_EQ(found.GetFileId(), "");

  ASSERT_TRUE(m_store.Remove(row.path, false).IsSuccess());
  EXPECT_TRUE(m_store.Lookup(row.path, found).IsWin32(QiErrorCode::NotFound));
  EXPECT_TRUE(m_store.Remove(row.path, false).IsWin32(QiErrorCode::NotFound));
}

INSTANTIATE_TEST_SUITE_P(
    Paths, ScanDbRecordTest,
    ::testing::Values(SPathRow{"Plain", "/mnt/vol/a.txt", "/mnt/vol", "a.txt"}, SPathRow{"Root", "/", "", "/"},
                      SPathRow{"TrailingSlash", "/mnt/dir//", "/mnt", "dir"}),
    [](const auto& info) { return info.param.name; });

struct SBadPathRow {
  const char* name;
  std::string path;
  const char* reason;
};

class ScanDbBadPathTest : public ScanDbStoreTest, public ::testing::WithParamInterface<SBadPathRow> {};

TEST_P(ScanDbBadPathTest, EveryOperationRefusesIt) {
  const SBadPathRow& row = GetParam();
  CScanDbRecord record;
  for (const CQiError& err :
       {m_store.Add(File(row.path)), m_store.Update(File(row.path)), m_store.Lookup(row.path, record),
        m_store.Remove(row.path, true), m_store.Rename(row.path, "/ok"), m_store.Rename("/ok", row.path),
        m_store.ListFolder(row.path, [](const CScanDbRecord&) { return CQiError(); })}) {
    EXPECT_TRUE(err.IsWin32(QiErrorCode::InvalidParameter)) << err.AsString();
    EXPECT_NE(err.GetMessage().find(row.reason), std::string::npos) << err.GetMessage();
  }
}

INSTANTIATE_TEST_SUITE_P(Paths, ScanDbBadPathTest,
                         ::testing::Values(SBadPathRow{"Empty", "", "the path is empty"},
                                           SBadPathRow{"Relative", "mnt/a", "the path is not absolute"},
                                           SBadPathRow{"EmptyComponent", "/mnt//a", "empty component"},
                                           SBadPathRow{"DotDot", "/mnt/a/..", "\".\" or \"..\" component"},
                                           SBadPathRow{"Nul", std::string("/mnt/a\0b", 8), "NUL byte"}),
                         [](const auto& info) { return info.param.name; });

// --- Folder listing and cursors ----------------------------------------------------------------

TEST_F(ScanDbStoreTest, CursorsStreamAListingAndCallbacksCanStopIt) {
  AddAll({Folder("/v"), File("/v/b"), File("/v/a"), File("/v/\xff"), Folder("/v/sub"), File("/v/sub/x"), File("/vv")});
  const std::vector<std::string> expected = {"a", "b", "sub", "\xff"};
  EXPECT_EQ(ListNames(m_store, "/v/"), expected);
  EXPECT_TRUE(ListNames(m_store, "/nothing").empty());
  int calls = 0;
  CQiError err = m_store.ListFolder("/v", [&](const CScanDbRecord&) {
    return ++calls == 2 ? QI_ERROR_WIN32(QiErrorCode::OperationAborted) : CQiError();
  });
  EXPECT_TRUE(err.IsWin32(QiErrorCode::OperationAborted));
  EXPECT_EQ(calls, 2);

  // A cursor streams the same rows, survives the store being closed, and ends with 18.
  CScanDbFolderCursor cursor;
  ASSERT_TRUE(m_store.OpenFolderCursor("/v", cursor).IsSuccess());
  ASSERT_TRUE(m_store.Close().IsSuccess());
  CScanDbRecord record;
  std::vector<std::string> streamed;
  while ((err = cursor.Next(record)).IsSuccess()) streamed.emplace_back(record.GetName());
  EXPECT_TRUE(err.IsWin32(QiErrorCode::NoMoreFiles)) << err.AsString();
  EXPECT_EQ(streamed, expected);
  cursor.Close();
  EXPECT_TRUE(cursor.Next(record).IsWin32(QiErrorCode::InvalidHandle));
}

// --- Counts of subtree renames and removals ----------------------------------------------------

// Siblings whose names share "/a/b" as a prefix sort just around its subtree.
const std::set<std::string> kTree = {"/a",     "/a/b",   "/a/b/c", "/a/b/c/d", "/a/b/f", "/a/bc",
                                     "/a/bc/e", "/a/b.d", "/a/b!x", "/a/b!x/h", "/a/\xff"};

struct SCountRow {
  const char* name;
  char op;  // 'm' rename to `to`, 'r' remove with subtree, 'e' remove the entry only
  std::string path, to;
  uint32_t win32;  // expected Win32 code, 0 for success (the store then changes as the op says)
  uint64_t count;
};

class ScanDbCountTest : public ScanDbStoreTest, public ::testing::WithParamInterface<SCountRow> {};

TEST_P(ScanDbCountTest, CountsWhatMovedOrWent) {
  const SCountRow& row = GetParam();
  for (const std::string& path : kTree) AddAll({Folder(path)});
  uint64_t count = 0;
  CQiError err = row.op == 'm' ? m_store.Rename(row.path, row.to, &count)
                               : m_store.Remove(row.path, row.op == 'r', &count);
  EXPECT_EQ(err.GetCode(), row.win32) << err.AsString();
  EXPECT_EQ(count, row.count);
  std::set<std::string> after;
  for (const std::string& path : kTree) {
    const bool below = row.win32 == 0 && (path == row.path || (row.op != 'e' && path.rfind(row.path + "/", 0) == 0));
    if (!below) after.insert(path);
    if (below && row.op == 'm') after.insert(row.to + path.substr(row.path.size()));
  }
  EXPECT_EQ(All(), after);
}

INSTANTIATE_TEST_SUITE_P(Rows, ScanDbCountTest,
                         ::testing::Values(SCountRow{"RenameFolder", 'm', "/a/b", "/x", 0, 4},
                                           SCountRow{"RenameRoot", 'm', "/", "/r", QiErrorCode::InvalidParameter, 0},
                                           SCountRow{"RemoveSubtree", 'r', "/a/b", "", 0, 4},
                                           SCountRow{"RemoveEntryOnly", 'e', "/a/b/f", "", 0, 1}),
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
    for (int i = first; i < first + 500; ++i) EXPECT_TRUE(m_store.Add(File("/bulk/" + std::to_string(i))).IsSuccess());
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
  // What a closed store at the folder lists below /f, and its reference time.
  auto check = [](const std::string& folder, std::vector<std::string> names, uint64_t time) {
    CScanDbStore store;
    ASSERT_TRUE(store.Open(folder).IsSuccess());
    EXPECT_EQ(ListNames(store, "/f"), names);
    uint64_t referenceTime = 0;
    ASSERT_TRUE(store.GetReferenceTime(referenceTime).IsSuccess());
    EXPECT_EQ(referenceTime, time);
    EXPECT_TRUE(store.Validate().IsSuccess());
  };

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
  check(current, {"full-only", "incr1", "incr2"}, 102);
  check(full, {"full-only"}, 100);

  // A copy over an existing database replaces it whole; no staging folder is left behind.
  ASSERT_TRUE(CScanDbFiles::Copy(full, current).IsSuccess());
  check(current, {"full-only"}, 100);
  EXPECT_FALSE(FXPath::DoesPathExist(current + ".copying"));
  EXPECT_TRUE(CScanDbFiles::Copy(temporary, current).IsWin32(QiErrorCode::NotFound));
  EXPECT_TRUE(CScanDbFiles::Replace(temporary, current).IsWin32(QiErrorCode::NotFound));
  EXPECT_TRUE(CScanDbFiles::Exists(current));
  ASSERT_TRUE(CScanDbFiles::Remove(current).IsSuccess());
  EXPECT_FALSE(FXPath::DoesPathExist(current));
  EXPECT_TRUE(CScanDbFiles::Remove(current).IsSuccess());
}

}  // namespace
