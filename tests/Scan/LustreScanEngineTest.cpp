// The Lustre engine's real code against a simulated Lustre (real tree, FIDs from inodes,
// changelogs in the tools' text format, two MDTs): a full job, then incrementals after each kind
// of change, the database compared with a fresh walk after every job and the delivered and
// deleted items compared with exactly what changed; records of one MDT that depend on another's;
// the job outcomes that turn an incremental into a full scan; a job killed between transactions;
// reader registration and its undo.
#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "LustreTestSupport.h"
#include "Support/FileText.h"
#include "Support/LogCapture.h"

using namespace LustreTestSupport;

namespace {

using V = std::vector<std::string>;

// ---- incrementals: every kind of change, exactly what changed is reported ----

struct SChangeCase {
  const char* szName;
  std::function<void(CSimulatedLustreAPI&)> change;
  V lstDelivered;
  V lstDeleted;
  V lstRenamed = {};  // "old>new" of each line of the rename list
};

const SChangeCase kChangeCases[] = {
    {"Create", [](auto& l) { (void)l.Create("a/new.txt", "n"); }, {"a", "a/new.txt"}, {}},
    {"Mkdir", [](auto& l) { (void)l.Mkdir("a/sub"); }, {"a", "a/sub"}, {}},
    {"HardLink", [](auto& l) { (void)l.Link("a/f", "b/f2"); }, {"a/f", "b", "b/f2"}, {}},
    {"RemoveOneLink", [](auto& l) { (void)l.Unlink("h2"); }, {"h1"}, {"h2"}},
    {"Symlink", [](auto& l) { (void)l.Symlink("../top.txt", "a/ln"); }, {"a", "a/ln"}, {}},
    {"Mknod", [](auto& l) { (void)l.Mknod("a/fifo"); }, {"a", "a/fifo"}, {}},
    {"Unlink", [](auto& l) { (void)l.Unlink("a/f"); }, {"a"}, {"a/f"}},
    {"Rmdir", [](auto& l) { (void)l.Rmdir("e"); }, {}, {"e"}},
    {"RenameFile", [](auto& l) { (void)l.Rename("a/f", "a/g"); }, {"a", "a/g"}, {"a/f"}, {"a/f>a/g"}},
    {"RenameFileAcrossFolders", [](auto& l) { (void)l.Rename("a/f", "b/f"); }, {"a", "b", "b/f"}, {"a/f"}, {"a/f>b/f"}},
    {"RenameFolderWithChildren", [](auto& l) { (void)l.Rename("d", "b/d2"); }, {"b", "b/d2", "b/d2/x", "b/d2/y", "b/d2/y/z"},
     {"d"}, {"d>b/d2"}},
    {"RenameOverExisting", [](auto& l) { (void)l.Rename("a/f", "top.txt"); }, {"a", "top.txt"}, {"a/f"}, {"a/f>top.txt"}},
    {"AttributeChange", [](auto& l) { (void)l.Chmod("a/f", 0600); }, {"a/f"}, {}},
    {"ContentChange", [](auto& l) { (void)l.Write("d/y/z", "longer"); }, {"d/y/z"}, {}},
    {"NamesWithBlanks",
     [](auto& l) {
       (void)l.Mkdir("b/two  blanks ");
       (void)l.Create("b/two  blanks /a file.txt");
       (void)l.Rename("b/two  blanks /a file.txt", "b/two  blanks / s=[0x1:0x2:0x0] odd");
     },
     {"b", "b/two  blanks ", "b/two  blanks / s=[0x1:0x2:0x0] odd"}, {},
     {"b/two  blanks /a file.txt>b/two  blanks / s=[0x1:0x2:0x0] odd"}},
    {"CreateThenRemove",
     [](auto& l) {
       (void)l.Mkdir("tmp");
       (void)l.Create("tmp/t");
       (void)l.Unlink("tmp/t");
       (void)l.Rmdir("tmp");
     },
     {}, {}},
    {"AccessTimeOnly", [](auto& l) { (void)l.Touch("a/f"); }, {}, {}},
};

void PrintTo(const SChangeCase& row, std::ostream* pStream) { *pStream << row.szName; }

class LustreChangeTest : public ::testing::TestWithParam<SChangeCase> {};

TEST_P(LustreChangeTest, IncrementalReportsExactlyTheChangeAndKeepsTheDatabaseTrue) {
  const SChangeCase& c = GetParam();
  CLustreFixture f;
  f.MakeTree();
  ASSERT_TRUE(f.RunAndPostOps(true).IsSuccess());
  EXPECT_EQ(f.Stored(), f.Walked());
  EXPECT_EQ(f.Delivered().size(), f.Walked().size() - 1);  // everything but the root
  c.change(*f.m_pApi);
  CLogCapture log;
  CQiError error = f.RunAndPostOps(false);
  ASSERT_TRUE(error.IsSuccess()) << error.AsString();
  EXPECT_EQ(log->CountContaining("changing the Scan type to FULL"), 0u);
  EXPECT_EQ(f.Delivered(), c.lstDelivered);
  EXPECT_EQ(f.DeletedItems(), c.lstDeleted);
  EXPECT_EQ(f.Stored(), f.Walked());
  V lstRenamed;
  std::istringstream list(ReadFileText(f.m_strJob + "/LustreRenameFileList.zrf"));
  for (std::string strLine; std::getline(list, strLine);) {
    const size_t old = strLine.find("Old:"), tab = strLine.find("\tNew:"), fid = strLine.find("\tFID:[");
    ASSERT_TRUE(old == 0 && tab != std::string::npos && fid != std::string::npos) << strLine;
    lstRenamed.push_back(Relative(f.m_strRoot, strLine.substr(4, tab - 4)) + ">" +
                         Relative(f.m_strRoot, strLine.substr(tab + 5, fid - tab - 5)));
  }
  EXPECT_EQ(lstRenamed, c.lstRenamed);
  // A next incremental without changes reports nothing.
  ASSERT_TRUE(f.RunAndPostOps(false).IsSuccess());
  EXPECT_EQ(f.Delivered(), V{});
  EXPECT_EQ(f.Stored(), f.Walked());
}

INSTANTIATE_TEST_SUITE_P(Lustre, LustreChangeTest, ::testing::ValuesIn(kChangeCases),
                         [](const auto& info) { return std::string(info.param.szName); });

// ---- several MDTs: records of one MDT that depend on another's, merged by time ----

constexpr const char* kMdt0 = "lustre-MDT0000";
constexpr const char* kMdt1 = "lustre-MDT0001";

const SChangeCase kCrossMdtCases[] = {
    {"FolderMadeOnOneMdtFilledOnTheOther",
     [](auto& l) {
       l.RecordOn(kMdt1);
       (void)l.Mkdir("b/n");
       l.RecordOn(kMdt0);
       (void)l.Create("b/n/f1");
       (void)l.Mkdir("b/n/sub");
       l.RecordOn(kMdt1);
       (void)l.Create("b/n/sub/f2");
     },
     {"b", "b/n", "b/n/f1", "b/n/sub", "b/n/sub/f2"}, {}},
    {"FileCreatedOnOneMdtRenamedOnTheOther",
     [](auto& l) {
       l.RecordOn(kMdt1);
       (void)l.Create("a/new", "n");
       l.RecordOn(kMdt0);
       (void)l.Rename("a/new", "b/moved");
     },
     {"a", "b", "b/moved"}, {}, {"a/new>b/moved"}},
    {"RmdirAfterItsContentsWereUnlinkedOnTheOther",
     [](auto& l) {
       l.RecordOn(kMdt0);
       (void)l.Unlink("d/y/z");
       (void)l.Unlink("d/x");
       l.RecordOn(kMdt1);
       (void)l.Rmdir("d/y");
       (void)l.Rmdir("d");
     },
     {}, {"d"}},
    {"OneMdtsClockGoingBackKeepsItsIndexOrder",
     [](auto& l) {
       l.RecordOn(kMdt0);
       (void)l.Mkdir("b/n");
       l.SkewClock(kMdt0, -3600LL * 1000000000LL);  // its next records are an hour "earlier"
       (void)l.Create("b/n/f");
       l.RecordOn(kMdt1);
       (void)l.Create("b/n/g");
     },
     {"b", "b/n", "b/n/f", "b/n/g"}, {}},
};

INSTANTIATE_TEST_SUITE_P(LustreCrossMdt, LustreChangeTest, ::testing::ValuesIn(kCrossMdtCases),
                         [](const auto& info) { return std::string(info.param.szName); });

// ---- the content is one folder (d): moves across its edge, changes beside it ----

const SChangeCase kEdgeCases[] = {
    {"FolderMovedIn", [](auto& l) { (void)l.Rename("a", "d/a"); }, {"d/a", "d/a/f"}, {}},
    {"FileMovedOut", [](auto& l) { (void)l.Rename("d/x", "b/x"); }, {}, {"d/x"}},
    {"FolderMovedOut", [](auto& l) { (void)l.Rename("d/y", "e/y"); }, {}, {"d/y"}},
    {"ChangesBesideTheContent",
     [](auto& l) {
       (void)l.Create("b/new");
       (void)l.Rename("a/f", "e/f");
       (void)l.Chmod("top.txt", 0600);
     },
     {}, {}},
};

class LustreEdgeTest : public ::testing::TestWithParam<SChangeCase> {};

TEST_P(LustreEdgeTest, OnlyTheContentIsKept) {
  const SChangeCase& c = GetParam();
  CLustreFixture f;
  f.MakeTree();
  f.m_strContent = f.m_strRoot + "/d";
  ASSERT_TRUE(f.RunAndPostOps(true).IsSuccess());
  c.change(*f.m_pApi);
  CLogCapture log;
  ASSERT_TRUE(f.RunAndPostOps(false).IsSuccess());
  EXPECT_EQ(log->CountContaining("changing the Scan type to FULL"), 0u);
  EXPECT_EQ(f.Delivered(), c.lstDelivered);
  EXPECT_EQ(f.DeletedItems(), c.lstDeleted);
  EXPECT_EQ(f.Stored(), f.Walked());
}

INSTANTIATE_TEST_SUITE_P(Lustre, LustreEdgeTest, ::testing::ValuesIn(kEdgeCases),
                         [](const auto& info) { return std::string(info.param.szName); });

// ---- what turns an incremental into a full scan, and what merely gets logged ----

struct SOutcomeCase {
  const char* szName;
  std::function<void(CLustreFixture&)> before;  // after the full job, before the incremental
  bool bFull;                                   // the incremental became a full scan
  const char* szLog;                            // a message that must be logged
};

const SOutcomeCase kOutcomeCases[] = {
    {"PostOpStateOfAnotherJob", [](auto& f) { f.m_pCallback->Set("JO:LastSuccessfulJobId", 77ULL); }, true,
     "The Last Successful JobID 77 doesn't match with the ZrPostOps State File 1. So changing the Scan type to FULL "},
    {"TrueUp", [](auto& f) { f.m_pCallback->Set("SC:TrueUpQualified", true); }, true,
     "Since the job is Qualified for TrueUp, Changing the scan type to FULL."},
    {"ReaderDroppedByTheMdt", [](auto& f) { f.m_pApi->DropReader("lustre-MDT0001", "cl1"); }, true,
     "The changelog reader cl1 is no longer registered on MDT lustre-MDT0001 (dropped by the MDT)"},
    {"RecordsPurged",
     [](auto& f) {
       (void)f.m_pApi->Create("a/lost");
       (void)f.m_pApi->Create("b/lost");
       for (const auto& mdt : CLustreFixture::kMdts)
         (void)f.m_pApi->ClearChangelog(f.m_strRoot, mdt.strName, "cl1", f.m_pApi->GetLastIndex(mdt.strName));
     },
     true, "are no longer available (the first record of reader cl1 is"},
    {"GarbledLine", [](auto& f) { f.m_pApi->AppendRawRecord("lustre-MDT0000", "01CREAT 13:57:43.4 2026.11.23 0x0 t=[0x2"); },
     true, "The incremental scan cannot be completed from the changelogs. So changing the Scan type to FULL"},
    {"NamespaceRecordWithoutName",
     [](auto& f) {
       f.m_pApi->AppendRawRecord("lustre-MDT0000", "06UNLNK 13:57:43.4 2026.11.23 0x0 t=[0x200000400:0x5:0x0] ef=0xf");
     },
     true, "Invalid Changelog Line processed"},
    {"ParentInsideContentUnknownToTheDatabase",
     [](auto& f) {
       f.m_tree.MakeDir("fs/hidden");  // made behind the changelog's back
       const std::string strFid = f.m_pApi->FidOf("hidden");
       f.m_pApi->AppendRawRecord("lustre-MDT0000",
                                 "01CREAT 13:57:43.4 2026.11.23 0x0 t=[0x200000400:0x9999:0x0] p=" + strFid + " x");
     },
     true, "is not present in the Database. Possible Database corruption"},
    {"MissingStatistics", [](auto& f) { (void)unlink((f.m_strJob + "/lustre_ChangelogReaderStatistics_Tot.zrf").c_str()); },
     true, "Cannot read the changelog reader information from previous FULL backup"},
    {"EmptyStatistics", [](auto& f) { (void)truncate((f.m_strJob + "/lustre_ChangelogReaderStatistics_Current.zrf").c_str(), 0); },
     true, "The Changelog Reader Statistics File is Empty."},
    {"NoDatabase", [](auto& f) { (void)CScanDbFiles::Remove(f.DbFolder(EScanDbKind::kCurrent)); }, true,
     "No scan database of the last backup in"},
    {"CorruptDatabase",
     [](auto& f) {
       std::string strFile = f.DbFolder(EScanDbKind::kCurrent) + "/ScanDb.sqlite";
       FILE* p = fopen(strFile.c_str(), "r+");
       fseek(p, 0, SEEK_SET);
       fputs("garbage garbage garbage", p);
       fclose(p);
     },
     true, "So changing the Scan type to FULL"},
    {"CreateOfAnObjectGoneSince",
     [](auto& f) {
       f.m_pApi->AppendRawRecord("lustre-MDT0000", "01CREAT 13:57:43.4 2026.11.23 0x0 t=[0x200000400:0x9999:0x0] p=" +
                                                       f.m_pApi->FidOf("a") + " ghost");
     },
     false, "/a/ghost is in the scan database but no longer on the file system: record removed"},
    {"UnknownRecordType",
     [](auto& f) { f.m_pApi->AppendRawRecord("lustre-MDT0000", "23GXATR 13:57:43.4 2026.11.23 0x0 t=[0x200000400:0x5:0x0]"); },
     false, "Unknown Lustre changelog record type 23GXATR in record"},
    {"RenameToMarkerChangesNothing",
     [](auto& f) { f.m_pApi->AppendRawRecord("lustre-MDT0000", "09RNMTO 13:57:43.4 2026.11.23 0x0 t=[0x200000400:0x5:0x0] p=[0x200000400:0x5:0x0] n"); },
     false, "The Last Successful JobID match with the ZrPostOps State File."},
    {"MigrateChangesNothing",
     [](auto& f) { f.m_pApi->AppendRawRecord("lustre-MDT0001", "20MIGRT 13:57:43.4 2026.11.23 0x0 t=[0x200000400:0x5:0x0]"); },
     false, "The Lustre Configuration matches and the changelog readers are all present."},
};

void PrintTo(const SOutcomeCase& row, std::ostream* pStream) { *pStream << row.szName; }

class LustreOutcomeTest : public ::testing::TestWithParam<SOutcomeCase> {};

TEST_P(LustreOutcomeTest, FullScanOnlyWithAReason) {
  const SOutcomeCase& c = GetParam();
  CLustreFixture f;
  f.MakeTree();
  ASSERT_TRUE(f.RunAndPostOps(true).IsSuccess());
  c.before(f);
  CLogCapture log;
  CQiError error = f.RunAndPostOps(false);
  ASSERT_TRUE(error.IsSuccess()) << error.AsString();
  EXPECT_GE(log->CountContaining(c.szLog), 1u) << c.szLog;
  // A full scan reports everything below the root; an incremental here changed nothing.
  EXPECT_EQ(f.Delivered().size(), c.bFull ? f.Walked().size() - 1 : 0u);
  EXPECT_EQ(f.Stored(), f.Walked());
  // And the job after it is an ordinary incremental again.
  f.m_pCallback->Set("SC:TrueUpQualified", false);
  (void)f.m_pApi->Create("after.txt");
  log->Clear();
  ASSERT_TRUE(f.RunAndPostOps(false).IsSuccess());
  EXPECT_EQ(log->CountContaining("changing the Scan type to FULL"), 0u);
  EXPECT_EQ(f.Delivered(), V{"after.txt"});
  EXPECT_EQ(f.Stored(), f.Walked());
}

INSTANTIATE_TEST_SUITE_P(Lustre, LustreOutcomeTest, ::testing::ValuesIn(kOutcomeCases),
                         [](const auto& info) { return std::string(info.param.szName); });

// ---- the previous job's scan failures are scanned and reported again ----

TEST(LustreScanFailures, FailedPathsOfTheLastJobAreReportedAgain) {
  CLustreFixture f;
  f.MakeTree();
  ASSERT_TRUE(f.RunAndPostOps(true).IsSuccess());
  WriteFileText(f.m_strJob + "/scan_Failures_Last.zrf", "file " + f.m_strRoot + "/top.txt:5\nfolder " + f.m_strRoot +
                                                           "/d:13\nfile " + f.m_strRoot + "/gone:2\nfile /elsewhere/x:5\n");
  CLogCapture log;
  ASSERT_TRUE(f.RunAndPostOps(false).IsSuccess());
  EXPECT_EQ(f.Delivered(), (V{"d", "d/x", "d/y", "d/y/z", "top.txt"}));
  EXPECT_EQ(log->CountContaining("Processing " + f.m_strRoot + "/d failed folder from previous backup"), 1u);
  EXPECT_EQ(log->CountContaining("stat(" + f.m_strRoot + "/gone) failed due to"), 1u);
  EXPECT_EQ(f.Stored(), f.Walked());
}

// ---- a job killed between batches, run again ----

// Aborts the job when the given fetch of changelog records is made.
class CAbortingLustre : public CSimulatedLustreAPI {
 public:
  using CSimulatedLustreAPI::CSimulatedLustreAPI;
  CQiError GetChangelogs(const std::string& strMount, const std::string& strMDT, int64_t llStart, int64_t llEnd,
                         const std::string& strFile) override {
    if (++m_iFetches == m_iAbortAt && m_pCallback) (void)m_pCallback->Abort();
    return CSimulatedLustreAPI::GetChangelogs(strMount, strMDT, llStart, llEnd, strFile);
  }
  int m_iFetches = 0, m_iAbortAt = 0;
  CScannerCallbackPtr m_pCallback;
};

struct SKilledCase {
  const char* szName;
  std::vector<LustreAPI::SMdt> lstMdt;
  int iAbortAt;          // the fetch that aborts: after at least one transaction committed
  const char* szResume;  // where the killed job's database continues
};

class LustreKilledJob : public ::testing::TestWithParam<SKilledCase> {};

TEST_P(LustreKilledJob, RunAgainEndsWithTheSameDatabase) {
  const SKilledCase& c = GetParam();
  CLustreFixture f(c.lstMdt);
  auto pApi = std::make_shared<CAbortingLustre>(f.m_strRoot, c.lstMdt);
  pApi->m_iAbortAt = c.iAbortAt;
  f.m_pApi = pApi;
  LustreAPI::SetCurrent(pApi);
  f.MakeTree();
  ASSERT_TRUE(f.RunAndPostOps(true).IsSuccess());
  // More than two batches of 10000 per MDT: renames back and forth (on two MDTs each direction
  // logged by another, so that each depends on the other's last), then creates in the last batch.
  const std::string strLast = c.lstMdt.back().strName;
  for (int i = 0; i < 6000 * static_cast<int>(c.lstMdt.size()); ++i) {
    pApi->RecordOn(kMdt0);
    (void)pApi->Rename("a/f", "b/f");
    pApi->RecordOn(strLast);
    (void)pApi->Rename("b/f", "a/f");
  }
  (void)pApi->Mkdir("late");
  pApi->RecordOn(kMdt0);
  (void)pApi->Create("late/file");
  (void)pApi->Rename("d", "late/d");
  pApi->m_pCallback = f.m_pCallback;
  const std::string strBatch = "LustreChangelogBatchSize=10000\n";
  CQiError error = f.Run(false, strBatch);
  EXPECT_TRUE(error.IsWin32(QiErrorCode::OperationAborted)) << error.AsString();
  const std::string strKilled = f.m_tree.Path("killed-db");
  ASSERT_TRUE(CScanDbFiles::Copy(f.DbFolder(EScanDbKind::kTemporary), strKilled).IsSuccess());
  // The last backup's database is untouched; the job run again applies everything once.
  auto pFresh = std::make_shared<TraversalTestSupport::CTestCallback>();
  (void)pFresh->SetScannerConfigurationBag(f.m_pCallback->GetScannerConfigurationBag());
  f.m_pCallback = pFresh;
  pApi->m_pCallback.reset();
  ASSERT_TRUE(f.Run(false, strBatch).IsSuccess());
  // a/f is back where it was, with the change time of its last rename; a and b changed with it.
  EXPECT_EQ(f.Delivered(), (V{"a", "a/f", "b", "late", "late/d", "late/d/x", "late/d/y", "late/d/y/z", "late/file"}));
  EXPECT_EQ(f.DeletedItems(), V{"d"});
  EXPECT_EQ(f.Stored(EScanDbKind::kTemporary), f.Walked());
  // The killed job's own database holds exactly the records its indexes say: continued from
  // them, it ends with the same state, as an incremental.
  ASSERT_TRUE(CScanDbFiles::Replace(strKilled, f.DbFolder(EScanDbKind::kCurrent)).IsSuccess());
  CLogCapture log;
  ASSERT_TRUE(f.Run(false, strBatch).IsSuccess());
  EXPECT_EQ(log->CountContaining("changing the Scan type to FULL"), 0u);
  EXPECT_EQ(log->CountContaining(c.szResume), 1u) << c.szResume;
  EXPECT_EQ(f.Stored(EScanDbKind::kTemporary), f.Walked());
}

INSTANTIATE_TEST_SUITE_P(Lustre, LustreKilledJob,
                         ::testing::Values(SKilledCase{"OneMdt", {{"lustre-MDT0000", "mds0"}}, 2,
                                                       "Getting changelogs from MDT lustre-MDT0000 from 20001 to 24004"},
                                           SKilledCase{"TwoMdts", CLustreFixture::kMdts, 3,
                                                       "Getting changelogs from MDT lustre-MDT0000 from 10001 to 20000"}),
                         [](const auto& info) { return std::string(info.param.szName); });

// ---- the full walk: an entry without FID, in a folder listed over several FID batches ----

class CNoFidLustre : public CSimulatedLustreAPI {
 public:
  using CSimulatedLustreAPI::CSimulatedLustreAPI;
  CQiError GetFIDFromPath(const std::string& strPath, CLustreFID& fid) override {
    if (strPath.ends_with("/nofid")) return QI_ERROR_ERRNO(EIO, "path2fid %s", strPath.c_str());
    return CSimulatedLustreAPI::GetFIDFromPath(strPath, fid);
  }
};

TEST(LustreFullWalk, EntryWithoutFidIsAFailureAndNotInTheDatabase) {
  CLustreFixture f;
  auto pApi = std::make_shared<CNoFidLustre>(f.m_strRoot, CLustreFixture::kMdts);
  f.m_pApi = pApi;
  LustreAPI::SetCurrent(pApi);
  f.MakeTree();
  for (int i = 0; i < 600; ++i) f.m_tree.MakeFile("fs/many/f" + std::to_string(i));
  f.m_tree.MakeFile("fs/many/nofid");
  f.m_pCallback->UseFailuresFile(f.m_tree.Path("failures"));
  CLogCapture log;
  ASSERT_TRUE(f.RunAndPostOps(true).IsSuccess());
  EXPECT_EQ(log->CountContaining("Error in Adding File " + f.m_strRoot + "/many/nofid due to"), 1u);
  const std::vector<std::string> lstFailures = f.m_pCallback->FailureLines();
  ASSERT_EQ(lstFailures.size(), 1u);
  EXPECT_NE(lstFailures[0].find(f.m_strRoot + "/many/nofid"), std::string::npos) << lstFailures[0];
  std::vector<SEntry> lstWalked = f.Walked();
  std::erase_if(lstWalked, [](const SEntry& entry) { return entry.strPath == "many/nofid"; });
  EXPECT_EQ(f.Stored(), lstWalked);
}

// ---- faults while the job fetches its records: each turns the job full, never a hole ----

class CFaultyLustre : public CSimulatedLustreAPI {
 public:
  using CSimulatedLustreAPI::CSimulatedLustreAPI;
  CQiError GetChangelogs(const std::string& strMount, const std::string& strMDT, int64_t llStart, int64_t llEnd,
                         const std::string& strFile) override {
    if (m_szFault == std::string("fail"))
      return QI_ERROR_WIN32(QiErrorCode::FunctionFailed, "lfs changelog %s failed", strMDT.c_str());
    CQiError error = CSimulatedLustreAPI::GetChangelogs(strMount, strMDT, llStart, llEnd, strFile);
    if (m_szFault == std::string("drop")) DropReader(strMDT, "cl1");
    return error;
  }
  const char* m_szFault = "";
};

class LustreFetchFaultTest : public ::testing::TestWithParam<std::pair<const char*, const char*>> {};

TEST_P(LustreFetchFaultTest, MakesTheJobFull) {
  CLustreFixture f(std::vector<LustreAPI::SMdt>{{"lustre-MDT0000", "mds0"}});
  auto pApi = std::make_shared<CFaultyLustre>(f.m_strRoot, std::vector<LustreAPI::SMdt>{{"lustre-MDT0000", "mds0"}});
  f.m_pApi = pApi;
  LustreAPI::SetCurrent(pApi);
  f.MakeTree();
  ASSERT_TRUE(f.RunAndPostOps(true).IsSuccess());
  (void)pApi->Create("a/new");
  pApi->m_szFault = GetParam().first;
  CLogCapture log;
  ASSERT_TRUE(f.Run(false).IsSuccess());
  EXPECT_EQ(log->CountContaining(GetParam().second), 1u) << GetParam().second;
  EXPECT_EQ(log->CountContaining("So changing the Scan type to FULL"), 1u);
  EXPECT_EQ(f.Stored(EScanDbKind::kTemporary), f.Walked());
}

INSTANTIATE_TEST_SUITE_P(
    Lustre, LustreFetchFaultTest,
    ::testing::Values(std::pair{"drop", "The changelog reader cl1 is no longer registered on MDT lustre-MDT0000 (dropped "
                                        "during the job)"},
                      std::pair{"fail", "Cannot obtain changelogs from MDT lustre-MDT0000 from"}),
    [](const auto& info) { return std::string(info.param.first); });

// ---- reader registration: the MDT set, refusing hosts, batch sizes ----

TEST(LustreReaders, ChangedMdtSetReRegistersAndScansFull) {
  CLustreFixture f(std::vector<LustreAPI::SMdt>{{"lustre-MDT0000", "mds0"}});
  f.MakeTree();
  ASSERT_TRUE(f.RunAndPostOps(true).IsSuccess());
  auto pWider = std::make_shared<CSimulatedLustreAPI>(f.m_strRoot, CLustreFixture::kMdts);
  f.m_pApi = pWider;
  LustreAPI::SetCurrent(pWider);
  CLogCapture log;
  ASSERT_TRUE(f.RunAndPostOps(false).IsSuccess());
  EXPECT_EQ(log->CountContaining("The Lustre Configuration doesn't match with the changelog readers file configuration."), 1u);
  EXPECT_EQ(log->CountContaining("Registered changelog cl1 successfully on MDT lustre-MDT0001 , Host mds1 of Lustre Filesystem lustre"), 1u);
  EXPECT_EQ(log->CountContaining("So changing the Scan type to FULL"), 1u);
  EXPECT_EQ(f.Stored(), f.Walked());
}

TEST(LustreReaders, RefusingHostUndoesTheRegistrationsMade) {
  CLustreFixture f;
  f.MakeTree();
  f.m_pApi->RefuseHost("mds1");
  CLogCapture log;
  CQiError error = f.Run(true);
  EXPECT_TRUE(error.IsWin32(QiErrorCode::FunctionFailed)) << error.AsString();
  EXPECT_EQ(log->CountContaining("Cannot register changelog with the MDT lustre-MDT0001. Check whether keyless ssh is "
                                 "enabled between MDT and the Data Access Node. Changelog Registration failed with Error : "),
            1u);
  EXPECT_EQ(log->CountContaining("DeRegistered changelog cl1 successfully on MDT lustre-MDT0000, Host mds0 of Lustre "
                                 "Filesystem lustre"),
            1u);
  EXPECT_EQ(log->CountContaining("Cannot create changelogs for this workunit"), 1u);
  int64_t llStart = 0, llEnd = 0;
  EXPECT_TRUE(f.m_pApi->GetStartAndEndChangelogRecordNumbers(CLustreFixture::kMdts[0], "root", "cl1", llStart, llEnd)
                  .IsWin32(QiErrorCode::NotFound));
  EXPECT_TRUE(f.Delivered().empty());
}

struct SBatchCase {
  const char* szSetting;
  int64_t llBatch;
};

class LustreBatchTest : public ::testing::TestWithParam<SBatchCase> {};

TEST_P(LustreBatchTest, OnlyValuesAbove9999AreTaken) {
  CLustreFixture f;
  ZRPlatformInfo::Instance().LoadFromText(std::string("[FileSystemAgent]\n") + GetParam().szSetting, "test");
  CLustreScanEngine engine;
  EXPECT_EQ(engine.GetBatchSize(), GetParam().llBatch);
}

INSTANTIATE_TEST_SUITE_P(Lustre, LustreBatchTest,
                         ::testing::Values(SBatchCase{"", 100000}, SBatchCase{"LustreChangelogBatchSize=5000\n", 100000},
                                           SBatchCase{"LustreChangelogBatchSize=9999\n", 100000},
                                           SBatchCase{"LustreChangelogBatchSize=10000\n", 10000},
                                           SBatchCase{"LustreChangelogBatchSize=250000\n", 250000}));

TEST(LustreVolume, NotLustreIsRefusedForTheNextEngine) {
  CLustreFixture f;
  CTempTree other;
  CLustreScanEngine engine;
  (void)engine.SetScannerCallback(f.m_pCallback);
  auto pUnit = std::make_shared<CWorkUnit>();
  pUnit->SetLocalVolumeName(other.Root());
  EXPECT_TRUE(engine.ProcessWorkUnit(pUnit).IsWin32(QiErrorCode::NotSupported));
}

}  // namespace
