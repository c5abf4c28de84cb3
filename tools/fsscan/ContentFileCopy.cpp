#include "ContentFileCopy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"

namespace {

// Closes a descriptor when it goes out of scope.
class CFd {
 public:
  explicit CFd(int iFd) : m_iFd(iFd) {}
  ~CFd() {
    if (m_iFd >= 0) close(m_iFd);
  }
  CFd(const CFd&) = delete;
  CFd& operator=(const CFd&) = delete;
  int Get() const { return m_iFd; }
  // Closes now; the errno of a failed close (a write reported late), else 0.
  int Close() {
    const int iFd = m_iFd;
    m_iFd = -1;
    return close(iFd) == 0 ? 0 : errno;
  }

 private:
  int m_iFd;
};

int ErrNoOr(int iDefault) { return errno != 0 ? errno : iDefault; }

// The descriptor that names such as "/dev/stdin", "/dev/fd/N" or "/proc/self/fd/N" stand for,
// -1 for any other name. Such a descriptor is read through a copy of its own rather than opened
// again by name: a pipe or a socket cannot always be (another owner's pipe, a socket at all).
int InheritedDescriptor(const std::string& strPath) {
  if (strPath == "/dev/stdin") return STDIN_FILENO;
  for (const char* szPrefix : {"/dev/fd/", "/proc/self/fd/"}) {
    const std::string_view prefix(szPrefix);
    if (strPath.compare(0, prefix.size(), prefix) != 0 || strPath.size() == prefix.size()) continue;
    int iFd = 0;
    for (size_t i = prefix.size(); i < strPath.size(); ++i) {
      if (strPath[i] < '0' || strPath[i] > '9' || iFd > 1000000) return -1;
      iFd = iFd * 10 + (strPath[i] - '0');
    }
    return iFd;
  }
  return -1;
}

}  // namespace

CContentFileCopy::~CContentFileCopy() {
  if (!m_strPath.empty()) unlink(m_strPath.c_str());
  if (!m_strFolder.empty()) rmdir(m_strFolder.c_str());
}

CQiError CContentFileCopy::Make(const std::string& strSource) {
  const std::string strShown = FXString::EscapeControl(strSource);
  // A FIFO blocks here until its writer opens it, as for any reader of a FIFO.
  const int iInherited = InheritedDescriptor(strSource);
  CFd source(iInherited >= 0 && fcntl(iInherited, F_GETFD) >= 0 ? fcntl(iInherited, F_DUPFD_CLOEXEC, 0)
                                                                : open(strSource.c_str(), O_RDONLY | O_CLOEXEC));
  if (source.Get() < 0) return QI_ERROR_ERRNO(ErrNoOr(EIO), "cannot read the content file '%s'", strShown.c_str());
  struct stat st {};
  if (fstat(source.Get(), &st) != 0)
    return QI_ERROR_ERRNO(ErrNoOr(EIO), "cannot read the content file '%s'", strShown.c_str());
  if (S_ISDIR(st.st_mode)) return QI_ERROR_ERRNO(EISDIR, "cannot read the content file '%s'", strShown.c_str());

  const char* szTmp = getenv("TMPDIR");
  std::string strTemplate = (szTmp != nullptr && szTmp[0] == '/') ? szTmp : "/tmp";
  if (strTemplate.size() > 1 && strTemplate.back() == '/') strTemplate.pop_back();
  strTemplate += "/fsscan.XXXXXX";
  std::vector<char> szFolder(strTemplate.begin(), strTemplate.end());
  szFolder.push_back('\0');
  if (mkdtemp(szFolder.data()) == nullptr)
    return QI_ERROR_ERRNO(ErrNoOr(EIO), "cannot write a copy of the content file in '%s'",
                          FXString::EscapeControl(strTemplate).c_str());
  m_strFolder = szFolder.data();
  const std::string strFolderShown = FXString::EscapeControl(m_strFolder);
  const std::string strPath = m_strFolder + "/content";
  CFd copy(open(strPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (copy.Get() < 0)
    return QI_ERROR_ERRNO(ErrNoOr(EIO), "cannot write a copy of the content file in '%s'", strFolderShown.c_str());
  m_strPath = strPath;

  std::vector<char> buffer(1 << 16);
  for (;;) {
    const ssize_t nRead = read(source.Get(), buffer.data(), buffer.size());
    if (nRead < 0 && errno == EINTR) continue;
    if (nRead < 0) return QI_ERROR_ERRNO(ErrNoOr(EIO), "cannot read the content file '%s'", strShown.c_str());
    if (nRead == 0) break;
    for (ssize_t nDone = 0; nDone < nRead;) {
      const ssize_t nWritten = write(copy.Get(), buffer.data() + nDone, static_cast<size_t>(nRead - nDone));
      if (nWritten < 0 && errno == EINTR) continue;
      if (nWritten <= 0)
        return QI_ERROR_ERRNO(nWritten < 0 ? ErrNoOr(EIO) : EIO, "cannot write a copy of the content file in '%s'",
                              strFolderShown.c_str());
      nDone += nWritten;
    }
  }
  if (const int iError = copy.Close(); iError != 0)
    return QI_ERROR_ERRNO(iError, "cannot write a copy of the content file in '%s'", strFolderShown.c_str());
  return CQiError();
}
