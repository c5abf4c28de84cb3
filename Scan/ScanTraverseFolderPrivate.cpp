#include "Scan/ScanTraverseFolderPrivate.h"

#include <utility>

#include "Platform/FXErrorUtil.h"
#include "Platform/FXPath.h"
#include "Scan/ScanTraverseFolderWorker.h"

CScanTraverseFolderPrivate::CScanTraverseFolderPrivate()
    : m_pFolderAvailableEvent(FXEvent::Create(FXEvent::EResetMode::Manual)),
      m_pWorkerStateEvent(FXEvent::Create(FXEvent::EResetMode::Auto)) {}

CScanTraverseFolderPrivate::~CScanTraverseFolderPrivate() = default;

void CScanTraverseFolderPrivate::AddFolder(CScanFoldersToTraverse&& entry) {
  FXMutex::CScopedLock lock(m_mutex);
  m_lstFoldersToTraverse.push_back(std::move(entry));
  // Set under the mutex: a worker that found the queue empty resets the event under it too, so
  // the reset can never undo this set.
  m_pFolderAvailableEvent->Set();
}

CQiError CScanTraverseFolderPrivate::TakeFolder(CScanFoldersToTraverse& entry, bool& bFirstFolder,
                                                std::atomic<bool>* pIdle) {
  FXMutex::CScopedLock lock(m_mutex);
  if (m_lstFoldersToTraverse.empty()) {
    if (pIdle != nullptr && !pIdle->exchange(true)) --m_iBusyWorkers;
    m_pFolderAvailableEvent->Reset();
    return QI_ERROR_WIN32(QiErrorCode::NoMoreItems);
  }
  entry = std::move(m_lstFoldersToTraverse.back());
  m_lstFoldersToTraverse.pop_back();
  bFirstFolder = m_bFirstFolder;
  m_bFirstFolder = false;
  if (pIdle != nullptr && pIdle->exchange(false)) ++m_iBusyWorkers;
  return CQiError();
}

void CScanTraverseFolderPrivate::MarkIdle(std::atomic<bool>& bIdle) {
  FXMutex::CScopedLock lock(m_mutex);
  if (!bIdle.exchange(true)) --m_iBusyWorkers;
}

std::vector<CScanFoldersToTraverse> CScanTraverseFolderPrivate::TakeAll() {
  FXMutex::CScopedLock lock(m_mutex);
  std::vector<CScanFoldersToTraverse> lstEntries;
  lstEntries.swap(m_lstFoldersToTraverse);
  return lstEntries;
}

uint64_t CScanTraverseFolderPrivate::GetFolderCount() const {
  FXMutex::CScopedLock lock(m_mutex);
  return m_lstFoldersToTraverse.size();
}

bool CScanTraverseFolderPrivate::IsDone() const {
  FXMutex::CScopedLock lock(m_mutex);
  return m_lstFoldersToTraverse.empty() && m_iBusyWorkers == 0;
}

bool CScanTraverseFolderPrivate::FindQueuedAncestor(const std::string& strPath,
                                                    CScanFoldersToTraverse& root) const {
  FXMutex::CScopedLock lock(m_mutex);
  for (const CScanFoldersToTraverse& entry : m_lstFoldersToTraverse) {
    if (FXPath::IsAncestorOf(entry.GetInputFolder(), strPath, true)) {
      root = entry;
      return true;
    }
  }
  return false;
}
