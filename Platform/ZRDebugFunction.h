// ZRDebugFunction: a scoped function trace.
//
// Logs "Entering" with an optional formatted text when made and "Leaving" with the same text
// and the time spent when destroyed, both at the given level under the given function name,
// through the current writer of the thread that made it. Nothing is formatted when the level is
// off. Use it on one thread only; ZRDEBUG_FUNCTION(level) traces the enclosing function.
#pragma once

#include <chrono>
#include <string>

#include "Platform/LogWriterInterface.h"

class ZRDebugFunction {
 public:
  ZRDebugFunction(int level, const char* function, int line);
  ZRDebugFunction(int level, const char* function, int line, const char* format, ...)
      QI_PRINTF_FORMAT(5, 6);
  ~ZRDebugFunction();
  ZRDebugFunction(const ZRDebugFunction&) = delete;
  ZRDebugFunction& operator=(const ZRDebugFunction&) = delete;

  bool IsActive() const { return m_bActive; }

 private:
  void Enter();

  int m_iLevel;
  const char* m_szFunction;
  int m_iLine;
  bool m_bActive = false;
  std::string m_strText;
  std::chrono::steady_clock::time_point m_tStart;
};

#define ZRDEBUG_FUNCTION(level) \
  ZRDebugFunction zrDebugFunction_##__LINE__((level), __PRETTY_FUNCTION__, __LINE__)
