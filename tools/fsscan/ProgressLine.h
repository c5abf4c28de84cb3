// CProgressLine: the live progress line of fsscan on stderr, and the writer of every other
// message that fsscan prints to stderr while a scan runs (so that a message never lands in the
// middle of the progress line).
//
// When enabled (stderr is a terminal), Start runs a thread that redraws one line ("\r...") with
// the sampler's text twice a second until Stop, which clears the line. When disabled it draws
// nothing and PrintMessage just writes the line.
//
// Threads: PrintMessage may be called from any thread; Start and Stop from the owner's thread.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

class CProgressLine {
 public:
  using Sampler = std::function<std::string()>;

  explicit CProgressLine(bool bEnabled);
  ~CProgressLine();
  CProgressLine(const CProgressLine&) = delete;
  CProgressLine& operator=(const CProgressLine&) = delete;

  void Start(Sampler fnSampler);
  void Stop();
  // Writes one whole line (a line feed is added) to stderr.
  void PrintMessage(const std::string& strLine);

  bool IsEnabled() const { return m_bEnabled; }

 private:
  void ThreadMain();
  void ClearLocked();

  const bool m_bEnabled;
  Sampler m_fnSampler;
  std::mutex m_mutex;  // guards stderr writes and the flags below
  std::condition_variable m_cvStop;
  bool m_bStop = false;
  bool m_bShown = false;
  std::thread m_thread;
};
