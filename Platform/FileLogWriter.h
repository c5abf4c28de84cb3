// CFileLogWriter: a log writer that appends lines to a file, or to stderr.
//
// Each line: "YYYY-MM-DD HH:MM:SS.mmm <thread id> <level> [<context>] <function>(<line>): text".
// Lines are written whole under one mutex; level -1 and 0 lines are flushed at once, the rest
// when the buffer fills, on Flush() and at destruction. Safe from any thread.
#pragma once

#include <cstdio>
#include <mutex>
#include <string>

#include "Platform/LogWriterInterface.h"

class CFileLogWriter : public CLogWriterInterface {
 public:
  explicit CFileLogWriter(int level = 1);
  ~CFileLogWriter() override;

  // An empty path writes to stderr.
  CQiError Open(const std::string& path, bool append = true);
  void Flush() override;

 protected:
  void Write(const SLogRecord& record) override;

 private:
  std::mutex m_mutex;
  FILE* m_pFile = stderr;
  bool m_bOwnsFile = false;
};
