// BFilterTermOptions: option bits of one CFilterTerm.
//
// Without options (value 0, which is also what a default-constructed term has) a term matches
// case-sensitively unless its set has SetUseInsensitiveFilterForWildCard on, and then only when
// the term is a wildcard item. The two case bits override that per term:
//   CaseInsensitive  the term always ignores ASCII case, wildcard or plain, whatever the set says;
//   CaseSensitive    the term always respects case, even when the set asks for insensitive
//                    wildcard matching.
// Setting both is refused by CFilterTerm::LoadRaw (Win32 87). Unknown bits are refused as well.
#pragma once

#include <cstdint>

enum class BFilterTermOptions : uint32_t {
  None = 0,
  CaseInsensitive = 0x1,
  CaseSensitive = 0x2,
  Default = None,
};

inline constexpr uint32_t kFilterTermOptionsKnownBits = 0x3;

constexpr BFilterTermOptions operator|(BFilterTermOptions a, BFilterTermOptions b) {
  return static_cast<BFilterTermOptions>(static_cast<uint32_t>(a) | static_cast<uint32_t>(b));
}

constexpr BFilterTermOptions operator&(BFilterTermOptions a, BFilterTermOptions b) {
  return static_cast<BFilterTermOptions>(static_cast<uint32_t>(a) & static_cast<uint32_t>(b));
}

constexpr bool HasFilterTermOption(BFilterTermOptions options, BFilterTermOptions bit) {
  return (static_cast<uint32_t>(options) & static_cast<uint32_t>(bit)) != 0;
}
