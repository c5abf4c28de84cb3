// Scan-DB store benchmark driver (run by bench/run-store-bench).
//
//   ScanDbStoreBench FOLDER [FOLDERS [FILES_PER_FOLDER [LOOKUPS]]]
//
// Builds a fresh store in FOLDER and loads it in bulk mode as a full scan would: a root, 100
// group folders, FOLDERS folders spread over them and FILES_PER_FOLDER files in each (defaults
// 10,000 and 99: 1,000,101 records). Folders are visited in a shuffled order and each folder's
// entries in a shuffled order, as a parallel traversal of a real tree delivers them. Then it
// closes the store, opens it again, lists every folder once in a shuffled order (each listing
// timed alone, in wall time and in the thread's CPU time), and looks up LOOKUPS random paths.
// Prints "key value" lines for the script.
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "Scan/ScanDB/ScanDbFiles.h"
#include "Scan/ScanDB/ScanDbStore.h"

namespace {
using TClock = std::chrono::steady_clock;

// CPU time of the whole process (user and system), seconds.
double CpuSeconds() {
  struct timespec ts;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// CPU time of the calling thread, seconds.
double ThreadCpuSeconds() {
  struct timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// Context switches of the calling thread so far: involuntary (the scheduler gave the processor
// to another task) and voluntary (the thread waited).
long ContextSwitches() {
  struct rusage usage{};
  getrusage(RUSAGE_THREAD, &usage);
  return usage.ru_nivcsw + usage.ru_nvcsw;
}

double Seconds(TClock::time_point from, TClock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

void Check(const CQiError& err, const char* what) {
  if (err.IsError()) {
    fprintf(stderr, "%s failed: %s\n", what, err.AsString().c_str());
    exit(1);
  }
}

std::string FolderPath(size_t i) {
  char buffer[96];
  snprintf(buffer, sizeof(buffer), "/mnt/lustre/group%02zu/project_%06zu", i % 100, i);
  return buffer;
}

struct stat StatFor(mode_t mode, uint64_t n) {
  struct stat st {};
  st.st_mode = mode;
  st.st_uid = 1000 + static_cast<uid_t>(n % 7);
  st.st_gid = 100;
  st.st_size = static_cast<off_t>((n * 7919) % 10000000);
  st.st_blocks = (st.st_size + 511) / 512;
  st.st_nlink = S_ISDIR(mode) ? 2 : 1;
  st.st_ino = 1000000 + n;
  st.st_dev = 0xfd01;
  st.st_atim = {1700000000 + static_cast<time_t>(n % 86400), static_cast<long>(n % 1000000000)};
  st.st_mtim = st.st_atim;
  st.st_ctim = st.st_atim;
  return st;
}

double Percentile(std::vector<double> values, double p) {
  std::sort(values.begin(), values.end());
  size_t index = static_cast<size_t>(p * static_cast<double>(values.size() - 1) + 0.5);
  return values[std::min(index, values.size() - 1)];
}
}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: %s FOLDER [FOLDERS [FILES_PER_FOLDER [LOOKUPS]]]\n", argv[0]);
    return 2;
  }
  const std::string strFolder = argv[1];
  const size_t uFolders = argc > 2 ? strtoull(argv[2], nullptr, 10) : 10000;
  const size_t uFiles = argc > 3 ? strtoull(argv[3], nullptr, 10) : 99;
  const size_t uLookups = argc > 4 ? strtoull(argv[4], nullptr, 10) : 100000;
  std::mt19937_64 random(42);

  Check(CScanDbFiles::Remove(strFolder), "Remove");
  CScanDbStore store;
  Check(store.Open(strFolder), "Open");

  std::vector<size_t> folderOrder(uFolders), fileOrder(uFiles);
  for (size_t i = 0; i < uFolders; ++i) folderOrder[i] = i;
  for (size_t i = 0; i < uFiles; ++i) fileOrder[i] = i;
  std::shuffle(folderOrder.begin(), folderOrder.end(), random);

  // Load: the records are built inside the timed loop, as an engine builds them from stat data.
  uint64_t ullRecords = 0;
  CScanDbRecord record;
  char name[64];
  const TClock::time_point loadStart = TClock::now();
  const double loadCpuStart = CpuSeconds();
  Check(store.BeginBulk(), "BeginBulk");
  Check(store.Add(CScanDbRecord("/mnt/lustre", StatFor(S_IFDIR | 0755, 0))), "Add");
  ++ullRecords;
  for (size_t g = 0; g < 100 && g < uFolders; ++g) {
    snprintf(name, sizeof(name), "/mnt/lustre/group%02zu", g);
    Check(store.Add(CScanDbRecord(name, StatFor(S_IFDIR | 0755, g))), "Add");
    ++ullRecords;
  }
  for (size_t i : folderOrder) {
    const std::string strDir = FolderPath(i);
    Check(store.Add(CScanDbRecord(strDir, StatFor(S_IFDIR | 0755, i))), "Add");
    ++ullRecords;
    std::shuffle(fileOrder.begin(), fileOrder.end(), random);
    for (size_t f : fileOrder) {
      snprintf(name, sizeof(name), "/file_%05zu.dat", f);
      record.GetPath().assign(strDir).append(name);
      record.SetStat(StatFor(S_IFREG | 0644, i * uFiles + f));
      Check(store.Add(record), "Add");
      ++ullRecords;
    }
  }
  const TClock::time_point commitStart = TClock::now();
  Check(store.EndBulk(), "EndBulk");
  const TClock::time_point loadEnd = TClock::now();
  const double loadCpu = CpuSeconds() - loadCpuStart;
  Check(store.Close(), "Close");
  const TClock::time_point closeEnd = TClock::now();

  struct stat st {};
  stat((strFolder + "/" + CScanDbStore::kDatabaseFileName).c_str(), &st);

  // Listings: each folder once, in a shuffled order, each timed alone.
  Check(store.Open(strFolder), "Open");
  std::shuffle(folderOrder.begin(), folderOrder.end(), random);
  std::vector<double> listMs, listCpuMs;
  listMs.reserve(uFolders);
  listCpuMs.reserve(uFolders);
  uint64_t ullListed = 0, ullSlow = 0, ullSlowSwitched = 0;
  const TClock::time_point listStart = TClock::now();
  for (size_t i : folderOrder) {
    const std::string strDir = FolderPath(i);
    const TClock::time_point start = TClock::now();
    const double cpuStart = ThreadCpuSeconds();
    const long switchesStart = ContextSwitches();
    Check(store.ListFolder(strDir,
                           [&](const CScanDbRecord&) {
                             ++ullListed;
                             return CQiError();
                           }),
          "ListFolder");
    listCpuMs.push_back((ThreadCpuSeconds() - cpuStart) * 1000.0);
    listMs.push_back(Seconds(start, TClock::now()) * 1000.0);
    if (listMs.back() >= 1.0) {
      ++ullSlow;
      if (ContextSwitches() != switchesStart) ++ullSlowSwitched;
    }
  }
  const double listTotal = Seconds(listStart, TClock::now());
  if (ullListed != uFolders * uFiles) {
    fprintf(stderr, "listed %llu entries, expected %zu\n",
            static_cast<unsigned long long>(ullListed), uFolders * uFiles);
    return 1;
  }

  // Random lookups by path.
  const TClock::time_point lookupStart = TClock::now();
  for (size_t n = 0; n < uLookups; ++n) {
    size_t i = random() % uFolders, f = random() % uFiles;
    snprintf(name, sizeof(name), "/file_%05zu.dat", f);
    Check(store.Lookup(FolderPath(i) + name, record), "Lookup");
  }
  const double lookupTotal = Seconds(lookupStart, TClock::now());
  Check(store.Close(), "Close");

  const double loadSeconds = Seconds(loadStart, loadEnd);
  printf("records %llu\n", static_cast<unsigned long long>(ullRecords));
  printf("folders %zu\n", uFolders);
  printf("files_per_folder %zu\n", uFiles);
  printf("load_seconds %.3f\n", loadSeconds);
  printf("records_per_second %.0f\n", static_cast<double>(ullRecords) / loadSeconds);
  printf("load_cpu_seconds %.3f\n", loadCpu);
  printf("records_per_cpu_second %.0f\n", static_cast<double>(ullRecords) / loadCpu);
  printf("commit_seconds %.3f\n", Seconds(commitStart, loadEnd));
  printf("close_seconds %.3f\n", Seconds(loadEnd, closeEnd));
  printf("database_mb %.1f\n", static_cast<double>(st.st_size) / 1e6);
  printf("list_total_seconds %.3f\n", listTotal);
  printf("list_median_ms %.4f\n", Percentile(listMs, 0.5));
  printf("list_p99_ms %.4f\n", Percentile(listMs, 0.99));
  printf("list_max_ms %.4f\n", Percentile(listMs, 1.0));
  printf("list_over_1ms %llu\n", static_cast<unsigned long long>(ullSlow));
  printf("list_over_1ms_switched %llu\n", static_cast<unsigned long long>(ullSlowSwitched));
  printf("list_cpu_median_ms %.4f\n", Percentile(listCpuMs, 0.5));
  printf("list_cpu_p99_ms %.4f\n", Percentile(listCpuMs, 0.99));
  printf("list_cpu_max_ms %.4f\n", Percentile(listCpuMs, 1.0));
  printf("lookups %zu\n", uLookups);
  printf("lookup_us %.2f\n", uLookups ? lookupTotal * 1e6 / static_cast<double>(uLookups) : 0.0);
  return 0;
}
