// The Unix work unit manager: content paths becoming work units on real temporary trees, with
// the machine's mount table or a recorded one, raw devices, the content mapper both ways,
// special content kinds, mount points below content, GPFS filesets and bad input.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"
#include "Platform/MountPathInfo.h"
#include "Platform/PrefixContentMapper.h"
#include "Platform/StringCompare.h"
#include "Platform/VolumeIdentity.h"
#include "Scan/ContentContext.h"
#include "Scan/FabricatedItem.h"
#include "Scan/ScanFailureConsumer.h"
#include "Scan/ScannerConfigurationBagId.h"
#include "Scan/Unix/WorkUnitManager.h"
#include "WorkUnitTestSupport.h"

using namespace WorkUnitTestSupport;
using Id = SXScannerConfigurationBagId;

namespace {
const std::vector<std::string> kNone;

// A mapper that refuses every path holding "refuse", and otherwise maps by prefixes.
class CRefusingMapper : public CPrefixContentMapper {
 public:
  CQiError MakeProxyPathFromHostPath(const std::string& host, std::string& proxy) override {
    if (host.find("refuse") != std::string::npos) return QI_ERROR_WIN32(QiErrorCode::NotFound, "refused");
    return CPrefixContentMapper::MakeProxyPathFromHostPath(host, proxy);
  }
};
}  // namespace

class WorkUnitManagerTest : public ::testing::Test {
 protected:
  CWorkUnitPtr Unit(const std::string& key) {
    auto it = m_manager.GetWorkUnitMap().find(key);
    return it == m_manager.GetWorkUnitMap().end() ? nullptr : it->second;
  }
  std::vector<std::string> Keys() const {
    std::vector<std::string> keys;
    for (const auto& [key, unit] : m_manager.GetWorkUnitMap()) keys.push_back(key);
    return keys;
  }
  CQiError Finalize() { return m_manager.FinalizeWorkUnits(kNone, kNone, kNone, kNone, kNone); }

  CLogCapture m_log;
  CTempTree m_tree;
  CWorkUnitManager m_manager{42};
};

// ---- the machine's own volumes ------------------------------------------------------------

TEST_F(WorkUnitManagerTest, TwoContentPathsOnOneVolumeShareOneUnit) {
  std::string a = m_tree.MakeDir("a"), b = m_tree.MakeDir("b");
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(a).IsSuccess());
  ASSERT_TRUE(m_manager.AssignWorkUnit(b, b, false).IsSuccess());
  ASSERT_EQ(Keys(), std::vector<std::string>{VolumeOf(a)});
  CWorkUnitPtr unit = Unit(VolumeOf(a));
  EXPECT_EQ(LocalScanPaths(unit), (std::vector<std::string>{a, b}));
  EXPECT_EQ(unit->GetScanPaths()[1]->GetSourceScanPath(), b);
  EXPECT_EQ(unit->GetSourceVolumeName(), VolumeOf(a));
  EXPECT_EQ(unit->GetLocalVolumeName(), VolumeOf(a));
  // The unit sits under its volume and its medium, once each.
  ASSERT_EQ(m_manager.GetPhysicalMediaVolumeWorkUnitMap().size(), 1u);
  const auto& [mediaId, media] = *m_manager.GetPhysicalMediaVolumeWorkUnitMap().begin();
  EXPECT_EQ(mediaId, unit->GetPhysicalMediaId());
  ASSERT_EQ(media->GetVolumeWorkUnits().size(), 1u);
  EXPECT_EQ(media->GetVolumeWorkUnits()[0]->GetWorkUnits(), std::vector<CWorkUnitPtr>{unit});
  EXPECT_EQ(media->GetVolumeWorkUnits()[0]->GetLocalVolumeUniqueId(), unit->GetLocalVolumeUniqueId());
  std::string bagVolume;
  ASSERT_TRUE(unit->GetBag()->Read(Id::idVolumeName, bagVolume).IsSuccess());
  EXPECT_EQ(bagVolume, VolumeOf(a));
}

TEST_F(WorkUnitManagerTest, ContentOnTwoVolumesGivesTwoUnitsOnTheirOwnMedia) {
  std::unique_ptr<CTempTree> shm = MakeTreeIn("/dev/shm");
  std::string onRoot = m_tree.MakeDir("content"), onShm = shm->MakeDir("content");
  if (VolumeOf(onRoot) == VolumeOf(onShm)) GTEST_SKIP() << "temporary folder and /dev/shm share a volume";
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(onRoot).IsSuccess());
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(onShm).IsSuccess());
  ASSERT_EQ(m_manager.GetWorkUnitMap().size(), 2u);
  CWorkUnitPtr rootUnit = Unit(VolumeOf(onRoot)), shmUnit = Unit(VolumeOf(onShm));
  ASSERT_TRUE(rootUnit && shmUnit);
  EXPECT_EQ(LocalScanPaths(shmUnit), std::vector<std::string>{onShm});
  // Each medium is the one the volume identity gives; tmpfs has no disk, so its own number.
  std::string rootMedia, shmMedia;
  ASSERT_TRUE(CVolumeIdentity::GetDefault().GetPhysicalMediaId(VolumeOf(onRoot), rootMedia).IsSuccess());
  ASSERT_TRUE(CVolumeIdentity::GetDefault().GetPhysicalMediaId(VolumeOf(onShm), shmMedia).IsSuccess());
  EXPECT_EQ(rootUnit->GetPhysicalMediaId(), rootMedia);
  EXPECT_EQ(shmUnit->GetPhysicalMediaId(), shmMedia);
  EXPECT_NE(rootMedia, shmMedia);
  EXPECT_TRUE(FXString::StartsWith(shmMedia, "dev-")) << shmMedia;
  ASSERT_EQ(m_manager.GetPhysicalMediaVolumeWorkUnitMap().size(), 2u);
  // Keys are compared without regard to case.
  EXPECT_EQ(m_manager.GetWorkUnitMap().count(FXString::ToUpper(VolumeOf(onShm))), 1u);
}

struct SDelimiterRow {
  const char* name;
  std::string suffix;
};

class WorkUnitManagerDelimiters : public WorkUnitManagerTest,
                                  public ::testing::WithParamInterface<SDelimiterRow> {};

TEST_P(WorkUnitManagerDelimiters, TrailingDelimitersGiveTheSameUnit) {
  std::string dir = m_tree.MakeDir("dir");
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(dir).IsSuccess());
  ASSERT_TRUE(m_manager.AssignWorkUnit(dir + GetParam().suffix, dir + GetParam().suffix, false).IsSuccess());
  ASSERT_EQ(Keys(), std::vector<std::string>{VolumeOf(dir)});
  // The same content given again is one scan path.
  EXPECT_EQ(LocalScanPaths(Unit(VolumeOf(dir))), std::vector<std::string>{dir});
  EXPECT_EQ(Unit(VolumeOf(dir))->GetScanPaths()[0]->GetSourceScanPath(), dir);
}

INSTANTIATE_TEST_SUITE_P(Table, WorkUnitManagerDelimiters,
                         ::testing::Values(SDelimiterRow{"None", ""}, SDelimiterRow{"Slash", "/"},
                                           SDelimiterRow{"TwoSlashes", "//"}, SDelimiterRow{"Backslash", "\\"},
                                           SDelimiterRow{"Mixed", "/\\/"}),
                         [](const ::testing::TestParamInfo<SDelimiterRow>& info) {
                           return std::string(info.param.name);
                         });

TEST_F(WorkUnitManagerTest, ContentThatDoesNotExistIsPlacedOnTheVolumeThatWouldHoldIt) {
  // The engine reports missing content when it scans it; assignment only places it.
  std::string missing = m_tree.Path("does/not/exist");
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(missing + "/").IsSuccess());
  ASSERT_EQ(Keys(), std::vector<std::string>{VolumeOf(m_tree.Root())});
  EXPECT_EQ(LocalScanPaths(Unit(VolumeOf(m_tree.Root()))), std::vector<std::string>{missing});
}

TEST_F(WorkUnitManagerTest, NonUtf8NamesKeepTheirBytes) {
  std::string dir = m_tree.MakeDir("\xff\xfe-\x01");
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(dir).IsSuccess());
  CWorkUnitPtr unit = Unit(VolumeOf(m_tree.Root()));
  ASSERT_TRUE(unit);
  EXPECT_EQ(LocalScanPaths(unit), std::vector<std::string>{dir});
  std::vector<std::string> filters{dir + "/x"};
  ASSERT_TRUE(m_manager.FinalizeWorkUnits(kNone, filters, kNone, kNone, kNone).IsSuccess());
  EXPECT_TRUE(unit->IsFileFilteredOut(dir + "/x/y"));
  EXPECT_FALSE(unit->IsFileFilteredOut(dir + "/z"));
}

struct SBadInputRow {
  const char* name;
  std::string path;
  CQiError::EQiErrorSpace space;
  uint32_t code;
  std::string fragment;
};

class WorkUnitManagerBadInput : public WorkUnitManagerTest, public ::testing::WithParamInterface<SBadInputRow> {};

TEST_P(WorkUnitManagerBadInput, ClearErrorAndNoUnit) {
  const SBadInputRow& row = GetParam();
  CQiError error = m_manager.AssignLocalWorkUnit(row.path);
  ASSERT_TRUE(error.IsError());
  EXPECT_EQ(error.GetSpace(), row.space);
  EXPECT_EQ(error.GetCode(), row.code);
  EXPECT_NE(error.AsString().find(row.fragment), std::string::npos) << error.AsString();
  EXPECT_TRUE(m_manager.GetWorkUnitMap().empty());
  EXPECT_TRUE(m_manager.GetPhysicalMediaVolumeWorkUnitMap().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Table, WorkUnitManagerBadInput,
    ::testing::Values(
        SBadInputRow{"Empty", "", CQiError::EQiErrorSpace::Win32, 87, "Content path is empty"},
        SBadInputRow{"NulByte", std::string("/tmp/a\0b", 8), CQiError::EQiErrorSpace::Win32, 87,
                     "Content path holds a NUL byte"},
        SBadInputRow{"Relative", "relative/dir", CQiError::EQiErrorSpace::Win32, 87, "expandContentPathByVolumes failed"},
        SBadInputRow{"LongerThanPathMax", "/tmp/" + std::string(5000, 'x'), CQiError::EQiErrorSpace::ErrNo,
                     ENAMETOOLONG, "expandContentPathByVolumes failed"},
        SBadInputRow{"ManyLongComponents", "/tmp" + [] {
                       std::string p;
                       for (int i = 0; i < 30; ++i) p += "/" + std::string(200, 'c');
                       return p;
                     }(), CQiError::EQiErrorSpace::ErrNo, ENAMETOOLONG, "Path is longer than PATH_MAX"},
        // A wildcard without fixed leading folders names no volume.
        SBadInputRow{"WildcardWithoutPrefix", "*.txt", CQiError::EQiErrorSpace::Win32, 87, "Path is not absolute"},
        SBadInputRow{"MalformedWildcard", "/tmp/[z-a]/x", CQiError::EQiErrorSpace::Win32, 13,
                     "LoadRaw failed for wildcard scan path, LocalScanPath=/tmp/[z-a]/x"}),
    [](const ::testing::TestParamInfo<SBadInputRow>& info) { return std::string(info.param.name); });

// ---- wildcards ------------------------------------------------------------------------------

TEST_F(WorkUnitManagerTest, WildcardContentIsPlacedOnTheVolumeOfItsPrefix) {
  std::unique_ptr<CTempTree> shm = MakeTreeIn("/dev/shm");
  std::string rootPattern = m_tree.MakeDir("w") + "/*.txt";
  std::string shmPattern = shm->MakeDir("logs") + "/**/*.log";
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(rootPattern).IsSuccess());
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(shmPattern).IsSuccess());
  CWorkUnitPtr rootUnit = Unit(VolumeOf(m_tree.Root())), shmUnit = Unit(VolumeOf(shm->Root()));
  ASSERT_TRUE(rootUnit && shmUnit);
  ASSERT_EQ(rootUnit->GetScanPaths().size(), 1u);
  EXPECT_EQ(rootUnit->GetScanPaths()[0]->GetLocalScanPath(), rootPattern);
  EXPECT_EQ(rootUnit->GetScanPaths()[0]->GetSourceScanPath(), rootPattern);
  EXPECT_EQ(rootUnit->GetScanPaths()[0]->GetSourceScanPrefix(), m_tree.Path("w"));
  EXPECT_EQ(LocalScanPaths(shmUnit), std::vector<std::string>{shmPattern});
  EXPECT_FALSE(rootUnit->ContainsVolumeWildcardScanPaths());
  // The pattern becomes the scan content.
  ASSERT_TRUE(Finalize().IsSuccess());
  EXPECT_FALSE(rootUnit->IsFileFilteredOut(m_tree.Path("w/a.txt")));
  EXPECT_TRUE(rootUnit->IsFileFilteredOut(m_tree.Path("w/a.doc")));
}

TEST_F(WorkUnitManagerTest, SourceAndLocalWildcardsWithDifferentFolders) {
  // Given in both forms, the source scan path keeps the pattern below the source folder.
  std::string local = m_tree.MakeDir("snap/data") + "/*.db";
  ASSERT_TRUE(m_manager.AssignWorkUnit("/data/*.db", local, false).IsSuccess());
  CWorkUnitPtr unit = Unit(VolumeOf(m_tree.Root()));
  ASSERT_TRUE(unit);
  ASSERT_EQ(unit->GetScanPaths().size(), 1u);
  EXPECT_EQ(unit->GetScanPaths()[0]->GetLocalScanPath(), local);
  EXPECT_EQ(unit->GetScanPaths()[0]->GetSourceScanPath(), "/data/*.db");
  EXPECT_EQ(unit->GetScanPaths()[0]->GetSourceScanPrefix(), "/data");
}

// ---- raw devices ----------------------------------------------------------------------------

enum class EDevice { DevNull, LinkToDevNull, BlockNode, LinkToBlockNode };

struct SDeviceRow {
  const char* name;
  EDevice kind;
};

class WorkUnitManagerDevices : public WorkUnitManagerTest, public ::testing::WithParamInterface<SDeviceRow> {};

TEST_P(WorkUnitManagerDevices, DeviceNodesGiveARawDeviceUnitAndNoVolumeUnit) {
  std::string path, node;
  switch (GetParam().kind) {
    case EDevice::DevNull:
      path = node = "/dev/null";
      break;
    case EDevice::LinkToDevNull:
      path = m_tree.MakeSymlink("links/null", "/dev/null");
      node = "/dev/null";
      break;
    case EDevice::BlockNode:
    case EDevice::LinkToBlockNode:
      node = m_tree.Path("blk");
      if (mknod(node.c_str(), S_IFBLK | 0600, makedev(7, 200)) != 0) GTEST_SKIP() << "mknod: " << errno;
      path = GetParam().kind == EDevice::BlockNode ? node : m_tree.MakeSymlink("links/blk", node);
      break;
  }
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(path + "/").IsSuccess());
  const std::string key = std::string(CWorkUnitManager::kRawDeviceVolumePrefix) + node;
  ASSERT_EQ(Keys(), std::vector<std::string>{key});
  auto raw = std::dynamic_pointer_cast<CRawDeviceWorkUnit>(Unit(key));
  ASSERT_TRUE(raw);
  EXPECT_EQ(LocalScanPaths(raw), std::vector<std::string>{path});
  CRawDeviceWorkUnit::SurfaceMap surfaces;
  ASSERT_TRUE(raw->GetSurfaceMap(surfaces).IsSuccess());
  EXPECT_EQ(surfaces, (CRawDeviceWorkUnit::SurfaceMap{{path, node}}));
  EXPECT_EQ(raw->GetLocalVolumeName(), key);
  EXPECT_FALSE(raw->GetPhysicalMediaId().empty());
  // The arbiter reaches it through its own volume and medium.
  ASSERT_EQ(m_manager.GetPhysicalMediaVolumeWorkUnitMap().count(raw->GetPhysicalMediaId()), 1u);
  const auto& volumes = m_manager.GetPhysicalMediaVolumeWorkUnitMap().at(raw->GetPhysicalMediaId())->GetVolumeWorkUnits();
  ASSERT_EQ(volumes.size(), 1u);
  EXPECT_EQ(volumes[0]->GetLocalVolumeName(), key);
}

INSTANTIATE_TEST_SUITE_P(Table, WorkUnitManagerDevices,
                         ::testing::Values(SDeviceRow{"DevNull", EDevice::DevNull},
                                           SDeviceRow{"LinkToDevNull", EDevice::LinkToDevNull},
                                           SDeviceRow{"BlockNode", EDevice::BlockNode},
                                           SDeviceRow{"LinkToBlockNode", EDevice::LinkToBlockNode}),
                         [](const ::testing::TestParamInfo<SDeviceRow>& info) { return std::string(info.param.name); });

TEST_F(WorkUnitManagerTest, TwoPathsToOneDeviceExtendOneRawUnit) {
  std::string link = m_tree.MakeSymlink("null-link", "/dev/null");
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit("/dev/null").IsSuccess());
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(link).IsSuccess());
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(link).IsSuccess());
  ASSERT_EQ(m_manager.GetWorkUnitMap().size(), 1u);
  auto raw = std::dynamic_pointer_cast<CRawDeviceWorkUnit>(Unit("quillon-RawDevice-/dev/null"));
  ASSERT_TRUE(raw);
  EXPECT_EQ(LocalScanPaths(raw), (std::vector<std::string>{"/dev/null", link}));
  CRawDeviceWorkUnit::SurfaceMap surfaces;
  ASSERT_TRUE(raw->GetSurfaceMap(surfaces).IsSuccess());
  EXPECT_EQ(surfaces.size(), 2u);
  EXPECT_EQ(raw->GetLocalVolumeUniqueId(), "chr-1:3");
}

TEST_F(WorkUnitManagerTest, ARawDeviceKeyHeldByAnotherKindOfUnitFails) {
  m_manager.GetWorkUnitMap()["quillon-RawDevice-/dev/null"] = std::make_shared<CWorkUnit>();
  CQiError error = m_manager.AssignLocalWorkUnit("/dev/null");
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidData)) << error.AsString();
  EXPECT_EQ(error.GetMessage(), "CRawDeviceWorkUnit cast failed, LocalVolumeName=quillon-RawDevice-/dev/null");
  EXPECT_TRUE(HasFrame(error, "AddToRawDeviceWorkUnit failed"));
}

TEST_F(WorkUnitManagerTest, RawDevicesThroughTheMapper) {
  auto mapper = std::make_shared<CPrefixContentMapper>();
  ASSERT_TRUE(mapper->AddMapping("/hostdev", m_tree.MakeDir("devs")).IsSuccess());
  m_manager.SetContentMapper(mapper);
  std::string link = m_tree.MakeSymlink("devs/nul", "/dev/null");
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(link).IsSuccess());
  auto raw = std::dynamic_pointer_cast<CRawDeviceWorkUnit>(Unit("quillon-RawDevice-/dev/null"));
  ASSERT_TRUE(raw);
  ASSERT_EQ(raw->GetScanPaths().size(), 1u);
  EXPECT_EQ(raw->GetScanPaths()[0]->GetSourceScanPath(), "/hostdev/nul");
  EXPECT_EQ(raw->GetSourceVolumeName(), "quillon-RawDevice-/hostdev/nul");

  CQiError error = m_manager.AddToRawDeviceWorkUnit("/dev/zero", {"/dev/zero"});
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidParameter));
  EXPECT_EQ(error.GetMessage(), "Failed to convert proxy path to host path, LocalScanPath=/dev/zero");
}

// ---- content kinds from the context ---------------------------------------------------------

TEST_F(WorkUnitManagerTest, HadoopContentGoesToTheHadoopVolume) {
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit("/user/hdfs/data/", Context({Id::idIsHadoopScan}), false).IsSuccess());
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit("/user/hdfs/*.csv", Context({Id::idIsHadoopScan}), false).IsSuccess());
  ASSERT_EQ(Keys(), std::vector<std::string>{"quillon_hadoop_vol"});
  CWorkUnitPtr unit = Unit("quillon_hadoop_vol");
  EXPECT_EQ(LocalScanPaths(unit), (std::vector<std::string>{"/user/hdfs/data", "/user/hdfs/*.csv"}));
  EXPECT_EQ(unit->GetPhysicalMediaId(), "quillon_hadoop_vol");
  EXPECT_EQ(unit->GetLocalVolumeUniqueId(), "quillon_hadoop_vol");

  // A pattern without fixed folders marks the unit as holding volume-wide, case-blind wildcards.
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit("*.parquet", Context({Id::idIsHadoopScan}), false).IsSuccess());
  EXPECT_TRUE(unit->ContainsVolumeWildcardScanPaths());
  EXPECT_TRUE(unit->IsUseInsensitiveFilterForWildCardSet());
}

struct SContextRow {
  const char* name;
  int source;  // 0 content context, 1 item as context, 2 default context, 3 configuration bag
};

class WorkUnitManagerContextSources : public WorkUnitManagerTest,
                                      public ::testing::WithParamInterface<SContextRow> {};

TEST_P(WorkUnitManagerContextSources, TheContentKindIsReadFromTheContextBag) {
  FVBasePtr context;
  switch (GetParam().source) {
    case 0:
      context = Context({Id::idIsHadoopScan});
      break;
    case 1: {
      auto item = std::make_shared<CFabricatedItem>(CBagPtr(), "/x", "/x");
      ASSERT_TRUE(item->GetItemBag()->Write(Id::idIsHadoopScan, true).IsSuccess());
      context = item;
      break;
    }
    case 2:
      m_manager.SetDefaultContext(Context({Id::idIsHadoopScan}));
      break;
    case 3: {
      auto bag = std::make_shared<CBag>();
      ASSERT_TRUE(bag->Write(Id::idIsHadoopScan, true).IsSuccess());
      m_manager.SetConfigurationBag(bag);
      break;
    }
  }
  CQiError error = context ? m_manager.AssignLocalWorkUnit("/hdfs/a", context, false)
                           : m_manager.AssignLocalWorkUnit("/hdfs/a");
  ASSERT_TRUE(error.IsSuccess()) << error.AsString();
  EXPECT_EQ(Keys(), std::vector<std::string>{"quillon_hadoop_vol"});
}

INSTANTIATE_TEST_SUITE_P(Table, WorkUnitManagerContextSources,
                         ::testing::Values(SContextRow{"ContentContext", 0}, SContextRow{"ItemBag", 1},
                                           SContextRow{"DefaultContext", 2}, SContextRow{"ConfigurationBag", 3}),
                         [](const ::testing::TestParamInfo<SContextRow>& info) { return std::string(info.param.name); });

TEST_F(WorkUnitManagerTest, AContentSettingOfTheWrongTypeIsAnError) {
  auto context = std::make_shared<CContentContext>();
  ASSERT_TRUE(context->GetBag()->Write(Id::idIsHadoopScan, "yes").IsSuccess());
  CQiError error = m_manager.AssignLocalWorkUnit(m_tree.Root(), context, false);
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidData)) << error.AsString();
  EXPECT_TRUE(HasFrame(error, "Cannot read content setting isHadoopScan"));
  EXPECT_TRUE(m_manager.GetWorkUnitMap().empty());
}

TEST_F(WorkUnitManagerTest, LongPathContentIsNotTouchedAndUsesTheGivenVolume) {
  std::string longPath = m_tree.Root();
  for (int i = 0; i < 25; ++i) longPath += "/" + std::string(200, 'L');
  auto context = Context({Id::idLongPathScan});
  ASSERT_TRUE(context->GetBag()->Write(Id::idLongPathVolumeName, VolumeOf(m_tree.Root())).IsSuccess());
  CQiError error = m_manager.AssignLocalWorkUnit(longPath, context, false);
  ASSERT_TRUE(error.IsSuccess()) << error.AsString();
  ASSERT_EQ(Keys(), std::vector<std::string>{VolumeOf(m_tree.Root())});
  EXPECT_EQ(LocalScanPaths(Unit(VolumeOf(m_tree.Root()))), std::vector<std::string>{longPath});

  // Without a volume name the long path has nowhere to go.
  error = m_manager.AssignLocalWorkUnit(longPath + "2", Context({Id::idLongPathScan}), false);
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidParameter));
  EXPECT_NE(error.GetMessage().find("Long path content needs a volume name (LongPath:VolumeName)"), std::string::npos);
}

TEST_F(WorkUnitManagerTest, CriteriaBasedAutomountContentIsItsOwnVolume) {
  std::string dir = m_tree.MakeDir("automount/share");
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(dir, Context({Id::idOnDemandAdHocCriteriaBased, Id::idAutoMountRequired}),
                                            false)
                  .IsSuccess());
  ASSERT_EQ(Keys(), std::vector<std::string>{dir});
  // One of the two flags alone is ordinary content.
  std::string other = m_tree.MakeDir("automount/other");
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(other, Context({Id::idOnDemandAdHocCriteriaBased}), false).IsSuccess());
  EXPECT_EQ(Unit(VolumeOf(other))->GetScanPaths().size(), 1u);
}

// ---- a recorded mount table -----------------------------------------------------------------

class WorkUnitManagerRecorded : public WorkUnitManagerTest {
 protected:
  void SetUp() override {
    // Ids from an empty kernel tree: every volume is known by its device number.
    m_manager.SetVolumeIdentity(CVolumeIdentity(m_tree.Path("no-sys"), m_tree.Path("no-dev")));
  }
  void Record(const std::string& lines) { m_pMounts = std::make_unique<CMountInfoFile>(m_tree, RootLine() + lines); }
  std::unique_ptr<CMountInfoFile> m_pMounts;
};

TEST_F(WorkUnitManagerRecorded, TwoPartitionsOfOneDiskShareOnePhysicalMediaUnit) {
  CFakeKernelTree kernel;
  m_manager.SetVolumeIdentity(CVolumeIdentity(kernel.SysRoot(), kernel.DevRoot()));
  std::string p1 = m_tree.MakeDir("p1"), p2 = m_tree.MakeDir("p2");
  m_tree.MakeDir("p1/data");
  m_tree.MakeDir("p2/data");
  m_tree.MakeDir("other");
  Record(MountLine(2, 1, "8:1", p1, "ext4", "/dev/sda1") + MountLine(3, 1, "8:2", p2, "xfs", "/dev/sda2"));
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(p1 + "/data").IsSuccess());
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(p2 + "/data").IsSuccess());
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(m_tree.Path("other")).IsSuccess());
  EXPECT_EQ(Keys(), (std::vector<std::string>{"/", p1, p2}));
  const auto& media = m_manager.GetPhysicalMediaVolumeWorkUnitMap();
  ASSERT_EQ(media.size(), 2u);
  ASSERT_EQ(media.count("/dev/sda"), 1u);
  ASSERT_EQ(media.count("/dev/sdb"), 1u);
  const auto& volumes = media.at("/dev/sda")->GetVolumeWorkUnits();
  ASSERT_EQ(volumes.size(), 2u);
  EXPECT_EQ(volumes[0]->GetLocalVolumeName(), p1);
  EXPECT_EQ(volumes[1]->GetLocalVolumeName(), p2);
  EXPECT_EQ(volumes[0]->GetLocalVolumeUniqueId(), "dev-8:1");
  EXPECT_EQ(volumes[1]->GetLocalVolumeUniqueId(), "dev-8:2");
  EXPECT_EQ(Unit(p2)->GetPhysicalMediaId(), "/dev/sda");
  EXPECT_EQ(media.at("/dev/sdb")->GetVolumeWorkUnits()[0]->GetLocalVolumeName(), "/");
}

struct SMountRow {
  const char* name;
  bool follow;
  bool autoExclude;
  bool mountUnit;        // the mount below the content has a unit of its own
  bool mountInContent;   // the content's unit still counts files of the mount as content
};

class WorkUnitManagerMounts : public WorkUnitManagerRecorded, public ::testing::WithParamInterface<SMountRow> {};

TEST_P(WorkUnitManagerMounts, MountPointsBelowTheContent) {
  const SMountRow& row = GetParam();
  std::string content = m_tree.MakeDir("c"), mount = m_tree.MakeDir("c/m");
  m_tree.MakeDir("c/x");
  Record(MountLine(2, 1, "0:90", mount, "tmpfs", "tmpfs"));
  m_manager.SetFollowMountPaths(row.follow);
  m_manager.SetAutoExcludeMountPoints(row.autoExclude);
  // The content is given in a source form of its own, so that derived source paths show.
  ASSERT_TRUE(m_manager.AssignWorkUnit("/s/c", content, false).IsSuccess());
  ASSERT_TRUE(Finalize().IsSuccess());
  CWorkUnitPtr contentUnit = Unit("/");
  ASSERT_TRUE(contentUnit);
  EXPECT_EQ(LocalScanPaths(contentUnit), std::vector<std::string>{content});
  EXPECT_FALSE(contentUnit->IsFileFilteredOut("/s/c/x/f"));
  EXPECT_EQ(!contentUnit->IsFileFilteredOut("/s/c/m/f"), row.mountInContent);
  EXPECT_EQ(m_manager.GetWorkUnitMap().count(mount), row.mountUnit ? 1u : 0u);
  if (row.mountUnit) {
    CWorkUnitPtr mountUnit = Unit(mount);
    ASSERT_EQ(mountUnit->GetScanPaths().size(), 1u);
    EXPECT_EQ(mountUnit->GetScanPaths()[0]->GetLocalScanPath(), mount);
    EXPECT_EQ(mountUnit->GetScanPaths()[0]->GetSourceScanPath(), "/s/c/m");
    EXPECT_EQ(mountUnit->GetLocalVolumeUniqueId(), "dev-0:90");
  }
}

INSTANTIATE_TEST_SUITE_P(Table, WorkUnitManagerMounts,
                         ::testing::Values(SMountRow{"NotFollowedExcluded", false, true, false, false},
                                           SMountRow{"NotFollowedKept", false, false, false, true},
                                           SMountRow{"Followed", true, true, true, true},
                                           SMountRow{"FollowedWithoutExclusion", true, false, true, true}),
                         [](const ::testing::TestParamInfo<SMountRow>& info) { return std::string(info.param.name); });

TEST_F(WorkUnitManagerRecorded, WildcardContentDoesNotFollowMountsBelowItsPrefix) {
  std::string content = m_tree.MakeDir("c"), mount = m_tree.MakeDir("c/m");
  Record(MountLine(2, 1, "0:90", mount, "tmpfs", "tmpfs"));
  m_manager.SetFollowMountPaths(true);
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(content + "/**/*.txt").IsSuccess());
  EXPECT_EQ(Keys(), std::vector<std::string>{"/"});
  ASSERT_TRUE(Finalize().IsSuccess());
  EXPECT_FALSE(Unit("/")->IsFileFilteredOut(content + "/a/b.txt"));
  EXPECT_TRUE(Unit("/")->IsFileFilteredOut(mount + "/b.txt"));
}

TEST_F(WorkUnitManagerRecorded, ChangingAMountOptionLaterKeepsExistingUnits) {
  std::string content = m_tree.MakeDir("c"), mount = m_tree.MakeDir("c/m");
  Record(MountLine(2, 1, "0:90", mount, "tmpfs", "tmpfs"));
  m_manager.SetFollowMountPaths(true);
  m_manager.SetFollowMountPaths(false);
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(content).IsSuccess());
  m_manager.SetFollowMountPaths(true);
  m_manager.SetAutoExcludeMountPoints(false);
  EXPECT_EQ(Keys(), std::vector<std::string>{"/"});
  ASSERT_TRUE(Finalize().IsSuccess());
  EXPECT_TRUE(Unit("/")->IsFileFilteredOut(mount + "/f"));
  EXPECT_EQ(Unit("/")->GetScanPaths().size(), 1u);
}

// ---- the content mapper ---------------------------------------------------------------------

class WorkUnitManagerMapper : public WorkUnitManagerRecorded {
 protected:
  void SetUp() override {
    WorkUnitManagerRecorded::SetUp();
    m_strProxy = m_tree.MakeDir("proxy");
    m_tree.MakeDir("proxy/dir");
    m_tree.MakeDir("proxy/dir2");
    m_pMapper = std::make_shared<CRefusingMapper>();
    ASSERT_TRUE(m_pMapper->AddMapping("/src", m_strProxy).IsSuccess());
    m_manager.SetContentMapper(m_pMapper);
  }
  std::string m_strProxy;
  std::shared_ptr<CRefusingMapper> m_pMapper;
};

TEST_F(WorkUnitManagerMapper, SourceContentSeenUnderAProxy) {
  Record(MountLine(2, 1, "0:92", m_strProxy, "tmpfs", "tmpfs"));
  ASSERT_TRUE(m_manager.AssignSourceWorkUnit("/src/dir/").IsSuccess());
  ASSERT_EQ(Keys(), std::vector<std::string>{m_strProxy});
  CWorkUnitPtr unit = Unit(m_strProxy);
  ASSERT_EQ(unit->GetScanPaths().size(), 1u);
  EXPECT_EQ(unit->GetScanPaths()[0]->GetLocalScanPath(), m_strProxy + "/dir");
  EXPECT_EQ(unit->GetScanPaths()[0]->GetSourceScanPath(), "/src/dir");
  EXPECT_EQ(unit->GetSourceVolumeName(), "/src/");
  EXPECT_EQ(unit->GetLocalVolumeName(), m_strProxy);

  // The other way round: local content gets its source form from the mapper.
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(m_strProxy + "/dir2").IsSuccess());
  ASSERT_EQ(unit->GetScanPaths().size(), 2u);
  EXPECT_EQ(unit->GetScanPaths()[1]->GetSourceScanPath(), "/src/dir2");

  // Source wildcards keep their pattern in both forms.
  ASSERT_TRUE(m_manager.AssignSourceWorkUnit("/src/dir/*.txt").IsSuccess());
  ASSERT_EQ(unit->GetScanPaths().size(), 3u);
  EXPECT_EQ(unit->GetScanPaths()[2]->GetLocalScanPath(), m_strProxy + "/dir/*.txt");
  EXPECT_EQ(unit->GetScanPaths()[2]->GetSourceScanPrefix(), "/src/dir");

  // Scan content and filters are in source form.
  std::vector<std::string> filters{"/src/dir/skip", m_strProxy + "/dir2"};
  ASSERT_TRUE(m_manager.FinalizeWorkUnits(kNone, filters, kNone, kNone, kNone).IsSuccess());
  EXPECT_EQ(unit->GetFilters()->GetItemCount(), 1u);
  EXPECT_FALSE(unit->IsFileFilteredOut("/src/dir/a"));
  EXPECT_TRUE(unit->IsFileFilteredOut("/src/dir/skip/a"));
}

struct SUnmappedRow {
  const char* name;
  bool source;
  std::string path;
  std::string message;
};

class WorkUnitManagerUnmapped : public WorkUnitManagerMapper, public ::testing::WithParamInterface<SUnmappedRow> {};

TEST_P(WorkUnitManagerUnmapped, UnmappedPathsAreInvalidParameters) {
  Record(MountLine(2, 1, "0:92", m_strProxy, "tmpfs", "tmpfs"));
  const SUnmappedRow& row = GetParam();
  CQiError error = row.source ? m_manager.AssignSourceWorkUnit(row.path) : m_manager.AssignLocalWorkUnit(row.path);
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidParameter)) << error.AsString();
  EXPECT_EQ(error.GetMessage(), row.message);
  EXPECT_TRUE(m_manager.GetWorkUnitMap().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Table, WorkUnitManagerUnmapped,
    ::testing::Values(
        SUnmappedRow{"SourceOutsideTheMapping", true, "/elsewhere/x",
                     "Failed to convert host path to proxy path, SourceScanPath=/elsewhere/x"},
        SUnmappedRow{"SourceRelative", true, "src/x", "Failed to convert host path to proxy path, SourceScanPath=src/x"},
        SUnmappedRow{"SourceEmpty", true, "", "Failed to convert host path to proxy path, SourceScanPath="},
        SUnmappedRow{"LocalOutsideTheProxy", false, "/var/x", "Failed to convert proxy path to host path, LocalScanPath=/var/x"},
        SUnmappedRow{"LocalEmpty", false, "", "Failed to convert proxy path to host path, LocalScanPath="}),
    [](const ::testing::TestParamInfo<SUnmappedRow>& info) { return std::string(info.param.name); });

// Every refusal of the mapper is an invalid parameter naming the path it could not convert, and
// leaves no unit behind.
enum class EMapperStep { VolumeName, MountPath, SourceScanPath, Fileset, RawDevice };

struct SMapperFailureRow {
  const char* name;
  EMapperStep step;
  std::string message;  // "{tree}" stands for the temporary tree's root
};

class WorkUnitManagerMapperFailures : public WorkUnitManagerMapper,
                                      public ::testing::WithParamInterface<SMapperFailureRow> {};

TEST_P(WorkUnitManagerMapperFailures, ExactTexts) {
  const SMapperFailureRow& row = GetParam();
  Record(row.step == EMapperStep::VolumeName ? "" : MountLine(2, 1, "0:92", m_strProxy, "tmpfs", "tmpfs"));
  CQiError error;
  switch (row.step) {
    case EMapperStep::VolumeName:
      error = m_manager.AssignSourceWorkUnit("/src/dir");
      break;
    case EMapperStep::MountPath:
      // Both forms given, the local one outside the proxy.
      error = m_manager.AssignWorkUnit("/src/x", m_tree.MakeDir("outside"), false);
      break;
    case EMapperStep::SourceScanPath:
      error = m_manager.AssignLocalWorkUnit(m_tree.MakeDir("proxy/refuse"));
      break;
    case EMapperStep::Fileset:
      m_manager.SetGpfsFilesets({"/src/dir/refuse"});
      error = m_manager.AssignSourceWorkUnit("/src/dir", Context({Id::idGpfsSnap}), false);
      break;
    case EMapperStep::RawDevice:
      error = m_manager.AssignLocalWorkUnit("/dev/null");
      break;
  }
  std::string message = row.message;
  if (size_t pos = message.find("{tree}"); pos != std::string::npos) message.replace(pos, 6, m_tree.Root());
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidParameter)) << error.AsString();
  EXPECT_EQ(error.GetMessage(), message) << error.AsString();
  EXPECT_TRUE(m_manager.GetWorkUnitMap().empty());
  EXPECT_TRUE(m_manager.GetPhysicalMediaVolumeWorkUnitMap().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Table, WorkUnitManagerMapperFailures,
    ::testing::Values(
        SMapperFailureRow{"VolumeName", EMapperStep::VolumeName,
                          "Failed to convert proxy path to host path, LocalVolumeName=/"},
        SMapperFailureRow{"MountPath", EMapperStep::MountPath,
                          "Failed to convert proxy path to host path, LocalMountPath={tree}/outside"},
        SMapperFailureRow{"SourceScanPath", EMapperStep::SourceScanPath,
                          "Failed to convert host path to proxy path, SourcePath=/src/refuse"},
        SMapperFailureRow{"Fileset", EMapperStep::Fileset,
                          "Failed to convert host path to proxy path, fileset /src/dir/refuse"},
        // /dev/null is not under the proxy, so its source form cannot be had.
        SMapperFailureRow{"RawDevice", EMapperStep::RawDevice,
                          "Failed to convert proxy path to host path, LocalScanPath=/dev/null"}),
    [](const ::testing::TestParamInfo<SMapperFailureRow>& info) { return std::string(info.param.name); });

TEST_F(WorkUnitManagerMapper, AProxyThatIsNotAVolumeCannotNameTheSourceVolume) {
  Record("");  // the proxy folder lies on "/", which the mapper does not map
  CQiError error = m_manager.AssignSourceWorkUnit("/src/dir");
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidParameter));
  EXPECT_EQ(error.GetMessage(), "Failed to convert proxy path to host path, LocalVolumeName=/");
  EXPECT_TRUE(HasFrame(error, "Failed to convert proxy path to host path, LocalVolumeName=/. Reporting scan failures "
                              "is not supported."));
  EXPECT_TRUE(HasFrame(error, "AddScanPathToWorkUnit failed, LocalScanPathForVolumeIdentification=" + m_strProxy +
                                  "/dir, LocalScanPath=" + m_strProxy + "/dir"));
  EXPECT_TRUE(m_manager.GetWorkUnitMap().empty());
}

TEST_F(WorkUnitManagerMapper, NestedMountsAreFollowedThroughTheMapper) {
  std::string sub = m_tree.MakeDir("proxy/sub");
  Record(MountLine(2, 1, "0:92", m_strProxy, "tmpfs", "tmpfs") + MountLine(3, 2, "0:93", sub, "tmpfs", "tmpfs"));
  m_manager.SetFollowMountPaths(true);
  ASSERT_TRUE(m_manager.AssignSourceWorkUnit("/src").IsSuccess());
  EXPECT_EQ(Keys(), (std::vector<std::string>{m_strProxy, sub}));
  ASSERT_EQ(Unit(sub)->GetScanPaths().size(), 1u);
  EXPECT_EQ(Unit(sub)->GetScanPaths()[0]->GetSourceScanPath(), "/src/sub");
  EXPECT_EQ(Unit(sub)->GetSourceVolumeName(), "/src/sub/");
}

TEST_F(WorkUnitManagerMapper, UnfollowedMountsAreExcludedInSourceForm) {
  std::string sub = m_tree.MakeDir("proxy/sub");
  Record(MountLine(2, 1, "0:92", m_strProxy, "tmpfs", "tmpfs") + MountLine(3, 2, "0:93", sub, "tmpfs", "tmpfs"));
  ASSERT_TRUE(m_manager.AssignSourceWorkUnit("/src").IsSuccess());
  EXPECT_EQ(Keys(), std::vector<std::string>{m_strProxy});
  ASSERT_TRUE(Finalize().IsSuccess());
  EXPECT_TRUE(Unit(m_strProxy)->IsFileFilteredOut("/src/sub/f"));
  EXPECT_FALSE(Unit(m_strProxy)->IsFileFilteredOut("/src/dir/f"));
}

// ---- GPFS snapshots -------------------------------------------------------------------------

TEST_F(WorkUnitManagerTest, GpfsSnapWithoutMapperIsRefused) {
  CQiError error = m_manager.AssignLocalWorkUnit(m_tree.Root(), Context({Id::idGpfsSnap}), false);
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidParameter));
  EXPECT_EQ(error.GetMessage(), "The backup is GPFS snap. ContentMapper is not set");
  EXPECT_TRUE(m_manager.GetWorkUnitMap().empty());
}

TEST_F(WorkUnitManagerMapper, GpfsFilesetsBelowTheContentGetUnitsOfTheirOwn) {
  m_tree.MakeDir("proxy/fs1");
  m_tree.MakeDir("proxy/fs2");
  Record(MountLine(2, 1, "0:94", m_strProxy, "gpfs", "gpfs0"));
  m_manager.SetGpfsFilesets({"/src/fs1", "/src/fs2/", "/elsewhere/fs3"});
  ASSERT_TRUE(m_manager.AssignSourceWorkUnit("/src", Context({Id::idGpfsSnap}), false).IsSuccess());
  const std::string fs1 = m_strProxy + "/fs1", fs2 = m_strProxy + "/fs2";
  EXPECT_EQ(Keys(), (std::vector<std::string>{m_strProxy, fs1, fs2}));
  CWorkUnitPtr unit = Unit(fs1);
  // GPFS is a network file system to the volume identity: "<type>:<source>", medium "UNC".
  EXPECT_EQ(unit->GetLocalVolumeUniqueId(), "gpfs:gpfs0:/src/fs1");
  EXPECT_EQ(Unit(m_strProxy)->GetLocalVolumeUniqueId(), "gpfs:gpfs0");
  EXPECT_EQ(unit->GetPhysicalMediaId(), "UNC");
  EXPECT_EQ(unit->GetSourceVolumeName(), "/src/fs1/");
  ASSERT_EQ(unit->GetScanPaths().size(), 1u);
  EXPECT_EQ(unit->GetScanPaths()[0]->GetSourceScanPath(), "/src/fs1");

  m_manager.SetGpfsFilesets({"/src/refuse"});
  CQiError error = m_manager.AssignSourceWorkUnit("/src", Context({Id::idGpfsSnap}), false);
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidParameter));
  EXPECT_EQ(error.GetMessage(), "Failed to convert host path to proxy path, fileset /src/refuse");
}

// ---- failed content -------------------------------------------------------------------------

TEST_F(WorkUnitManagerMapper, FailedContentIsReportedToTheScanFailureConsumer) {
  Record(MountLine(2, 1, "0:92", m_strProxy, "tmpfs", "tmpfs"));
  std::string failures = m_tree.Path("failures.txt");
  auto consumer = std::make_shared<CScanFailureConsumer>(0, failures, "w");
  m_manager.SetScanFailureConsumer(consumer);

  // Reported only when asked...
  EXPECT_TRUE(m_manager.AssignSourceWorkUnit("/elsewhere/quiet").IsError());
  EXPECT_TRUE(m_manager.AssignSourceWorkUnit("/elsewhere/x", nullptr, true).IsWin32(QiErrorCode::InvalidParameter));
  std::string tooLong = m_strProxy + "/" + std::string(5000, 'y');
  EXPECT_TRUE(m_manager.AssignLocalWorkUnit(tooLong, nullptr, true).IsError());
  EXPECT_EQ(ReadFileText(failures), "folder /elsewhere/x:87\nfolder /src/" + std::string(5000, 'y') + ":36\n");
}

TEST_F(WorkUnitManagerMapper, AFailedScanPathIsAlwaysReported) {
  Record("");  // the volume name "/" cannot be mapped
  std::string failures = m_tree.Path("failures.txt");
  m_manager.SetScanFailureConsumer(std::make_shared<CScanFailureConsumer>(0, failures, "w"));
  CQiError error = m_manager.AssignSourceWorkUnit("/src/dir");
  EXPECT_EQ(error.GetMessage(), "Failed to convert proxy path to host path, LocalVolumeName=/");
  // With a consumer the error is not extended.
  EXPECT_EQ(error.AsString().find("Reporting scan failures is not supported"), std::string::npos);
  EXPECT_EQ(ReadFileText(failures), "folder /src/dir:87\n");
}

TEST_F(WorkUnitManagerTest, WithoutAConsumerTheErrorIsExtended) {
  CQiError error = m_manager.OnFailedContent("/l", "/s", QI_ERROR_WIN32(5, "Cannot read /s"));
  EXPECT_TRUE(error.IsWin32(5));
  EXPECT_TRUE(HasFrame(error, "Cannot read /s. Reporting scan failures is not supported."));
}

TEST_F(WorkUnitManagerTest, PhysicalMediaIdentificationKeepsTheChosenId) {
  std::string id = "/dev/sda";
  ASSERT_TRUE(m_manager.IdentifyPhysicalMediaId("/", "uuid", id).IsSuccess());
  EXPECT_EQ(id, "/dev/sda");
}

TEST_F(WorkUnitManagerTest, UnitsTakeTheCataloguingSettingsOfTheScan) {
  auto bag = std::make_shared<CBag>();
  ASSERT_TRUE(bag->Write(Id::idUseIdxLogWriterBasedCataloging, 1ull).IsSuccess());
  m_manager.SetConfigurationBag(bag);
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(m_tree.Root()).IsSuccess());
  unsigned long long value = 0;
  ASSERT_TRUE(Unit(VolumeOf(m_tree.Root()))->GetBag()->Read(Id::idUseIdxLogWriterBasedCataloging, value).IsSuccess());
  EXPECT_EQ(value, 1u);
  EXPECT_FALSE(Unit(VolumeOf(m_tree.Root()))->GetBag()->Contains(Id::idFileServerScan));
}
