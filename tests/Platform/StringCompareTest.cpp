// The ordered-set comparators of Platform/StringCompare.h, used as std::set / std::map orderings.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/StringCompare.h"

namespace {

TEST(StringCompare, FileSystemCaseKeepsCaseVariantsApart) {
  std::set<std::string, __less_fscase_cmp> set = {"/data", "/Data",     "/DATA",
                                                  "/data", "/data\xff", "/data/"};
  EXPECT_EQ(set.size(), 5u);
  std::vector<std::string> order(set.begin(), set.end());
  // strcmp order: upper case before lower case, bytes >= 0x80 after ASCII, prefixes first.
  EXPECT_EQ(order, (std::vector<std::string>{"/DATA", "/Data", "/data", "/data/", "/data\xff"}));
  EXPECT_TRUE(set.find(std::string_view("/Data")) != set.end());
  EXPECT_FALSE(__less_fscase_cmp()("/b", "/a"));
  EXPECT_FALSE(__less_fscase_cmp()("/a", "/a"));
}

TEST(StringCompare, CaseInsensitiveFoldsAsciiOnly) {
  std::set<std::string, __lesscasecmp> set = {"/data", "/Data", "/DATA"};
  EXPECT_EQ(set.size(), 1u);
  EXPECT_EQ(*set.begin(), "/data");  // the first one inserted is kept
  set.insert("/DATA\xc3\x89");
  set.insert("/data\xc3\xa9");  // another byte, not another case
  EXPECT_EQ(set.size(), 3u);
  std::map<std::string, int, __lesscasecmp> map;
  map["/Vol/A"] = 1;
  map["/vol/a"] = 2;
  ASSERT_EQ(map.size(), 1u);
  EXPECT_EQ(map.find(std::string_view("/VOL/A"))->second, 2);
  EXPECT_TRUE(__lesscasecmp()("/a", "/B"));
  EXPECT_FALSE(__less_fscase_cmp()("/a", "/B"));
}

}  // namespace
