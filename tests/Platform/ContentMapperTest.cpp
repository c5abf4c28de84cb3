// CPrefixContentMapper: longest component-wise prefix, both directions, refusals.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "Platform/PrefixContentMapper.h"
#include "Support/PlatformTestSupport.h"

namespace {
struct SMapRow {
  char direction;  // 'h' host to proxy, 'p' proxy to host
  std::string input;
  std::string expected;  // "W<code>" for a refusal, which leaves the output untouched
};

ContentMapperAPIPtr MakeMapper() {
  auto mapper = std::make_shared<CPrefixContentMapper>();
  EXPECT_TRUE(mapper->AddMapping("/src", "/mnt/snap/src").IsSuccess());
  EXPECT_TRUE(mapper->AddMapping("/src/deep/", "/mnt/other").IsSuccess());
  EXPECT_TRUE(mapper->AddMapping("/export/home", "/mnt/snap/home").IsSuccess());
  return mapper;
}
}  // namespace

class PrefixMapping : public ::testing::TestWithParam<SMapRow> {};

TEST_P(PrefixMapping, ConvertsOrRefuses) {
  const SMapRow& row = GetParam();
  ContentMapperAPIPtr mapper = MakeMapper();
  std::string out = "untouched";
  CQiError error = row.direction == 'h' ? mapper->MakeProxyPathFromHostPath(row.input, out)
                                        : mapper->MakeHostPathFromProxyPath(row.input, out);
  if (row.expected[0] == 'W') {
    EXPECT_EQ(ErrorCode(error) + " " + out, row.expected + " untouched");
    return;
  }
  ASSERT_TRUE(error.IsSuccess()) << error.AsString();
  EXPECT_EQ(out, row.expected);
  // And back again to the input's canonical form.
  std::string back;
  CQiError backError = row.direction == 'h' ? mapper->MakeHostPathFromProxyPath(out, back)
                                            : mapper->MakeProxyPathFromHostPath(out, back);
  ASSERT_TRUE(backError.IsSuccess()) << backError.AsString();
  std::string canonical = row.input;
  while (canonical.size() > 1 && canonical.back() == '/') canonical.pop_back();
  EXPECT_EQ(back, canonical);
}

INSTANTIATE_TEST_SUITE_P(
    Table, PrefixMapping,
    ::testing::Values(
        SMapRow{'h', "/src", "/mnt/snap/src"}, SMapRow{'h', "/src/", "/mnt/snap/src"},
        SMapRow{'h', "/src/a/b", "/mnt/snap/src/a/b"},
        SMapRow{'h', "/src/deep/x", "/mnt/other/x"},  // the longest prefix wins
        SMapRow{'h', "/src/deeper", "/mnt/snap/src/deeper"}, SMapRow{'h', "/srcx", "W1168"},
        SMapRow{'h', "/export", "W1168"}, SMapRow{'h', "/other/file", "W1168"},
        SMapRow{'h', "/src/\xff\xfe/x", "/mnt/snap/src/\xff\xfe/x"}, SMapRow{'h', "", "W87"},
        SMapRow{'h', "src/a", "W87"}, SMapRow{'h', std::string("/src/a\0b", 8), "W87"},
        SMapRow{'p', "/mnt/other", "/src/deep"},
        SMapRow{'p', "/mnt/snap/home/u/f", "/export/home/u/f"},
        SMapRow{'p', "/mnt/snap/homes", "W1168"}, SMapRow{'p', "/mnt/snap", "W1168"},
        SMapRow{'p', "", "W87"},
        SMapRow{'p', "/mnt/snap/src/" + std::string(5000, 'x'), "/src/" + std::string(5000, 'x')}));

TEST(PrefixContentMapper, RootPrefixMapsEverythingBothWays) {
  CPrefixContentMapper mapper;
  ASSERT_TRUE(mapper.AddMapping("/", "/mnt/root/").IsSuccess());
  std::string got, out;
  for (const char* path : {"/", "/etc/passwd"})
    got += mapper.MakeProxyPathFromHostPath(path, out).IsSuccess() ? out + " " : "refused ";
  for (const char* path : {"/mnt/root", "/mnt/root/etc", "/mnt/rootx"})
    got += mapper.MakeHostPathFromProxyPath(path, out).IsSuccess() ? out + " " : "refused ";
  EXPECT_EQ(got, "/mnt/root /mnt/root/etc/passwd / /etc refused ");
}

TEST(PrefixContentMapper, MappingsAreRefusedWhenAmbiguousOrInvalid) {
  CPrefixContentMapper mapper;
  ASSERT_TRUE(mapper.AddMapping("/a", "/p/a").IsSuccess());
  std::string out, got;
  for (CQiError error : {mapper.AddMapping("/a/", "/p/other"), mapper.AddMapping("/b", "/p/a"),
                         mapper.AddMapping("b", "/p/b"), mapper.AddMapping("/b", ""),
                         mapper.MakeProxyPathFromHostPath("/zzz", out),
                         mapper.MakeHostPathFromProxyPath("/zzz", out)})
    got += ErrorCode(error) + " " + error.GetMessage() + "\n";
  EXPECT_EQ(got,
            "W87 Host prefix already mapped, Prefix=/a\n"
            "W87 Proxy prefix already mapped, Prefix=/p/a\n"
            "W87 Host prefix is not absolute, Path=b\n"
            "W87 Empty path\n"
            "W1168 No host prefix holds the path, Path=/zzz\n"
            "W1168 No proxy prefix holds the path, Path=/zzz\n");
  EXPECT_EQ(mapper.GetMappings().size(), 1u);
}

TEST(PrefixContentMapper, ConvertsWhileMappingsAreAdded) {
  CPrefixContentMapper mapper;
  ASSERT_TRUE(mapper.AddMapping("/base", "/mnt/base").IsSuccess());
  std::atomic<int> failures{0};
  WhileReading(
      3,
      [&](int) {
        std::string out;
        if (mapper.MakeProxyPathFromHostPath("/base/f", out).IsError() || out != "/mnt/base/f")
          ++failures;
      },
      [&] {
        for (int i = 0; i < 200; ++i)
          ASSERT_TRUE(
              mapper.AddMapping("/h" + std::to_string(i), "/p" + std::to_string(i)).IsSuccess());
      });
  EXPECT_EQ(failures.load(), 0);
  std::string out;
  ASSERT_TRUE(mapper.MakeHostPathFromProxyPath("/p199/x", out).IsSuccess());
  EXPECT_EQ(out, "/h199/x");
}
