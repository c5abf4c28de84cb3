// Finalization of the work units (scan content and caller items reaching the units they concern),
// the "NC" examination and the final status.
#include <gtest/gtest.h>

#include <set>

#include "Platform/StringCompare.h"
#include "Scan/Unix/WorkUnitManager.h"
#include "WorkUnitTestSupport.h"

namespace {
using StringSet = std::set<std::string, __less_fscase_cmp>;
const StringSet kEmpty;

// A unit with one scan path on the source volume, placed in the map under the key.
CWorkUnitPtr AddUnit(CWorkUnitManager& manager, const std::string& key, const std::string& path,
                     const std::string& sourceVolume = "/") {
  auto unit = std::make_shared<CWorkUnit>();
  unit->SetLocalVolumeName(key);
  unit->SetSourceVolumeName(sourceVolume);
  unit->AddScanPath(std::make_shared<CScanPath>(path, path));
  manager.GetWorkUnitMap()[key] = unit;
  return unit;
}

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
                      SStatusRow{"FiveSeven", {5, 7}, 7},
                      // A unit that was never processed has status 0.
                      SStatusRow{"NeverProcessed", {5, -1}, 0}),
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
  CWorkUnitManager m_manager{7};
};

TEST_F(Finalization, NullEntriesAreSkipped) {
  CWorkUnitPtr unit = AddUnit(m_manager, "/data", "/data");
  m_manager.GetWorkUnitMap()["/empty-entry"] = nullptr;
  ASSERT_TRUE(m_manager.FinalizeWorkUnits(kEmpty, StringSet{"/data/x"}, kEmpty, kEmpty, kEmpty).IsSuccess());
  EXPECT_TRUE(unit->IsFileFilteredOut("/data/x/y"));
  unit->SetDisposition("FF", 3);
  EXPECT_EQ(m_manager.GetFinalStatus(), 3u);
}

TEST_F(Finalization, CallerItemsReachOnlyTheUnitsTheyConcern) {
  CWorkUnitPtr a = AddUnit(m_manager, "/a", "/a"), d = AddUnit(m_manager, "/d", "/d");
  const StringSet filters{"/a/x", "/d/y", "*.tmp", "/a/*.log", "/elsewhere"};
  const StringSet filterExceptions{"/a/x/keep", "/d/y/keep/*.tmp"}, systemFilters{"/d/sys"};
  const StringSet contentExceptions{"/d/skip", "/a/skip"};
  ASSERT_TRUE(m_manager.FinalizeWorkUnits(contentExceptions, filters, filterExceptions, systemFilters, kEmpty)
                  .IsSuccess());
  // Plain items by their path, wildcards by their prefix; an empty prefix reaches every unit. Per
  // unit: filters, filter exceptions, system filters, scan content, content exceptions.
  auto counts = [](const CWorkUnitPtr& u) {
    return std::vector<size_t>{u->GetFilters()->GetItemCount(BFilterNodeState::Include),
                               u->GetFilters()->GetItemCount(BFilterNodeState::Exception),
                               u->GetSystemFilters()->GetItemCount(),
                               u->GetScanContent()->GetItemCount(BFilterNodeState::Include),
                               u->GetScanContent()->GetItemCount(BFilterNodeState::Exception)};
  };
  EXPECT_EQ(counts(a), (std::vector<size_t>{3, 1, 0, 1, 1}));
  EXPECT_EQ(counts(d), (std::vector<size_t>{2, 1, 1, 1, 1}));
  std::string answers;
  for (const auto& [unit, file] : std::vector<std::pair<CWorkUnitPtr, std::string>>{
           {a, "/a/f"}, {a, "/a/x/f"}, {a, "/a/x/keep/f"}, {a, "/a/skip/f"}, {a, "/d/f"},
           {d, "/d/y/keep/a.txt"}, {d, "/d/z/a.txt"}, {d, "/d/sys/a"}})
    answers += unit->IsFileFilteredOut(file) ? "-" : "+";
  EXPECT_EQ(answers, "+-+---+-");
  // Neither unit has nothing to scan.
  EXPECT_EQ(a->GetProcessor() + d->GetProcessor(), "");
}

// A unit is marked "NC" when its content lies outside its source volume, or is filtered away as a
// whole.
TEST_F(Finalization, UnitsWithNothingToScanAreMarkedNC) {
  CWorkUnitPtr outside = AddUnit(m_manager, "/shm", "/elsewhere/d", "/shm");
  CWorkUnitPtr filtered = AddUnit(m_manager, "/vol", "/vol/data", "/vol");
  CWorkUnitPtr kept = AddUnit(m_manager, "/other", "/other/data", "/other");
  ASSERT_TRUE(m_manager.FinalizeWorkUnits(kEmpty, kEmpty, kEmpty, StringSet{"/vol"}, kEmpty).IsSuccess());
  EXPECT_EQ(outside->DispositionAsString(), "Processed(NC)");
  EXPECT_TRUE(outside->IsSuccessfullyProcessed());
  EXPECT_EQ(filtered->DispositionAsString(), "Processed(NC)");
  EXPECT_EQ(kept->DispositionAsString(), "NotProcessed");
}

}  // namespace
