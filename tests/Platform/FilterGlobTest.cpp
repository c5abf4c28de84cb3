// The glob engine behind CFilterTerm, checked against an independent reference: the pattern is
// compiled into a small automaton (one state per pattern element) and the text run through it.
// The reference is slow and obviously right; the engine backtracks and prunes, which is where
// mistakes hide. Random patterns and texts over a tiny alphabet reach the corner cases quickly.
#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>
#include <vector>

#include "Platform/FXString.h"
#include "Platform/FilterTerm.h"

namespace {

using FilterGlob::kGlobAncestor;
using FilterGlob::kGlobPartial;
using FilterGlob::kGlobWhole;

unsigned char Lower(unsigned char c) { return (c >= 'A' && c <= 'Z') ? c + 32 : c; }
unsigned char Upper(unsigned char c) { return (c >= 'a' && c <= 'z') ? c - 32 : c; }

struct SToken {
  enum EKind { Literal, AnyByte, Class, Star, StarStar } kind;
  unsigned char literal = 0;
  bool member[256] = {};
  bool bNegated = false;   // a "[!...]" class: folding applies before the negation
  bool bZeroDirs = false;  // a whole "**/" component that may stand for no folder
};

// Compiles the pattern forms the random generator makes: literals, '\x', '?', '*' runs and
// simple classes "[..]", "[!..]", "[a-b]".
std::vector<SToken> Compile(const std::string& p) {
  std::vector<SToken> tokens;
  for (size_t i = 0; i < p.size();) {
    SToken t;
    if (p[i] == '*') {
      size_t j = i;
      while (j < p.size() && p[j] == '*') ++j;
      t.kind = (j - i >= 2) ? SToken::StarStar : SToken::Star;
      t.bZeroDirs =
          t.kind == SToken::StarStar && (i == 0 || p[i - 1] == '/') && j < p.size() && p[j] == '/';
      i = j;
    } else if (p[i] == '?') {
      t.kind = SToken::AnyByte;
      ++i;
    } else if (p[i] == '[') {
      t.kind = SToken::Class;
      size_t j = i + 1;
      bool negate = p[j] == '!';
      if (negate) ++j;
      bool first = true;
      while (first || p[j] != ']') {
        first = false;
        unsigned char lo = p[j], hi = lo;
        if (p[j + 1] == '-' && p[j + 2] != ']') {
          hi = p[j + 2];
          j += 3;
        } else {
          ++j;
        }
        for (unsigned c = lo; c <= hi; ++c) t.member[c] = true;
      }
      t.bNegated = negate;
      i = j + 1;
    } else {
      t.kind = SToken::Literal;
      if (p[i] == '\\') ++i;
      t.literal = p[i++];
    }
    tokens.push_back(t);
  }
  return tokens;
}

// A state is a pattern position times two, plus one for "inside a star that has taken bytes".
// Only a star that has taken nothing may stand for no folder at all ("/**/" skipped whole).
using States = std::set<size_t>;
size_t Entry(size_t i) { return 2 * i; }
size_t Loop(size_t i) { return 2 * i + 1; }

States Closure(const std::vector<SToken>& tokens, States s) {
  std::vector<size_t> work(s.begin(), s.end());
  while (!work.empty()) {
    const size_t state = work.back();
    work.pop_back();
    const size_t i = state / 2;
    if (i >= tokens.size()) continue;
    std::vector<size_t> next;
    const bool star = tokens[i].kind == SToken::Star || tokens[i].kind == SToken::StarStar;
    if (star) next.push_back(Entry(i + 1));
    if (star && state == Entry(i) && tokens[i].bZeroDirs) next.push_back(Entry(i + 2));
    for (size_t n : next)
      if (s.insert(n).second) work.push_back(n);
  }
  return s;
}

bool Takes(const SToken& t, unsigned char c, bool fold) {
  switch (t.kind) {
    case SToken::Literal:
      return t.literal == c || (fold && Lower(t.literal) == Lower(c));
    case SToken::AnyByte:
      return c != '/';
    case SToken::Class:
      return c != '/' &&
             t.bNegated != (t.member[c] || (fold && (t.member[Lower(c)] || t.member[Upper(c)])));
    case SToken::Star:
      return c != '/';
    case SToken::StarStar:
      return true;
  }
  return false;
}

States Step(const std::vector<SToken>& tokens, const States& s, unsigned char c, bool fold) {
  States out;
  for (size_t state : s) {
    const size_t i = state / 2;
    if (i >= tokens.size() || !Takes(tokens[i], c, fold)) continue;
    const bool star = tokens[i].kind == SToken::Star || tokens[i].kind == SToken::StarStar;
    out.insert(star ? Loop(i) : Entry(i + 1));
  }
  return Closure(tokens, out);
}

bool Reference(const std::string& pattern, const std::string& text, unsigned flags, bool fold) {
  std::vector<SToken> tokens = Compile(pattern);
  const size_t end = Entry(tokens.size());
  States s = Closure(tokens, {Entry(0)});
  for (size_t k = 0; k < text.size(); ++k) {
    if ((flags & kGlobAncestor) && text[k] == '/' && s.count(end)) return true;
    s = Step(tokens, s, text[k], fold);
  }
  if ((flags & kGlobWhole) && s.count(end)) return true;
  if (flags & kGlobPartial) {
    // Some path below the text could match when the automaton is still alive after the text
    // and a '/' (the text alone when it already ends in '/').
    if (text.empty() || text.back() != '/') s = Step(tokens, s, '/', fold);
    if (!s.empty()) return true;
  }
  return false;
}

TEST(FilterGlob, AgreesWithTheAutomatonOnRandomInput) {
  const std::vector<std::string> pieces = {"a", "b",    "A",    "/",     "*",   "**",
                                           "?", "[ab]", "[!a]", "[a-b]", "\\*", "/**/"};
  const std::string textBytes = "abAB/*";
  std::mt19937 rng(20240611);
  size_t checked = 0, matched = 0;
  for (int round = 0; round < 60000; ++round) {
    std::string pattern;
    const int nPieces = 1 + static_cast<int>(rng() % 6);
    for (int i = 0; i < nPieces; ++i) pattern += pieces[rng() % pieces.size()];
    std::string text;
    const int nText = static_cast<int>(rng() % 9);
    for (int i = 0; i < nText; ++i) text.push_back(textBytes[rng() % textBytes.size()]);
    const bool fold = rng() % 2;
    for (unsigned flags = 1; flags <= 7; ++flags) {
      const bool expected = Reference(pattern, text, flags, fold);
      const bool actual = FilterGlob::Match(pattern, text, flags, fold);
      ++checked;
      matched += expected;
      ASSERT_EQ(actual, expected) << "pattern=[" << pattern << "] text=["
                                  << FXString::EscapeControl(text) << "] flags=" << flags
                                  << " fold=" << fold;
    }
  }
  // The inputs must exercise both answers, or the comparison proves little.
  EXPECT_GT(matched, checked / 20);
  EXPECT_LT(matched, checked - checked / 20);
}

// Backtracking must stay cheap on patterns built to make naive matchers explode.
TEST(FilterGlob, ManyStarsDoNotExplode) {
  std::string pattern, text(60, 'a');
  for (int i = 0; i < 30; ++i) pattern += "*a";
  pattern += "b";
  for (unsigned flags = 1; flags <= 7; ++flags) {
    EXPECT_FALSE(FilterGlob::Match(pattern, text, flags, false)) << flags;
  }
  std::string deep;
  for (int i = 0; i < 30; ++i) deep += "/aaaa";
  std::string starstar;
  for (int i = 0; i < 20; ++i) starstar += "**a";
  starstar += "b";
  EXPECT_FALSE(FilterGlob::Match(starstar, deep, kGlobWhole | kGlobAncestor, false));
}

}  // namespace
