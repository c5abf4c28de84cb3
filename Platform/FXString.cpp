#include "Platform/FXString.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "Platform/FXErrorUtil.h"

std::string FXString::Format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string out = FormatV(format, args);
  va_end(args);
  return out;
}

std::string FXString::FormatV(const char* format, va_list args) {
  if (format == nullptr) return std::string();
  char stackBuffer[512];
  va_list copy;
  va_copy(copy, args);
  int needed = vsnprintf(stackBuffer, sizeof stackBuffer, format, copy);
  va_end(copy);
  if (needed < 0) return std::string();
  if (static_cast<size_t>(needed) < sizeof stackBuffer) return std::string(stackBuffer, needed);
  std::string out(static_cast<size_t>(needed), '\0');
  vsnprintf(out.data(), out.size() + 1, format, args);
  return out;
}

static inline char LowerAscii(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string FXString::ToLower(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = LowerAscii(c);
  return out;
}

std::string FXString::ToUpper(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return out;
}

int FXString::CompareNoCase(std::string_view a, std::string_view b) {
  size_t n = a.size() < b.size() ? a.size() : b.size();
  for (size_t i = 0; i < n; ++i) {
    unsigned char ca = static_cast<unsigned char>(LowerAscii(a[i]));
    unsigned char cb = static_cast<unsigned char>(LowerAscii(b[i]));
    if (ca != cb) return ca < cb ? -1 : 1;
  }
  if (a.size() == b.size()) return 0;
  return a.size() < b.size() ? -1 : 1;
}

bool FXString::EqualsNoCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && CompareNoCase(a, b) == 0;
}

bool FXString::StartsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

bool FXString::EndsWith(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

std::string FXString::Trim(std::string_view text) {
  auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
  size_t b = 0, e = text.size();
  while (b < e && blank(text[b])) ++b;
  while (e > b && blank(text[e - 1])) --e;
  return std::string(text.substr(b, e - b));
}

std::vector<std::string> FXString::Split(std::string_view text, char delimiter) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (;;) {
    size_t pos = text.find(delimiter, start);
    if (pos == std::string_view::npos) {
      parts.emplace_back(text.substr(start));
      return parts;
    }
    parts.emplace_back(text.substr(start, pos - start));
    start = pos + 1;
  }
}

std::string FXString::Join(const std::vector<std::string>& parts, std::string_view delimiter) {
  std::string out;
  for (size_t i = 0; i < parts.size(); ++i) {
    if (i) out += delimiter;
    out += parts[i];
  }
  return out;
}

CQiError FXString::ToInt64(std::string_view text, long long& value) {
  std::string s = Trim(text);
  if (s.empty()) return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Not a number: empty string");
  errno = 0;
  char* end = nullptr;
  long long v = strtoll(s.c_str(), &end, 0);
  if (errno != 0 || end == s.c_str() || *end != '\0')
    return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Not a number: [%s]", s.c_str());
  value = v;
  return CQiError();
}

CQiError FXString::ToUInt64(std::string_view text, unsigned long long& value) {
  std::string s = Trim(text);
  if (s.empty() || s[0] == '-')
    return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Not an unsigned number: [%s]", s.c_str());
  errno = 0;
  char* end = nullptr;
  unsigned long long v = strtoull(s.c_str(), &end, 0);
  if (errno != 0 || end == s.c_str() || *end != '\0')
    return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Not an unsigned number: [%s]", s.c_str());
  value = v;
  return CQiError();
}

std::string FXString::EscapeControl(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char ch : text) {
    unsigned char c = static_cast<unsigned char>(ch);
    switch (c) {
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      case '\r': out += "\\r"; break;
      case '\\': out += "\\\\"; break;
      default:
        if (c < 0x20 || c == 0x7f) {
          char buf[8];
          snprintf(buf, sizeof buf, "\\x%02x", c);
          out += buf;
        } else {
          out += ch;
        }
    }
  }
  return out;
}
