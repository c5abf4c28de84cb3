#include "Platform/FXFile.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"

namespace {
std::string Printable(const std::string& path) { return FXString::EscapeControl(path); }

// The errno that a path the kernel cannot take gets, or 0 for a usable path.
int PathCheck(const std::string& path) {
  if (path.empty()) return ENOENT;
  if (path.find('\0') != std::string::npos) return EINVAL;
  return 0;
}

// Opens the listing with `open` and reads its first entry; the handle is closed on failure.
template <typename OpenFn>
CQiError FindFirst(auto_find_handle& handle, CFileData& record, long long options, OpenFn open) {
  handle.reset();
  DIR_Wrapper* pWrapper = handle.wrapper();
  if (pWrapper == nullptr)
    return QI_ERROR_WIN32(QiErrorCode::OutOfMemory, "Failed to allocate a find handle");
  CQiError error = open(*pWrapper);
  if (error.IsSuccess()) error = pWrapper->Next(record, options);
  if (error.IsError()) handle.reset();
  return error;
}
}  // namespace

std::string FXFile::FolderFromPattern(const std::string& pattern) {
  std::string folder = pattern;
  if (folder == "*") {
    folder = ".";
  } else if (folder.size() >= 2 && folder.compare(folder.size() - 2, 2, "/*") == 0) {
    folder.resize(folder.size() - 1);
  }
  while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
  return folder;
}

CQiError FXFile::ZRFindFirstFile(auto_find_handle& handle, const std::string& pattern,
                                 CFileData& record, long long options,
                                 const struct stat* pExpected) {
  const std::string folder = FolderFromPattern(pattern);
  CQiError error = FindFirst(handle, record, options,
                             [&](DIR_Wrapper& wrapper) { return wrapper.Open(folder, pExpected); });
  if (error.IsError()) return QI_PUSH(error);
  return CQiError();
}

CQiError FXFile::ZRFindFirstFileAt(auto_find_handle& handle, int iDirFd, const std::string& name,
                                   const std::string& folderPath, CFileData& record,
                                   long long options) {
  CQiError error = FindFirst(handle, record, options, [&](DIR_Wrapper& wrapper) {
    return wrapper.OpenAt(iDirFd, name, folderPath);
  });
  if (error.IsError()) return QI_PUSH(error);
  return CQiError();
}

CQiError FXFile::ZRFindNextFile(auto_find_handle& handle, CFileData& record, long long options) {
  DIR_Wrapper* pWrapper = handle.get();
  if (pWrapper == nullptr)
    return QI_ERROR_WIN32(QiErrorCode::InvalidHandle, "Find handle is not open");
  // Returned without a frame of its own: the end of a folder is the common case, and the
  // wrapper's frame already names the place.
  return pWrapper->Next(record, options);
}

CQiError FXFile::ZRReadStatus(auto_find_handle& handle, CFileData& record) {
  DIR_Wrapper* pWrapper = handle.get();
  if (pWrapper == nullptr)
    return QI_ERROR_WIN32(QiErrorCode::InvalidHandle, "Find handle is not open");
  QI_RETURN_IF_ERROR(pWrapper->ReadStatus(record));
  return CQiError();
}

void FXFile::ZRFindClose(auto_find_handle& handle) { handle.reset(); }

FILE* FXFile::zrfopen(const std::string& path, const std::string& mode) {
  int err = PathCheck(path);
  if (err == 0 && (mode.empty() || mode.find('\0') != std::string::npos)) err = EINVAL;
  if (err != 0) {
    errno = err;
    return nullptr;
  }
  if (mode.find('e') != std::string::npos) return fopen(path.c_str(), mode.c_str());
  const std::string withCloseOnExec = mode + "e";
  return fopen(path.c_str(), withCloseOnExec.c_str());
}

CQiError FXFile::zrfopen(const std::string& path, const std::string& mode, FILEPtr& file) {
  file.reset();
  if (path.empty()) return QI_ERROR_ERRNO(ENOENT, "Failed to open file: empty path");
  if (path.find('\0') != std::string::npos)
    return QI_ERROR_ERRNO(EINVAL, "Failed to open file: path holds a NUL byte, Path=%s",
                          Printable(path).c_str());
  if (mode.empty() || mode.find('\0') != std::string::npos)
    return QI_ERROR_ERRNO(EINVAL, "Failed to open file: invalid mode [%s], Path=%s",
                          Printable(mode).c_str(), Printable(path).c_str());
  FILE* pFile = zrfopen(path, mode);
  if (pFile == nullptr) {
    int err = errno;
    return QI_ERROR_ERRNO(err, "Failed to open file, Path=%s, Mode=%s", Printable(path).c_str(),
                          mode.c_str());
  }
  file.reset(pFile);
  return CQiError();
}

int FXFile::zrlstat(const std::string& path, struct stat& st) {
  int err = PathCheck(path);
  if (err != 0) {
    errno = err;
    return -1;
  }
  return lstat(path.c_str(), &st);
}

CQiError FXFile::GetDeviceSize(const std::string& path, uint64_t& size) {
  if (path.empty()) return QI_ERROR_ERRNO(ENOENT, "Failed to get device size: empty path");
  if (path.find('\0') != std::string::npos)
    return QI_ERROR_ERRNO(EINVAL, "Failed to get device size: path holds a NUL byte, Path=%s",
                          Printable(path).c_str());

  // Decide by stat first: opening a FIFO would block and opening a tape device may rewind it.
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    int err = errno;
    return QI_ERROR_ERRNO(err, "Failed to get device size: stat failed, Path=%s",
                          Printable(path).c_str());
  }
  if (S_ISREG(st.st_mode)) {
    size = static_cast<uint64_t>(st.st_size);
    return CQiError();
  }
  if (!S_ISBLK(st.st_mode))
    return QI_ERROR_ERRNO(ENOTBLK,
                          "Failed to get device size: not a block device or regular file, Path=%s",
                          Printable(path).c_str());

  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) {
    int err = errno;
    return QI_ERROR_ERRNO(err, "Failed to get device size: open failed, Path=%s",
                          Printable(path).c_str());
  }
  uint64_t bytes = 0;
  CQiError error;
  // The path may have changed between stat and open: check what was opened.
  if (fstat(fd, &st) != 0) {
    int err = errno;
    error = QI_ERROR_ERRNO(err, "Failed to get device size: fstat failed, Path=%s",
                           Printable(path).c_str());
  } else if (!S_ISBLK(st.st_mode)) {
    error = QI_ERROR_ERRNO(ENOTBLK,
                           "Failed to get device size: not a block device or regular file, Path=%s",
                           Printable(path).c_str());
  } else if (ioctl(fd, BLKGETSIZE64, &bytes) != 0) {
    int err = errno;
    error = QI_ERROR_ERRNO(err, "Failed to get device size: ioctl(BLKGETSIZE64) failed, Path=%s",
                           Printable(path).c_str());
  }
  close(fd);
  if (error.IsError()) return error;
  size = bytes;
  return CQiError();
}

CQiError FXFile::ReplaceWithText(const std::string& path, std::string_view text) {
  const std::string temp = path + ".tmp";
  const int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return QI_ERROR_ERRNO(errno, "Cannot create %s", FXString::EscapeControl(temp).c_str());
  int error = 0;
  for (size_t done = 0; done < text.size() && error == 0;) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n > 0) done += static_cast<size_t>(n);
    else if (n < 0 && errno != EINTR) error = errno;
  }
  if (error == 0 && fsync(fd) != 0) error = errno;
  close(fd);
  if (error == 0 && rename(temp.c_str(), path.c_str()) != 0) error = errno;
  if (error != 0) {
    unlink(temp.c_str());
    return QI_ERROR_ERRNO(error, "Cannot write %s", FXString::EscapeControl(path).c_str());
  }
  return CQiError();
}
