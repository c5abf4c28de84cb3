#include <dirent.h>
#include <gtest/gtest.h>

#include <climits>
#include <latch>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Platform/FXString.h"
#include "Platform/FilterSet.h"
#include "Platform/FilterTerm.h"
#include "Platform/FilterTermTestString.h"
#include "Platform/MemoryLineWriter.h"
#include "Support/TempTree.h"

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
// IsIn with the ordinary applies mode 7.

struct SIsInRow {
  const char* name;
  std::vector<SItem> items;
  bool bInsensitive;
  std::string path;
  bool expected;
};

class FilterSetIsIn : public ::testing::TestWithParam<SIsInRow> {};

TEST_P(FilterSetIsIn, Table) {
  const SIsInRow& r = GetParam();
  CFilterSetPtr set = MakeSet(r.items, r.bInsensitive);
  EXPECT_EQ(set->IsIn(CFilterTermTestString(r.path)), r.expected)
      << "path=" << FXString::EscapeControl(r.path);
  EXPECT_EQ(set->IsIn(CFilterTermTestString(r.path), 7), r.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, FilterSetIsIn,
    ::testing::Values(
        // Plain items: the item and everything below it, whole components only.
        SIsInRow{"plain_self", {{I, "/data"}}, false, "/data", true},
        SIsInRow{"plain_below", {{I, "/data"}}, false, "/data/a/b", true},
        SIsInRow{"plain_sibling_prefix", {{I, "/data"}}, false, "/database", false},
        SIsInRow{"plain_root_not_in", {{I, "/data"}}, false, "/", false},
        SIsInRow{"plain_ancestor_not_in", {{I, "/data/a"}}, false, "/data", false},
        SIsInRow{"plain_root_item", {{I, "/"}}, false, "/anything/x", true},
        SIsInRow{"plain_item_trailing_delim", {{I, "/data/"}}, false, "/data/x", true},
        SIsInRow{"plain_path_trailing_delim", {{I, "/data"}}, false, "/data/", true},
        SIsInRow{"plain_double_delims", {{I, "/data//a"}}, false, "/data/a//b", true},
        SIsInRow{"plain_case_sensitive", {{I, "/Data"}}, false, "/data/x", false},
        SIsInRow{"plain_not_folded_by_wildcard_switch", {{I, "/Data"}}, true, "/data/x", false},
        SIsInRow{"plain_name_deep", {{I, "core"}}, false, "/a/core", true},
        SIsInRow{"plain_name_longer", {{I, "core"}}, false, "/a/cores", false},
        SIsInRow{"plain_backslash_literal", {{I, "/data/a\\b"}}, false, "/data/a\\b/c", true},
        SIsInRow{"empty_path", {{I, "/"}}, false, "", false},
        SIsInRow{"empty_set", {}, false, "/data", false},
        // Wildcards: '*' stays within a component, '**' crosses them.
        SIsInRow{"star", {{I, "/data/*.txt"}}, false, "/data/a.txt", true},
        SIsInRow{"star_no_slash", {{I, "/data/*.txt"}}, false, "/data/sub/a.txt", false},
        SIsInRow{"starstar", {{I, "/data/**.txt"}}, false, "/data/s/t/a.txt", true},
        SIsInRow{"starstar_zero_dirs", {{I, "/data/**/a.txt"}}, false, "/data/a.txt", true},
        SIsInRow{"starstar_not_folder_itself", {{I, "/data/**"}}, false, "/data", false},
        SIsInRow{"starstar_below", {{I, "/data/**"}}, false, "/data/a/b", true},
        SIsInRow{"leading_starstar", {{I, "**/cache"}}, false, "/home/u/cache/f", true},
        SIsInRow{"question_one_byte", {{I, "/data/?.txt"}}, false, "/data/a.txt", true},
        SIsInRow{"question_two_bytes", {{I, "/data/?.txt"}}, false, "/data/ab.txt", false},
        SIsInRow{"question_not_slash", {{I, "/data?x"}}, false, "/data/x", false},
        SIsInRow{"class", {{I, "/data/[ab].txt"}}, false, "/data/b.txt", true},
        SIsInRow{"class_negated", {{I, "/data/[!ab].txt"}}, false, "/data/c.txt", true},
        SIsInRow{"class_caret", {{I, "/data/[^ab].txt"}}, false, "/data/a.txt", false},
        SIsInRow{"class_range", {{I, "/data/[a-c]x"}}, false, "/data/bx", true},
        SIsInRow{"class_named", {{I, "/data/[[:digit:]]*"}}, false, "/data/7up", true},
        SIsInRow{"class_bracket_first", {{I, "/data/[]x]"}}, false, "/data/]", true},
        SIsInRow{"class_wide_range_not_slash", {{I, "/a[ -~]b"}}, false, "/a/b", false},
        SIsInRow{"escape_star", {{I, "/data/a\\*"}}, false, "/data/a*", true},
        SIsInRow{"wild_ancestor", {{I, "/data/*"}}, false, "/data/x/y", true},
        SIsInRow{"wild_not_parent", {{I, "/data/*"}}, false, "/data", false},
        SIsInRow{"wild_never_root", {{I, "/*"}}, false, "/", false},
        SIsInRow{"relative_pattern_vs_absolute", {{I, "data/*"}}, false, "/data/x", false},
        // Name patterns (no '/') test every component.
        SIsInRow{"name_deep", {{I, "*.tmp"}}, false, "/a/b/x.tmp", true},
        SIsInRow{"name_ancestor", {{I, "*.tmp"}}, false, "/a/x.tmp/b", true},
        SIsInRow{"name_longer_ext", {{I, "*.tmp"}}, false, "/a/x.tmpl", false},
        SIsInRow{"name_glob", {{I, "core.[0-9]*"}}, false, "/var/core.123", true},
        // Exceptions override includes.
        SIsInRow{"exc_below", {{I, "/data"}, {E, "/data/tmp"}}, false, "/data/tmp/x", false},
        SIsInRow{"exc_self", {{I, "/data"}, {E, "/data/tmp"}}, false, "/data/tmp", false},
        SIsInRow{"exc_component", {{I, "/data"}, {E, "/data/tmp"}}, false, "/data/tmpx", true},
        SIsInRow{"exc_name", {{I, "/data"}, {E, "*.tmp"}}, false, "/data/x.tmp", false},
        SIsInRow{"exc_name_ancestor", {{I, "/data"}, {E, "*.tmp"}}, false, "/data/x.tmp/y", false},
        SIsInRow{"exc_plain_over_wild",
                 {{I, "*.log"}, {E, "/var/keep"}},
                 false,
                 "/var/keep/a.log",
                 false},
        SIsInRow{"exc_only", {{E, "/data"}}, false, "/data/x", false},
        SIsInRow{"exc_same_item", {{I, "/data"}, {E, "/data"}}, false, "/data", false},
        SIsInRow{"exc_wild", {{I, "/"}, {E, "/home/*/cache"}}, false, "/home/u/cache/f", false},
        // Case folding applies to wildcard items when switched on.
        SIsInRow{"fold_off", {{I, "/data/*.TXT"}}, false, "/data/a.txt", false},
        SIsInRow{"fold_on", {{I, "/data/*.TXT"}}, true, "/data/a.txt", true},
        SIsInRow{"fold_on_literal_part", {{I, "/DATA/*.txt"}}, true, "/data/a.txt", true},
        SIsInRow{"fold_name_suffix", {{I, "*.TMP"}}, true, "/a/B.tmp", true},
        SIsInRow{"fold_class_range", {{I, "/d/[A-C]x"}}, true, "/d/bx", true},
        SIsInRow{"fold_negated_class", {{I, "/d/[!a]x"}}, true, "/d/Ax", false},
        SIsInRow{"fold_exception", {{I, "/d"}, {E, "*.TMP"}}, true, "/d/x.tmp", false},
        SIsInRow{"fold_high_bytes_untouched",
                 {{I, "/d/\xc3\x89*"}},
                 true,
                 "/d/\xc3\xa9t\xc3\xa9",
                 false},
        // Bytes are bytes: newlines and invalid UTF-8 in names.
        SIsInRow{"newline_plain", {{I, "/data/new\nline"}}, false, "/data/new\nline/x", true},
        SIsInRow{"newline_star", {{I, "/data/*\n*"}}, false, "/data/a\nb", true},
        SIsInRow{"non_utf8_plain", {{I, "/data/\xff\xfe"}}, false, "/data/\xff\xfe/x", true},
        SIsInRow{"non_utf8_class", {{I, "/data/[\x80-\xff]"}}, false, "/data/\xc3", true}),
    RowName<SIsInRow>);

// ---------------------------------------------------------------------------------------------
// The applies mode: bit 1 the item itself, bit 2 below the item, bit 4 exceptions.

struct SModeRow {
  const char* name;
  std::vector<SItem> items;
  std::string path;
  unsigned mode;
  bool expected;
};

class FilterSetAppliesMode : public ::testing::TestWithParam<SModeRow> {};

TEST_P(FilterSetAppliesMode, Table) {
  const SModeRow& r = GetParam();
  EXPECT_EQ(MakeSet(r.items)->IsIn(CFilterTermTestString(r.path), r.mode), r.expected);
}

const std::vector<SItem> kDataTmp = {{I, "/data"}, {E, "/data/tmp"}};

INSTANTIATE_TEST_SUITE_P(
    Rows, FilterSetAppliesMode,
    ::testing::Values(SModeRow{"self_only", kDataTmp, "/data", 1, true},
                      SModeRow{"below_only_on_item", kDataTmp, "/data", 2, false},
                      SModeRow{"self_only_below_item", kDataTmp, "/data/x", 1, false},
                      SModeRow{"below_only", kDataTmp, "/data/x", 2, true},
                      SModeRow{"no_exceptions", kDataTmp, "/data/tmp", 3, true},
                      SModeRow{"all", kDataTmp, "/data/tmp", 7, false},
                      SModeRow{"exception_reaching_below_ignored", kDataTmp, "/data/tmp/x", 3,
                               true},
                      SModeRow{"exception_below_only_mode", kDataTmp, "/data/tmp/x", 6, false},
                      SModeRow{"exception_self_only_mode", kDataTmp, "/data/tmp", 5, false},
                      SModeRow{"exceptions_bit_alone", kDataTmp, "/data/x", 4, false},
                      SModeRow{"mode_zero", kDataTmp, "/data/x", 0, false},
                      SModeRow{"wild_self", {{I, "/d/*"}}, "/d/x", 1, true},
                      SModeRow{"wild_below", {{I, "/d/*"}}, "/d/x/y", 2, true},
                      SModeRow{"wild_below_not_self", {{I, "/d/*"}}, "/d/x", 2, false},
                      SModeRow{"name_self", {{I, "*.tmp"}}, "/a/b.tmp", 1, true},
                      SModeRow{"name_below_not_self", {{I, "*.tmp"}}, "/a/b.tmp", 2, false},
                      SModeRow{"name_below", {{I, "*.tmp"}}, "/a.tmp/b", 2, true},
                      SModeRow{"plainname_below", {{I, "core"}}, "/core/x", 2, true}),
    RowName<SModeRow>);

// ---------------------------------------------------------------------------------------------
// IsMatchPossibleInFolder: could something at or below the folder be in the set?

struct SFolderRow {
  const char* name;
  std::vector<SItem> items;
  bool bInsensitive;
  std::string folder;
  bool expected;
};

class FilterSetPossible : public ::testing::TestWithParam<SFolderRow> {};

TEST_P(FilterSetPossible, Table) {
  const SFolderRow& r = GetParam();
  EXPECT_EQ(
      MakeSet(r.items, r.bInsensitive)->IsMatchPossibleInFolder(CFilterTermTestString(r.folder)),
      r.expected);
}

const std::vector<SItem> kDeep = {{I, "/data/a/b"}};
const std::vector<SItem> kWildMid = {{I, "/data/*/x"}};

INSTANTIATE_TEST_SUITE_P(
    Rows, FilterSetPossible,
    ::testing::Values(
        SFolderRow{"root_above_item", kDeep, false, "/", true},
        SFolderRow{"above_item", kDeep, false, "/data", true},
        SFolderRow{"parent_of_item", kDeep, false, "/data/a", true},
        SFolderRow{"item_itself", kDeep, false, "/data/a/b", true},
        SFolderRow{"below_item", kDeep, false, "/data/a/b/c", true},
        SFolderRow{"elsewhere", kDeep, false, "/home", false},
        SFolderRow{"sibling_prefix", kDeep, false, "/data/ab", false},
        SFolderRow{"sibling_prefix_deeper", kDeep, false, "/data/a/bc", false},
        SFolderRow{"trailing_delim_folder", kDeep, false, "/data/", true},
        SFolderRow{"wild_mid_folder", kWildMid, false, "/data/q", true},
        SFolderRow{"wild_mid_above", kWildMid, false, "/data", true},
        SFolderRow{"wild_mid_other", kWildMid, false, "/other", false},
        SFolderRow{"wild_mid_below_match", kWildMid, false, "/data/q/x/y", true},
        SFolderRow{"wild_mid_wrong_leaf", kWildMid, false, "/data/q/y", false},
        SFolderRow{"wild_partial_component", {{I, "/data/x*/y"}}, false, "/data/xa", true},
        SFolderRow{"wild_short_folder", {{I, "/data/x*/y"}}, false, "/da", false},
        SFolderRow{"wild_class_miss", {{I, "/data/[ab]*"}}, false, "/data/c", false},
        SFolderRow{"starstar_anywhere_below", {{I, "/data/**/keep"}}, false, "/data/a/b", true},
        SFolderRow{"starstar_runs_on", {{I, "/data/**x"}}, false, "/data/q", true},
        SFolderRow{"name_everywhere", {{I, "*.tmp"}}, false, "/any/where", true},
        SFolderRow{"plain_name_everywhere", {{I, "core"}}, false, "/any/where", true},
        SFolderRow{"exc_on_folder", kDataTmp, false, "/data/tmp", false},
        SFolderRow{"exc_above_folder", kDataTmp, false, "/data/tmp/x", false},
        SFolderRow{"exc_not_component", kDataTmp, false, "/data/tmpx", true},
        SFolderRow{"exc_below_folder_keeps_possible", kDataTmp, false, "/data", true},
        SFolderRow{"exc_name_on_folder", {{I, "/data"}, {E, "*.tmp"}}, false, "/data/x.tmp", false},
        SFolderRow{
            "exc_wild_on_folder", {{I, "/"}, {E, "/home/*/cache"}}, false, "/home/u/cache", false},
        SFolderRow{
            "exc_wild_below_folder", {{I, "/"}, {E, "/home/*/cache"}}, false, "/home/u", true},
        SFolderRow{"fold_on", {{I, "/DATA/*/x"}}, true, "/data/q", true},
        SFolderRow{"fold_off", {{I, "/DATA/*/x"}}, false, "/data/q", false},
        SFolderRow{"empty_set", {}, false, "/", false},
        SFolderRow{"empty_folder", kDeep, false, "", false}),
    RowName<SFolderRow>);

// ---------------------------------------------------------------------------------------------
// IsMatchEntireFolder: is the folder and everything below it in the set?

class FilterSetEntire : public ::testing::TestWithParam<SFolderRow> {};

TEST_P(FilterSetEntire, Table) {
  const SFolderRow& r = GetParam();
  EXPECT_EQ(MakeSet(r.items, r.bInsensitive)->IsMatchEntireFolder(CFilterTermTestString(r.folder)),
            r.expected);
}

const std::vector<SItem> kRootCache = {{I, "/"}, {E, "/home/*/cache"}};

INSTANTIATE_TEST_SUITE_P(
    Rows, FilterSetEntire,
    ::testing::Values(
        SFolderRow{"item_itself", {{I, "/data"}}, false, "/data", true},
        SFolderRow{"below_item", {{I, "/data"}}, false, "/data/x", true},
        SFolderRow{"above_item", {{I, "/data"}}, false, "/", false},
        SFolderRow{"sibling_prefix", {{I, "/data"}}, false, "/database", false},
        SFolderRow{"exc_below", kDataTmp, false, "/data", false},
        SFolderRow{"exc_elsewhere", kDataTmp, false, "/data/a", true},
        SFolderRow{"exc_on_folder", kDataTmp, false, "/data/tmp", false},
        SFolderRow{"exc_above_folder", kDataTmp, false, "/data/tmp/x", false},
        SFolderRow{"exc_name_anywhere", {{I, "/data"}, {E, "*.tmp"}}, false, "/data/a", false},
        SFolderRow{"wild_parent", {{I, "/data/*"}}, false, "/data", false},
        SFolderRow{"wild_child", {{I, "/data/*"}}, false, "/data/x", true},
        SFolderRow{"name_folder", {{I, "*.tmp"}}, false, "/a/x.tmp", true},
        SFolderRow{"exc_wild_above", kRootCache, false, "/home", false},
        SFolderRow{"exc_wild_parent", kRootCache, false, "/home/u", false},
        SFolderRow{"exc_wild_itself", kRootCache, false, "/home/u/cache", false},
        SFolderRow{
            "exc_wild_cannot_reach", {{I, "/data"}, {E, "/data/x*/y"}}, false, "/data/a", true},
        SFolderRow{
            "exc_wild_can_reach", {{I, "/data"}, {E, "/data/x*/y"}}, false, "/data/xa", false},
        SFolderRow{"fold_on", {{I, "/DATA/**"}}, true, "/data/x", true},
        SFolderRow{"fold_off", {{I, "/DATA/**"}}, false, "/data/x", false},
        SFolderRow{"empty_set", {}, false, "/", false}),
    RowName<SFolderRow>);

// ---------------------------------------------------------------------------------------------
// Filter prefixes: the fixed leading folders before the first wildcard component.

struct SPrefixRow {
  const char* name;
  std::string item;
  std::string prefix;
  bool bWildcard;
};

class FilterTermPrefix : public ::testing::TestWithParam<SPrefixRow> {};

TEST_P(FilterTermPrefix, Table) {
  const SPrefixRow& r = GetParam();
  EXPECT_EQ(CFilterTerm::IsWildcardItem(r.item), r.bWildcard);
  CFilterTerm term;
  ASSERT_TRUE(term.LoadRaw(r.item).IsSuccess());
  EXPECT_EQ(term.GetFilterPrefix(), r.prefix);
  EXPECT_EQ(term.IsWildcard(), r.bWildcard);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, FilterTermPrefix,
    ::testing::Values(SPrefixRow{"fixed_folders", "/data/x/*/y.txt", "/data/x", true},
                      SPrefixRow{"wild_in_component", "/data/x*/y", "/data", true},
                      SPrefixRow{"name_pattern", "*.tmp", "", true},
                      SPrefixRow{"wild_at_top", "/*/a", "/", true},
                      SPrefixRow{"class_at_top", "/[a]", "/", true},
                      SPrefixRow{"relative_starstar", "**/x", "", true},
                      SPrefixRow{"trailing_starstar", "/data/**", "/data", true},
                      SPrefixRow{"escaped_in_prefix", "/a\\*b/*", "/a*b", true},
                      SPrefixRow{"all_escaped", "/a/b\\?", "/a/b?", true},
                      SPrefixRow{"normalized", "/data//x/*/", "/data/x", true},
                      SPrefixRow{"class", "/data/[ab]/x", "/data", true},
                      SPrefixRow{"relative", "data/x/*", "data/x", true},
                      SPrefixRow{"plain", "/data/x", "/data/x", false},
                      SPrefixRow{"plain_trailing_delim", "/data/x/", "/data/x", false},
                      SPrefixRow{"plain_root", "/", "/", false},
                      SPrefixRow{"plain_name", "core", "", false}),
    RowName<SPrefixRow>);

// ---------------------------------------------------------------------------------------------
// Items that are refused, with their codes and messages.

struct SBadRow {
  const char* name;
  std::string item;
  BFilterTermOptions options;
  uint32_t code;
  std::string message;
};

class FilterTermMalformed : public ::testing::TestWithParam<SBadRow> {};

TEST_P(FilterTermMalformed, Table) {
  const SBadRow& r = GetParam();
  CFilterTerm term(r.options);
  CQiError err = term.LoadRaw(r.item);
  ASSERT_TRUE(err.IsWin32(r.code)) << err.AsString();
  EXPECT_EQ(err.GetMessage(), r.message);
  EXPECT_FALSE(term.IsLoaded());

  // The set refuses the same item with the same code, and stays as it was.
  if (r.options == BFilterTermOptions::None) {
    CFilterSet set;
    CQiError setErr = set.AddFilterItem(I, r.item);
    ASSERT_TRUE(setErr.IsWin32(r.code)) << setErr.AsString();
    EXPECT_EQ(setErr.GetMessage(), r.message);
    EXPECT_TRUE(set.IsEmpty());
  }
}

const BFilterTermOptions kNone = BFilterTermOptions::None;

INSTANTIATE_TEST_SUITE_P(
    Rows, FilterTermMalformed,
    ::testing::Values(
        SBadRow{"empty", "", kNone, 87, "Empty filter item"},
        SBadRow{"nul_byte", std::string("/data/a\0b", 9), kNone, 87,
                "Filter item holds a NUL byte, Item=[/data/a\\x00b]"},
        SBadRow{"unterminated_class", "/data/[abc", kNone, 13,
                "Unterminated character class at offset 6, Pattern=[/data/[abc]"},
        SBadRow{"bracket_first_unterminated", "/data/[]", kNone, 13,
                "Unterminated character class at offset 6, Pattern=[/data/[]]"},
        SBadRow{"negated_unterminated", "/data/[!]", kNone, 13,
                "Unterminated character class at offset 6, Pattern=[/data/[!]]"},
        SBadRow{"reversed_range", "/data/[z-a]x", kNone, 13,
                "Reversed range in character class at offset 6, Pattern=[/data/[z-a]x]"},
        SBadRow{"unknown_named_class", "/data/[[:alhpa:]]", kNone, 13,
                "Unknown named character class at offset 6, Pattern=[/data/[[:alhpa:]]]"},
        SBadRow{"slash_in_class", "/data/[/]*", kNone, 13,
                "A character class cannot hold '/' at offset 6, Pattern=[/data/[/]*]"},
        SBadRow{"lone_backslash", "/data/*\\", kNone, 13,
                "Filter pattern ends with a lone '\\', Pattern=[/data/*\\\\]"},
        SBadRow{"too_long", "/*" + std::string(PATH_MAX, 'a'), kNone, 87,
                "Filter pattern longer than 4096 bytes, Length=4098"},
        SBadRow{"too_many_stars",
                [] {
                  std::string s;
                  for (int i = 0; i < 65; ++i) s += "/*";
                  return s;
                }(),
                kNone, 87,
                "Filter pattern holds more than 64 '*' groups, Pattern=[" +
                    [] {
                      std::string s;
                      for (int i = 0; i < 65; ++i) s += "/*";
                      return s;
                    }() +
                    "]"},
        SBadRow{"conflicting_options", "/data",
                BFilterTermOptions::CaseInsensitive | BFilterTermOptions::CaseSensitive, 87,
                "Conflicting filter term options 0x3: CaseInsensitive and CaseSensitive"},
        SBadRow{"unknown_options", "/data", static_cast<BFilterTermOptions>(8), 87,
                "Unknown filter term options 0x8"}),
    RowName<SBadRow>);

TEST(FilterSet, RefusesInvalidNodeStatesAndTerms) {
  CFilterSet set;
  CQiError err = set.AddFilterItem(static_cast<BFilterNodeState>(3), "/data");
  ASSERT_TRUE(err.IsWin32(87));
  EXPECT_EQ(err.GetMessage(), "Invalid filter node state 3");
  err = set.AddFilterTerm(I, CFilterTermPtr());
  ASSERT_TRUE(err.IsWin32(87));
  EXPECT_EQ(err.GetMessage(), "Empty filter term");
  err = set.AddFilterTerm(I, std::make_shared<CFilterTerm>());
  ASSERT_TRUE(err.IsWin32(87));
  EXPECT_EQ(err.GetMessage(), "Filter term is not loaded");
  EXPECT_TRUE(set.IsEmpty());
}

TEST(FilterSet, AddFailureNamesTheItem) {
  CFilterSet set;
  CQiError err = set.AddFilterItem(E, "/x/[a");
  ASSERT_TRUE(err.IsWin32(13));
  EXPECT_NE(err.AsString().find("Failed to add filter item, State=Exception, Item=[/x/[a]"),
            std::string::npos)
      << err.AsString();
}

// ---------------------------------------------------------------------------------------------
// Duplicates, counts, term options.

TEST(FilterSet, StoresTheSameItemOnce) {
  CFilterSet set;
  for (const char* item : {"/data", "/data", "/data/", "//data", "*.tmp", "*.tmp", "core", "core"})
    ASSERT_TRUE(set.AddFilterItem(I, item).IsSuccess());
  EXPECT_EQ(set.GetItemCount(I), 3u);
  EXPECT_EQ(set.GetWildcardItemCount(), 1u);

  // Byte-wise: another case is another item; another node state is another item.
  ASSERT_TRUE(set.AddFilterItem(I, "/Data").IsSuccess());
  ASSERT_TRUE(set.AddFilterItem(E, "*.tmp").IsSuccess());
  ASSERT_TRUE(set.AddFilterItem(E, "/data").IsSuccess());
  EXPECT_EQ(set.GetItemCount(I), 4u);
  EXPECT_EQ(set.GetItemCount(E), 2u);
  EXPECT_EQ(set.GetItemCount(), 6u);
  EXPECT_EQ(set.GetWildcardItemCount(), 2u);

  // A term with the pattern already held is not stored again.
  auto term = std::make_shared<CFilterTerm>();
  ASSERT_TRUE(term->LoadRaw("*.tmp").IsSuccess());
  ASSERT_TRUE(set.AddFilterTerm(I, term).IsSuccess());
  EXPECT_EQ(set.GetWildcardItemCount(), 2u);
  EXPECT_FALSE(set.IsEmpty());
  EXPECT_TRUE(CFilterSet().IsEmpty());
}

TEST(FilterSet, TermOptionsOverrideTheSetSwitch) {
  auto insensitive = std::make_shared<CFilterTerm>(BFilterTermOptions::CaseInsensitive);
  ASSERT_TRUE(insensitive->LoadRaw("/Data/Docs").IsSuccess());
  auto sensitive = std::make_shared<CFilterTerm>(BFilterTermOptions::CaseSensitive);
  ASSERT_TRUE(sensitive->LoadRaw("*.LOG").IsSuccess());
  CFilterSet set;
  ASSERT_TRUE(set.AddFilterTerm(I, insensitive).IsSuccess());
  ASSERT_TRUE(set.AddFilterTerm(I, sensitive).IsSuccess());
  set.SetUseInsensitiveFilterForWildCard(true);
  ASSERT_TRUE(set.IsUseInsensitiveFilterForWildCardSet());

  // The plain term folds case even though plain items normally do not, at every level.
  EXPECT_TRUE(set.IsIn(CFilterTermTestString("/DATA/docs/x")));
  EXPECT_TRUE(set.IsMatchPossibleInFolder(CFilterTermTestString("/data")));
  EXPECT_TRUE(set.IsMatchEntireFolder(CFilterTermTestString("/data/DOCS")));
  // The wildcard term keeps its case although the set asks for folding.
  EXPECT_FALSE(set.IsIn(CFilterTermTestString("/var/a.log")));
  EXPECT_TRUE(set.IsIn(CFilterTermTestString("/var/a.LOG")));
}

TEST(FilterSet, DefaultTermAndOptionsZeroBehaveAlike) {
  CFilterTerm byDefault;
  CFilterTerm zero(BFilterTermOptions{0});
  ASSERT_TRUE(byDefault.LoadRaw("/D/*.x").IsSuccess());
  ASSERT_TRUE(zero.LoadRaw("/D/*.x").IsSuccess());
  for (bool bFold : {false, true}) {
    for (const char* path : {"/D/a.x", "/d/a.X", "/D/a.y"}) {
      CFilterTermTestString test(path);
      EXPECT_EQ(byDefault.Matches(test, CFilterTerm::kMatchAtOrBelow, bFold),
                zero.Matches(test, CFilterTerm::kMatchAtOrBelow, bFold));
    }
  }
}

// A term asked directly answers as a set holding only that term: the set keeps plain items in
// hash tables and the term compares strings, two ways to the same answer.
TEST(FilterTerm, AnswersAsASetHoldingIt) {
  const std::vector<std::string> items = {"/",        "/data",   "/data/a/b", "core",
                                          "data/x",   "/Da\\ta", "/data/*",   "*.tmp",
                                          "/d*/**/b", "**/x",    "/data/?"};
  const std::vector<std::string> paths = {
      "/",        "/data",     "/data/a",     "/data/a/b/c", "/database", "/x/core", "/core/y",
      "data/x/y", "/Da\\ta/z", "/data/f.tmp", "/dq/r/b/s",   "/q/x",      "/DATA/a"};
  for (const std::string& item : items) {
    for (BFilterTermOptions options :
         {BFilterTermOptions::None, BFilterTermOptions::CaseInsensitive}) {
      auto term = std::make_shared<CFilterTerm>(options);
      ASSERT_TRUE(term->LoadRaw(item).IsSuccess());
      CFilterSet set;
      ASSERT_TRUE(set.AddFilterTerm(I, term).IsSuccess());
      for (const std::string& path : paths) {
        CFilterTermTestString test(path);
        for (unsigned bits = 1; bits <= 3; ++bits)
          EXPECT_EQ(term->Matches(test, bits), set.IsIn(test, bits))
              << item << " " << path << " bits=" << bits;
        EXPECT_EQ(term->CouldMatchAtOrBelow(test), set.IsMatchPossibleInFolder(test))
            << item << " " << path;
      }
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Test strings.

TEST(FilterTermTestString, LevelsNamesAndLogForm) {
  CFilterTermTestString test("/a//b/");
  EXPECT_EQ(test.GetString(), "/a/b");
  ASSERT_EQ(test.GetLevelCount(), 3u);
  EXPECT_EQ(test.GetPrefix(0), "/");
  EXPECT_EQ(test.GetPrefix(1), "/a");
  EXPECT_EQ(test.GetPrefix(2), "/a/b");
  EXPECT_EQ(test.GetName(0), "");
  EXPECT_EQ(test.GetName(1), "a");
  EXPECT_EQ(test.GetName(2), "b");
  for (size_t i = 0; i < 3; ++i)
    EXPECT_EQ(test.GetLevel(i).hash, FilterPathHash(test.GetPrefix(i)));
  EXPECT_EQ(test.GetStringWithLeadingBackslash(), "\\/a/b");

  CFilterTermTestString relative("a/bc");
  ASSERT_EQ(relative.GetLevelCount(), 2u);
  EXPECT_EQ(relative.GetPrefix(0), "a");
  EXPECT_EQ(relative.GetName(1), "bc");

  EXPECT_EQ(CFilterTermTestString("//").GetString(), "/");
  EXPECT_EQ(CFilterTermTestString("/").GetLevelCount(), 1u);
  EXPECT_EQ(CFilterTermTestString("").GetLevelCount(), 0u);
  EXPECT_EQ(CFilterTermTestString("/d/new\nline\\x").GetStringWithLeadingBackslash(),
            "\\/d/new\\nline\\\\x");
}

TEST(FilterSet, DeepPathsBeyondTheInlineLevels) {
  std::string deep;
  for (int i = 0; i < 40; ++i) deep += "/d" + std::to_string(i);
  std::string item = deep.substr(0, deep.find("/d31"));  // 31 levels down
  CFilterSetPtr set = MakeSet({{I, item}, {E, deep + "/skip"}, {I, "*.deep"}});
  EXPECT_TRUE(set->IsIn(CFilterTermTestString(deep)));
  EXPECT_FALSE(set->IsIn(CFilterTermTestString(deep + "/skip/x")));
  EXPECT_TRUE(set->IsIn(CFilterTermTestString("/x" + deep + "/a.deep")));
  EXPECT_FALSE(set->IsIn(CFilterTermTestString(item.substr(0, item.rfind('/')))));
  EXPECT_TRUE(set->IsMatchPossibleInFolder(CFilterTermTestString(item.substr(0, 50))));
  EXPECT_FALSE(set->IsMatchEntireFolder(CFilterTermTestString(deep)));

  // Past 64 levels every depth shares one bit of the depth mask; lookups must still happen.
  std::string deeper = deep + deep;  // 80 levels
  std::string item70 = deeper.substr(0, deeper.find("/d30", deep.size()));
  CFilterSetPtr deepSet = MakeSet({{I, item70}});
  EXPECT_TRUE(deepSet->IsIn(CFilterTermTestString(deeper)));
  EXPECT_TRUE(deepSet->IsIn(CFilterTermTestString(item70)));
  EXPECT_FALSE(deepSet->IsIn(CFilterTermTestString(item70.substr(0, item70.rfind('/')))));
}

// ---------------------------------------------------------------------------------------------
// Diagnostic dump.

TEST(FilterSet, DumpsEveryItem) {
  CFilterSet set;
  auto context = std::make_shared<FVBase>();
  ASSERT_TRUE(set.AddFilterItem(I, "/data/b", "/vol").IsSuccess());
  ASSERT_TRUE(set.AddFilterItem(I, "/data/a", "/vol", context).IsSuccess());
  ASSERT_TRUE(set.AddFilterItem(I, "core").IsSuccess());
  ASSERT_TRUE(set.AddFilterItem(I, "/data/*/x\ny", "/vol").IsSuccess());
  ASSERT_TRUE(set.AddFilterItem(E, "*.tmp").IsSuccess());
  set.SetUseInsensitiveFilterForWildCard(true);
  auto writer = std::make_shared<CMemoryLineWriter>();
  set.DumpDiagnosticData(writer, ">");
  std::vector<std::string> expected = {
      FXString::Format(">FilterSet=0x%p, Includes=4, Exceptions=1, Wildcards=2, "
                       "InsensitiveWildcards=1",
                       static_cast<const void*>(&set)),
      FXString::Format(">  Include Path=[/data/a], Options=0x0, Volume=[/vol], Context=0x%p",
                       static_cast<const void*>(context.get())),
      ">  Include Path=[/data/b], Options=0x0, Volume=[/vol]",
      ">  Include Name=[core], Options=0x0, Volume=[]",
      ">  Include Pattern=[/data/*/x\\ny], Prefix=[/data], Options=0x0, Volume=[/vol]",
      ">  Exception Pattern=[*.tmp], Prefix=[], Options=0x0, Volume=[]",
  };
  EXPECT_EQ(writer->GetLines(), expected);
  set.DumpDiagnosticData(CLineWriterPtr(), "");  // no writer: nothing happens
}

// ---------------------------------------------------------------------------------------------
// Many readers at once on one filled set (run under ThreadSanitizer too).

TEST(FilterSet, ConcurrentReadersAgreeWithOneReader) {
  std::vector<SItem> items;
  for (int i = 0; i < 200; ++i) items.push_back({I, "/data/u" + std::to_string(i)});
  for (int i = 0; i < 20; ++i) items.push_back({E, "/data/u" + std::to_string(i * 10) + "/tmp"});
  items.push_back({I, "/home/*/docs"});
  items.push_back({E, "*.TMP"});
  items.push_back({E, "cache"});
  CFilterSetPtr set = MakeSet(items, true);

  std::vector<std::string> paths;
  for (int i = 0; i < 250; ++i) {
    const std::string u = std::to_string(i);
    paths.push_back("/data/u" + u + "/f.txt");
    paths.push_back("/data/u" + u + "/tmp/f");
    paths.push_back("/home/h" + u + "/docs/a.tmp");
    paths.push_back("/home/h" + u + "/docs/cache/b");
    paths.push_back("/data/u" + u);
  }
  struct SAnswer {
    bool in, possible, entire;
  };
  std::vector<SAnswer> expected;
  for (const std::string& p : paths) {
    CFilterTermTestString t(p);
    expected.push_back(
        {set->IsIn(t), set->IsMatchPossibleInFolder(t), set->IsMatchEntireFolder(t)});
  }

  constexpr int kThreads = 8;
  std::latch start(kThreads);
  std::vector<int> mismatches(kThreads, 0);
  std::vector<std::thread> threads;
  for (int n = 0; n < kThreads; ++n) {
    threads.emplace_back([&, n] {
      start.arrive_and_wait();
      for (int round = 0; round < 4; ++round) {
        for (size_t i = 0; i < paths.size(); ++i) {
          const size_t k = (i + static_cast<size_t>(n) * 97) % paths.size();
          CFilterTermTestString t(paths[k]);
          if (set->IsIn(t) != expected[k].in ||
              set->IsMatchPossibleInFolder(t) != expected[k].possible ||
              set->IsMatchEntireFolder(t) != expected[k].entire)
            ++mismatches[n];
        }
      }
    });
  }
  for (std::thread& t : threads) t.join();
  for (int n = 0; n < kThreads; ++n) EXPECT_EQ(mismatches[n], 0) << "thread " << n;
  // The answers themselves are the ones the rules give.
  EXPECT_TRUE(expected[0].in);         // /data/u0/f.txt
  EXPECT_FALSE(expected[1].in);        // /data/u0/tmp/f
  EXPECT_FALSE(expected[1].possible);  // below the exception /data/u0/tmp
  EXPECT_FALSE(expected[2].in);        // a.tmp, folded against *.TMP
  EXPECT_FALSE(expected[3].in);        // below a "cache" folder
  EXPECT_TRUE(expected[4].possible);   // /data/u0 holds an exception below it, not on it
  // Name exceptions may turn up in any folder: no folder is entirely in this set.
  EXPECT_FALSE(expected[4 + 5].entire);
}

// ---------------------------------------------------------------------------------------------
// A real tree walked twice: once in full, once entering only folders where a match is possible.
// Pruning must never lose an entry, and a folder said to be entirely in the set must be.

void Walk(const std::string& folder, const CFilterSet& set, bool bPrune,
          std::set<std::string>& selected, std::vector<std::string>& entireFolders) {
  DIR* dir = opendir(folder.c_str());
  ASSERT_NE(dir, nullptr) << folder;
  std::vector<std::pair<std::string, bool>> entries;
  while (dirent* e = readdir(dir)) {
    std::string name = e->d_name;
    if (name == "." || name == "..") continue;
    entries.emplace_back(folder + "/" + name, e->d_type == DT_DIR);
  }
  closedir(dir);
  for (const auto& [path, bDir] : entries) {
    CFilterTermTestString test(path);
    if (set.IsIn(test)) selected.insert(path);
    if (!bDir) continue;
    if (set.IsMatchEntireFolder(test)) entireFolders.push_back(path);
    if (!bPrune || set.IsMatchPossibleInFolder(test))
      Walk(path, set, bPrune, selected, entireFolders);
  }
}

TEST(FilterSet, PruningARealTreeLosesNothing) {
  CTempTree tree;
  const std::string r = tree.Root();
  for (const char* f :
       {"data/a/b/keep.txt", "data/a/b/c/deep.tmp", "data/a/x.tmp/inner", "data/ab/other.txt",
        "data/tmp/t1", "data/tmp/sub/t2", "data/docs/r\xff\xfe.doc", "data/docs/new\nline.txt",
        "home/u1/docs/a.txt", "home/u1/cache/c", "home/u2/docs/cache/d", "home/u2/music/m.mp3",
        "var/log/x.log", "var/log/keep/y.log", "database/z"})
    tree.MakeFile(f, "x");

  const std::vector<std::vector<SItem>> sets = {
      {{I, r + "/data/a/b"}},
      {{I, r + "/data"}, {E, r + "/data/tmp"}, {E, "*.tmp"}},
      {{I, r + "/home/*/docs"}, {E, "cache"}},
      {{I, r + "/**/*.log"}, {E, r + "/var/log/keep"}},
      {{I, r + "/data/[ad]*"}, {I, r + "/var"}},
      {{I, "*.txt"}, {E, r + "/data/a"}},
      {{I, r}, {E, r + "/home/*/cache"}, {E, r + "/data/docs/*\n*"}},
  };
  for (size_t i = 0; i < sets.size(); ++i) {
    CFilterSetPtr set = MakeSet(sets[i]);
    std::set<std::string> all, pruned;
    std::vector<std::string> entire, ignored;
    Walk(r, *set, false, all, entire);
    Walk(r, *set, true, pruned, ignored);
    EXPECT_EQ(pruned, all) << "set " << i;
    EXPECT_FALSE(all.empty()) << "set " << i;
    for (const std::string& folder : entire) {
      std::set<std::string> below;
      std::vector<std::string> unused;
      CFilterSet everything;
      ASSERT_TRUE(everything.AddFilterItem(I, "/").IsSuccess());
      Walk(folder, everything, false, below, unused);
      for (const std::string& path : below)
        EXPECT_TRUE(set->IsIn(CFilterTermTestString(path)))
            << "set " << i << ": " << folder << " said entire, " << path << " not in";
    }
  }
}

}  // namespace
