#include "Platform/BatchSort.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Platform/BackgroundWriter.h"
#include "Platform/LineSorter.h"
#include "Platform/SortRunReader.h"
#include "Platform/SortRunWriter.h"
#include "Platform/LogWriterInterface.h"

namespace {

constexpr size_t kMinMemoryBytes = size_t{64} << 10;
constexpr size_t kMaxReadBytes = size_t{8} << 20;
constexpr size_t kMinReadBytes = size_t{64} << 10;
constexpr size_t kMaxIoBufferBytes = size_t{8} << 20;
constexpr size_t kMinIoBufferBytes = size_t{16} << 10;
// Memory per run that the merge fan-in is sized for.
constexpr size_t kMergeBytesPerRun = size_t{64} << 10;

// A descriptor closed when it goes out of scope.
class CFd {
 public:
  CFd() = default;
  explicit CFd(int fd) : m_iFd(fd) {}
  ~CFd() { Reset(); }
  CFd(CFd&& other) noexcept : m_iFd(std::exchange(other.m_iFd, -1)) {}
  CFd& operator=(CFd&& other) noexcept {
    if (this != &other) {
      Reset();
      m_iFd = std::exchange(other.m_iFd, -1);
    }
    return *this;
  }
  int Get() const { return m_iFd; }
  void Reset() {
    if (m_iFd >= 0) close(m_iFd);
    m_iFd = -1;
  }
  // Closes and reports what close said (a late write error on some file systems).
  int Close() {
    int rc = m_iFd >= 0 ? close(m_iFd) : 0;
    m_iFd = -1;
    return rc;
  }

 private:
  int m_iFd = -1;
};

CQiError CheckPath(const std::string& path, const char* role) {
  CQiError error = FXPath::ValidatePath(path);
  if (error.IsError()) return QI_PUSH(error, "Invalid %s path for the sort", role);
  if (path.size() >= PATH_MAX)
    return QI_ERROR_ERRNO(ENAMETOOLONG, "Sort %s path is longer than %d bytes: %s", role,
                          PATH_MAX - 1, path.c_str());
  return CQiError();
}

// The process's file creation mask, read without changing it (umask(2) would, for every thread).
mode_t CurrentUmask() {
  mode_t mask = 022;
  if (FILE* file = fopen("/proc/self/status", "re")) {
    char line[256];
    while (fgets(line, sizeof(line), file) != nullptr) {
      unsigned value = 0;
      if (sscanf(line, "Umask: %o", &value) == 1) {
        mask = static_cast<mode_t>(value);
        break;
      }
    }
    fclose(file);
  }
  return mask;
}

// A sorted run in the scratch folder: an unnamed file, gone when its descriptor closes.
struct SRun {
  CFd fd;
  uint64_t uBytes = 0;
  unsigned uLevel = 0;  // 0: written from an arena; n: merged from runs of level n - 1
};

class CBatchSorter {
 public:
  CBatchSorter(const std::string& input, const std::string& output, const std::string& scratch,
               const BBatchSortOptions& options, SBatchSortStats& stats)
      : m_strInput(input), m_strOutput(output), m_strScratch(scratch), m_options(options),
        m_stats(stats) {}

  ~CBatchSorter() {
    // A sort that did not complete leaves no temporary output behind.
    if (!m_strTempOutput.empty()) unlink(m_strTempOutput.c_str());
  }

  CQiError Run();

 private:
  CQiError OpenFiles();
  CQiError FillArena(bool& bFull);
  CQiError ReadMore(size_t want, size_t& got);
  template <class TWriter>
  CQiError WriteArena(TWriter& writer);
  CQiError CreateRun(SRun& run);
  CQiError AddRun(SRun run);
  template <class TWriter>
  CQiError MergeRuns(std::vector<SRun*>& vRuns, TWriter& writer);
  CQiError MergeIntoRun(std::vector<SRun>& vGroup, unsigned uLevel, SRun& merged);
  CQiError FinishOutput();
  // Size of each of `buffers` I/O buffers that share the memory bound.
  size_t IoBufferBytes(size_t buffers) const {
    return std::clamp(m_uMemory / buffers, kMinIoBufferBytes, kMaxIoBufferBytes);
  }

  const std::string& m_strInput;
  const std::string& m_strOutput;
  const std::string& m_strScratch;
  const BBatchSortOptions& m_options;
  SBatchSortStats& m_stats;

  size_t m_uMemory = 0;
  unsigned m_uThreads = 1;
  size_t m_uFanIn = 2;
  CFd m_input;
  uint64_t m_uInputSize = 0;  // of a regular file; 0 when unknown
  bool m_bRegularInput = false;
  bool m_bEof = false;
  CFd m_output;
  std::string m_strTempOutput;

  // The arena: line bytes grow from the front, references from the back (downwards).
  std::unique_ptr<char[]> m_pArena;
  size_t m_uArenaBytes = 0;
  size_t m_uMinRoom = 0;    // below this much free space the arena counts as full
  size_t m_uDataEnd = 0;    // bytes read into the arena
  size_t m_uParsePos = 0;   // first byte not yet split into a line
  size_t m_uLineCount = 0;  // references at the back
  double m_dAverageLine = 64.0;

  std::vector<SRun> m_vRuns;
};

SLineRef* LinesOf(char* arena, size_t arenaBytes, size_t count) {
  uintptr_t end = reinterpret_cast<uintptr_t>(arena + arenaBytes) & ~uintptr_t{alignof(SLineRef) - 1};
  return reinterpret_cast<SLineRef*>(end) - count;
}

CQiError CBatchSorter::OpenFiles() {
  QI_RETURN_IF_ERROR(CheckPath(m_strInput, "input"));
  QI_RETURN_IF_ERROR(CheckPath(m_strOutput, "output"));
  QI_RETURN_IF_ERROR(CheckPath(m_strScratch, "scratch folder"));

  struct stat st;
  if (stat(m_strScratch.c_str(), &st) != 0)
    return QI_ERROR_ERRNO(errno, "Sort scratch folder [%s] cannot be used", m_strScratch.c_str());
  if (!S_ISDIR(st.st_mode))
    return QI_ERROR_ERRNO(ENOTDIR, "Sort scratch folder [%s] is not a folder", m_strScratch.c_str());

  m_input = CFd(open(m_strInput.c_str(), O_RDONLY | O_CLOEXEC));
  if (m_input.Get() < 0)
    return QI_ERROR_ERRNO(errno, "Unable to open sort input [%s]", m_strInput.c_str());
  if (fstat(m_input.Get(), &st) != 0)
    return QI_ERROR_ERRNO(errno, "Unable to stat sort input [%s]", m_strInput.c_str());
  if (S_ISDIR(st.st_mode))
    return QI_ERROR_ERRNO(EISDIR, "Sort input [%s] is a folder", m_strInput.c_str());
  m_bRegularInput = S_ISREG(st.st_mode);
  m_uInputSize = m_bRegularInput ? static_cast<uint64_t>(st.st_size) : 0;
  posix_fadvise(m_input.Get(), 0, 0, POSIX_FADV_SEQUENTIAL);

  // The temporary output sits next to the output, so that the final rename stays in one file
  // system; creating it first makes an unwritable output folder fail before any work.
  std::string parent = FXPath::GetParent(m_strOutput);
  const std::string folder = parent.empty() ? std::string(".") : std::move(parent);
  std::string pattern = FXPath::Append(folder, ".batchsort.XXXXXX");
  if (pattern.size() >= PATH_MAX)
    return QI_ERROR_ERRNO(ENAMETOOLONG, "Sort output folder path is too long: %s", folder.c_str());
  int fd = mkostemp(pattern.data(), O_CLOEXEC);
  if (fd < 0)
    return QI_ERROR_ERRNO(errno, "Unable to create a temporary sort output in [%s]", folder.c_str());
  m_output = CFd(fd);
  m_strTempOutput = pattern;
  return CQiError();
}

CQiError CBatchSorter::ReadMore(size_t want, size_t& got) {
  got = 0;
  while (got < want && !m_bEof) {
    ssize_t done = read(m_input.Get(), m_pArena.get() + m_uDataEnd, want - got);
    if (done < 0) {
      if (errno == EINTR) continue;
      return QI_ERROR_ERRNO(errno, "Unable to read sort input [%s]", m_strInput.c_str());
    }
    if (done == 0) {
      m_bEof = true;
      break;
    }
    m_uDataEnd += static_cast<size_t>(done);
    got += static_cast<size_t>(done);
    m_stats.uBytes += static_cast<uint64_t>(done);
    // A regular file read to its known size needs no further read to see its end.
    if (m_bRegularInput && m_stats.uBytes >= m_uInputSize) {
      struct stat st;
      if (fstat(m_input.Get(), &st) == 0 && static_cast<uint64_t>(st.st_size) <= m_stats.uBytes)
        m_bEof = true;
    }
  }
  return CQiError();
}

// Splits the input into lines in the arena until the input ends (bFull false) or the arena has
// no room left (bFull true). Unsplit bytes stay at m_uParsePos for the next arena.
CQiError CBatchSorter::FillArena(bool& bFull) {
  bFull = false;
  for (;;) {
    char* arena = m_pArena.get();
    SLineRef* lines = LinesOf(arena, m_uArenaBytes, m_uLineCount);
    // Split what has been read into lines, while references fit between data and references.
    while (m_uParsePos < m_uDataEnd) {
      char* begin = arena + m_uParsePos;
      size_t available = m_uDataEnd - m_uParsePos;
      char* nl = static_cast<char*>(memchr(begin, '\n', available));
      if (nl == nullptr) {
        if (!m_bEof) break;
        nl = begin + available;  // a last line without a line feed
      }
      if (static_cast<size_t>(reinterpret_cast<char*>(lines) - (arena + m_uDataEnd)) <
          sizeof(SLineRef)) {
        bFull = true;
        return CQiError();
      }
      --lines;
      size_t length = static_cast<size_t>(nl - begin);
      lines->pData = begin;
      lines->uLength = length;
      lines->uKey = CLineSorter::LoadKey(begin, length, 0);
      ++m_uLineCount;
      m_uParsePos += std::min(length + 1, available);
    }
    if (m_bEof) return CQiError();

    size_t room = static_cast<size_t>(reinterpret_cast<char*>(lines) - (arena + m_uDataEnd));
    if (room < m_uMinRoom) {
      if (m_uLineCount > 0) {
        bFull = true;
        return CQiError();
      }
      // One line longer than the arena: grow the arena to hold it.
      size_t bytes = m_uArenaBytes * 2;
      std::unique_ptr<char[]> bigger(new (std::nothrow) char[bytes]);
      if (!bigger)
        return QI_ERROR_ERRNO(ENOMEM, "Unable to allocate %zu bytes for a line of sort input [%s]",
                              bytes, m_strInput.c_str());
      memcpy(bigger.get(), arena, m_uDataEnd);
      m_pArena = std::move(bigger);
      m_uArenaBytes = bytes;
      ZRLOG(2, "Sort arena grown to %zu bytes for a line longer than %zu bytes", bytes,
            m_uDataEnd - m_uParsePos);
      continue;
    }
    // Read about as many bytes as leave room for the references of their lines.
    double share = m_dAverageLine / (m_dAverageLine + sizeof(SLineRef));
    size_t want = std::min(kMaxReadBytes, static_cast<size_t>(static_cast<double>(room) * share));
    want = std::max(want, m_uMinRoom / 2);
    size_t got = 0;
    QI_RETURN_IF_ERROR(ReadMore(want, got));
    if (m_uLineCount > 0)
      m_dAverageLine = std::max(1.0, static_cast<double>(m_uParsePos) / static_cast<double>(m_uLineCount));
  }
}

template <class TWriter>
CQiError CBatchSorter::WriteArena(TWriter& writer) {
  SLineRef* lines = LinesOf(m_pArena.get(), m_uArenaBytes, m_uLineCount);
  CLineSorter::Sort(lines, m_uLineCount, m_uThreads, true);
  // The references were made from the back, in reverse input order; order is all they carry.
  // The lines themselves lie in input order, so fetch them a little ahead of use.
  constexpr size_t kAhead = 16;
  for (size_t i = 0; i < m_uLineCount; ++i) {
    if (i + kAhead < m_uLineCount) __builtin_prefetch(lines[i + kAhead].pData);
    QI_RETURN_IF_ERROR(writer.AddLine(lines[i].pData, lines[i].uLength));
  }
  QI_RETURN_IF_ERROR(writer.Flush());
  m_stats.uLines += m_uLineCount;
  // Keep the unsplit tail for the next arena.
  size_t tail = m_uDataEnd - m_uParsePos;
  memmove(m_pArena.get(), m_pArena.get() + m_uParsePos, tail);
  m_uDataEnd = tail;
  m_uParsePos = 0;
  m_uLineCount = 0;
  return CQiError();
}

CQiError CBatchSorter::CreateRun(SRun& run) {
  int fd = open(m_strScratch.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (fd < 0 && (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL)) {
    // No unnamed files on this file system: make a named one and unlink it at once.
    std::string pattern = FXPath::Append(m_strScratch, ".batchsort-run.XXXXXX");
    fd = mkostemp(pattern.data(), O_CLOEXEC);
    if (fd >= 0) unlink(pattern.c_str());
  }
  if (fd < 0)
    return QI_ERROR_ERRNO(errno, "Unable to create a sort run in scratch folder [%s]",
                          m_strScratch.c_str());
  run.fd = CFd(fd);
  run.uBytes = 0;
  return CQiError();
}

template <class TWriter>
CQiError CBatchSorter::MergeRuns(std::vector<SRun*>& vRuns, TWriter& writer) {
  struct SHead {
    uint64_t uKey;
    const char* pData;
    size_t uLength;
    size_t uReader;
  };
  auto less = [](const SHead& a, const SHead& b) {
    if (a.uKey != b.uKey) return a.uKey < b.uKey;
    if (a.uLength <= 8 || b.uLength <= 8) return a.uLength < b.uLength;
    size_t common = std::min(a.uLength, b.uLength) - 8;
    int c = memcmp(a.pData + 8, b.pData + 8, common);
    return c != 0 ? c < 0 : a.uLength < b.uLength;
  };
  size_t bufferBytes = IoBufferBytes(vRuns.size() + 2);
  std::vector<std::unique_ptr<CSortRunReader>> readers;
  std::vector<SHead> heap;
  readers.reserve(vRuns.size());
  heap.reserve(vRuns.size());
  for (SRun* run : vRuns) {
    readers.push_back(
        std::make_unique<CSortRunReader>(run->fd.Get(), run->uBytes, m_strScratch, bufferBytes));
    SHead head{0, nullptr, 0, readers.size() - 1};
    bool have = false;
    QI_RETURN_IF_ERROR(readers.back()->Next(head.pData, head.uLength, have));
    if (!have) continue;
    head.uKey = CLineSorter::LoadKey(head.pData, head.uLength, 0);
    heap.push_back(head);
  }
  // A binary min-heap on the current line of each run.
  auto siftDown = [&heap, &less](size_t i) {
    size_t n = heap.size();
    SHead value = heap[i];
    for (;;) {
      size_t child = 2 * i + 1;
      if (child >= n) break;
      if (child + 1 < n && less(heap[child + 1], heap[child])) ++child;
      if (!less(heap[child], value)) break;
      heap[i] = heap[child];
      i = child;
    }
    heap[i] = value;
  };
  for (size_t i = heap.size() / 2; i-- > 0;) siftDown(i);
  while (!heap.empty()) {
    SHead& top = heap[0];
    QI_RETURN_IF_ERROR(writer.AddLine(top.pData, top.uLength));
    bool have = false;
    QI_RETURN_IF_ERROR(readers[top.uReader]->Next(top.pData, top.uLength, have));
    if (have) {
      top.uKey = CLineSorter::LoadKey(top.pData, top.uLength, 0);
    } else {
      top = heap.back();
      heap.pop_back();
      if (heap.empty()) break;
    }
    siftDown(0);
  }
  return writer.Flush();
}

CQiError CBatchSorter::MergeIntoRun(std::vector<SRun>& vGroup, unsigned uLevel, SRun& merged) {
  QI_RETURN_IF_ERROR(CreateRun(merged));
  merged.uLevel = uLevel;
  std::vector<SRun*> runs;
  for (SRun& run : vGroup) runs.push_back(&run);
  CSortRunWriter writer(merged.fd.Get(), m_strScratch, IoBufferBytes(runs.size() + 2), true);
  QI_RETURN_IF_ERROR(MergeRuns(runs, writer));
  merged.uBytes = writer.GetBytes();
  ++m_stats.uMergePasses;
  vGroup.clear();  // closes the merged runs: their space is freed at once
  return CQiError();
}

// Keeps the number of runs within the fan-in while they are being made: as soon as a size
// class holds a full fan-in of runs, they are merged into one run of the next class.
CQiError CBatchSorter::AddRun(SRun run) {
  m_vRuns.push_back(std::move(run));
  for (;;) {
    unsigned level = m_vRuns.back().uLevel;
    size_t same = static_cast<size_t>(std::count_if(
        m_vRuns.begin(), m_vRuns.end(), [level](const SRun& r) { return r.uLevel == level; }));
    if (same < m_uFanIn) return CQiError();
    std::vector<SRun> group;
    std::vector<SRun> rest;
    for (SRun& r : m_vRuns) (r.uLevel == level ? group : rest).push_back(std::move(r));
    m_vRuns = std::move(rest);
    SRun merged;
    QI_RETURN_IF_ERROR(MergeIntoRun(group, level + 1, merged));
    m_vRuns.push_back(std::move(merged));
  }
}

CQiError CBatchSorter::FinishOutput() {
  if (fchmod(m_output.Get(), 0666 & ~CurrentUmask()) != 0)
    return QI_ERROR_ERRNO(errno, "Unable to set the mode of [%s]", m_strTempOutput.c_str());
  if (m_output.Close() != 0)
    return QI_ERROR_ERRNO(errno, "Unable to write sorted lines to [%s]", m_strTempOutput.c_str());
  if (rename(m_strTempOutput.c_str(), m_strOutput.c_str()) != 0)
    return QI_ERROR_ERRNO(errno, "Unable to rename [%s] to [%s]", m_strTempOutput.c_str(),
                          m_strOutput.c_str());
  m_strTempOutput.clear();
  return CQiError();
}

CQiError CBatchSorter::Run() {
  m_uMemory = std::max(m_options.uMemoryBytes, kMinMemoryBytes);
  m_uThreads = m_options.uThreads;
  if (m_uThreads == 0) m_uThreads = std::clamp(std::thread::hardware_concurrency(), 1u, 2u);
  if (m_options.uMaxMergeFanIn != 0) {
    m_uFanIn = std::max<size_t>(m_options.uMaxMergeFanIn, 2);
  } else {
    struct rlimit limit;
    size_t descriptors = 1024;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY)
      descriptors = static_cast<size_t>(limit.rlim_cur);
    size_t byDescriptors = descriptors > 64 ? descriptors - 32 : 2;
    m_uFanIn = std::clamp<size_t>(std::min(m_uMemory / kMergeBytesPerRun, byDescriptors), 2, 1024);
  }

  QI_RETURN_IF_ERROR(OpenFiles());

  // The arena shares the bound with the two buffers of the writer that empties it, and need not
  // be larger than the input and its references could be.
  m_uArenaBytes = std::max(m_uMemory - 2 * IoBufferBytes(32), kMinMemoryBytes / 2);
  if (m_bRegularInput) {
    uint64_t worstCase = m_uInputSize * (1 + sizeof(SLineRef)) + kMinReadBytes * 2;
    if (worstCase < m_uArenaBytes) m_uArenaBytes = static_cast<size_t>(worstCase);
  }
  m_pArena.reset(new (std::nothrow) char[m_uArenaBytes]);
  if (!m_pArena)
    return QI_ERROR_ERRNO(ENOMEM, "Unable to allocate %zu bytes of sort memory", m_uArenaBytes);
  m_uMinRoom = std::clamp<size_t>(m_uArenaBytes / 64, 1024, kMinReadBytes);

  for (;;) {
    bool full = false;
    QI_RETURN_IF_ERROR(FillArena(full));
    if (!full && m_vRuns.empty()) {
      // Everything fits in memory: straight to the output, no run at all.
      CBackgroundWriter writer(m_output.Get(), m_strTempOutput, IoBufferBytes(32), true);
      QI_RETURN_IF_ERROR(WriteArena(writer));
      break;
    }
    if (m_uLineCount > 0) {
      SRun run;
      QI_RETURN_IF_ERROR(CreateRun(run));
      CSortRunWriter writer(run.fd.Get(), m_strScratch, IoBufferBytes(32), true);
      QI_RETURN_IF_ERROR(WriteArena(writer));
      run.uBytes = writer.GetBytes();
      ++m_stats.uRuns;
      QI_RETURN_IF_ERROR(AddRun(std::move(run)));
    }
    if (!full) {
      // Merge what is left, in groups no bigger than the fan-in, smallest runs first.
      m_pArena.reset();
      while (m_vRuns.size() > m_uFanIn) {
        std::sort(m_vRuns.begin(), m_vRuns.end(),
                  [](const SRun& a, const SRun& b) { return a.uBytes < b.uBytes; });
        std::vector<SRun> group;
        for (size_t i = 0; i < m_uFanIn; ++i) group.push_back(std::move(m_vRuns[i]));
        m_vRuns.erase(m_vRuns.begin(), m_vRuns.begin() + static_cast<ptrdiff_t>(m_uFanIn));
        SRun merged;
        QI_RETURN_IF_ERROR(MergeIntoRun(group, 0, merged));
        m_vRuns.push_back(std::move(merged));
      }
      std::vector<SRun*> runs;
      for (SRun& run : m_vRuns) runs.push_back(&run);
      CBackgroundWriter writer(m_output.Get(), m_strTempOutput, IoBufferBytes(runs.size() + 2),
                               true);
      QI_RETURN_IF_ERROR(MergeRuns(runs, writer));
      m_vRuns.clear();
      break;
    }
  }
  m_input.Reset();
  QI_RETURN_IF_ERROR(FinishOutput());
  return CQiError();
}

}  // namespace

CQiError BatchSort(const std::string& strInput, const std::string& strOutput,
                   const std::string& strScratchFolder) {
  return BatchSort(strInput, strOutput, strScratchFolder, BBatchSortOptions());
}

CQiError BatchSort(const std::string& strInput, const std::string& strOutput,
                   const std::string& strScratchFolder, const BBatchSortOptions& options,
                   SBatchSortStats* pStats) {
  SBatchSortStats stats;
  CBatchSorter sorter(strInput, strOutput, strScratchFolder, options, stats);
  CQiError error = sorter.Run();
  if (pStats != nullptr) *pStats = stats;
  if (error.IsError())
    return QI_PUSH(error, "Unable to sort [%s] into [%s]", strInput.c_str(), strOutput.c_str());
  ZRLOG(2, "Sorted [%s] into [%s]: %llu lines, %zu runs, %zu intermediate merges",
        strInput.c_str(), strOutput.c_str(), static_cast<unsigned long long>(stats.uLines),
        stats.uRuns, stats.uMergePasses);
  return CQiError();
}
