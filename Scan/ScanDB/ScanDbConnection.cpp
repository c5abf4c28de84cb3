#include "Scan/ScanDB/ScanDbConnection.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"

// Entries are keyed by (parent folder, name), both BLOBs so that any byte survives and order is
// byte order: a folder's listing is one range of the primary key, and a folder's subtree is the
// rows whose parent is the folder or starts with "folder/". The FID index holds Lustre rows
// only (other engines leave the column NULL and pay nothing for it).
static const char* const kSchemaSql =
    "CREATE TABLE IF NOT EXISTS scan_entry("
    " parent BLOB NOT NULL, name BLOB NOT NULL, fid TEXT,"
    " mode INTEGER NOT NULL, uid INTEGER NOT NULL, gid INTEGER NOT NULL,"
    " size INTEGER NOT NULL, blocks INTEGER NOT NULL, nlink INTEGER NOT NULL,"
    " inode INTEGER NOT NULL, dev INTEGER NOT NULL,"
    " atime_s INTEGER NOT NULL, atime_ns INTEGER NOT NULL,"
    " mtime_s INTEGER NOT NULL, mtime_ns INTEGER NOT NULL,"
    " ctime_s INTEGER NOT NULL, ctime_ns INTEGER NOT NULL,"
    " PRIMARY KEY(parent, name)) WITHOUT ROWID;"
    "CREATE INDEX IF NOT EXISTS scan_entry_fid ON scan_entry(fid) WHERE fid IS NOT NULL;"
    "CREATE TABLE IF NOT EXISTS scan_meta(key TEXT PRIMARY KEY NOT NULL, value) WITHOUT ROWID;";

#define SCANDB_COLUMNS                                                                     \
  "parent, name, fid, mode, uid, gid, size, blocks, nlink, inode, dev, atime_s, atime_ns," \
  " mtime_s, mtime_ns, ctime_s, ctime_ns"
#define SCANDB_VALUES "?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14, ?15, ?16, ?17"

static const char* const kListSql =
    "SELECT " SCANDB_COLUMNS " FROM scan_entry WHERE parent = ?1 ORDER BY name";

// Indexed by CScanDbConnection::EStatement.
static const char* const kStatementSql[CScanDbConnection::kStatementCount] = {
    // kInsert
    "INSERT INTO scan_entry(" SCANDB_COLUMNS ") VALUES(" SCANDB_VALUES ")",
    // kUpsert
    "INSERT INTO scan_entry(" SCANDB_COLUMNS ") VALUES(" SCANDB_VALUES
    ")"
    " ON CONFLICT(parent, name) DO UPDATE SET fid = excluded.fid, mode = excluded.mode,"
    " uid = excluded.uid, gid = excluded.gid, size = excluded.size, blocks = excluded.blocks,"
    " nlink = excluded.nlink, inode = excluded.inode, dev = excluded.dev,"
    " atime_s = excluded.atime_s, atime_ns = excluded.atime_ns,"
    " mtime_s = excluded.mtime_s, mtime_ns = excluded.mtime_ns,"
    " ctime_s = excluded.ctime_s, ctime_ns = excluded.ctime_ns",
    // kSelectByPath
    "SELECT " SCANDB_COLUMNS " FROM scan_entry WHERE parent = ?1 AND name = ?2",
    // kSelectByFileId: the first path in byte order when hard links share the FID
    "SELECT " SCANDB_COLUMNS " FROM scan_entry WHERE fid = ?1 ORDER BY parent, name LIMIT 1",
    // kDeleteEntry
    "DELETE FROM scan_entry WHERE parent = ?1 AND name = ?2",
    // kDeleteSubtree: ?1 the folder, [?2, ?3) the parents below it ("folder/" .. "folder0")
    "DELETE FROM scan_entry WHERE parent = ?1 OR (parent >= ?2 AND parent < ?3)",
    // kRenameEntry
    "UPDATE scan_entry SET parent = ?1, name = ?2 WHERE parent = ?3 AND name = ?4 RETURNING mode",
    // kRenameSubtree: ?1 the new folder, ?2 the old folder's length + 1, ?3 .. ?5 as
    // kDeleteSubtree. || gives TEXT; the CAST keeps the parent a BLOB (same bytes), so that it
    // still compares in byte order with the other keys.
    "UPDATE scan_entry SET parent = CAST(?1 || substr(parent, ?2) AS BLOB)"
    " WHERE parent = ?3 OR (parent >= ?4 AND parent < ?5)",
    // kCount
    "SELECT count(*) FROM scan_entry",
    // kGetMeta
    "SELECT value FROM scan_meta WHERE key = ?1",
    // kSetMeta
    "INSERT INTO scan_meta(key, value) VALUES(?1, ?2)"
    " ON CONFLICT(key) DO UPDATE SET value = excluded.value",
    // kSavepoint, kRelease, kRollbackTo
    "SAVEPOINT scan_db_op",
    "RELEASE scan_db_op",
    "ROLLBACK TO scan_db_op",
    // kSelectPathByFileId: answered from the FID index alone (it holds the key columns)
    "SELECT parent, name FROM scan_entry WHERE fid = ?1 ORDER BY parent, name LIMIT 1",
    // kUpdateState: the lstat data of a record that keeps its file id; the FID index (which
    // holds only key columns and fid) is not touched
    "UPDATE scan_entry SET mode = ?4, uid = ?5, gid = ?6, size = ?7, blocks = ?8, nlink = ?9,"
    " inode = ?10, dev = ?11, atime_s = ?12, atime_ns = ?13, mtime_s = ?14, mtime_ns = ?15,"
    " ctime_s = ?16, ctime_ns = ?17 WHERE parent = ?1 AND name = ?2 AND fid IS ?3",
};

// Listing statements kept for reuse; more cursors than this at once prepare their own.
static constexpr size_t kListStatementPoolSize = 16;

CScanDbConnection::~CScanDbConnection() {
  m_vListStatements.clear();
  for (sqlite3_stmt*& pStatement : m_aStatements) {
    sqlite3_finalize(pStatement);
    pStatement = nullptr;
  }
  if (m_pDb != nullptr) {
    // A clean close checkpoints the log into the database file and removes it.
    int rc = sqlite3_close(m_pDb);
    if (rc != SQLITE_OK) {
      ZRLOG(-1, "Closing the scan database %s failed: %s",
            FXString::EscapeControl(m_strFile).c_str(), sqlite3_errstr(rc));
      sqlite3_close_v2(m_pDb);
    }
    m_pDb = nullptr;
  }
}

CQiError CScanDbConnection::Open(const std::string& strFile, bool bCreate,
                                 CScanDbConnectionPtr& pConnection) {
  pConnection.reset();
  if (!bCreate) {
    struct stat st;
    if (stat(strFile.c_str(), &st) != 0) {
      if (errno == ENOENT)
        return QI_ERROR_WIN32(QiErrorCode::NotFound, "There is no scan database %s",
                              FXString::EscapeControl(strFile).c_str());
      return QI_ERROR_ERRNO(errno, "Cannot reach the scan database %s",
                            FXString::EscapeControl(strFile).c_str());
    }
  }
  CScanDbConnectionPtr pNew;
  try {
    pNew.reset(new CScanDbConnection());
  } catch (const std::bad_alloc&) {
    return QI_ERROR_ERRNO(ENOMEM, "Out of memory opening the scan database");
  }
  pNew->m_strFile = strFile;
  const int flags = SQLITE_OPEN_READWRITE | (bCreate ? SQLITE_OPEN_CREATE : 0) |
                    SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_PRIVATECACHE;
  int rc = sqlite3_open_v2(strFile.c_str(), &pNew->m_pDb, flags, nullptr);
  if (rc != SQLITE_OK)
    return SCANDB_ERROR(pNew->m_pDb, rc, "Cannot open the scan database %s",
                        FXString::EscapeControl(strFile).c_str());
  QI_RETURN_IF_ERROR(pNew->Configure(bCreate));
  pConnection = std::move(pNew);
  return CQiError();
}

CQiError CScanDbConnection::Configure(bool bCreate) {
  const std::string strShown = FXString::EscapeControl(m_strFile);
  sqlite3_extended_result_codes(m_pDb, 1);
  sqlite3_busy_timeout(m_pDb, 10000);
  // SQLite quietly opens a file it may not write read-only; a store must be able to write.
  if (sqlite3_db_readonly(m_pDb, "main") == 1)
    return QI_ERROR_ERRNO(EACCES, "The scan database %s cannot be written", strShown.c_str());

  // The first read of the file: a file that is not a database fails here.
  int64_t llObjects = 0, llApplicationId = 0, llVersion = 0;
  {
    TScanDbStatementPtr pProbe;
    QI_RETURN_IF_ERROR(Prepare("SELECT (SELECT count(*) FROM sqlite_schema),"
                               " (SELECT application_id FROM pragma_application_id),"
                               " (SELECT user_version FROM pragma_user_version)",
                               pProbe),
                       "Cannot read the scan database %s", strShown.c_str());
    int rc = sqlite3_step(pProbe.get());
    if (rc != SQLITE_ROW)
      return SCANDB_ERROR(m_pDb, rc, "Cannot read the scan database %s", strShown.c_str());
    llObjects = sqlite3_column_int64(pProbe.get(), 0);
    llApplicationId = sqlite3_column_int64(pProbe.get(), 1);
    llVersion = sqlite3_column_int64(pProbe.get(), 2);
  }

  const bool bNew = llObjects == 0 && llApplicationId == 0 && llVersion == 0;
  if (bNew && !bCreate)
    return QI_ERROR_WIN32(QiErrorCode::InvalidData,
                          "The file %s is an empty database, not a scan database",
                          strShown.c_str());
  if (!bNew && llApplicationId != kApplicationId)
    return QI_ERROR_WIN32(QiErrorCode::InvalidData,
                          "The file %s is a database, but not a scan database", strShown.c_str());
  if (!bNew && llVersion != kSchemaVersion)
    return QI_ERROR_WIN32(QiErrorCode::InvalidData,
                          "The scan database %s has schema version %lld; this library reads %d",
                          strShown.c_str(), static_cast<long long>(llVersion), kSchemaVersion);

  // Larger pages keep the tree shallow for long path keys; only a new file takes the setting.
  if (bNew) QI_RETURN_IF_ERROR(Exec("PRAGMA page_size = 8192"));
  {
    TScanDbStatementPtr pMode;
    QI_RETURN_IF_ERROR(Prepare("PRAGMA journal_mode = WAL", pMode));
    int rc = sqlite3_step(pMode.get());
    if (rc != SQLITE_ROW)
      return SCANDB_ERROR(m_pDb, rc, "Cannot switch the scan database %s to write-ahead logging",
                          strShown.c_str());
    const unsigned char* szMode = sqlite3_column_text(pMode.get(), 0);
    if (szMode == nullptr || strcmp(reinterpret_cast<const char*>(szMode), "wal") != 0)
      return QI_ERROR_ERRNO(EACCES,
                            "The scan database %s cannot use write-ahead logging (journal mode %s)",
                            strShown.c_str(), szMode ? reinterpret_cast<const char*>(szMode) : "?");
  }
  QI_RETURN_IF_ERROR(
      Exec("PRAGMA synchronous = NORMAL; PRAGMA temp_store = MEMORY;"
           " PRAGMA cache_size = -65536;"));
  if (bNew) {
    // Several openers of one new file: the first creates, the others find it made.
    QI_RETURN_IF_ERROR(Exec("BEGIN IMMEDIATE"), "Cannot create the scan database %s",
                       strShown.c_str());
    CQiError err = Exec(kSchemaSql);
    if (err.IsSuccess())
      err = Exec(("PRAGMA application_id = " + std::to_string(kApplicationId) +
                  "; PRAGMA user_version = " + std::to_string(kSchemaVersion))
                     .c_str());
    if (err.IsSuccess()) err = Exec("COMMIT");
    if (err.IsError()) {
      sqlite3_exec(m_pDb, "ROLLBACK", nullptr, nullptr, nullptr);
      return QI_PUSH(err, "Cannot create the scan database %s", strShown.c_str());
    }
  }
  return CQiError();
}

CQiError CScanDbConnection::GetStatement(EStatement eStatement, sqlite3_stmt*& pStatement) {
  sqlite3_stmt*& pCached = m_aStatements[eStatement];
  if (pCached == nullptr) {
    int rc = sqlite3_prepare_v3(m_pDb, kStatementSql[eStatement], -1, SQLITE_PREPARE_PERSISTENT,
                                &pCached, nullptr);
    if (rc != SQLITE_OK) {
      sqlite3_finalize(pCached);
      pCached = nullptr;
      return SCANDB_ERROR(m_pDb, rc, "Cannot prepare a statement of the scan database %s",
                          FXString::EscapeControl(m_strFile).c_str());
    }
  } else {
    sqlite3_reset(pCached);
    sqlite3_clear_bindings(pCached);
  }
  pStatement = pCached;
  return CQiError();
}

CQiError CScanDbConnection::Prepare(const char* szSql, TScanDbStatementPtr& pStatement) {
  sqlite3_stmt* pRaw = nullptr;
  int rc = sqlite3_prepare_v2(m_pDb, szSql, -1, &pRaw, nullptr);
  pStatement.reset(pRaw);
  if (rc != SQLITE_OK)
    return SCANDB_ERROR(m_pDb, rc, "Cannot prepare a statement of the scan database %s",
                        FXString::EscapeControl(m_strFile).c_str());
  return CQiError();
}

CQiError CScanDbConnection::Exec(const char* szSql) {
  char* szMessage = nullptr;
  int rc = sqlite3_exec(m_pDb, szSql, nullptr, nullptr, &szMessage);
  sqlite3_free(szMessage);  // sqlite3_errmsg keeps the same text for MakeError
  if (rc != SQLITE_OK)
    return SCANDB_ERROR(m_pDb, rc, "Statement failed on the scan database %s",
                        FXString::EscapeControl(m_strFile).c_str());
  return CQiError();
}

CQiError CScanDbConnection::AcquireListStatement(TScanDbStatementPtr& pStatement) {
  if (!m_vListStatements.empty()) {
    pStatement = std::move(m_vListStatements.back());
    m_vListStatements.pop_back();
    return CQiError();
  }
  return Prepare(kListSql, pStatement);
}

void CScanDbConnection::ReleaseListStatement(TScanDbStatementPtr pStatement) {
  if (!pStatement) return;
  sqlite3_reset(pStatement.get());
  sqlite3_clear_bindings(pStatement.get());
  if (m_vListStatements.size() < kListStatementPoolSize) {
    try {
      m_vListStatements.push_back(std::move(pStatement));
    } catch (const std::bad_alloc&) {
      // The statement is simply finalized.
    }
  }
}

int CScanDbConnection::BindBytes(sqlite3_stmt* pStatement, int iIndex, std::string_view bytes) {
  if (bytes.empty()) return sqlite3_bind_zeroblob(pStatement, iIndex, 0);
  return sqlite3_bind_blob64(pStatement, iIndex, bytes.data(), bytes.size(), SQLITE_STATIC);
}

int CScanDbConnection::BindEntry(sqlite3_stmt* pStatement, std::string_view parent,
                                 std::string_view name, const CScanDbRecord& record) {
  const struct stat& st = record.GetStat();
  int rc = BindBytes(pStatement, 1, parent);
  if (rc == SQLITE_OK) rc = BindBytes(pStatement, 2, name);
  if (rc == SQLITE_OK) {
    const std::string& strFileId = record.GetFileId();
    rc = strFileId.empty() ? sqlite3_bind_null(pStatement, 3)
                           : sqlite3_bind_text64(pStatement, 3, strFileId.data(), strFileId.size(),
                                                 SQLITE_STATIC, SQLITE_UTF8);
  }
  // Unsigned 64-bit values (inode, device) are stored as their bit pattern in a signed integer.
  const int64_t aValues[] = {
      static_cast<int64_t>(st.st_mode),        static_cast<int64_t>(st.st_uid),
      static_cast<int64_t>(st.st_gid),         static_cast<int64_t>(st.st_size),
      static_cast<int64_t>(st.st_blocks),      static_cast<int64_t>(st.st_nlink),
      static_cast<int64_t>(st.st_ino),         static_cast<int64_t>(st.st_dev),
      static_cast<int64_t>(st.st_atim.tv_sec), static_cast<int64_t>(st.st_atim.tv_nsec),
      static_cast<int64_t>(st.st_mtim.tv_sec), static_cast<int64_t>(st.st_mtim.tv_nsec),
      static_cast<int64_t>(st.st_ctim.tv_sec), static_cast<int64_t>(st.st_ctim.tv_nsec),
  };
  for (int i = 0; rc == SQLITE_OK && i < static_cast<int>(std::size(aValues)); ++i)
    rc = sqlite3_bind_int64(pStatement, 4 + i, aValues[i]);
  return rc;
}

void CScanDbConnection::ReadEntry(sqlite3_stmt* pStatement, CScanDbRecord& record) {
  const char* pParent = static_cast<const char*>(sqlite3_column_blob(pStatement, 0));
  const size_t uParent = static_cast<size_t>(sqlite3_column_bytes(pStatement, 0));
  const char* pName = static_cast<const char*>(sqlite3_column_blob(pStatement, 1));
  const size_t uName = static_cast<size_t>(sqlite3_column_bytes(pStatement, 1));
  std::string& strPath = record.GetPath();
  strPath.assign(pParent != nullptr ? pParent : "", uParent);
  // "/" is its own parent's child without a delimiter; the root row has an empty parent.
  if (uParent != 0 && !(uParent == 1 && pParent[0] == '/')) strPath.push_back('/');
  strPath.append(pName != nullptr ? pName : "", uName);

  const unsigned char* szFileId = sqlite3_column_text(pStatement, 2);
  if (szFileId != nullptr)
    record.GetFileId().assign(reinterpret_cast<const char*>(szFileId),
                              static_cast<size_t>(sqlite3_column_bytes(pStatement, 2)));
  else
    record.GetFileId().clear();

  struct stat& st = record.GetStat();
  memset(&st, 0, sizeof(st));
  st.st_mode = static_cast<mode_t>(sqlite3_column_int64(pStatement, 3));
  st.st_uid = static_cast<uid_t>(sqlite3_column_int64(pStatement, 4));
  st.st_gid = static_cast<gid_t>(sqlite3_column_int64(pStatement, 5));
  st.st_size = static_cast<off_t>(sqlite3_column_int64(pStatement, 6));
  st.st_blocks = static_cast<blkcnt_t>(sqlite3_column_int64(pStatement, 7));
  st.st_nlink = static_cast<nlink_t>(sqlite3_column_int64(pStatement, 8));
  st.st_ino = static_cast<ino_t>(sqlite3_column_int64(pStatement, 9));
  st.st_dev = static_cast<dev_t>(sqlite3_column_int64(pStatement, 10));
  st.st_atim.tv_sec = static_cast<time_t>(sqlite3_column_int64(pStatement, 11));
  st.st_atim.tv_nsec = static_cast<long>(sqlite3_column_int64(pStatement, 12));
  st.st_mtim.tv_sec = static_cast<time_t>(sqlite3_column_int64(pStatement, 13));
  st.st_mtim.tv_nsec = static_cast<long>(sqlite3_column_int64(pStatement, 14));
  st.st_ctim.tv_sec = static_cast<time_t>(sqlite3_column_int64(pStatement, 15));
  st.st_ctim.tv_nsec = static_cast<long>(sqlite3_column_int64(pStatement, 16));
}

CQiError CScanDbConnection::MakeError(sqlite3* pDb, int rc, const char* file, const char* function,
                                      int line, const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string strText = FXString::FormatV(format, args);
  va_end(args);
  const char* szSqlite = pDb != nullptr ? sqlite3_errmsg(pDb) : sqlite3_errstr(rc);
  const int iSystemErrno = pDb != nullptr ? sqlite3_system_errno(pDb) : 0;
  strText += FXString::Format(" (SQLite: %s, code %d)", szSqlite, rc);

  CQiError err;
  switch (rc & 0xff) {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_FORMAT:
      err = FXErrorUtil::ErrorWin32(QiErrorCode::InvalidData, file, function, line, "%s",
                                    strText.c_str());
      break;
    case SQLITE_NOMEM:
      err = FXErrorUtil::ErrorErrNo(ENOMEM, file, function, line, "%s", strText.c_str());
      break;
    case SQLITE_FULL:
      err = FXErrorUtil::ErrorErrNo(ENOSPC, file, function, line, "%s", strText.c_str());
      break;
    case SQLITE_CONSTRAINT:
      err = FXErrorUtil::ErrorErrNo(EEXIST, file, function, line, "%s", strText.c_str());
      break;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      err = FXErrorUtil::ErrorErrNo(EBUSY, file, function, line, "%s", strText.c_str());
      break;
    case SQLITE_CANTOPEN:
    case SQLITE_IOERR:
    case SQLITE_READONLY:
    case SQLITE_PERM:
      if (iSystemErrno != 0)
        err = FXErrorUtil::ErrorErrNo(iSystemErrno, file, function, line, "%s", strText.c_str());
      else if ((rc & 0xff) == SQLITE_READONLY)
        err = FXErrorUtil::ErrorErrNo(EACCES, file, function, line, "%s", strText.c_str());
      else
        err = FXErrorUtil::ErrorWin32(QiErrorCode::FunctionFailed, file, function, line, "%s",
                                      strText.c_str());
      break;
    default:
      err = FXErrorUtil::ErrorWin32(QiErrorCode::FunctionFailed, file, function, line, "%s",
                                    strText.c_str());
      break;
  }
  return err;
}
