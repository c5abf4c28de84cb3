#include "Platform/ZrProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Platform/LogWriterInterface.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

// How long Kill waits for the child to die after SIGKILL before it reports a failure (a process
// stuck in an uninterruptible system call cannot die until that call returns).
constexpr int kKillReapTimeoutMs = 10000;
// Poll step when the kernel offers no process descriptor to wait on.
constexpr int kFallbackPollMs = 10;
// Most bytes read from one pipe per pump, so that a fast writer cannot hold a slice forever.
constexpr size_t kMaxReadPerPump = 1 << 20;
// Most bytes read from one pipe after the child has exited.
constexpr size_t kMaxDrainBytes = 4 << 20;

int MsUntil(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return left.count() <= 0 ? 0 : static_cast<int>(std::min<int64_t>(left.count(), INT_MAX));
}

// Descriptors opened for one Start, closed when it returns (the child holds its own copies).
struct SFdList {
  std::vector<int> vFds;
  ~SFdList() {
    for (int fd : vFds) close(fd);
  }
};

// Moves a descriptor above the three standard ones, so that the dup2 calls of the child never
// overwrite a source descriptor that another dup2 still needs.
CQiError LiftAboveStdio(int& fd) {
  if (fd > STDERR_FILENO) return CQiError();
  int lifted = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  int err = errno;
  close(fd);
  fd = lifted;
  if (lifted < 0) return QI_ERROR_ERRNO(err, "fcntl(F_DUPFD_CLOEXEC) failed");
  return CQiError();
}

struct SSpawnActions {
  posix_spawn_file_actions_t actions;
  bool bInit = false;
  ~SSpawnActions() {
    if (bInit) posix_spawn_file_actions_destroy(&actions);
  }
};

struct SSpawnAttr {
  posix_spawnattr_t attr;
  bool bInit = false;
  ~SSpawnAttr() {
    if (bInit) posix_spawnattr_destroy(&attr);
  }
};

}  // namespace

ZrProcess::ZrProcess() = default;

ZrProcess::~ZrProcess() {
  if (m_pid > 0 && !m_bReaped) {
    // Never leave a running child or a zombie behind.
    KillGroup(SIGKILL);
    DrainAndClosePipes();
    bool reaped = false;
    (void)TryReap(true, reaped);
  }
  DrainAndClosePipes();
  if (m_iPidFd >= 0) close(m_iPidFd);
}

void ZrProcess::SetStdout(EOutput eOutput, const std::string& strPath) {
  m_stdout.eOutput = eOutput;
  m_stdout.strPath = strPath;
}

void ZrProcess::SetStderr(EOutput eOutput, const std::string& strPath) {
  m_stderr.eOutput = eOutput;
  m_stderr.strPath = strPath;
}

CQiError ZrProcess::OpenChildDescriptors(int (&childFds)[3], std::vector<int>& vOwned) {
  childFds[0] = STDIN_FILENO;
  if (m_bStdinNull) {
    int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return QI_ERROR_ERRNO(errno, "Unable to open /dev/null for the standard input");
    QI_RETURN_IF_ERROR(LiftAboveStdio(fd));
    vOwned.push_back(fd);
    childFds[0] = fd;
  }

  SStream* streams[2] = {&m_stdout, &m_stderr};
  for (int i = 0; i < 2; ++i) {
    SStream& stream = *streams[i];
    const char* name = i == 0 ? "standard output" : "standard error";
    int fd = -1;
    switch (stream.eOutput) {
      case EOutput::Memory: {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0)
          return QI_ERROR_ERRNO(errno, "Unable to create a pipe for the %s", name);
        stream.iReadFd = fds[0];  // closed by DrainAndClosePipes
        fcntl(fds[0], F_SETFL, fcntl(fds[0], F_GETFL) | O_NONBLOCK);
        CQiError error = LiftAboveStdio(stream.iReadFd);
        if (error.IsError()) {
          close(fds[1]);
          return QI_PUSH(error);
        }
        fd = fds[1];
        break;
      }
      case EOutput::File:
      case EOutput::AppendFile: {
        if (i == 1 && m_stdout.eOutput == stream.eOutput && m_stdout.strPath == stream.strPath) {
          childFds[2] = childFds[1];  // both streams into one file, like "> f 2>&1"
          continue;
        }
        CQiError error = FXPath::ValidatePath(stream.strPath);
        if (error.IsError())
          return QI_PUSH(error, "Invalid file for the %s of command [%s]", name,
                         m_strCommandLine.c_str());
        if (stream.strPath.size() >= PATH_MAX)
          return QI_ERROR_ERRNO(ENAMETOOLONG, "File for the %s is longer than %d bytes: %s", name,
                                PATH_MAX - 1, stream.strPath.c_str());
        int flags = O_WRONLY | O_CREAT | O_CLOEXEC |
                    (stream.eOutput == EOutput::File ? O_TRUNC : O_APPEND);
        fd = open(stream.strPath.c_str(), flags, 0666);
        if (fd < 0)
          return QI_ERROR_ERRNO(errno, "Unable to open [%s] for the %s of command [%s]",
                                stream.strPath.c_str(), name, m_strCommandLine.c_str());
        break;
      }
      case EOutput::Null:
        fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (fd < 0) return QI_ERROR_ERRNO(errno, "Unable to open /dev/null for the %s", name);
        break;
    }
    CQiError error = LiftAboveStdio(fd);
    if (error.IsError()) return QI_PUSH(error);
    vOwned.push_back(fd);
    childFds[i + 1] = fd;
  }
  return CQiError();
}

CQiError ZrProcess::Start(const std::string& strCommandLine) {
  if (m_pid > 0)
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                          "Process already started for command [%s]", m_strCommandLine.c_str());
  if (strCommandLine.empty())
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Empty command line");
  if (strCommandLine.find('\0') != std::string::npos)
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Command line holds a NUL byte");
  QI_RETURN_IF_ERROR(FXPath::ValidatePath(m_strShell), "Invalid shell");
  m_strCommandLine = strCommandLine;
  m_strStdout.clear();
  m_strStderr.clear();

  SFdList owned;
  int childFds[3] = {-1, -1, -1};
  CQiError error = OpenChildDescriptors(childFds, owned.vFds);
  if (error.IsError()) {
    DrainAndClosePipes();
    return QI_PUSH(error);
  }

  SSpawnActions actions;
  SSpawnAttr attr;
  int rc = posix_spawn_file_actions_init(&actions.actions);
  actions.bInit = rc == 0;
  if (rc == 0) rc = posix_spawnattr_init(&attr.attr);
  attr.bInit = actions.bInit && rc == 0;
  for (int i = 0; i < 3 && rc == 0; ++i) {
    if (childFds[i] != i) rc = posix_spawn_file_actions_adddup2(&actions.actions, childFds[i], i);
  }
  // The child keeps only its three standard descriptors.
  if (rc == 0) rc = posix_spawn_file_actions_addclosefrom_np(&actions.actions, STDERR_FILENO + 1);
  if (rc == 0) {
    sigset_t mask;
    sigemptyset(&mask);
    rc = posix_spawnattr_setsigmask(&attr.attr, &mask);
    // Signals the caller ignores (SIGPIPE, typically) are back to their defaults in the child.
    sigset_t defaults;
    sigfillset(&defaults);
    if (rc == 0) rc = posix_spawnattr_setsigdefault(&attr.attr, &defaults);
    if (rc == 0) rc = posix_spawnattr_setpgroup(&attr.attr, 0);
    if (rc == 0)
      rc = posix_spawnattr_setflags(
          &attr.attr, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
  if (rc != 0) {
    DrainAndClosePipes();
    return QI_ERROR_ERRNO(rc, "Unable to prepare the start of command [%s]",
                          m_strCommandLine.c_str());
  }

  std::string dashC = "-c";
  char* argv[] = {m_strShell.data(), dashC.data(), m_strCommandLine.data(), nullptr};
  pid_t pid = 0;
  rc = posix_spawn(&pid, m_strShell.c_str(), &actions.actions, &attr.attr, argv, environ);
  if (rc != 0) {
    DrainAndClosePipes();
    return QI_ERROR_ERRNO(rc, "Failed to start command [%s] through %s: %s",
                          m_strCommandLine.c_str(), m_strShell.c_str(), strerror(rc));
  }
  m_pid = pid;
  // A process descriptor lets poll() wake up on the child's exit; without one (old kernels)
  // the waits fall back to short polling steps.
  // (Called through syscall: the C library's declaration of pidfd_open lacks C linkage in C++.)
  m_iPidFd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  ZRLOG(3, "Started command [%s], pid %d", m_strCommandLine.c_str(), static_cast<int>(pid));
  return CQiError();
}

CQiError ZrProcess::Pump(int iWaitMs) {
  struct pollfd fds[3];
  SStream* owners[3] = {nullptr, nullptr, nullptr};
  nfds_t count = 0;
  for (SStream* stream : {&m_stdout, &m_stderr}) {
    if (stream->iReadFd < 0) continue;
    owners[count] = stream;
    fds[count++] = {stream->iReadFd, POLLIN, 0};
  }
  if (m_iPidFd >= 0 && !m_bReaped) fds[count++] = {m_iPidFd, POLLIN, 0};
  int waitMs = iWaitMs;
  if (m_iPidFd < 0) waitMs = std::min(waitMs, kFallbackPollMs);
  int ready = poll(fds, count, waitMs);
  if (ready < 0) {
    if (errno == EINTR) return CQiError();
    return QI_ERROR_ERRNO(errno, "poll failed while waiting for pid %d", static_cast<int>(m_pid));
  }
  char buffer[65536];
  for (nfds_t i = 0; i < count; ++i) {
    if (owners[i] == nullptr || fds[i].revents == 0) continue;
    SStream& stream = *owners[i];
    std::string& sink = &stream == &m_stdout ? m_strStdout : m_strStderr;
    size_t readNow = 0;
    while (readNow < kMaxReadPerPump) {
      ssize_t got = read(stream.iReadFd, buffer, sizeof(buffer));
      if (got > 0) {
        sink.append(buffer, static_cast<size_t>(got));
        readNow += static_cast<size_t>(got);
        continue;
      }
      if (got < 0 && errno == EINTR) continue;
      if (got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) {
        // End of file: every writer has closed its end.
        close(stream.iReadFd);
        stream.iReadFd = -1;
      }
      break;
    }
  }
  return CQiError();
}

void ZrProcess::DrainAndClosePipes() {
  char buffer[65536];
  for (SStream* stream : {&m_stdout, &m_stderr}) {
    if (stream->iReadFd < 0) continue;
    std::string& sink = stream == &m_stdout ? m_strStdout : m_strStderr;
    // Only what is in the pipe now (a pipe holds at most a few hundred KiB): children the
    // shell left running may keep it open, and even keep writing.
    for (size_t drained = 0; drained < kMaxDrainBytes;) {
      ssize_t got = read(stream->iReadFd, buffer, sizeof(buffer));
      if (got > 0) {
        if (m_pid > 0) sink.append(buffer, static_cast<size_t>(got));
        drained += static_cast<size_t>(got);
        continue;
      }
      if (got < 0 && errno == EINTR) continue;
      break;
    }
    close(stream->iReadFd);
    stream->iReadFd = -1;
  }
}

bool ZrProcess::HasExited() {
  siginfo_t info;
  memset(&info, 0, sizeof(info));
  int rc = waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED | WNOHANG | WNOWAIT);
  if (rc != 0) return errno == ECHILD;  // reaped by someone else: nothing left to wait for
  return info.si_pid == m_pid;
}

void ZrProcess::RecordStatus(int iStatus) {
  if (WIFEXITED(iStatus)) {
    m_iExitCode = WEXITSTATUS(iStatus);
    m_iTermSignal = 0;
  } else if (WIFSIGNALED(iStatus)) {
    m_iTermSignal = WTERMSIG(iStatus);
    m_iExitCode = 128 + m_iTermSignal;
  }
}

CQiError ZrProcess::TryReap(bool bBlock, bool& bReaped) {
  bReaped = m_bReaped;
  if (m_bReaped || m_pid <= 0) return CQiError();
  int status = 0;
  pid_t rc;
  do {
    rc = waitpid(m_pid, &status, bBlock ? 0 : WNOHANG);
  } while (rc < 0 && errno == EINTR);
  if (rc == 0) return CQiError();
  m_bReaped = true;
  bReaped = true;
  if (m_iPidFd >= 0) {
    close(m_iPidFd);
    m_iPidFd = -1;
  }
  if (rc < 0) {
    return QI_ERROR_ERRNO(errno,
                          "Child process [pid=%d] of command [%s] was reaped elsewhere; its exit "
                          "status is unknown",
                          static_cast<int>(m_pid), m_strCommandLine.c_str());
  }
  RecordStatus(status);
  ZRLOG(3, "Command [%s], pid %d, ended with exit code %d", m_strCommandLine.c_str(),
        static_cast<int>(m_pid), m_iExitCode);
  return CQiError();
}

CQiError ZrProcess::Wait(uint32_t uTimeSliceMs, bool& bFinished) {
  bFinished = false;
  if (m_pid <= 0) return QI_ERROR_WIN32(QiErrorCode::InvalidHandle, "Process not started");
  if (m_bReaped) {
    bFinished = true;
    return CQiError();
  }
  Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(uTimeSliceMs);
  for (;;) {
    if (HasExited()) {
      // What the child wrote before it exited is in the pipes already.
      DrainAndClosePipes();
      QI_RETURN_IF_ERROR(TryReap(true, bFinished));
      return CQiError();
    }
    int left = MsUntil(deadline);
    if (left <= 0) return CQiError();
    QI_RETURN_IF_ERROR(Pump(left));
  }
}

CQiError ZrProcess::WaitForExit(uint32_t uTimeoutMs, const std::function<bool()>& abortCheck,
                                uint32_t uSliceMs) {
  if (m_pid <= 0) return QI_ERROR_WIN32(QiErrorCode::InvalidHandle, "Process not started");
  if (uSliceMs == 0) uSliceMs = 1;
  Clock::time_point start = Clock::now();
  for (;;) {
    if (abortCheck && abortCheck()) {
      ZRLOG(1, "Aborting command [%s], pid %d", m_strCommandLine.c_str(), static_cast<int>(m_pid));
      CQiError killError = Kill();
      CQiError error = QI_ERROR_WIN32(QiErrorCode::OperationAborted, "Operation aborted");
      if (killError.IsError()) error.AppendText("; %s", killError.GetMessage().c_str());
      return error;
    }
    uint32_t slice = uSliceMs;
    if (uTimeoutMs != kInfinite) {
      auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
      uint64_t spentMs = static_cast<uint64_t>(spent.count());
      if (spentMs >= uTimeoutMs) {
        CQiError killError = Kill();
        CQiError error = QI_ERROR_ERRNO(ETIMEDOUT,
                                        "Command [%s] did not finish within %u ms; pid %d killed",
                                        m_strCommandLine.c_str(), uTimeoutMs,
                                        static_cast<int>(m_pid));
        if (killError.IsError()) error.AppendText("; %s", killError.GetMessage().c_str());
        return error;
      }
      slice = static_cast<uint32_t>(std::min<uint64_t>(slice, uTimeoutMs - spentMs));
    }
    bool finished = false;
    QI_RETURN_IF_ERROR(Wait(slice, finished));
    if (finished) return CQiError();
  }
}

void ZrProcess::KillGroup(int iSignal) {
  // The child is not reaped yet, so its pid still names its group and cannot have been reused.
  if (killpg(m_pid, iSignal) != 0 && errno == ESRCH) kill(m_pid, iSignal);
}

CQiError ZrProcess::Kill(int iSignal, uint32_t uGraceMs) {
  if (m_pid <= 0) return QI_ERROR_WIN32(QiErrorCode::InvalidHandle, "Process not started");
  if (m_bReaped) return CQiError();
  ZRLOG(1, "Killing process group %d of command [%s] with signal %d", static_cast<int>(m_pid),
        m_strCommandLine.c_str(), iSignal);
  if (killpg(m_pid, iSignal) != 0) {
    int err = errno;
    if (err != ESRCH || kill(m_pid, iSignal) != 0)
      return QI_ERROR_ERRNO(err, "Failed to send signal %d to process group %d", iSignal,
                            static_cast<int>(m_pid));
  }
  if (iSignal != SIGKILL) {
    Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(uGraceMs);
    while (!HasExited()) {
      int left = MsUntil(deadline);
      if (left <= 0) break;
      QI_RETURN_IF_ERROR(Pump(left));
    }
  }
  // The leader has exited or ignored the signal: whatever is left of the group dies now.
  KillGroup(SIGKILL);
  Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(kKillReapTimeoutMs);
  while (!HasExited()) {
    int left = MsUntil(deadline);
    if (left <= 0)
      return QI_ERROR_ERRNO(ETIMEDOUT, "Process %d of command [%s] did not exit after SIGKILL",
                            static_cast<int>(m_pid), m_strCommandLine.c_str());
    QI_RETURN_IF_ERROR(Pump(left));
  }
  DrainAndClosePipes();
  bool reaped = false;
  QI_RETURN_IF_ERROR(TryReap(true, reaped));
  return CQiError();
}

CQiError ZrProcess::KillPids(const std::vector<pid_t>& vPids, int iSignal) {
  CQiError first;
  pid_t self = getpid();
  for (pid_t pid : vPids) {
    CQiError error;
    if (pid <= 0 || pid == self) {
      error = QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Refusing to send signal %d to pid %d",
                             iSignal, static_cast<int>(pid));
    } else if (kill(pid, iSignal) != 0) {
      error = QI_ERROR_ERRNO(errno, "Failed to send signal %d to pid %d", iSignal,
                             static_cast<int>(pid));
    }
    if (error.IsError() && first.IsSuccess()) first = error;
  }
  return first;
}
