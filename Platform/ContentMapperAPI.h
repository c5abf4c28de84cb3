// ContentMapperAPI: converts between the paths of the protected host and the paths under which
// this machine sees them.
//
// A backup through a proxy reads the host's files here under other paths (a snapshot mount, an
// NFS export of the host): the "host path" is the path on the protected host, under which items
// are reported (the source path); the "proxy path" is the local path through which they are read.
// Without a mapper both are the same.
//
// The scanner and its engines call a mapper from many threads at once, so implementations must
// be safe for concurrent calls. A failed conversion returns a CQiError; callers turn it into
// their own Win32 87 with the path they were converting.
#pragma once

#include <memory>
#include <string>

#include "Platform/QiError.h"

class ContentMapperAPI {
 public:
  virtual ~ContentMapperAPI() = default;

  // Local (proxy) path -> host (source) path.
  virtual CQiError MakeHostPathFromProxyPath(const std::string& proxyPath, std::string& hostPath) = 0;
  // Host (source) path -> local (proxy) path.
  virtual CQiError MakeProxyPathFromHostPath(const std::string& hostPath, std::string& proxyPath) = 0;
};

using ContentMapperAPIPtr = std::shared_ptr<ContentMapperAPI>;
