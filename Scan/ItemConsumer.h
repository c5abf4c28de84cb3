// CItemConsumer: a sink for items (a collect-file writer supplied by the caller, the
// scan-failures writer, the directory-change collector). Output handlers route items to
// consumers; a consumer takes each item through Process.
//
// The base takes every item and does nothing with it. Subclasses count what they write in
// m_ullProcessedItems, which getProcessedItemsCount() reports. The consumer id is the caller's
// tag; this library stores it and never reads it.
//
// Threads: a consumer holds no lock of its own. One shared by several engine threads must
// serialise its own Process (or its owner must serialise the calls).
#pragma once

#include <cstdint>
#include <memory>

#include "Platform/QiError.h"
#include "Scan/Item.h"

class CItemConsumer {
 public:
  explicit CItemConsumer(int64_t llConsumerId = 0);
  virtual ~CItemConsumer();
  CItemConsumer(const CItemConsumer&) = delete;
  CItemConsumer& operator=(const CItemConsumer&) = delete;

  // Takes one item; the base succeeds and does nothing.
  virtual CQiError Process(CItemPtr pItem);
  virtual uint64_t getProcessedItemsCount() const;

  int64_t GetConsumerId() const { return m_llConsumerId; }

 protected:
  int64_t m_llConsumerId;
  uint64_t m_ullProcessedItems = 0;
};

using CItemConsumerPtr = std::shared_ptr<CItemConsumer>;
