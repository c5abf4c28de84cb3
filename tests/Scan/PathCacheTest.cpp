// The path cache: exact, parent, ancestor and not-found answers under every setting, insert
// policies, write protection and copies that share one tree.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "Scan/PathCacheUnorderedT.h"

namespace {

using NodePtr = CPathCache::NodePtr;
using R = EPathCacheResult;
using Inserts = std::vector<std::pair<std::string, std::string>>;

const Inserts kCaches[] = {
    {{"/mnt/a", "A"}},                                     // 0: one mount path
    {{"/", "root"}, {"/mnt/a", "A"}, {"/mnt/a/b/c", "C"}},  // 1: nested carriers, one the root
    {{"\\mnt/a", "A"}},                                    // 2: written with both slashes
    {{"/", "root"}, {"/mnt/a", "A"}},                       // 3: the root and one mount path
};

struct SSearchCase {
  const char* name;
  int iCache;
  bool bAcceptBothSlashes, bSkipLeading;
  std::string path;
  R expected;
  std::string value;  // of the carrier; unused for NotFound
};

class PathCacheSearchTest : public ::testing::TestWithParam<SSearchCase> {};

TEST_P(PathCacheSearchTest, NearestCarrierAnswers) {
  const SSearchCase& c = GetParam();
  CPathCache cache;
  cache.SetAcceptBothSlashes(c.bAcceptBothSlashes);
  cache.SetSkipLeadingDelimiters(c.bSkipLeading);
  for (const auto& [path, value] : kCaches[c.iCache]) ASSERT_TRUE(cache.InsertOrUpdate(path, value).IsSuccess());
  NodePtr node;
  EXPECT_EQ(cache.Search(c.path, node), c.expected);
  std::string value = "untouched";
  EXPECT_EQ(cache.Search(c.path, value), c.expected);
  const bool bFound = c.expected != R::NotFound;
  EXPECT_EQ(value, bFound ? c.value : "untouched");
  ASSERT_EQ(node != nullptr, bFound);
  if (bFound) {
    EXPECT_EQ(node->IsContentPresent() ? node->GetData() : "no content", c.value);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, PathCacheSearchTest,
    ::testing::Values(
        SSearchCase{"Exact", 0, false, true, "/mnt/a", R::Exact, "A"},
        SSearchCase{"TrailingSlashIsExact", 0, false, true, "/mnt/a/", R::Exact, "A"},
        SSearchCase{"DelimiterRunsCollapse", 0, false, true, "//mnt///a", R::Exact, "A"},
        SSearchCase{"ChildIsParent", 0, false, true, "/mnt/a/b", R::Parent, "A"},
        SSearchCase{"GrandChildIsAncestor", 0, false, true, "/mnt/a/b/c", R::Ancestor, "A"},
        SSearchCase{"IntermediateHasNoValue", 0, false, true, "/mnt", R::NotFound, ""},
        SSearchCase{"NamePrefixIsNotAncestor", 0, false, true, "/mnt/ab", R::NotFound, ""},
        SSearchCase{"BackslashIsAByte", 0, false, true, "/mnt/a\\b", R::NotFound, ""},
        SSearchCase{"BackslashBelowIsParent", 0, false, true, "/mnt/a/b\\c", R::Parent, "A"},
        SSearchCase{"EmbeddedNulIsPartOfName", 0, false, true, std::string("/mnt/a\0b", 8), R::NotFound, ""},
        SSearchCase{"NestedRootExact", 1, false, true, "/", R::Exact, "root"},
        SSearchCase{"NestedTopLevelIsParent", 1, false, true, "/x", R::Parent, "root"},
        SSearchCase{"NestedSecondLevelIsAncestor", 1, false, true, "/x/y", R::Ancestor, "root"},
        SSearchCase{"NestedMissingUnderIntermediate", 1, false, true, "/mnt/b", R::Ancestor, "root"},
        SSearchCase{"NestedMissingBelowA", 1, false, true, "/mnt/a/x/y", R::Ancestor, "A"},
        SSearchCase{"NestedBelowC", 1, false, true, "/mnt/a/b/c/d/e", R::Ancestor, "C"},
        SSearchCase{"BackslashesAccepted", 0, true, true, "\\mnt\\a", R::Exact, "A"},
        SSearchCase{"MixedSlashesAccepted", 2, true, true, "/mnt\\a\\b", R::Parent, "A"},
        SSearchCase{"BackslashesNotAccepted", 0, false, true, "\\mnt\\a", R::NotFound, ""},
        SSearchCase{"KeptLeadingIsPartOfName", 0, false, false, "//mnt/a", R::NotFound, ""},
        SSearchCase{"KeptLeadingInnerRunsCollapse", 0, false, false, "/mnt//a/", R::Exact, "A"},
        SSearchCase{"KeptLeadingRootSlash", 3, false, false, "/", R::Exact, "root"},
        SSearchCase{"KeptLeadingUnderRoot", 3, false, false, "/x", R::Parent, "root"}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- insert policies: what a second insert of the same node (written as given) stores ----

enum class EPolicy { Insert, LeaveAlone, Replace };

struct SPolicyCase {
  const char* name;
  EPolicy policy;
  std::string firstPath, secondPath;
  std::string expected;
};

class PathCachePolicyTest : public ::testing::TestWithParam<SPolicyCase> {};

TEST_P(PathCachePolicyTest, SecondInsert) {
  const SPolicyCase& c = GetParam();
  CPathCache cache;
  ASSERT_TRUE(cache.InsertOrUpdate(c.firstPath, std::string("first")).IsSuccess());
  if (c.policy == EPolicy::Insert) cache.Insert(c.secondPath, "second");
  CQiError error = c.policy == EPolicy::LeaveAlone ? cache.InsertOrUpdate<LeaveDataAlone>(c.secondPath, "second")
                   : c.policy == EPolicy::Replace  ? cache.InsertOrUpdate<ReplaceData>(c.secondPath, "second")
                                                   : CQiError();
  ASSERT_TRUE(error.IsSuccess()) << error.AsString();
  std::string value;
  EXPECT_EQ(cache.Search(c.firstPath, value), R::Exact);
  EXPECT_EQ(value, c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, PathCachePolicyTest,
    ::testing::Values(SPolicyCase{"InsertKeepsFirst", EPolicy::Insert, "/mnt/a", "/mnt/a", "first"},
                      SPolicyCase{"InsertKeepsFirstOtherSpelling", EPolicy::Insert, "/mnt/a", "//mnt/a/", "first"},
                      SPolicyCase{"LeaveAloneKeepsFirst", EPolicy::LeaveAlone, "/mnt/a", "/mnt/a", "first"},
                      SPolicyCase{"ReplaceTakesSecond", EPolicy::Replace, "/mnt/a", "/mnt/a/", "second"},
                      SPolicyCase{"RootInsertKeepsFirst", EPolicy::Insert, "/", "", "first"},
                      SPolicyCase{"RootLeaveAloneKeepsFirst", EPolicy::LeaveAlone, "", "/", "first"},
                      SPolicyCase{"RootReplaceTakesSecond", EPolicy::Replace, "/", "///", "second"}),
    [](const auto& info) { return std::string(info.param.name); });

// A value stored below an intermediate node later gets a value of its own: the intermediate
// node took no value when it was made, so the first insert on it stores as new.
TEST(PathCacheInsertTest, IntermediateNodeTakesItsFirstValue) {
  CPathCache cache;
  cache.Insert("/mnt/a/b", "B");
  std::string value;
  EXPECT_EQ(cache.Search("/mnt/a", value), R::NotFound);
  cache.Insert("/mnt/a", "A");
  auto search = [&](const char* path) {
    const R result = cache.Search(path, value);
    return std::pair{result, value};
  };
  EXPECT_EQ(std::vector({search("/mnt/a"), search("/mnt/a/b"), search("/mnt/a/c")}),
            (std::vector<std::pair<R, std::string>>{{R::Exact, "A"}, {R::Exact, "B"}, {R::Parent, "A"}}));
}

// ---- write protection: every form of insert fails with 19 and leaves the tree as it was ----

class PathCacheWriteProtectTest : public ::testing::TestWithParam<std::pair<int, std::string>> {};

TEST_P(PathCacheWriteProtectTest, TreeUnchanged) {
  const auto& [iForm, path] = GetParam();  // 0: InsertOrUpdate, 1: ReplaceData, 2: Insert
  CPathCache cache;
  cache.Insert("/mnt/a", "A");
  cache.SetWriteProtected(true);
  if (iForm == 2) {
    cache.Insert(path, "new");  // drops the error
  } else {
    CQiError error = iForm == 0 ? cache.InsertOrUpdate(path, std::string("new")) : cache.InsertOrUpdate<ReplaceData>(path, "new");
    EXPECT_TRUE(error.IsWin32(19)) << error.AsString();
    EXPECT_EQ(error.GetMessage(), "Container is write-protected");
  }
  // Nothing changed: /mnt/a keeps its value, and the path is no node of its own.
  std::string value;
  EXPECT_EQ(cache.Search("/mnt/a", value), R::Exact);
  EXPECT_EQ(value, "A");
  if (path != "/mnt/a") {
    EXPECT_NE(cache.Search(path, value), R::Exact);
  }
  EXPECT_EQ(cache.GetRoot()->GetChildren().size(), 1u);
  // Lifting the protection lets the same insert through.
  cache.SetWriteProtected(false);
  EXPECT_TRUE(cache.InsertOrUpdate<ReplaceData>(path, "new").IsSuccess());
  EXPECT_EQ(cache.Search(path, value), R::Exact);
  EXPECT_EQ(value, "new");
}

INSTANTIATE_TEST_SUITE_P(Table, PathCacheWriteProtectTest,
                         ::testing::Values(std::pair{0, std::string("/var/x/y")}, std::pair{0, std::string("/mnt/a/b")},
                                           std::pair{1, std::string("/mnt/a")}, std::pair{1, std::string("/")},
                                           std::pair{2, std::string("/var/x")}));

// ---- copies share one tree and copy the settings ----

TEST(PathCacheCopyTest, SharesInsertsBothWays) {
  CPathCache original;
  original.Insert("/mnt/a", "A");
  original.SetAcceptBothSlashes(true);
  CPathCache other;
  other.Insert("/elsewhere", "E");
  other = CPathCache(original);
  std::string value;
  EXPECT_EQ(other.Search("/elsewhere", value), R::NotFound);
  other.Insert("/mnt/b", "B");
  EXPECT_EQ(original.Search("/mnt/b", value), R::Exact);
  original.Insert("/mnt/c", "C");
  EXPECT_EQ(other.Search("\\mnt\\c", value), R::Exact);  // the setting came along
  EXPECT_EQ(value, "C");
  // The write-protect flag travels with a copy; Initialize gives a copy a tree of its own again.
  original.SetWriteProtected(true);
  EXPECT_TRUE(CPathCache(original).IsWriteProtected());
  other.Initialize();
  other.Insert("/mnt/e", "E");
  EXPECT_EQ(other.Search("/mnt/a", value), R::NotFound);
  EXPECT_EQ(original.Search("/mnt/e", value), R::NotFound);
}

}  // namespace
