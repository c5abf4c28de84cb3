// CLustreChangelogReader: reads the records of one fetched changelog file of one MDT, one line
// at a time (memory does not grow with the file), and checks each line's place.
//
// A line that is not a record ("Invalid Line read from changelog file %s"), a record whose index
// does not rise, and a record outside the index range that was fetched are errors (Win32 13):
// the caller's batch must then fail, so that the job scans in full rather than leave the
// database with a hole. An error consumes its line, so that a caller that wants every fault
// logged may read on; the last good index stays the one before.
//
// Ownership: owns the open file (closed by Close or the destructor). Threads: one thread.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "Platform/QiError.h"
#include "Scan/Unix/LustreChangelogRecord.h"

class CLustreChangelogReader {
 public:
  CLustreChangelogReader() = default;
  ~CLustreChangelogReader();
  CLustreChangelogReader(const CLustreChangelogReader&) = delete;
  CLustreChangelogReader& operator=(const CLustreChangelogReader&) = delete;

  // Opens the file holding the records of [llFirst, llLast] ("Cannot Open Changelog File %s").
  CQiError Open(const std::string& strFile, int64_t llFirst, int64_t llLast);
  // The next record into record; bEnd true (and the record untouched) at the end of the file.
  CQiError Next(CLustreChangelogRecord& record, bool& bEnd);
  void Close();

  const std::string& GetFile() const { return m_strFile; }
  int64_t GetFirst() const { return m_llFirst; }
  int64_t GetLast() const { return m_llLast; }
  // Index of the last record read without fault (GetFirst() - 1 before any).
  int64_t GetLastIndex() const { return m_llLastIndex; }
  uint64_t GetLinesRead() const { return m_ullLines; }

 private:
  FILE* m_pFile = nullptr;
  char* m_pLine = nullptr;
  size_t m_nSize = 0;
  std::string m_strFile;
  int64_t m_llFirst = 0, m_llLast = -1, m_llLastIndex = -1;
  uint64_t m_ullLines = 0;
};
