// FSDB::CScanDatabaseBase: the scan database as the engines see it, a store of the files and
// folders that a scan saw (FSDB::CDatabaseItem records), keyed by full path and listed folder by
// folder. The store itself lives in the plug-in "ZrFSSQLiteDB" (Scan/FSSQLiteDB/Plugin); engines
// reach it through CDatabaseWrapper, which loads the plug-in, so that this library never issues
// SQL. docs/scan-database.md describes the store: its schema, every operation, its errors and
// what survives a crash.
//
// Meaning of the values the interface passes through to the store:
//  - DatabaseType (given at creation) chooses how hard the store works to keep data on power loss:
//      DatabaseTypePersistent  a database kept between jobs: SQLite synchronous=NORMAL in WAL mode,
//                              committed operations survive a crash of the process, and the file
//                              stays consistent on power loss (the last commits before a
//                              checkpoint may be missing);
//      DatabaseTypeTemporary   a database the job can rebuild: synchronous=OFF, committed
//                              operations survive a crash of the process only.
//  - the bool given at creation: open read-only (queries only; every change fails with EROFS).
//  - Open(bCreateNew): true starts a new, empty database in the database folder (the folder and
//    its parents are created, an earlier database there is replaced); false opens the database
//    that is there and fails with ENOENT when there is none.
//  - QueryFolderItems(path, llFolderId, list): when llFolderId > 0 it is the id of the folder's
//    record (CDatabaseItem::GetId, CCompoundItem::GetDbId) and the folder is found by id without
//    a path look-up (the path is then used for messages only); when it is 0 the folder is found
//    by path.
//
// Threads: an object is used by one thread at a time; callers that share one serialise their
// calls.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "Platform/QiError.h"
#include "Scan/FSSQLiteDB/DatabaseItem.h"

namespace FSDB {

enum DatabaseType : int32_t {
  DatabaseTypePersistent = 0,
  DatabaseTypeTemporary = 1,
};

class CScanDatabaseBase {
 public:
  virtual ~CScanDatabaseBase() = default;

  // Bulk-insert mode runs every operation in one transaction, committed when the mode is left
  // (or at Close); use it to fill a database or to apply a long list of changes.
  virtual CQiError SetBulkInsertMode(bool bBulkInsert) = 0;
  virtual CQiError Open(bool bCreateNew) = 0;
  // Commits, closes and leaves one self-contained database file; closing a store that is not
  // open does nothing.
  virtual CQiError Close() = 0;

  // Add a record under the path, or replace the record stored there (its id is kept). The store
  // sets the record's id. A file added over a folder removes everything below the folder.
  virtual CQiError AddFile(const std::string& strPath, const CDatabaseItemPtr& pItem) = 0;
  virtual CQiError AddFolder(const std::string& strPath, const CDatabaseItemPtr& pItem) = 0;
  // Remove the record of the path (a folder with everything below it). The record argument may
  // be null; the path decides.
  virtual CQiError DeleteFile(const std::string& strPath, const CDatabaseItemPtr& pItem) = 0;
  virtual CQiError DeleteFolder(const std::string& strPath, const CDatabaseItemPtr& pItem) = 0;
  // Move the record from the old path to the new one (a folder with everything below it). When
  // the new record is given its fields replace the stored ones; the old record may be null.
  virtual CQiError RenameFile(const std::string& strOldPath, const std::string& strNewPath,
                              const CDatabaseItemPtr& pOldItem,
                              const CDatabaseItemPtr& pNewItem) = 0;
  virtual CQiError RenameFolder(const std::string& strOldPath, const std::string& strNewPath,
                                const CDatabaseItemPtr& pOldItem,
                                const CDatabaseItemPtr& pNewItem) = 0;

  // Replaces the list by the records directly inside the folder, in byte order of their names.
  virtual CQiError QueryFolderItems(const std::string& strFolderPath, int64_t llFolderId,
                                    std::list<CDatabaseItemPtr>& lstItems) = 0;
  // The record of one path; Win32 1168 when the store has none.
  virtual CQiError QueryItem(const std::string& strPath, CDatabaseItemPtr& pItem) = 0;
};

using CScanDatabaseBasePtr = std::shared_ptr<CScanDatabaseBase>;

// The plug-in contract: the library's logical name and its two exports.
inline constexpr const char* kScanDatabasePluginName = "ZrFSSQLiteDB";
inline constexpr const char* kGetDatabaseObjectExport = "GetDatabaseObject";
inline constexpr const char* kDestroyDatabaseObjectExport = "DestroyDatabaseObject";

// GetDatabaseObject(database folder, type, read-only): a new store object, or null on failure.
// It never throws.
using PFGetDatabaseObject = CScanDatabaseBase* (*)(const std::string& strDatabasePath,
                                                   DatabaseType eType, bool bReadOnly);
// DestroyDatabaseObject(object): frees an object made by GetDatabaseObject (null is ignored).
using PFDestroyDatabaseObject = void (*)(CScanDatabaseBase* pDatabase);

}  // namespace FSDB
