// CScanDbStore: the scan database that the Lustre, Gluster and Nutanix engines keep between
// jobs: one record (CScanDbRecord) per file and folder, keyed by full path and listed by parent
// folder, with an optional file identifier (the Lustre FID) to look records up by.
//
// A store is one SQLite file ("ScanDb.sqlite") in a folder of its own; the job folder holds one
// such folder per database kind (EScanDbKind, see CScanDbFiles, which also copies, replaces and
// removes them). docs/scan-db-store.md gives the schema and which engine uses which operation.
//
// Paths are absolute byte strings (see CScanDbRecord::ValidatePath); trailing '/' are dropped.
// A path longer than PATH_MAX is stored like any other: the store never hands paths to the
// kernel. Operations and their errors:
//  - Add: a new record; errno 17 (EEXIST) when the path is present.
//  - Update: add or replace the record of the path (upsert).
//  - Remove: the record of a path, and with bWithSubtree every record below it; Win32 1168 when
//    nothing was removed.
//  - Rename: moves a record and, when it is a folder, every record below it (the whole
//    subtree, rewritten in one statement; records below a non-folder are not looked for); Win32 1168 when the old path is absent; errno 17 when the new path or a
//    path below it is present; Win32 87 for "/" or a move into the old path's own subtree. A
//    failed rename changes nothing.
//  - Lookup by path, LookupByFileId (the first path in byte order when hard links share a FID):
//    Win32 1168 when absent.
//  - ListFolder / OpenFolderCursor: the records whose parent is the folder, in name order,
//    streamed row by row.
//  - Validate: a full consistency check of the file (Win32 13 when damaged).
//  - Reference time: a number kept in the database's meta table; Win32 1168 before it is set.
//    Engines keep their own texts there too (SetMetaText / GetMetaText).
//  - Bulk mode: BeginBulk opens one transaction that every later change joins until EndBulk
//    commits it (or rolls it back). Outside bulk mode each change commits by itself. Close()
//    rolls an unfinished bulk back.
// Any operation on a store that is not open is Win32 774. SQLite failures map as described at
// CScanDbConnection::MakeError (a damaged file is Win32 13).
//
// Durability: write-ahead logging with synchronous=NORMAL. A committed change survives a crash
// or kill of the process; after a power loss the database is intact but the last commits may be
// missing.
//
// Threads: Open and Close by one thread while no other uses the store. Every other operation may
// be called from any number of threads at once: they are serialised on the connection's lock
// (one connection, so all of them see and join the same bulk transaction). Listing callbacks run
// without that lock and may call the store.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Platform/QiError.h"
#include "Scan/ScanDB/ScanDbConnection.h"
#include "Scan/ScanDB/ScanDbFolderCursor.h"
#include "Scan/ScanDB/ScanDbRecord.h"

class CScanDbStore;
using CScanDbStorePtr = std::shared_ptr<CScanDbStore>;

class CScanDbStore {
 public:
  static constexpr const char* kDatabaseFileName = "ScanDb.sqlite";
  static constexpr const char* kReferenceTimeKey = "ReferenceTime";

  // Receives one record of a listing; an error stops the listing and is returned by it.
  using TRecordCallback = std::function<CQiError(const CScanDbRecord&)>;

  CScanDbStore();
  ~CScanDbStore();
  CScanDbStore(const CScanDbStore&) = delete;
  CScanDbStore& operator=(const CScanDbStore&) = delete;

  // Opens the database in the folder, creating the folder (and those above it) and a new
  // database as needed. A folder that cannot be created or written, or a file that is not a
  // scan database, is an error and leaves the store closed.
  CQiError Open(const std::string& strFolder);
  // Closes the store (an unfinished bulk is rolled back). Open cursors keep the connection
  // until they close. Closing a closed store succeeds.
  CQiError Close();
  bool IsOpen() const { return static_cast<bool>(m_pConnection); }
  const std::string& GetFolder() const { return m_strFolder; }

  CQiError Add(const CScanDbRecord& record);
  CQiError Update(const CScanDbRecord& record);
  // Replaces the lstat data of the path's record when it holds the record's file id (Win32 1168
  // when there is no such record). Cheaper than Update: the file-id index is left alone.
  CQiError UpdateState(const CScanDbRecord& record);
  // pRemoved (optional) receives the number of records removed.
  CQiError Remove(const std::string& strPath, bool bWithSubtree, uint64_t* pRemoved = nullptr);
  // pMoved (optional) receives the number of records moved, the renamed one included;
  // pFolder (optional) whether the renamed record is a folder's.
  CQiError Rename(const std::string& strOldPath, const std::string& strNewPath,
                  uint64_t* pMoved = nullptr, bool* pFolder = nullptr);

  CQiError Lookup(const std::string& strPath, CScanDbRecord& record);
  CQiError LookupByFileId(const std::string& strFileId, CScanDbRecord& record);
  // The path alone, read from the file-id index without touching the records (cheaper).
  CQiError LookupPathByFileId(const std::string& strFileId, std::string& strPath);

  CQiError ListFolder(const std::string& strFolder, const TRecordCallback& callback);
  CQiError OpenFolderCursor(const std::string& strFolder, CScanDbFolderCursor& cursor);

  CQiError GetRecordCount(uint64_t& ullCount);
  // Checks the whole file for damage (SQLite's quick_check: every page, record and key order);
  // Win32 13 with SQLite's first finding when it is damaged. Reads the whole database.
  CQiError Validate();

  CQiError SetReferenceTime(uint64_t ullReferenceTime);
  CQiError GetReferenceTime(uint64_t& ullReferenceTime);
  // A text value of the meta table under an engine's own key (not "ReferenceTime"); written in
  // the running bulk transaction when there is one, so that it commits with the changes it
  // describes. Win32 1168 when the key is absent.
  CQiError SetMetaText(const std::string& strKey, const std::string& strValue);
  CQiError GetMetaText(const std::string& strKey, std::string& strValue);

  // The page cache of this connection, in MiB (64 by default): more keeps more of a large
  // database in memory for random changes. Memory use is bounded by it, not by the records.
  CQiError SetCacheSize(uint32_t uMiB);

  CQiError BeginBulk();
  CQiError EndBulk(bool bCommit = true);
  bool IsInBulk() const;

 private:
  CQiError CheckOpen() const;
  // Runs body inside a savepoint: released on success, rolled back on failure. Called with
  // the connection's lock held.
  CQiError InSavepoint(const std::function<CQiError()>& body);
  CQiError RunCached(CScanDbConnection::EStatement eStatement);
  CQiError WriteEntry(CScanDbConnection::EStatement eStatement, const CScanDbRecord& record,
                      const char* szAction);

  CScanDbConnectionPtr m_pConnection;
  std::string m_strFolder;
};
