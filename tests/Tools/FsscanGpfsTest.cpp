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

#ifndef FSSCAN_TOOL_PATH
TEST(FsscanGpfs, NotBuilt) { GTEST_SKIP() << "the fsscan tool is not part of this build"; }
#else

// The NUL-ended paths of an -0 listing, sorted.
std::vector<std::string> SortedPaths(const std::string& strList) {
  std::vector<std::string> lstPaths = FXString::Split(strList, '\0');
  if (!lstPaths.empty() && lstPaths.back().empty()) lstPaths.pop_back();
  std::sort(lstPaths.begin(), lstPaths.end());
  return lstPaths;
}

struct SGpfsCase {
  const char* szName;
  bool bDeclareGpfs;
  int iPolicyExit;
  size_t nRuns;
};

class FsscanGpfsTest : public ::testing::TestWithParam<SGpfsCase> {
 protected:
  void SetUp() override {
    m_strData = m_tree.MakeDir("data");
    m_tree.MakeFile("data/a.txt", "abc");
    m_tree.MakeFile("data/sub/new\nline", "x");
    m_tree.MakeFile("data/sub/with blank", "");
    m_tree.MakeSymlink("data/link", "a.txt");
    m_strBin = m_tree.Path("bin");
    m_strJob = m_tree.MakeDir("job");
    WriteFileText(m_tree.Path("settings.ini"), "[FileSystemAgent]\nsGpfsBin=" + m_strBin + "\nnGpfsScanNumRetry=1\n");
  }
  // Runs fsscan with the settings file; returns its exit code and -0 listing.
  int Run(const std::vector<std::string>& lstArgs, std::string& strList) {
    std::string strLine = "FSSCAN_SETTINGS_FILE=" + ShellQuote::Word(m_tree.Path("settings.ini")) + " " +
                          ShellQuote::Word(FSSCAN_TOOL_PATH);
    for (const std::string& strArg : lstArgs) strLine += " " + ShellQuote::Word(strArg);
    ZrProcess process;
    process.SetStderr(ZrProcess::EOutput::Null);
    if (process.Start(strLine).IsError() || process.WaitForExit(120000).IsError()) return -1;
    strList = process.GetStdout();
    return process.GetExitCode();
  }
  CTempTree m_tree;
  std::string m_strData, m_strBin, m_strJob;
};

TEST_P(FsscanGpfsTest, ListsWhatFindFirstLists) {
  const SGpfsCase& c = GetParam();
  SFakeGpfs fake;
  fake.iPolicyExit = c.iPolicyExit;
  fake.strPolicyBody = "find \"$1\" -mindepth 1 -printf \"WEIGHT(INF) LIST 'MODIFIED' %p SHOW(%y:%s:%n)\\n\"";
  WriteFakeGpfsTools(m_strBin, fake);
  std::string strExpected, strList;
  ASSERT_EQ(Run({"--engines", "findfirst", "-0", m_strData}, strExpected), 0);
  std::vector<std::string> lstArgs = {"--engines", "gpfs,findfirst", "--job-results", m_strJob, "-0", m_strData};
  if (c.bDeclareGpfs) lstArgs.insert(lstArgs.begin(), {"--test-gpfs-volume", m_strData});
  EXPECT_EQ(Run(lstArgs, strList), 0);
  EXPECT_EQ(SortedPaths(strList), SortedPaths(strExpected));
  EXPECT_EQ(SortedPaths(strList).size(), 5u);
  EXPECT_EQ(ReadFileLines(m_strBin + "/mmapplypolicy.runs").size(), c.nRuns);
  // The policy listing carries no permission bits: its items show mode 0000.
  lstArgs.erase(std::find(lstArgs.begin(), lstArgs.end(), "-0"));
  ASSERT_EQ(Run(lstArgs, strList), 0);
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

#endif  // FSSCAN_TOOL_PATH

}  // namespace
