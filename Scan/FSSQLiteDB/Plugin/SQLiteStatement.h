// CSQLiteStatement: one prepared SQLite statement, owned (finalized on destruction or Finalize).
//
// The scan-database store prepares each statement once when it opens and reuses it for every
// call: bind, step, read columns, and Reset (through a CSQLiteStatement::CUse guard, so that a
// statement never stays in the middle of a step and never keeps a read transaction open).
// Text such as paths and names is bound and read as BLOBs: file names are bytes, SQLite compares
// BLOBs with memcmp, and nothing is converted. Bound BLOBs are not copied: the caller keeps the
// bytes alive until the statement is reset.
//
// Threads: a statement belongs to one connection and is used by one thread at a time.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <string>
#include <string_view>

class CSQLiteStatement {
 public:
  CSQLiteStatement() = default;
  ~CSQLiteStatement() { Finalize(); }
  CSQLiteStatement(const CSQLiteStatement&) = delete;
  CSQLiteStatement& operator=(const CSQLiteStatement&) = delete;

  // Prepares the statement for reuse (SQLITE_PREPARE_PERSISTENT); returns SQLite's result code.
  int Prepare(sqlite3* pDb, const char* pszSql);
  void Finalize();
  bool IsPrepared() const { return m_pStatement != nullptr; }
  const char* GetSql() const { return m_pszSql; }

  void BindInt64(int iIndex, int64_t llValue) { sqlite3_bind_int64(m_pStatement, iIndex, llValue); }
  void BindBlob(int iIndex, std::string_view value) {
    // A zero-length BLOB still needs a non-null pointer, or SQLite binds NULL.
    sqlite3_bind_blob(m_pStatement, iIndex, value.empty() ? "" : value.data(),
                      static_cast<int>(value.size()), SQLITE_STATIC);
  }
  void BindNull(int iIndex) { sqlite3_bind_null(m_pStatement, iIndex); }

  // SQLITE_ROW, SQLITE_DONE or an error code.
  int Step() { return sqlite3_step(m_pStatement); }
  void Reset() {
    sqlite3_reset(m_pStatement);
    sqlite3_clear_bindings(m_pStatement);
  }

  int64_t ColumnInt64(int iColumn) const { return sqlite3_column_int64(m_pStatement, iColumn); }
  std::string ColumnBlob(int iColumn) const;
  bool ColumnIsNull(int iColumn) const {
    return sqlite3_column_type(m_pStatement, iColumn) == SQLITE_NULL;
  }

  // Resets the statement when the scope ends.
  class CUse {
   public:
    explicit CUse(CSQLiteStatement& statement) : m_statement(statement) {}
    ~CUse() { m_statement.Reset(); }
    CUse(const CUse&) = delete;
    CUse& operator=(const CUse&) = delete;

   private:
    CSQLiteStatement& m_statement;
  };

 private:
  sqlite3_stmt* m_pStatement = nullptr;
  const char* m_pszSql = "";
};
