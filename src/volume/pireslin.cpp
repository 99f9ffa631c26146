// The linear passes of volume resize, once per level.
#include "volume/pireslin.h"

#include "volume/presbracket.h"
#include "volume/presfixed.h"
#include "volume/presguard.h"
#include "volume/presscan.h"
#include "volume/preswindow.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

// Fixed-point row passes.
template <class T, int round, int shift>
void rowFixed(const T* __restrict src, const int* __restrict index, const uint16_t* __restrict weights,
              uint16_t* __restrict dst, int n) {
    for (int x = 0; x < n; ++x) {
        const T* const s = src + index[x];
        const unsigned w = weights[x];
        dst[x] = uint16_t(((kOneQ14 - w) * s[0] + w * s[1] + round) >> shift);
    }
}

inline bool anyFar(const uint8_t*, int) {
    return false;
}
inline bool anyFar(const uint16_t* v, int n) {
    uint16_t any = 0;
    for (int i = 0; i < n; ++i) any |= v[i];
    return any > 0x7FFF;
}

struct RowLines {
    const float* s;
    const int* index;
    const double* f;
    Sum sum(int x) const { return linearSum(s[index[x]], s[index[x] + 1], f[x]); }
    long double exact(int x) const { return exactLine(s[index[x]], s[index[x] + 1], f[x]); }
};

#if defined(__AVX2__)
struct WindowLines : RowLines {
    static constexpr bool kInterpolates = true;
    const int* guarded;
    Window window;
    WindowLines(const RowLines& lines, const int* g, const Window& w) : RowLines(lines), guarded(g), window(w) {}
    ZENR_INLINE Taps taps8(ptrdiff_t x) const {
        Taps t[2];
        two8(window, x, t);
        return multiplyAdd(minus(t[1], t[0]), f + x, t[0]);
    }
    ZENR_INLINE Eight eight(int x) const { return halves(taps8(x)); }
    ZENR_INLINE Eight size(int x) const {
        Taps t[2];
        two8(window, x, t);
        return plus(absolute(halves(t[0])), absolute(halves(t[1])));
    }
    ZENR_INLINE unsigned guarded8(ptrdiff_t x) const { return signs8(guarded + x); }
    template <int columns> bool zeros(int x) const { return zeroColumns(window, x, columns, 2); }
};
#endif

void rowFloat(const float* src, const int* index, const double* weights, const int* guarded, const RowBound& bound,
              Care care, double* dst, int n) {
    const RowLines lines = {src, index, weights};
#if defined(__AVX2__)
    if (n >= 16)
        return throughWindows<2, 0, double>(
            src, 0, index, n,
            [&](const Window& window, int begin, int end) {
                roundTaps(WindowLines(lines, guarded, window), bound, care, dst, begin, end);
            },
            [&](int begin, int count) { roundRun(lines, dst, begin, count); });
#endif
    (void)guarded, (void)bound, (void)care;
    roundRow(lines, dst, n);
}

#if defined(__AVX2__)
// Columns in groups of eight, of which `columns` share a window.
template <int columns> struct GroupLines {
    static constexpr bool kInterpolates = true;
    const float* s;
    const FloatGroup* groups;
    const double* f;
    const int* guarded;

    float tap(int x, int k) const {
        const FloatGroup& g = groups[x / 8];
        if constexpr (columns == 8) return s[g.window[0] + g.taps[k][x % 8]];
        return s[g.window[x / 4 % 2] + g.taps[x / 4 % 2][x % 4 + 4 * k]];
    }
    Sum sum(int x) const { return linearSum(tap(x, 0), tap(x, 1), f[x]); }
    long double exact(int x) const { return exactLine(tap(x, 0), tap(x, 1), f[x]); }
    // Both taps of eight columns, in one order or the other.
    struct Both {
        __m256 a, b;
    };
    ZENR_INLINE Both both(int x) const {
        const FloatGroup& g = groups[x / 8];
        const __m256i at0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(g.taps[0]));
        const __m256i at1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(g.taps[1]));
        const __m256 first = _mm256_loadu_ps(s + g.window[0]);
        if constexpr (columns == 8) return {_mm256_permutevar8x32_ps(first, at0), _mm256_permutevar8x32_ps(first, at1)};
        return {_mm256_permutevar8x32_ps(first, at0), _mm256_permutevar8x32_ps(_mm256_loadu_ps(s + g.window[1]), at1)};
    }
    struct Pair {
        Eight first, second;
    };
    ZENR_INLINE Pair pair(int x) const {
        const Both v = both(x);
        const __m256d a = _mm256_cvtps_pd(_mm256_castps256_ps128(v.a));
        const __m256d b = _mm256_cvtps_pd(_mm256_extractf128_ps(v.a, 1));
        const __m256d c = _mm256_cvtps_pd(_mm256_castps256_ps128(v.b));
        const __m256d d = _mm256_cvtps_pd(_mm256_extractf128_ps(v.b, 1));
        if constexpr (columns == 8) return {{a, b}, {c, d}};
        return {{a, c}, {b, d}};
    }
    ZENR_INLINE Eight eight(int x) const {
        const Pair t = pair(x);
        return {multiplyAdd(_mm256_sub_pd(t.second.low, t.first.low), _mm256_loadu_pd(f + x), t.first.low),
                multiplyAdd(_mm256_sub_pd(t.second.high, t.first.high), _mm256_loadu_pd(f + x + 4), t.first.high)};
    }
    ZENR_INLINE Taps taps8(ptrdiff_t x) const { return joined(eight(int(x))); }
    ZENR_INLINE Eight size(int x) const {
        const Pair t = pair(x);
        return plus(absolute(t.first), absolute(t.second));
    }
    ZENR_INLINE unsigned guarded8(ptrdiff_t x) const { return signs8(guarded + x); }
    template <int count> bool zeros(int x) const {
        static_assert(count == 8, "");
        const Both v = both(x);
        return _mm256_testz_si256(_mm256_castps_si256(_mm256_or_ps(v.a, v.b)), _mm256_set1_epi32(0x7FFFFFFF));
    }
};

void rowGroupsFloat(const float* src, const FloatGroup* groups, int count, int columns, const double* weights,
                    const int* guarded, const RowBound& bound, Care care, double* dst) {
    if (columns == 8)
        roundTaps(GroupLines<8>{src, groups, weights, guarded}, bound, care, dst, 0, 8 * count);
    else
        roundTaps(GroupLines<4>{src, groups, weights, guarded}, bound, care, dst, 0, 8 * count);
}
template <class T>
void rowGroupsFixed(const T* src, const FixedGroup* groups, int count, int columns, bool far, uint16_t* dst) {
    (columns == 8 ? groupRows<8, T> : groupRows<4, T>)(src, groups, count, far, dst);
}
#else
constexpr decltype(LinearKernels<float>::rowGroups) rowGroupsFloat = nullptr;
template <class T> constexpr decltype(LinearKernels<T>::rowGroups) rowGroupsFixed = nullptr;
#endif

// Fixed-point column and depth passes.
template <class T, int round, int shift>
inline void blendPlain(const uint16_t* __restrict r0, const uint16_t* __restrict r1, uint16_t w, T* __restrict dst,
                       int n) {
    const unsigned w1 = w;
    const unsigned w0 = kOneQ14 - w1;
    for (int x = 0; x < n; ++x) dst[x] = T((r1[x] * w1 + r0[x] * w0 + round) >> shift);
}

// Into words, and Q6 words into voxels.
void blendWords(const uint16_t* r0, const uint16_t* r1, uint16_t w, bool far, uint16_t* dst, int n) {
#if defined(__AVX2__)
    if (w == kOneQ14) r0 = r1, w = 0;
    const __m256i twice = _mm256_set1_epi16(int16_t(2 * w));
    const auto near = [&](int x) { store16(dst + x, blendNear(load16(r0 + x), load16(r1 + x), twice)); };
    const auto any = [&](int x) { store16(dst + x, blendFar(load16(r0 + x), load16(r1 + x), twice)); };
    if (far ? wholeGroups<16>(n, any) : wholeGroups<16>(n, near)) return;
#endif
    (void)far;
    blendPlain<uint16_t, 8192, 14>(r0, r1, w, dst, n);
}
void blendVoxels(const uint16_t* p0, const uint16_t* p1, uint16_t w, bool, uint8_t* dst, int n) {
#if defined(__AVX2__)
    if (w == kOneQ14) p0 = p1, w = 0;
    const __m256i twice = _mm256_set1_epi16(int16_t(2 * w));
    const auto group = [&](int x) {
        const __m256i low = blendLast(load16(p0 + x), load16(p1 + x), twice);
        const __m256i high = blendLast(load16(p0 + x + 16), load16(p1 + x + 16), twice);
        const __m256i bytes = _mm256_permute4x64_epi64(_mm256_packus_epi16(low, high), 0xD8);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + x), bytes);
    };
    if (wholeGroups<32>(n, group)) return;
#endif
    blendPlain<uint8_t, 524288, 20>(p0, p1, w, dst, n);
}

// r1*f + r0*(1 - f). The products are exact where 1 - f is a float; otherwise it and r0's product err by 2^-53 each.
template <class Element> struct BlendSums {
    const Element* rows[2];
    double f, rest;
    double restError; // 0 where 1 - f is a float
    BlendSums(const Element* r0, const Element* r1, float w)
        : rows{r0, r1}, f(w), rest(1 - f), restError(float(rest) == rest && 1 - rest == f ? 0 : 1) {}
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
};
struct LineSums {
    const float* rows[2];
    double f;
    Sum sum(int x) const { return linearSum(rows[0][x], rows[1][x], f); }
    long double exact(int x) const { return exactLine(rows[0][x], rows[1][x], f); }
};

// Where the operands are finite, r0 + (r1 - r0)*f is the same number, and takes fewer roundings; only, two zeros below 0
// add up to one below 0, which has to be seen to if the rows are `mixed`.
template <bool mixed> struct Blends : BlendSums<double> {
    using BlendSums::BlendSums;
    static constexpr bool kInterpolates = true;
    static constexpr int kRows = 2;
#if defined(__AVX2__)
    ZENR_INLINE Eight size(int x) const {
        return plus(absolute(widen8(rows[0] + x)), absolute(widen8(rows[1] + x)));
    }
    template <int count> bool zeros(int x) const {
        return zeroRows<2, count>(rows, x);
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

void blendFloat(const double* r0, const double* r1, float w, const RowBound& bound, Care care, float* dst, int n) {
    if (bound.mixed)
        roundRows(Blends<true>(r0, r1, w), bound, care, isShort(w), dst, n);
    else
        roundRows(Blends<false>(r0, r1, w), bound, care, isShort(w), dst, n);
}

struct Lines : LineSums {
    static constexpr bool kInterpolates = true;
    static constexpr int kRows = 2;
#if defined(__AVX2__)
    ZENR_INLINE Eight size(int x) const {
        return plus(absolute(widen8(rows[0] + x)), absolute(widen8(rows[1] + x)));
    }
    template <int count> bool zeros(int x) const {
        return zeroRows<2, count>(rows, x);
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
    roundRows(Lines{{{p0, p1}, w}}, bound, care, isShort(w), dst, n);
}

#if defined(ZENR_LEVEL_avx512)
void rowBracket(const float* src, const BracketGroup* groups, int reach, const float* weights, float* dst, int n) {
    if (reach == 16)
        bracketRow(GroupTaps<16>{src, groups, weights}, dst, n);
    else if (reach == 32)
        bracketRow(GroupTaps<32>{src, groups, weights}, dst, n);
    else
        bracketRow(GroupTaps<0>{src, groups, weights}, dst, n);
}
void blendBracket(const float* r0, const float* r1, float w, float* dst, int n) {
    bracketRow(RowTaps<BlendSums<float>, true>({r0, r1, w}, bracketOf(w)), dst, n);
}
int depthBracket(const float* p0, const float* p1, float w, float* dst, int n) {
    return bracketRow(RowTaps<LineSums, false>({{p0, p1}, w}, bracketOf(w)), dst, n);
}
constexpr BracketKernels kBracket = {rowBracket, blendBracket, depthBracket};
#else
constexpr BracketKernels kBracket = {};
#endif

} // namespace

constexpr auto ownpi_CoefLinear8pl = &rowFixed<uint8_t, 128, 8>;
constexpr auto ownpi_CoefLinear16pl = &rowFixed<uint16_t, 8192, 14>;
constexpr auto ownpi_CoefLinear32pl = &rowFloat;
// Two Q6 rows: into Q6, or into final voxels.
static void ownpi_SummLinear8pl(const uint16_t* r0, const uint16_t* r1, uint16_t w, bool, uint16_t* dst, int n) {
    blendWords(r0, r1, w, false, dst, n);
}
static void ownpi_SummLinear8pl(const uint16_t* r0, const uint16_t* r1, uint16_t w, uint8_t* dst, int n) {
    blendVoxels(r0, r1, w, false, dst, n);
}
constexpr auto ownpi_SummLinear16pl = &blendWords;
constexpr auto ownpi_SummLinear32pl = &blendFloat;
constexpr auto ownpr_DepLinear8pl = &blendVoxels;
constexpr auto ownpr_DepLinear16pl = &blendWords;
constexpr auto ownpr_DepLinear32pl = &depthFloat;

extern const AllLinearKernels kLinear;
const AllLinearKernels kLinear = {
    {anyFar, rowGroupsFixed<uint8_t>, ownpi_CoefLinear8pl, ownpi_SummLinear8pl, ownpr_DepLinear8pl},
    {anyFar, rowGroupsFixed<uint16_t>, ownpi_CoefLinear16pl, ownpi_SummLinear16pl, ownpr_DepLinear16pl},
    {boundOf, rowGroupsFloat, ownpi_CoefLinear32pl, ownpi_SummLinear32pl, ownpr_DepLinear32pl},
    kBracket,
    ownpi_SummLinear8pl,
};

} // namespace ZENR_LEVEL
} // namespace zenr
