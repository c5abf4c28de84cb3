#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <fstream>
#include <sstream>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "Platform/ZrProcess.h"
#include "Support/RunAsNobody.h"
#include "Support/FileText.h"
#include "Support/TempTree.h"

namespace {

// True once the process is gone or a zombie (its parent may be an init that never reaps).
bool IsDead(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  if (!stat) return true;
  std::string line;
  std::getline(stat, line);
  size_t close = line.rfind(')');
  if (close == std::string::npos || close + 2 >= line.size()) return true;
  char state = line[close + 2];
  return state == 'Z' || state == 'X';
}

// Signals are delivered asynchronously: give the kernel a bounded time to finish the kill.
bool BecomesDead(pid_t pid) {
  for (int i = 0; i < 500; ++i) {
    if (IsDead(pid)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return IsDead(pid);
}

// Waits slice by slice until the child has printed a complete line.
bool WaitForLine(ZrProcess& process) {
  for (int i = 0; i < 1000 && process.GetStdout().find('\n') == std::string::npos; ++i) {
    bool finished = false;
    if (process.Wait(10, finished).IsError() || finished) break;
  }
  return process.GetStdout().find('\n') != std::string::npos;
}

bool IsReapedByUs(pid_t pid) {
  errno = 0;
  return waitpid(pid, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

}  // namespace

// --- Exit codes ----------------------------------------------------------------------------

struct SExitCase {
  const char* name;
  const char* command;
  int exitCode;
  int termSignal;
  const char* stderrFragment;
};
void PrintTo(const SExitCase& c, std::ostream* os) { *os << c.name; }


class ZrProcessExitCode : public ::testing::TestWithParam<SExitCase> {};

TEST_P(ZrProcessExitCode, ReportsTheShellsExitStatus) {
  const SExitCase& c = GetParam();
  ZrProcess process;
  ASSERT_TRUE(process.Start(c.command).IsSuccess());
  EXPECT_GT(process.GetPid(), 0);
  ASSERT_TRUE(process.WaitForExit(60000).IsSuccess());
  EXPECT_TRUE(process.IsFinished());
  EXPECT_EQ(process.GetExitCode(), c.exitCode);
  EXPECT_EQ(process.WasKilledBySignal(), c.termSignal != 0);
  EXPECT_EQ(process.GetTermSignal(), c.termSignal);
  EXPECT_NE(process.GetStderr().find(c.stderrFragment), std::string::npos) << process.GetStderr();
  EXPECT_TRUE(IsReapedByUs(process.GetPid()));
}

INSTANTIATE_TEST_SUITE_P(
    Commands, ZrProcessExitCode,
    ::testing::Values(SExitCase{"Success", "exit 0", 0, 0, ""},
                      SExitCase{"Three", "exit 3", 3, 0, ""},
                      SExitCase{"PipelineTakesTheLastCommand", "true | false", 1, 0, ""},
                      SExitCase{"MissingCommandIs127", "no_such_command_zr_1234 --flag", 127, 0,
                                "not found"},
                      SExitCase{"NotExecutableIs126", "/etc/passwd", 126, 0, "denied"},
                      SExitCase{"KilledBySignal", "kill -TERM $$", 143, SIGTERM, ""}),
    [](const ::testing::TestParamInfo<SExitCase>& info) { return info.param.name; });

// --- Capture to memory -----------------------------------------------------------------------

struct SCaptureCase {
  const char* name;
  const char* command;
  const char* out;
  const char* err;
};
void PrintTo(const SCaptureCase& c, std::ostream* os) { *os << c.name; }


class ZrProcessCapture : public ::testing::TestWithParam<SCaptureCase> {};

TEST_P(ZrProcessCapture, CapturesBothStreamsToMemory) {
  const SCaptureCase& c = GetParam();
  ZrProcess process;
  ASSERT_TRUE(process.Start(c.command).IsSuccess());
  ASSERT_TRUE(process.WaitForExit(60000).IsSuccess());
  EXPECT_EQ(process.GetExitCode(), 0);
  EXPECT_EQ(process.GetStdout(), c.out);
  EXPECT_EQ(process.GetStderr(), c.err);
}

INSTANTIATE_TEST_SUITE_P(
    Commands, ZrProcessCapture,
    ::testing::Values(
        SCaptureCase{"QuotesAndBlanks", R"(printf '%s|' "a b" 'c  d' e "it's")", "a b|c  d|e|it's|",
                     ""},
        SCaptureCase{"StandardError", "echo out; echo err >&2", "out\n", "err\n"},
        SCaptureCase{"PipelineAndRedirection", "printf 'b\\na\\n' | sort | tr a-z A-Z", "A\nB\n", ""},
        SCaptureCase{"StdinIsDevNull", "cat; echo done", "done\n", ""},
        SCaptureCase{"NoOutput", "true", "", ""},
        SCaptureCase{"BytesThatAreNotUtf8", "printf 'caf\351\n'; echo '\xff\xfe' >&2", "caf\xe9\n",
                     "\xff\xfe\n"}),
    [](const ::testing::TestParamInfo<SCaptureCase>& info) { return info.param.name; });

TEST(ZrProcess, LargeOutputOnBothStreamsDoesNotDeadlock) {
  // Both streams are written at once, far beyond a pipe's capacity.
  ZrProcess process;
  ASSERT_TRUE(process
                  .Start("(head -c 3000000 /dev/zero | tr '\\0' o) & "
                         "(head -c 2000000 /dev/zero | tr '\\0' e >&2); wait")
                  .IsSuccess());
  ASSERT_TRUE(process.WaitForExit(120000).IsSuccess());
  EXPECT_EQ(process.GetExitCode(), 0);
  EXPECT_EQ(process.GetStdout(), std::string(3000000, 'o'));
  EXPECT_EQ(process.GetStderr(), std::string(2000000, 'e'));
}

TEST(ZrProcess, BackgroundChildHoldingThePipeDoesNotDelayTheEnd) {
  // The shell exits at once; the child it leaves running keeps the pipe open. The wait ends
  // with the shell (well before the time-out), not with the end of the pipe.
  ZrProcess process;
  ASSERT_TRUE(process.Start("sleep 1000 & echo $!").IsSuccess());
  CQiError error = process.WaitForExit(100000);
  EXPECT_TRUE(error.IsSuccess()) << error.AsString();
  EXPECT_EQ(process.GetExitCode(), 0);
  pid_t background = static_cast<pid_t>(std::stol(process.GetStdout()));
  ASSERT_GT(background, 0);
  EXPECT_TRUE(ZrProcess::KillPids({background}, SIGKILL).IsSuccess());
  EXPECT_TRUE(BecomesDead(background));
}

// --- Capture to files ------------------------------------------------------------------------

TEST(ZrProcess, WritesLargeOutputToFiles) {
  CTempTree tree;
  std::string out = tree.Path("out.txt");
  std::string err = tree.Path("err.txt");
  tree.MakeFile("out.txt", "old content that must be replaced");
  ZrProcess process;
  process.SetStdout(ZrProcess::EOutput::File, out);
  process.SetStderr(ZrProcess::EOutput::File, err);
  ASSERT_TRUE(process
                  .Start("head -c 1500000 /dev/zero | tr '\\0' o; "
                         "head -c 1200000 /dev/zero | tr '\\0' e >&2")
                  .IsSuccess());
  ASSERT_TRUE(process.WaitForExit(120000).IsSuccess());
  EXPECT_EQ(process.GetExitCode(), 0);
  EXPECT_EQ(ReadFileText(out), std::string(1500000, 'o'));
  EXPECT_EQ(ReadFileText(err), std::string(1200000, 'e'));
  EXPECT_EQ(process.GetStdout(), "");
  EXPECT_EQ(process.GetStderr(), "");
}

TEST(ZrProcess, SameFileForBothStreamsAndAppendAndNull) {
  CTempTree tree;
  std::string both = tree.MakeFile("both.txt", "first\n");
  ZrProcess process;
  process.SetStdout(ZrProcess::EOutput::AppendFile, both);
  process.SetStderr(ZrProcess::EOutput::AppendFile, both);
  ASSERT_TRUE(process.Start("echo out; echo err >&2; echo out2").IsSuccess());
  ASSERT_TRUE(process.WaitForExit(60000).IsSuccess());
  EXPECT_EQ(ReadFileText(both), "first\nout\nerr\nout2\n");

  ZrProcess quiet;
  quiet.SetStdout(ZrProcess::EOutput::Null);
  ASSERT_TRUE(quiet.Start("echo gone; echo kept >&2").IsSuccess());
  ASSERT_TRUE(quiet.WaitForExit(60000).IsSuccess());
  EXPECT_EQ(quiet.GetStdout(), "");
  EXPECT_EQ(quiet.GetStderr(), "kept\n");
}

struct SBadOutputCase {
  const char* name;
  const char* relative;  // below the temporary tree; "" for an empty path
  bool makeFolder;
  bool win32;
  int code;
  const char* fragment;
};
void PrintTo(const SBadOutputCase& c, std::ostream* os) { *os << c.name; }


class ZrProcessBadOutput : public ::testing::TestWithParam<SBadOutputCase> {};

TEST_P(ZrProcessBadOutput, FailsBeforeAnyChildStarts) {
  const SBadOutputCase& c = GetParam();
  CTempTree tree;
  if (c.makeFolder) tree.MakeDir(c.relative);
  std::string path = *c.relative ? tree.Path(c.relative) : std::string();
  std::string marker = tree.Path("started");
  ZrProcess process;
  process.SetStderr(ZrProcess::EOutput::File, path);
  CQiError error = process.Start("touch " + marker);
  ASSERT_TRUE(error.IsError());
  if (c.win32) {
    EXPECT_TRUE(error.IsWin32(static_cast<uint32_t>(c.code))) << error.AsString();
  } else {
    EXPECT_TRUE(error.IsErrNo(c.code)) << error.AsString();
  }
  EXPECT_NE(error.AsString().find(c.fragment), std::string::npos) << error.AsString();
  EXPECT_EQ(process.GetPid(), 0);
  EXPECT_FALSE(process.IsStarted());
  EXPECT_NE(access(marker.c_str(), F_OK), 0);
  bool finished = false;
  EXPECT_TRUE(process.Wait(10, finished).IsWin32(QiErrorCode::InvalidHandle));
}

INSTANTIATE_TEST_SUITE_P(
    Paths, ZrProcessBadOutput,
    ::testing::Values(
        SBadOutputCase{"MissingFolder", "no/such/folder/err.txt", false, false, ENOENT,
                       "for the standard error of command [touch "},
        SBadOutputCase{"IsAFolder", "folder", true, false, EISDIR, "Unable to open ["},
        SBadOutputCase{"EmptyPath", "", false, true, QiErrorCode::InvalidParameter, "Empty path"}),
    [](const ::testing::TestParamInfo<SBadOutputCase>& info) { return info.param.name; });

TEST(ZrProcess, UnwritableOutputFileIsAnErrorForAnUnprivilegedUser) {
  CTempTree tree;
  std::string locked = tree.MakeDir("locked", 0555);
  std::string path = locked + "/out.txt";
  EXPECT_EQ(0, RunAsNobody([&path] {
              ZrProcess process;
              process.SetStdout(ZrProcess::EOutput::File, path);
              return process.Start("echo hi").IsErrNo(EACCES) && process.GetPid() == 0;
            }));
}

// --- Start errors -----------------------------------------------------------------------------

TEST(ZrProcess, StartRejectsBadCommandLinesAndReportsAShellThatCannotStart) {
  ZrProcess empty;
  CQiError error = empty.Start("");
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidParameter));
  EXPECT_EQ(error.GetMessage(), "Empty command line");

  ZrProcess nul;
  error = nul.Start(std::string("echo a\0b", 8));
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidParameter));
  EXPECT_EQ(error.GetMessage(), "Command line holds a NUL byte");

  ZrProcess noShell;
  noShell.SetShell("/no/such/shell");
  error = noShell.Start("echo hi");
  EXPECT_TRUE(error.IsErrNo(ENOENT)) << error.AsString();
  EXPECT_EQ(error.GetMessage(),
            "Failed to start command [echo hi] through /no/such/shell: No such file or directory");
  EXPECT_EQ(noShell.GetPid(), 0);

  ZrProcess twice;
  ASSERT_TRUE(twice.Start("true").IsSuccess());
  error = twice.Start("true");
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidParameter));
  EXPECT_EQ(error.GetMessage(), "Process already started for command [true]");
}

// --- Time-outs, kills, aborts -----------------------------------------------------------------

TEST(ZrProcess, TimeOutKillsTheChildAndItsChildren) {
  ZrProcess process;
  ASSERT_TRUE(process.Start("sleep 1000 & echo $!; wait").IsSuccess());
  ASSERT_TRUE(WaitForLine(process));
  pid_t grandchild = static_cast<pid_t>(std::stol(process.GetStdout()));
  ASSERT_GT(grandchild, 0);
  EXPECT_FALSE(IsDead(grandchild));

  CQiError error = process.WaitForExit(100);
  EXPECT_TRUE(error.IsErrNo(ETIMEDOUT)) << error.AsString();
  EXPECT_NE(error.GetMessage().find("did not finish within 100 ms"), std::string::npos);
  EXPECT_TRUE(process.IsFinished());
  EXPECT_TRUE(process.WasKilledBySignal());
  EXPECT_TRUE(IsReapedByUs(process.GetPid()));
  EXPECT_TRUE(BecomesDead(grandchild));
}

TEST(ZrProcess, ChildIgnoringSigtermIsKilledAfterTheGracePeriod) {
  ZrProcess process;
  ASSERT_TRUE(process.Start("trap '' TERM; echo ready; while :; do sleep 1; done").IsSuccess());
  ASSERT_TRUE(WaitForLine(process));
  ASSERT_TRUE(process.Kill(SIGTERM, 100).IsSuccess());
  EXPECT_TRUE(process.IsFinished());
  EXPECT_EQ(process.GetTermSignal(), SIGKILL);
  EXPECT_EQ(process.GetExitCode(), 128 + SIGKILL);
  EXPECT_TRUE(IsReapedByUs(process.GetPid()));
  // Killing a finished child is a no-op.
  EXPECT_TRUE(process.Kill().IsSuccess());
}

TEST(ZrProcess, AbortBetweenSlicesKillsTheChild) {
  ZrProcess process;
  ASSERT_TRUE(process.Start("echo started; sleep 1000").IsSuccess());
  int checks = 0;
  CQiError error = process.WaitForExit(ZrProcess::kInfinite, [&checks] { return ++checks == 3; }, 10);
  EXPECT_TRUE(error.IsWin32(QiErrorCode::OperationAborted));
  EXPECT_EQ(error.GetMessage(), "Operation aborted");
  EXPECT_EQ(checks, 3);
  EXPECT_TRUE(process.IsFinished());
  EXPECT_EQ(process.GetTermSignal(), SIGTERM);
  EXPECT_TRUE(IsReapedByUs(process.GetPid()));
}

TEST(ZrProcess, DestructorKillsAndReapsARunningChild) {
  pid_t pid = 0;
  pid_t grandchild = 0;
  {
    ZrProcess process;
    ASSERT_TRUE(process.Start("sleep 1000 & echo $!; sleep 1000").IsSuccess());
    ASSERT_TRUE(WaitForLine(process));
    pid = process.GetPid();
    grandchild = static_cast<pid_t>(std::stol(process.GetStdout()));
    bool finished = true;
    ASSERT_TRUE(process.Wait(1, finished).IsSuccess());
    EXPECT_FALSE(finished);
  }
  EXPECT_TRUE(IsReapedByUs(pid));  // no zombie left: the destructor reaped it
  EXPECT_TRUE(BecomesDead(grandchild));
}

struct SKillPidsCase {
  const char* name;
  int pidKind;  // 0: zero, 1: minus one, 2: own pid, 3: pid_max (never a valid pid)
  bool win32;
  int code;
};
void PrintTo(const SKillPidsCase& c, std::ostream* os) { *os << c.name; }


class ZrProcessKillPids : public ::testing::TestWithParam<SKillPidsCase> {};

TEST_P(ZrProcessKillPids, RefusesDangerousPidsAndReportsMissingOnes) {
  const SKillPidsCase& c = GetParam();
  pid_t pid = 0;
  switch (c.pidKind) {
    case 0: pid = 0; break;
    case 1: pid = -1; break;
    case 2: pid = getpid(); break;
    default: {
      std::ifstream in("/proc/sys/kernel/pid_max");
      long max = 0;
      in >> max;
      pid = static_cast<pid_t>(max);
    }
  }
  // SIGCONT is harmless if a refusal ever failed to happen.
  CQiError error = ZrProcess::KillPids({pid}, SIGCONT);
  if (c.win32) {
    EXPECT_TRUE(error.IsWin32(static_cast<uint32_t>(c.code))) << error.AsString();
  } else {
    EXPECT_TRUE(error.IsErrNo(c.code)) << error.AsString();
  }
}

INSTANTIATE_TEST_SUITE_P(
    Pids, ZrProcessKillPids,
    ::testing::Values(SKillPidsCase{"Zero", 0, true, QiErrorCode::InvalidParameter},
                      SKillPidsCase{"MinusOne", 1, true, QiErrorCode::InvalidParameter},
                      SKillPidsCase{"Self", 2, true, QiErrorCode::InvalidParameter},
                      SKillPidsCase{"Missing", 3, false, ESRCH}),
    [](const ::testing::TestParamInfo<SKillPidsCase>& info) { return info.param.name; });

TEST(ZrProcess, KillPidsSignalsEveryListedProcess) {
  ZrProcess first;
  ZrProcess second;
  ASSERT_TRUE(first.Start("exec sleep 1000").IsSuccess());
  ASSERT_TRUE(second.Start("exec sleep 1000").IsSuccess());
  // The refused pid does not stop the others from being signalled.
  CQiError error = ZrProcess::KillPids({first.GetPid(), 0, second.GetPid()}, SIGKILL);
  EXPECT_TRUE(error.IsWin32(QiErrorCode::InvalidParameter));
  ASSERT_TRUE(first.WaitForExit(60000).IsSuccess());
  ASSERT_TRUE(second.WaitForExit(60000).IsSuccess());
  EXPECT_EQ(first.GetTermSignal(), SIGKILL);
  EXPECT_EQ(second.GetTermSignal(), SIGKILL);
}

// --- Descriptors and threads ------------------------------------------------------------------

TEST(ZrProcess, ChildInheritsNoDescriptorAboveStandardError) {
  int leaked = open("/dev/null", O_RDONLY);  // deliberately without close-on-exec
  ASSERT_GE(leaked, 0);
  int high = dup2(leaked, 77);
  ASSERT_EQ(high, 77);
  ZrProcess process;
  ASSERT_TRUE(process.Start("if [ -e /proc/$$/fd/77 ]; then echo leaked; else echo clean; fi")
                  .IsSuccess());
  ASSERT_TRUE(process.WaitForExit(60000).IsSuccess());
  close(high);
  close(leaked);
  EXPECT_EQ(process.GetStdout(), "clean\n");
}

TEST(ZrProcess, DistinctObjectsRunFromManyThreadsAtOnce) {
  constexpr int kThreads = 6;
  constexpr int kRuns = 15;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &failures] {
      for (int r = 0; r < kRuns; ++r) {
        ZrProcess process;
        std::string expected = std::to_string(t) + "-" + std::to_string(r);
        if (process.Start("echo " + expected + "; echo " + expected + " >&2").IsError() ||
            process.WaitForExit(60000).IsError() || process.GetStdout() != expected + "\n" ||
            process.GetStderr() != expected + "\n" || process.GetExitCode() != 0)
          ++failures;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures.load(), 0);
}
