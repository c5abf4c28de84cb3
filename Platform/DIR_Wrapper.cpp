#include "Platform/DIR_Wrapper.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "Platform/BlockingCallWatch.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"
#include "Platform/FileData.h"
#include "Platform/ListingFolderCache.h"

namespace {
const std::string& EmptyString() {
  static const std::string kEmpty;
  return kEmpty;
}

// Paths go into messages escaped, so that a name holding a newline stays on one log line.
std::string Printable(const std::string& path) { return FXString::EscapeControl(path); }

// A traversal lists one folder after another, each through a wrapper of its own: the thread
// keeps the buffer of the last wrapper it destroyed for the next one it opens.
thread_local std::unique_ptr<char[]> t_pSpareBuffer;
}  // namespace

DIR_Wrapper::~DIR_Wrapper() {
  Close();
  if (m_pBuffer && !t_pSpareBuffer) t_pSpareBuffer = std::move(m_pBuffer);
}

const std::string& DIR_Wrapper::GetFolder() const {
  return m_pFolder ? *m_pFolder : EmptyString();
}

CQiError DIR_Wrapper::Open(const std::string& folder, const struct stat* pExpected) {
  QI_RETURN_IF_ERROR(OpenFd(AT_FDCWD, folder, folder, pExpected));
  return CQiError();
}

CQiError DIR_Wrapper::OpenAt(int iDirFd, const std::string& name, const std::string& folderPath,
                             const struct stat* pExpected) {
  if (iDirFd < 0)
    return QI_ERROR_ERRNO(EBADF, "Failed to open folder for listing: no parent folder open, Path=%s",
                          Printable(folderPath).c_str());
  QI_RETURN_IF_ERROR(OpenFd(iDirFd, name, folderPath, pExpected));
  return CQiError();
}

CQiError DIR_Wrapper::OpenFd(int iDirFd, const std::string& name, const std::string& folderPath,
                             const struct stat* pExpected) {
  Close();
  if (name.empty())
    return QI_ERROR_ERRNO(ENOENT, "Failed to open folder for listing: empty path");
  if (name.find('\0') != std::string::npos)
    return QI_ERROR_ERRNO(EINVAL, "Failed to open folder for listing: path holds a NUL byte, Path=%s",
                          Printable(folderPath).c_str());
  m_pWatch = CBlockingCallWatch::Current();
  int fd;
  if (iDirFd == AT_FDCWD) {
    fd = CListingFolderCache::Open(name);
  } else {
    CBlockingCallWatch::CCall call(m_pWatch);
    fd = openat(iDirFd, name.c_str(), CListingFolderCache::kOpenFlags);
  }
  if (fd < 0) {
    int err = errno;
    return QI_ERROR_ERRNO(err, "Failed to open folder for listing, Path=%s",
                          Printable(folderPath).c_str());
  }
  if (pExpected != nullptr) {
    struct stat opened;
    int iStat;
    {
      CBlockingCallWatch::CCall call(m_pWatch);
      iStat = fstat(fd, &opened);
    }
    if (iStat != 0 || opened.st_dev != pExpected->st_dev || opened.st_ino != pExpected->st_ino) {
      const int err = iStat != 0 ? errno : ESTALE;
      close(fd);
      return QI_ERROR_ERRNO(err,
                            "Folder was replaced between its listing and its opening, not "
                            "traversed, Path=%s",
                            Printable(folderPath).c_str());
    }
  }
  if (!m_pBuffer) m_pBuffer = std::move(t_pSpareBuffer);
  if (!m_pBuffer) {
    m_pBuffer.reset(new (std::nothrow) char[kBufferSize]);
    if (!m_pBuffer) {
      close(fd);
      return QI_ERROR_WIN32(QiErrorCode::OutOfMemory,
                            "Failed to allocate the listing buffer, Path=%s",
                            Printable(folderPath).c_str());
    }
  }
  m_iFd = fd;
  if (!m_pFolder || *m_pFolder != folderPath)
    m_pFolder = std::make_shared<const std::string>(folderPath);
  return CQiError();
}

void DIR_Wrapper::Close() {
  if (m_iFd >= 0) {
    // A traversal keeps the descriptor for opening the folder's sub-folders.
    if (!CListingFolderCache::Keep(m_pFolder, m_iFd)) close(m_iFd);
    m_iFd = -1;
  }
  m_pFolder.reset();
  m_uPos = m_uLen = 0;
  m_bEnd = false;
}

CQiError DIR_Wrapper::Fill() {
  ssize_t n;
  {
    CBlockingCallWatch::CCall call(m_pWatch);
    do {
      n = getdents64(m_iFd, m_pBuffer.get(), kBufferSize);
    } while (n < 0 && errno == EINTR);
  }
  if (n < 0) {
    int err = errno;
    return QI_ERROR_ERRNO(err, "Failed to read folder entries, Path=%s",
                          Printable(GetFolder()).c_str());
  }
  m_uPos = 0;
  m_uLen = static_cast<size_t>(n);
  if (n == 0) m_bEnd = true;
  return CQiError();
}

CQiError DIR_Wrapper::Next(CFileData& record, long long options) {
  if (m_iFd < 0) return QI_ERROR_WIN32(QiErrorCode::InvalidHandle, "Find handle is not open");
  if (m_uPos >= m_uLen && !m_bEnd) QI_RETURN_IF_ERROR(Fill());
  if (m_bEnd) return QI_ERROR_WIN32(QiErrorCode::NoMoreFiles);

  const auto* entry = reinterpret_cast<const struct dirent64*>(m_pBuffer.get() + m_uPos);
  m_uPos += entry->d_reclen;

  // Name and parent folder; the record now describes a full path.
  const size_t nameLen = strnlen(entry->d_name, entry->d_reclen - offsetof(struct dirent64, d_name));
  record.m_strFileName.assign(entry->d_name, nameLen);
  if (record.m_pParentDirectory != m_pFolder) record.m_pParentDirectory = m_pFolder;
  record.m_eMode = CFileData::kModeFullPath;
  record.m_bOffline = false;

  // The raw entry: struct dirent and struct dirent64 share one layout on 64-bit Linux.
  struct dirent& raw = record.m_dirent;
  raw.d_ino = entry->d_ino;
  raw.d_off = entry->d_off;
  raw.d_reclen = entry->d_reclen;
  raw.d_type = entry->d_type;
  const size_t copyLen = nameLen < sizeof(raw.d_name) - 1 ? nameLen : sizeof(raw.d_name) - 1;
  std::memcpy(raw.d_name, entry->d_name, copyLen);
  raw.d_name[copyLen] = '\0';

  // "." and ".." get no status: every caller skips them, and reading it would cost two
  // fstatat calls per folder listed.
  const bool bRelativeFolder =
      entry->d_name[0] == '.' && (nameLen == 1 || (nameLen == 2 && entry->d_name[1] == '.'));
  if ((options & kOptionNoStatus) || bRelativeFolder) {
    record.m_iStatusState = CFileData::kStatusNotRead;
    record.m_iLastError = 0;
    std::memset(&record.m_stat, 0, sizeof(record.m_stat));
  } else {
    StatEntry(entry->d_name, record);
  }
  return CQiError();
}

CQiError DIR_Wrapper::ReadStatus(CFileData& record) {
  if (m_iFd < 0) return QI_ERROR_WIN32(QiErrorCode::InvalidHandle, "Find handle is not open");
  StatEntry(record.m_strFileName.c_str(), record);
  return CQiError();
}

void DIR_Wrapper::StatEntry(const char* szName, CFileData& record) {
  int iResult;
  {
    CBlockingCallWatch::CCall call(m_pWatch);
    iResult = fstatat(m_iFd, szName, &record.m_stat, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT);
  }
  if (iResult == 0) {
    record.m_iStatusState = CFileData::kStatusValid;
    record.m_iLastError = 0;
  } else {
    record.m_iLastError = errno;
    record.m_iStatusState = CFileData::kStatusFailed;
    std::memset(&record.m_stat, 0, sizeof(record.m_stat));
  }
}
