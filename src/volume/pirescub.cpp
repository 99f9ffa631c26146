// The cubic passes of volume resize, once per level.
#include "volume/pirescub.h"

#include "volume/presround.h"
#include "volume/presvec.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

inline long double exactSum(long double s0, long double s1, long double s2, long double s3, double w0, double w1,
                            double w2, double w3) {
    return w0 * s0 + w1 * s1 + w2 * s2 + w3 * s3;
}

// A row pass: taps through the index table, weights in one array per tap.
template <class T> struct RowSums {
    const T* s;
    const int* index;
    const double *w0, *w1, *w2, *w3;
    Sum sum(int x) const {
        const T* const t = s + index[x];
        return cubicSum(w0[x] * t[0], w1[x] * t[1], w2[x] * t[2], w3[x] * t[3]);
    }
    long double exact(int x) const {
        const T* const t = s + index[x];
        return exactSum(t[0], t[1], t[2], t[3], w0[x], w1[x], w2[x], w3[x]);
    }
};

template <class T>
void rowCubic(const T* const* rows, float* const* dst, int rowCount, const int* index, const double* weights,
              int stride, int n) {
    for (int r = 0; r < rowCount; ++r) {
        const T* const s = rows[r] - 1;
        const RowSums<T> sums = {s, index, weights, weights + stride, weights + 2 * stride, weights + 3 * stride};
#if defined(ZENR_LEVEL_avx512)
        constexpr int kGroup = 8;
        if (n >= kGroup) {
            for (int begin = 0; begin < n; begin += kGroup) {
                const int x = n - begin < kGroup ? n - kGroup : begin; // the last group may overlap the one before
                __m512d t[4];
                bool settled = tapsOf8<4>(s, index + x, t);
                if (settled) {
                    for (int k = 0; k < 4; ++k) t[k] = _mm512_mul_pd(t[k], _mm512_loadu_pd(weights + x + k * stride));
                    const __m512d sum = _mm512_add_pd(_mm512_add_pd(_mm512_add_pd(t[0], t[1]), t[2]), t[3]);
                    const __m512d size = _mm512_add_pd(_mm512_add_pd(_mm512_abs_pd(t[0]), _mm512_abs_pd(t[1])),
                                                       _mm512_add_pd(_mm512_abs_pd(t[2]), _mm512_abs_pd(t[3])));
                    settled = !storeDoubtfully8(dst[r] + x, sum, size);
                }
                if (!settled) roundRun(sums, dst[r], x, kGroup);
            }
            continue;
        }
#endif
        roundRow(sums, dst[r], n);
    }
}

// A column or depth pass: four rows, four weights.
struct ColumnSums {
    const float *r0, *r1, *r2, *r3;
    double w0, w1, w2, w3;
    Sum sum(int x) const { return cubicSum(w0 * r0[x], w1 * r1[x], w2 * r2[x], w3 * r3[x]); }
    long double exact(int x) const { return exactSum(r0[x], r1[x], r2[x], r3[x], w0, w1, w2, w3); }
};

void colCubic(const float* const rows[4], const float* w, float* dst, int n) {
    const ColumnSums sums = {rows[0], rows[1], rows[2], rows[3], w[0], w[1], w[2], w[3]};
#if defined(ZENR_LEVEL_avx512)
    constexpr int kGroup = 16;
    if (n >= kGroup) {
        const __m512d weights[4] = {_mm512_set1_pd(w[0]), _mm512_set1_pd(w[1]), _mm512_set1_pd(w[2]),
                                    _mm512_set1_pd(w[3])};
        for (int begin = 0; begin < n; begin += kGroup) {
            const int x = n - begin < kGroup ? n - kGroup : begin; // the last group may overlap the one before
            if (__builtin_expect(column16(rows, x, weights, dst) != 0, 0)) roundRun(sums, dst, x, kGroup);
        }
        return;
    }
#endif
    roundRow(sums, dst, n);
}

constexpr int kRun = 64; // voxels that share one test of doubt

// Half-way values and those up to 1e-7 below them round up: the constant is not 0.5 on purpose.
constexpr double kHalfUp = 0.5000001;

// The three passes of cubic weights enlarge a 16-bit value by at most 1.7 each, so a sum's terms stay below 2^19; 2^-29
// is more than the rounding errors of the sum in double.
constexpr double kSumError = 1.862645149230957e-9;

template <class T> T depthExact(const ColumnSums& sums, int x) {
    constexpr int kMost = T(~T(0));
    const long double sum = sums.exact(x) + kHalfUp;
    return sum < 0 ? T(0) : sum > kMost ? T(kMost) : T(int(sum));
}

template <class T> void depCubicInteger(const float* const planes[4], const float* w, T* __restrict dst, int n) {
    const ColumnSums sums = {planes[0], planes[1], planes[2], planes[3], w[0], w[1], w[2], w[3]};
    constexpr int kMost = T(~T(0));
    int done = 0;
#if defined(ZENR_LEVEL_avx512)
    const __m512d weights[4] = {_mm512_set1_pd(w[0]), _mm512_set1_pd(w[1]), _mm512_set1_pd(w[2]), _mm512_set1_pd(w[3])};
    for (; n - done >= 16; done += 16) {
        __m512i voxels;
        if (__builtin_expect(depthInteger16(planes, done, weights, kHalfUp, kSumError, kMost, &voxels) != 0, 0))
            for (int x = done; x < done + 16; ++x) dst[x] = depthExact<T>(sums, x);
        else
            storeVoxels(dst + done, voxels);
    }
#endif
    for (int begin = done; begin < n; begin += kRun) {
        const int end = n - begin < kRun ? n : begin + kRun;
        int doubt = 0;
        for (int x = begin; x < end; ++x) {
            const double sum = sums.sum(x).value + kHalfUp;
            double low = sum - kSumError;
            double high = sum + kSumError;
            low = low < 0 ? 0 : low;
            low = low > kMost ? kMost : low;
            high = high < 0 ? 0 : high;
            high = high > kMost ? kMost : high;
            doubt |= int(low) ^ int(high);
            dst[x] = T(int(low));
        }
        if (doubt)
            for (int x = begin; x < end; ++x) dst[x] = depthExact<T>(sums, x);
    }
}

} // namespace

constexpr auto ownpi_RowCubic8pl = &rowCubic<uint8_t>;
constexpr auto ownpi_RowCubic16pl = &rowCubic<uint16_t>;
constexpr auto ownpi_RowCubic32pl = &rowCubic<float>;
constexpr auto ownpi_ColCubic32pl = &colCubic;
constexpr auto ownpr_DepCubic8pl = &depCubicInteger<uint8_t>;
constexpr auto ownpr_DepCubic16pl = &depCubicInteger<uint16_t>;
constexpr auto ownpr_DepCubic32pl = &colCubic; // the same sum, stored as it is

extern const CubicKernels kCubic;
const CubicKernels kCubic = {ownpi_RowCubic8pl, ownpi_RowCubic16pl, ownpi_RowCubic32pl, ownpi_ColCubic32pl,
                             ownpr_DepCubic8pl, ownpr_DepCubic16pl, ownpr_DepCubic32pl};

} // namespace ZENR_LEVEL
} // namespace zenr
