#include "Platform/ZRDebugFunction.h"

#include "Platform/FXString.h"

ZRDebugFunction::ZRDebugFunction(int level, const char* function, int line)
    : m_iLevel(level), m_szFunction(function), m_iLine(line) {
  CLogWriterInterface* writer = CLogWriterInterface::Current();
  m_bActive = writer != nullptr && writer->IsLevelOn(level);
  if (m_bActive) Enter();
}

ZRDebugFunction::ZRDebugFunction(int level, const char* function, int line, const char* format,
                                 ...)
    : m_iLevel(level), m_szFunction(function), m_iLine(line) {
  CLogWriterInterface* writer = CLogWriterInterface::Current();
  m_bActive = writer != nullptr && writer->IsLevelOn(level);
  if (!m_bActive) return;
  va_list args;
  va_start(args, format);
  m_strText = FXString::FormatV(format, args);
  va_end(args);
  Enter();
}

void ZRDebugFunction::Enter() {
  m_tStart = std::chrono::steady_clock::now();
  CLogWriterInterface* writer = CLogWriterInterface::Current();
  if (writer == nullptr) return;
  if (m_strText.empty())
    writer->Log(m_iLevel, m_szFunction, m_iLine, "Entering");
  else
    writer->Log(m_iLevel, m_szFunction, m_iLine, "Entering %s", m_strText.c_str());
}

ZRDebugFunction::~ZRDebugFunction() {
  if (!m_bActive) return;
  CLogWriterInterface* writer = CLogWriterInterface::Current();
  if (writer == nullptr) return;
  long long ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                     std::chrono::steady_clock::now() - m_tStart).count();
  if (m_strText.empty())
    writer->Log(m_iLevel, m_szFunction, m_iLine, "Leaving, Elapsed=%lldms", ms);
  else
    writer->Log(m_iLevel, m_szFunction, m_iLine, "Leaving %s, Elapsed=%lldms", m_strText.c_str(),
                ms);
}
