#include "Scan/EvaluatorOutputHandler.h"

CEvaluatorOutputHandler::~CEvaluatorOutputHandler() = default;

CQiError CEvaluatorOutputHandler::OnDeletedItem(CItemPtr pItem) {
  if (!m_pDeletedItemConsumer || !m_pDeletedItemEvaluator) return CQiError();
  if (!m_pDeletedItemEvaluator->IsSelected(pItem)) return CQiError();
  return m_pDeletedItemConsumer->Process(std::move(pItem));
}

CQiError CEvaluatorOutputHandler::OnItem(CItemPtr pItem) {
  if (!m_pItemConsumer || !m_pItemEvaluator) return CQiError();
  if (!m_pItemEvaluator->IsSelected(pItem)) return CQiError();
  QI_RETURN_IF_ERROR(m_pItemConsumer->Process(std::move(pItem)));
  return CQiError();
}

uint64_t CEvaluatorOutputHandler::getProcessedItemsCount() {
  return m_pItemConsumer ? m_pItemConsumer->getProcessedItemsCount() : 0;
}

void CEvaluatorOutputHandler::SetDeletedItemEvaluator(CItemEvaluatorPtr pEvaluator) {
  m_pDeletedItemEvaluator = std::move(pEvaluator);
}

void CEvaluatorOutputHandler::SetDeletedItemConsumer(CItemConsumerPtr pConsumer) {
  m_pDeletedItemConsumer = std::move(pConsumer);
}

void CEvaluatorOutputHandler::SetItemEvaluator(CItemEvaluatorPtr pEvaluator) {
  m_pItemEvaluator = std::move(pEvaluator);
}

void CEvaluatorOutputHandler::SetItemConsumer(CItemConsumerPtr pConsumer) {
  m_pItemConsumer = std::move(pConsumer);
}
