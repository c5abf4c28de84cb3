// A fake scan-database plug-in for the wrapper's tests, built twice under the real plug-in's file
// name (libZrFSSQLiteDB.so), each in a folder of its own: complete, and without
// "DestroyDatabaseObject" (FSSCAN_FAKE_SCANDB_LACKS_DESTROY). What it does depends on the database
// path it is given:
//   ".../null-object"  GetDatabaseObject returns null;
//   ".../close-fails"  the object's Close fails (Win32 1627 "Fake close failure");
//   anything else      every operation succeeds and stores nothing.
// FakeScanDatabaseCreated/FakeScanDatabaseDestroyed count the objects made and freed.

#include "Platform/ErrorCodes.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"
#include "Scan/FSSQLiteDB/ScanDatabaseBase.h"

namespace {

int s_iCreated = 0;
int s_iDestroyed = 0;

using FSDB::CDatabaseItemPtr;
using Path = const std::string&;

class CFakeScanDatabase : public FSDB::CScanDatabaseBase {
 public:
  explicit CFakeScanDatabase(bool bCloseFails) : m_bCloseFails(bCloseFails) {}
  CQiError SetBulkInsertMode(bool) override { return CQiError(); }
  CQiError Open(bool) override { return CQiError(); }
  CQiError Close() override {
    return m_bCloseFails ? QI_ERROR_WIN32(QiErrorCode::FunctionFailed, "Fake close failure") : CQiError();
  }
  CQiError AddFile(Path, const CDatabaseItemPtr&) override { return CQiError(); }
  CQiError AddFolder(Path, const CDatabaseItemPtr&) override { return CQiError(); }
  CQiError DeleteFile(Path, const CDatabaseItemPtr&) override { return CQiError(); }
  CQiError DeleteFolder(Path, const CDatabaseItemPtr&) override { return CQiError(); }
  CQiError RenameFile(Path, Path, const CDatabaseItemPtr&, const CDatabaseItemPtr&) override { return CQiError(); }
  CQiError RenameFolder(Path, Path, const CDatabaseItemPtr&, const CDatabaseItemPtr&) override { return CQiError(); }
  CQiError QueryFolderItems(Path, int64_t, std::list<CDatabaseItemPtr>& lstItems) override {
    lstItems.clear();
    return CQiError();
  }
  CQiError QueryItem(Path, CDatabaseItemPtr&) override {
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "Fake store holds nothing");
  }

 private:
  bool m_bCloseFails;
};

}  // namespace

extern "C" {

__attribute__((visibility("default"))) FSDB::CScanDatabaseBase* GetDatabaseObject(const std::string& strDatabasePath,
                                                                                   FSDB::DatabaseType, bool) {
  if (FXString::EndsWith(strDatabasePath, "/null-object")) return nullptr;
  ++s_iCreated;
  return new CFakeScanDatabase(FXString::EndsWith(strDatabasePath, "/close-fails"));
}

#ifndef FSSCAN_FAKE_SCANDB_LACKS_DESTROY
__attribute__((visibility("default"))) void DestroyDatabaseObject(FSDB::CScanDatabaseBase* pDatabase) {
  if (pDatabase != nullptr) ++s_iDestroyed;
  delete pDatabase;
}
#endif

__attribute__((visibility("default"))) int FakeScanDatabaseCreated() { return s_iCreated; }
__attribute__((visibility("default"))) int FakeScanDatabaseDestroyed() { return s_iDestroyed; }

}  // extern "C"
