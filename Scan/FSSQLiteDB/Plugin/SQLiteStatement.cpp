#include "Scan/FSSQLiteDB/Plugin/SQLiteStatement.h"

int CSQLiteStatement::Prepare(sqlite3* pDb, const char* pszSql) {
  Finalize();
  m_pszSql = pszSql;
  return sqlite3_prepare_v3(pDb, pszSql, -1, SQLITE_PREPARE_PERSISTENT, &m_pStatement, nullptr);
}

void CSQLiteStatement::Finalize() {
  if (m_pStatement != nullptr) {
    sqlite3_finalize(m_pStatement);
    m_pStatement = nullptr;
  }
}

std::string CSQLiteStatement::ColumnBlob(int iColumn) const {
  // The pointer first, then the size (the documented order).
  const void* pData = sqlite3_column_blob(m_pStatement, iColumn);
  const int iBytes = sqlite3_column_bytes(m_pStatement, iColumn);
  if (pData == nullptr || iBytes <= 0) return std::string();
  return std::string(static_cast<const char*>(pData), static_cast<size_t>(iBytes));
}
