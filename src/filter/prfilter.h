// Volume filtering: what the exported functions, the planning and the kernels of a level share.
#pragma once
#include <stddef.h>
#include <stdint.h>

#include "frame/dispatch.h"
#include "zenr.h"

namespace zenr {

// One call of the filter: steps in voxels, and the source anchored, so that tap (kx, ky, kz) of the mirrored kernel
// (the last element first) reads plane z + kz, row y + ky, column x + kx from these origins.
struct FilterJob {
    const int16_t* const* src; // plane array, moved by the anchor
    ptrdiff_t srcOrigin;       // voxels from a plane's pointer to what output (0, 0) reads first
    ptrdiff_t srcStep;
    int16_t* const* dst;
    ptrdiff_t dstStep;
    ZenrVolume size;
    const int32_t* kernel; // as the caller stores it: mirrored tap t is element count - 1 - t
    ZenrVolume kernelSize;
    int32_t divisor;
};

struct FilterKernels {
    // The whole job by plain loops over rows, in 64 bits: for any kernel and any width.
    void (*plain)(const FilterJob& job);
};

namespace sse2 {
extern const FilterKernels kFilter;
}
namespace avx2 {
extern const FilterKernels kFilter;
}
namespace avx512 {
extern const FilterKernels kFilter;
}

inline const FilterKernels& filterKernels(Level level) {
    return pick(level, sse2::kFilter, avx2::kFilter, avx512::kFilter);
}

// The worker of zenrFilter_16s_C1PV: plans the call and runs it at a level.
void ownFilter(Level level, const FilterJob& job);

// The arguments as a job. Nothing is checked.
FilterJob ownFilterJob(const int16_t* const pSrc[], int srcStep, int16_t* const pDst[], int dstStep,
                       ZenrVolume dstVolume, const int32_t* pKernel, ZenrVolume kernelVolume, ZenrPoint anchor,
                       int divisor);

} // namespace zenr
