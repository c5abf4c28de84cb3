// Changelog records as `lfs changelog` prints them: what the parser takes from each (names with
// blanks included) and refuses; what the applier does to a real scan database for each record
// kind on a simulated Lustre; the hard-link table file.
#include <gtest/gtest.h>

#include "LustreTestSupport.h"
#include "Scan/Unix/LustreChangelogApplier.h"
#include "Scan/Unix/LustreChangelogRecord.h"
#include "Scan/Unix/LustreHardlinkManager.h"
#include "Scan/Unix/LustreRecursiveEnumerateFiles.h"
#include "Support/FileText.h"
#include "Support/LogCapture.h"

using namespace LustreTestSupport;

namespace {

constexpr const char* kHead = "13:57:43.418431669 2026.11.23 0x0 t=[0x200000402:0x1:0x0]";

struct SParseCase {
  const char* szName;
  std::string strLine;
  bool bValid;
  LustreChangeType eChange = kLustreChangeNone;
  const char* szParent = "";
  const char* szName2 = "";  // "sName" / "sNewName"
  const char* szSource = "";
  const char* szSourceParent = "";
  const char* szOldName = "";
};

const SParseCase kParseCases[] = {
    {"Create", std::string("7 01CREAT ") + kHead + " j=touch.0 ef=0xf u=0:0 nid=0@lo p=[0x200000007:0x1:0x0] file1\n",
     true, kLustreFileCreated, "[0x200000007:0x1:0x0]", "file1", "", "", ""},
    {"ShortTypeNamePaddedWithTwoBlanks", std::string("8 10OPEN  ") + kHead + " ef=0xf u=0:0 nid=0@lo m=r--", true,
     kLustreModified, "", "", "", "", ""},
    {"AttributeChangeWithoutParent", std::string("9 14SATTR ") + kHead + " ef=0xf u=500:500 nid=0@lo", true,
     kLustreModified, "", "", "", "", ""},
    {"XattrField", std::string("9 15XATTR ") + kHead + " ef=0xf u=0:0 nid=0@lo x=trusted.lov", true, kLustreModified, "",
     "", "", "", ""},
    {"NameWithBlanks", std::string("10 02MKDIR ") + kHead + " p=[0x200000007:0x1:0x0]  my folder  ", true,
     kLustreFolderCreated, "[0x200000007:0x1:0x0]", " my folder  ", "", "", ""},
    {"NameLookingLikeAField", std::string("11 01CREAT ") + kHead + " p=[0x200000007:0x1:0x0] x p=[0x1:0x2:0x0] y", true,
     kLustreFileCreated, "[0x200000007:0x1:0x0]", "x p=[0x1:0x2:0x0] y", "", "", ""},
    {"Rename", std::string("12 08RENME ") + kHead + " ef=0xf u=0:0 nid=0@lo p=[0x200000007:0x1:0x0] new s=[0x200000402:0x3:0x0] sp=[0x200000402:0x2:0x0] old",
     true, kLustreRenamed, "[0x200000007:0x1:0x0]", "new", "[0x200000402:0x3:0x0]", "[0x200000402:0x2:0x0]", "old"},
    {"RenameNamesWithBlanks", std::string("13 08RENME ") + kHead + " p=[0x200000007:0x1:0x0] new name s=[0x2:0x3:0x0] sp=[0x2:0x2:0x0] old  name",
     true, kLustreRenamed, "[0x200000007:0x1:0x0]", "new name", "[0x2:0x3:0x0]", "[0x2:0x2:0x0]", "old  name"},
    {"RenameNewNameHoldingSText", std::string("14 08RENME ") + kHead + " p=[0x7:0x1:0x0] a s=[x] b s=[0x2:0x3:0x0] sp=[0x2:0x2:0x0] c",
     true, kLustreRenamed, "[0x7:0x1:0x0]", "a s=[x] b", "[0x2:0x3:0x0]", "[0x2:0x2:0x0]", "c"},
    {"FidsBecomeCanonical", "15 06UNLNK 13:57:43.3 2026.11.23 0x1 t=[0x00200000402:0X1:0] p=[200000007:1:0] f", true,
     kLustreFileRemoved, "[0x200000007:0x1:0x0]", "f", "", "", ""},
    {"MknodIsAFolderCreation", std::string("16 05MKNOD ") + kHead + " p=[0x7:0x1:0x0] dev", true, kLustreFolderCreated,
     "[0x7:0x1:0x0]", "dev", "", "", ""},
    {"RenameToChangesNothing", std::string("17 09RNMTO ") + kHead + " p=[0x7:0x1:0x0] n", true, kLustreChangeNone,
     "[0x7:0x1:0x0]", "n", "", "", ""},
    {"AtimeChangesNothing", std::string("18 19ATIME ") + kHead, true, kLustreChangeNone, "", "", "", "", ""},
    {"UnknownTypeChangesNothing", std::string("19 24NOPEN ") + kHead, true, kLustreChangeNone, "", "", "", "", ""},
    {"Empty", "", false, kLustreChangeNone},
    {"IndexNotANumber", std::string("x 01CREAT ") + kHead + " p=[0x7:0x1:0x0] f", false, kLustreChangeNone},
    {"TypeNotATypeToken", std::string("20 CREAT ") + kHead, false, kLustreChangeNone},
    {"MissingDate", "21 01CREAT 13:57:43.4 0x0 t=[0x2:0x1:0x0] p=[0x7:0x1:0x0] f", false, kLustreChangeNone},
    {"TargetFidCut", "22 01CREAT 13:57:43.4 2026.11.23 0x0 t=[0x2:0x1", false, kLustreChangeNone},
    {"TargetFidNotHex", "23 01CREAT 13:57:43.4 2026.11.23 0x0 t=[0xz:0x1:0x0]", false, kLustreChangeNone},
    {"ParentWithoutName", std::string("24 06UNLNK ") + kHead + " p=[0x7:0x1:0x0]", false, kLustreChangeNone},
    {"ParentWithEmptyName", std::string("25 06UNLNK ") + kHead + " p=[0x7:0x1:0x0] ", false, kLustreChangeNone},
    {"UnknownField", std::string("26 01CREAT ") + kHead + " zz=1 p=[0x7:0x1:0x0] f", false, kLustreChangeNone},
    {"RenameWithoutSource", std::string("27 08RENME ") + kHead + " p=[0x7:0x1:0x0] new", false, kLustreChangeNone},
    {"RenameWithoutOldName", std::string("28 08RENME ") + kHead + " p=[0x7:0x1:0x0] n s=[0x2:0x3:0x0] sp=[0x2:0x2:0x0]", false, kLustreChangeNone},
    {"HourOutOfRange", "30 19ATIME 24:00:00.1 2026.11.23 0x0 t=[0x2:0x1:0x0]", false, kLustreChangeNone},
    {"TenNanosecondDigits", "31 19ATIME 13:57:43.1234567890 2026.11.23 0x0 t=[0x2:0x1:0x0]", false, kLustreChangeNone},
    {"DayThatDoesNotExist", "32 19ATIME 13:57:43.1 2026.02.29 0x0 t=[0x2:0x1:0x0]", false, kLustreChangeNone},
    {"DateWithDashes", "33 19ATIME 13:57:43.1 2026-11-23 0x0 t=[0x2:0x1:0x0]", false, kLustreChangeNone},
    {"OidOverflow", "29 01CREAT 13:57:43.4 2026.11.23 0x0 t=[0x2:0x100000000:0x0]", false, kLustreChangeNone},
};

class LustreParseTest : public ::testing::TestWithParam<SParseCase> {};

TEST_P(LustreParseTest, FieldsAsPrinted) {
  const SParseCase& c = GetParam();
  CLustreChangelogRecord record;
  CQiError error = CLustreChangelogRecord::Parse(c.strLine, record);
  if (!c.bValid) {
    EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidData)) << error.AsString();
    return;
  }
  ASSERT_TRUE(error.IsSuccess()) << error.AsString();
  EXPECT_EQ(record.m_eChange, c.eChange);
  EXPECT_EQ(record.m_strTargetParentFID, c.szParent);
  EXPECT_EQ(record.m_strName, c.szName2);
  EXPECT_EQ(record.m_strSourceFID, c.szSource);
  EXPECT_EQ(record.m_strSourceParentFID, c.szSourceParent);
  EXPECT_EQ(record.m_strOldName, c.szOldName);
}

INSTANTIATE_TEST_SUITE_P(Lustre, LustreParseTest, ::testing::ValuesIn(kParseCases),
                         [](const auto& info) { return std::string(info.param.szName); });

// ---- the time that orders the records of several MDTs ----

struct STimeCase {
  const char* szName;
  const char* szEarlier;  // TIME DATE
  const char* szLater;    // TIME DATE; equal to szEarlier when bEqual
  bool bEqual = false;
};

const STimeCase kTimeCases[] = {
    {"FewerNanosecondDigitsAreANumber", "13:57:43.5 2026.11.23", "13:57:43.40 2026.11.23"},
    {"NanosecondsPadded", "13:57:43.000000040 2026.11.23", "13:57:43.400000000 2026.11.23"},
    {"NextSecondBeatsAnyNanoseconds", "13:57:43.999999999 2026.11.23", "13:57:44.0 2026.11.23"},
    {"DateChangeAtMidnight", "23:59:59.999999999 2026.11.23", "00:00:00.1 2026.11.24"},
    {"YearChange", "23:59:59.9 2026.12.31", "00:00:00.1 2027.01.01"},
    {"LeapDay", "12:00:00.0 2028.02.29", "00:00:00.0 2028.03.01"},
    {"EqualTimes", "13:57:43.412345678 2026.11.23", "13:57:43.412345678 2026.11.23", true},
    {"EqualWithAndWithoutPadding", "13:57:43.000000005 2026.11.23", "13:57:43.5 2026.11.23", true},
};

class LustreTimeTest : public ::testing::TestWithParam<STimeCase> {};

TEST_P(LustreTimeTest, MergeOrder) {
  const STimeCase& c = GetParam();
  CLustreChangelogRecord earlier, later;
  ASSERT_TRUE(CLustreChangelogRecord::Parse(std::string("1 19ATIME ") + c.szEarlier + " 0x0 t=[0x2:0x1:0x0]", earlier)
                  .IsSuccess());
  ASSERT_TRUE(CLustreChangelogRecord::Parse(std::string("2 19ATIME ") + c.szLater + " 0x0 t=[0x2:0x1:0x0]", later)
                  .IsSuccess());
  if (c.bEqual) EXPECT_EQ(earlier.m_llTime, later.m_llTime);
  else EXPECT_LT(earlier.m_llTime, later.m_llTime);
}

INSTANTIATE_TEST_SUITE_P(Lustre, LustreTimeTest, ::testing::ValuesIn(kTimeCases),
                         [](const auto& info) { return std::string(info.param.szName); });

// ---- each record kind applied to a real database (a full walk of a simulated tree) ----

struct SApplyCase {
  const char* szName;
  std::function<void(CSimulatedLustreAPI&)> change;
  uint64_t ullApplied;  // records that changed the database
  const char* szLog;    // logged at level 5 or below
};

const SApplyCase kApplyCases[] = {
    {"Creat", [](auto& l) { (void)l.Create("a/n"); }, 1, "Add File Record %R/a/n"},
    {"Mkdir", [](auto& l) { (void)l.Mkdir("a/m"); }, 1, "Add Folder Record %R/a/m"},
    {"HlinkSecondPathSameFid", [](auto& l) { (void)l.Link("a/f", "f3"); }, 1, "Add File Record %R/f3"},
    {"Slink", [](auto& l) { (void)l.Symlink("a", "s"); }, 1, "Add File Record %R/s"},
    {"MknodAsFolderRecord", [](auto& l) { (void)l.Mknod("a/p"); }, 1, "Add Folder Record %R/a/p"},
    {"Unlnk", [](auto& l) { (void)l.Unlink("top.txt"); }, 1, "Remove File Record %R/top.txt"},
    {"Rmdir", [](auto& l) { (void)l.Rmdir("e"); }, 1, "Remove Folder Record %R/e"},
    {"Renme", [](auto& l) { (void)l.Rename("d", "a/d"); }, 1, "Renaming Record from %R/d to %R/a/d"},
    {"RenmeIntoFolderMadeLater",
     [](auto& l) {
       (void)l.Mkdir("n");
       (void)l.Rename("top.txt", "n/t");
     },
     2, "Renaming Record from %R/top.txt to %R/n/t"},
    {"Sattr", [](auto& l) { (void)l.Chmod("top.txt", 0600); }, 1, "Update Record %R/top.txt successfully"},
    {"CloseOfAFileNotInTheDatabase",
     [](auto& l) { l.AppendRawRecord("lustre-MDT0000", "11CLOSE 13:57:43.4 2026.11.23 0x0 t=[0x200000400:0xfffffff0:0x0]"); }, 0,
     "The Target FID [0x200000400:0xfffffff0:0x0] is not present in the Database. Possible Database corruption/Record not found."},
    {"UnlinkOfAPathNotInTheDatabase",
     [](auto& l) {
       l.AppendRawRecord("lustre-MDT0000", "06UNLNK 13:57:43.4 2026.11.23 0x0 t=[0x200000400:0xfffffff0:0x0] p=" + l.FidOf("") + " nothere");
     },
     1, "Cannot Remove File Record from the Database %R/nothere"},
    {"RmdirOfAFolderNotInTheDatabase",
     [](auto& l) {
       l.AppendRawRecord("lustre-MDT0000", "07RMDIR 13:57:43.4 2026.11.23 0x0 t=[0x200000400:0xfffffff0:0x0] p=" + l.FidOf("") + " gone");
     },
     1, "Cannot remove Folder since the Folder doesn't exist in the Database"},
    {"ParentOutsideTheFileSystem",
     [](auto& l) { l.AppendRawRecord("lustre-MDT0000", "01CREAT 13:57:43.4 2026.11.23 0x0 t=[0x2:0x1:0x0] p=[0x1:0x1:0x0] x"); }, 0,
     "lies outside the content"},
};

class LustreApplyTest : public ::testing::TestWithParam<SApplyCase> {};

TEST_P(LustreApplyTest, DatabaseFollowsTheTree) {
  const SApplyCase& c = GetParam();
  CLustreFixture f(std::vector<LustreAPI::SMdt>{{"lustre-MDT0000", "mds0"}});
  f.MakeTree();
  CScanDbStore store;
  ASSERT_TRUE(store.Open(f.m_tree.Path("db")).IsSuccess());
  CLustreHardlinkManager hardlinks;
  {
    CLustreRecursiveEnumerateFiles walk(nullptr, store, *f.m_pApi, hardlinks);
    struct stat st {};
    ASSERT_EQ(lstat(f.m_strRoot.c_str(), &st), 0);
    ASSERT_TRUE(walk.AddRecord(f.m_strRoot, st).IsSuccess());
    walk.AddFolderToList(f.m_strRoot, f.m_strRoot);
    ASSERT_TRUE(walk.Traverse().IsSuccess());
  }
  ASSERT_EQ(StoreEntries(store, f.m_strRoot), f.Walked());
  EXPECT_EQ(hardlinks.GetCount(), 1u);  // h1 and h2
  const int64_t llFirst = f.m_pApi->GetLastIndex("lustre-MDT0000") + 1;
  c.change(*f.m_pApi);
  const int64_t llLast = f.m_pApi->GetLastIndex("lustre-MDT0000");
  const std::string strFile = f.m_tree.Path("changelog");
  ASSERT_TRUE(f.m_pApi->GetChangelogs(f.m_strRoot, "lustre-MDT0000", llFirst, llLast, strFile).IsSuccess());
  CLogCapture log(5);
  CLustreChangelogApplier applier(store, *f.m_pApi, f.m_strRoot, {f.m_strRoot}, &hardlinks);
  CLustreChangelogApplier::SCounts counts;
  CQiError error = applier.ProcessChangelogs(strFile, llFirst, llLast, counts);
  ASSERT_TRUE(error.IsSuccess()) << error.AsString();
  EXPECT_EQ(counts.ullApplied, c.ullApplied);
  EXPECT_EQ(counts.ullFailed, 0u);
  std::string strLog = c.szLog;
  for (size_t pos; (pos = strLog.find("%R")) != std::string::npos;) strLog.replace(pos, 2, f.m_strRoot);
  EXPECT_GE(log->CountContaining(strLog), 1u) << strLog;
  ASSERT_TRUE(hardlinks.ProcessHardLinks(store, *f.m_pApi, f.m_strRoot, {f.m_strRoot}).IsSuccess());
  EXPECT_EQ(StoreEntries(store, f.m_strRoot), f.Walked());
}

INSTANTIATE_TEST_SUITE_P(Lustre, LustreApplyTest, ::testing::ValuesIn(kApplyCases),
                         [](const auto& info) { return std::string(info.param.szName); });

// A garbled line, a record out of order or a last record cut short fails the file, never
// silently: the engine then scans in full.
TEST(LustreApply, GarbledAndOutOfOrderRecordsFailTheFile) {
  CLustreFixture f(std::vector<LustreAPI::SMdt>{{"lustre-MDT0000", "mds0"}});
  CScanDbStore store;
  ASSERT_TRUE(store.Open(f.m_tree.Path("db")).IsSuccess());
  const std::string strFile = f.m_tree.MakeFile("changelog", "5 01CREAT 13:57:43.4 2026.11.23 0x0 t=[0x2:0x1\n"
                                                             "7 19ATIME 13:57:43.4 2026.11.23 0x0 t=[0x2:0x1:0x0]\n"
                                                             "6 19ATIME 13:57:43.4 2026.11.23 0x0 t=[0x2:0x1:0x0]\n"
                                                             "9 19ATIME 13:57:43.4 2026.11.23 0x0 t=[0x2:0x1:0x0]\n");
  CLustreChangelogApplier applier(store, *f.m_pApi, f.m_strRoot, {f.m_strRoot}, nullptr);
  CLustreChangelogApplier::SCounts counts;
  CLogCapture log;
  CQiError error = applier.ProcessChangelogs(strFile, 5, 8, counts);
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidData)) << error.AsString();
  EXPECT_EQ(counts.ullRecords, 4u);
  EXPECT_EQ(counts.ullFailed, 3u);  // the garbled line, 6 after 7, 9 beyond 8
  EXPECT_EQ(log->CountContaining("Invalid Line read from changelog file " + strFile), 1u);
  EXPECT_TRUE(applier.ProcessChangelogs(f.m_tree.Path("missing"), 1, 2, counts).IsErrNo(ENOENT));
  // A last record without its newline was cut short: its name may be half a name.
  const std::string strCut = f.m_tree.MakeFile("cut", "5 19ATIME 13:57:43.4 2026.11.23 0x0 t=[0x2:0x1:0x0]\n"
                                                     "6 01CREAT 13:57:43.4 2026.11.23 0x0 t=[0x2:0x3:0x0] p=[0x2:0x1:0x0] a na");
  EXPECT_TRUE(applier.ProcessChangelogs(strCut, 5, 6, counts).IsWin32(QiErrorCode::InvalidData));
}

// ---- the hard-link table file ----

TEST(LustreHardlinks, TableRoundTripsAndRefusesBadLines) {
  CTempTree tree;
  CLustreHardlinkManager table;
  table.Add("[0x2:0x1:0x0]");
  table.Add("[0x2:0x1:0x0]");
  table.Add("[0x200000400:0x10:0x0]");
  const std::string strFile = tree.Path("fs_HardlinkFID");
  ASSERT_TRUE(table.SaveData(strFile).IsSuccess());
  EXPECT_EQ(ReadFileText(strFile), "[0x200000400:0x10:0x0]\n[0x2:0x1:0x0]\n");
  CLustreHardlinkManager loaded;
  ASSERT_TRUE(loaded.LoadData(strFile).IsSuccess());
  EXPECT_EQ(loaded.GetCount(), 2u);
  EXPECT_TRUE(loaded.LoadData(tree.Path("none")).IsSuccess());
  EXPECT_EQ(loaded.GetCount(), 0u);
  WriteFileText(strFile, "[0x2:0x1:0x0]\nnot a fid\n");
  EXPECT_TRUE(loaded.LoadData(strFile).IsWin32(QiErrorCode::InvalidData));
}

}  // namespace
