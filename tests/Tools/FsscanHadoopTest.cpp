// fsscan on webhdfs:// content against a local server with a recorded tree: the listed lines
// are exactly the recorded tree, a folder that cannot be listed in the middle of the scan is
// recorded with its error and the rest is scanned, and Hadoop content that cannot go with
// other content or options is a usage error.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "Platform/ZrProcess.h"
#include "Support/FileText.h"
#include "Support/TempTree.h"
#include "Support/WebHdfsServer.h"

namespace {

using R = CWebHdfsServer;

struct SInvocation {
  const char* szName;
  std::string strArgs;     // "{U}" stands for webhdfs://127.0.0.1:PORT, "{P}" for the port
  const char* szFolder;    // whose listing fails with reply ("" for none)
  R::SReply reply;
  int iExit;
  std::string strOut;      // the whole standard output
  const char* szErrLine;   // the first line of standard error ("" for the summary line)
  std::string strFailures; // the failures file
};

class FsscanHadoop : public ::testing::TestWithParam<SInvocation> {};

TEST_P(FsscanHadoop, ListsTheRecordedTree) {
  const SInvocation& c = GetParam();
  CTempTree scratch;
  CWebHdfsServer server(2);  // pages of two entries
  for (const char* szFile : {"/data/a.txt", "/data/sub/b c", "/data/many/1", "/data/many/2", "/other/x"}) server.AddFile(szFile, 3);
  server.AddFile("/data/sub/caf\xc3\xa9", 0, "SYMLINK");
  server.AddFolder("/data/empty");
  server.AddFolder("/locked");
  if (*c.szFolder) server.SetReply(c.szFolder, c.reply);
  auto fnExpand = [&](std::string strText) {
    for (const auto& [strKey, strValue] : {std::pair<std::string, std::string>{"{U}", server.Url("")}, {"{P}", std::to_string(server.Port())}})
      for (size_t pos; (pos = strText.find(strKey)) != std::string::npos;) strText.replace(pos, strKey.size(), strValue);
    return strText;
  };
  ZrProcess fsscan;
  ASSERT_TRUE(fsscan.Start(std::string(FSSCAN_TOOL_PATH) + " -f " + scratch.Path("failures") + " " + fnExpand(c.strArgs)).IsSuccess());
  ASSERT_TRUE(fsscan.WaitForExit(60000).IsSuccess());

  EXPECT_EQ(fsscan.GetExitCode(), c.iExit) << fsscan.GetStderr();
  EXPECT_EQ(fsscan.GetStdout(), c.strOut);
  const std::string strFirstLine = fsscan.GetStderr().substr(0, fsscan.GetStderr().find('\n'));
  // Without a message first, the summary: as many items as records written.
  const size_t nRecords = c.strOut.empty() ? 0 : std::count(c.strOut.begin(), c.strOut.end(), c.strOut.back());
  EXPECT_EQ(*c.szErrLine ? strFirstLine : strFirstLine.substr(0, strFirstLine.find(',')),
            *c.szErrLine ? fnExpand(c.szErrLine) : "fsscan: " + std::to_string(nRecords) + " items");
  EXPECT_EQ(ReadFileText(scratch.Path("failures")), c.strFailures);
}

std::string Print0(const std::vector<std::string>& lstPaths) {
  std::string strText;
  for (const std::string& strPath : lstPaths) strText.append(strPath).push_back('\0');
  return strText;
}

// /data without what lies below the folder that fails, in the order fsscan lists.
std::string DataWithout(const std::string& strFolder = "/none") {
  std::vector<std::string> lstPaths = {"/data/a.txt", "/data/empty", "/data/many", "/data/sub", "/data/sub/b c",
                                       "/data/sub/caf\xc3\xa9", "/data/many/1", "/data/many/2"};
  std::erase_if(lstPaths, [&](const std::string& s) { return s.rfind(strFolder + "/", 0) == 0; });
  return Print0(lstPaths);
}

R::SReply Remote(int iStatus, const char* szException) { return {iStatus, R::RemoteException(szException, "no")}; }
std::string Failure(const std::string& strFolder, int iCode) { return "folder " + strFolder + ":" + std::to_string(iCode) + "\n"; }

INSTANTIATE_TEST_SUITE_P(
    Invocations, FsscanHadoop,
    ::testing::Values(
        SInvocation{"Tree", "{U}/data", "", {}, 0,
                    "f 0644 3 1700000000.123000000 /data/a.txt\n"
                    "d 0755 0 1700000000.123000000 /data/empty\n"
                    "d 0755 0 1700000000.123000000 /data/many\n"
                    "d 0755 0 1700000000.123000000 /data/sub\n"
                    "f 0644 3 1700000000.123000000 /data/sub/b c\n"
                    "l 0644 0 1700000000.123000000 /data/sub/caf\xc3\xa9\n"
                    "f 0644 3 1700000000.123000000 /data/many/1\n"
                    "f 0644 3 1700000000.123000000 /data/many/2\n",
                    "", ""},
        SInvocation{"HdfsSchemeTwoPaths", "-0 hdfs://127.0.0.1:{P}/data/sub hdfs://127.0.0.1:{P}/data/many/", "", {}, 0,
                    Print0({"/data/sub/b c", "/data/sub/caf\xc3\xa9", "/data/many/1", "/data/many/2"}), "", ""},
        SInvocation{"ForbiddenFolderInTheMiddle", "-0 {U}/", "/locked", Remote(403, "AccessControlException"), 1,
                    Print0({"/data", "/locked", "/other", "/other/x"}) + DataWithout(), "", Failure("/locked", EACCES)},
        SInvocation{"FolderGoneInTheMiddle", "-0 {U}/data", "/data/sub", Remote(404, "FileNotFoundException"), 1,
                    DataWithout("/data/sub"), "", Failure("/data/sub", ENOENT)},
        SInvocation{"ConnectionClosedInTheMiddle", "-0 {U}/data", "/data/many", {200, "", R::EAction::Close}, 1,
                    DataWithout("/data/many"), "", Failure("/data/many", ECONNRESET)},
        SInvocation{"GarbageJsonInTheMiddle", "-0 {U}/data", "/data/sub", {200, "{\"DirectoryListing\":[1,2"}, 1,
                    DataWithout("/data/sub"), "", Failure("/data/sub", 13)},
        SInvocation{"MissingRoot", "{U}/nothing", "", {}, 1, "",
                    "fsscan: content on quillon_hadoop_vol not fully scanned: Failed(Hadoop Scan Engine=232)",
                    Failure("/nothing", ENOENT)},
        SInvocation{"MixedWithLocal", "{U}/data /tmp", "", {}, 2, "", "fsscan: Hadoop content (webhdfs://) does not go with local PATHs", ""},
        SInvocation{"TwoServers", "{U}/data webhdfs://127.0.0.2:{P}/data", "", {}, 2, "",
                    "fsscan: 'webhdfs://127.0.0.2:{P}/data' names another server than the content before it", ""}),
    [](const auto& info) { return std::string(info.param.szName); });

}  // namespace
