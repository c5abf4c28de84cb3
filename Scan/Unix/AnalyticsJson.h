// CAnalyticsJson: the small JSON renderings of the analytics attributes (the security-info map,
// access-list criteria, owner-change requests).
//
// Strings are rendered as JSON strings: '"' and '\' are escaped, control bytes become \n, \t,
// ... or \u00XX, valid UTF-8 passes unchanged, and each byte that is not part of a valid UTF-8
// sequence (names are bytes on this platform) becomes \u00XX (the byte read as Latin-1), so the
// output is always valid JSON. Stateless; safe from any thread.
#pragma once

#include <map>
#include <string>
#include <string_view>

class CAnalyticsJson {
 public:
  // Appends text as a quoted JSON string.
  static void AppendString(std::string& strOut, std::string_view text);
  // {"key":"value",...} in key order; "{}" for an empty map.
  static std::string ObjectFromMap(const std::map<std::string, std::string>& mapValues);
};
