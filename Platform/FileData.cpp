#include "Platform/FileData.h"

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "Platform/BlockingCallWatch.h"
#include "Platform/FXFile.h"
#include "Platform/FXPath.h"

namespace {
const std::string& EmptyString() {
  static const std::string kEmpty;
  return kEmpty;
}
}  // namespace

CFileData::CFileData() {
  std::memset(&m_dirent, 0, sizeof(m_dirent));
  std::memset(&m_stat, 0, sizeof(m_stat));
}

CFileData::CFileData(const std::string& path, FileNameMode mode, const struct stat* pStat)
    : CFileData() {
  m_eMode = mode;
  if (mode == kModeFullPath) {
    std::string parent;
    // An empty path has nothing to split: both parts stay empty and the lstat fails later.
    if (FXPath::SplitParent(path, parent, m_strFileName).IsSuccess() && !parent.empty())
      m_pParentDirectory = std::make_shared<const std::string>(std::move(parent));
    if (pStat != nullptr) {
      m_stat = *pStat;
      m_iStatusState = kStatusValid;
    }
  } else if (!path.empty()) {
    m_pParentDirectory = std::make_shared<const std::string>(path);
  }
}

CFileData& CFileData::operator=(const CFileData& other) {
  if (this == &other) return *this;
  // The entry's header and its name: what follows the name's NUL is never read.
  const size_t nName = strnlen(other.m_dirent.d_name, sizeof(other.m_dirent.d_name) - 1);
  std::memcpy(&m_dirent, &other.m_dirent, offsetof(struct dirent, d_name) + nName);
  m_dirent.d_name[nName] = '\0';
  m_stat = other.m_stat;
  m_strFileName = other.m_strFileName;
  if (m_pParentDirectory != other.m_pParentDirectory) m_pParentDirectory = other.m_pParentDirectory;
  m_iStatusState = other.m_iStatusState;
  m_iLastError = other.m_iLastError;
  m_eMode = other.m_eMode;
  m_bOffline = other.m_bOffline;
  return *this;
}

bool CFileData::getFileInfo() {
  if (m_iStatusState == kStatusNotRead) {
    const std::string path = m_eMode == kModeFullPath ? getFullPath() : m_strFileName;
    int iResult;
    {
      CBlockingCallWatch::CCall call;
      iResult = FXFile::zrlstat(path, m_stat);
    }
    if (iResult == 0) {
      m_iStatusState = kStatusValid;
      m_iLastError = 0;
    } else {
      m_iLastError = errno;
      m_iStatusState = kStatusFailed;
      std::memset(&m_stat, 0, sizeof(m_stat));
    }
  }
  return m_iStatusState == kStatusValid;
}

bool CFileData::isRelativeFolder() const {
  return m_strFileName == "." || m_strFileName == "..";
}

const std::string& CFileData::getParentDirectoryName() const {
  return m_pParentDirectory ? *m_pParentDirectory : EmptyString();
}

void CFileData::setParentDirectoryName(const std::string& parent) {
  if (parent.empty())
    m_pParentDirectory.reset();
  else if (!m_pParentDirectory || *m_pParentDirectory != parent)
    m_pParentDirectory = std::make_shared<const std::string>(parent);
}

std::string CFileData::getFullPath() const {
  return FXPath::Append(getParentDirectoryName(), m_strFileName);
}

uint64_t CFileData::getSize() const {
  return isValid() ? static_cast<uint64_t>(m_stat.st_size) : 0;
}

uint32_t CFileData::getAttributes() const {
  return isValid() ? static_cast<uint32_t>(m_stat.st_mode) : kAttributesUnknown;
}

CTimeStamp CFileData::getCreationTime() const {
  if (!isValid()) return CTimeStamp();
  CTimeStamp changed(m_stat.st_ctim), written(m_stat.st_mtim);
  return written < changed ? written : changed;
}

CTimeStamp CFileData::getLastWriteTime() const {
  return isValid() ? CTimeStamp(m_stat.st_mtim) : CTimeStamp();
}

CTimeStamp CFileData::getLastAccessTime() const {
  return isValid() ? CTimeStamp(m_stat.st_atim) : CTimeStamp();
}

CTimeStamp CFileData::getLastChangeTime() const {
  return isValid() ? CTimeStamp(m_stat.st_ctim) : CTimeStamp();
}

uint64_t CFileData::getFileID() const {
  return isValid() ? static_cast<uint64_t>(m_stat.st_ino) : 0;
}

uint64_t CFileData::getDeviceId() const {
  return isValid() ? static_cast<uint64_t>(m_stat.st_dev) : 0;
}

CQiError CFileData::GetDeviceSize(uint64_t& size) const {
  QI_RETURN_IF_ERROR(FXFile::GetDeviceSize(getFullPath(), size));
  return CQiError();
}
