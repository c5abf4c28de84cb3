// CScanTraverseFolderPrivate: the state that a folder traversal (CScanTraverseFolder) shares with
// its worker threads (CScanTraverseFolderWorker).
//
// The queue: a CFolderQueueT of CScanFoldersToTraverse used as a stack (the folder added last is
// listed next and the walk is depth-first; memory stays proportional to the folders met but not
// yet listed), with the first-folder flag and the busy-worker count under its lock; the lock is
// taken once per added and per taken folder, never per entry.
//
// The events:
//   - folder available (the queue's, manual reset): set whenever a folder is added, reset when a
//     worker finds the queue empty, so a wake-up is never lost. All workers wait on it, so one
//     set wakes every idle worker;
//   - worker state (auto reset): set when a worker goes idle, fails or sees an abort. The
//     coordinator waits on it with its 10 s time-out, so a finished or aborted traversal is
//     noticed at once and the periodic counter logging keeps its cadence.
//
// The configuration (path enumerator, maximum workers, flags, ignored consumer error codes, abort
// check, bag) is set by the owner before Traverse and only read while workers run.
//
// Ownership: held by CScanTraverseFolder through a shared pointer; each worker holds another. The
// workers are kept here while a multi-worker Traverse runs and released before it returns.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Platform/Bag.h"
#include "Platform/FXEvent.h"
#include "Platform/FXMutex.h"
#include "Platform/ListingFolderCache.h"
#include "Platform/QiError.h"
#include "Scan/AbortOperationCheck.h"
#include "Scan/FolderQueueT.h"
#include "Scan/PathEnumerator.h"
#include "Scan/ScanFoldersToTraverse.h"

class CScanTraverseFolderWorker;
using CScanTraverseFolderWorkerPtr = std::shared_ptr<CScanTraverseFolderWorker>;

class CScanTraverseFolderPrivate {
 public:
  CScanTraverseFolderPrivate();
  ~CScanTraverseFolderPrivate();
  CScanTraverseFolderPrivate(const CScanTraverseFolderPrivate&) = delete;
  CScanTraverseFolderPrivate& operator=(const CScanTraverseFolderPrivate&) = delete;

  // Appends the entry at the back of the queue and sets the folder-available event.
  void AddFolder(CScanFoldersToTraverse&& entry) { m_queue.Add(std::move(entry)); }
  // Takes the entry at the back. bFirstFolder tells whether it is the first folder this traversal
  // lists (exactly one entry ever gets true). pIdle is the taking worker's idle flag (null on the
  // calling thread): cleared when an entry is taken; when the queue is empty it is set, the
  // folder-available event is reset and Win32 259 (no more items) comes back.
  CQiError TakeFolder(CScanFoldersToTraverse& entry, bool& bFirstFolder, std::atomic<bool>* pIdle) {
    return m_queue.Take(entry, bFirstFolder, pIdle);
  }
  // Marks a worker idle without taking anything (a worker that stops on abort).
  void MarkIdle(std::atomic<bool>& bIdle) { m_queue.MarkIdle(bIdle); }
  // Moves every queued entry out (top-level processing re-queues what it keeps).
  std::vector<CScanFoldersToTraverse> TakeAll() { return m_queue.TakeAll(); }
  uint64_t GetFolderCount() const { return m_queue.GetCount(); }
  // Finds a queued entry whose input folder is the path or an ancestor of it; copies it out.
  bool FindQueuedAncestor(const std::string& strPath, CScanFoldersToTraverse& root) const;
  // Queue empty and no worker busy: nothing can be added any more.
  bool IsDone() const { return m_queue.IsDone(); }

  const FXEventPtr& GetFolderAvailableEvent() const { return m_queue.GetFolderAvailableEvent(); }
  // Wakes the coordinator of a multi-worker traversal.
  void SignalWorkerState() { m_pWorkerStateEvent->Set(); }
  const FXEventPtr& GetWorkerStateEvent() const { return m_pWorkerStateEvent; }

  std::vector<CScanTraverseFolderWorkerPtr>& GetWorkers() { return m_lstWorkers; }
  CFolderQueueT<CScanFoldersToTraverse>& GetQueue() { return m_queue; }

  void SetPathEnumerator(CPathEnumeratorPtr pEnumerator) { m_pPathEnumerator = std::move(pEnumerator); }
  const CPathEnumeratorPtr& GetPathEnumerator() const { return m_pPathEnumerator; }
  // The descriptors of recently listed folders, shared by the traversal's threads.
  const CListingFolderCachePtr& GetListingFolderCache() const { return m_pListingFolderCache; }
  void SetProcessTopLevelContentItem(bool bProcess) { m_bProcessTopLevelContentItem = bProcess; }
  bool GetProcessTopLevelContentItem() const { return m_bProcessTopLevelContentItem; }
  void SetMaxWorkers(int iMaxWorkers) { m_iMaxWorkers = iMaxWorkers; }
  int GetMaxWorkers() const { return m_iMaxWorkers; }
  void AddIgnoredConsumerError(uint32_t uCode) { m_setIgnoredConsumerErrors.insert(uCode); }
  const std::set<uint32_t>& GetIgnoredConsumerErrors() const { return m_setIgnoredConsumerErrors; }
  void SetAbortCheck(CAbortOperationCheck* pAbortCheck) { m_pAbortCheck = pAbortCheck; }
  bool IsAborted() const { return m_pAbortCheck != nullptr && m_pAbortCheck->IsAborted(); }
  void SetBag(CBagPtr pBag) { m_pBag = std::move(pBag); }
  const CBagPtr& GetBag() const { return m_pBag; }
  // The bag's "VolumeName", read once when a traversal starts: names the per-thread counters.
  void SetVolumeName(const std::string& strVolumeName) { m_strVolumeName = strVolumeName; }
  const std::string& GetVolumeName() const { return m_strVolumeName; }
  // How long a worker may stay inside one file-system call; zero: the agent's setting.
  void SetStallTimeout(std::chrono::milliseconds timeout) { m_stallTimeout = timeout; }
  std::chrono::milliseconds GetStallTimeout() const { return m_stallTimeout; }

  // The failure that ended a solo worker (any thread); the coordinator takes it.
  void SetWorkerFailure(const CQiError& error) {
    FXMutex::CScopedLock lock(m_mutexFailure);
    if (m_workerFailure.IsSuccess()) m_workerFailure = error;
  }
  CQiError TakeWorkerFailure() {
    FXMutex::CScopedLock lock(m_mutexFailure);
    CQiError error = m_workerFailure;
    m_workerFailure = CQiError();
    return error;
  }

 private:
  CFolderQueueT<CScanFoldersToTraverse> m_queue;
  FXEventPtr m_pWorkerStateEvent;
  std::vector<CScanTraverseFolderWorkerPtr> m_lstWorkers;

  CPathEnumeratorPtr m_pPathEnumerator;
  const CListingFolderCachePtr m_pListingFolderCache = std::make_shared<CListingFolderCache>();
  bool m_bProcessTopLevelContentItem = false;
  int m_iMaxWorkers = 1;
  std::set<uint32_t> m_setIgnoredConsumerErrors;
  CAbortOperationCheck* m_pAbortCheck = nullptr;
  CBagPtr m_pBag;
  std::string m_strVolumeName;
  std::chrono::milliseconds m_stallTimeout{0};
  FXMutex m_mutexFailure;  // guards m_workerFailure
  CQiError m_workerFailure;
};

using CScanTraverseFolderPrivatePtr = std::shared_ptr<CScanTraverseFolderPrivate>;
