// Mount table parsing, reachability of mounts, volume lookup and content expansion.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <memory>

#include "Platform/CaptureLogWriter.h"
#include "Platform/FXFolder.h"
#include "Platform/FXPath.h"
#include "Platform/MountPathInfo.h"
#include "Platform/PrefixContentMapper.h"
#include "Platform/SkipFS.h"
#include "Support/LogCapture.h"
#include "Support/PlatformTestSupport.h"
#include "Support/RunAsNobody.h"
#include "Support/TempTree.h"

namespace {
// Points FXFolder at a recorded mount table while it lives.
class CMountInfoFile {
 public:
  CMountInfoFile(CTempTree& tree, const std::string& text) {
    FXFolder::SetMountInfoPath(tree.MakeFile("mountinfo", text));
  }
  ~CMountInfoFile() { FXFolder::SetMountInfoPath(""); }
};

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
        SLineRow{"Plain", "27 1 254:0 / / rw,relatime - ext4 /dev/vda rw,discard",
                 "/|/|ext4|/dev/vda|rw,discard|0"},
        SLineRow{"OneOptionalField",
                 "36 35 98:0 /mnt1 /mnt/parent rw,noatime master:1 - ext3 /dev/root "
                 "rw,errors=continue",
                 "/mnt/parent|/mnt1|ext3|/dev/root|rw,errors=continue|1"},
        SLineRow{"SeveralOptionalFields",
                 "40 27 0:40 / /srv rw shared:5 master:2 propagate_from:1 - nfs4 srv:/export "
                 "rw,vers=4.2",
                 "/srv|/|nfs4|srv:/export|rw,vers=4.2|3"},
        SLineRow{"EscapedBlankTabNewlineBackslash",
                 "50 27 8:1 / /mnt/a\\040b\\011c\\012d\\134e rw - ext4 /dev/sd\\040x rw",
                 "/mnt/a b\tc\nd\\e|/|ext4|/dev/sd x|rw|0"},
        SLineRow{"EscapedNonUtf8Byte", "51 27 8:2 / /mnt/\\377\\376 rw - xfs /dev/sdb rw",
                 "/mnt/\xff\xfe|/|xfs|/dev/sdb|rw|0"},
        SLineRow{"EscapeAtTheEnd", "56 27 8:1 / /mnt/end\\040 rw - ext4 /dev/sda1 rw",
                 "/mnt/end |/|ext4|/dev/sda1|rw|0"},
        SLineRow{"EscapeAboveAByteKept", "57 27 8:1 / /mnt/\\400 rw - ext4 /dev/sda1 rw",
                 "/mnt/\\400|/|ext4|/dev/sda1|rw|0"},
        SLineRow{"IncompleteEscapeKept", "52 27 8:3 / /mnt/x\\04 rw - xfs /dev/sdc rw",
                 "/mnt/x\\04|/|xfs|/dev/sdc|rw|0"},
        SLineRow{"NonOctalEscapeKept", "53 27 8:3 / /mnt/x\\9ab rw - xfs /dev/sdc rw",
                 "/mnt/x\\9ab|/|xfs|/dev/sdc|rw|0"},
        SLineRow{"SourceAndSuperOptionsMissing", "54 27 0:44 / /old rw - ext2", "/old|/|ext2|||0"},
        SLineRow{"BindOfSubfolder", "55 27 254:0 /var/lib /srv/lib rw - ext4 /dev/vda rw",
                 "/srv/lib|/var/lib|ext4|/dev/vda|rw|0"},
        SLineRow{"NoSeparator", "60 27 8:1 / /x rw ext4 /dev/sda1 rw", ""},
        SLineRow{"SeparatorLast", "61 27 8:1 / /x rw -", ""},
        SLineRow{"TooFewFields", "62 27 8:1 /", ""},
        SLineRow{"MountIdNotNumber", "x 27 8:1 / /x rw - ext4 /dev/sda1 rw", ""},
        SLineRow{"DeviceWithoutColon", "63 27 8-1 / /x rw - ext4 /dev/sda1 rw", ""},
        SLineRow{"DeviceMinorMissing", "64 27 8: / /x rw - ext4 /dev/sda1 rw", ""},
        SLineRow{"RelativeMountPoint", "65 27 8:1 / x rw - ext4 /dev/sda1 rw", ""},
        SLineRow{"Garbage", "garbage", ""}),
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

// ---- reachable mounts -----------------------------------------------------------------------

TEST(MountInfo, StackedMountsKeepOnlyTheTopAndHiddenChildrenAreDropped) {
  std::vector<SLogicalVolume> volumes = Parse(
      "27 1 254:0 / / rw - ext4 /dev/vda rw\n"
      "24 27 0:6 / /dev rw - devtmpfs devtmpfs rw\n"
      "26 24 0:24 / /dev/pts rw - devpts devpts rw\n"
      "29 26 0:26 / /dev/pts rw - devpts devpts rw\n"  // on top of 26
      "40 27 8:1 / /a rw - ext4 /dev/sda1 rw\n"
      "41 40 8:2 / /a/b rw - ext4 /dev/sda2 rw\n"
      "42 40 8:3 / /a rw - xfs /dev/sda3 rw\n"  // over /a: hides 40 and /a/b
      "43 42 8:4 / /a/c rw - ext4 /dev/sda4 rw\n");
  std::vector<SLogicalVolume> visible = FXFolder::FilterVisibleVolumes(volumes);
  EXPECT_EQ(MountPoints(visible),
            (std::vector<std::string>{"/", "/dev", "/dev/pts", "/a", "/a/c"}));
  EXPECT_EQ(visible[2].m_iMountId, 29);
  EXPECT_EQ(visible[3].m_iMountId, 42);

  SLogicalVolume volume;
  ASSERT_TRUE(MountPathInfo::FindVolume("/a/b/file", volumes, volume).IsSuccess());
  EXPECT_EQ(volume.m_iMountId, 42);
}

// ---- content expansion over a recorded table -------------------------------------------------

namespace {
const char* const kRecordedTable =
    "1 0 8:1 / / rw - ext4 /dev/sda1 rw\n"
    "2 1 0:5 / /proc rw - proc proc rw\n"
    "3 1 0:6 / /sys rw - sysfs sysfs rw\n"
    "4 3 0:7 / /sys/fs/cgroup rw - tmpfs tmpfs rw\n"
    "5 1 0:8 / /dev rw - devtmpfs devtmpfs rw\n"
    "6 5 0:9 / /dev/shm rw - tmpfs tmpfs rw\n"
    "7 1 8:2 / /data rw - ext4 /dev/sda2 rw\n"
    "8 7 8:3 / /data/b rw - xfs /dev/sda3 rw\n"
    "9 7 0:40 / /data/a-net rw - nfs4 srv:/x rw\n"
    "10 7 8:17 / /data/a rw - ext4 /dev/sdb1 rw\n"
    "11 10 8:18 / /data/a/deep rw - ext4 /dev/sdb2 rw\n"
    "12 7 0:41 / /data/bin rw - binfmt_misc binfmt_misc rw\n"
    "13 12 8:19 / /data/bin/under rw - ext4 /dev/sdb3 rw\n"
    "14 1 0:43 / /tmp rw - tmpfs tmpfs rw\n"
    "15 7 8:20 / /data/my\\040space rw - ext4 /dev/sdc rw\n"
    "16 7 8:21 / /data/\\377 rw - ext4 /dev/sdd rw\n";

struct SExpandRow {
  const char* name;
  std::string content;
  std::string expected;  // see Entries
};
}  // namespace

class ExpandContent : public ::testing::TestWithParam<SExpandRow> {};

TEST_P(ExpandContent, OwnEntryFirstThenNestedMountsInPathOrder) {
  const SExpandRow& row = GetParam();
  std::vector<SContentEntry> entries;
  CQiError error =
      MountPathInfo::expandContentPathByVolumes(row.content, Parse(kRecordedTable), entries);
  ASSERT_TRUE(error.IsSuccess()) << error.AsString();
  EXPECT_EQ(Entries(entries), row.expected);
}

const char* const kDataMounts =
    "/data | /data/a | /data/a/deep | /data/a-net | /data/b | /data/my space | /data/\xff";
INSTANTIATE_TEST_SUITE_P(
    Recorded, ExpandContent,
    ::testing::Values(
        SExpandRow{"Folder", "/data", kDataMounts},
        SExpandRow{"TrailingDelimiters", "/data/a//", "/data/a | /data/a/deep"},
        SExpandRow{"PlainFolderInsideAVolume", "/data/a/x", "/data/a/x on /data/a"},
        SExpandRow{"Root", "/", "/ | " + std::string(kDataMounts) + " | /tmp"},
        SExpandRow{"PseudoFileSystemAsContent", "/proc", "/proc"},
        SExpandRow{"ComponentBoundary", "/dat", "/dat on /"},
        SExpandRow{"NetworkVolume", "/data/a-net/sub", "/data/a-net/sub on /data/a-net"},
        SExpandRow{"NonUtf8Name", "/data/\xff/x\xfe", "/data/\xff/x\xfe on /data/\xff"}),
    [](const ::testing::TestParamInfo<SExpandRow>& info) { return std::string(info.param.name); });

struct SBadPathRow {
  const char* name;
  std::string path;
  bool win32;
  uint32_t code;
  std::string message;
};

class ExpandBadPath : public ::testing::TestWithParam<SBadPathRow> {};

TEST_P(ExpandBadPath, ClearErrorNoEntries) {
  const SBadPathRow& row = GetParam();
  std::vector<SContentEntry> entries{{"keep", "keep", "keep", true}};
  CQiError recorded =
      MountPathInfo::expandContentPathByVolumes(row.path, Parse(kRecordedTable), entries);
  CQiError live = MountPathInfo::expandContentPathByVolumes(row.path, entries);
  std::string volume = "keep";
  CQiError lookup = MountPathInfo::GetVolumeName(row.path, volume);
  for (const CQiError* error : {&recorded, &live, &lookup}) {
    ASSERT_TRUE(error->IsError());
    EXPECT_EQ(error->IsWin32(), row.win32);
    EXPECT_EQ(error->GetCode(), row.code);
    EXPECT_EQ(error->GetMessage().substr(0, row.message.size()), row.message);
  }
  EXPECT_EQ(entries.size(), 1u);
  EXPECT_EQ(volume, "keep");
}

INSTANTIATE_TEST_SUITE_P(
    Table, ExpandBadPath,
    ::testing::Values(
        SBadPathRow{"Empty", "", true, 87, "Empty path"},
        SBadPathRow{"Relative", "data/x", true, 87, "Path is not absolute, Path=data/x"},
        SBadPathRow{"NulByte", std::string("/data\0x", 7), true, 87, "Path holds a NUL byte"},
        SBadPathRow{"LongerThanPathMax", "/" + std::string(PATH_MAX, 'a'), false, ENAMETOOLONG,
                    "Path is longer than PATH_MAX (4096 bytes)"}),
    [](const ::testing::TestParamInfo<SBadPathRow>& info) { return std::string(info.param.name); });

TEST(ExpandContentErrors, NoVolumeHoldsThePath) {
  std::vector<SContentEntry> entries;
  CQiError error = MountPathInfo::expandContentPathByVolumes(
      "/x", Parse("7 1 8:2 / /data rw - ext4 /dev/sda2 rw\n"), entries);
  EXPECT_TRUE(error.IsWin32(QiErrorCode::NotFound));
  EXPECT_EQ(error.GetMessage(), "No mounted volume holds the path, Path=/x");
}

// ---- content expansion on a real tree ---------------------------------------------------------

class ExpandRealTree : public ::testing::Test {
 protected:
  void SetUp() override {
    m_tree.MakeDir("real/sub");
    m_tree.MakeDir("real/plain");
    m_tree.MakeSymlink("link", m_tree.Path("real"));
    // The table says "real/sub" is a mount of its own; the paths exist, so resolution is real.
    m_pTable =
        std::make_unique<CMountInfoFile>(m_tree,
                                         "1 0 8:1 / / rw - ext4 /dev/sda1 rw\n"
                                         "2 1 8:2 / " +
                                             m_tree.Path("real/sub") + " rw - xfs /dev/sda2 rw\n");
  }
  CTempTree m_tree;
  std::unique_ptr<CMountInfoFile> m_pTable;
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
}

TEST_F(ExpandRealTree, UnreadableFolderOnTheWayIsAnErrnoError) {
  m_tree.MakeDir("closed/inner", 0755);
  chmod(m_tree.Path("closed").c_str(), 0700);
  EXPECT_EQ(0, RunAsNobody([this] {
              std::vector<SContentEntry> entries;
              return MountPathInfo::expandContentPathByVolumes(m_tree.Path("closed/inner"), entries)
                  .IsErrNo(EACCES);
            }));
}

TEST(SkipFSTypes, WholeNamesAndSubstringSearch) {
  // Pseudo file systems are skipped; real file systems never match, not even as a substring of
  // the list (the engines search it so); "tmpfs" is a known overlap of that search.
  const std::string& ignored = skipFS::GetIgnoreFSTypes();
  std::string wrong;
  for (const char* type :
       {"proc",      "sysfs",       "devpts", "devtmpfs",   "cgroup",   "cgroup2", "securityfs",
        "debugfs",   "tracefs",     "pstore", "bpf",        "configfs", "fusectl", "mqueue",
        "hugetlbfs", "binfmt_misc", "autofs", "rpc_pipefs", "nsfs",     "efivarfs"})
    if (!skipFS::IsIgnoredFSType(type) || ignored.find(type) == std::string::npos) wrong += type;
  for (const char* type :
       {"ext2",     "ext3",      "ext4",     "xfs",      "btrfs",    "zfs",        "jfs",
        "reiserfs", "nfs",       "nfs4",     "cifs",     "smb3",     "smbfs",      "vfat",
        "msdos",    "exfat",     "ntfs",     "ntfs3",    "fuseblk",  "iso9660",    "udf",
        "hfs",      "hfsplus",   "f2fs",     "ocfs2",    "gfs2",     "gpfs",       "lustre",
        "ceph",     "glusterfs", "overlay",  "squashfs", "erofs",    "ramfs",      "romfs",
        "ufs",      "9p",        "virtiofs", "nilfs2",   "bcachefs", "fuse.sshfs", "fuse.glusterfs",
        "tmpfs",    ""})
    if (skipFS::IsIgnoredFSType(type) ||
        (ignored.find(type) != std::string::npos) != (std::string(type) == "tmpfs" || !*type))
      wrong += type;
  EXPECT_EQ(wrong, "");
  EXPECT_EQ(std::string(skipFS::IsNetworkFSType("nfs4") ? "n" : "-") +
                (skipFS::IsNetworkFSType("fuse.sshfs") ? "n" : "-") +
                (skipFS::IsNetworkFSType("nfsd") ? "n" : "-") +
                (skipFS::IsNetworkFSType("ext4") ? "n" : "-"),
            "nn--");
}
