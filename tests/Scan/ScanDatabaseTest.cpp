// The scan database: the real plug-in libZrFSSQLiteDB.so opened by name through CDatabaseWrapper
// on real temporary folders, the wrapper's own errors with fake plug-ins, the record's metadata
// and the conversion between items and records.

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "Platform/CaptureLogWriter.h"
#include "Platform/FXFile.h"
#include "Platform/FXString.h"
#include "Platform/QiLibrary.h"
#include "Scan/CompoundItem.h"
#include "Scan/FSSQLiteDB/DatabaseItem.h"
#include "Scan/FSSQLiteDB/DatabaseItemWrapper.h"
#include "Scan/FSSQLiteDB/DatabaseWrapper.h"
#include "Scan/FindFirstItem.h"
#include "Support/TempTree.h"

namespace {

using FSDB::CDatabaseItem;
using FSDB::CDatabaseItemPtr;
using EQiErrorSpace = CQiError::EQiErrorSpace;

void UsePluginFolder(const char* pszFolder) {
  setenv(CQiLibrary::kPluginPathVariable, pszFolder, 1);
}

CDatabaseItemPtr MakeRecord(int64_t llSize) {
  auto pRecord = std::make_shared<CDatabaseItem>();
  pRecord->SetFileSize(llSize);
  pRecord->SetAttributes(0100644);
  pRecord->SetLinks(1);
  EXPECT_TRUE(pRecord->FormMetadata().IsSuccess());
  return pRecord;
}

// Every record below the folder, depth first in listing order: "D path" or "F path size".
// Folders below the first are listed by id, so both ways of naming a folder are used; each
// record must also be found by its path with the same id and name.
void Dump(CDatabaseWrapper& db, const std::string& strFolder, int64_t llId,
          std::vector<std::string>& lines) {
  std::list<CDatabaseItemPtr> lstItems;
  CQiError error = db.QueryFolderItems(strFolder, llId, lstItems);
  ASSERT_TRUE(error.IsSuccess()) << strFolder << ": " << error.AsString();
  for (const CDatabaseItemPtr& pItem : lstItems) {
    const std::string& strPath = pItem->GetFullyQualifiedPath();
    EXPECT_EQ(strPath.substr(strPath.rfind('/') + 1), pItem->GetFileName());
    CDatabaseItemPtr pAgain;
    ASSERT_TRUE(db.QueryItem(strPath, pAgain).IsSuccess()) << strPath;
    EXPECT_EQ(pItem->GetId(), pAgain->GetId()) << strPath;
    if (pItem->IsDirectory()) {
      lines.push_back("D " + strPath);
      Dump(db, strPath, pItem->GetId(), lines);
    } else {
      lines.push_back("F " + strPath + " " + std::to_string(pItem->GetFileSize()));
    }
  }
}

std::vector<std::string> DumpTree(CDatabaseWrapper& db, const std::string& strRoot) {
  std::vector<std::string> lines;
  Dump(db, strRoot, 0, lines);
  return lines;
}

// One step of a scenario: "D path", "F path [size]", "Fnull path", "mv old new [size]",
// "mvd old new", "rm path", "rmd path", "ls folder", "get path".
CQiError Apply(CDatabaseWrapper& db, const std::string& strStep) {
  const size_t uBlank = strStep.find(' ');
  const std::string strVerb = strStep.substr(0, uBlank);
  std::vector<std::string> args;
  if (uBlank != std::string::npos) {
    for (std::string& arg : FXString::Split(strStep.substr(uBlank + 1), ' ')) args.push_back(arg);
  }
  auto arg = [&args](size_t i) { return i < args.size() ? args[i] : std::string(); };
  auto size = [&args](size_t i) { return i < args.size() ? std::stoll(args[i]) : 0LL; };
  if (strVerb == "D") return db.AddFolder(arg(0), MakeRecord(0));
  if (strVerb == "F") return db.AddFile(arg(0), MakeRecord(size(1)));
  if (strVerb == "Fnull") return db.AddFile(arg(0), nullptr);
  if (strVerb == "mv") {
    return db.RenameFile(arg(0), arg(1), nullptr, args.size() > 2 ? MakeRecord(size(2)) : nullptr);
  }
  if (strVerb == "mvd") return db.RenameFolder(arg(0), arg(1), nullptr, nullptr);
  if (strVerb == "rm") return db.DeleteFile(arg(0), nullptr);
  if (strVerb == "rmd") return db.DeleteFolder(arg(0), nullptr);
  if (strVerb == "ls") {
    std::list<CDatabaseItemPtr> lstItems;
    return db.QueryFolderItems(arg(0), 0, lstItems);
  }
  if (strVerb == "get") {
    CDatabaseItemPtr pItem;
    return db.QueryItem(arg(0), pItem);
  }
  ADD_FAILURE() << "unknown step " << strStep;
  return CQiError();
}

class ScanDatabaseTest : public ::testing::Test {
 protected:
  void SetUp() override { UsePluginFolder(FSSCAN_SCANDB_PLUGIN_DIR); }

  std::unique_ptr<CDatabaseWrapper> OpenStore(bool bCreateNew, bool bReadOnly = false) {
    auto pDb = std::make_unique<CDatabaseWrapper>(m_strFolder, FSDB::DatabaseTypePersistent,
                                                  bReadOnly);
    CQiError error = pDb->Open(bCreateNew);
    EXPECT_TRUE(error.IsSuccess()) << error.AsString();
    return pDb;
  }

  CTempTree m_tree;
  std::string m_strFolder = m_tree.Path("jobs/db");
};

// ---------------------------------------------------------------------------------------------
// Scenarios: every step succeeds, and the store then holds exactly the expected tree, in bulk
// mode and outside it, and again after it was closed and opened.

struct SScenario {
  const char* name;
  std::string strRoot;
  std::vector<std::string> steps;
  std::vector<std::string> expected;
};

void PrintTo(const SScenario& c, std::ostream* out) { *out << c.name; }

const std::string kLongName(5000, 'L');

const SScenario kScenarios[] = {
    {"ListsInByteOrderOfNames",
     "/r",
     {"D /r", "F /r/b 2", "F /r/a 1", "D /r/c", "F /r/c/x 3", "F /r/B", "D /r/e/"},
     {"F /r/B 0", "F /r/a 1", "F /r/b 2", "D /r/c", "F /r/c/x 3", "D /r/e"}},
    {"AddingAgainReplacesTheRecord", "/r", {"D /r", "F /r/a 1", "F /r/a 5"}, {"F /r/a 5"}},
    {"FolderAddedAgainKeepsItsChildren",
     "/r",
     {"D /r", "D /r/d", "F /r/d/x 1", "D /r/d"},
     {"D /r/d", "F /r/d/x 1"}},
    {"FileOverFolderTakesItsSubtreeOnly",
     "/r",
     {"D /r", "D /r/d", "F /r/d/x", "D /r/d/e", "F /r/d/e/y", "D /r/d0", "F /r/d0/z",
      "F /r/d.x", "F /r/d 7"},
     {"F /r/d 7", "F /r/d.x 0", "D /r/d0", "F /r/d0/z 0"}},
    // LIKE patterns would take '%' and '_' in the folder's name as wildcards.
    {"RenamedFolderCarriesItsSubtreeOnly",
     "/r",
     {"D /r", "D /r/d%_", "D /r/d%_/e", "F /r/d%_/e/f 1", "F /r/d%_/g 2", "D /r/dxy", "F /r/dxy/h",
      "D /r/d%_0", "F /r/d%_0/i", "F /r/d%_.x", "mvd /r/d%_ /r/n"},
     {"F /r/d%_.x 0", "D /r/d%_0", "F /r/d%_0/i 0", "D /r/dxy", "F /r/dxy/h 0", "D /r/n",
      "D /r/n/e", "F /r/n/e/f 1", "F /r/n/g 2"}},
    {"FolderMovesToAnotherParent",
     "/r",
     {"D /r", "D /r/a", "D /r/a/s", "F /r/a/s/f 1", "D /r/b", "mvd /r/a/s /r/b/s"},
     {"D /r/a", "D /r/b", "D /r/b/s", "F /r/b/s/f 1"}},
    {"RenamedFileKeepsItsFieldsUnlessNewOnesAreGiven",
     "/r",
     {"D /r", "D /r/s", "F /r/a 4", "F /r/b 4", "mv /r/a /r/s/a", "mv /r/b /r/c 9"},
     {"F /r/c 9", "D /r/s", "F /r/s/a 4"}},
    {"DeletedFolderTakesItsSubtreeOnly",
     "/r",
     {"D /r", "D /r/d", "F /r/d/x", "D /r/d/e", "F /r/d/e/y", "D /r/d0", "F /r/d.x", "rmd /r/d"},
     {"F /r/d.x 0", "D /r/d0"}},
    {"DeletedFile", "/r", {"D /r", "F /r/a", "F /r/b", "rm /r/a"}, {"F /r/b 0"}},
    {"RecordsAddedBeforeTheirFolderAreLinkedToIt",
     "/r",
     {"D /r", "F /r/s/t/z 3", "F /r/s/x 1", "D /r/s/t", "F /r/s/y 2", "D /r/s"},
     {"D /r/s", "D /r/s/t", "F /r/s/t/z 3", "F /r/s/x 1", "F /r/s/y 2"}},
    {"FolderThatIsNotStoredListsWhatIsBelowIt", "/q", {"F /q/a 1", "D /q/b"}, {"F /q/a 1", "D /q/b"}},
    {"NamesAreBytes",
     "/r",
     {"D /r", "D /r/\xff\xfe", "F /r/\xff\xfe/\x01n 1", "mvd /r/\xff\xfe /r/\xc3\x28"},
     {"D /r/\xc3\x28", "F /r/\xc3\x28/\x01n 1"}},
    {"PathsLongerThanPathMax",
     "/r",
     {"D /r", "D /r/" + kLongName, "F /r/" + kLongName + "/f 1", "mvd /r/" + kLongName + " /r/s"},
     {"D /r/s", "F /r/s/f 1"}},
    {"RootFolder",
     "/",
     {"D /", "F /a 1", "D /b", "F /b/c 2", "mvd /b /d"},
     {"F /a 1", "D /d", "F /d/c 2"}},
};

class ScanDatabaseScenario : public ScanDatabaseTest,
                             public ::testing::WithParamInterface<std::tuple<SScenario, bool>> {};

TEST_P(ScanDatabaseScenario, HoldsTheExpectedTree) {
  const SScenario& c = std::get<0>(GetParam());
  const bool bBulk = std::get<1>(GetParam());
  {
    std::unique_ptr<CDatabaseWrapper> pDb = OpenStore(true);
    if (bBulk) {
      ASSERT_TRUE(pDb->SetBulkInsertMode(true).IsSuccess());
    }
    for (const std::string& strStep : c.steps) {
      CQiError error = Apply(*pDb, strStep);
      ASSERT_TRUE(error.IsSuccess()) << strStep << ": " << error.AsString();
    }
    EXPECT_EQ(c.expected, DumpTree(*pDb, c.strRoot));
    if (bBulk) {
      ASSERT_TRUE(pDb->SetBulkInsertMode(false).IsSuccess());
    }
    ASSERT_TRUE(pDb->Close().IsSuccess());
  }
  std::unique_ptr<CDatabaseWrapper> pDb = OpenStore(false);
  EXPECT_EQ(c.expected, DumpTree(*pDb, c.strRoot));
}

INSTANTIATE_TEST_SUITE_P(Store, ScanDatabaseScenario,
                         ::testing::Combine(::testing::ValuesIn(kScenarios), ::testing::Bool()),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param).name) +
                                  (std::get<1>(info.param) ? "_Bulk" : "");
                         });

// ---------------------------------------------------------------------------------------------
// Refused operations: a clear error, and nothing that was stored before is lost, in bulk mode
// (the records added earlier in the bulk transaction stay) and outside it.

struct SRefusal {
  const char* name;
  std::vector<std::string> setup;  // additions only; each path must still be found afterwards
  std::string step;
  EQiErrorSpace space;
  uint32_t code;
  const char* fragment;
};

void PrintTo(const SRefusal& c, std::ostream* out) { *out << c.name; }

const SRefusal kRefusals[] = {
    {"RenameFileOntoStoredFile", {"F /r/a 1", "F /r/b 2"}, "mv /r/a /r/b", EQiErrorSpace::ErrNo,
     EEXIST, "Cannot rename [/r/a] to [/r/b]: [/r/b] is already in the scan database"},
    {"RenameFolderOntoStoredFolder", {"D /r/a", "F /r/a/x 1", "D /r/b"}, "mvd /r/a /r/b",
     EQiErrorSpace::ErrNo, EEXIST, "[/r/b] is already in the scan database"},
    {"RenameFolderOntoRecordsWaitingBelowTarget", {"D /r/a", "F /r/a/x 1", "F /r/n/x 2"},
     "mvd /r/a /r/n", EQiErrorSpace::ErrNo, EEXIST, "UNIQUE constraint failed"},
    {"RenameFolderIntoItself", {"D /r/a"}, "mvd /r/a /r/a/b", EQiErrorSpace::Win32, 87,
     "Cannot rename [/r/a] to [/r/a/b]: one path lies below the other"},
    {"RenameMissing", {"F /r/a"}, "mv /r/none /r/x", EQiErrorSpace::Win32, 1168,
     "Cannot rename [/r/none]: it is not in scan database"},
    {"RenameFolderAsFile", {"D /r/a"}, "mv /r/a /r/b", EQiErrorSpace::Win32, 87,
     "Cannot rename [/r/a]: it is a folder in the scan database, not a file"},
    {"DeleteMissing", {"F /r/a"}, "rm /r/none", EQiErrorSpace::Win32, 1168,
     "[/r/none] is not in scan database"},
    {"DeleteFolderAsFile", {"D /r/a", "F /r/a/x"}, "rm /r/a", EQiErrorSpace::Win32, 87,
     "[/r/a] is a folder in the scan database, not a file"},
    {"DeleteFileAsFolder", {"F /r/a"}, "rmd /r/a", EQiErrorSpace::Win32, 87,
     "[/r/a] is a file in the scan database, not a folder"},
    {"PathWithNulByte", {"F /r/a"}, std::string("F /r/a\0b", 8), EQiErrorSpace::Win32, 87,
     "The file path [/r/a\\x00b] contains a NUL byte"},
    {"EmptyPath", {"F /r/a"}, "F", EQiErrorSpace::Win32, 87, "The file path is empty"},
    {"NoRecord", {"F /r/a"}, "Fnull /r/b", EQiErrorSpace::Win32, 87, "No record given for [/r/b]"},
    {"ListAFile", {"F /r/a"}, "ls /r/a", EQiErrorSpace::Win32, 87,
     "[/r/a] is a file in the scan database, not a folder"},
    {"ListAnUnknownFolder", {"F /r/a"}, "ls /r/none", EQiErrorSpace::Win32, 1168,
     "Folder [/r/none] is not in scan database"},
    {"QueryUnknownPath", {"F /r/a"}, "get /r/none", EQiErrorSpace::Win32, 1168,
     "[/r/none] is not in scan database"},
};

class ScanDatabaseRefusal : public ScanDatabaseTest,
                            public ::testing::WithParamInterface<std::tuple<SRefusal, bool>> {};

TEST_P(ScanDatabaseRefusal, FailsClearlyAndKeepsWhatWasStored) {
  const SRefusal& c = std::get<0>(GetParam());
  const bool bBulk = std::get<1>(GetParam());
  std::vector<std::string> before;
  {
    std::unique_ptr<CDatabaseWrapper> pDb = OpenStore(true);
    ASSERT_TRUE(pDb->AddFolder("/r", MakeRecord(0)).IsSuccess());
    if (bBulk) {
      ASSERT_TRUE(pDb->SetBulkInsertMode(true).IsSuccess());
    }
    for (const std::string& strStep : c.setup) ASSERT_TRUE(Apply(*pDb, strStep).IsSuccess());
    before = DumpTree(*pDb, "/r");

    CQiError error = Apply(*pDb, c.step);
    ASSERT_TRUE(error.IsError());
    EXPECT_EQ(c.space, error.GetSpace()) << error.AsString();
    EXPECT_EQ(c.code, error.GetCode()) << error.AsString();
    EXPECT_NE(std::string::npos, error.GetMessage().find(c.fragment)) << error.AsString();

    EXPECT_EQ(before, DumpTree(*pDb, "/r"));
    if (bBulk) {
      ASSERT_TRUE(pDb->SetBulkInsertMode(false).IsSuccess());
    }
  }
  std::unique_ptr<CDatabaseWrapper> pDb = OpenStore(false);
  EXPECT_EQ(before, DumpTree(*pDb, "/r"));
  for (const std::string& strStep : c.setup) {
    const std::string strPath = strStep.substr(2, strStep.find(' ', 2) - 2);
    EXPECT_TRUE(Apply(*pDb, "get " + strPath).IsSuccess()) << strPath;
  }
}

INSTANTIATE_TEST_SUITE_P(Store, ScanDatabaseRefusal,
                         ::testing::Combine(::testing::ValuesIn(kRefusals), ::testing::Bool()),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param).name) +
                                  (std::get<1>(info.param) ? "_Bulk" : "");
                         });

// The store gives each record its id; replacing or moving a record keeps it.
TEST_F(ScanDatabaseTest, RecordsKeepTheirIds) {
  std::unique_ptr<CDatabaseWrapper> pDb = OpenStore(true);
  CDatabaseItemPtr pFolder = MakeRecord(0), pFile = MakeRecord(1), pAgain = MakeRecord(2),
                   pMoved = MakeRecord(3), pStored;
  ASSERT_TRUE(pDb->AddFolder("/r", pFolder).IsSuccess());
  ASSERT_TRUE(pDb->AddFile("/r/a", pFile).IsSuccess());
  ASSERT_TRUE(pDb->AddFile("/r/a", pAgain).IsSuccess());
  ASSERT_TRUE(pDb->RenameFile("/r/a", "/r/b", nullptr, pMoved).IsSuccess());
  ASSERT_TRUE(pDb->QueryItem("/r/b", pStored).IsSuccess());
  EXPECT_GT(pFile->GetId(), pFolder->GetId());
  EXPECT_EQ(pFile->GetId(), pAgain->GetId());
  EXPECT_EQ(pFile->GetId(), pMoved->GetId());
  EXPECT_EQ(pFile->GetId(), pStored->GetId());
  EXPECT_EQ(3, pStored->GetFileSize());
  EXPECT_EQ("b", pStored->GetFileName());
  EXPECT_EQ(pMoved->GetMetadata(), pStored->GetMetadata());
}

// Metadata comes back exactly as it was given, whether or not it is the text of the record's
// own fields (the store keeps only the latter in a compact form).
TEST_F(ScanDatabaseTest, MetadataComesBackAsGiven) {
  std::unique_ptr<CDatabaseWrapper> pDb = OpenStore(true);
  ASSERT_TRUE(pDb->AddFolder("/r", MakeRecord(0)).IsSuccess());
  const std::vector<std::function<void(CDatabaseItem&)>> cases = {
      [](CDatabaseItem& r) { ASSERT_TRUE(r.FormMetadata().IsSuccess()); },
      [](CDatabaseItem& r) { r.SetMetadata(""); },
      [](CDatabaseItem& r) { r.SetMetadata("not xml at all \x01\xff"); },
      [](CDatabaseItem& r) {  // formed, then a field changed: the text no longer matches
        ASSERT_TRUE(r.FormMetadata().IsSuccess());
        r.SetLinks(9);
      },
      [](CDatabaseItem& r) {
        r.SetAttributes(-1);
        r.SetFileSizeOnDisk(INT64_MIN);
        r.SetCreationTime(INT64_MAX);
        ASSERT_TRUE(r.FormMetadata().IsSuccess());
      },
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    const std::string strPath = "/r/f" + std::to_string(i);
    CDatabaseItemPtr pRecord = MakeRecord(static_cast<int64_t>(i)), pStored, pMoved;
    cases[i](*pRecord);
    ASSERT_TRUE(pDb->AddFile(strPath, pRecord).IsSuccess());
    ASSERT_TRUE(pDb->QueryItem(strPath, pStored).IsSuccess());
    EXPECT_EQ(pRecord->GetMetadata(), pStored->GetMetadata()) << i;
    EXPECT_EQ(pRecord->GetLinks(), pStored->GetLinks()) << i;
    ASSERT_TRUE(pDb->RenameFile(strPath, strPath + "m", nullptr, pRecord).IsSuccess());
    ASSERT_TRUE(pDb->QueryItem(strPath + "m", pMoved).IsSuccess());
    EXPECT_EQ(pRecord->GetMetadata(), pMoved->GetMetadata()) << i;
  }
}

// ---------------------------------------------------------------------------------------------
// A process that dies without closing leaves every committed record, and only those.

TEST_F(ScanDatabaseTest, UncleanStopKeepsCommittedRecords) {
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    CDatabaseWrapper db(m_strFolder, FSDB::DatabaseTypePersistent, false);
    bool bOk = db.Open(true).IsSuccess() && db.AddFolder("/r", MakeRecord(0)).IsSuccess() &&
               db.AddFile("/r/single", MakeRecord(1)).IsSuccess() &&
               db.SetBulkInsertMode(true).IsSuccess();
    for (int i = 0; bOk && i < 1000; ++i) {
      bOk = db.AddFile("/r/bulk" + std::to_string(i), MakeRecord(i)).IsSuccess();
    }
    bOk = bOk && db.SetBulkInsertMode(false).IsSuccess() &&
          db.RenameFile("/r/single", "/r/renamed", nullptr, nullptr).IsSuccess() &&
          db.SetBulkInsertMode(true).IsSuccess() &&
          db.AddFile("/r/uncommitted", MakeRecord(0)).IsSuccess();
    _exit(bOk ? 0 : 1);  // no Close, no destructor
  }
  int iStatus = 0;
  ASSERT_EQ(pid, waitpid(pid, &iStatus, 0));
  ASSERT_TRUE(WIFEXITED(iStatus) && WEXITSTATUS(iStatus) == 0);
  struct stat st {};
  ASSERT_EQ(0, stat((m_strFolder + "/ScanDatabase.db-wal").c_str(), &st)) << "not an unclean stop";

  std::unique_ptr<CDatabaseWrapper> pDb = OpenStore(false);
  const std::vector<std::string> lines = DumpTree(*pDb, "/r");
  EXPECT_EQ(1001u, lines.size());
  EXPECT_TRUE(Apply(*pDb, "get /r/renamed").IsSuccess());
  EXPECT_TRUE(Apply(*pDb, "get /r/bulk999").IsSuccess());
  EXPECT_TRUE(Apply(*pDb, "get /r/single").IsWin32(1168));
  EXPECT_TRUE(Apply(*pDb, "get /r/uncommitted").IsWin32(1168));
}

// ---------------------------------------------------------------------------------------------
// Stores that cannot be opened: a clear error, never a crash.

struct SOpenFailure {
  const char* name;
  // Prepares the tree and returns the database folder.
  std::function<std::string(CTempTree&)> prepare;
  bool bCreateNew;
  bool bReadOnly;
  EQiErrorSpace space;
  uint32_t code;
  const char* fragment;
};

void PrintTo(const SOpenFailure& c, std::ostream* out) { *out << c.name; }

const SOpenFailure kOpenFailures[] = {
    {"FolderBelowAFile", [](CTempTree& t) { return t.MakeFile("file") + "/db"; }, true, false,
     EQiErrorSpace::ErrNo, ENOTDIR, "Unable to create the scan database folder"},
    {"NoDatabaseYet", [](CTempTree& t) { return t.MakeDir("empty"); }, false, false,
     EQiErrorSpace::ErrNo, ENOENT, "does not exist"},
    {"GarbageFile",
     [](CTempTree& t) {
       t.MakeFile("db/ScanDatabase.db", std::string(8192, '\x5a') + "garbage");
       return t.Path("db");
     },
     false, false, EQiErrorSpace::Win32, 13, "file is not a database"},
    {"GarbageFileReadOnly",
     [](CTempTree& t) {
       t.MakeFile("db/ScanDatabase.db", "SQLite format 3");
       return t.Path("db");
     },
     false, true, EQiErrorSpace::Win32, 13, "file is not a database"},
    {"AnotherSQLiteFile",
     [](CTempTree& t) {
       const std::string strFile = t.MakeDir("db") + "/ScanDatabase.db";
       sqlite3* pDb = nullptr;
       sqlite3_open(strFile.c_str(), &pDb);
       sqlite3_exec(pDb, "CREATE TABLE t(x)", nullptr, nullptr, nullptr);
       sqlite3_close(pDb);
       return t.Path("db");
     },
     false, false, EQiErrorSpace::Win32, 13, "is not a scan database of this version"},
    {"FolderLongerThanPathMax",
     [](CTempTree& t) { return t.Root() + "/" + std::string(5000, 'x'); }, true, false,
     EQiErrorSpace::ErrNo, ENAMETOOLONG, "is longer than PATH_MAX"},
    {"EmptyFolderPath", [](CTempTree&) { return std::string(); }, true, false,
     EQiErrorSpace::Win32, 87, "The scan database path is empty"},
    {"CreateReadOnly", [](CTempTree& t) { return t.Path("db"); }, true, true,
     EQiErrorSpace::Win32, 87, "it is to be opened read-only"},
};

class ScanDatabaseOpenFailure : public ScanDatabaseTest,
                                public ::testing::WithParamInterface<SOpenFailure> {};

TEST_P(ScanDatabaseOpenFailure, IsAClearError) {
  const SOpenFailure& c = GetParam();
  CDatabaseWrapper db(c.prepare(m_tree), FSDB::DatabaseTypePersistent, c.bReadOnly);
  CQiError error = db.Open(c.bCreateNew);
  ASSERT_TRUE(error.IsError());
  EXPECT_EQ(c.space, error.GetSpace()) << error.AsString();
  EXPECT_EQ(c.code, error.GetCode()) << error.AsString();
  EXPECT_NE(std::string::npos, error.GetMessage().find(c.fragment)) << error.AsString();
  // The store stays closed: operations fail instead of touching a half-open database.
  EXPECT_TRUE(Apply(db, "get /r").IsWin32(6));
}

INSTANTIATE_TEST_SUITE_P(Store, ScanDatabaseOpenFailure, ::testing::ValuesIn(kOpenFailures),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(ScanDatabaseTest, DamagedPagesAreAClearError) {
  {
    std::unique_ptr<CDatabaseWrapper> pDb = OpenStore(true);
    ASSERT_TRUE(pDb->SetBulkInsertMode(true).IsSuccess());
    ASSERT_TRUE(pDb->AddFolder("/r", MakeRecord(0)).IsSuccess());
    for (int i = 0; i < 2000; ++i) ASSERT_TRUE(Apply(*pDb, "F /r/f" + std::to_string(i)).IsSuccess());
    ASSERT_TRUE(pDb->Close().IsSuccess());
  }
  // Keep the header page, overwrite everything after it.
  const std::string strFile = m_strFolder + "/ScanDatabase.db";
  struct stat st {};
  ASSERT_EQ(0, stat(strFile.c_str(), &st));
  {
    std::fstream file(strFile, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(4096);
    file << std::string(static_cast<size_t>(st.st_size) - 4096, '\xa5');
  }
  CDatabaseWrapper db(m_strFolder, FSDB::DatabaseTypePersistent, false);
  CQiError error = db.Open(false);
  if (error.IsSuccess()) error = Apply(db, "ls /r");
  ASSERT_TRUE(error.IsWin32(13)) << error.AsString();
  EXPECT_NE(std::string::npos, error.GetMessage().find("malformed")) << error.AsString();
}

TEST_F(ScanDatabaseTest, ReadOnlyStoreAnswersQueriesAndRefusesChanges) {
  {
    std::unique_ptr<CDatabaseWrapper> pDb = OpenStore(true);
    ASSERT_TRUE(Apply(*pDb, "D /r").IsSuccess());
    ASSERT_TRUE(Apply(*pDb, "F /r/a 1").IsSuccess());
  }  // closed by the wrapper
  std::unique_ptr<CDatabaseWrapper> pDb = OpenStore(false, true);
  EXPECT_EQ(std::vector<std::string>{"F /r/a 1"}, DumpTree(*pDb, "/r"));
  for (const char* pszStep : {"F /r/b", "rm /r/a", "mv /r/a /r/c", "rmd /r"}) {
    CQiError error = Apply(*pDb, pszStep);
    EXPECT_TRUE(error.IsErrNo(EROFS)) << pszStep << ": " << error.AsString();
    EXPECT_NE(std::string::npos, error.GetMessage().find("is open read-only")) << pszStep;
  }
  EXPECT_TRUE(pDb->SetBulkInsertMode(true).IsErrNo(EROFS));
}

// As the unprivileged user nobody: folders and files that belong to root.
struct SNobodyCase {
  std::string strFolder;
  bool bCreateNew;
  bool bReadOnly;
  int iErrNo;           // 0: the open must succeed and list /r
  const char* fragment;
};

int OpenAsNobody(void* pArg) {
  const SNobodyCase& c = *static_cast<const SNobodyCase*>(pArg);
  CDatabaseWrapper db(c.strFolder, FSDB::DatabaseTypePersistent, c.bReadOnly);
  CQiError error = db.Open(c.bCreateNew);
  if (c.iErrNo == 0) {
    std::list<CDatabaseItemPtr> lstItems;
    if (error.IsSuccess()) error = db.QueryFolderItems("/r", 0, lstItems);
    if (error.IsError()) fprintf(stderr, "%s\n", error.AsString().c_str());
    return error.IsSuccess() && lstItems.size() == 1 ? 0 : 1;
  }
  if (!error.IsErrNo(c.iErrNo) || error.GetMessage().find(c.fragment) == std::string::npos) {
    fprintf(stderr, "%s\n", error.AsString().c_str());
    return 1;
  }
  return 0;
}

TEST_F(ScanDatabaseTest, FoldersOfAnotherUser) {
  {
    std::unique_ptr<CDatabaseWrapper> pDb = OpenStore(true);
    ASSERT_TRUE(Apply(*pDb, "D /r").IsSuccess());
    ASSERT_TRUE(Apply(*pDb, "F /r/a 1").IsSuccess());
  }
  ASSERT_EQ(0, chmod(m_tree.Path("jobs").c_str(), 0755));
  ASSERT_EQ(0, chmod(m_strFolder.c_str(), 0755));
  const SNobodyCase cases[] = {
      {m_tree.Path("jobs/new"), true, false, EACCES, "Unable to create the scan database folder"},
      {m_strFolder, true, false, EACCES, "Cannot remove the earlier scan database file"},
      {m_strFolder, false, false, EACCES, "cannot be written"},
      // A closed database is one file: it can be read from a folder nobody may write.
      {m_strFolder, false, true, 0, ""},
  };
  for (const SNobodyCase& c : cases) {
    EXPECT_EQ(0, RunAsNobody(OpenAsNobody, const_cast<SNobodyCase*>(&c)))
        << c.strFolder << " create=" << c.bCreateNew << " readOnly=" << c.bReadOnly;
  }
}

// ---------------------------------------------------------------------------------------------
// The wrapper: operations before Open, and plug-ins that do not keep the contract.

struct SWrapperCall {
  const char* name;
  std::function<CQiError(CDatabaseWrapper&)> call;
};

void PrintTo(const SWrapperCall& c, std::ostream* out) { *out << c.name; }

const SWrapperCall kCallsBeforeOpen[] = {
    {"SetBulkInsertMode", [](CDatabaseWrapper& db) { return db.SetBulkInsertMode(true); }},
    {"Close", [](CDatabaseWrapper& db) { return db.Close(); }},
    {"AddFile", [](CDatabaseWrapper& db) { return db.AddFile("/a", MakeRecord(0)); }},
    {"AddFolder", [](CDatabaseWrapper& db) { return db.AddFolder("/a", MakeRecord(0)); }},
    {"DeleteFile", [](CDatabaseWrapper& db) { return db.DeleteFile("/a", nullptr); }},
    {"DeleteFolder", [](CDatabaseWrapper& db) { return db.DeleteFolder("/a", nullptr); }},
    {"RenameFile",
     [](CDatabaseWrapper& db) { return db.RenameFile("/a", "/b", nullptr, nullptr); }},
    {"RenameFolder",
     [](CDatabaseWrapper& db) { return db.RenameFolder("/a", "/b", nullptr, nullptr); }},
    {"QueryFolderItems",
     [](CDatabaseWrapper& db) {
       std::list<CDatabaseItemPtr> lstItems;
       return db.QueryFolderItems("/a", 0, lstItems);
     }},
    {"QueryItem",
     [](CDatabaseWrapper& db) {
       CDatabaseItemPtr pItem;
       return db.QueryItem("/a", pItem);
     }},
};

class DatabaseWrapperBeforeOpen : public ScanDatabaseTest,
                                  public ::testing::WithParamInterface<SWrapperCall> {};

TEST_P(DatabaseWrapperBeforeOpen, IsNotConfigured) {
  CDatabaseWrapper db(m_strFolder, FSDB::DatabaseTypePersistent, false);
  CQiError error = GetParam().call(db);
  EXPECT_TRUE(error.IsWin32(774)) << error.AsString();
  EXPECT_EQ("Database is not configured", error.GetMessage());
}

INSTANTIATE_TEST_SUITE_P(Wrapper, DatabaseWrapperBeforeOpen, ::testing::ValuesIn(kCallsBeforeOpen),
                         [](const auto& info) { return std::string(info.param.name); });

struct SFakePlugin {
  const char* name;
  const char* pszPluginFolder;
  const char* pszDatabase;  // the fake's behaviour follows the database folder's name
  uint32_t openCode;        // 0: Open succeeds
  const char* openText;     // in AsString of the error
  int iCreated;
  const char* closeLog;  // level -1 message written when the wrapper is destroyed
};

void PrintTo(const SFakePlugin& c, std::ostream* out) { *out << c.name; }

const SFakePlugin kFakePlugins[] = {
    {"LacksDestroyExport", FSSCAN_FAKE_SCANDB_LACKING_DIR, "db", 1287,
     "Failed to load function to destroy Database object", 0, nullptr},
    {"ReturnsNoObject", FSSCAN_FAKE_SCANDB_DIR, "null-object", 14,
     "Failed to create Database object", 0, nullptr},
    {"CloseFailsAtDestruction", FSSCAN_FAKE_SCANDB_DIR, "close-fails", 0, "", 1,
     "Unable to close the database due to "},
};

class DatabaseWrapperPlugin : public ScanDatabaseTest,
                              public ::testing::WithParamInterface<SFakePlugin> {};

TEST_P(DatabaseWrapperPlugin, KeepsTheContract) {
  const SFakePlugin& c = GetParam();
  UsePluginFolder(c.pszPluginFolder);
  // Our own handle keeps the fake mapped, so its counters survive the wrapper.
  CQiLibrary fake;
  ASSERT_TRUE(fake.Load(std::string(c.pszPluginFolder) + "/libZrFSSQLiteDB.so").IsSuccess());
  int (*pfnCreated)() = nullptr;
  int (*pfnDestroyed)() = nullptr;
  ASSERT_TRUE(fake.Resolve("FakeScanDatabaseCreated", pfnCreated).IsSuccess());
  ASSERT_TRUE(fake.Resolve("FakeScanDatabaseDestroyed", pfnDestroyed).IsSuccess());
  const int iCreatedBefore = pfnCreated();
  const int iDestroyedBefore = pfnDestroyed();

  auto pLog = std::make_shared<CCaptureLogWriter>(CLogWriterInterface::kLevelMax);
  CLogWriterInterface::SetProcessLogWriter(pLog);
  {
    CDatabaseWrapper db(m_tree.Path(c.pszDatabase), FSDB::DatabaseTypePersistent, false);
    CQiError error = db.Open(true);
    if (c.openCode == 0) {
      EXPECT_TRUE(error.IsSuccess()) << error.AsString();
    } else {
      EXPECT_TRUE(error.IsWin32(c.openCode)) << error.AsString();
      EXPECT_NE(std::string::npos, error.AsString().find(c.openText)) << error.AsString();
      EXPECT_TRUE(Apply(db, "get /a").IsWin32(774));
    }
  }
  CLogWriterInterface::SetProcessLogWriter(nullptr);
  EXPECT_EQ(c.iCreated, pfnCreated() - iCreatedBefore);
  // Whatever was made was freed through the plug-in.
  EXPECT_EQ(c.iCreated, pfnDestroyed() - iDestroyedBefore);
  EXPECT_EQ(c.closeLog != nullptr ? 1u : 0u,
            pLog->CountContaining("Unable to close the database due to ",
                                  CLogWriterInterface::kLevelAlways));
  if (c.closeLog != nullptr) {
    EXPECT_EQ(1u, pLog->CountContaining("Fake close failure"));
  }
}

INSTANTIATE_TEST_SUITE_P(Wrapper, DatabaseWrapperPlugin, ::testing::ValuesIn(kFakePlugins),
                         [](const auto& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------------------------
// The record's metadata blob.

struct SMetadataCase {
  const char* name;
  std::string strMetadata;
  uint32_t code;  // 0: success
  const char* fragment;
};

void PrintTo(const SMetadataCase& c, std::ostream* out) { *out << c.name; }

const SMetadataCase kMetadataCases[] = {
    {"Formed",
     "<Metadata><Filesystem Attributes=\"33188\" Links=\"3\" FileSizeOnDisk=\"8192\" "
     "CreationTime=\"1700000000\"/></Metadata>",
     0, ""},
    {"NotSet", "", 1168, "Metadata is not set."},
    {"NotXml", "size=4096;\x01", 13, "LoadFromString failed, Metadata=[size=4096;\\x01]"},
    {"NoFilesystemElement", "<Metadata/>", 1168, "Metadata has no Filesystem element"},
    {"AttributeMissing",
     "<Metadata><Filesystem Attributes=\"1\" Links=\"1\" FileSizeOnDisk=\"1\"/></Metadata>", 1168,
     "Attribute [CreationTime] not found"},
    {"AttributeNotANumber",
     "<Metadata><Filesystem Attributes=\"1\" Links=\"x\" FileSizeOnDisk=\"1\" "
     "CreationTime=\"1\"/></Metadata>",
     13, "Attribute [Links]"},
};

class DatabaseItemMetadata : public ::testing::TestWithParam<SMetadataCase> {};

TEST_P(DatabaseItemMetadata, IsReadBackOrRefusedWhole) {
  const SMetadataCase& c = GetParam();
  CDatabaseItem record;
  record.SetMetadata(c.strMetadata);
  CQiError error = record.PopulateFromMetadata();
  if (c.code == 0) {
    ASSERT_TRUE(error.IsSuccess()) << error.AsString();
    EXPECT_EQ(33188, record.GetAttributes());
    EXPECT_EQ(3, record.GetLinks());
    EXPECT_EQ(8192, record.GetFileSizeOnDisk());
    EXPECT_EQ(1700000000, record.GetCreationTime());
    // Forming it again gives the same text.
    record.SetMetadata("");
    ASSERT_TRUE(record.FormMetadata().IsSuccess());
    EXPECT_EQ(c.strMetadata, record.GetMetadata());
    return;
  }
  ASSERT_TRUE(error.IsWin32(c.code)) << error.AsString();
  EXPECT_NE(std::string::npos, error.AsString().find(c.fragment)) << error.AsString();
  EXPECT_EQ(0, record.GetAttributes());
  EXPECT_EQ(0, record.GetLinks());
  EXPECT_EQ(0, record.GetFileSizeOnDisk());
}

INSTANTIATE_TEST_SUITE_P(Record, DatabaseItemMetadata, ::testing::ValuesIn(kMetadataCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(DatabaseItem, AsStringIsTheLogLine) {
  CDatabaseItem record;
  record.SetFileName("a.txt");
  record.SetFullyQualifiedPath("/r/a.txt");
  record.SetFileId(12);
  record.SetAttributes(33188);
  record.SetLinks(2);
  record.SetFileSize(100);
  record.SetAccessTime(1);
  record.SetModificationTime(2);
  record.SetChangeTime(3);
  record.SetCreationTime(4);
  record.SetAsSelected(true);
  EXPECT_EQ(
      "FileName [a.txt] Inode [12] Attributes [33188] Links [2] FileSize [100] Access Time [1] "
      "Modification Time [2] ChangeTime [3] Create Time [4] FullyQualifiedPath [/r/a.txt] "
      "IsDirectory [no] IsSelected [yes] IsCollect[no]",
      record.AsString());
}

// ---------------------------------------------------------------------------------------------
// Items and records.

// A real object becomes a record and comes back as an item with the same status data.
class ItemRecordRoundTrip : public ::testing::TestWithParam<const char*> {};

TEST_P(ItemRecordRoundTrip, KeepsTheStatusData) {
  CTempTree tree;
  const std::string strKind = GetParam();
  std::string strPath;
  if (strKind == "file") strPath = tree.MakeFile("data/f.bin", std::string(10000, 'x'));
  if (strKind == "folder") strPath = tree.MakeDir("data/sub");
  if (strKind == "symlink") strPath = tree.MakeSymlink("data/link", "/nowhere");
  FXFile::CFileData fileData(strPath, FXFile::CFileData::kModeFullPath);
  ASSERT_TRUE(fileData.good());
  CItemPtr pItem = std::make_shared<CFindFirstItem>(nullptr, strPath, fileData);

  CDatabaseItemPtr pRecord;
  ASSERT_TRUE(CDatabaseItemWrapper::GetDatabaseItem(pItem, pRecord).IsSuccess());
  pRecord->SetFullyQualifiedPath(strPath);
  pRecord->SetAsDirectory(pItem->IsFolder());
  pRecord->SetId(77);
  // The metadata carries its four fields.
  CDatabaseItem copy;
  copy.SetMetadata(pRecord->GetMetadata());
  ASSERT_TRUE(copy.PopulateFromMetadata().IsSuccess());
  EXPECT_EQ(pRecord->GetAttributes(), copy.GetAttributes());
  EXPECT_EQ(pRecord->GetLinks(), copy.GetLinks());
  EXPECT_EQ(pRecord->GetFileSizeOnDisk(), copy.GetFileSizeOnDisk());
  EXPECT_EQ(pRecord->GetCreationTime(), copy.GetCreationTime());

  CItemPtr pBack;
  ASSERT_TRUE(CDatabaseItemWrapper::GetAsItem(pRecord, pBack, "", nullptr).IsSuccess());
  auto pCompound = std::dynamic_pointer_cast<CCompoundItem>(pBack);
  ASSERT_TRUE(pCompound);
  EXPECT_EQ(77, pCompound->GetDbId());
  EXPECT_EQ(pItem->IsFolder(), pBack->IsFolder());
  EXPECT_EQ(pItem->IsReparsePoint(), pBack->IsReparsePoint());
  EXPECT_EQ(pItem->GetAttributes(), pBack->GetAttributes());
  EXPECT_EQ(pItem->GetFileId(), pBack->GetFileId());
  EXPECT_EQ(pItem->GetHardLinkCount(), pBack->GetHardLinkCount());
  EXPECT_EQ(pItem->GetFileSize(), pBack->GetFileSize());
  EXPECT_EQ(pItem->GetFileSizeOnDisk(), pBack->GetFileSizeOnDisk());
  EXPECT_EQ(pItem->GetLastWriteTime().GetSeconds(), pBack->GetLastWriteTime().GetSeconds());
  EXPECT_EQ(pItem->GetLastAccessTime().GetSeconds(), pBack->GetLastAccessTime().GetSeconds());
  EXPECT_EQ(pItem->GetLastChangeTime().GetSeconds(), pBack->GetLastChangeTime().GetSeconds());
  EXPECT_EQ(strPath, pBack->GetLocalFullyQualifiedItemName());
  EXPECT_EQ(strPath, pBack->GetSourceFullyQualifiedItemName());
}

INSTANTIATE_TEST_SUITE_P(Conversion, ItemRecordRoundTrip,
                         ::testing::Values("file", "folder", "symlink"));

// The rules of rebuilding an item from a record.
struct SRecordToItem {
  const char* name;
  int32_t iAttributes;
  bool bDirectory;
  int64_t llSizeOnDisk;
  std::string strLocalPath;
  uint32_t uExpectedAttributes;
  bool bExpectedFolder;
  uint64_t ullExpectedSizeOnDisk;
};

void PrintTo(const SRecordToItem& c, std::ostream* out) { *out << c.name; }

const SRecordToItem kRecordToItem[] = {
    {"FolderWithoutTypeBits", 0755, true, 4096, "", 040755, true, 4096},
    {"FolderWithFileTypeBits", 0100755, true, 0, "", 040755, true, 0},
    {"FileKeepsItsBits", 0100600, false, 4096, "", 0100600, false, 4096},
    {"SizeOnDiskTruncatesTo512", 0100644, false, 1000, "", 0100644, false, 512},
    {"SizeOnDiskBelowOneBlock", 0100644, false, 511, "", 0100644, false, 0},
    {"ReadThroughALocalPath", 0100644, false, 1024, "/snap/r/a", 0100644, false, 1024},
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
  EXPECT_EQ(c.bExpectedFolder, pItem->IsFolder());
  EXPECT_EQ(c.ullExpectedSizeOnDisk, pItem->GetFileSizeOnDisk());
  EXPECT_EQ(700u, pItem->GetFileSize());
  EXPECT_EQ(pBag, pItem->GetWorkUnitBag());
  EXPECT_EQ(c.strLocalPath.empty() ? "/r/a" : c.strLocalPath,
            pItem->GetLocalFullyQualifiedItemName());
  EXPECT_EQ("/r/a", pItem->GetSourceFullyQualifiedItemName());
}

INSTANTIATE_TEST_SUITE_P(Conversion, RecordToItem, ::testing::ValuesIn(kRecordToItem),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(DatabaseItemWrapper, RefusesMissingInput) {
  CDatabaseItemPtr pRecord;
  EXPECT_TRUE(CDatabaseItemWrapper::GetDatabaseItem(nullptr, pRecord).IsWin32(87));
  CItemPtr pItem;
  EXPECT_TRUE(CDatabaseItemWrapper::GetAsItem(nullptr, pItem, "", nullptr).IsWin32(87));
  CQiError error =
      CDatabaseItemWrapper::GetAsItem(std::make_shared<CDatabaseItem>(), pItem, "", nullptr);
  EXPECT_TRUE(error.IsWin32(87));
  EXPECT_NE(std::string::npos, error.GetMessage().find("Record has no path"));
}

}  // namespace
