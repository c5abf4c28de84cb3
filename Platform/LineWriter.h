// CLineWriter: a sink of whole text lines (the diagnostic dump of the work units).
//
// WriteLine appends one line; the sink adds the line end. Implementations guard themselves, so
// a writer may be shared between threads. CFileLineWriter writes to a file or stderr,
// CMemoryLineWriter keeps the lines in memory.
#pragma once

#include <memory>
#include <string>

#include "Platform/QiError.h"

class CLineWriter {
 public:
  virtual ~CLineWriter() = default;
  virtual CQiError WriteLine(const std::string& line) = 0;
};

using CLineWriterPtr = std::shared_ptr<CLineWriter>;
