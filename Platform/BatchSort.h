// BatchSort: sorts the lines of a text file in byte order with bounded memory.
//
// The output holds every input line (duplicates kept) in the order of `LC_ALL=C sort`: memcmp
// over whole lines, a line that is a prefix of another first. A line is everything up to a line
// feed and may hold any other byte (NUL, carriage return, bytes that are not UTF-8). Every output
// line ends with a line feed, also when the input's last line had none; an empty input gives an
// empty output.
//
// How: the input is read in large blocks into one memory arena of the given bound, which holds
// both the line bytes and a 24-byte reference per line. When the whole input fits, it is sorted
// there (CLineSorter, two threads by default) and written straight to the output, with no
// temporary run at all. Otherwise each full arena is sorted and written as a run into the scratch
// folder, and the runs are merged with a heap in one pass; when there are more runs than can be
// merged at once (fan-in limited by memory and descriptors), groups of runs of the same size
// class are merged into bigger runs first. Run files are unlinked as soon as they are created,
// so they vanish on every exit path, even a crash. The output is written to a temporary file in
// the output's folder and renamed over the output only when complete: a failed sort never leaves
// a partial output, and the input may be the output.
//
// Memory: the bound covers the arena (and the merge buffers); a single line longer than the
// arena makes the arena grow to hold it.
//
// Errors (CQiError): Win32 87 for an empty path or one holding a NUL byte, ENAMETOOLONG for a
// path of PATH_MAX bytes or more; the errno of the failed call with the path for an input that
// cannot be opened or read, a scratch folder that is missing (ENOENT) or not a folder
// (ENOTDIR), an output folder where the temporary output cannot be created, a run or output
// that cannot be written (ENOSPC...), and the final rename.
//
// Threads: stateless; any number of sorts may run at once on different files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Platform/QiError.h"

struct BBatchSortOptions {
  static constexpr size_t kDefaultMemoryBytes = size_t{256} << 20;

  // Memory for line bytes and references (and for merge buffers); at least 64 KiB is used.
  size_t uMemoryBytes = kDefaultMemoryBytes;
  // Threads that sort an arena; 0 means the number of processors, at most 2.
  unsigned uThreads = 0;
  // Most runs merged at once; 0 picks it from the memory bound and the descriptor limit.
  // Values below 2 are taken as 2.
  size_t uMaxMergeFanIn = 0;
};

// What one sort did, for logs and tests.
struct SBatchSortStats {
  uint64_t uLines = 0;
  uint64_t uBytes = 0;         // input bytes read
  size_t uRuns = 0;            // sorted runs written to the scratch folder (0: sorted in memory)
  size_t uMergePasses = 0;     // merges that produced an intermediate run
};

CQiError BatchSort(const std::string& strInput, const std::string& strOutput,
                   const std::string& strScratchFolder);
CQiError BatchSort(const std::string& strInput, const std::string& strOutput,
                   const std::string& strScratchFolder, const BBatchSortOptions& options,
                   SBatchSortStats* pStats = nullptr);
