// CQiError: the error value returned by every operation that can fail.
//
// An empty error means success. A failure carries one numeric code in a code space (system
// code or C-library errno) and a stack of frames: the place that raised the error first, then
// every place that passed it upward (pushed with QI_PUSH). AsString() renders the whole chain
// for "error=%s" log lines.
//
// A CQiError is a value: copy it freely. It is not synchronised; one thread uses one value.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <string>
#include <vector>

#include "Platform/ErrorCodes.h"

#define QI_PRINTF_FORMAT(fmtIndex, argIndex) __attribute__((format(printf, fmtIndex, argIndex)))

class [[nodiscard]] CQiError {
 public:
  // Event: the code is the numeric id of an event raised to the job (see
  // FXErrorUtil::ErrorEventMessage and ISendEventInterface); it is not a failure code.
  enum class EQiErrorSpace : uint8_t { None = 0, Win32 = 1, ErrNo = 2, Event = 3 };

  struct SFrame {
    const char* file = "";      // __FILE__ of the place (static storage)
    const char* function = "";  // __PRETTY_FUNCTION__ of the place (static storage)
    int line = 0;
    std::string text;           // optional formatted message
  };

  CQiError() = default;
  CQiError(EQiErrorSpace space, uint32_t code);

  bool IsSuccess() const { return m_eSpace == EQiErrorSpace::None; }
  bool IsError() const { return m_eSpace != EQiErrorSpace::None; }

  EQiErrorSpace GetSpace() const { return m_eSpace; }
  uint32_t GetCode() const { return m_uCode; }
  bool IsWin32() const { return m_eSpace == EQiErrorSpace::Win32; }
  bool IsErrNo() const { return m_eSpace == EQiErrorSpace::ErrNo; }
  bool IsWin32(uint32_t code) const { return IsWin32() && m_uCode == code; }
  bool IsErrNo(int err) const { return IsErrNo() && m_uCode == static_cast<uint32_t>(err); }
  bool IsEvent() const { return m_eSpace == EQiErrorSpace::Event; }
  bool IsEvent(uint32_t eventId) const { return IsEvent() && m_uCode == eventId; }

  const std::vector<SFrame>& GetFrames() const { return m_vFrames; }
  // The first non-empty frame text: the message of the place that raised the error.
  std::string GetMessage() const;

  // Adds a frame for the caller's place; with a format, the frame carries the formatted text.
  CQiError& Push(const char* file, const char* function, int line);
  CQiError& Push(const char* file, const char* function, int line, const char* format, ...)
      QI_PRINTF_FORMAT(5, 6);
  CQiError& PushV(const char* file, const char* function, int line, const char* format,
                  va_list args);

  // Appends formatted text to the newest frame (a frame is added when there is none).
  CQiError& AppendText(const char* format, ...) QI_PRINTF_FORMAT(2, 3);

  // "Win32 error 50 (The request is not supported.)" followed by one line per frame.
  std::string AsString() const;
  // The code part alone: "Win32 error 50" / "errno 2 (No such file or directory)" /
  // "Event 0x11000002".
  std::string CodeAsString() const;

  void Clear() { *this = CQiError(); }

 private:
  EQiErrorSpace m_eSpace = EQiErrorSpace::None;
  uint32_t m_uCode = 0;
  std::vector<SFrame> m_vFrames;
};

// Pushes the current place onto an error, with an optional printf-style text:
//   return QI_PUSH(err, "Open failed, Path=%s", path.c_str());
#define QI_PUSH(err, ...) \
  (err).Push(__FILE__, __PRETTY_FUNCTION__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

// Evaluates an expression returning CQiError and returns it, with this place pushed, on failure.
#define QI_RETURN_IF_ERROR(expr, ...)                      \
  do {                                                     \
    CQiError qiErrorTmp_ = (expr);                         \
    if (qiErrorTmp_.IsError()) {                           \
      return QI_PUSH(qiErrorTmp_ __VA_OPT__(, ) __VA_ARGS__); \
    }                                                      \
  } while (0)
