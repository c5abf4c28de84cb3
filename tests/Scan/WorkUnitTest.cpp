// The work unit model: filter strings reaching only the units they concern, folder queries,
// and the text forms and diagnostic dump of the three levels.
#include <gtest/gtest.h>

#include "Platform/FXString.h"
#include "Platform/MemoryLineWriter.h"
#include "Scan/PhysicalMediaWorkUnit.h"
#include "Scan/ScanPath.h"
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

// Folders where a match is possible ("+") and folders always filtered ("!"); the exception below
// /data/cache keeps the folder from being filtered as a whole, and one below /data/sys does not
// concern a unit that has no such scan path.
TEST(WorkUnitQueries, FolderQueries) {
  auto unit = UnitWithPaths({"/data", "/home/u/*.doc"});
  for (const CScanPathPtr& path : unit->GetScanPaths())
    ASSERT_TRUE(unit->AddScanContentItem(path->GetSourceScanPath(), path->GetContext()).IsSuccess());
  ASSERT_TRUE(unit->AddScanContentExceptionItem("/data/skip").IsSuccess() && unit->AddFilterItem("*.tmp").IsSuccess() &&
              unit->AddFilterItem("/data/cache").IsSuccess() &&
              unit->AddFilterExceptionItem("/data/cache/keep").IsSuccess() &&
              unit->AddSystemFilterItem("/data/sys").IsSuccess() &&
              unit->AddSystemFilterExceptionItem("/data/sys/keep").IsSuccess() &&
              unit->AddSystemFilterExceptionItem("/srv/keep").IsSuccess());
  EXPECT_EQ(unit->GetSystemFilters()->GetItemCount(BFilterNodeState::Exception), 1u);
  std::string answers;
  for (const char* folder : {"/", "/data", "/home", "/srv", "/data/skip", "/data/sys", "/data/x.tmp", "/data/cache"})
    answers += std::string(" ") + folder + (unit->IsMatchPossibleInFolder(folder) ? "+" : "") +
               (unit->IsAlwaysFiltered(folder) ? "!" : "");
  EXPECT_EQ(answers, " /+ /data+ /home+ /srv /data/skip /data/sys+ /data/x.tmp! /data/cache+");
  // The two-path form answers for its second (source) path.
  EXPECT_TRUE(unit->IsMatchPossibleInFolder("/srv", "/data"));
  EXPECT_FALSE(unit->IsMatchPossibleInFolder("/data", "/srv"));
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
