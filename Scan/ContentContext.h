// CContentContext: the object a caller gives with a content path to carry per-content settings.
//
// The work unit manager reads the kind of the content from the context's bag (Hadoop, GPFS
// snapshot, long path, criteria-based ad-hoc content; the keys are those of
// SXScannerConfigurationBagId), and every scan path made from the content keeps the context,
// so that engines can read the same bag later. A context is held through FVBasePtr like any
// other context object; the manager also accepts an item (CItem) as context and then reads its
// item bag.
//
// The bag is shared; it may be read by many threads once the scan runs (CBag guards itself).
#pragma once

#include <memory>

#include "Platform/Bag.h"
#include "Platform/FVBase.h"

class CContentContext : public FVBase {
 public:
  CContentContext();
  explicit CContentContext(CBagPtr pBag);
  ~CContentContext() override;

  const CBagPtr& GetBag() const { return m_pBag; }

 private:
  CBagPtr m_pBag;
};

using CContentContextPtr = std::shared_ptr<CContentContext>;
