// Folder listing with status: FXFile::ZRFindFirstFile/ZRFindNextFile (getdents64 into a 64 KiB
// buffer, fstatat relative to the open folder) against the classic readdir + lstat of the full
// path, and readdir + fstatat as a reference, on one flat folder of 20,000 files, on a tree
// (20 x 20 folders of 50 files each: 20,000 files, 420 folders) and on a deep tree (a chain of
// 12 folders, then 20 folders of 1,000 files each), where every full path crosses 15 components.
//
// Every variant reads the status of every entry and counts the entries; the tree variants walk
// depth-first with an explicit stack and descend into the folders that the status reports.
// The data set is generated once under $TMPDIR (or /tmp) and removed at exit; every benchmark
// runs on a warm page and inode cache, so the numbers compare the code paths, not the disk.
// The time that matters is the thread's CPU time (user and kernel): on a warm cache the listing
// never waits for the disk, and CPU time is not skewed by other processes on a busy machine.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Platform/FXFile.h"

namespace {
constexpr int kFlatFiles = 20000;
constexpr int kTreeTop = 20, kTreeMid = 20, kTreeFiles = 50;
constexpr int kDeepChain = 12, kDeepLeaves = 20, kDeepFiles = 1000;

std::string g_strRoot;

std::string FlatFolder() { return g_strRoot + "/flat"; }
std::string TreeFolder() { return g_strRoot + "/tree"; }
std::string DeepFolder() { return g_strRoot + "/deep"; }

void MakeFile(const std::string& path) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    perror(path.c_str());
    exit(1);
  }
  close(fd);
}

void MakeDataSet() {
  const char* tmp = getenv("TMPDIR");
  std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/fsscan-bench-XXXXXX";
  if (mkdtemp(templ.data()) == nullptr) {
    perror("mkdtemp");
    exit(1);
  }
  g_strRoot = templ;
  mkdir(FlatFolder().c_str(), 0755);
  char name[64];
  for (int i = 0; i < kFlatFiles; ++i) {
    snprintf(name, sizeof(name), "/file-%06d.dat", i);
    MakeFile(FlatFolder() + name);
  }
  mkdir(TreeFolder().c_str(), 0755);
  for (int a = 0; a < kTreeTop; ++a) {
    snprintf(name, sizeof(name), "/dir-%02d", a);
    const std::string top = TreeFolder() + name;
    mkdir(top.c_str(), 0755);
    for (int b = 0; b < kTreeMid; ++b) {
      snprintf(name, sizeof(name), "/sub-%02d", b);
      const std::string mid = top + name;
      mkdir(mid.c_str(), 0755);
      for (int c = 0; c < kTreeFiles; ++c) {
        snprintf(name, sizeof(name), "/file-%03d.dat", c);
        MakeFile(mid + name);
      }
    }
  }
  std::string chain = DeepFolder();
  mkdir(chain.c_str(), 0755);
  for (int level = 0; level < kDeepChain; ++level) {
    snprintf(name, sizeof(name), "/level-%02d-of-the-chain", level);
    chain += name;
    mkdir(chain.c_str(), 0755);
  }
  for (int leaf = 0; leaf < kDeepLeaves; ++leaf) {
    snprintf(name, sizeof(name), "/leaf-%02d", leaf);
    const std::string folder = chain + name;
    mkdir(folder.c_str(), 0755);
    for (int c = 0; c < kDeepFiles; ++c) {
      snprintf(name, sizeof(name), "/file-%04d.dat", c);
      MakeFile(folder + name);
    }
  }
}

int RemoveOne(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }
void RemoveDataSet() {
  if (!g_strRoot.empty()) nftw(g_strRoot.c_str(), RemoveOne, 32, FTW_PHYS | FTW_DEPTH);
}

bool IsDots(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// ---- FXFile: getdents64 + fstatat ----------------------------------------------------------

// Lists one folder; appends its sub-folders to `folders` when given. Returns the entry count.
size_t ListWithFXFile(FXFile::auto_find_handle& handle, const std::string& folder,
                      std::vector<std::string>* folders) {
  FXFile::CFileData record;
  size_t count = 0;
  CQiError error = FXFile::ZRFindFirstFile(handle, folder, record);
  while (error.IsSuccess()) {
    if (!record.isRelativeFolder()) {
      ++count;
      benchmark::DoNotOptimize(record.getRawData().st_size);
      if (folders != nullptr && record.isDirectory()) folders->push_back(record.getFullPath());
    }
    error = FXFile::ZRFindNextFile(handle, record);
  }
  if (!error.IsWin32(QiErrorCode::NoMoreFiles)) {
    fprintf(stderr, "%s\n", error.AsString().c_str());
    exit(1);
  }
  handle.reset();
  return count;
}

// ---- readdir + lstat of the full path ------------------------------------------------------

size_t ListWithReaddirLstat(const std::string& folder, std::vector<std::string>* folders) {
  DIR* dir = opendir(folder.c_str());
  if (dir == nullptr) exit(1);
  std::string path = folder + "/";
  const size_t base = path.size();
  size_t count = 0;
  struct stat st;
  while (struct dirent* e = readdir(dir)) {
    if (IsDots(e->d_name)) continue;
    path.resize(base);
    path += e->d_name;
    if (lstat(path.c_str(), &st) != 0) continue;
    ++count;
    benchmark::DoNotOptimize(st.st_size);
    if (folders != nullptr && S_ISDIR(st.st_mode)) folders->push_back(path);
  }
  closedir(dir);
  return count;
}

// ---- readdir + fstatat relative to the folder (reference) ----------------------------------

size_t ListWithReaddirFstatat(const std::string& folder, std::vector<std::string>* folders) {
  DIR* dir = opendir(folder.c_str());
  if (dir == nullptr) exit(1);
  const int fd = dirfd(dir);
  size_t count = 0;
  struct stat st;
  while (struct dirent* e = readdir(dir)) {
    if (IsDots(e->d_name)) continue;
    if (fstatat(fd, e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
    ++count;
    benchmark::DoNotOptimize(st.st_size);
    if (folders != nullptr && S_ISDIR(st.st_mode)) folders->push_back(folder + "/" + e->d_name);
  }
  closedir(dir);
  return count;
}

template <typename ListFn>
size_t WalkTree(const std::string& root, ListFn list) {
  std::vector<std::string> folders{root};
  size_t count = 0;
  while (!folders.empty()) {
    std::string folder = std::move(folders.back());
    folders.pop_back();
    count += list(folder, &folders);
  }
  return count;
}

void Finish(benchmark::State& state, size_t entries, size_t expected) {
  if (entries != expected) state.SkipWithError("wrong entry count");
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * entries));
  state.counters["entries"] = static_cast<double>(entries);
}

constexpr size_t kTreeEntries =
    kTreeTop + kTreeTop * kTreeMid + static_cast<size_t>(kTreeTop) * kTreeMid * kTreeFiles;

constexpr size_t kDeepEntries =
    kDeepChain + kDeepLeaves + static_cast<size_t>(kDeepLeaves) * kDeepFiles;

void BM_Flat_FXFile(benchmark::State& state) {
  FXFile::auto_find_handle handle;
  size_t entries = 0;
  for (auto _ : state) entries = ListWithFXFile(handle, FlatFolder(), nullptr);
  Finish(state, entries, kFlatFiles);
}
void BM_Flat_ReaddirLstat(benchmark::State& state) {
  size_t entries = 0;
  for (auto _ : state) entries = ListWithReaddirLstat(FlatFolder(), nullptr);
  Finish(state, entries, kFlatFiles);
}
void BM_Flat_ReaddirFstatat(benchmark::State& state) {
  size_t entries = 0;
  for (auto _ : state) entries = ListWithReaddirFstatat(FlatFolder(), nullptr);
  Finish(state, entries, kFlatFiles);
}
void BM_Tree_FXFile(benchmark::State& state) {
  FXFile::auto_find_handle handle;
  size_t entries = 0;
  for (auto _ : state)
    entries = WalkTree(TreeFolder(), [&](const std::string& folder, std::vector<std::string>* f) {
      return ListWithFXFile(handle, folder, f);
    });
  Finish(state, entries, kTreeEntries);
}
void BM_Tree_ReaddirLstat(benchmark::State& state) {
  size_t entries = 0;
  for (auto _ : state) entries = WalkTree(TreeFolder(), ListWithReaddirLstat);
  Finish(state, entries, kTreeEntries);
}
void BM_Tree_ReaddirFstatat(benchmark::State& state) {
  size_t entries = 0;
  for (auto _ : state) entries = WalkTree(TreeFolder(), ListWithReaddirFstatat);
  Finish(state, entries, kTreeEntries);
}

void BM_Deep_FXFile(benchmark::State& state) {
  FXFile::auto_find_handle handle;
  size_t entries = 0;
  for (auto _ : state)
    entries = WalkTree(DeepFolder(), [&](const std::string& folder, std::vector<std::string>* f) {
      return ListWithFXFile(handle, folder, f);
    });
  Finish(state, entries, kDeepEntries);
}
void BM_Deep_ReaddirLstat(benchmark::State& state) {
  size_t entries = 0;
  for (auto _ : state) entries = WalkTree(DeepFolder(), ListWithReaddirLstat);
  Finish(state, entries, kDeepEntries);
}
void BM_Deep_ReaddirFstatat(benchmark::State& state) {
  size_t entries = 0;
  for (auto _ : state) entries = WalkTree(DeepFolder(), ListWithReaddirFstatat);
  Finish(state, entries, kDeepEntries);
}

BENCHMARK(BM_Flat_FXFile)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Flat_ReaddirLstat)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Flat_ReaddirFstatat)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Tree_FXFile)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Tree_ReaddirLstat)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Tree_ReaddirFstatat)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Deep_FXFile)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Deep_ReaddirLstat)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Deep_ReaddirFstatat)->Unit(benchmark::kMillisecond);
}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  MakeDataSet();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  RemoveDataSet();
  return 0;
}
