#include "Scan/Unix/LustreReaderFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"

namespace {
std::string Esc(const std::string& strText) { return FXString::EscapeControl(strText); }

// The value of "key:" among the tab-separated fields; false when absent.
bool Field(const std::vector<std::string>& lstFields, const char* szKey, std::string& strValue) {
  for (const std::string& strField : lstFields) {
    if (FXString::StartsWith(strField, szKey)) {
      strValue = strField.substr(strlen(szKey));
      return true;
    }
  }
  return false;
}
}  // namespace

CQiError CLustreReaderFile::Write(const std::string& strFile, const std::vector<sLustreChangelogInfo>& lstInfo,
                                  bool bIndex) {
  std::string strText;
  for (const sLustreChangelogInfo& info : lstInfo) {
    strText += "MDT:" + info.strMDT + "\tHost:" + info.strHost + "\tChangelogID:" + info.strChangelogId;
    if (bIndex) strText += "\tCurrentIndex:" + std::to_string(info.llEndIndex);
    strText += "\n";
  }
  const std::string strTemp = strFile + ".tmp";
  const int fd = open(strTemp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return QI_ERROR_ERRNO(errno, "Cannot create %s", Esc(strTemp).c_str());
  int iError = 0;
  for (size_t uDone = 0; uDone < strText.size() && iError == 0;) {
    const ssize_t n = write(fd, strText.data() + uDone, strText.size() - uDone);
    if (n > 0) uDone += static_cast<size_t>(n);
    else if (n < 0 && errno != EINTR) iError = errno;
  }
  if (iError == 0 && fsync(fd) != 0) iError = errno;
  close(fd);
  if (iError == 0 && rename(strTemp.c_str(), strFile.c_str()) != 0) iError = errno;
  if (iError != 0) {
    unlink(strTemp.c_str());
    return QI_ERROR_ERRNO(iError, "Cannot write %s", Esc(strFile).c_str());
  }
  return CQiError();
}

CQiError CLustreReaderFile::Read(const std::string& strFile, std::vector<sLustreChangelogInfo>& lstInfo, bool bIndex) {
  lstInfo.clear();
  std::ifstream in(strFile, std::ios::binary);
  if (!in.is_open()) return QI_ERROR_ERRNO(errno != 0 ? errno : ENOENT, "Cannot open %s", Esc(strFile).c_str());
  for (std::string strLine; std::getline(in, strLine);) {
    if (strLine.empty()) continue;
    const std::vector<std::string> lstFields = FXString::Split(strLine, '\t');
    sLustreChangelogInfo info;
    std::string strIndex;
    long long llIndex = 0;
    if (!Field(lstFields, "MDT:", info.strMDT) || !Field(lstFields, "Host:", info.strHost) ||
        !Field(lstFields, "ChangelogID:", info.strChangelogId) || info.strMDT.empty() || info.strChangelogId.empty() ||
        (bIndex && (!Field(lstFields, "CurrentIndex:", strIndex) || FXString::ToInt64(strIndex, llIndex).IsError())))
      return QI_ERROR_WIN32(QiErrorCode::InvalidData, "Invalid line [%s] in %s", Esc(strLine).c_str(),
                            Esc(strFile).c_str());
    info.llEndIndex = llIndex;
    lstInfo.push_back(info);
  }
  if (in.bad()) return QI_ERROR_ERRNO(EIO, "Cannot read %s", Esc(strFile).c_str());
  if (lstInfo.empty() && bIndex)
    return QI_ERROR_WIN32(QiErrorCode::InvalidData, "The Changelog Reader Statistics File is Empty.");
  if (lstInfo.empty())
    return QI_ERROR_WIN32(QiErrorCode::InvalidData, "The Changelog readers file %s is empty.", Esc(strFile).c_str());
  return CQiError();
}
