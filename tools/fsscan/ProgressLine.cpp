#include "ProgressLine.h"

#include <chrono>
#include <cstdio>

CProgressLine::CProgressLine(bool bEnabled) : m_bEnabled(bEnabled) {}

CProgressLine::~CProgressLine() { Stop(); }

void CProgressLine::Start(Sampler fnSampler) {
  if (!m_bEnabled || m_thread.joinable()) return;
  m_fnSampler = std::move(fnSampler);
  m_bStop = false;
  m_thread = std::thread([this] { ThreadMain(); });
}

void CProgressLine::Stop() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bStop = true;
  }
  m_cvStop.notify_all();
  if (m_thread.joinable()) m_thread.join();
  std::lock_guard<std::mutex> lock(m_mutex);
  ClearLocked();
}

void CProgressLine::ClearLocked() {
  if (!m_bShown) return;
  fputs("\r\033[K", stderr);
  fflush(stderr);
  m_bShown = false;
}

void CProgressLine::PrintMessage(const std::string& strLine) {
  std::lock_guard<std::mutex> lock(m_mutex);
  ClearLocked();
  fwrite(strLine.data(), 1, strLine.size(), stderr);
  fputc('\n', stderr);
  fflush(stderr);
}

void CProgressLine::ThreadMain() {
  std::unique_lock<std::mutex> lock(m_mutex);
  while (!m_cvStop.wait_for(lock, std::chrono::milliseconds(500), [this] { return m_bStop; })) {
    const std::string strText = m_fnSampler ? m_fnSampler() : std::string();
    fprintf(stderr, "\r\033[K%s", strText.c_str());
    fflush(stderr);
    m_bShown = true;
  }
}
