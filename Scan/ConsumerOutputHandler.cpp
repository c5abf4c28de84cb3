#include "Scan/ConsumerOutputHandler.h"

CConsumerOutputHandler::~CConsumerOutputHandler() = default;

CQiError CConsumerOutputHandler::OnDeletedItem(CItemPtr pItem) {
  if (!m_pDeletedItemConsumer) return CQiError();
  return m_pDeletedItemConsumer->Process(std::move(pItem));
}

CQiError CConsumerOutputHandler::OnItem(CItemPtr pItem) {
  if (!m_pItemConsumer) return CQiError();
  QI_RETURN_IF_ERROR(m_pItemConsumer->Process(std::move(pItem)));
  return CQiError();
}

uint64_t CConsumerOutputHandler::getProcessedItemsCount() {
  return m_pItemConsumer ? m_pItemConsumer->getProcessedItemsCount() : 0;
}

void CConsumerOutputHandler::SetDeletedItemConsumer(CItemConsumerPtr pConsumer) {
  m_pDeletedItemConsumer = std::move(pConsumer);
}

void CConsumerOutputHandler::SetItemConsumer(CItemConsumerPtr pConsumer) {
  m_pItemConsumer = std::move(pConsumer);
}

CItemConsumerPtr CConsumerOutputHandler::GetItemConsumer() { return m_pItemConsumer; }
