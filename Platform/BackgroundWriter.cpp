#include "Platform/BackgroundWriter.h"

#include <unistd.h>

#include <cerrno>
#include <new>
#include <utility>

#include "Platform/FXErrorUtil.h"

CBackgroundWriter::CBackgroundWriter(int fd, const std::string& strPath, size_t uBufferBytes,
                                     bool bBackground)
    : m_iFd(fd), m_strPath(strPath) {
  if (uBufferBytes == 0) uBufferBytes = 1;
  m_pBuffer[0].reset(new char[uBufferBytes]);
  m_uCapacity[0] = uBufferBytes;
  m_uCapacity[1] = 0;
  if (bBackground) {
    m_pBuffer[1].reset(new char[uBufferBytes]);
    m_uCapacity[1] = uBufferBytes;
    try {
      m_thread = std::thread(&CBackgroundWriter::ThreadMain, this);
      m_bThread = true;
    } catch (...) {
      m_bThread = false;  // no thread to be had: write on the caller's thread
    }
  }
}

CBackgroundWriter::~CBackgroundWriter() {
  if (m_bThread) {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_bStop = true;
    }
    m_cv.notify_all();
    m_thread.join();
  }
}

CQiError CBackgroundWriter::WriteAll(const char* pData, size_t uLength) {
  while (uLength > 0) {
    ssize_t done = write(m_iFd, pData, uLength);
    if (done < 0) {
      if (errno == EINTR) continue;
      return QI_ERROR_ERRNO(errno, "Unable to write to [%s]", m_strPath.c_str());
    }
    pData += done;
    uLength -= static_cast<size_t>(done);
  }
  return CQiError();
}

void CBackgroundWriter::ThreadMain() {
  std::unique_lock<std::mutex> lock(m_mutex);
  for (;;) {
    m_cv.wait(lock, [this] { return m_uPendingBytes > 0 || m_bStop; });
    if (m_uPendingBytes == 0) return;  // stopped with nothing left
    const char* data = m_pBuffer[m_iPending].get();
    size_t length = m_uPendingBytes;
    lock.unlock();
    CQiError error = WriteAll(data, length);
    lock.lock();
    if (error.IsError() && m_threadError.IsSuccess()) m_threadError = std::move(error);
    m_uPendingBytes = 0;
    m_cv.notify_all();
  }
}

CQiError CBackgroundWriter::WaitIdle() {
  if (!m_bThread) return CQiError();
  std::unique_lock<std::mutex> lock(m_mutex);
  m_cv.wait(lock, [this] { return m_uPendingBytes == 0; });
  return m_threadError;
}

// Hands the current buffer to the helper thread (or writes it here) and makes the other buffer
// current.
CQiError CBackgroundWriter::HandOver() {
  QI_RETURN_IF_ERROR(WaitIdle());
  if (m_uUsed == 0) return CQiError();
  size_t length = m_uUsed;
  m_uHandedOver += length;
  m_uUsed = 0;
  if (!m_bThread) return WriteAll(m_pBuffer[m_iCurrent].get(), length);
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_iPending = m_iCurrent;
    m_uPendingBytes = length;
  }
  m_cv.notify_all();
  m_iCurrent ^= 1;
  return CQiError();
}

CQiError CBackgroundWriter::MakeRoom(size_t uBytes) {
  QI_RETURN_IF_ERROR(HandOver());
  if (uBytes > m_uCapacity[m_iCurrent]) {
    // One piece larger than a buffer: this buffer grows to hold it.
    char* bigger = new (std::nothrow) char[uBytes];
    if (bigger == nullptr)
      return QI_ERROR_ERRNO(ENOMEM, "Unable to allocate %zu bytes to write [%s]", uBytes,
                            m_strPath.c_str());
    m_pBuffer[m_iCurrent].reset(bigger);
    m_uCapacity[m_iCurrent] = uBytes;
  }
  return CQiError();
}

CQiError CBackgroundWriter::Flush() {
  QI_RETURN_IF_ERROR(HandOver());
  QI_RETURN_IF_ERROR(WaitIdle());
  return CQiError();
}
