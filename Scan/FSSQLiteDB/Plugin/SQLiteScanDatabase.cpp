#include "Scan/FSSQLiteDB/Plugin/SQLiteScanDatabase.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <climits>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "Platform/ErrorCodes.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Scan/FSSQLiteDB/Plugin/SQLiteOperationScope.h"
#include "Scan/FSSQLiteDB/Plugin/ScanDatabasePath.h"
#include "Scan/FSSQLiteDB/Plugin/ScanDatabaseSchema.h"

namespace {
using namespace ScanDatabaseSchema;

// Folder ids cached while adding; the cache is dropped when it grows past this.
constexpr size_t kMaxCachedFolders = 100000;
// SQLite page cache (KiB, as a negative cache_size) outside and inside bulk-insert mode.
constexpr int kCacheKiB = 16 * 1024;
constexpr int kBulkCacheKiB = 256 * 1024;
constexpr int kBusyTimeoutMs = 10000;
// Pages of 16 KiB: a bulk insert and its checkpoint run about a fifth faster than with 4 KiB
// pages (fewer page splits, fewer writes).
constexpr int kPageSize = 16384;

std::string Quote(std::string_view path) { return FXString::EscapeControl(path); }

// The text FormMetadata gives for these values. A record whose metadata is exactly this text is
// stored with NULL metadata and gets the text back when read: a third of the row, written twice
// in WAL mode, saved. Any other text (formed from other values, written by the caller, empty) is
// stored as it is, so a difference from the XML layer's output costs space, never correctness.
// (std::to_chars rather than snprintf: this runs for every row stored and read.)
constexpr size_t kCanonicalMetadataSize = 192;
std::string_view CanonicalMetadata(const FSDB::CDatabaseItem& item, char* pszBuffer,
                                   size_t uSize) {
  char* p = pszBuffer;
  char* const pEnd = pszBuffer + uSize;
  auto text = [&p](std::string_view part) {
    std::memcpy(p, part.data(), part.size());
    p += part.size();
  };
  auto number = [&p, pEnd](long long llValue) { p = std::to_chars(p, pEnd, llValue).ptr; };
  // At most 107 fixed bytes and four numbers of at most 20 characters: always fits.
  static_assert(kCanonicalMetadataSize >= 107 + 4 * 20);
  text("<Metadata><Filesystem Attributes=\"");
  number(item.GetAttributes());
  text("\" Links=\"");
  number(item.GetLinks());
  text("\" FileSizeOnDisk=\"");
  number(item.GetFileSizeOnDisk());
  text("\" CreationTime=\"");
  number(item.GetCreationTime());
  text("\"/></Metadata>");
  return std::string_view(pszBuffer, static_cast<size_t>(p - pszBuffer));
}

// Binds the parameters of kInsert, kReplace and kMoveRecordWithFields (?1 to ?16).
void BindRecord(CSQLiteStatement& stmt, int64_t llParentId, std::string_view name,
                std::string_view path, bool bFolder, const FSDB::CDatabaseItem& item) {
  stmt.BindInt64(1, llParentId);
  stmt.BindBlob(2, name);
  stmt.BindBlob(3, path);
  stmt.BindInt64(4, bFolder ? 1 : 0);
  stmt.BindInt64(5, item.GetFileId());
  stmt.BindInt64(6, item.GetAttributes());
  stmt.BindInt64(7, item.GetLinks());
  stmt.BindInt64(8, item.GetFileSize());
  stmt.BindInt64(9, item.GetFileSizeOnDisk());
  stmt.BindInt64(10, item.GetAccessTime());
  stmt.BindInt64(11, item.GetCreationTime());
  stmt.BindInt64(12, item.GetModificationTime());
  stmt.BindInt64(13, item.GetChangeTime());
  stmt.BindInt64(14, item.IsSelected() ? 1 : 0);
  stmt.BindInt64(15, item.IsCollect() ? 1 : 0);
  const std::string& strMetadata = item.GetMetadata();
  char szCanonical[kCanonicalMetadataSize];
  if (!strMetadata.empty() &&
      strMetadata == CanonicalMetadata(item, szCanonical, sizeof szCanonical)) {
    stmt.BindNull(16);
  } else {
    stmt.BindBlob(16, strMetadata);
  }
}

// A record from a row of the item columns (kSelectByPath, kListChildren).
FSDB::CDatabaseItemPtr ReadRecord(const CSQLiteStatement& stmt) {
  auto pItem = std::make_shared<FSDB::CDatabaseItem>();
  pItem->SetId(stmt.ColumnInt64(0));
  pItem->SetFileName(stmt.ColumnBlob(1));
  pItem->SetFullyQualifiedPath(stmt.ColumnBlob(2));
  pItem->SetAsDirectory(stmt.ColumnInt64(3) != 0);
  pItem->SetFileId(stmt.ColumnInt64(4));
  pItem->SetAttributes(static_cast<int32_t>(stmt.ColumnInt64(5)));
  pItem->SetLinks(static_cast<int32_t>(stmt.ColumnInt64(6)));
  pItem->SetFileSize(stmt.ColumnInt64(7));
  pItem->SetFileSizeOnDisk(stmt.ColumnInt64(8));
  pItem->SetAccessTime(stmt.ColumnInt64(9));
  pItem->SetCreationTime(stmt.ColumnInt64(10));
  pItem->SetModificationTime(stmt.ColumnInt64(11));
  pItem->SetChangeTime(stmt.ColumnInt64(12));
  pItem->SetAsSelected(stmt.ColumnInt64(13) != 0);
  pItem->SetAsCollect(stmt.ColumnInt64(14) != 0);
  if (stmt.ColumnIsNull(15)) {
    char szCanonical[kCanonicalMetadataSize];
    pItem->SetMetadata(std::string(CanonicalMetadata(*pItem, szCanonical, sizeof szCanonical)));
  } else {
    pItem->SetMetadata(stmt.ColumnBlob(15));
  }
  return pItem;
}

}  // namespace

CSQLiteScanDatabase::CSQLiteScanDatabase(const std::string& strDatabasePath,
                                         FSDB::DatabaseType eType, bool bReadOnly)
    : m_strDatabasePath(strDatabasePath), m_eDatabaseType(eType), m_bReadOnly(bReadOnly) {}

CSQLiteScanDatabase::~CSQLiteScanDatabase() {
  CQiError error = Close();
  if (error.IsError()) {
    ZRLOG(CLogWriterInterface::kLevelAlways, "Unable to close the scan database [%s] due to %s",
          Quote(m_strDatabasePath).c_str(), error.AsString().c_str());
  }
}

CQiError CSQLiteScanDatabase::CheckOpen() const {
  if (m_pDb == nullptr) {
    return QI_ERROR_WIN32(QiErrorCode::InvalidHandle, "Scan database [%s] is not open",
                          Quote(m_strDatabasePath).c_str());
  }
  return CQiError();
}

CQiError CSQLiteScanDatabase::CheckWritable() const {
  QI_RETURN_IF_ERROR(CheckOpen());
  if (m_bReadOnly) {
    return QI_ERROR_ERRNO(EROFS, "Scan database [%s] is open read-only",
                          Quote(m_strDatabasePath).c_str());
  }
  return CQiError();
}

CQiError CSQLiteScanDatabase::SqlError(int iResult, const char* pszWhat) const {
  const char* pszText = m_pDb != nullptr ? sqlite3_errmsg(m_pDb) : sqlite3_errstr(iResult);
  const int iSystemErrno = m_pDb != nullptr ? sqlite3_system_errno(m_pDb) : 0;
  const std::string strPath = Quote(m_strDatabasePath);
  const char* pszFormat = "%s failed for scan database [%s]: %s (SQLite result %d)";
  switch (iResult & 0xff) {
    case SQLITE_NOTADB:
    case SQLITE_CORRUPT:
    case SQLITE_FORMAT:
      return QI_ERROR_WIN32(QiErrorCode::InvalidData, pszFormat, pszWhat, strPath.c_str(), pszText,
                            iResult);
    case SQLITE_NOMEM:
      return QI_ERROR_WIN32(QiErrorCode::OutOfMemory, pszFormat, pszWhat, strPath.c_str(), pszText,
                            iResult);
    case SQLITE_CONSTRAINT:
      return QI_ERROR_ERRNO(EEXIST, pszFormat, pszWhat, strPath.c_str(), pszText, iResult);
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return QI_ERROR_ERRNO(EBUSY, pszFormat, pszWhat, strPath.c_str(), pszText, iResult);
    case SQLITE_READONLY:
      return QI_ERROR_ERRNO(iSystemErrno != 0 ? iSystemErrno : EROFS, pszFormat, pszWhat,
                            strPath.c_str(), pszText, iResult);
    case SQLITE_CANTOPEN:
    case SQLITE_PERM:
      return QI_ERROR_ERRNO(iSystemErrno != 0 ? iSystemErrno : EACCES, pszFormat, pszWhat,
                            strPath.c_str(), pszText, iResult);
    case SQLITE_FULL:
      return QI_ERROR_ERRNO(iSystemErrno != 0 ? iSystemErrno : ENOSPC, pszFormat, pszWhat,
                            strPath.c_str(), pszText, iResult);
    case SQLITE_IOERR:
      return QI_ERROR_ERRNO(iSystemErrno != 0 ? iSystemErrno : EIO, pszFormat, pszWhat,
                            strPath.c_str(), pszText, iResult);
    default:
      return QI_ERROR_WIN32(QiErrorCode::FunctionFailed, pszFormat, pszWhat, strPath.c_str(),
                            pszText, iResult);
  }
}

CSQLiteOperationScope::SSavepoint CSQLiteScanDatabase::Savepoint() {
  return {&m_stmtSavepoint, &m_stmtRelease, &m_stmtRollbackTo};
}

CQiError CSQLiteScanDatabase::Begin(CSQLiteOperationScope& scope) {
  const int iResult = scope.Begin();
  if (iResult != SQLITE_OK) return SqlError(iResult, "Starting a transaction");
  return CQiError();
}

CQiError CSQLiteScanDatabase::Commit(CSQLiteOperationScope& scope) {
  const int iResult = scope.Commit();
  if (iResult != SQLITE_OK) return SqlError(iResult, "Committing a transaction");
  return CQiError();
}

CQiError CSQLiteScanDatabase::Execute(const char* pszSql, const char* pszWhat) {
  const int iResult = sqlite3_exec(m_pDb, pszSql, nullptr, nullptr, nullptr);
  if (iResult != SQLITE_OK) return SqlError(iResult, pszWhat);
  return CQiError();
}

void CSQLiteScanDatabase::ForgetFolders() {
  m_mapFolderIds.clear();
  m_bLastParentValid = false;
}

CQiError CSQLiteScanDatabase::AfterFailure(CQiError error) {
  ForgetFolders();
  // SQLite ends the whole transaction on some failures (disk full, I/O errors); the bulk-insert
  // transaction is then gone with everything since it began.
  if (m_bBulkInsert && m_pDb != nullptr && sqlite3_get_autocommit(m_pDb) != 0) {
    m_bBulkInsert = false;
    error.AppendText("; the bulk-insert transaction was rolled back, its records are not stored");
  }
  return error;
}

// ------------------------------------------------------------------------------------------
// Opening and closing

CQiError CSQLiteScanDatabase::Open(bool bCreateNew) {
  if (m_pDb != nullptr) {
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Scan database [%s] is already open",
                          Quote(m_strDatabasePath).c_str());
  }
  std::string_view folderKey;
  QI_RETURN_IF_ERROR(CScanDatabasePath::Normalize(m_strDatabasePath, folderKey, "scan database"));
  const std::string strFolder(folderKey);
  if (bCreateNew && m_bReadOnly) {
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                          "Cannot create scan database [%s]: it is to be opened read-only",
                          Quote(m_strDatabasePath).c_str());
  }
  m_strFilePath = strFolder + "/" + kDatabaseFileName;
  // "-journal", the longest suffix SQLite adds, must fit too.
  if (m_strFilePath.size() + 8 >= PATH_MAX) {
    return QI_ERROR_ERRNO(ENAMETOOLONG, "Scan database folder [%s] is longer than PATH_MAX",
                          Quote(m_strDatabasePath).c_str());
  }

  if (bCreateNew) {
    std::error_code ec;
    std::filesystem::create_directories(strFolder, ec);
    if (ec) {
      return QI_ERROR_ERRNO(ec.value(), "Unable to create the scan database folder [%s]",
                            Quote(strFolder).c_str());
    }
    // A new database replaces the one that was there, with its journal files.
    for (const char* pszSuffix : {"", "-wal", "-shm", "-journal"}) {
      const std::string strFile = m_strFilePath + pszSuffix;
      if (unlink(strFile.c_str()) != 0 && errno != ENOENT) {
        const int iError = errno;
        return QI_ERROR_ERRNO(iError, "Cannot remove the earlier scan database file [%s]",
                              Quote(strFile).c_str());
      }
    }
  } else {
    struct stat st {};
    if (stat(m_strFilePath.c_str(), &st) != 0) {
      const int iError = errno;
      if (iError == ENOENT) {
        return QI_ERROR_ERRNO(ENOENT, "Scan database [%s] does not exist",
                              Quote(m_strDatabasePath).c_str());
      }
      return QI_ERROR_ERRNO(iError, "Cannot access scan database file [%s]",
                            Quote(m_strFilePath).c_str());
    }
    if (!S_ISREG(st.st_mode)) {
      return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Scan database file [%s] is not a file",
                            Quote(m_strFilePath).c_str());
    }
  }

  CQiError error = OpenConnection(bCreateNew);
  if (error.IsError()) {
    CloseConnection();
    return QI_PUSH(error);
  }
  return CQiError();
}

CQiError CSQLiteScanDatabase::OpenConnection(bool bCreateNew) {
  int iFlags = SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
  iFlags |= m_bReadOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE;
  if (bCreateNew) iFlags |= SQLITE_OPEN_CREATE;
  const int iResult = sqlite3_open_v2(m_strFilePath.c_str(), &m_pDb, iFlags, nullptr);
  if (iResult != SQLITE_OK) return SqlError(iResult, "Opening the database file");
  sqlite3_busy_timeout(m_pDb, kBusyTimeoutMs);
  // SQLite falls back to reading when the file cannot be written; say so now, not at the first
  // change.
  if (!m_bReadOnly && sqlite3_db_readonly(m_pDb, "main") == 1) {
    return QI_ERROR_ERRNO(EACCES, "Scan database file [%s] cannot be written",
                          Quote(m_strFilePath).c_str());
  }
  // An existing file is checked before anything is written to it. The first read also finds a
  // file that is not a database at all.
  if (!bCreateNew) QI_RETURN_IF_ERROR(CheckSchema());
  // The page size of a new file is set before its first write (WAL mode fixes it).
  if (bCreateNew) {
    const std::string strPageSize = FXString::Format("PRAGMA page_size=%d", kPageSize);
    QI_RETURN_IF_ERROR(Execute(strPageSize.c_str(), "Setting the page size"));
  }

  if (!m_bReadOnly) {
    sqlite3_stmt* pStatement = nullptr;
    int iStep = sqlite3_prepare_v2(m_pDb, "PRAGMA journal_mode=WAL", -1, &pStatement, nullptr);
    std::string strMode;
    if (iStep == SQLITE_OK) {
      iStep = sqlite3_step(pStatement);
      if (iStep == SQLITE_ROW) {
        const unsigned char* pszMode = sqlite3_column_text(pStatement, 0);
        if (pszMode != nullptr) strMode = reinterpret_cast<const char*>(pszMode);
        iStep = SQLITE_OK;
      }
    }
    sqlite3_finalize(pStatement);
    if (iStep != SQLITE_OK) return SqlError(iStep, "Switching to WAL mode");
    if (strMode != "wal") {
      return QI_ERROR_WIN32(QiErrorCode::FunctionFailed,
                            "Scan database [%s] cannot use WAL mode (journal mode [%s])",
                            Quote(m_strDatabasePath).c_str(), strMode.c_str());
    }
    QI_RETURN_IF_ERROR(Execute(m_eDatabaseType == FSDB::DatabaseTypeTemporary
                                   ? "PRAGMA synchronous=OFF"
                                   : "PRAGMA synchronous=NORMAL",
                               "Setting the synchronous mode"));
  }
  const std::string strPragmas =
      FXString::Format("PRAGMA temp_store=MEMORY; PRAGMA cache_size=-%d", kCacheKiB);
  QI_RETURN_IF_ERROR(Execute(strPragmas.c_str(), "Setting the cache"));
  if (bCreateNew) QI_RETURN_IF_ERROR(CreateSchema());
  QI_RETURN_IF_ERROR(PrepareStatements());
  return CQiError();
}

CQiError CSQLiteScanDatabase::CreateSchema() {
  const std::string strSql = FXString::Format(
      "BEGIN IMMEDIATE; PRAGMA application_id=%d; PRAGMA user_version=%d; %s COMMIT;",
      kApplicationId, kSchemaVersion, kCreateSchema);
  CQiError error = Execute(strSql.c_str(), "Creating the schema");
  if (error.IsError()) {
    sqlite3_exec(m_pDb, "ROLLBACK", nullptr, nullptr, nullptr);
    return QI_PUSH(error);
  }
  return CQiError();
}

CQiError CSQLiteScanDatabase::CheckSchema() {
  int64_t llValues[2] = {0, 0};
  const char* pszPragmas[2] = {"PRAGMA application_id", "PRAGMA user_version"};
  for (int i = 0; i < 2; ++i) {
    CSQLiteStatement statement;
    int iResult = statement.Prepare(m_pDb, pszPragmas[i]);
    if (iResult == SQLITE_OK) {
      iResult = statement.Step();
      if (iResult == SQLITE_ROW) {
        llValues[i] = statement.ColumnInt64(0);
        iResult = SQLITE_OK;
      }
    }
    if (iResult != SQLITE_OK) return SqlError(iResult, "Reading the schema version");
  }
  if (llValues[0] != kApplicationId || llValues[1] != kSchemaVersion) {
    return QI_ERROR_WIN32(QiErrorCode::InvalidData,
                          "[%s] is not a scan database of this version (application id %lld, "
                          "version %lld; expected %d, %d)",
                          Quote(m_strFilePath).c_str(), static_cast<long long>(llValues[0]),
                          static_cast<long long>(llValues[1]), kApplicationId, kSchemaVersion);
  }
  return CQiError();
}

CQiError CSQLiteScanDatabase::PrepareStatements() {
  struct SStatement {
    CSQLiteStatement* pStatement;
    const char* pszSql;
    bool bWrites;
  };
  const SStatement statements[] = {
      {&m_stmtFindByPath, kFindByPath, false},     {&m_stmtFindById, kFindById, false},
      {&m_stmtSelectByPath, kSelectByPath, false}, {&m_stmtListChildren, kListChildren, false},
      {&m_stmtInsert, kInsert, true},              {&m_stmtReplace, kReplace, true},
      {&m_stmtLinkChildren, kLinkChildren, true},
      {&m_stmtDeleteById, kDeleteById, true},      {&m_stmtDeleteRange, kDeleteRange, true},
      {&m_stmtMoveRecord, kMoveRecord, true},      {&m_stmtMoveRange, kMoveRange, true},
      {&m_stmtMoveRecordWithFields, kMoveRecordWithFields, true},
      {&m_stmtSavepoint, "SAVEPOINT scan_operation", true},
      {&m_stmtRelease, "RELEASE scan_operation", true},
      {&m_stmtRollbackTo, "ROLLBACK TO scan_operation", true},
  };
  for (const SStatement& statement : statements) {
    if (statement.bWrites && m_bReadOnly) continue;
    const int iResult = statement.pStatement->Prepare(m_pDb, statement.pszSql);
    if (iResult != SQLITE_OK) {
      CQiError error = SqlError(iResult, "Preparing a statement");
      return QI_PUSH(error, "Statement=[%s]", statement.pszSql);
    }
  }
  return CQiError();
}

void CSQLiteScanDatabase::CloseConnection() {
  for (CSQLiteStatement* pStatement :
       {&m_stmtInsert, &m_stmtReplace, &m_stmtFindByPath, &m_stmtFindById, &m_stmtSelectByPath,
        &m_stmtListChildren, &m_stmtLinkChildren, &m_stmtDeleteById, &m_stmtDeleteRange,
        &m_stmtMoveRecord, &m_stmtMoveRecordWithFields, &m_stmtMoveRange, &m_stmtSavepoint,
        &m_stmtRelease, &m_stmtRollbackTo}) {
    pStatement->Finalize();
  }
  if (m_pDb != nullptr) {
    sqlite3_close_v2(m_pDb);
    m_pDb = nullptr;
  }
  m_bBulkInsert = false;
  ForgetFolders();
}

CQiError CSQLiteScanDatabase::Close() {
  if (m_pDb == nullptr) return CQiError();
  CQiError result;
  if (m_bBulkInsert) {
    result = SetBulkInsertMode(false);
    if (result.IsError()) {
      (void)QI_PUSH(result);
      sqlite3_exec(m_pDb, "ROLLBACK", nullptr, nullptr, nullptr);
    }
  }
  if (!m_bReadOnly) {
    // Checkpoint and leave rollback-journal mode: the closed database is one file. Should this
    // fail, the WAL file stays and the next open recovers it; nothing is lost.
    CQiError error = Execute("PRAGMA journal_mode=DELETE", "Checkpointing at close");
    if (error.IsError() && result.IsSuccess()) result = QI_PUSH(error);
  }
  CloseConnection();
  return result;
}

CQiError CSQLiteScanDatabase::SetBulkInsertMode(bool bBulkInsert) {
  QI_RETURN_IF_ERROR(CheckWritable());
  if (bBulkInsert == m_bBulkInsert) return CQiError();
  if (bBulkInsert) {
    const std::string strSql =
        FXString::Format("PRAGMA cache_size=-%d; BEGIN IMMEDIATE", kBulkCacheKiB);
    QI_RETURN_IF_ERROR(Execute(strSql.c_str(), "Starting bulk-insert mode"));
    m_bBulkInsert = true;
    return CQiError();
  }
  m_bBulkInsert = false;
  CQiError error = Execute("COMMIT", "Committing the bulk-insert transaction");
  if (error.IsError()) {
    sqlite3_exec(m_pDb, "ROLLBACK", nullptr, nullptr, nullptr);
    ForgetFolders();
    return QI_PUSH(error, "The records added in bulk-insert mode are not stored");
  }
  const std::string strSql = FXString::Format("PRAGMA cache_size=-%d", kCacheKiB);
  QI_RETURN_IF_ERROR(Execute(strSql.c_str(), "Leaving bulk-insert mode"));
  return CQiError();
}

// ------------------------------------------------------------------------------------------
// Look-ups

CQiError CSQLiteScanDatabase::FindRecord(std::string_view strPath, SRecordKey& key,
                                         bool& bFound) {
  CSQLiteStatement::CUse use(m_stmtFindByPath);
  m_stmtFindByPath.BindBlob(1, strPath);
  const int iResult = m_stmtFindByPath.Step();
  bFound = iResult == SQLITE_ROW;
  if (bFound) {
    key.llId = m_stmtFindByPath.ColumnInt64(0);
    key.bIsFolder = m_stmtFindByPath.ColumnInt64(1) != 0;
  } else if (iResult != SQLITE_DONE) {
    return SqlError(iResult, "Looking up a path");
  }
  return CQiError();
}

CQiError CSQLiteScanDatabase::GetParentId(std::string_view parentPath, int64_t& llParentId) {
  // A full scan adds a folder's entries one after the other: the last parent answers most calls.
  if (m_bLastParentValid && parentPath == m_strLastParent) {
    llParentId = m_llLastParentId;
    return CQiError();
  }
  const std::string strParentPath(parentPath);
  auto it = m_mapFolderIds.find(strParentPath);
  if (it != m_mapFolderIds.end()) {
    llParentId = it->second;
  } else {
    llParentId = CScanDatabasePath::GetWaitingParentId(strParentPath);
    if (!strParentPath.empty()) {
      SRecordKey key;
      bool bFound = false;
      QI_RETURN_IF_ERROR(FindRecord(strParentPath, key, bFound));
      if (bFound && key.bIsFolder) llParentId = key.llId;
    }
    if (m_mapFolderIds.size() >= kMaxCachedFolders) m_mapFolderIds.clear();
    m_mapFolderIds.emplace(strParentPath, llParentId);
  }
  m_strLastParent = strParentPath;
  m_llLastParentId = llParentId;
  m_bLastParentValid = true;
  return CQiError();
}

CQiError CSQLiteScanDatabase::LinkWaitingChildren(std::string_view strFolderPath,
                                                  int64_t llFolderId) {
  const std::string strPrefix = CScanDatabasePath::SubtreePrefix(strFolderPath);
  const std::string strBound = CScanDatabasePath::SubtreeBound(strFolderPath);
  CSQLiteStatement::CUse use(m_stmtLinkChildren);
  m_stmtLinkChildren.BindInt64(1, llFolderId);
  m_stmtLinkChildren.BindInt64(2, CScanDatabasePath::GetWaitingParentId(strFolderPath));
  m_stmtLinkChildren.BindBlob(3, strPrefix);
  m_stmtLinkChildren.BindBlob(4, strBound);
  m_stmtLinkChildren.BindInt64(5, static_cast<int64_t>(strPrefix.size()) + 1);
  const int iResult = m_stmtLinkChildren.Step();
  if (iResult != SQLITE_DONE) return SqlError(iResult, "Linking records to their folder");
  return CQiError();
}

CQiError CSQLiteScanDatabase::ListChildren(int64_t llParentId, const std::string* pstrExactParent,
                                           std::list<FSDB::CDatabaseItemPtr>& lstItems) {
  CSQLiteStatement& stmt = m_stmtListChildren;
  CSQLiteStatement::CUse use(stmt);
  stmt.BindInt64(1, llParentId);
  int iResult;
  while ((iResult = stmt.Step()) == SQLITE_ROW) {
    FSDB::CDatabaseItemPtr pItem = ReadRecord(stmt);
    if (pstrExactParent != nullptr) {
      std::string_view parent, name;
      CScanDatabasePath::Split(pItem->GetFullyQualifiedPath(), parent, name);
      if (parent != *pstrExactParent) continue;
    }
    lstItems.push_back(std::move(pItem));
  }
  if (iResult != SQLITE_DONE) return SqlError(iResult, "Listing a folder");
  return CQiError();
}

// ------------------------------------------------------------------------------------------
// Changes

CQiError CSQLiteScanDatabase::StoreRecord(const std::string& strPathIn,
                                          const FSDB::CDatabaseItemPtr& pItem, bool bFolder) {
  QI_RETURN_IF_ERROR(CheckWritable());
  std::string_view strPath;
  QI_RETURN_IF_ERROR(CScanDatabasePath::Normalize(strPathIn, strPath, bFolder ? "folder" : "file"));
  if (!pItem) {
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "No record given for [%s]",
                          Quote(strPath).c_str());
  }
  std::string_view parent, name;
  CScanDatabasePath::Split(strPath, parent, name);
  int64_t llParentId = 0;
  QI_RETURN_IF_ERROR(GetParentId(parent, llParentId));

  // A folder also links its waiting children; a file that replaces a record removes what was
  // below it (when the record was a folder). Inside the bulk-insert transaction a file needs no
  // savepoint of its own: the insert either stores the row or changes nothing, and only a
  // replacement runs further statements.
  CSQLiteOperationScope scope(m_pDb, m_bBulkInsert, Savepoint());
  if (bFolder || !m_bBulkInsert) QI_RETURN_IF_ERROR(Begin(scope));
  int64_t llId = 0;
  bool bReplaced = false;
  {
    CSQLiteStatement::CUse use(m_stmtInsert);
    BindRecord(m_stmtInsert, llParentId, name, strPath, bFolder, *pItem);
    const int iResult = m_stmtInsert.Step();
    if (iResult == SQLITE_DONE) {
      llId = sqlite3_last_insert_rowid(m_pDb);
    } else if (iResult == SQLITE_CONSTRAINT_UNIQUE) {
      bReplaced = true;
    } else {
      CQiError error = SqlError(iResult, bFolder ? "Adding a folder" : "Adding a file");
      return QI_PUSH(error, "Path=[%s]", Quote(strPath).c_str());
    }
  }
  if (bReplaced) {
    CSQLiteStatement::CUse use(m_stmtReplace);
    BindRecord(m_stmtReplace, llParentId, name, strPath, bFolder, *pItem);
    const int iResult = m_stmtReplace.Step();
    if (iResult != SQLITE_ROW) {
      CQiError error = SqlError(iResult, bFolder ? "Replacing a folder" : "Replacing a file");
      return QI_PUSH(error, "Path=[%s]", Quote(strPath).c_str());
    }
    llId = m_stmtReplace.ColumnInt64(0);
  }
  if (bFolder) {
    QI_RETURN_IF_ERROR(LinkWaitingChildren(strPath, llId), "Path=[%s]", Quote(strPath).c_str());
  }
  int64_t llRemoved = 0;
  if (!bFolder && bReplaced) {
    QI_RETURN_IF_ERROR(RemoveRange(strPath, llRemoved), "Path=[%s]", Quote(strPath).c_str());
  }
  QI_RETURN_IF_ERROR(Commit(scope), "Path=[%s]", Quote(strPath).c_str());
  if (bFolder) {
    if (m_mapFolderIds.size() >= kMaxCachedFolders) m_mapFolderIds.clear();
    m_mapFolderIds[std::string(strPath)] = llId;
    if (m_bLastParentValid && m_strLastParent == strPath) m_llLastParentId = llId;
  } else if (bReplaced && (llRemoved > 0 || m_mapFolderIds.count(std::string(strPath)) != 0)) {
    // The file replaced a folder: its id and those below it are gone from the cache too.
    ForgetFolders();
  }
  pItem->SetId(llId);
  return CQiError();
}

CQiError CSQLiteScanDatabase::RemoveRange(std::string_view strFolderPath, int64_t& llRemoved) {
  const std::string strPrefix = CScanDatabasePath::SubtreePrefix(strFolderPath);
  const std::string strBound = CScanDatabasePath::SubtreeBound(strFolderPath);
  CSQLiteStatement::CUse use(m_stmtDeleteRange);
  m_stmtDeleteRange.BindBlob(1, strPrefix);
  m_stmtDeleteRange.BindBlob(2, strBound);
  const int iResult = m_stmtDeleteRange.Step();
  if (iResult != SQLITE_DONE) return SqlError(iResult, "Removing what is below a folder");
  llRemoved = sqlite3_changes64(m_pDb);
  return CQiError();
}

CQiError CSQLiteScanDatabase::RemoveRecord(const std::string& strPathIn, bool bFolder) {
  QI_RETURN_IF_ERROR(CheckWritable());
  std::string_view pathKey;
  QI_RETURN_IF_ERROR(CScanDatabasePath::Normalize(strPathIn, pathKey, bFolder ? "folder" : "file"));
  const std::string strPath(pathKey);

  CSQLiteOperationScope scope(m_pDb, m_bBulkInsert, Savepoint());
  QI_RETURN_IF_ERROR(Begin(scope));
  SRecordKey key;
  bool bFound = false;
  QI_RETURN_IF_ERROR(FindRecord(strPath, key, bFound));
  if (!bFound) {
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "[%s] is not in scan database [%s]",
                          Quote(strPath).c_str(), Quote(m_strDatabasePath).c_str());
  }
  if (key.bIsFolder != bFolder) {
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "[%s] is a %s in the scan database, not a %s",
                          Quote(strPath).c_str(), key.bIsFolder ? "folder" : "file",
                          bFolder ? "folder" : "file");
  }
  {
    CSQLiteStatement::CUse use(m_stmtDeleteById);
    m_stmtDeleteById.BindInt64(1, key.llId);
    const int iResult = m_stmtDeleteById.Step();
    if (iResult != SQLITE_DONE) return SqlError(iResult, "Removing a record");
  }
  int64_t llRemoved = 0;
  if (bFolder) QI_RETURN_IF_ERROR(RemoveRange(strPath, llRemoved));
  QI_RETURN_IF_ERROR(Commit(scope));
  if (bFolder) ForgetFolders();
  return CQiError();
}

CQiError CSQLiteScanDatabase::MoveRecord(const std::string& strOldPathIn,
                                         const std::string& strNewPathIn,
                                         const FSDB::CDatabaseItemPtr& pNewItem, bool bFolder) {
  QI_RETURN_IF_ERROR(CheckWritable());
  std::string_view oldKey, newKey;
  QI_RETURN_IF_ERROR(CScanDatabasePath::Normalize(strOldPathIn, oldKey, "old"));
  QI_RETURN_IF_ERROR(CScanDatabasePath::Normalize(strNewPathIn, newKey, "new"));
  const std::string strOld(oldKey), strNew(newKey);
  if (strOld == strNew) {
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Cannot rename [%s] to itself",
                          Quote(strOld).c_str());
  }
  // Neither path may lie below the other: a folder cannot move into its own subtree, and no
  // record can take the place of one of its ancestors.
  if (CScanDatabasePath::IsBelow(strNew, strOld) || CScanDatabasePath::IsBelow(strOld, strNew)) {
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                          "Cannot rename [%s] to [%s]: one path lies below the other",
                          Quote(strOld).c_str(), Quote(strNew).c_str());
  }

  CSQLiteOperationScope scope(m_pDb, m_bBulkInsert, Savepoint());
  QI_RETURN_IF_ERROR(Begin(scope));
  SRecordKey key;
  bool bFound = false;
  QI_RETURN_IF_ERROR(FindRecord(strOld, key, bFound));
  if (!bFound) {
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "Cannot rename [%s]: it is not in scan database [%s]",
                          Quote(strOld).c_str(), Quote(m_strDatabasePath).c_str());
  }
  if (key.bIsFolder != bFolder) {
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                          "Cannot rename [%s]: it is a %s in the scan database, not a %s",
                          Quote(strOld).c_str(), key.bIsFolder ? "folder" : "file",
                          bFolder ? "folder" : "file");
  }
  SRecordKey target;
  QI_RETURN_IF_ERROR(FindRecord(strNew, target, bFound));
  if (bFound) {
    return QI_ERROR_ERRNO(EEXIST, "Cannot rename [%s] to [%s]: [%s] is already in the scan database",
                          Quote(strOld).c_str(), Quote(strNew).c_str(), Quote(strNew).c_str());
  }
  std::string_view parent, name;
  CScanDatabasePath::Split(strNew, parent, name);
  int64_t llParentId = 0;
  QI_RETURN_IF_ERROR(GetParentId(parent, llParentId));

  {
    CSQLiteStatement& stmt = pNewItem ? m_stmtMoveRecordWithFields : m_stmtMoveRecord;
    CSQLiteStatement::CUse use(stmt);
    if (pNewItem) {
      BindRecord(stmt, llParentId, name, strNew, bFolder, *pNewItem);
      stmt.BindInt64(17, key.llId);
    } else {
      stmt.BindBlob(1, strNew);
      stmt.BindBlob(2, name);
      stmt.BindInt64(3, llParentId);
      stmt.BindInt64(4, key.llId);
    }
    const int iResult = stmt.Step();
    if (iResult != SQLITE_DONE) return SqlError(iResult, "Renaming a record");
  }
  if (bFolder) {
    const std::string strPrefix = CScanDatabasePath::SubtreePrefix(strOld);
    const std::string strBound = CScanDatabasePath::SubtreeBound(strOld);
    {
      CSQLiteStatement& stmt = m_stmtMoveRange;
      CSQLiteStatement::CUse use(stmt);
      stmt.BindBlob(1, strNew == "/" ? std::string_view() : std::string_view(strNew));
      stmt.BindInt64(2, static_cast<int64_t>(strPrefix.size()));  // from the '/' after the folder
      stmt.BindBlob(3, strPrefix);
      stmt.BindBlob(4, strBound);
      const int iResult = stmt.Step();
      if (iResult != SQLITE_DONE) return SqlError(iResult, "Renaming a folder's contents");
    }
    QI_RETURN_IF_ERROR(LinkWaitingChildren(strNew, key.llId));
  }
  QI_RETURN_IF_ERROR(Commit(scope));
  if (bFolder) ForgetFolders();
  if (pNewItem) pNewItem->SetId(key.llId);
  return CQiError();
}

CQiError CSQLiteScanDatabase::AddFile(const std::string& strPath,
                                      const FSDB::CDatabaseItemPtr& pItem) {
  CQiError error = StoreRecord(strPath, pItem, false);
  if (error.IsError()) return AfterFailure(QI_PUSH(error));
  return CQiError();
}

CQiError CSQLiteScanDatabase::AddFolder(const std::string& strPath,
                                        const FSDB::CDatabaseItemPtr& pItem) {
  CQiError error = StoreRecord(strPath, pItem, true);
  if (error.IsError()) return AfterFailure(QI_PUSH(error));
  return CQiError();
}

CQiError CSQLiteScanDatabase::DeleteFile(const std::string& strPath,
                                         const FSDB::CDatabaseItemPtr& /*pItem*/) {
  CQiError error = RemoveRecord(strPath, false);
  if (error.IsError()) return AfterFailure(QI_PUSH(error));
  return CQiError();
}

CQiError CSQLiteScanDatabase::DeleteFolder(const std::string& strPath,
                                           const FSDB::CDatabaseItemPtr& /*pItem*/) {
  CQiError error = RemoveRecord(strPath, true);
  if (error.IsError()) return AfterFailure(QI_PUSH(error));
  return CQiError();
}

CQiError CSQLiteScanDatabase::RenameFile(const std::string& strOldPath,
                                         const std::string& strNewPath,
                                         const FSDB::CDatabaseItemPtr& /*pOldItem*/,
                                         const FSDB::CDatabaseItemPtr& pNewItem) {
  CQiError error = MoveRecord(strOldPath, strNewPath, pNewItem, false);
  if (error.IsError()) return AfterFailure(QI_PUSH(error));
  return CQiError();
}

CQiError CSQLiteScanDatabase::RenameFolder(const std::string& strOldPath,
                                           const std::string& strNewPath,
                                           const FSDB::CDatabaseItemPtr& /*pOldItem*/,
                                           const FSDB::CDatabaseItemPtr& pNewItem) {
  CQiError error = MoveRecord(strOldPath, strNewPath, pNewItem, true);
  if (error.IsError()) return AfterFailure(QI_PUSH(error));
  return CQiError();
}

// ------------------------------------------------------------------------------------------
// Queries

CQiError CSQLiteScanDatabase::QueryFolderItems(const std::string& strFolderPath,
                                               int64_t llFolderId,
                                               std::list<FSDB::CDatabaseItemPtr>& lstItems) {
  QI_RETURN_IF_ERROR(CheckOpen());
  std::list<FSDB::CDatabaseItemPtr> lstFound;
  if (llFolderId < 0) {
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Invalid folder id %lld for [%s]",
                          static_cast<long long>(llFolderId), Quote(strFolderPath).c_str());
  }
  if (llFolderId > 0) {
    CSQLiteStatement::CUse use(m_stmtFindById);
    m_stmtFindById.BindInt64(1, llFolderId);
    const int iResult = m_stmtFindById.Step();
    if (iResult == SQLITE_DONE) {
      return QI_ERROR_WIN32(QiErrorCode::NotFound,
                            "No folder with id %lld ([%s]) in scan database [%s]",
                            static_cast<long long>(llFolderId), Quote(strFolderPath).c_str(),
                            Quote(m_strDatabasePath).c_str());
    }
    if (iResult != SQLITE_ROW) return SqlError(iResult, "Looking up a folder");
    if (m_stmtFindById.ColumnInt64(0) == 0) {
      return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                            "Record %lld ([%s]) is a file, not a folder",
                            static_cast<long long>(llFolderId), Quote(strFolderPath).c_str());
    }
  } else {
    std::string_view pathKey;
    QI_RETURN_IF_ERROR(CScanDatabasePath::Normalize(strFolderPath, pathKey, "folder"));
    const std::string strPath(pathKey);
    SRecordKey key;
    bool bFound = false;
    QI_RETURN_IF_ERROR(FindRecord(strPath, key, bFound));
    if (bFound && !key.bIsFolder) {
      return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                            "[%s] is a file in the scan database, not a folder",
                            Quote(strPath).c_str());
    }
    if (!bFound) {
      // A folder that is not stored may still hold records added below it.
      QI_RETURN_IF_ERROR(ListChildren(CScanDatabasePath::GetWaitingParentId(strPath), &strPath, lstFound));
      if (lstFound.empty()) {
        return QI_ERROR_WIN32(QiErrorCode::NotFound, "Folder [%s] is not in scan database [%s]",
                              Quote(strPath).c_str(), Quote(m_strDatabasePath).c_str());
      }
      lstItems.swap(lstFound);
      return CQiError();
    }
    llFolderId = key.llId;
  }
  QI_RETURN_IF_ERROR(ListChildren(llFolderId, nullptr, lstFound));
  lstItems.swap(lstFound);
  return CQiError();
}

CQiError CSQLiteScanDatabase::QueryItem(const std::string& strPathIn,
                                        FSDB::CDatabaseItemPtr& pItem) {
  QI_RETURN_IF_ERROR(CheckOpen());
  std::string_view strPath;
  QI_RETURN_IF_ERROR(CScanDatabasePath::Normalize(strPathIn, strPath, "item"));
  CSQLiteStatement::CUse use(m_stmtSelectByPath);
  m_stmtSelectByPath.BindBlob(1, strPath);
  const int iResult = m_stmtSelectByPath.Step();
  if (iResult == SQLITE_DONE) {
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "[%s] is not in scan database [%s]",
                          Quote(strPath).c_str(), Quote(m_strDatabasePath).c_str());
  }
  if (iResult != SQLITE_ROW) return SqlError(iResult, "Reading a record");
  pItem = ReadRecord(m_stmtSelectByPath);
  return CQiError();
}
