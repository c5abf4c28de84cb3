// CLineSorter: sorts references to text lines held in memory, in byte order.
//
// Byte order is the order of memcmp over the whole line with a shorter line first when it is a
// prefix of the longer one: exactly the order of `LC_ALL=C sort`. Lines may hold any byte,
// NUL included; the line feed that ends a line is not part of it.
//
// The sort is a most-significant-digit radix sort over the line bytes. Each reference caches
// eight bytes of its line as a big-endian integer, so most steps read the reference array
// sequentially instead of chasing line pointers; bytes that all lines of a range share are
// skipped eight at a time, so long shared prefixes (paths below one folder) cost little. Small
// ranges finish with comparison sorts. With two or more threads the first radix passes split
// the array into independent ranges that the threads then sort side by side; nothing has to be
// merged afterwards.
//
// The sorter owns nothing: references point into buffers the caller keeps alive. All functions
// are stateless; distinct arrays may be sorted from any number of threads at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

// One line: where it is, how long it is (without its line feed), and a cache of eight of its
// bytes that the sorter fills and changes as it goes.
struct SLineRef {
  uint64_t uKey;
  const char* pData;
  size_t uLength;
};

class CLineSorter {
 public:
  // Sorts the references in place. uThreads 0 or 1 sorts on the calling thread; more threads
  // are used only when the array is large enough to gain from them. bKeysLoaded tells that every
  // uKey already holds LoadKey(pData, uLength, 0) (filled while the lines were split, when their
  // bytes were in the cache anyway).
  static void Sort(SLineRef* pLines, size_t uCount, unsigned uThreads = 1,
                   bool bKeysLoaded = false);

  // Eight bytes of the line from byte uOffset on, as a big-endian integer; bytes past the end
  // of the line read as 0.
  static uint64_t LoadKey(const char* pData, size_t uLength, size_t uOffset) {
    if (uLength >= uOffset + 8) {
      uint64_t value;
      memcpy(&value, pData + uOffset, 8);
      return __builtin_bswap64(value);
    }
    uint64_t value = 0;
    if (uLength > uOffset) {
      unsigned char bytes[8] = {0, 0, 0, 0, 0, 0, 0, 0};
      memcpy(bytes, pData + uOffset, uLength - uOffset);
      memcpy(&value, bytes, 8);
      value = __builtin_bswap64(value);
    }
    return value;
  }

  // Three-way byte-order comparison of two whole lines.
  static int Compare(const char* pA, size_t uA, const char* pB, size_t uB) {
    size_t common = uA < uB ? uA : uB;
    int c = common == 0 ? 0 : memcmp(pA, pB, common);
    if (c != 0) return c;
    return uA < uB ? -1 : (uA > uB ? 1 : 0);
  }
};
