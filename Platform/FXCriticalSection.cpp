// FXCriticalSection is header-only: every operation forwards to std::recursive_mutex (Enter after
// a short spin) and is inlined. This unit keeps the one-pair-per-class layout and checks the Lockable shape.
#include "Platform/FXCriticalSection.h"

#include <type_traits>

static_assert(!std::is_copy_constructible_v<FXCriticalSection>);
static_assert(std::is_same_v<decltype(std::declval<FXCriticalSection&>().try_lock()), bool>);
