// CTraverseFolderWorker2: one worker thread of the second-generation folder traversal
// (CTraverseFolder2).
//
// The worker sleeps on the traversal's folder-available event and, when woken, takes folders
// from the shared queue one at a time and lists each with a path enumerator of its own, through
// the listing core that both traversals share (CFolderListing). For every entry it applies the
// work unit's selection (CItemSelection: excluded attributes, scan content, system filters with
// the optional built-in list, filters), sends selected items to the output handler that the
// coordinator opened for the volume, queues sub-folders, and writes paths that cannot be listed
// or described to the scanner callback's scan-failure consumer. Symbolic links are reported, not
// followed.
//
// A top-level entry (a content root of a traversal with top-level processing) is first reported
// itself, as an entry of its parent's listing would be: filters applied, a folder delivered and
// then listed at once by the same worker (as the first folder when it is), unless the selection
// rules out everything below it; a file or link root is delivered once. A root that does not
// exist or cannot be described is left to its listing, which reports it.
//
// Failures: an output handler's refusal (Win32 50) skips the item; any other failure of an item's
// delivery, of a failure record, or of the first folder ends the scan: the worker calls
// SetScanFailure on the shared state and stops. An abort (polled between entries and folders)
// makes the worker idle and stops it quietly.
//
// Stuck in the file system: the worker's file-system calls are watched (GetWatch). The
// coordinator gives up a worker that stays inside one call past the time-out: it records the
// worker's folder (GetCurrentFolder) as failed and calls LeaveBehind; the worker's thread keeps
// the worker alive until its call returns and then ends without touching the traversal or the
// output handler.
//
// Prototype: the coordinator holds one worker that is never started and asks it for workers of
// its kind (CreateWorker); a subclass overrides CreateWorker and the listing hooks.
//
// Ownership and threads: created, started and stopped by the coordinator, which keeps them in the
// shared CTraverseFolderPrivate2. Start/Stop belong to the coordinator; IsIdle may be read from
// any thread. The destructor stops and waits.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "Platform/AlertableEventThread.h"
#include "Platform/BlockingCallWatch.h"
#include "Platform/LogWriterInterfaceThreadWrapper.h"
#include "Scan/TraverseFolderPrivate2.h"

class CTraverseFolderWorker2 : public CAlertableEventThread {
 public:
  // A safety net only: a worker is woken by the folder-available event, not by the time-out.
  static constexpr uint32_t kWorkerTimeoutMs = 10000;

  explicit CTraverseFolderWorker2(CTraverseFolderPrivate2Ptr pPrivate, int iIndex = 0);
  ~CTraverseFolderWorker2() override;

  // A new worker of this worker's own kind for the given state (null when it cannot be made).
  virtual CTraverseFolderWorker2Ptr CreateWorker(CTraverseFolderPrivate2Ptr pPrivate,
                                                 int iIndex) const;

  CQiError Start() override;
  // True while the worker holds no folder (also before its first one).
  bool IsIdle() const { return m_bIdle.load(std::memory_order_acquire); }
  std::atomic<bool>& GetIdleFlag() { return m_bIdle; }
  int GetIndex() const { return m_iIndex; }
  const CTraverseFolderPrivate2Ptr& GetPrivate() const { return m_pPrivate; }
  const CBlockingCallWatchPtr& GetWatch() const { return m_pWatch; }
  // The folder the worker is listing (any thread); false when it holds none.
  bool GetCurrentFolder(std::string& strInput, std::string& strOutput) const;
  // Gives the worker up (see the class comment); pSelf is this worker.
  static void LeaveBehind(const CTraverseFolderWorker2Ptr& pSelf);

 protected:
  CQiError WaitForEvent(EWaitResult& eResult) override;
  CQiError OnStart() override;
  CQiError OnEvent() override;
  CQiError OnTimeout() override;
  CQiError OnCompletion() override;

  // Takes and lists folders until the queue is empty, or a stop, abort or scan failure is seen.
  CQiError ProcessPendingFolders();
  // Lists one folder (the worker's per-folder step; bFirstFolder makes its errors fatal).
  virtual CQiError TraverseFolder(const CFoldersToTraverse2& entry, bool bFirstFolder);

 private:
  class CFolderLister;
  void GoIdle();
  // Reports a top-level entry's own item, then lists it (TraverseFolder) when it is to be listed.
  CQiError ProcessTopLevelEntry(const CFoldersToTraverse2& entry, bool bFirstFolder);

  CTraverseFolderPrivate2Ptr m_pPrivate;
  int m_iIndex;
  // Changed under the queue mutex, read from any thread.
  std::atomic<bool> m_bIdle{true};
  // Built on the worker's thread in OnStart, used only there.
  std::unique_ptr<CFolderLister> m_pLister;
  const CBlockingCallWatchPtr m_pWatch = std::make_shared<CBlockingCallWatch>();
  // The folder being listed: written by the worker under the mutex, read by the coordinator.
  mutable std::mutex m_mtxCurrent;
  CFoldersToTraverse2 m_current;
  bool m_bHasCurrent = false;
  // The creating thread's log writer and context, installed on the worker thread while it runs.
  std::shared_ptr<CLogWriterInterface> m_pLogWriter;
  std::string m_strLogContext;
  std::unique_ptr<CLogWriterInterfaceThreadWrapper> m_pLogWrapper;
};
