// CSQLiteScanDatabase: the scan-database store of the plug-in "ZrFSSQLiteDB", FSDB::CScanDatabaseBase
// on one SQLite file ("ScanDatabase.db") in the database folder.
//
// One table holds every record: its id, the id of its parent folder's record, its name and full
// path (BLOBs, compared byte by byte), whether it is a folder, the record's fields and its
// metadata text. The path is unique (point look-ups, subtree ranges); (parent id, name) lists a
// folder in name order. A record whose parent folder is not stored gets a negative parent id
// derived from the parent's path, so that adding that folder later links its waiting children
// with one indexed update, and a folder that is not stored can still be listed. Subtrees are
// path ranges: everything below "/a/b" lies in ["/a/b/", "/a/b0"), which needs no LIKE pattern
// and so no escaping of '%' or '_' in names. docs/scan-database.md has the schema, the table of
// operations and errors, and the crash-safety rules.
//
// The database runs in WAL mode; every operation is one transaction (a savepoint inside the
// bulk-insert transaction), so a process that dies leaves the store with every committed
// operation in it. Close checkpoints and returns the file to rollback-journal mode, so a closed
// database is one self-contained file that can be copied or opened from a read-only folder.
//
// Errors: Win32 87 for bad arguments (empty path, NUL byte, missing record object, a rename into
// its own subtree, a file operation on a folder and the reverse), Win32 6 when the store is not
// open, Win32 1168 when a path or folder is not stored, errno EEXIST when a rename target is
// already stored, errno EROFS for a change to a read-only store, errno ENOENT when Open(false)
// finds no database, Win32 13 for a file that is not a scan database (or is damaged), and the
// errno of the failed system call for folders and files that cannot be made or opened. Messages
// name the paths concerned.
//
// Ownership: made by the plug-in's GetDatabaseObject and freed by its DestroyDatabaseObject; the
// object owns its SQLite connection and prepared statements, and its destructor closes the store.
//
// Threads: one thread at a time (the connection is opened without SQLite's own mutex).
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>

#include "Platform/QiError.h"
#include "Scan/FSSQLiteDB/Plugin/SQLiteOperationScope.h"
#include "Scan/FSSQLiteDB/Plugin/SQLiteStatement.h"
#include "Scan/FSSQLiteDB/ScanDatabaseBase.h"

class CSQLiteScanDatabase : public FSDB::CScanDatabaseBase {
 public:
  static constexpr const char* kDatabaseFileName = "ScanDatabase.db";
  // PRAGMA application_id of our files ("ZRSD"), and the schema version in user_version.
  static constexpr int32_t kApplicationId = 0x5A525344;
  static constexpr int32_t kSchemaVersion = 1;

  CSQLiteScanDatabase(const std::string& strDatabasePath, FSDB::DatabaseType eType,
                      bool bReadOnly);
  ~CSQLiteScanDatabase() override;
  CSQLiteScanDatabase(const CSQLiteScanDatabase&) = delete;
  CSQLiteScanDatabase& operator=(const CSQLiteScanDatabase&) = delete;

  CQiError SetBulkInsertMode(bool bBulkInsert) override;
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

 private:
  struct SRecordKey {
    int64_t llId = 0;
    bool bIsFolder = false;
  };

  CQiError CheckOpen() const;
  CQiError CheckWritable() const;
  CQiError SqlError(int iResult, const char* pszWhat) const;
  CQiError Execute(const char* pszSql, const char* pszWhat);
  // Each write operation runs in a CSQLiteOperationScope (see there).
  CSQLiteOperationScope::SSavepoint Savepoint();
  CQiError Begin(CSQLiteOperationScope& scope);
  CQiError Commit(CSQLiteOperationScope& scope);
  CQiError OpenConnection(bool bCreateNew);
  CQiError CreateSchema();
  CQiError CheckSchema();
  CQiError PrepareStatements();
  void CloseConnection();
  void ForgetFolders();

  CQiError StoreRecord(const std::string& strPath, const FSDB::CDatabaseItemPtr& pItem,
                       bool bFolder);
  CQiError RemoveRecord(const std::string& strPath, bool bFolder);
  CQiError MoveRecord(const std::string& strOldPath, const std::string& strNewPath,
                      const FSDB::CDatabaseItemPtr& pNewItem, bool bFolder);
  // Finds a record by path; bFound false when there is none.
  CQiError FindRecord(std::string_view strPath, SRecordKey& key, bool& bFound);
  // The id to store as parent of a record whose parent folder has this path.
  CQiError GetParentId(std::string_view parentPath, int64_t& llParentId);
  // Removes every record below the folder path (not the folder's own).
  CQiError RemoveRange(std::string_view strFolderPath, int64_t& llRemoved);
  // Gives the records waiting for this folder (see above) its id as their parent.
  CQiError LinkWaitingChildren(std::string_view strFolderPath, int64_t llFolderId);
  // Appends the records whose parent id is llParentId; with pstrExactParent, only those whose
  // parent path is exactly that (waiting parent ids are hashes and may collide).
  CQiError ListChildren(int64_t llParentId, const std::string* pstrExactParent,
                        std::list<FSDB::CDatabaseItemPtr>& lstItems);
  // Called when an operation failed: forgets cached folder ids, and notices a bulk-insert
  // transaction that SQLite rolled back.
  CQiError AfterFailure(CQiError error);

  std::string m_strDatabasePath;
  std::string m_strFilePath;
  FSDB::DatabaseType m_eDatabaseType;
  bool m_bReadOnly;
  bool m_bBulkInsert = false;
  sqlite3* m_pDb = nullptr;

  CSQLiteStatement m_stmtInsert;
  CSQLiteStatement m_stmtReplace;
  CSQLiteStatement m_stmtFindByPath;
  CSQLiteStatement m_stmtFindById;
  CSQLiteStatement m_stmtSelectByPath;
  CSQLiteStatement m_stmtListChildren;
  CSQLiteStatement m_stmtLinkChildren;
  CSQLiteStatement m_stmtDeleteById;
  CSQLiteStatement m_stmtDeleteRange;
  CSQLiteStatement m_stmtMoveRecord;
  CSQLiteStatement m_stmtMoveRecordWithFields;
  CSQLiteStatement m_stmtMoveRange;
  CSQLiteStatement m_stmtSavepoint;
  CSQLiteStatement m_stmtRelease;
  CSQLiteStatement m_stmtRollbackTo;

  // Parent ids of folder paths met while adding (a full scan adds a folder's entries together).
  std::unordered_map<std::string, int64_t> m_mapFolderIds;
  std::string m_strLastParent;
  int64_t m_llLastParentId = 0;
  bool m_bLastParentValid = false;
};
