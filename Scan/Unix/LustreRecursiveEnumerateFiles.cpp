#include "Scan/Unix/LustreRecursiveEnumerateFiles.h"

#include <sys/stat.h>

#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Scan/ScanEngine.h"
#include "Scan/Unix/LustreRecursivePathEnumerator.h"
#include "Scan/Unix/ZrScanDBLustreRecord.h"

CLustreRecursiveEnumerateFiles::CLustreRecursiveEnumerateFiles(CScanEngine* pEngine, CScanDbStore& store,
                                                               LustreAPI& api, CLustreHardlinkManager& hardlinks)
    : CEnumerateFiles(pEngine, std::make_shared<CLustreRecursivePathEnumerator>(api)),
      m_pLustreEngine(pEngine), m_store(store), m_api(api), m_hardlinks(hardlinks) {}

CQiError CLustreRecursiveEnumerateFiles::AddRecord(const std::string& strPath, const struct stat& st) {
  LustreAPI::CLustreFID fid;
  QI_RETURN_IF_ERROR(m_api.GetFIDFromPath(strPath, fid));
  QI_RETURN_IF_ERROR(AddRecord(strPath, st, fid));
  return CQiError();
}

CQiError CLustreRecursiveEnumerateFiles::AddRecord(const std::string& strPath, const struct stat& st,
                                                   const LustreAPI::CLustreFID& fid) {
  const ZrScanDBLustreRecord record(strPath, st, fid.ToString());
  CQiError error = m_store.Add(record);
  if (error.IsErrNo(EEXIST)) error = m_store.Update(record);
  QI_RETURN_IF_ERROR(error);
  if (!S_ISDIR(st.st_mode) && st.st_nlink > 1) m_hardlinks.Add(record.GetFileId());
  ++m_ullAdded;
  return CQiError();
}

CQiError CLustreRecursiveEnumerateFiles::AddItem(const std::string& strOutput, const CItemPtr& pItem) {
  const std::string& strPath = pItem->GetLocalFullyQualifiedItemName();
  struct stat st {};
  LustreAPI::CLustreFID fid;
  CQiError error;
  const bool bListedFid = CLustreRecursivePathEnumerator::GetAttachedFID(*pItem, fid, error);
  if (lstat(strPath.c_str(), &st) != 0)
    error = QI_ERROR_ERRNO(errno, "stat(%s) failed", FXString::EscapeControl(strPath).c_str());
  else if (!bListedFid)
    error = AddRecord(strPath, st);
  else if (error.IsSuccess())
    error = AddRecord(strPath, st, fid);
  else
    QI_PUSH(error, "No FID for %s", FXString::EscapeControl(strPath).c_str());
  if (error.IsSuccess()) {
    if (S_ISDIR(st.st_mode)) ZRLOG(5, "Adding Folder %s", FXString::EscapeControl(strPath).c_str());
    return CQiError();
  }
  if (pItem->IsFolder()) ZRLOG(-1, "Error in Adding Folder %s", FXString::EscapeControl(strPath).c_str());
  else ZRLOG(-1, "Error in Adding File %s due to %s", FXString::EscapeControl(strPath).c_str(), error.AsString().c_str());
  QI_RETURN_IF_ERROR(OnFailedContent(strPath, strOutput, !pItem->IsFolder(), error));
  return CQiError();
}

CQiError CLustreRecursiveEnumerateFiles::OnFolder(const std::string& strInput, const std::string& strOutput,
                                                  CItemPtr& pItem) {
  QI_RETURN_IF_ERROR(AddItem(strOutput, pItem));
  if (!IsFiltered(pItem, strOutput)) {
    if (m_pLustreEngine != nullptr) QI_RETURN_IF_ERROR(m_pLustreEngine->ScanQueryCallback(pItem));
  }
  QI_RETURN_IF_ERROR(CScanTraverseFolder::OnFolder(strInput, strOutput, pItem));
  return CQiError();
}

CQiError CLustreRecursiveEnumerateFiles::OnFile(const std::string& strInput, const std::string& strOutput,
                                                CItemPtr& pItem) {
  QI_RETURN_IF_ERROR(AddItem(strOutput, pItem));
  QI_RETURN_IF_ERROR(CEnumerateFiles::OnFile(strInput, strOutput, pItem));
  return CQiError();
}

CQiError CLustreRecursiveEnumerateFiles::OnReparsePointFile(const std::string& strInput, const std::string& strOutput,
                                                            CItemPtr& pItem) {
  QI_RETURN_IF_ERROR(AddItem(strOutput, pItem));
  QI_RETURN_IF_ERROR(CEnumerateFiles::OnReparsePointFile(strInput, strOutput, pItem));
  return CQiError();
}
