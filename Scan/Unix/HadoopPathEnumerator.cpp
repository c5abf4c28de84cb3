#include "Scan/Unix/HadoopPathEnumerator.h"

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Scan/FabricatedItem.h"
#include "Scan/Unix/HadoopItem.h"

namespace {
constexpr const char kMaprfsPrefix[] = "maprfs://";

std::string Esc(const std::string& strText) { return FXString::EscapeControl(strText); }

const char* KindOf(const struct stat& st) { return S_ISDIR(st.st_mode) ? "Directory" : "File"; }

std::string StripTrailingSlashes(const std::string& strPath) {
  size_t nLength = strPath.size();
  while (nLength > 1 && strPath[nLength - 1] == '/') --nLength;
  return strPath.substr(0, nLength);
}
}  // namespace

CHadoopPathEnumerator::CHadoopPathEnumerator(CHadoopFSPtr pFS)
    : m_pFS(std::move(pFS)), m_strPrefix(m_pFS ? m_pFS->GetHadoopPathPrefix() : std::string()) {}

CHadoopPathEnumerator::~CHadoopPathEnumerator() = default;

CPathEnumerator* CHadoopPathEnumerator::Clone() { return new CHadoopPathEnumerator(m_pFS); }

std::string CHadoopPathEnumerator::FixPath(const std::string& strPath) const { return FixPath(m_strPrefix, strPath); }

std::string CHadoopPathEnumerator::FixPath(const std::string& strPrefix, const std::string& strPath) {
  if (ZRLOG_ON(5)) ZRLOG(5, "original item path='%s'", Esc(strPath).c_str());
  std::string_view rest(strPath);
  if (!strPrefix.empty() && rest.substr(0, strPrefix.size()) == strPrefix) rest.remove_prefix(strPrefix.size());
  if (rest.substr(0, sizeof(kMaprfsPrefix) - 1) == kMaprfsPrefix) rest.remove_prefix(sizeof(kMaprfsPrefix) - 1);
  std::string strFixed;
  strFixed.reserve(rest.size() + 1);
  if (rest.empty() || rest[0] != '/') strFixed.push_back('/');
  strFixed.append(rest);
  if (ZRLOG_ON(5)) ZRLOG(5, "final item path='%s'", Esc(strFixed).c_str());
  return strFixed;
}

CQiError CHadoopPathEnumerator::MakeItem(const CBagPtr& pBag, const std::string& strLocalPath,
                                         const std::string& strSourcePath, ContentMapperAPI* pMapper,
                                         CItemPtr& pItem) {
  pItem.reset();
  if (!m_pFS) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "No Hadoop file system handle");
  std::string strSource = strSourcePath.empty() ? strLocalPath : strSourcePath;
  if (pMapper != nullptr && pMapper->MakeHostPathFromProxyPath(strLocalPath, strSource).IsError())
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Failed to convert proxy path to host path, Path=%s",
                          Esc(strLocalPath).c_str());
  struct stat st {};
  QI_RETURN_IF_ERROR(m_pFS->GetFileInfo(StripTrailingSlashes(strLocalPath), st), "stat(%s) failed",
                     Esc(strLocalPath).c_str());
  pItem = std::make_shared<CHadoopItem>(pBag, strLocalPath, strSource, st);
  if (ZRLOG_ON(6)) ZRLOG(6, "%s - %s", KindOf(st), Esc(strLocalPath).c_str());
  return CQiError();
}

CQiError CHadoopPathEnumerator::GetItemByPath(const std::string& strPath, CItemPtr& pItem,
                                              ContentMapperAPI* pMapper) {
  QI_RETURN_IF_ERROR(MakeItem(CBagPtr(), strPath, strPath, pMapper, pItem));
  return CQiError();
}

CQiError CHadoopPathEnumerator::GetItemByPath(const std::string& strLocalPath, const std::string& strSourcePath,
                                              CItemPtr& pItem) {
  QI_RETURN_IF_ERROR(MakeItem(CBagPtr(), strLocalPath, strSourcePath, nullptr, pItem));
  return CQiError();
}

CQiError CHadoopPathEnumerator::GetItemByPath(CBagPtr pBag, const std::string& strPath, CItemPtr& pItem,
                                              ContentMapperAPI* pMapper) {
  QI_RETURN_IF_ERROR(MakeItem(pBag, strPath, strPath, pMapper, pItem));
  return CQiError();
}

CQiError CHadoopPathEnumerator::GetItemByPath(CBagPtr pBag, const std::string& strLocalPath,
                                              const std::string& strSourcePath, CItemPtr& pItem) {
  QI_RETURN_IF_ERROR(MakeItem(pBag, strLocalPath, strSourcePath, nullptr, pItem));
  return CQiError();
}

CQiError CHadoopPathEnumerator::FindFirst(const std::string& strPattern, CItemPtr pParent, CItemPtr& pItem) {
  pItem.reset();
  m_arrListing.clear();
  m_nCursor = 0;
  m_bListing = false;
  m_pParentItem = std::move(pParent);
  if (!m_pFS) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "No Hadoop file system handle");
  const std::string strFolder =
      StripTrailingSlashes(m_pParentItem ? m_pParentItem->GetLocalFullyQualifiedItemName() : strPattern);
  if (ZRLOG_ON(6)) ZRLOG(6, "ListDirectory(%s)", Esc(strFolder).c_str());
  int iCount = 0;
  QI_RETURN_IF_ERROR(m_pFS->ListDirectory(strFolder, m_arrListing, iCount), "ListDirectory(%s) failed",
                     Esc(strFolder).c_str());
  if (ZRLOG_ON(6)) ZRLOG(6, "%d items under %s", iCount, Esc(strFolder).c_str());
  m_bListing = true;
  CQiError error = FindNext(pItem);
  if (error.IsError()) return QI_PUSH(error);
  return CQiError();
}

CQiError CHadoopPathEnumerator::FindNext(CItemPtr& pItem) {
  pItem.reset();
  if (!m_bListing) return QI_ERROR_WIN32(QiErrorCode::InvalidHandle, "No listing open");
  if (m_nCursor >= m_arrListing.size()) return QI_ERROR_WIN32(QiErrorCode::NoMoreFiles);
  const CHadoopFileInfo& info = m_arrListing[m_nCursor++];
  const std::string strPath = FixPath(info.strName);
  const std::string strName = strPath.substr(strPath.rfind('/') + 1);
  CBagPtr pBag;
  std::string strSource = strPath;
  if (m_pParentItem) {
    pBag = m_pParentItem->GetWorkUnitBag();
    const std::string& strParentSource = m_pParentItem->GetSourceFullyQualifiedItemName();
    strSource = StripTrailingSlashes(strParentSource);
    if (strSource.empty() || strSource.back() != '/') strSource.push_back('/');
    strSource += strName;
  }
  struct stat st;
  CQiError error = m_pFS->ConvertToStatStructure(info, st);
  if (error.IsError()) {
    // Named, so that the traversal records the entry as a failure.
    pItem = std::make_shared<CFabricatedItem>(pBag, strPath, strSource);
    return QI_PUSH(error, "Entry is not good, Entry=%s", Esc(strName).c_str());
  }
  pItem = std::make_shared<CHadoopItem>(pBag, strPath, strSource, st);
  if (m_pParentItem && m_pParentItem->isNewInImage()) pItem->setNewInImage();
  if (ZRLOG_ON(6))
    ZRLOG(6, "%s:  %s Size %lld, Mtime %ld Ctime %ld Atime %ld SizeOnDisk %llu", KindOf(st), Esc(strPath).c_str(),
          static_cast<long long>(st.st_size), static_cast<long>(st.st_mtim.tv_sec),
          static_cast<long>(st.st_ctim.tv_sec), static_cast<long>(st.st_atim.tv_sec),
          static_cast<unsigned long long>(pItem->GetFileSizeOnDisk()));
  return CQiError();
}
