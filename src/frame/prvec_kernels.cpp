// The dot product in double, with a proof of its rounding. Compiled once per level.
#include "frame/prvec_kernels.h"

#include <immintrin.h>

#include "frame/provensum.h"

namespace zenr::ZENR_LEVEL {

// One register of doubles, and its filling from floats. The conversion is the reason for intrinsics: the compiler makes
// of a plain loop three times the instructions.  (Masked with all lanes on: the plain AVX-512 form warns of its own
// unset operand.)
#if defined(ZENR_LEVEL_avx512)
using Doubles = __m512d;
static inline Doubles load(const float* p) {
    return _mm512_maskz_cvtps_pd(0xFF, _mm256_loadu_ps(p));
}
#elif defined(ZENR_LEVEL_avx2)
using Doubles = __m256d;
static inline Doubles load(const float* p) {
    return _mm256_cvtps_pd(_mm_loadu_ps(p));
}
#else
using Doubles = __m128d;
static inline Doubles load(const float* p) {
    return _mm_cvtps_pd(_mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p))));
}
#endif
constexpr int kLanes = sizeof(Doubles) / sizeof(double);

typedef long long Bits __attribute__((vector_size(sizeof(Doubles))));
static inline Doubles magnitude(Doubles v) {
    return (Doubles)((Bits)v & (Bits{} + 0x7FFFFFFFFFFFFFFF));
}

static bool dot(const float* x, const float* y, int len, float* result) {
    // Two chains of additions hide their latency; four are no quicker.
    Doubles sum0{}, sum1{}, size0{}, size1{};
    int i = 0;
    for (; i <= len - 2 * kLanes; i += 2 * kLanes) {
        const Doubles product0 = load(x + i) * load(y + i);
        const Doubles product1 = load(x + i + kLanes) * load(y + i + kLanes);
        sum0 += product0;
        sum1 += product1;
        size0 += magnitude(product0);
        size1 += magnitude(product1);
    }
    if (i <= len - kLanes) {
        const Doubles product = load(x + i) * load(y + i);
        sum0 += product;
        size0 += magnitude(product);
        i += kLanes;
    }
    sum0 += sum1;
    size0 += size1;
    double sum = 0;
    double size = 0;
    for (; i < len; ++i) {
        const double product = double(x[i]) * double(y[i]);
        sum += product;
        size += __builtin_fabs(product);
    }
    for (int k = 0; k < kLanes; ++k) {
        sum += sum0[k];
        size += size0[k];
    }
    // In the loop a product goes through len / (2 kLanes) additions, then through one more in the half step, one that
    // joins the chains and at most kLanes that join the lanes; a product of the rest through less than 2 kLanes.
    const double factor = provenSumFactor(len / (2 * kLanes) + 2 * kLanes + 2, len);
    return provenSum(sum, size, factor, result);
}

extern const VectorKernels kVector = {dot};

} // namespace zenr::ZENR_LEVEL
