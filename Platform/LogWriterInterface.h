// CLogWriterInterface: the log writer shared by every thread of a scan.
//
// Levels run from -1 (failures that are reported and survived; always written while logging is
// on) to 7 (tolerated refusals of output handlers). A message is written only when logging is on
// and its level is at most the writer's level; the ZRLOG macros test that before any formatting,
// so a message that is not written costs one load and one compare.
//
// One writer is process-wide (SetProcessLogWriter). A thread may hold a
// CLogWriterInterfaceThreadWrapper, which makes a writer that thread's current one and tags its
// lines with the thread's context. Subclasses implement Write(); it is called from many threads
// at once and must guard itself.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "Platform/QiError.h"

class CLogWriterInterfaceThreadWrapper;

class CLogWriterInterface : public std::enable_shared_from_this<CLogWriterInterface> {
 public:
  static constexpr int kLevelAlways = -1;
  static constexpr int kLevelMax = 7;

  struct SLogRecord {
    int level = 0;
    const char* function = "";
    int line = 0;
    long threadId = 0;
    const std::string* context = nullptr;  // thread context, may be empty
    std::string text;
  };

  explicit CLogWriterInterface(int level = 1);
  virtual ~CLogWriterInterface();
  CLogWriterInterface(const CLogWriterInterface&) = delete;
  CLogWriterInterface& operator=(const CLogWriterInterface&) = delete;

  bool IsLoggingOn() const { return m_bLoggingOn.load(std::memory_order_relaxed); }
  int GetLevel() const { return m_iLevel.load(std::memory_order_relaxed); }
  void SetLevel(int level);
  void SetLoggingOn(bool on) { m_bLoggingOn.store(on, std::memory_order_relaxed); }
  bool IsLevelOn(int level) const { return IsLoggingOn() && level <= GetLevel(); }

  // Formats and writes one message when its level is on.
  void Log(int level, const char* function, int line, const char* format, ...)
      QI_PRINTF_FORMAT(5, 6);
  void LogV(int level, const char* function, int line, const char* format, va_list args);

  // A wrapper that makes this writer the calling thread's current writer while it lives, with
  // the given context on each line. It must be destroyed on the thread that made it.
  std::shared_ptr<CLogWriterInterfaceThreadWrapper> GetThreadWrapper(
      const std::string& context = std::string());

  virtual void Flush() {}

  // The process-wide writer; an empty pointer switches process-wide logging off.
  static void SetProcessLogWriter(std::shared_ptr<CLogWriterInterface> writer);
  static std::shared_ptr<CLogWriterInterface> GetProcessLogWriter();
  // The writer of the calling thread: its wrapper's writer, else the process-wide one, else null.
  static CLogWriterInterface* Current();
  // Whether the current writer would write a message of the level (false without a writer).
  static bool IsCurrentLevelOn(int level) {
    const CLogWriterInterface* pWriter = Current();
    return pWriter != nullptr && pWriter->IsLevelOn(level);
  }

 protected:
  virtual void Write(const SLogRecord& record) = 0;

 private:
  std::atomic<bool> m_bLoggingOn{true};
  std::atomic<int> m_iLevel;
};

using CLogWriterInterfacePtr = std::shared_ptr<CLogWriterInterface>;

// Logs through the calling thread's current writer.
#define ZRLOG(level, ...)                                                         \
  do {                                                                            \
    CLogWriterInterface* zrLogWriter_ = CLogWriterInterface::Current();           \
    if (zrLogWriter_ != nullptr && zrLogWriter_->IsLevelOn(level))                \
      zrLogWriter_->Log((level), __PRETTY_FUNCTION__, __LINE__, __VA_ARGS__);     \
  } while (0)

// Logs through an explicit writer (raw or shared pointer, may be empty).
#define ZRLOG_TO(writer, level, ...)                                              \
  do {                                                                            \
    const auto& zrLogTarget_ = (writer);                                          \
    if (zrLogTarget_ && zrLogTarget_->IsLevelOn(level))                           \
      zrLogTarget_->Log((level), __PRETTY_FUNCTION__, __LINE__, __VA_ARGS__);     \
  } while (0)

// True when a message of the level would be written by the current writer.
#define ZRLOG_ON(level) CLogWriterInterface::IsCurrentLevelOn(level)
