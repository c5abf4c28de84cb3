// fsscan on webhdfs:// content against a local server with a recorded tree: the listed lines
// are exactly the recorded tree, failures of single folders are recorded, and Hadoop content
// that cannot go with other options or content is a usage error.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "Support/TempTree.h"
#include "Support/WebHdfsTestTree.h"

namespace {

struct SRun {
  int iExit = -1;
  std::string strOut;
  std::string strErr;
};

std::string ReadFile(const std::string& strPath) {
  std::ifstream file(strPath, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

SRun RunFsscan(const std::vector<std::string>& lstArgs, const CTempTree& scratch) {
  const std::string strOut = scratch.Path("stdout"), strErr = scratch.Path("stderr");
  std::vector<std::string> lstArgv{FSSCAN_TOOL_PATH};
  lstArgv.insert(lstArgv.end(), lstArgs.begin(), lstArgs.end());
  std::vector<char*> argv;
  for (std::string& strArg : lstArgv) argv.push_back(strArg.data());
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    const int fdOut = open(strOut.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int fdErr = open(strErr.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fdOut < 0 || fdErr < 0 || dup2(fdOut, 1) < 0 || dup2(fdErr, 2) < 0) _exit(126);
    alarm(60);
    execv(argv[0], argv.data());
    _exit(127);
  }
  int iStatus = 0;
  while (waitpid(pid, &iStatus, 0) < 0 && errno == EINTR) {
  }
  SRun run;
  run.iExit = WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : 128 + WTERMSIG(iStatus);
  run.strOut = ReadFile(strOut);
  run.strErr = ReadFile(strErr);
  return run;
}

struct SInvocation {
  const char* szName;
  std::vector<std::string> lstArgs;  // "{U}" stands for webhdfs://127.0.0.1:PORT, "{P}" for the port, "{S}" for scratch
  int iExit;
  std::string strOut;                // the whole standard output
  const char* szErrLine;             // the first line of standard error ("" for the summary)
  const char* szFailures;            // the failures file, or null
};

class FsscanHadoop : public ::testing::TestWithParam<SInvocation> {};

TEST_P(FsscanHadoop, ListsTheRecordedTree) {
  const SInvocation& c = GetParam();
  CTempTree scratch;
  CWebHdfsTestTree tree(2);
  tree.AddFile("/data/a.txt", 10);
  tree.AddFile("/data/sub/b c", 3);
  tree.AddFile("/data/sub/caf\xc3\xa9", 0, "SYMLINK");
  tree.AddFile("/data/many/1", 1);
  tree.AddFile("/data/many/2", 2);
  tree.AddFile("/data/many/3", 3);
  tree.AddFolder("/data/empty");
  CLocalHttpServer::SReply forbidden;
  forbidden.iStatus = 403;
  forbidden.strBody = CWebHdfsTestTree::RemoteException("AccessControlException", "Permission denied");
  tree.AddFolder("/locked");
  tree.SetReply("/locked", forbidden);
  tree.AddFolder("/other/x");
  auto fnExpand = [&](std::string strText) {
    for (const auto& [strKey, strValue] : {std::pair<std::string, std::string>{"{U}", tree.Url("")},
                                           {"{P}", std::to_string(tree.Port())}, {"{S}", scratch.Root()}})
      for (size_t pos; (pos = strText.find(strKey)) != std::string::npos;) strText.replace(pos, strKey.size(), strValue);
    return strText;
  };
  std::vector<std::string> lstArgs;
  for (const std::string& strArg : c.lstArgs) lstArgs.push_back(fnExpand(strArg));

  const SRun run = RunFsscan(lstArgs, scratch);

  EXPECT_EQ(run.iExit, c.iExit) << run.strErr;
  EXPECT_EQ(run.strOut, c.strOut);
  const std::string strFirstLine = run.strErr.substr(0, run.strErr.find('\n'));
  if (*c.szErrLine != '\0') {
    EXPECT_EQ(strFirstLine, fnExpand(c.szErrLine));
  } else {
    EXPECT_EQ(strFirstLine.rfind("fsscan: ", 0), 0u) << run.strErr;
    EXPECT_NE(strFirstLine.find(" failures, "), std::string::npos) << run.strErr;
  }
  if (c.szFailures != nullptr) {
    EXPECT_EQ(ReadFile(scratch.Path("failures")), c.szFailures);
  }
}

// The paths, each ended by a NUL byte (-0).
std::string Print0(const std::vector<std::string>& lstPaths) {
  std::string strText;
  for (const std::string& strPath : lstPaths) strText.append(strPath).push_back('\0');
  return strText;
}

const char* const kTreeLines =
    "f 0644 10 1700000000.123000000 /data/a.txt\n"
    "d 0755 0 1700000000.123000000 /data/empty\n"
    "d 0755 0 1700000000.123000000 /data/many\n"
    "d 0755 0 1700000000.123000000 /data/sub\n"
    "f 0644 3 1700000000.123000000 /data/sub/b c\n"
    "l 0644 0 1700000000.123000000 /data/sub/caf\xc3\xa9\n"
    "f 0644 1 1700000000.123000000 /data/many/1\n"
    "f 0644 2 1700000000.123000000 /data/many/2\n"
    "f 0644 3 1700000000.123000000 /data/many/3\n";

INSTANTIATE_TEST_SUITE_P(
    Invocations, FsscanHadoop,
    ::testing::Values(
        SInvocation{"Tree", {"{U}/data"}, 0, kTreeLines, "", nullptr},
        SInvocation{"HdfsSchemeTwoPaths", {"-0", "hdfs://127.0.0.1:{P}/data/sub", "hdfs://127.0.0.1:{P}/data/many/"}, 0,
                    Print0({"/data/sub/b c", "/data/sub/caf\xc3\xa9", "/data/many/1", "/data/many/2", "/data/many/3"}),
                    "", nullptr},
        SInvocation{"ForbiddenFolderInTheMiddle", {"-0", "-f", "{S}/failures", "{U}/"}, 1,
                    Print0({"/data", "/locked", "/other", "/other/x", "/data/a.txt", "/data/empty", "/data/many",
                            "/data/sub", "/data/sub/b c", "/data/sub/caf\xc3\xa9", "/data/many/1", "/data/many/2",
                            "/data/many/3"}),
                    "", "folder /locked:13\n"},
        SInvocation{"MissingRoot", {"-f", "{S}/failures", "{U}/nothing"}, 1, "",
                    "fsscan: content on quillon_hadoop_vol not fully scanned: Failed(Hadoop Scan Engine=232)",
                    "folder /nothing:2\n"},
        SInvocation{"MixedWithLocal", {"{U}/data", "/tmp"}, 2, "",
                    "fsscan: Hadoop content (webhdfs://) does not go with local PATHs", nullptr},
        SInvocation{"WithTopLevel", {"--top-level", "{U}/data"}, 2, "",
                    "fsscan: Hadoop content (webhdfs://) does not go with --top-level", nullptr},
        SInvocation{"TwoServers", {"{U}/data", "webhdfs://127.0.0.2:{P}/data"}, 2, "",
                    "fsscan: 'webhdfs://127.0.0.2:{P}/data' names another server than the content before it", nullptr},
        SInvocation{"BadPort", {"webhdfs://127.0.0.1:99999/data"}, 2, "",
                    "fsscan: 'webhdfs://127.0.0.1:99999/data': the port is no number from 1 to 65535", nullptr}),
    [](const auto& info) { return std::string(info.param.szName); });

}  // namespace
