// ZRPlatformInfo: INI parsing, typed reads, missing files, reload.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>
#include <type_traits>

#include "Platform/ZRPlatformInfo.h"
#include "Support/LogCapture.h"
#include "Support/PlatformTestSupport.h"
#include "Support/RunAsNobody.h"
#include "Support/TempTree.h"

namespace {
const char* const kSection = ZRPlatformInfo::kFileSystemAgentSection;

const std::string kSettings =
    "\xEF\xBB\xBF# agent settings\r\n"
    "globalKey = top\n"
    "\n"
    "   ; a comment after blanks\n"
    "[FileSystemAgent]\r\n"
    "sGpfsBin = /usr/lpp/mmfs/bin \n"
    "nGpfsTimeout=300\n"
    "LustreChangelogBatchSize = -20000\n"
    "nGlusterTimeout = 0x1E\n"
    "nLeadingZero = 010\n"
    "nDisableScanChangeToFull = TRUE\n"
    "bOff = off\n"
    "sPathWithHash = /data/#1;x\n"
    "sQuoted = \"  keep blanks  \"\n"
    "sEmpty =\n"
    "sEquals = a=b=c\n"
    "sDuplicate = first\n"
    "sDuplicate = second\n"
    "nHuge = 99999999999\n"
    "nNegative = -1\n"
    "sWord = maybe\n"
    "this line is garbage\n"
    " = no key\n"
    "[ Other Section ]\n"
    "sGpfsBin = elsewhere\n"
    "[broken\n"
    "sAfterBroken = still in Other Section\n";

// The value read as text; a refused read leaves the caller's value ("default", false, -7, 7).
template <class T>
std::string Read(const ZRPlatformInfo& info, const std::string& section, const std::string& key,
                 T value, CQiError& error) {
  error = info.GetValue(section, key, value);
  if constexpr (std::is_same_v<T, std::string>)
    return value;
  else if constexpr (std::is_same_v<T, bool>)
    return value ? "true" : "false";
  else
    return std::to_string(value);
}

struct SReadRow {
  const char* name;
  std::string section;
  std::string key;
  char type;  // 's' string, 'b' bool, 'i' int, 'u' unsigned, 'l' long long, 'L' unsigned long long
  const char* code;  // see ErrorCode
  std::string expected;
};
}  // namespace

class PlatformInfoRead : public ::testing::TestWithParam<SReadRow> {};

TEST_P(PlatformInfoRead, TypedValuesAndRefusals) {
  const SReadRow& r = GetParam();
  ZRPlatformInfo info;
  info.LoadFromText(kSettings, "inline");
  CQiError error;
  std::string value = r.type == 's'   ? Read(info, r.section, r.key, std::string("default"), error)
                      : r.type == 'b' ? Read(info, r.section, r.key, false, error)
                      : r.type == 'i' ? Read(info, r.section, r.key, -7, error)
                      : r.type == 'u' ? Read(info, r.section, r.key, 7u, error)
                      : r.type == 'l' ? Read(info, r.section, r.key, -7LL, error)
                                      : Read(info, r.section, r.key, 7ULL, error);
  EXPECT_EQ(ErrorCode(error) + " " + value, std::string(r.code) + " " + r.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, PlatformInfoRead,
    ::testing::Values(
        SReadRow{"SectionAndKeyIgnoreCase", "filesystemagent", "SGPFSBIN", 's', "ok",
                 "/usr/lpp/mmfs/bin"},
        SReadRow{"KeyBeforeAnySection", "", "globalKey", 's', "ok", "top"},
        SReadRow{"HashAndSemicolonInValue", kSection, "sPathWithHash", 's', "ok", "/data/#1;x"},
        SReadRow{"QuotesKeepBlanks", kSection, "sQuoted", 's', "ok", "  keep blanks  "},
        SReadRow{"LaterDuplicateWins", kSection, "sDuplicate", 's', "ok", "second"},
        SReadRow{"BrokenSectionLineIgnored", "Other Section", "sAfterBroken", 's', "ok",
                 "still in Other Section"},
        SReadRow{"Hex", kSection, "nGlusterTimeout", 'u', "ok", "30"},
        SReadRow{"LeadingZeroIsDecimal", kSection, "nLeadingZero", 'l', "ok", "10"},
        SReadRow{"NegativeInt", kSection, "LustreChangelogBatchSize", 'i', "ok", "-20000"},
        SReadRow{"UInt64", kSection, "nHuge", 'L', "ok", "99999999999"},
        SReadRow{"BoolAnyCase", kSection, "nDisableScanChangeToFull", 'b', "ok", "true"},
        SReadRow{"BoolOff", kSection, "bOff", 'b', "ok", "false"},
        SReadRow{"BoolFromNumber", kSection, "nGpfsTimeout", 'b', "W13", "false"},
        SReadRow{"IntOverflow", kSection, "nHuge", 'i', "W13", "-7"},
        SReadRow{"EmptyAsInt", kSection, "sEmpty", 'i', "W13", "-7"},
        SReadRow{"MissingKey", kSection, "nGpfsFailOnScanError", 'i', "W1168", "-7"},
        SReadRow{"EmptyKey", kSection, "", 's', "W87", "default"}),
    [](const ::testing::TestParamInfo<SReadRow>& info) { return std::string(info.param.name); });

TEST(PlatformInfo, ErrorMessagesNameTheSetting) {
  ZRPlatformInfo info;
  info.LoadFromText("[FileSystemAgent]\nnGpfsTimeout = soon\n", "inline");
  int value = 5;
  CQiError error = info.GetValue(kSection, "nGpfsTimeout", value);
  EXPECT_EQ(
      error.GetMessage(),
      "Setting is not a valid number, Section=[FileSystemAgent], Key=[nGpfsTimeout], Value=[soon]");
  error = info.GetValue(kSection, "nMissing", value);
  EXPECT_EQ(error.GetMessage(), "Setting not found, Section=[FileSystemAgent], Key=[nMissing]");
  EXPECT_EQ(value, 5);
  EXPECT_TRUE(info.Contains("FILESYSTEMAGENT", "ngpfstimeout"));
  EXPECT_FALSE(info.Contains(kSection, "nMissing"));
}

TEST(PlatformInfo, MalformedLinesAreLoggedAndSkipped) {
  CTempTree tree;
  std::string path = tree.MakeFile("settings.ini", kSettings);
  CLogCapture log;
  ZRPlatformInfo info;
  ASSERT_TRUE(info.Load(path).IsSuccess());
  EXPECT_EQ(
      log->Count("Ignoring malformed line 22 in settings file " + path + ": this line is garbage",
                 -1),
      1u);
  EXPECT_EQ(log->Count("Ignoring malformed line 23 in settings file " + path + ": = no key", -1),
            1u);
  EXPECT_EQ(log->Count("Ignoring malformed line 26 in settings file " + path + ": [broken", -1),
            1u);
  EXPECT_EQ(log->CountContaining("Ignoring malformed line"), 3u);
}

TEST(PlatformInfo, MissingFileIsAClearErrorAndLeavesNothingBehind) {
  CTempTree tree;
  ZRPlatformInfo info;
  ASSERT_TRUE(info.Load(tree.MakeFile("a.ini", "[FileSystemAgent]\nsKey=1\n")).IsSuccess());
  ASSERT_TRUE(info.Contains(kSection, "sKey"));

  std::string missing = tree.Path("missing.ini");
  CQiError error = info.Load(missing);
  EXPECT_TRUE(error.IsErrNo(ENOENT));
  EXPECT_EQ(error.GetMessage(), "Settings file not found, Path=" + missing);
  EXPECT_FALSE(info.Contains(kSection, "sKey"));
  EXPECT_EQ(info.GetSource(), missing);

  EXPECT_EQ(ErrorCode(info.Load(tree.MakeDir("folder.ini"))) + ErrorCode(info.Load("")) +
                ErrorCode(info.Load(std::string("/etc/x\0y", 8))),
            "E21W87W87");
}

TEST(PlatformInfo, UnreadableFileIsAnErrnoError) {
  CTempTree tree;
  const std::string path = tree.MakeFile("secret.ini", "[FileSystemAgent]\nk=v\n", 0600);
  EXPECT_EQ(0, RunAsNobody([&path] { return ZRPlatformInfo().Load(path).IsErrNo(EACCES); }));
}

TEST(PlatformInfo, ProcessInstanceFollowsTheEnvironmentAndReloads) {
  CTempTree tree;
  std::string path = tree.MakeFile("agent.ini", "[FileSystemAgent]\nnGlusterTimeout=25\n");
  ASSERT_EQ(setenv(ZRPlatformInfo::kSettingsFileEnv, path.c_str(), 1), 0);
  EXPECT_EQ(ZRPlatformInfo::GetSettingsFilePath(), path);

  ZRPlatformInfo& info = ZRPlatformInfo::Instance();
  ASSERT_TRUE(info.Reload().IsSuccess());
  unsigned timeout = 20;
  ASSERT_TRUE(info.GetValue(kSection, "nGlusterTimeout", timeout).IsSuccess());
  EXPECT_EQ(timeout, 25u);

  // Readers run while the file changes and is reloaded; each sees the old or the new value.
  std::atomic<int> odd{0};
  WhileReading(
      3,
      [&](int) {
        unsigned v = 20;
        CQiError e = info.GetValue(kSection, "nGlusterTimeout", v);
        if (e.IsError() || (v != 25 && v != 40)) ++odd;
      },
      [&] {
        tree.MakeFile("agent.ini", "[FileSystemAgent]\nnGlusterTimeout=40\n");
        for (int i = 0; i < 20; ++i) ASSERT_TRUE(info.Reload().IsSuccess());
      });
  EXPECT_EQ(odd.load(), 0);
  ASSERT_TRUE(info.GetValue(kSection, "nGlusterTimeout", timeout).IsSuccess());
  EXPECT_EQ(timeout, 40u);

  ASSERT_EQ(unsetenv(ZRPlatformInfo::kSettingsFileEnv), 0);
  EXPECT_EQ(ZRPlatformInfo::GetSettingsFilePath(), "/etc/fsscan/settings.ini");
}
