// The cubic passes of volume resize, once per level.
//
// The sums are defined in extended precision and rounded once. Here they run in double, where the products of two
// floats are exact, with a bound on what the double sum and the extended sum may differ by: where every number within
// the bound rounds to the same result, that is the result; where not (one element in some ten million, and every
// infinity), the run of elements is summed again in extended precision.
#include "volume/pirescub.h"

#include "volume/presround.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

// Elements that share one test of doubt.
constexpr int kRun = 64;

// Of weights of at most 1 in size: three additions with a rounding error of 2^-53 of at most `size` each, one more in
// forming the interval's ends, and the extended sum's own.
template <class T>
inline float sumOf(const T* s0, const T* s1, const T* s2, const T* s3, double w0, double w1, double w2, double w3,
                   int* doubt) {
    const double a = w0 * *s0;
    const double b = w1 * *s1;
    const double c = w2 * *s2;
    const double d = w3 * *s3;
    return roundDoubtfully(a + b + c + d, sizeOf(a) + sizeOf(b) + sizeOf(c) + sizeOf(d), doubt);
}

inline long double exactSum(long double s0, long double s1, long double s2, long double s3, float w0, float w1,
                            float w2, float w3) {
    return w0 * s0 + w1 * s1 + w2 * s2 + w3 * s3;
}

template <class T>
void rowCubic(const T* const* rows, float* const* dst, int rowCount, const int* index, const float* weights, int stride,
              int n) {
    const float* const w0 = weights;
    const float* const w1 = w0 + stride;
    const float* const w2 = w1 + stride;
    const float* const w3 = w2 + stride;
    for (int r = 0; r < rowCount; ++r) {
        const T* const s = rows[r] - 1;
        float* const out = dst[r];
        for (int begin = 0; begin < n; begin += kRun) {
            const int end = n - begin < kRun ? n : begin + kRun;
            int doubt = 0;
            for (int x = begin; x < end; ++x) {
                const T* const t = s + index[x];
                out[x] = sumOf(t, t + 1, t + 2, t + 3, w0[x], w1[x], w2[x], w3[x], &doubt);
            }
            if (doubt)
                for (int x = begin; x < end; ++x) {
                    const T* const t = s + index[x];
                    out[x] = float(exactSum(t[0], t[1], t[2], t[3], w0[x], w1[x], w2[x], w3[x]));
                }
        }
    }
}

void colCubic(const float* const rows[4], const float* w, float* __restrict dst, int n) {
    const float* const r0 = rows[0];
    const float* const r1 = rows[1];
    const float* const r2 = rows[2];
    const float* const r3 = rows[3];
    const double w0 = w[0], w1 = w[1], w2 = w[2], w3 = w[3];
    for (int begin = 0; begin < n; begin += kRun) {
        const int end = n - begin < kRun ? n : begin + kRun;
        int doubt = 0;
        for (int x = begin; x < end; ++x) dst[x] = sumOf(r0 + x, r1 + x, r2 + x, r3 + x, w0, w1, w2, w3, &doubt);
        if (doubt)
            for (int x = begin; x < end; ++x)
                dst[x] = float(exactSum(r0[x], r1[x], r2[x], r3[x], w[0], w[1], w[2], w[3]));
    }
}

// Half-way values and those up to 1e-7 below them round up: the constant is not 0.5 on purpose.
constexpr double kHalfUp = 0.5000001;

// The three passes of cubic weights enlarge a 16-bit value by at most 1.7 each, so a sum's terms stay below 2^19; 2^-29
// is more than the rounding errors of the sum in double.
constexpr double kSumError = 1.862645149230957e-9;

template <class T> void depCubicInteger(const float* const planes[4], const float* w, T* __restrict dst, int n) {
    const float* const p0 = planes[0];
    const float* const p1 = planes[1];
    const float* const p2 = planes[2];
    const float* const p3 = planes[3];
    const double w0 = w[0], w1 = w[1], w2 = w[2], w3 = w[3];
    constexpr double kMost = T(~T(0));
    for (int begin = 0; begin < n; begin += kRun) {
        const int end = n - begin < kRun ? n : begin + kRun;
        int doubt = 0;
        for (int x = begin; x < end; ++x) {
            const double sum = w0 * p0[x] + w1 * p1[x] + w2 * p2[x] + w3 * p3[x] + kHalfUp;
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
            for (int x = begin; x < end; ++x) {
                const long double sum = exactSum(p0[x], p1[x], p2[x], p3[x], w[0], w[1], w[2], w[3]) + kHalfUp;
                dst[x] = sum < 0 ? T(0) : sum > kMost ? T(kMost) : T(int(sum));
            }
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
