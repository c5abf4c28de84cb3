// CScanTraverseFolder: a folder traversal below one or more content paths, on the calling thread or
// on a pool of worker threads, that calls its own virtual hooks for every folder, file, reparse
// point (symbolic link) and failure that it meets.
//
// Use: queue the content paths (AddFolderToList), set the path enumerator, workers, abort check
// and bag, then Traverse(). The walk is depth-first: the folder added last is listed next. Each
// folder is listed on a worker thread with a clone of the path enumerator (with the enumerator
// itself when it cannot be cloned and the traversal has one worker), while the calling thread
// waits and watches them; each entry is
// built into an item by the enumerator and dispatched by kind (ProcessItem) to OnFolder, OnFile,
// OnReparsePointFolder or OnReparsePointFile. The base OnFolder queues the folder, so by default
// everything below the content paths is walked. Reparse points of a folder are dispatched after
// all its other entries (kept aside while the folder is listed).
//
// Failures: errors on the first folder listed end the traversal; later ones are reported through
// OnFailedContent and the walk goes on. Entries that vanished (errno 2) are skipped silently;
// entries that cannot be described for any other reason (errno 13 included) are reported. An
// abort (polled between entries and between folders) ends the traversal with Win32 995
// "Operation aborted".
//
// A file system that stops answering: a worker that stays inside one file-system call longer
// than the stall time-out (SetStallTimeout, else the agent's setting) is given up: its folder is
// reported through OnFailedContent with ETIMEDOUT, a new worker takes its place and the
// traversal completes. The stuck thread is left behind and never touches the traversal again.
// With top-level content processing each content root is reported itself by the worker that
// takes it, then listed by the same worker (ProcessTopLevelEntry): a root whose status read
// blocks is given up in the same way.
//
// Derived classes: CEnumerateFiles (the traversal of the scan engines) and the file-system
// specific traversals override the hooks.
//
// Threads: the owner calls the setters and Traverse on one thread. The listing hooks run on the
// worker threads, several at once with more than one worker; they must be safe for that.
// OnFailedContent is also called by the coordinator (for a folder whose worker was given up). The destructor
// stops any worker that is still running.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Platform/Bag.h"
#include "Platform/QiError.h"
#include "Scan/AbortOperationCheck.h"
#include "Scan/FolderListing.h"
#include "Scan/Item.h"
#include "Scan/PathEnumerator.h"
#include "Scan/ScanFoldersToTraverse.h"
#include "Scan/ScanTraverseFolderPrivate.h"

class CScanTraverseFolder : public CFolderListing::CHooks {
 public:
  // The coordinator's wait, and the interval of the periodic counter logging.
  static constexpr uint32_t kCoordinatorWaitMs = 10000;
  static constexpr uint64_t kCounterLogIntervalSeconds = 1800;

  // Starts with a CBasicPathEnumerator as its path enumerator.
  CScanTraverseFolder();
  ~CScanTraverseFolder() override;
  CScanTraverseFolder(const CScanTraverseFolder&) = delete;
  CScanTraverseFolder& operator=(const CScanTraverseFolder&) = delete;

  // Hooks (the base versions return success or do nothing unless said).
  // Queues the folder.
  virtual CQiError OnTraverseFolder(CItemPtr pFolder, const std::string& strInput,
                                    const std::string& strOutput);
  // Queues a reparse-point entry.
  virtual CQiError OnTraverseReparsePoint(CItemPtr pItem, const std::string& strInput,
                                          const std::string& strEndSubstituteName,
                                          const std::string& strOutput, unsigned int uAttributes,
                                          const std::string& strNextSubstituteName);
  // A folder was met; the base queues it through OnTraverseFolder.
  CQiError OnFolder(const std::string& strInput, const std::string& strOutput,
                            CItemPtr& pItem) override;
  CQiError OnFile(const std::string& strInput, const std::string& strOutput,
                          CItemPtr& pItem) override;
  CQiError OnReparsePointFolder(const std::string& strInput, const std::string& strOutput,
                                        CItemPtr& pItem) override;
  CQiError OnReparsePointFile(const std::string& strInput, const std::string& strOutput,
                                      CItemPtr& pItem) override;
  // A path could not be listed (bIsFile false) or described.
  CQiError OnFailedContent(const std::string& strInput, const std::string& strOutput,
                                   bool bIsFile, const CQiError& error) override;
  // Called once on each worker thread before it takes work.
  virtual CQiError OnInitializeWorker();

  // Walks the queued folders; see the class comment.
  CQiError Traverse();

  // Queue entry points (thread-safe).
  void AddFolderToList(const std::string& strInput, const std::string& strOutput);
  void AddFolderToList(CItemPtr pFolder, const std::string& strInput, const std::string& strOutput);
  void AddReparsePointToList(CItemPtr pItem, const std::string& strInput,
                             const std::string& strEndSubstituteName, const std::string& strOutput,
                             unsigned int uAttributes, const std::string& strNextSubstituteName);
  uint64_t GetFoldersToTraverseCount() const { return m_pPrivate->GetFolderCount(); }

  // Tells whether a folder lies below a queued content root (the root's own output path is then
  // given in strNewOutputPath, extended by the folder's remainder).
  bool FolderWillAlreadyBeTraversed(const std::string& strPath, std::string& strNewOutputPath) const;

  // Dispatches one item by kind to the hooks (the traversal's per-entry step).
  CQiError ProcessItem(const std::string& strInput, const std::string& strOutput, CItemPtr& pItem);
  // Lists one queued folder with the given enumerator (CFolderListing, with this traversal's
  // hooks). bFirstFolder makes its errors fatal.
  CQiError TraverseFolder(const CScanFoldersToTraverse& entry, CPathEnumerator& enumerator,
                          bool bFirstFolder);
  // A top-level entry (a content root with top-level content processing): reports the root
  // itself, then lists it (on the worker, so that a root whose status read blocks is given up
  // like any folder).
  CQiError ProcessTopLevelEntry(const CScanFoldersToTraverse& entry, CPathEnumerator& enumerator,
                                bool bFirstFolder);

  // Configuration, set before Traverse.
  void SetPathEnumerator(CPathEnumeratorPtr pEnumerator);
  CPathEnumeratorPtr GetPathEnumerator() const { return m_pPrivate->GetPathEnumerator(); }
  void SetProcessTopLevelContentItem(bool bProcess);
  void SetMaxWorkers(int iMaxWorkers);
  int GetMaxWorkers() const { return m_pPrivate->GetMaxWorkers(); }
  // Consumer errors with this code no longer stop a folder.
  void ignoreConsumerError(uint32_t uCode);
  // True when a consumer error stops the folder: its code is not among the ignored ones.
  bool failOnConsumerError(const CQiError& error) const;
  void SetAbortCheck(CAbortOperationCheck* pAbortCheck);
  bool IsAborted() const { return m_pPrivate->IsAborted(); }
  void SetBag(CBagPtr pBag);
  CBagPtr GetBag() const { return m_pPrivate->GetBag(); }
  // How long a worker may stay inside one file-system call before it is given up; by default
  // the agent's setting (CBlockingCallWatch::GetConfiguredTimeout).
  void SetStallTimeout(std::chrono::milliseconds timeout) { m_pPrivate->SetStallTimeout(timeout); }

  const CScanTraverseFolderPrivatePtr& GetPrivate() const { return m_pPrivate; }

 private:
  // The listing's hooks that are not the traversal's own virtual hooks.
  bool IsListingAborted() const override { return IsAborted(); }
  bool FailOnConsumerError(const CQiError& error) const override { return failOnConsumerError(error); }
  uint64_t GetQueuedFolderCount() const override { return GetFoldersToTraverseCount(); }

  // While alive on a thread, the next folder this traversal queues on that thread is kept here
  // instead (ProcessTopLevelEntry).
  struct SHeldFolder {
    explicit SHeldFolder(CScanTraverseFolder* pOwner) : pTraversal(pOwner), pPrevious(t_pCurrent) { t_pCurrent = this; }
    ~SHeldFolder() { t_pCurrent = pPrevious; }
    SHeldFolder(const SHeldFolder&) = delete;
    SHeldFolder& operator=(const SHeldFolder&) = delete;
    CScanTraverseFolder* pTraversal;
    SHeldFolder* pPrevious;
    std::optional<CScanFoldersToTraverse> held;
    static thread_local SHeldFolder* t_pCurrent;
  };
  CQiError TraverseWithWorkers();
  CQiError StartWorker(int iIndex, bool bSolo);
  // Gives up the workers stuck in one file-system call past the time-out: their folders are
  // recorded as failed and new workers take their places.
  CQiError GiveUpStalledWorkers(std::chrono::steady_clock::time_point tNow,
                                std::chrono::milliseconds timeout, bool bSolo, int& iNextIndex);
  // Stops every worker (waiting for them or not); with bCollectErrors, gathers their errors.
  CQiError StopWorkers(bool bWait, bool bCollectErrors);

  CScanTraverseFolderPrivatePtr m_pPrivate;
};

using CScanTraverseFolderPtr = std::shared_ptr<CScanTraverseFolder>;
