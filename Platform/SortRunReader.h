// CSortRunReader: reads back, in order, the lines of a run written by CSortRunWriter.
//
// The run is read with pread from offset 0 up to the byte count its writer reported, through a
// buffer that grows when one record does not fit. Each line is rebuilt in a buffer of the
// reader's own, valid until the next call.
//
// The descriptor belongs to the caller. Threads: one thread uses one reader.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "Platform/QiError.h"

class CSortRunReader {
 public:
  CSortRunReader(int fd, uint64_t uBytes, const std::string& strName, size_t uBufferBytes);

  // The next line, or bHave false at the end of the run. A run that ends inside a record or
  // names more shared bytes than the line before it had is EIO (a damaged scratch file).
  CQiError Next(const char*& pData, size_t& uLength, bool& bHave);

 private:
  // Makes at least uBytes available from m_uPos, or all that is left of the run.
  CQiError Fill(size_t uBytes);
  bool GetVarint(uint64_t& value);

  int m_iFd;
  uint64_t m_uSize;
  std::string m_strName;
  std::unique_ptr<char[]> m_pBuffer;
  size_t m_uCapacity;
  size_t m_uPos = 0;
  size_t m_uEnd = 0;
  uint64_t m_uOffset = 0;  // run bytes read into the buffer so far
  std::string m_strLine;
};
