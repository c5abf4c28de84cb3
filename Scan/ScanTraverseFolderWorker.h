// CScanTraverseFolderWorker: one worker thread of a folder traversal (CScanTraverseFolder::Traverse
// lists every folder on workers, one of them when the traversal has one worker).
//
// The worker sleeps on the traversal's folder-available event (shared by all workers, manual
// reset) and, when woken or when its time-out passes, takes folders from the shared queue one at
// a time and lists each with its own clone of the path enumerator, through the traversal's
// TraverseFolder (so the traversal's hooks run on this thread). When the queue is empty it
// becomes idle and tells the coordinator; when it sees an abort it becomes idle, tells the
// coordinator and ends its loop. Before its first folder it calls the traversal's
// OnInitializeWorker once.
//
// A failure of a folder does not end the worker: the error is kept as its last error
// (GetLastError), the coordinator is told, and the worker goes on with the next folder; the
// coordinator reports "One or more workers failed" when the traversal is done. A solo worker (the
// one worker of a one-worker traversal) ends at its first failure instead and hands it to the
// coordinator (CScanTraverseFolderPrivate::SetWorkerFailure), which returns it at once, as a
// traversal on the calling thread would.
//
// Stuck in the file system: the worker's file-system calls are watched (GetWatch). The
// coordinator gives up a worker that stays inside one call past the time-out: it records the
// worker's folder (GetCurrentFolder) as failed and calls LeaveBehind. The worker's thread then
// keeps the worker alive until its call returns, and ends at once without touching the
// traversal: everything it still uses (its enumerator, the private state) it owns or shares.
//
// Logging: a worker takes over the log writer and context of the thread that created it, so its
// lines go where the coordinator's go.
//
// Ownership: created, started and stopped by the traversal's coordinator (Traverse), which keeps
// them in the shared CScanTraverseFolderPrivate. The worker holds a plain pointer to the
// traversal, which outlives it (Traverse stops and releases its workers before returning, and a
// worker left behind never uses it again), a share of the private state, and a share of its
// enumerator (its own clone; the traversal's enumerator itself for a solo worker when that cannot
// be cloned). The destructor stops and waits.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "Platform/AlertableEventThread.h"
#include "Platform/BlockingCallWatch.h"
#include "Platform/LogWriterInterfaceThreadWrapper.h"
#include "Scan/PathEnumerator.h"
#include "Scan/ScanTraverseFolderPrivate.h"

class CScanTraverseFolder;

class CScanTraverseFolderWorker : public CAlertableEventThread {
 public:
  // A safety net only: a worker is woken by the folder-available event, not by the time-out.
  static constexpr uint32_t kWorkerTimeoutMs = 10000;

  CScanTraverseFolderWorker(CScanTraverseFolder* pTraversal, CScanTraverseFolderPrivatePtr pPrivate,
                            std::shared_ptr<CPathEnumerator> pEnumerator, int iIndex, bool bSolo);
  ~CScanTraverseFolderWorker() override;

  CQiError Start() override;
  CQiError StartSynchronously() override;

  // True while the worker holds no folder (also before its first one).
  bool IsIdle() const { return m_bIdle.load(std::memory_order_acquire); }
  std::atomic<bool>& GetIdleFlag() { return m_bIdle; }
  int GetIndex() const { return m_iIndex; }
  const CBlockingCallWatchPtr& GetWatch() const { return m_pWatch; }
  // The folder the worker is listing (any thread); false when it holds none.
  bool GetCurrentFolder(std::string& strInput, std::string& strOutput) const;
  // Gives the worker up (see the class comment); pSelf is this worker.
  static void LeaveBehind(const std::shared_ptr<CScanTraverseFolderWorker>& pSelf);

 protected:
  CQiError WaitForEvent(EWaitResult& eResult) override;
  CQiError OnStart() override;
  CQiError OnStop() override;
  CQiError OnEvent() override;
  CQiError OnTimeout() override;
  CQiError OnCompletion() override;

  // Takes and lists folders until the queue is empty or an abort or stop is seen.
  CQiError ProcessPendingFolders();

 private:
  void Prepare();

  CScanTraverseFolder* m_pTraversal;
  CScanTraverseFolderPrivatePtr m_pPrivate;
  std::shared_ptr<CPathEnumerator> m_pEnumerator;
  int m_iIndex;
  bool m_bSolo;
  const CBlockingCallWatchPtr m_pWatch = std::make_shared<CBlockingCallWatch>();
  // The folder being listed: written by the worker under the mutex, read by the coordinator.
  mutable std::mutex m_mtxCurrent;
  CScanFoldersToTraverse m_current;
  bool m_bHasCurrent = false;
  // Changed only under the queue mutex (CScanTraverseFolderPrivate), read from any thread.
  std::atomic<bool> m_bIdle{true};
  bool m_bInitialized = false;
  // The creating thread's log writer and context, installed on the worker thread while it runs.
  std::shared_ptr<CLogWriterInterface> m_pLogWriter;
  std::string m_strLogContext;
  std::unique_ptr<CLogWriterInterfaceThreadWrapper> m_pLogWrapper;
};
