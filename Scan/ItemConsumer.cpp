#include "Scan/ItemConsumer.h"

CItemConsumer::CItemConsumer(int64_t llConsumerId) : m_llConsumerId(llConsumerId) {}

CItemConsumer::~CItemConsumer() = default;

CQiError CItemConsumer::Process(CItemPtr /*pItem*/) { return CQiError(); }

uint64_t CItemConsumer::getProcessedItemsCount() const { return m_ullProcessedItems; }
