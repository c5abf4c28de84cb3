#include "Platform/FileLineWriter.h"

#include <cerrno>

#include "Platform/FXErrorUtil.h"

CFileLineWriter::~CFileLineWriter() {
  if (m_bOwnsFile && m_pFile != nullptr) fclose(m_pFile);
}

CQiError CFileLineWriter::Open(const std::string& path, bool append) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_bOwnsFile && m_pFile != nullptr) fclose(m_pFile);
  m_pFile = nullptr;
  m_bOwnsFile = false;
  if (path.empty()) {
    m_pFile = stderr;
    return CQiError();
  }
  FILE* file = fopen(path.c_str(), append ? "ae" : "we");
  if (file == nullptr)
    return QI_ERROR_ERRNO(errno, "Failed to open diagnostic file '%s'", path.c_str());
  m_pFile = file;
  m_bOwnsFile = true;
  return CQiError();
}

CQiError CFileLineWriter::WriteLine(const std::string& line) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_pFile == nullptr)
    return QI_ERROR_WIN32(QiErrorCode::InvalidHandle, "Diagnostic file is not open");
  if (fwrite(line.data(), 1, line.size(), m_pFile) != line.size() || fputc('\n', m_pFile) == EOF)
    return QI_ERROR_ERRNO(errno, "Failed to write diagnostic line");
  return CQiError();
}
