#include <gtest/gtest.h>

#include <climits>

#include "Platform/FXPath.h"
#include "Support/TempTree.h"

// Lexical path helpers are run by every scan suite; what is left here are the failures of the
// calls that reach the file system.

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
