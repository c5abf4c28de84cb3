#include "Platform/LogWriterInterface.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <mutex>

#include "Platform/FXString.h"
#include "Platform/LogWriterInterfaceThreadWrapper.h"

namespace {
std::mutex g_processWriterMutex;
std::shared_ptr<CLogWriterInterface> g_processWriterHolder;
std::atomic<CLogWriterInterface*> g_processWriter{nullptr};

long CurrentThreadId() {
  thread_local long tid = static_cast<long>(syscall(SYS_gettid));
  return tid;
}
}  // namespace

CLogWriterInterface::CLogWriterInterface(int level) : m_iLevel(level) {}

CLogWriterInterface::~CLogWriterInterface() = default;

void CLogWriterInterface::SetLevel(int level) {
  if (level < kLevelAlways) level = kLevelAlways;
  if (level > kLevelMax) level = kLevelMax;
  m_iLevel.store(level, std::memory_order_relaxed);
}

void CLogWriterInterface::Log(int level, const char* function, int line, const char* format,
                              ...) {
  if (!IsLevelOn(level)) return;
  va_list args;
  va_start(args, format);
  LogV(level, function, line, format, args);
  va_end(args);
}

void CLogWriterInterface::LogV(int level, const char* function, int line, const char* format,
                               va_list args) {
  if (!IsLevelOn(level)) return;
  static const std::string kNoContext;
  SLogRecord record;
  record.level = level;
  record.function = function ? function : "";
  record.line = line;
  record.threadId = CurrentThreadId();
  CLogWriterInterfaceThreadWrapper* wrapper = CLogWriterInterfaceThreadWrapper::CurrentForThread();
  record.context = wrapper ? &wrapper->GetContext() : &kNoContext;
  record.text = FXString::FormatV(format, args);
  Write(record);
}

std::shared_ptr<CLogWriterInterfaceThreadWrapper> CLogWriterInterface::GetThreadWrapper(
    const std::string& context) {
  return std::make_shared<CLogWriterInterfaceThreadWrapper>(shared_from_this(), context);
}

void CLogWriterInterface::SetProcessLogWriter(std::shared_ptr<CLogWriterInterface> writer) {
  std::lock_guard<std::mutex> lock(g_processWriterMutex);
  g_processWriter.store(writer.get(), std::memory_order_release);
  // The old writer stays alive until here; threads that loaded its raw pointer a moment ago
  // finish their call before a caller can sensibly destroy it.
  g_processWriterHolder = std::move(writer);
}

std::shared_ptr<CLogWriterInterface> CLogWriterInterface::GetProcessLogWriter() {
  std::lock_guard<std::mutex> lock(g_processWriterMutex);
  return g_processWriterHolder;
}

CLogWriterInterface* CLogWriterInterface::Current() {
  CLogWriterInterfaceThreadWrapper* wrapper = CLogWriterInterfaceThreadWrapper::CurrentForThread();
  if (wrapper != nullptr) return wrapper->GetWriter();
  return g_processWriter.load(std::memory_order_acquire);
}
