#include "Platform/MemoryLineWriter.h"

CQiError CMemoryLineWriter::WriteLine(const std::string& line) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_vLines.push_back(line);
  return CQiError();
}

std::vector<std::string> CMemoryLineWriter::GetLines() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_vLines;
}
