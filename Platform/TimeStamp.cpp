#include "Platform/TimeStamp.h"

#include "Platform/FXString.h"

CTimeStamp::CTimeStamp(int64_t seconds, int64_t nanoseconds) {
  // Normalise so that the nanoseconds always lie in [0, 1e9).
  seconds += nanoseconds / 1000000000;
  nanoseconds %= 1000000000;
  if (nanoseconds < 0) {
    nanoseconds += 1000000000;
    seconds -= 1;
  }
  m_llSeconds = seconds;
  m_llNanoseconds = nanoseconds;
}

CTimeStamp CTimeStamp::Now() {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return CTimeStamp(ts);
}

struct timespec CTimeStamp::ToTimespec() const {
  struct timespec ts;
  ts.tv_sec = static_cast<time_t>(m_llSeconds);
  ts.tv_nsec = static_cast<long>(m_llNanoseconds);
  return ts;
}

std::string CTimeStamp::AsString() const {
  time_t seconds = static_cast<time_t>(m_llSeconds);
  struct tm utc;
  if (gmtime_r(&seconds, &utc) == nullptr) return FXString::Format("%lld", (long long)m_llSeconds);
  char buffer[40];
  strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S", &utc);
  return FXString::Format("%s.%09lld", buffer, static_cast<long long>(m_llNanoseconds));
}
