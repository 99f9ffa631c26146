// Which level the processor supports, and the end of a wide call on i386.
#include "frame/dispatch.h"

#include <immintrin.h>
#include <stdint.h>

namespace zenr {

// __builtin_cpu_supports answers for the operating system's support of the registers too. The features tested are those
// that cmake/levels.cmake switches on.
Level bestLevel() {
    if (!__builtin_cpu_supports("avx2") || !__builtin_cpu_supports("bmi") || !__builtin_cpu_supports("bmi2") ||
        !__builtin_cpu_supports("popcnt") || !__builtin_cpu_supports("lzcnt") || !__builtin_cpu_supports("fma"))
        return Level::sse2;
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512dq") &&
        __builtin_cpu_supports("avx512vl"))
        return Level::avx512;
    return Level::avx2;
}

Level levelFor(long long elements) {
#if defined(__i386__)
    // About where the wide kernels' gain on a light kernel (1 ns an element) exceeds the cost of clearUpperState.
    if (elements < 256) return Level::sse2;
#endif
    (void)elements;
    return bestLevel();
}

#if defined(__i386__)
void clearUpperState() {
    // An area whose header says "no component present": restoring a component from it sets the component's initial
    // state. MXCSR is read from the area whenever the AVX component is asked for, so it has to hold the present one.
    alignas(64) uint32_t area[(512 + 64) / 4] = {};
    asm volatile("stmxcsr %0" : "=m"(area[6]));
    constexpr uint32_t kAvx = 1u << 2;
    constexpr uint32_t kZmmUpper = 1u << 6;
    const uint32_t components = kAvx | (bestLevel() == Level::avx512 ? kZmmUpper : 0u);
    asm volatile("xrstor %0" : : "m"(area), "a"(components), "d"(0) : "memory");
}
#endif

} // namespace zenr
