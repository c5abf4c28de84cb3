// CDatabaseWrapper: the scan database an engine uses. It loads the store plug-in "ZrFSSQLiteDB"
// on Open (through CQiLibrary, by logical name), creates the store object with the plug-in's
// "GetDatabaseObject" and forwards every operation to it, adding its own place to each error.
//
// Every operation before a successful configuration (that is, before Open loaded the plug-in)
// fails with Win32 774 "Database is not configured". Configuration failures: the loader's error;
// a missing export is Win32 1287 with "Failed to load function to create Database object" or
// "Failed to load function to destroy Database object"; a plug-in that returns no object is
// Win32 14.
//
// Ownership: the wrapper owns the store object; it is freed through the plug-in's
// "DestroyDatabaseObject", and the plug-in stays loaded as long as the object lives. The
// destructor closes the store; a failure to close is logged at level -1 as "Unable to close the
// database due to %s".
//
// Threads: no lock; callers that share one wrapper between threads serialise their calls.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "Platform/QiError.h"
#include "Scan/FSSQLiteDB/ScanDatabaseBase.h"

class CDatabaseWrapper : public FSDB::CScanDatabaseBase {
 public:
  // strDatabasePath: the database folder; eType and bReadOnly are passed to the plug-in (see
  // ScanDatabaseBase.h for their meaning).
  CDatabaseWrapper(const std::string& strDatabasePath, FSDB::DatabaseType eType, bool bReadOnly);
  ~CDatabaseWrapper() override;
  CDatabaseWrapper(const CDatabaseWrapper&) = delete;
  CDatabaseWrapper& operator=(const CDatabaseWrapper&) = delete;

  CQiError SetBulkInsertMode(bool bBulkInsert) override;
  // Loads the plug-in once (Configure), then opens the store.
  CQiError Open(bool bCreateNew) override;
  CQiError Close() override;
  CQiError AddFile(const std::string& strPath, const FSDB::CDatabaseItemPtr& pItem) override;
  CQiError AddFolder(const std::string& strPath, const FSDB::CDatabaseItemPtr& pItem) override;
  CQiError DeleteFile(const std::string& strPath, const FSDB::CDatabaseItemPtr& pItem) override;
  CQiError DeleteFolder(const std::string& strPath, const FSDB::CDatabaseItemPtr& pItem) override;
  CQiError RenameFile(const std::string& strOldPath, const std::string& strNewPath,
                      const FSDB::CDatabaseItemPtr& pOldItem,
                      const FSDB::CDatabaseItemPtr& pNewItem) override;
  CQiError RenameFolder(const std::string& strOldPath, const std::string& strNewPath,
                        const FSDB::CDatabaseItemPtr& pOldItem,
                        const FSDB::CDatabaseItemPtr& pNewItem) override;
  CQiError QueryFolderItems(const std::string& strFolderPath, int64_t llFolderId,
                            std::list<FSDB::CDatabaseItemPtr>& lstItems) override;
  CQiError QueryItem(const std::string& strPath, FSDB::CDatabaseItemPtr& pItem) override;

  bool IsConfigured() const { return m_bConfigured; }

 private:
  // Loads the plug-in and creates the store object; does nothing when already configured.
  CQiError Configure();
  CQiError NotConfigured() const;

  std::string m_strDatabasePath;
  FSDB::DatabaseType m_eDatabaseType;
  // Released through the plug-in's destroy function; the deleter holds the library.
  FSDB::CScanDatabaseBasePtr m_pDatabase;
  bool m_bReadOnly;
  bool m_bConfigured = false;
};

using CDatabaseWrapperPtr = std::shared_ptr<CDatabaseWrapper>;
