#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "Scan/PathCacheUnorderedT.h"

namespace {

using NodePtr = CPathCache::NodePtr;

const char* ResultName(EPathCacheResult result) {
  switch (result) {
    case EPathCacheResult::NotFound: return "NotFound";
    case EPathCacheResult::Exact: return "Exact";
    case EPathCacheResult::Parent: return "Parent";
    case EPathCacheResult::Ancestor: return "Ancestor";
  }
  return "?";
}

struct SSearchCase {
  const char* name;
  std::string path;
  EPathCacheResult expected;
  std::string value;  // value of the carrier; unused for NotFound
};

void PrintTo(const SSearchCase& c, std::ostream* os) { *os << c.name; }

void ExpectSearch(const CPathCache& cache, const SSearchCase& c) {
  NodePtr node;
  EPathCacheResult result = cache.Search(c.path, node);
  EXPECT_EQ(result, c.expected) << "path [" << c.path << "] gave " << ResultName(result);
  std::string value = "untouched";
  EXPECT_EQ(cache.Search(c.path, value), c.expected);
  if (c.expected == EPathCacheResult::NotFound) {
    EXPECT_EQ(node, nullptr);
    EXPECT_EQ(value, "untouched");
  } else {
    ASSERT_NE(node, nullptr);
    EXPECT_TRUE(node->IsContentPresent());
    EXPECT_EQ(node->GetData(), c.value);
    EXPECT_EQ(value, c.value);
  }
}

// ---------------------------------------------------------------------------------------------
// One mount path /mnt/a: the exact, parent, ancestor and not-found answers.

class PathCacheSingleMountTest : public ::testing::TestWithParam<SSearchCase> {};

TEST_P(PathCacheSingleMountTest, Search) {
  CPathCache cache;
  cache.Insert("/mnt/a", "A");
  ExpectSearch(cache, GetParam());
}

using R = EPathCacheResult;

INSTANTIATE_TEST_SUITE_P(
    Table, PathCacheSingleMountTest,
    ::testing::Values(
        SSearchCase{"Exact", "/mnt/a", R::Exact, "A"},
        SSearchCase{"TrailingSlashIsExact", "/mnt/a/", R::Exact, "A"},
        SSearchCase{"DelimiterRunsCollapse", "//mnt///a", R::Exact, "A"},
        SSearchCase{"NoLeadingSlashSameNode", "mnt/a", R::Exact, "A"},
        SSearchCase{"ChildIsParent", "/mnt/a/b", R::Parent, "A"},
        SSearchCase{"GrandChildIsAncestor", "/mnt/a/b/c", R::Ancestor, "A"},
        SSearchCase{"IntermediateHasNoValue", "/mnt", R::NotFound, ""},
        SSearchCase{"Root", "/", R::NotFound, ""},
        SSearchCase{"Empty", "", R::NotFound, ""},
        SSearchCase{"UpperCaseFolder", "/MNT/a", R::NotFound, ""},
        SSearchCase{"UpperCaseLeaf", "/mnt/A", R::NotFound, ""},
        SSearchCase{"NamePrefixIsNotAncestor", "/mnt/ab", R::NotFound, ""},
        SSearchCase{"Sibling", "/mnt/b", R::NotFound, ""},
        SSearchCase{"BackslashIsAByte", "/mnt/a\\b", R::NotFound, ""},
        SSearchCase{"BackslashBelowIsParent", "/mnt/a/b\\c", R::Parent, "A"},
        SSearchCase{"EmbeddedNulIsPartOfName", std::string("/mnt/a\0b", 8), R::NotFound, ""}),
    [](const ::testing::TestParamInfo<SSearchCase>& info) { return info.param.name; });

// ---------------------------------------------------------------------------------------------
// Several carriers, one of them the root: the nearest carrier wins.

class PathCacheNestedTest : public ::testing::TestWithParam<SSearchCase> {};

TEST_P(PathCacheNestedTest, Search) {
  CPathCache cache;
  cache.Insert("/", "root");
  cache.Insert("/mnt/a", "A");
  cache.Insert("/mnt/a/b/c", "C");
  ExpectSearch(cache, GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    Table, PathCacheNestedTest,
    ::testing::Values(
        SSearchCase{"RootExact", "/", R::Exact, "root"},
        SSearchCase{"EmptyIsRoot", "", R::Exact, "root"},
        SSearchCase{"TopLevelIsParent", "/x", R::Parent, "root"},
        SSearchCase{"SecondLevelIsAncestor", "/x/y", R::Ancestor, "root"},
        SSearchCase{"IntermediateUnderRoot", "/mnt", R::Parent, "root"},
        SSearchCase{"MissingUnderIntermediate", "/mnt/b", R::Ancestor, "root"},
        SSearchCase{"ExactA", "/mnt/a", R::Exact, "A"},
        SSearchCase{"IntermediateUnderA", "/mnt/a/b", R::Parent, "A"},
        SSearchCase{"MissingBelowA", "/mnt/a/x/y", R::Ancestor, "A"},
        SSearchCase{"ExactC", "/mnt/a/b/c", R::Exact, "C"},
        SSearchCase{"ChildOfC", "/mnt/a/b/c/d", R::Parent, "C"},
        SSearchCase{"BelowC", "/mnt/a/b/c/d/e", R::Ancestor, "C"}),
    [](const ::testing::TestParamInfo<SSearchCase>& info) { return info.param.name; });

// ---------------------------------------------------------------------------------------------
// Insert policies: what a second insert of the same path stores.

enum class EPolicy { Insert, LeaveAlone, Replace };

struct SPolicyCase {
  const char* name;
  EPolicy policy;
  std::string firstPath;
  std::string secondPath;  // the same node written differently
  std::string expected;
};

void PrintTo(const SPolicyCase& c, std::ostream* os) { *os << c.name; }

class PathCachePolicyTest : public ::testing::TestWithParam<SPolicyCase> {};

TEST_P(PathCachePolicyTest, SecondInsert) {
  const SPolicyCase& c = GetParam();
  CPathCache cache;
  ASSERT_TRUE(cache.InsertOrUpdate(c.firstPath, std::string("first")).IsSuccess());
  switch (c.policy) {
    case EPolicy::Insert:
      cache.Insert(c.secondPath, "second");
      break;
    case EPolicy::LeaveAlone:
      ASSERT_TRUE(cache.InsertOrUpdate<LeaveDataAlone>(c.secondPath, "second").IsSuccess());
      break;
    case EPolicy::Replace:
      ASSERT_TRUE(cache.InsertOrUpdate<ReplaceData>(c.secondPath, "second").IsSuccess());
      break;
  }
  std::string value;
  EXPECT_EQ(cache.Search(c.firstPath, value), EPathCacheResult::Exact);
  EXPECT_EQ(value, c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, PathCachePolicyTest,
    ::testing::Values(
        SPolicyCase{"InsertKeepsFirst", EPolicy::Insert, "/mnt/a", "/mnt/a", "first"},
        SPolicyCase{"InsertKeepsFirstOtherSpelling", EPolicy::Insert, "/mnt/a", "//mnt/a/",
                    "first"},
        SPolicyCase{"LeaveAloneKeepsFirst", EPolicy::LeaveAlone, "/mnt/a", "/mnt/a", "first"},
        SPolicyCase{"ReplaceTakesSecond", EPolicy::Replace, "/mnt/a", "/mnt/a/", "second"},
        SPolicyCase{"RootInsertKeepsFirst", EPolicy::Insert, "/", "", "first"},
        SPolicyCase{"RootLeaveAloneKeepsFirst", EPolicy::LeaveAlone, "", "/", "first"},
        SPolicyCase{"RootReplaceTakesSecond", EPolicy::Replace, "/", "///", "second"}),
    [](const ::testing::TestParamInfo<SPolicyCase>& info) { return info.param.name; });

// A value stored below an intermediate node later gets a value of its own: the intermediate
// node took no value when it was made, so the first insert on it stores as new.
TEST(PathCacheInsertTest, IntermediateNodeTakesItsFirstValue) {
  CPathCache cache;
  cache.Insert("/mnt/a/b", "B");
  std::string value;
  EXPECT_EQ(cache.Search("/mnt/a", value), EPathCacheResult::NotFound);
  cache.Insert("/mnt/a", "A");
  EXPECT_EQ(cache.Search("/mnt/a", value), EPathCacheResult::Exact);
  EXPECT_EQ(value, "A");
  EXPECT_EQ(cache.Search("/mnt/a/b", value), EPathCacheResult::Exact);
  EXPECT_EQ(value, "B");
  EXPECT_EQ(cache.Search("/mnt/a/c", value), EPathCacheResult::Parent);
  EXPECT_EQ(value, "A");
}

// The nodes of a path hang together by their weak parent pointers up to the root.
TEST(PathCacheInsertTest, ParentsLeadToTheRoot) {
  CPathCache cache;
  cache.Insert("/mnt/a/b", "B");
  NodePtr node;
  ASSERT_EQ(cache.Search("/mnt/a/b", node), EPathCacheResult::Exact);
  NodePtr a = node->GetParent();
  ASSERT_NE(a, nullptr);
  EXPECT_FALSE(a->IsContentPresent());
  EXPECT_EQ(a->GetChildren().count("b"), 1u);
  NodePtr mnt = a->GetParent();
  ASSERT_NE(mnt, nullptr);
  EXPECT_EQ(mnt->GetParent(), cache.GetRoot());
  EXPECT_EQ(cache.GetRoot()->GetParent(), nullptr);
}

// ---------------------------------------------------------------------------------------------
// Write protection: every form of insert fails with 19 and leaves the tree as it was.

enum class EInsertForm { InsertOrUpdate, Replace, Insert };

struct SProtectCase {
  const char* name;
  EInsertForm form;
  std::string path;
};

void PrintTo(const SProtectCase& c, std::ostream* os) { *os << c.name; }

class PathCacheWriteProtectTest : public ::testing::TestWithParam<SProtectCase> {};

TEST_P(PathCacheWriteProtectTest, TreeUnchanged) {
  const SProtectCase& c = GetParam();
  CPathCache cache;
  cache.Insert("/mnt/a", "A");
  cache.SetWriteProtected(true);
  ASSERT_TRUE(cache.IsWriteProtected());

  CQiError error;
  switch (c.form) {
    case EInsertForm::InsertOrUpdate:
      error = cache.InsertOrUpdate(c.path, std::string("new"));
      break;
    case EInsertForm::Replace:
      error = cache.InsertOrUpdate<ReplaceData>(c.path, "new");
      break;
    case EInsertForm::Insert:
      cache.Insert(c.path, "new");
      break;
  }
  if (c.form != EInsertForm::Insert) {
    ASSERT_TRUE(error.IsError());
    EXPECT_TRUE(error.IsWin32(19));
    EXPECT_EQ(error.GetMessage(), "Container is write-protected");
  }

  // Nothing changed: /mnt/a keeps its value, the tree holds only /mnt and /mnt/a.
  std::string value;
  EXPECT_EQ(cache.Search("/mnt/a", value), EPathCacheResult::Exact);
  EXPECT_EQ(value, "A");
  EXPECT_FALSE(cache.GetRoot()->IsContentPresent());
  ASSERT_EQ(cache.GetRoot()->GetChildren().size(), 1u);
  const NodePtr& mnt = cache.GetRoot()->GetChildren().begin()->second;
  EXPECT_EQ(mnt->GetChildren().size(), 1u);
  EXPECT_TRUE(mnt->GetChildren().begin()->second->GetChildren().empty());

  // Lifting the protection lets the same insert through.
  cache.SetWriteProtected(false);
  EXPECT_TRUE(cache.InsertOrUpdate<ReplaceData>(c.path, "new").IsSuccess());
  EXPECT_EQ(cache.Search(c.path, value), EPathCacheResult::Exact);
  EXPECT_EQ(value, "new");
}

INSTANTIATE_TEST_SUITE_P(
    Table, PathCacheWriteProtectTest,
    ::testing::Values(SProtectCase{"NewPath", EInsertForm::InsertOrUpdate, "/var/x/y"},
                      SProtectCase{"NewChild", EInsertForm::InsertOrUpdate, "/mnt/a/b"},
                      SProtectCase{"ExistingReplace", EInsertForm::Replace, "/mnt/a"},
                      SProtectCase{"Root", EInsertForm::Replace, "/"},
                      SProtectCase{"InsertDropsTheError", EInsertForm::Insert, "/var/x"}),
    [](const ::testing::TestParamInfo<SProtectCase>& info) { return info.param.name; });

// ---------------------------------------------------------------------------------------------
// Copies share one tree and copy the settings.

enum class ECopyForm { Construct, Assign };

class PathCacheCopyTest : public ::testing::TestWithParam<ECopyForm> {};

TEST_P(PathCacheCopyTest, SharesInsertsBothWays) {
  CPathCache original;
  original.Insert("/mnt/a", "A");
  original.SetAcceptBothSlashes(true);

  CPathCache other;
  other.Insert("/elsewhere", "E");
  if (GetParam() == ECopyForm::Construct) {
    CPathCache constructed(original);
    other = constructed;
  } else {
    other = original;
  }
  EXPECT_EQ(other.GetRoot(), original.GetRoot());
  EXPECT_TRUE(other.GetAcceptBothSlashes());

  std::string value;
  EXPECT_EQ(other.Search("/mnt/a", value), EPathCacheResult::Exact);
  EXPECT_EQ(other.Search("/elsewhere", value), EPathCacheResult::NotFound);

  other.Insert("/mnt/b", "B");
  EXPECT_EQ(original.Search("/mnt/b", value), EPathCacheResult::Exact);
  EXPECT_EQ(value, "B");
  original.Insert("/mnt/c", "C");
  EXPECT_EQ(other.Search("\\mnt\\c", value), EPathCacheResult::Exact);
  EXPECT_EQ(value, "C");

  // The write-protect flag travels with a copy, but each copy keeps its own afterwards.
  original.SetWriteProtected(true);
  CPathCache copy(original);
  EXPECT_TRUE(copy.IsWriteProtected());
  EXPECT_FALSE(other.IsWriteProtected());
  EXPECT_TRUE(other.InsertOrUpdate("/mnt/d", std::string("D")).IsSuccess());
  EXPECT_EQ(copy.Search("/mnt/d", value), EPathCacheResult::Exact);
}

INSTANTIATE_TEST_SUITE_P(Forms, PathCacheCopyTest,
                         ::testing::Values(ECopyForm::Construct, ECopyForm::Assign));

// Initialize gives a copy a tree of its own again.
TEST(PathCacheCopyTest, InitializeDetaches) {
  CPathCache original;
  original.Insert("/mnt/a", "A");
  CPathCache copy(original);
  copy.Initialize();
  copy.Insert("/mnt/b", "B");
  std::string value;
  EXPECT_EQ(copy.Search("/mnt/a", value), EPathCacheResult::NotFound);
  EXPECT_EQ(original.Search("/mnt/b", value), EPathCacheResult::NotFound);
}

// ---------------------------------------------------------------------------------------------
// Settings other than the defaults: both slashes, leading delimiters kept in the first component.

struct SSettingsCase {
  const char* name;
  bool bAcceptBothSlashes;
  bool bSkipLeading;
  std::vector<std::pair<std::string, std::string>> inserts;
  SSearchCase search;
};

void PrintTo(const SSettingsCase& c, std::ostream* os) { *os << c.name; }

class PathCacheSettingsTest : public ::testing::TestWithParam<SSettingsCase> {};

TEST_P(PathCacheSettingsTest, Search) {
  const SSettingsCase& c = GetParam();
  CPathCache cache;
  cache.SetAcceptBothSlashes(c.bAcceptBothSlashes);
  cache.SetSkipLeadingDelimiters(c.bSkipLeading);
  for (const auto& [path, value] : c.inserts) {
    ASSERT_TRUE(cache.InsertOrUpdate(path, value).IsSuccess());
  }
  ExpectSearch(cache, c.search);
}

using Inserts = std::vector<std::pair<std::string, std::string>>;

INSTANTIATE_TEST_SUITE_P(
    Table, PathCacheSettingsTest,
    ::testing::Values(
        SSettingsCase{"BackslashesAccepted", true, true, Inserts{{"/mnt/a", "A"}},
                      {"", "\\mnt\\a", R::Exact, "A"}},
        SSettingsCase{"MixedSlashesAccepted", true, true, Inserts{{"\\mnt/a", "A"}},
                      {"", "/mnt\\a\\b", R::Parent, "A"}},
        SSettingsCase{"BackslashesNotAccepted", false, true, Inserts{{"/mnt/a", "A"}},
                      {"", "\\mnt\\a", R::NotFound, ""}},
        SSettingsCase{"KeptLeadingSameSpelling", false, false, Inserts{{"/mnt/a", "A"}},
                      {"", "/mnt/a", R::Exact, "A"}},
        SSettingsCase{"KeptLeadingIsPartOfName", false, false, Inserts{{"/mnt/a", "A"}},
                      {"", "//mnt/a", R::NotFound, ""}},
        SSettingsCase{"KeptLeadingRelativeDiffers", false, false, Inserts{{"/mnt/a", "A"}},
                      {"", "mnt/a", R::NotFound, ""}},
        SSettingsCase{"KeptLeadingInnerRunsCollapse", false, false, Inserts{{"/mnt/a", "A"}},
                      {"", "/mnt//a/", R::Exact, "A"}},
        SSettingsCase{"KeptLeadingRootSlash", false, false,
                      Inserts{{"/", "root"}, {"/mnt/a", "A"}}, {"", "/", R::Exact, "root"}},
        SSettingsCase{"KeptLeadingUnderRoot", false, false,
                      Inserts{{"/", "root"}, {"/mnt/a", "A"}}, {"", "/x", R::Parent, "root"}}),
    [](const ::testing::TestParamInfo<SSettingsCase>& info) { return info.param.name; });

}  // namespace
