// CTimeStamp: a point in time with nanosecond resolution, as the file system reports it
// (seconds and nanoseconds since the Unix epoch). The default value is the epoch, "unknown".
// A plain value type; safe to copy between threads.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

class CTimeStamp {
 public:
  CTimeStamp() = default;
  CTimeStamp(int64_t seconds, int64_t nanoseconds);
  explicit CTimeStamp(const struct timespec& ts) : CTimeStamp(ts.tv_sec, ts.tv_nsec) {}

  static CTimeStamp Now();
  static CTimeStamp FromSeconds(int64_t seconds) { return CTimeStamp(seconds, 0); }

  int64_t GetSeconds() const { return m_llSeconds; }
  int64_t GetNanoseconds() const { return m_llNanoseconds; }
  struct timespec ToTimespec() const;
  bool IsSet() const { return m_llSeconds != 0 || m_llNanoseconds != 0; }

  // "2026-11-21 10:57:03.123456789" in UTC.
  std::string AsString() const;

  auto operator<=>(const CTimeStamp&) const = default;

 private:
  int64_t m_llSeconds = 0;
  int64_t m_llNanoseconds = 0;  // 0 .. 999 999 999
};
