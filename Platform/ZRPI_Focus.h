// ZRPI_Focus: the process-wide name of the agent instance that this process works for.
//
// A machine may run several agent instances side by side; every scan engine records the
// instance it scans for (CScanEngine takes getFocus() at construction, SetInstance replaces it).
// The name starts as the value of the environment variable FSSCAN_INSTANCE when that is set and
// not empty, else "Instance001". The environment is read once, on first use; setFocus replaces
// the name for the rest of the process.
//
// Safe from any thread: the name is kept under a mutex and returned by copy.
#pragma once

#include <string>

#include "Platform/QiError.h"

class ZRPI_Focus {
 public:
  static constexpr const char* kDefaultInstance = "Instance001";
  static constexpr const char* kInstanceEnvironmentVariable = "FSSCAN_INSTANCE";

  // The current instance name.
  static std::string getFocus();
  // Replaces the instance name. Win32 87 for an empty name or one holding a NUL byte (the name
  // is then left as it was).
  static CQiError setFocus(const std::string& strInstance);
};
