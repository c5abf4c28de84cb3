#include <gtest/gtest.h>

#include <thread>

#include "Platform/Bag.h"

TEST(Bag, TypedValuesRoundTrip) {
  CBag bag;
  ASSERT_TRUE(bag.Write("b", true).IsSuccess());
  ASSERT_TRUE(bag.Write("i", -5).IsSuccess());
  ASSERT_TRUE(bag.Write("u", 7u).IsSuccess());
  ASSERT_TRUE(bag.Write("ll", -(1LL << 40)).IsSuccess());
  ASSERT_TRUE(bag.Write("ull", 1ULL << 63).IsSuccess());
  ASSERT_TRUE(bag.Write("s", "text").IsSuccess());
  bool b = false;
  int i = 0;
  unsigned u = 0;
  long long ll = 0;
  unsigned long long ull = 0;
  std::string s;
  EXPECT_TRUE(bag.Read("b", b).IsSuccess());
  EXPECT_TRUE(bag.Read("i", i).IsSuccess());
  EXPECT_TRUE(bag.Read("u", u).IsSuccess());
  EXPECT_TRUE(bag.Read("ll", ll).IsSuccess());
  EXPECT_TRUE(bag.Read("ull", ull).IsSuccess());
  EXPECT_TRUE(bag.Read("s", s).IsSuccess());
  EXPECT_TRUE(b);
  EXPECT_EQ(i, -5);
  EXPECT_EQ(u, 7u);
  EXPECT_EQ(ll, -(1LL << 40));
  EXPECT_EQ(ull, 1ULL << 63);
  EXPECT_EQ(s, "text");
}

TEST(Bag, MissingKeyIs1168AndKeepsTheDefault) {
  CBag bag;
  unsigned long long value = 42;
  CQiError error = bag.Read("UseIdxLogWriterBasedCataloging", value);
  EXPECT_TRUE(error.IsWin32(QiErrorCode::NotFound));
  EXPECT_EQ(value, 42u);
  std::any any;
  EXPECT_TRUE(bag.ReadAny("nothing", any).IsWin32(QiErrorCode::NotFound));
}

struct WrongTypeRow {
  const char* stored;
  const char* readAs;
};
class BagWrongType : public ::testing::TestWithParam<WrongTypeRow> {};

TEST_P(BagWrongType, ReadOfAnotherTypeIs13AndKeepsTheDefault) {
  CBag bag;
  std::string stored = GetParam().stored;
  if (stored == "bool") (void)bag.Write("k", true);
  if (stored == "int") (void)bag.Write("k", 1);
  if (stored == "unsigned") (void)bag.Write("k", 1u);
  if (stored == "string") (void)bag.Write("k", "1");
  std::string readAs = GetParam().readAs;
  CQiError error;
  if (readAs == "bool") { bool v = false; error = bag.Read("k", v); EXPECT_FALSE(v); }
  if (readAs == "int") { int v = 9; error = bag.Read("k", v); EXPECT_EQ(v, 9); }
  if (readAs == "ull") { unsigned long long v = 9; error = bag.Read("k", v); EXPECT_EQ(v, 9u); }
  if (readAs == "string") { std::string v = "d"; error = bag.Read("k", v); EXPECT_EQ(v, "d"); }
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidData)) << error.AsString();
}

INSTANTIATE_TEST_SUITE_P(Table, BagWrongType,
                         ::testing::Values(WrongTypeRow{"bool", "int"},
                                           WrongTypeRow{"int", "bool"},
                                           WrongTypeRow{"unsigned", "int"},
                                           WrongTypeRow{"int", "ull"},
                                           WrongTypeRow{"string", "bool"},
                                           WrongTypeRow{"int", "string"}));

TEST(Bag, ReadAnyReturnsTheStoredValueAndWriteReplaces) {
  CBag bag;
  (void)bag.Write("k", 1);
  (void)bag.Write("k", "now a string");
  std::any any;
  ASSERT_TRUE(bag.ReadAny("k", any).IsSuccess());
  EXPECT_EQ(std::any_cast<std::string>(any), "now a string");
  EXPECT_EQ(bag.Size(), 1u);
  EXPECT_TRUE(bag.Write("", 1).IsWin32(QiErrorCode::InvalidParameter));
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
