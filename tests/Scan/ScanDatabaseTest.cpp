// The two scan-database stores: the plug-in libZrFSSQLiteDB.so opened by name through
// CDatabaseWrapper, and CScanDbStore. One typed contract suite runs both on real temporary
// folders where they answer the same questions (listings, subtree renames and removals,
// refusals, durability, stores that cannot be opened); then what only the wrapper does (its
// plug-ins, read-only stores, the record's metadata, items and records).

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <list>

#include "Platform/ErrorCodes.h"
#include "Platform/FXFile.h"
#include "Platform/FXString.h"
#include "Platform/QiLibrary.h"
#include "Scan/CompoundItem.h"
#include "Scan/FSSQLiteDB/DatabaseItem.h"
#include "Scan/FSSQLiteDB/DatabaseItemWrapper.h"
#include "Scan/FSSQLiteDB/DatabaseWrapper.h"
#include "Scan/FindFirstItem.h"
#include "Scan/ScanDB/ScanDbStore.h"
#include "Support/LogCapture.h"
#include "Support/RunAsNobody.h"
#include "Support/TempTree.h"

namespace {

using FSDB::CDatabaseItem;
using FSDB::CDatabaseItemPtr;
using Space = CQiError::EQiErrorSpace;
constexpr Space W = Space::Win32, E = Space::ErrNo;

CDatabaseItemPtr MakeRecord(int64_t llSize) {
  auto pRecord = std::make_shared<CDatabaseItem>();
  pRecord->SetFileSize(llSize);
  pRecord->SetAttributes(0100644);
  pRecord->SetLinks(1);
  EXPECT_TRUE(pRecord->FormMetadata().IsSuccess());
  return pRecord;
}

struct SEntry {
  std::string strName;
  bool bFolder;
  int64_t llSize;
};

// The two stores behind one face. Open(true) makes a new store, Open(false) opens the one there.
class CPluginStore {
 public:
  static constexpr const char* kDatabaseFile = "ScanDatabase.db";
  explicit CPluginStore(const std::string& strFolder, bool bReadOnly = false)
      : m_db(strFolder, FSDB::DatabaseTypePersistent, bReadOnly) {}
  CDatabaseWrapper& Db() { return m_db; }
  CQiError Open(bool bCreate) { return m_db.Open(bCreate); }
  CQiError Close() { return m_db.Close(); }
  CQiError Bulk(bool bOn) { return m_db.SetBulkInsertMode(bOn); }
  CQiError AddFolder(const std::string& p) { return m_db.AddFolder(p, MakeRecord(0)); }
  CQiError AddFile(const std::string& p, int64_t n) { return m_db.AddFile(p, MakeRecord(n)); }
  CQiError Rename(const std::string& a, const std::string& b, bool bFolder) {
    return bFolder ? m_db.RenameFolder(a, b, nullptr, nullptr) : m_db.RenameFile(a, b, nullptr, nullptr);
  }
  CQiError Remove(const std::string& p, bool bFolder) {
    return bFolder ? m_db.DeleteFolder(p, nullptr) : m_db.DeleteFile(p, nullptr);
  }
  CQiError Lookup(const std::string& p) {
    CDatabaseItemPtr pItem;
    return m_db.QueryItem(p, pItem);
  }
  CQiError Validate() {
    std::vector<SEntry> entries;
    return List("/r", entries);
  }
  CQiError List(const std::string& strFolder, std::vector<SEntry>& entries) {
    std::list<CDatabaseItemPtr> lstItems;
    CQiError error = m_db.QueryFolderItems(strFolder, 0, lstItems);
    for (const CDatabaseItemPtr& p : lstItems) entries.push_back({p->GetFileName(), p->IsDirectory(), p->GetFileSize()});
    return error;
  }

 private:
  CDatabaseWrapper m_db;
};

class CStore {
 public:
  static constexpr const char* kDatabaseFile = "ScanDb.sqlite";
  explicit CStore(const std::string& strFolder) : m_strFolder(strFolder) {}
  CQiError Open(bool) { return m_store.Open(m_strFolder); }
  CQiError Close() { return m_store.Close(); }
  CQiError Bulk(bool bOn) { return bOn ? m_store.BeginBulk() : m_store.EndBulk(); }
  CQiError AddFolder(const std::string& p) { return m_store.Add(Record(p, S_IFDIR | 0755, 0)); }
  CQiError AddFile(const std::string& p, int64_t n) { return m_store.Add(Record(p, S_IFREG | 0644, n)); }
  CQiError Rename(const std::string& a, const std::string& b, bool) { return m_store.Rename(a, b); }
  CQiError Remove(const std::string& p, bool bFolder) { return m_store.Remove(p, bFolder); }
  CQiError Lookup(const std::string& p) {
    CScanDbRecord record;
    return m_store.Lookup(p, record);
  }
  CQiError Validate() { return m_store.Validate(); }
  CQiError List(const std::string& strFolder, std::vector<SEntry>& entries) {
    return m_store.ListFolder(strFolder, [&](const CScanDbRecord& r) {
      entries.push_back({std::string(r.GetName()), r.IsFolder(), static_cast<int64_t>(r.GetStat().st_size)});
      return CQiError();
    });
  }

 private:
  static CScanDbRecord Record(const std::string& p, mode_t mode, off_t size) {
    struct stat st {};
    st.st_mode = mode;
    st.st_size = size;
    st.st_nlink = 1;
    st.st_mtim = {1700000002, 222222222};
    return CScanDbRecord(p, st);
  }
  std::string m_strFolder;
  CScanDbStore m_store;
};

// One step: "D path", "F path [size]", "mv old new", "mvd old new", "rm path", "rmd path",
// "get path", "ls folder"; for the plug-in store also "Fnull path" (no record) and "mv+ old new
// size" (a new record comes with the rename).
template <class TStore>
CQiError Apply(TStore& store, const std::string& strStep) {
  const size_t uBlank = strStep.find(' ');
  const std::string strVerb = strStep.substr(0, uBlank);
  std::vector<std::string> args;
  if (uBlank != std::string::npos) args = FXString::Split(strStep.substr(uBlank + 1), ' ');
  args.resize(std::max<size_t>(args.size(), 3));
  std::vector<SEntry> entries;
  if constexpr (std::is_same_v<TStore, CPluginStore>) {
    if (strVerb == "Fnull") return store.Db().AddFile(args[0], nullptr);
    if (strVerb == "mv+") return store.Db().RenameFile(args[0], args[1], nullptr, MakeRecord(std::stoll(args[2])));
  }
  if (strVerb == "D") return store.AddFolder(args[0]);
  if (strVerb == "F") return store.AddFile(args[0], args[1].empty() ? 0 : std::stoll(args[1]));
  if (strVerb == "mv" || strVerb == "mvd") return store.Rename(args[0], args[1], strVerb == "mvd");
  if (strVerb == "rm" || strVerb == "rmd") return store.Remove(args[0], strVerb == "rmd");
  if (strVerb == "get") return store.Lookup(args[0]);
  EXPECT_EQ("ls", strVerb);
  return store.List(args[0], entries);
}

// Every record below the folder, depth first in listing order: "D path" or "F path size". Each
// must also be found by its path.
template <class TStore>
void Dump(TStore& store, const std::string& strFolder, std::vector<std::string>& lines) {
  std::vector<SEntry> entries;
  CQiError error = store.List(strFolder, entries);
  ASSERT_TRUE(error.IsSuccess()) << strFolder << ": " << error.AsString();
  for (const SEntry& e : entries) {
    const std::string strPath = (strFolder == "/" ? "" : strFolder) + "/" + e.strName;
    EXPECT_TRUE(store.Lookup(strPath).IsSuccess()) << strPath;
    lines.push_back(e.bFolder ? "D " + strPath : "F " + strPath + " " + std::to_string(e.llSize));
    if (e.bFolder) Dump(store, strPath, lines);
  }
}

template <class TStore>
std::vector<std::string> DumpTree(TStore& store, const std::string& strRoot) {
  std::vector<std::string> lines;
  Dump(store, strRoot, lines);
  return lines;
}

void ExpectError(const CQiError& e, Space space, uint32_t code, const std::string& fragment) {
  EXPECT_TRUE(e.IsError());
  EXPECT_EQ(space, e.GetSpace()) << e.AsString();
  EXPECT_EQ(code, e.GetCode()) << e.AsString();
  EXPECT_NE(std::string::npos, e.AsString().find(fragment)) << e.AsString();
}

class StoreFixture : public ::testing::Test {
 public:
  void SetUp() override { setenv(CQiLibrary::kPluginPathVariable, FSSCAN_SCANDB_PLUGIN_DIR, 1); }
  std::string NewFolder() { return m_tree.Path("jobs/db" + std::to_string(++m_iFolders)); }
  template <class TStore>
  std::unique_ptr<TStore> Open(const std::string& strFolder, bool bCreate) {
    auto pStore = std::make_unique<TStore>(strFolder);
    CQiError error = pStore->Open(bCreate);
    EXPECT_TRUE(error.IsSuccess()) << error.AsString();
    return pStore;
  }
  // Lets the unprivileged user nobody reach the store folders below jobs/.
  void OpenJobsToNobody(const std::string& strFolder) {
    ASSERT_EQ(0, chmod(m_tree.Path("jobs").c_str(), 0755));
    ASSERT_EQ(0, chmod(strFolder.c_str(), 0755));
  }
  CTempTree m_tree;
  int m_iFolders = 0;
};

template <class TStore>
class ScanStoreContract : public StoreFixture {
 protected:
  std::unique_ptr<TStore> OpenStore(const std::string& strFolder, bool bCreate) {
    return Open<TStore>(strFolder, bCreate);
  }
};

using StoreTypes = ::testing::Types<CPluginStore, CStore>;
class StoreNames {
 public:
  template <class T>
  static std::string GetName(int) {
    return std::is_same_v<T, CPluginStore> ? "PluginStore" : "ScanDbStore";
  }
};
TYPED_TEST_SUITE(ScanStoreContract, StoreTypes, StoreNames);

struct SScenario {
  const char* name;
  bool bPluginOnly;
  std::string strRoot;
  std::vector<std::string> steps;
  std::vector<std::string> expected;
};

const std::string kLongName(5000, 'L');

// Every step succeeds, and the store then holds exactly the expected tree, in bulk mode and
// outside it, and again after it was closed and opened.
const SScenario kScenarios[] = {
    {"ListsInByteOrderOfNames", false, "/r",
     {"D /r", "F /r/b 2", "F /r/a 1", "D /r/c", "F /r/c/x 3", "F /r/B", "F /r/\xc3\xa4", "F /r/a\nb"},
     {"F /r/B 0", "F /r/a 1", "F /r/a\nb 0", "F /r/b 2", "D /r/c", "F /r/c/x 3", "F /r/\xc3\xa4 0"}},
    // LIKE patterns would take '%' and '_' in the folder's name as wildcards; siblings that share
    // the folder's name as a prefix sort just around its subtree.
    {"RenamedFolderCarriesItsSubtreeOnly", false, "/r",
     {"D /r", "D /r/d%_", "D /r/d%_/e", "F /r/d%_/e/f 1", "F /r/d%_/g 2", "D /r/dxy", "F /r/dxy/h",
      "D /r/d%_0", "F /r/d%_0/i", "F /r/d%_.x", "D /r/d%_!", "F /r/d%_!/j", "mvd /r/d%_ /r/n"},
     {"D /r/d%_!", "F /r/d%_!/j 0", "F /r/d%_.x 0", "D /r/d%_0", "F /r/d%_0/i 0", "D /r/dxy", "F /r/dxy/h 0",
      "D /r/n", "D /r/n/e", "F /r/n/e/f 1", "F /r/n/g 2"}},
    {"FolderMovesToAnotherParent", false, "/r",
     {"D /r", "D /r/a", "D /r/a/s", "F /r/a/s/f 1", "D /r/b", "mvd /r/a/s /r/b/s"},
     {"D /r/a", "D /r/b", "D /r/b/s", "F /r/b/s/f 1"}},
    {"RenamedFileKeepsItsFields", false, "/r", {"D /r", "D /r/s", "F /r/a 4", "mv /r/a /r/s/a"},
     {"D /r/s", "F /r/s/a 4"}},
    {"DeletedFolderTakesItsSubtreeOnly", false, "/r",
     {"D /r", "D /r/d", "F /r/d/x", "D /r/d/e", "F /r/d/e/y", "D /r/d0", "F /r/d.x", "rmd /r/d"},
     {"F /r/d.x 0", "D /r/d0"}},
    {"DeletedFile", false, "/r", {"D /r", "F /r/a", "F /r/b", "rm /r/a"}, {"F /r/b 0"}},
    {"NamesAreBytes", false, "/r", {"D /r", "D /r/\xff\xfe", "F /r/\xff\xfe/\x01n 1", "mvd /r/\xff\xfe /r/\xc3\x28"},
     {"D /r/\xc3\x28", "F /r/\xc3\x28/\x01n 1"}},
    {"PathsLongerThanPathMax", false, "/r",
     {"D /r", "D /r/" + kLongName, "F /r/" + kLongName + "/f 1", "mvd /r/" + kLongName + " /r/s"},
     {"D /r/s", "F /r/s/f 1"}},
    {"RootFolder", false, "/", {"D /", "F /a 1", "D /b", "F /b/c 2", "mvd /b /d"}, {"F /a 1", "D /d", "F /d/c 2"}},
    // The plug-in store: adding again replaces a record; records may come before their folder.
    {"AddingAgainReplacesTheRecord", true, "/r", {"D /r", "F /r/a 1", "F /r/a 5"}, {"F /r/a 5"}},
    {"FolderAddedAgainKeepsItsChildren", true, "/r", {"D /r", "D /r/d", "F /r/d/x 1", "D /r/d"},
     {"D /r/d", "F /r/d/x 1"}},
    {"FileOverFolderTakesItsSubtreeOnly", true, "/r",
     {"D /r", "D /r/d", "F /r/d/x", "D /r/d/e", "F /r/d/e/y", "D /r/d0", "F /r/d0/z", "F /r/d.x", "F /r/d 7"},
     {"F /r/d 7", "F /r/d.x 0", "D /r/d0", "F /r/d0/z 0"}},
    {"RenamedFileTakesNewFieldsWhenGiven", true, "/r", {"D /r", "F /r/b 4", "mv+ /r/b /r/c 9"}, {"F /r/c 9"}},
    {"RecordsAddedBeforeTheirFolderAreLinkedToIt", true, "/r",
     {"D /r", "F /r/s/t/z 3", "F /r/s/x 1", "D /r/s/t", "F /r/s/y 2", "D /r/s"},
     {"D /r/s", "D /r/s/t", "F /r/s/t/z 3", "F /r/s/x 1", "F /r/s/y 2"}},
    {"FolderThatIsNotStoredListsWhatIsBelowIt", true, "/q", {"F /q/a 1", "D /q/b"}, {"F /q/a 1", "D /q/b"}},
    {"TrailingSlash", true, "/r", {"D /r", "D /r/e/"}, {"D /r/e"}},
};

// A store made in a new folder, given the steps in bulk mode or outside it, closed and opened
// again; check() is called on the store before and after.
template <class TStore, class FSteps, class FCheck>
void RunAndReopen(StoreFixture& fixture, bool bBulk, FSteps steps, FCheck check) {
  const std::string strFolder = fixture.NewFolder();
  {
    auto pStore = fixture.Open<TStore>(strFolder, true);
    ASSERT_TRUE(!bBulk || pStore->Bulk(true).IsSuccess());
    steps(*pStore);
    check(*pStore);
    ASSERT_TRUE(!bBulk || pStore->Bulk(false).IsSuccess());
    ASSERT_TRUE(pStore->Close().IsSuccess());
  }
  check(*fixture.Open<TStore>(strFolder, false));
}

TYPED_TEST(ScanStoreContract, HoldsTheExpectedTree) {
  for (const SScenario& c : kScenarios) {
    for (bool bBulk : {false, true}) {
      if (c.bPluginOnly && !std::is_same_v<TypeParam, CPluginStore>) continue;
      SCOPED_TRACE(std::string(c.name) + (bBulk ? " in bulk mode" : ""));
      RunAndReopen<TypeParam>(
          *this, bBulk,
          [&](TypeParam& store) {
            for (const std::string& strStep : c.steps) {
              CQiError error = Apply(store, strStep);
              ASSERT_TRUE(error.IsSuccess()) << strStep << ": " << error.AsString();
            }
          },
          [&](TypeParam& store) { EXPECT_EQ(c.expected, DumpTree(store, c.strRoot)); });
    }
  }
}

struct SRefusal {
  const char* name;
  std::vector<std::string> setup;  // additions below /r; each must still be found afterwards
  std::string step;
  Space space;
  uint32_t code;
  const char* pluginMessage;  // what the plug-in store says; the other store only for plug-in-only rows
  bool bPluginOnly = false;
};

// A clear error, and nothing stored before is lost, in bulk mode and outside it.
const std::vector<std::string> kFileAndFolder = {"F /r/a 1", "D /r/d", "F /r/d/x 2"};
const SRefusal kRefusals[] = {
    {"RenameFileOntoStoredFile", {"F /r/a 1", "F /r/b 2"}, "mv /r/a /r/b", E, EEXIST,
     "Cannot rename [/r/a] to [/r/b]: [/r/b] is already in the scan database"},
    {"RenameFolderOntoStoredFolder", {"D /r/a", "F /r/a/x 1", "D /r/b"}, "mvd /r/a /r/b", E, EEXIST,
     "[/r/b] is already in the scan database"},
    {"RenameFolderOntoRecordsBelowTarget", {"D /r/a", "F /r/a/x 1", "F /r/n/x 2"}, "mvd /r/a /r/n", E, EEXIST,
     "UNIQUE constraint failed"},
    {"RenameFolderIntoItself", {"D /r/a"}, "mvd /r/a /r/a/b", W, QiErrorCode::InvalidParameter,
     "Cannot rename [/r/a] to [/r/a/b]: one path lies below the other"},
    {"RenameMissing", {"F /r/a"}, "mv /r/none /r/x", W, QiErrorCode::NotFound,
     "Cannot rename [/r/none]: it is not in scan database"},
    {"DeleteMissing", {"F /r/a"}, "rm /r/none", W, QiErrorCode::NotFound, "[/r/none] is not in scan database"},
    {"QueryUnknownPath", {"F /r/a"}, "get /r/none", W, QiErrorCode::NotFound, "[/r/none] is not in scan database"},
    // The plug-in store's own refusals.
    {"RenameFolderAsFile", kFileAndFolder, "mv /r/d /r/b", W, 87,
     "Cannot rename [/r/d]: it is a folder in the scan database, not a file", true},
    {"DeleteFolderAsFile", kFileAndFolder, "rm /r/d", W, 87, "[/r/d] is a folder in the scan database, not a file",
     true},
    {"DeleteFileAsFolder", kFileAndFolder, "rmd /r/a", W, 87, "[/r/a] is a file in the scan database, not a folder",
     true},
    {"NulByte", kFileAndFolder, std::string("F /r/a\0b", 8), W, 87, "The file path [/r/a\\x00b] contains a NUL byte",
     true},
    {"EmptyPath", kFileAndFolder, "F", W, 87, "The file path is empty", true},
    {"NoRecord", kFileAndFolder, "Fnull /r/b", W, 87, "No record given for [/r/b]", true},
    {"ListFile", kFileAndFolder, "ls /r/a", W, 87, "[/r/a] is a file in the scan database, not a folder", true},
    {"ListUnknownFolder", kFileAndFolder, "ls /r/none", W, 1168, "Folder [/r/none] is not in scan database", true},
};

TYPED_TEST(ScanStoreContract, RefusesClearlyAndKeepsWhatWasStored) {
  constexpr bool bPlugin = std::is_same_v<TypeParam, CPluginStore>;
  for (const SRefusal& c : kRefusals) {
    for (bool bBulk : {false, true}) {
      if (c.bPluginOnly && !bPlugin) continue;
      SCOPED_TRACE(std::string(c.name) + (bBulk ? " in bulk mode" : ""));
      std::vector<std::string> before;
      RunAndReopen<TypeParam>(
          *this, bBulk,
          [&](TypeParam& store) {
            ASSERT_TRUE(store.AddFolder("/r").IsSuccess());
            for (const std::string& strStep : c.setup) ASSERT_TRUE(Apply(store, strStep).IsSuccess());
            before = DumpTree(store, "/r");
            ExpectError(Apply(store, c.step), c.space, c.code, bPlugin ? c.pluginMessage : "");
          },
          [&](TypeParam& store) { EXPECT_EQ(before, DumpTree(store, "/r")); });
    }
  }
}

// Before a store is opened every operation is refused with the same error.
TYPED_TEST(ScanStoreContract, IsNotConfiguredBeforeOpen) {
  TypeParam store(this->NewFolder());
  std::vector<SEntry> entries;
  for (const CQiError& error : {store.Bulk(true), store.AddFolder("/a"), store.AddFile("/a", 1),
                                store.Rename("/a", "/b", true), store.Remove("/a", false), store.Lookup("/a"),
                                store.List("/a", entries)}) {
    EXPECT_TRUE(error.IsWin32(QiErrorCode::NotConfigured)) << error.AsString();
    EXPECT_EQ("Database is not configured", error.GetMessage());
  }
}

// A process that dies without closing leaves every committed record, and only those.
TYPED_TEST(ScanStoreContract, UncleanStopKeepsCommittedRecords) {
  const std::string strFolder = this->NewFolder();
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    auto* pStore = new TypeParam(strFolder);  // never closed, never destroyed
    bool bOk = pStore->Open(true).IsSuccess() && pStore->AddFolder("/r").IsSuccess() &&
               pStore->AddFile("/r/single", 1).IsSuccess() && pStore->Bulk(true).IsSuccess();
    for (int i = 0; bOk && i < 1000; ++i) bOk = pStore->AddFile("/r/bulk" + std::to_string(i), i).IsSuccess();
    bOk = bOk && pStore->Bulk(false).IsSuccess() && pStore->Rename("/r/single", "/r/renamed", false).IsSuccess() &&
          pStore->Bulk(true).IsSuccess() && pStore->AddFile("/r/uncommitted", 0).IsSuccess();
    _exit(bOk ? 0 : 1);
  }
  int iStatus = 0;
  ASSERT_EQ(pid, waitpid(pid, &iStatus, 0));
  ASSERT_TRUE(WIFEXITED(iStatus) && WEXITSTATUS(iStatus) == 0);
  ASSERT_EQ(0, access((strFolder + "/" + TypeParam::kDatabaseFile + "-wal").c_str(), F_OK)) << "not an unclean stop";

  auto pStore = this->OpenStore(strFolder, false);
  EXPECT_EQ(1001u, DumpTree(*pStore, "/r").size());
  EXPECT_TRUE(pStore->Lookup("/r/renamed").IsSuccess());
  EXPECT_TRUE(pStore->Lookup("/r/bulk999").IsSuccess());
  EXPECT_TRUE(pStore->Lookup("/r/single").IsWin32(QiErrorCode::NotFound));
  EXPECT_TRUE(pStore->Lookup("/r/uncommitted").IsWin32(QiErrorCode::NotFound));
}

TYPED_TEST(ScanStoreContract, DamagedPagesAreInvalidData) {
  const std::string strFolder = this->NewFolder();
  {
    auto pStore = this->OpenStore(strFolder, true);
    ASSERT_TRUE(pStore->Bulk(true).IsSuccess());
    ASSERT_TRUE(pStore->AddFolder("/r").IsSuccess());
    for (int i = 0; i < 2000; ++i) ASSERT_TRUE(pStore->AddFile("/r/f" + std::to_string(i), i).IsSuccess());
    ASSERT_TRUE(pStore->Bulk(false).IsSuccess());
    ASSERT_TRUE(pStore->Close().IsSuccess());
  }
  // Keep the header page, overwrite every page after it.
  const std::string strFile = strFolder + "/" + TypeParam::kDatabaseFile;
  struct stat st {};
  ASSERT_EQ(0, stat(strFile.c_str(), &st));
  std::fstream(strFile, std::ios::in | std::ios::out | std::ios::binary).seekp(8192)
      << std::string(static_cast<size_t>(st.st_size) - 8192, '\xa5');
  TypeParam store(strFolder);
  CQiError error = store.Open(false);
  if (error.IsSuccess()) {
    ExpectError(store.Validate(), W, QiErrorCode::InvalidData, "");
    error = store.Lookup("/r/f1");
  }
  ExpectError(error, W, QiErrorCode::InvalidData, "malformed");
}

struct SOpenFailure {
  const char* name;
  std::function<std::string(CTempTree&)> prepare;  // prepares the tree, gives the folder
  bool bCreate;
  Space space;
  uint32_t code;
  const char* fragment;
  bool bPluginOnly = false, bReadOnly = false;
};

const SOpenFailure kOpenFailures[] = {
    {"FolderBelowAFile", [](CTempTree& t) { return t.MakeFile("file") + "/db"; }, true, E, ENOTDIR,
     "create the scan database folder"},
    {"GarbageFile",
     [](CTempTree& t) {
       for (const char* pszName : {"ScanDatabase.db", "ScanDb.sqlite"})
         t.MakeFile(std::string("garbage/") + pszName, std::string(8192, '\x5a') + "garbage");
       return t.Path("garbage");
     },
     false, W, QiErrorCode::InvalidData, "file is not a database"},
    {"AnotherSQLiteFile",
     [](CTempTree& t) {
       t.MakeDir("other");
       for (const char* pszName : {"ScanDatabase.db", "ScanDb.sqlite"}) {
         sqlite3* pDb = nullptr;
         sqlite3_open(t.Path(std::string("other/") + pszName).c_str(), &pDb);
         sqlite3_exec(pDb, "CREATE TABLE t(x)", nullptr, nullptr, nullptr);
         sqlite3_close(pDb);
       }
       return t.Path("other");
     },
     false, W, QiErrorCode::InvalidData, "not a scan database"},
    {"EmptyFolderPath", [](CTempTree&) { return std::string(); }, true, W, QiErrorCode::InvalidParameter, "is empty"},
    // The plug-in store opens only what is there, and a read-only store only when it is a database.
    {"NothingToOpen", [](CTempTree& t) { return t.MakeDir("empty"); }, false, E, ENOENT, "does not exist", true},
    {"LongerThanPathMax", [](CTempTree& t) { return t.Root() + "/" + std::string(5000, 'x'); }, true, E, ENAMETOOLONG,
     "is longer than PATH_MAX", true},
    {"CreateReadOnly", [](CTempTree& t) { return t.Path("db"); }, true, W, 87, "it is to be opened read-only", true,
     true},
    {"ReadOnlyNotADatabase",
     [](CTempTree& t) {
       t.MakeFile("ro/ScanDatabase.db", "SQLite format 3");
       return t.Path("ro");
     },
     false, W, 13, "file is not a database", true, true},
};

// A clear error, never a crash; the store stays closed.
TYPED_TEST(ScanStoreContract, OpenFailuresAreClearErrors) {
  constexpr bool bPlugin = std::is_same_v<TypeParam, CPluginStore>;
  for (const SOpenFailure& c : kOpenFailures) {
    if (c.bPluginOnly && !bPlugin) continue;
    SCOPED_TRACE(c.name);
    const std::string strFolder = c.prepare(this->m_tree);
    auto pStore = [&] {
      if constexpr (bPlugin) return std::make_unique<CPluginStore>(strFolder, c.bReadOnly);
      else return std::make_unique<TypeParam>(strFolder);
    }();
    ExpectError(pStore->Open(c.bCreate), c.space, c.code, c.fragment);
    // Operations fail instead of touching a half-open database.
    CQiError error = pStore->Lookup("/r");
    EXPECT_TRUE(bPlugin ? error.IsWin32(QiErrorCode::InvalidHandle) : error.IsError()) << error.AsString();
  }
}

// As the unprivileged user nobody, in folders that belong to root.
TYPED_TEST(ScanStoreContract, FoldersOfAnotherUser) {
  const std::string strFolder = this->NewFolder();
  ASSERT_TRUE(this->OpenStore(strFolder, true)->AddFile("/x", 1).IsSuccess());
  // The plug-in store, asked to make a new store there, cannot remove root's.
  this->OpenJobsToNobody(strFolder);
  const std::tuple<std::string, bool, const char*> cases[] = {
      {this->m_tree.Path("jobs/new/db"), true, "create the scan database folder"},
      {strFolder, false, "cannot be written"},
      {strFolder, true,
       std::is_same_v<TypeParam, CPluginStore> ? "Cannot remove the earlier scan database file" : "cannot be written"}};
  for (const auto& [strPath, bCreate, fragment] : cases) {
    EXPECT_EQ(0, RunAsNobody([&] {
                TypeParam store(strPath);
                CQiError error = store.Open(bCreate);
                if (error.IsErrNo(EACCES) && error.AsString().find(fragment) != std::string::npos) return true;
                fprintf(stderr, "%s\n", error.AsString().c_str());
                return false;
              }))
        << strPath;
  }
}

// ---------------------------------------------------------------------------------------------
// What only the plug-in store does.

class ScanDatabaseTest : public StoreFixture {
 protected:
  std::unique_ptr<CPluginStore> OpenStore(bool bCreateNew) { return Open<CPluginStore>(m_strFolder, bCreateNew); }
  std::string m_strFolder = m_tree.Path("jobs/db");
};

// The store gives each record its id; replacing or moving a record keeps it.
TEST_F(ScanDatabaseTest, RecordsKeepTheirIdsAndMetadata) {
  auto pStore = OpenStore(true);
  CDatabaseWrapper& db = pStore->Db();
  CDatabaseItemPtr pFolder = MakeRecord(0), pFile = MakeRecord(1), pAgain = MakeRecord(2), pMoved = MakeRecord(3),
                   pStored;
  ASSERT_TRUE(db.AddFolder("/r", pFolder).IsSuccess());
  ASSERT_TRUE(db.AddFile("/r/a", pFile).IsSuccess());
  ASSERT_TRUE(db.AddFile("/r/a", pAgain).IsSuccess());
  ASSERT_TRUE(db.RenameFile("/r/a", "/r/b", nullptr, pMoved).IsSuccess());
  ASSERT_TRUE(db.QueryItem("/r/b", pStored).IsSuccess());
  EXPECT_GT(pFile->GetId(), pFolder->GetId());
  EXPECT_EQ(std::vector<int64_t>(3, pFile->GetId()),
            (std::vector<int64_t>{pAgain->GetId(), pMoved->GetId(), pStored->GetId()}));
  EXPECT_EQ(3, pStored->GetFileSize());
  EXPECT_EQ("b", pStored->GetFileName());
  // Metadata comes back exactly as given, whether or not it is the text of the record's fields.
  const std::function<void(CDatabaseItem&)> metadata[] = {
      [](CDatabaseItem& r) { r.SetMetadata(""); },
      [](CDatabaseItem& r) { r.SetMetadata("not xml at all \x01\xff"); },
      [](CDatabaseItem& r) {
        r.SetAttributes(-1);
        r.SetFileSizeOnDisk(INT64_MIN);
        r.SetCreationTime(INT64_MAX);
        ASSERT_TRUE(r.FormMetadata().IsSuccess());
      },
  };
  for (size_t i = 0; i < std::size(metadata); ++i) {
    const std::string strPath = "/r/f" + std::to_string(i);
    CDatabaseItemPtr pRecord = MakeRecord(static_cast<int64_t>(i)), pBack, pMovedBack;
    metadata[i](*pRecord);
    ASSERT_TRUE(db.AddFile(strPath, pRecord).IsSuccess());
    ASSERT_TRUE(db.QueryItem(strPath, pBack).IsSuccess());
    EXPECT_EQ(pRecord->GetMetadata(), pBack->GetMetadata()) << i;
    EXPECT_EQ(pRecord->GetLinks(), pBack->GetLinks()) << i;
    ASSERT_TRUE(db.RenameFile(strPath, strPath + "m", nullptr, pRecord).IsSuccess());
    ASSERT_TRUE(db.QueryItem(strPath + "m", pMovedBack).IsSuccess());
    EXPECT_EQ(pRecord->GetMetadata(), pMovedBack->GetMetadata()) << i;
  }
}

TEST_F(ScanDatabaseTest, ReadOnlyStoreAnswersQueriesAndRefusesChanges) {
  for (const char* pszStep : {"D /r", "F /r/a 1"}) ASSERT_TRUE(Apply(*OpenStore(true), pszStep).IsSuccess());
  // Closed, the database is one file: it can be read from a folder nobody may write.
  OpenJobsToNobody(m_strFolder);
  EXPECT_EQ(0, RunAsNobody([this] {
              CPluginStore store(m_strFolder, true);
              std::vector<SEntry> entries;
              return store.Open(false).IsSuccess() && store.List("/r", entries).IsSuccess() && entries.size() == 1;
            }));
  CPluginStore store(m_strFolder, true);
  ASSERT_TRUE(store.Open(false).IsSuccess());
  EXPECT_EQ(std::vector<std::string>{"F /r/a 1"}, DumpTree(store, "/r"));
  for (const char* pszStep : {"F /r/b", "rm /r/a", "mv /r/a /r/c", "rmd /r"}) {
    CQiError error = Apply(store, pszStep);
    EXPECT_TRUE(error.IsErrNo(EROFS)) << pszStep << ": " << error.AsString();
    EXPECT_NE(std::string::npos, error.GetMessage().find("is open read-only")) << pszStep;
  }
  EXPECT_TRUE(store.Bulk(true).IsErrNo(EROFS));
}

// Plug-ins that do not keep the contract; the fake's behaviour follows the database folder's name.
struct SFakePlugin {
  const char* name;
  const char* pszPluginFolder;
  const char* pszDatabase;
  uint32_t openCode;     // 0: Open succeeds
  const char* openText;  // in AsString of the error
  int iCreated;
};

class DatabaseWrapperPlugin : public ScanDatabaseTest, public ::testing::WithParamInterface<SFakePlugin> {};

TEST_P(DatabaseWrapperPlugin, KeepsTheContract) {
  const SFakePlugin& c = GetParam();
  setenv(CQiLibrary::kPluginPathVariable, c.pszPluginFolder, 1);
  // Our own handle keeps the fake mapped, so its counters survive the wrapper.
  CQiLibrary fake;
  ASSERT_TRUE(fake.Load(std::string(c.pszPluginFolder) + "/libZrFSSQLiteDB.so").IsSuccess());
  int (*pfnCreated)() = nullptr;
  int (*pfnDestroyed)() = nullptr;
  ASSERT_TRUE(fake.Resolve("FakeScanDatabaseCreated", pfnCreated).IsSuccess());
  ASSERT_TRUE(fake.Resolve("FakeScanDatabaseDestroyed", pfnDestroyed).IsSuccess());
  const int iCreatedBefore = pfnCreated(), iDestroyedBefore = pfnDestroyed();
  CLogCapture log;
  {
    CDatabaseWrapper db(m_tree.Path(c.pszDatabase), FSDB::DatabaseTypePersistent, false);
    CQiError error = db.Open(true);
    if (c.openCode == 0) {
      EXPECT_TRUE(error.IsSuccess()) << error.AsString();
    } else {
      ExpectError(error, W, c.openCode, c.openText);
      CDatabaseItemPtr pItem;
      EXPECT_TRUE(db.QueryItem("/a", pItem).IsWin32(QiErrorCode::NotConfigured));
    }
  }
  // Whatever was made was freed through the plug-in; a failed close is told to the operator.
  EXPECT_EQ(c.iCreated, pfnCreated() - iCreatedBefore);
  EXPECT_EQ(c.iCreated, pfnDestroyed() - iDestroyedBefore);
  const bool bCloseFails = std::string(c.pszDatabase) == "close-fails";
  EXPECT_EQ(bCloseFails ? 1u : 0u,
            log->CountContaining("Unable to close the database due to ", CLogWriterInterface::kLevelAlways));
  EXPECT_EQ(bCloseFails ? 1u : 0u, log->CountContaining("Fake close failure"));
}

INSTANTIATE_TEST_SUITE_P(
    Wrapper, DatabaseWrapperPlugin,
    ::testing::Values(SFakePlugin{"LacksDestroyExport", FSSCAN_FAKE_SCANDB_LACKING_DIR, "db", 1287,
                                  "Failed to load function to destroy Database object", 0},
                      SFakePlugin{"ReturnsNoObject", FSSCAN_FAKE_SCANDB_DIR, "null-object", 14,
                                  "Failed to create Database object", 0},
                      SFakePlugin{"CloseFailsAtDestruction", FSSCAN_FAKE_SCANDB_DIR, "close-fails", 0, "", 1}),
    [](const auto& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------------------------
// The record's metadata blob.

struct SMetadataCase {
  const char* name;
  std::string strMetadata;
  uint32_t code;  // 0: success
  const char* fragment;
};

class DatabaseItemMetadata : public ::testing::TestWithParam<SMetadataCase> {};

TEST_P(DatabaseItemMetadata, IsReadBackOrRefusedWhole) {
  const SMetadataCase& c = GetParam();
  CDatabaseItem record;
  record.SetMetadata(c.strMetadata);
  CQiError error = record.PopulateFromMetadata();
  auto fields = [&] {
    return std::vector<int64_t>{record.GetAttributes(), record.GetLinks(), record.GetFileSizeOnDisk(),
                                record.GetCreationTime()};
  };
  if (c.code == 0) {
    ASSERT_TRUE(error.IsSuccess()) << error.AsString();
    EXPECT_EQ((std::vector<int64_t>{33188, 3, 8192, 1700000000}), fields());
    // Forming it again gives the same text.
    record.SetMetadata("");
    ASSERT_TRUE(record.FormMetadata().IsSuccess());
    EXPECT_EQ(c.strMetadata, record.GetMetadata());
    return;
  }
  ExpectError(error, W, c.code, c.fragment);
  EXPECT_EQ(std::vector<int64_t>(4, 0), fields());
}

INSTANTIATE_TEST_SUITE_P(
    Record, DatabaseItemMetadata,
    ::testing::Values(
        SMetadataCase{"Formed",
                      "<Metadata><Filesystem Attributes=\"33188\" Links=\"3\" FileSizeOnDisk=\"8192\" "
                      "CreationTime=\"1700000000\"/></Metadata>",
                      0, ""},
        SMetadataCase{"NotSet", "", 1168, "Metadata is not set."},
        SMetadataCase{"NotXml", "size=4096;\x01", 13, "LoadFromString failed, Metadata=[size=4096;\\x01]"},
        SMetadataCase{"NoFilesystemElement", "<Metadata/>", 1168, "Metadata has no Filesystem element"},
        SMetadataCase{"AttributeMissing",
                      "<Metadata><Filesystem Attributes=\"1\" Links=\"1\" FileSizeOnDisk=\"1\"/></Metadata>", 1168,
                      "Attribute [CreationTime] not found"},
        SMetadataCase{"AttributeNotANumber",
                      "<Metadata><Filesystem Attributes=\"1\" Links=\"x\" FileSizeOnDisk=\"1\" "
                      "CreationTime=\"1\"/></Metadata>",
                      13, "Attribute [Links]"}),
    [](const auto& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------------------------
// Items and records.

// A real object becomes a record and comes back as an item with the same status data.
class ItemRecordRoundTrip : public ::testing::TestWithParam<const char*> {};

TEST_P(ItemRecordRoundTrip, KeepsTheStatusData) {
  CTempTree tree;
  const std::string strKind = GetParam();
  const std::string strPath = strKind == "file"     ? tree.MakeFile("data/f.bin", std::string(10000, 'x'))
                              : strKind == "folder" ? tree.MakeDir("data/sub")
                                                    : tree.MakeSymlink("data/link", "/nowhere");
  FXFile::CFileData fileData(strPath, FXFile::CFileData::kModeFullPath);
  ASSERT_TRUE(fileData.good());
  CItemPtr pItem = std::make_shared<CFindFirstItem>(nullptr, strPath, fileData);

  CDatabaseItemPtr pRecord;
  ASSERT_TRUE(CDatabaseItemWrapper::GetDatabaseItem(pItem, pRecord).IsSuccess());
  pRecord->SetFullyQualifiedPath(strPath);
  pRecord->SetAsDirectory(pItem->IsFolder());
  pRecord->SetId(77);
  CItemPtr pBack;
  ASSERT_TRUE(CDatabaseItemWrapper::GetAsItem(pRecord, pBack, "", nullptr).IsSuccess());
  auto pCompound = std::dynamic_pointer_cast<CCompoundItem>(pBack);
  ASSERT_TRUE(pCompound);
  EXPECT_EQ(77, pCompound->GetDbId());
  auto status = [](const CItemPtr& p) {
    return std::make_tuple(p->IsFolder(), p->IsReparsePoint(), p->GetAttributes(), p->GetFileId(),
                           p->GetHardLinkCount(), p->GetFileSize(), p->GetFileSizeOnDisk(),
                           p->GetLastWriteTime().GetSeconds(), p->GetLastAccessTime().GetSeconds(),
                           p->GetLastChangeTime().GetSeconds(), p->GetLocalFullyQualifiedItemName(),
                           p->GetSourceFullyQualifiedItemName());
  };
  EXPECT_EQ(status(pItem), status(pBack));
}

INSTANTIATE_TEST_SUITE_P(Conversion, ItemRecordRoundTrip, ::testing::Values("file", "folder", "symlink"));

// The rules of rebuilding an item from a record.
struct SRecordToItem {
  const char* name;
  int32_t iAttributes;
  bool bDirectory;
  int64_t llSizeOnDisk;
  std::string strLocalPath;
  uint32_t uExpectedAttributes;
  uint64_t ullExpectedSizeOnDisk;
};

class RecordToItem : public ::testing::TestWithParam<SRecordToItem> {};

TEST_P(RecordToItem, FollowsTheRules) {
  const SRecordToItem& c = GetParam();
  auto pRecord = std::make_shared<CDatabaseItem>();
  pRecord->SetFullyQualifiedPath("/r/a");
  pRecord->SetAttributes(c.iAttributes);
  pRecord->SetAsDirectory(c.bDirectory);
  pRecord->SetFileSizeOnDisk(c.llSizeOnDisk);
  pRecord->SetFileSize(700);
  auto pBag = std::make_shared<CBag>();
  CItemPtr pItem;
  ASSERT_TRUE(CDatabaseItemWrapper::GetAsItem(pRecord, pItem, c.strLocalPath, pBag).IsSuccess());
  EXPECT_EQ(c.uExpectedAttributes, pItem->GetAttributes());
  EXPECT_EQ(c.bDirectory, pItem->IsFolder());
  EXPECT_EQ(c.ullExpectedSizeOnDisk, pItem->GetFileSizeOnDisk());
  EXPECT_EQ(700u, pItem->GetFileSize());
  EXPECT_EQ(pBag, pItem->GetWorkUnitBag());
  EXPECT_EQ(c.strLocalPath.empty() ? "/r/a" : c.strLocalPath, pItem->GetLocalFullyQualifiedItemName());
  EXPECT_EQ("/r/a", pItem->GetSourceFullyQualifiedItemName());
}

INSTANTIATE_TEST_SUITE_P(
    Conversion, RecordToItem,
    ::testing::Values(SRecordToItem{"FolderWithoutTypeBits", 0755, true, 4096, "", 040755, 4096},
                      SRecordToItem{"FolderWithFileTypeBits", 0100755, true, 0, "", 040755, 0},
                      SRecordToItem{"SizeOnDiskTruncatesTo512", 0100644, false, 1000, "", 0100644, 512},
                      SRecordToItem{"ReadThroughALocalPath", 0100644, false, 1024, "/snap/r/a", 0100644, 1024}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(DatabaseItemWrapper, RefusesMissingInput) {
  CDatabaseItemPtr pRecord;
  EXPECT_TRUE(CDatabaseItemWrapper::GetDatabaseItem(nullptr, pRecord).IsWin32(87));
  CItemPtr pItem;
  EXPECT_TRUE(CDatabaseItemWrapper::GetAsItem(nullptr, pItem, "", nullptr).IsWin32(87));
  ExpectError(CDatabaseItemWrapper::GetAsItem(std::make_shared<CDatabaseItem>(), pItem, "", nullptr), W, 87,
              "Record has no path");
}

}  // namespace
