// CFileLineWriter: a CLineWriter that appends lines to a file (or to stderr when the path is
// empty). Open() must succeed before lines are written. Thread-safe.
#pragma once

#include <cstdio>
#include <mutex>
#include <string>

#include "Platform/LineWriter.h"

class CFileLineWriter : public CLineWriter {
 public:
  CFileLineWriter() = default;
  ~CFileLineWriter() override;

  CQiError Open(const std::string& path, bool append = false);
  CQiError WriteLine(const std::string& line) override;

 private:
  std::mutex m_mutex;
  FILE* m_pFile = nullptr;
  bool m_bOwnsFile = false;
};
