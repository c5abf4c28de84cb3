#include "Platform/LineSorter.h"

#include <algorithm>
#include <atomic>
#include <thread>
#include <utility>
#include <vector>

namespace {

// No key has been loaded for the range yet.
constexpr size_t kNoKey = SIZE_MAX;
// Below these sizes comparison sorts beat a 257-bucket radix pass.
constexpr size_t kInsertionMax = 16;
constexpr size_t kRadixMin = 128;
// Arrays below this size are sorted on one thread.
constexpr size_t kParallelMin = 1u << 16;

// A range of references whose lines all share the bytes [0, depth); their keys hold the bytes
// [keyBase, keyBase + 8) with keyBase <= depth (or keyBase is kNoKey).
struct SRange {
  SLineRef* pLines;
  size_t uCount;
  size_t uDepth;
  size_t uKeyBase;
};

// Orders two lines of one range: their keys first, then the bytes after the key window.
inline bool LessFrom(const SLineRef& a, const SLineRef& b, size_t keyBase) {
  if (a.uKey != b.uKey) return a.uKey < b.uKey;
  size_t off = keyBase + 8;
  if (a.uLength <= off || b.uLength <= off) return a.uLength < b.uLength;
  size_t common = std::min(a.uLength, b.uLength) - off;
  int c = memcmp(a.pData + off, b.pData + off, common);
  if (c != 0) return c < 0;
  return a.uLength < b.uLength;
}

void InsertionSort(SLineRef* a, size_t n, size_t keyBase) {
  for (size_t i = 1; i < n; ++i) {
    SLineRef value = a[i];
    size_t j = i;
    while (j > 0 && LessFrom(value, a[j - 1], keyBase)) {
      a[j] = a[j - 1];
      --j;
    }
    a[j] = value;
  }
}

void ComparisonSort(SRange& range) {
  // Keys at the range's own depth settle most comparisons without touching the lines.
  if (range.uKeyBase == kNoKey || range.uDepth > range.uKeyBase) {
    range.uKeyBase = range.uDepth;
    for (size_t i = 0; i < range.uCount; ++i) {
      SLineRef& line = range.pLines[i];
      line.uKey = CLineSorter::LoadKey(line.pData, line.uLength, range.uKeyBase);
    }
  }
  size_t keyBase = range.uKeyBase;
  if (range.uCount <= kInsertionMax) {
    InsertionSort(range.pLines, range.uCount, keyBase);
    return;
  }
  std::sort(range.pLines, range.pLines + range.uCount,
            [keyBase](const SLineRef& a, const SLineRef& b) { return LessFrom(a, b, keyBase); });
}

// Moves the range's depth past every byte that all its lines share, reloading keys each time
// the window is used up. On return the lines differ at uDepth, or some of them end there.
void SkipCommonPrefix(SRange& range) {
  SLineRef* a = range.pLines;
  size_t n = range.uCount;
  for (;;) {
    if (range.uKeyBase == kNoKey || range.uDepth >= range.uKeyBase + 8) {
      range.uKeyBase = range.uDepth;
      for (size_t i = 0; i < n; ++i) a[i].uKey = CLineSorter::LoadKey(a[i].pData, a[i].uLength, range.uDepth);
    }
    uint64_t first = a[0].uKey;
    uint64_t diff = 0;
    size_t minLength = a[0].uLength;
    for (size_t i = 1; i < n; ++i) {
      diff |= a[i].uKey ^ first;
      minLength = std::min(minLength, a[i].uLength);
    }
    size_t common = diff == 0 ? 8 : static_cast<size_t>(__builtin_clzll(diff)) / 8;
    size_t depth = std::min(range.uKeyBase + common, minLength);
    if (depth > range.uDepth) range.uDepth = depth;
    if (range.uDepth < range.uKeyBase + 8) return;
  }
}

// Distributes the range by its byte at uDepth: bucket 0 holds the lines that end there (all
// equal), bucket 1 + b the lines whose byte is b. bounds[k]..bounds[k+1] is bucket k afterwards.
void RadixPartition(const SRange& range, size_t (&bounds)[258]) {
  SLineRef* a = range.pLines;
  size_t n = range.uCount;
  size_t depth = range.uDepth;
  unsigned shift = static_cast<unsigned>(56 - 8 * (depth - range.uKeyBase));
  auto bucketOf = [depth, shift](const SLineRef& line) -> size_t {
    return line.uLength == depth ? 0 : 1 + ((line.uKey >> shift) & 0xff);
  };
  size_t counts[257] = {};
  for (size_t i = 0; i < n; ++i) ++counts[bucketOf(a[i])];
  bounds[0] = 0;
  for (size_t b = 0; b < 257; ++b) bounds[b + 1] = bounds[b] + counts[b];
  size_t next[257];
  std::copy(bounds, bounds + 257, next);
  // American flag permutation: each element is swapped straight into its bucket.
  for (size_t b = 0; b < 257; ++b) {
    size_t end = bounds[b + 1];
    while (next[b] < end) {
      SLineRef value = a[next[b]];
      size_t target = bucketOf(value);
      while (target != b) {
        std::swap(value, a[next[target]++]);
        target = bucketOf(value);
      }
      a[next[b]++] = value;
    }
  }
}

void SortRange(SRange range) {
  for (;;) {
    if (range.uCount < 2) return;
    if (range.uCount < kRadixMin) {
      ComparisonSort(range);
      return;
    }
    SkipCommonPrefix(range);
    size_t bounds[258];
    RadixPartition(range, bounds);
    // Sort the smaller buckets by recursion and continue with the largest one here, so that the
    // recursion stays shallower than log2 of the count whatever the lines look like.
    size_t largest = 1;
    for (size_t b = 2; b < 257; ++b) {
      if (bounds[b + 1] - bounds[b] > bounds[largest + 1] - bounds[largest]) largest = b;
    }
    for (size_t b = 1; b < 257; ++b) {
      size_t count = bounds[b + 1] - bounds[b];
      if (b == largest || count < 2) continue;
      SortRange({range.pLines + bounds[b], count, range.uDepth + 1, range.uKeyBase});
    }
    range = {range.pLines + bounds[largest], bounds[largest + 1] - bounds[largest],
             range.uDepth + 1, range.uKeyBase};
  }
}

}  // namespace

void CLineSorter::Sort(SLineRef* pLines, size_t uCount, unsigned uThreads, bool bKeysLoaded) {
  if (uCount < 2) return;
  size_t keyBase = bKeysLoaded ? 0 : kNoKey;
  if (uThreads < 2 || uCount < kParallelMin) {
    SortRange({pLines, uCount, 0, keyBase});
    return;
  }
  // Split the array with radix passes until no range holds more than a small share of it, then
  // let the threads take the ranges, largest first.
  std::vector<SRange> ranges{{pLines, uCount, 0, keyBase}};
  size_t target = std::max<size_t>(uCount / (uThreads * 8), kRadixMin);
  for (int splits = 0; splits < 256; ++splits) {
    auto largest = std::max_element(ranges.begin(), ranges.end(), [](const SRange& x, const SRange& y) {
      return x.uCount < y.uCount;
    });
    if (largest == ranges.end() || largest->uCount <= target) break;
    SRange range = *largest;
    ranges.erase(largest);
    SkipCommonPrefix(range);
    size_t bounds[258];
    RadixPartition(range, bounds);
    for (size_t b = 1; b < 257; ++b) {
      size_t count = bounds[b + 1] - bounds[b];
      if (count >= 2) ranges.push_back({range.pLines + bounds[b], count, range.uDepth + 1, range.uKeyBase});
    }
  }
  std::sort(ranges.begin(), ranges.end(),
            [](const SRange& x, const SRange& y) { return x.uCount > y.uCount; });
  std::atomic<size_t> nextRange{0};
  auto worker = [&ranges, &nextRange]() {
    for (;;) {
      size_t index = nextRange.fetch_add(1, std::memory_order_relaxed);
      if (index >= ranges.size()) return;
      SortRange(ranges[index]);
    }
  };
  std::vector<std::thread> threads;
  threads.reserve(uThreads - 1);
  for (unsigned i = 1; i < uThreads; ++i) {
    try {
      threads.emplace_back(worker);
    } catch (...) {
      break;  // no thread to be had: the calling thread sorts what is left
    }
  }
  worker();
  for (std::thread& thread : threads) thread.join();
}
