#include "Scan/EnumerateFiles.h"

#include <cerrno>
#include <string>

#include "Platform/AutoTimeCounter.h"
#include "Platform/BlockingCallWatch.h"
#include "Platform/FXErrorUtil.h"
#include "Platform/FXString.h"
#include "Platform/LogWriterInterface.h"
#include "Platform/ScanPerformanceCounterSet.h"
#include "Scan/BasicPathEnumerator.h"
#include "Scan/FabricatedItem.h"
#include "Scan/ScanEngine.h"
#include "Scan/ScanFailureConsumer.h"

CEnumerateFiles::CEnumerateFiles(CScanEngine* pEngine, CPathEnumeratorPtr pEnumerator)
    : m_pEngine(pEngine) {
  if (pEnumerator) SetPathEnumerator(std::move(pEnumerator));
}

bool CEnumerateFiles::IsFiltered(CItemPtr& pItem, const std::string& strTestString) {
  return m_selection.IsFiltered(*pItem, strTestString);
}

bool CEnumerateFiles::IsMatchPossibleInFolder(CItemPtr& /*pItem*/, const std::string& strFolder) {
  return m_selection.IsMatchPossibleInFolder(strFolder);
}

CEnumerateFiles::~CEnumerateFiles() = default;

void CEnumerateFiles::SetWorkUnitBag(CBagPtr pBag) { SetBag(std::move(pBag)); }

CQiError CEnumerateFiles::OnFolder(const std::string& strInput, const std::string& strOutput,
                                   CItemPtr& pItem) {
  if (!IsFiltered(pItem, strOutput)) {
    if (m_pEngine != nullptr) QI_RETURN_IF_ERROR(m_pEngine->ScanQueryCallback(pItem));
  } else if (!IsMatchPossibleInFolder(pItem, strOutput)) {
    return CQiError();
  }
  QI_RETURN_IF_ERROR(CScanTraverseFolder::OnFolder(strInput, strOutput, pItem));
  return CQiError();
}

CQiError CEnumerateFiles::OnFile(const std::string& strInput, const std::string& strOutput,
                                 CItemPtr& pItem) {
  if (m_pEngine != nullptr && !IsFiltered(pItem, strOutput))
    QI_RETURN_IF_ERROR(m_pEngine->ScanQueryCallback(pItem));
  QI_RETURN_IF_ERROR(CScanTraverseFolder::OnFile(strInput, strOutput, pItem));
  return CQiError();
}

CQiError CEnumerateFiles::OnReparsePointFile(const std::string& strInput,
                                             const std::string& strOutput, CItemPtr& pItem) {
  if (m_pEngine != nullptr && !IsFiltered(pItem, strOutput))
    QI_RETURN_IF_ERROR(m_pEngine->ScanQueryCallback(pItem));
  QI_RETURN_IF_ERROR(CScanTraverseFolder::OnReparsePointFile(strInput, strOutput, pItem));
  return CQiError();
}

CQiError CEnumerateFiles::OnFailedContent(const std::string& strInput,
                                          const std::string& strOutput, bool /*bIsFile*/,
                                          const CQiError& error) {
  CAutoTimeCounter timer(EScanPerfCounterType::TIME_FAILED_CONTENT);
  CScannerCallbackPtr pCallback = m_pEngine != nullptr ? m_pEngine->GetScannerCallback() : nullptr;
  CItemConsumerPtr pConsumer;
  if (!pCallback || pCallback->GetScanFailureConsumer(pConsumer).IsError() || !pConsumer) {
    ZRLOG(5, "Not supported");
    return CQiError();
  }
  QI_RETURN_IF_ERROR(WriteFailureRecord(pConsumer, GetBag(), strInput, strOutput, error));
  return CQiError();
}

CQiError CEnumerateFiles::WriteFailureRecord(const CItemConsumerPtr& pConsumer,
                                             const CBagPtr& pBag, const std::string& strLocalPath,
                                             const std::string& strSourcePath,
                                             const CQiError& error) {
  static FXMutex s_mutexOtherConsumers;
  // The record describes the path as it is now (the item may know nothing about it), except a
  // path that did not answer: describing it would block again.
  CItemPtr pItem;
  if (!error.IsErrNo(ETIMEDOUT)) {
    CBasicPathEnumerator enumerator;
    (void)enumerator.GetItemByPath(pBag, strLocalPath, strSourcePath, pItem);
    // A worker given up while the path was described no longer reports anything.
    if (CBlockingCallWatch::IsAbandoned())
      return QI_ERROR_WIN32(QiErrorCode::OperationAborted, "Traversal worker was given up");
  }
  // A path the enumerator cannot describe (for example one beyond PATH_MAX off the long path
  // handler's thread) is still recorded, by name alone: a lost record is a file silently left
  // out of the backup.
  if (!pItem) pItem = std::make_shared<CFabricatedItem>(pBag, strLocalPath, strSourcePath);
  QI_RETURN_IF_ERROR(pItem->GetItemBag()->Write(CScanFailureConsumer::kErrorCodeKey,
                                                static_cast<int>(error.GetCode())));
  auto* pFailures = dynamic_cast<CScanFailureConsumer*>(pConsumer.get());
  FXMutex::CScopedLock lock(pFailures != nullptr ? pFailures->GetMutex() : s_mutexOtherConsumers);
  QI_RETURN_IF_ERROR(pConsumer->Process(pItem));
  return CQiError();
}

CQiError CEnumerateFiles::OnInitializeWorker() {
  // Makes the worker's per-volume counters exist from its start, so that the periodic counter
  // lines list every worker, busy or not.
  (void)CScanPerformanceCounter::GetThreadCounter(GetPrivate()->GetVolumeName());
  return CQiError();
}
