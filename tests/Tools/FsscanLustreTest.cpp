// fsscan with --engines lustre,findfirst: on a folder that is not Lustre the findfirst engine
// lists it; on a folder served as a simulated Lustre (--test-lustre-volume) the first run is a
// full job listing what findfirst lists, each later run lists exactly what the changelog says
// changed, and a run without changes lists nothing.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "Platform/FXString.h"
#include "Platform/ShellQuote.h"
#include "Platform/ZrProcess.h"
#include "Scan/Unix/SimulatedLustreAPI.h"
#include "Support/FileText.h"
#include "Support/TempTree.h"

namespace {

#ifndef FSSCAN_TOOL_PATH
TEST(FsscanLustre, NotBuilt) { GTEST_SKIP() << "the fsscan tool is not part of this build"; }
#else

std::vector<std::string> SortedPaths(const std::string& strList) {
  std::vector<std::string> lstPaths = FXString::Split(strList, '\0');
  if (!lstPaths.empty() && lstPaths.back().empty()) lstPaths.pop_back();
  std::sort(lstPaths.begin(), lstPaths.end());
  return lstPaths;
}

class FsscanLustre : public ::testing::Test {
 protected:
  void SetUp() override {
    m_strData = m_tree.MakeDir("data");
    m_tree.MakeFile("data/a.txt", "abc");
    m_tree.MakeFile("data/sub/with blank", "");
    m_tree.MakeSymlink("data/link", "a.txt");
    m_strJob = m_tree.MakeDir("job");
  }
  int Run(const std::vector<std::string>& lstArgs, std::string& strList) {
    std::string strLine = ShellQuote::Word(FSSCAN_TOOL_PATH);
    for (const std::string& strArg : lstArgs) strLine += " " + ShellQuote::Word(strArg);
    ZrProcess process;
    process.SetStderr(ZrProcess::EOutput::Null);
    if (process.Start(strLine).IsError() || process.WaitForExit(120000).IsError()) return -1;
    strList = process.GetStdout();
    return process.GetExitCode();
  }
  int RunLustre(std::string& strList) {
    return Run({"--test-lustre-volume", m_strData, "--engines", "lustre,findfirst", "--job-results", m_strJob, "-0",
                m_strData},
               strList);
  }
  // Changes the tree through a simulated Lustre sharing fsscan's state, so that the records land
  // in the changelog file fsscan's simulated Lustre reads.
  void Change(const std::function<void(CSimulatedLustreAPI&)>& change) {
    CSimulatedLustreAPI api(m_strData, {{"lustre-MDT0000", "localhost"}}, m_strJob + "/simulated-lustre");
    change(api);
  }
  CTempTree m_tree;
  std::string m_strData, m_strJob;
};

TEST_F(FsscanLustre, NotLustreFallsToFindFirst) {
  std::string strExpected, strList;
  ASSERT_EQ(Run({"--engines", "findfirst", "-0", m_strData}, strExpected), 0);
  EXPECT_EQ(Run({"--engines", "lustre,findfirst", "--job-results", m_strJob, "-0", m_strData}, strList), 0);
  EXPECT_EQ(SortedPaths(strList), SortedPaths(strExpected));
}

TEST_F(FsscanLustre, FullThenOnlyTheChanges) {
  std::string strExpected, strList;
  ASSERT_EQ(Run({"--engines", "findfirst", "-0", m_strData}, strExpected), 0);
  ASSERT_EQ(RunLustre(strList), 0);
  EXPECT_EQ(SortedPaths(strList), SortedPaths(strExpected));
  EXPECT_EQ(ReadFileText(m_strJob + "/ZrPostOpState.zrf"), "1\n");
  Change([](CSimulatedLustreAPI& api) {
    (void)api.Create("sub/new one.txt", "n");
    (void)api.Rename("a.txt", "sub/b.txt");
    (void)api.Chmod("link", 0700);
  });
  ASSERT_EQ(RunLustre(strList), 0);
  EXPECT_EQ(SortedPaths(strList), (std::vector<std::string>{m_strData + "/sub", m_strData + "/sub/b.txt", m_strData + "/sub/new one.txt"}));
  ASSERT_EQ(RunLustre(strList), 0);
  EXPECT_EQ(SortedPaths(strList), std::vector<std::string>{});
  EXPECT_EQ(ReadFileText(m_strJob + "/ZrPostOpState.zrf"), "3\n");
}

#endif

}  // namespace
