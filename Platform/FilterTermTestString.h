// CFilterTermTestString: a path prepared once for testing against many filter terms and sets.
//
// The scan builds one test string per file or folder and asks up to three filter sets about it
// (scan content, system filters, filters), each holding any number of terms. Everything that
// matching needs is worked out here once:
//   - the normalized path: runs of '/' collapsed to one and trailing '/' removed ("/" stays "/"),
//     the same normalization CFilterSet applies to its items, so "/a//b/" tests as "/a/b";
//   - the path's ancestors-or-self ("/", "/a", "/a/b" for "/a/b"; "a", "a/b" for "a/b"), each
//     with its byte length, the start of its last component and a hash of its bytes, so that
//     CFilterSet answers "is T or an ancestor of T an item" with one lookup per level.
// Case-insensitive matching folds ASCII case while comparing, so no lowered copy is kept.
// Bytes are bytes: names may hold newlines, backslashes or invalid UTF-8. "." and ".." are not
// resolved; the empty string is a valid test string that no item matches.
//
// A test string is an immutable value once built; several threads may read one at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

class CFilterTermTestString {
 public:
  // One ancestor-or-self of the path: its bytes are [0, end) of the normalized path, its last
  // component is [nameStart, end) (empty for the root "/"), hash is FilterPathHash of [0, end).
  struct SLevel {
    uint32_t end;
    uint32_t nameStart;
    uint64_t hash;
  };

  explicit CFilterTermTestString(std::string_view path);

  // The normalized path.
  const std::string& GetString() const { return m_strPath; }
  // The form used in log lines: one backslash followed by the normalized path with control bytes
  // and backslashes escaped (FXString::EscapeControl), so that "/a/b" prints as "\/a/b" and a
  // name holding a newline stays on one line: "/a<LF>b" prints as "\/a\nb" (backslash, 'n').
  std::string GetStringWithLeadingBackslash() const;

  bool IsAbsolute() const { return !m_strPath.empty() && m_strPath[0] == '/'; }
  bool IsEmpty() const { return m_strPath.empty(); }

  // Ancestors-or-self from the top down; the last level is the path itself. Empty for "".
  size_t GetLevelCount() const { return m_nLevels; }
  const SLevel& GetLevel(size_t index) const {
    return index < kInlineLevels ? m_aInline[index] : m_vOverflow[index - kInlineLevels];
  }
  std::string_view GetPrefix(size_t index) const {
    return std::string_view(m_strPath.data(), GetLevel(index).end);
  }
  std::string_view GetName(size_t index) const {
    const SLevel& level = GetLevel(index);
    return std::string_view(m_strPath.data() + level.nameStart, level.end - level.nameStart);
  }

  // Collapses runs of '/' and removes trailing '/' ("/" and "//" give "/").
  static std::string NormalizePath(std::string_view path);

 private:
  static constexpr size_t kInlineLevels = 24;

  void AddLevel(const SLevel& level);

  std::string m_strPath;
  size_t m_nLevels = 0;
  SLevel m_aInline[kInlineLevels]{};
  std::vector<SLevel> m_vOverflow;  // levels past kInlineLevels, for deep paths only
};

// The 64-bit FNV-1a hash of a byte string, optionally over ASCII-lowered bytes. Incremental:
// FilterPathHashAppend(FilterPathHash(a), b) == FilterPathHash(a + b).
inline constexpr uint64_t kFilterPathHashSeed = 14695981039346656037ull;
inline uint64_t FilterPathHashAppend(uint64_t hash, std::string_view bytes, bool bFold = false) {
  for (char c : bytes) {
    unsigned char u = static_cast<unsigned char>(c);
    if (bFold && u >= 'A' && u <= 'Z') u = static_cast<unsigned char>(u - 'A' + 'a');
    hash = (hash ^ u) * 1099511628211ull;
  }
  return hash;
}
inline uint64_t FilterPathHash(std::string_view bytes, bool bFold = false) {
  return FilterPathHashAppend(kFilterPathHashSeed, bytes, bFold);
}
