#include "FailureReportConsumer.h"

#include "Platform/FXString.h"
#include "Scan/FabricatedItem.h"

CFailureReportConsumer::CFailureReportConsumer(CScanFailureConsumerPtr pFile, Reporter fnReport)
    : m_pFile(std::move(pFile)), m_fnReport(std::move(fnReport)) {}

CFailureReportConsumer::~CFailureReportConsumer() = default;

CQiError CFailureReportConsumer::Process(CItemPtr pItem) {
  if (!pItem) return CQiError();
  std::lock_guard<std::mutex> lock(m_mutex);
  m_ullFailures.fetch_add(1, std::memory_order_relaxed);
  if (m_pFile) {
    QI_RETURN_IF_ERROR(m_pFile->Process(pItem));
    return CQiError();
  }
  int iErrorCode = CScanFailureConsumer::kDefaultErrorCode;
  const CBagPtr pBag = pItem->GetItemBag();
  if (pBag) (void)pBag->Read(CScanFailureConsumer::kErrorCodeKey, iErrorCode);
  if (m_fnReport)
    m_fnReport(FXString::Format("fsscan: cannot scan '%s' (error %d)",
                                FXString::EscapeControl(pItem->GetSourceFullyQualifiedItemName()).c_str(),
                                iErrorCode));
  return CQiError();
}

uint64_t CFailureReportConsumer::getProcessedItemsCount() const {
  return m_ullFailures.load(std::memory_order_relaxed);
}

CQiError CFailureReportConsumer::RecordContentFailure(const std::string& strPath, const CQiError& error) {
  auto pItem = std::make_shared<CFabricatedItem>(CBagPtr(), strPath, strPath);
  (void)pItem->GetItemBag()->Write(CScanFailureConsumer::kErrorCodeKey,
                                   static_cast<int>(error.IsError() ? error.GetCode() : 0));
  QI_RETURN_IF_ERROR(Process(pItem));
  return CQiError();
}
