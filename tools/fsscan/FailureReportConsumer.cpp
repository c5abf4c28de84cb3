#include "FailureReportConsumer.h"

#include "Platform/FXString.h"
#include "Scan/FabricatedItem.h"

CFailureReportConsumer::CFailureReportConsumer(CScanFailureConsumerPtr pFile, Reporter fnReport)
    : m_pFile(std::move(pFile)), m_fnReport(std::move(fnReport)) {}

CFailureReportConsumer::~CFailureReportConsumer() = default;

CQiError CFailureReportConsumer::Process(CItemPtr pItem) {
  if (!pItem) return CQiError();
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_pFile) {
    CQiError error = m_pFile->Process(pItem);
    if (error.IsSuccess()) {
      m_ullFailures.fetch_add(1, std::memory_order_relaxed);
      return CQiError();
    }
    m_ullLost.fetch_add(1, std::memory_order_relaxed);
    ReportWriteFailure(error);
  } else {
    m_ullFailures.fetch_add(1, std::memory_order_relaxed);
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

void CFailureReportConsumer::ReportWriteFailure(const CQiError& error) {
  if (m_bWriteFailureReported || !m_fnReport) return;
  m_bWriteFailureReported = true;
  m_fnReport(FXString::Format("fsscan: cannot write the failures file '%s': %s",
                              FXString::EscapeControl(m_pFile->GetFileName()).c_str(), error.CodeAsString().c_str()));
}

uint64_t CFailureReportConsumer::getProcessedItemsCount() const {
  return m_ullFailures.load(std::memory_order_relaxed);
}

uint64_t CFailureReportConsumer::GetLostCount() const { return m_ullLost.load(std::memory_order_relaxed); }

CQiError CFailureReportConsumer::RecordContentFailure(const std::string& strPath, const CQiError& error) {
  auto pItem = std::make_shared<CFabricatedItem>(CBagPtr(), strPath, strPath);
  (void)pItem->GetItemBag()->Write(CScanFailureConsumer::kErrorCodeKey,
                                   static_cast<int>(error.IsError() ? error.GetCode() : 0));
  QI_RETURN_IF_ERROR(Process(pItem));
  return CQiError();
}

CQiError CFailureReportConsumer::Close() {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (!m_pFile) return CQiError();
  CQiError error = m_pFile->Close();
  if (error.IsError()) {
    ReportWriteFailure(error);
    return QI_PUSH(error);
  }
  return CQiError();
}
