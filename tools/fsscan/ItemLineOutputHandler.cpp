#include "ItemLineOutputHandler.h"

#include <sys/stat.h>

#include <cerrno>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"

namespace {
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
}  // namespace

CItemLineOutputHandler::CItemLineOutputHandler(FILE* pFile, EFormat eFormat)
    : m_pFile(pFile), m_eFormat(eFormat) {}

CItemLineOutputHandler::~CItemLineOutputHandler() = default;

std::string CItemLineOutputHandler::FormatLine(const CItem& item) {
  const uint32_t uAttributes = item.GetAttributes();
  const CTimeStamp tWrite = item.GetLastWriteTime();
  std::string strMode = uAttributes == CItem::kAttributesUnknown
                            ? std::string("----")
                            : FXString::Format("%04o", static_cast<unsigned>(uAttributes & 07777));
  return FXString::Format("%c %s %llu %lld.%09lld %s", TypeLetter(uAttributes), strMode.c_str(),
                          static_cast<unsigned long long>(item.GetFileSize()),
                          static_cast<long long>(tWrite.GetSeconds()),
                          static_cast<long long>(tWrite.GetNanoseconds()),
                          FXString::EscapeControl(item.GetSourceFullyQualifiedItemName()).c_str());
}

CQiError CItemLineOutputHandler::OnItem(CItemPtr pItem) {
  if (!pItem) return CQiError();
  std::string strRecord;
  if (m_eFormat == EFormat::Print0) {
    const std::string& strPath = pItem->GetSourceFullyQualifiedItemName();
    strRecord.reserve(strPath.size() + 1);
    strRecord.append(strPath).push_back('\0');
  } else {
    strRecord = FormatLine(*pItem);
    strRecord.push_back('\n');
  }
  const bool bFolder = pItem->IsFolder();
  const uint64_t ullSize = bFolder ? 0 : pItem->GetFileSize();
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (fwrite(strRecord.data(), 1, strRecord.size(), m_pFile) != strRecord.size()) {
      const int iErrNo = errno != 0 ? errno : EIO;
      return QI_ERROR_ERRNO(iErrNo, "Failed to write the item list");
    }
  }
  m_ullItems.fetch_add(1, std::memory_order_relaxed);
  if (bFolder) m_ullFolders.fetch_add(1, std::memory_order_relaxed);
  m_ullBytes.fetch_add(ullSize, std::memory_order_relaxed);
  return CQiError();
}

CQiError CItemLineOutputHandler::OnDeletedItem(CItemPtr) { return CQiError(); }

uint64_t CItemLineOutputHandler::getProcessedItemsCount() { return GetItemCount(); }

CQiError CItemLineOutputHandler::Flush() {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (fflush(m_pFile) != 0 || ferror(m_pFile)) return QI_ERROR_ERRNO(errno != 0 ? errno : EIO, "Failed to write the item list");
  return CQiError();
}
