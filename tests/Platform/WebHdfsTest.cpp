// The WebHDFS client against a local HTTP server that serves a recorded tree: listings with
// paging, older servers, conversion to stat, and every way a server can fail or misbehave.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "Platform/WebHdfsFS.h"
#include "Support/WebHdfsTestTree.h"

namespace {

using SReply = CLocalHttpServer::SReply;
using EAction = CLocalHttpServer::EAction;

CWebHdfsFS MakeClient(int iPort, long lTimeoutMs = 5000, bool bHttps = false) {
  SWebHdfsConfig config;
  config.iPort = iPort;
  config.strUser = "hdfs user";
  config.lConnectTimeoutMs = lTimeoutMs;
  config.lRequestTimeoutMs = lTimeoutMs;
  config.bHttps = bHttps;
  return CWebHdfsFS(config);
}

std::vector<std::string> Names(const CHadoopFileInfoArray& arrEntries) {
  std::vector<std::string> lstNames;
  for (const CHadoopFileInfo& info : arrEntries) lstNames.push_back(info.strName);
  return lstNames;
}

// ---- listings ----

struct SListingCase {
  const char* szName;
  int iBatchSize;
  bool bOldServer;
  std::vector<std::string> lstFiles;  // below /data
  int iExpectedListRequests;          // listing requests for one listing of /data
};

class WebHdfsListing : public ::testing::TestWithParam<SListingCase> {};

TEST_P(WebHdfsListing, ListsEveryEntryInOrderOnOneConnection) {
  const SListingCase& c = GetParam();
  CWebHdfsTestTree tree(c.iBatchSize, c.bOldServer);
  tree.AddFolder("/data");
  for (const std::string& strFile : c.lstFiles) tree.AddFile("/data/" + strFile, 42);
  CWebHdfsFS client = MakeClient(tree.Port());

  CHadoopFileInfoArray arrEntries;
  int iCount = -1;
  ASSERT_TRUE(client.ListDirectory("/data/", arrEntries, iCount).IsSuccess());

  std::vector<std::string> lstExpected;
  for (const std::string& strFile : c.lstFiles) lstExpected.push_back(client.GetHadoopPathPrefix() + "/data/" + strFile);
  std::sort(lstExpected.begin(), lstExpected.end());
  EXPECT_EQ(Names(arrEntries), lstExpected);
  EXPECT_EQ(iCount, static_cast<int>(lstExpected.size()));
  for (const CHadoopFileInfo& info : arrEntries) {
    EXPECT_EQ(info.llLength, 42);
    EXPECT_EQ(info.uPermission, 0644u);
    EXPECT_EQ(info.iChildrenNum, c.bOldServer ? -1 : 0);
    EXPECT_EQ(info.llFileId == 0, c.bOldServer);
  }
  EXPECT_EQ(static_cast<int>(client.GetRequestCount()), c.iExpectedListRequests);
  // A second listing: an older server is not asked for batches again.
  ASSERT_TRUE(client.ListDirectory("/data", arrEntries, iCount).IsSuccess());
  EXPECT_EQ(static_cast<int>(client.GetRequestCount()), 2 * c.iExpectedListRequests - (c.bOldServer ? 1 : 0));
  EXPECT_EQ(client.GetConnectionCount(), 1u);
  EXPECT_EQ(tree.Server().Connections(), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Trees, WebHdfsListing,
    ::testing::Values(
        SListingCase{"OnePage", 1000, false, {"a", "b", "c"}, 1},
        SListingCase{"Empty", 1000, false, {}, 1},
        // 7 entries in pages of 3: three requests, each after the last name of the one before.
        SListingCase{"Paged", 3, false, {"1", "2", "3", "4", "5", "6", "7"}, 3},
        SListingCase{"ExactPages", 2, false, {"x", "y", "z", "zz"}, 2},
        // Blanks, a '%', '+', '&', '?' and multi-byte names travel percent-encoded and come back whole.
        SListingCase{"AwkwardNames", 2, false, {"with blank", "100%", "a+b&c=d?e", "caf\xc3\xa9", "\xe6\x97\xa5"}, 3},
        SListingCase{"OldServer", 3, true, {"p", "q", "r", "s"}, 2}),
    [](const auto& info) { return std::string(info.param.szName); });

TEST(WebHdfsRequests, CarryUserTokenAndEncodedPath) {
  CWebHdfsTestTree tree;
  tree.AddFile("/a b/\xc3\xa9t\xc3\xa9", 5);
  SWebHdfsConfig config;
  config.iPort = tree.Port();
  config.strUser = "hdfs user";
  config.strDelegationToken = "tok/en+=";
  CWebHdfsFS client(config);
  struct stat st {};
  ASSERT_TRUE(client.GetFileInfo("/a b/\xc3\xa9t\xc3\xa9", st).IsSuccess());
  EXPECT_EQ(tree.Server().Targets(),
            std::vector<std::string>{"/webhdfs/v1/a%20b/%C3%A9t%C3%A9?op=GETFILESTATUS&user.name=hdfs%20user"
                                     "&delegation=tok%2Fen%2B%3D"});
  EXPECT_EQ(st.st_mode, static_cast<mode_t>(S_IFREG | 0644));
  EXPECT_EQ(st.st_size, 5);
  EXPECT_EQ(st.st_mtim.tv_sec, 1700000000);
  EXPECT_EQ(st.st_mtim.tv_nsec, 123000000);
  EXPECT_EQ(st.st_atim.tv_sec, 1700000001);
  EXPECT_EQ(st.st_blocks, 1);
}

// ---- failures ----

struct SFailureCase {
  const char* szName;
  SReply reply;                // the answer to every request on /data
  bool bErrno;                 // errno (else Win32)
  uint32_t uCode;
  const char* szMessagePart;   // a part of the error's message
};

class WebHdfsFailure : public ::testing::TestWithParam<SFailureCase> {};

SReply Reply(int iStatus, const std::string& strBody, EAction eAction = EAction::Answer) {
  SReply reply;
  reply.iStatus = iStatus;
  reply.strBody = strBody;
  reply.eAction = eAction;
  return reply;
}

std::string Page(const std::string& strEntries, int iRemaining) {
  return "{\"DirectoryListing\":{\"partialListing\":{\"FileStatuses\":{\"FileStatus\":[" + strEntries +
         "]}},\"remainingEntries\":" + std::to_string(iRemaining) + "}}";
}

TEST_P(WebHdfsFailure, ListingFailsWithAClearError) {
  const SFailureCase& c = GetParam();
  CWebHdfsTestTree tree;
  tree.AddFile("/data/f");
  SReply reply = c.reply;
  if (reply.iStatus == 307) reply.strLocation = "http://127.0.0.1:" + std::to_string(tree.Port()) + "/webhdfs/v1/data";
  tree.SetReply("/data", reply);
  CWebHdfsFS client = MakeClient(tree.Port(), 400);

  CHadoopFileInfoArray arrEntries;
  int iCount = -1;
  CQiError error = client.ListDirectory("/data", arrEntries, iCount);

  ASSERT_TRUE(error.IsError());
  EXPECT_EQ(c.bErrno ? error.IsErrNo(static_cast<int>(c.uCode)) : error.IsWin32(c.uCode), true) << error.AsString();
  EXPECT_NE(error.GetMessage().find(c.szMessagePart), std::string::npos) << error.GetMessage();
  EXPECT_TRUE(arrEntries.empty());
  EXPECT_EQ(iCount, 0);
  // The handle stays usable for the rest of the tree.
  struct stat st {};
  EXPECT_TRUE(client.GetFileInfo("/data/f", st).IsSuccess());
}

const std::string kGoodEntry = CWebHdfsTestTree::StatusJson("a", CWebHdfsTestTree::SNode(), 1, false);

INSTANTIATE_TEST_SUITE_P(
    Answers, WebHdfsFailure,
    ::testing::Values(
        SFailureCase{"NotFound", Reply(404, CWebHdfsTestTree::RemoteException("FileNotFoundException", "File /data does not exist.")),
                     true, ENOENT, "LISTSTATUS_BATCH /data failed: FileNotFoundException: File /data does not exist. (HTTP 404)"},
        SFailureCase{"Forbidden", Reply(403, CWebHdfsTestTree::RemoteException("AccessControlException", "Permission denied: user=x")),
                     true, EACCES, "AccessControlException: Permission denied: user=x (HTTP 403)"},
        SFailureCase{"OtherRemote", Reply(500, CWebHdfsTestTree::RemoteException("IOException", "disk gone")),
                     true, EIO, "IOException: disk gone (HTTP 500)"},
        SFailureCase{"BareStatus", Reply(503, "Service Unavailable"), true, EIO, "failed: HTTP 503"},
        SFailureCase{"Closed", Reply(200, "", EAction::Close), true, ECONNRESET, "LISTSTATUS_BATCH /data failed: "},
        SFailureCase{"Garbage", Reply(200, "", EAction::Garbage), true, EPROTO, "LISTSTATUS_BATCH /data failed: "},
        SFailureCase{"TruncatedBody", Reply(200, Page(kGoodEntry, 0), EAction::Truncate), true, ECONNRESET, "failed: "},
        SFailureCase{"Stalled", Reply(200, "", EAction::Stall), true, ETIMEDOUT, "failed: "},
        SFailureCase{"RedirectLoop", Reply(307, ""), true, ELOOP, "failed: "},
        SFailureCase{"NotJson", Reply(200, "<html>hello</html>"), false, 13, "Malformed WebHDFS answer to LISTSTATUS_BATCH /data"},
        SFailureCase{"TruncatedJson", Reply(200, Page(kGoodEntry, 0).substr(0, 60)), false, 13, "Malformed WebHDFS answer"},
        SFailureCase{"NoListing", Reply(200, "{\"FileStatuses\":{}}"), false, 13, "no DirectoryListing"},
        SFailureCase{"NoPathSuffix", Reply(200, Page("{\"type\":\"FILE\",\"length\":1}", 0)), false, 13,
                     "entry 0 has no pathSuffix"},
        SFailureCase{"NegativeLength", Reply(200, Page(kGoodEntry + ",{\"pathSuffix\":\"b\",\"type\":\"FILE\",\"length\":-1}", 0)),
                     false, 13, "entry 1 has a bad length"},
        SFailureCase{"UnknownType", Reply(200, Page("{\"pathSuffix\":\"b\",\"type\":\"PIPE\"}", 0)), false, 13, "bad type"},
        SFailureCase{"BadPermission", Reply(200, Page("{\"pathSuffix\":\"b\",\"type\":\"FILE\",\"permission\":\"rwx\"}", 0)),
                     false, 13, "bad permission"},
        SFailureCase{"SuffixIsAPath", Reply(200, Page("{\"pathSuffix\":\"../etc\",\"type\":\"FILE\"}", 0)), false, 13,
                     "has the pathSuffix '../etc', not a name"},
        SFailureCase{"ListingOfAFile", Reply(200, Page("{\"pathSuffix\":\"\",\"type\":\"FILE\"}", 0)), true, ENOTDIR,
                     "not a directory"},
        // The same page again and again: "remainingEntries" never reaches 0.
        SFailureCase{"PagesDoNotAdvance", Reply(200, Page(kGoodEntry, 5)), false, 13, "the listing does not advance after 'a'"}),
    [](const auto& info) { return std::string(info.param.szName); });

TEST(WebHdfsTransport, UnreachableServerAndTlsFailure) {
  int iClosedPort = 0;
  {
    CLocalHttpServer server([](const CLocalHttpServer::SRequest&) { return SReply(); });
    iClosedPort = server.Port();
  }
  CWebHdfsFS unreachable = MakeClient(iClosedPort);
  struct stat st {};
  CQiError error = unreachable.GetFileInfo("/", st);
  EXPECT_TRUE(error.IsErrNo(ECONNREFUSED)) << error.AsString();
  EXPECT_NE(error.GetMessage().find("WebHDFS GETFILESTATUS / failed: "), std::string::npos);

  // https to a server that speaks plain HTTP: the TLS handshake fails.
  CWebHdfsTestTree tree;
  CWebHdfsFS tls = MakeClient(tree.Port(), 2000, true);
  error = tls.GetFileInfo("/", st);
  EXPECT_TRUE(error.IsErrNo(EPROTO)) << error.AsString();
  EXPECT_EQ(tls.GetHadoopPathPrefix(), "swebhdfs://127.0.0.1:" + std::to_string(tree.Port()));
}

}  // namespace
