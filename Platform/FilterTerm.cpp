#include "Platform/FilterTerm.h"

#include <ctype.h>

#include <climits>
#include <cstring>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"

namespace {

inline unsigned char LowerAscii(unsigned char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c - 'A' + 'a') : c;
}
inline unsigned char UpperAscii(unsigned char c) {
  return (c >= 'a' && c <= 'z') ? static_cast<unsigned char>(c - 'a' + 'A') : c;
}
inline bool EqualByte(unsigned char a, unsigned char b, bool bFold) {
  return a == b || (bFold && LowerAscii(a) == LowerAscii(b));
}
inline bool EqualBytes(std::string_view a, std::string_view b, bool bFold) {
  return bFold ? FXString::EqualsNoCase(a, b) : a == b;
}

// The C-locale character classes usable as "[:name:]" inside a bracket expression.
// Returns false for an unknown name.
bool NamedClassContains(std::string_view name, unsigned char c, bool& bMember) {
  static const struct {
    const char* name;
    int (*test)(int);
  } kClasses[] = {{"alnum", isalnum}, {"alpha", isalpha}, {"blank", isblank}, {"cntrl", iscntrl},
                  {"digit", isdigit}, {"graph", isgraph}, {"lower", islower}, {"print", isprint},
                  {"punct", ispunct}, {"space", isspace}, {"upper", isupper}, {"xdigit", isxdigit}};
  for (const auto& entry : kClasses) {
    if (name == entry.name) {
      // Bytes >= 0x80 belong to no class; the ctype tables of the C locale say the same, but do
      // not depend on the process locale for it.
      bMember = c < 0x80 && entry.test(c) != 0;
      return true;
    }
  }
  return false;
}

// Walks a bracket expression whose body starts at p (just after '['). Returns the position just
// past the closing ']' and, when candidates are given, whether any of them is in the class
// (negation applied). On a malformed class returns nullptr and a reason.
const char* ScanClass(const char* p, const char* pEnd, const unsigned char* candidates,
                      size_t nCandidates, bool* pMember, const char** pReason) {
  bool bNegate = false;
  if (p < pEnd && (*p == '!' || *p == '^')) {
    bNegate = true;
    ++p;
  }
  bool bMember = false;
  bool bFirst = true;
  while (true) {
    if (p >= pEnd) {
      if (pReason) *pReason = "Unterminated character class";
      return nullptr;
    }
    if (*p == ']' && !bFirst) break;
    bFirst = false;
    if (*p == '[' && p + 1 < pEnd && p[1] == ':') {
      const char* close = nullptr;
      for (const char* q = p + 2; q + 1 < pEnd; ++q) {
        if (q[0] == ':' && q[1] == ']') {
          close = q;
          break;
        }
        if (*q == ']') break;
      }
      if (close != nullptr) {
        std::string_view name(p + 2, static_cast<size_t>(close - (p + 2)));
        for (size_t i = 0; i < nCandidates; ++i) {
          bool bIn = false;
          if (!NamedClassContains(name, candidates[i], bIn)) {
            if (pReason) *pReason = "Unknown named character class";
            return nullptr;
          }
          bMember = bMember || bIn;
        }
        if (nCandidates == 0) {
          bool bIn = false;
          if (!NamedClassContains(name, 'a', bIn)) {
            if (pReason) *pReason = "Unknown named character class";
            return nullptr;
          }
        }
        p = close + 2;
        continue;
      }
      // No ":]" follows: the '[' is an ordinary member.
    }
    if (*p == '\\') {
      ++p;
      if (p >= pEnd) {
        if (pReason) *pReason = "Unterminated character class";
        return nullptr;
      }
    }
    unsigned char lo = static_cast<unsigned char>(*p++);
    unsigned char hi = lo;
    if (p + 1 < pEnd && *p == '-' && p[1] != ']') {
      ++p;
      if (*p == '\\') {
        ++p;
        if (p >= pEnd) {
          if (pReason) *pReason = "Unterminated character class";
          return nullptr;
        }
      }
      hi = static_cast<unsigned char>(*p++);
      if (hi < lo) {
        if (pReason) *pReason = "Reversed range in character class";
        return nullptr;
      }
    }
    // The matcher never lets a class take '/'; naming it is a mistake worth reporting. A range
    // that merely spans it ("[ -~]") is fine.
    if (lo == '/' || hi == '/') {
      if (pReason) *pReason = "A character class cannot hold '/'";
      return nullptr;
    }
    for (size_t i = 0; i < nCandidates; ++i)
      if (lo <= candidates[i] && candidates[i] <= hi) bMember = true;
  }
  if (pMember) *pMember = bNegate ? !bMember : bMember;
  return p + 1;
}

enum class EGlob { Match, NoMatch, AbortAll, AbortToStarStar };

struct SGlob {
  const char* pBegin;
  const char* pEnd;
  const char* tEnd;
  bool bWhole;     // the pattern may end where the text ends
  bool bAncestor;  // the pattern may end just before a '/' of the text
  // The prefix question: the text (a folder followed by '/') is only the start of a path, so
  // running out of text anywhere in the pattern is a match.
  bool bPrefix;
  bool bFold;
};

// The recursive glob matcher. '*' never crosses '/'; '**' does. The two abort results prune the
// backtracking the way rsync's and git's wildmatch do: AbortAll when the text ran out (no star
// above that gives the rest less text can help), AbortToStarStar when a single '*' hit a '/'
// (only a '**' further up can help).
EGlob DoMatch(const SGlob& g, const char* p, const char* t) {
  while (p < g.pEnd) {
    unsigned char pc = static_cast<unsigned char>(*p);
    if (pc == '*') {
      const char* starStart = p;
      while (p < g.pEnd && *p == '*') ++p;
      const bool bStarStar = (p - starStart) >= 2;
      if (bStarStar && (starStart == g.pBegin || starStart[-1] == '/') && p < g.pEnd && *p == '/') {
        // A whole "**/" component may also stand for no folder at all: "/a/**/b" matches "/a/b".
        if (DoMatch(g, p + 1, t) == EGlob::Match) return EGlob::Match;
      }
      for (const char* s = t;; ++s) {
        EGlob r = DoMatch(g, p, s);
        if (r == EGlob::Match || r == EGlob::AbortAll) return r;
        if (r == EGlob::AbortToStarStar && !bStarStar) return r;
        if (s == g.tEnd) return EGlob::AbortAll;
        if (!bStarStar && *s == '/') return EGlob::AbortToStarStar;
      }
    }
    if (t == g.tEnd) return g.bPrefix ? EGlob::Match : EGlob::AbortAll;
    unsigned char tc = static_cast<unsigned char>(*t);
    if (pc == '?') {
      if (tc == '/') return EGlob::NoMatch;
    } else if (pc == '[') {
      if (tc == '/') return EGlob::NoMatch;
      unsigned char candidates[3] = {tc, LowerAscii(tc), UpperAscii(tc)};
      bool bMember = false;
      const char* next = ScanClass(p + 1, g.pEnd, candidates, g.bFold ? 3 : 1, &bMember, nullptr);
      if (next == nullptr || !bMember) return EGlob::NoMatch;
      p = next;
      ++t;
      continue;
    } else {
      if (pc == '\\' && p + 1 < g.pEnd) pc = static_cast<unsigned char>(*++p);
      if (!EqualByte(pc, tc, g.bFold)) return EGlob::NoMatch;
    }
    ++p;
    ++t;
  }
  if (t == g.tEnd) return (g.bWhole || g.bPrefix) ? EGlob::Match : EGlob::NoMatch;
  if (*t == '/' && g.bAncestor) return EGlob::Match;
  return EGlob::NoMatch;
}

bool IsSpecial(char c) { return c == '*' || c == '?' || c == '[' || c == '\\'; }

}  // namespace

bool FilterGlob::Match(std::string_view pattern, std::string_view text, unsigned flags,
                       bool bFold) {
  const char* pBegin = pattern.data();
  const char* pEnd = pBegin + pattern.size();
  if (flags & (kGlobWhole | kGlobAncestor)) {
    SGlob g{pBegin,
            pEnd,
            text.data() + text.size(),
            (flags & kGlobWhole) != 0,
            (flags & kGlobAncestor) != 0,
            false,
            bFold};
    if (DoMatch(g, pBegin, text.data()) == EGlob::Match) return true;
  }
  if (flags & kGlobPartial) {
    // A path below the folder starts with the folder and a '/': can the pattern begin that way?
    std::string below(text);
    if (below.empty() || below.back() != '/') below.push_back('/');
    SGlob g{pBegin, pEnd, below.data() + below.size(), false, false, true, bFold};
    if (DoMatch(g, pBegin, below.data()) == EGlob::Match) return true;
  }
  return false;
}

bool CFilterTerm::IsWildcardItem(std::string_view item) {
  return item.find_first_of("*?[") != std::string_view::npos;
}

CQiError CFilterTerm::CheckPattern(std::string_view pattern) {
  const std::string shown = FXString::EscapeControl(pattern);
  if (pattern.size() > PATH_MAX)
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                          "Filter pattern longer than %d bytes, Length=%zu", PATH_MAX,
                          pattern.size());
  size_t starGroups = 0;
  const char* p = pattern.data();
  const char* pEnd = p + pattern.size();
  while (p < pEnd) {
    if (*p == '\\') {
      if (p + 1 >= pEnd)
        return QI_ERROR_WIN32(QiErrorCode::InvalidData,
                              "Filter pattern ends with a lone '\\', Pattern=[%s]", shown.c_str());
      p += 2;
    } else if (*p == '[') {
      const char* reason = "";
      const char* next = ScanClass(p + 1, pEnd, nullptr, 0, nullptr, &reason);
      if (next == nullptr)
        return QI_ERROR_WIN32(QiErrorCode::InvalidData, "%s at offset %zu, Pattern=[%s]", reason,
                              static_cast<size_t>(p - pattern.data()), shown.c_str());
      p = next;
    } else if (*p == '*') {
      ++starGroups;
      while (p < pEnd && *p == '*') ++p;
    } else {
      ++p;
    }
  }
  if (starGroups > kMaxStarGroups)
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                          "Filter pattern holds more than %zu '*' groups, Pattern=[%s]",
                          kMaxStarGroups, shown.c_str());
  return CQiError();
}

std::string CFilterTerm::MakePrefix(std::string_view pattern) {
  if (pattern.find('/') == std::string_view::npos) return std::string();
  const bool bAbsolute = pattern[0] == '/';
  std::string prefix = bAbsolute ? "/" : "";
  size_t pos = bAbsolute ? 1 : 0;
  bool bFirst = true;
  while (pos < pattern.size()) {
    // Find the end of this component, skipping escaped bytes and whole classes (no class holds
    // a '/', LoadRaw checked that).
    std::string name;
    bool bWild = false;
    size_t i = pos;
    while (i < pattern.size() && pattern[i] != '/') {
      char c = pattern[i];
      if (c == '\\' && i + 1 < pattern.size()) {
        name.push_back(pattern[i + 1]);
        i += 2;
        continue;
      }
      if (IsSpecial(c)) bWild = true;
      name.push_back(c);
      ++i;
    }
    if (bWild) break;
    if (!bFirst) prefix.push_back('/');
    prefix += name;
    bFirst = false;
    pos = i + 1;
  }
  return prefix;
}

CQiError CFilterTerm::LoadRaw(const std::string& item) {
  m_bLoaded = false;
  m_eKind = EKind::Unloaded;
  m_strRaw.clear();
  m_strItem.clear();
  m_strPrefix.clear();
  m_strSuffix.clear();

  const uint32_t options = static_cast<uint32_t>(m_eOptions);
  if ((options & ~kFilterTermOptionsKnownBits) != 0)
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Unknown filter term options 0x%x",
                          options);
  if (HasFilterTermOption(m_eOptions, BFilterTermOptions::CaseInsensitive) &&
      HasFilterTermOption(m_eOptions, BFilterTermOptions::CaseSensitive))
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                          "Conflicting filter term options 0x%x: CaseInsensitive and "
                          "CaseSensitive",
                          options);
  if (item.empty()) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Empty filter item");
  if (item.find('\0') != std::string::npos)
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Filter item holds a NUL byte, Item=[%s]",
                          FXString::EscapeControl(item).c_str());

  std::string normalized = CFilterTermTestString::NormalizePath(item);
  if (IsWildcardItem(normalized)) {
    QI_RETURN_IF_ERROR(CheckPattern(normalized));
    if (normalized.find('/') != std::string::npos) {
      m_eKind = EKind::PathGlob;
    } else if (normalized[0] == '*' && normalized.size() > 1 &&
               normalized.find_first_of("*?[\\", 1) == std::string::npos) {
      m_eKind = EKind::NameSuffix;
      m_strSuffix = normalized.substr(1);
    } else {
      m_eKind = EKind::NameGlob;
    }
    m_strPrefix = MakePrefix(normalized);
  } else if (normalized.find('/') != std::string::npos) {
    m_eKind = EKind::Plain;
    m_strPrefix = normalized;
  } else {
    m_eKind = EKind::PlainName;
  }
  m_strRaw = item;
  m_strItem = std::move(normalized);
  m_bLoaded = true;
  return CQiError();
}

bool CFilterTerm::IsCaseInsensitive(bool bSetInsensitiveWildcards) const {
  if (HasFilterTermOption(m_eOptions, BFilterTermOptions::CaseInsensitive)) return true;
  if (HasFilterTermOption(m_eOptions, BFilterTermOptions::CaseSensitive)) return false;
  return bSetInsensitiveWildcards && IsWildcard();
}

bool CFilterTerm::MatchName(std::string_view name, bool bFold) const {
  switch (m_eKind) {
    case EKind::PlainName:
      return EqualBytes(name, m_strItem, bFold);
    case EKind::NameSuffix:
      return name.size() >= m_strSuffix.size() &&
             EqualBytes(name.substr(name.size() - m_strSuffix.size()), m_strSuffix, bFold);
    case EKind::NameGlob:
      return FilterGlob::Match(m_strItem, name, FilterGlob::kGlobWhole, bFold);
    default:
      return false;
  }
}

bool CFilterTerm::Matches(const CFilterTermTestString& test, unsigned matchBits,
                          bool bSetInsensitiveWildcards) const {
  if (!m_bLoaded || test.IsEmpty() || (matchBits & kMatchAtOrBelow) == 0) return false;
  const bool bFold = IsCaseInsensitive(bSetInsensitiveWildcards);
  const std::string_view path = test.GetString();
  switch (m_eKind) {
    case EKind::Plain: {
      const std::string_view item = m_strItem;
      if ((matchBits & kMatchSelf) && EqualBytes(path, item, bFold)) return true;
      if ((matchBits & kMatchBelow) && path.size() > item.size() &&
          EqualBytes(path.substr(0, item.size()), item, bFold) &&
          (item == "/" || path[item.size()] == '/'))
        return true;
      return false;
    }
    case EKind::PlainName:
    case EKind::NameSuffix:
    case EKind::NameGlob: {
      const size_t levels = test.GetLevelCount();
      for (size_t i = 0; i < levels; ++i) {
        const unsigned need = (i + 1 == levels) ? kMatchSelf : kMatchBelow;
        if ((matchBits & need) == 0) continue;
        std::string_view name = test.GetName(i);
        if (!name.empty() && MatchName(name, bFold)) return true;
      }
      return false;
    }
    case EKind::PathGlob: {
      unsigned flags = 0;
      // The root has no name: no pattern matches "/" itself (a '*' would match its empty name).
      if ((matchBits & kMatchSelf) && path != "/") flags |= FilterGlob::kGlobWhole;
      if (matchBits & kMatchBelow) flags |= FilterGlob::kGlobAncestor;
      return flags != 0 && FilterGlob::Match(m_strItem, path, flags, bFold);
    }
    default:
      return false;
  }
}

bool CFilterTerm::CouldMatchAtOrBelow(const CFilterTermTestString& folder,
                                      bool bSetInsensitiveWildcards) const {
  if (!m_bLoaded || folder.IsEmpty()) return false;
  const bool bFold = IsCaseInsensitive(bSetInsensitiveWildcards);
  const std::string_view path = folder.GetString();
  switch (m_eKind) {
    case EKind::Plain: {
      if (Matches(folder, kMatchAtOrBelow, bSetInsensitiveWildcards)) return true;
      // The item lies below the folder.
      const std::string_view item = m_strItem;
      return item.size() > path.size() && EqualBytes(item.substr(0, path.size()), path, bFold) &&
             (path == "/" || item[path.size()] == '/');
    }
    case EKind::PlainName:
    case EKind::NameSuffix:
    case EKind::NameGlob:
      return true;
    case EKind::PathGlob: {
      unsigned flags = FilterGlob::kGlobAncestor | FilterGlob::kGlobPartial;
      if (path != "/") flags |= FilterGlob::kGlobWhole;
      return FilterGlob::Match(m_strItem, path, flags, bFold);
    }
    default:
      return false;
  }
}
