#include "Scan/ScanTraverseFolderPrivate.h"

#include <utility>

#include "Platform/FXPath.h"
#include "Scan/ScanTraverseFolderWorker.h"

CScanTraverseFolderPrivate::CScanTraverseFolderPrivate()
    : m_pWorkerStateEvent(FXEvent::Create(FXEvent::EResetMode::Auto)) {}

CScanTraverseFolderPrivate::~CScanTraverseFolderPrivate() = default;

bool CScanTraverseFolderPrivate::FindQueuedAncestor(const std::string& strPath,
                                                    CScanFoldersToTraverse& root) const {
  return m_queue.FindIf([&](const CScanFoldersToTraverse& entry) {
    if (!FXPath::IsAncestorOf(entry.GetInputFolder(), strPath, true)) return false;
    root = entry;
    return true;
  });
}
