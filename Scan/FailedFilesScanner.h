// CFailedFilesScanner: re-scans the paths that an earlier job could not read. The list is the
// file "failures.zrf" in the folder given at construction, one full path per line (trailing
// blanks, tabs and line ends are ignored, blank lines skipped). Every path that can now be read
// (lstat) becomes a CFindFirstItem that goes to the output handler the caller names for it;
// paths that still cannot be read are logged at level 4 and skipped.
//
// A missing list is not an error (nothing to re-scan). The run stops with an error when the
// callback fails to name a handler or a handler refuses an item.
//
// Run() does not poll IsAborted(); an owner that must stop it early does so from outside.
// Ownership: holds the caller's callback by shared pointer. Threads: Run() runs on the caller's
// thread; one scanner runs once at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Platform/QiError.h"
#include "Scan/AbortOperationCheck.h"
#include "Scan/FailedFilesScannerCallback.h"

class CFailedFilesScanner : public CAbortOperationCheck {
 public:
  static constexpr const char* kFailedFilesListName = "failures.zrf";

  CFailedFilesScanner(int64_t llJobId, CFailedFilesScannerCallbackPtr pCallback,
                      const std::string& strFolder);
  ~CFailedFilesScanner() override;

  virtual CQiError Run();

  // The path of the failed-files list.
  std::string GetFailedFilesListPath() const;

 private:
  int64_t m_llJobId;
  CFailedFilesScannerCallbackPtr m_pCallback;
  std::string m_strFolder;
};

using CFailedFilesScannerPtr = std::shared_ptr<CFailedFilesScanner>;
