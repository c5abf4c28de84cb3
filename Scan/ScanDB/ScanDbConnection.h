// CScanDbConnection: one open SQLite connection to a scan database file, with the lock that
// serialises its use and its cache of prepared statements.
//
// Opening creates the file and its schema when the file is new or empty, switches it to
// write-ahead logging (WAL, synchronous=NORMAL: a committed transaction survives an unclean stop
// of the process) and checks that an existing file is a scan database of this schema version.
// Every failure is a CQiError built by MakeError from the SQLite result (see its mapping).
//
// Ownership: held through CScanDbConnectionPtr by the store that opened it and by every folder
// cursor made from it, so the connection is closed when the last of them lets it go.
// Threads: any thread, one at a time: callers hold GetMutex() around every use of the handle and
// the statements (the store and the cursors do).
#pragma once

#include <sqlite3.h>

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/QiError.h"
#include "Scan/ScanDB/ScanDbRecord.h"

class CScanDbConnection;
using CScanDbConnectionPtr = std::shared_ptr<CScanDbConnection>;

struct SScanDbStatementFinalizer {
  void operator()(sqlite3_stmt* pStatement) const { sqlite3_finalize(pStatement); }
};
using TScanDbStatementPtr = std::unique_ptr<sqlite3_stmt, SScanDbStatementFinalizer>;

class CScanDbConnection {
 public:
  // Marks the file as a scan database ("SCDB"), and the schema it holds.
  static constexpr int32_t kApplicationId = 0x53434442;
  static constexpr int32_t kSchemaVersion = 1;

  // The statements kept prepared for the life of the connection.
  enum EStatement : uint8_t {
    kInsert,
    kUpsert,
    kSelectByPath,
    kSelectByFileId,
    kDeleteEntry,
    kDeleteSubtree,
    kRenameEntry,
    kRenameSubtree,
    kCount,
    kGetMeta,
    kSetMeta,
    kSavepoint,
    kRelease,
    kRollbackTo,
    kSelectPathByFileId,
    kUpdateState,
    kStatementCount
  };

  ~CScanDbConnection();
  CScanDbConnection(const CScanDbConnection&) = delete;
  CScanDbConnection& operator=(const CScanDbConnection&) = delete;

  // Opens the database file; bCreate makes a missing or empty file a new scan database,
  // otherwise a missing file is Win32 1168.
  static CQiError Open(const std::string& strFile, bool bCreate, CScanDbConnectionPtr& pConnection);

  std::mutex& GetMutex() { return m_mutex; }
  sqlite3* GetHandle() const { return m_pDb; }
  const std::string& GetFile() const { return m_strFile; }

  // The cached statement, prepared on first use and reset (bindings cleared) for the caller.
  CQiError GetStatement(EStatement eStatement, sqlite3_stmt*& pStatement);
  // A statement of the caller's own (folder cursors), finalized when the pointer goes.
  CQiError Prepare(const char* szSql, TScanDbStatementPtr& pStatement);
  // Runs SQL without results (several statements allowed).
  CQiError Exec(const char* szSql);

  // A folder-listing statement for a cursor: taken from a small pool of finished ones when
  // there is one (preparing costs more than listing a small folder), else prepared anew.
  // Give it back with ReleaseListStatement when the listing ends.
  CQiError AcquireListStatement(TScanDbStatementPtr& pStatement);
  void ReleaseListStatement(TScanDbStatementPtr pStatement);

  // Binds parent (?1), name (?2) and the record's file id and stat fields (?3 .. ?17) in the
  // column order of the entry table. The views must outlive the statement's step.
  static int BindEntry(sqlite3_stmt* pStatement, std::string_view parent, std::string_view name,
                       const CScanDbRecord& record);
  // Binds a byte string as a BLOB (an empty one as a zero-length BLOB, never NULL).
  static int BindBytes(sqlite3_stmt* pStatement, int iIndex, std::string_view bytes);
  // Reads a row of the entry columns into the record (the path joined from parent and name).
  static void ReadEntry(sqlite3_stmt* pStatement, CScanDbRecord& record);

  // The transaction state of the bulk mode (read and written under the mutex).
  bool IsInBulk() const { return m_bInBulk; }
  void SetInBulk(bool bInBulk) { m_bInBulk = bInBulk; }

  // Builds the error of a failed SQLite call: the message, then "(SQLite: <text>, code <n>)".
  // Mapping: CORRUPT, NOTADB, FORMAT -> Win32 13; NOMEM -> errno 12; FULL -> errno 28;
  // CONSTRAINT -> errno 17 (EEXIST); BUSY, LOCKED -> errno 16 (EBUSY); CANTOPEN, IOERR, READONLY,
  // PERM -> the errno of the failed system call (EACCES for READONLY when there is none);
  // anything else -> Win32 1627.
  static CQiError MakeError(sqlite3* pDb, int rc, const char* file, const char* function, int line,
                            const char* format, ...) QI_PRINTF_FORMAT(6, 7);

 private:
  CScanDbConnection() = default;
  CQiError Configure(bool bCreate);

  std::mutex m_mutex;
  sqlite3* m_pDb = nullptr;
  std::string m_strFile;
  std::array<sqlite3_stmt*, kStatementCount> m_aStatements{};
  std::vector<TScanDbStatementPtr> m_vListStatements;  // finished listing statements
  bool m_bInBulk = false;
};

// Builds a CQiError from a failed SQLite call with the current place:
//   return SCANDB_ERROR(db, rc, "Cannot add [%s]", path);
#define SCANDB_ERROR(db, rc, ...) \
  CScanDbConnection::MakeError((db), (rc), __FILE__, __PRETTY_FUNCTION__, __LINE__, __VA_ARGS__)
