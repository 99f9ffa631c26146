// Memory and thread count, as the library's own code takes them from the core library.
#pragma once
#include "zencore.h"

namespace zenr {

// len elements of 4 or 8 bytes; null without asking the allocator when len < 1. The byte count is a 32-bit product and
// wraps without a check: callers keep counts within range.
void* zensMalloc_32s(int len);
void* zensMalloc_64s(int len);
void zensFree(void* ptr);

} // namespace zenr
