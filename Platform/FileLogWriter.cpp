#include "Platform/FileLogWriter.h"

#include <cerrno>
#include <ctime>
#include <sys/time.h>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"

CFileLogWriter::CFileLogWriter(int level) : CLogWriterInterface(level) {}

CFileLogWriter::~CFileLogWriter() {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_bOwnsFile && m_pFile != nullptr) fclose(m_pFile);
  else if (m_pFile != nullptr) fflush(m_pFile);
}

CQiError CFileLogWriter::Open(const std::string& path, bool append) {
  FILE* file = stderr;
  if (!path.empty()) {
    file = fopen(path.c_str(), append ? "ae" : "we");
    if (file == nullptr)
      return QI_ERROR_ERRNO(errno, "Failed to open log file '%s'", path.c_str());
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_bOwnsFile && m_pFile != nullptr) fclose(m_pFile);
  m_pFile = file;
  m_bOwnsFile = !path.empty();
  return CQiError();
}

void CFileLogWriter::Flush() {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_pFile != nullptr) fflush(m_pFile);
}

void CFileLogWriter::Write(const SLogRecord& record) {
  struct timeval now;
  gettimeofday(&now, nullptr);
  struct tm local;
  localtime_r(&now.tv_sec, &local);
  char stamp[32];
  strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  std::string line = FXString::Format(
      "%s.%03ld %ld %d %s%s%s%s(%d): %s\n", stamp, static_cast<long>(now.tv_usec / 1000),
      record.threadId, record.level, record.context->empty() ? "" : "[",
      record.context->c_str(), record.context->empty() ? "" : "] ", record.function, record.line,
      record.text.c_str());
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_pFile == nullptr) return;
  fwrite(line.data(), 1, line.size(), m_pFile);
  if (record.level <= 0) fflush(m_pFile);
}
