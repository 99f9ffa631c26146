// Allocation wrappers over the core library.
#include "frame/prmem.h"

#include <stdint.h>

namespace zenr {

void* zensMalloc_32s(int len) {
    if (len < 1) return nullptr;
    return zenMalloc(uint32_t(len) * 4u);
}

void* zensMalloc_64s(int len) {
    if (len < 1) return nullptr;
    return zenMalloc(uint32_t(len) * 8u);
}

void zensFree(void* ptr) {
    zenFree(ptr);
}

} // namespace zenr
