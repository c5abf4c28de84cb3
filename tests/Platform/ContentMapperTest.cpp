// CPrefixContentMapper: longest component-wise prefix, both directions, refusals.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "Platform/PrefixContentMapper.h"

namespace {
enum class EDirection { HostToProxy, ProxyToHost };

struct SMapRow {
  const char* name;
  EDirection direction;
  std::string input;
  std::string expected;  // empty: refused
  uint32_t code;         // Win32 code of the refusal
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
  CQiError error = row.direction == EDirection::HostToProxy
                       ? mapper->MakeProxyPathFromHostPath(row.input, out)
                       : mapper->MakeHostPathFromProxyPath(row.input, out);
  if (row.expected.empty()) {
    EXPECT_TRUE(error.IsWin32(row.code)) << error.AsString();
    EXPECT_EQ(out, "untouched");
    return;
  }
  ASSERT_TRUE(error.IsSuccess()) << error.AsString();
  EXPECT_EQ(out, row.expected);
  // And back again to the input's canonical form.
  std::string back;
  CQiError backError = row.direction == EDirection::HostToProxy
                           ? mapper->MakeHostPathFromProxyPath(out, back)
                           : mapper->MakeProxyPathFromHostPath(out, back);
  ASSERT_TRUE(backError.IsSuccess()) << backError.AsString();
  std::string canonical = row.input;
  while (canonical.size() > 1 && canonical.back() == '/') canonical.pop_back();
  EXPECT_EQ(back, canonical);
}

INSTANTIATE_TEST_SUITE_P(
    Table, PrefixMapping,
    ::testing::Values(
        SMapRow{"HostPrefixItself", EDirection::HostToProxy, "/src", "/mnt/snap/src", 0},
        SMapRow{"HostTrailingDelimiter", EDirection::HostToProxy, "/src/", "/mnt/snap/src", 0},
        SMapRow{"HostBelowPrefix", EDirection::HostToProxy, "/src/a/b", "/mnt/snap/src/a/b", 0},
        SMapRow{"HostLongestPrefixWins", EDirection::HostToProxy, "/src/deep/x", "/mnt/other/x", 0},
        SMapRow{"HostSiblingOfLongerPrefix", EDirection::HostToProxy, "/src/deeper", "/mnt/snap/src/deeper", 0},
        SMapRow{"HostComponentBoundary", EDirection::HostToProxy, "/srcx", "", 1168},
        SMapRow{"HostParentOfPrefix", EDirection::HostToProxy, "/export", "", 1168},
        SMapRow{"HostUnmapped", EDirection::HostToProxy, "/other/file", "", 1168},
        SMapRow{"HostNonUtf8", EDirection::HostToProxy, "/src/\xff\xfe/x", "/mnt/snap/src/\xff\xfe/x", 0},
        SMapRow{"HostEmpty", EDirection::HostToProxy, "", "", 87},
        SMapRow{"HostRelative", EDirection::HostToProxy, "src/a", "", 87},
        SMapRow{"HostNulByte", EDirection::HostToProxy, std::string("/src/a\0b", 8), "", 87},
        SMapRow{"ProxyPrefixItself", EDirection::ProxyToHost, "/mnt/other", "/src/deep", 0},
        SMapRow{"ProxyBelowPrefix", EDirection::ProxyToHost, "/mnt/snap/home/u/f", "/export/home/u/f", 0},
        SMapRow{"ProxyComponentBoundary", EDirection::ProxyToHost, "/mnt/snap/homes", "", 1168},
        SMapRow{"ProxyCommonParentIsUnmapped", EDirection::ProxyToHost, "/mnt/snap", "", 1168},
        SMapRow{"ProxyEmpty", EDirection::ProxyToHost, "", "", 87},
        SMapRow{"ProxyLongerThanPathMax", EDirection::ProxyToHost,
                "/mnt/snap/src/" + std::string(5000, 'x'), "/src/" + std::string(5000, 'x'), 0}),
    [](const ::testing::TestParamInfo<SMapRow>& info) { return std::string(info.param.name); });

TEST(PrefixContentMapper, RootPrefixMapsEverythingBothWays) {
  CPrefixContentMapper mapper;
  ASSERT_TRUE(mapper.AddMapping("/", "/mnt/root/").IsSuccess());
  std::string out;
  ASSERT_TRUE(mapper.MakeProxyPathFromHostPath("/", out).IsSuccess());
  EXPECT_EQ(out, "/mnt/root");
  ASSERT_TRUE(mapper.MakeProxyPathFromHostPath("/etc/passwd", out).IsSuccess());
  EXPECT_EQ(out, "/mnt/root/etc/passwd");
  ASSERT_TRUE(mapper.MakeHostPathFromProxyPath("/mnt/root", out).IsSuccess());
  EXPECT_EQ(out, "/");
  ASSERT_TRUE(mapper.MakeHostPathFromProxyPath("/mnt/root/etc", out).IsSuccess());
  EXPECT_EQ(out, "/etc");
  EXPECT_TRUE(mapper.MakeHostPathFromProxyPath("/mnt/rootx", out).IsWin32(QiErrorCode::NotFound));
}

TEST(PrefixContentMapper, MappingsAreRefusedWhenAmbiguousOrInvalid) {
  CPrefixContentMapper mapper;
  ASSERT_TRUE(mapper.AddMapping("/a", "/p/a").IsSuccess());
  CQiError error = mapper.AddMapping("/a/", "/p/other");
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidParameter));
  EXPECT_EQ(error.GetMessage(), "Host prefix already mapped, Prefix=/a");
  error = mapper.AddMapping("/b", "/p/a");
  EXPECT_EQ(error.GetMessage(), "Proxy prefix already mapped, Prefix=/p/a");
  error = mapper.AddMapping("b", "/p/b");
  EXPECT_EQ(error.GetMessage(), "Host prefix is not absolute, Path=b");
  EXPECT_TRUE(mapper.AddMapping("/b", "").IsWin32(QiErrorCode::InvalidParameter));
  EXPECT_EQ(mapper.GetMappings().size(), 1u);

  std::string out;
  error = mapper.MakeProxyPathFromHostPath("/zzz", out);
  EXPECT_EQ(error.GetMessage(), "No host prefix holds the path, Path=/zzz");
  error = mapper.MakeHostPathFromProxyPath("/zzz", out);
  EXPECT_EQ(error.GetMessage(), "No proxy prefix holds the path, Path=/zzz");
}

TEST(PrefixContentMapper, ConvertsWhileMappingsAreAdded) {
  CPrefixContentMapper mapper;
  ASSERT_TRUE(mapper.AddMapping("/base", "/mnt/base").IsSuccess());
  std::atomic<bool> stop{false};
  std::atomic<int> failures{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 3; ++t)
    readers.emplace_back([&] {
      while (!stop.load()) {
        std::string out;
        if (mapper.MakeProxyPathFromHostPath("/base/f", out).IsError() || out != "/mnt/base/f") ++failures;
      }
    });
  for (int i = 0; i < 200; ++i)
    ASSERT_TRUE(mapper.AddMapping("/h" + std::to_string(i), "/p" + std::to_string(i)).IsSuccess());
  stop = true;
  for (auto& t : readers) t.join();
  EXPECT_EQ(failures.load(), 0);
  std::string out;
  ASSERT_TRUE(mapper.MakeHostPathFromProxyPath("/p199/x", out).IsSuccess());
  EXPECT_EQ(out, "/h199/x");
}
