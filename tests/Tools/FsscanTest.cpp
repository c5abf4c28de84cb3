// fsscan, run as a program on real temporary trees and compared with GNU find as bytes.
//
// When the suite runs as root, fsscan and find run as the user nobody (setpriv-style: groups
// cleared, ids dropped) so that an unreadable folder really is unreadable.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <grp.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Platform/FXString.h"
#include "Support/FileText.h"
#include "Support/TempTree.h"

namespace {

#ifndef FSSCAN_TOOL_PATH
// The build names the fsscan binary through FSSCAN_TOOL_PATH when it builds the tool.
TEST(Fsscan, NotBuilt) { GTEST_SKIP() << "the fsscan tool is not part of this build"; }
#else

constexpr uid_t kNobody = 65534;
constexpr gid_t kNoGroup = 65534;

struct SRun {
  int iExit = -1;
  std::string strOut, strErr;
};

// Runs a program with its stdout and stderr in files of the folder, as nobody when we are root,
// in the working directory strCwd when one is given. A program that hangs is killed by SIGALRM
// after a minute.
SRun RunProgram(const std::vector<std::string>& lstArgs, const std::string& strScratch,
                const std::string& strCwd = std::string()) {
  const std::string strOut = strScratch + "/stdout", strErr = strScratch + "/stderr";
  const int fdOut = open(strOut.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  const int fdErr = open(strErr.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fdOut < 0 || fdErr < 0) throw std::runtime_error("cannot create the output files");
  std::vector<char*> argv;
  for (const std::string& strArg : lstArgs) argv.push_back(const_cast<char*>(strArg.c_str()));
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    if (dup2(fdOut, STDOUT_FILENO) < 0 || dup2(fdErr, STDERR_FILENO) < 0) _exit(126);
    alarm(60);
    if (!strCwd.empty() && chdir(strCwd.c_str()) != 0) _exit(124);
    if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setresgid(kNoGroup, kNoGroup, kNoGroup) != 0 ||
                           setresuid(kNobody, kNobody, kNobody) != 0))
      _exit(125);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(fdOut);
  close(fdErr);
  int iStatus = 0;
  while (waitpid(pid, &iStatus, 0) < 0 && errno == EINTR) {
  }
  return {WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : 128 + WTERMSIG(iStatus), ReadFileText(strOut), ReadFileText(strErr)};
}

// The paths of a --print0 output; an object reported twice fails the test.
std::set<std::string> SplitPrint0(const std::string& strText) {
  const std::vector<std::string> lstPaths = SplitNul(strText);
  const std::set<std::string> setPaths(lstPaths.begin(), lstPaths.end());
  EXPECT_EQ(lstPaths.size(), setPaths.size()) << "an object was reported twice";
  return setPaths;
}

// The failures file's lines, in any order.
std::multiset<std::string> FailureLines(const std::string& strPath) {
  const std::vector<std::string> lstLines = ReadFileLines(strPath);
  return {lstLines.begin(), lstLines.end()};
}

bool HasExcludedComponent(const std::string& strPath) {
  return strPath.find(".tmp/") != std::string::npos || FXString::EndsWith(strPath, ".tmp");
}

// The trees: "mixed" holds awkward names, links, a FIFO, excluded names and an unreadable
// folder; "long" a folder chain whose full path passes PATH_MAX; "clean" a small readable tree.
class FsscanFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    chmod(m_scratch.Root().c_str(), 0777);  // fsscan running as nobody writes its files here
    for (const auto& [szPath, strContent] :
         {std::pair<const char*, std::string>{"mixed/plain.txt", "hello"}, {"mixed/with blank.txt", "12345678"},
          {"mixed/new\nline", "x"}, {"mixed/tab\tfolder/inner file", "inner"}, {"mixed/bad\xff\xfe utf8", ""},
          {"mixed/dir a/sub/deep.txt", std::string(5000, 'd')}, {"mixed/excluded.tmp", "gone"},
          {"mixed/folder.tmp/child.txt", "gone too"}, {"mixed/dir a/also.tmp", "gone"},
          {"mixed/locked/secret.txt", "unseen"}, {"clean/dir a/x.txt", "x"}, {"clean/y", "yy"}})
      m_tree.MakeFile(szPath, strContent);
    m_tree.MakeSymlink("mixed/link-to-dir", "dir a");
    m_tree.MakeSymlink("mixed/dangling", "nowhere");
    m_tree.MakeFifo("mixed/fifo");
    chmod(m_tree.Path("mixed/locked").c_str(), 0000);
    // The long chain, made relative to descriptors.
    int fd = open(m_tree.MakeDir("long").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (size_t nLength = m_tree.Path("long").size(), i = 0; nLength <= PATH_MAX + 300; ++i) {
      const std::string strName = FXString::Format("L%02d_", static_cast<int>(i)) + std::string(200, 'n');
      ASSERT_EQ(mkdirat(fd, strName.c_str(), 0755), 0) << strerror(errno);
      const int fdNext = openat(fd, strName.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      close(fd);
      fd = fdNext;
      nLength += 1 + strName.size();
    }
    close(openat(fd, "bottom.txt", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    close(fd);
  }

  SRun Fsscan(std::vector<std::string> lstArgs, const std::string& strCwd = std::string()) {
    lstArgs.insert(lstArgs.begin(), FSSCAN_TOOL_PATH);
    return RunProgram(lstArgs, m_scratch.Root(), strCwd);
  }
  // "{T}" stands for the tree's root, "{S}" for the scratch folder.
  std::string Expand(std::string strText) {
    for (const auto& [strKey, strValue] : {std::pair<std::string, std::string>{"{T}", m_tree.Root()}, {"{S}", m_scratch.Root()}})
      for (size_t pos; (pos = strText.find(strKey)) != std::string::npos;) strText.replace(pos, strKey.size(), strValue);
    return strText;
  }
  // "many": enough items with long names that the item list passes the output's 64 KiB blocks.
  void MakeManyFiles() {
    for (int i = 0; i < 600; ++i) m_tree.MakeFile(FXString::Format("many/%04d_", i) + std::string(120, 'm'), "");
  }
  // "dev": a character and a block device node, and a link to the first (root only).
  void MakeDevices() {
    ASSERT_EQ(mknod(m_tree.MakeDir("dev").append("/chr").c_str(), S_IFCHR | 0644, makedev(1, 3)), 0) << strerror(errno);
    ASSERT_EQ(mknod(m_tree.Path("dev/blk").c_str(), S_IFBLK | 0644, makedev(7, 0)), 0) << strerror(errno);
    m_tree.MakeSymlink("dev/link", "chr");
  }
  // `find PATH -mindepth 1 -print0`, as the same user as fsscan, less the excluded entries.
  std::set<std::string> Find(const std::string& strPath) {
    std::set<std::string> setPaths;
    const SRun run = RunProgram({"/usr/bin/find", strPath, "-mindepth", "1", "-print0"}, m_scratch.Root());
    for (const std::string& strFound : SplitNul(run.strOut))
      if (!HasExcludedComponent(strFound)) setPaths.insert(strFound);
    return setPaths;
  }

  CTempTree m_tree;
  CTempTree m_scratch;
};

// --print0 against find, through the facade, the fast driver and the scan arbiter's engines: on
// the mixed tree (where the unreadable folder is content that failed) and on the long chain
// (where the objects beyond PATH_MAX are listed too, and nothing fails).
struct SPrint0Case {
  const char* szName;
  const char* szTree;
  std::vector<std::string> lstArgs;  // how the scan runs
};

class FsscanPrint0 : public FsscanFixture, public ::testing::WithParamInterface<SPrint0Case> {};

TEST_P(FsscanPrint0, ReportsWhatFindListsMinusTheExcludedAndRecordsWhatItCannotRead) {
  const std::string strRoot = m_tree.Path(GetParam().szTree), strFailures = m_scratch.Path("failures");
  const bool bMixed = strRoot == m_tree.Path("mixed");
  std::vector<std::string> lstArgs{"--print0", "--exclude", "*.tmp", "--failures", strFailures};
  lstArgs.insert(lstArgs.end(), GetParam().lstArgs.begin(), GetParam().lstArgs.end());
  lstArgs.push_back(strRoot);
  const SRun run = Fsscan(lstArgs);
  EXPECT_EQ(run.iExit, bMixed ? 1 : 0) << run.strErr;

  const std::set<std::string> setExpected = Find(strRoot);
  if (bMixed) {
    ASSERT_TRUE(setExpected.count(strRoot + "/new\nline") && setExpected.count(strRoot + "/link-to-dir"));
    EXPECT_FALSE(setExpected.count(strRoot + "/locked/secret.txt"));  // unreadable for find too
  } else {
    ASSERT_GT(std::count_if(setExpected.begin(), setExpected.end(), [](const std::string& p) { return p.size() >= PATH_MAX; }), 1)
        << "the chain does not pass PATH_MAX";
  }
  EXPECT_EQ(SplitPrint0(run.strOut), setExpected);
  EXPECT_EQ(FailureLines(strFailures),
            bMixed ? std::multiset<std::string>{"folder " + strRoot + "/locked:13"} : std::multiset<std::string>{});
}

INSTANTIATE_TEST_SUITE_P(
    Engines, FsscanPrint0,
    ::testing::Values(SPrint0Case{"Facade", "mixed", {"--workers", "1"}},
                      SPrint0Case{"FastDriver4Workers", "mixed", {"--workers", "4"}},
                      SPrint0Case{"ArbiterFastThenFindFirst", "mixed",
                                  {"--engines", "fast,findfirst", "--workers", "2", "--scanners", "2"}},
                      SPrint0Case{"Traverse2Workers", "mixed", {"--traverse", "--workers", "2"}},
                      SPrint0Case{"LongFacade", "long", {"--workers", "1"}},
                      SPrint0Case{"LongArbiterFindFirst", "long", {"--engines", "findfirst"}},
                      SPrint0Case{"LongTraverse2Workers", "long", {"--traverse", "--workers", "2"}}),
    [](const auto& info) { return std::string(info.param.szName); });

// --from-file: the on-demand engine scans the listed files alone, the listed folder as find lists
// it minus the excluded (the folder itself only with --top-level), records the missing path and
// skips "/".
class FsscanFromFile : public FsscanFixture, public ::testing::WithParamInterface<bool> {};

TEST_P(FsscanFromFile, ReportsTheListedFilesAndTheListedFolderAsFindDoes) {
  const std::string strMixed = m_tree.Path("mixed"), strAbsent = m_tree.Path("clean/absent");
  const std::string strContent = m_scratch.Path("content"), strFailures = m_scratch.Path("failures");
  WriteFileText(strContent, m_tree.Path("clean/y") + "\n/\n" + strMixed + "\n" + strAbsent + "\n" +
                                m_tree.Path("clean/dir a/x.txt") + "\n");
  std::vector<std::string> lstArgs{"--print0", "--exclude", "*.tmp", "--failures", strFailures, "--from-file", strContent};
  if (GetParam()) lstArgs.push_back("--top-level");
  const SRun run = Fsscan(lstArgs);
  EXPECT_EQ(run.iExit, 1) << run.strErr;
  std::set<std::string> setExpected = Find(strMixed);
  setExpected.insert({m_tree.Path("clean/y"), m_tree.Path("clean/dir a/x.txt")});
  if (GetParam()) setExpected.insert(strMixed);
  EXPECT_EQ(SplitPrint0(run.strOut), setExpected);
  EXPECT_EQ(FailureLines(strFailures), (std::multiset<std::string>{"folder " + strMixed + "/locked:13", "folder " + strAbsent + ":2"}));
}

INSTANTIATE_TEST_SUITE_P(TopLevel, FsscanFromFile, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "WithTopLevel" : "Plain"; });

// --from-file lists however they come (a named FIFO, a file), read once, with
// every listed object reported once whatever lines repeat or nest (the on-demand engine's suite
// has the other orders and spellings).
enum class EListSource { File, Fifo };

struct SListCase {
  const char* szName;
  EListSource eSource;
  const char* szList;                  // "{T}" is the tree's root
  std::vector<std::string> lstArgs;    // before --from-file
  std::vector<std::string> lstPaths;   // the paths of the --print0 output, sorted
  int iExit = 0;
  const char* szFailures = "";         // the failures file, exactly
};

void PrintTo(const SListCase& testCase, std::ostream* out) { *out << testCase.szName; }

class FsscanList : public FsscanFixture, public ::testing::WithParamInterface<SListCase> {};

TEST_P(FsscanList, ReadsTheListOnceAndReportsEveryObjectOnce) {
  const SListCase& testCase = GetParam();
  const std::string strList = Expand(testCase.szList);
  std::vector<std::string> lstArgs{"-0", "-f", m_scratch.Path("failures")};
  lstArgs.insert(lstArgs.end(), testCase.lstArgs.begin(), testCase.lstArgs.end());
  lstArgs.push_back("--from-file");
  pid_t writer = -1;
  switch (testCase.eSource) {
    case EListSource::File:
      WriteFileText(m_scratch.Path("list"), strList);
      lstArgs.push_back(m_scratch.Path("list"));
      break;
    case EListSource::Fifo:
      ASSERT_EQ(mkfifo(m_scratch.Path("fifo").c_str(), 0666), 0) << strerror(errno);
      lstArgs.push_back(m_scratch.Path("fifo"));
      writer = fork();
      if (writer == 0) {  // one writer, once: a second open by the reader would wait for ever
        const int fd = open(m_scratch.Path("fifo").c_str(), O_WRONLY | O_CLOEXEC);
        _exit(fd >= 0 && write(fd, strList.data(), strList.size()) == static_cast<ssize_t>(strList.size()) ? 0 : 1);
      }
      break;
  }
  const SRun run = Fsscan(lstArgs);
  if (writer > 0) {
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);
  }
  EXPECT_EQ(run.iExit, testCase.iExit) << run.strErr;
  std::vector<std::string> lstReported = SplitNul(run.strOut), lstExpected;
  std::sort(lstReported.begin(), lstReported.end());
  for (const std::string& strPath : testCase.lstPaths) lstExpected.push_back(Expand(strPath));
  EXPECT_EQ(lstReported, lstExpected) << run.strErr;
  EXPECT_EQ(ReadFileText(m_scratch.Path("failures")), Expand(testCase.szFailures));
}

INSTANTIATE_TEST_SUITE_P(
    Lists, FsscanList,
    ::testing::Values(
        SListCase{"NamedFifo", EListSource::Fifo, "{T}/clean/y\n{T}/clean/dir a\n", {},
                  {"{T}/clean/dir a/x.txt", "{T}/clean/y"}},
        SListCase{"NestedWithTopLevel", EListSource::File, "{T}/clean/dir a\n{T}/clean\n{T}/clean/y\n", {"--top-level"},
                  {"{T}/clean", "{T}/clean/dir a", "{T}/clean/dir a/x.txt", "{T}/clean/y"}},
        SListCase{"MissingTwice", EListSource::File, "{T}/absent\n{T}/clean/y\n{T}/absent\n", {}, {"{T}/clean/y"}, 1,
                  "folder {T}/absent:2\n"}),
    [](const auto& info) { return std::string(info.param.szName); });

// The item lines carry lstat's type, permission bits, size and modification time, and the path
// with its control characters escaped.
TEST_F(FsscanFixture, ItemLinesCarryLstatData) {
  const std::string strMixed = m_tree.Path("mixed");
  const SRun print0 = Fsscan({"--print0", strMixed}), lines = Fsscan({strMixed});
  ASSERT_EQ(lines.iExit, print0.iExit) << lines.strErr;
  const std::map<mode_t, char> mapLetters{{S_IFREG, 'f'}, {S_IFDIR, 'd'}, {S_IFLNK, 'l'}, {S_IFIFO, 'p'}};
  std::multiset<std::string> setExpected, setLines;
  for (const std::string& strPath : SplitNul(print0.strOut)) {
    struct stat st {};
    ASSERT_EQ(lstat(strPath.c_str(), &st), 0) << strPath;
    setExpected.insert(FXString::Format("%c %04o %llu %lld.%09ld ", mapLetters.at(st.st_mode & S_IFMT), st.st_mode & 07777,
                                        static_cast<unsigned long long>(st.st_size), static_cast<long long>(st.st_mtim.tv_sec),
                                        st.st_mtim.tv_nsec) + FXString::EscapeControl(strPath));
  }
  std::istringstream in(lines.strOut);
  for (std::string strLine; std::getline(in, strLine);) setLines.insert(strLine);
  EXPECT_EQ(setLines, setExpected);
  EXPECT_EQ(lines.strOut.back(), '\n');
  EXPECT_NE(lines.strOut.find("/new\\nline\n"), std::string::npos);
  EXPECT_NE(lines.strOut.find("/tab\\tfolder/inner file\n"), std::string::npos);
}

// Exit status and what is recorded, per kind of invocation.
const char* const kOutputFull = "fsscan: cannot write the item list: errno 28 (No space left on device)";
const std::vector<std::string> kNothing = {"fsscan: 0 items, 0 folders, 0 bytes, 0 failures, "};
struct SExitCase {
  const char* szName;
  std::vector<std::string> lstArgs;  // "{T}" stands for the tree's root, "{S}" for the scratch folder
  int iExit;
  std::vector<std::string> lstPrint0;  // the paths of the exact --print0 output, in order
  const char* szFailure;               // the one line of the failures file; null: none expected
  const char* szError = nullptr;       // the first line of stderr, when it matters
  std::vector<std::string> lstErrText = {};  // texts that stderr holds somewhere
  const char* szList = nullptr;        // written to {S}/list when given
};

class FsscanExit : public FsscanFixture, public ::testing::WithParamInterface<SExitCase> {};

TEST_P(FsscanExit, EndsWithTheDocumentedStatus) {
  const SExitCase& testCase = GetParam();
  std::vector<std::string> lstArgs;
  for (const std::string& strArg : testCase.lstArgs) lstArgs.push_back(Expand(strArg));
  const std::string strAllArgs = FXString::Join(testCase.lstArgs, " ") + (testCase.szList ? testCase.szList : "");
  if (strAllArgs.find("{T}/many") != std::string::npos) MakeManyFiles();
  if (strAllArgs.find("{T}/dev/") != std::string::npos) {
    if (geteuid() != 0) GTEST_SKIP() << "device nodes need root";
    MakeDevices();
  }
  if (testCase.szList) WriteFileText(m_scratch.Path("list"), Expand(testCase.szList));
  const SRun run = Fsscan(lstArgs);
  EXPECT_EQ(run.iExit, testCase.iExit) << run.strErr;
  std::string strExpectedOut;
  for (const std::string& strPath : testCase.lstPrint0) strExpectedOut.append(Expand(strPath)).push_back('\0');
  EXPECT_EQ(run.strOut, strExpectedOut);
  EXPECT_EQ(ReadFileText(m_scratch.Path("failures")), testCase.szFailure ? Expand(testCase.szFailure) + "\n" : "") << run.strErr;
  if (testCase.szError) {
    EXPECT_EQ(run.strErr.substr(0, run.strErr.find('\n')), Expand(testCase.szError));
  }
  for (const std::string& strText : testCase.lstErrText)
    EXPECT_NE(run.strErr.find(Expand(strText)), std::string::npos) << strText << "\n" << run.strErr;
  // Every scan that ran ends with its summary.
  if (testCase.iExit != 2) {
    EXPECT_NE(run.strErr.find(" items, "), std::string::npos) << run.strErr;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Invocations, FsscanExit,
    ::testing::Values(
        SExitCase{"ReadableTree", {"-0", "-f", "{S}/failures", "{T}/clean/dir a"}, 0, {"{T}/clean/dir a/x.txt"}, nullptr},
        SExitCase{"FileAsContent", {"-0", "-f", "{S}/failures", "{T}/clean/y"}, 0, {"{T}/clean/y"}, nullptr},
        SExitCase{"MissingPath", {"-0", "-f", "{S}/failures", "{T}/clean/absent"}, 1, {}, "folder {T}/clean/absent:2"},
        SExitCase{"MissingBesideReadable", {"-0", "-f", "{S}/failures", "{T}/clean/absent", "{T}/clean/dir a"}, 1,
                  {"{T}/clean/dir a/x.txt"}, "folder {T}/clean/absent:2"},
        SExitCase{"UnreadableFolder", {"-0", "-f", "{S}/failures", "{T}/mixed/locked"}, 1, {}, "folder {T}/mixed/locked:13"},
        SExitCase{"ExcludedEverything", {"-0", "-f", "{S}/failures", "-x", "*.txt", "{T}/clean/dir a"}, 0, {}, nullptr},
        SExitCase{"UnknownOption", {"--bogus", "{T}/clean"}, 2, {}, nullptr},
        SExitCase{"BadWorkers", {"--workers", "0", "{T}/clean"}, 2, {}, nullptr},
        SExitCase{"OutputCannotBeOpened", {"-o", "{S}/absent/out", "{T}/clean"}, 2, {}, nullptr},
        SExitCase{"TopLevelFindFirst", {"-0", "--top-level", "--engines", "findfirst", "{T}/clean/dir a"}, 0,
                  {"{T}/clean/dir a", "{T}/clean/dir a/x.txt"}, nullptr},
        SExitCase{"TopLevelNotWithTraverse", {"-0", "--top-level", "--traverse", "{T}/clean/dir a"}, 0,
                  {"{T}/clean/dir a/x.txt"}, nullptr},
        SExitCase{"UnknownEngine", {"--engines", "fast,bogus", "{T}/clean"}, 2, {}, nullptr,
                  "fsscan: --engines: unknown engine 'bogus' (engines: findfirst, fast, traverse, ondemand, gpfs, lustre)"},
        SExitCase{"EmptyEngineList", {"--engines", "", "{T}/clean"}, 2, {}, nullptr,
                  "fsscan: --engines: the engine list is empty (engines: findfirst, fast, traverse, ondemand, gpfs, lustre)"},
        SExitCase{"ArbiterMissingPath", {"-0", "-f", "{S}/failures", "--engines", "findfirst", "{T}/clean/absent"}, 1,
                  {}, "folder {T}/clean/absent:2"},
        SExitCase{"ContentFileMissing", {"-0", "-f", "{S}/failures", "--from-file", "{S}/absent"}, 2, {}, nullptr,
                  "fsscan: cannot read the content file '{S}/absent': No such file or directory"},
        SExitCase{"ContentFileWithPath", {"--from-file", "{S}/absent", "{T}/clean"}, 2, {}, nullptr,
                  "fsscan: --from-file takes no PATH arguments"},
        SExitCase{"ContentFileWithPathFilter", {"-x", "{T}/clean", "--from-file", "{S}/absent"}, 2, {}, nullptr,
                  "fsscan: with --from-file, --exclude and --exception take patterns, not paths: '{T}/clean'"},
        SExitCase{"ContentFileIsAFolder", {"--from-file", "{T}/clean"}, 2, {}, nullptr,
                  "fsscan: cannot read the content file '{T}/clean': Is a directory"},
        // A failure record that the failures file cannot take is shown, counted apart, and a set-up error.
        SExitCase{"FailuresFileFull", {"-0", "-f", "/dev/full", "{T}/mixed/locked", "{T}/clean/y"}, 2, {"{T}/clean/y"},
                  nullptr, "fsscan: cannot write the failures file '/dev/full': errno 28 (No space left on device)",
                  {"\nfsscan: cannot scan '{T}/mixed/locked' (error 13)\n",
                   " items, 0 folders, 2 bytes, 0 failures (1 not written), "}},
        // An item list that cannot be written: the same answer from every engine, nothing counted.
        SExitCase{"OutputFullFacade", {"-o", "/dev/full", "{T}/many"}, 2, {}, nullptr, kOutputFull, kNothing},
        SExitCase{"OutputFullFast4Workers", {"-o", "/dev/full", "--workers", "4", "{T}/many"}, 2, {}, nullptr, kOutputFull,
                  kNothing},
        SExitCase{"OutputFullFindFirst", {"-o", "/dev/full", "--engines", "findfirst", "{T}/many"}, 2, {}, nullptr, kOutputFull},
        SExitCase{"OutputFullFast", {"-o", "/dev/full", "--engines", "fast", "{T}/many"}, 2, {}, nullptr, kOutputFull},
        SExitCase{"OutputFullTraverse", {"-o", "/dev/full", "--traverse", "--workers", "2", "{T}/many"}, 2, {}, nullptr,
                  kOutputFull},
        SExitCase{"OutputFullOnDemand", {"-o", "/dev/full", "--engines", "ondemand", "{S}/list"}, 2, {}, nullptr, kOutputFull,
                  {}, "{T}/many\n"},
        SExitCase{"OutputFullFromFile", {"-o", "/dev/full", "--from-file", "{S}/list"}, 2, {}, nullptr, kOutputFull, kNothing,
                  "{T}/many\n"},
        // Device nodes named as content are reported as the objects themselves, never read.
        SExitCase{"DevicesAsContent", {"-0", "-f", "{S}/failures", "/dev/null", "{T}/dev/blk", "{T}/dev/link"}, 0,
                  {"/dev/null", "{T}/dev/blk", "{T}/dev/link"}, nullptr},
        SExitCase{"DeviceBesideAFolder", {"-0", "-f", "{S}/failures", "--engines", "findfirst", "{T}/dev/chr", "{T}/clean/dir a"},
                  0, {"{T}/dev/chr", "{T}/clean/dir a/x.txt"}, nullptr}),
    [](const auto& info) { return std::string(info.param.szName); });

// Relative content exceptions and filter paths are taken from the working directory, as the
// content paths are: an exception that matched nothing would put excluded data in the backup.
struct SRelativeCase {
  const char* szName;
  std::vector<std::string> lstArgs;
};

class FsscanRelative : public FsscanFixture, public ::testing::WithParamInterface<SRelativeCase> {};

TEST_P(FsscanRelative, AnchorsRelativePathsAtTheWorkingDirectory) {
  std::vector<std::string> lstArgs{"-0"};
  lstArgs.insert(lstArgs.end(), GetParam().lstArgs.begin(), GetParam().lstArgs.end());
  lstArgs.push_back("clean");
  const SRun run = Fsscan(lstArgs, m_tree.Root());
  EXPECT_EQ(run.iExit, 0) << run.strErr;
  EXPECT_EQ(run.strOut, m_tree.Path("clean/y") + std::string(1, '\0'));
}

INSTANTIATE_TEST_SUITE_P(Options, FsscanRelative,
                         ::testing::Values(SRelativeCase{"ContentException", {"-c", "clean/dir a"}},
                                           SRelativeCase{"ExcludePath", {"-x", "clean/dir a"}},
                                           SRelativeCase{"ExcludeDotPath", {"-x", "./clean/dir a"}},
                                           SRelativeCase{"ExcludeLastComponent", {"-x", "dir a"}}),
                         [](const auto& info) { return std::string(info.param.szName); });

// Without PATH, fsscan scans /usr and prints the summary alone.
TEST_F(FsscanFixture, WithoutPathScansUsrAndPrintsTheSummary) {
  const SRun run = Fsscan({"-f", m_scratch.Path("failures")});
  EXPECT_TRUE(run.iExit == 0 || run.iExit == 1) << run.strErr;
  EXPECT_EQ(run.strOut, "");
  EXPECT_NE(run.strErr.find(" items, "), std::string::npos) << run.strErr;
  EXPECT_EQ(run.strErr.find("fsscan: 0 items, "), std::string::npos) << run.strErr;
}

#endif  // FSSCAN_TOOL_PATH

}  // namespace
