// Mount table parsing and content expansion.
#include <gtest/gtest.h>

#include "Platform/FXFolder.h"
#include "Platform/MountPathInfo.h"
#include "Platform/PrefixContentMapper.h"
#include "Support/LogCapture.h"
#include "Support/PlatformTestSupport.h"
#include "Support/TempTree.h"

namespace {
std::vector<SLogicalVolume> Parse(const std::string& text) {
  std::vector<SLogicalVolume> volumes;
  FXFolder::ParseMountInfo(text, volumes);
  return volumes;
}

// Content entries in one text: local mount paths, own entry first, each with " on <volume>" when
// the volume is not the path itself and " from <source>" when the source path differs.
std::string Entries(const std::vector<SContentEntry>& entries) {
  std::string out;
  for (const auto& e : entries) {
    out += (out.empty() ? "" : " | ") + e.m_strLocalMountPath;
    if (e.m_strVolumeName != e.m_strLocalMountPath) out += " on " + e.m_strVolumeName;
    if (e.m_strSourceMountPath != e.m_strLocalMountPath) out += " from " + e.m_strSourceMountPath;
    if (e.m_bContentPath != (&e == &entries[0])) out += " (content flag wrong)";
  }
  return out;
}

std::vector<std::string> MountPoints(const std::vector<SLogicalVolume>& volumes) {
  std::vector<std::string> out;
  for (const auto& v : volumes) out.push_back(v.m_strMountPoint);
  return out;
}
}  // namespace

// ---- mountinfo lines ------------------------------------------------------------------------

struct SLineRow {
  const char* name;
  std::string line;
  std::string expected;  // mount point|root|type|source|super options|optional fields; "" refused
};

class MountInfoLine : public ::testing::TestWithParam<SLineRow> {};

TEST_P(MountInfoLine, ParsesOrRefuses) {
  SLogicalVolume v;
  std::string got;
  if (FXFolder::ParseMountInfoLine(GetParam().line, v))
    got = v.m_strMountPoint + "|" + v.m_strRoot + "|" + v.m_strFSType + "|" + v.m_strMountSource +
          "|" + v.m_strSuperOptions + "|" + std::to_string(v.m_lstOptionalFields.size());
  EXPECT_EQ(got, GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, MountInfoLine,
    ::testing::Values(
        SLineRow{"EscapedBlankTabNewlineBackslash",
                 "50 27 8:1 / /mnt/a\\040b\\011c\\012d\\134e rw - ext4 /dev/sd\\040x rw",
                 "/mnt/a b\tc\nd\\e|/|ext4|/dev/sd x|rw|0"},
        SLineRow{"EscapeAboveAByteKept", "57 27 8:1 / /mnt/\\400 rw - ext4 /dev/sda1 rw",
                 "/mnt/\\400|/|ext4|/dev/sda1|rw|0"},
        SLineRow{"IncompleteEscapeKept", "52 27 8:3 / /mnt/x\\04 rw - xfs /dev/sdc rw",
                 "/mnt/x\\04|/|xfs|/dev/sdc|rw|0"},
        SLineRow{"NonOctalEscapeKept", "53 27 8:3 / /mnt/x\\9ab rw - xfs /dev/sdc rw",
                 "/mnt/x\\9ab|/|xfs|/dev/sdc|rw|0"},
        SLineRow{"MountIdNotNumber", "x 27 8:1 / /x rw - ext4 /dev/sda1 rw", ""},
        SLineRow{"DeviceWithoutColon", "63 27 8-1 / /x rw - ext4 /dev/sda1 rw", ""},
        SLineRow{"RelativeMountPoint", "65 27 8:1 / x rw - ext4 /dev/sda1 rw", ""}),
    [](const ::testing::TestParamInfo<SLineRow>& info) { return std::string(info.param.name); });

TEST(MountInfo, BadLinesAreSkippedWithOneFailureLineEach) {
  CLogCapture log;
  std::vector<SLogicalVolume> volumes;
  size_t skipped = FXFolder::ParseMountInfo(
      "27 1 254:0 / / rw - ext4 /dev/vda rw\n"
      "garbage\n"
      "\n"
      "22 27 0:21 / /proc rw - proc proc rw\r\n"
      "23 27 0:22 / /sys rw\ttoo few\n"
      "24 27 0:6 / /dev rw - devtmpfs devtmpfs rw",
      volumes);
  EXPECT_EQ(skipped, 2u);
  EXPECT_EQ(MountPoints(volumes), (std::vector<std::string>{"/", "/proc", "/dev"}));
  EXPECT_EQ(volumes[1].m_strSuperOptions, "rw");  // CR removed
  EXPECT_EQ(log->Count("Skipping malformed mountinfo line 2: garbage", -1), 1u);
  EXPECT_EQ(log->Count("Skipping malformed mountinfo line 5: 23 27 0:22 / /sys rw\\ttoo few", -1),
            1u);
  EXPECT_EQ(log->CountContaining("Skipping malformed"), 2u);
}

TEST(MountInfo, MissingSourceFileIsAnErrnoError) {
  CTempTree tree;
  std::vector<SLogicalVolume> volumes;
  CQiError error = FXFolder::ReadMountInfoFile(tree.Path("nothing"), volumes);
  EXPECT_TRUE(error.IsErrNo(ENOENT));
  EXPECT_EQ(error.GetMessage(), "Cannot open mount table, Path=" + tree.Path("nothing"));
  EXPECT_TRUE(FXFolder::ReadMountInfoFile("", volumes).IsWin32(QiErrorCode::InvalidParameter));
}

// ---- content expansion on a real tree ---------------------------------------------------------

class ExpandRealTree : public ::testing::Test {
 protected:
  void SetUp() override {
    m_tree.MakeDir("real/sub");
    m_tree.MakeDir("real/plain");
    m_tree.MakeSymlink("link", m_tree.Path("real"));
    // The table says "real/sub" is a mount of its own; the paths exist, so resolution is real.
    FXFolder::SetMountInfoPath(m_tree.MakeFile(
        "mountinfo", "1 0 8:1 / / rw - ext4 /dev/sda1 rw\n2 1 8:2 / " + m_tree.Path("real/sub") +
                         " rw - xfs /dev/sda2 rw\n"));
  }
  void TearDown() override { FXFolder::SetMountInfoPath(""); }
  CTempTree m_tree;
};

// Linked content keeps the caller's form; a mapper gives the source paths, and its refusal is 87.
TEST_F(ExpandRealTree, LinkedContentKeepsTheCallersFormAndMapsSources) {
  std::vector<SContentEntry> entries;
  ASSERT_TRUE(MountPathInfo::expandContentPathByVolumes(m_tree.Path("link/"), entries).IsSuccess());
  EXPECT_EQ(Entries(entries), Expand("@/link on / | @/link/sub on @/real/sub", m_tree.Root()));
  std::string volume;
  ASSERT_TRUE(MountPathInfo::GetVolumeName(m_tree.Path("link/sub/f"), volume).IsSuccess());
  EXPECT_EQ(volume, m_tree.Path("real/sub"));

  CPrefixContentMapper mapper;
  ASSERT_TRUE(mapper.AddMapping("/host/share", m_tree.Path("link")).IsSuccess());
  ASSERT_TRUE(
      MountPathInfo::expandContentPathByVolumes(m_tree.Path("link"), entries, &mapper).IsSuccess());
  EXPECT_EQ(Entries(entries), Expand("@/link on / from /host/share | @/link/sub on @/real/sub from "
                                     "/host/share/sub",
                                     m_tree.Root()));
  CQiError error = MountPathInfo::expandContentPathByVolumes(m_tree.Path("real"), entries, &mapper);
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidParameter));
  EXPECT_EQ(error.GetMessage(),
            "Failed to convert proxy path to host path, LocalMountPath=" + m_tree.Path("real"));
  error = MountPathInfo::expandContentPathByVolumes(
      "/x", Parse("7 1 8:2 / /data rw - ext4 /dev/sda2 rw\n"), entries);
  EXPECT_TRUE(error.IsWin32(QiErrorCode::NotFound));
  EXPECT_EQ(error.GetMessage(), "No mounted volume holds the path, Path=/x");
}
