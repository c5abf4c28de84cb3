#include "Scan/DirChangeCollectItemConsumer.h"

#include "Platform/AutoTimeCounter.h"
#include "Platform/FXErrorUtil.h"

CDirChangeCollectItemConsumer::CDirChangeCollectItemConsumer(int64_t llConsumerId,
                                                             CItemEvaluatorPtr pItemEvaluator,
                                                             CItemConsumerPtr pDirChangeConsumer,
                                                             CItemEvaluatorPtr pBackupEvaluator,
                                                             CItemConsumerPtr pCollectConsumer)
    : CItemConsumer(llConsumerId),
      m_pItemEvaluator(std::move(pItemEvaluator)),
      m_pDirChangeConsumer(std::move(pDirChangeConsumer)),
      m_pBackupEvaluator(std::move(pBackupEvaluator)),
      m_pCollectConsumer(std::move(pCollectConsumer)) {}

CDirChangeCollectItemConsumer::~CDirChangeCollectItemConsumer() = default;

CQiError CDirChangeCollectItemConsumer::Process(CItemPtr pItem) {
  if (!pItem) return QI_ERROR_WIN32(QiErrorCode::InvalidParameter, "Null item");

  {
    CAutoTimeCounter timer(EScanPerfCounterType::TIME_ITEMEVALUATOR_ISSELECTED);
    if (m_pItemEvaluator && !m_pItemEvaluator->IsSelected(pItem)) return CQiError();
  }

  if (!m_pBackupEvaluator || m_pBackupEvaluator->IsSelected(pItem)) {
    {
      CAutoTimeCounter timer(EScanPerfCounterType::TIME_ADD_TO_COLLECT);
      CBagPtr pItemBag = pItem->GetItemBag();
      // The mark is advisory: a failed write does not keep the item from the collect file.
      if (pItemBag) (void)pItemBag->Write(kSelectedForBackupKey, true);
      if (m_pCollectConsumer) {
        CQiError error = m_pCollectConsumer->Process(pItem);
        if (error.IsError()) return QI_PUSH(error);
      }
      pItem->setSelected();
    }
    if (m_pAncestorConsumer) {
      CAutoTimeCounter timer(EScanPerfCounterType::TIME_ANCESTOR_PROCESSING);
      (void)m_pAncestorConsumer->Process(pItem);  // ancestors are best effort
    }
  }

  CAutoTimeCounter timer(EScanPerfCounterType::TIME_ADD_TO_DIRCHANGE);
  if (m_pDirChangeConsumer) QI_RETURN_IF_ERROR(m_pDirChangeConsumer->Process(pItem));
  return CQiError();
}
