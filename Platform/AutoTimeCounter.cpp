// CAutoTimeCounter is header-only so that timing a scope inlines to two clock reads and two
// atomic adds. This unit keeps the one-pair-per-class layout.
#include "Platform/AutoTimeCounter.h"

#include <type_traits>

static_assert(!std::is_copy_constructible_v<CAutoTimeCounter>);
