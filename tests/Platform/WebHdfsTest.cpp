// The WebHDFS client against a local server serving a recorded tree: paged listings, older
// servers, percent-encoded names, and every way a server can fail or misbehave.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "Platform/WebHdfsFS.h"
#include "Support/WebHdfsServer.h"

namespace {

using R = CWebHdfsServer;

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
    EXPECT_EQ(std::vector<int64_t>({info.llLength, info.uPermission, info.llModificationTime, info.iChildrenNum}),
              std::vector<int64_t>({42, 0644, 1700000000123, c.bOldServer ? -1 : 0}));
  }
  EXPECT_EQ(lstNames, c.lstNames);
  EXPECT_EQ(iCount, static_cast<int>(c.lstNames.size()));
  EXPECT_EQ(server.Targets().size(), c.nRequests);  // an older server is asked for batches once
  for (const std::string& strTarget : server.Targets())
    EXPECT_NE(strTarget.find("&user.name=hdfs%20user&delegation=tok%2Fen%2B%3D"), std::string::npos);
  EXPECT_EQ(std::vector<uint64_t>({client.GetConnectionCount(), server.Connections()}), std::vector<uint64_t>({1, 1}));
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
  EXPECT_EQ(std::vector<int64_t>({st.st_mode, st.st_size, st.st_mtim.tv_sec, st.st_mtim.tv_nsec, st.st_atim.tv_sec}),
            std::vector<int64_t>({S_IFREG | 0644, 5, 1700000000, 123000000, 1700000001}));
}

struct SFailureCase {
  const char* szName;
  R::SReply reply;  // the answer to every request on /data
  int iErrno;       // 0: Win32 13, a malformed answer
  const char* szMessagePart;
};

class WebHdfsFailure : public ::testing::TestWithParam<SFailureCase> {};

int ClosedPort() {
  CWebHdfsServer gone;  // nothing listens there once it is destroyed
  return gone.Port();
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

  EXPECT_TRUE(c.iErrno != 0 ? error.IsErrNo(c.iErrno) : error.IsWin32(13)) << error.AsString();
  EXPECT_NE(error.GetMessage().find(c.szMessagePart), std::string::npos) << error.GetMessage();
  EXPECT_EQ(error.AsString().find("tok"), std::string::npos);  // the delegation token stays secret
  EXPECT_TRUE(arrEntries.empty());
  EXPECT_EQ(iCount, 0);
  struct stat st {};
  EXPECT_EQ(client.GetFileInfo("/data/f", st).IsSuccess(), c.reply.iStatus != 0);
}

R::SReply Remote(int iStatus, const char* szException, const char* szMessage) {
  return {iStatus, R::RemoteException(szException, szMessage)};
}
// A listing page of the given entries (after a first good one when bAfterGood).
R::SReply Page(std::string strEntries, int iRemaining = 0, bool bAfterGood = false, R::EAction eAction = R::EAction::Answer) {
  if (bAfterGood) strEntries = R::StatusJson("a", "FILE", 1, 1, false) + (strEntries.empty() ? "" : ",") + strEntries;
  return {200, "{\"DirectoryListing\":{\"partialListing\":{\"FileStatuses\":{\"FileStatus\":[" + strEntries +
                   "]}},\"remainingEntries\":" + std::to_string(iRemaining) + "}}", eAction};
}
R::SReply Misbehave(R::EAction eAction) { return {200, "", eAction}; }

INSTANTIATE_TEST_SUITE_P(
    Answers, WebHdfsFailure,
    ::testing::Values(
        SFailureCase{"NotFound", Remote(404, "FileNotFoundException", "File /data does not exist."), ENOENT,
                     "LISTSTATUS_BATCH /data failed: FileNotFoundException: File /data does not exist. (HTTP 404)"},
        SFailureCase{"Forbidden", Remote(403, "AccessControlException", "Permission denied"), EACCES,
                     "AccessControlException: Permission denied (HTTP 403)"},
        SFailureCase{"OtherRemote", Remote(500, "IOException", "disk gone"), EIO, "IOException: disk gone (HTTP 500)"},
        SFailureCase{"BareStatus", {503, "busy"}, EIO, "LISTSTATUS_BATCH /data failed: HTTP 503"},
        SFailureCase{"Closed", Misbehave(R::EAction::Close), ECONNRESET, "Empty reply from server"},
        SFailureCase{"Garbage", Misbehave(R::EAction::Garbage), EPROTO, "LISTSTATUS_BATCH /data failed: "},
        SFailureCase{"TruncatedBody", Page("", 0, true, R::EAction::Truncate), ECONNRESET, "failed: "},
        SFailureCase{"Stalled", Misbehave(R::EAction::Stall), ETIMEDOUT, "Operation timed out after "},
        SFailureCase{"RedirectLoop", {307, "", R::EAction::Answer, "/webhdfs/v1/data"}, ELOOP, "Maximum (5) redirects followed"},
        SFailureCase{"Unreachable", {0, ""}, ECONNREFUSED, "LISTSTATUS_BATCH /data failed: "},
        SFailureCase{"TlsToPlainHttp", {0, ""}, EPROTO, "LISTSTATUS_BATCH /data failed: "},
        SFailureCase{"NotJson", {200, "<html/>"}, 0, "Malformed WebHDFS answer to LISTSTATUS_BATCH /data"},
        SFailureCase{"TruncatedJson", {200, Page("", 0, true).strBody.substr(0, 60)}, 0, "Malformed WebHDFS answer"},
        SFailureCase{"NoListing", {200, "{\"FileStatuses\":{}}"}, 0, "no DirectoryListing"},
        SFailureCase{"NoPathSuffix", Page("{\"type\":\"FILE\"}"), 0, "entry 0 has no pathSuffix"},
        SFailureCase{"NegativeLength", Page("{\"pathSuffix\":\"b\",\"type\":\"FILE\",\"length\":-1}", 0, true), 0,
                     "entry 1 has a bad length"},
        SFailureCase{"UnknownType", Page("{\"pathSuffix\":\"b\",\"type\":\"PIPE\"}"), 0, "bad type"},
        SFailureCase{"BadPermission", Page("{\"pathSuffix\":\"b\",\"type\":\"FILE\",\"permission\":\"rwx\"}"), 0, "bad permission"},
        SFailureCase{"SuffixIsAPath", Page("{\"pathSuffix\":\"../etc\",\"type\":\"FILE\"}"), 0,
                     "has the pathSuffix '../etc', not a name"},
        SFailureCase{"ListingOfAFile", Page("{\"pathSuffix\":\"\",\"type\":\"FILE\"}"), ENOTDIR, "not a directory"},
        // The same page again and again: "remainingEntries" never reaches 0.
        SFailureCase{"PagesDoNotAdvance", Page("", 5, true), 0, "the listing does not advance after 'a'"}),
    [](const auto& info) { return std::string(info.param.szName); });

}  // namespace
