// CFilterTerm: one filter item, parsed: a plain path or a wildcard pattern.
//
// Syntax (docs/filters.md has the full table):
//   - A plain item (no '*', '?' or '[') names a path. It matches that path and everything below
//     it, component-wise: "/data" matches "/data" and "/data/x", not "/database". A plain item
//     without any '/' ("core") names a file or folder name and matches it at any depth.
//   - A wildcard item is a glob over the whole path: '*' any run of bytes without '/', '**' any
//     run (a whole "/**/" component may also stand for no folder at all: "/a/**/b" matches
//     "/a/b"), '?' one byte other than '/', "[...]" one byte of a class ("[!...]" or "[^...]"
//     negates; ranges "a-z"; named classes "[:alpha:]" and the like; a class never matches '/'),
//     '\' makes the next byte literal. A pattern without '/' ("*.tmp") is a name pattern: it is
//     tested against every component, so it matches the name at any depth.
//   - Every item matches a path T when it matches T itself or any ancestor of T: what lies below
//     a matched folder is matched too.
// Items are normalized like test strings (CFilterTermTestString::NormalizePath): "//" collapses,
// trailing '/' goes.
//
// LoadRaw refuses, with Win32 87 (invalid parameter): an empty item, an item holding a NUL byte,
// a pattern longer than PATH_MAX or with more than 64 '*' groups, and conflicting options; with
// Win32 13 (invalid data): an unterminated '[' class, an unknown "[:name:]", a reversed range
// ("[z-a]"), a class holding '/', a trailing lone '\'.
//
// The filter prefix (GetFilterPrefix) is the fixed leading folders before the first component
// that holds a wildcard: "/data/x" for "/data/x/*/y.txt", "/data" for "/data/x*/y", "/" for
// "/*/a" (the wildcard starts right at the top), "" for a name pattern ("*.tmp") or a relative
// pattern starting with a wildcard ("**/x"). For a plain item it is the item itself. Escapes are
// resolved in the prefix ("/a\*b/*" gives "/a*b").
//
// A term is filled once (LoadRaw) by one thread and then only read: any number of threads may
// match against it at once. CFilterSet holds terms through CFilterTermPtr.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "Platform/FilterTermOptions.h"
#include "Platform/FilterTermTestString.h"
#include "Platform/QiError.h"

class CFilterTerm {
 public:
  // How a term reaches a path; the same bits as CFilterSet's applies mode 1 and 2.
  static constexpr unsigned kMatchSelf = 1;   // the item matches T itself
  static constexpr unsigned kMatchBelow = 2;  // the item matches an ancestor of T
  static constexpr unsigned kMatchAtOrBelow = kMatchSelf | kMatchBelow;

  static constexpr size_t kMaxStarGroups = 64;

  CFilterTerm() = default;  // the default term: options BFilterTermOptions::Default
  explicit CFilterTerm(BFilterTermOptions options) : m_eOptions(options) {}

  // True when the string holds '*', '?' or '[' and is therefore read as a pattern.
  static bool IsWildcardItem(std::string_view item);

  // Parses and checks an item; on failure the term stays unloaded.
  CQiError LoadRaw(const std::string& item);

  bool IsLoaded() const { return m_bLoaded; }
  bool IsWildcard() const { return m_eKind != EKind::Plain && m_eKind != EKind::PlainName; }
  // True for items without '/': they are tested against each component of a path.
  bool IsNameItem() const {
    return m_eKind == EKind::PlainName || m_eKind == EKind::NameSuffix ||
           m_eKind == EKind::NameGlob;
  }
  BFilterTermOptions GetOptions() const { return m_eOptions; }
  const std::string& GetRawItem() const { return m_strRaw; }
  // The normalized item: the path of a plain item, the pattern of a wildcard item.
  const std::string& GetItem() const { return m_strItem; }
  const std::string& GetFilterPrefix() const { return m_strPrefix; }

  // Whether matching ignores case, given the set's "insensitive wildcards" switch.
  bool IsCaseInsensitive(bool bSetInsensitiveWildcards) const;

  // Whether the term matches T itself (kMatchSelf) and/or an ancestor of T (kMatchBelow).
  bool Matches(const CFilterTermTestString& test, unsigned matchBits,
               bool bSetInsensitiveWildcards = false) const;
  // Whether the term could match F or something below F: it matches F or an ancestor of F, or
  // some path below F could match it. Name items answer true for any non-empty F. Errs towards
  // true (it is used to decide whether a folder needs to be entered).
  bool CouldMatchAtOrBelow(const CFilterTermTestString& folder,
                           bool bSetInsensitiveWildcards = false) const;

 private:
  enum class EKind {
    Unloaded,
    Plain,       // a path without wildcards
    PlainName,   // a name without wildcards and without '/'
    NameSuffix,  // "*" followed by literal bytes, without '/': "*.tmp"
    NameGlob,    // any other pattern without '/'
    PathGlob,    // a pattern with '/'
  };

  static CQiError CheckPattern(std::string_view pattern);
  static std::string MakePrefix(std::string_view pattern);
  bool MatchName(std::string_view name, bool bFold) const;

  BFilterTermOptions m_eOptions = BFilterTermOptions::Default;
  bool m_bLoaded = false;
  EKind m_eKind = EKind::Unloaded;
  std::string m_strRaw;
  std::string m_strItem;
  std::string m_strPrefix;
  std::string m_strSuffix;  // the literal tail of a NameSuffix pattern
};

using CFilterTermPtr = std::shared_ptr<CFilterTerm>;

// The glob engine behind CFilterTerm, exposed for CFilterSet and for tests. The pattern must have
// passed LoadRaw's checks. Flags say which outcomes count as a match:
//   kGlobWhole     the pattern matches the whole text;
//   kGlobAncestor  the pattern matches a leading part of the text that ends before a '/';
//   kGlobPartial   a path below the text could match: the pattern can consume the text
//                  followed by a '/' (just the text when it already ends in '/', as "/" does)
//                  without a mismatch. Whatever the rest of the pattern asks for is assumed to
//                  exist, so the answer errs towards yes.
namespace FilterGlob {
inline constexpr unsigned kGlobWhole = 1;
inline constexpr unsigned kGlobAncestor = 2;
inline constexpr unsigned kGlobPartial = 4;
bool Match(std::string_view pattern, std::string_view text, unsigned flags, bool bFold);
}  // namespace FilterGlob
