// The cubic passes of volume resize, once per level.
#include "volume/pirescub.h"

#include "volume/presguard.h"
#include "volume/presscan.h"
#include "volume/preswindow.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

inline long double exactSum(long double s0, long double s1, long double s2, long double s3, double w0, double w1,
                            double w2, double w3) {
    return w0 * s0 + w1 * s1 + w2 * s2 + w3 * s3;
}

// Bounds whose begin and end are right to the voxel: sums of zeros next to other voxels would pass for small ones.
#if defined(__AVX2__)
// A bit for each of sixteen voxels that is not 0.
ZENR_INLINE unsigned nonzero16(const float* v) {
    const __m256i low = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(v));
    const __m256i high = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(v + 8));
    return 0xFFFF & ~lanes16(_mm256_castsi256_ps(isZero(low)), _mm256_castsi256_ps(isZero(high)));
}
ZENR_INLINE unsigned nonzero16(const uint16_t* v) {
    const __m256i all = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(v));
    const __m256i zero = _mm256_cmpeq_epi16(all, _mm256_setzero_si256());
    const __m128i bytes = _mm_packs_epi16(_mm256_castsi256_si128(zero), _mm256_extracti128_si256(zero, 1));
    return 0xFFFF & ~unsigned(_mm_movemask_epi8(bytes));
}
template <class T> ZENR_INLINE void closeEnds(const T* v, RowBound* bound) {
    if (bound->end - bound->begin < 16) return;
    const unsigned first = nonzero16(v + bound->begin), last = nonzero16(v + bound->end - 16);
    if (first) bound->begin += __builtin_ctz(first);
    if (last) bound->end -= __builtin_clz(last) - 16;
}
#endif
inline void closeBound(const float* v, int n, RowBound* bound) {
    boundOf(v, n, bound);
#if defined(__AVX2__)
    closeEnds(v, bound);
#endif
}
// Few 16-bit volumes have voxels of all sizes.
inline void closeBound(const uint16_t* v, int n, RowBound* bound) {
    boundOf(v, n, bound);
#if defined(__AVX2__)
    closeEnds(v, bound);
    if (bound->end - bound->begin < 16) return;
    __m256i most = _mm256_setzero_si256();
    inGroups<16>(
        bound->begin, bound->end, [&](ptrdiff_t x) __attribute__((always_inline)) {
            most = _mm256_max_epu16(most, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(v + x)));
        });
    const __m128i half = _mm_max_epu16(_mm256_castsi256_si128(most), _mm256_extracti128_si256(most, 1));
    const __m128i least = _mm_minpos_epu16(_mm_xor_si128(half, _mm_set1_epi16(-1)));
    bound->most = float(0xFFFF & ~_mm_extract_epi16(least, 0));
#endif
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
template <class T> struct WindowSums {
    static constexpr bool kInterpolates = false;
    static constexpr bool kFewGuarded = sizeof(T) < 4;
    const double* weights;
    ptrdiff_t step; // of weights
    const int* guarded;
    Window window;
    Sum sum(int x) const {
        const double* const t = window.taps(x);
        const double* const w = weights + x;
        return cubicSum(w[0] * t[0], w[step] * t[1], w[2 * step] * t[2], w[3 * step] * t[3]);
    }
    long double exact(int x) const {
        const double* const t = window.taps(x);
        const double* const w = weights + x;
        return exactSum(t[0], t[1], t[2], t[3], w[0], w[step], w[2 * step], w[3 * step]);
    }
    ZENR_INLINE Taps taps8(ptrdiff_t x) const {
        Taps t[4];
        four8(window, x, t);
        const double* const w = weights + x;
        Taps s = times(t[0], w);
        for (int k = 1; k < 4; ++k) s = multiplyAdd(t[k], w + k * step, s);
        return s;
    }
    ZENR_INLINE Eight eight(int x) const { return halves(taps8(x)); }
    ZENR_INLINE Eight size(int x) const {
        Taps t[4];
        four8(window, x, t);
        Eight s = absolute(halves(t[0]));
        for (int k = 1; k < 4; ++k) s = plus(s, absolute(halves(t[k])));
        return s;
    }
    ZENR_INLINE unsigned guarded8(ptrdiff_t x) const { return signs8(guarded + x); }
    template <int columns> bool zeros(int x) const { return zeroColumns(window, x, columns, 4); }
};
#endif

template <class T>
void rowCubic(const T* row, double* dst, const int* index, const double* weights, int weightStep, const int* guarded,
              const RowBound& bound, Care care, int size, int n) {
    const RowSums<T> sums = {row - 1, index, weights, weightStep};
#if defined(__AVX2__)
    if (n >= 16)
        return throughWindows<4, -1, double>(
            sums.s, size, index, n,
            [&](const Window& window, int begin, int end) {
                roundTaps(WindowSums<T>{weights, weightStep, guarded, window}, bound, care, dst, begin, end);
            },
            [&](int begin, int count) { roundRun(sums, dst, begin, count); });
#endif
    (void)guarded, (void)bound, (void)care, (void)size;
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
    template <int count> bool zeros(int x) const {
        return zeroRows<4, count>(rows, x);
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
    roundRows(sums, bound, care, sums.shortWeights(), dst, n);
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

// 8-bit voxels in float.
inline float fused(float a, float b, float c) {
#if defined(__FMA__)
    return __builtin_fmaf(a, b, c);
#else
    return a * b + c;
#endif
}

inline void quickRowPlain(const uint8_t* __restrict s, float* __restrict dst, const int* __restrict index,
                          const float* __restrict w, int step, int n) {
    for (int x = 0; x < n; ++x) {
        const uint8_t* const t = s + index[x];
        dst[x] = fused(t[3], w[x + 3 * step], fused(t[2], w[x + 2 * step], fused(t[1], w[x + step], t[0] * w[x])));
    }
}

#if defined(ZENR_LEVEL_avx512)
inline __m512 floats16(const uint8_t* s, int n) {
    const __mmask16 mask = __mmask16(n >= 16 ? 0xFFFF : (1 << n) - 1);
    return _mm512_cvtepi32_ps(_mm512_cvtepu8_epi32(_mm_maskz_loadu_epi8(mask, s)));
}
// Sixteen columns whose taps lie within 32 voxels.
ZENR_INLINE bool quickRow16(const uint8_t* s, float* dst, const int* index, const float* w, int step) {
    const int base = index[0];
    const int needed = index[15] - base + 4;
    if (needed > 32) return false;
    const __m512i at = _mm512_sub_epi32(_mm512_loadu_si512(index), _mm512_set1_epi32(base));
    const __m512 low = floats16(s + base, needed);
    __m512 t[4];
    if (needed <= 16) {
        for (int k = 0; k < 4; ++k) t[k] = _mm512_permutexvar_ps(_mm512_add_epi32(at, _mm512_set1_epi32(k)), low);
    } else {
        const __m512 high = floats16(s + base + 16, needed - 16);
        for (int k = 0; k < 4; ++k)
            t[k] = _mm512_permutex2var_ps(low, _mm512_add_epi32(at, _mm512_set1_epi32(k)), high);
    }
    __m512 sum = _mm512_mul_ps(t[0], _mm512_loadu_ps(w));
    for (int k = 1; k < 4; ++k) sum = _mm512_fmadd_ps(t[k], _mm512_loadu_ps(w + k * step), sum);
    _mm512_storeu_ps(dst, sum);
    return true;
}
#endif

void quickRow(const uint8_t* row, float* dst, const int* index, const float* weights, int step, int n) {
    const uint8_t* const s = row - 1;
#if defined(ZENR_LEVEL_avx512)
    for (int begin = 0; n >= 16 && begin < n; begin += 16) {
        const int x = n - begin < 16 ? n - 16 : begin; // the last group may overlap the one before
        if (!quickRow16(s, dst + x, index + x, weights + x, step))
            quickRowPlain(s, dst + x, index + x, weights + x, step, 16);
    }
    if (n >= 16) return;
#elif defined(__AVX2__)
    if (n >= 16)
        return throughWindows<4, -1, float>(
            s, 0, index, n,
            [&](const WindowOf<float>& window, int begin, int end) {
                for (int i = begin; i < end; i += 8) {
                    const int x = end - i < 8 ? end - 8 : i;
                    const __m256i at = _mm256_sub_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(index + x)),
                                                        _mm256_set1_epi32(index[x]));
                    const float* const t = window.taps(x);
                    const int span = index[x + 7] - index[x];
                    const __m256 upper = _mm256_castsi256_ps(_mm256_slli_epi32(at, 28)); // 8 and more
                    const auto tap = [&](int k) __attribute__((always_inline)) {
                        if (span > 15) return _mm256_i32gather_ps(t + k, at, 4);
                        const __m256 low = _mm256_permutevar8x32_ps(_mm256_loadu_ps(t + k), at);
                        if (span < 8) return low;
                        return _mm256_blendv_ps(low, _mm256_permutevar8x32_ps(_mm256_loadu_ps(t + k + 8), at), upper);
                    };
                    __m256 sum = _mm256_mul_ps(tap(0), _mm256_loadu_ps(weights + x));
                    for (int k = 1; k < 4; ++k)
                        sum = _mm256_fmadd_ps(tap(k), _mm256_loadu_ps(weights + x + k * step), sum);
                    _mm256_storeu_ps(dst + x, sum);
                }
            },
            [&](int begin, int count) { quickRowPlain(s, dst + begin, index + begin, weights + begin, step, count); });
#endif
    quickRowPlain(s, dst, index, weights, step, n);
}

void quickColumn(const float* const rows[4], const float* w, float* __restrict dst, int n) {
    const float *const a = rows[0], *const b = rows[1], *const c = rows[2], *const d = rows[3];
    const float wa = w[0], wb = w[1], wc = w[2], wd = w[3];
    for (int x = 0; x < n; ++x) dst[x] = fused(d[x], wd, fused(c[x], wc, fused(b[x], wb, a[x] * wa)));
}

// Sums + 1/2 + 1536 lie between 1024 and 2048, where floats have 13 fraction bits.
constexpr float kQuickShift = 1536.5f;
constexpr int kQuickZero = 0x44C00000 >> 13; // 1536
constexpr int kQuickNear = 4;                // 2^-11
constexpr int kQuickFar = 0x1FFF & ~(2 * kQuickNear - 1);

void quickDepth(const float* const planes[4], const float* w, uint8_t* __restrict dst, uint64_t* __restrict doubts,
                int n) {
    const float *const a = planes[0], *const b = planes[1], *const c = planes[2], *const d = planes[3];
    const float wa = w[0], wb = w[1], wc = w[2], wd = w[3];
    int x = 0;
#if defined(ZENR_LEVEL_avx512)
    const __m512 weights[4] = {_mm512_set1_ps(wa), _mm512_set1_ps(wb), _mm512_set1_ps(wc), _mm512_set1_ps(wd)};
    for (; x < n; x += 64) {
        __m512i whole[4] = {};
        uint64_t mask = 0;
        const uint64_t lanes = n - x >= 64 ? ~uint64_t(0) : (uint64_t(1) << (n - x)) - 1;
        for (int i = 0; i < 4 && x + 16 * i < n; ++i) {
            const int at = x + 16 * i;
            const __mmask16 in = __mmask16(lanes >> 16 * i);
            __m512 sum = _mm512_mul_ps(_mm512_maskz_loadu_ps(in, a + at), weights[0]);
            sum = _mm512_fmadd_ps(_mm512_maskz_loadu_ps(in, b + at), weights[1], sum);
            sum = _mm512_fmadd_ps(_mm512_maskz_loadu_ps(in, c + at), weights[2], sum);
            sum = _mm512_fmadd_ps(_mm512_maskz_loadu_ps(in, d + at), weights[3], sum);
            const __m512i bits = _mm512_castps_si512(_mm512_add_ps(sum, _mm512_set1_ps(kQuickShift)));
            const __mmask16 near = _mm512_testn_epi32_mask(_mm512_add_epi32(bits, _mm512_set1_epi32(kQuickNear)),
                                                           _mm512_set1_epi32(kQuickFar));
            mask |= uint64_t(near) << 16 * i;
            whole[i] = _mm512_sub_epi32(_mm512_srli_epi32(bits, 13), _mm512_set1_epi32(kQuickZero));
        }
        doubts[x / 64] = mask & lanes;
        const __m512i bytes =
            _mm512_packus_epi16(_mm512_packs_epi32(whole[0], whole[1]), _mm512_packs_epi32(whole[2], whole[3]));
        const __m512i order = _mm512_setr_epi32(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
        _mm512_mask_storeu_epi8(dst + x, lanes, _mm512_permutexvar_epi32(order, bytes));
    }
    return;
#endif
    for (; x < n; x += 64) {
        const int count = n - x < 64 ? n - x : 64;
        uint8_t near[64] = {};
        for (int i = 0; i < count; ++i) {
            const float sum = fused(d[x + i], wd, fused(c[x + i], wc, fused(b[x + i], wb, a[x + i] * wa)));
            const int bits = bitsOf(sum + kQuickShift);
            const int whole = (bits >> 13) - kQuickZero;
            const int positive = whole < 0 ? 0 : whole;
            dst[x + i] = uint8_t(positive > 255 ? 255 : positive);
            near[i] = ((bits + kQuickNear) & kQuickFar) == 0;
        }
        uint64_t mask = 0;
        for (int i = 0; i < 64; i += 8) {
            uint64_t eight; // bytes of 0 or 1: the product moves them together
            __builtin_memcpy(&eight, near + i, 8);
            mask |= (eight * 0x0102040810204080u >> 56) << i;
        }
        doubts[x / 64] = mask;
    }
}

uint8_t quickVoxel(const uint8_t (*voxels)[16], const float* wx, const float* wy, const float* wz) {
    double taps[4][16];
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 16; ++j) taps[i][j] = voxels[i][j];
    float rows[16], columns[4];
    const double* const t[4] = {taps[0], taps[1], taps[2], taps[3]};
    roundRun(ColumnSums<double>(t, wx), rows, 0, 16);
    const float* const r[4] = {rows, rows + 4, rows + 8, rows + 12};
    roundRun(ColumnSums<float>(r, wy), columns, 0, 4);
    const float* const c[4] = {columns, columns + 1, columns + 2, columns + 3};
    return depthExact<uint8_t>(ColumnSums<float>(c, wz), 0);
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
#if defined(__AVX2__)
constexpr int kReach = kWindow;
#else
constexpr int kReach = 0;
#endif
const CubicKernels kCubic = {boundOf<uint8_t>,
                             closeBound,
                             closeBound,
                             ownpi_RowCubic8pl,
                             ownpi_RowCubic16pl,
                             ownpi_RowCubic32pl,
                             ownpi_ColCubic32pl,
                             ownpr_DepCubic8pl,
                             ownpr_DepCubic16pl,
                             ownpr_DepCubic32pl,
                             kReach};

extern const QuickCubicKernels kQuickCubic;
const QuickCubicKernels kQuickCubic = {boundOf<uint8_t>, quickRow, quickColumn, quickDepth, quickVoxel};

} // namespace ZENR_LEVEL
} // namespace zenr
