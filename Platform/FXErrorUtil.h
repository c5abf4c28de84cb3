// FXErrorUtil: builders of CQiError values.
//
// ErrorWin32 makes an error in the system code space, ErrorErrNo one in the C-library errno
// space; both record the raising place as the first frame. Use the QI_ERROR_WIN32 and
// QI_ERROR_ERRNO macros so the place is filled in. Stateless and safe from any thread.
#pragma once

#include <cstdint>

#include "Platform/QiError.h"

class FXErrorUtil {
 public:
  static CQiError ErrorWin32(uint32_t code, const char* file, const char* function, int line);
  static CQiError ErrorWin32(uint32_t code, const char* file, const char* function, int line,
                             const char* format, ...) QI_PRINTF_FORMAT(5, 6);
  static CQiError ErrorErrNo(int err, const char* file, const char* function, int line);
  static CQiError ErrorErrNo(int err, const char* file, const char* function, int line,
                             const char* format, ...) QI_PRINTF_FORMAT(5, 6);

  // An event message: a CQiError in the Event code space whose code is the event id, with the
  // raising place as its first frame and the optional text in that frame (text appended later
  // with AppendText lands there too). Send it with ISendEventInterface::SendEventMessage.
  static CQiError ErrorEventMessage(uint32_t eventId, const char* file, const char* function,
                                    int line);
  static CQiError ErrorEventMessage(uint32_t eventId, const char* file, const char* function,
                                    int line, const char* format, ...) QI_PRINTF_FORMAT(5, 6);

  // Short English description of a system code used by this library.
  static const char* Win32Text(uint32_t code);
};

#define QI_ERROR_WIN32(code, ...) \
  FXErrorUtil::ErrorWin32((code), __FILE__, __PRETTY_FUNCTION__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)
#define QI_ERROR_ERRNO(err, ...) \
  FXErrorUtil::ErrorErrNo((err), __FILE__, __PRETTY_FUNCTION__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)
#define QI_ERROR_EVENT(eventId, ...)                                                  \
  FXErrorUtil::ErrorEventMessage((eventId), __FILE__, __PRETTY_FUNCTION__, __LINE__ \
                                 __VA_OPT__(, ) __VA_ARGS__)
