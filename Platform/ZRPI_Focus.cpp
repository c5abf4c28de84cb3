#include "Platform/ZRPI_Focus.h"

#include <cstdlib>
#include <mutex>

#include "Platform/ErrorCodes.h"
#include "Platform/FXErrorUtil.h"

namespace {
struct SFocus {
  std::mutex mutex;
  std::string strInstance;

  SFocus() {
    const char* pszEnv = std::getenv(ZRPI_Focus::kInstanceEnvironmentVariable);
    strInstance = (pszEnv != nullptr && *pszEnv != '\0') ? pszEnv : ZRPI_Focus::kDefaultInstance;
  }
};

// Made on first use (thread-safe static), so the environment is read once.
SFocus& Focus() {
  static SFocus focus;
  return focus;
}
}  // namespace

std::string ZRPI_Focus::getFocus() {
  SFocus& focus = Focus();
  std::lock_guard<std::mutex> lock(focus.mutex);
  return focus.strInstance;
}

CQiError ZRPI_Focus::setFocus(const std::string& strInstance) {
  if (strInstance.empty())
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Empty instance name");
  if (strInstance.find('\0') != std::string::npos)
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Instance name holds a NUL byte");
  SFocus& focus = Focus();
  std::lock_guard<std::mutex> lock(focus.mutex);
  focus.strInstance = strInstance;
  return CQiError();
}
