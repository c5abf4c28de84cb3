// String helpers: number parsing, escaping, case folding, splitting, time stamps, and the
// ordered-set comparators of Platform/StringCompare.h.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/FXString.h"
#include "Platform/StringCompare.h"
#include "Platform/TimeStamp.h"

struct NumberRow {
  const char* text;
  bool ok;
  long long value;
};
class FXStringToInt64 : public ::testing::TestWithParam<NumberRow> {};

TEST_P(FXStringToInt64, ParsesWholeStringsOnly) {
  long long value = -777;
  CQiError error = FXString::ToInt64(GetParam().text, value);
  if (GetParam().ok) {
    ASSERT_TRUE(error.IsSuccess()) << error.AsString();
    EXPECT_EQ(value, GetParam().value);
  } else {
    EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidData));
    EXPECT_EQ(value, -777) << "a failed parse leaves the default";
  }
}

INSTANTIATE_TEST_SUITE_P(Table, FXStringToInt64,
                         ::testing::Values(NumberRow{"42", true, 42}, NumberRow{" -7 ", true, -7},
                                           NumberRow{"0x10", true, 16}, NumberRow{"", false, 0},
                                           NumberRow{"12abc", false, 0},
                                           NumberRow{"99999999999999999999", false, 0}));

TEST(FXString, UnsignedRejectsNegatives) {
  unsigned long long v = 5;
  EXPECT_TRUE(FXString::ToUInt64("-1", v).IsWin32(QiErrorCode::InvalidData));
  EXPECT_EQ(v, 5u);
  EXPECT_TRUE(FXString::ToUInt64("18446744073709551615", v).IsSuccess());
  EXPECT_EQ(v, 18446744073709551615ULL);
}

TEST(FXString, EscapeControlKeepsEveryNameOnOneLine) {
  EXPECT_EQ(FXString::EscapeControl(std::string("a\nb\tc\\d\x01\x7f", 9)),
            "a\\nb\\tc\\\\d\\x01\\x7f");
  EXPECT_EQ(FXString::EscapeControl("\xff\xfe"), "\xff\xfe");
}

TEST(FXString, CaseInsensitiveComparisonFoldsAsciiOnly) {
  EXPECT_EQ(FXString::CompareNoCase("ABC", "abc"), 0);
  EXPECT_LT(FXString::CompareNoCase("abc", "ABD"), 0);
  EXPECT_GT(FXString::CompareNoCase("abcd", "ABC"), 0);
  EXPECT_FALSE(FXString::EqualsNoCase("\xc3\x84", "\xc3\xa4"));
}

TEST(FXString, SplitKeepsEmptyFieldsAndJoinRestoresThem) {
  auto parts = FXString::Split("a,,b,", ',');
  ASSERT_EQ(parts.size(), 4u);
  EXPECT_EQ(parts[1], "");
  EXPECT_EQ(FXString::Join(parts, ","), "a,,b,");
}

TEST(TimeStamp, NormalisesNanosecondsAndOrders) {
  CTimeStamp a(10, 1500000000);
  EXPECT_EQ(a.GetSeconds(), 11);
  EXPECT_EQ(a.GetNanoseconds(), 500000000);
  CTimeStamp b(10, -1);
  EXPECT_EQ(b.GetSeconds(), 9);
  EXPECT_EQ(b.GetNanoseconds(), 999999999);
  EXPECT_LT(b, a);
  EXPECT_FALSE(CTimeStamp().IsSet());
  EXPECT_EQ(CTimeStamp(0, 5).AsString(), "1970-01-01 00:00:00.000000005");
}

namespace {

TEST(StringCompare, FileSystemCaseKeepsCaseVariantsApart) {
  std::set<std::string, __less_fscase_cmp> set = {"/data", "/Data",     "/DATA",
                                                  "/data", "/data\xff", "/data/"};
  EXPECT_EQ(set.size(), 5u);
  std::vector<std::string> order(set.begin(), set.end());
  // strcmp order: upper case before lower case, bytes >= 0x80 after ASCII, prefixes first.
  EXPECT_EQ(order, (std::vector<std::string>{"/DATA", "/Data", "/data", "/data/", "/data\xff"}));
  EXPECT_TRUE(set.find(std::string_view("/Data")) != set.end());
  EXPECT_FALSE(__less_fscase_cmp()("/b", "/a"));
  EXPECT_FALSE(__less_fscase_cmp()("/a", "/a"));
}

TEST(StringCompare, CaseInsensitiveFoldsAsciiOnly) {
  std::set<std::string, __lesscasecmp> set = {"/data", "/Data", "/DATA"};
  EXPECT_EQ(set.size(), 1u);
  EXPECT_EQ(*set.begin(), "/data");  // the first one inserted is kept
  set.insert("/DATA\xc3\x89");
  set.insert("/data\xc3\xa9");  // another byte, not another case
  EXPECT_EQ(set.size(), 3u);
  std::map<std::string, int, __lesscasecmp> map;
  map["/Vol/A"] = 1;
  map["/vol/a"] = 2;
  ASSERT_EQ(map.size(), 1u);
  EXPECT_EQ(map.find(std::string_view("/VOL/A"))->second, 2);
  EXPECT_TRUE(__lesscasecmp()("/a", "/B"));
  EXPECT_FALSE(__less_fscase_cmp()("/a", "/B"));
}

}  // namespace
