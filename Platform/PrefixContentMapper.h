// CPrefixContentMapper: a ContentMapperAPI that maps by path prefixes.
//
// It holds pairs of (host prefix, proxy prefix), for example ("/export/home", "/mnt/snap1/home").
// A path is converted by the pair whose prefix on the path's side is the longest one holding the
// path, compared by whole components ("/src" holds "/src" and "/src/a" but not "/srcx"), and the
// prefix is replaced by the pair's other side. Trailing delimiters of prefixes and paths are
// ignored; the result has none (except "/"). Paths are byte strings: any byte but NUL may occur,
// and paths longer than PATH_MAX are converted like any other (the long path handler reads them).
//
// Errors: Win32 87 for an empty path, a NUL byte or a relative path; Win32 1168 for a path that
// lies under no prefix; AddMapping refuses with 87 a prefix that is already mapped on either side.
//
// Mappings may be added while other threads convert; a reader/writer lock guards the list.
#pragma once

#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#include "Platform/ContentMapperAPI.h"

class CPrefixContentMapper : public ContentMapperAPI {
 public:
  CPrefixContentMapper() = default;

  CQiError AddMapping(const std::string& hostPrefix, const std::string& proxyPrefix);
  std::vector<std::pair<std::string, std::string>> GetMappings() const;

  CQiError MakeHostPathFromProxyPath(const std::string& proxyPath, std::string& hostPath) override;
  CQiError MakeProxyPathFromHostPath(const std::string& hostPath, std::string& proxyPath) override;

 private:
  // Converts from the `fromHost` side to the other one.
  CQiError Convert(const std::string& path, bool fromHost, std::string& result) const;

  mutable std::shared_mutex m_mtxMappings;
  std::vector<std::pair<std::string, std::string>> m_lstMappings;  // (host, proxy)
};

using CPrefixContentMapperPtr = std::shared_ptr<CPrefixContentMapper>;
