// Lustre changelog benchmark driver (run by bench/run-lustre-bench).
//
//   LustreChangelogBench FOLDER [FOLDERS [FILES_PER_FOLDER [RECORDS [BATCH [HOT [MDTS]]]]]]
//
// Makes a real tree in FOLDER/fs (FOLDERS folders of FILES_PER_FOLDER empty files; defaults
// 10,000 and 99: 1,000,001 objects) and its scan database as a full Lustre job would (each
// object with its FID), keeps a copy as the previous backup's database, then makes RECORDS
// changes of a realistic mix (default 1,000,000) on the tree, writing for each the changelog
// record an MDT would write, in the text format of `lfs changelog`. Then it applies the records
// as the engine does (CLustreChangelogMerger: fetched in batches of BATCH, default 100,000, one
// transaction per batch with the indexes; with MDTS > 1 the records are dealt out in turn to
// that many MDTs, each record with its own time, and merged back by time; each applied record
// reads its object's state with lstat, as on Lustre, here from a local file system) and
// enumerates the changed entries of every folder against the previous database in one
// transaction, as the engine does. Prints "key value" lines.
//
// Mix, by share of the records: 30% modifications of existing files (11CLOSE, 17MTIME, 14SATTR,
// 10OPEN; the tree's file gets a new modification time), 20% 01CREAT, 10% 06UNLNK (half of
// created files, half of existing ones), 5% 02MKDIR, 5% 08RENME of files across folders (with
// the 09RNMTO that follows), 3% 03HLINK, 2% 19ATIME and 20% records of files created earlier in
// the run being modified. Nine changes in ten land in the hot HOT percent of the folders
// (default 10), as a night's work concentrates on some projects; HOT 100 spreads every change
// evenly over the whole tree (the worst case for the database's page cache).
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "Scan/ScanDB/ScanDbFiles.h"
#include "Scan/ScanDB/ScanDbStore.h"
#include "Scan/Unix/LustreChangelogApplier.h"
#include "Scan/Unix/LustreChangelogMerger.h"
#include "Scan/Unix/LustreScanDBPathEnumerator.h"
#include "Scan/Unix/SimulatedLustreAPI.h"

namespace {
using TClock = std::chrono::steady_clock;
std::string g_strRoot;  // FOLDER/fs

double CpuSeconds() {
  struct timespec ts;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

double Seconds(TClock::time_point from, TClock::time_point to) { return std::chrono::duration<double>(to - from).count(); }

long MaxRssKiB() {
  struct rusage usage {};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

void Check(const CQiError& err, const char* what) {
  if (err.IsError()) {
    fprintf(stderr, "%s failed: %s\n", what, err.AsString().c_str());
    exit(1);
  }
}

std::string Fid(uint64_t ullObject) {
  char sz[64];
  snprintf(sz, sizeof(sz), "[0x%" PRIx64 ":0x%x:0x0]", static_cast<uint64_t>(0x200000400ULL + (ullObject >> 32)),
           static_cast<unsigned>(ullObject & 0xffffffffu));
  return sz;
}

std::string Folder(uint64_t i) { return g_strRoot + "/dir" + std::to_string(i); }

void Touch(const std::string& strPath) {
  const int fd = open(strPath.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
  if (fd < 0) {
    perror(strPath.c_str());
    exit(1);
  }
  close(fd);
}

struct stat StatOf(const std::string& strPath) {
  struct stat st {};
  if (lstat(strPath.c_str(), &st) != 0) {
    perror(strPath.c_str());
    exit(1);
  }
  return st;
}

// Object numbers: 1 the root, 2.. folders, then files; new objects above all of them.
struct SModel {
  uint64_t ullFolders, ullFiles;
  uint64_t ullHotPercent = 10;
  // A folder for the next change: nine in ten from the hot part.
  uint64_t PickFolder(std::mt19937_64& random) const {
    const uint64_t ullHot = std::max<uint64_t>(1, ullFolders * ullHotPercent / 100);
    return random() % 10 != 0 ? random() % ullHot : random() % ullFolders;
  }
  uint64_t FolderObject(uint64_t i) const { return 2 + i; }
  uint64_t FileObject(uint64_t i, uint64_t j) const { return 2 + ullFolders + i * ullFiles + j; }
};

// The tree on disk and its database, as a full job leaves it.
void Build(CScanDbStore& store, const SModel& model) {
  mkdir(g_strRoot.c_str(), 0755);
  Check(store.BeginBulk(), "BeginBulk");
  Check(store.Add(CScanDbRecord(g_strRoot, StatOf(g_strRoot), Fid(1))), "Add root");
  for (uint64_t i = 0; i < model.ullFolders; ++i) {
    mkdir(Folder(i).c_str(), 0755);
    for (uint64_t j = 0; j < model.ullFiles; ++j) Touch(Folder(i) + "/file" + std::to_string(j));
    Check(store.Add(CScanDbRecord(Folder(i), StatOf(Folder(i)), Fid(model.FolderObject(i)))), "Add folder");
    for (uint64_t j = 0; j < model.ullFiles; ++j) {
      const std::string strPath = Folder(i) + "/file" + std::to_string(j);
      Check(store.Add(CScanDbRecord(strPath, StatOf(strPath), Fid(model.FileObject(i, j)))), "Add file");
    }
  }
  Check(store.Update(CScanDbRecord(g_strRoot, StatOf(g_strRoot), Fid(1))), "Update root");
  Check(store.EndBulk(true), "EndBulk");
}

bool Modify(const std::string& strPath) { return utimensat(AT_FDCWD, strPath.c_str(), nullptr, AT_SYMLINK_NOFOLLOW) == 0; }

// Makes the changes on the tree and writes their records; returns how many. A change that
// cannot be made (its object went in an earlier change) is left out, as the MDT would.
uint64_t WriteChangelog(const std::string& strFile, const SModel& model, uint64_t ullRecords) {
  FILE* pFile = fopen(strFile.c_str(), "w");
  if (pFile == nullptr) exit(1);
  std::mt19937_64 random(42);
  const char* kHead = " 13:57:43.418431669 2026.11.23 0x0 t=";
  uint64_t ullIndex = 0, ullNext = 2 + model.ullFolders + model.ullFolders * model.ullFiles + 10;
  uint64_t ullNextUnlink = model.ullFiles - 1, ullNextRename = 0;
  struct SCreated { uint64_t ullObject, ullFolder; std::string strName; };
  std::vector<SCreated> lstCreated;  // bounded: the oldest are dropped
  auto existing = [&](uint64_t& i, uint64_t& j) {
    i = model.PickFolder(random);
    j = random() % (model.ullFiles / 2);  // the lower half is never unlinked or renamed
  };
  auto emit = [&](const std::string& strRest) { fprintf(pFile, "%" PRIu64 " %s\n", ++ullIndex, strRest.c_str()); };
  static const char* kModify[] = {"11CLOSE", "17MTIME", "14SATTR", "10OPEN "};
  while (ullIndex < ullRecords) {
    const unsigned uDice = static_cast<unsigned>(random() % 100);
    uint64_t i, j;
    if (uDice < 30) {
      existing(i, j);
      if (!Modify(Folder(i) + "/file" + std::to_string(j))) continue;
      emit(std::string(kModify[random() % 4]) + kHead + Fid(model.FileObject(i, j)) + " ef=0xf u=0:0 nid=0@lo");
    } else if (uDice < 50) {
      const uint64_t ullFolder = model.PickFolder(random);
      SCreated created{ullNext++, ullFolder, "new file " + std::to_string(ullIndex)};
      Touch(Folder(ullFolder) + "/" + created.strName);
      emit(std::string("01CREAT") + kHead + Fid(created.ullObject) + " ef=0xf u=0:0 nid=0@lo p=" +
           Fid(model.FolderObject(ullFolder)) + " " + created.strName);
      if (lstCreated.size() > 100000) lstCreated.erase(lstCreated.begin(), lstCreated.begin() + 50000);
      lstCreated.push_back(created);
    } else if (uDice < 60) {
      if ((uDice & 1) && !lstCreated.empty()) {
        const SCreated created = lstCreated.back();
        lstCreated.pop_back();
        if (unlink((Folder(created.ullFolder) + "/" + created.strName).c_str()) != 0) continue;
        emit(std::string("06UNLNK") + kHead + Fid(created.ullObject) + " ef=0xf u=0:0 nid=0@lo p=" +
             Fid(model.FolderObject(created.ullFolder)) + " " + created.strName);
      } else {
        i = random() % model.ullFolders;
        if (ullNextUnlink < model.ullFiles / 2 + 1) continue;
        if (unlink((Folder(i) + "/file" + std::to_string(ullNextUnlink)).c_str()) != 0) {
          if (i == model.ullFolders - 1) --ullNextUnlink;
          continue;
        }
        emit(std::string("06UNLNK") + kHead + Fid(model.FileObject(i, ullNextUnlink)) + " ef=0xf u=0:0 nid=0@lo p=" +
             Fid(model.FolderObject(i)) + " file" + std::to_string(ullNextUnlink));
        if (i == model.ullFolders - 1) --ullNextUnlink;
      }
    } else if (uDice < 65) {
      const uint64_t ullFolder = model.PickFolder(random);
      if (mkdir((Folder(ullFolder) + "/sub " + std::to_string(ullIndex)).c_str(), 0755) != 0) continue;
      emit(std::string("02MKDIR") + kHead + Fid(ullNext++) + " ef=0xf u=0:0 nid=0@lo p=" + Fid(model.FolderObject(ullFolder)) +
           " sub " + std::to_string(ullIndex));
    } else if (uDice < 70) {
      // Each folder's files model.ullFiles/2 + 1... are renamed once, in turn, to the next folder.
      const uint64_t ullFile = model.ullFiles / 2 + 1 + ullNextRename / model.ullFolders;
      const uint64_t ullFrom = ullNextRename % model.ullFolders, ullTo = (ullFrom + 1) % model.ullFolders;
      if (ullFile >= ullNextUnlink) continue;
      ++ullNextRename;
      if (rename((Folder(ullFrom) + "/file" + std::to_string(ullFile)).c_str(),
                 (Folder(ullTo) + "/moved " + std::to_string(ullIndex)).c_str()) != 0)
        continue;
      const std::string strObject = Fid(model.FileObject(ullFrom, ullFile));
      emit(std::string("08RENME") + kHead + "[0x0:0x0:0x0] ef=0xf u=0:0 nid=0@lo p=" + Fid(model.FolderObject(ullTo)) +
           " moved " + std::to_string(ullIndex) + " s=" + strObject + " sp=" + Fid(model.FolderObject(ullFrom)) + " file" +
           std::to_string(ullFile));
      emit(std::string("09RNMTO") + kHead + strObject + " ef=0xf u=0:0 nid=0@lo p=" + Fid(model.FolderObject(ullTo)) +
           " moved");
    } else if (uDice < 73) {
      existing(i, j);
      if (link((Folder(i) + "/file" + std::to_string(j)).c_str(), (Folder(i) + "/link " + std::to_string(ullIndex)).c_str()) != 0)
        continue;
      emit(std::string("03HLINK") + kHead + Fid(model.FileObject(i, j)) + " ef=0xf u=0:0 nid=0@lo p=" +
           Fid(model.FolderObject(i)) + " link " + std::to_string(ullIndex));
    } else if (uDice < 75) {
      existing(i, j);
      emit(std::string("19ATIME") + kHead + Fid(model.FileObject(i, j)) + " ef=0xf u=0:0 nid=0@lo");
    } else if (!lstCreated.empty()) {
      const SCreated& created = lstCreated[random() % lstCreated.size()];
      if (!Modify(Folder(created.ullFolder) + "/" + created.strName)) continue;
      emit(std::string(kModify[random() % 4]) + kHead + Fid(created.ullObject) + " ef=0xf u=0:0 nid=0@lo");
    }
  }
  fclose(pFile);
  return ullIndex;
}

// Serves the records of each MDT's file in index order, as lfs changelog would.
class CBenchLustre : public CSimulatedLustreAPI {
 public:
  using CSimulatedLustreAPI::CSimulatedLustreAPI;
  CQiError GetChangelogs(const std::string& /*strMount*/, const std::string& strMDT, int64_t /*llStart*/,
                         int64_t llEnd, const std::string& strFile) override {
    FILE* pIn = m_mapFiles[strMDT];
    FILE* pOut = fopen(strFile.c_str(), "w");
    if (pIn == nullptr || pOut == nullptr) exit(1);
    std::string& strPending = m_mapPending[strMDT];
    char* pLine = nullptr;
    size_t nSize = 0;
    for (;;) {
      if (strPending.empty()) {
        if (getline(&pLine, &nSize, pIn) <= 0) break;
        strPending = pLine;
      }
      if (strtoll(strPending.c_str(), nullptr, 10) > llEnd) break;
      fputs(strPending.c_str(), pOut);
      strPending.clear();
    }
    free(pLine);
    fclose(pOut);
    return CQiError();
  }
  std::map<std::string, FILE*> m_mapFiles;
  std::map<std::string, std::string> m_mapPending;
};

// Deals the records out to the MDTs in turn, each numbered on its MDT and stamped with a time
// that rises by a microsecond per record; returns each MDT's last index.
std::vector<int64_t> SplitByMdt(const std::string& strChangelog, const std::vector<std::string>& lstFiles) {
  std::vector<FILE*> lstOut;
  for (const std::string& strFile : lstFiles) lstOut.push_back(fopen(strFile.c_str(), "w"));
  std::vector<int64_t> lstLast(lstFiles.size(), 0);
  FILE* pIn = fopen(strChangelog.c_str(), "r");
  char* pLine = nullptr;
  size_t nSize = 0;
  for (uint64_t n = 0; getline(&pLine, &nSize, pIn) > 0; ++n) {
    const size_t k = n % lstOut.size();
    // "INDEX TYPE TIME DATE REST": a new index and time.
    std::string strLine = pLine;
    const size_t type = strLine.find(' ') + 1, time = strLine.find_first_not_of(' ', strLine.find(' ', type));
    const size_t date = strLine.find(' ', time);
    const uint64_t ullSecond = 50000 + n / 1000000, ullNano = (n % 1000000) * 1000;
    char szTime[64];
    snprintf(szTime, sizeof(szTime), "%02u:%02u:%02u.%09u", static_cast<unsigned>(ullSecond / 3600),
             static_cast<unsigned>(ullSecond / 60 % 60), static_cast<unsigned>(ullSecond % 60),
             static_cast<unsigned>(ullNano));
    fprintf(lstOut[k], "%lld %s%s%s", static_cast<long long>(++lstLast[k]), strLine.substr(type, time - type).c_str(),
            szTime, strLine.substr(date).c_str());
  }
  free(pLine);
  fclose(pIn);
  for (FILE* pOut : lstOut) fclose(pOut);
  return lstLast;
}

// Lists every folder below the root, depth first; counts what is handed out.
void Enumerate(CLustreScanDBPathEnumerator& enumerator, uint64_t& ullItems) {
  std::vector<std::string> lstFolders{g_strRoot};
  while (!lstFolders.empty()) {
    const std::string strFolder = lstFolders.back();
    lstFolders.pop_back();
    CItemPtr pItem;
    for (CQiError err = enumerator.FindFirst(strFolder, nullptr, pItem); pItem; err = enumerator.FindNext(pItem)) {
      bool bUnchanged = false;
      (void)pItem->GetItemBag()->Read(CLustreScanDBPathEnumerator::kUnchangedKey, bUnchanged);
      if (!bUnchanged) ++ullItems;
      if (pItem->IsFolder()) lstFolders.push_back(pItem->GetLocalFullyQualifiedItemName());
    }
  }
}
}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: LustreChangelogBench FOLDER [FOLDERS [FILES [RECORDS [BATCH [HOT [MDTS]]]]]]\n");
    return 2;
  }
  const std::string strFolder = std::filesystem::absolute(argv[1]).lexically_normal().string();
  g_strRoot = strFolder + "/fs";
  std::error_code ec;
  std::filesystem::remove_all(g_strRoot, ec);
  const SModel baseModel{argc > 2 ? strtoull(argv[2], nullptr, 10) : 10000, argc > 3 ? strtoull(argv[3], nullptr, 10) : 99};
  const uint64_t ullRecords = argc > 4 ? strtoull(argv[4], nullptr, 10) : 1000000;
  const int64_t llBatch = argc > 5 ? strtoll(argv[5], nullptr, 10) : 100000;
  SModel model = baseModel;
  model.ullHotPercent = argc > 6 ? strtoull(argv[6], nullptr, 10) : 10;
  const uint64_t ullMdts = std::max<uint64_t>(1, argc > 7 ? strtoull(argv[7], nullptr, 10) : 1);
  const std::string strCurrent = strFolder + "/current", strPrevious = strFolder + "/previous";
  Check(CScanDbFiles::Remove(strCurrent), "Remove");
  Check(CScanDbFiles::Remove(strPrevious), "Remove");

  CScanDbStore store;
  Check(store.Open(strCurrent), "Open");
  auto t0 = TClock::now();
  Build(store, model);
  uint64_t ullEntries = 0;
  Check(store.GetRecordCount(ullEntries), "GetRecordCount");
  printf("entries %" PRIu64 "\nbuild_s %.3f\n", ullEntries, Seconds(t0, TClock::now()));
  Check(store.Close(), "Close");
  Check(CScanDbFiles::Copy(strCurrent, strPrevious), "Copy");
  const std::string strChangelog = strFolder + "/changelog";
  const uint64_t ullWritten = WriteChangelog(strChangelog, model, ullRecords);
  printf("records %" PRIu64 "\nrss_before_apply_kib %ld\n", ullWritten, MaxRssKiB());

  // The changelog dealt out to the MDTs, served batch by batch as lfs would deliver it.
  Check(store.Open(strCurrent), "Open");
  Check(store.SetCacheSize(256), "SetCacheSize");
  std::vector<LustreAPI::SMdt> lstMdt;
  std::vector<std::string> lstFiles;
  for (uint64_t k = 0; k < ullMdts; ++k) {
    char szName[32];
    snprintf(szName, sizeof(szName), "lustre-MDT%04x", static_cast<unsigned>(k));
    lstMdt.push_back({szName, "localhost"});
    lstFiles.push_back(strChangelog + "." + szName);
  }
  const std::vector<int64_t> lstLast = SplitByMdt(strChangelog, lstFiles);
  CBenchLustre api(strFolder, lstMdt);
  for (uint64_t k = 0; k < ullMdts; ++k) api.m_mapFiles[lstMdt[k].strName] = fopen(lstFiles[k].c_str(), "r");
  CLustreChangelogApplier applier(store, api, strFolder, {g_strRoot}, nullptr);
  const std::string strBatches = strFolder + "/batches";
  CLustreChangelogMerger merger(store, api, applier, strFolder, strBatches, llBatch, nullptr);
  for (uint64_t k = 0; k < ullMdts; ++k) merger.AddMdt(lstMdt[k].strName, 0, lstLast[k]);
  t0 = TClock::now();
  const double dCpu0 = CpuSeconds();
  Check(merger.Run(), "Run");
  const CLustreChangelogApplier::SCounts& counts = merger.GetTotals();
  const double dApply = Seconds(t0, TClock::now()), dApplyCpu = CpuSeconds() - dCpu0;
  printf("apply_cpu_s %.3f\napply_records_per_cpu_s %.0f\n", dApplyCpu, static_cast<double>(counts.ullRecords) / dApplyCpu);
  printf("apply_s %.3f\napply_records_per_s %.0f\napplied %" PRIu64 "\nignored %" PRIu64 "\nfailed %" PRIu64
         "\nrss_after_apply_kib %ld\n",
         dApply, static_cast<double>(counts.ullRecords) / dApply, counts.ullApplied, counts.ullIgnored, counts.ullFailed,
         MaxRssKiB());

  CScanDbStore previous;
  Check(previous.Open(strPrevious), "Open previous");
  CLustreScanDBPathEnumerator enumerator(store, previous, nullptr, {});
  uint64_t ullItems = 0;
  t0 = TClock::now();
  Check(store.BeginBulk(), "BeginBulk");
  Enumerate(enumerator, ullItems);
  Check(store.EndBulk(true), "EndBulk");
  printf("enumerate_s %.3f\nchanged %" PRIu64 "\ndeleted %" PRIu64 "\nrss_end_kib %ld\n", Seconds(t0, TClock::now()),
         ullItems, enumerator.GetDeletedCount(), MaxRssKiB());
  for (uint64_t k = 0; k < ullMdts; ++k) {
    fclose(api.m_mapFiles[lstMdt[k].strName]);
    remove(lstFiles[k].c_str());
    rmdir((strBatches + "/" + lstMdt[k].strName).c_str());
  }
  rmdir(strBatches.c_str());
  remove(strChangelog.c_str());
  std::filesystem::remove_all(g_strRoot, ec);
  return 0;
}
