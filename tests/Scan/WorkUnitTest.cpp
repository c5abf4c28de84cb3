// The work unit model: scan paths, dispositions and text forms, filter strings reaching only the
// units they concern, filter queries, raw-device surfaces and the diagnostic dump.
#include <gtest/gtest.h>

#include "Platform/FXString.h"
#include "Platform/MemoryLineWriter.h"
#include "Scan/PhysicalMediaWorkUnit.h"
#include "Scan/RawDeviceWorkUnit.h"
#include "Scan/ScanPath.h"
#include "Scan/ScannerConfigurationBagId.h"
#include "Scan/VolumeWorkUnit.h"
#include "Scan/WorkUnit.h"
#include "WorkUnitTestSupport.h"

namespace {
// A unit on volume "/" whose scan paths have the given source forms (local forms alike).
std::shared_ptr<CWorkUnit> UnitWithPaths(const std::vector<std::string>& paths, const std::string& volume = "/") {
  auto unit = std::make_shared<CWorkUnit>();
  unit->SetLocalVolumeName(volume);
  unit->SetSourceVolumeName(volume);
  for (const std::string& path : paths) unit->AddScanPath(std::make_shared<CScanPath>(path, path));
  return unit;
}

bool Contains(const std::vector<std::string>& lines, const std::string& fragment) {
  for (const std::string& line : lines)
    if (line.find(fragment) != std::string::npos) return true;
  return false;
}
}  // namespace

// ---- scan paths ----------------------------------------------------------------------------

struct SPrefixRow {
  const char* name;
  std::string path;
  std::string prefix;
};

class ScanPathPrefix : public ::testing::TestWithParam<SPrefixRow> {};

TEST_P(ScanPathPrefix, WildcardsGiveTheirFixedLeadingFolders) {
  const SPrefixRow& row = GetParam();
  CScanPath scanPath("/local" + row.path, row.path);
  EXPECT_EQ(scanPath.GetSourceScanPath() + " " + scanPath.GetLocalScanPath(), row.path + " /local" + row.path);
  EXPECT_EQ(scanPath.GetSourceScanPrefix(), row.prefix);
  // The local form is prefixed the same way (a relative pattern becomes absolute under /local).
  const std::string localPrefix = row.prefix == "/" ? "/local" : "/local" + row.prefix;
  EXPECT_TRUE(row.prefix.find('/') != 0 || scanPath.GetLocalScanPrefix() == localPrefix) << localPrefix;
}

INSTANTIATE_TEST_SUITE_P(
    Table, ScanPathPrefix,
    ::testing::Values(SPrefixRow{"Plain", "/data/a", "/data/a"},
                      SPrefixRow{"StarInTheLastComponent", "/data/x/*.txt", "/data/x"},
                      SPrefixRow{"StarInAMiddleComponent", "/data/x*/y", "/data"},
                      SPrefixRow{"WildcardRightAtTheTop", "/*/a", "/"},
                      SPrefixRow{"QuestionMark", "/data/?/b", "/data"},
                      SPrefixRow{"Class", "/data/[ab]/c", "/data"},
                      SPrefixRow{"NamePattern", "*.tmp", ""},
                      // A pattern that does not parse keeps the whole path as its prefix.
                      SPrefixRow{"MalformedClass", "/data/[z-a]", "/data/[z-a]"},
                      SPrefixRow{"NonUtf8", "/data/\xff\xfe/*.x", "/data/\xff\xfe"}),
    [](const ::testing::TestParamInfo<SPrefixRow>& info) { return std::string(info.param.name); });

// ---- dispositions and text forms -----------------------------------------------------------

struct SDispositionRow {
  const char* name;
  std::string processor;
  uint32_t status;
  std::string text;  // " ok" added when the unit counts as processed successfully
};

class WorkUnitDisposition : public ::testing::TestWithParam<SDispositionRow> {};

TEST_P(WorkUnitDisposition, TextAndSuccess) {
  const SDispositionRow& row = GetParam();
  CWorkUnit unit;
  EXPECT_EQ(unit.DispositionAsString() + (unit.IsSuccessfullyProcessed() ? " ok" : ""), "NotProcessed");
  // A later disposition replaces an earlier one.
  unit.SetDisposition("Earlier", 9);
  unit.SetDisposition(row.processor, row.status);
  EXPECT_EQ(unit.DispositionAsString() + (unit.IsSuccessfullyProcessed() ? " ok" : ""), row.text);
  EXPECT_EQ(unit.GetFinalStatus(), row.status);
  EXPECT_EQ(unit.GetProcessor(), row.processor);
}

INSTANTIATE_TEST_SUITE_P(
    Table, WorkUnitDisposition,
    ::testing::Values(SDispositionRow{"Processed", "FF", 0, "Processed(FF) ok"},
                      SDispositionRow{"Failed", "FF", 5, "Failed(FF=5)"},
                      SDispositionRow{"FailedLargeStatus", "TR", 4294967295u, "Failed(TR=4294967295)"},
                      SDispositionRow{"NoContent", "NC", 0, "Processed(NC) ok"},
                      // An empty processor is "not processed" whatever the status.
                      SDispositionRow{"EmptyProcessor", "", 0, "NotProcessed"},
                      SDispositionRow{"EmptyProcessorWithStatus", "", 7, "NotProcessed"}),
    [](const ::testing::TestParamInfo<SDispositionRow>& info) { return std::string(info.param.name); });

// ---- filter strings reach only the units they concern --------------------------------------

struct SConcernRow {
  const char* name;
  std::vector<std::string> scanPaths;
  std::string item;
  bool added;
};

class WorkUnitFilterConcern : public ::testing::TestWithParam<SConcernRow> {};

// Each of the five operations applies the same rule to its own set and node state.
TEST_P(WorkUnitFilterConcern, EveryOperationKeepsOnlyItemsThatConcernTheUnit) {
  const SConcernRow& row = GetParam();
  struct SOp {
    CQiError (CWorkUnit::*add)(const std::string&);
    CFilterSetPtr (*set)(const CWorkUnit&);
    BFilterNodeState state;
  };
  const SOp ops[] = {
      {&CWorkUnit::AddScanContentExceptionItem, [](const CWorkUnit& u) { return u.GetScanContent(); },
       BFilterNodeState::Exception},
      {&CWorkUnit::AddFilterItem, [](const CWorkUnit& u) { return u.GetFilters(); }, BFilterNodeState::Include},
      {&CWorkUnit::AddFilterExceptionItem, [](const CWorkUnit& u) { return u.GetFilters(); },
       BFilterNodeState::Exception},
      {&CWorkUnit::AddSystemFilterItem, [](const CWorkUnit& u) { return u.GetSystemFilters(); },
       BFilterNodeState::Include},
      {&CWorkUnit::AddSystemFilterExceptionItem, [](const CWorkUnit& u) { return u.GetSystemFilters(); },
       BFilterNodeState::Exception},
  };
  for (const SOp& op : ops) {
    auto unit = UnitWithPaths(row.scanPaths);
    ASSERT_TRUE(((*unit).*op.add)(row.item).IsSuccess());
    CFilterSetPtr set = op.set(*unit);
    const size_t expected = row.added ? 1 : 0;
    EXPECT_EQ(std::make_pair(set->GetItemCount(op.state), set->GetItemCount()), std::make_pair(expected, expected))
        << row.item;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, WorkUnitFilterConcern,
    ::testing::Values(
        SConcernRow{"ItemBelowTheScanPath", {"/data"}, "/data/a", true},
        SConcernRow{"ItemAboveTheScanPath", {"/data/a/b"}, "/data/a", true},
        SConcernRow{"ItemEqualToTheScanPath", {"/data/a"}, "/data/a/", true},
        SConcernRow{"ItemElsewhere", {"/home"}, "/data/a", false},
        SConcernRow{"SiblingWithACommonTextPrefix", {"/data"}, "/database/x", false},
        SConcernRow{"SecondScanPathConcerned", {"/home", "/data"}, "/data/a", true},
        SConcernRow{"RootItemConcernsEverything", {"/home"}, "/", true},
        SConcernRow{"WildcardWithEmptyPrefix", {"/home"}, "*.tmp", true},
        SConcernRow{"WildcardBelowTheScanPath", {"/data"}, "/data/x/*.log", true},
        SConcernRow{"WildcardAboveTheScanPath", {"/data/a/b"}, "/data/*/b", true},
        SConcernRow{"WildcardElsewhere", {"/home"}, "/data/*.log", false},
        SConcernRow{"WildcardAtTheTop", {"/home"}, "/*/cache", true},
        SConcernRow{"PlainNameMatchesAtAnyDepth", {"/home"}, "core", true},
        SConcernRow{"WildcardScanPathJudgedByItsPrefix", {"/data/x/*.txt"}, "/data/x/a.txt", true},
        SConcernRow{"WildcardScanPathPrefixElsewhere", {"/data/x/*.txt"}, "/data/y", false},
        SConcernRow{"NoScanPaths", {}, "/data", false},
        SConcernRow{"NonUtf8", {"/data/\xff"}, "/data/\xff/\xfe", true}),
    [](const ::testing::TestParamInfo<SConcernRow>& info) { return std::string(info.param.name); });

TEST(WorkUnitFilters, VolumeWildcardUnitsAreConcernedByTheirSourceVolume) {
  auto unit = UnitWithPaths({"*.txt"}, "/vol");
  // Without the mark nothing absolute concerns a unit whose only scan path has no prefix.
  ASSERT_TRUE(unit->AddFilterItem("/vol/a").IsSuccess());
  EXPECT_EQ(unit->GetFilters()->GetItemCount(), 0u);
  unit->SetContainsVolumeWildcardScanPaths();
  for (const char* item : {"/vol/a", "/", "/vol", "/vol/b/*.x", "/other", "/volume", "/other/*.x"})
    ASSERT_TRUE(unit->AddFilterItem(item).IsSuccess());
  EXPECT_EQ(unit->GetFilters()->GetItemCount(), 4u);
}

TEST(WorkUnitFilters, MalformedItemsAreErrors) {
  auto unit = UnitWithPaths({"/data"});
  EXPECT_TRUE(unit->AddFilterItem("/data/[z-a]").IsWin32(QiErrorCode::InvalidData));
  EXPECT_TRUE(unit->AddFilterExceptionItem("").IsWin32(QiErrorCode::InvalidParameter));
  EXPECT_EQ(unit->GetFilters()->GetItemCount(), 0u);
}

// ---- scan content and filter queries -------------------------------------------------------

class WorkUnitQueries : public ::testing::Test {
 protected:
  void SetUp() override {
    m_pUnit = UnitWithPaths({"/data", "/home/u/*.doc"});
    for (const CScanPathPtr& path : m_pUnit->GetScanPaths())
      ASSERT_TRUE(m_pUnit->AddScanContentItem(path->GetSourceScanPath(), path->GetContext()).IsSuccess());
    ASSERT_TRUE(m_pUnit->AddScanContentExceptionItem("/data/skip").IsSuccess() &&
                m_pUnit->AddFilterItem("*.tmp").IsSuccess() && m_pUnit->AddFilterItem("/data/cache").IsSuccess() &&
                m_pUnit->AddFilterExceptionItem("/data/cache/keep").IsSuccess() &&
                m_pUnit->AddSystemFilterItem("/data/sys").IsSuccess());
  }
  std::shared_ptr<CWorkUnit> m_pUnit;
};

struct SQueryRow {
  const char* name;
  std::string path;
  bool filteredOut;
};

class WorkUnitFileQueries : public WorkUnitQueries, public ::testing::WithParamInterface<SQueryRow> {};

TEST_P(WorkUnitFileQueries, IsFileFilteredOut) {
  CLogCapture log;
  EXPECT_EQ(m_pUnit->IsFileFilteredOut(GetParam().path), GetParam().filteredOut);
}

INSTANTIATE_TEST_SUITE_P(
    Table, WorkUnitFileQueries,
    ::testing::Values(SQueryRow{"InsideTheContent", "/data/a/b.txt", false},
                      // Outside the scan content even though no filter names it.
                      SQueryRow{"OutsideTheContent", "/srv/a", true},
                      SQueryRow{"AboveTheContent", "/", true},
                      SQueryRow{"ScanContentException", "/data/skip/x", true},
                      SQueryRow{"FilteredByName", "/data/a/x.tmp", true},
                      SQueryRow{"FilteredFolder", "/data/cache/x", true},
                      SQueryRow{"FilterException", "/data/cache/keep/x", false},
                      SQueryRow{"SystemFilter", "/data/sys/x", true},
                      SQueryRow{"WildcardContentMatch", "/home/u/a.doc", false},
                      SQueryRow{"WildcardContentMiss", "/home/u/a.txt", true}),
    [](const ::testing::TestParamInfo<SQueryRow>& info) { return std::string(info.param.name); });

// Folders where a match is possible ("+") and folders always filtered ("!"). The exception below
// /data/cache keeps the folder from being filtered as a whole.
TEST_F(WorkUnitQueries, FolderQueries) {
  std::string answers;
  for (const char* folder : {"/", "/data", "/home", "/srv", "/data/skip", "/data/sys", "/data/x.tmp", "/data/cache"})
    answers += std::string(" ") + folder + (m_pUnit->IsMatchPossibleInFolder(folder) ? "+" : "") +
               (m_pUnit->IsAlwaysFiltered(folder) ? "!" : "");
  EXPECT_EQ(answers, " /+ /data+ /home+ /srv /data/skip /data/sys! /data/x.tmp! /data/cache+");
  // The two-path form answers for its second (source) path.
  EXPECT_TRUE(m_pUnit->IsMatchPossibleInFolder("/srv", "/data"));
  EXPECT_FALSE(m_pUnit->IsMatchPossibleInFolder("/data", "/srv"));
}

TEST(WorkUnitWildcardCase, InsensitiveWildcardsReachAllThreeSets) {
  auto unit = UnitWithPaths({"/data"});
  unit->SetUseInsensitiveFilterForWildCard(true);
  ASSERT_TRUE(unit->AddScanContentItem("/data/*.DOC").IsSuccess());
  ASSERT_TRUE(unit->AddFilterItem("/data/X*").IsSuccess() && unit->AddSystemFilterItem("/data/Y*").IsSuccess());
  std::string answers;
  for (const char* file : {"/data/a.doc", "/data/x.doc", "/data/y.doc", "/data/a.txt"})
    answers += unit->IsFileFilteredOut(file) ? "-" : "+";
  EXPECT_EQ(answers, "+---");
}

// The scan content records the volume the job catalogues under.
struct SCatalogRow {
  const char* name;
  const char* key;
  bool setBool;
  std::string volume;
};

class WorkUnitCatalogVolume : public ::testing::TestWithParam<SCatalogRow> {};

TEST_P(WorkUnitCatalogVolume, ScanContentVolume) {
  auto unit = UnitWithPaths({"/data"});
  unit->SetLocalVolumeName("/local-vol");
  unit->SetSourceVolumeName("/source-vol/");
  const SCatalogRow& row = GetParam();
  ASSERT_TRUE(row.key == nullptr ||
              (row.setBool ? unit->GetBag()->Write(row.key, true) : unit->GetBag()->Write(row.key, 1ull)).IsSuccess());
  auto context = std::make_shared<FVBase>();
  ASSERT_TRUE(unit->AddScanContentItem("/data", context).IsSuccess());
  auto writer = std::make_shared<CMemoryLineWriter>();
  unit->GetScanContent()->DumpDiagnosticData(writer, "");
  EXPECT_TRUE(Contains(writer->GetLines(), "Include Path=[/data], Options=0x0, Volume=[" + row.volume + "]"))
      << FXString::Join(writer->GetLines(), "\n");
  EXPECT_TRUE(Contains(writer->GetLines(), FXString::Format("Context=0x%p", static_cast<void*>(context.get()))));
}

INSTANTIATE_TEST_SUITE_P(
    Table, WorkUnitCatalogVolume,
    ::testing::Values(SCatalogRow{"Default", nullptr, false, "/local-vol"},
                      SCatalogRow{"IdxLogWriter", SXScannerConfigurationBagId::idUseIdxLogWriterBasedCataloging, false,
                                  "/source-vol/"},
                      SCatalogRow{"FileServerScan", SXScannerConfigurationBagId::idFileServerScan, true,
                                  "/source-vol/"}),
    [](const ::testing::TestParamInfo<SCatalogRow>& info) { return std::string(info.param.name); });

// ---- surfaces, raw devices, object trace, dump ---------------------------------------------

TEST(WorkUnitSurfaces, NestedAndRepeatedPathsAreLeftOut) {
  auto unit = UnitWithPaths({"/a/b", "/a", "/c", "/a/b/c", "/c", "/ab", "/c/"});
  EXPECT_EQ(unit->GetSurfaceList(), (std::vector<std::string>{"/a", "/c", "/ab"}));
  EXPECT_TRUE(UnitWithPaths({})->GetSurfaceList().empty());
}

TEST(RawDeviceWorkUnit, SurfacesAndScanPaths) {
  auto raw = std::make_shared<CRawDeviceWorkUnit>();
  CWorkUnitPtr base = raw;
  base->AddScanPath(std::make_shared<CScanPath>("/dev/sdb", "/dev/sdb"));
  EXPECT_EQ(raw->GetScanPaths().size(), 1u);
  ASSERT_TRUE(raw->AddSurface("/dev/disk/by-id/x", "/dev/sdb").IsSuccess());
  ASSERT_TRUE(raw->AddSurface("/dev/sdb", "old").IsSuccess());
  ASSERT_TRUE(raw->AddSurface("/dev/sdb", "/dev/sdb").IsSuccess());
  CRawDeviceWorkUnit::SurfaceMap surfaces{{"stale", "entry"}};
  ASSERT_TRUE(raw->GetSurfaceMap(surfaces).IsSuccess());
  EXPECT_EQ(surfaces, (CRawDeviceWorkUnit::SurfaceMap{{"/dev/disk/by-id/x", "/dev/sdb"}, {"/dev/sdb", "/dev/sdb"}}));
  EXPECT_NE(std::dynamic_pointer_cast<CRawDeviceWorkUnit>(base), nullptr);
  EXPECT_EQ(std::dynamic_pointer_cast<CRawDeviceWorkUnit>(std::make_shared<CWorkUnit>()), nullptr);
}

// The text forms of the three levels, and the dump: each level writes itself, then its children
// with the prefix.
TEST(WorkUnitDump, EachLevelWritesItselfThenItsChildrenWithThePrefix) {
  auto unit = UnitWithPaths({"/data/\n", "/data/b"}, "/data");
  unit->SetPhysicalMediaId("/dev/sda");
  unit->SetLocalVolumeUniqueId("1111-aaaa");
  unit->SetSourceVolumeName("/src/");
  unit->SetDisposition("FF", 5);
  ASSERT_TRUE(unit->AddScanContentItem("/data/b").IsSuccess());
  ASSERT_TRUE(unit->AddFilterItem("*.tmp").IsSuccess());
  auto volume = std::make_shared<CVolumeWorkUnit>();
  volume->SetLocalVolumeUniqueId("1111-aaaa");
  volume->SetLocalVolumeName("/data");
  volume->SetSourceVolumeName("/src/");
  volume->AddWorkUnit(unit);
  volume->AddWorkUnit(nullptr);  // ignored
  auto media = std::make_shared<CPhysicalMediaWorkUnit>();
  media->SetPhysicalMediaId("/dev/sda");
  media->AddVolumeWorkUnit(volume);
  EXPECT_EQ(unit->AsString(), FXString::Format("WorkUnit=[0x%p], PhysicalMediaId=[/dev/sda], LocalVolumeName=[/data], "
                                               "LocalVolumeUniqueId=[1111-aaaa], SourceVolumeName=[/src/], "
                                               "ScanPaths=[2], Disposition=[Failed(FF=5)]",
                                               static_cast<const void*>(unit.get())));
  EXPECT_EQ(volume->AsString(), FXString::Format("VolumeWorkUnit=0x%p, LocalVolumeUniqueId=1111-aaaa, "
                                                 "LocalVolumeName=/data, SourceVolumeName=/src/, WorkUnits=1",
                                                 static_cast<const void*>(volume.get())));
  EXPECT_EQ(media->AsString(), FXString::Format("PhysicalMediaWorkUnit=0x%p, PhysicalMediaId=/dev/sda, "
                                                "VolumeWorkUnits=1", static_cast<const void*>(media.get())));

  auto writer = std::make_shared<CMemoryLineWriter>();
  ASSERT_TRUE(media->DumpDiagnosticData(writer, "P> ").IsSuccess());
  std::vector<std::string> lines = writer->GetLines();
  ASSERT_GE(lines.size(), 6u);
  EXPECT_EQ(lines[0], "P> " + media->AsString());
  EXPECT_EQ(lines[1], "P>   " + volume->AsString());
  EXPECT_EQ(lines[2], "P>     " + unit->AsString());
  EXPECT_EQ(lines[3], "P>       ScanPath: LocalScanPath=[/data/\\n], SourceScanPath=[/data/\\n], SourceScanPrefix=[/data/\\n]");
  for (const std::string& line : lines) {
    EXPECT_EQ(line.rfind("P> ", 0), 0u) << line;
    EXPECT_EQ(line.find('\n'), std::string::npos) << line;
  }
  EXPECT_TRUE(Contains(lines, "Include Path=[/data/b]"));
  EXPECT_TRUE(Contains(lines, "Include Pattern=[*.tmp]"));

  // An empty writer writes nothing and is not an error.
  EXPECT_TRUE(media->DumpDiagnosticData(nullptr, "").IsSuccess());
}
