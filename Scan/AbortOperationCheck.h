// CAbortOperationCheck: the one question that all abortable work shares: has the operation been
// aborted? Long-running loops (work threads, the arbiter, traversal workers, the failed-files
// scanner) poll IsAborted() and end with Win32 995 (operation aborted) once it answers true.
//
// The base answers false forever. Derived classes (CScannerCallback, CFailedFilesScanner) give it
// meaning. IsAborted() may be called from any number of threads at once; overrides must keep it
// cheap and safe to poll concurrently.
#pragma once

#include <memory>

class CAbortOperationCheck {
 public:
  CAbortOperationCheck() = default;
  virtual ~CAbortOperationCheck();
  CAbortOperationCheck(const CAbortOperationCheck&) = delete;
  CAbortOperationCheck& operator=(const CAbortOperationCheck&) = delete;

  // True once the operation has been aborted; the base never is.
  virtual bool IsAborted() const;
};

using CAbortOperationCheckPtr = std::shared_ptr<CAbortOperationCheck>;
