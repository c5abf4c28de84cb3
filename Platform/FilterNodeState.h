// BFilterNodeState: the role of an item in a CFilterSet.
//
// An include item (1) puts the paths it matches into the set; an exception item (2) takes the
// paths it matches back out, whatever include matched them. The numeric values are part of the
// interface (work units and callers speak of "node state 1" and "node state 2"); any other value
// is refused by CFilterSet with Win32 87.
#pragma once

#include <cstdint>

enum class BFilterNodeState : uint32_t {
  Include = 1,
  Exception = 2,
};

inline const char* FilterNodeStateName(BFilterNodeState state) {
  switch (state) {
    case BFilterNodeState::Include:
      return "Include";
    case BFilterNodeState::Exception:
      return "Exception";
  }
  return "Invalid";
}
