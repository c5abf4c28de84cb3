#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "Platform/LineSorter.h"

namespace {

// Shapes of input: 't' a tiny alphabet with NUL, 'b' all bytes, 'p' paths, 'e' all lines equal,
// 's' a long shared prefix followed by NUL and a few letters.
struct SSorterCase {
  const char* name;
  char shape;
  size_t count;
  unsigned threads;
  bool keysLoaded;
};
void PrintTo(const SSorterCase& c, std::ostream* os) { *os << c.name; }

std::vector<std::string> MakeLines(char shape, size_t count) {
  std::string bytes;
  for (int c = 0; c < 256; ++c) bytes += static_cast<char>(c);
  const std::string alphabet = shape == 't' ? std::string(
                                                  "\0\x01"
                                                  "b\xff",
                                                  4)
                               : shape == 'b' ? bytes
                               : shape == 's' ? std::string("\0ab", 3)
                                              : "0123456789/";
  const std::string prefix = shape == 's'   ? std::string(100, 'p')
                             : shape == 'e' ? "same line"
                             : shape == 'p' ? "/data/proj"
                                            : "";
  const size_t maxLength = shape == 'e' ? 0 : shape == 'b' ? 29 : shape == 'p' ? 24 : 13;
  std::mt19937 random(17);
  std::vector<std::string> lines(count, prefix);
  for (std::string& line : lines)
    for (size_t n = random() % (maxLength + 1); n > 0; --n)
      line += alphabet[random() % alphabet.size()];
  return lines;
}

class LineSorterOrder : public ::testing::TestWithParam<SSorterCase> {};

TEST_P(LineSorterOrder, EqualsTheOrderOfStdSortOnByteStrings) {
  const SSorterCase& c = GetParam();
  std::vector<std::string> lines = MakeLines(c.shape, c.count);
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
    ::testing::Values(SSorterCase{"Nothing", 'p', 0, 1, false},
                      SSorterCase{"TwoLines", 't', 2, 1, false},
                      SSorterCase{"RadixTinyAlphabet", 't', 20000, 1, true},
                      SSorterCase{"ParallelAllBytes", 'b', 200000, 2, true},
                      SSorterCase{"ThreeThreadsPaths", 'p', 100000, 3, false},
                      SSorterCase{"AllEqualParallel", 'e', 100000, 2, false},
                      SSorterCase{"LongSharedPrefix", 's', 30000, 1, false}),
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

}  // namespace
