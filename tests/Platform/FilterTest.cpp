#include <gtest/gtest.h>

#include <climits>
#include <sstream>
#include <string>
#include <vector>

#include "Platform/FXString.h"
#include "Platform/FilterSet.h"
#include "Platform/FilterTerm.h"
#include "Platform/FilterTermTestString.h"

namespace {

constexpr BFilterNodeState I = BFilterNodeState::Include;
constexpr BFilterNodeState E = BFilterNodeState::Exception;

struct SItem {
  BFilterNodeState state;
  std::string item;
};

CFilterSetPtr MakeSet(const std::vector<SItem>& items, bool bInsensitive = false) {
  auto set = std::make_shared<CFilterSet>();
  set->SetUseInsensitiveFilterForWildCard(bInsensitive);
  for (const SItem& i : items) {
    CQiError err = set->AddFilterItem(i.state, i.item, "/");
    EXPECT_TRUE(err.IsSuccess()) << i.item << ": " << err.AsString();
  }
  return set;
}

// Test names may only hold [A-Za-z0-9_].
template <typename Row>
std::string RowName(const ::testing::TestParamInfo<Row>& info) {
  std::string name = std::to_string(info.index) + "_";
  for (char c : std::string(info.param.name)) name.push_back(isalnum(c) ? c : '_');
  return name;
}

// ---------------------------------------------------------------------------------------------
// The set's questions, each answer written "<query><path>=<0|1>": IsIn ('i': the default applies
// mode 7; '0'..'7': that mode, bit 1 the item itself, bit 2 below it, bit 4 exceptions),
// IsMatchPossibleInFolder ('p': could something at or below the folder be in the set?) and
// IsMatchEntireFolder ('e': is the folder and everything below it in the set?).

// "/d0/d1/..." with n levels; past "/d39" the names start again at "/d0".
std::string Deep(int n) {
  std::string path;
  for (int i = 0; i < n; ++i) path += "/d" + std::to_string(i % 40);
  return path;
}

std::string Repeat(const std::string& text, int count) {
  std::string out;
  while (count-- > 0) out += text;
  return out;
}

struct SRow {
  const char* name;
  std::vector<SItem> items;
  std::string answers;        // separated by ' '
  bool bInsensitive = false;  // case folding for wildcard items
};

class FilterSetQuery : public ::testing::TestWithParam<SRow> {};

TEST_P(FilterSetQuery, Table) {
  CFilterSetPtr set = MakeSet(GetParam().items, GetParam().bInsensitive);
  std::string got;
  std::istringstream in(GetParam().answers);
  for (std::string token; std::getline(in, token, ' ');) {
    const char q = token[0];
    CFilterTermTestString test(token.substr(1, token.size() - 3));
    bool answer = q == 'p'   ? set->IsMatchPossibleInFolder(test)
                  : q == 'e' ? set->IsMatchEntireFolder(test)
                  : q == 'i' ? set->IsIn(test)
                             : set->IsIn(test, unsigned(q - '0'));
    got += (got.empty() ? "" : " ") + token.substr(0, token.size() - 1) + (answer ? "1" : "0");
    if (q == 'i' && set->IsIn(test, 7) != answer) got += " (mode 7 differs)";
  }
  EXPECT_EQ(FXString::EscapeControl(got), FXString::EscapeControl(GetParam().answers));
}

const std::vector<SItem> kDataTmp = {{I, "/data"}, {E, "/data/tmp"}};
const std::vector<SItem> kRootCache = {{I, "/"}, {E, "/home/*/cache"}};

INSTANTIATE_TEST_SUITE_P(
    Rows, FilterSetQuery,
    ::testing::Values(
        SRow{"plain_self",
             {{I, "/data"}},
             "i/data=1 i/data/a/b=1 i/database=0 i/=0 i/data/=1 "
             "e/data=1 e/data/x=1 e/=0 e/database=0"},
        SRow{"plain_case_sensitive", {{I, "/Data"}}, "i/data/x=0"},
        SRow{"plain_name_deep",
             {{I, "core"}},
             "i/a/core=1 i/a/cores=0 2/core/x=1 "
             "p/any/where=1"},
        SRow{"empty_set", {}, "i/data=0 p/=0 e/=0"},
        SRow{"star", {{I, "/data/*.txt"}}, "i/data/a.txt=1 i/data/sub/a.txt=0"},
        SRow{"starstar", {{I, "/data/**.txt"}}, "i/data/s/t/a.txt=1"},
        SRow{"starstar_not_folder_itself", {{I, "/data/**"}}, "i/data=0 i/data/a/b=1"},
        SRow{"leading_starstar", {{I, "**/cache"}}, "i/home/u/cache/f=1"},
        SRow{"question_one_byte", {{I, "/data/?.txt"}}, "i/data/a.txt=1 i/data/ab.txt=0"},
        SRow{"class", {{I, "/data/[ab].txt"}}, "i/data/b.txt=1"},
        SRow{"class_negated", {{I, "/data/[!ab].txt"}}, "i/data/c.txt=1"},
        SRow{"class_range", {{I, "/data/[a-c]x"}}, "i/data/bx=1"},
        SRow{"class_named", {{I, "/data/[[:digit:]]*"}}, "i/data/7up=1"},
        SRow{"class_bracket_first", {{I, "/data/[]x]"}}, "i/data/]=1"},
        SRow{"class_wide_range_not_slash", {{I, "/a[ -~]b"}}, "i/a/b=0"},
        SRow{"escape_star", {{I, "/data/a\\*"}}, "i/data/a*=1"},
        SRow{"wild_ancestor", {{I, "/data/*"}}, "i/data/x/y=1 i/data=0 e/data=0 e/data/x=1"},
        SRow{"relative_pattern_vs_absolute", {{I, "data/*"}}, "i/data/x=0"},
        SRow{"name_deep",
             {{I, "*.tmp"}},
             "i/a/b/x.tmp=1 i/a/x.tmp/b=1 i/a/x.tmpl=0 "
             "1/a/b.tmp=1 2/a/b.tmp=0 2/a.tmp/b=1 p/any/where=1 "
             "e/a/x.tmp=1"},
        SRow{"exc_below", kDataTmp,
             "i/data/tmp/x=0 i/data/tmp=0 i/data/tmpx=1 1/data=1 "
             "2/data=0 1/data/x=0 2/data/x=1 3/data/tmp=1 7/data/tmp=0 "
             "3/data/tmp/x=1 6/data/tmp/x=0 5/data/tmp=0 4/data/x=0 "
             "0/data/x=0 p/data/tmp=0 p/data/tmp/x=0 p/data/tmpx=1 "
             "p/data=1 e/data=0 e/data/a=1 e/data/tmp=0 e/data/tmp/x=0"},
        SRow{"exc_name",
             {{I, "/data"}, {E, "*.tmp"}},
             "i/data/x.tmp=0 i/data/x.tmp/y=0 "
             "p/data/x.tmp=0 e/data/a=0"},
        SRow{"exc_wild", kRootCache,
             "i/home/u/cache/f=0 p/home/u/cache=0 p/home/u=1 e/home=0 "
             "e/home/u=0 e/home/u/cache=0"},
        SRow{"fold_off", {{I, "/data/*.TXT"}}, "i/data/a.txt=0"},
        SRow{"fold_on", {{I, "/data/*.TXT"}}, "i/data/a.txt=1", true},
        SRow{"fold_on_literal_part", {{I, "/DATA/*.txt"}}, "i/data/a.txt=1", true},
        SRow{"fold_class_range", {{I, "/d/[A-C]x"}}, "i/d/bx=1", true},
        SRow{"fold_negated_class", {{I, "/d/[!a]x"}}, "i/d/Ax=0", true},
        SRow{"fold_exception", {{I, "/d"}, {E, "*.TMP"}}, "i/d/x.tmp=0", true},
        SRow{"fold_high_bytes_untouched", {{I, "/d/\xc3\x89*"}}, "i/d/\xc3\xa9t\xc3\xa9=0", true},
        SRow{"newline_plain", {{I, "/data/new\nline"}}, "i/data/new\nline/x=1"},
        SRow{"non_utf8_plain", {{I, "/data/\xff\xfe"}}, "i/data/\xff\xfe/x=1"},
        SRow{"non_utf8_class", {{I, "/data/[\x80-\xff]"}}, "i/data/\xc3=1"},
        SRow{"wild_self", {{I, "/d/*"}}, "1/d/x=1 2/d/x/y=1 2/d/x=0"},
        SRow{"root_above_item",
             {{I, "/data/a/b"}},
             "p/=1 p/data=1 p/data/a=1 p/data/a/b=1 "
             "p/data/a/b/c=1 p/home=0 p/data/ab=0 "
             "p/data/a/bc=0 p/data/=1 p=0"},
        SRow{"wild_mid_folder",
             {{I, "/data/*/x"}},
             "p/data/q=1 p/data=1 p/other=0 "
             "p/data/q/x/y=1 p/data/q/y=0"},
        SRow{"fold_on", {{I, "/DATA/*/x"}}, "p/data/q=1", true},
        SRow{"exc_wild_cannot_reach",
             {{I, "/data"}, {E, "/data/x*/y"}},
             "e/data/a=1 "
             "e/data/xa=0"},
        SRow{"fold_on", {{I, "/DATA/**"}}, "e/data/x=1", true},
        // Deeper than the inline levels; past 64 levels every depth shares one bit of the depth
        // mask, and lookups must still happen.
        SRow{"deep",
             {{I, Deep(31)}, {E, Deep(40) + "/skip"}, {I, "*.deep"}},
             "i" + Deep(40) + "=1 i" + Deep(40) + "/skip/x=0 i/x" + Deep(40) + "/a.deep=1 i" +
                 Deep(30) + "=0 p" + Deep(31).substr(0, 50) + "=1 e" + Deep(40) + "=0"},
        SRow{"deeper",
             {{I, Deep(70)}},
             "i" + Deep(80) + "=1 i" + Deep(70) + "=1 i" + Deep(69) + "=0"},
        // Built to make a naive backtracking matcher explode.
        SRow{"many_stars", {{I, Repeat("*a", 30) + "b"}}, "i" + std::string(60, 'a') + "=0"},
        SRow{"many_starstars", {{I, Repeat("**a", 20) + "b"}}, "i" + Repeat("/aaaa", 30) + "=0"}),
    RowName<SRow>);

// ---------------------------------------------------------------------------------------------
// Filter prefixes: the fixed leading folders before the first wildcard component.

struct SPrefixRow {
  std::string item;
  std::string prefix;  // led by '*' for a wildcard item
};

class FilterTermPrefix : public ::testing::TestWithParam<SPrefixRow> {};

TEST_P(FilterTermPrefix, Table) {
  const SPrefixRow& r = GetParam();
  auto term = std::make_shared<CFilterTerm>();
  CFilterSet set;
  ASSERT_TRUE(term->LoadRaw(r.item).IsSuccess() && set.AddFilterTerm(I, term).IsSuccess());
  EXPECT_EQ((term->IsWildcard() ? "*" : "") + term->GetFilterPrefix(), r.prefix);
  EXPECT_EQ(CFilterTerm::IsWildcardItem(r.item), term->IsWildcard());
  // Asked directly, the term answers as the set holding it, which keeps plain items in hashes.
  for (const char* path : {"/", "/data", "/data/x/y", "/database", "/x/core", "/DATA/x"}) {
    CFilterTermTestString test(path);
    for (unsigned bits = 1; bits <= 3; ++bits)
      EXPECT_EQ(term->Matches(test, bits), set.IsIn(test, bits)) << path << " " << bits;
    EXPECT_EQ(term->CouldMatchAtOrBelow(test), set.IsMatchPossibleInFolder(test)) << path;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, FilterTermPrefix,
    ::testing::Values(SPrefixRow{"/data/x/*/y.txt", "*/data/x"}, SPrefixRow{"/data/x*/y", "*/data"},
                      SPrefixRow{"*.tmp", "*"}, SPrefixRow{"/*/a", "*/"}, SPrefixRow{"/[a]", "*/"},
                      SPrefixRow{"**/x", "*"}, SPrefixRow{"/data/**", "*/data"},
                      SPrefixRow{"/a\\*b/*", "*/a*b"}, SPrefixRow{"/data//x/*/", "*/data/x"},
                      SPrefixRow{"data/x/*", "*data/x"}, SPrefixRow{"/data/x/", "/data/x"},
                      SPrefixRow{"/", "/"}, SPrefixRow{"core", ""}));

// ---------------------------------------------------------------------------------------------
// Items that are refused, with their codes and messages.

struct SBadRow {
  const char* name;
  std::string item;
  uint32_t code;
  std::string message;
  BFilterTermOptions options = BFilterTermOptions::None;
};

class FilterTermMalformed : public ::testing::TestWithParam<SBadRow> {};

TEST_P(FilterTermMalformed, Table) {
  const SBadRow& r = GetParam();
  CFilterTerm term(r.options);
  CQiError err = term.LoadRaw(r.item);
  ASSERT_TRUE(err.IsWin32(r.code)) << err.AsString();
  EXPECT_EQ(err.GetMessage(), r.message);
  EXPECT_FALSE(term.IsLoaded());
  if (r.options != BFilterTermOptions::None) return;
  // The set refuses the same item with the same code, and stays as it was.
  CFilterSet set;
  err = set.AddFilterItem(I, r.item);
  ASSERT_TRUE(err.IsWin32(r.code)) << err.AsString();
  EXPECT_EQ(err.GetMessage(), r.message);
  EXPECT_TRUE(set.IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Rows, FilterTermMalformed,
    ::testing::Values(
        SBadRow{"empty", "", 87, "Empty filter item"},
        SBadRow{"nul_byte", std::string("/data/a\0b", 9), 87,
                "Filter item holds a NUL byte, Item=[/data/a\\x00b]"},
        SBadRow{"unterminated_class", "/data/[abc", 13,
                "Unterminated character class at offset 6, Pattern=[/data/[abc]"},
        SBadRow{"reversed_range", "/data/[z-a]x", 13,
                "Reversed range in character class at offset 6, Pattern=[/data/[z-a]x]"},
        SBadRow{"unknown_named_class", "/data/[[:alhpa:]]", 13,
                "Unknown named character class at offset 6, Pattern=[/data/[[:alhpa:]]]"},
        SBadRow{"slash_in_class", "/data/[/]*", 13,
                "A character class cannot hold '/' at offset 6, Pattern=[/data/[/]*]"},
        SBadRow{"lone_backslash", "/data/*\\", 13,
                "Filter pattern ends with a lone '\\', Pattern=[/data/*\\\\]"},
        SBadRow{"too_long", "/*" + std::string(PATH_MAX, 'a'), 87,
                "Filter pattern longer than 4096 bytes, Length=4098"},
        SBadRow{"too_many_stars", Repeat("/*", 65), 87,
                "Filter pattern holds more than 64 '*' groups, Pattern=[" + Repeat("/*", 65) + "]"},
        SBadRow{"conflicting_options", "/data", 87,
                "Conflicting filter term options 0x3: CaseInsensitive and CaseSensitive",
                BFilterTermOptions::CaseInsensitive | BFilterTermOptions::CaseSensitive},
        SBadRow{"unknown_options", "/data", 87, "Unknown filter term options 0x8",
                static_cast<BFilterTermOptions>(8)}),
    RowName<SBadRow>);

TEST(FilterSet, RefusesInvalidNodeStatesAndTermsNamingTheItem) {
  CFilterSet set;
  std::string messages;
  for (CQiError err : {set.AddFilterItem(static_cast<BFilterNodeState>(3), "/data"),
                       set.AddFilterTerm(I, CFilterTermPtr()),
                       set.AddFilterTerm(I, std::make_shared<CFilterTerm>())})
    messages += FXString::Format("%u %s\n", err.GetCode(), err.GetMessage().c_str());
  EXPECT_EQ(messages,
            "87 Invalid filter node state 3\n87 Empty filter term\n87 Filter term is not loaded\n");
  EXPECT_TRUE(set.IsEmpty());
  CQiError err = set.AddFilterItem(E, "/x/[a");
  ASSERT_TRUE(err.IsWin32(13));
  EXPECT_NE(err.AsString().find("Failed to add filter item, State=Exception, Item=[/x/[a]"),
            std::string::npos)
      << err.AsString();
}

}  // namespace
