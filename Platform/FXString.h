// FXString: string helpers shared by the platform layer and the scan library.
//
// All functions are stateless and safe from any thread. Strings are byte strings: nothing here
// assumes UTF-8, and case folding touches ASCII letters only (file names may hold any byte).
#pragma once

#include <cstdarg>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/QiError.h"

class FXString {
 public:
  static std::string Format(const char* format, ...) QI_PRINTF_FORMAT(1, 2);
  static std::string FormatV(const char* format, va_list args);

  static std::string ToLower(std::string_view text);
  static std::string ToUpper(std::string_view text);
  // Case-insensitive (ASCII) three-way comparison: <0, 0, >0.
  static int CompareNoCase(std::string_view a, std::string_view b);
  static bool EqualsNoCase(std::string_view a, std::string_view b);

  static bool StartsWith(std::string_view text, std::string_view prefix);
  static bool EndsWith(std::string_view text, std::string_view suffix);
  static std::string Trim(std::string_view text);  // blanks, tabs, CR and LF at both ends
  static std::vector<std::string> Split(std::string_view text, char delimiter);
  static std::string Join(const std::vector<std::string>& parts, std::string_view delimiter);

  // Parses a whole string as a signed/unsigned 64-bit number (decimal, or 0x hex).
  // Returns Win32 13 for an empty string, trailing garbage or overflow.
  static CQiError ToInt64(std::string_view text, long long& value);
  static CQiError ToUInt64(std::string_view text, unsigned long long& value);

  // Escapes control bytes (< 0x20 and 0x7f) and backslashes as \n, \t, \\ or \xHH, so that
  // any file name prints on one line. Bytes >= 0x80 pass through unchanged.
  static std::string EscapeControl(std::string_view text);
};
