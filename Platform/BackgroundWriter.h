// CBackgroundWriter: buffered sequential writes to one descriptor, the write calls made on a
// helper thread.
//
// The producer fills one buffer while the helper thread hands the other to write(2), so that the
// kernel's copy into the page cache runs on a second processor instead of adding to the
// producer's time. Without the helper thread (asked for, or no thread to be had) the same class
// writes on the caller's thread when a buffer fills.
//
// Errors of a write (ENOSPC, EIO...) are returned by the next call that hands over a buffer or
// by Flush. The descriptor belongs to the caller; it must stay open until Flush has returned or
// the writer is destroyed. Data not flushed when the writer is destroyed is dropped.
//
// Threads: one producer thread calls every member; the helper thread is internal.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "Platform/QiError.h"

class CBackgroundWriter {
 public:
  // strPath names the file in error messages only.
  CBackgroundWriter(int fd, const std::string& strPath, size_t uBufferBytes, bool bBackground);
  ~CBackgroundWriter();
  CBackgroundWriter(const CBackgroundWriter&) = delete;
  CBackgroundWriter& operator=(const CBackgroundWriter&) = delete;

  // Room for at least uBytes at pData; Commit tells how many of them were filled.
  CQiError Reserve(size_t uBytes, char*& pData) {
    if (uBytes > m_uCapacity[m_iCurrent] - m_uUsed) {
      CQiError error = MakeRoom(uBytes);
      if (error.IsError()) return error;
    }
    pData = m_pBuffer[m_iCurrent].get() + m_uUsed;
    return CQiError();
  }
  void Commit(size_t uBytes) { m_uUsed += uBytes; }

  // Appends the bytes and a line feed.
  CQiError AddLine(const char* pData, size_t uLength) {
    char* target = nullptr;
    CQiError error = Reserve(uLength + 1, target);
    if (error.IsError()) return error;
    memcpy(target, pData, uLength);
    target[uLength] = '\n';
    m_uUsed += uLength + 1;
    return CQiError();
  }

  // Writes everything appended so far and waits for it.
  CQiError Flush();
  // Bytes appended so far (written or still buffered).
  uint64_t GetAppended() const { return m_uHandedOver + m_uUsed; }

 private:
  CQiError MakeRoom(size_t uBytes);
  CQiError HandOver();
  CQiError WaitIdle();
  CQiError WriteAll(const char* pData, size_t uLength);
  void ThreadMain();

  int m_iFd;
  std::string m_strPath;
  std::unique_ptr<char[]> m_pBuffer[2];
  size_t m_uCapacity[2];
  int m_iCurrent = 0;
  size_t m_uUsed = 0;
  uint64_t m_uHandedOver = 0;

  std::thread m_thread;
  bool m_bThread = false;
  std::mutex m_mutex;
  std::condition_variable m_cv;
  // Shared with the helper thread under m_mutex.
  size_t m_uPendingBytes = 0;  // bytes of buffer m_iPending waiting to be written
  int m_iPending = 0;
  bool m_bStop = false;
  CQiError m_threadError;
};
