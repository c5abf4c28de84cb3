// The real LustreAPI's command lines and output parsing, against fake lfs, lctl and ssh scripts
// that record the arguments they were given and print what the tools print; batched path2fid
// against an lfs that answers for a real tree; the library route through a fake liblustreapi.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <functional>
#include <map>

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
  // Paths given to each call of the emulated path2fid.
  std::vector<size_t> PathsPerCall() {
    std::vector<size_t> vCalls;
    for (const std::string& strLine : ReadFileLines(m_strBin + "/lfs.count")) vCalls.push_back(std::stoul(strLine));
    return vCalls;
  }

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
    {"Path2Fid", "lfs", "[0x200000401:0x2a:0x0]\n",
     [](auto& api, auto& r) {
       LustreAPI::CLustreFID fid;
       CQiError e = api.GetFIDFromPath("/mnt/lustre/-x y", fid);
       r = fid.ToString();
       return e;
     },
     "[path2fid][/mnt/lustre/-x y]", "[0x200000401:0x2a:0x0]"},
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

// ---- FIDs of real paths, shown relative to the tree ----

// The FID the fakes give a path (from its inode), as text.
std::string FidOf(const std::string& strPath) {
  struct stat st {};
  if (lstat(strPath.c_str(), &st) != 0) return "?";
  return LustreAPI::CLustreFID(0x200000400ULL + (st.st_ino >> 32), st.st_ino & 0xffffffffULL, 0).ToString();
}

// "fid:NAME" when the FID is the named path's, else "errno:N" / "win32:N" for an error.
std::string Show(const std::string& strRoot, const LustreAPI::CLustreFID& fid, const CQiError& error,
                 const std::string& strName) {
  if (error.IsError()) return (error.IsWin32() ? "win32:" : "errno:") + std::to_string(error.GetCode());
  return fid.ToString() == FidOf(strRoot + "/" + strName) ? "fid:" + strName : "wrong:" + fid.ToString();
}

// ---- path2fid in batches through lfs ----

struct SBatchCase {
  const char* szName;
  std::vector<std::string> lstNames;  // paths below the tree; those named "missing..." are not made
  size_t uGenerated;                  // that many more, "g<number>" padded to uNameLength
  size_t uNameLength;
  std::vector<size_t> vCalls;         // paths per lfs call, in order
  const char* szCommand;              // the first command line, ROOT for the tree (null: not checked)
  std::vector<std::string> lstResults;  // per named path (generated ones must all get their FID)
};

const SBatchCase kBatchCases[] = {
    {"OrdinaryNames", {"a", "d/e"}, 0, 0, {2}, "Running lfs path2fid ROOT/a ROOT/d/e", {"fid:a", "fid:d/e"}},
    {"BlanksColonsAndBracketsInNames", {"b c", "x: [0x1:0x2:0x0]", "k:l", "-o"}, 0, 0, {4},
     "Running lfs path2fid 'ROOT/b c' 'ROOT/x: [0x1:0x2:0x0]' ROOT/k:l ROOT/-o",
     {"fid:b c", "fid:x: [0x1:0x2:0x0]", "fid:k:l", "fid:-o"}},
    {"FailingPathInTheMiddleAskedAlone", {"a", "missing", "b c"}, 0, 0, {3, 1}, "Running lfs path2fid ROOT/missing",
     {"fid:a", "win32:1168", "fid:b c"}},
    {"UnmatchedLineAskedAlone", {"a", "noline", "b c"}, 0, 0, {3, 1}, "Running lfs path2fid ROOT/noline",
     {"fid:a", "fid:noline", "fid:b c"}},
    {"NewlineInName", {"n\nl: [0x9:0x9:0x0]", "a"}, 0, 0, {2}, nullptr, {"fid:n\nl: [0x9:0x9:0x0]", "fid:a"}},
    {"PathCountCap", {}, 300, 4, {256, 44}, nullptr, {}},
    {"CommandLengthCap", {}, 300, 250, {}, nullptr, {}},
};

class LustreBatchPath2FidTest : public ::testing::TestWithParam<SBatchCase> {};

TEST_P(LustreBatchPath2FidTest, OneCallPerBatchAndEveryPathAnswered) {
  const SBatchCase& c = GetParam();
  CFakeTools tools;
  tools.EmulatePath2Fid();
  CTempTree tree;
  std::vector<std::string> lstPaths;
  for (const std::string& strName : c.lstNames) {
    if (strName.rfind("missing", 0) != 0) tree.MakeFile(strName);
    lstPaths.push_back(tree.Path(strName));
  }
  for (size_t i = 0; i < c.uGenerated; ++i) {
    std::string strName = "g" + std::to_string(i);
    strName.resize(std::max(strName.size(), c.uNameLength), 'x');
    tree.MakeFile(strName);
    lstPaths.push_back(tree.Path(strName));
  }
  CLustreToolsAPI api;
  std::vector<LustreAPI::CLustreFID> lstFids;
  std::vector<CQiError> lstErrors;
  CLogCapture log;
  ASSERT_TRUE(api.GetFIDsFromPaths(lstPaths, lstFids, lstErrors).IsSuccess());
  ASSERT_EQ(lstFids.size(), lstPaths.size());
  ASSERT_EQ(lstErrors.size(), lstPaths.size());
  for (size_t i = 0; i < c.lstNames.size(); ++i)
    EXPECT_EQ(Show(tree.Root(), lstFids[i], lstErrors[i], c.lstNames[i]), c.lstResults[i]);
  for (size_t i = c.lstNames.size(); i < lstPaths.size(); ++i)
    EXPECT_EQ(lstFids[i].ToString(), FidOf(lstPaths[i])) << lstPaths[i];
  const std::vector<size_t> vCalls = tools.PathsPerCall();
  if (c.uNameLength > 100) {
    std::vector<size_t> vLengths;  // of the command lines logged
    for (const auto& entry : log->GetEntries()) {
      const size_t pos = entry.text.find("Running lfs path2fid ");
      if (pos != std::string::npos) vLengths.push_back(entry.text.size() - pos - 8);
    }
    EXPECT_EQ(vLengths.size(), vCalls.size());
    // Bounded in bytes before the count cap is reached, each line under the byte cap.
    ASSERT_EQ(vCalls.size(), 2u);
    EXPECT_LT(vCalls[0], CLustreToolsAPI::kPath2FidBatchPaths);
    for (size_t uLength : vLengths) EXPECT_LE(uLength, CLustreToolsAPI::kPath2FidBatchBytes);
  } else {
    EXPECT_EQ(vCalls, c.vCalls);
  }
  if (c.szCommand != nullptr) {
    std::string strCommand = c.szCommand;
    for (size_t pos; (pos = strCommand.find("ROOT")) != std::string::npos;) strCommand.replace(pos, 4, tree.Root());
    EXPECT_EQ(log->Count(strCommand), 1u) << strCommand;
  }
}

INSTANTIATE_TEST_SUITE_P(Lustre, LustreBatchPath2FidTest, ::testing::ValuesIn(kBatchCases),
                         [](const auto& info) { return std::string(info.param.szName); });

// ---- the library: path2fid and fid2path in this process, the tools for what it lacks ----

struct SLibraryCase {
  const char* szName;
  const char* szLibrary;  // the fake, the fake without llapi_fid2path, or a file that is not there
  std::function<std::string(CLustreToolsAPI&, const std::string&)> call;  // outcome as text
  std::string strResult;
  int iLibraryCalls;  // calls the fake counted
  size_t uLfsCalls;
};

std::string Fid2Path(CLustreToolsAPI& api, const std::string& strRoot, const std::string& strName) {
  LustreAPI::CLustreFID fid;
  (void)LustreAPI::CLustreFID::FromText(FidOf(strRoot + "/" + strName), fid);
  std::vector<std::string> lstPaths;
  CQiError error = api.GetPathFromFID(strRoot, fid, lstPaths);
  std::string strResult = error.IsError() ? Show(strRoot, fid, error, "") : "";
  for (const std::string& strPath : lstPaths) strResult += strPath.substr(strRoot.size()) + "|";
  return strResult;
}

std::string Path2Fid(CLustreToolsAPI& api, const std::string& strRoot, const std::vector<std::string>& lstNames) {
  std::vector<std::string> lstPaths;
  for (const std::string& strName : lstNames) lstPaths.push_back(strRoot + "/" + strName);
  std::vector<LustreAPI::CLustreFID> lstFids;
  std::vector<CQiError> lstErrors;
  std::string strResult;
  if (lstPaths.size() == 1) {
    lstFids.resize(1);
    lstErrors.push_back(api.GetFIDFromPath(lstPaths[0], lstFids[0]));
  } else if (CQiError error = api.GetFIDsFromPaths(lstPaths, lstFids, lstErrors); error.IsError()) {
    return error.AsString();
  }
  for (size_t i = 0; i < lstNames.size(); ++i) strResult += Show(strRoot, lstFids[i], lstErrors[i], lstNames[i]) + "|";
  return strResult;
}

const SLibraryCase kLibraryCases[] = {
    {"Path2Fid", FAKE_LUSTREAPI, [](auto& api, auto& r) { return Path2Fid(api, r, {"d/b c"}); }, "fid:d/b c|", 1, 0},
    {"Path2FidMissing", FAKE_LUSTREAPI, [](auto& api, auto& r) { return Path2Fid(api, r, {"gone"}); }, "errno:2|", 1, 0},
    {"BatchPathByPath", FAKE_LUSTREAPI, [](auto& api, auto& r) { return Path2Fid(api, r, {"h1", "gone", "d/b c"}); },
     "fid:h1|errno:2|fid:d/b c|", 3, 0},
    {"Fid2PathEveryLink", FAKE_LUSTREAPI, [](auto& api, auto& r) { return Fid2Path(api, r, "h1"); }, "/d/h3|/h1|/h2|", 3, 0},
    {"Fid2PathOneLink", FAKE_LUSTREAPI, [](auto& api, auto& r) { return Fid2Path(api, r, "d/b c"); }, "/d/b c|", 1, 0},
    {"Fid2PathUnknown", FAKE_LUSTREAPI, [](auto& api, auto& r) { return Fid2Path(api, r, "gone"); }, "errno:2", 1, 0},
    {"LackingFid2PathRunsLfs", FAKE_LUSTREAPI_LACKING, [](auto& api, auto& r) { return Fid2Path(api, r, "h1"); },
     "/h1|", 0, 1},
    {"LackingFid2PathStillPath2Fid", FAKE_LUSTREAPI_LACKING, [](auto& api, auto& r) { return Path2Fid(api, r, {"h2"}); },
     "fid:h2|", 1, 0},
    {"NoLibraryRunsLfs", "/nonexistent/liblustreapi.so.1", [](auto& api, auto& r) { return Path2Fid(api, r, {"h1"}); },
     "fid:h1|", 0, 1},
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
  if (std::string(c.szName).find("Fid2PathRuns") != std::string::npos) tools.Answer("lfs", "h1\n");
  else tools.EmulatePath2Fid();
  void* pHandle = dlopen(c.szLibrary, RTLD_NOW | RTLD_LOCAL);
  auto calls = pHandle ? reinterpret_cast<int (*)()>(dlsym(pHandle, "FakeLustreApiCalls")) : nullptr;
  const int iBefore = calls ? calls() : 0;
  {
    CLustreToolsAPI api({"/nonexistent/liblustreapi.so.1", c.szLibrary});
    CLogCapture log;
    ASSERT_TRUE(api.LoadFunctions().IsSuccess());
    EXPECT_EQ(log->CountContaining("The Lustre library is not available"), pHandle ? 0u : 1u);
    EXPECT_EQ(log->Count("The Lustre library has no llapi_fid2path: fid2path runs lfs"),
              pHandle && c.szLibrary != std::string(FAKE_LUSTREAPI) ? 1u : 0u);
    EXPECT_EQ(c.call(api, tree.Root()), c.strResult);
  }
  EXPECT_EQ((calls ? calls() : 0) - iBefore, c.iLibraryCalls);
  EXPECT_EQ(tools.PathsPerCall().size() + tools.Calls("lfs").size(), c.uLfsCalls);
  if (pHandle) dlclose(pHandle);
}

INSTANTIATE_TEST_SUITE_P(Lustre, LustreLibraryTest, ::testing::ValuesIn(kLibraryCases),
                         [](const auto& info) { return std::string(info.param.szName); });

}  // namespace
