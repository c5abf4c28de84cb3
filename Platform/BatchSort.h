// BatchSort: sorts the lines of a text file in byte order with bounded memory.
//
// The output holds every input line (duplicates kept) in the order of `LC_ALL=C sort`: memcmp
// over whole lines, a line that is a prefix of another first. A line is everything up to a line
// feed and may hold any other byte (NUL, carriage return, bytes that are not UTF-8). Every output
// line ends with a line feed, also when the input's last line had none; an empty input gives an
// empty output.
//
// How: the input is read in large blocks into one memory arena that holds both the line bytes
// and a 24-byte reference per line. When the whole input fits, it is sorted there (CLineSorter,
// two threads by default) and written straight to the output: no run is written at all.
// Otherwise each full arena is sorted and written as a run into the scratch folder, front-coded
// (CSortRunWriter: sorted lines share long prefixes, so runs take about half the bytes), and the
// runs are merged with a heap in one pass. When there are more runs than can be merged at once
// (the fan-in, limited by memory and descriptors), runs of one size class are merged into bigger
// runs first, as soon as a class holds a full fan-in. Writes go through a helper thread
// (CBackgroundWriter) so that the kernel's copy overlaps the sorting and merging. Runs are
// unnamed files (O_TMPFILE; where the file system lacks it, named files unlinked at once), so
// they vanish on every exit path, a crash included. The output is written to a temporary file
// ".batchsort.XXXXXX" in the output's folder, removed on failure and renamed over the output
// only when complete: a failed sort never leaves a partial output, and the input may be the
// output. The output gets mode 0666 less the process's umask, like a file made by sort(1).
//
// Memory: the bound covers the arena and the I/O buffers; a single line longer than the arena
// makes the arena grow to hold it. Merges that happen while the input is still being read (only
// with more runs than the fan-in) use their buffers on top of the arena.
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
