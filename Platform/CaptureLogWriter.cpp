#include "Platform/CaptureLogWriter.h"

CCaptureLogWriter::CCaptureLogWriter(int level) : CLogWriterInterface(level) {}

void CCaptureLogWriter::Write(const SLogRecord& record) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_vEntries.push_back(SEntry{record.level, record.function, *record.context, record.text});
}

std::vector<CCaptureLogWriter::SEntry> CCaptureLogWriter::GetEntries() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_vEntries;
}

size_t CCaptureLogWriter::Count(const std::string& text, int level) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  size_t n = 0;
  for (const SEntry& e : m_vEntries)
    if (e.text == text && (level == kAnyLevel || e.level == level)) ++n;
  return n;
}

size_t CCaptureLogWriter::CountContaining(const std::string& fragment, int level) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  size_t n = 0;
  for (const SEntry& e : m_vEntries)
    if (e.text.find(fragment) != std::string::npos && (level == kAnyLevel || e.level == level))
      ++n;
  return n;
}

void CCaptureLogWriter::Clear() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_vEntries.clear();
}
