#include "Platform/PrefixContentMapper.h"

#include <mutex>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Platform/FXString.h"

namespace {
CQiError ValidateAbsolute(const std::string& path, const char* what) {
  CQiError error = FXPath::ValidatePath(path);
  if (error.IsError()) return QI_PUSH(error, "Invalid %s", what);
  if (!FXPath::IsAbsolute(path))
    return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "%s is not absolute, Path=%s", what,
                          FXString::EscapeControl(path).c_str());
  return CQiError();
}

// The path below `prefix`, both without trailing delimiters; `path` must lie at or below it.
std::string_view Remainder(std::string_view path, std::string_view prefix) {
  if (prefix == "/") return path.substr(1);
  return path.size() == prefix.size() ? std::string_view() : path.substr(prefix.size() + 1);
}
}  // namespace

CQiError CPrefixContentMapper::AddMapping(const std::string& hostPrefix,
                                          const std::string& proxyPrefix) {
  QI_RETURN_IF_ERROR(ValidateAbsolute(hostPrefix, "Host prefix"));
  QI_RETURN_IF_ERROR(ValidateAbsolute(proxyPrefix, "Proxy prefix"));
  std::string host = FXPath::RemoveTrailingDelimiters(hostPrefix);
  std::string proxy = FXPath::RemoveTrailingDelimiters(proxyPrefix);
  std::unique_lock<std::shared_mutex> lock(m_mtxMappings);
  for (const auto& [h, p] : m_lstMappings) {
    if (h == host)
      return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Host prefix already mapped, Prefix=%s",
                            FXString::EscapeControl(host).c_str());
    if (p == proxy)
      return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Proxy prefix already mapped, Prefix=%s",
                            FXString::EscapeControl(proxy).c_str());
  }
  m_lstMappings.emplace_back(std::move(host), std::move(proxy));
  return CQiError();
}

std::vector<std::pair<std::string, std::string>> CPrefixContentMapper::GetMappings() const {
  std::shared_lock<std::shared_mutex> lock(m_mtxMappings);
  return m_lstMappings;
}

CQiError CPrefixContentMapper::Convert(const std::string& path, bool fromHost,
                                       std::string& result) const {
  QI_RETURN_IF_ERROR(ValidateAbsolute(path, "Path"));
  std::string clean = FXPath::RemoveTrailingDelimiters(path);
  std::shared_lock<std::shared_mutex> lock(m_mtxMappings);
  const std::pair<std::string, std::string>* best = nullptr;
  for (const auto& mapping : m_lstMappings) {
    const std::string& from = fromHost ? mapping.first : mapping.second;
    if (!FXPath::IsAncestorOf(from, clean, true)) continue;
    if (best == nullptr || from.size() > (fromHost ? best->first : best->second).size())
      best = &mapping;
  }
  if (best == nullptr)
    return QI_ERROR_WIN32(QiErrorCode::NotFound, "No %s prefix holds the path, Path=%s",
                          fromHost ? "host" : "proxy", FXString::EscapeControl(clean).c_str());
  const std::string& from = fromHost ? best->first : best->second;
  const std::string& to = fromHost ? best->second : best->first;
  std::string_view rest = Remainder(clean, from);
  result = rest.empty() ? to : FXPath::Append(to, rest);
  return CQiError();
}

CQiError CPrefixContentMapper::MakeHostPathFromProxyPath(const std::string& proxyPath,
                                                         std::string& hostPath) {
  QI_RETURN_IF_ERROR(Convert(proxyPath, false, hostPath));
  return CQiError();
}

CQiError CPrefixContentMapper::MakeProxyPathFromHostPath(const std::string& hostPath,
                                                         std::string& proxyPath) {
  QI_RETURN_IF_ERROR(Convert(hostPath, true, proxyPath));
  return CQiError();
}
