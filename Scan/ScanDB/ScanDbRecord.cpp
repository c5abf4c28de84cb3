#include "Scan/ScanDB/ScanDbRecord.h"

#include <cstring>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"

CScanDbRecord::CScanDbRecord() { memset(&m_stat, 0, sizeof(m_stat)); }

CScanDbRecord::CScanDbRecord(std::string strPath, const struct stat& st, std::string strFileId)
    : m_strPath(std::move(strPath)), m_strFileId(std::move(strFileId)) {
  SetStat(st);
}

void CScanDbRecord::SetStat(const struct stat& st) { memcpy(&m_stat, &st, sizeof(m_stat)); }

std::string_view CScanDbRecord::GetParent() const {
  std::string_view parent, name;
  SplitPath(m_strPath, parent, name);
  return parent;
}

std::string_view CScanDbRecord::GetName() const {
  std::string_view parent, name;
  SplitPath(m_strPath, parent, name);
  return name;
}

void CScanDbRecord::SplitPath(std::string_view path, std::string_view& parent,
                              std::string_view& name) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  if (path == "/") {
    parent = std::string_view();
    name = path;
    return;
  }
  const size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) {
    parent = std::string_view();
    name = path;
  } else {
    parent = slash == 0 ? path.substr(0, 1) : path.substr(0, slash);
    name = path.substr(slash + 1);
  }
}

CQiError CScanDbRecord::ValidatePath(std::string_view path) {
  const char* reason = nullptr;
  if (path.empty()) {
    reason = "the path is empty";
  } else if (path.find('\0') != std::string_view::npos) {
    reason = "the path holds a NUL byte";
  } else if (path[0] != '/') {
    reason = "the path is not absolute";
  } else {
    while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
    // Every component after the leading '/' must be a real name.
    for (size_t pos = 1; pos < path.size() && reason == nullptr;) {
      size_t end = path.find('/', pos);
      if (end == std::string_view::npos) end = path.size();
      std::string_view component = path.substr(pos, end - pos);
      if (component.empty())
        reason = "the path holds an empty component";
      else if (component == "." || component == "..")
        reason = "the path holds a \".\" or \"..\" component";
      pos = end + 1;
    }
  }
  if (reason == nullptr) return CQiError();
  return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Invalid scan database path [%s]: %s",
                        FXString::EscapeControl(path).c_str(), reason);
}
