// The Hadoop scan engine over WebHDFS through the work unit manager and the scan arbiter,
// against a local server with a recorded tree: folders that fail in the middle of the scan are
// recorded and the rest is scanned; listing paths are normalised.
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
#include "Support/WebHdfsServer.h"
#include "TraversalTestSupport.h"

using namespace TraversalTestSupport;

namespace {

using R = CWebHdfsServer;

class CHadoopCallback : public CTestCallback {
 public:
  explicit CHadoopCallback(CHadoopFSPtr pFS) : m_pFS(std::move(pFS)) {}
  CQiError GetScanEngineList(CScanEngineList& lstEngines) override {
    lstEngines = {std::make_shared<CHadoopScanEngine>(m_pFS)};
    return CQiError();
  }
  CHadoopFSPtr m_pFS;
};

const std::vector<std::string> kTree = {"/data/a.txt", "/data/empty", "/data/link", "/data/many", "/data/many/f0",
                                        "/data/many/f1", "/data/many/f2", "/data/sub", "/data/sub/deeper",
                                        "/data/sub/deeper/c", "/data/with blank", "/data/with blank/caf\xc3\xa9"};

struct SFolderFailureCase {
  const char* szName;
  const char* szFolder;  // whose listing fails ("" for none)
  CWebHdfsServer::SReply reply;
  int iErrorCode;        // of its failure record
};

class HadoopScan : public ::testing::TestWithParam<SFolderFailureCase> {};

TEST_P(HadoopScan, RecordsAFailedFolderAndScansTheRest) {
  const SFolderFailureCase& c = GetParam();
  CLogCapture log;
  CTempTree temp;
  CWebHdfsServer server(2);  // pages of two entries
  for (const int i : {0, 4, 5, 6, 9, 11}) server.AddFile(kTree[i], 7);
  server.AddFolder("/data/empty");
  server.AddFile("/data/link", 0, "SYMLINK");
  server.AddFile("/elsewhere/not-content");
  const std::string strFolder = c.szFolder;
  if (!strFolder.empty()) server.SetReply(strFolder, c.reply);
  SWebHdfsConfig config;
  config.iPort = server.Port();
  auto pCallback = std::make_shared<CHadoopCallback>(std::make_shared<CWebHdfsFS>(config));
  pCallback->UseFailuresFile(temp.Path("failures"));

  CWorkUnitManager manager(7);
  auto pContext = std::make_shared<CContentContext>();
  ASSERT_TRUE(pContext->GetBag()->Write(SXScannerConfigurationBagId::idIsHadoopScan, true).IsSuccess());
  ASSERT_TRUE(manager.AssignLocalWorkUnit("/data/", pContext, false).IsSuccess());
  const std::set<std::string, __less_fscase_cmp> setNone;
  ASSERT_TRUE(manager.FinalizeWorkUnits(setNone, setNone, setNone, setNone, setNone).IsSuccess());
  ASSERT_TRUE(CScanArbiter(7, 1, pCallback).Run(manager).IsSuccess());

  EXPECT_EQ(manager.GetWorkUnitMap().at("quillon_hadoop_vol")->DispositionAsString(), "Processed(Hadoop Scan Engine)");
  std::vector<std::string> lstExpected = kTree, lstPaths = pCallback->m_pHandler->Paths();
  std::erase_if(lstExpected, [&](const std::string& s) { return !strFolder.empty() && s.rfind(strFolder + "/", 0) == 0; });
  std::sort(lstPaths.begin(), lstPaths.end());
  EXPECT_EQ(lstPaths, lstExpected);
  EXPECT_EQ(pCallback->FailureLines(), strFolder.empty() ? std::vector<std::string>{}
                                                         : std::vector<std::string>{"folder " + strFolder + ":" +
                                                                                    std::to_string(c.iErrorCode)});
  EXPECT_EQ(log->Count("0 items under /data/empty", 6), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Folders, HadoopScan,
    ::testing::Values(SFolderFailureCase{"AllListed", "", {}, 0},
                      SFolderFailureCase{"NotFound", "/data/sub", R::Reply(404, R::RemoteException("FileNotFoundException", "gone")), ENOENT},
                      SFolderFailureCase{"Forbidden", "/data/many", R::Reply(403, R::RemoteException("AccessControlException", "no")), EACCES},
                      SFolderFailureCase{"ConnectionClosed", "/data/sub/deeper", R::Reply(200, "", R::EAction::Close), ECONNRESET},
                      SFolderFailureCase{"GarbageJson", "/data/with blank", R::Reply(200, "{\"DirectoryListing\":[1,2"), 13}),
    [](const auto& info) { return std::string(info.param.szName); });

struct SFixPathCase {
  const char* szPrefix;
  const char* szPath;
  const char* szFixed;
};

class HadoopFixPath : public ::testing::TestWithParam<SFixPathCase> {};

TEST_P(HadoopFixPath, RemovesThePrefixesAndAnchorsThePath) {
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
                                           SFixPathCase{"webhdfs://nn:9870", "webhdfs://other:1/x", "/webhdfs://other:1/x"}));

}  // namespace
