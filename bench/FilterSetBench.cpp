// CFilterSet::IsIn on the scan's hot path: one test string per entry, asked of a set that holds
// many plain items, a few exceptions and a few wildcards. The set answers plain items with one
// hash lookup per level of the path; the linear variant is what a naive set would do (test every
// item with FXPath::IsAncestorOf), as a yardstick for how the cost grows with the item count.
//
// Paths are six levels deep, half of them under an item, a tenth of those under an exception.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "Platform/FXPath.h"
#include "Platform/FilterSet.h"

namespace {

std::vector<std::string> MakeItems(int count) {
  std::vector<std::string> items;
  for (int i = 0; i < count; ++i)
    items.push_back("/export/home/user" + std::to_string(i) + "/projects");
  return items;
}

std::vector<std::string> MakePaths(int itemCount) {
  std::vector<std::string> paths;
  for (int i = 0; i < 4096; ++i) {
    const int user = (i * 7919) % (2 * itemCount);  // half of them have no item
    const char* folder = (i % 20 == 0) ? "/projects/build/obj/" : "/projects/src/lib/";
    paths.push_back("/export/home/user" + std::to_string(user) + folder + "file" +
                    std::to_string(i) + ".c");
  }
  return paths;
}

void FillSet(CFilterSet& set, const std::vector<std::string>& items, bool bWildcards) {
  for (const std::string& item : items) (void)set.AddFilterItem(BFilterNodeState::Include, item);
  for (size_t i = 0; i < items.size(); i += 10)
    (void)set.AddFilterItem(BFilterNodeState::Exception, items[i] + "/build");
  if (bWildcards) {
    for (const char* pattern : {"*.o", "*.tmp", "/export/home/*/projects/**/cache", "core.[0-9]*"})
      (void)set.AddFilterItem(BFilterNodeState::Exception, pattern);
  }
}

void BM_FilterSetIsIn(benchmark::State& state) {
  const int itemCount = static_cast<int>(state.range(0));
  const bool bWildcards = state.range(1) != 0;
  CFilterSet set;
  FillSet(set, MakeItems(itemCount), bWildcards);
  const std::vector<std::string> paths = MakePaths(itemCount);
  size_t i = 0, in = 0;
  for (auto _ : state) {
    CFilterTermTestString test(paths[i++ & 4095]);
    in += set.IsIn(test);
  }
  benchmark::DoNotOptimize(in);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FilterSetIsIn)
    ->ArgsProduct({{10, 1000, 100000}, {0, 1}})
    ->ArgNames({"items", "wildcards"});

void BM_LinearScanIsIn(benchmark::State& state) {
  const int itemCount = static_cast<int>(state.range(0));
  const std::vector<std::string> items = MakeItems(itemCount);
  std::vector<std::string> exceptions;
  for (size_t i = 0; i < items.size(); i += 10) exceptions.push_back(items[i] + "/build");
  const std::vector<std::string> paths = MakePaths(itemCount);
  size_t i = 0, in = 0;
  for (auto _ : state) {
    const std::string& path = paths[i++ & 4095];
    bool bIn = false;
    for (const std::string& item : items)
      if (FXPath::IsAncestorOf(item, path, true)) {
        bIn = true;
        break;
      }
    if (bIn)
      for (const std::string& e : exceptions)
        if (FXPath::IsAncestorOf(e, path, true)) {
          bIn = false;
          break;
        }
    in += bIn;
  }
  benchmark::DoNotOptimize(in);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LinearScanIsIn)->Arg(10)->Arg(1000)->Arg(100000)->ArgName("items");

void BM_FilterSetIsMatchPossibleInFolder(benchmark::State& state) {
  CFilterSet set;
  FillSet(set, MakeItems(static_cast<int>(state.range(0))), true);
  std::vector<std::string> folders;
  for (int i = 0; i < 4096; ++i)
    folders.push_back("/export/home/user" + std::to_string(i * 31) + "/projects/src");
  size_t i = 0, possible = 0;
  for (auto _ : state) {
    CFilterTermTestString test(folders[i++ & 4095]);
    possible += set.IsMatchPossibleInFolder(test);
  }
  benchmark::DoNotOptimize(possible);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FilterSetIsMatchPossibleInFolder)->Arg(1000)->Arg(100000)->ArgName("items");

}  // namespace

BENCHMARK_MAIN();
