// The linear passes of volume resize, once per level.
#include "volume/pireslin.h"

#include "volume/presround.h"
#include "volume/presvec.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

// Row passes.
template <class T, int round, int shift>
inline void rowFixedPlain(const T* __restrict src, const int* __restrict index, const uint16_t* __restrict weights,
                          uint16_t* __restrict dst, int n) {
    for (int x = 0; x < n; ++x) {
        const T* const s = src + index[x];
        const unsigned w = weights[x];
        dst[x] = uint16_t(((kOneQ14 - w) * s[0] + w * s[1] + round) >> shift);
    }
}

template <class T, int round, int shift>
void rowFixed(const T* src, const int* index, const uint16_t* weights, uint16_t* dst, int n) {
#if defined(ZENR_LEVEL_avx512)
    constexpr int kGroup = 16;
    if (n >= kGroup) {
        for (int begin = 0; begin < n; begin += kGroup) {
            const int x = n - begin < kGroup ? n - kGroup : begin; // the last group may overlap the one before
            if (!fixed16<T, round, shift>(src, index + x, weights + x, dst + x))
                rowFixedPlain<T, round, shift>(src, index + x, weights + x, dst + x, kGroup);
        }
        return;
    }
#endif
    rowFixedPlain<T, round, shift>(src, index, weights, dst, n);
}

struct RowLines {
    const float* s;
    const int* index;
    const float* f;
    Sum sum(int x) const { return linearSum(s[index[x]], s[index[x] + 1], f[x]); }
    long double exact(int x) const {
        const long double s0 = s[index[x]];
        return s0 + (s[index[x] + 1] - s0) * f[x];
    }
};

void rowFloat(const float* src, const int* index, const float* weights, float* dst, int n) {
    const RowLines lines = {src, index, weights};
#if defined(ZENR_LEVEL_avx512)
    constexpr int kGroup = 8;
    if (n >= kGroup) {
        for (int begin = 0; begin < n; begin += kGroup) {
            const int x = n - begin < kGroup ? n - kGroup : begin; // the last group may overlap the one before
            __m512d s[2];
            bool settled = tapsOf8<2>(src, index + x, s);
            if (settled) {
                const __m512d f = _mm512_cvtps_pd(_mm256_loadu_ps(weights + x));
                const __m512d sum = _mm512_add_pd(s[0], _mm512_mul_pd(_mm512_sub_pd(s[1], s[0]), f));
                settled = !storeDoubtfully8(dst + x, sum, _mm512_add_pd(_mm512_abs_pd(s[0]), _mm512_abs_pd(s[1])));
            }
            if (!settled) roundRun(lines, dst, x, kGroup);
        }
        return;
    }
#endif
    roundRow(lines, dst, n);
}

// Column and depth passes.
template <class T, bool biased, int round, int shift>
void blendFixed(const uint16_t* __restrict r0, const uint16_t* __restrict r1, uint16_t w, T* __restrict dst, int n) {
    const unsigned w1 = w;
    const unsigned w0 = kOneQ14 - w1;
    int x = 0;
#if defined(ZENR_LEVEL_avx512)
    const __m512i pairs = weightPairs(_mm512_set1_epi32(w));
    for (; n - x >= 32; x += 32) storeWords(dst + x, blend32<biased, round, shift>(r0 + x, r1 + x, pairs));
#endif
    for (; x < n; ++x) dst[x] = T((r1[x] * w1 + r0[x] * w0 + round) >> shift);
}

// r1*f + r0*(1 - f). The products are exact where 1 - f is a float; otherwise it and r0's product err by 2^-53 each.
struct Blends {
    const float *r0, *r1;
    double f, rest;
    double restError; // 0 where 1 - f is a float
    Sum sum(int x) const {
        const double a = r1[x] * f;
        const double b = r0[x] * rest;
        const double value = a + b;
        return {value, sizeOf(a) + sizeOf(b), lost(a, b, value) + restError};
    }
    long double exact(int x) const {
        const long double w = f;
        return r1[x] * w + r0[x] * (1 - w);
    }
};

void blendFloat(const float* r0, const float* r1, float w, float* dst, int n) {
    const long double rest = 1 - static_cast<long double>(w);
    roundRow(Blends{r0, r1, w, double(rest), rest == float(rest) ? 0. : 1.}, dst, n);
}

struct Lines {
    const float *p0, *p1;
    double f;
    Sum sum(int x) const { return linearSum(p0[x], p1[x], f); }
    long double exact(int x) const {
        const long double s0 = p0[x];
        return s0 + (p1[x] - s0) * f;
    }
};

void depthFloat(const float* p0, const float* p1, float w, float* dst, int n) {
    roundRow(Lines{p0, p1, w}, dst, n);
}

} // namespace

constexpr auto ownpi_CoefLinear8pl = &rowFixed<uint8_t, 128, 8>;
constexpr auto ownpi_CoefLinear16pl = &rowFixed<uint16_t, 8192, 14>;
constexpr auto ownpi_CoefLinear32pl = &rowFloat;
// Two Q6 rows: into Q6, or into final voxels.
static void ownpi_SummLinear8pl(const uint16_t* r0, const uint16_t* r1, uint16_t w, uint16_t* dst, int n) {
    blendFixed<uint16_t, false, 8192, 14>(r0, r1, w, dst, n);
}
static void ownpi_SummLinear8pl(const uint16_t* r0, const uint16_t* r1, uint16_t w, uint8_t* dst, int n) {
    blendFixed<uint8_t, false, 524288, 20>(r0, r1, w, dst, n);
}
constexpr auto ownpi_SummLinear16pl = &blendFixed<uint16_t, true, 8192, 14>;
constexpr auto ownpi_SummLinear32pl = &blendFloat;
constexpr auto ownpr_DepLinear8pl = &blendFixed<uint8_t, false, 524288, 20>;
constexpr auto ownpr_DepLinear16pl = &blendFixed<uint16_t, true, 8192, 14>;
constexpr auto ownpr_DepLinear32pl = &depthFloat;

extern const AllLinearKernels kLinear;
const AllLinearKernels kLinear = {
    {ownpi_CoefLinear8pl, ownpi_SummLinear8pl, ownpr_DepLinear8pl},
    {ownpi_CoefLinear16pl, ownpi_SummLinear16pl, ownpr_DepLinear16pl},
    {ownpi_CoefLinear32pl, ownpi_SummLinear32pl, ownpr_DepLinear32pl},
    ownpi_SummLinear8pl,
};

} // namespace ZENR_LEVEL
} // namespace zenr
