#include "Platform/QiError.h"

#include <cstdio>
#include <cstring>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"

CQiError::CQiError(EQiErrorSpace space, uint32_t code) : m_eSpace(space), m_uCode(code) {}

std::string CQiError::GetMessage() const {
  for (const SFrame& frame : m_vFrames) {
    if (!frame.text.empty()) return frame.text;
  }
  return std::string();
}

CQiError& CQiError::Push(const char* file, const char* function, int line) {
  m_vFrames.push_back(SFrame{file, function, line, std::string()});
  return *this;
}

CQiError& CQiError::Push(const char* file, const char* function, int line, const char* format,
                         ...) {
  va_list args;
  va_start(args, format);
  PushV(file, function, line, format, args);
  va_end(args);
  return *this;
}

CQiError& CQiError::PushV(const char* file, const char* function, int line, const char* format,
                          va_list args) {
  m_vFrames.push_back(SFrame{file, function, line, FXString::FormatV(format, args)});
  return *this;
}

CQiError& CQiError::AppendText(const char* format, ...) {
  if (m_vFrames.empty()) m_vFrames.push_back(SFrame{});
  va_list args;
  va_start(args, format);
  m_vFrames.back().text += FXString::FormatV(format, args);
  va_end(args);
  return *this;
}

std::string CQiError::CodeAsString() const {
  switch (m_eSpace) {
    case EQiErrorSpace::None:
      return "success";
    case EQiErrorSpace::Win32:
      return FXString::Format("Win32 error %u (%s)", m_uCode, FXErrorUtil::Win32Text(m_uCode));
    case EQiErrorSpace::ErrNo: {
      char buffer[256];
      const char* text = strerror_r(static_cast<int>(m_uCode), buffer, sizeof buffer);
      return FXString::Format("errno %u (%s)", m_uCode, text);
    }
    case EQiErrorSpace::Event:
      return FXString::Format("Event 0x%X", m_uCode);
  }
  return std::string();
}

std::string CQiError::AsString() const {
  std::string out = CodeAsString();
  // Newest frame first reads like a call stack; the raising place ends the list.
  for (auto it = m_vFrames.rbegin(); it != m_vFrames.rend(); ++it) {
    const char* base = std::strrchr(it->file, '/');
    out += FXString::Format(" <- [%s:%d %s]", base ? base + 1 : it->file, it->line, it->function);
    if (!it->text.empty()) {
      out += ' ';
      out += it->text;
    }
  }
  return out;
}
