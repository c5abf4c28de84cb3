#include "Scan/FSSQLiteDB/DatabaseWrapper.h"

#include "Platform/ErrorCodes.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/LogWriterInterface.h"
#include "Platform/QiLibrary.h"

CDatabaseWrapper::CDatabaseWrapper(const std::string& strDatabasePath, FSDB::DatabaseType eType,
                                   bool bReadOnly)
    : m_strDatabasePath(strDatabasePath), m_eDatabaseType(eType), m_bReadOnly(bReadOnly) {}

CDatabaseWrapper::~CDatabaseWrapper() {
  if (!m_bConfigured) return;
  CQiError error = Close();
  if (error.IsError()) {
    ZRLOG(CLogWriterInterface::kLevelAlways, "Unable to close the database due to %s",
          error.AsString().c_str());
  }
}

CQiError CDatabaseWrapper::Configure() {
  if (m_bConfigured) return CQiError();

  auto pLibrary = std::make_shared<CQiLibrary>();
  QI_RETURN_IF_ERROR(pLibrary->Load(FSDB::kScanDatabasePluginName));

  FSDB::PFGetDatabaseObject pfnCreate = nullptr;
  CQiError error = pLibrary->Resolve(FSDB::kGetDatabaseObjectExport, pfnCreate);
  if (error.IsError()) return QI_PUSH(error, "Failed to load function to create Database object");
  if (pfnCreate == nullptr) {
    return QI_ERROR_WIN32(QiErrorCode::ProcNotFound,
                          "Failed to load function to create Database object");
  }
  FSDB::PFDestroyDatabaseObject pfnDestroy = nullptr;
  error = pLibrary->Resolve(FSDB::kDestroyDatabaseObjectExport, pfnDestroy);
  if (error.IsError()) return QI_PUSH(error, "Failed to load function to destroy Database object");
  if (pfnDestroy == nullptr) {
    return QI_ERROR_WIN32(QiErrorCode::ProcNotFound,
                          "Failed to load function to destroy Database object");
  }

  FSDB::CScanDatabaseBase* pDatabase = pfnCreate(m_strDatabasePath, m_eDatabaseType, m_bReadOnly);
  if (pDatabase == nullptr) {
    return QI_ERROR_WIN32(QiErrorCode::OutOfMemory,
                          "Failed to create Database object, DatabasePath=[%s]",
                          m_strDatabasePath.c_str());
  }
  // The deleter keeps the library loaded until the object is gone.
  m_pDatabase.reset(pDatabase, [pLibrary, pfnDestroy](FSDB::CScanDatabaseBase* pObject) {
    pfnDestroy(pObject);
  });
  m_bConfigured = true;
  return CQiError();
}

CQiError CDatabaseWrapper::NotConfigured() const {
  return QI_ERROR_WIN32(QiErrorCode::NotConfigured, "Database is not configured");
}

CQiError CDatabaseWrapper::Open(bool bCreateNew) {
  QI_RETURN_IF_ERROR(Configure());
  QI_RETURN_IF_ERROR(m_pDatabase->Open(bCreateNew));
  return CQiError();
}

CQiError CDatabaseWrapper::SetBulkInsertMode(bool bBulkInsert) {
  if (!m_bConfigured) return NotConfigured();
  QI_RETURN_IF_ERROR(m_pDatabase->SetBulkInsertMode(bBulkInsert));
  return CQiError();
}

CQiError CDatabaseWrapper::Close() {
  if (!m_bConfigured) return NotConfigured();
  QI_RETURN_IF_ERROR(m_pDatabase->Close());
  return CQiError();
}

CQiError CDatabaseWrapper::AddFile(const std::string& strPath,
                                   const FSDB::CDatabaseItemPtr& pItem) {
  if (!m_bConfigured) return NotConfigured();
  QI_RETURN_IF_ERROR(m_pDatabase->AddFile(strPath, pItem));
  return CQiError();
}

CQiError CDatabaseWrapper::AddFolder(const std::string& strPath,
                                     const FSDB::CDatabaseItemPtr& pItem) {
  if (!m_bConfigured) return NotConfigured();
  QI_RETURN_IF_ERROR(m_pDatabase->AddFolder(strPath, pItem));
  return CQiError();
}

CQiError CDatabaseWrapper::DeleteFile(const std::string& strPath,
                                      const FSDB::CDatabaseItemPtr& pItem) {
  if (!m_bConfigured) return NotConfigured();
  QI_RETURN_IF_ERROR(m_pDatabase->DeleteFile(strPath, pItem));
  return CQiError();
}

CQiError CDatabaseWrapper::DeleteFolder(const std::string& strPath,
                                        const FSDB::CDatabaseItemPtr& pItem) {
  if (!m_bConfigured) return NotConfigured();
  QI_RETURN_IF_ERROR(m_pDatabase->DeleteFolder(strPath, pItem));
  return CQiError();
}

CQiError CDatabaseWrapper::RenameFile(const std::string& strOldPath, const std::string& strNewPath,
                                      const FSDB::CDatabaseItemPtr& pOldItem,
                                      const FSDB::CDatabaseItemPtr& pNewItem) {
  if (!m_bConfigured) return NotConfigured();
  QI_RETURN_IF_ERROR(m_pDatabase->RenameFile(strOldPath, strNewPath, pOldItem, pNewItem));
  return CQiError();
}

CQiError CDatabaseWrapper::RenameFolder(const std::string& strOldPath,
                                        const std::string& strNewPath,
                                        const FSDB::CDatabaseItemPtr& pOldItem,
                                        const FSDB::CDatabaseItemPtr& pNewItem) {
  if (!m_bConfigured) return NotConfigured();
  QI_RETURN_IF_ERROR(m_pDatabase->RenameFolder(strOldPath, strNewPath, pOldItem, pNewItem));
  return CQiError();
}

CQiError CDatabaseWrapper::QueryFolderItems(const std::string& strFolderPath, int64_t llFolderId,
                                            std::list<FSDB::CDatabaseItemPtr>& lstItems) {
  if (!m_bConfigured) return NotConfigured();
  QI_RETURN_IF_ERROR(m_pDatabase->QueryFolderItems(strFolderPath, llFolderId, lstItems));
  return CQiError();
}

CQiError CDatabaseWrapper::QueryItem(const std::string& strPath, FSDB::CDatabaseItemPtr& pItem) {
  if (!m_bConfigured) return NotConfigured();
  QI_RETURN_IF_ERROR(m_pDatabase->QueryItem(strPath, pItem));
  return CQiError();
}
