#include "Scan/Unix/LustreChangelogReader.h"

#include <cerrno>
#include <cstdlib>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"

CLustreChangelogReader::~CLustreChangelogReader() {
  Close();
  free(m_pLine);
}

void CLustreChangelogReader::Close() {
  if (m_pFile != nullptr) fclose(m_pFile);
  m_pFile = nullptr;
}

CQiError CLustreChangelogReader::Open(const std::string& strFile, int64_t llFirst, int64_t llLast) {
  Close();
  m_strFile = strFile;
  m_llFirst = llFirst;
  m_llLast = llLast;
  m_llLastIndex = llFirst - 1;
  m_ullLines = 0;
  m_pFile = fopen(strFile.c_str(), "re");
  if (m_pFile == nullptr)
    return QI_ERROR_ERRNO(errno, "Cannot Open Changelog File %s", FXString::EscapeControl(strFile).c_str());
  return CQiError();
}

CQiError CLustreChangelogReader::Next(CLustreChangelogRecord& record, bool& bEnd) {
  bEnd = true;
  if (m_pFile == nullptr) return CQiError();
  errno = 0;
  const ssize_t nRead = getline(&m_pLine, &m_nSize, m_pFile);
  if (nRead <= 0) {
    if (ferror(m_pFile) != 0)
      return QI_ERROR_ERRNO(errno != 0 ? errno : EIO, "Cannot read Changelog File %s",
                            FXString::EscapeControl(m_strFile).c_str());
    Close();
    return CQiError();
  }
  bEnd = false;
  ++m_ullLines;
  const std::string_view line(m_pLine, static_cast<size_t>(nRead));
  ZRLOG(4, "The ChangelogLine - [%s]", FXString::EscapeControl(line).c_str());
  // lfs ends every record with a newline: a last line without one was cut short (a full disk,
  // a killed fetch) and may hold half a name.
  CQiError error = line.back() != '\n'
                       ? QI_ERROR_WIN32(QiErrorCode::InvalidData, "The file ends inside a record: cannot read the whole line")
                       : CLustreChangelogRecord::Parse(line, record);
  if (error.IsError()) {
    ZRLOG(4, "Invalid Line read from changelog file %s", FXString::EscapeControl(m_strFile).c_str());
    return QI_PUSH(error, "Invalid Line read from changelog file %s", FXString::EscapeControl(m_strFile).c_str());
  }
  if (record.m_llIndex <= m_llLastIndex || record.m_llIndex > m_llLast)
    return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Changelog record %lld out of order or outside %lld to %lld in %s",
                          static_cast<long long>(record.m_llIndex), static_cast<long long>(m_llFirst),
                          static_cast<long long>(m_llLast), FXString::EscapeControl(m_strFile).c_str());
  m_llLastIndex = record.m_llIndex;
  return CQiError();
}
