// Ordering comparators for std::set / std::map keyed by strings.
//
// __less_fscase_cmp orders strings the way this platform's file systems compare names: byte by
// byte, case-sensitive, exactly as strcmp orders them (bytes compared as unsigned char; a string
// that is a prefix of another sorts first). Two strings are then equivalent only when they are
// identical, so a set of caller-given filter strings stores "/Data" and "/data" separately.
//
// __lesscasecmp orders strings without regard to ASCII case ("/Data" and "/DATA" are one key);
// bytes outside A-Z/a-z, including every byte >= 0x80, compare as they are.
//
// Both are stateless, transparent (std::string, std::string_view and const char* keys may be
// mixed in lookups) and safe to use from any thread. The names are the platform's own.
#pragma once

#include <string_view>

#include "Platform/FXString.h"

struct __less_fscase_cmp {
  using is_transparent = void;
  bool operator()(std::string_view a, std::string_view b) const {
    // char_traits<char> compares as unsigned char: the strcmp order, NUL bytes included.
    return a.compare(b) < 0;
  }
};

struct __lesscasecmp {
  using is_transparent = void;
  bool operator()(std::string_view a, std::string_view b) const {
    return FXString::CompareNoCase(a, b) < 0;
  }
};
