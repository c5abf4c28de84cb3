#include "Scan/ScanDB/ScanDbStore.h"

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"

namespace {
std::string Shown(std::string_view text) { return FXString::EscapeControl(text); }

// The key range of the parents below a folder: [strLow, strHigh) holds "folder/..." and
// nothing else ('0' follows '/' in byte order). For "/" the range holds every parent.
void SubtreeRange(std::string_view folder, std::string& strLow, std::string& strHigh) {
  strLow.assign(folder);
  if (strLow != "/") strLow.push_back('/');
  strHigh = strLow;
  strHigh.back() = '0';
}

// The path without trailing '/'.
std::string_view Trimmed(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  return path;
}
}  // namespace

CScanDbStore::CScanDbStore() = default;

CScanDbStore::~CScanDbStore() { (void)Close(); }

CQiError CScanDbStore::Open(const std::string& strFolder) {
  QI_RETURN_IF_ERROR(Close());
  if (strFolder.empty())
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "The scan database folder is empty");
  if (strFolder.find('\0') != std::string::npos)
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                          "The scan database folder [%s] holds a NUL byte",
                          Shown(strFolder).c_str());
  std::error_code ec;
  std::filesystem::create_directories(strFolder, ec);
  if (ec)
    return QI_ERROR_ERRNO(ec.value(), "Cannot create the scan database folder %s: %s",
                          Shown(strFolder).c_str(), ec.message().c_str());
  if (!std::filesystem::is_directory(strFolder, ec))
    return QI_ERROR_ERRNO(ENOTDIR, "The scan database folder %s is not a folder",
                          Shown(strFolder).c_str());

  const std::string strFile = strFolder + "/" + kDatabaseFileName;
  CScanDbConnectionPtr pConnection;
  QI_RETURN_IF_ERROR(CScanDbConnection::Open(strFile, true, pConnection),
                     "Cannot open the scan database in %s", Shown(strFolder).c_str());
  m_pConnection = std::move(pConnection);
  m_strFolder = strFolder;
  ZRLOG(2, "Opened the scan database %s", Shown(strFile).c_str());
  return CQiError();
}

CQiError CScanDbStore::Close() {
  if (!m_pConnection) return CQiError();
  CQiError err;
  {
    std::lock_guard<std::mutex> lock(m_pConnection->GetMutex());
    if (m_pConnection->IsInBulk()) {
      ZRLOG(1, "Closing the scan database in %s discards an unfinished bulk transaction",
            Shown(m_strFolder).c_str());
      if (sqlite3_get_autocommit(m_pConnection->GetHandle()) == 0)
        err = m_pConnection->Exec("ROLLBACK");
      m_pConnection->SetInBulk(false);
    }
  }
  m_pConnection.reset();  // the connection closes here unless a cursor still holds it
  ZRLOG(2, "Closed the scan database in %s", Shown(m_strFolder).c_str());
  m_strFolder.clear();
  if (err.IsError()) return QI_PUSH(err);
  return CQiError();
}

CQiError CScanDbStore::CheckOpen() const {
  if (!m_pConnection)
    return QI_ERROR_WIN32(QiErrorCode::NotConfigured, "Database is not configured");
  return CQiError();
}

CQiError CScanDbStore::RunCached(CScanDbConnection::EStatement eStatement) {
  sqlite3_stmt* pStatement = nullptr;
  QI_RETURN_IF_ERROR(m_pConnection->GetStatement(eStatement, pStatement));
  int rc = sqlite3_step(pStatement);
  sqlite3_reset(pStatement);
  if (rc != SQLITE_DONE)
    return SCANDB_ERROR(m_pConnection->GetHandle(), rc, "Transaction control failed in %s",
                        Shown(m_strFolder).c_str());
  return CQiError();
}

CQiError CScanDbStore::InSavepoint(const std::function<CQiError()>& body) {
  QI_RETURN_IF_ERROR(RunCached(CScanDbConnection::kSavepoint));
  CQiError err = body();
  if (err.IsSuccess()) {
    err = RunCached(CScanDbConnection::kRelease);
    if (err.IsSuccess()) return CQiError();
  }
  // ROLLBACK TO undoes the changes and keeps the savepoint open; RELEASE then ends it.
  CQiError undo = RunCached(CScanDbConnection::kRollbackTo);
  if (undo.IsSuccess()) undo = RunCached(CScanDbConnection::kRelease);
  if (undo.IsError())
    ZRLOG(-1, "Cannot undo a failed change of the scan database in %s, error=%s",
          Shown(m_strFolder).c_str(), undo.AsString().c_str());
  return err;
}

CQiError CScanDbStore::WriteEntry(CScanDbConnection::EStatement eStatement,
                                  const CScanDbRecord& record, const char* szAction) {
  QI_RETURN_IF_ERROR(CheckOpen());
  const std::string& strPath = record.GetPath();
  QI_RETURN_IF_ERROR(CScanDbRecord::ValidatePath(strPath));
  if (record.GetFileId().find('\0') != std::string::npos)
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "The file id of [%s] holds a NUL byte",
                          Shown(strPath).c_str());
  std::string_view parent, name;
  CScanDbRecord::SplitPath(strPath, parent, name);

  std::lock_guard<std::mutex> lock(m_pConnection->GetMutex());
  sqlite3_stmt* pStatement = nullptr;
  QI_RETURN_IF_ERROR(m_pConnection->GetStatement(eStatement, pStatement));
  int rc = CScanDbConnection::BindEntry(pStatement, parent, name, record);
  if (rc == SQLITE_OK) rc = sqlite3_step(pStatement);
  sqlite3_reset(pStatement);
  if (rc == SQLITE_DONE && eStatement == CScanDbConnection::kUpdateState &&
      sqlite3_changes64(m_pConnection->GetHandle()) == 0)
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "Cannot %s [%s]: no record of the path with file id %s", szAction,
                          Shown(strPath).c_str(), Shown(record.GetFileId()).c_str());
  if (rc == SQLITE_DONE) return CQiError();
  if ((rc & 0xff) == SQLITE_CONSTRAINT)
    return QI_ERROR_ERRNO(EEXIST, "Cannot %s [%s]: the path is already in the scan database",
                          szAction, Shown(strPath).c_str());
  return SCANDB_ERROR(m_pConnection->GetHandle(), rc, "Cannot %s [%s] in the scan database",
                      szAction, Shown(strPath).c_str());
}

CQiError CScanDbStore::Add(const CScanDbRecord& record) {
  QI_RETURN_IF_ERROR(WriteEntry(CScanDbConnection::kInsert, record, "add"));
  return CQiError();
}

CQiError CScanDbStore::Update(const CScanDbRecord& record) {
  QI_RETURN_IF_ERROR(WriteEntry(CScanDbConnection::kUpsert, record, "update"));
  return CQiError();
}

CQiError CScanDbStore::UpdateState(const CScanDbRecord& record) {
  QI_RETURN_IF_ERROR(WriteEntry(CScanDbConnection::kUpdateState, record, "update the state of"));
  return CQiError();
}

CQiError CScanDbStore::Remove(const std::string& strPath, bool bWithSubtree, uint64_t* pRemoved) {
  if (pRemoved != nullptr) *pRemoved = 0;
  QI_RETURN_IF_ERROR(CheckOpen());
  QI_RETURN_IF_ERROR(CScanDbRecord::ValidatePath(strPath));
  std::string_view path = Trimmed(strPath), parent, name;
  CScanDbRecord::SplitPath(path, parent, name);
  std::string strLow, strHigh;
  SubtreeRange(path, strLow, strHigh);

  sqlite3* pDb = m_pConnection->GetHandle();
  uint64_t ullRemoved = 0;
  std::lock_guard<std::mutex> lock(m_pConnection->GetMutex());
  // One statement is atomic by itself; the subtree's two need a savepoint around them.
  auto body = [&]() -> CQiError {
    sqlite3_stmt* pStatement = nullptr;
    QI_RETURN_IF_ERROR(m_pConnection->GetStatement(CScanDbConnection::kDeleteEntry, pStatement));
    int rc = CScanDbConnection::BindBytes(pStatement, 1, parent);
    if (rc == SQLITE_OK) rc = CScanDbConnection::BindBytes(pStatement, 2, name);
    if (rc == SQLITE_OK) rc = sqlite3_step(pStatement);
    sqlite3_reset(pStatement);
    if (rc != SQLITE_DONE)
      return SCANDB_ERROR(pDb, rc, "Cannot remove [%s] from the scan database",
                          Shown(path).c_str());
    ullRemoved += static_cast<uint64_t>(sqlite3_changes64(pDb));
    if (!bWithSubtree) return CQiError();

    QI_RETURN_IF_ERROR(m_pConnection->GetStatement(CScanDbConnection::kDeleteSubtree, pStatement));
    rc = CScanDbConnection::BindBytes(pStatement, 1, path);
    if (rc == SQLITE_OK) rc = CScanDbConnection::BindBytes(pStatement, 2, strLow);
    if (rc == SQLITE_OK) rc = CScanDbConnection::BindBytes(pStatement, 3, strHigh);
    if (rc == SQLITE_OK) rc = sqlite3_step(pStatement);
    sqlite3_reset(pStatement);
    if (rc != SQLITE_DONE)
      return SCANDB_ERROR(pDb, rc, "Cannot remove the records below [%s] from the scan database",
                          Shown(path).c_str());
    ullRemoved += static_cast<uint64_t>(sqlite3_changes64(pDb));
    return CQiError();
  };
  QI_RETURN_IF_ERROR(bWithSubtree ? InSavepoint(body) : body());
  if (ullRemoved == 0)
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "[%s] is not in the scan database",
                          Shown(path).c_str());
  if (pRemoved != nullptr) *pRemoved = ullRemoved;
  return CQiError();
}

CQiError CScanDbStore::Rename(const std::string& strOldPath, const std::string& strNewPath,
                              uint64_t* pMoved, bool* pFolder) {
  if (pMoved != nullptr) *pMoved = 0;
  if (pFolder != nullptr) *pFolder = false;
  QI_RETURN_IF_ERROR(CheckOpen());
  QI_RETURN_IF_ERROR(CScanDbRecord::ValidatePath(strOldPath));
  QI_RETURN_IF_ERROR(CScanDbRecord::ValidatePath(strNewPath));
  std::string_view oldPath = Trimmed(strOldPath), newPath = Trimmed(strNewPath);
  if (oldPath == "/" || newPath == "/")
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                          "Cannot rename [%s] to [%s]: the root cannot be renamed or replaced",
                          Shown(oldPath).c_str(), Shown(newPath).c_str());
  if (newPath.size() > oldPath.size() && newPath.substr(0, oldPath.size()) == oldPath &&
      newPath[oldPath.size()] == '/')
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                          "Cannot rename [%s] to [%s]: a folder cannot move into itself",
                          Shown(oldPath).c_str(), Shown(newPath).c_str());
  if (oldPath == newPath)
    return QI_ERROR_ERRNO(EEXIST, "Cannot rename [%s] to itself", Shown(oldPath).c_str());

  std::string_view oldParent, oldName, newParent, newName;
  CScanDbRecord::SplitPath(oldPath, oldParent, oldName);
  CScanDbRecord::SplitPath(newPath, newParent, newName);
  std::string strLow, strHigh;
  SubtreeRange(oldPath, strLow, strHigh);

  sqlite3* pDb = m_pConnection->GetHandle();
  uint64_t ullMoved = 0;
  std::lock_guard<std::mutex> lock(m_pConnection->GetMutex());
  CQiError err = InSavepoint([&]() -> CQiError {
    sqlite3_stmt* pStatement = nullptr;
    QI_RETURN_IF_ERROR(m_pConnection->GetStatement(CScanDbConnection::kRenameEntry, pStatement));
    int rc = CScanDbConnection::BindBytes(pStatement, 1, newParent);
    if (rc == SQLITE_OK) rc = CScanDbConnection::BindBytes(pStatement, 2, newName);
    if (rc == SQLITE_OK) rc = CScanDbConnection::BindBytes(pStatement, 3, oldParent);
    if (rc == SQLITE_OK) rc = CScanDbConnection::BindBytes(pStatement, 4, oldName);
    if (rc == SQLITE_OK) rc = sqlite3_step(pStatement);
    // The moved record's mode comes back: only a folder has records below it.
    const bool bMoved = rc == SQLITE_ROW;
    const bool bFolder = bMoved && S_ISDIR(static_cast<mode_t>(sqlite3_column_int64(pStatement, 0)));
    if (bMoved) rc = sqlite3_step(pStatement);
    sqlite3_reset(pStatement);
    if ((rc & 0xff) == SQLITE_CONSTRAINT)
      return QI_ERROR_ERRNO(
          EEXIST, "Cannot rename [%s] to [%s]: the target is already in the scan database",
          Shown(oldPath).c_str(), Shown(newPath).c_str());
    if (rc != SQLITE_DONE)
      return SCANDB_ERROR(pDb, rc, "Cannot rename [%s] to [%s] in the scan database",
                          Shown(oldPath).c_str(), Shown(newPath).c_str());
    if (!bMoved)
      return QI_ERROR_WIN32(QiErrorCode::NotFound,
                            "Cannot rename [%s]: it is not in the scan database",
                            Shown(oldPath).c_str());
    ullMoved = 1;
    if (pFolder != nullptr) *pFolder = bFolder;
    if (!bFolder) return CQiError();

    // Every record below the old path: its parent's leading old path becomes the new path.
    QI_RETURN_IF_ERROR(m_pConnection->GetStatement(CScanDbConnection::kRenameSubtree, pStatement));
    rc = CScanDbConnection::BindBytes(pStatement, 1, newPath);
    if (rc == SQLITE_OK)
      rc = sqlite3_bind_int64(pStatement, 2, static_cast<int64_t>(oldPath.size()) + 1);
    if (rc == SQLITE_OK) rc = CScanDbConnection::BindBytes(pStatement, 3, oldPath);
    if (rc == SQLITE_OK) rc = CScanDbConnection::BindBytes(pStatement, 4, strLow);
    if (rc == SQLITE_OK) rc = CScanDbConnection::BindBytes(pStatement, 5, strHigh);
    if (rc == SQLITE_OK) rc = sqlite3_step(pStatement);
    sqlite3_reset(pStatement);
    if ((rc & 0xff) == SQLITE_CONSTRAINT)
      return QI_ERROR_ERRNO(
          EEXIST,
          "Cannot rename [%s] to [%s]: a path below the target is already in the scan database",
          Shown(oldPath).c_str(), Shown(newPath).c_str());
    if (rc != SQLITE_DONE)
      return SCANDB_ERROR(pDb, rc,
                          "Cannot rename the records below [%s] to [%s] in the scan database",
                          Shown(oldPath).c_str(), Shown(newPath).c_str());
    ullMoved += static_cast<uint64_t>(sqlite3_changes64(pDb));
    return CQiError();
  });
  QI_RETURN_IF_ERROR(err);
  if (pMoved != nullptr) *pMoved = ullMoved;
  return CQiError();
}

CQiError CScanDbStore::Lookup(const std::string& strPath, CScanDbRecord& record) {
  QI_RETURN_IF_ERROR(CheckOpen());
  QI_RETURN_IF_ERROR(CScanDbRecord::ValidatePath(strPath));
  std::string_view parent, name;
  CScanDbRecord::SplitPath(strPath, parent, name);

  std::lock_guard<std::mutex> lock(m_pConnection->GetMutex());
  sqlite3_stmt* pStatement = nullptr;
  QI_RETURN_IF_ERROR(m_pConnection->GetStatement(CScanDbConnection::kSelectByPath, pStatement));
  int rc = CScanDbConnection::BindBytes(pStatement, 1, parent);
  if (rc == SQLITE_OK) rc = CScanDbConnection::BindBytes(pStatement, 2, name);
  if (rc == SQLITE_OK) rc = sqlite3_step(pStatement);
  if (rc == SQLITE_ROW) CScanDbConnection::ReadEntry(pStatement, record);
  sqlite3_reset(pStatement);
  if (rc == SQLITE_ROW) return CQiError();
  if (rc == SQLITE_DONE)
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "[%s] is not in the scan database",
                          Shown(strPath).c_str());
  return SCANDB_ERROR(m_pConnection->GetHandle(), rc, "Cannot look up [%s] in the scan database",
                      Shown(strPath).c_str());
}

CQiError CScanDbStore::LookupByFileId(const std::string& strFileId, CScanDbRecord& record) {
  QI_RETURN_IF_ERROR(CheckOpen());
  if (strFileId.empty() || strFileId.find('\0') != std::string::npos)
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Invalid file id [%s]",
                          Shown(strFileId).c_str());
  std::lock_guard<std::mutex> lock(m_pConnection->GetMutex());
  sqlite3_stmt* pStatement = nullptr;
  QI_RETURN_IF_ERROR(m_pConnection->GetStatement(CScanDbConnection::kSelectByFileId, pStatement));
  int rc = sqlite3_bind_text64(pStatement, 1, strFileId.data(), strFileId.size(), SQLITE_STATIC,
                               SQLITE_UTF8);
  if (rc == SQLITE_OK) rc = sqlite3_step(pStatement);
  if (rc == SQLITE_ROW) CScanDbConnection::ReadEntry(pStatement, record);
  sqlite3_reset(pStatement);
  if (rc == SQLITE_ROW) return CQiError();
  if (rc == SQLITE_DONE)
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "The file id %s is not in the scan database",
                          Shown(strFileId).c_str());
  return SCANDB_ERROR(m_pConnection->GetHandle(), rc,
                      "Cannot look up the file id %s in the scan database",
                      Shown(strFileId).c_str());
}

CQiError CScanDbStore::LookupPathByFileId(const std::string& strFileId, std::string& strPath) {
  QI_RETURN_IF_ERROR(CheckOpen());
  if (strFileId.empty() || strFileId.find('\0') != std::string::npos)
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Invalid file id [%s]", Shown(strFileId).c_str());
  std::lock_guard<std::mutex> lock(m_pConnection->GetMutex());
  sqlite3_stmt* pStatement = nullptr;
  QI_RETURN_IF_ERROR(m_pConnection->GetStatement(CScanDbConnection::kSelectPathByFileId, pStatement));
  int rc = sqlite3_bind_text64(pStatement, 1, strFileId.data(), strFileId.size(), SQLITE_STATIC, SQLITE_UTF8);
  if (rc == SQLITE_OK) rc = sqlite3_step(pStatement);
  if (rc == SQLITE_ROW) {
    const auto* pParent = static_cast<const char*>(sqlite3_column_blob(pStatement, 0));
    const std::string_view parent(pParent != nullptr ? pParent : "", static_cast<size_t>(sqlite3_column_bytes(pStatement, 0)));
    const auto* pName = static_cast<const char*>(sqlite3_column_blob(pStatement, 1));
    const std::string_view name(pName != nullptr ? pName : "", static_cast<size_t>(sqlite3_column_bytes(pStatement, 1)));
    // "" + "/" is the root; "/" + "a" is "/a"; "/a" + "b" is "/a/b".
    strPath.assign(parent);
    if (!parent.empty() && parent != "/") strPath.push_back('/');
    strPath.append(name);
  }
  sqlite3_reset(pStatement);
  if (rc == SQLITE_ROW) return CQiError();
  if (rc == SQLITE_DONE)
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "The file id %s is not in the scan database", Shown(strFileId).c_str());
  return SCANDB_ERROR(m_pConnection->GetHandle(), rc, "Cannot look up the file id %s in the scan database",
                      Shown(strFileId).c_str());
}

CQiError CScanDbStore::OpenFolderCursor(const std::string& strFolder, CScanDbFolderCursor& cursor) {
  cursor.Close();
  QI_RETURN_IF_ERROR(CheckOpen());
  QI_RETURN_IF_ERROR(CScanDbRecord::ValidatePath(strFolder));
  QI_RETURN_IF_ERROR(cursor.Open(m_pConnection, std::string(Trimmed(strFolder))));
  return CQiError();
}

CQiError CScanDbStore::ListFolder(const std::string& strFolder, const TRecordCallback& callback) {
  CScanDbFolderCursor cursor;
  QI_RETURN_IF_ERROR(OpenFolderCursor(strFolder, cursor));
  CScanDbRecord record;
  for (;;) {
    CQiError err = cursor.Next(record);
    if (err.IsWin32(QiErrorCode::NoMoreFiles)) return CQiError();
    QI_RETURN_IF_ERROR(err);
    QI_RETURN_IF_ERROR(callback(record));
  }
}

CQiError CScanDbStore::GetRecordCount(uint64_t& ullCount) {
  QI_RETURN_IF_ERROR(CheckOpen());
  std::lock_guard<std::mutex> lock(m_pConnection->GetMutex());
  sqlite3_stmt* pStatement = nullptr;
  QI_RETURN_IF_ERROR(m_pConnection->GetStatement(CScanDbConnection::kCount, pStatement));
  int rc = sqlite3_step(pStatement);
  if (rc == SQLITE_ROW) ullCount = static_cast<uint64_t>(sqlite3_column_int64(pStatement, 0));
  sqlite3_reset(pStatement);
  if (rc != SQLITE_ROW)
    return SCANDB_ERROR(m_pConnection->GetHandle(), rc, "Cannot count the records of %s",
                        Shown(m_strFolder).c_str());
  return CQiError();
}

CQiError CScanDbStore::Validate() {
  QI_RETURN_IF_ERROR(CheckOpen());
  std::lock_guard<std::mutex> lock(m_pConnection->GetMutex());
  TScanDbStatementPtr pStatement;
  QI_RETURN_IF_ERROR(m_pConnection->Prepare("PRAGMA quick_check(1)", pStatement));
  int rc = sqlite3_step(pStatement.get());
  if (rc != SQLITE_ROW)
    return SCANDB_ERROR(m_pConnection->GetHandle(), rc, "Cannot validate the scan database in %s",
                        Shown(m_strFolder).c_str());
  const unsigned char* szResult = sqlite3_column_text(pStatement.get(), 0);
  const std::string strResult = szResult ? reinterpret_cast<const char*>(szResult) : "";
  if (strResult != "ok")
    return QI_ERROR_WIN32(QiErrorCode::InvalidData, "The scan database in %s is damaged: %s",
                          Shown(m_strFolder).c_str(), Shown(strResult).c_str());
  return CQiError();
}

CQiError CScanDbStore::SetReferenceTime(uint64_t ullReferenceTime) {
  QI_RETURN_IF_ERROR(CheckOpen());
  std::lock_guard<std::mutex> lock(m_pConnection->GetMutex());
  sqlite3_stmt* pStatement = nullptr;
  QI_RETURN_IF_ERROR(m_pConnection->GetStatement(CScanDbConnection::kSetMeta, pStatement));
  int rc = sqlite3_bind_text(pStatement, 1, kReferenceTimeKey, -1, SQLITE_STATIC);
  if (rc == SQLITE_OK)
    rc = sqlite3_bind_int64(pStatement, 2, static_cast<int64_t>(ullReferenceTime));
  if (rc == SQLITE_OK) rc = sqlite3_step(pStatement);
  sqlite3_reset(pStatement);
  if (rc != SQLITE_DONE)
    return SCANDB_ERROR(m_pConnection->GetHandle(), rc,
                        "Cannot set the reference time of the scan database in %s",
                        Shown(m_strFolder).c_str());
  return CQiError();
}

CQiError CScanDbStore::GetReferenceTime(uint64_t& ullReferenceTime) {
  QI_RETURN_IF_ERROR(CheckOpen());
  std::lock_guard<std::mutex> lock(m_pConnection->GetMutex());
  sqlite3_stmt* pStatement = nullptr;
  QI_RETURN_IF_ERROR(m_pConnection->GetStatement(CScanDbConnection::kGetMeta, pStatement));
  int rc = sqlite3_bind_text(pStatement, 1, kReferenceTimeKey, -1, SQLITE_STATIC);
  if (rc == SQLITE_OK) rc = sqlite3_step(pStatement);
  if (rc == SQLITE_ROW)
    ullReferenceTime = static_cast<uint64_t>(sqlite3_column_int64(pStatement, 0));
  sqlite3_reset(pStatement);
  if (rc == SQLITE_ROW) return CQiError();
  if (rc == SQLITE_DONE)
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "The scan database in %s has no reference time",
                          Shown(m_strFolder).c_str());
  return SCANDB_ERROR(m_pConnection->GetHandle(), rc,
                      "Cannot read the reference time of the scan database in %s",
                      Shown(m_strFolder).c_str());
}

CQiError CScanDbStore::SetMetaText(const std::string& strKey, const std::string& strValue) {
  QI_RETURN_IF_ERROR(CheckOpen());
  std::lock_guard<std::mutex> lock(m_pConnection->GetMutex());
  sqlite3_stmt* pStatement = nullptr;
  QI_RETURN_IF_ERROR(m_pConnection->GetStatement(CScanDbConnection::kSetMeta, pStatement));
  int rc = sqlite3_bind_text(pStatement, 1, strKey.data(), static_cast<int>(strKey.size()), SQLITE_STATIC);
  if (rc == SQLITE_OK)
    rc = sqlite3_bind_text(pStatement, 2, strValue.data(), static_cast<int>(strValue.size()), SQLITE_STATIC);
  if (rc == SQLITE_OK) rc = sqlite3_step(pStatement);
  sqlite3_reset(pStatement);
  if (rc != SQLITE_DONE)
    return SCANDB_ERROR(m_pConnection->GetHandle(), rc, "Cannot set %s in the scan database in %s",
                        Shown(strKey).c_str(), Shown(m_strFolder).c_str());
  return CQiError();
}

CQiError CScanDbStore::GetMetaText(const std::string& strKey, std::string& strValue) {
  QI_RETURN_IF_ERROR(CheckOpen());
  std::lock_guard<std::mutex> lock(m_pConnection->GetMutex());
  sqlite3_stmt* pStatement = nullptr;
  QI_RETURN_IF_ERROR(m_pConnection->GetStatement(CScanDbConnection::kGetMeta, pStatement));
  int rc = sqlite3_bind_text(pStatement, 1, strKey.data(), static_cast<int>(strKey.size()), SQLITE_STATIC);
  if (rc == SQLITE_OK) rc = sqlite3_step(pStatement);
  if (rc == SQLITE_ROW) {
    const unsigned char* pText = sqlite3_column_text(pStatement, 0);
    strValue.assign(pText != nullptr ? reinterpret_cast<const char*>(pText) : "",
                    static_cast<size_t>(sqlite3_column_bytes(pStatement, 0)));
  }
  sqlite3_reset(pStatement);
  if (rc == SQLITE_ROW) return CQiError();
  if (rc == SQLITE_DONE)
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "The scan database in %s has no %s", Shown(m_strFolder).c_str(),
                          Shown(strKey).c_str());
  return SCANDB_ERROR(m_pConnection->GetHandle(), rc, "Cannot read %s of the scan database in %s",
                      Shown(strKey).c_str(), Shown(m_strFolder).c_str());
}

CQiError CScanDbStore::SetCacheSize(uint32_t uMiB) {
  QI_RETURN_IF_ERROR(CheckOpen());
  std::lock_guard<std::mutex> lock(m_pConnection->GetMutex());
  const std::string strSql = "PRAGMA cache_size = -" + std::to_string(uint64_t{uMiB} * 1024);
  QI_RETURN_IF_ERROR(m_pConnection->Exec(strSql.c_str()));
  return CQiError();
}

CQiError CScanDbStore::BeginBulk() {
  QI_RETURN_IF_ERROR(CheckOpen());
  std::lock_guard<std::mutex> lock(m_pConnection->GetMutex());
  if (m_pConnection->IsInBulk())
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                          "The scan database in %s is already in bulk mode",
                          Shown(m_strFolder).c_str());
  QI_RETURN_IF_ERROR(m_pConnection->Exec("BEGIN IMMEDIATE"), "Cannot start bulk mode in %s",
                     Shown(m_strFolder).c_str());
  m_pConnection->SetInBulk(true);
  return CQiError();
}

CQiError CScanDbStore::EndBulk(bool bCommit) {
  QI_RETURN_IF_ERROR(CheckOpen());
  std::lock_guard<std::mutex> lock(m_pConnection->GetMutex());
  if (!m_pConnection->IsInBulk())
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                          "The scan database in %s is not in bulk mode",
                          Shown(m_strFolder).c_str());
  if (sqlite3_get_autocommit(m_pConnection->GetHandle()) != 0) {
    // SQLite ends a transaction by itself after some failures (disk full, I/O error).
    m_pConnection->SetInBulk(false);
    if (!bCommit) return CQiError();
    return QI_ERROR_WIN32(QiErrorCode::FunctionFailed,
                          "The bulk transaction of the scan database in %s was rolled back by an "
                          "earlier failure; its changes are lost",
                          Shown(m_strFolder).c_str());
  }
  CQiError err = m_pConnection->Exec(bCommit ? "COMMIT" : "ROLLBACK");
  if (err.IsError() && bCommit) {
    // A failed commit leaves the transaction open: give it up so the store stays usable.
    (void)m_pConnection->Exec("ROLLBACK");
  }
  m_pConnection->SetInBulk(false);
  QI_RETURN_IF_ERROR(err, "Cannot end bulk mode in %s", Shown(m_strFolder).c_str());
  return CQiError();
}

bool CScanDbStore::IsInBulk() const {
  if (!m_pConnection) return false;
  std::lock_guard<std::mutex> lock(m_pConnection->GetMutex());
  return m_pConnection->IsInBulk();
}
