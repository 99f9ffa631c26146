// The core library: aligned memory and the thread count. The only state is the thread count that a program has set.
#include "zencore.h"

#include <omp.h>
#include <stdint.h>
#include <stdlib.h>

#if defined(__i386__)
// A caller built for the older ABI may come with a stack aligned to 4 bytes.
#define ZEN_EXPORT extern "C" __attribute__((visibility("default"), force_align_arg_pointer))
#else
#define ZEN_EXPORT extern "C" __attribute__((visibility("default")))
#endif

namespace {
constexpr size_t kAlignment = 64;
int threadCount = 0; // 0: none was set
} // namespace

ZEN_EXPORT void* zenMalloc(size_t size) {
    if (size == 0 || size > SIZE_MAX - (kAlignment - 1)) return nullptr;
    void* block = nullptr;
    return posix_memalign(&block, kAlignment, size) == 0 ? block : nullptr;
}

ZEN_EXPORT void zenFree(void* ptr) {
    free(ptr);
}

ZEN_EXPORT int ownGetNumThreads(void) {
    const int set = __atomic_load_n(&threadCount, __ATOMIC_RELAXED);
    if (set > 0) return set;
    const int runtime = omp_get_max_threads();
    return runtime > 0 ? runtime : 1;
}

ZEN_EXPORT void zenSetNumThreads(int count) {
    __atomic_store_n(&threadCount, count > 0 ? count : 0, __ATOMIC_RELAXED);
}
