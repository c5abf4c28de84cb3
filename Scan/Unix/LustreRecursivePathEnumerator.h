// CLustreRecursivePathEnumerator: the path enumerator of the Lustre engine's full walk. It lists
// a folder with the basic path enumerator and asks the FIDs of the listed entries in batches
// (one LustreAPI::GetFIDsFromPaths per batch: one `lfs path2fid` for many entries, or the
// library's path2fid), instead of one request per entry later.
//
// FindFirst/FindNext read ahead up to the batch size of entries of the folder (memory stays flat
// however large the folder), get their FIDs and then hand the entries out in listing order, each
// with its FID, or the error that kept it from having one, in its item bag (GetAttachedFID reads
// it back). Entries the basic enumerator gave with an error (status unreadable) are handed on
// unchanged, and a listing error ends the folder after the entries read before it, just as the
// basic enumerator would have given them. GetItemByPath (the content roots) attaches nothing:
// the walk asks those FIDs itself.
//
// Ownership: the API outlives the enumerator; the enumerator owns its basic enumerator. One
// thread at a time; Clone() gives each traversal worker its own, with no listing open.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Scan/PathEnumerator.h"
#include "Scan/Unix/LustreAPI.h"

class CLustreRecursivePathEnumerator : public CPathEnumerator {
 public:
  static constexpr size_t kDefaultBatch = 256;
  // Item bag keys: the FID's text, or the error (a CQiError) that kept the entry from one.
  static constexpr const char* kFidKey = "LustreFID";
  static constexpr const char* kFidErrorKey = "LustreFIDError";

  explicit CLustreRecursivePathEnumerator(LustreAPI& api, size_t uBatch = kDefaultBatch);
  ~CLustreRecursivePathEnumerator() override;

  CQiError GetItemByPath(const std::string& strPath, CItemPtr& pItem, ContentMapperAPI* pMapper) override;
  CQiError GetItemByPath(const std::string& strLocalPath, const std::string& strSourcePath, CItemPtr& pItem) override;
  CQiError GetItemByPath(CBagPtr pBag, const std::string& strPath, CItemPtr& pItem,
                         ContentMapperAPI* pMapper) override;
  CQiError GetItemByPath(CBagPtr pBag, const std::string& strLocalPath, const std::string& strSourcePath,
                         CItemPtr& pItem) override;
  CQiError FindFirst(const std::string& strPattern, CItemPtr pParent, CItemPtr& pItem) override;
  CQiError FindNext(CItemPtr& pItem) override;
  CPathEnumerator* Clone() override;

  // True when a listing of this enumerator attached a FID or a FID error to the item; then
  // either fid is set (error success) or error says why there is none.
  static bool GetAttachedFID(const CItem& item, LustreAPI::CLustreFID& fid, CQiError& error);

 private:
  struct SEntry {
    CQiError error;
    CItemPtr pItem;
  };

  CLustreRecursivePathEnumerator(LustreAPI& api, std::unique_ptr<CPathEnumerator> pBasic, size_t uBatch);
  // Keeps one result of the basic enumerator: an entry, or the end of the listing.
  void Keep(CQiError error, CItemPtr pItem);
  // Reads entries until the batch is full or the listing ends, then gets their FIDs.
  void FillBatch();
  void AttachFIDs();
  CQiError TakeNext(CItemPtr& pItem);

  LustreAPI& m_api;
  std::unique_ptr<CPathEnumerator> m_pBasic;
  size_t m_uBatch;
  std::vector<SEntry> m_vEntries;
  size_t m_uNext = 0;
  bool m_bListing = false;  // a FindFirst was made
  bool m_bEnded = false;    // the basic listing gave its last result (m_endError)
  CQiError m_endError;
};
