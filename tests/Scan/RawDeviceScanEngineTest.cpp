// The raw-device engine through the work unit manager and the scan arbiter: a real loop device
// where the machine allows one (root and losetup), character devices (whose size query fails),
// and device nodes gone by the time of the scan.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "Platform/ZrProcess.h"
#include "Scan/ScanArbiter.h"
#include "Scan/Unix/RawDeviceItem.h"
#include "Scan/Unix/RawDeviceScanEngine.h"
#include "Scan/Unix/WorkUnitManager.h"
#include "Support/TempTree.h"
#include "TraversalTestSupport.h"

using namespace TraversalTestSupport;

namespace {

constexpr uint64_t kLoopBytes = 3u << 20;

// The first line that the shell command prints, or "" when it fails.
std::string Shell(const std::string& strCommand) {
  ZrProcess process;
  if (process.Start(strCommand).IsError() || process.WaitForExit(30000).IsError() || process.GetExitCode() != 0) return "";
  return process.GetStdout().substr(0, process.GetStdout().find('\n'));
}

struct SItem {
  std::string strPath;
  uint64_t ullSizeOnDisk;
  uint32_t uType;
  bool operator==(const SItem&) const = default;
};

// Asks every item for its size on disk, which the size query gives.
struct CSizingHandler : CRecordingHandler {
  CQiError OnItem(CItemPtr pItem) override {
    m_lstItems.push_back({pItem->GetSourceFullyQualifiedItemName(), pItem->GetFileSizeOnDisk(), pItem->GetAttributes() & S_IFMT});
    return CQiError();
  }
  std::vector<SItem> m_lstItems;
};

class CRawDeviceCallback : public CTestCallback {
 public:
  CQiError GetScanEngineList(CScanEngineList& lstEngines) override {
    lstEngines = {std::make_shared<CRawDeviceScanEngine>()};
    return CQiError();
  }
};

enum class EContent { Loop, LinkAndLoop, CharDevice, CharDeviceSizedBySeam, VanishedNodeAndLink };

struct SRawCase {
  const char* szName;
  EContent eContent;
  const char* szDisposition;
  const char* szLogLine;  // the level -1 line of a failed size query, or ""
};

class RawDeviceScan : public ::testing::TestWithParam<SRawCase> {};

TEST_P(RawDeviceScan, ReportsOneItemPerReadableSurfaceSizedAsItsDevice) {
  const SRawCase& c = GetParam();
  CTempTree temp;
  const bool bLoop = c.eContent == EContent::Loop || c.eContent == EContent::LinkAndLoop;
  const std::string strImage = temp.Path("image");
  const std::string strLoop = bLoop ? Shell("truncate -s " + std::to_string(kLoopBytes) + " '" + strImage + "' && losetup -f --show '" + strImage + "'") : "";
  if (bLoop && strLoop.empty()) GTEST_SKIP() << "no loop device can be set up here";
  const std::shared_ptr<void> cleanup(nullptr, [&](void*) {  // the platform's size query back, the loop device gone
    CRawDeviceItem::SetDeviceSizeQuery(nullptr);
    if (!strLoop.empty()) (void)Shell("losetup -d " + strLoop);
  });
  const std::string strNode = temp.Path("node");
  ASSERT_TRUE(bLoop || mknod(strNode.c_str(), S_IFCHR | 0600, makedev(1, 3)) == 0);
  std::vector<std::string> lstContent = {bLoop ? strLoop : strNode};
  std::vector<SItem> lstExpected = {{lstContent[0], bLoop ? kLoopBytes : 0, bLoop ? 0u + S_IFBLK : S_IFCHR}};
  if (c.eContent == EContent::LinkAndLoop) {  // one unit, two surfaces
    lstContent.insert(lstContent.begin(), temp.MakeSymlink("disk link", strLoop));
    lstExpected.push_back({lstContent[0], kLoopBytes, S_IFBLK});
  } else if (c.eContent == EContent::CharDeviceSizedBySeam) {
    lstExpected[0].ullSizeOnDisk = 1u << 30;
    CRawDeviceItem::SetDeviceSizeQuery([](const FXFile::CFileData&, uint64_t& ullSize) { return ullSize = 1u << 30, CQiError(); });
  } else if (c.eContent == EContent::VanishedNodeAndLink) {
    lstContent.insert(lstContent.begin(), temp.MakeSymlink("a-link", strNode));
    lstExpected.clear();
  }
  CLogCapture log;
  auto pCallback = std::make_shared<CRawDeviceCallback>();
  auto pHandler = std::make_shared<CSizingHandler>();
  pCallback->m_pHandler = pHandler;
  pCallback->UseFailuresFile(temp.Path("failures"));
  CWorkUnitManager manager(3);
  for (const std::string& strPath : lstContent) ASSERT_TRUE(manager.AssignLocalWorkUnit(strPath).IsSuccess());
  ASSERT_EQ(manager.GetWorkUnitMap().size(), 1u);
  const CWorkUnitPtr pUnit = manager.GetWorkUnitMap().begin()->second;
  for (const std::string& strPath : lstContent)
    ASSERT_TRUE(c.eContent != EContent::VanishedNodeAndLink || unlink(strPath.c_str()) == 0);
  const std::set<std::string, __less_fscase_cmp> setNone;
  ASSERT_TRUE(manager.FinalizeWorkUnits(setNone, setNone, setNone, setNone, setNone).IsSuccess());
  ASSERT_TRUE(CScanArbiter(3, 1, pCallback).Run(manager).IsSuccess());

  EXPECT_EQ(pUnit->DispositionAsString(), c.szDisposition);
  EXPECT_EQ(pHandler->m_lstItems, lstExpected);
  EXPECT_EQ(log->CountContaining(*c.szLogLine ? c.szLogLine : "Failed to get device size of ", -1), *c.szLogLine ? 1u : 0u);
  std::vector<std::string> lstFailures = {"folder " + lstContent[0] + ":2", "folder " + strNode + ":2"};
  if (c.eContent != EContent::VanishedNodeAndLink) lstFailures.clear();
  EXPECT_EQ(pCallback->FailureLines(), lstFailures);
}

INSTANTIATE_TEST_SUITE_P(
    Devices, RawDeviceScan,
    ::testing::Values(SRawCase{"LoopDevice", EContent::Loop, "Processed(RawDevice)", ""},
                      SRawCase{"LinkToLoopDevice", EContent::LinkAndLoop, "Processed(RawDevice)", ""},
                      SRawCase{"CharacterDevice", EContent::CharDevice, "Processed(RawDevice)",
                               "Failed to get device size of node. Error errno 15"},
                      SRawCase{"DeviceSizedThroughTheSeam", EContent::CharDeviceSizedBySeam, "Processed(RawDevice)", ""},
                      SRawCase{"AllSurfacesUnreadable", EContent::VanishedNodeAndLink, "Failed(RawDevice=232)", ""}),
    [](const auto& info) { return std::string(info.param.szName); });

TEST(RawDeviceScanEngine, RefusesOtherWorkUnits) {
  CRawDeviceScanEngine engine;
  (void)engine.SetScannerCallback(std::make_shared<CTestCallback>());
  CQiError error = engine.ProcessWorkUnit(std::make_shared<CWorkUnit>());
  EXPECT_TRUE(error.IsErrNo(EINVAL));
  EXPECT_EQ(error.GetMessage(), "Not a RawDevice WorkUnit");
}

}  // namespace
