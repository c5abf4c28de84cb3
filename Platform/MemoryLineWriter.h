// CMemoryLineWriter: a CLineWriter that keeps every line in memory, for tests and for callers
// that post-process the dump. Thread-safe.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "Platform/LineWriter.h"

class CMemoryLineWriter : public CLineWriter {
 public:
  CQiError WriteLine(const std::string& line) override;
  std::vector<std::string> GetLines() const;

 private:
  mutable std::mutex m_mutex;
  std::vector<std::string> m_vLines;
};
