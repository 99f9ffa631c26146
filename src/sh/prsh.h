// Spherical harmonics: the kernels of a level, and the workers behind the exported functions.
#pragma once
#include "frame/dispatch.h"
#include "zenr.h"

namespace zenr {

constexpr int kShMaxOrder = 15;
constexpr int kShMaxValues = (kShMaxOrder + 1) * (kShMaxOrder + 1);

// How the basis is evaluated: by the tables of a state of type 1, or by the polynomials when there are none.
struct ShBasis {
    const float* a;
    const float* b;
    int order;
};

struct ShDirections {
    const float* x;
    const float* y;
    const float* z;
    int count;
};

// One or three channels of samples, `step` floats apart inside a channel.
struct ShSamples {
    const float* channel[3];
    int channels;
    int step;
};
struct ShResults {
    float* channel[3];
    int channels;
    int step;
};

// Counts are at least 1 and orders 0..15 here.
struct ShKernels {
    void (*bands)(const ShBasis& basis, const ShDirections& dirs, float* dst);
    void (*band[kShMaxOrder + 1])(const ShDirections& dirs, float* dst);
    void (*forward)(const ShBasis& basis, const ShDirections& dirs, const ShSamples& samples, float* const coeffs[3]);
    void (*inverse)(const ShBasis& basis, const ShDirections& dirs, const float* const coeffs[3],
                    const ShResults& results);
};

namespace sse2 {
extern const ShKernels kSh;
}
namespace avx2 {
extern const ShKernels kSh;
}
namespace avx512 {
extern const ShKernels kSh;
}

inline const ShKernels& shKernels(Level level) {
    return pick(level, sse2::kSh, avx2::kSh, avx512::kSh);
}

// Bands 0..L of len directions, by the polynomials and by the recurrence over a state's tables.
ZenStatus ownrSH15direct_32f(Level level, const float* pX, const float* pY, const float* pZ, int len, float* pDst,
                             int L);
ZenStatus ownrSHrecurr_32f(Level level, const float* pA, const float* pB, const float* pX, const float* pY,
                           const float* pZ, int len, float* pDst, int L);

} // namespace zenr
