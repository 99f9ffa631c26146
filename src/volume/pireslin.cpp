// The linear passes of volume resize, once per level.
#include "volume/pireslin.h"

#include "volume/presguard.h"
#include "volume/presvec.h"
#include "volume/preswindow.h"

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
    const double* f;
    Sum sum(int x) const { return linearSum(s[index[x]], s[index[x] + 1], f[x]); }
    long double exact(int x) const {
        const long double s0 = s[index[x]];
        return s0 + (s[index[x] + 1] - s0) * f[x];
    }
};

#if defined(__AVX2__)
struct WindowLines : RowLines {
    static constexpr bool kInterpolates = true;
    const int* guarded;
    Window window;
    WindowLines(const RowLines& lines, const int* g, const Window& w) : RowLines(lines), guarded(g), window(w) {}
    ZENR_INLINE Eight eight(int x) const {
        Taps t[2];
        two8(window, x, t);
        return halves(multiplyAdd(minus(t[1], t[0]), f + x, t[0]));
    }
    ZENR_INLINE Eight line8(int x) const { return eight(x); }
    ZENR_INLINE __m256 finish(__m256 r, int) const { return r; }
    ZENR_INLINE Eight size(int x) const {
        Taps t[2];
        two8(window, x, t);
        return plus(absolute(halves(t[0])), absolute(halves(t[1])));
    }
    ZENR_INLINE __m256i guarded8(int x) const {
        return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(guarded + x));
    }
    bool zero16(int x) const { return ZENR_LEVEL::zero16(window, x, 2); }
};
#endif

void rowFloat(const float* src, const int* index, const double* weights, const int* guarded, const RowBound& bound,
              Care care, double* dst, int n) {
    const RowLines lines = {src, index, weights};
#if defined(__AVX2__)
    if (n >= 16)
        return throughWindows<2, double>(
            src, index, n,
            [&](const Window& window, int begin, int end) {
                roundTaps(WindowLines(lines, guarded, window), bound, care, dst, begin, end);
            },
            [&](int begin, int count) { roundRun(lines, dst, begin, count); });
#endif
    (void)guarded, (void)bound, (void)care;
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
// Where the operands are finite, r0 + (r1 - r0)*f is the same number, and takes fewer roundings; only, two zeros below 0
// add up to one below 0, which has to be seen to if the rows are `mixed`.
template <bool mixed> struct Blends {
    static constexpr bool kInterpolates = true;
    static constexpr int kRows = 2;
    const double* rows[2];
    double f, rest;
    double restError; // 0 where 1 - f is a float
    Sum sum(int x) const {
        const double a = rows[1][x] * f;
        const double b = rows[0][x] * rest;
        const double value = a + b;
        return {value, sizeOf(a) + sizeOf(b), lost(a, b, value) + restError};
    }
    long double exact(int x) const {
        const long double w = f;
        return rows[1][x] * w + rows[0][x] * (1 - w);
    }
#if defined(__AVX2__)
    ZENR_INLINE Eight size(int x) const {
        return plus(absolute(widen8(rows[0] + x)), absolute(widen8(rows[1] + x)));
    }
    bool zero16(int x) const {
        return zeroRows16<2>(rows, x);
    }
    ZENR_INLINE Eight eight(int x) const {
        return multiplyAdd(widen8(rows[1] + x), _mm256_set1_pd(f), times(widen8(rows[0] + x), _mm256_set1_pd(rest)));
    }
    ZENR_INLINE Eight line8(int x) const {
        const Eight s0 = widen8(rows[0] + x);
        return multiplyAdd(minus(widen8(rows[1] + x), s0), _mm256_set1_pd(f), s0);
    }
    ZENR_INLINE __m256 finish(__m256 r, int x) const {
        if constexpr (!mixed) return r;
        const __m256 both = _mm256_and_ps(floats8(rows[0] + x), floats8(rows[1] + x));
        return _mm256_or_ps(r, _mm256_and_ps(both, _mm256_set1_ps(-0.f)));
    }
#endif
};

template <bool mixed>
void blendFloatAs(const double* r0, const double* r1, float w, const RowBound& bound, Care care, float* dst, int n) {
    const long double rest = 1 - static_cast<long double>(w);
    roundRows(Blends<mixed>{{r0, r1}, w, double(rest), rest == float(rest) ? 0. : 1.}, bound, care, isShort(w), dst, n);
}

void blendFloat(const double* r0, const double* r1, float w, const RowBound& bound, Care care, float* dst, int n) {
    (bound.mixed ? blendFloatAs<true> : blendFloatAs<false>)(r0, r1, w, bound, care, dst, n);
}

struct Lines {
    static constexpr bool kInterpolates = true;
    static constexpr int kRows = 2;
    const float* rows[2];
    double f;
    Sum sum(int x) const { return linearSum(rows[0][x], rows[1][x], f); }
    long double exact(int x) const {
        const long double s0 = rows[0][x];
        return s0 + (rows[1][x] - s0) * f;
    }
#if defined(__AVX2__)
    ZENR_INLINE Eight size(int x) const {
        return plus(absolute(widen8(rows[0] + x)), absolute(widen8(rows[1] + x)));
    }
    bool zero16(int x) const {
        return zeroRows16<2>(rows, x);
    }
    ZENR_INLINE Eight eight(int x) const {
        const Eight s0 = widen8(rows[0] + x);
        return multiplyAdd(minus(widen8(rows[1] + x), s0), _mm256_set1_pd(f), s0);
    }
    ZENR_INLINE Eight line8(int x) const {
        return eight(x);
    }
    ZENR_INLINE __m256 finish(__m256 r, int) const {
        return r;
    }
#endif
};

void depthFloat(const float* p0, const float* p1, float w, const RowBound& bound, Care care, float* dst, int n) {
    roundRows(Lines{{p0, p1}, w}, bound, care, isShort(w), dst, n);
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
    {boundOf, ownpi_CoefLinear32pl, ownpi_SummLinear32pl, ownpr_DepLinear32pl},
    ownpi_SummLinear8pl,
};

} // namespace ZENR_LEVEL
} // namespace zenr
