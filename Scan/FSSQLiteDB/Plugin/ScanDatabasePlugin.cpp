// The exports of the scan-database plug-in "ZrFSSQLiteDB" (the contract is in
// Scan/FSSQLiteDB/ScanDatabaseBase.h). Only these two symbols are visible outside the module.

#include <new>

#include "Scan/FSSQLiteDB/Plugin/SQLiteScanDatabase.h"

extern "C" {

__attribute__((visibility("default"))) FSDB::CScanDatabaseBase* GetDatabaseObject(
    const std::string& strDatabasePath, FSDB::DatabaseType eType, bool bReadOnly) {
  // Nothing may leave the module as an exception: a failure is a null object.
  try {
    return new (std::nothrow) CSQLiteScanDatabase(strDatabasePath, eType, bReadOnly);
  } catch (...) {
    return nullptr;
  }
}

__attribute__((visibility("default"))) void DestroyDatabaseObject(
    FSDB::CScanDatabaseBase* pDatabase) {
  delete pDatabase;
}

}  // extern "C"

// The exports must keep the contract's types.
static_assert(std::is_same_v<decltype(&GetDatabaseObject), FSDB::PFGetDatabaseObject>);
static_assert(std::is_same_v<decltype(&DestroyDatabaseObject), FSDB::PFDestroyDatabaseObject>);
