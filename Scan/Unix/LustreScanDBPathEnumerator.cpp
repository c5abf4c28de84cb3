#include "Scan/Unix/LustreScanDBPathEnumerator.h"

#include <sys/stat.h>

#include <cerrno>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Scan/FindFirstItem.h"
#include "Scan/ScanEngine.h"
#include "Scan/Unix/ZrScanDBLustreRecord.h"

CLustreScanDBPathEnumerator::CLustreScanDBPathEnumerator(CScanDbStore& current, CScanDbStore& previous,
                                                         CScanEngine* pEngine, std::set<std::string> setRescan)
    : m_current(current), m_previous(previous), m_pEngine(pEngine), m_setRescan(std::move(setRescan)) {}

CLustreScanDBPathEnumerator::~CLustreScanDBPathEnumerator() = default;

CQiError CLustreScanDBPathEnumerator::GetItemByPath(const std::string& strPath, CItemPtr& pItem,
                                                    ContentMapperAPI* pMapper) {
  return m_basic.GetItemByPath(strPath, pItem, pMapper);
}
CQiError CLustreScanDBPathEnumerator::GetItemByPath(const std::string& strLocalPath, const std::string& strSourcePath,
                                                    CItemPtr& pItem) {
  return m_basic.GetItemByPath(strLocalPath, strSourcePath, pItem);
}
CQiError CLustreScanDBPathEnumerator::GetItemByPath(CBagPtr pBag, const std::string& strPath, CItemPtr& pItem,
                                                    ContentMapperAPI* pMapper) {
  return m_basic.GetItemByPath(std::move(pBag), strPath, pItem, pMapper);
}
CQiError CLustreScanDBPathEnumerator::GetItemByPath(CBagPtr pBag, const std::string& strLocalPath,
                                                    const std::string& strSourcePath, CItemPtr& pItem) {
  return m_basic.GetItemByPath(std::move(pBag), strLocalPath, strSourcePath, pItem);
}

bool CLustreScanDBPathEnumerator::IsChanged(const CScanDbRecord& record, const CScanDbRecord* pPrevious) const {
  if (pPrevious == nullptr || !ZrScanDBLustreRecord::SameState(record, *pPrevious)) return true;
  if (m_setRescan.empty()) return false;
  // At or below a path to be scanned again: the nearest entry not above the path decides.
  auto it = m_setRescan.upper_bound(record.GetPath());
  if (it == m_setRescan.begin()) return false;
  --it;
  return FXPath::IsAncestorOf(*it, record.GetPath(), true);
}

CQiError CLustreScanDBPathEnumerator::Advance(CScanDbFolderCursor& cursor, CScanDbRecord& record, bool& bValid) {
  CQiError error = cursor.Next(record);
  bValid = error.IsSuccess();
  if (error.IsError() && !error.IsWin32(QiErrorCode::NoMoreFiles)) return QI_PUSH(error);
  return CQiError();
}

CItemPtr CLustreScanDBPathEnumerator::MakeItem(const CScanDbRecord& record) const {
  const FXFile::CFileData data(record.GetPath(), FXFile::CFileData::kModeFullPath, &record.GetStat());
  return std::make_shared<CFindFirstItem>(m_pBag, record.GetPath(), data);
}

CQiError CLustreScanDBPathEnumerator::FindFirst(const std::string& strPattern, CItemPtr pParent, CItemPtr& pItem) {
  pItem.reset();
  const std::string strFolder =
      FXPath::RemoveTrailingDelimiters(pParent ? pParent->GetLocalFullyQualifiedItemName() : strPattern);
  m_pBag = pParent ? pParent->GetWorkUnitBag() : CBagPtr();
  m_curCursor.Close();
  m_prevCursor.Close();
  QI_RETURN_IF_ERROR(m_current.OpenFolderCursor(strFolder, m_curCursor));
  QI_RETURN_IF_ERROR(m_previous.OpenFolderCursor(strFolder, m_prevCursor));
  QI_RETURN_IF_ERROR(Advance(m_curCursor, m_cur, m_bCurValid));
  QI_RETURN_IF_ERROR(Advance(m_prevCursor, m_prev, m_bPrevValid));
  QI_RETURN_IF_ERROR(FindNext(pItem));
  return CQiError();
}

CQiError CLustreScanDBPathEnumerator::FindNext(CItemPtr& pItem) {
  pItem.reset();
  while (m_bCurValid || m_bPrevValid) {
    const int iOrder = !m_bCurValid   ? 1
                       : !m_bPrevValid ? -1
                                       : m_cur.GetName().compare(m_prev.GetName());
    if (iOrder > 0) {
      // Only in the previous database: gone since.
      ++m_ullDeleted;
      if (ZRLOG_ON(5)) ZRLOG(5, "Deleted since the last backup: %s", FXString::EscapeControl(m_prev.GetPath()).c_str());
      if (m_pEngine != nullptr) (void)m_pEngine->DeletedItemsCallback(MakeItem(m_prev));
      QI_RETURN_IF_ERROR(Advance(m_prevCursor, m_prev, m_bPrevValid));
      continue;
    }
    const bool bChanged = IsChanged(m_cur, iOrder == 0 ? &m_prev : nullptr);
    if (bChanged) {
      struct stat st {};
      if (lstat(m_cur.GetPath().c_str(), &st) == 0) {
        CScanDbRecord fresh(m_cur.GetPath(), st, m_cur.GetFileId());
        if (!ZrScanDBLustreRecord::SameState(fresh, m_cur)) QI_RETURN_IF_ERROR(m_current.Update(fresh));
        m_cur.SetStat(fresh.GetStat());
      } else if (errno == ENOENT || errno == ENOTDIR) {
        // A record of an object that is gone: the changelogs named a path that changed again
        // later (or after the end noted for this job). The database follows the file system.
        ZRLOG(1, "%s is in the scan database but no longer on the file system: record removed",
              FXString::EscapeControl(m_cur.GetPath()).c_str());
        QI_RETURN_IF_ERROR(m_current.Remove(m_cur.GetPath(), true));
        if (iOrder == 0) {
          ++m_ullDeleted;
          if (m_pEngine != nullptr) (void)m_pEngine->DeletedItemsCallback(MakeItem(m_prev));
          QI_RETURN_IF_ERROR(Advance(m_prevCursor, m_prev, m_bPrevValid));
        }
        QI_RETURN_IF_ERROR(Advance(m_curCursor, m_cur, m_bCurValid));
        continue;
      }
      pItem = MakeItem(m_cur);
    } else if (m_cur.IsFolder()) {
      pItem = MakeItem(m_cur);
      (void)pItem->GetItemBag()->Write(kUnchangedKey, true);
    }
    if (iOrder == 0) QI_RETURN_IF_ERROR(Advance(m_prevCursor, m_prev, m_bPrevValid));
    QI_RETURN_IF_ERROR(Advance(m_curCursor, m_cur, m_bCurValid));
    if (pItem) return CQiError();
  }
  m_curCursor.Close();
  m_prevCursor.Close();
  return QI_ERROR_WIN32(QiErrorCode::NoMoreFiles, "No more files");
}
