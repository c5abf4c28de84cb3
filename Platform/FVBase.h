// FVBase: the common root of the platform's polymorphic objects (items, contexts).
// It holds nothing; it gives a virtual destructor so that objects can be owned through it.
#pragma once

#include <memory>

class FVBase {
 public:
  FVBase() = default;
  virtual ~FVBase() = default;
  FVBase(const FVBase&) = default;
  FVBase& operator=(const FVBase&) = default;
};

using FVBasePtr = std::shared_ptr<FVBase>;
