// CScanDbFolderCursor: a streaming listing of one folder of a scan database, in name order
// (byte order of the names). Made by CScanDbStore::OpenFolderCursor; each Next() reads one row,
// so a folder of a million entries never sits in memory.
//
// The cursor shares the store's connection (it keeps it alive even after the store is closed)
// and takes the connection's lock for each step only, so several cursors and store operations
// may interleave. Entries added to or removed from the folder while it is being listed may or
// may not be seen. While a cursor is open the database log cannot be checkpointed past it: close
// cursors when done (the destructor does).
//
// Threads: one thread uses a cursor at a time.
#pragma once

#include <string>

#include "Platform/QiError.h"
#include "Scan/ScanDB/ScanDbConnection.h"
#include "Scan/ScanDB/ScanDbRecord.h"

class CScanDbFolderCursor {
 public:
  CScanDbFolderCursor();
  ~CScanDbFolderCursor();
  CScanDbFolderCursor(const CScanDbFolderCursor&) = delete;
  CScanDbFolderCursor& operator=(const CScanDbFolderCursor&) = delete;

  // Fills the record with the next entry; Win32 18 at the end of the folder, Win32 6 when the
  // cursor is not open.
  CQiError Next(CScanDbRecord& record);
  // Ends the listing (Next then answers Win32 6).
  void Close();
  bool IsOpen() const { return static_cast<bool>(m_pStatement); }
  const std::string& GetFolder() const { return m_strFolder; }

 private:
  friend class CScanDbStore;
  CQiError Open(const CScanDbConnectionPtr& pConnection, std::string strFolder);

  CScanDbConnectionPtr m_pConnection;
  TScanDbStatementPtr m_pStatement;
  std::string m_strFolder;  // bound to the statement; must live as long as it
  bool m_bDone = false;
};
