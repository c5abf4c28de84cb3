#include "Platform/SortRunReader.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "Platform/FXErrorUtil.h"

CSortRunReader::CSortRunReader(int fd, uint64_t uBytes, const std::string& strName,
                               size_t uBufferBytes)
    : m_iFd(fd), m_uSize(uBytes), m_strName(strName),
      m_pBuffer(new char[std::max<size_t>(uBufferBytes, 64)]),
      m_uCapacity(std::max<size_t>(uBufferBytes, 64)) {}

CQiError CSortRunReader::Fill(size_t uBytes) {
  if (m_uEnd - m_uPos >= uBytes || m_uOffset >= m_uSize) return CQiError();
  size_t available = m_uEnd - m_uPos;
  memmove(m_pBuffer.get(), m_pBuffer.get() + m_uPos, available);
  m_uPos = 0;
  m_uEnd = available;
  if (uBytes > m_uCapacity) {
    std::unique_ptr<char[]> bigger(new (std::nothrow) char[uBytes]);
    if (!bigger)
      return QI_ERROR_ERRNO(ENOMEM, "Unable to allocate %zu bytes to read a sort run in [%s]",
                            uBytes, m_strName.c_str());
    memcpy(bigger.get(), m_pBuffer.get(), m_uEnd);
    m_pBuffer = std::move(bigger);
    m_uCapacity = uBytes;
  }
  while (m_uEnd < uBytes && m_uOffset < m_uSize) {
    size_t want = static_cast<size_t>(std::min<uint64_t>(m_uCapacity - m_uEnd, m_uSize - m_uOffset));
    ssize_t got = pread(m_iFd, m_pBuffer.get() + m_uEnd, want, static_cast<off_t>(m_uOffset));
    if (got < 0) {
      if (errno == EINTR) continue;
      return QI_ERROR_ERRNO(errno, "Unable to read a sort run in [%s]", m_strName.c_str());
    }
    if (got == 0)
      return QI_ERROR_ERRNO(EIO, "Sort run in [%s] is shorter than written", m_strName.c_str());
    m_uEnd += static_cast<size_t>(got);
    m_uOffset += static_cast<uint64_t>(got);
  }
  return CQiError();
}

bool CSortRunReader::GetVarint(uint64_t& value) {
  value = 0;
  for (unsigned shift = 0; shift < 64 && m_uPos < m_uEnd; shift += 7) {
    unsigned char byte = static_cast<unsigned char>(m_pBuffer[m_uPos++]);
    value |= static_cast<uint64_t>(byte & 0x7f) << shift;
    if ((byte & 0x80) == 0) return true;
  }
  return false;
}

CQiError CSortRunReader::Next(const char*& pData, size_t& uLength, bool& bHave) {
  bHave = false;
  QI_RETURN_IF_ERROR(Fill(20));
  if (m_uPos == m_uEnd) return CQiError();  // end of the run
  uint64_t shared = 0;
  uint64_t rest = 0;
  if (!GetVarint(shared) || !GetVarint(rest) || shared > m_strLine.size())
    return QI_ERROR_ERRNO(EIO, "Damaged sort run in [%s]", m_strName.c_str());
  if (rest > (m_uSize - m_uOffset) + (m_uEnd - m_uPos))
    return QI_ERROR_ERRNO(EIO, "Damaged sort run in [%s]", m_strName.c_str());
  QI_RETURN_IF_ERROR(Fill(static_cast<size_t>(rest)));
  if (m_uEnd - m_uPos < rest)
    return QI_ERROR_ERRNO(EIO, "Damaged sort run in [%s]", m_strName.c_str());
  m_strLine.resize(static_cast<size_t>(shared));
  m_strLine.append(m_pBuffer.get() + m_uPos, static_cast<size_t>(rest));
  m_uPos += static_cast<size_t>(rest);
  pData = m_strLine.data();
  uLength = m_strLine.size();
  bHave = true;
  return CQiError();
}
