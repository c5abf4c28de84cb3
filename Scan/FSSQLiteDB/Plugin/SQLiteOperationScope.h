// CSQLiteOperationScope: one write operation of the scan-database store as a unit: a transaction
// of its own (BEGIN IMMEDIATE ... COMMIT), or, inside the bulk-insert transaction, a savepoint
// (SAVEPOINT ... RELEASE). Unless Commit succeeded, the destructor rolls the operation back, so
// an operation that fails half-way leaves nothing behind. The savepoint statements are the
// store's prepared ones (a bulk insert runs them for every folder).
//
// Begin and Commit return SQLite's result code; the store turns it into its error. One thread.
#pragma once

#include <sqlite3.h>

#include "Scan/FSSQLiteDB/Plugin/SQLiteStatement.h"

class CSQLiteOperationScope {
 public:
  struct SSavepoint {
    CSQLiteStatement* pBegin;     // SAVEPOINT name
    CSQLiteStatement* pRelease;   // RELEASE name
    CSQLiteStatement* pRollback;  // ROLLBACK TO name
  };

  // bInTransaction: a transaction is open already (bulk-insert mode); use the savepoint.
  CSQLiteOperationScope(sqlite3* pDb, bool bInTransaction, const SSavepoint& savepoint)
      : m_pDb(pDb), m_bInTransaction(bInTransaction), m_savepoint(savepoint) {}
  ~CSQLiteOperationScope();
  CSQLiteOperationScope(const CSQLiteOperationScope&) = delete;
  CSQLiteOperationScope& operator=(const CSQLiteOperationScope&) = delete;

  int Begin();
  // Does nothing (SQLITE_OK) when Begin was not called.
  int Commit();

 private:
  static int StepOnce(CSQLiteStatement& statement);

  sqlite3* m_pDb;
  bool m_bInTransaction;
  SSavepoint m_savepoint;
  bool m_bActive = false;
};
