// CCaptureLogWriter: a log writer that keeps every written record in memory, so that tests can
// assert on the exact messages and their levels. Safe from any thread.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "Platform/LogWriterInterface.h"

class CCaptureLogWriter : public CLogWriterInterface {
 public:
  struct SEntry {
    int level;
    std::string function;
    std::string context;
    std::string text;
  };

  explicit CCaptureLogWriter(int level = CLogWriterInterface::kLevelMax);

  std::vector<SEntry> GetEntries() const;
  // Number of written messages whose text equals the given text (any level when level is
  // kAnyLevel).
  static constexpr int kAnyLevel = -100;
  size_t Count(const std::string& text, int level = kAnyLevel) const;
  // Number of written messages whose text contains the fragment.
  size_t CountContaining(const std::string& fragment, int level = kAnyLevel) const;
  void Clear();

 protected:
  void Write(const SLogRecord& record) override;

 private:
  mutable std::mutex m_mutex;
  std::vector<SEntry> m_vEntries;
};
