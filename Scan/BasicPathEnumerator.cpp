#include "Scan/BasicPathEnumerator.h"

#include <sys/stat.h>

#include <cerrno>
#include <new>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Scan/FabricatedItem.h"
#include "Scan/FindFirstItem.h"
#include "Scan/LongPathHandler.h"

namespace {
// Paths in messages: control bytes escaped, so a message stays on one log line.
std::string Printable(const std::string& path) { return FXString::EscapeControl(path); }

// The source path an item is reported under: the mapper's answer for the local path, else the
// given source path, else the local path. strMapped holds the mapper's answer.
CQiError ResolveSourcePath(const std::string& strLocalPath, const std::string* pSourcePath,
                           ContentMapperAPI* pMapper, std::string& strMapped,
                           const std::string*& pResolved) {
  if (pMapper != nullptr) {
    CQiError error = pMapper->MakeHostPathFromProxyPath(strLocalPath, strMapped);
    if (error.IsError()) {
      return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                            "Failed to map path [%s] to its source path, error=%s",
                            Printable(strLocalPath).c_str(), error.CodeAsString().c_str());
    }
    pResolved = &strMapped;
  } else if (pSourcePath != nullptr && !pSourcePath->empty()) {
    pResolved = pSourcePath;
  } else {
    pResolved = &strLocalPath;
  }
  return CQiError();
}

// One allocation for the item and its reference count; allocation failure is Win32 14.
CQiError MakeFindFirstItem(const CBagPtr& pBag, const std::string& strLocalPath,
                           const std::string& strSourcePath, const FXFile::CFileData& fileData,
                           CItemPtr& pItem) {
  try {
    pItem = std::make_shared<CFindFirstItem>(pBag, strLocalPath, strSourcePath, fileData);
  } catch (const std::bad_alloc&) {
    pItem.reset();
    return QI_ERROR_WIN32(QiErrorCode::OutOfMemory, "Failed to allocate the item of [%s]",
                          Printable(strLocalPath).c_str());
  }
  return CQiError();
}
}  // namespace

CBasicPathEnumerator::CBasicPathEnumerator() = default;

// Copies what describes how to list (options, mount path cache) and where the last listing
// was; the open listing itself is never shared (auto_find_handle copies start closed), and the
// copy has taken no long path handler.
CBasicPathEnumerator::CBasicPathEnumerator(const CBasicPathEnumerator& other)
    : CPathEnumerator(other),
      m_strCurrentFolder(other.m_strCurrentFolder),
      m_pParentItem(other.m_pParentItem),
      m_findHandle(),
      m_llFileOperationOptions(other.m_llFileOperationOptions),
      m_mountPathCache(other.m_mountPathCache),
      m_pLongPathHandler(nullptr),
      m_pParentBag(other.m_pParentBag),
      m_bParentNewInImage(other.m_bParentNewInImage),
      m_strLocalPath(other.m_strLocalPath),
      m_uLocalPrefixLength(other.m_uLocalPrefixLength),
      m_strSourcePath(other.m_strSourcePath),
      m_uSourcePrefixLength(other.m_uSourcePrefixLength) {}

CBasicPathEnumerator::~CBasicPathEnumerator() {
  m_findHandle.reset();
  if (m_pLongPathHandler != nullptr) LongPathHandler::ReleaseHandler();
}

CPathEnumerator* CBasicPathEnumerator::Clone() {
  CBasicPathEnumerator* pClone = nullptr;
  try {
    pClone = new CBasicPathEnumerator(*this);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  // A clone starts with no listing open.
  pClone->m_pParentItem.reset();
  pClone->m_pParentBag.reset();
  pClone->m_findHandle.reset();
  return pClone;
}

// ---------------------------------------------------------------------------------------------
// Items of given paths.

CQiError CBasicPathEnumerator::GetItemByPath(const std::string& strPath, CItemPtr& pItem,
                                             ContentMapperAPI* pMapper) {
  CQiError error = strPath.size() >= kLongPathLength
                       ? GetItemByLongPath(CBagPtr(), strPath, strPath, pItem, pMapper)
                       : GetItemByShortPath(CBagPtr(), strPath, nullptr, pItem, pMapper);
  if (error.IsError()) return QI_PUSH(error);
  return CQiError();
}

CQiError CBasicPathEnumerator::GetItemByPath(const std::string& strLocalPath,
                                             const std::string& strSourcePath, CItemPtr& pItem) {
  CQiError error = strLocalPath.size() >= kLongPathLength
                       ? GetItemByLongPath(CBagPtr(), strLocalPath, strSourcePath, pItem, nullptr)
                       : GetItemByShortPath(CBagPtr(), strLocalPath, &strSourcePath, pItem, nullptr);
  if (error.IsError()) return QI_PUSH(error);
  return CQiError();
}

CQiError CBasicPathEnumerator::GetItemByPath(CBagPtr pBag, const std::string& strPath,
                                             CItemPtr& pItem, ContentMapperAPI* pMapper) {
  CQiError error = strPath.size() >= kLongPathLength
                       ? GetItemByLongPath(pBag, strPath, strPath, pItem, pMapper)
                       : GetItemByShortPath(pBag, strPath, nullptr, pItem, pMapper);
  if (error.IsError()) return QI_PUSH(error);
  return CQiError();
}

CQiError CBasicPathEnumerator::GetItemByPath(CBagPtr pBag, const std::string& strLocalPath,
                                             const std::string& strSourcePath, CItemPtr& pItem) {
  CQiError error = strLocalPath.size() >= kLongPathLength
                       ? GetItemByLongPath(pBag, strLocalPath, strSourcePath, pItem, nullptr)
                       : GetItemByShortPath(pBag, strLocalPath, &strSourcePath, pItem, nullptr);
  if (error.IsError()) return QI_PUSH(error);
  return CQiError();
}

CQiError CBasicPathEnumerator::GetItemByShortPath(const CBagPtr& pBag,
                                                  const std::string& strLocalPath,
                                                  const std::string* pSourcePath, CItemPtr& pItem,
                                                  ContentMapperAPI* pMapper) {
  pItem.reset();
  // lstat of the path; a failure is remembered and the item is built all the same, so that the
  // caller can report it against a named item.
  FXFile::CFileData fileData(strLocalPath, FXFile::CFileData::kModeFullPath);
  CQiError statError;
  if (!fileData.good()) {
    const int iError = fileData.getLastError() != 0 ? fileData.getLastError() : EIO;
    statError = QI_ERROR_ERRNO(iError, "Failed to read the status of path [%s]",
                               Printable(strLocalPath).c_str());
  }

  std::string strMapped;
  const std::string* pSource = nullptr;
  QI_RETURN_IF_ERROR(ResolveSourcePath(strLocalPath, pSourcePath, pMapper, strMapped, pSource));
  QI_RETURN_IF_ERROR(MakeFindFirstItem(pBag, strLocalPath, *pSource, fileData, pItem));
  if (statError.IsError()) return QI_PUSH(statError);
  return CQiError();
}

CQiError CBasicPathEnumerator::GetItemByLongPath(CBagPtr pBag, const std::string& strLocalPath,
                                                 const std::string& strSourcePath,
                                                 CItemPtr& pItem, ContentMapperAPI* pMapper) {
  pItem.reset();
  // Only the owner thread gets the handler (it moves the process's working directory).
  LongPathHandler* pHandler = LongPathHandler::GetHandler();
  if (pHandler == nullptr) {
    return QI_ERROR_WIN32(QiErrorCode::OutOfMemory,
                          "Failed to create long path backup handler, long path backup will fail");
  }
  m_pLongPathHandler = pHandler;

  struct stat st {};
  if (pHandler->lstat_long(strLocalPath, &st) != 0) {
    const int iError = errno;
    const std::string strPrintable = Printable(strLocalPath);
    ZRLOG(-1, "Failed to stat path [%s] with error [%d]", strPrintable.c_str(), iError);
    return QI_ERROR_WIN32(QiErrorCode::NotConfigured, "Failed to stat path [%s] with error [%d]",
                          strPrintable.c_str(), iError);
  }

  FXFile::CFileData fileData(strLocalPath, FXFile::CFileData::kModeFullPath, &st);
  std::string strMapped;
  const std::string* pSource = nullptr;
  QI_RETURN_IF_ERROR(ResolveSourcePath(strLocalPath, &strSourcePath, pMapper, strMapped, pSource));
  QI_RETURN_IF_ERROR(MakeFindFirstItem(pBag, strLocalPath, *pSource, fileData, pItem));
  return CQiError();
}

// ---------------------------------------------------------------------------------------------
// Folder listing.

CQiError CBasicPathEnumerator::FindFirst(const std::string& strPattern, CItemPtr pParent,
                                         CItemPtr& pItem) {
  pItem.reset();
  m_findHandle.reset();
  m_pParentItem = std::move(pParent);
  if (!m_pParentItem) {
    m_pParentBag.reset();
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "FindFirst needs a parent item, Pattern=%s",
                          Printable(strPattern).c_str());
  }
  m_strCurrentFolder = m_pParentItem->GetLocalFullyQualifiedItemName();
  m_pParentBag = m_pParentItem->GetWorkUnitBag();
  m_bParentNewInImage = m_pParentItem->isNewInImage();

  // The folder parts of every entry's paths, joined as FXPath::Append joins them; each entry
  // then only appends its name. (The record's parent folder is set by the listing itself.)
  m_strLocalPath.assign(m_strCurrentFolder);
  FXPath::AppendInPlace(m_strLocalPath, std::string_view());
  m_uLocalPrefixLength = m_strLocalPath.size();
  m_strSourcePath.assign(m_pParentItem->GetSourceFullyQualifiedItemName());
  FXPath::AppendInPlace(m_strSourcePath, std::string_view());
  m_uSourcePrefixLength = m_strSourcePath.size();

  // The folder must still be the one its parent's listing (or the content path's status) saw:
  // a folder swapped for a link or another folder since then is not listed.
  const struct stat* pExpected = nullptr;
  if (const auto* pParentFF = dynamic_cast<const CFindFirstItem*>(m_pParentItem.get());
      pParentFF != nullptr && pParentFF->GetFileData().getStatusState() == FXFile::CFileData::kStatusValid)
    pExpected = &pParentFF->GetFileData().getRawData();
  CQiError error = FXFile::ZRFindFirstFile(m_findHandle, strPattern, m_findData, ListingOptions(),
                                           pExpected);
  if (error.IsError()) return QI_PUSH(error);
  error = TakeEntry(pItem);
  if (error.IsError()) return QI_PUSH(error);
  return CQiError();
}

CQiError CBasicPathEnumerator::FindNext(CItemPtr& pItem) {
  pItem.reset();
  if (!m_pParentItem)
    return QI_ERROR_WIN32(QiErrorCode::InvalidHandle, "No folder listing is open");
  CQiError error = FXFile::ZRFindNextFile(m_findHandle, m_findData, ListingOptions());
  if (error.IsError()) return QI_PUSH(error);
  error = TakeEntry(pItem);
  if (error.IsError()) return QI_PUSH(error);
  return CQiError();
}

bool CBasicPathEnumerator::IsIgnoredMountPath(const std::string& strSourcePath) const {
  CPathCacheUnorderedT<std::string>::NodePtr pNode;
  return m_mountPathCache.Search(strSourcePath, pNode) == EPathCacheResult::Exact;
}

long long CBasicPathEnumerator::ListingOptions() const {
  // With the mount-path check the listing leaves every status unread: an ignored mount point
  // (a stale network mount above all) must never be touched, and its status read is what
  // would hang. TakeEntry reads the status of the entries it keeps.
  if ((m_llFileOperationOptions & FXFile::kFindOptionMountPathCheck) != 0)
    return m_llFileOperationOptions | FXFile::kFindOptionNoStatus;
  return m_llFileOperationOptions;
}

CQiError CBasicPathEnumerator::TakeEntry(CItemPtr& pItem) {
  const bool bMountPathCheck =
      (m_llFileOperationOptions & FXFile::kFindOptionMountPathCheck) != 0;
  const long long llOptions = ListingOptions();
  for (;;) {
    if (!m_findData.isRelativeFolder()) {
      m_strSourcePath.resize(m_uSourcePrefixLength);
      m_strSourcePath.append(m_findData.getFileNameAsString());
      if (!bMountPathCheck || !IsIgnoredMountPath(m_strSourcePath)) break;
      ZRLOG(0, "[%s] skipped by ignoreFS rule", Printable(m_strSourcePath).c_str());
    }
    CQiError error = FXFile::ZRFindNextFile(m_findHandle, m_findData, llOptions);
    if (error.IsError()) return error;
  }
  // The status the listing left unread, unless the caller asked for names only.
  if (bMountPathCheck && (m_llFileOperationOptions & FXFile::kFindOptionNoStatus) == 0)
    QI_RETURN_IF_ERROR(FXFile::ZRReadStatus(m_findHandle, m_findData));

  const std::string& strName = m_findData.getFileNameAsString();
  m_strLocalPath.resize(m_uLocalPrefixLength);
  m_strLocalPath.append(strName);

  // The listing read the status relative to the open folder; an entry whose status could not
  // be read (removed meanwhile, no search permission) is still named, as a fabricated item.
  CQiError error;
  const int iLastError = m_findData.getLastError();
  if (iLastError == 0) {
    error = MakeListedItem(pItem);
    if (error.IsError()) return error;
  } else {
    error = QI_ERROR_ERRNO(iLastError, "Entry is not good, Entry=%s", Printable(strName).c_str());
    try {
      pItem = std::make_shared<CFabricatedItem>(m_pParentBag, m_strLocalPath, m_strSourcePath);
    } catch (const std::bad_alloc&) {
      pItem.reset();
      return QI_ERROR_WIN32(QiErrorCode::OutOfMemory, "Failed to allocate the item of [%s]",
                            Printable(m_strLocalPath).c_str());
    }
  }
  if (m_bParentNewInImage) pItem->setNewInImage();
  return error;
}

CQiError CBasicPathEnumerator::MakeListedItem(CItemPtr& pItem) {
  try {
    pItem = std::make_shared<CFindFirstItem>(m_pParentBag, m_strLocalPath, m_strSourcePath, m_findData);
  } catch (const std::bad_alloc&) {
    pItem.reset();
    return QI_ERROR_WIN32(QiErrorCode::OutOfMemory, "Failed to allocate the item of [%s]",
                          Printable(m_strLocalPath).c_str());
  }
  return CQiError();
}
