// CBasicPathEnumerator: the path enumerator of an ordinary POSIX file system.
//
// Items are built from FXFile::CFileData records: GetItemByPath describes one path (lstat data,
// never following a final link); FindFirst/FindNext list a folder with the platform's getdents64
// listing, status by fstatat relative to the open folder. Paths of 960 characters or more go
// through the long path handler (GetItemByLongPath; only the owner thread of the handler can).
// An entry whose status cannot be read comes back as a CFabricatedItem together with the errno
// error "Entry is not good, Entry=%s". With file operation option bit 0 set, entries whose source
// path is in the mount path cache are left out of every listing ("ignoreFS" rule).
//
// One thread at a time; Clone() copies options and mount path cache and starts with no listing.
#pragma once

#include <string>

#include "Platform/FXFile.h"
#include "Scan/PathCacheUnorderedT.h"
#include "Scan/PathEnumerator.h"

class LongPathHandler;

class CBasicPathEnumerator : public CPathEnumerator {
 public:
  // Paths of this many characters or more take the long-path route.
  static constexpr size_t kLongPathLength = 960;

  CBasicPathEnumerator();
  ~CBasicPathEnumerator() override;
  CBasicPathEnumerator(const CBasicPathEnumerator& other);
  CBasicPathEnumerator& operator=(const CBasicPathEnumerator&) = delete;

  CQiError GetItemByPath(const std::string& strPath, CItemPtr& pItem,
                         ContentMapperAPI* pMapper) override;
  CQiError GetItemByPath(const std::string& strLocalPath, const std::string& strSourcePath,
                         CItemPtr& pItem) override;
  CQiError GetItemByPath(CBagPtr pBag, const std::string& strPath, CItemPtr& pItem,
                         ContentMapperAPI* pMapper) override;
  CQiError GetItemByPath(CBagPtr pBag, const std::string& strLocalPath,
                         const std::string& strSourcePath, CItemPtr& pItem) override;
  CQiError FindFirst(const std::string& strPattern, CItemPtr pParent, CItemPtr& pItem) override;
  CQiError FindNext(CItemPtr& pItem) override;
  CPathEnumerator* Clone() override;
  virtual CQiError GetItemByLongPath(CBagPtr pBag, const std::string& strLocalPath,
                                     const std::string& strSourcePath, CItemPtr& pItem,
                                     ContentMapperAPI* pMapper);

  // ORs the bits into the file operation options (bits are only ever added).
  void SetFileOperationOptions(long long llOptions) { m_llFileOperationOptions |= llOptions; }
  long long GetFileOperationOptions() const { return m_llFileOperationOptions; }
  void SetMountPathCache(const CPathCacheUnorderedT<std::string>& cache) {
    m_mountPathCache = cache;
  }

 protected:
  std::string m_strCurrentFolder;
  CItemPtr m_pParentItem;
  FXFile::auto_find_handle m_findHandle;
  long long m_llFileOperationOptions = 0;
  CPathCacheUnorderedT<std::string> m_mountPathCache;
  LongPathHandler* m_pLongPathHandler = nullptr;
};

using CBasicPathEnumeratorPtr = std::shared_ptr<CBasicPathEnumerator>;
