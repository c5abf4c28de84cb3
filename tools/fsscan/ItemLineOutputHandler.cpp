#include "ItemLineOutputHandler.h"

#include <sys/stat.h>
#include <unistd.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <cerrno>
#include <charconv>
#include <cstring>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"
#include "Scan/Unix/RawDeviceItem.h"

namespace {

// The size of a record: the item's size, and for a raw device (given as content) the device's
// size, which its size on disk tells; a device node met in a folder has none (0).
uint64_t ReportedSize(const CItem& item) {
  const uint32_t uType = item.GetAttributes() & 0xF000;
  if (item.GetAttributes() != CItem::kAttributesUnknown && (uType == 0x6000 || uType == 0x2000) &&
      dynamic_cast<const CRawDeviceItem*>(&item) != nullptr)
    return item.GetFileSizeOnDisk();
  return item.GetFileSize();
}
// A thread's buffer goes to the stream once it holds this much.
constexpr size_t kBlockSize = 64 * 1024;

char TypeLetter(uint32_t uAttributes) {
  if (uAttributes == CItem::kAttributesUnknown) return 'U';
  switch (uAttributes & S_IFMT) {
    case S_IFREG: return 'f';
    case S_IFDIR: return 'd';
    case S_IFLNK: return 'l';
    case S_IFIFO: return 'p';
    case S_IFSOCK: return 's';
    case S_IFCHR: return 'c';
    case S_IFBLK: return 'b';
    default: return 'U';
  }
}

// True when any byte of the word is below 0x20, is 0x7f or is a backslash: eight bytes at a
// time, since the check runs over every path of the scan.
constexpr uint64_t kOnes = 0x0101010101010101ULL;
constexpr uint64_t kHighs = 0x8080808080808080ULL;
inline bool WordNeedsEscape(uint64_t v) {
  const uint64_t below20 = (v - kOnes * 0x20) & ~v & kHighs;
  const uint64_t x7f = v ^ (kOnes * 0x7f);
  const uint64_t x5c = v ^ (kOnes * '\\');
  const uint64_t is7f = (x7f - kOnes) & ~x7f & kHighs;
  const uint64_t is5c = (x5c - kOnes) & ~x5c & kHighs;
  return (below20 | is7f | is5c) != 0;
}

// Bytes that FXString::EscapeControl rewrites.
bool NeedsEscape(const std::string& strText) {
  const char* p = strText.data();
  size_t n = strText.size();
#if defined(__SSE2__)
  // Sixteen bytes at a time: c <= 0x1f (unsigned), c == 0x7f, c == '\\'.
  const __m128i k1f = _mm_set1_epi8(0x1f);
  const __m128i k7f = _mm_set1_epi8(0x7f);
  const __m128i k5c = _mm_set1_epi8('\\');
  for (; n >= 16; p += 16, n -= 16) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const __m128i control = _mm_cmpeq_epi8(_mm_min_epu8(v, k1f), v);
    const __m128i special = _mm_or_si128(_mm_cmpeq_epi8(v, k7f), _mm_cmpeq_epi8(v, k5c));
    if (_mm_movemask_epi8(_mm_or_si128(control, special)) != 0) return true;
  }
#endif
  for (; n >= sizeof(uint64_t); p += sizeof(uint64_t), n -= sizeof(uint64_t)) {
    uint64_t v;
    memcpy(&v, p, sizeof(v));
    if (WordNeedsEscape(v)) return true;
  }
  for (; n > 0; ++p, --n) {
    const auto c = static_cast<unsigned char>(*p);
    if (c < 0x20 || c == 0x7f || c == '\\') return true;
  }
  return false;
}

// Which handler a thread's cached buffer belongs to: handlers get ids that are never reused, so
// a handler made at the address of a destroyed one never sees the old one's buffer.
std::atomic<uint64_t> g_ullNextInstanceId{1};
struct SThreadCache {
  uint64_t ullInstanceId = 0;
  void* pBuffer = nullptr;
};
thread_local SThreadCache t_cache;
}  // namespace

CItemLineOutputHandler::CItemLineOutputHandler(FILE* pFile, EFormat eFormat)
    : m_ullInstanceId(g_ullNextInstanceId.fetch_add(1, std::memory_order_relaxed)),
      m_pFile(pFile),
      m_eFormat(eFormat) {}

CItemLineOutputHandler::~CItemLineOutputHandler() = default;

void CItemLineOutputHandler::AppendLine(const CItem& item, std::string& strOut) {
  const uint32_t uAttributes = item.GetAttributes();
  const CTimeStamp tWrite = item.GetLastWriteTime();
  // Everything before the path is built on the stack and appended at once: at most 2 + 4 + 1 +
  // 20 + 1 + 20 + 1 + 9 + 1 bytes.
  constexpr size_t kMaxDigits = 20;
  char szHead[96];
  char* p = szHead;
  *p++ = TypeLetter(uAttributes);
  *p++ = ' ';
  if (uAttributes == CItem::kAttributesUnknown) {
    memcpy(p, "----", 4);
  } else {
    const unsigned uMode = uAttributes & 07777;
    for (int i = 0; i < 4; ++i) p[i] = static_cast<char>('0' + ((uMode >> (9 - 3 * i)) & 7));
  }
  p += 4;
  *p++ = ' ';
  p = std::to_chars(p, p + kMaxDigits, static_cast<unsigned long long>(ReportedSize(item))).ptr;
  *p++ = ' ';
  const long long llNanoseconds = tWrite.GetNanoseconds();
  if (llNanoseconds >= 0 && llNanoseconds < 1000000000) {
    p = std::to_chars(p, p + kMaxDigits, static_cast<long long>(tWrite.GetSeconds())).ptr;
    *p++ = '.';
    // Nine digits, zeros in front.
    char szDigits[kMaxDigits];
    const char* pDigitsEnd = std::to_chars(szDigits, szDigits + sizeof(szDigits), llNanoseconds).ptr;
    const size_t nDigits = static_cast<size_t>(pDigitsEnd - szDigits);
    memset(p, '0', 9 - nDigits);
    memcpy(p + 9 - nDigits, szDigits, nDigits);
    p += 9;
    *p++ = ' ';
    strOut.append(szHead, p);
  } else {
    strOut.append(szHead, p);
    strOut.append(FXString::Format("%lld.%09lld ", static_cast<long long>(tWrite.GetSeconds()), llNanoseconds));
  }
  const std::string& strPath = item.GetSourceFullyQualifiedItemName();
  if (NeedsEscape(strPath))
    strOut.append(FXString::EscapeControl(strPath));
  else
    strOut.append(strPath);
}

std::string CItemLineOutputHandler::FormatLine(const CItem& item) {
  std::string strLine;
  AppendLine(item, strLine);
  return strLine;
}

CItemLineOutputHandler::SThreadBuffer& CItemLineOutputHandler::GetThreadBuffer() {
  if (t_cache.ullInstanceId == m_ullInstanceId) return *static_cast<SThreadBuffer*>(t_cache.pBuffer);
  // First record of this thread for this handler (or the thread moved between handlers).
  auto pBuffer = std::make_unique<SThreadBuffer>();
  pBuffer->strData.reserve(kBlockSize + 4096);
  SThreadBuffer* pRaw = pBuffer.get();
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lstBuffers.push_back(std::move(pBuffer));
  }
  t_cache.ullInstanceId = m_ullInstanceId;
  t_cache.pBuffer = pRaw;
  return *pRaw;
}

CQiError CItemLineOutputHandler::WriteLocked(SThreadBuffer& buffer) {
  // After a failed write nothing more goes out: a later write that passed would leave a list
  // with a hole in it that looks complete.
  if (m_writeError.IsError()) {
    DropLocked(buffer);
    return m_writeError;
  }
  // The blocks go to the descriptor directly: the handler is the stream's only writer, and
  // copying 64 KiB blocks through the stream's buffer first costs a copy of every record.
  const char* pData = buffer.strData.data();
  size_t nLeft = buffer.strData.size();
  if (nLeft != 0 && fflush(m_pFile) != 0) return FailLocked(buffer, errno != 0 ? errno : EIO);
  const int iFd = fileno(m_pFile);
  while (nLeft > 0) {
    const ssize_t nWritten = write(iFd, pData, nLeft);
    if (nWritten < 0 && errno == EINTR) continue;
    if (nWritten <= 0) return FailLocked(buffer, nWritten < 0 ? errno : EIO);
    pData += nWritten;
    nLeft -= static_cast<size_t>(nWritten);
  }
  // Only records that reached the stream are counted.
  m_ullItems.fetch_add(buffer.ullItems, std::memory_order_relaxed);
  m_ullFolders.fetch_add(buffer.ullFolders, std::memory_order_relaxed);
  m_ullBytes.fetch_add(buffer.ullBytes, std::memory_order_relaxed);
  DropLocked(buffer);
  return CQiError();
}

void CItemLineOutputHandler::DropLocked(SThreadBuffer& buffer) {
  buffer.strData.clear();
  buffer.ullItems = buffer.ullFolders = buffer.ullBytes = 0;
}

CQiError CItemLineOutputHandler::FailLocked(SThreadBuffer& buffer, int iErrNo) {
  DropLocked(buffer);
  m_writeError = QI_ERROR_ERRNO(iErrNo, "Failed to write the item list");
  m_bFailed.store(true, std::memory_order_relaxed);
  if (m_fnOnWriteFailure) m_fnOnWriteFailure();
  return m_writeError;
}

void CItemLineOutputHandler::SetOnWriteFailure(std::function<void()> fnOnWriteFailure) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_fnOnWriteFailure = std::move(fnOnWriteFailure);
}

CQiError CItemLineOutputHandler::OnItem(CItemPtr pItem) {
  if (!pItem) return CQiError();
  SThreadBuffer& buffer = GetThreadBuffer();
  if (m_eFormat == EFormat::Print0) {
    const std::string& strPath = pItem->GetSourceFullyQualifiedItemName();
    buffer.strData.append(strPath).push_back('\0');
  } else {
    AppendLine(*pItem, buffer.strData);
    buffer.strData.push_back('\n');
  }
  ++buffer.ullItems;
  if (pItem->IsFolder())
    ++buffer.ullFolders;
  else
    buffer.ullBytes += ReportedSize(*pItem);
  if (buffer.strData.size() < kBlockSize) return CQiError();
  std::lock_guard<std::mutex> lock(m_mutex);
  return WriteLocked(buffer);
}

CQiError CItemLineOutputHandler::OnDeletedItem(CItemPtr) { return CQiError(); }

uint64_t CItemLineOutputHandler::getProcessedItemsCount() { return GetItemCount(); }

CQiError CItemLineOutputHandler::Flush() {
  std::lock_guard<std::mutex> lock(m_mutex);
  for (const auto& pBuffer : m_lstBuffers) (void)WriteLocked(*pBuffer);
  if (m_writeError.IsError()) return m_writeError;
  if (fflush(m_pFile) != 0 || ferror(m_pFile)) {
    SThreadBuffer empty;
    return FailLocked(empty, errno != 0 ? errno : EIO);
  }
  return CQiError();
}
