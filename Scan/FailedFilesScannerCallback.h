// CFailedFilesScannerCallback: supplied by the caller of CFailedFilesScanner. For a failed path
// it names the content path under which the path falls and the output handler that is to
// receive the re-scanned item (the handler may be empty: the path is then skipped).
//
// The scanner remembers the content path and asks again only for a path that is not at or below
// it, so one call usually serves a whole run of consecutive paths.
// Threads: called on the thread that runs CFailedFilesScanner::Run.
#pragma once

#include <memory>
#include <string>

#include "Platform/QiError.h"
#include "Scan/OutputHandler.h"

class CFailedFilesScannerCallback {
 public:
  CFailedFilesScannerCallback() = default;
  virtual ~CFailedFilesScannerCallback() = default;
  CFailedFilesScannerCallback(const CFailedFilesScannerCallback&) = delete;
  CFailedFilesScannerCallback& operator=(const CFailedFilesScannerCallback&) = delete;

  // Sets strContentPath and pHandler for the failed path.
  virtual CQiError GetOutputHandler(const std::string& strFailedPath, std::string& strContentPath,
                                    COutputHandlerPtr& pHandler) = 0;
};

using CFailedFilesScannerCallbackPtr = std::shared_ptr<CFailedFilesScannerCallback>;
