// The real LustreAPI's command lines and output parsing, against fake lfs, lctl and ssh scripts
// that record the arguments they were given and print what the tools print; batched path2fid
// against an lfs that answers for a real tree; the library route through a fake liblustreapi.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <functional>

#include "Scan/Unix/LustreToolsAPI.h"
#include "Support/FileText.h"
#include "Support/LogCapture.h"
#include "Support/TempTree.h"

namespace {

// Fake tools in a temporary bin folder first on PATH: each records its arguments as
// "[arg][arg]..." lines in "<tool>.args", prints "<tool>.out" and exits with "<tool>.exit".
class CFakeTools {
 public:
  CFakeTools() : m_strBin(m_tree.MakeDir("bin")) {
    for (const char* szTool : {"lfs", "lctl", "ssh"}) {
      const std::string strTool = m_strBin + "/" + szTool;
      WriteFileText(strTool, "#!/bin/sh\nfor a in \"$@\"; do printf '[%s]' \"$a\"; done >> \"$0.args\"\necho >> \"$0.args\"\n"
                             "[ -f \"$0.out\" ] && cat \"$0.out\"\n[ -f \"$0.err\" ] && cat \"$0.err\" >&2\n"
                             "[ -f \"$0.exit\" ] && exit $(cat \"$0.exit\")\nexit 0\n");
      chmod(strTool.c_str(), 0755);
    }
    const char* szPath = getenv("PATH");
    m_strOldPath = szPath != nullptr ? szPath : "";
    setenv("PATH", (m_strBin + ":" + m_strOldPath).c_str(), 1);
  }
  ~CFakeTools() { setenv("PATH", m_strOldPath.c_str(), 1); }
  void Answer(const std::string& strTool, const std::string& strOut, int iExit = 0, const std::string& strErr = "") {
    WriteFileText(m_strBin + "/" + strTool + ".out", strOut);
    WriteFileText(m_strBin + "/" + strTool + ".err", strErr);
    WriteFileText(m_strBin + "/" + strTool + ".exit", std::to_string(iExit));
  }
  std::vector<std::string> Calls(const std::string& strTool) { return ReadFileLines(m_strBin + "/" + strTool + ".args"); }
  // Makes lfs answer path2fid for real paths as lfs does: one path prints its FID alone, several
  // print "PATH: [FID]" each; a path that does not resolve is a message on standard error and a
  // non-zero exit. A path holding "noline" gets no line in a batch (an unmatched answer).
  void EmulatePath2Fid() {
    const std::string strTool = m_strBin + "/lfs";
    WriteFileText(strTool, "#!/bin/sh\nshift\necho $# >> \"$0.count\"\nn=$#\nrc=0\nfor p in \"$@\"; do\n"
                           "  if i=$(stat -c %i -- \"$p\" 2>/dev/null); then\n"
                           "    f=$(printf '[0x%x:0x%x:0x0]' $((0x200000400 + (i >> 32))) $((i & 0xffffffff)))\n"
                           "    if [ $n -eq 1 ]; then echo \"$f\"; else case \"$p\" in *noline*) ;; "
                           "*) printf '%s: %s\\n' \"$p\" \"$f\";; esac; fi\n"
                           "  else echo \"lfs path2fid: cannot get fid for '$p': No such file or directory\" >&2; rc=2; fi\n"
                           "done\nexit $rc\n");
  }
  // The number of paths given to each call of the emulated path2fid, one line per call.
  std::string PathsPerCall() { return ReadFileText(m_strBin + "/lfs.count"); }

  CTempTree m_tree;
  std::string m_strBin, m_strOldPath;
};

const LustreAPI::SMdt kMdt{"lustre-MDT0000", "mds0"};

struct SCommandCase {
  const char* szName;
  const char* szTool;
  std::string strOutput;
  std::function<CQiError(CLustreToolsAPI&, std::string&)> call;  // the result as text into the string
  std::string strArgs;    // what the tool was given
  std::string strResult;  // what the call gave
};

const SCommandCase kCommandCases[] = {
    {"Register", "ssh", "lustre-MDT0000: Registered changelog userid 'cl7'\n",
     [](auto& api, auto& r) { return api.RegisterChangelog(kMdt, "root", r); },
     "[-o][BatchMode=yes][root@mds0][lctl --device lustre-MDT0000 changelog_register]", "cl7"},
    {"RegisterHostileNames", "ssh", "x: Registered changelog userid 'cl1'\n",
     [](auto& api, auto& r) { return api.RegisterChangelog({"a b;touch /tmp/lustre-pwned", "-oProxyCommand=x"}, "u$(id)", r); },
     "[-o][BatchMode=yes][u$(id)@-oProxyCommand=x][lctl --device 'a b;touch /tmp/lustre-pwned' changelog_register]",
     "cl1"},
    {"Deregister", "ssh", "",
     [](auto& api, auto&) { return api.DeRegisterChangelog(kMdt, "backup", "cl2"); },
     "[-o][BatchMode=yes][backup@mds0][lctl --device lustre-MDT0000 changelog_deregister cl2]", ""},
    {"CurrentIndex", "ssh",
     "mdd.lustre-MDT0000.changelog_users=\ncurrent index: 1234\nID    index (idle seconds)\ncl1   1000 (52)\n",
     [](auto& api, auto& r) {
       int64_t ll = 0;
       CQiError e = api.GetChangelogCurrentIndex(kMdt, "root", ll);
       r = std::to_string(ll);
       return e;
     },
     "[-o][BatchMode=yes][root@mds0][lctl get_param mdd.lustre-MDT0000.changelog_users]", "1234"},
    {"StartAndEndOlderFormat", "ssh", "mdd.lustre-MDT0000.changelog_users=current index: 88\nID    index\ncl1   10\ncl2   40\n",
     [](auto& api, auto& r) {
       int64_t llStart = 0, llEnd = 0;
       CQiError e = api.GetStartAndEndChangelogRecordNumbers(kMdt, "root", "cl2", llStart, llEnd);
       r = std::to_string(llStart) + "-" + std::to_string(llEnd);
       return e;
     },
     "[-o][BatchMode=yes][root@mds0][lctl get_param mdd.lustre-MDT0000.changelog_users]", "41-88"},
    {"Changelogs", "lfs", "1 01CREAT 13:57:43.4 2026.11.23 0x0 t=[0x2:0x1:0x0] p=[0x7:0x1:0x0] a b\n",
     [](auto& api, auto& r) {
       const std::string strFile = "/tmp/lustre-tools-test-" + std::to_string(getpid());
       CQiError e = api.GetChangelogs("/mnt/lustre", "lustre-MDT0000", 5, 9, strFile);
       r = ReadFileText(strFile);
       unlink(strFile.c_str());
       return e;
     },
     "[changelog][lustre-MDT0000][5][9]", "1 01CREAT 13:57:43.4 2026.11.23 0x0 t=[0x2:0x1:0x0] p=[0x7:0x1:0x0] a b\n"},
    {"Clear", "lfs", "", [](auto& api, auto&) { return api.ClearChangelog("/mnt/lustre", "lustre-MDT0001", "cl3", 77); },
     "[changelog_clear][lustre-MDT0001][cl3][77]", ""},
    {"Fid2PathRelativeAndAbsolute", "lfs", "dir/a b\n/mnt/lustre/other/c\n",
     [](auto& api, auto& r) {
       std::vector<std::string> lst;
       CQiError e = api.GetPathFromFID("/mnt/lustre", LustreAPI::CLustreFID(0x200000401, 1, 0), lst);
       for (const auto& s : lst) r += s + "|";
       return e;
     },
     "[fid2path][/mnt/lustre][[0x200000401:0x1:0x0]]", "/mnt/lustre/dir/a b|/mnt/lustre/other/c|"},
    {"Path2FidWithPathPrefix", "lfs", "/mnt/lustre/a: [0x200000401:0x2b:0x0]\n",
     [](auto& api, auto& r) {
       LustreAPI::CLustreFID fid;
       CQiError e = api.GetFIDFromPath("/mnt/lustre/a", fid);
       r = fid.ToString();
       return e;
     },
     "[path2fid][/mnt/lustre/a]", "[0x200000401:0x2b:0x0]"},
};

class LustreToolsCommandTest : public ::testing::TestWithParam<SCommandCase> {};

TEST_P(LustreToolsCommandTest, ExactArgumentsAndParsedOutput) {
  const SCommandCase& c = GetParam();
  CFakeTools tools;
  tools.Answer(c.szTool, c.strOutput);
  CLustreToolsAPI api;
  std::string strResult;
  CQiError error = c.call(api, strResult);
  ASSERT_TRUE(error.IsSuccess()) << error.AsString();
  EXPECT_EQ(tools.Calls(c.szTool), std::vector<std::string>{c.strArgs});
  EXPECT_EQ(strResult, c.strResult);
  struct stat st {};
  EXPECT_NE(stat("/tmp/lustre-pwned", &st), 0);
}

INSTANTIATE_TEST_SUITE_P(Lustre, LustreToolsCommandTest, ::testing::ValuesIn(kCommandCases),
                         [](const auto& info) { return std::string(info.param.szName); });

struct SFailureCase {
  const char* szName;
  const char* szTool;
  std::string strOutput, strError;
  int iExit;
  std::function<CQiError(CLustreToolsAPI&)> call;
  uint32_t uCode;
  const char* szText;  // in the error's text
};

const SFailureCase kFailureCases[] = {
    {"HostRefusesTheShell", "ssh", "", "Permission denied (publickey,password).", 255,
     [](auto& api) { std::string s; return api.RegisterChangelog(kMdt, "root", s); }, QiErrorCode::FunctionFailed,
     "failed with exit code 255: Permission denied (publickey,password)."},
    {"RegisterPrintsNoId", "ssh", "error: changelog_register: Operation not permitted\n", "", 0,
     [](auto& api) { std::string s; return api.RegisterChangelog(kMdt, "root", s); }, QiErrorCode::FunctionFailed,
     "Unexpected changelog_register output"},
    {"ReaderNotListed", "ssh", "mdd.lustre-MDT0000.changelog_users=\ncurrent index: 5\nID index (idle seconds)\ncl1 0 (1)\n", "", 0,
     [](auto& api) { int64_t a, b; return api.GetStartAndEndChangelogRecordNumbers(kMdt, "root", "cl9", a, b); },
     QiErrorCode::NotFound, "The changelog reader cl9 is not registered"},
    {"NoCurrentIndex", "ssh", "error: get_param: param_path 'mdd/x/changelog_users': No such file\n", "", 0,
     [](auto& api) { int64_t a; return api.GetChangelogCurrentIndex(kMdt, "root", a); }, QiErrorCode::FunctionFailed,
     "No current index in changelog_users output"},
    {"Fid2PathUnknownFid", "lfs", "", "fid2path: error on FID [0x2:0x1:0x0]: No such file or directory", 2,
     [](auto& api) { std::vector<std::string> v; return api.GetPathFromFID("/mnt/lustre", LustreAPI::CLustreFID(2, 1, 0), v); },
     QiErrorCode::NotFound, "No such file or directory"},
    {"ChangelogFails", "lfs", "", "lfs changelog: cannot access changelog: Invalid argument", 22,
     [](auto& api) { return api.GetChangelogs("/mnt/lustre", "lustre-MDT0000", 1, 2, "/dev/null"); },
     QiErrorCode::FunctionFailed, "failed with exit code 22"},
    {"MdtsListNothing", "lfs", "MDTS:\n", "", 0,
     [](auto& api) { std::vector<LustreAPI::SMdt> v; return api.GetMDTList("/mnt/lustre", v); },
     QiErrorCode::FunctionFailed, "listed no MDT"},
};

class LustreToolsFailureTest : public ::testing::TestWithParam<SFailureCase> {};

TEST_P(LustreToolsFailureTest, CodeAndText) {
  const SFailureCase& c = GetParam();
  CFakeTools tools;
  tools.Answer(c.szTool, c.strOutput, c.iExit, c.strError);
  CLustreToolsAPI api;
  CQiError error = c.call(api);
  EXPECT_TRUE(error.IsWin32(c.uCode)) << error.AsString();
  EXPECT_NE(error.AsString().find(c.szText), std::string::npos) << error.AsString();
}

INSTANTIATE_TEST_SUITE_P(Lustre, LustreToolsFailureTest, ::testing::ValuesIn(kFailureCases),
                         [](const auto& info) { return std::string(info.param.szName); });

TEST(LustreTools, MdtListWithHostsFromTheClientConnections) {
  CFakeTools tools;
  tools.Answer("lfs", "MDTS:\n0: lustre-MDT0000_UUID ACTIVE\n1: lustre-MDT0001_UUID INACTIVE\n");
  tools.Answer("lctl", "192.168.7.10@tcp\n");
  CLustreToolsAPI api;
  std::vector<LustreAPI::SMdt> lstMdt;
  ASSERT_TRUE(api.GetMDTList("/mnt/lustre", lstMdt).IsSuccess());
  ASSERT_EQ(lstMdt.size(), 2u);
  EXPECT_EQ(lstMdt[1].strName, "lustre-MDT0001");
  EXPECT_EQ(lstMdt[1].strHost, "192.168.7.10");
  EXPECT_EQ(tools.Calls("lfs"), std::vector<std::string>{"[mdts][/mnt/lustre]"});
  EXPECT_EQ(tools.Calls("lctl"), (std::vector<std::string>{"[get_param][-n][mdc.lustre-MDT0000-mdc-*.mds_conn_uuid]",
                                                          "[get_param][-n][mdc.lustre-MDT0001-mdc-*.mds_conn_uuid]"}));
}

// ---- FIDs of real paths: "fid:NAME" when a path got the FID of the named path, else the error ----

std::string FidOf(const std::string& strPath) {
  struct stat st {};
  if (lstat(strPath.c_str(), &st) != 0) return "?";
  return LustreAPI::CLustreFID(0x200000400ULL + (st.st_ino >> 32), st.st_ino & 0xffffffffULL, 0).ToString();
}

std::string Show(const std::string& strRoot, const LustreAPI::CLustreFID& fid, const CQiError& error,
                 const std::string& strName) {
  if (error.IsError()) return (error.IsWin32() ? "win32:" : "errno:") + std::to_string(error.GetCode());
  return fid.ToString() == FidOf(strRoot + "/" + strName) ? "fid:" + strName : "wrong:" + fid.ToString();
}

// FIDs of the names below the root, each shown, joined with '|'.
std::string Path2Fid(CLustreToolsAPI& api, const std::string& strRoot, const std::vector<std::string>& lstNames) {
  std::vector<std::string> lstPaths;
  for (const std::string& strName : lstNames) lstPaths.push_back(strRoot + "/" + strName);
  std::vector<LustreAPI::CLustreFID> lstFids;
  std::vector<CQiError> lstErrors;
  CQiError error = api.GetFIDsFromPaths(lstPaths, lstFids, lstErrors);
  if (error.IsError() || lstFids.size() != lstPaths.size() || lstErrors.size() != lstPaths.size())
    return "failed: " + error.AsString();
  std::string strResult;
  for (size_t i = 0; i < lstNames.size(); ++i) strResult += Show(strRoot, lstFids[i], lstErrors[i], lstNames[i]) + "|";
  return strResult;
}

// ---- path2fid in batches through lfs ----

struct SBatchCase {
  const char* szName;
  std::vector<std::string> lstNames;  // below the tree; "missing" is not made
  std::string strResult;
  const char* szCalls;                // paths per lfs call, a line each
  const char* szCommand;              // the first command line, ROOT for the tree (null: not checked)
  size_t uGenerated = 0, uNameLength = 0;  // that many more names, padded to that length
};

const SBatchCase kBatchCases[] = {
    {"OrdinaryNames", {"a", "d/e"}, "fid:a|fid:d/e|", "2\n", "Running lfs path2fid ROOT/a ROOT/d/e"},
    {"BlanksColonsAndBracketsInNames", {"b c", "x: [0x1:0x2:0x0]", "k:l", "-o"},
     "fid:b c|fid:x: [0x1:0x2:0x0]|fid:k:l|fid:-o|", "4\n",
     "Running lfs path2fid 'ROOT/b c' 'ROOT/x: [0x1:0x2:0x0]' ROOT/k:l ROOT/-o"},
    // The line of "missing: [0x1:0x2:0x0]" starts like one for "missing", which has none.
    {"FailingPathInTheMiddleAskedAlone", {"a", "missing", "missing: [0x1:0x2:0x0]", "b c"},
     "fid:a|win32:1168|fid:missing: [0x1:0x2:0x0]|fid:b c|", "4\n1\n",
     "Running lfs path2fid ROOT/missing"},
    {"UnmatchedLineAskedAlone", {"a", "noline", "b c"}, "fid:a|fid:noline|fid:b c|", "3\n1\n",
     "Running lfs path2fid ROOT/noline"},
    {"NewlineInNameAskedAlone", {"a", "b\nc: [0x9:0x9:0x0]", "b"}, "fid:a|fid:b\nc: [0x9:0x9:0x0]|fid:b|",
     "2\n1\n", "Running lfs path2fid ROOT/a ROOT/b"},
    {"PathCountCap", {}, "", "256\n44\n", nullptr, 300, 4},
    {"CommandLengthCap", {}, "", "234\n66\n", nullptr, 300, 255},  // 280 bytes a path: 234 fit in 64 KiB
};

class LustreBatchPath2FidTest : public ::testing::TestWithParam<SBatchCase> {};

TEST_P(LustreBatchPath2FidTest, OneCallPerBatchAndEveryPathAnswered) {
  SBatchCase c = GetParam();
  CFakeTools tools;
  tools.EmulatePath2Fid();
  CTempTree tree("/tmp");  // a root of known length: the byte cap splits at a known place
  for (size_t i = 0; i < c.uGenerated; ++i) {
    c.lstNames.push_back("g" + std::to_string(i));
    c.lstNames.back().resize(std::max(c.lstNames.back().size(), c.uNameLength), 'x');
    c.strResult += "fid:" + c.lstNames.back() + "|";
  }
  for (const std::string& strName : c.lstNames)
    if (strName != "missing") tree.MakeFile(strName);
  CLustreToolsAPI api;
  CLogCapture log;
  EXPECT_EQ(Path2Fid(api, tree.Root(), c.lstNames), c.strResult);
  EXPECT_EQ(tools.PathsPerCall(), c.szCalls);
  if (c.szCommand != nullptr) {
    std::string strCommand = c.szCommand;
    for (size_t pos; (pos = strCommand.find("ROOT")) != std::string::npos;) strCommand.replace(pos, 4, tree.Root());
    EXPECT_EQ(log->Count(strCommand), 1u) << strCommand;
  }
}

INSTANTIATE_TEST_SUITE_P(Lustre, LustreBatchPath2FidTest, ::testing::ValuesIn(kBatchCases),
                         [](const auto& info) { return std::string(info.param.szName); });

// ---- the library: path2fid and fid2path in this process, lfs for what it lacks ----

struct SLibraryCase {
  const char* szName;
  const char* szLibrary;  // the fake, the fake without llapi_fid2path, or a file that is not there
  bool bFid2Path;         // the paths of the first name's FID, else the FIDs of the names
  std::vector<std::string> lstNames;
  std::string strResult;
  size_t uLfsCalls;
};

const SLibraryCase kLibraryCases[] = {
    {"Path2Fid", FAKE_LUSTREAPI, false, {"h1", "gone", "d/b c"}, "fid:h1|errno:2|fid:d/b c|", 0},
    {"Fid2PathEveryLink", FAKE_LUSTREAPI, true, {"h1"}, "/d/h3|/h1|/h2|", 0},
    {"Fid2PathUnknown", FAKE_LUSTREAPI, true, {"gone"}, "errno:2|", 0},
    {"LackingFid2PathRunsLfs", FAKE_LUSTREAPI_LACKING, true, {"h1"}, "/h1|", 1},
    {"LackingFid2PathStillPath2Fid", FAKE_LUSTREAPI_LACKING, false, {"h2"}, "fid:h2|", 0},
    {"NoLibraryRunsLfs", "/nonexistent/liblustreapi.so.1", false, {"h1", "d/b c"}, "fid:h1|fid:d/b c|", 1},
};

class LustreLibraryTest : public ::testing::TestWithParam<SLibraryCase> {};

TEST_P(LustreLibraryTest, LibraryWhenItHasTheFunctionElseLfs) {
  const SLibraryCase& c = GetParam();
  CFakeTools tools;
  CTempTree tree;
  tree.MakeFile("d/b c");
  tree.MakeFile("h1");
  (void)link(tree.Path("h1").c_str(), tree.Path("h2").c_str());
  (void)link(tree.Path("h1").c_str(), tree.Path("d/h3").c_str());
  if (c.bFid2Path) tools.Answer("lfs", "h1\n");
  else tools.EmulatePath2Fid();
  // The first file that is there loads; the other is passed over.
  CLustreToolsAPI api({"/nonexistent/liblustreapi.so.1", c.szLibrary});
  ASSERT_TRUE(api.LoadFunctions().IsSuccess());
  std::string strResult;
  if (c.bFid2Path) {
    LustreAPI::CLustreFID fid;
    (void)LustreAPI::CLustreFID::FromText(FidOf(tree.Path(c.lstNames[0])), fid);
    std::vector<std::string> lstPaths;
    CQiError error = api.GetPathFromFID(tree.Root(), fid, lstPaths);
    if (error.IsError()) strResult = Show(tree.Root(), fid, error, "") + "|";
    for (const std::string& strPath : lstPaths) strResult += strPath.substr(tree.Root().size()) + "|";
  } else {
    strResult = Path2Fid(api, tree.Root(), c.lstNames);
  }
  EXPECT_EQ(strResult, c.strResult);
  // Each call in this process (none through lfs) unless the library lacks the function.
  EXPECT_EQ(ReadFileLines(tools.m_strBin + "/lfs.count").size() + tools.Calls("lfs").size(), c.uLfsCalls);
}

INSTANTIATE_TEST_SUITE_P(Lustre, LustreLibraryTest, ::testing::ValuesIn(kLibraryCases),
                         [](const auto& info) { return std::string(info.param.szName); });

}  // namespace
