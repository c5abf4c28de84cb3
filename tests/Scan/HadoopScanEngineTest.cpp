// The Hadoop scan engine over WebHDFS against a local server with a recorded tree: the whole
// tree through the work unit manager and the scan arbiter, failures of single folders in the
// middle of a scan, and the normalisation of listing paths.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "Platform/WebHdfsFS.h"
#include "Scan/ContentContext.h"
#include "Scan/ScanArbiter.h"
#include "Scan/ScannerConfigurationBagId.h"
#include "Scan/Unix/HadoopPathEnumerator.h"
#include "Scan/Unix/HadoopScanEngine.h"
#include "Scan/Unix/WorkUnitManager.h"
#include "Support/TempTree.h"
#include "Support/WebHdfsTestTree.h"
#include "TraversalTestSupport.h"

using namespace TraversalTestSupport;

namespace {

using SReply = CLocalHttpServer::SReply;
using EAction = CLocalHttpServer::EAction;

// Offers every unit to a Hadoop engine on the given handle.
class CHadoopCallback : public CTestCallback {
 public:
  explicit CHadoopCallback(CHadoopFSPtr pFS) : m_pFS(std::move(pFS)) {}
  CQiError GetScanEngineList(CScanEngineList& lstEngines) override {
    lstEngines = {std::make_shared<CHadoopScanEngine>(m_pFS)};
    return CQiError();
  }
  CHadoopFSPtr m_pFS;
};

// /data with files, a paged folder, an empty folder, awkward names and a link.
void RecordTree(CWebHdfsTestTree& tree) {
  tree.AddFile("/data/a.txt", 10);
  tree.AddFile("/data/sub/b.bin", 2048);
  tree.AddFile("/data/sub/deeper/c", 1);
  for (int i = 0; i < 5; ++i) tree.AddFile("/data/many/f" + std::to_string(i), i);
  tree.AddFolder("/data/empty");
  tree.AddFile("/data/with blank/caf\xc3\xa9 \xe6\x97\xa5", 7);
  tree.AddFile("/data/link", 0, "SYMLINK");
  tree.AddFile("/elsewhere/not-content");
}

const std::vector<std::string> kTreePaths = {
    "/data/a.txt", "/data/empty", "/data/link", "/data/many", "/data/many/f0", "/data/many/f1",
    "/data/many/f2", "/data/many/f3", "/data/many/f4", "/data/sub", "/data/sub/b.bin", "/data/sub/deeper",
    "/data/sub/deeper/c", "/data/with blank", "/data/with blank/caf\xc3\xa9 \xe6\x97\xa5"};

std::shared_ptr<CWebHdfsFS> MakeClient(int iPort) {
  SWebHdfsConfig config;
  config.iPort = iPort;
  config.strUser = "hdfs";
  config.lConnectTimeoutMs = 2000;
  config.lRequestTimeoutMs = 400;
  return std::make_shared<CWebHdfsFS>(config);
}

std::vector<std::string> Without(std::vector<std::string> lstPaths, const std::string& strFolder) {
  lstPaths.erase(std::remove_if(lstPaths.begin(), lstPaths.end(),
                                [&](const std::string& s) { return s.rfind(strFolder + "/", 0) == 0; }),
                 lstPaths.end());
  return lstPaths;
}

std::vector<std::string> Sorted(std::vector<std::string> lstPaths) {
  std::sort(lstPaths.begin(), lstPaths.end());
  return lstPaths;
}

// ---- a folder that fails in the middle of a scan ----

struct SFolderFailureCase {
  const char* szName;
  const char* szFolder;  // the folder whose listing fails ("" for none)
  SReply reply;
  int iErrno;            // of the failure record
};

SReply Reply(int iStatus, const std::string& strBody, EAction eAction = EAction::Answer,
             const std::string& strLocation = std::string()) {
  SReply reply;
  reply.iStatus = iStatus;
  reply.strBody = strBody;
  reply.eAction = eAction;
  reply.strLocation = strLocation;
  return reply;
}

class HadoopScanFolderFailure : public ::testing::TestWithParam<SFolderFailureCase> {};

TEST_P(HadoopScanFolderFailure, IsRecordedAndTheRestScanned) {
  const SFolderFailureCase& c = GetParam();
  CLogCapture log;
  CTempTree temp;
  CWebHdfsTestTree tree(2);  // pages of two entries
  RecordTree(tree);
  const std::string strFolder = c.szFolder;
  if (!strFolder.empty()) tree.SetReply(strFolder, c.reply);
  auto pClient = MakeClient(tree.Port());
  auto pCallback = std::make_shared<CHadoopCallback>(pClient);
  pCallback->UseFailuresFile(temp.Path("failures"));

  CWorkUnitManager manager(7);
  auto pContext = std::make_shared<CContentContext>();
  ASSERT_TRUE(pContext->GetBag()->Write(SXScannerConfigurationBagId::idIsHadoopScan, true).IsSuccess());
  ASSERT_TRUE(manager.AssignLocalWorkUnit("/data/", pContext, false).IsSuccess());
  const std::set<std::string, __less_fscase_cmp> setNone;
  ASSERT_TRUE(manager.FinalizeWorkUnits(setNone, setNone, setNone, setNone, setNone).IsSuccess());
  CScanArbiter arbiter(7, 1, pCallback);
  ASSERT_TRUE(arbiter.Run(manager).IsSuccess());

  const CWorkUnitPtr pUnit = manager.GetWorkUnitMap().at(CWorkUnitManager::kHadoopVolumeName);
  EXPECT_EQ(pUnit->DispositionAsString(), "Processed(Hadoop Scan Engine)");
  EXPECT_EQ(Sorted(pCallback->m_pHandler->Paths()), strFolder.empty() ? kTreePaths : Without(kTreePaths, strFolder));
  const std::vector<std::string> lstExpectedFailures =
      strFolder.empty() ? std::vector<std::string>{} : std::vector<std::string>{"folder " + strFolder + ":" + std::to_string(c.iErrno)};
  EXPECT_EQ(pCallback->FailureLines(), lstExpectedFailures);
  EXPECT_EQ(log->Count("0 items under /data/empty", 6), 1u);
  // One kept-alive connection, unless the server closed it.
  if (c.reply.eAction == EAction::Answer) {
    EXPECT_EQ(tree.Server().Connections(), 1u);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Folders, HadoopScanFolderFailure,
    ::testing::Values(
        SFolderFailureCase{"None", "", SReply(), 0},
        SFolderFailureCase{"NotFound", "/data/sub",
                           Reply(404, CWebHdfsTestTree::RemoteException("FileNotFoundException", "gone")), ENOENT},
        SFolderFailureCase{"Forbidden", "/data/many",
                           Reply(403, CWebHdfsTestTree::RemoteException("AccessControlException", "denied")), EACCES},
        SFolderFailureCase{"ConnectionClosed", "/data/sub", Reply(200, "", EAction::Close), ECONNRESET},
        SFolderFailureCase{"GarbageJson", "/data/many", Reply(200, "{\"DirectoryListing\":[1,2"), 13},
        SFolderFailureCase{"Stalled", "/data/with blank", Reply(200, "", EAction::Stall), ETIMEDOUT},
        SFolderFailureCase{"RedirectLoop", "/data/sub/deeper", Reply(307, "", EAction::Answer, "/webhdfs/v1/data/sub/deeper"), ELOOP}),
    [](const auto& info) { return std::string(info.param.szName); });

// ---- the content root itself ----

TEST(HadoopScanEngine, MissingContentRootIsRecordedAndTheUnitHasNoContent) {
  CTempTree temp;
  CWebHdfsTestTree tree;
  RecordTree(tree);
  auto pCallback = std::make_shared<CTestCallback>();
  pCallback->UseFailuresFile(temp.Path("failures"));
  CHadoopScanEngine engine(MakeClient(tree.Port()));
  (void)engine.SetScannerCallback(pCallback);
  auto pUnit = std::make_shared<CWorkUnit>();
  pUnit->SetLocalVolumeName(CWorkUnitManager::kHadoopVolumeName);
  pUnit->SetSourceVolumeName(CWorkUnitManager::kHadoopVolumeName);
  pUnit->AddScanPath(std::make_shared<CScanPath>("/nothing", "/nothing"));
  ASSERT_TRUE(pUnit->AddScanContentItem("/nothing").IsSuccess());

  CQiError error = engine.ProcessWorkUnit(pUnit);

  EXPECT_TRUE(error.IsWin32(232)) << error.AsString();
  EXPECT_EQ(error.GetMessage(), "No content available for scanning");
  EXPECT_EQ(pCallback->FailureLines(), std::vector<std::string>{"folder /nothing:2"});
  EXPECT_EQ(engine.getDescription(), "Hadoop Scan Engine");
}

TEST(HadoopPathEnumerator, ItemsCarryTheHadoopStatus) {
  CWebHdfsTestTree tree;
  RecordTree(tree);
  CHadoopPathEnumerator enumerator(MakeClient(tree.Port()));
  CItemPtr pFolder;
  ASSERT_TRUE(enumerator.GetItemByPath("/data/sub", "/src/sub", pFolder).IsSuccess());
  EXPECT_TRUE(pFolder->IsFolder());
  CItemPtr pItem;
  ASSERT_TRUE(enumerator.FindFirst("/data/sub/", pFolder, pItem).IsSuccess());
  EXPECT_EQ(pItem->GetLocalFullyQualifiedItemName(), "/data/sub/b.bin");
  EXPECT_EQ(pItem->GetSourceFullyQualifiedItemName(), "/src/sub/b.bin");
  EXPECT_EQ(pItem->GetFileSize(), 2048u);
  EXPECT_EQ(pItem->GetAttributes(), static_cast<uint32_t>(S_IFREG | 0644));
  EXPECT_EQ(pItem->GetLastWriteTime(), CTimeStamp(1700000000, 123000000));
  ASSERT_TRUE(enumerator.FindNext(pItem).IsSuccess());
  EXPECT_TRUE(pItem->IsFolder());
  EXPECT_TRUE(enumerator.FindNext(pItem).IsWin32(18));
  EXPECT_EQ(pItem, nullptr);
  CQiError error = enumerator.GetItemByPath("/data/none", pItem, nullptr);
  EXPECT_TRUE(error.IsErrNo(ENOENT));
  EXPECT_TRUE(std::any_of(error.GetFrames().begin(), error.GetFrames().end(),
                          [](const CQiError::SFrame& frame) { return frame.text == "stat(/data/none) failed"; }));
}

// ---- listing paths as the scan reports them ----

struct SFixPathCase {
  const char* szPrefix;
  const char* szPath;
  const char* szFixed;
};

class HadoopFixPath : public ::testing::TestWithParam<SFixPathCase> {};

TEST_P(HadoopFixPath, RemovesPrefixesAndAnchors) {
  CLogCapture log;
  EXPECT_EQ(CHadoopPathEnumerator::FixPath(GetParam().szPrefix, GetParam().szPath), GetParam().szFixed);
  EXPECT_EQ(log->Count(std::string("original item path='") + GetParam().szPath + "'", 5), 1u);
  EXPECT_EQ(log->Count(std::string("final item path='") + GetParam().szFixed + "'", 5), 1u);
}

INSTANTIATE_TEST_SUITE_P(Paths, HadoopFixPath,
                         ::testing::Values(SFixPathCase{"webhdfs://nn:9870", "webhdfs://nn:9870/user/a", "/user/a"},
                                           SFixPathCase{"webhdfs://nn:9870", "/user/a", "/user/a"},
                                           SFixPathCase{"hdfs://nn:8020", "maprfs:///mapr/c/x", "/mapr/c/x"},
                                           SFixPathCase{"", "maprfs://user/b", "/user/b"},
                                           SFixPathCase{"webhdfs://nn:9870", "webhdfs://nn:9870", "/"},
                                           SFixPathCase{"webhdfs://nn:9870", "webhdfs://other:1/x", "/webhdfs://other:1/x"},
                                           SFixPathCase{"", "relative/c", "/relative/c"}));

}  // namespace
