// CTraverseFolderPrivate2: the state that the second-generation folder traversal (CTraverseFolder2)
// shares with its workers (CTraverseFolderWorker2).
//
// The queue is a CFolderQueueT of CFoldersToTraverse2 used as a stack (the walk is depth-first),
// with the busy-worker count and the first-folder flag under its lock. A mutex of its own guards
// the scan failure.
//
// Events:
//   - folder available (the queue's, manual reset): set when a folder is added, reset when a
//     worker finds the queue empty, so a wake-up is never lost; all workers wait on it;
//   - coordinator (auto reset): set when a worker goes idle, raises a scan failure or sees an
//     abort; the coordinator waits on it with its 10 s time-out, so it notices completion,
//     failure and abort at once.
//
// The configuration (excluded attributes, switches, abort check and event, maximum workers,
// prototype worker) is set by the owner before Traverse and only read while workers run.
// The output handler of the work unit's volume is set before the workers start and shared by
// them (a handler guards itself against concurrent items). It is opened either by the traversal
// itself or, when several traversals cover one volume, once by their owner (see
// CVolumeOutputHandler and CTraverseFolder2::UseOutputHandler).
//
// It is itself the abort check of the traversal: aborted when the abort check says so or the
// abort event is set.
//
// Ownership: held by CTraverseFolder2 through a shared pointer; each worker holds another. The
// back pointer to the traversal is plain (the traversal outlives its workers). The workers are
// kept here while Traverse runs and released before it returns; the prototype worker, which
// shares this state too, is released by the traversal's destructor.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include "Platform/FXEvent.h"
#include "Platform/FXMutex.h"
#include "Platform/ListingFolderCache.h"
#include "Platform/QiError.h"
#include "Scan/AbortOperationCheck.h"
#include "Scan/FolderQueueT.h"
#include "Scan/FoldersToTraverse2.h"
#include "Scan/OutputHandler.h"
#include "Scan/ScannerCallback.h"
#include "Scan/VolumeOutputHandler.h"
#include "Scan/WorkUnit.h"

class CTraverseFolder2;
class CTraverseFolderWorker2;
using CTraverseFolderWorker2Ptr = std::shared_ptr<CTraverseFolderWorker2>;

class CTraverseFolderPrivate2 : public CAbortOperationCheck {
 public:
  CTraverseFolderPrivate2(CWorkUnitPtr pWorkUnit, CScannerCallbackPtr pCallback,
                          CTraverseFolder2* pTraversal);
  ~CTraverseFolderPrivate2() override;

  // ---- queue ----
  // Appends at the back and sets the folder-available event.
  void AddFolder(CFoldersToTraverse2&& entry) { m_queue.Add(std::move(entry)); }
  // Takes the entry at the back; bFirstFolder is true for exactly one entry (the first taken).
  // pIdle, the worker's idle flag, is cleared when an entry is taken; on an empty queue it is
  // set, the folder-available event is reset and Win32 259 comes back.
  CQiError GetFolderToTraverse(CFoldersToTraverse2& entry, bool& bFirstFolder,
                               std::atomic<bool>* pIdle) {
    return m_queue.Take(entry, bFirstFolder, pIdle);
  }
  void MarkIdle(std::atomic<bool>& bIdle) { m_queue.MarkIdle(bIdle); }
  uint64_t GetFolderCount() const { return m_queue.GetCount(); }
  // Queue empty and no worker holds a folder.
  bool IsDone() const { return m_queue.IsDone(); }
  // Marks every queued entry as a content root whose own item is reported before its content
  // (top-level processing); the order of the queue is kept.
  void MarkTopLevelEntries();

  // ---- scan failure ----
  // Records the first failure that must end the scan and wakes the coordinator.
  void SetScanFailure(const CQiError& error);
  bool HasScanFailure() const { return m_bHasScanFailure.load(std::memory_order_acquire); }
  CQiError GetScanFailure() const;

  // ---- abort ----
  bool IsAborted() const override;
  void SetAbortCheck(CAbortOperationCheck* pAbortCheck) { m_pAbortCheck = pAbortCheck; }
  void SetAbortEvent(FXEventPtr pEvent) { m_pAbortEvent = std::move(pEvent); }
  const FXEventPtr& GetAbortEvent() const { return m_pAbortEvent; }

  // ---- events ----
  const FXEventPtr& GetFolderAvailableEvent() const { return m_queue.GetFolderAvailableEvent(); }
  const FXEventPtr& GetCoordinatorEvent() const { return m_pCoordinatorEvent; }
  void SignalCoordinator() { m_pCoordinatorEvent->Set(); }

  // ---- workers (coordinator thread only) ----
  std::vector<CTraverseFolderWorker2Ptr>& GetWorkers() { return m_lstWorkers; }
  CFolderQueueT<CFoldersToTraverse2>& GetQueue() { return m_queue; }
  void SetPrototypeWorker(CTraverseFolderWorker2Ptr pWorker) { m_pPrototype = std::move(pWorker); }
  const CTraverseFolderWorker2Ptr& GetPrototypeWorker() const { return m_pPrototype; }

  // ---- configuration ----
  const CWorkUnitPtr& GetWorkUnit() const { return m_pWorkUnit; }
  const CScannerCallbackPtr& GetScannerCallback() const { return m_pCallback; }
  CTraverseFolder2* GetTraversal() const { return m_pTraversal; }
  void SetOutputHandler(COutputHandlerPtr pHandler) { m_pOutputHandler = std::move(pHandler); }
  const COutputHandlerPtr& GetOutputHandler() const { return m_pOutputHandler; }

  unsigned int m_uExcludedAttributes = 0;
  bool m_bBuiltInSystemProtectedFilesFilter = false;
  // Windows reparse-point and DFS notions; kept for the workers, no effect on this platform
  // (symbolic links are reported as links and never followed).
  unsigned int m_uEnhancedSymbolicLinkIdentification = 0;
  bool m_bFollowDFSReparsePoints = true;
  bool m_bCrossOSNFSBackup = false;
  int m_iMaxWorkers = 1;
  bool m_bProcessTopLevelContentItem = false;
  std::chrono::milliseconds m_stallTimeout{0};  // zero: the agent's setting

  // The descriptors of recently listed folders, shared by the traversal's threads.
  const CListingFolderCachePtr& GetListingFolderCache() const { return m_pListingFolderCache; }

 private:
  CWorkUnitPtr m_pWorkUnit;
  CScannerCallbackPtr m_pCallback;
  CTraverseFolder2* m_pTraversal;

  CFolderQueueT<CFoldersToTraverse2> m_queue;
  mutable FXMutex m_mutexFailure;  // guards m_scanFailure
  CQiError m_scanFailure;
  std::atomic<bool> m_bHasScanFailure{false};

  FXEventPtr m_pCoordinatorEvent;
  std::vector<CTraverseFolderWorker2Ptr> m_lstWorkers;
  CTraverseFolderWorker2Ptr m_pPrototype;
  CAbortOperationCheck* m_pAbortCheck = nullptr;
  FXEventPtr m_pAbortEvent;
  COutputHandlerPtr m_pOutputHandler;
  const CListingFolderCachePtr m_pListingFolderCache = std::make_shared<CListingFolderCache>();
};

using CTraverseFolderPrivate2Ptr = std::shared_ptr<CTraverseFolderPrivate2>;
