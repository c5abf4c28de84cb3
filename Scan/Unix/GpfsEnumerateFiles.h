// CGpfsEnumerateFiles: the traversal of the GPFS engine. Its path enumerator
// (CGpfsPathEnumerator) hands out every entry of the policy listing within the listing of the
// scan path; this traversal passes each file and folder that the work unit's selection keeps to
// the engine's ScanQueryCallback and walks nothing (a folder's entries are in the listing
// already). Symbolic links take the inherited path (reported when kept).
//
// The scan path itself: when the traversal reports content roots (SetProcessTopLevelContentItem)
// the root is reported and queued for its listing when it is met first; the listing's own record
// of the root is then passed over, so that it is reported once.
//
// Threads: the engine runs it with one worker; the engine must outlive it.
#pragma once

#include <memory>
#include <string>

#include "Scan/EnumerateFiles.h"

class CGpfsEnumerateFiles : public CEnumerateFiles {
 public:
  // strRoot: the local scan path; bQueueRoot: the root is reported as top-level content and
  // must be queued by this traversal when met.
  CGpfsEnumerateFiles(CScanEngine* pEngine, CPathEnumeratorPtr pEnumerator,
                      const std::string& strRoot, bool bQueueRoot);
  ~CGpfsEnumerateFiles() override;

  CQiError OnFolder(const std::string& strInput, const std::string& strOutput,
                    CItemPtr& pItem) override;
  CQiError OnFile(const std::string& strInput, const std::string& strOutput,
                  CItemPtr& pItem) override;

 private:
  CQiError Report(const std::string& strOutput, CItemPtr& pItem);

  CScanEngine* m_pGpfsEngine;
  std::string m_strRoot;
  bool m_bQueueRoot;
  bool m_bRootSeen = false;
};

using CGpfsEnumerateFilesPtr = std::shared_ptr<CGpfsEnumerateFiles>;
