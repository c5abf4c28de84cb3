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
// Source paths: GetItemByPath reports an item under the mapper's answer for the local path when
// a mapper is given (a mapper failure gives Win32 87 and no item), else under the given source
// path, else under the local path. FindFirst/FindNext report each entry under the parent item's
// source path joined with the entry name, and read it through the parent's local path.
//
// Misuse: FindFirst without a parent item gives Win32 87, FindNext without an open listing
// (never started, or a fresh clone) Win32 6; neither returns an item.
//
// Long path handler: GetItemByLongPath takes the process's handler afresh on every call; the
// enumerator only remembers that it took one and gives it back (ReleaseHandler, which returns
// the process to its start directory) at destruction. A copy has not taken one.
//
// Cost per listed entry: the record is filled in place in a member (no allocation), the local
// and source paths are built in member buffers that keep the folder part, and the item is one
// std::make_shared (a new item for every entry: whoever holds an item, even through a weak_ptr,
// sees it stay the object it was). Nothing is formatted unless the log level asks for it.
//
// Hostile trees: a folder is listed only when it is still the object that its item describes
// (device and inode of the parent item's status; a folder swapped for a link or another folder
// fails with ELOOP or ESTALE). With the mount-path check on, an entry's status is read only
// after the entry has passed the check, so that an ignored mount point (a stale network mount)
// is never touched.
//
// One thread at a time; Clone() copies options and mount path cache and starts with no listing.
#pragma once

#include <string>

#include "Platform/FXFile.h"
#include "Scan/FindFirstItem.h"
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

 private:
  // The item of one path of fewer than kLongPathLength characters (pSourcePath may be null).
  CQiError GetItemByShortPath(const CBagPtr& pBag, const std::string& strLocalPath,
                              const std::string* pSourcePath, CItemPtr& pItem,
                              ContentMapperAPI* pMapper);
  // Passes over "." / ".." and entries refused by the mount path cache, then builds the item of
  // the entry in m_findData. Errors are returned without a frame of this place.
  CQiError TakeEntry(CItemPtr& pItem);
  // The item of the listed entry (one allocation).
  CQiError MakeListedItem(CItemPtr& pItem);
  // The options given to the platform's listing calls.
  long long ListingOptions() const;
  bool IsIgnoredMountPath(const std::string& strSourcePath) const;

  // The listing's working state, set up by FindFirst and reused for every entry.
  FXFile::CFileData m_findData;
  CBagPtr m_pParentBag;
  bool m_bParentNewInImage = false;
  std::string m_strLocalPath;   // current folder and '/', then the entry's name
  size_t m_uLocalPrefixLength = 0;
  std::string m_strSourcePath;  // the parent's source path and '/', then the entry's name
  size_t m_uSourcePrefixLength = 0;

};

using CBasicPathEnumeratorPtr = std::shared_ptr<CBasicPathEnumerator>;
