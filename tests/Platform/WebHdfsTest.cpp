// The WebHDFS client against a local server serving a recorded tree: paged listings, older
// servers, percent-encoded names, and every way a server can fail or misbehave.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "Platform/WebHdfsFS.h"
#include "Support/WebHdfsServer.h"

namespace {

using EAction = CWebHdfsServer::EAction;

SWebHdfsConfig Config(int iPort, long lTimeoutMs = 5000, bool bHttps = false) {
  SWebHdfsConfig config;
  config.iPort = iPort;
  config.strUser = "hdfs user";
  config.strDelegationToken = "tok/en+=";
  config.lConnectTimeoutMs = config.lRequestTimeoutMs = lTimeoutMs;
  config.bHttps = bHttps;
  return config;
}

struct SListingCase {
  const char* szName;
  int iBatchSize;
  bool bOldServer;
  std::vector<std::string> lstNames;  // below /data, in byte order
  size_t nRequests;                   // for two listings of /data
};

class WebHdfsListing : public ::testing::TestWithParam<SListingCase> {};

TEST_P(WebHdfsListing, ListsEveryEntryInOrderOnOneConnection) {
  const SListingCase& c = GetParam();
  CWebHdfsServer server(c.iBatchSize, c.bOldServer);
  server.AddFolder("/data");
  for (const std::string& strName : c.lstNames) server.AddFile("/data/" + strName, 42);
  CWebHdfsFS client(Config(server.Port()));
  CHadoopFileInfoArray arrEntries;
  int iCount = -1;
  for (const char* szPath : {"/data/", "/data"}) ASSERT_TRUE(client.ListDirectory(szPath, arrEntries, iCount).IsSuccess());

  std::vector<std::string> lstNames;
  for (const CHadoopFileInfo& info : arrEntries) {
    lstNames.push_back(info.strName.substr(client.GetHadoopPathPrefix().size() + 6));
    EXPECT_EQ(info.llLength, 42);
    EXPECT_EQ(info.uPermission, 0644u);
    EXPECT_EQ(info.llModificationTime, 1700000000123);
    EXPECT_EQ(info.iChildrenNum, c.bOldServer ? -1 : 0);
  }
  EXPECT_EQ(lstNames, c.lstNames);
  EXPECT_EQ(iCount, static_cast<int>(c.lstNames.size()));
  EXPECT_EQ(server.Targets().size(), c.nRequests);  // an older server is asked for batches once
  for (const std::string& strTarget : server.Targets())
    EXPECT_NE(strTarget.find("&user.name=hdfs%20user&delegation=tok%2Fen%2B%3D"), std::string::npos);
  EXPECT_EQ(client.GetConnectionCount(), 1u);
  EXPECT_EQ(server.Connections(), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Trees, WebHdfsListing,
    ::testing::Values(SListingCase{"Empty", 1000, false, {}, 2},
                      // 7 entries in pages of 3: each page after the last name of the one before.
                      SListingCase{"Paged", 3, false, {"1", "2", "3", "4", "5", "6", "7"}, 6},
                      SListingCase{"ExactPages", 2, false, {"x", "y", "z", "zz"}, 4},
                      // Travel percent-encoded in the path and in "startAfter", come back whole.
                      SListingCase{"AwkwardNames", 2, false, {"100%", "a+b&c=d?e", "caf\xc3\xa9", "with blank", "\xe6\x97\xa5"}, 6},
                      SListingCase{"OldServer", 3, true, {"p", "q", "r", "s"}, 3}),
    [](const auto& info) { return std::string(info.param.szName); });

TEST(WebHdfsStatus, ConvertsToStat) {
  CWebHdfsServer server;
  server.AddFile("/a b/f", 5);
  CWebHdfsFS client(Config(server.Port()));
  struct stat st {};
  ASSERT_TRUE(client.GetFileInfo("/a b/f", st).IsSuccess());
  EXPECT_EQ(server.Targets()[0], "/webhdfs/v1/a%20b/f?op=GETFILESTATUS&user.name=hdfs%20user&delegation=tok%2Fen%2B%3D");
  EXPECT_EQ(st.st_mode, static_cast<mode_t>(S_IFREG | 0644));
  EXPECT_EQ(st.st_size, 5);
  EXPECT_EQ(st.st_mtim.tv_sec, 1700000000);
  EXPECT_EQ(st.st_mtim.tv_nsec, 123000000);
  EXPECT_EQ(st.st_atim.tv_sec, 1700000001);
}

struct SFailureCase {
  const char* szName;
  CWebHdfsServer::SReply reply;  // the answer to every request on /data
  bool bErrno;                   // errno, else Win32
  uint32_t uCode;
  const char* szMessagePart;
};

class WebHdfsFailure : public ::testing::TestWithParam<SFailureCase> {};

int ClosedPort() {
  CWebHdfsServer gone;  // nothing listens there once it is destroyed
  return gone.Port();
}

std::string Page(const std::string& strEntries, int iRemaining) {
  return "{\"DirectoryListing\":{\"partialListing\":{\"FileStatuses\":{\"FileStatus\":[" + strEntries +
         "]}},\"remainingEntries\":" + std::to_string(iRemaining) + "}}";
}

TEST_P(WebHdfsFailure, FailsTheListingWithAClearErrorAndStaysUsable) {
  const SFailureCase& c = GetParam();
  CWebHdfsServer server;
  server.AddFile("/data/f");
  server.SetReply("/data", c.reply);
  const std::string strName = c.szName;
  CWebHdfsFS client(Config(strName == "Unreachable" ? ClosedPort() : server.Port(), 400, strName == "TlsToPlainHttp"));
  CHadoopFileInfoArray arrEntries;
  int iCount = -1;
  CQiError error = client.ListDirectory("/data", arrEntries, iCount);

  EXPECT_TRUE(c.bErrno ? error.IsErrNo(static_cast<int>(c.uCode)) : error.IsWin32(c.uCode)) << error.AsString();
  EXPECT_NE(error.GetMessage().find(c.szMessagePart), std::string::npos) << error.GetMessage();
  EXPECT_EQ(error.AsString().find("tok"), std::string::npos);  // the delegation token stays secret
  EXPECT_TRUE(arrEntries.empty());
  EXPECT_EQ(iCount, 0);
  struct stat st {};
  EXPECT_EQ(client.GetFileInfo("/data/f", st).IsSuccess(), c.reply.iStatus != 0);
}

const std::string kEntry = CWebHdfsServer::StatusJson("a", "FILE", 1, 1, false);
using R = CWebHdfsServer;

INSTANTIATE_TEST_SUITE_P(
    Answers, WebHdfsFailure,
    ::testing::Values(
        SFailureCase{"NotFound", R::Reply(404, R::RemoteException("FileNotFoundException", "File /data does not exist.")), true,
                     ENOENT, "LISTSTATUS_BATCH /data failed: FileNotFoundException: File /data does not exist. (HTTP 404)"},
        SFailureCase{"Forbidden", R::Reply(403, R::RemoteException("AccessControlException", "Permission denied")), true,
                     EACCES, "AccessControlException: Permission denied (HTTP 403)"},
        SFailureCase{"OtherRemote", R::Reply(500, R::RemoteException("IOException", "disk gone")), true, EIO,
                     "IOException: disk gone (HTTP 500)"},
        SFailureCase{"BareStatus", R::Reply(503, "busy"), true, EIO, "LISTSTATUS_BATCH /data failed: HTTP 503"},
        SFailureCase{"Closed", R::Reply(200, "", EAction::Close), true, ECONNRESET, "Empty reply from server"},
        SFailureCase{"Garbage", R::Reply(200, "", EAction::Garbage), true, EPROTO, "LISTSTATUS_BATCH /data failed: "},
        SFailureCase{"TruncatedBody", R::Reply(200, Page(kEntry, 0), EAction::Truncate), true, ECONNRESET, "failed: "},
        SFailureCase{"Stalled", R::Reply(200, "", EAction::Stall), true, ETIMEDOUT, "Operation timed out after 4"},
        SFailureCase{"RedirectLoop", R::Reply(307, "", EAction::Answer, "/webhdfs/v1/data"), true, ELOOP,
                     "Maximum (5) redirects followed"},
        SFailureCase{"Unreachable", R::Reply(0, ""), true, ECONNREFUSED, "LISTSTATUS_BATCH /data failed: "},
        SFailureCase{"TlsToPlainHttp", R::Reply(0, ""), true, EPROTO, "LISTSTATUS_BATCH /data failed: "},
        SFailureCase{"NotJson", R::Reply(200, "<html/>"), false, 13, "Malformed WebHDFS answer to LISTSTATUS_BATCH /data"},
        SFailureCase{"TruncatedJson", R::Reply(200, Page(kEntry, 0).substr(0, 60)), false, 13, "Malformed WebHDFS answer"},
        SFailureCase{"NoListing", R::Reply(200, "{\"FileStatuses\":{}}"), false, 13, "no DirectoryListing"},
        SFailureCase{"NoPathSuffix", R::Reply(200, Page("{\"type\":\"FILE\"}", 0)), false, 13, "entry 0 has no pathSuffix"},
        SFailureCase{"NegativeLength", R::Reply(200, Page(kEntry + ",{\"pathSuffix\":\"b\",\"type\":\"FILE\",\"length\":-1}", 0)),
                     false, 13, "entry 1 has a bad length"},
        SFailureCase{"UnknownType", R::Reply(200, Page("{\"pathSuffix\":\"b\",\"type\":\"PIPE\"}", 0)), false, 13, "bad type"},
        SFailureCase{"BadPermission", R::Reply(200, Page("{\"pathSuffix\":\"b\",\"type\":\"FILE\",\"permission\":\"rwx\"}", 0)),
                     false, 13, "bad permission"},
        SFailureCase{"SuffixIsAPath", R::Reply(200, Page("{\"pathSuffix\":\"../etc\",\"type\":\"FILE\"}", 0)), false, 13,
                     "has the pathSuffix '../etc', not a name"},
        SFailureCase{"ListingOfAFile", R::Reply(200, Page("{\"pathSuffix\":\"\",\"type\":\"FILE\"}", 0)), true, ENOTDIR,
                     "not a directory"},
        // The same page again and again: "remainingEntries" never reaches 0.
        SFailureCase{"PagesDoNotAdvance", R::Reply(200, Page(kEntry, 5)), false, 13, "the listing does not advance after 'a'"}),
    [](const auto& info) { return std::string(info.param.szName); });

}  // namespace
