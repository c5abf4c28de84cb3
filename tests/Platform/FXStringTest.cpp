// String helpers: number parsing, escaping, case folding and time stamps.
#include <gtest/gtest.h>

#include <string>

#include "Platform/FXString.h"
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
                         ::testing::Values(NumberRow{" -7 ", true, -7}, NumberRow{"0x10", true, 16},
                                           NumberRow{"12abc", false, 0},
                                           NumberRow{"99999999999999999999", false, 0}));

TEST(FXString, UnsignedRejectsNegatives) {
  unsigned long long v = 5;
  EXPECT_TRUE(FXString::ToUInt64("-1", v).IsWin32(QiErrorCode::InvalidData));
  EXPECT_EQ(v, 5u);
}

TEST(FXString, EscapeControlKeepsEveryNameOnOneLine) {
  EXPECT_EQ(FXString::EscapeControl(std::string("a\nb\tc\\d\x01\x7f", 9)),
            "a\\nb\\tc\\\\d\\x01\\x7f");
  EXPECT_EQ(FXString::EscapeControl("\xff\xfe"), "\xff\xfe");
}

TEST(FXString, CaseInsensitiveComparisonFoldsAsciiOnly) {
  EXPECT_EQ(FXString::CompareNoCase("ABC", "abc"), 0);
  EXPECT_LT(FXString::CompareNoCase("abc", "ABD"), 0);
  EXPECT_EQ(FXString::ToUpper("a\xe4z") + FXString::ToLower("A\xc4Z"), "A\xe4Za\xc4z");
  EXPECT_GT(FXString::CompareNoCase("abcd", "ABC"), 0);
  EXPECT_FALSE(FXString::EqualsNoCase("\xc3\x84", "\xc3\xa4"));
}

TEST(TimeStamp, NormalisesNanosecondsAndOrders) {
  CTimeStamp a(10, 1500000000);
  EXPECT_EQ(a.GetSeconds(), 11);
  EXPECT_EQ(a.GetNanoseconds(), 500000000);
  CTimeStamp b(10, -1);
  EXPECT_EQ(b.GetSeconds(), 9);
  EXPECT_EQ(b.GetNanoseconds(), 999999999);
  EXPECT_FALSE(CTimeStamp().IsSet());
  EXPECT_EQ(CTimeStamp(0, 5).AsString(), "1970-01-01 00:00:00.000000005");
}

