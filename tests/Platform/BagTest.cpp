#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "Platform/Bag.h"
#include "Support/PlatformTestSupport.h"

namespace {
// Writes a value of the kind ('b' bool, 'i' int, 'u' unsigned, 'l' long long, 'L' unsigned long
// long, 's' string) under "k"; nothing for '-'.
void WriteAs(CBag& bag, char kind) {
  if (kind == 'b') (void)bag.Write("k", true);
  if (kind == 'i') (void)bag.Write("k", -5);
  if (kind == 'u') (void)bag.Write("k", 7u);
  if (kind == 'l') (void)bag.Write("k", -(1LL << 40));
  if (kind == 'L') (void)bag.Write("k", 1ULL << 63);
  if (kind == 's') (void)bag.Write("k", "text");
}
// Reads "k" as the kind into a variable that starts at its default; the code and the value.
template <class T>
std::string Read(const CBag& bag, T value) {
  CQiError error = bag.Read("k", value);
  if constexpr (std::is_same_v<T, std::string>)
    return ErrorCode(error) + " " + value;
  else
    return ErrorCode(error) + " " + std::to_string(value);
}
std::string ReadAs(const CBag& bag, char kind) {
  switch (kind) {
    case 'b':
      return Read(bag, false);
    case 'i':
      return Read(bag, 9);
    case 'u':
      return Read(bag, 9u);
    case 'l':
      return Read(bag, 9LL);
    case 'L':
      return Read(bag, 9ULL);
    default:
      return Read(bag, std::string("d"));
  }
}

struct SRow {
  char stored;
  char readAs;
  const char* expected;  // code and value; a refused read keeps the default
};
class BagRead : public ::testing::TestWithParam<SRow> {};

TEST_P(BagRead, TypedValuesRoundTripOrKeepTheDefault) {
  CBag bag;
  WriteAs(bag, GetParam().stored);
  EXPECT_EQ(ReadAs(bag, GetParam().readAs), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, BagRead,
    ::testing::Values(SRow{'u', 'u', "ok 7"}, SRow{'l', 'l', "ok -1099511627776"},
                      SRow{'L', 'L', "ok 9223372036854775808"}, SRow{'-', 'L', "W1168 9"},
                      SRow{'i', 'b', "W13 0"}, SRow{'i', 's', "W13 d"}));

TEST(Bag, ReadAnyReturnsTheStoredValueAndWriteReplaces) {
  CBag bag;
  (void)bag.Write("k", 1);
  (void)bag.Write("k", "now a string");
  std::any any;
  ASSERT_TRUE(bag.ReadAny("k", any).IsSuccess());
  EXPECT_EQ(std::any_cast<std::string>(any), "now a string");
  EXPECT_EQ(bag.Size() + bag.Contains("k") + 2 * bag.Contains("nothing"), 2u);
  EXPECT_TRUE(bag.Write("", 1).IsWin32(QiErrorCode::InvalidParameter));
  EXPECT_TRUE(bag.ReadAny("nothing", any).IsWin32(QiErrorCode::NotFound));
}

TEST(Bag, ConcurrentReadersAndWriterStayConsistent) {
  CBag bag;
  (void)bag.Write("n", 0);
  std::thread writer([&] {
    for (int i = 1; i <= 20000; ++i) (void)bag.Write("n", i);
  });
  std::vector<std::thread> readers;
  for (int r = 0; r < 3; ++r) {
    readers.emplace_back([&] {
      int last = 0;
      for (int i = 0; i < 20000; ++i) {
        int v = -1;
        ASSERT_TRUE(bag.Read("n", v).IsSuccess());
        ASSERT_GE(v, last);
        last = v;
      }
    });
  }
  writer.join();
  for (auto& t : readers) t.join();
}

}  // namespace
