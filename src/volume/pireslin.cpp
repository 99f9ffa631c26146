// The linear passes of volume resize, once per level.
#include "volume/pireslin.h"

#include "volume/presround.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

constexpr int kRun = 64; // elements that share one test of doubt

// Row passes.
template <class T, int round, int shift>
void rowFixed(const T* __restrict src, const int* __restrict index, const uint16_t* __restrict weights,
              uint16_t* __restrict dst, int n) {
    for (int x = 0; x < n; ++x) {
        const T* const s = src + index[x];
        const unsigned w = weights[x];
        dst[x] = uint16_t(((kOneQ14 - w) * s[0] + w * s[1] + round) >> shift);
    }
}

template <class A> inline long double lineExact(A s0, A s1, float f) {
    return s0 + (static_cast<long double>(s1) - s0) * f;
}

// The difference, the product and the sum round once each, with an error of at most 2^-53 (|s0| + |s1|) each: twice
// that size covers them.
inline float lineOf(double s0, double s1, double f, int* doubt) {
    return roundDoubtfully(s0 + (s1 - s0) * f, sizeOf(s0) + sizeOf(s1), doubt);
}

void rowFloat(const float* __restrict src, const int* __restrict index, const float* __restrict weights,
              float* __restrict dst, int n) {
    for (int begin = 0; begin < n; begin += kRun) {
        const int end = n - begin < kRun ? n : begin + kRun;
        int doubt = 0;
        for (int x = begin; x < end; ++x) dst[x] = lineOf(src[index[x]], src[index[x] + 1], weights[x], &doubt);
        if (doubt)
            for (int x = begin; x < end; ++x) dst[x] = float(lineExact(src[index[x]], src[index[x] + 1], weights[x]));
    }
}

// Column and depth passes.
template <class Inter, class T, int round, int shift>
void blendFixed(const Inter* __restrict r0, const Inter* __restrict r1, uint16_t w, T* __restrict dst, int n) {
    const unsigned w1 = w;
    const unsigned w0 = kOneQ14 - w1;
    for (int x = 0; x < n; ++x) dst[x] = T((r1[x] * w1 + r0[x] * w0 + round) >> shift);
}

void blendFloat(const float* __restrict r0, const float* __restrict r1, float w, float* __restrict dst, int n) {
    const double f = w;
    const long double rest = 1 - static_cast<long double>(w);
    const double g = double(rest); // within 2^-53
    for (int begin = 0; begin < n; begin += kRun) {
        const int end = n - begin < kRun ? n : begin + kRun;
        int doubt = 0;
        for (int x = begin; x < end; ++x) {
            const double a = r1[x] * f;
            const double b = r0[x] * g;
            dst[x] = roundDoubtfully(a + b, sizeOf(a) + sizeOf(b), &doubt);
        }
        if (doubt)
            for (int x = begin; x < end; ++x) dst[x] = float(static_cast<long double>(r1[x]) * w + r0[x] * rest);
    }
}

void depthFloat(const float* __restrict p0, const float* __restrict p1, float w, float* __restrict dst, int n) {
    const double f = w;
    for (int begin = 0; begin < n; begin += kRun) {
        const int end = n - begin < kRun ? n : begin + kRun;
        int doubt = 0;
        for (int x = begin; x < end; ++x) dst[x] = lineOf(p0[x], p1[x], f, &doubt);
        if (doubt)
            for (int x = begin; x < end; ++x) dst[x] = float(lineExact(p0[x], p1[x], w));
    }
}

} // namespace

constexpr auto ownpi_CoefLinear8pl = &rowFixed<uint8_t, 128, 8>;
constexpr auto ownpi_CoefLinear16pl = &rowFixed<uint16_t, 8192, 14>;
constexpr auto ownpi_CoefLinear32pl = &rowFloat;
// Two Q6 rows: into Q6, or into final voxels.
static void ownpi_SummLinear8pl(const uint16_t* r0, const uint16_t* r1, uint16_t w, uint16_t* dst, int n) {
    blendFixed<uint16_t, uint16_t, 8192, 14>(r0, r1, w, dst, n);
}
static void ownpi_SummLinear8pl(const uint16_t* r0, const uint16_t* r1, uint16_t w, uint8_t* dst, int n) {
    blendFixed<uint16_t, uint8_t, 524288, 20>(r0, r1, w, dst, n);
}
constexpr auto ownpi_SummLinear16pl = &blendFixed<uint16_t, uint16_t, 8192, 14>;
constexpr auto ownpi_SummLinear32pl = &blendFloat;
constexpr auto ownpr_DepLinear8pl = &blendFixed<uint16_t, uint8_t, 524288, 20>;
constexpr auto ownpr_DepLinear16pl = &blendFixed<uint16_t, uint16_t, 8192, 14>;
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
