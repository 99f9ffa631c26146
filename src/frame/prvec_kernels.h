// The vector primitives that gain from wider instructions. (Adding and scaling do not: they wait for memory, from the
// first cache on, and the baseline's code is as quick.)
#pragma once
#include "frame/dispatch.h"

namespace zenr {

struct VectorKernels {
    // True when *result is certain to be the dot product in extended precision, rounded to float (frame/provensum.h);
    // otherwise *result means nothing. len >= 1.
    bool (*dot)(const float* x, const float* y, int len, float* result);
};

namespace sse2 {
extern const VectorKernels kVector;
}
namespace avx2 {
extern const VectorKernels kVector;
}
namespace avx512 {
extern const VectorKernels kVector;
}

inline const VectorKernels& vectorKernels(Level level) {
    return pick(level, sse2::kVector, avx2::kVector, avx512::kVector);
}

} // namespace zenr
