// CLustreScanDBPathEnumerator: lists a folder out of the Lustre engine's scan databases for the
// incremental enumeration: the database of this job (changelogs applied) against the one of the
// previous backup, both streamed in name order and merged, so memory stays flat however large
// the folder.
//
// FindFirst/FindNext hand out, per folder:
//   - every entry that is new or whose state differs (ZrScanDBLustreRecord::SameState), or
//     that lies at or below a path to be scanned again (previous failures); its item is built
//     from the object as it is now (lstat), and when that differs from the database the record
//     is refreshed, so the database keeps what the file system holds; a new or changed entry
//     whose object is gone (ENOENT/ENOTDIR) leaves the database with its subtree instead, and is
//     reported deleted when the previous backup had it;
//   - every unchanged folder, marked in its item bag (kUnchangedKey), so that the traversal
//     walks it without reporting it.
// Entries of the previous database that this job's database no longer has went away: each is
// handed to the engine's DeletedItemsCallback (a removed folder once, not its contents).
//
// Ownership: the stores and the engine outlive the enumerator. One thread (the traversal runs
// with one worker; Clone() gives no clone).
#pragma once

#include <memory>
#include <set>
#include <string>

#include "Scan/BasicPathEnumerator.h"
#include "Scan/PathEnumerator.h"
#include "Scan/ScanDB/ScanDbStore.h"

class CScanEngine;

class CLustreScanDBPathEnumerator : public CPathEnumerator {
 public:
  static constexpr const char* kUnchangedKey = "LustreUnchanged";

  CLustreScanDBPathEnumerator(CScanDbStore& current, CScanDbStore& previous, CScanEngine* pEngine,
                              std::set<std::string> setRescan);
  ~CLustreScanDBPathEnumerator() override;

  CQiError GetItemByPath(const std::string& strPath, CItemPtr& pItem, ContentMapperAPI* pMapper) override;
  CQiError GetItemByPath(const std::string& strLocalPath, const std::string& strSourcePath, CItemPtr& pItem) override;
  CQiError GetItemByPath(CBagPtr pBag, const std::string& strPath, CItemPtr& pItem,
                         ContentMapperAPI* pMapper) override;
  CQiError GetItemByPath(CBagPtr pBag, const std::string& strLocalPath, const std::string& strSourcePath,
                         CItemPtr& pItem) override;
  CQiError FindFirst(const std::string& strPattern, CItemPtr pParent, CItemPtr& pItem) override;
  CQiError FindNext(CItemPtr& pItem) override;

  // True when the path is new or changed against the previous database, or to be scanned again.
  bool IsChanged(const CScanDbRecord& record, const CScanDbRecord* pPrevious) const;
  uint64_t GetDeletedCount() const { return m_ullDeleted; }

 private:
  CQiError Advance(CScanDbFolderCursor& cursor, CScanDbRecord& record, bool& bValid);
  CItemPtr MakeItem(const CScanDbRecord& record) const;

  CScanDbStore& m_current;
  CScanDbStore& m_previous;
  CScanEngine* m_pEngine;
  std::set<std::string> m_setRescan;
  CBasicPathEnumerator m_basic;
  CBagPtr m_pBag;
  CScanDbFolderCursor m_curCursor, m_prevCursor;
  CScanDbRecord m_cur, m_prev;
  bool m_bCurValid = false, m_bPrevValid = false;
  uint64_t m_ullDeleted = 0;
};
