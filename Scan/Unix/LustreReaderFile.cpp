#include "Scan/Unix/LustreReaderFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "Platform/FXFile.h"
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
  QI_RETURN_IF_ERROR(FXFile::ReplaceWithText(strFile, strText));
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
