// FXMutex is header-only: every operation forwards to std::mutex and is inlined. This unit keeps
// the one-pair-per-class layout and checks that the type meets the standard Lockable concept.
#include "Platform/FXMutex.h"

#include <type_traits>

static_assert(!std::is_copy_constructible_v<FXMutex>);
static_assert(std::is_same_v<decltype(std::declval<FXMutex&>().try_lock()), bool>);
