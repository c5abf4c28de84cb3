// The Unix work unit manager: content paths becoming work units on real temporary trees, with
// the machine's mount table or a recorded one, raw devices, the content mapper, special content
// kinds, mount points below content, GPFS filesets and bad input.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>

#include "Platform/FXErrorUtil.h"
#include "Platform/PrefixContentMapper.h"
#include "Platform/VolumeIdentity.h"
#include "Scan/FabricatedItem.h"
#include "Scan/RawDeviceWorkUnit.h"
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
  CQiError Finalize(const std::vector<std::string>& filters = kNone) {
    return m_manager.FinalizeWorkUnits(kNone, filters, kNone, kNone, kNone);
  }
  // The call failed with Win32 87 and the message, and left no unit.
  void ExpectRefused(const CQiError& error, const std::string& message) {
    EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidParameter)) << error.AsString();
    EXPECT_EQ(error.GetMessage(), message) << error.AsString();
    EXPECT_TRUE(m_manager.GetWorkUnitMap().empty());
    EXPECT_TRUE(m_manager.GetPhysicalMediaVolumeWorkUnitMap().empty());
  }

  CLogCapture m_log;
  CTempTree m_tree;
  CWorkUnitManager m_manager{42};
};

// ---- the machine's own volumes ------------------------------------------------------------

TEST_F(WorkUnitManagerTest, TwoContentPathsOnOneVolumeShareOneUnit) {
  std::string a = m_tree.MakeDir("a"), b = m_tree.MakeDir("b"), volume = VolumeOf(a);
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(a).IsSuccess());
  ASSERT_TRUE(m_manager.AssignWorkUnit(b, b, false).IsSuccess());
  ASSERT_EQ(Keys(), std::vector<std::string>{volume});
  CWorkUnitPtr unit = Unit(volume);
  EXPECT_EQ(ScanPathsText(unit), a + " " + b);
  EXPECT_EQ(VolumeText(unit), volume + " " + volume + " " + unit->GetLocalVolumeUniqueId() + " " +
                                  unit->GetPhysicalMediaId());
  // The unit sits under its volume and its medium, once each.
  ASSERT_EQ(m_manager.GetPhysicalMediaVolumeWorkUnitMap().size(), 1u);
  const auto& [mediaId, media] = *m_manager.GetPhysicalMediaVolumeWorkUnitMap().begin();
  EXPECT_EQ(mediaId, unit->GetPhysicalMediaId());
  ASSERT_EQ(media->GetVolumeWorkUnits().size(), 1u);
  EXPECT_EQ(media->GetVolumeWorkUnits()[0]->GetWorkUnits(), std::vector<CWorkUnitPtr>{unit});
  EXPECT_EQ(media->GetVolumeWorkUnits()[0]->GetLocalVolumeUniqueId(), unit->GetLocalVolumeUniqueId());
  std::string bagVolume;
  ASSERT_TRUE(unit->GetBag()->Read(Id::idVolumeName, bagVolume).IsSuccess());
  EXPECT_EQ(bagVolume, volume);
  // The same content given again, with trailing delimiters of either kind, is the same scan path.
  for (const char* suffix : {"", "/", "//", "\\", "/\\/"})
    ASSERT_TRUE(m_manager.AssignWorkUnit(a + suffix, a + suffix, false).IsSuccess()) << suffix;
  EXPECT_EQ(ScanPathsText(unit), a + " " + b);
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

constexpr auto kWin32 = CQiError::EQiErrorSpace::Win32, kErrNo = CQiError::EQiErrorSpace::ErrNo;
INSTANTIATE_TEST_SUITE_P(
    Table, WorkUnitManagerBadInput,
    ::testing::Values(
        SBadInputRow{"Empty", "", kWin32, 87, "Content path is empty"},
        SBadInputRow{"NulByte", std::string("/tmp/a\0b", 8), kWin32, 87, "Content path holds a NUL byte"},
        SBadInputRow{"LongerThanPathMax", "/tmp/" + std::string(5000, 'x'), kErrNo, ENAMETOOLONG,
                     "expandContentPathByVolumes failed"},
        SBadInputRow{"MalformedWildcard", "/tmp/[z-a]/x", kWin32, 13,
                     "LoadRaw failed for wildcard scan path, LocalScanPath=/tmp/[z-a]/x"}),
    [](const ::testing::TestParamInfo<SBadInputRow>& info) { return std::string(info.param.name); });

// ---- raw devices ----------------------------------------------------------------------------

TEST_F(WorkUnitManagerTest, TwoPathsToOneDeviceExtendOneRawUnit) {
  std::string link = m_tree.MakeSymlink("null-link", "/dev/null");
  for (const std::string& path : {std::string("/dev/null"), link, link})
    ASSERT_TRUE(m_manager.AssignLocalWorkUnit(path).IsSuccess());
  ASSERT_EQ(m_manager.GetWorkUnitMap().size(), 1u);
  auto raw = std::dynamic_pointer_cast<CRawDeviceWorkUnit>(Unit("quillon-RawDevice-/dev/null"));
  ASSERT_TRUE(raw);
  EXPECT_EQ(ScanPathsText(raw), "/dev/null " + link);
  CRawDeviceWorkUnit::SurfaceMap surfaces;
  ASSERT_TRUE(raw->GetSurfaceMap(surfaces).IsSuccess());
  EXPECT_EQ(surfaces.size(), 2u);
  EXPECT_EQ(raw->GetLocalVolumeUniqueId(), "chr-1:3");
  // A key held by another kind of unit cannot take the device.
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
  EXPECT_EQ(ScanPathsText(raw), link + "=/hostdev/nul");
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
  EXPECT_EQ(ScanPathsText(unit), "/user/hdfs/data /user/hdfs/*.csv~/user/hdfs");
  EXPECT_EQ(unit->GetPhysicalMediaId(), "quillon_hadoop_vol");
  EXPECT_EQ(unit->GetLocalVolumeUniqueId(), "quillon_hadoop_vol");
  // A pattern without fixed folders marks the unit as holding volume-wide, case-blind wildcards.
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit("*.parquet", Context({Id::idIsHadoopScan}), false).IsSuccess());
  EXPECT_TRUE(unit->ContainsVolumeWildcardScanPaths());
  EXPECT_TRUE(unit->IsUseInsensitiveFilterForWildCardSet());
  // The content kind may also come from an item used as context.
  auto item = std::make_shared<CFabricatedItem>(CBagPtr(), "/x", "/x");
  ASSERT_TRUE(item->GetItemBag()->Write(Id::idIsHadoopScan, true).IsSuccess());
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit("/hdfs/a", item, false).IsSuccess());
  EXPECT_EQ(Keys(), std::vector<std::string>{"quillon_hadoop_vol"});
}

TEST_F(WorkUnitManagerTest, AContentSettingOfTheWrongTypeIsAnError) {
  auto context = std::make_shared<CContentContext>();
  ASSERT_TRUE(context->GetBag()->Write(Id::idIsHadoopScan, "yes").IsSuccess());
  CQiError error = m_manager.AssignLocalWorkUnit(m_tree.Root(), context, false);
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidData)) << error.AsString();
  EXPECT_TRUE(HasFrame(error, "Cannot read content setting isHadoopScan"));
  EXPECT_TRUE(m_manager.GetWorkUnitMap().empty());
  ExpectRefused(m_manager.AssignLocalWorkUnit(m_tree.Root(), Context({Id::idGpfsSnap}), false),
                "The backup is GPFS snap. ContentMapper is not set");
}

TEST_F(WorkUnitManagerTest, LongPathContentIsNotTouchedAndUsesTheGivenVolume) {
  std::string longPath = m_tree.Root();
  for (int i = 0; i < 25; ++i) longPath += "/" + std::string(200, 'L');
  auto context = Context({Id::idLongPathScan});
  ASSERT_TRUE(context->GetBag()->Write(Id::idLongPathVolumeName, VolumeOf(m_tree.Root())).IsSuccess());
  CQiError error = m_manager.AssignLocalWorkUnit(longPath, context, false);
  ASSERT_TRUE(error.IsSuccess()) << error.AsString();
  ASSERT_EQ(Keys(), std::vector<std::string>{VolumeOf(m_tree.Root())});
  EXPECT_EQ(ScanPathsText(Unit(VolumeOf(m_tree.Root()))), longPath);
  // Without a volume name the long path has nowhere to go.
  error = m_manager.AssignLocalWorkUnit(longPath + "2", Context({Id::idLongPathScan}), false);
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidParameter));
  EXPECT_NE(error.GetMessage().find("Long path content needs a volume name (LongPath:VolumeName)"), std::string::npos);
}

TEST_F(WorkUnitManagerTest, CriteriaBasedAutomountContentIsItsOwnVolume) {
  std::string dir = m_tree.MakeDir("automount/share"), other = m_tree.MakeDir("automount/other");
  ASSERT_TRUE(
      m_manager.AssignLocalWorkUnit(dir, Context({Id::idOnDemandAdHocCriteriaBased, Id::idAutoMountRequired}), false)
          .IsSuccess());
  ASSERT_EQ(Keys(), std::vector<std::string>{dir});
  // One of the two flags alone is ordinary content.
  ASSERT_TRUE(m_manager.AssignLocalWorkUnit(other, Context({Id::idOnDemandAdHocCriteriaBased}), false).IsSuccess());
  EXPECT_EQ(ScanPathsText(Unit(VolumeOf(other))), other);
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
  EXPECT_EQ(ScanPathsText(Unit("/")), content);
}

// ---- the content mapper ---------------------------------------------------------------------

class WorkUnitManagerMapper : public WorkUnitManagerRecorded {
 protected:
  void SetUp() override {
    WorkUnitManagerRecorded::SetUp();
    m_tree.MakeDir("proxy/dir");
    m_tree.MakeDir("proxy/dir2");
    auto mapper = std::make_shared<CRefusingMapper>();
    ASSERT_TRUE(mapper->AddMapping("/src", m_strProxy).IsSuccess());
    m_manager.SetContentMapper(mapper);
  }
  void RecordProxy(const std::string& more = "") { Record(MountLine(2, 1, "0:92", m_strProxy, "tmpfs", "tmpfs") + more); }
  const std::string m_strProxy = m_tree.MakeDir("proxy");
};

// Every refusal of the mapper is an invalid parameter naming the path it could not convert, and
// leaves no unit behind. Steps: 's' a source path, 'l' a local path (a relative one is made below
// the tree), 'b' both forms ("/src/x" and a folder made below the tree), 'f' a GPFS fileset below
// /src/dir, 'v' a source path with no proxy mount, so no source volume name.
struct SMapperFailureRow {
  const char* name;
  char step;
  std::string path;
  std::string message;  // "{tree}" stands for the temporary tree's root
};

class WorkUnitManagerMapperFailures : public WorkUnitManagerMapper,
                                      public ::testing::WithParamInterface<SMapperFailureRow> {};

TEST_P(WorkUnitManagerMapperFailures, ExactTexts) {
  const SMapperFailureRow& row = GetParam();
  if (row.step == 'v') Record("");
  else RecordProxy();
  CQiError error;
  if (row.step == 's' || row.step == 'v') error = m_manager.AssignSourceWorkUnit(row.path);
  if (row.step == 'l') error = m_manager.AssignLocalWorkUnit(row.path.find_first_not_of('/') == 0 ? m_tree.MakeDir(row.path) : row.path);
  if (row.step == 'b') error = m_manager.AssignWorkUnit("/src/x", m_tree.MakeDir(row.path), false);
  if (row.step == 'f') m_manager.SetGpfsFilesets({row.path});
  if (row.step == 'f') error = m_manager.AssignSourceWorkUnit("/src/dir", Context({Id::idGpfsSnap}), false);
  std::string message = row.message;
  if (size_t pos = message.find("{tree}"); pos != std::string::npos) message.replace(pos, 6, m_tree.Root());
  ExpectRefused(error, message);
}

INSTANTIATE_TEST_SUITE_P(
    Table, WorkUnitManagerMapperFailures,
    ::testing::Values(
        SMapperFailureRow{"LocalOutsideTheProxy", 'l', "/var/x",
                          "Failed to convert proxy path to host path, LocalScanPath=/var/x"},
        SMapperFailureRow{"VolumeName", 'v', "/src/dir", "Failed to convert proxy path to host path, LocalVolumeName=/"},
        SMapperFailureRow{"MountPath", 'b', "outside",
                          "Failed to convert proxy path to host path, LocalMountPath={tree}/outside"},
        SMapperFailureRow{"SourceScanPath", 'l', "proxy/refuse",
                          "Failed to convert host path to proxy path, SourcePath=/src/refuse"},
        SMapperFailureRow{"Fileset", 'f', "/src/dir/refuse",
                          "Failed to convert host path to proxy path, fileset /src/dir/refuse"}),
    [](const ::testing::TestParamInfo<SMapperFailureRow>& info) { return std::string(info.param.name); });

TEST_F(WorkUnitManagerMapper, FailedContentIsReportedToTheScanFailureConsumer) {
  RecordProxy();
  std::string failures = m_tree.Path("failures.txt");
  m_manager.SetScanFailureConsumer(std::make_shared<CScanFailureConsumer>(0, failures, "w"));
  // Reported only when asked...
  EXPECT_TRUE(m_manager.AssignSourceWorkUnit("/elsewhere/quiet").IsError());
  EXPECT_TRUE(m_manager.AssignSourceWorkUnit("/elsewhere/x", nullptr, true).IsWin32(QiErrorCode::InvalidParameter));
  std::string tooLong = m_strProxy + "/" + std::string(5000, 'y');
  EXPECT_TRUE(m_manager.AssignLocalWorkUnit(tooLong, nullptr, true).IsError());
  EXPECT_EQ(ReadFileText(failures), "folder /elsewhere/x:87\nfolder /src/" + std::string(5000, 'y') + ":36\n");
  // ...and without a consumer the error says it could not be.
  m_manager.SetScanFailureConsumer(nullptr);
  CQiError error = m_manager.OnFailedContent("/l", "/s", QI_ERROR_WIN32(5, "Cannot read /s"));
  EXPECT_TRUE(error.IsWin32(5));
  EXPECT_TRUE(HasFrame(error, "Cannot read /s. Reporting scan failures is not supported."));
}

TEST_F(WorkUnitManagerMapper, NestedMountsAreFollowedThroughTheMapperOrExcludedInSourceForm) {
  std::string sub = m_tree.MakeDir("proxy/sub");
  RecordProxy(MountLine(3, 2, "0:93", sub, "tmpfs", "tmpfs"));
  ASSERT_TRUE(m_manager.AssignSourceWorkUnit("/src").IsSuccess());
  EXPECT_EQ(Keys(), std::vector<std::string>{m_strProxy});
  ASSERT_TRUE(Finalize().IsSuccess());
  EXPECT_TRUE(Unit(m_strProxy)->IsFileFilteredOut("/src/sub/f"));
  EXPECT_FALSE(Unit(m_strProxy)->IsFileFilteredOut("/src/dir/f"));

  CWorkUnitManager follower(43);
  follower.SetVolumeIdentity(CVolumeIdentity(m_tree.Path("no-sys"), m_tree.Path("no-dev")));
  follower.SetContentMapper(m_manager.GetContentMapper());
  follower.SetFollowMountPaths(true);
  ASSERT_TRUE(follower.AssignSourceWorkUnit("/src").IsSuccess());
  ASSERT_EQ(follower.GetWorkUnitMap().count(sub), 1u);
  EXPECT_EQ(ScanPathsText(follower.GetWorkUnitMap().at(sub)), sub + "=/src/sub");
  EXPECT_EQ(follower.GetWorkUnitMap().at(sub)->GetSourceVolumeName(), "/src/sub/");
}

// ---- GPFS snapshots -------------------------------------------------------------------------

TEST_F(WorkUnitManagerMapper, GpfsFilesetsBelowTheContentGetUnitsOfTheirOwn) {
  m_tree.MakeDir("proxy/fs1");
  m_tree.MakeDir("proxy/fs2");
  Record(MountLine(2, 1, "0:94", m_strProxy, "gpfs", "gpfs0"));
  m_manager.SetGpfsFilesets({"/src/fs1", "/src/fs2/", "/elsewhere/fs3"});
  ASSERT_TRUE(m_manager.AssignSourceWorkUnit("/src", Context({Id::idGpfsSnap}), false).IsSuccess());
  const std::string fs1 = m_strProxy + "/fs1", fs2 = m_strProxy + "/fs2";
  EXPECT_EQ(Keys(), (std::vector<std::string>{m_strProxy, fs1, fs2}));
  // GPFS is a network file system to the volume identity: "<type>:<source>", medium "UNC".
  EXPECT_EQ(VolumeText(Unit(fs1)), fs1 + " /src/fs1/ gpfs:gpfs0:/src/fs1 UNC");
  EXPECT_EQ(ScanPathsText(Unit(fs1)), fs1 + "=/src/fs1");
  EXPECT_EQ(Unit(m_strProxy)->GetLocalVolumeUniqueId(), "gpfs:gpfs0");
}
