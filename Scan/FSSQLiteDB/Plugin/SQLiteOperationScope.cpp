#include "Scan/FSSQLiteDB/Plugin/SQLiteOperationScope.h"

CSQLiteOperationScope::~CSQLiteOperationScope() {
  if (!m_bActive) return;
  if (m_bInTransaction) {
    // Undo the operation, keep the enclosing transaction.
    StepOnce(*m_savepoint.pRollback);
    StepOnce(*m_savepoint.pRelease);
  } else {
    sqlite3_exec(m_pDb, "ROLLBACK", nullptr, nullptr, nullptr);
  }
}

int CSQLiteOperationScope::Begin() {
  const int iResult = m_bInTransaction
                          ? StepOnce(*m_savepoint.pBegin)
                          : sqlite3_exec(m_pDb, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
  m_bActive = iResult == SQLITE_OK;
  return iResult;
}

int CSQLiteOperationScope::Commit() {
  if (!m_bActive) return SQLITE_OK;
  const int iResult = m_bInTransaction
                          ? StepOnce(*m_savepoint.pRelease)
                          : sqlite3_exec(m_pDb, "COMMIT", nullptr, nullptr, nullptr);
  if (iResult == SQLITE_OK) m_bActive = false;
  return iResult;
}

int CSQLiteOperationScope::StepOnce(CSQLiteStatement& statement) {
  CSQLiteStatement::CUse use(statement);
  const int iResult = statement.Step();
  return iResult == SQLITE_DONE ? SQLITE_OK : iResult;
}
