// CDirChangeCollectItemConsumer: the consumer of a directory-change scan. Every item that the
// item evaluator selects reaches the directory-change consumer; the ones the backup evaluator
// also selects first go to the collect consumer (marked "SELECTED_FOR_BACKUP" in the item bag and
// flagged selected) and then, when one is set, to the ancestor consumer.
//
// Each step is timed on the process-wide scan performance counters TIME_ITEMEVALUATOR_ISSELECTED,
// TIME_ADD_TO_COLLECT, TIME_ANCESTOR_PROCESSING and TIME_ADD_TO_DIRCHANGE.
//
// A missing evaluator answers as the base CItemEvaluator does (selected); a missing consumer is
// skipped without error.
//
// Ownership: holds evaluators and consumers by shared pointer. The ancestor consumer starts empty;
// this library sets it nowhere, a derived owner that needs one assigns m_pAncestorConsumer.
// Threads: no lock of its own; the consumers behind it guard themselves.
#pragma once

#include <cstdint>
#include <memory>

#include "Scan/ItemConsumer.h"
#include "Scan/ItemEvaluator.h"

class CDirChangeCollectItemConsumer : public CItemConsumer {
 public:
  // The item-bag key written on items selected for backup.
  static constexpr const char* kSelectedForBackupKey = "SELECTED_FOR_BACKUP";

  CDirChangeCollectItemConsumer(int64_t llConsumerId, CItemEvaluatorPtr pItemEvaluator,
                                CItemConsumerPtr pDirChangeConsumer,
                                CItemEvaluatorPtr pBackupEvaluator,
                                CItemConsumerPtr pCollectConsumer);
  ~CDirChangeCollectItemConsumer() override;

  CQiError Process(CItemPtr pItem) override;

 protected:
  CItemEvaluatorPtr m_pItemEvaluator;
  CItemConsumerPtr m_pDirChangeConsumer;
  CItemEvaluatorPtr m_pBackupEvaluator;
  CItemConsumerPtr m_pCollectConsumer;
  CItemConsumerPtr m_pAncestorConsumer;
};

using CDirChangeCollectItemConsumerPtr = std::shared_ptr<CDirChangeCollectItemConsumer>;
