#include "Scan/Unix/AnalyticsJson.h"

#include <cstdint>
#include <cstdio>

namespace {
// Length of the valid UTF-8 sequence starting at text[i], or 0 when it is not one (overlong
// forms, surrogates and code points above U+10FFFF are not valid).
size_t Utf8SequenceLength(std::string_view text, size_t i) {
  const unsigned char c = static_cast<unsigned char>(text[i]);
  size_t length = 0;
  uint32_t min = 0, cp = 0;
  if (c >= 0xC2 && c <= 0xDF) {
    length = 2, min = 0x80, cp = c & 0x1F;
  } else if (c >= 0xE0 && c <= 0xEF) {
    length = 3, min = 0x800, cp = c & 0x0F;
  } else if (c >= 0xF0 && c <= 0xF4) {
    length = 4, min = 0x10000, cp = c & 0x07;
  } else {
    return 0;
  }
  if (i + length > text.size()) return 0;
  for (size_t k = 1; k < length; ++k) {
    const unsigned char next = static_cast<unsigned char>(text[i + k]);
    if ((next & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (next & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return length;
}

void AppendEscapedByte(std::string& strOut, unsigned char c) {
  char buffer[8];
  snprintf(buffer, sizeof(buffer), "\\u%04x", c);
  strOut += buffer;
}
}  // namespace

void CAnalyticsJson::AppendString(std::string& strOut, std::string_view text) {
  strOut.push_back('"');
  for (size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c >= 0x80) {
      size_t length = Utf8SequenceLength(text, i);
      if (length == 0) {
        AppendEscapedByte(strOut, c);
        ++i;
      } else {
        strOut.append(text.substr(i, length));
        i += length;
      }
      continue;
    }
    switch (c) {
      case '"':
        strOut += "\\\"";
        break;
      case '\\':
        strOut += "\\\\";
        break;
      case '\b':
        strOut += "\\b";
        break;
      case '\f':
        strOut += "\\f";
        break;
      case '\n':
        strOut += "\\n";
        break;
      case '\r':
        strOut += "\\r";
        break;
      case '\t':
        strOut += "\\t";
        break;
      default:
        if (c < 0x20)
          AppendEscapedByte(strOut, c);
        else
          strOut.push_back(static_cast<char>(c));
    }
    ++i;
  }
  strOut.push_back('"');
}

std::string CAnalyticsJson::ObjectFromMap(const std::map<std::string, std::string>& mapValues) {
  std::string strOut = "{";
  for (const auto& [key, value] : mapValues) {
    if (strOut.size() > 1) strOut.push_back(',');
    AppendString(strOut, key);
    strOut.push_back(':');
    AppendString(strOut, value);
  }
  strOut.push_back('}');
  return strOut;
}
