// Driver of bench/run-gpfs-bench (a plain program, timed from the outside next to GNU sort):
// the GPFS engine's work after mmapplypolicy has run, on a generated policy output.
//
//   GpfsPipelineBench generate COUNT ROOT [SEED]   an mmapplypolicy output of COUNT lines below
//                                                 ROOT to stdout (progress and statistics lines,
//                                                 both lists, folders, one name in 1000 split by
//                                                 a newline), in random order
//   GpfsPipelineBench run OUTPUT ROOT WORK         joins OUTPUT into a collect file, sorts it with
//                                                 BatchSort (scratch in WORK) and replays it
//                                                 through the engine's traversal into a counting
//                                                 output handler
//
// "run" prints on standard output: items, the seconds of each step and of the whole, items/s.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "Platform/BatchSort.h"
#include "Scan/ScanEngine.h"
#include "Scan/ScannerCallback.h"
#include "Scan/Unix/GpfsEnumerateFiles.h"
#include "Scan/Unix/GpfsPathEnumerator.h"
#include "Scan/Unix/GpfsPolicy.h"

namespace {

using Clock = std::chrono::steady_clock;

int Generate(unsigned long long count, const std::string& root, unsigned long long seed) {
  std::mt19937_64 random(seed);
  static const char* const kExtensions[] = {"txt", "log", "dat", "bin", "cpp", "h", "jpg", "pdf"};
  printf("[I] GPFS Current Data Pool Utilization in KB and %%\n[I] Loaded policy rules from %s/policy.\n",
         root.c_str());
  for (unsigned long long i = 0; i < count; ++i) {
    const uint64_t r = random();
    const char* szList = (r >> 60) % 4 == 0 ? "MODIFIED" : "UNMODIFIED";
    const unsigned proj = r % 100, dir = (r >> 8) % 1000, sub = (r >> 20) % 100;
    if ((r >> 40) % 50 == 0) {
      printf("WEIGHT(INF) LIST '%s' %s/proj%02u/dir%03u/sub%02u SHOW(d:4096:2)\n", szList, root.c_str(), proj, dir, sub);
    } else {
      printf("WEIGHT(INF) LIST '%s' %s/proj%02u/dir%03u/sub%02u/file_%06u%s.%s SHOW(-:%u:1)\n", szList, root.c_str(),
             proj, dir, sub, static_cast<unsigned>((r >> 28) % 1000000), (r >> 44) % 1000 == 0 ? "\nsecond" : "",
             kExtensions[(r >> 50) % 8], static_cast<unsigned>((r >> 12) % 100000));
    }
  }
  printf("[I] Summary of Rule Applicability and File Choices:\n[I] A total of %llu files have been inspected.\n", count);
  return fflush(stdout) == 0 ? 0 : 1;
}

class CCountingHandler : public COutputHandler {
 public:
  CQiError OnItem(CItemPtr) override {
    ++m_ullItems;
    return CQiError();
  }
  unsigned long long m_ullItems = 0;
};

class CCountingCallback : public CScannerCallback {
 public:
  CQiError GetOutputHandler(const std::string&, COutputHandlerPtr& pHandler) override {
    pHandler = m_pHandler;
    return CQiError();
  }
  std::shared_ptr<CCountingHandler> m_pHandler = std::make_shared<CCountingHandler>();
};

double Since(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

int Run(const std::string& output, const std::string& root, const std::string& work) {
  const std::string collect = work + "/GpfsCollect_bench.zrf";
  const std::string scratch = work + "/GpfsCollect.tmpdir";
  mkdir(scratch.c_str(), 0700);
  const Clock::time_point tStart = Clock::now();
  CQiError error = CGpfsPolicy::PreProcessOutput(output, collect);
  const double dJoin = Since(tStart);
  const Clock::time_point tSort = Clock::now();
  if (error.IsSuccess()) error = BatchSort(collect, collect + ".tmp", scratch);
  if (error.IsSuccess() && (unlink(collect.c_str()) != 0 || rename((collect + ".tmp").c_str(), collect.c_str()) != 0))
    error = QI_ERROR_ERRNO(errno, "rename");
  const double dSort = Since(tSort);
  if (error.IsError()) {
    fprintf(stderr, "failed: %s\n", error.AsString().c_str());
    return 1;
  }
  const Clock::time_point tList = Clock::now();
  auto pCallback = std::make_shared<CCountingCallback>();
  CScanEngine engine;
  (void)engine.SetScannerCallback(pCallback);
  (void)engine.OpenOutputHandler("bench");
  uint64_t ullDevice = 1, ullReference = 1000;
  auto pEnumerator = std::make_shared<CGpfsPathEnumerator>(collect, ullDevice, ullReference, root, root, false,
                                                           false, false);
  CGpfsEnumerateFiles traversal(&engine, pEnumerator, root, false);
  traversal.AddFolderToList(root, root);
  error = traversal.Traverse();
  if (error.IsSuccess()) error = pEnumerator->GetCollectError();
  (void)engine.CloseOutputHandler();
  const double dList = Since(tList);
  const double dTotal = Since(tStart);
  if (error.IsError()) {
    fprintf(stderr, "failed: %s\n", error.AsString().c_str());
    return 1;
  }
  const unsigned long long items = pCallback->m_pHandler->m_ullItems;
  printf("items=%llu join=%.2f sort=%.2f list=%.2f total=%.2f items_per_s=%.0f\n", items, dJoin, dSort, dList,
         dTotal, static_cast<double>(items) / dTotal);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 4 && strcmp(argv[1], "generate") == 0)
    return Generate(strtoull(argv[2], nullptr, 10), argv[3], argc > 4 ? strtoull(argv[4], nullptr, 10) : 42);
  if (argc == 5 && strcmp(argv[1], "run") == 0) return Run(argv[2], argv[3], argv[4]);
  fprintf(stderr, "usage: GpfsPipelineBench generate COUNT ROOT [SEED] | run OUTPUT ROOT WORK\n");
  return 2;
}
