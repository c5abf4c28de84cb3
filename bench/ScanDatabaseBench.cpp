// Scan database: how fast the plug-in "ZrFSSQLiteDB" (loaded by name through CDatabaseWrapper,
// as an engine loads it) takes a full scan in bulk-insert mode, and how fast it then lists folders
// one by one, as the enumeration out of the database does.
//
//   ScanDatabaseBench FOLDER [RECORDS [FOLDERS]]     (defaults 1000000 and 10000)
//
// The tree: "/data" holds 100 groups "/data/gNN", which hold FOLDERS folders between them; the
// files share out the rest of RECORDS, in a fixed shuffled order within each folder (a listing
// does not return names sorted). Every record carries real values and metadata formed with
// FormMetadata, as CDatabaseItemWrapper::GetDatabaseItem makes them; the records are built before
// the clock starts, so the load rate is the store's own. The load is timed from
// SetBulkInsertMode(true) to the return of SetBulkInsertMode(false), commit included; Close (the
// checkpoint into the database file) is timed on its own. The store is then opened again and
// every folder is listed by path (QueryFolderItems with id 0), then every folder again by id.
//
// Output: one "key=value" per line, read by bench/run-scandb-bench.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Platform/QiLibrary.h"
#include "Scan/FSSQLiteDB/DatabaseWrapper.h"

namespace {

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point start, Clock::time_point end) {
  return std::chrono::duration<double>(end - start).count();
}

// CPU time of the calling thread (user and kernel), in seconds: on a busy machine it is what the
// work costs, whatever else runs.
double ThreadCpuSeconds() {
  struct timespec ts {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

struct SRecord {
  std::string strPath;
  bool bFolder;
  FSDB::CDatabaseItemPtr pItem;
};

bool Check(const CQiError& error, const char* pszWhat) {
  if (error.IsSuccess()) return true;
  fprintf(stderr, "%s failed: %s\n", pszWhat, error.AsString().c_str());
  return false;
}

FSDB::CDatabaseItemPtr MakeItem(int64_t llInode, bool bFolder, std::mt19937_64& random) {
  auto pItem = std::make_shared<FSDB::CDatabaseItem>();
  const int64_t llSize = bFolder ? 4096 : static_cast<int64_t>(random() % 1000000);
  pItem->SetFileId(llInode);
  pItem->SetAttributes(bFolder ? 040755 : 0100644);
  pItem->SetLinks(bFolder ? 2 : 1);
  pItem->SetFileSize(llSize);
  pItem->SetFileSizeOnDisk((llSize + 4095) / 4096 * 4096);
  const int64_t llTime = 1700000000 + static_cast<int64_t>(random() % 10000000);
  pItem->SetAccessTime(llTime);
  pItem->SetCreationTime(llTime);
  pItem->SetModificationTime(llTime);
  pItem->SetChangeTime(llTime);
  pItem->SetAsDirectory(bFolder);
  (void)pItem->FormMetadata();
  return pItem;
}

double Percentile(std::vector<double> values, double dFraction) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const size_t uIndex = std::min(values.size() - 1, static_cast<size_t>(dFraction * values.size()));
  return values[uIndex];
}

// Lists every folder, by path or by id; the per-folder CPU and wall times in microseconds.
bool ListFolders(CDatabaseWrapper& db, const std::vector<SRecord*>& folders, bool bById,
                 std::vector<double>& times, std::vector<double>& wallTimes, size_t& uListed) {
  std::list<FSDB::CDatabaseItemPtr> lstItems;
  times.clear();
  wallTimes.clear();
  uListed = 0;
  for (const SRecord* pFolder : folders) {
    const Clock::time_point wallStart = Clock::now();
    const double dStart = ThreadCpuSeconds();
    CQiError error = db.QueryFolderItems(pFolder->strPath, bById ? pFolder->pItem->GetId() : 0,
                                         lstItems);
    const double dEnd = ThreadCpuSeconds();
    wallTimes.push_back(Seconds(wallStart, Clock::now()) * 1e6);
    if (!Check(error, "QueryFolderItems")) return false;
    times.push_back((dEnd - dStart) * 1e6);
    uListed += lstItems.size();
  }
  return true;
}

double Mean(const std::vector<double>& values) {
  double dSum = 0;
  for (double d : values) dSum += d;
  return values.empty() ? 0 : dSum / static_cast<double>(values.size());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: %s FOLDER [RECORDS [FOLDERS]]\n", argv[0]);
    return 2;
  }
  const std::string strDatabase = argv[1];
  const size_t uRecords = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 1000000;
  const size_t uFolders = argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 10000;
  const size_t uGroups = 100;
  if (uFolders < uGroups || uRecords < uFolders + uGroups + 1) {
    fprintf(stderr, "need FOLDERS >= %zu and RECORDS > FOLDERS + %zu\n", uGroups, uGroups);
    return 2;
  }
#ifdef FSSCAN_SCANDB_PLUGIN_DIR
  // The plug-in of this build, unless the caller names another folder.
  setenv(CQiLibrary::kPluginPathVariable, FSSCAN_SCANDB_PLUGIN_DIR, 0);
#endif

  // The records, in scan order: each folder, then its files.
  std::mt19937_64 random(42);
  std::vector<SRecord> records;
  records.reserve(uRecords);
  const Clock::time_point prepareStart = Clock::now();
  int64_t llInode = 2;
  records.push_back({"/data", true, MakeItem(llInode++, true, random)});
  const size_t uFiles = uRecords - uFolders - uGroups - 1;
  size_t uFilesLeft = uFiles;
  std::vector<size_t> order;
  for (size_t uFolder = 0; uFolder < uFolders; ++uFolder) {
    const size_t uGroup = uFolder * uGroups / uFolders;
    char szGroup[32], szFolder[64];
    snprintf(szGroup, sizeof szGroup, "/data/g%02zu", uGroup);
    if (uFolder == 0 || uGroup != (uFolder - 1) * uGroups / uFolders) {
      records.push_back({szGroup, true, MakeItem(llInode++, true, random)});
    }
    snprintf(szFolder, sizeof szFolder, "%s/folder_%06zu", szGroup, uFolder);
    records.push_back({szFolder, true, MakeItem(llInode++, true, random)});
    const size_t uHere = uFilesLeft / (uFolders - uFolder);
    uFilesLeft -= uHere;
    order.resize(uHere);
    for (size_t i = 0; i < uHere; ++i) order[i] = i;
    std::shuffle(order.begin(), order.end(), random);
    for (size_t i : order) {
      char szFile[64];
      snprintf(szFile, sizeof szFile, "/file_%06zu.dat", i);
      records.push_back({std::string(szFolder) + szFile, false, MakeItem(llInode++, false, random)});
    }
  }
  const double dPrepare = Seconds(prepareStart, Clock::now());

  CDatabaseWrapper db(strDatabase, FSDB::DatabaseTypePersistent, false);
  if (!Check(db.Open(true), "Open")) return 1;
  const Clock::time_point loadStart = Clock::now();
  const double dLoadCpuStart = ThreadCpuSeconds();
  if (!Check(db.SetBulkInsertMode(true), "SetBulkInsertMode(true)")) return 1;
  for (const SRecord& record : records) {
    CQiError error = record.bFolder ? db.AddFolder(record.strPath, record.pItem)
                                    : db.AddFile(record.strPath, record.pItem);
    if (!Check(error, "Add")) return 1;
  }
  if (!Check(db.SetBulkInsertMode(false), "SetBulkInsertMode(false)")) return 1;
  const Clock::time_point loadEnd = Clock::now();
  const double dLoadCpu = ThreadCpuSeconds() - dLoadCpuStart;
  if (!Check(db.Close(), "Close")) return 1;
  const Clock::time_point closeEnd = Clock::now();

  // The folders that hold files, listed after opening the store again.
  std::vector<SRecord*> folders;
  for (SRecord& record : records) {
    if (record.bFolder && record.strPath.find("/folder_") != std::string::npos) {
      folders.push_back(&record);
    }
  }
  CDatabaseWrapper reader(strDatabase, FSDB::DatabaseTypePersistent, true);
  if (!Check(reader.Open(false), "Open(read-only)")) return 1;
  std::vector<double> byPath, byId, byPathWall, byIdWall;
  size_t uListedByPath = 0, uListedById = 0;
  if (!ListFolders(reader, folders, false, byPath, byPathWall, uListedByPath)) return 1;
  if (!ListFolders(reader, folders, true, byId, byIdWall, uListedById)) return 1;
  if (uListedByPath != uFiles || uListedById != uFiles) {
    fprintf(stderr, "listed %zu and %zu files, stored %zu\n", uListedByPath, uListedById, uFiles);
    return 1;
  }

  const double dLoad = Seconds(loadStart, loadEnd);
  printf("records=%zu\nfolders=%zu\nfiles=%zu\n", records.size(), folders.size(), uFiles);
  printf("prepare_seconds=%.3f\nprepare_us_per_record=%.3f\n", dPrepare,
         dPrepare * 1e6 / static_cast<double>(records.size()));
  printf("load_seconds=%.3f\nrows_per_second=%.0f\n", dLoad,
         static_cast<double>(records.size()) / dLoad);
  printf("load_cpu_seconds=%.3f\nrows_per_cpu_second=%.0f\n", dLoadCpu,
         static_cast<double>(records.size()) / dLoadCpu);
  printf("close_seconds=%.3f\n", Seconds(loadEnd, closeEnd));
  printf("list_by_path_mean_us=%.1f\nlist_by_path_p99_us=%.1f\nlist_by_path_max_us=%.1f\n",
         Mean(byPath), Percentile(byPath, 0.99), Percentile(byPath, 1.0));
  printf("list_by_id_mean_us=%.1f\nlist_by_id_p99_us=%.1f\nlist_by_id_max_us=%.1f\n", Mean(byId),
         Percentile(byId, 0.99), Percentile(byId, 1.0));
  printf("list_by_path_wall_mean_us=%.1f\nlist_by_path_wall_p99_us=%.1f\n", Mean(byPathWall),
         Percentile(byPathWall, 0.99));
  printf("list_by_path_wall_max_us=%.1f\n", Percentile(byPathWall, 1.0));
  printf("files_per_folder=%.1f\n", static_cast<double>(uFiles) / static_cast<double>(folders.size()));
  return 0;
}
