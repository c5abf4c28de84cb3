#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "Platform/ZrProcess.h"
#include "Support/FileText.h"
#include "Support/PlatformTestSupport.h"
#include "Support/RunAsNobody.h"
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

// --- Exit status and capture to memory --------------------------------------------------------

struct SRunRow {
  const char* name;
  const char* command;
  int exitCode;
  int termSignal;
  const char* out;
  const char* err;  // led by '~': a part of the standard error
};

class ZrProcessRun : public ::testing::TestWithParam<SRunRow> {};

TEST_P(ZrProcessRun, ReportsTheShellsExitStatusAndBothStreams) {
  const SRunRow& r = GetParam();
  ZrProcess process;
  ASSERT_TRUE(process.Start(r.command).IsSuccess());
  EXPECT_GT(process.GetPid(), 0);
  ASSERT_TRUE(process.WaitForExit(60000).IsSuccess());
  EXPECT_TRUE(process.IsFinished());
  EXPECT_EQ(process.GetExitCode(), r.exitCode);
  EXPECT_EQ(process.WasKilledBySignal(), r.termSignal != 0);
  EXPECT_EQ(process.GetTermSignal(), r.termSignal);
  EXPECT_EQ(process.GetStdout(), r.out);
  if (r.err[0] == '~') {
    EXPECT_NE(process.GetStderr().find(r.err + 1), std::string::npos) << process.GetStderr();
  } else {
    EXPECT_EQ(process.GetStderr(), r.err);
  }
  EXPECT_TRUE(IsReapedByUs(process.GetPid()));
}

INSTANTIATE_TEST_SUITE_P(
    Commands, ZrProcessRun,
    ::testing::Values(SRunRow{"Three", "exit 3", 3, 0, "", ""},
                      SRunRow{"MissingCommandIs127", "no_such_command_zr_1234 --flag", 127, 0, "",
                              "~not found"},
                      SRunRow{"KilledBySignal", "kill -TERM $$", 143, SIGTERM, "", ""},
                      SRunRow{"StandardError", "echo out; echo err >&2", 0, 0, "out\n", "err\n"},
                      SRunRow{"StdinIsDevNull", "cat; echo done", 0, 0, "done\n", ""}),
    [](const ::testing::TestParamInfo<SRunRow>& info) { return info.param.name; });

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

TEST(ZrProcess, WritesToFilesReplacingAppendingOrDropping) {
  CTempTree tree;
  const std::string out = tree.MakeFile("out.txt", "old content that must be replaced");
  const std::string err = tree.Path("err.txt"), both = tree.MakeFile("both.txt", "first\n");
  ZrProcess large, append, quiet;
  large.SetStdout(ZrProcess::EOutput::File, out);
  large.SetStderr(ZrProcess::EOutput::File, err);
  ASSERT_TRUE(large
                  .Start("head -c 1500000 /dev/zero | tr '\\0' o; "
                         "head -c 1200000 /dev/zero | tr '\\0' e >&2")
                  .IsSuccess());
  ASSERT_TRUE(large.WaitForExit(120000).IsSuccess());
  EXPECT_EQ(large.GetExitCode(), 0);
  EXPECT_EQ(ReadFileText(out), std::string(1500000, 'o'));
  EXPECT_EQ(ReadFileText(err), std::string(1200000, 'e'));
  EXPECT_EQ(large.GetStdout() + large.GetStderr(), "");

  append.SetStdout(ZrProcess::EOutput::AppendFile, both);
  append.SetStderr(ZrProcess::EOutput::AppendFile, both);
  ASSERT_TRUE(append.Start("echo out; echo err >&2; echo out2").IsSuccess());
  ASSERT_TRUE(append.WaitForExit(60000).IsSuccess());
  EXPECT_EQ(ReadFileText(both), "first\nout\nerr\nout2\n");

  quiet.SetStdout(ZrProcess::EOutput::Null);
  ASSERT_TRUE(quiet.Start("echo gone; echo kept >&2").IsSuccess());
  ASSERT_TRUE(quiet.WaitForExit(60000).IsSuccess());
  EXPECT_EQ(quiet.GetStdout(), "");
  EXPECT_EQ(quiet.GetStderr(), "kept\n");
}

struct SBadOutputRow {
  const char* relative;  // below the temporary tree; "" for an empty path
  const char* code;
  const char* fragment;
};
class ZrProcessBadOutput : public ::testing::TestWithParam<SBadOutputRow> {};

TEST_P(ZrProcessBadOutput, FailsBeforeAnyChildStarts) {
  const SBadOutputRow& r = GetParam();
  CTempTree tree;
  tree.MakeDir("folder");
  const std::string marker = tree.Path("started");
  ZrProcess process;
  process.SetStderr(ZrProcess::EOutput::File, *r.relative ? tree.Path(r.relative) : "");
  CQiError error = process.Start("touch " + marker);
  EXPECT_EQ(ErrorCode(error), r.code) << error.AsString();
  EXPECT_NE(error.AsString().find(r.fragment), std::string::npos) << error.AsString();
  EXPECT_EQ(process.GetPid(), 0);
  EXPECT_FALSE(process.IsStarted());
  EXPECT_NE(access(marker.c_str(), F_OK), 0);
  bool finished = false;
  EXPECT_TRUE(process.Wait(10, finished).IsWin32(QiErrorCode::InvalidHandle));
}

INSTANTIATE_TEST_SUITE_P(
    Paths, ZrProcessBadOutput,
    ::testing::Values(SBadOutputRow{"no/such/folder/err.txt", "E2",
                                    "for the standard error of command [touch "},
                      SBadOutputRow{"folder", "E21", "Unable to open ["},
                      SBadOutputRow{"", "W87", "Empty path"}));

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
  ZrProcess empty, nul, noShell, twice;
  noShell.SetShell("/no/such/shell");
  ASSERT_TRUE(twice.Start("true").IsSuccess());
  std::string got;
  for (CQiError error : {empty.Start(""), nul.Start(std::string("echo a\0b", 8)),
                         noShell.Start("echo hi"), twice.Start("true")})
    got += ErrorCode(error) + " " + error.GetMessage() + "\n";
  EXPECT_EQ(got,
            "W87 Empty command line\n"
            "W87 Command line holds a NUL byte\n"
            "E2 Failed to start command [echo hi] through /no/such/shell: No such file or "
            "directory\n"
            "W87 Process already started for command [true]\n");
  EXPECT_EQ(noShell.GetPid(), 0);
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

TEST(ZrProcess, AbortBetweenSlicesKillsTheChild) {
  ZrProcess process;
  ASSERT_TRUE(process.Start("echo started; sleep 1000").IsSuccess());
  int checks = 0;
  CQiError error = process.WaitForExit(
      ZrProcess::kInfinite, [&checks] { return ++checks == 3; }, 10);
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

TEST(ZrProcess, KillPidsRefusesDangerousPidsAndReportsMissingOnes) {
  long pidMax = 0;  // never a valid pid
  std::ifstream("/proc/sys/kernel/pid_max") >> pidMax;
  std::string got;
  // SIGCONT is harmless if a refusal ever failed to happen.
  for (pid_t pid : {pid_t(0), pid_t(-1), getpid(), pid_t(pidMax)})
    got += ErrorCode(ZrProcess::KillPids({pid}, SIGCONT)) + " ";
  EXPECT_EQ(got, "W87 W87 W87 E3 ");
}

// --- Descriptors and threads ------------------------------------------------------------------

TEST(ZrProcess, ChildInheritsNoDescriptorAboveStandardError) {
  int leaked = open("/dev/null", O_RDONLY);  // deliberately without close-on-exec
  ASSERT_GE(leaked, 0);
  int high = dup2(leaked, 77);
  ASSERT_EQ(high, 77);
  ZrProcess process;
  ASSERT_TRUE(
      process.Start("if [ -e /proc/$$/fd/77 ]; then echo leaked; else echo clean; fi").IsSuccess());
  ASSERT_TRUE(process.WaitForExit(60000).IsSuccess());
  close(high);
  close(leaked);
  EXPECT_EQ(process.GetStdout(), "clean\n");
}
