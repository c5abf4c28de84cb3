// CPathEnumerator: turns file-system paths into items.
//
// GetItemByPath builds the item of one given path; FindFirst/FindNext list the entries of one
// folder (the parent item), one item per entry, in the order the platform lists them. Every
// traversal and engine works through this interface; file-system-specific enumerators derive
// from it or from CBasicPathEnumerator.
//
// An enumerator holds at most one open listing and is used by one thread at a time; threads that
// list in parallel each use their own Clone(). Clone() returns a new enumerator owned by the
// caller (null in this base).
#pragma once

#include <memory>
#include <string>

#include "Platform/Bag.h"
#include "Platform/ContentMapperAPI.h"
#include "Platform/QiError.h"
#include "Scan/Item.h"

class CPathEnumerator {
 public:
  CPathEnumerator() = default;
  virtual ~CPathEnumerator() = default;

  virtual CQiError GetItemByPath(const std::string& strPath, CItemPtr& pItem,
                                 ContentMapperAPI* pMapper) = 0;
  virtual CQiError GetItemByPath(const std::string& strLocalPath,
                                 const std::string& strSourcePath, CItemPtr& pItem) = 0;
  virtual CQiError GetItemByPath(CBagPtr pBag, const std::string& strPath, CItemPtr& pItem,
                                 ContentMapperAPI* pMapper) = 0;
  virtual CQiError GetItemByPath(CBagPtr pBag, const std::string& strLocalPath,
                                 const std::string& strSourcePath, CItemPtr& pItem) = 0;
  virtual CQiError FindFirst(const std::string& strPattern, CItemPtr pParent, CItemPtr& pItem) = 0;
  virtual CQiError FindNext(CItemPtr& pItem) = 0;
  virtual CPathEnumerator* Clone() { return nullptr; }

 protected:
  CPathEnumerator(const CPathEnumerator&) = default;
  CPathEnumerator& operator=(const CPathEnumerator&) = default;
};

using CPathEnumeratorPtr = std::shared_ptr<CPathEnumerator>;
