// The cubic passes of volume resize, once per level.
#include "volume/pirescub.h"

#include "volume/presguard.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

inline long double exactSum(long double s0, long double s1, long double s2, long double s3, double w0, double w1,
                            double w2, double w3) {
    return w0 * s0 + w1 * s1 + w2 * s2 + w3 * s3;
}

// A row pass: taps through the index table.
template <class T> struct RowSums {
    const T* s;
    const int* index;
    const double* w;
    Sum sum(int x) const {
        const T* const t = s + index[x];
        const double* const v = w + 4 * ptrdiff_t(x);
        return cubicSum(v[0] * t[0], v[1] * t[1], v[2] * t[2], v[3] * t[3]);
    }
    long double exact(int x) const {
        const T* const t = s + index[x];
        const double* const v = w + 4 * ptrdiff_t(x);
        return exactSum(t[0], t[1], t[2], t[3], v[0], v[1], v[2], v[3]);
    }
};

#if defined(__AVX2__)
// The same out of a window of voxels that were turned to doubles. `origin` is where voxel s[0] would stand, which is
// outside the window mostly.
template <class T> struct WindowSums : RowSums<T> {
    const int* guarded;
    uintptr_t origin;
    const double* taps(int x) const {
        return reinterpret_cast<const double*>(origin + uintptr_t(ptrdiff_t(this->index[x])) * sizeof(double));
    }
    // The sums of the four lanes of what f gives for each of four columns.
    template <class F> static ZENR_INLINE __m256d pair(int x, const F& f) {
        const __m256d a = f(x), b = f(x + 1);
        return _mm256_add_pd(_mm256_unpacklo_pd(a, b), _mm256_unpackhi_pd(a, b));
    }
    template <class F> static ZENR_INLINE __m256d four(int x, const F& f) {
        const __m256d a = pair(x, f), b = pair(x + 2, f);
        return _mm256_add_pd(_mm256_permute2f128_pd(a, b, 0x20), _mm256_permute2f128_pd(a, b, 0x31));
    }
    ZENR_INLINE Eight eight(int x) const {
        const auto product = [this](int i) __attribute__((always_inline)) {
            return _mm256_mul_pd(_mm256_loadu_pd(taps(i)), _mm256_load_pd(this->w + 4 * ptrdiff_t(i)));
        };
        return {four(x, product), four(x + 4, product)};
    }
    ZENR_INLINE Eight size(int x) const {
        const auto tap = [this](int i) __attribute__((always_inline)) {
            return absolute(_mm256_loadu_pd(taps(i)));
        };
        return {four(x, tap), four(x + 4, tap)};
    }
    ZENR_INLINE __m256 needed(int x) const {
        return _mm256_castsi256_ps(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(guarded + x)));
    }
    bool zero16(int x) const { return zeroRun(taps(x), int(taps(x + 15) - taps(x)) + 4); }
};

constexpr int kWindow = 320; // voxels in L1
constexpr int kColumns = 128;

ZENR_INLINE void widen4(const uint8_t* s, double* d) {
    int four;
    __builtin_memcpy(&four, s, 4);
    _mm256_storeu_pd(d, _mm256_cvtepi32_pd(_mm_cvtepu8_epi32(_mm_cvtsi32_si128(four))));
}
ZENR_INLINE void widen4(const uint16_t* s, double* d) {
    _mm256_storeu_pd(d, _mm256_cvtepi32_pd(_mm_cvtepu16_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(s)))));
}
ZENR_INLINE void widen4(const float* s, double* d) {
    _mm256_storeu_pd(d, _mm256_cvtps_pd(_mm_loadu_ps(s)));
}
#endif

template <class T>
void rowCubicOne(const RowSums<T>& sums, const int* guarded, const RowBound& bound, float* dst, int n) {
#if defined(__AVX2__)
    if (n >= 16) {
        alignas(64) double window[kWindow];
        for (int x = 0; x < n;) {
            // Columns whose taps fit in the window; the last sixteen may overlap those before.
            if (n - x < 16) x = n - 16;
            const int first = sums.index[x];
            int columns = n - x < kColumns ? n - x : kColumns;
            int count = sums.index[x + columns - 1] + 4 - first;
            if (count > kWindow) {
                columns = 16;
                count = sums.index[x + columns - 1] + 4 - first;
            }
            if (count > kWindow) {
                roundRun(sums, dst, x, columns);
            } else {
                for (int i = 0; i < count; i += 4) {
                    const int from = count - i < 4 ? count - 4 : i;
                    widen4(sums.s + first + from, window + from);
                }
                const uintptr_t origin =
                    reinterpret_cast<uintptr_t>(window) - uintptr_t(ptrdiff_t(first)) * sizeof(double);
                const WindowSums<T> fast = {sums, guarded, origin};
                roundTaps(fast, bound, dst, x, x + columns);
            }
            x += columns;
        }
        return;
    }
#endif
    (void)guarded;
    (void)bound;
    roundRow(sums, dst, n);
}

template <class T>
void rowCubic(const T* const* rows, float* const* dst, int rowCount, const int* index, const double* weights,
              const int* guarded, const RowBound* bounds, int n) {
    for (int r = 0; r < rowCount; ++r)
        rowCubicOne(RowSums<T>{rows[r] - 1, index, weights}, guarded, bounds[r], dst[r], n);
}

// A column or depth pass: four rows, four weights.
struct ColumnSums {
    static constexpr int kRows = 4;
    const float* const* rows;
    double w[4];
    ColumnSums(const float* const* r, const float* weights)
        : rows(r), w{weights[0], weights[1], weights[2], weights[3]} {}
    bool shortWeights() const { return isShort(w[0]) && isShort(w[1]) && isShort(w[2]) && isShort(w[3]); }
    Sum sum(int x) const {
        return cubicSum(w[0] * rows[0][x], w[1] * rows[1][x], w[2] * rows[2][x], w[3] * rows[3][x]);
    }
    long double exact(int x) const {
        return exactSum(rows[0][x], rows[1][x], rows[2][x], rows[3][x], w[0], w[1], w[2], w[3]);
    }
#if defined(__AVX2__)
    ZENR_INLINE Eight size(int x) const {
        Eight s = absolute(widen8(rows[0] + x));
        for (int k = 1; k < 4; ++k) s = plus(s, absolute(widen8(rows[k] + x)));
        return s;
    }
    bool zero16(int x) const {
        return zeroRows16<4>(rows, x);
    }
    ZENR_INLINE Eight eight(int x) const {
        Eight s = times(widen8(rows[0] + x), _mm256_set1_pd(w[0]));
        for (int k = 1; k < 4; ++k) s = multiplyAdd(widen8(rows[k] + x), _mm256_set1_pd(w[k]), s);
        return s;
    }
#endif
};

void colCubic(const float* const rows[4], const float* w, float bound, float* dst, int n) {
    const float* const r[4] = {rows[0], rows[1], rows[2], rows[3]};
    const ColumnSums sums(r, w);
    roundRows(sums, bound, sums.shortWeights(), dst, n);
}

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

// Voxels [begin, begin + n): in double where that is certain, otherwise in extended precision.
template <class T> __attribute__((noinline)) void depthRun(const ColumnSums& sums, T* dst, int begin, int n) {
    constexpr int kMost = T(~T(0));
    int doubt = 0;
    for (int x = begin; x < begin + n; ++x) {
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
        for (int x = begin; x < begin + n; ++x) dst[x] = depthExact<T>(sums, x);
}

template <class T> void depCubicInteger(const float* const planes[4], const float* w, T* __restrict dst, int n) {
    const float* const r[4] = {planes[0], planes[1], planes[2], planes[3]};
    const ColumnSums sums(r, w);
    constexpr int kGroup = 16;
#if defined(__AVX2__)
    if (n >= kGroup) {
        for (int begin = 0; begin < n; begin += kGroup) {
            const int x = n - begin < kGroup ? n - kGroup : begin; // the last group may overlap the one before
            Fixed fixed = {_mm256_setzero_si256()};
            const __m256i low = fixed.round(sums.eight(x));
            const __m256i high = fixed.round(sums.eight(x + 8));
            storeVoxels16(dst + x, words16(low, high));
            if (__builtin_expect(!_mm256_testz_si256(fixed.doubt, fixed.doubt), 0)) depthRun(sums, dst, x, kGroup);
        }
        return;
    }
#endif
    for (int begin = 0; begin < n; begin += kGroup) depthRun(sums, dst, begin, n - begin < kGroup ? n - begin : kGroup);
}

} // namespace

constexpr auto ownpi_RowCubic8pl = &rowCubic<uint8_t>;
constexpr auto ownpi_RowCubic16pl = &rowCubic<uint16_t>;
constexpr auto ownpi_RowCubic32pl = &rowCubic<float>;
constexpr auto ownpi_ColCubic32pl = &colCubic;
constexpr auto ownpr_DepCubic8pl = &depCubicInteger<uint8_t>;
constexpr auto ownpr_DepCubic16pl = &depCubicInteger<uint16_t>;
constexpr auto ownpr_DepCubic32pl = &colCubic;

extern const CubicKernels kCubic;
const CubicKernels kCubic = {
    boundOf,           ownpi_RowCubic8pl,  ownpi_RowCubic16pl, ownpi_RowCubic32pl, ownpi_ColCubic32pl,
    ownpr_DepCubic8pl, ownpr_DepCubic16pl, ownpr_DepCubic32pl};

} // namespace ZENR_LEVEL
} // namespace zenr
