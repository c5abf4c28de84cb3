// CItemEvaluator: decides whether an item is wanted (selected) by the consumer behind it. The
// caller supplies subclasses; the base selects everything.
//
// Threads: called from every engine thread that routes items; implementations must be safe to
// call concurrently.
#pragma once

#include <memory>

#include "Scan/Item.h"

class CItemEvaluator {
 public:
  CItemEvaluator() = default;
  virtual ~CItemEvaluator();
  CItemEvaluator(const CItemEvaluator&) = delete;
  CItemEvaluator& operator=(const CItemEvaluator&) = delete;

  // True when the item is wanted; the base always answers true.
  virtual bool IsSelected(CItemPtr pItem);
};

using CItemEvaluatorPtr = std::shared_ptr<CItemEvaluator>;
