// CLogCapture: makes a capture writer the process log writer while it lives, so that a test can
// assert on the exact messages the code under test wrote, and their levels.
#pragma once

#include <memory>

#include "Platform/CaptureLogWriter.h"
#include "Platform/LogWriterInterface.h"

class CLogCapture {
 public:
  explicit CLogCapture(int level = CLogWriterInterface::kLevelMax)
      : m_pWriter(std::make_shared<CCaptureLogWriter>(level)) {
    CLogWriterInterface::SetProcessLogWriter(m_pWriter);
  }
  ~CLogCapture() { CLogWriterInterface::SetProcessLogWriter(nullptr); }
  CLogCapture(const CLogCapture&) = delete;
  CLogCapture& operator=(const CLogCapture&) = delete;

  CCaptureLogWriter& operator*() const { return *m_pWriter; }
  CCaptureLogWriter* operator->() const { return m_pWriter.get(); }
  const std::shared_ptr<CCaptureLogWriter>& Writer() const { return m_pWriter; }

 private:
  std::shared_ptr<CCaptureLogWriter> m_pWriter;
};
