// CHadoopPathEnumerator: the path enumerator of a Hadoop file system ("Hadoop Path
// Enumerator"), on a shared CHadoopFS handle.
//
// GetItemByPath asks the handle for the status of one path (GetFileInfo) and builds a
// CHadoopItem; a path that cannot be described gives the error ("stat(%s) failed") and no item.
// FindFirst lists the parent item's folder at once (ListDirectory) and hands out its first
// entry; FindNext the following ones, in the order the server listed them; the end of the
// listing is Win32 18. Each entry's name is normalised by FixPath (the handle's URI prefix and
// "maprfs://" taken off, a leading '/' ensured) and becomes the item's local path; its source
// path is the parent item's source path joined with the entry's name. A failed listing is the
// handle's error with "ListDirectory(%s) failed"; the traversal records it as the folder's scan
// failure and goes on with the rest of the tree.
//
// Source paths: GetItemByPath reports the item under the mapper's answer for the local path
// when a mapper is given, else under the given source path, else under the path itself.
//
// One folder's listing is held in memory while it is handed out. One thread at a time; Clone()
// gives an enumerator on the same handle with no listing (the handle serialises requests).
#pragma once

#include <memory>
#include <string>

#include "Platform/HadoopFS.h"
#include "Scan/PathEnumerator.h"

class CHadoopPathEnumerator : public CPathEnumerator {
 public:
  explicit CHadoopPathEnumerator(CHadoopFSPtr pFS);
  ~CHadoopPathEnumerator() override;

  CQiError GetItemByPath(const std::string& strPath, CItemPtr& pItem, ContentMapperAPI* pMapper) override;
  CQiError GetItemByPath(const std::string& strLocalPath, const std::string& strSourcePath, CItemPtr& pItem) override;
  CQiError GetItemByPath(CBagPtr pBag, const std::string& strPath, CItemPtr& pItem,
                         ContentMapperAPI* pMapper) override;
  CQiError GetItemByPath(CBagPtr pBag, const std::string& strLocalPath, const std::string& strSourcePath,
                         CItemPtr& pItem) override;
  CQiError FindFirst(const std::string& strPattern, CItemPtr pParent, CItemPtr& pItem) override;
  CQiError FindNext(CItemPtr& pItem) override;
  CPathEnumerator* Clone() override;

  // The path of a listing entry as the scan reports it: the handle's prefix removed from the
  // front, then "maprfs://", then a '/' put in front when the rest does not start with one.
  std::string FixPath(const std::string& strPath) const;
  static std::string FixPath(const std::string& strPrefix, const std::string& strPath);

 private:
  CQiError MakeItem(const CBagPtr& pBag, const std::string& strLocalPath, const std::string& strSourcePath,
                    ContentMapperAPI* pMapper, CItemPtr& pItem);

  CHadoopFSPtr m_pFS;
  std::string m_strPrefix;
  CHadoopFileInfoArray m_arrListing;
  size_t m_nCursor = 0;
  CItemPtr m_pParentItem;
  bool m_bListing = false;
};

using CHadoopPathEnumeratorPtr = std::shared_ptr<CHadoopPathEnumerator>;
