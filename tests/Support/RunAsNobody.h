// RunAsNobody(body): runs a callable in a child process that has dropped to the unprivileged
// user nobody and returns the child's exit status (the callable's int, or 0/1 for a bool), or
// 128 + signal. Root-run tests see real permission failures this way. The child writes its own
// diagnostics to stderr; the parent asserts on the status.
#pragma once

#include <type_traits>

#include "Support/TempTree.h"

template <class F>
int RunAsNobody(F&& body) {
  using TBody = std::remove_reference_t<F>;
  return RunAsNobody(
      [](void* p) -> int {
        if constexpr (std::is_same_v<decltype((*static_cast<TBody*>(p))()), bool>)
          return (*static_cast<TBody*>(p))() ? 0 : 1;
        else
          return static_cast<int>((*static_cast<TBody*>(p))());
      },
      const_cast<void*>(static_cast<const void*>(&body)));
}
