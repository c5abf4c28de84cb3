#include "ItemLineOutputHandler.h"

#include <sys/stat.h>

#include <cerrno>
#include <charconv>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"

namespace {
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

template <typename T>
void AppendNumber(std::string& strOut, T value) {
  char szDigits[24];
  const auto result = std::to_chars(szDigits, szDigits + sizeof(szDigits), value);
  strOut.append(szDigits, result.ptr);
}

// Bytes that FXString::EscapeControl rewrites.
bool NeedsEscape(const std::string& strText) {
  for (char ch : strText) {
    const auto c = static_cast<unsigned char>(ch);
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
  strOut.push_back(TypeLetter(uAttributes));
  strOut.push_back(' ');
  if (uAttributes == CItem::kAttributesUnknown) {
    strOut.append("----");
  } else {
    const unsigned uMode = uAttributes & 07777;
    for (int iShift = 9; iShift >= 0; iShift -= 3) strOut.push_back(static_cast<char>('0' + ((uMode >> iShift) & 7)));
  }
  strOut.push_back(' ');
  AppendNumber(strOut, static_cast<unsigned long long>(item.GetFileSize()));
  strOut.push_back(' ');
  const long long llNanoseconds = tWrite.GetNanoseconds();
  if (llNanoseconds >= 0 && llNanoseconds < 1000000000) {
    AppendNumber(strOut, static_cast<long long>(tWrite.GetSeconds()));
    char szFraction[10];
    szFraction[0] = '.';
    long long llRest = llNanoseconds;
    for (int i = 9; i >= 1; --i, llRest /= 10) szFraction[i] = static_cast<char>('0' + llRest % 10);
    strOut.append(szFraction, sizeof(szFraction));
  } else {
    strOut.append(FXString::Format("%lld.%09lld", static_cast<long long>(tWrite.GetSeconds()), llNanoseconds));
  }
  strOut.push_back(' ');
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
  m_ullItems.fetch_add(buffer.ullItems, std::memory_order_relaxed);
  m_ullFolders.fetch_add(buffer.ullFolders, std::memory_order_relaxed);
  m_ullBytes.fetch_add(buffer.ullBytes, std::memory_order_relaxed);
  buffer.ullItems = buffer.ullFolders = buffer.ullBytes = 0;
  const size_t nSize = buffer.strData.size();
  const size_t nWritten = nSize == 0 ? 0 : fwrite(buffer.strData.data(), 1, nSize, m_pFile);
  buffer.strData.clear();
  if (nWritten != nSize) return QI_ERROR_ERRNO(errno != 0 ? errno : EIO, "Failed to write the item list");
  return CQiError();
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
    buffer.ullBytes += pItem->GetFileSize();
  if (buffer.strData.size() < kBlockSize) return CQiError();
  std::lock_guard<std::mutex> lock(m_mutex);
  return WriteLocked(buffer);
}

CQiError CItemLineOutputHandler::OnDeletedItem(CItemPtr) { return CQiError(); }

uint64_t CItemLineOutputHandler::getProcessedItemsCount() { return GetItemCount(); }

CQiError CItemLineOutputHandler::Flush() {
  std::lock_guard<std::mutex> lock(m_mutex);
  CQiError error;
  for (const auto& pBuffer : m_lstBuffers) {
    CQiError writeError = WriteLocked(*pBuffer);
    if (error.IsSuccess() && writeError.IsError()) error = writeError;
  }
  if (error.IsError()) return error;
  if (fflush(m_pFile) != 0 || ferror(m_pFile)) return QI_ERROR_ERRNO(errno != 0 ? errno : EIO, "Failed to write the item list");
  return CQiError();
}
