// CSortRunWriter: writes the sorted lines of one external-sort run in a compact form.
//
// A run is read back only by CSortRunReader, so it need not be plain text: each line is stored
// as the length of the prefix it shares with the line before it, the length of the rest, and
// the rest (both lengths as LEB128 numbers). Sorted lines share long prefixes (paths of one
// folder), so runs take about half the bytes of the plain lines to write and to read again.
//
// The descriptor belongs to the caller. Threads: one thread uses one writer (its
// CBackgroundWriter may write on a helper thread).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Platform/BackgroundWriter.h"

class CSortRunWriter {
 public:
  CSortRunWriter(int fd, const std::string& strPath, size_t uBufferBytes, bool bBackground)
      : m_writer(fd, strPath, uBufferBytes, bBackground) {}

  // Lines must come in byte order; bytes are copied, the caller's line may change afterwards.
  CQiError AddLine(const char* pData, size_t uLength);
  CQiError Flush() { return m_writer.Flush(); }
  uint64_t GetBytes() const { return m_writer.GetAppended(); }

  // Length of the common prefix of two byte strings of at least uMax bytes each.
  static size_t CommonPrefix(const char* pA, const char* pB, size_t uMax);

 private:
  CBackgroundWriter m_writer;
  std::string m_strPrevious;
};
