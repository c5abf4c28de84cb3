// CEvaluatorOutputHandler: an output handler that asks an evaluator before it passes an item to a
// consumer. An item goes on only when both the consumer and the evaluator are set and the
// evaluator selects it; deleted items follow the same rule with their own pair. Without an
// evaluator nothing is passed on, even though an evaluator's default answer is "selected": the
// pair is required (unlike CConsumerOutputHandler, which needs only the consumer).
//
// Ownership: holds evaluators and consumers by shared pointer.
// Threads: set the pairs before items flow; routing takes no lock.
#pragma once

#include <memory>

#include "Scan/ItemConsumer.h"
#include "Scan/ItemEvaluator.h"
#include "Scan/OutputHandler.h"

class CEvaluatorOutputHandler : public COutputHandler {
 public:
  CEvaluatorOutputHandler() = default;
  ~CEvaluatorOutputHandler() override;

  CQiError OnDeletedItem(CItemPtr pItem) override;
  CQiError OnItem(CItemPtr pItem) override;
  // The item consumer's count, 0 without one.
  uint64_t getProcessedItemsCount() override;

  virtual void SetDeletedItemEvaluator(CItemEvaluatorPtr pEvaluator);
  virtual void SetDeletedItemConsumer(CItemConsumerPtr pConsumer);
  virtual void SetItemEvaluator(CItemEvaluatorPtr pEvaluator);
  virtual void SetItemConsumer(CItemConsumerPtr pConsumer);

 private:
  CItemEvaluatorPtr m_pDeletedItemEvaluator;
  CItemConsumerPtr m_pDeletedItemConsumer;
  CItemEvaluatorPtr m_pItemEvaluator;
  CItemConsumerPtr m_pItemConsumer;
};

using CEvaluatorOutputHandlerPtr = std::shared_ptr<CEvaluatorOutputHandler>;
