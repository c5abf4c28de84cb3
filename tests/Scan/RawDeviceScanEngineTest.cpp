// The raw-device engine through the work unit manager and the scan arbiter, on a real loop
// device where the machine allows one (root and losetup), and on character devices, whose
// size query fails.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "Scan/ScanArbiter.h"
#include "Scan/Unix/RawDeviceItem.h"
#include "Scan/Unix/RawDeviceScanEngine.h"
#include "Scan/Unix/WorkUnitManager.h"
#include "Support/TempTree.h"
#include "TraversalTestSupport.h"

using namespace TraversalTestSupport;

namespace {

constexpr uint64_t kLoopBytes = 3u << 20;

// A loop device over a 3 MiB file, detached at the end; Path() is empty where none can be had.
class CLoopDevice {
 public:
  explicit CLoopDevice(const std::string& strImage) {
    if (geteuid() != 0) return;
    if (FILE* pImage = fopen(strImage.c_str(), "w")) {
      const bool bSized = ftruncate(fileno(pImage), kLoopBytes) == 0;
      fclose(pImage);
      if (!bSized) return;
    }
    const std::string strCommand = "losetup -f --show '" + strImage + "' 2>/dev/null";
    if (FILE* pPipe = popen(strCommand.c_str(), "r")) {
      char szLine[256] = {};
      if (fgets(szLine, sizeof(szLine), pPipe) != nullptr) m_strPath = szLine;
      pclose(pPipe);
    }
    while (!m_strPath.empty() && m_strPath.back() == '\n') m_strPath.pop_back();
  }
  ~CLoopDevice() {
    if (!m_strPath.empty()) (void)!system(("losetup -d " + m_strPath).c_str());
  }
  const std::string& Path() const { return m_strPath; }

 private:
  std::string m_strPath;
};

class CRawDeviceCallback : public CTestCallback {
 public:
  CQiError GetScanEngineList(CScanEngineList& lstEngines) override {
    lstEngines = {std::make_shared<CRawDeviceScanEngine>()};
    return CQiError();
  }
};

// Records the size on disk and the attributes, which the recording handler does not keep.
struct SRawItem {
  std::string strPath;
  uint64_t ullSizeOnDisk;
  uint32_t uType;
  bool operator==(const SRawItem&) const = default;
};

struct SRawCase {
  const char* szName;
  bool bNeedsLoop;
  // Makes the content paths (and the expected items) in the temporary tree.
  void (*fnSetUp)(CTempTree& temp, const std::string& strLoop, std::vector<std::string>& lstContent,
                  std::vector<SRawItem>& lstItems);
  // Removes content after assignment, before the scan (unreadable surfaces).
  bool bRemoveBeforeScan;
  const char* szDisposition;
  const char* szSizeFailureLine;  // a level -1 line, or null
};

void LoopItself(CTempTree&, const std::string& strLoop, std::vector<std::string>& lstContent,
                std::vector<SRawItem>& lstItems) {
  lstContent = {strLoop};
  lstItems = {{strLoop, kLoopBytes, S_IFBLK}};
}

// A link to the loop device and the device itself: one unit, two surfaces.
void LinkAndLoop(CTempTree& temp, const std::string& strLoop, std::vector<std::string>& lstContent,
                 std::vector<SRawItem>& lstItems) {
  const std::string strLink = temp.MakeSymlink("disk link", strLoop);
  lstContent = {strLink, strLoop};
  lstItems = {{strLoop, kLoopBytes, S_IFBLK}, {strLink, kLoopBytes, S_IFBLK}};
}

// A character device: the device size query fails, the plain size (0) is reported.
void CharDevice(CTempTree& temp, const std::string&, std::vector<std::string>& lstContent,
                std::vector<SRawItem>& lstItems) {
  const std::string strNode = temp.Path("null-node");
  ASSERT_EQ(mknod(strNode.c_str(), S_IFCHR | 0600, makedev(1, 3)), 0);
  lstContent = {strNode};
  lstItems = {{strNode, 0, S_IFCHR}};
}

// A device node and a link to it (one unit, two surfaces), both gone by the time the engine looks.
void VanishingNodes(CTempTree& temp, const std::string&, std::vector<std::string>& lstContent,
                    std::vector<SRawItem>&) {
  const std::string strNode = temp.Path("b-node");
  ASSERT_EQ(mknod(strNode.c_str(), S_IFCHR | 0600, makedev(1, 5)), 0);
  lstContent = {temp.MakeSymlink("a-link", strNode), strNode};
}

class RawDeviceScan : public ::testing::TestWithParam<SRawCase> {};

TEST_P(RawDeviceScan, ReportsOneItemPerReadableSurface) {
  const SRawCase& c = GetParam();
  CTempTree temp;
  CLoopDevice loop(temp.Path("image"));
  if (c.bNeedsLoop && loop.Path().empty()) GTEST_SKIP() << "no loop device can be set up here";
  CLogCapture log;
  std::vector<std::string> lstContent;
  std::vector<SRawItem> lstExpected;
  c.fnSetUp(temp, loop.Path(), lstContent, lstExpected);
  auto pCallback = std::make_shared<CRawDeviceCallback>();
  pCallback->UseFailuresFile(temp.Path("failures"));

  CWorkUnitManager manager(3);
  for (const std::string& strPath : lstContent) ASSERT_TRUE(manager.AssignLocalWorkUnit(strPath).IsSuccess());
  ASSERT_EQ(manager.GetWorkUnitMap().size(), 1u);
  const CWorkUnitPtr pUnit = manager.GetWorkUnitMap().begin()->second;
  ASSERT_NE(std::dynamic_pointer_cast<CRawDeviceWorkUnit>(pUnit), nullptr);
  for (const std::string& strPath : lstContent) {
    ASSERT_TRUE(!c.bRemoveBeforeScan || unlink(strPath.c_str()) == 0);
  }
  const std::set<std::string, __less_fscase_cmp> setNone;
  ASSERT_TRUE(manager.FinalizeWorkUnits(setNone, setNone, setNone, setNone, setNone).IsSuccess());
  // The items themselves, to ask each for its size on disk.
  struct CKeepingHandler : CRecordingHandler {
    CQiError OnItem(CItemPtr pItem) override {
      m_lstItems.push_back({pItem->GetSourceFullyQualifiedItemName(), pItem->GetFileSizeOnDisk(),
                            pItem->GetAttributes() & S_IFMT});
      EXPECT_EQ(pItem->GetFileSize(), 0u);
      return CQiError();
    }
    std::vector<SRawItem> m_lstItems;
  };
  auto pKeeping = std::make_shared<CKeepingHandler>();
  pCallback->m_pHandler = pKeeping;
  CScanArbiter arbiter(3, 1, pCallback);
  ASSERT_TRUE(arbiter.Run(manager).IsSuccess());

  EXPECT_EQ(pUnit->DispositionAsString(), c.szDisposition);
  EXPECT_EQ(pKeeping->m_lstItems, lstExpected);
  EXPECT_EQ(log->CountContaining("Failed to get device size of ", -1), c.szSizeFailureLine != nullptr ? 1u : 0u);
  if (c.szSizeFailureLine != nullptr) {
    EXPECT_EQ(log->CountContaining(c.szSizeFailureLine, -1), 1u);
  }
  if (c.bRemoveBeforeScan) {
    EXPECT_EQ(pCallback->FailureLines(),
              (std::vector<std::string>{"folder " + lstContent[0] + ":2", "folder " + lstContent[1] + ":2"}));
  } else {
    EXPECT_TRUE(pCallback->FailureLines().empty());
  }
}

INSTANTIATE_TEST_SUITE_P(
    Devices, RawDeviceScan,
    ::testing::Values(SRawCase{"LoopDevice", true, LoopItself, false, "Processed(RawDevice)", nullptr},
                      SRawCase{"LinkToLoopDevice", true, LinkAndLoop, false, "Processed(RawDevice)", nullptr},
                      SRawCase{"CharacterDevice", false, CharDevice, false, "Processed(RawDevice)",
                               "Failed to get device size of null-node. Error errno 15"},
                      SRawCase{"AllSurfacesUnreadable", false, VanishingNodes, true, "Failed(RawDevice=232)",
                               nullptr}),
    [](const auto& info) { return std::string(info.param.szName); });

TEST(RawDeviceScanEngine, RefusesOtherWorkUnitsAndReportsNoContent) {
  CLogCapture log;
  auto pCallback = std::make_shared<CTestCallback>();
  CRawDeviceScanEngine engine;
  (void)engine.SetScannerCallback(pCallback);
  CQiError error = engine.ProcessWorkUnit(std::make_shared<CWorkUnit>());
  EXPECT_TRUE(error.IsErrNo(EINVAL));
  EXPECT_EQ(error.GetMessage(), "Not a RawDevice WorkUnit");
  EXPECT_EQ(log->Count("Not a RawDevice WorkUnit", 2), 1u);

  auto pEmpty = std::make_shared<CRawDeviceWorkUnit>();
  error = engine.ProcessWorkUnit(pEmpty);
  EXPECT_TRUE(error.IsWin32(232));
  EXPECT_EQ(error.GetMessage(), "No content available for scanning");
  EXPECT_EQ(pCallback->m_pHandler->m_iCompleted.load(), 1);
}

}  // namespace
