// CScanDbFiles: the scan databases of a job as folders: their names, and copying, replacing and
// removing them between jobs.
//
// Each database kind lives in a folder named from a prefix chosen by the engine (normally the
// job results folder joined with the volume's name) and the kind: "<prefix>_FullBackupDatabase",
// "<prefix>_CurrentBackupDatabase", "<prefix>_TemporaryBackupDatabase". The folder holds the
// store's file (CScanDbStore::kDatabaseFileName) and, while it is open or after an unclean stop,
// SQLite's "-wal" and "-shm" files; moving the folder moves them together.
//
// Atomicity: the target folder of Copy and Replace always holds either the old database or the
// complete new one, never a mix:
//  - Copy writes the copy into "<to>.copying" with SQLite's backup API (a consistent snapshot of
//    the source, committed changes still in its log included, even while another connection has
//    it open), flushes it to disk, then puts it in place as Replace does.
//  - Replace moves the source folder onto the target: rename(2) when the target is absent, else
//    renameat2(RENAME_EXCHANGE), one atomic swap, after which the old database (now in the
//    source folder) is removed. A file system without RENAME_EXCHANGE falls back to two renames
//    through "<to>.replaced"; a crash between them leaves the target missing (and the old
//    database in "<to>.replaced"), which the engines treat like a missing database: a full scan.
// No store may be open on the target of Copy or on either folder of Replace.
//
// Errors: Win32 87 for an empty folder name or one holding a NUL byte; Win32 1168 when the
// source holds no database; the errno of the failed call otherwise, with a message naming the
// folder. All functions are stateless; different folders may be handled from different threads.
#pragma once

#include <string>

#include "Platform/QiError.h"
#include "Scan/ScanDB/ScanDbKind.h"

class CScanDbFiles {
 public:
  // "FullBackupDatabase", "CurrentBackupDatabase", "TemporaryBackupDatabase".
  static const char* GetKindName(EScanDbKind eKind);
  // strPrefix + "_" + GetKindName(eKind).
  static std::string GetKindFolder(const std::string& strPrefix, EScanDbKind eKind);

  // True when the folder holds a database file.
  static bool Exists(const std::string& strFolder);
  static CQiError Copy(const std::string& strFromFolder, const std::string& strToFolder);
  static CQiError Replace(const std::string& strFromFolder, const std::string& strToFolder);
  // Removes the database files and then the folder; a missing folder is success. A folder that
  // also holds other files is kept (errno 39, ENOTEMPTY) after its database files are removed.
  static CQiError Remove(const std::string& strFolder);
};
