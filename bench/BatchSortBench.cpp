// Driver of bench/run-sort-bench (a plain program, not a Google Benchmark suite: one sort of a
// large file is timed from the outside, next to GNU sort on the same file).
//
//   BatchSortBench generate COUNT [SEED]           path-like lines in random order to stdout
//   BatchSortBench sort INPUT OUTPUT SCRATCH [MIB]  BatchSort with a memory bound of MIB MiB
//
// Generated lines look like "/data/proj07/dir123/sub45/file_001234.log"; the same seed gives
// the same file. "sort" prints what the sort did (lines, runs, merges) on standard error.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "Platform/BatchSort.h"

namespace {

int Generate(unsigned long long count, unsigned long long seed) {
  std::mt19937_64 random(seed);
  static const char* const kExtensions[] = {"txt", "log", "dat", "bin", "cpp", "h", "jpg", "pdf"};
  std::vector<char> buffer(size_t{4} << 20);
  size_t used = 0;
  for (unsigned long long i = 0; i < count; ++i) {
    uint64_t r = random();
    int written = snprintf(buffer.data() + used, buffer.size() - used,
                           "/data/proj%02u/dir%03u/sub%02u/file_%06u.%s\n",
                           static_cast<unsigned>(r % 100), static_cast<unsigned>((r >> 8) % 1000),
                           static_cast<unsigned>((r >> 20) % 100),
                           static_cast<unsigned>((r >> 28) % 1000000), kExtensions[(r >> 50) % 8]);
    used += static_cast<size_t>(written);
    if (buffer.size() - used < 256) {
      if (fwrite(buffer.data(), 1, used, stdout) != used) return 1;
      used = 0;
    }
  }
  if (fwrite(buffer.data(), 1, used, stdout) != used) return 1;
  return fflush(stdout) == 0 ? 0 : 1;
}

int Sort(const char* input, const char* output, const char* scratch, const char* mib) {
  BBatchSortOptions options;
  if (mib != nullptr) options.uMemoryBytes = static_cast<size_t>(strtoull(mib, nullptr, 10)) << 20;
  SBatchSortStats stats;
  CQiError error = BatchSort(input, output, scratch, options, &stats);
  if (error.IsError()) {
    fprintf(stderr, "BatchSort failed: %s\n", error.AsString().c_str());
    return 1;
  }
  fprintf(stderr, "lines=%llu bytes=%llu runs=%zu merges=%zu\n",
          static_cast<unsigned long long>(stats.uLines),
          static_cast<unsigned long long>(stats.uBytes), stats.uRuns, stats.uMergePasses);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 3 && strcmp(argv[1], "generate") == 0)
    return Generate(strtoull(argv[2], nullptr, 10), argc > 3 ? strtoull(argv[3], nullptr, 10) : 42);
  if (argc >= 5 && strcmp(argv[1], "sort") == 0)
    return Sort(argv[2], argv[3], argv[4], argc > 5 ? argv[5] : nullptr);
  fprintf(stderr,
          "usage: %s generate COUNT [SEED]\n"
          "       %s sort INPUT OUTPUT SCRATCH [MEMORY_MIB]\n",
          argv[0], argv[0]);
  return 2;
}
