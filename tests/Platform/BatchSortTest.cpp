#include <gtest/gtest.h>


#include <algorithm>
#include <cerrno>
#include <climits>
#include <random>
#include <string>
#include <vector>

#include "Platform/BatchSort.h"
#include "Platform/ZrProcess.h"
#include "Support/FileText.h"
#include "Support/PlatformTestSupport.h"
#include "Support/RunAsNobody.h"
#include "Support/TempTree.h"

namespace {

// The reference: GNU sort in the C locale.
std::string SortWithCoreutils(const std::string& input, const std::string& output) {
  ZrProcess process;
  if (process.Start("LC_ALL=C sort -o '" + output + "' '" + input + "'").IsError())
    return "<start>";
  if (process.WaitForExit(300000).IsError() || process.GetExitCode() != 0)
    return "<sort failed: " + process.GetStderr() + ">";
  return ReadFileText(output);
}

std::string Join(const std::vector<std::string>& lines, bool finalFeed = true) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  if (!finalFeed && !text.empty()) text.pop_back();
  return text;
}

// `count` lines, each the prefix and up to maxLength random bytes of the alphabet.
std::string RandomLines(size_t count, uint32_t seed, const std::string& alphabet, size_t maxLength,
                        const std::string& prefix = "") {
  std::mt19937 random(seed);
  std::string text;
  for (size_t i = 0; i < count; ++i) {
    text += prefix;
    for (size_t n = random() % (maxLength + 1); n > 0; --n)
      text += alphabet[random() % alphabet.size()];
    text += '\n';
  }
  return text;
}
std::string AllBytesButLineFeed() {
  std::string bytes;
  for (int c = 0; c < 256; ++c)
    if (c != '\n') bytes += static_cast<char>(c);
  return bytes;
}

std::string PathLines(size_t count, uint32_t seed) {
  std::mt19937 random(seed);
  std::string text;
  char line[128];
  for (size_t i = 0; i < count; ++i) {
    snprintf(line, sizeof(line), "/data/proj%02u/dir%03u/sub%02u/file_%06u.txt\n",
             static_cast<unsigned>(random() % 20), static_cast<unsigned>(random() % 100),
             static_cast<unsigned>(random() % 30), static_cast<unsigned>(random() % 1000000));
    text += line;
  }
  return text;
}

std::string MakeEmpty() { return ""; }
std::string MakeOneLineNoFeed() { return "only line"; }
std::string MakePrefixesAndNul() {
  return Join({std::string("a\0", 2), "a", std::string("a\0\0", 3), "ab", "", std::string("\0", 1),
               "a\x01", "\xff", std::string("a\0b", 3), "a", "", "\x7f", "\x80"});
}
std::string MakeAllBytes() { return RandomLines(20000, 7, AllBytesButLineFeed(), 40); }
// Lines sharing a long run of x, some ending inside it, some with NUL bytes.
std::string MakeSharedLongPrefixes() {
  return RandomLines(6000, 11, std::string("xx/dir1\0", 8), 25, std::string(290, 'x'));
}
// Few distinct bytes, NUL among them, and short lines: many lines are prefixes of others or
// differ from them only by a trailing NUL, deep into the radix passes.
std::string MakeTinyAlphabet() {
  return RandomLines(120000, 13,
                     std::string("\0\x01"
                                 "a\xff",
                                 4),
                     12);
}
std::string MakePaths() { return PathLines(40000, 3); }
std::string MakeManyPaths() { return PathLines(150000, 4); }
std::string MakeLongLines() {
  std::mt19937 random(9);
  std::vector<std::string> lines;
  for (int i = 0; i < 24; ++i) {
    std::string line(100000 + random() % 200000, static_cast<char>('a' + random() % 3));
    line[line.size() / 2] = static_cast<char>('a' + random() % 26);
    lines.push_back(line);
    lines.push_back("short" + std::to_string(i));
  }
  return Join(lines, false);
}

struct SSortCase {
  const char* name;
  std::string (*make)();
  size_t memory;      // 0: default
  size_t fanIn;       // 0: default
  unsigned threads;   // 0: default
  bool expectRuns;    // sorted through runs in the scratch folder
  bool expectMerges;  // with intermediate merges
};
void PrintTo(const SSortCase& c, std::ostream* os) { *os << c.name; }

class BatchSortCompare : public ::testing::TestWithParam<SSortCase> {};

TEST_P(BatchSortCompare, MatchesCoreutilsSortByteForByte) {
  const SSortCase& c = GetParam();
  CTempTree tree;
  std::string content = c.make();
  std::string input = tree.MakeFile("in/lines.txt", content);
  std::string output = tree.Path("out/sorted.txt");
  std::string expectedPath = tree.Path("ref/sorted.txt");
  tree.MakeDir("out");
  tree.MakeDir("ref");
  std::string scratch = tree.MakeDir("scratch");

  BBatchSortOptions options;
  if (c.memory != 0) options.uMemoryBytes = c.memory;
  options.uMaxMergeFanIn = c.fanIn;
  options.uThreads = c.threads;
  SBatchSortStats stats;
  CQiError error = BatchSort(input, output, scratch, options, &stats);
  ASSERT_TRUE(error.IsSuccess()) << error.AsString();

  std::string expected = SortWithCoreutils(input, expectedPath);
  std::string actual = ReadFileText(output);
  EXPECT_EQ(actual.size(), expected.size());
  EXPECT_TRUE(actual == expected) << "output differs from LC_ALL=C sort";
  EXPECT_EQ(ReadFileText(input), content);  // the input is left alone

  EXPECT_EQ(stats.uBytes, content.size());
  EXPECT_EQ(stats.uLines,
            static_cast<uint64_t>(std::count(expected.begin(), expected.end(), '\n')));
  EXPECT_EQ(stats.uRuns > 0, c.expectRuns) << stats.uRuns;
  EXPECT_EQ(stats.uMergePasses > 0, c.expectMerges) << stats.uMergePasses;
  // Nothing temporary is left anywhere.
  EXPECT_TRUE(FolderNames(scratch).empty());
  EXPECT_EQ(FolderNames(tree.Path("out")), std::vector<std::string>{"sorted.txt"});
}

constexpr size_t kSmall = size_t{64} << 10;

INSTANTIATE_TEST_SUITE_P(
    Inputs, BatchSortCompare,
    ::testing::Values(
        SSortCase{"Empty", MakeEmpty, 0, 0, 0, false, false},
        SSortCase{"OneLineWithoutLineFeed", MakeOneLineNoFeed, 0, 0, 0, false, false},
        SSortCase{"PrefixesAndNulBytes", MakePrefixesAndNul, 0, 0, 0, false, false},
        SSortCase{"AllBytesButLineFeed", MakeAllBytes, 0, 0, 0, false, false},
        SSortCase{"SharedLongPrefixes", MakeSharedLongPrefixes, 0, 0, 0, false, false},
        SSortCase{"TinyAlphabetTwoThreads", MakeTinyAlphabet, 0, 0, 2, false, false},
        SSortCase{"TinyAlphabetInRuns", MakeTinyAlphabet, kSmall * 4, 1000, 2, true, false},
        SSortCase{"PathsInMemoryTwoThreads", MakeManyPaths, 0, 0, 2, false, false},
        SSortCase{"PathsMultiPassFanInThree", MakePaths, kSmall, 3, 2, true, true},
        SSortCase{"SharedLongPrefixesInRuns", MakeSharedLongPrefixes, kSmall, 4, 0, true, true},
        SSortCase{"LinesLongerThanTheMemoryBound", MakeLongLines, kSmall, 1000, 0, true, false},
        SSortCase{"PathsManyRunsTwoThreads", MakeManyPaths, size_t{1} << 20, 0, 2, true, false}),
    [](const ::testing::TestParamInfo<SSortCase>& info) { return info.param.name; });

TEST(BatchSort, ReplacesTheOutputWhichMayBeTheInput) {
  CTempTree tree;
  const std::string path = tree.MakeFile("lines.txt", "c\nb\na\n");
  const std::string output = tree.MakeFile("out.txt", "old old old old\n");
  const std::string scratch = tree.MakeDir("scratch");
  ASSERT_TRUE(BatchSort(path, output, scratch).IsSuccess());
  ASSERT_TRUE(BatchSort(path, path, scratch).IsSuccess());
  EXPECT_EQ(ReadFileText(path) + ReadFileText(output), "a\nb\nc\na\nb\nc\n");
  EXPECT_EQ(FolderNames(tree.Root()),
            (std::vector<std::string>{"lines.txt", "out.txt", "scratch"}));
}

// --- Errors ------------------------------------------------------------------------------------

struct SErrorCase {
  const char* name;
  char broken;          // the argument given `path`: 'i' input, 'o' output, 's' scratch folder
  std::string path;     // '@' stands for the tree's root
  const char* code;     // see ErrorCode
  const char* message;  // the raising place's text, '@' as in `path`; "..." at the end: a prefix
};
class BatchSortError : public ::testing::TestWithParam<SErrorCase> {};

TEST_P(BatchSortError, FailsClearlyAndLeavesNothingBehind) {
  const SErrorCase& c = GetParam();
  CTempTree tree;
  tree.MakeDir("a-folder");
  std::string input = tree.MakeFile("in.txt", PathLines(2000, 1));
  std::string output = tree.MakeFile("out/sorted.txt", "previous output\n");
  std::string scratch = tree.MakeDir("scratch");
  (c.broken == 'i' ? input : c.broken == 'o' ? output : scratch) = Expand(c.path, tree.Root());
  BBatchSortOptions options;
  options.uMemoryBytes = kSmall;  // would need runs
  CQiError error = BatchSort(input, output, scratch, options);
  EXPECT_EQ(ErrorCode(error), c.code) << error.AsString();
  std::string message = Expand(c.message, tree.Root()), got = error.GetMessage();
  if (message.ends_with("...")) message.resize(message.size() - 3), got.resize(message.size());
  EXPECT_EQ(got, message);
  EXPECT_NE(error.AsString().find("Unable to sort ["), std::string::npos);
  EXPECT_EQ(ReadFileText(tree.Path("out/sorted.txt")), "previous output\n");
  EXPECT_EQ(FolderNames(tree.Path("out")), std::vector<std::string>{"sorted.txt"});
  EXPECT_TRUE(FolderNames(tree.Path("scratch")).empty());
}

INSTANTIATE_TEST_SUITE_P(
    Arguments, BatchSortError,
    ::testing::Values(SErrorCase{"InputMissing", 'i', "@/missing.txt", "E2",
                                 "Unable to open sort input [@/missing.txt]"},
                      SErrorCase{"InputIsAFolder", 'i', "@/a-folder", "E21",
                                 "Sort input [@/a-folder] is a folder"},
                      SErrorCase{"ScratchMissing", 's', "@/no-scratch", "E2",
                                 "Sort scratch folder [@/no-scratch] cannot be used"},
                      SErrorCase{"ScratchIsAFile", 's', "@/in.txt", "E20",
                                 "Sort scratch folder [@/in.txt] is not a folder"},
                      SErrorCase{"OutputFolderMissing", 'o', "@/no-folder/sorted.txt", "E2",
                                 "Unable to create a temporary sort output in [@/no-folder]"},
                      SErrorCase{"EmptyInputPath", 'i', "", "W87", "Empty path"},
                      SErrorCase{"NulInOutputPath", 'o', std::string("/tmp/a\0b", 8), "W87",
                                 "Path holds a NUL byte"},
                      SErrorCase{"ScratchPathTooLong", 's', "/" + std::string(PATH_MAX, 's'), "E36",
                                 "Sort scratch folder path is longer than..."}),
    [](const ::testing::TestParamInfo<SErrorCase>& info) { return info.param.name; });

TEST(BatchSort, UnwritableOutputFolderOrScratchFailsAndLeavesNothing) {
  CTempTree tree;
  const std::string input = tree.MakeFile("in.txt", PathLines(20000, 2));
  const std::string locked = tree.MakeDir("locked", 0555) + "/out.txt";
  const std::string output = tree.MakeDir("out", 0777) + "/out.txt";
  const std::string scratch = tree.MakeDir("scratch", 0777), closed = tree.MakeDir("closed", 0555);
  EXPECT_EQ(0, RunAsNobody([&]() -> int {
              // The output folder is checked before any work; the scratch folder when a run is
              // written, and the temporary output is removed then.
              CQiError error = BatchSort(input, locked, scratch);
              if (!error.IsErrNo(EACCES) ||
                  error.GetMessage().find("Unable to create a temporary sort output in [") != 0)
                return 1;
              BBatchSortOptions options;
              options.uMemoryBytes = kSmall;
              error = BatchSort(input, output, closed, options);
              return error.IsErrNo(EACCES) &&
                             error.GetMessage() ==
                                 "Unable to create a sort run in scratch folder [" + closed + "]"
                         ? 0
                         : 2;
            }));
  EXPECT_TRUE(FolderNames(tree.Path("locked")).empty());
  EXPECT_TRUE(FolderNames(tree.Path("out")).empty());
  EXPECT_TRUE(FolderNames(scratch).empty());
  EXPECT_TRUE(FolderNames(closed).empty());
}

}  // namespace
