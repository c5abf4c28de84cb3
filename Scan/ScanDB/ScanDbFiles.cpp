#include "Scan/ScanDB/ScanDbFiles.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Scan/ScanDB/ScanDbConnection.h"
#include "Scan/ScanDB/ScanDbStore.h"

namespace {
const char* const kSideFiles[] = {"-wal", "-shm", "-journal"};

std::string Shown(const std::string& text) { return FXString::EscapeControl(text); }

CQiError CheckFolderName(const std::string& strFolder) {
  if (strFolder.empty())
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "The scan database folder is empty");
  if (strFolder.find('\0') != std::string::npos)
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                          "The scan database folder [%s] holds a NUL byte",
                          Shown(strFolder).c_str());
  return CQiError();
}

std::string DatabaseFile(const std::string& strFolder) {
  return strFolder + "/" + CScanDbStore::kDatabaseFileName;
}

// Flushes a file or folder to disk, so that a rename made after it never exposes a file whose
// data is still only in memory, and a rename made before it survives a power loss.
CQiError SyncPath(const std::string& strPath, bool bFolder) {
  int fd = open(strPath.c_str(), O_RDONLY | O_CLOEXEC | (bFolder ? O_DIRECTORY : 0));
  if (fd < 0) return QI_ERROR_ERRNO(errno, "Cannot open %s to flush it", Shown(strPath).c_str());
  int rc = fsync(fd);
  int err = errno;
  close(fd);
  if (rc != 0) return QI_ERROR_ERRNO(err, "Cannot flush %s to disk", Shown(strPath).c_str());
  return CQiError();
}

CQiError MakeParentFolder(const std::string& strFolder) {
  std::string strParent = FXPath::GetParent(strFolder);
  if (strParent.empty()) return CQiError();
  std::error_code ec;
  std::filesystem::create_directories(strParent, ec);
  if (ec)
    return QI_ERROR_ERRNO(ec.value(), "Cannot create the folder %s: %s", Shown(strParent).c_str(),
                          ec.message().c_str());
  return CQiError();
}

struct SSqliteCloser {
  void operator()(sqlite3* pDb) const { sqlite3_close_v2(pDb); }
};
struct SBackupFinisher {
  void operator()(sqlite3_backup* pBackup) const { sqlite3_backup_finish(pBackup); }
};
}  // namespace

const char* CScanDbFiles::GetKindName(EScanDbKind eKind) {
  switch (eKind) {
    case EScanDbKind::kFull:
      return "FullBackupDatabase";
    case EScanDbKind::kCurrent:
      return "CurrentBackupDatabase";
    case EScanDbKind::kTemporary:
      return "TemporaryBackupDatabase";
  }
  return "UnknownBackupDatabase";
}

std::string CScanDbFiles::GetKindFolder(const std::string& strPrefix, EScanDbKind eKind) {
  return strPrefix + "_" + GetKindName(eKind);
}

bool CScanDbFiles::Exists(const std::string& strFolder) {
  struct stat st;
  return !strFolder.empty() && stat(DatabaseFile(strFolder).c_str(), &st) == 0 &&
         S_ISREG(st.st_mode);
}

CQiError CScanDbFiles::Remove(const std::string& strFolder) {
  QI_RETURN_IF_ERROR(CheckFolderName(strFolder));
  const std::string strFile = DatabaseFile(strFolder);
  // The log files first: a database file left without its log is consistent, a log left
  // without its database would be applied to whatever database takes the name next.
  for (const char* szSuffix : kSideFiles) {
    std::string strSide = strFile + szSuffix;
    if (unlink(strSide.c_str()) != 0 && errno != ENOENT)
      return QI_ERROR_ERRNO(errno, "Cannot Remove Database files in %s Directory",
                            Shown(strFolder).c_str());
  }
  if (unlink(strFile.c_str()) != 0 && errno != ENOENT && errno != ENOTDIR)
    return QI_ERROR_ERRNO(errno, "Cannot Remove Database files in %s Directory",
                          Shown(strFolder).c_str());
  if (rmdir(strFolder.c_str()) != 0 && errno != ENOENT)
    return QI_ERROR_ERRNO(errno, "Cannot remove the scan database folder %s",
                          Shown(strFolder).c_str());
  ZRLOG(2, "Removed the scan database folder %s", Shown(strFolder).c_str());
  return CQiError();
}

CQiError CScanDbFiles::Replace(const std::string& strFromFolder, const std::string& strToFolder) {
  QI_RETURN_IF_ERROR(CheckFolderName(strFromFolder));
  QI_RETURN_IF_ERROR(CheckFolderName(strToFolder));
  const std::string strFrom = FXPath::RemoveTrailingDelimiters(strFromFolder);
  const std::string strTo = FXPath::RemoveTrailingDelimiters(strToFolder);
  if (strFrom == strTo)
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                          "Cannot replace the scan database %s with itself", Shown(strTo).c_str());
  if (!Exists(strFrom))
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "There is no scan database in %s",
                          Shown(strFrom).c_str());
  QI_RETURN_IF_ERROR(MakeParentFolder(strTo));

  // rename(2) also takes the place of an empty folder.
  if (rename(strFrom.c_str(), strTo.c_str()) != 0) {
    if (errno != EEXIST && errno != ENOTEMPTY)
      return QI_ERROR_ERRNO(errno, "Cannot move the scan database from %s to %s",
                            Shown(strFrom).c_str(), Shown(strTo).c_str());
    if (renameat2(AT_FDCWD, strFrom.c_str(), AT_FDCWD, strTo.c_str(), RENAME_EXCHANGE) == 0) {
      // The old database is now in the source folder.
      CQiError err = Remove(strFrom);
      if (err.IsError())
        ZRLOG(-1,
              "The scan database in %s was replaced, but its old files in %s could not be "
              "removed, error=%s",
              Shown(strTo).c_str(), Shown(strFrom).c_str(), err.AsString().c_str());
    } else if (errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP) {
      const std::string strAside = strTo + ".replaced";
      QI_RETURN_IF_ERROR(Remove(strAside));
      if (rename(strTo.c_str(), strAside.c_str()) != 0)
        return QI_ERROR_ERRNO(errno, "Cannot move the scan database %s aside to %s",
                              Shown(strTo).c_str(), Shown(strAside).c_str());
      if (rename(strFrom.c_str(), strTo.c_str()) != 0) {
        CQiError err = QI_ERROR_ERRNO(errno, "Cannot move the scan database from %s to %s",
                                      Shown(strFrom).c_str(), Shown(strTo).c_str());
        if (rename(strAside.c_str(), strTo.c_str()) != 0)
          err.AppendText("; the previous database is left in %s", Shown(strAside).c_str());
        return err;
      }
      CQiError err = Remove(strAside);
      if (err.IsError())
        ZRLOG(-1,
              "The scan database in %s was replaced, but its old files in %s could not be "
              "removed, error=%s",
              Shown(strTo).c_str(), Shown(strAside).c_str(), err.AsString().c_str());
    } else {
      return QI_ERROR_ERRNO(errno, "Cannot exchange the scan databases %s and %s",
                            Shown(strFrom).c_str(), Shown(strTo).c_str());
    }
  }
  QI_RETURN_IF_ERROR(
      SyncPath(FXPath::GetParent(strTo).empty() ? "." : FXPath::GetParent(strTo), true));
  std::string strFromParent = FXPath::GetParent(strFrom);
  if (strFromParent != FXPath::GetParent(strTo))
    QI_RETURN_IF_ERROR(SyncPath(strFromParent.empty() ? "." : strFromParent, true));
  ZRLOG(2, "Replaced the scan database in %s with the one from %s", Shown(strTo).c_str(),
        Shown(strFrom).c_str());
  return CQiError();
}

CQiError CScanDbFiles::Copy(const std::string& strFromFolder, const std::string& strToFolder) {
  QI_RETURN_IF_ERROR(CheckFolderName(strFromFolder));
  QI_RETURN_IF_ERROR(CheckFolderName(strToFolder));
  const std::string strFrom = FXPath::RemoveTrailingDelimiters(strFromFolder);
  const std::string strTo = FXPath::RemoveTrailingDelimiters(strToFolder);
  if (strFrom == strTo)
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter,
                          "Cannot copy the scan database %s onto itself", Shown(strTo).c_str());

  // Opening checks that the source is a scan database and brings a log left by an unclean stop
  // into view; the copy then reads one consistent snapshot.
  CScanDbConnectionPtr pSource;
  QI_RETURN_IF_ERROR(CScanDbConnection::Open(DatabaseFile(strFrom), false, pSource),
                     "Cannot copy database files from %s to %s", Shown(strFrom).c_str(),
                     Shown(strTo).c_str());

  const std::string strStaging = strTo + ".copying";
  QI_RETURN_IF_ERROR(Remove(strStaging), "Cannot clear the staging folder of a copy");
  std::error_code ec;
  std::filesystem::create_directories(strStaging, ec);
  if (ec)
    return QI_ERROR_ERRNO(ec.value(), "Cannot create the folder %s: %s", Shown(strStaging).c_str(),
                          ec.message().c_str());
  const std::string strStagingFile = DatabaseFile(strStaging);
  CQiError err;
  {
    sqlite3* pRawDest = nullptr;
    int rc =
        sqlite3_open_v2(strStagingFile.c_str(), &pRawDest,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    std::unique_ptr<sqlite3, SSqliteCloser> pDest(pRawDest);
    if (rc != SQLITE_OK) {
      err =
          SCANDB_ERROR(pDest.get(), rc, "Cannot create the copy %s", Shown(strStagingFile).c_str());
    } else {
      std::lock_guard<std::mutex> lock(pSource->GetMutex());
      std::unique_ptr<sqlite3_backup, SBackupFinisher> pBackup(
          sqlite3_backup_init(pDest.get(), "main", pSource->GetHandle(), "main"));
      if (!pBackup) {
        err = SCANDB_ERROR(pDest.get(), sqlite3_errcode(pDest.get()), "Cannot start copying %s",
                           Shown(strFrom).c_str());
      } else {
        rc = sqlite3_backup_step(pBackup.get(), -1);
        int rcFinish = sqlite3_backup_finish(pBackup.release());
        if (rc != SQLITE_DONE)
          err = SCANDB_ERROR(nullptr, rc, "Cannot copy database files from %s to %s",
                             Shown(strFrom).c_str(), Shown(strTo).c_str());
        else if (rcFinish != SQLITE_OK)
          err = SCANDB_ERROR(pDest.get(), rcFinish, "Cannot copy database files from %s to %s",
                             Shown(strFrom).c_str(), Shown(strTo).c_str());
      }
    }
    if (err.IsSuccess()) {
      rc = sqlite3_close(pDest.release());
      if (rc != SQLITE_OK)
        err = SCANDB_ERROR(nullptr, rc, "Cannot close the copy %s", Shown(strStagingFile).c_str());
    }
  }
  pSource.reset();
  if (err.IsSuccess()) err = SyncPath(strStagingFile, false);
  if (err.IsSuccess()) err = SyncPath(strStaging, true);
  if (err.IsSuccess()) err = Replace(strStaging, strTo);
  if (err.IsError()) {
    CQiError cleanup = Remove(strStaging);
    if (cleanup.IsError())
      ZRLOG(-1, "Cannot remove the unfinished copy %s, error=%s", Shown(strStaging).c_str(),
            cleanup.AsString().c_str());
    return QI_PUSH(err);
  }
  ZRLOG(2, "Copied the scan database from %s to %s", Shown(strFrom).c_str(), Shown(strTo).c_str());
  return CQiError();
}
