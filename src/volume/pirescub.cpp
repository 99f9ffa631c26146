// The cubic passes of volume resize, once per level.
#include "volume/pirescub.h"

#include "volume/presguard.h"
#include "volume/preswindow.h"

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
    int step; // of weights
    Sum sum(int x) const {
        const T* const t = s + index[x];
        return cubicSum(w[x] * t[0], w[x + step] * t[1], w[x + 2 * step] * t[2], w[x + 3 * step] * t[3]);
    }
    long double exact(int x) const {
        const T* const t = s + index[x];
        return exactSum(t[0], t[1], t[2], t[3], w[x], w[x + step], w[x + 2 * step], w[x + 3 * step]);
    }
};

#if defined(__AVX2__)
template <class T> struct WindowSums : RowSums<T> {
    static constexpr bool kInterpolates = false;
    const int* guarded;
    Window window;
    WindowSums(const RowSums<T>& sums, const int* g, const Window& v) : RowSums<T>(sums), guarded(g), window(v) {}
    ZENR_INLINE Eight eight(int x) const {
        Taps t[4];
        window.four8(x, t);
        Taps s = times(t[0], this->w + x);
        for (int k = 1; k < 4; ++k) s = multiplyAdd(t[k], this->w + x + k * this->step, s);
        return halves(s);
    }
    ZENR_INLINE Eight size(int x) const {
        Taps t[4];
        window.four8(x, t);
        Eight s = absolute(halves(t[0]));
        for (int k = 1; k < 4; ++k) s = plus(s, absolute(halves(t[k])));
        return s;
    }
    ZENR_INLINE __m256i guarded8(int x) const {
        return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(guarded + x));
    }
    bool zero16(int x) const { return window.zero16(x, 4); }
};
#endif

template <class T>
void rowCubic(const T* row, double* dst, const int* index, const double* weights, int weightStep, const int* guarded,
              const RowBound& bound, Care care, int n) {
    const RowSums<T> sums = {row - 1, index, weights, weightStep};
#if defined(__AVX2__)
    if (n >= 16)
        return throughWindows<4>(
            sums.s, index, n,
            [&](const Window& window, int begin, int end) {
                roundTaps(WindowSums<T>(sums, guarded, window), bound, care, dst, begin, end);
            },
            [&](int begin, int count) { roundRun(sums, dst, begin, count); });
#endif
    (void)guarded, (void)bound, (void)care;
    roundRow(sums, dst, n);
}

// A column or depth pass: four rows, four weights.
template <class Element> struct ColumnSums {
    static constexpr bool kInterpolates = false;
    static constexpr int kRows = 4;
    const Element* rows[4];
    double w[4];
    ColumnSums(const Element* const* r, const float* weights)
        : rows{r[0], r[1], r[2], r[3]}, w{weights[0], weights[1], weights[2], weights[3]} {}
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
    ZENR_INLINE Eight line8(int x) const {
        return eight(x);
    }
    ZENR_INLINE __m256 finish(__m256 r, int) const {
        return r;
    }
#endif
};

template <class Element>
void colCubic(const Element* const rows[4], const float* w, const RowBound& bound, Care care, float* dst, int n) {
    const ColumnSums<Element> sums(rows, w);
    roundRows(sums, bound.most, care, sums.shortWeights(), dst, n);
}

// Half-way values and those up to 1e-7 below them round up: the constant is not 0.5 on purpose.
constexpr double kHalfUp = 0.5000001;

// The three passes of cubic weights enlarge a 16-bit value by at most 1.7 each, so a sum's terms stay below 2^19; 2^-29
// is more than the rounding errors of the sum in double.
constexpr double kSumError = 1.862645149230957e-9;

template <class T> T depthExact(const ColumnSums<float>& sums, int x) {
    constexpr int kMost = T(~T(0));
    const long double sum = sums.exact(x) + kHalfUp;
    return sum < 0 ? T(0) : sum > kMost ? T(kMost) : T(int(sum));
}

// Voxels [begin, begin + n): in double where that is certain, otherwise in extended precision.
template <class T> __attribute__((noinline)) void depthRun(const ColumnSums<float>& sums, T* dst, int begin, int n) {
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
    const ColumnSums<float> sums(planes, w);
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
constexpr auto ownpi_ColCubic32pl = &colCubic<double>;
constexpr auto ownpr_DepCubic8pl = &depCubicInteger<uint8_t>;
constexpr auto ownpr_DepCubic16pl = &depCubicInteger<uint16_t>;
constexpr auto ownpr_DepCubic32pl = &colCubic<float>;

extern const CubicKernels kCubic;
const CubicKernels kCubic = {
    boundOf,           ownpi_RowCubic8pl,  ownpi_RowCubic16pl, ownpi_RowCubic32pl, ownpi_ColCubic32pl,
    ownpr_DepCubic8pl, ownpr_DepCubic16pl, ownpr_DepCubic32pl};

} // namespace ZENR_LEVEL
} // namespace zenr
