#include "Scan/Unix/GpfsEnumerateFiles.h"

#include "Platform/FXPath.h"
#include "Scan/ScanEngine.h"

CGpfsEnumerateFiles::CGpfsEnumerateFiles(CScanEngine* pEngine, CPathEnumeratorPtr pEnumerator,
                                         const std::string& strRoot, bool bQueueRoot)
    : CEnumerateFiles(pEngine, std::move(pEnumerator)),
      m_pGpfsEngine(pEngine),
      m_strRoot(FXPath::RemoveTrailingDelimiters(strRoot)),
      m_bQueueRoot(bQueueRoot) {}

CGpfsEnumerateFiles::~CGpfsEnumerateFiles() = default;

CQiError CGpfsEnumerateFiles::Report(const std::string& strOutput, CItemPtr& pItem) {
  if (m_pGpfsEngine == nullptr || IsFiltered(pItem, strOutput)) return CQiError();
  QI_RETURN_IF_ERROR(m_pGpfsEngine->ScanQueryCallback(pItem));
  return CQiError();
}

CQiError CGpfsEnumerateFiles::OnFolder(const std::string& strInput, const std::string& strOutput,
                                       CItemPtr& pItem) {
  if (pItem && pItem->GetLocalFullyQualifiedItemName() == m_strRoot) {
    if (m_bRootSeen) return CQiError();
    m_bRootSeen = true;
    QI_RETURN_IF_ERROR(Report(strOutput, pItem));
    if (m_bQueueRoot) QI_RETURN_IF_ERROR(CScanTraverseFolder::OnFolder(strInput, strOutput, pItem));
    return CQiError();
  }
  QI_RETURN_IF_ERROR(Report(strOutput, pItem));
  return CQiError();
}

CQiError CGpfsEnumerateFiles::OnFile(const std::string& /*strInput*/, const std::string& strOutput,
                                     CItemPtr& pItem) {
  QI_RETURN_IF_ERROR(Report(strOutput, pItem));
  return CQiError();
}
