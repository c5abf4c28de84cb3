#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Platform/LineSorter.h"

namespace {

// The order itself is compared with coreutils sort, input by input, in the BatchSort suite.
TEST(LineSorter, ChainOfPrefixesDoesNotRecurseDeeply) {
  // "a", "aa", ..., each a prefix of the next: one radix level per byte, which must not turn
  // into one stack frame per byte.
  std::vector<std::string> lines;
  for (size_t i = 20000; i > 0; --i) lines.push_back(std::string(i, 'a'));
  std::vector<SLineRef> refs;
  for (const std::string& line : lines) refs.push_back({0, line.data(), line.size()});
  CLineSorter::Sort(refs.data(), refs.size(), 1);
  for (size_t i = 0; i < refs.size(); ++i) ASSERT_EQ(refs[i].uLength, i + 1);
  EXPECT_LT(CLineSorter::Compare("a", 1, "a\0", 2), 0);  // the prefix first, then byte order
  EXPECT_GT(CLineSorter::Compare("\xff", 1, "\x01", 1), 0);
}

}  // namespace
