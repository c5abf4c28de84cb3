#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "Platform/LineSorter.h"

namespace {

enum class EShape { TinyAlphabetWithNul, AllBytes, Paths, AllEqual, LongSharedPrefix };

struct SSorterCase {
  const char* name;
  EShape shape;
  size_t count;
  unsigned threads;
  bool keysLoaded;
};
void PrintTo(const SSorterCase& c, std::ostream* os) { *os << c.name; }

std::vector<std::string> MakeLines(EShape shape, size_t count, uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<std::string> lines;
  lines.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    std::string line;
    switch (shape) {
      case EShape::TinyAlphabetWithNul: {
        const char alphabet[] = {'\0', '\x01', 'b', '\xff'};
        line.resize(random() % 14);
        for (char& ch : line) ch = alphabet[random() % 4];
        break;
      }
      case EShape::AllBytes:
        line.resize(random() % 30);
        for (char& ch : line) ch = static_cast<char>(random() % 256);
        break;
      case EShape::Paths:
        line = "/data/proj" + std::to_string(random() % 30) + "/dir" + std::to_string(random() % 300) +
               "/file_" + std::to_string(random() % 100000) + ".txt";
        break;
      case EShape::AllEqual:
        line = "same line";
        break;
      case EShape::LongSharedPrefix: {
        line.assign(100 + random() % 3, 'p');
        line.resize(line.size() + random() % 10, '\0');
        for (size_t j = 100; j < line.size(); ++j)
          if (random() % 2) line[j] = static_cast<char>('a' + random() % 2);
        break;
      }
    }
    lines.push_back(line);
  }
  return lines;
}

class LineSorterOrder : public ::testing::TestWithParam<SSorterCase> {};

TEST_P(LineSorterOrder, EqualsTheOrderOfStdSortOnByteStrings) {
  const SSorterCase& c = GetParam();
  std::vector<std::string> lines = MakeLines(c.shape, c.count, 17);
  std::vector<SLineRef> refs;
  for (const std::string& line : lines) {
    SLineRef ref{0, line.data(), line.size()};
    if (c.keysLoaded) ref.uKey = CLineSorter::LoadKey(line.data(), line.size(), 0);
    refs.push_back(ref);
  }
  CLineSorter::Sort(refs.data(), refs.size(), c.threads, c.keysLoaded);

  std::vector<std::string> expected = lines;
  std::sort(expected.begin(), expected.end());  // char_traits<char>::compare is memcmp order
  ASSERT_EQ(refs.size(), expected.size());
  size_t mismatches = 0;
  for (size_t i = 0; i < refs.size(); ++i)
    if (std::string(refs[i].pData, refs[i].uLength) != expected[i]) ++mismatches;
  EXPECT_EQ(mismatches, 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, LineSorterOrder,
    ::testing::Values(
        SSorterCase{"Nothing", EShape::Paths, 0, 1, false},
        SSorterCase{"OneLine", EShape::Paths, 1, 2, false},
        SSorterCase{"TwoLines", EShape::TinyAlphabetWithNul, 2, 1, false},
        SSorterCase{"SmallTinyAlphabet", EShape::TinyAlphabetWithNul, 100, 1, false},
        SSorterCase{"RadixTinyAlphabet", EShape::TinyAlphabetWithNul, 20000, 1, true},
        SSorterCase{"ParallelTinyAlphabet", EShape::TinyAlphabetWithNul, 200000, 2, false},
        SSorterCase{"RadixAllBytes", EShape::AllBytes, 20000, 1, false},
        SSorterCase{"ParallelAllBytes", EShape::AllBytes, 200000, 2, true},
        SSorterCase{"ParallelPaths", EShape::Paths, 200000, 2, true},
        SSorterCase{"ThreeThreadsPaths", EShape::Paths, 100000, 3, false},
        SSorterCase{"AllEqualParallel", EShape::AllEqual, 100000, 2, false},
        SSorterCase{"LongSharedPrefix", EShape::LongSharedPrefix, 30000, 1, false},
        SSorterCase{"LongSharedPrefixParallel", EShape::LongSharedPrefix, 150000, 2, true}),
    [](const ::testing::TestParamInfo<SSorterCase>& info) { return info.param.name; });

TEST(LineSorter, ChainOfPrefixesDoesNotRecurseDeeply) {
  // "a", "aa", ..., each a prefix of the next: one radix level per byte, which must not turn
  // into one stack frame per byte.
  std::vector<std::string> lines;
  for (size_t i = 20000; i > 0; --i) lines.push_back(std::string(i, 'a'));
  std::vector<SLineRef> refs;
  for (const std::string& line : lines) refs.push_back({0, line.data(), line.size()});
  CLineSorter::Sort(refs.data(), refs.size(), 1);
  for (size_t i = 0; i < refs.size(); ++i) ASSERT_EQ(refs[i].uLength, i + 1);
}

TEST(LineSorter, CompareIsByteOrderWithPrefixesFirst) {
  EXPECT_LT(CLineSorter::Compare("a", 1, "a\0", 2), 0);
  EXPECT_GT(CLineSorter::Compare("\xff", 1, "\x01", 1), 0);
  EXPECT_EQ(CLineSorter::Compare("", 0, "", 0), 0);
  EXPECT_EQ(CLineSorter::LoadKey("ab", 2, 0), 0x6162000000000000ull);
  EXPECT_EQ(CLineSorter::LoadKey("abcdefghij", 10, 1), 0x6263646566676869ull);
  EXPECT_EQ(CLineSorter::LoadKey("ab", 2, 5), 0u);
}

}  // namespace
