// ZRPlatformInfo: INI parsing, typed reads, missing files, reload.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "Platform/CaptureLogWriter.h"
#include "Platform/ZRPlatformInfo.h"
#include "Support/LogCapture.h"
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

enum class EType { String, Bool, Int, UInt, Int64, UInt64 };

struct SReadRow {
  const char* name;
  std::string section;
  std::string key;
  EType type;
  uint32_t code;         // 0 success, else the Win32 code
  std::string expected;  // the value read, as text (the default "-7"/"default" when refused)
};

std::string Read(const ZRPlatformInfo& info, const SReadRow& row, CQiError& error) {
  switch (row.type) {
    case EType::String: {
      std::string v = "default";
      error = info.GetValue(row.section, row.key, v);
      return v;
    }
    case EType::Bool: {
      bool v = false;
      error = info.GetValue(row.section, row.key, v);
      return v ? "true" : "false";
    }
    case EType::Int: {
      int v = -7;
      error = info.GetValue(row.section, row.key, v);
      return std::to_string(v);
    }
    case EType::UInt: {
      unsigned v = 7;
      error = info.GetValue(row.section, row.key, v);
      return std::to_string(v);
    }
    case EType::Int64: {
      long long v = -7;
      error = info.GetValue(row.section, row.key, v);
      return std::to_string(v);
    }
    case EType::UInt64: {
      unsigned long long v = 7;
      error = info.GetValue(row.section, row.key, v);
      return std::to_string(v);
    }
  }
  return "";
}
}  // namespace

class PlatformInfoRead : public ::testing::TestWithParam<SReadRow> {
 protected:
  static void SetUpTestSuite() {
    s_pTree = new CTempTree();
    s_pInfo = new ZRPlatformInfo();
    CQiError error = s_pInfo->Load(s_pTree->MakeFile("settings.ini", kSettings));
    ASSERT_TRUE(error.IsSuccess()) << error.AsString();
  }
  static void TearDownTestSuite() {
    delete s_pInfo;
    delete s_pTree;
  }
  static CTempTree* s_pTree;
  static ZRPlatformInfo* s_pInfo;
};
CTempTree* PlatformInfoRead::s_pTree = nullptr;
ZRPlatformInfo* PlatformInfoRead::s_pInfo = nullptr;

TEST_P(PlatformInfoRead, TypedValuesAndRefusals) {
  const SReadRow& row = GetParam();
  CQiError error;
  std::string value = Read(*s_pInfo, row, error);
  if (row.code == 0) {
    EXPECT_TRUE(error.IsSuccess()) << error.AsString();
  } else {
    EXPECT_TRUE(error.IsWin32(row.code)) << error.AsString();
  }
  EXPECT_EQ(value, row.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, PlatformInfoRead,
    ::testing::Values(
        SReadRow{"StringTrimmed", kSection, "sGpfsBin", EType::String, 0, "/usr/lpp/mmfs/bin"},
        SReadRow{"SectionAndKeyIgnoreCase", "filesystemagent", "SGPFSBIN", EType::String, 0, "/usr/lpp/mmfs/bin"},
        SReadRow{"OtherSectionTrimmed", "Other Section", "sGpfsBin", EType::String, 0, "elsewhere"},
        SReadRow{"KeyBeforeAnySection", "", "globalKey", EType::String, 0, "top"},
        SReadRow{"HashAndSemicolonInValue", kSection, "sPathWithHash", EType::String, 0, "/data/#1;x"},
        SReadRow{"QuotesKeepBlanks", kSection, "sQuoted", EType::String, 0, "  keep blanks  "},
        SReadRow{"EmptyValue", kSection, "sEmpty", EType::String, 0, ""},
        SReadRow{"EqualsInValue", kSection, "sEquals", EType::String, 0, "a=b=c"},
        SReadRow{"LaterDuplicateWins", kSection, "sDuplicate", EType::String, 0, "second"},
        SReadRow{"BrokenSectionLineIgnored", "Other Section", "sAfterBroken", EType::String, 0,
                 "still in Other Section"},
        SReadRow{"Int", kSection, "nGpfsTimeout", EType::Int, 0, "300"},
        SReadRow{"NegativeInt", kSection, "LustreChangelogBatchSize", EType::Int, 0, "-20000"},
        SReadRow{"Hex", kSection, "nGlusterTimeout", EType::UInt, 0, "30"},
        SReadRow{"LeadingZeroIsDecimal", kSection, "nLeadingZero", EType::Int64, 0, "10"},
        SReadRow{"Int64", kSection, "nHuge", EType::Int64, 0, "99999999999"},
        SReadRow{"UInt64", kSection, "nHuge", EType::UInt64, 0, "99999999999"},
        SReadRow{"BoolAnyCase", kSection, "nDisableScanChangeToFull", EType::Bool, 0, "true"},
        SReadRow{"BoolOff", kSection, "bOff", EType::Bool, 0, "false"},
        SReadRow{"BoolFromNumber", kSection, "nGpfsTimeout", EType::Bool, 13, "false"},
        SReadRow{"IntOverflow", kSection, "nHuge", EType::Int, 13, "-7"},
        SReadRow{"NegativeUnsigned", kSection, "nNegative", EType::UInt, 13, "7"},
        SReadRow{"NegativeUInt64", kSection, "nNegative", EType::UInt64, 13, "7"},
        SReadRow{"WordAsInt", kSection, "sWord", EType::Int, 13, "-7"},
        SReadRow{"WordAsBool", kSection, "sWord", EType::Bool, 13, "false"},
        SReadRow{"PathAsInt", kSection, "sGpfsBin", EType::Int64, 13, "-7"},
        SReadRow{"EmptyAsInt", kSection, "sEmpty", EType::Int, 13, "-7"},
        SReadRow{"MissingKey", kSection, "nGpfsFailOnScanError", EType::Int, 1168, "-7"},
        SReadRow{"MissingKeyString", kSection, "sGpfsTemp", EType::String, 1168, "default"},
        SReadRow{"MissingSection", "NoSuchSection", "sGpfsBin", EType::String, 1168, "default"},
        SReadRow{"KeyOfAnotherSection", kSection, "sAfterBroken", EType::String, 1168, "default"},
        SReadRow{"EmptyKey", kSection, "", EType::String, 87, "default"}),
    [](const ::testing::TestParamInfo<SReadRow>& info) { return std::string(info.param.name); });

TEST(PlatformInfo, ErrorMessagesNameTheSetting) {
  ZRPlatformInfo info;
  info.LoadFromText("[FileSystemAgent]\nnGpfsTimeout = soon\n", "inline");
  int value = 5;
  CQiError error = info.GetValue(kSection, "nGpfsTimeout", value);
  EXPECT_EQ(error.GetMessage(),
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
  EXPECT_EQ(log->Count("Ignoring malformed line 22 in settings file " + path + ": this line is garbage", -1), 1u);
  EXPECT_EQ(log->Count("Ignoring malformed line 23 in settings file " + path + ": = no key", -1), 1u);
  EXPECT_EQ(log->Count("Ignoring malformed line 26 in settings file " + path + ": [broken", -1), 1u);
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

  error = info.Load(tree.MakeDir("folder.ini"));
  EXPECT_TRUE(error.IsErrNo(EISDIR));
  error = info.Load("");
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidParameter));
  error = info.Load(std::string("/etc/x\0y", 8));
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidParameter));
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
  std::atomic<bool> stop{false};
  std::atomic<int> odd{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i)
    readers.emplace_back([&] {
      while (!stop.load()) {
        unsigned v = 20;
        CQiError e = info.GetValue(kSection, "nGlusterTimeout", v);
        if (e.IsError() || (v != 25 && v != 40)) ++odd;
      }
    });
  tree.MakeFile("agent.ini", "[FileSystemAgent]\nnGlusterTimeout=40\n");
  for (int i = 0; i < 20; ++i) ASSERT_TRUE(info.Reload().IsSuccess());
  stop = true;
  for (auto& t : readers) t.join();
  EXPECT_EQ(odd.load(), 0);
  ASSERT_TRUE(info.GetValue(kSection, "nGlusterTimeout", timeout).IsSuccess());
  EXPECT_EQ(timeout, 40u);

  ASSERT_EQ(unsetenv(ZRPlatformInfo::kSettingsFileEnv), 0);
  EXPECT_EQ(ZRPlatformInfo::GetSettingsFilePath(), "/etc/fsscan/settings.ini");
}
