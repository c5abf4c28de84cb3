// fsscan with --engines gpfs,findfirst: on a volume that is not GPFS, and when the policy scan
// fails, the findfirst engine scans; on a volume declared GPFS (--test-gpfs-volume) the fake
// mmapplypolicy lists the tree with find(1) in the collect layout and the gpfs engine reports
// it. Either way the paths listed (-0) are those of the findfirst engine alone, as bytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Platform/FXString.h"
#include "Platform/ShellQuote.h"
#include "Platform/ZrProcess.h"
#include "Support/FakeGpfsTools.h"
#include "Support/FileText.h"
#include "Support/TempTree.h"

namespace {

struct SGpfsCase {
  const char* szName;
  bool bDeclareGpfs;
  int iPolicyExit;
  size_t nRuns;
};

class FsscanGpfsTest : public ::testing::TestWithParam<SGpfsCase> {};

// Runs fsscan with the settings file: its exit code, and its output in strList (with -0 the
// paths sorted, each ended by a NUL byte).
int RunFsscan(const CTempTree& tree, const std::vector<std::string>& lstArgs, std::string& strList) {
  std::string strLine = "FSSCAN_SETTINGS_FILE=" + ShellQuote::Word(tree.Path("settings.ini")) + " " + ShellQuote::Word(FSSCAN_TOOL_PATH);
  for (const std::string& strArg : lstArgs) strLine += " " + ShellQuote::Word(strArg);
  ZrProcess process;
  process.SetStderr(ZrProcess::EOutput::Null);
  if (process.Start(strLine).IsError() || process.WaitForExit(120000).IsError()) return -1;
  strList = process.GetStdout();
  if (std::find(lstArgs.begin(), lstArgs.end(), "-0") == lstArgs.end()) return process.GetExitCode();
  std::vector<std::string> lstPaths = FXString::Split(strList, '\0');
  std::sort(lstPaths.begin(), lstPaths.end());
  strList.clear();
  for (const std::string& strPath : lstPaths) strList += strPath.empty() ? "" : strPath + '\0';
  return process.GetExitCode();
}

TEST_P(FsscanGpfsTest, ListsWhatFindFirstLists) {
  const SGpfsCase& c = GetParam();
  CTempTree tree;
  const std::string strData = tree.MakeDir("data"), strBin = tree.Path("bin");
  tree.MakeFile("data/a.txt", "abc");
  tree.MakeFile("data/sub/new\nline", "x");
  tree.MakeFile("data/sub/with blank", "");
  tree.MakeSymlink("data/link", "a.txt");
  WriteFileText(tree.Path("settings.ini"), "[FileSystemAgent]\nsGpfsBin=" + strBin + "\nnGpfsScanNumRetry=1\n");
  WriteFakeGpfsTools(strBin, {.iPolicyExit = c.iPolicyExit,
                              .strPolicyBody = "find \"$1\" -mindepth 1 -printf \"WEIGHT(INF) LIST 'MODIFIED' %p SHOW(%y:%s:%n)\\n\""});
  std::string strExpected, strList;
  ASSERT_EQ(RunFsscan(tree, {"--engines", "findfirst", "-0", strData}, strExpected), 0);
  std::vector<std::string> lstArgs = {"--engines", "gpfs,findfirst", "--job-results", tree.MakeDir("job"), "-0", strData};
  if (c.bDeclareGpfs) lstArgs.insert(lstArgs.begin(), {"--test-gpfs-volume", strData});
  EXPECT_EQ(RunFsscan(tree, lstArgs, strList), 0);
  EXPECT_EQ(strList, strExpected);
  EXPECT_EQ(std::count(strList.begin(), strList.end(), '\0'), 5);
  EXPECT_EQ(ReadFileLines(strBin + "/mmapplypolicy.runs").size(), c.nRuns);
  // The policy listing carries no permission bits: its items show mode 0000.
  lstArgs.erase(std::find(lstArgs.begin(), lstArgs.end(), "-0"));
  ASSERT_EQ(RunFsscan(tree, lstArgs, strList), 0);
  size_t nPolicyItems = 0;
  for (size_t pos = 0; (pos = strList.find(" 0000 ", pos)) != std::string::npos; ++pos) ++nPolicyItems;
  EXPECT_EQ(nPolicyItems, c.bDeclareGpfs && c.iPolicyExit == 0 ? 5u : 0u);
}

const SGpfsCase kGpfsCases[] = {
    {"NotGpfsFindFirstScans", false, 0, 0},
    {"GpfsVolumeListedByPolicy", true, 0, 1},
    {"PolicyFailsFindFirstScans", true, 1, 1},
};
INSTANTIATE_TEST_SUITE_P(Fsscan, FsscanGpfsTest, ::testing::ValuesIn(kGpfsCases),
                         [](const auto& info) { return std::string(info.param.szName); });

}  // namespace
