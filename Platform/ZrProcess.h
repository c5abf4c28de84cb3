// ZrProcess: runs one external command line and collects its outcome.
//
// The command line is handed to a shell (`/bin/sh -c LINE` by default) started with posix_spawn,
// so pipes, redirections and quoting work as on a terminal. Because the shell always starts, a
// command that does not exist is not a start failure: the shell reports it on standard error and
// exits with code 127 (126 when the file exists but cannot be run). Start() fails only when the
// shell itself cannot be started; that error carries the errno of posix_spawn, its text and the
// command line.
//
// Standard output and standard error each go to memory (a pipe drained while waiting, so a child
// writing a lot on both streams never blocks), to a file (created or truncated, or appended to),
// or to /dev/null. Standard input comes from /dev/null unless SetStdinFromNull(false) is called,
// in which case the child shares the caller's standard input. Files are opened before the child
// starts: one that cannot be opened is an error and no child is started.
//
// The child runs in a process group of its own, so Kill() reaches everything it started (a
// pipeline, a script's children) unless they moved to another group. Every descriptor this class
// opens is close-on-exec, and the child closes every inherited descriptor above 2, so children do
// not hold pipes that other threads opened for their own children.
//
// Waiting is done in slices (Wait) so that the caller can test its abort flag between them;
// WaitForExit wraps that loop with a time-out and an abort callback. The wait ends when the
// shell exits, not when its output pipes close: what was written until then is collected, while
// output of children it left running in the background ("cmd &") is not. Once the child has
// exited it is reaped at once; the destructor kills (whole group, SIGKILL) and reaps a child
// that is still running, so no zombie and no running child outlive the object. A normal exit
// leaves background children alone; Kill and the destructor take the whole group down.
//
// The process must not set SIGCHLD to SIG_IGN (the kernel would then reap children itself and
// their exit status would be lost; Wait reports that as ECHILD).
//
// Threads: one object is used by one thread at a time; distinct objects may be used from any
// number of threads at once. KillPids is stateless and safe from any thread.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Platform/QiError.h"

class ZrProcess {
 public:
  // Where one output stream of the child goes.
  enum class EOutput : uint8_t {
    Memory,      // captured through a pipe; read it with GetStdout() / GetStderr()
    File,        // written to the given file, created or truncated (mode 0666 less the umask)
    AppendFile,  // appended to the given file, created when missing
    Null         // discarded (/dev/null)
  };

  static constexpr uint32_t kInfinite = UINT32_MAX;
  static constexpr uint32_t kDefaultGraceMs = 2000;
  static constexpr uint32_t kDefaultSliceMs = 200;

  ZrProcess();
  ~ZrProcess();
  ZrProcess(const ZrProcess&) = delete;
  ZrProcess& operator=(const ZrProcess&) = delete;

  // --- Set-up, before Start ---------------------------------------------------------------
  // Both streams default to Memory. The path is used for File and AppendFile only; giving the
  // same path to both streams sends them to one shared descriptor (like "> f 2>&1").
  void SetStdout(EOutput eOutput, const std::string& strPath = std::string());
  void SetStderr(EOutput eOutput, const std::string& strPath = std::string());
  // On by default: the child reads /dev/null, never the caller's standard input.
  void SetStdinFromNull(bool bNull) { m_bStdinNull = bNull; }
  // The shell that runs the command line, "/bin/sh" by default; it is called as SHELL -c LINE.
  void SetShell(const std::string& strShell) { m_strShell = strShell; }

  // Starts the command line. Errors: Win32 87 for an empty line or one holding a NUL byte, for a
  // second Start on one object, or for a File stream without a path; the errno of open for an
  // output file that cannot be opened; the errno of posix_spawn when the shell cannot start.
  CQiError Start(const std::string& strCommandLine);

  // --- Waiting ----------------------------------------------------------------------------
  // Waits at most one time slice for the child to exit, reading captured output meanwhile.
  // bFinished tells whether it has exited (and was reaped). A finished child returns at once.
  CQiError Wait(uint32_t uTimeSliceMs, bool& bFinished);

  // Waits until the child exits, slice by slice. Between slices `abortCheck` (may be empty) is
  // asked whether to give up: when it says so the child's group is killed and the result is
  // Win32 995 "Operation aborted". When `uTimeoutMs` passes first (kInfinite: never) the group is
  // killed and the result is errno ETIMEDOUT. Killing sends SIGTERM, then SIGKILL after the grace
  // period.
  CQiError WaitForExit(uint32_t uTimeoutMs, const std::function<bool()>& abortCheck = {},
                       uint32_t uSliceMs = kDefaultSliceMs);

  // --- Killing ----------------------------------------------------------------------------
  // Sends the signal to the child's whole process group and waits for the child to exit and be
  // reaped. Any signal other than SIGKILL is followed, after uGraceMs without an exit, by
  // SIGKILL to the group; once the child is gone, what is left of its group gets SIGKILL too.
  // Succeeds at once when the child has already been reaped; Win32 6 when it was never started.
  CQiError Kill(int iSignal = SIGTERM, uint32_t uGraceMs = kDefaultGraceMs);

  // Sends the signal to each listed process. Every pid is tried; the first failure is returned
  // (errno of kill with the pid). Pids below 1 (which kill(2) reads as "my group" or "every
  // process") and the caller's own pid are refused with Win32 87 and not signalled.
  static CQiError KillPids(const std::vector<pid_t>& vPids, int iSignal);

  // --- Outcome ----------------------------------------------------------------------------
  const std::string& GetCommandLine() const { return m_strCommandLine; }
  pid_t GetPid() const { return m_pid; }  // also the id of the child's process group; 0 before Start
  bool IsStarted() const { return m_pid > 0; }
  bool IsFinished() const { return m_bReaped; }
  // The exit code when the child exited; 128 + signal number when a signal ended it (the shell's
  // convention); -1 while it runs.
  int GetExitCode() const { return m_iExitCode; }
  bool WasKilledBySignal() const { return m_iTermSignal != 0; }
  int GetTermSignal() const { return m_iTermSignal; }
  // Captured output so far (everything, once the child has finished). Empty for streams that
  // are not captured to memory.
  const std::string& GetStdout() const { return m_strStdout; }
  const std::string& GetStderr() const { return m_strStderr; }

 private:
  struct SStream {
    EOutput eOutput = EOutput::Memory;
    std::string strPath;
    int iReadFd = -1;  // parent's end of the pipe for Memory
  };

  CQiError OpenChildDescriptors(int (&childFds)[3], std::vector<int>& vOwned);
  // Reads what the pipes hold now; with uWaitMs > 0 waits up to that long for data or an exit.
  CQiError Pump(int iWaitMs);
  void DrainAndClosePipes();
  // Reaps the child if it has exited (without blocking when bBlock is false).
  CQiError TryReap(bool bBlock, bool& bReaped);
  // True when the child has exited (a zombie), without reaping it.
  bool HasExited();
  void KillGroup(int iSignal);
  void RecordStatus(int iStatus);

  std::string m_strShell = "/bin/sh";
  std::string m_strCommandLine;
  bool m_bStdinNull = true;
  SStream m_stdout;
  SStream m_stderr;
  pid_t m_pid = 0;
  int m_iPidFd = -1;
  bool m_bReaped = false;
  int m_iExitCode = -1;
  int m_iTermSignal = 0;
  std::string m_strStdout;
  std::string m_strStderr;
};
