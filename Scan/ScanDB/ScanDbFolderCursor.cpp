#include "Scan/ScanDB/ScanDbFolderCursor.h"

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"

CScanDbFolderCursor::CScanDbFolderCursor() = default;

CScanDbFolderCursor::~CScanDbFolderCursor() { Close(); }

CQiError CScanDbFolderCursor::Open(const CScanDbConnectionPtr& pConnection, std::string strFolder) {
  Close();
  m_strFolder = std::move(strFolder);
  std::lock_guard<std::mutex> lock(pConnection->GetMutex());
  TScanDbStatementPtr pStatement;
  QI_RETURN_IF_ERROR(pConnection->AcquireListStatement(pStatement));
  int rc = CScanDbConnection::BindBytes(pStatement.get(), 1, m_strFolder);
  if (rc != SQLITE_OK) {
    CQiError err = SCANDB_ERROR(pConnection->GetHandle(), rc, "Cannot list the folder [%s]",
                                FXString::EscapeControl(m_strFolder).c_str());
    pConnection->ReleaseListStatement(std::move(pStatement));
    return err;
  }
  m_pConnection = pConnection;
  m_pStatement = std::move(pStatement);
  m_bDone = false;
  return CQiError();
}

CQiError CScanDbFolderCursor::Next(CScanDbRecord& record) {
  if (!m_pStatement)
    return QI_ERROR_WIN32(QiErrorCode::InvalidHandle, "The folder listing is not open");
  if (m_bDone) return QI_ERROR_WIN32(QiErrorCode::NoMoreFiles);
  std::lock_guard<std::mutex> lock(m_pConnection->GetMutex());
  int rc = sqlite3_step(m_pStatement.get());
  if (rc == SQLITE_ROW) {
    CScanDbConnection::ReadEntry(m_pStatement.get(), record);
    return CQiError();
  }
  m_bDone = true;
  if (rc == SQLITE_DONE) {
    // Let the connection's snapshot go at once; the statement is kept until Close().
    sqlite3_reset(m_pStatement.get());
    return QI_ERROR_WIN32(QiErrorCode::NoMoreFiles);
  }
  return SCANDB_ERROR(m_pConnection->GetHandle(), rc, "Cannot list the folder [%s]",
                      FXString::EscapeControl(m_strFolder).c_str());
}

void CScanDbFolderCursor::Close() {
  if (m_pStatement) {
    std::lock_guard<std::mutex> lock(m_pConnection->GetMutex());
    m_pConnection->ReleaseListStatement(std::move(m_pStatement));
  }
  m_pStatement.reset();
  m_pConnection.reset();
  m_bDone = false;
}
