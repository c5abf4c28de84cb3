// Volume unique ids and physical-media ids over a fake /sys and /dev tree.
#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

#include "Platform/FXFolder.h"
#include "Platform/FXString.h"
#include "Platform/VolumeIdentity.h"
#include "Support/LogCapture.h"
#include "Support/PlatformTestSupport.h"
#include "Support/TempTree.h"

namespace {
// A fake kernel tree:
//   sda (8:0) with partitions sda1 (8:1) and sda2 (8:2); sdb (8:16) with sdb1 (8:17);
//   sdc (8:32), a whole disk used without partitions; sdd (8:48) with sdd1 (8:49);
//   dm-0 (253:0) on sda2, dm-1 (253:1) on dm-0 (an LV on a crypt device);
//   md0 (9:0) on sdd1 and sdb1 (RAID over two disks);
//   dm-2 (253:2) and dm-3 (253:3) each naming the other as slave (a broken tree).
//   /dev/disk/by-uuid links for sda1 and dm-1, /dev/mapper/vg-lv -> ../dm-1.
class CFakeKernelTree {
 public:
  CFakeKernelTree() {
    // Each device below sys/devices with its number; a partition is a device inside a disk's
    // folder. Then each stacked device's slaves.
    for (auto [device, number] : {std::pair{"pci0/block/sda", "8:0"},
                                  {"pci0/block/sda/sda1", "8:1"},
                                  {"pci0/block/sda/sda2", "8:2"},
                                  {"pci0/block/sdb", "8:16"},
                                  {"pci0/block/sdb/sdb1", "8:17"},
                                  {"pci0/block/sdc", "8:32"},
                                  {"pci0/block/sdd", "8:48"},
                                  {"pci0/block/sdd/sdd1", "8:49"},
                                  {"virtual/block/dm-0", "253:0"},
                                  {"virtual/block/dm-1", "253:1"},
                                  {"virtual/block/md0", "9:0"},
                                  {"virtual/block/dm-2", "253:2"},
                                  {"virtual/block/dm-3", "253:3"}}) {
      const std::string path = device, name = path.substr(path.rfind('/') + 1);
      m_tree.MakeFile("sys/devices/" + path + "/dev", number + std::string("\n"));
      if (path.starts_with("pci0") && std::count(path.begin(), path.end(), '/') == 3)
        m_tree.MakeFile("sys/devices/" + path + "/partition", "1\n");
      m_tree.MakeSymlink("sys/dev/block/" + std::string(number), "../../devices/" + path);
      m_tree.MakeSymlink("sys/class/block/" + name, "../../devices/" + path);
    }
    for (auto [slave, target] : {std::pair{"dm-0/slaves/sda2", "../../../../pci0/block/sda/sda2"},
                                 {"dm-1/slaves/dm-0", "../../dm-0"},
                                 {"md0/slaves/sdd1", "../../../../pci0/block/sdd/sdd1"},
                                 {"md0/slaves/sdb1", "../../../../pci0/block/sdb/sdb1"},
                                 {"dm-2/slaves/dm-3", "../../dm-3"},
                                 {"dm-3/slaves/dm-2", "../../dm-2"}})
      m_tree.MakeSymlink("sys/devices/virtual/block/" + std::string(slave), target);
    for (const char* node : {"sda1", "sda2", "dm-0", "dm-1"})
      m_tree.MakeFile(std::string("dev/") + node);
    m_tree.MakeSymlink("dev/disk/by-uuid/1111-aaaa", "../../sda1");
    m_tree.MakeSymlink("dev/disk/by-uuid/2222-bbbb", "../../dm-1");
    m_tree.MakeSymlink("dev/mapper/vg-lv", "../dm-1");
  }

  std::string SysRoot() const { return m_tree.Path("sys"); }
  std::string DevRoot() const { return m_tree.Path("dev"); }
  CTempTree& Tree() { return m_tree; }

 private:
  CTempTree m_tree;
};

SLogicalVolume Volume(const std::string& line) {
  SLogicalVolume volume;
  EXPECT_TRUE(FXFolder::ParseMountInfoLine(line, volume)) << line;
  return volume;
}

struct SIdentityRow {
  const char* name;
  std::string volume;    // a mountinfo line, or a volume name looked up in the mount table
  std::string expected;  // unique id and physical media id
};
}  // namespace

// The fake kernel, and a mount table that the lookups by name read.
class VolumeIdentityByName : public ::testing::Test {
 protected:
  void SetUp() override {
    FXFolder::SetMountInfoPath(
        m_kernel.Tree().MakeFile("mountinfo",
                                 "1 0 8:1 / / rw - ext4 /dev/sda1 rw\n"
                                 "2 1 8:2 / /var rw - xfs /dev/sda2 rw\n"
                                 "3 1 0:60 / /fsscan-test-net rw - nfs4 srv:/export rw\n"
                                 "4 1 9:0 / /fsscan-test-raid rw - ext4 /dev/md0 rw\n"));
  }
  void TearDown() override { FXFolder::SetMountInfoPath(""); }
  CFakeKernelTree m_kernel;
};

class VolumeIdentityTable : public VolumeIdentityByName,
                            public ::testing::WithParamInterface<SIdentityRow> {};

TEST_P(VolumeIdentityTable, UniqueAndPhysicalMediaIds) {
  CVolumeIdentity identity(m_kernel.SysRoot(), m_kernel.DevRoot());
  const std::string& given = GetParam().volume;
  std::string uniqueId, mediaId;
  CQiError error;
  if (given[0] == '/') {
    error = identity.GetVolumeUniqueId(given, uniqueId);
    if (error.IsSuccess()) error = identity.GetPhysicalMediaId(given, mediaId);
  } else {
    error = identity.GetVolumeUniqueId(Volume(given), uniqueId);
    if (error.IsSuccess()) error = identity.GetPhysicalMediaId(Volume(given), mediaId);
  }
  ASSERT_TRUE(error.IsSuccess()) << error.AsString();
  EXPECT_EQ(uniqueId + " " + mediaId, GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    FakeKernel, VolumeIdentityTable,
    ::testing::Values(
        // Two partitions of one disk share the medium; the UUID is used where a link names it.
        SIdentityRow{"PartitionWithUuid", "1 0 8:1 / / rw - ext4 /dev/sda1 rw",
                     "1111-aaaa /dev/sda"},
        SIdentityRow{"BindOfASubfolder", "3 1 8:2 /lib /srv/lib rw - xfs /dev/sda2 rw",
                     "dev-8:2:/lib /dev/sda"},
        // A logical volume on a crypt device on sda2 lies on sda too.
        SIdentityRow{"StackedDeviceMapper", "4 1 253:1 / /home rw - ext4 /dev/mapper/vg-lv rw",
                     "2222-bbbb /dev/sda"},
        // RAID over sdd1 and sdb1: the disk with the lowest number, whatever the listing order.
        SIdentityRow{"RaidOverTwoDisks", "6 1 9:0 / /raid rw - ext4 /dev/md0 rw",
                     "dev-9:0 /dev/sdb"},
        // btrfs reports an anonymous device number; the source names the device node.
        SIdentityRow{"AnonymousNumberSourceNode",
                     "8 1 0:50 /@data /btr rw - btrfs /dev/mapper/vg-lv rw",
                     "2222-bbbb:/@data /dev/sda"},
        SIdentityRow{"NetworkNfs", "9 1 0:60 / /net rw - nfs4 srv:/export rw",
                     "nfs4:srv:/export UNC"},
        SIdentityRow{"Tmpfs", "11 1 0:24 / /run rw - tmpfs tmpfs rw", "dev-0:24 dev-0:24"},
        SIdentityRow{"UnknownBlockNumber", "13 1 8:99 / /odd rw - ext4 /dev/sdz rw",
                     "dev-8:99 dev-8:99"},
        // By volume name, through the mount table.
        SIdentityRow{"ByNameRoot", "/", "1111-aaaa /dev/sda"},
        SIdentityRow{"ByNamePathInsideAVolume", "/var/tmp/x/y", "dev-8:2 /dev/sda"},
        SIdentityRow{"ByNameMissingPathOnANetworkVolume", "/fsscan-test-net/a/b",
                     "nfs4:srv:/export UNC"},
        SIdentityRow{"ByNameRaid", "/fsscan-test-raid", "dev-9:0 /dev/sdb"}),
    [](const ::testing::TestParamInfo<SIdentityRow>& info) {
      return std::string(info.param.name);
    });

TEST(VolumeIdentity, LoopingSlavesFallBackToTheDeviceItself) {
  CFakeKernelTree kernel;
  CVolumeIdentity identity(kernel.SysRoot(), kernel.DevRoot());
  CLogCapture writer;
  std::string mediaId;
  ASSERT_TRUE(
      identity.GetPhysicalMediaId(Volume("1 0 253:2 / /loop rw - ext4 /dev/dm-2 rw"), mediaId)
          .IsSuccess());
  EXPECT_EQ(mediaId, "/dev/dm-2");
  EXPECT_EQ(
      writer->CountContaining("Cannot find the disk under block device dm-2 of volume [/loop]", 1),
      1u);

  CVolumeIdentity::SBlockDevice device;
  ASSERT_TRUE(identity.FindBlockDevice(Volume("1 0 253:2 / /loop rw - ext4 /dev/dm-2 rw"), device)
                  .IsSuccess());
  std::vector<CVolumeIdentity::SBlockDevice> disks;
  CQiError error = identity.FindWholeDisks(device, disks);
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidData));
  EXPECT_NE(error.GetMessage().find("Block devices stacked too deep"), std::string::npos);
}

TEST_F(VolumeIdentityByName, BadNamesAreClearErrors) {
  CVolumeIdentity identity(m_kernel.SysRoot(), m_kernel.DevRoot());
  std::string id = "keep", got;
  for (CQiError error : {identity.GetVolumeUniqueId("", id), identity.GetPhysicalMediaId("var", id),
                         identity.GetPhysicalMediaId(std::string("/var\0x", 6), id),
                         identity.GetVolumeUniqueId("/" + std::string(5000, 'v'), id)})
    got += ErrorCode(error) + " " + error.GetMessage() + "\n";
  EXPECT_EQ(got,
            "W87 Empty path\nW87 Path is not absolute, Path=var\nW87 Path holds a NUL byte\n"
            "E36 Path is longer than PATH_MAX (4096 bytes), Length=5001, Path=/" +
                std::string(63, 'v') + "...\n");
  EXPECT_EQ(id, "keep");
  // A name whose volume is found through a non-UTF-8 path works like any other.
  ASSERT_TRUE(identity.GetVolumeUniqueId("/var/\xff\xfe", id).IsSuccess());
  EXPECT_EQ(id, "dev-8:2");
  ASSERT_TRUE(identity.GetVolumeName("/var/\xff\xfe", id).IsSuccess());
  EXPECT_EQ(id + " " + identity.GetSysRoot(), "/var " + m_kernel.SysRoot());
}

TEST(VolumeIdentity, DefaultRootsCanBeRedirected) {
  CFakeKernelTree kernel;
  CVolumeIdentity::SetDefaultRoots(kernel.SysRoot(), kernel.DevRoot());
  std::string mediaId;
  ASSERT_TRUE(CVolumeIdentity::GetDefault()
                  .GetPhysicalMediaId(Volume("1 0 8:17 / /x rw - ext4 /dev/sdb1 rw"), mediaId)
                  .IsSuccess());
  EXPECT_EQ(mediaId, "/dev/sdb");
  CVolumeIdentity::SetDefaultRoots("", "");
  EXPECT_EQ(CVolumeIdentity::GetDefault().GetDevRoot(), "/dev");
}
