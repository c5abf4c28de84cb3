// CConsumerOutputHandler: an output handler that passes every item to its item consumer and every
// deleted item to its deleted-item consumer. A missing consumer is not an error: the item is
// dropped and the call succeeds.
//
// Ownership: holds its consumers by shared pointer (they may be shared with other handlers).
// Threads: set the consumers before items flow; OnItem/OnDeletedItem take no lock (the consumers
// guard themselves).
#pragma once

#include <memory>

#include "Scan/ItemConsumer.h"
#include "Scan/OutputHandler.h"

class CConsumerOutputHandler : public COutputHandler {
 public:
  CConsumerOutputHandler() = default;
  ~CConsumerOutputHandler() override;

  CQiError OnDeletedItem(CItemPtr pItem) override;
  CQiError OnItem(CItemPtr pItem) override;
  // The item consumer's count, 0 without one.
  uint64_t getProcessedItemsCount() override;

  virtual void SetDeletedItemConsumer(CItemConsumerPtr pConsumer);
  virtual void SetItemConsumer(CItemConsumerPtr pConsumer);
  virtual CItemConsumerPtr GetItemConsumer();

 private:
  CItemConsumerPtr m_pDeletedItemConsumer;
  CItemConsumerPtr m_pItemConsumer;
};

using CConsumerOutputHandlerPtr = std::shared_ptr<CConsumerOutputHandler>;
