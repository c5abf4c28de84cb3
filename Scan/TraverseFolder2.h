// CTraverseFolder2: the coordinator of the second-generation folder traversal, the one that the
// Traverse scan engine (CTraverseScanEngine) drives.
//
// Use: build it from the work unit and the scanner callback, queue the content roots
// (AddFolderToList), set the configuration, then Traverse(). Traverse starts the workers
// (CTraverseFolderWorker2, always at least one: the coordinator never lists folders itself) and
// waits until
//   - a worker raised a scan failure: the traversal ends with that failure ("Traverse aborted"),
//   - the queue is empty and every worker idle: success,
//   - the abort check or abort event says aborted: Win32 995 "Operation aborted".
// The workers filter the entries, send selected items to the output handler and write failures
// to the scan-failure consumer; see CTraverseFolderWorker2.
//
// Output handler: used on its own, Traverse opens the callback's handler for the work unit's
// source volume before the workers start and completes it once they have stopped, however the
// traversal ends. An owner that covers one volume with several traversals (one per surface of a
// work unit) opens the handler once itself (CVolumeOutputHandler) and hands it to each traversal
// with UseOutputHandler; those traversals deliver to it and neither initialize nor complete it.
//
// Top-level processing (SetProcessTopLevelContentItem): the content roots queued when Traverse
// starts are themselves reported (filtered like any entry of a listing) before their content.
//
// Workers are made by asking a prototype worker (SetWorker; by default a CTraverseFolderWorker2)
// for new workers of its own kind, so a subclass's prototype yields subclass workers.
//
// Threads: the owner calls the setters and Traverse on one thread; the queue entry points are
// also called by the workers. The destructor stops workers that still run.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "Platform/FXEvent.h"
#include "Platform/QiError.h"
#include "Scan/AbortOperationCheck.h"
#include "Scan/Item.h"
#include "Scan/ScannerCallback.h"
#include "Scan/TraverseFolderPrivate2.h"
#include "Scan/WorkUnit.h"

class CTraverseFolder2 {
 public:
  // The coordinator's longest wait, and the interval of the periodic counter logging.
  static constexpr uint32_t kCoordinatorWaitMs = 10000;
  static constexpr std::chrono::seconds kReportInterval{1800};

  CTraverseFolder2(CWorkUnitPtr pWorkUnit, CScannerCallbackPtr pCallback);
  virtual ~CTraverseFolder2();
  CTraverseFolder2(const CTraverseFolder2&) = delete;
  CTraverseFolder2& operator=(const CTraverseFolder2&) = delete;

  // Makes and starts the workers (the maximum number, from the prototype).
  virtual CQiError CreateWorkerThreads();

  // Walks the queued folders; see the class comment.
  CQiError Traverse();

  void SetExcludedAttributes(unsigned int uExcludedAttributes);
  void EnableBuiltInSystemProtectedFilesFilter(bool bEnable);
  void SetEnhancedSymbolicLinkIdentification(unsigned int uValue);
  void SetFollowDFSReparsePoints(bool bFollow);
  void SetCrossOSNFSBackup(bool bCrossOS);
  void SetAbortCheck(CAbortOperationCheck* pAbortCheck);
  void SetAbortEvent(const FXEventPtr& pEvent);
  void SetMaxWorkers(int iMaxWorkers);
  // With bProcess, the next Traverse reports the content roots queued so far (each root's own
  // item) before listing them; the switch is cleared by that Traverse.
  void SetProcessTopLevelContentItem(bool bProcess);
  // Items go to this handler, already opened by the caller, who also completes it; an empty one
  // drops them. Without this call Traverse opens and completes the volume's handler itself.
  void UseOutputHandler(const COutputHandlerPtr& pHandler);
  // How long a worker may stay inside one file-system call before it is given up (its folder is
  // then recorded as a scan failure with ETIMEDOUT and a new worker takes its place); by default
  // the agent's setting (CBlockingCallWatch::GetConfiguredTimeout).
  void SetStallTimeout(std::chrono::milliseconds timeout);
  // The prototype worker; it must be built on this traversal's private state (GetPrivate).
  void SetWorker(const CTraverseFolderWorker2Ptr& pWorker);
  const CTraverseFolderPrivate2Ptr& GetPrivate() const { return m_pPrivate; }

  // Queue entry points (thread-safe).
  void AddFolderToList(const std::string& strInput, const std::string& strOutput);
  void AddFolderToList(const std::string& strInput);
  // A folder whose item is already known (met in a listing).
  void AddFolderToList(const std::string& strInput, const std::string& strOutput, CItemPtr pItem);
  void AddReparsePointToList(const std::string& strInput, const std::string& strEndSubstituteName,
                             const std::string& strOutput, unsigned int uAttributes,
                             const std::string& strNextSubstituteName);

 private:
  // Asks every worker to stop, then (with bWait) waits for each and releases them.
  void StopWorkers(bool bWait);
  CQiError WaitForWorkers();
  // Makes and starts one worker from the prototype.
  CQiError StartWorker(int iIndex);
  // Gives up the workers stuck in one file-system call past the time-out; see SetStallTimeout.
  CQiError GiveUpStalledWorkers(std::chrono::steady_clock::time_point tNow,
                                std::chrono::milliseconds timeout);
  // Starts the workers and waits for them; stops them however it ends.
  CQiError RunWorkers();

  CTraverseFolderPrivate2Ptr m_pPrivate;
  // The output handler was handed in (UseOutputHandler): the caller opens and completes it.
  bool m_bOutputHandlerGiven = false;
  int m_iNextWorkerIndex = 1;
};

using CTraverseFolder2Ptr = std::shared_ptr<CTraverseFolder2>;
