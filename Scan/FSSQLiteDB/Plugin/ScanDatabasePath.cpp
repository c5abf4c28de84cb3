#include "Scan/FSSQLiteDB/Plugin/ScanDatabasePath.h"

#include "Platform/ErrorCodes.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"

CQiError CScanDatabasePath::Normalize(const std::string& strPath, std::string_view& key,
                                      const char* pszRole) {
  if (strPath.empty()) {
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "The %s path is empty", pszRole);
  }
  if (strPath.find('\0') != std::string::npos) {
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "The %s path [%s] contains a NUL byte",
                          pszRole, FXString::EscapeControl(strPath).c_str());
  }
  size_t uLength = strPath.size();
  while (uLength > 1 && strPath[uLength - 1] == '/') --uLength;
  key = std::string_view(strPath.data(), uLength);
  return CQiError();
}

void CScanDatabasePath::Split(std::string_view path, std::string_view& parent,
                              std::string_view& name) {
  const size_t uSlash = path.rfind('/');
  if (uSlash == std::string_view::npos || path.size() == 1) {
    parent = std::string_view();
    name = path;
  } else {
    parent = uSlash == 0 ? path.substr(0, 1) : path.substr(0, uSlash);
    name = path.substr(uSlash + 1);
  }
}

std::string CScanDatabasePath::SubtreePrefix(std::string_view folder) {
  std::string strPrefix(folder);
  if (strPrefix != "/") strPrefix += '/';
  return strPrefix;
}

std::string CScanDatabasePath::SubtreeBound(std::string_view folder) {
  std::string strBound = SubtreePrefix(folder);
  strBound.back() = '0';
  return strBound;
}

bool CScanDatabasePath::IsBelow(std::string_view path, std::string_view folder) {
  return path != folder && FXString::StartsWith(path, SubtreePrefix(folder));
}

int64_t CScanDatabasePath::GetWaitingParentId(std::string_view parentPath) {
  uint64_t ullHash = 0xcbf29ce484222325ULL;
  for (unsigned char c : parentPath) {
    ullHash ^= c;
    ullHash *= 0x100000001b3ULL;
  }
  return -1 - static_cast<int64_t>(ullHash >> 1);
}
