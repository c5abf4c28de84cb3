#include <gtest/gtest.h>

#include <climits>

#include "Platform/FXPath.h"
#include "Support/TempTree.h"

struct AncestorRow {
  const char* ancestor;
  const char* path;
  bool countSelf;
  bool expected;
  bool bIgnoreCase = false;
};
class FXPathAncestor : public ::testing::TestWithParam<AncestorRow> {};

TEST_P(FXPathAncestor, ComparesWholeComponents) {
  const AncestorRow& r = GetParam();
  EXPECT_EQ(FXPath::IsAncestorOf(r.ancestor, r.path, r.countSelf, r.bIgnoreCase), r.expected)
      << r.ancestor << " vs " << r.path;
  EXPECT_EQ(FXPath::IsDescendantOf(r.path, r.ancestor, r.countSelf, r.bIgnoreCase), r.expected);
}

INSTANTIATE_TEST_SUITE_P(Table, FXPathAncestor,
                         ::testing::Values(AncestorRow{"/data", "/data/a", false, true},
                                           AncestorRow{"/data", "/database", false, false},
                                           AncestorRow{"/data", "/data", false, false},
                                           AncestorRow{"/data", "/data", true, true},
                                           AncestorRow{"/data/", "/data", true, true},
                                           AncestorRow{"/data/", "/data/a/b/", false, true},
                                           AncestorRow{"/", "/data", false, true},
                                           AncestorRow{"/", "/", true, true},
                                           AncestorRow{"/", "/", false, false},
                                           AncestorRow{"/data/a", "/data", false, false},
                                           AncestorRow{"", "/data", true, false},
                                           AncestorRow{"/Data", "/data/a", false, false},
                                           AncestorRow{"rel", "rel/x", false, true},
                                           AncestorRow{"/Data", "/data/a", false, true, true},
                                           AncestorRow{"/Data", "/datab", false, false, true}));

struct SplitRow {
  const char* path;
  const char* parent;
  const char* name;
};
class FXPathSplit : public ::testing::TestWithParam<SplitRow> {};

TEST_P(FXPathSplit, SplitsParentAndName) {
  std::string parent = "junk", name = "junk";
  ASSERT_TRUE(FXPath::SplitParent(GetParam().path, parent, name).IsSuccess());
  EXPECT_EQ(parent, GetParam().parent);
  EXPECT_EQ(name, GetParam().name);
}

INSTANTIATE_TEST_SUITE_P(Table, FXPathSplit,
                         ::testing::Values(SplitRow{"/a/b", "/a", "b"}, SplitRow{"/a", "/", "a"},
                                           SplitRow{"/", "", "/"}, SplitRow{"///", "", "/"},
                                           SplitRow{"/a/b//", "/a", "b"},
                                           SplitRow{"name", "", "name"},
                                           SplitRow{"/a/new\nline", "/a", "new\nline"}));

TEST(FXPath, SplitOfAnEmptyPathIs87) {
  std::string parent, name;
  EXPECT_TRUE(FXPath::SplitParent("", parent, name).IsWin32(QiErrorCode::InvalidParameter));
}

TEST(FXPath, AppendAndTrailingDelimiters) {
  EXPECT_EQ(FXPath::Append("/a", "b") + " " + FXPath::Append("/a/", "b") + " " +
                FXPath::Append("/", "b") + " " + FXPath::Append("", "b") + " " +
                FXPath::Append("/a", "/b"),
            "/a/b /a/b /b b /a/b");
  EXPECT_EQ(FXPath::RemoveTrailingDelimiters("/a/b/\\/") + " " +
                FXPath::RemoveTrailingDelimiters("/") + " " +
                FXPath::RemoveTrailingDelimiters("//"),
            "/a/b / /");
  EXPECT_EQ(FXPath::AddTrailingDelimiter("/a") + FXPath::AddTrailingDelimiter("/a/"), "/a//a/");
}

TEST(FXPath, RealPathResolvesLinksAndDots) {
  CTempTree tree;
  tree.MakeDir("real/sub");
  tree.MakeSymlink("link", tree.Path("real"));
  std::string out;
  ASSERT_TRUE(FXPath::MakeRealPath(tree.Path("link/sub/../sub"), out).IsSuccess());
  std::string expected;
  ASSERT_TRUE(FXPath::MakeRealPath(tree.Path("real/sub"), expected).IsSuccess());
  EXPECT_EQ(out, expected);
}

struct BadPathRow {
  std::string path;
  bool win32;
  uint32_t code;
};
class FXPathBadInput : public ::testing::TestWithParam<BadPathRow> {};

TEST_P(FXPathBadInput, FileSystemCallsReturnAClearError) {
  const BadPathRow& r = GetParam();
  std::string out;
  CQiError real = FXPath::MakeRealPath(r.path, out);
  EXPECT_TRUE(r.win32 ? real.IsWin32(r.code) : real.IsErrNo(static_cast<int>(r.code)))
      << real.AsString();
  bool missing = false;
  CQiError exists = FXPath::DoesPathExist(r.path, missing);
  if (r.win32) {
    EXPECT_TRUE(exists.IsWin32(r.code)) << exists.AsString();
  }
  EXPECT_FALSE(FXPath::DoesPathExist(r.path));
}

INSTANTIATE_TEST_SUITE_P(
    Table, FXPathBadInput,
    ::testing::Values(BadPathRow{"", true, QiErrorCode::InvalidParameter},
                      BadPathRow{std::string("/tmp/a\0b", 8), true, QiErrorCode::InvalidParameter},
                      BadPathRow{"/definitely/not/here", false, ENOENT},
                      BadPathRow{"/" + std::string(PATH_MAX + 10, 'a'), false, ENAMETOOLONG},
                      BadPathRow{"/tmp/\xff\xfe-not-utf8-missing", false, ENOENT}));

TEST(FXPath, DoesPathExistReportsMissingWithoutError) {
  CTempTree tree;
  tree.MakeFile("file");
  tree.MakeSymlink("dangling", "/definitely/not/here");
  std::string got;  // a dangling link exists itself
  for (const char* name : {"file", "dangling", "none", "file/below"}) {
    bool missing = false;
    got += FXPath::DoesPathExist(tree.Path(name), missing).IsError() ? "error "
           : missing                                                 ? "missing "
                                                                     : "exists ";
  }
  EXPECT_EQ(got, "exists exists missing missing ");
}
