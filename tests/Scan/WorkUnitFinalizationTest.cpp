// Finalization of the work units (scan content and caller items reaching the units they concern),
// the "NC" examination, the final status and the diagnostic dump of finished units.
#include <gtest/gtest.h>

#include <list>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Platform/FXString.h"
#include "Platform/MemoryLineWriter.h"
#include "Platform/MountPathInfo.h"
#include "Platform/StringCompare.h"
#include "Scan/Unix/WorkUnitManager.h"
#include "WorkUnitTestSupport.h"

using namespace WorkUnitTestSupport;

namespace {
using StringSet = std::set<std::string, __less_fscase_cmp>;
const StringSet kEmpty;

// A unit with one scan path, placed in the map under the key.
CWorkUnitPtr AddUnit(CWorkUnitManager& manager, const std::string& key, const std::string& path) {
  auto unit = std::make_shared<CWorkUnit>();
  unit->SetLocalVolumeName(key);
  unit->SetSourceVolumeName("/");
  unit->AddScanPath(std::make_shared<CScanPath>(path, path));
  manager.GetWorkUnitMap()[key] = unit;
  return unit;
}
}  // namespace

// ---- final status --------------------------------------------------------------------------

struct SStatusRow {
  const char* name;
  std::vector<int> statuses;  // in map order; -1 is a unit never processed
  uint32_t finalStatus;
};

class FinalStatus : public ::testing::TestWithParam<SStatusRow> {};

TEST_P(FinalStatus, AnyUnitWithStatusZeroMakesTheScanSuccessful) {
  CWorkUnitManager manager(1);
  const SStatusRow& row = GetParam();
  for (size_t i = 0; i < row.statuses.size(); ++i) {
    CWorkUnitPtr unit = AddUnit(manager, std::string(1, static_cast<char>('a' + i)), "/x");
    if (row.statuses[i] >= 0) unit->SetDisposition("FF", static_cast<uint32_t>(row.statuses[i]));
  }
  EXPECT_EQ(manager.GetFinalStatus(), row.finalStatus);
  EXPECT_EQ(manager.IsSuccessfullyProcessed(), row.finalStatus == 0);
}

INSTANTIATE_TEST_SUITE_P(
    Table, FinalStatus,
    ::testing::Values(SStatusRow{"NoUnits", {}, 1}, SStatusRow{"FiveZeroSeven", {5, 0, 7}, 0},
                      SStatusRow{"FiveSeven", {5, 7}, 7}, SStatusRow{"SevenFive", {7, 5}, 5},
                      SStatusRow{"OneFailed", {995}, 995},
                      // A unit that was never processed has status 0.
                      SStatusRow{"NeverProcessed", {5, -1}, 0}, SStatusRow{"AllSucceeded", {0, 0}, 0}),
    [](const ::testing::TestParamInfo<SStatusRow>& info) { return std::string(info.param.name); });

TEST(FinalStatusOrder, TheLastFailedUnitInCaseBlindKeyOrderGivesTheStatus) {
  CWorkUnitManager manager(1);
  AddUnit(manager, "/B", "/B")->SetDisposition("FF", 7);
  AddUnit(manager, "/a", "/a")->SetDisposition("FF", 5);
  // "/a" sorts before "/B" without regard to case.
  EXPECT_EQ(manager.GetFinalStatus(), 7u);
}

// ---- finalization --------------------------------------------------------------------------

class Finalization : public ::testing::Test {
 protected:
  CLogCapture m_log;
  CTempTree m_tree;
  CWorkUnitManager m_manager{7};
};

TEST_F(Finalization, NullEntriesAreLoggedAndSkipped) {
  CWorkUnitPtr unit = AddUnit(m_manager, "/data", "/data");
  m_manager.GetWorkUnitMap()["/empty-entry"] = nullptr;
  ASSERT_TRUE(m_manager.FinalizeWorkUnits(kEmpty, StringSet{"/data/x"}, kEmpty, kEmpty, kEmpty).IsSuccess());
  EXPECT_TRUE(unit->IsFileFilteredOut("/data/x/y"));
  unit->SetDisposition("FF", 3);
  EXPECT_EQ(m_manager.GetFinalStatus(), 3u);
}

TEST_F(Finalization, CallerItemsReachOnlyTheUnitsTheyConcern) {
  std::unique_ptr<CTempTree> shm = MakeTreeIn("/dev/shm");
  std::string a = m_tree.MakeDir("a"), d = shm->MakeDir("d");
  if (VolumeOf(a) == VolumeOf(d)) GTEST_SKIP() << "temporary folder and /dev/shm share a volume";
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(a).IsSuccess());
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(d).IsSuccess());
  CWorkUnitPtr rootUnit = m_manager.GetWorkUnitMap().at(VolumeOf(a));
  CWorkUnitPtr shmUnit = m_manager.GetWorkUnitMap().at(VolumeOf(d));

  StringSet filters{a + "/x", d + "/y", "*.tmp", a + "/*.log", m_tree.Path("elsewhere")};
  StringSet filterExceptions{a + "/x/keep", d + "/y/keep/*.tmp"};
  StringSet systemFilters{d + "/sys"};
  StringSet contentExceptions{d + "/skip", a + "/skip"};
  ASSERT_TRUE(m_manager.FinalizeWorkUnits(contentExceptions, filters, filterExceptions, systemFilters, kEmpty)
                  .IsSuccess());
  // Plain items by their path, wildcards by their prefix; an empty prefix reaches every unit.
  EXPECT_EQ(rootUnit->GetFilters()->GetItemCount(BFilterNodeState::Include), 3u);  // a/x, *.tmp, a/*.log
  EXPECT_EQ(shmUnit->GetFilters()->GetItemCount(BFilterNodeState::Include), 2u);   // d/y, *.tmp
  EXPECT_EQ(rootUnit->GetFilters()->GetItemCount(BFilterNodeState::Exception), 1u);
  EXPECT_EQ(shmUnit->GetFilters()->GetItemCount(BFilterNodeState::Exception), 1u);
  EXPECT_EQ(rootUnit->GetSystemFilters()->GetItemCount(), 0u);
  EXPECT_EQ(shmUnit->GetSystemFilters()->GetItemCount(), 1u);
  // The scan content: the unit's scan path and the exception that concerns it.
  EXPECT_EQ(rootUnit->GetScanContent()->GetItemCount(BFilterNodeState::Include), 1u);
  EXPECT_EQ(rootUnit->GetScanContent()->GetItemCount(BFilterNodeState::Exception), 1u);

  EXPECT_FALSE(rootUnit->IsFileFilteredOut(a + "/f"));
  EXPECT_TRUE(rootUnit->IsFileFilteredOut(a + "/x/f"));
  EXPECT_FALSE(rootUnit->IsFileFilteredOut(a + "/x/keep/f"));
  EXPECT_TRUE(rootUnit->IsFileFilteredOut(a + "/skip/f"));
  EXPECT_TRUE(rootUnit->IsFileFilteredOut(d + "/f"));  // another unit's content
  EXPECT_TRUE(shmUnit->IsFileFilteredOut(d + "/y/keep/a.txt"));
  EXPECT_FALSE(shmUnit->IsFileFilteredOut(d + "/z/a.txt"));
  EXPECT_TRUE(shmUnit->IsFileFilteredOut(d + "/sys/a"));
  // Neither unit has nothing to scan.
  EXPECT_EQ(rootUnit->GetProcessor(), "");
  EXPECT_EQ(shmUnit->GetProcessor(), "");
}

TEST_F(Finalization, AnyOrderedStringCollectionMayBePassed) {
  CWorkUnitPtr unit = AddUnit(m_manager, "/data", "/data");
  std::vector<std::string> filters{"/data/a"};
  std::list<const char*> exceptions{"/data/a/keep"};
  std::set<std::string, __lesscasecmp> systemFilters{"/data/SYS", "/data/sys"};  // one entry
  std::vector<std::string_view> systemExceptions{"/data/sys/keep"};
  ASSERT_TRUE(
      m_manager.FinalizeWorkUnits(std::vector<std::string>{}, filters, exceptions, systemFilters, systemExceptions)
          .IsSuccess());
  EXPECT_TRUE(unit->IsFileFilteredOut("/data/a/x"));
  EXPECT_FALSE(unit->IsFileFilteredOut("/data/a/keep/x"));
  // The case-blind set kept the first of the two spellings; items compare case-sensitively.
  EXPECT_TRUE(unit->IsFileFilteredOut("/data/SYS/x"));
  EXPECT_FALSE(unit->IsFileFilteredOut("/data/sys/x"));
  EXPECT_TRUE(unit->IsFileFilteredOut("/data/SYS/keep/x"));
}

TEST_F(Finalization, TheFirstFailureEndsThePassAndATryAgainSucceeds) {
  CWorkUnitPtr first = AddUnit(m_manager, "/a", "/a");
  CWorkUnitPtr second = AddUnit(m_manager, "/b", "/b");
  StringSet badFilters{"/a/[z-a]", "/b/x"};
  CQiError error = m_manager.FinalizeWorkUnits(kEmpty, badFilters, kEmpty, kEmpty, kEmpty);
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidData)) << error.AsString();
  // The pass stopped at the first unit: the second has no filters and nothing was examined.
  EXPECT_EQ(second->GetFilters()->GetItemCount(), 0u);
  EXPECT_EQ(second->GetScanContent()->GetItemCount(), 0u);
  bool bFrameOfThisOperation = false;
  for (const auto& frame : error.GetFrames())
    bFrameOfThisOperation = bFrameOfThisOperation || std::string(frame.function).find("FinalizeWorkUnits") != std::string::npos;
  EXPECT_TRUE(bFrameOfThisOperation) << error.AsString();

  // Items already added are not doubled by a second pass.
  StringSet goodFilters{"/a/x", "/b/x"};
  ASSERT_TRUE(m_manager.FinalizeWorkUnits(kEmpty, goodFilters, kEmpty, kEmpty, kEmpty).IsSuccess());
  ASSERT_TRUE(m_manager.FinalizeWorkUnits(kEmpty, goodFilters, kEmpty, kEmpty, kEmpty).IsSuccess());
  EXPECT_EQ(first->GetScanContent()->GetItemCount(), 1u);
  EXPECT_EQ(first->GetFilters()->GetItemCount(), 1u);
  EXPECT_EQ(second->GetFilters()->GetItemCount(), 1u);
}

TEST_F(Finalization, UnitsWithNothingToScanAreMarkedNC) {
  std::unique_ptr<CTempTree> shm = MakeTreeIn("/dev/shm");
  std::string d = shm->MakeDir("d"), a = m_tree.MakeDir("a");
  if (VolumeOf(a) == VolumeOf(d)) GTEST_SKIP() << "temporary folder and /dev/shm share a volume";
  // The content is reported under a source path outside the unit's source volume (/dev/shm).
  ASSERT_TRUE(m_manager.AssignWorkUnit("/elsewhere/d", d, false).IsSuccess());
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(a).IsSuccess());
  ASSERT_TRUE(m_manager.FinalizeWorkUnits(kEmpty, kEmpty, kEmpty, kEmpty, kEmpty).IsSuccess());
  CWorkUnitPtr shmUnit = m_manager.GetWorkUnitMap().at(VolumeOf(d));
  CWorkUnitPtr rootUnit = m_manager.GetWorkUnitMap().at(VolumeOf(a));
  EXPECT_EQ(shmUnit->GetProcessor(), "NC");
  EXPECT_EQ(shmUnit->DispositionAsString(), "Processed(NC)");
  EXPECT_TRUE(shmUnit->IsSuccessfullyProcessed());
  EXPECT_EQ(rootUnit->DispositionAsString(), "NotProcessed");
}

TEST_F(Finalization, ExamineMarksAUnitWhoseContentIsFilteredAway) {
  CWorkUnitPtr unit = AddUnit(m_manager, "/vol", "/vol/data");
  unit->SetSourceVolumeName("/vol");
  CWorkUnitPtr kept = AddUnit(m_manager, "/other", "/other/data");
  kept->SetSourceVolumeName("/other");
  // A system filter that takes the whole volume out leaves nothing to scan.
  ASSERT_TRUE(m_manager.FinalizeWorkUnits(kEmpty, kEmpty, kEmpty, StringSet{"/vol"}, kEmpty).IsSuccess());
  EXPECT_EQ(unit->DispositionAsString(), "Processed(NC)");
  EXPECT_EQ(kept->DispositionAsString(), "NotProcessed");
}

TEST_F(Finalization, TheDumpOfFinishedUnitsNestsEachLevel) {
  std::string a = m_tree.MakeDir("a"), b = m_tree.MakeDir("b");
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(a).IsSuccess());
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(b).IsSuccess());
  ASSERT_TRUE(m_manager.FinalizeWorkUnits(kEmpty, StringSet{a + "/x"}, kEmpty, kEmpty, kEmpty).IsSuccess());
  auto writer = std::make_shared<CMemoryLineWriter>();
  for (const auto& [id, media] : m_manager.GetPhysicalMediaVolumeWorkUnitMap())
    ASSERT_TRUE(media->DumpDiagnosticData(writer, "#").IsSuccess());
  std::vector<std::string> lines = writer->GetLines();
  ASSERT_GE(lines.size(), 5u);
  EXPECT_EQ(lines[0].rfind("#PhysicalMediaWorkUnit=0x", 0), 0u) << lines[0];
  EXPECT_EQ(lines[1].rfind("#  VolumeWorkUnit=0x", 0), 0u) << lines[1];
  EXPECT_EQ(lines[2].rfind("#    WorkUnit=[0x", 0), 0u) << lines[2];
  EXPECT_NE(lines[2].find("ScanPaths=[2], Disposition=[NotProcessed]"), std::string::npos) << lines[2];
  EXPECT_EQ(lines[3], "#      ScanPath: LocalScanPath=[" + a + "], SourceScanPath=[" + a + "], SourceScanPrefix=[" + a + "]");
  EXPECT_EQ(lines[4], "#      ScanPath: LocalScanPath=[" + b + "], SourceScanPath=[" + b + "], SourceScanPrefix=[" + b + "]");
  size_t filterLines = 0;
  for (const std::string& line : lines) {
    EXPECT_EQ(line.rfind("#", 0), 0u) << line;
    if (line.find("Include Path=[" + a + "/x]") != std::string::npos) ++filterLines;
  }
  EXPECT_EQ(filterLines, 1u);
}
