#include "Platform/ShellQuote.h"

#include <cstring>

bool ShellQuote::IsBare(std::string_view text) {
  if (text.empty()) return false;
  for (const char c : text) {
    const bool bPlain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                        (c != '\0' && std::strchr("/._-+,:@%=", c) != nullptr);
    if (!bPlain) return false;
  }
  return true;
}

std::string ShellQuote::Word(std::string_view text) {
  if (IsBare(text)) return std::string(text);
  std::string strQuoted;
  strQuoted.reserve(text.size() + 2);
  strQuoted.push_back('\'');
  for (const char c : text) {
    if (c == '\'') {
      strQuoted.append("'\\''");
    } else {
      strQuoted.push_back(c);
    }
  }
  strQuoted.push_back('\'');
  return strQuoted;
}

std::string ShellQuote::Argument(std::string_view text) {
  if (!text.empty() && text.front() == '-') return Word(std::string("./").append(text));
  return Word(text);
}

std::string ShellQuote::InDoubleQuotes(std::string_view text) {
  std::string strEscaped;
  strEscaped.reserve(text.size());
  for (const char c : text) {
    if (c == '$' || c == '`' || c == '\\' || c == '"') strEscaped.push_back('\\');
    strEscaped.push_back(c);
  }
  return strEscaped;
}
