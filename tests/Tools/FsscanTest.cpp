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
  std::string strOut;
  std::string strErr;
};

std::string ReadFile(const std::string& strPath) {
  std::ifstream in(strPath, std::ios::binary);
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

// Runs a program with its stdout and stderr in files of the folder, as nobody when we are root,
// in the working directory strCwd when one is given, with pStdin (when given) on a pipe as its
// stdin. A program that hangs is killed by SIGALRM after a minute.
SRun RunProgram(const std::vector<std::string>& lstArgs, const std::string& strScratch,
                const std::string& strCwd = std::string(), const std::string* pStdin = nullptr) {
  const std::string strOut = strScratch + "/stdout", strErr = strScratch + "/stderr";
  const int fdOut = open(strOut.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  const int fdErr = open(strErr.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fdOut < 0 || fdErr < 0) throw std::runtime_error("cannot create the output files");
  int fdIn[2] = {-1, -1};
  if (pStdin) {
    // The pipe holds the whole text (it is small) before the program starts.
    if (pipe2(fdIn, O_CLOEXEC) != 0 || write(fdIn[1], pStdin->data(), pStdin->size()) != static_cast<ssize_t>(pStdin->size()))
      throw std::runtime_error("cannot fill the stdin pipe");
    close(fdIn[1]);
  }
  std::vector<char*> argv;
  for (const std::string& strArg : lstArgs) argv.push_back(const_cast<char*>(strArg.c_str()));
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    if (dup2(fdOut, STDOUT_FILENO) < 0 || dup2(fdErr, STDERR_FILENO) < 0) _exit(126);
    if (pStdin && dup2(fdIn[0], STDIN_FILENO) < 0) _exit(126);
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
  if (pStdin) close(fdIn[0]);
  SRun run;
  int iStatus = 0;
  while (waitpid(pid, &iStatus, 0) < 0 && errno == EINTR) {
  }
  run.iExit = WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : 128 + WTERMSIG(iStatus);
  run.strOut = ReadFile(strOut);
  run.strErr = ReadFile(strErr);
  return run;
}

std::set<std::string> SplitNul(const std::string& strText, size_t* pnRecords = nullptr) {
  std::set<std::string> setPaths;
  size_t nRecords = 0;
  for (size_t start = 0, end; (end = strText.find('\0', start)) != std::string::npos; start = end + 1) {
    setPaths.insert(strText.substr(start, end - start));
    ++nRecords;
  }
  if (pnRecords) *pnRecords = nRecords;
  return setPaths;
}

// Failure records "file|folder <path>:<code>": path -> code (paths here hold no line feed).
std::map<std::string, int> ReadFailures(const std::string& strPath) {
  std::map<std::string, int> mapFailures;
  std::istringstream in(ReadFile(strPath));
  for (std::string strLine; std::getline(in, strLine);) {
    const size_t blank = strLine.find(' '), colon = strLine.rfind(':');
    if (blank == std::string::npos || colon == std::string::npos || colon < blank) {
      ADD_FAILURE() << "malformed failure record: " << strLine;
      continue;
    }
    mapFailures[strLine.substr(blank + 1, colon - blank - 1)] = std::stoi(strLine.substr(colon + 1));
  }
  return mapFailures;
}

bool HasExcludedComponent(const std::string& strPath) {
  for (size_t start = 0; start <= strPath.size();) {
    size_t end = strPath.find('/', start);
    if (end == std::string::npos) end = strPath.size();
    if (FXString::EndsWith(std::string_view(strPath).substr(start, end - start), ".tmp")) return true;
    start = end + 1;
  }
  return false;
}

// The trees: "mixed" holds awkward names, links, a FIFO, excluded names and an unreadable
// folder; "long" a folder chain whose full path passes PATH_MAX; "clean" a small readable tree.
class FsscanFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    chmod(m_scratch.Root().c_str(), 0777);  // fsscan running as nobody writes its files here
    m_tree.MakeFile("mixed/plain.txt", "hello");
    m_tree.MakeFile("mixed/with blank.txt", "12345678");
    m_tree.MakeFile("mixed/new\nline", "x");
    m_tree.MakeFile("mixed/tab\tfolder/inner file", "inner");
    m_tree.MakeFile(std::string("mixed/bad\xff\xfe utf8"), "");
    m_tree.MakeFile("mixed/dir a/sub/deep.txt", std::string(5000, 'd'));
    m_tree.MakeSymlink("mixed/link-to-dir", "dir a");
    m_tree.MakeSymlink("mixed/dangling", "nowhere");
    m_tree.MakeFifo("mixed/fifo");
    m_tree.MakeFile("mixed/excluded.tmp", "gone");
    m_tree.MakeFile("mixed/folder.tmp/child.txt", "gone too");
    m_tree.MakeFile("mixed/dir a/also.tmp", "gone");
    m_tree.MakeFile("mixed/locked/secret.txt", "unseen");
    chmod(m_tree.Path("mixed/locked").c_str(), 0000);
    m_tree.MakeFile("clean/dir a/x.txt", "x");
    m_tree.MakeFile("clean/y", "yy");
    MakeLongChain();
  }


  void MakeLongChain() {
    int fd = open(m_tree.MakeDir("long").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    size_t nLength = m_tree.Path("long").size();
    for (int i = 0; nLength <= PATH_MAX + 300; ++i) {
      const std::string strName = FXString::Format("L%02d_", i) + std::string(200, 'n');
      ASSERT_EQ(mkdirat(fd, strName.c_str(), 0755), 0) << strerror(errno);
      const int fdNext = openat(fd, strName.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      close(fd);
      ASSERT_GE(fdNext, 0);
      fd = fdNext;
      nLength += 1 + strName.size();
    }
    const int fdFile = openat(fd, "bottom.txt", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(fdFile, 0);
    close(fdFile);
    close(fd);
  }

  SRun Fsscan(std::vector<std::string> lstArgs, const std::string& strCwd = std::string(),
             const std::string* pStdin = nullptr) {
    lstArgs.insert(lstArgs.begin(), FSSCAN_TOOL_PATH);
    return RunProgram(lstArgs, m_scratch.Root(), strCwd, pStdin);
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
    m_tree.MakeDir("dev");
    ASSERT_EQ(mknod(m_tree.Path("dev/chr").c_str(), S_IFCHR | 0644, makedev(1, 3)), 0) << strerror(errno);
    ASSERT_EQ(mknod(m_tree.Path("dev/blk").c_str(), S_IFBLK | 0644, makedev(7, 0)), 0) << strerror(errno);
    m_tree.MakeSymlink("dev/link", "chr");
  }
  // `find PATH... -mindepth 1 -print0`, as the same user as fsscan.
  std::set<std::string> Find(const std::vector<std::string>& lstPaths) {
    std::vector<std::string> lstArgs{"/usr/bin/find"};
    lstArgs.insert(lstArgs.end(), lstPaths.begin(), lstPaths.end());
    lstArgs.insert(lstArgs.end(), {"-mindepth", "1", "-print0"});
    return SplitNul(RunProgram(lstArgs, m_scratch.Root()).strOut);
  }

  CTempTree m_tree;
  CTempTree m_scratch;
};

// --print0 against find, through the facade, the fast driver and the scan arbiter's engines.
struct SPrint0Case {
  const char* szName;
  std::vector<std::string> lstArgs;  // how the scan runs
};

class FsscanPrint0 : public FsscanFixture, public ::testing::WithParamInterface<SPrint0Case> {};

TEST_P(FsscanPrint0, ReportsWhatFindListsMinusTheExcludedAndRecordsWhatItCannotRead) {
  const std::string strMixed = m_tree.Path("mixed"), strFailures = m_scratch.Path("failures");
  std::vector<std::string> lstArgs{"--print0", "--exclude", "*.tmp", "--failures", strFailures};
  lstArgs.insert(lstArgs.end(), GetParam().lstArgs.begin(), GetParam().lstArgs.end());
  lstArgs.push_back(strMixed);
  const SRun run = Fsscan(lstArgs);
  EXPECT_EQ(run.iExit, 1) << run.strErr;  // the unreadable folder is content that failed

  size_t nRecords = 0;
  const std::set<std::string> setReported = SplitNul(run.strOut, &nRecords);
  EXPECT_EQ(nRecords, setReported.size()) << "an object was reported twice";
  std::set<std::string> setExpected;
  for (const std::string& strPath : Find({strMixed}))
    if (!HasExcludedComponent(strPath)) setExpected.insert(strPath);
  ASSERT_TRUE(setExpected.count(strMixed + "/new\nline") && setExpected.count(strMixed + "/link-to-dir"));
  EXPECT_FALSE(setExpected.count(strMixed + "/locked/secret.txt"));  // unreadable for find too
  EXPECT_EQ(setReported, setExpected);

  const std::map<std::string, int> mapFailures = ReadFailures(strFailures);
  EXPECT_EQ(mapFailures, (std::map<std::string, int>{{strMixed + "/locked", EACCES}})) << ReadFile(strFailures);
}

INSTANTIATE_TEST_SUITE_P(
    Engines, FsscanPrint0,
    ::testing::Values(SPrint0Case{"Facade", {"--workers", "1"}}, SPrint0Case{"FastDriver4Workers", {"--workers", "4"}},
                      SPrint0Case{"ArbiterFastThenFindFirst",
                                  {"--engines", "fast,findfirst", "--workers", "2", "--scanners", "2"}},
                      SPrint0Case{"Traverse1Worker", {"--traverse", "--workers", "1"}},
                      SPrint0Case{"Traverse2Workers", {"--traverse", "--workers", "2"}}),
    [](const auto& info) { return std::string(info.param.szName); });

// --from-file: the on-demand engine scans the listed files alone, the listed folder as find lists
// it minus the excluded (the folder itself only with --top-level), records the missing path and
// skips "/".
class FsscanFromFile : public FsscanFixture, public ::testing::WithParamInterface<bool> {};

TEST_P(FsscanFromFile, ReportsTheListedFilesAndTheListedFolderAsFindDoes) {
  const bool bTopLevel = GetParam();
  const std::string strMixed = m_tree.Path("mixed"), strAbsent = m_tree.Path("clean/absent");
  const std::string strContent = m_scratch.Path("content"), strFailures = m_scratch.Path("failures");
  std::ofstream(strContent) << m_tree.Path("clean/y") << "\n/\n" << strMixed << "\n" << strAbsent << "\n"
                            << m_tree.Path("clean/dir a/x.txt") << "\n";
  std::vector<std::string> lstArgs{"--print0", "--exclude", "*.tmp", "--failures", strFailures, "--from-file", strContent};
  if (bTopLevel) lstArgs.push_back("--top-level");
  const SRun run = Fsscan(lstArgs);
  EXPECT_EQ(run.iExit, 1) << run.strErr;

  size_t nRecords = 0;
  const std::set<std::string> setReported = SplitNul(run.strOut, &nRecords);
  EXPECT_EQ(nRecords, setReported.size()) << "an object was reported twice";
  std::set<std::string> setExpected;
  for (const std::string& strPath : Find({strMixed}))
    if (!HasExcludedComponent(strPath)) setExpected.insert(strPath);
  setExpected.insert({m_tree.Path("clean/y"), m_tree.Path("clean/dir a/x.txt")});
  if (bTopLevel) setExpected.insert(strMixed);
  EXPECT_EQ(setReported, setExpected);
  EXPECT_EQ(ReadFailures(strFailures), (std::map<std::string, int>{{strMixed + "/locked", EACCES}, {strAbsent, ENOENT}}))
      << ReadFile(strFailures);
}

INSTANTIATE_TEST_SUITE_P(TopLevel, FsscanFromFile, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "WithTopLevel" : "Plain"; });

// --from-file lists however they come (a pipe on stdin, a named FIFO, a file), read once, with
// every listed object reported once whatever lines repeat or nest, in whatever order.
enum class EListSource { File, StdinPipe, Fifo };

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
      std::ofstream(m_scratch.Path("list")) << strList;
      lstArgs.push_back(m_scratch.Path("list"));
      break;
    case EListSource::StdinPipe: lstArgs.push_back("/dev/fd/0"); break;
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
  const SRun run = Fsscan(lstArgs, std::string(), testCase.eSource == EListSource::StdinPipe ? &strList : nullptr);
  if (writer > 0) {
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);
  }
  EXPECT_EQ(run.iExit, testCase.iExit) << run.strErr;
  std::vector<std::string> lstReported;
  for (size_t start = 0, end; (end = run.strOut.find('\0', start)) != std::string::npos; start = end + 1)
    lstReported.push_back(run.strOut.substr(start, end - start));
  std::sort(lstReported.begin(), lstReported.end());
  std::vector<std::string> lstExpected;
  for (const std::string& strPath : testCase.lstPaths) lstExpected.push_back(Expand(strPath));
  EXPECT_EQ(lstReported, lstExpected) << run.strErr;
  EXPECT_EQ(ReadFile(m_scratch.Path("failures")), Expand(testCase.szFailures));
}

INSTANTIATE_TEST_SUITE_P(
    Lists, FsscanList,
    ::testing::Values(
        SListCase{"PipeOnStdin", EListSource::StdinPipe, "{T}/clean/y\n{T}/clean/dir a\n", {},
                  {"{T}/clean/dir a/x.txt", "{T}/clean/y"}},
        SListCase{"NamedFifo", EListSource::Fifo, "{T}/clean/y\n{T}/clean/dir a\n", {},
                  {"{T}/clean/dir a/x.txt", "{T}/clean/y"}},
        SListCase{"SameLinesTwice", EListSource::File, "{T}/clean/y\n{T}/clean/dir a\n{T}/clean/y\n{T}/clean//dir a/\n", {},
                  {"{T}/clean/dir a/x.txt", "{T}/clean/y"}},
        SListCase{"FolderThenNested", EListSource::File, "{T}/clean\n{T}/clean/dir a\n{T}/clean/dir a/x.txt\n", {},
                  {"{T}/clean/dir a", "{T}/clean/dir a/x.txt", "{T}/clean/y"}},
        SListCase{"NestedThenFolder", EListSource::File, "{T}/clean/dir a/x.txt\n{T}/clean/dir a\n{T}/clean\n", {},
                  {"{T}/clean/dir a", "{T}/clean/dir a/x.txt", "{T}/clean/y"}},
        SListCase{"NestedWithTopLevel", EListSource::File, "{T}/clean/dir a\n{T}/clean\n{T}/clean/y\n", {"--top-level"},
                  {"{T}/clean", "{T}/clean/dir a", "{T}/clean/dir a/x.txt", "{T}/clean/y"}},
        SListCase{"MissingTwice", EListSource::File, "{T}/absent\n{T}/clean/y\n{T}/absent\n", {}, {"{T}/clean/y"}, 1,
                  "folder {T}/absent:2\n"}),
    [](const auto& info) { return std::string(info.param.szName); });

// A folder chain whose paths pass PATH_MAX: every engine lists exactly what find lists, the
// objects beyond PATH_MAX included, and records no failure.
class FsscanLongPaths : public FsscanFixture, public ::testing::WithParamInterface<SPrint0Case> {};

TEST_P(FsscanLongPaths, ListWhatFindListsBeyondPathMax) {
  const std::string strLong = m_tree.Path("long"), strFailures = m_scratch.Path("failures");
  std::vector<std::string> lstArgs{"--print0", "--failures", strFailures};
  lstArgs.insert(lstArgs.end(), GetParam().lstArgs.begin(), GetParam().lstArgs.end());
  lstArgs.push_back(strLong);
  const SRun run = Fsscan(lstArgs);
  EXPECT_EQ(run.iExit, 0) << run.strErr;
  size_t nRecords = 0;
  const std::set<std::string> setReported = SplitNul(run.strOut, &nRecords);
  EXPECT_EQ(nRecords, setReported.size()) << "an object was reported twice";
  const std::set<std::string> setExpected = Find({strLong});
  size_t nBeyond = 0;
  for (const std::string& strPath : setExpected) nBeyond += strPath.size() >= PATH_MAX ? 1 : 0;
  ASSERT_GT(nBeyond, 1u) << "the chain does not pass PATH_MAX";
  EXPECT_EQ(setReported.size(), setExpected.size());
  for (const std::string& strPath : setExpected)
    EXPECT_TRUE(setReported.count(strPath)) << "missing: a path of " << strPath.size() << " bytes";
  EXPECT_EQ(ReadFile(strFailures), "");
}

INSTANTIATE_TEST_SUITE_P(
    Engines, FsscanLongPaths,
    ::testing::Values(SPrint0Case{"Facade", {"--workers", "1"}}, SPrint0Case{"FastDriver3Workers", {"--workers", "3"}},
                      SPrint0Case{"ArbiterFindFirst", {"--engines", "findfirst"}},
                      SPrint0Case{"Traverse2Workers", {"--traverse", "--workers", "2"}}),
    [](const auto& info) { return std::string(info.param.szName); });

// The item lines carry lstat's type, permission bits, size and modification time.
TEST_F(FsscanFixture, ItemLinesCarryLstatData) {
  const std::string strMixed = m_tree.Path("mixed");
  const SRun print0 = Fsscan({"--print0", strMixed});
  const SRun lines = Fsscan({strMixed});
  ASSERT_EQ(lines.iExit, print0.iExit) << lines.strErr;
  std::map<std::string, std::string> mapByEscaped;
  for (const std::string& strPath : SplitNul(print0.strOut)) mapByEscaped[FXString::EscapeControl(strPath)] = strPath;

  std::istringstream in(lines.strOut);
  size_t nLines = 0;
  std::set<char> setTypes;
  for (std::string strLine; std::getline(in, strLine); ++nLines) {
    char cType = 0;
    char szMode[8] = {};
    unsigned long long ullSize = 0;
    long long llSeconds = 0, llNanoseconds = 0;
    int iPathStart = 0;
    ASSERT_EQ(sscanf(strLine.c_str(), "%c %7s %llu %lld.%lld %n", &cType, szMode, &ullSize, &llSeconds,
                     &llNanoseconds, &iPathStart), 5) << strLine;
    const auto it = mapByEscaped.find(strLine.substr(static_cast<size_t>(iPathStart)));
    ASSERT_NE(it, mapByEscaped.end()) << strLine;
    struct stat st {};
    ASSERT_EQ(lstat(it->second.c_str(), &st), 0) << strLine;
    const std::map<mode_t, char> mapLetters{{S_IFREG, 'f'}, {S_IFDIR, 'd'}, {S_IFLNK, 'l'}, {S_IFIFO, 'p'}};
    EXPECT_EQ(cType, mapLetters.at(st.st_mode & S_IFMT)) << strLine;
    EXPECT_EQ(std::string(szMode), FXString::Format("%04o", static_cast<unsigned>(st.st_mode & 07777))) << strLine;
    EXPECT_EQ(ullSize, static_cast<unsigned long long>(st.st_size)) << strLine;
    EXPECT_EQ(llSeconds, static_cast<long long>(st.st_mtim.tv_sec)) << strLine;
    EXPECT_EQ(llNanoseconds, static_cast<long long>(st.st_mtim.tv_nsec)) << strLine;
    setTypes.insert(cType);
  }
  EXPECT_EQ(nLines, mapByEscaped.size());
  EXPECT_EQ(setTypes, (std::set<char>{'f', 'd', 'l', 'p'}));
  EXPECT_NE(lines.strOut.find("/new\\nline\n"), std::string::npos);
  EXPECT_NE(lines.strOut.find("/tab\\tfolder/inner file\n"), std::string::npos);
}

// Exit status and what is recorded, per kind of invocation.
struct SExitCase {
  const char* szName;
  std::vector<std::string> lstArgs;  // "{T}" stands for the tree's root, "{S}" for the scratch folder
  int iExit;
  std::vector<std::string> lstPrint0;  // the paths of the exact --print0 output, in order
  const char* szFailure;               // the one path in the failures file; null: none expected
  const char* szError = nullptr;       // the first line of stderr, when it matters
  std::vector<std::string> lstErrText = {};  // texts that stderr holds somewhere
  const char* szList = nullptr;        // written to {S}/list when given
};

class FsscanExit : public FsscanFixture, public ::testing::WithParamInterface<SExitCase> {};

TEST_P(FsscanExit, EndsWithTheDocumentedStatus) {
  const SExitCase& testCase = GetParam();
  auto fnExpand = [this](const std::string& strText) { return Expand(strText); };
  std::vector<std::string> lstArgs;
  for (const std::string& strArg : testCase.lstArgs) lstArgs.push_back(fnExpand(strArg));
  const std::string strAllArgs = FXString::Join(testCase.lstArgs, " ") + (testCase.szList ? testCase.szList : "");
  if (strAllArgs.find("{T}/many") != std::string::npos) MakeManyFiles();
  if (strAllArgs.find("{T}/dev/") != std::string::npos) {
    if (geteuid() != 0) GTEST_SKIP() << "device nodes need root";
    MakeDevices();
  }
  if (testCase.szList) std::ofstream(m_scratch.Path("list")) << fnExpand(testCase.szList);
  const SRun run = Fsscan(lstArgs);
  EXPECT_EQ(run.iExit, testCase.iExit) << run.strErr;
  std::string strExpectedOut;
  for (const std::string& strPath : testCase.lstPrint0) strExpectedOut.append(fnExpand(strPath)).push_back('\0');
  EXPECT_EQ(run.strOut, strExpectedOut);
  const std::map<std::string, int> mapFailures = ReadFailures(m_scratch.Path("failures"));
  if (testCase.szFailure) {
    EXPECT_EQ(mapFailures.size(), 1u) << run.strErr;
    EXPECT_TRUE(mapFailures.count(fnExpand(testCase.szFailure))) << run.strErr;
  } else {
    EXPECT_TRUE(mapFailures.empty()) << run.strErr;
  }
  if (testCase.szError) {
    EXPECT_EQ(run.strErr.substr(0, run.strErr.find('\n')), fnExpand(testCase.szError));
  }
  for (const std::string& strText : testCase.lstErrText)
    EXPECT_NE(run.strErr.find(fnExpand(strText)), std::string::npos) << strText << "\n" << run.strErr;
  if (testCase.iExit != 2) {
    EXPECT_NE(run.strErr.find(" items, "), std::string::npos) << run.strErr;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Invocations, FsscanExit,
    ::testing::Values(
        SExitCase{"ReadableTree", {"-0", "-f", "{S}/failures", "{T}/clean/dir a"}, 0, {"{T}/clean/dir a/x.txt"}, nullptr},
        SExitCase{"FileAsContent", {"-0", "-f", "{S}/failures", "{T}/clean/y"}, 0, {"{T}/clean/y"}, nullptr},
        SExitCase{"MissingPath", {"-0", "-f", "{S}/failures", "{T}/clean/absent"}, 1, {}, "{T}/clean/absent"},
        SExitCase{"MissingBesideReadable", {"-0", "-f", "{S}/failures", "{T}/clean/absent", "{T}/clean/dir a"}, 1,
                  {"{T}/clean/dir a/x.txt"}, "{T}/clean/absent"},
        SExitCase{"UnreadableFolder", {"-0", "-f", "{S}/failures", "{T}/mixed/locked"}, 1, {}, "{T}/mixed/locked"},
        SExitCase{"ExcludedEverything", {"-0", "-f", "{S}/failures", "-x", "*.txt", "{T}/clean/dir a"}, 0, {}, nullptr},
        SExitCase{"UnknownOption", {"--bogus", "{T}/clean"}, 2, {}, nullptr},
        SExitCase{"BadWorkers", {"--workers", "0", "{T}/clean"}, 2, {}, nullptr},
        SExitCase{"OutputCannotBeOpened", {"-o", "{S}/absent/out", "{T}/clean"}, 2, {}, nullptr},
        SExitCase{"TopLevelFindFirst", {"-0", "--top-level", "--engines", "findfirst", "{T}/clean/dir a"}, 0,
                  {"{T}/clean/dir a", "{T}/clean/dir a/x.txt"}, nullptr},
        SExitCase{"TopLevelNotWithTraverse", {"-0", "--top-level", "--traverse", "{T}/clean/dir a"}, 0,
                  {"{T}/clean/dir a/x.txt"}, nullptr},
        SExitCase{"UnknownEngine", {"--engines", "fast,bogus", "{T}/clean"}, 2, {}, nullptr,
                  "fsscan: --engines: unknown engine 'bogus' (engines: findfirst, fast, traverse, ondemand, gpfs)"},
        SExitCase{"EmptyEngineList", {"--engines", "", "{T}/clean"}, 2, {}, nullptr,
                  "fsscan: --engines: the engine list is empty (engines: findfirst, fast, traverse, ondemand, gpfs)"},
        SExitCase{"ArbiterMissingPath", {"-0", "-f", "{S}/failures", "--engines", "findfirst", "{T}/clean/absent"}, 1,
                  {}, "{T}/clean/absent"},
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
                  {"\nfsscan: cannot scan '{T}/mixed/locked' (error 13)\n", " items, 0 folders, 2 bytes, 0 failures (1 not written), "}},
        // An item list that cannot be written: the same answer from every engine, nothing counted.
        SExitCase{"OutputFullFacade", {"-o", "/dev/full", "{T}/many"}, 2, {}, nullptr,
                  "fsscan: cannot write the item list: errno 28 (No space left on device)",
                  {"fsscan: 0 items, 0 folders, 0 bytes, 0 failures, "}},
        SExitCase{"OutputFullFast4Workers", {"-o", "/dev/full", "--workers", "4", "{T}/many"}, 2, {}, nullptr,
                  "fsscan: cannot write the item list: errno 28 (No space left on device)",
                  {"fsscan: 0 items, 0 folders, 0 bytes, 0 failures, "}},
        SExitCase{"OutputFullFindFirst", {"-o", "/dev/full", "--engines", "findfirst", "{T}/many"}, 2, {}, nullptr,
                  "fsscan: cannot write the item list: errno 28 (No space left on device)"},
        SExitCase{"OutputFullFast", {"-o", "/dev/full", "--engines", "fast", "{T}/many"}, 2, {}, nullptr,
                  "fsscan: cannot write the item list: errno 28 (No space left on device)"},
        SExitCase{"OutputFullTraverse", {"-o", "/dev/full", "--traverse", "--workers", "2", "{T}/many"}, 2, {}, nullptr,
                  "fsscan: cannot write the item list: errno 28 (No space left on device)"},
        SExitCase{"OutputFullOnDemand", {"-o", "/dev/full", "--engines", "ondemand", "{S}/list"}, 2, {}, nullptr,
                  "fsscan: cannot write the item list: errno 28 (No space left on device)", {}, "{T}/many\n"},
        SExitCase{"OutputFullFromFile", {"-o", "/dev/full", "--from-file", "{S}/list"}, 2, {}, nullptr,
                  "fsscan: cannot write the item list: errno 28 (No space left on device)",
                  {"fsscan: 0 items, 0 folders, 0 bytes, 0 failures, "}, "{T}/many\n"},
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
