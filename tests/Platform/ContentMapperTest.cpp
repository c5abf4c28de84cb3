// CPrefixContentMapper: refusals and conversions while mappings are added (the conversions
// themselves are run by the work-unit manager suites).
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "Platform/PrefixContentMapper.h"
#include "Support/PlatformTestSupport.h"

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
}
