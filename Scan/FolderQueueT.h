// CFolderQueueT: the queue of folders still to list that a traversal shares with its workers,
// together with the count of busy workers, so that "nothing queued and nobody busy" (the end of
// the traversal) is decided under one lock. TEntry is the traversal's queue entry
// (CScanFoldersToTraverse, CFoldersToTraverse2).
//
// Entries are taken from the back (last in, first out): a traversal goes depth first, which
// keeps the queue short and lists a folder's sub-folders while their parent is fresh.
//
// Workers: each worker has an idle flag (true while it holds no folder). Take clears the flag of
// the taking worker and counts it busy; Take on an empty queue sets it and counts it idle (and
// resets the folder-available event); MarkIdle sets it without taking anything. The calling
// thread of a one-worker traversal passes no flag. IsDone is true when the queue is empty and
// no worker is busy. Exactly one Take ever reports the first folder.
//
// Events: the folder-available event (manual reset) is set by Add and reset by a Take that
// finds the queue empty, both under the queue's lock, so a reset never undoes a set made after
// the queue was found empty.
//
// Threads: every operation may be called from any thread; one mutex guards the state.
#pragma once

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "Platform/ErrorCodes.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/FXEvent.h"
#include "Platform/FXMutex.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Platform/QiError.h"

template <typename TEntry>
class CFolderQueueT {
 public:
  CFolderQueueT() : m_pFolderAvailableEvent(FXEvent::Create(FXEvent::EResetMode::Manual)) {}
  CFolderQueueT(const CFolderQueueT&) = delete;
  CFolderQueueT& operator=(const CFolderQueueT&) = delete;

  // Appends the entry at the back and sets the folder-available event.
  void Add(TEntry&& entry) {
    FXMutex::CScopedLock lock(m_mutex);
    m_lstEntries.push_back(std::move(entry));
    m_pFolderAvailableEvent->Set();
  }

  // Takes the entry at the back; Win32 259 (no more items) when the queue is empty.
  CQiError Take(TEntry& entry, bool& bFirstFolder, std::atomic<bool>* pIdle) {
    FXMutex::CScopedLock lock(m_mutex);
    if (m_lstEntries.empty()) {
      if (pIdle != nullptr && !pIdle->exchange(true)) --m_iBusyWorkers;
      m_pFolderAvailableEvent->Reset();
      return QI_ERROR_WIN32(QiErrorCode::NoMoreItems);
    }
    entry = std::move(m_lstEntries.back());
    m_lstEntries.pop_back();
    bFirstFolder = m_bFirstFolder;
    m_bFirstFolder = false;
    if (pIdle != nullptr && pIdle->exchange(false)) ++m_iBusyWorkers;
    return CQiError();
  }

  void MarkIdle(std::atomic<bool>& bIdle) {
    FXMutex::CScopedLock lock(m_mutex);
    if (!bIdle.exchange(true)) --m_iBusyWorkers;
  }

  // Moves every queued entry out.
  std::vector<TEntry> TakeAll() {
    FXMutex::CScopedLock lock(m_mutex);
    std::vector<TEntry> lstEntries;
    lstEntries.swap(m_lstEntries);
    return lstEntries;
  }

  uint64_t GetCount() const {
    FXMutex::CScopedLock lock(m_mutex);
    return m_lstEntries.size();
  }

  bool IsDone() const {
    FXMutex::CScopedLock lock(m_mutex);
    return m_lstEntries.empty() && m_iBusyWorkers == 0;
  }

  // Calls fn(entry) for the queued entries, under the lock, until it returns true; whether it did.
  template <typename TFunction>
  bool FindIf(TFunction fn) const {
    FXMutex::CScopedLock lock(m_mutex);
    for (const TEntry& entry : m_lstEntries)
      if (fn(entry)) return true;
    return false;
  }

  const FXEventPtr& GetFolderAvailableEvent() const { return m_pFolderAvailableEvent; }

  // A folder whose worker was given up, with the error to record it under.
  struct SStalledFolder {
    std::string strInput;
    std::string strOutput;
    CQiError error;
  };
  // Coordinator: gives up the workers that have stayed inside one file-system call for the
  // time-out (CBlockingCallWatch): each is counted idle, taken out of lstWorkers and left
  // behind (its thread keeps it until its call returns). The folders they held come back, to be
  // recorded as failed with ETIMEDOUT; nHowMany tells how many workers went (to be replaced).
  template <typename TWorkerPtr>
  std::vector<SStalledFolder> GiveUpStalledWorkers(std::vector<TWorkerPtr>& lstWorkers,
                                                   std::chrono::steady_clock::time_point tNow,
                                                   std::chrono::milliseconds timeout,
                                                   size_t& nHowMany) {
    std::vector<SStalledFolder> lstFolders;
    nHowMany = 0;
    for (size_t i = 0; i < lstWorkers.size(); ++i) {
      TWorkerPtr pWorker = lstWorkers[i];
      if (!pWorker->GetWatch()->IsStalled(tNow, timeout)) continue;
      SStalledFolder folder;
      const bool bHasFolder = pWorker->GetCurrentFolder(folder.strInput, folder.strOutput);
      if (!pWorker->GetWatch()->Abandon()) continue;  // its call has just returned
      MarkIdle(pWorker->GetIdleFlag());
      lstWorkers.erase(lstWorkers.begin() + static_cast<std::ptrdiff_t>(i--));
      pWorker->LeaveBehind(pWorker);
      ++nHowMany;
      const std::string strFolder = bHasFolder ? FXString::EscapeControl(folder.strInput) : "";
      ZRLOG(-1,
            "Traversal worker %d did not return from the file system within %lld ms, "
            "Folder=%s; the folder is recorded as failed and the worker is left behind",
            pWorker->GetIndex(), static_cast<long long>(timeout.count()), strFolder.c_str());
      if (!bHasFolder) continue;
      folder.error = QI_ERROR_ERRNO(ETIMEDOUT, "Folder did not answer within %lld ms, Path=%s",
                                    static_cast<long long>(timeout.count()), strFolder.c_str());
      lstFolders.push_back(std::move(folder));
    }
    return lstFolders;
  }

 private:
  mutable FXMutex m_mutex;  // guards the three members below
  std::vector<TEntry> m_lstEntries;
  bool m_bFirstFolder = true;
  int m_iBusyWorkers = 0;
  const FXEventPtr m_pFolderAvailableEvent;
};
