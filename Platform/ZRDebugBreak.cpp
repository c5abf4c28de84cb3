#include "Platform/ZRDebugBreak.h"

#include <sys/stat.h>

#include <chrono>
#include <thread>

#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"

void ZRDebugBreak::Hook(const std::string& strFile, const std::function<bool()>& abortCheck) {
  struct stat st {};
  if (stat(strFile.c_str(), &st) != 0) return;
  ZRLOG(0, "Debug hook %s present, waiting until it is removed",
        FXString::EscapeControl(strFile).c_str());
  while (stat(strFile.c_str(), &st) == 0) {
    if (abortCheck && abortCheck()) return;
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
}
