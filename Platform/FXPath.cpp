#include "Platform/FXPath.h"

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>

#include "Platform/BlockingCallWatch.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"

namespace {
std::string_view StripTrailing(std::string_view path) {
  size_t end = path.size();
  while (end > 1 && (path[end - 1] == '/' || path[end - 1] == '\\')) --end;
  if (end == 1 && (path[0] == '\\')) return std::string_view("/");
  return path.substr(0, end);
}

bool EqualBytes(std::string_view a, std::string_view b, bool caseInsensitive) {
  return caseInsensitive ? FXString::EqualsNoCase(a, b) : a == b;
}
}  // namespace

bool FXPath::IsAncestorOf(std::string_view ancestor, std::string_view path, bool bCountSelf,
                          bool bCaseInsensitive) {
  if (ancestor.empty() || path.empty()) return false;
  std::string_view a = StripTrailing(ancestor);
  std::string_view p = StripTrailing(path);
  if (a.size() == p.size()) return bCountSelf && EqualBytes(a, p, bCaseInsensitive);
  if (a.size() > p.size()) return false;
  if (!EqualBytes(a, p.substr(0, a.size()), bCaseInsensitive)) return false;
  // "/" is the ancestor of every absolute path; otherwise the next byte must start a component.
  if (a == "/") return true;
  return p[a.size()] == '/';
}

bool FXPath::IsDescendantOf(std::string_view path, std::string_view ancestor, bool bCountSelf,
                            bool bCaseInsensitive) {
  return IsAncestorOf(ancestor, path, bCountSelf, bCaseInsensitive);
}

std::string FXPath::Append(std::string_view base, std::string_view name) {
  std::string out(base);
  AppendInPlace(out, name);
  return out;
}

void FXPath::AppendInPlace(std::string& base, std::string_view name) {
  if (base.empty()) {
    base.assign(name);
    return;
  }
  size_t skip = 0;
  while (skip < name.size() && name[skip] == '/') ++skip;
  if (base.back() != '/') base.push_back('/');
  base.append(name.substr(skip));
}

CQiError FXPath::SplitParent(std::string_view path, std::string& parent, std::string& name) {
  if (path.empty()) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Empty path");
  std::string_view p = StripTrailing(path);
  if (p == "/") {
    parent.clear();
    name.assign(1, kDelimiter);
    return CQiError();
  }
  size_t pos = p.rfind('/');
  if (pos == std::string_view::npos) {
    parent.clear();
    name.assign(p);
  } else if (pos == 0) {
    parent.assign(1, kDelimiter);
    name.assign(p.substr(1));
  } else {
    parent.assign(p.substr(0, pos));
    name.assign(p.substr(pos + 1));
  }
  return CQiError();
}

std::string FXPath::GetParent(std::string_view path) {
  std::string parent, name;
  if (SplitParent(path, parent, name).IsError()) return std::string();
  return parent;
}

std::string FXPath::GetName(std::string_view path) {
  std::string parent, name;
  if (SplitParent(path, parent, name).IsError()) return std::string();
  return name;
}

std::string FXPath::RemoveTrailingDelimiters(std::string_view path) {
  return std::string(StripTrailing(path));
}

void FXPath::RemoveTrailingDelimitersInPlace(std::string& path) {
  path.resize(StripTrailing(path).size());
  if (path == "\\") path = "/";
}

bool FXPath::HasTrailingDelimiter(std::string_view path) {
  return !path.empty() && (path.back() == '/' || path.back() == '\\');
}

std::string FXPath::AddTrailingDelimiter(std::string_view path) {
  std::string out(path);
  if (!HasTrailingDelimiter(out)) out.push_back('/');
  return out;
}

CQiError FXPath::ValidatePath(std::string_view path) {
  if (path.empty()) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Empty path");
  if (path.find('\0') != std::string_view::npos)
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Path holds a NUL byte");
  return CQiError();
}

CQiError FXPath::MakeRealPath(const std::string& path, std::string& realPath) {
  QI_RETURN_IF_ERROR(ValidatePath(path));
  std::unique_ptr<char, decltype(&free)> resolved(realpath(path.c_str(), nullptr), &free);
  if (!resolved)
    return QI_ERROR_ERRNO(errno, "realpath failed, Path=%s", path.c_str());
  realPath = resolved.get();
  return CQiError();
}

bool FXPath::DoesPathExist(const std::string& path) {
  bool missing = true;
  return DoesPathExist(path, missing).IsSuccess() && !missing;
}

CQiError FXPath::DoesPathExist(const std::string& path, bool& bMissing) {
  QI_RETURN_IF_ERROR(ValidatePath(path));
  struct stat st;
  int iResult;
  {
    CBlockingCallWatch::CCall call;
    iResult = lstat(path.c_str(), &st);
  }
  if (iResult == 0) {
    bMissing = false;
    return CQiError();
  }
  int err = errno;
  if (err == ENOENT || err == ENOTDIR) {
    bMissing = true;
    return CQiError();
  }
  return QI_ERROR_ERRNO(err, "lstat failed, Path=%s", path.c_str());
}
