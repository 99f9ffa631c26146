// The row kernels of affine warp and remap, once per level.
#include <immintrin.h>

#include "volume/pirescub.h"
#include "volume/presround.h"
#include "volume/prsample.h"
#include "volume/prsamplevec.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

// Inclusive on both sides, of the position as it is; a position that is no number is outside.
template <class T> inline bool inside(const SampleSource<T>& src, const double s[3]) {
    bool in = true;
    for (int k = 0; k < 3; ++k) in &= s[k] >= src.low[k] && s[k] <= src.high[k];
    return in;
}

// Half-way values and those up to 1e-7 below them round up: the constant is not 0.5 on purpose.
constexpr double kHalfUp = 0.5000001;

// What lies this close below a whole position counts as that position.
constexpr double kSnap = 1e-7;

// The voxel at or before a position of an axis, and how far behind it. At the last voxel the one before it is the base,
// with all weight on the last.
struct AxisBase {
    int base;
    double fraction;
};
inline AxisBase axisBase(double s, int high) {
    const int i = int(s + kSnap);
    return i >= high ? AxisBase{high - 1, 1} : AxisBase{i, s - i};
}

inline int kept(int tap, int low, int high) {
    return tap < low ? low : tap > high ? high : tap;
}

template <class T> inline T stored(long double v) {
    if constexpr (sizeof(T) == 4) {
        return T(v);
    } else {
        constexpr int kMost = T(~T(0));
        const long double up = v + kHalfUp;
        return up < 0 ? T(0) : up >= kMost ? T(kMost) : T(int(up));
    }
}

// ---- Voxels by their definition, in extended precision: what is in doubt, and rows that are rare. ----

template <class T> T nearestVoxel(const SampleSource<T>& src, const double s[3]) {
    const T* const plane = src.planes[int(s[2] + kHalfUp)];
    return plane[int(s[1] + kHalfUp) * src.step + int(s[0] + kHalfUp)];
}

template <class T> __attribute__((noinline)) T linearVoxel(const SampleSource<T>& src, const double s[3]) {
    int tap[3][2];
    long double f[3];
    for (int k = 0; k < 3; ++k) {
        const AxisBase at = axisBase(s[k], src.high[k]);
        f[k] = at.fraction;
        // In a box of one voxel there is none before it.
        for (int t = 0; t < 2; ++t) tap[k][t] = kept(at.base + t, src.low[k], src.high[k]);
    }
    long double plane[2];
    for (int z = 0; z < 2; ++z) {
        long double row[2];
        for (int y = 0; y < 2; ++y) {
            const T* const r = src.planes[tap[2][z]] + tap[1][y] * src.step;
            const long double first = r[tap[0][0]];
            row[y] = first + (r[tap[0][1]] - first) * f[0];
        }
        plane[z] = row[0] + (row[1] - row[0]) * f[1];
    }
    return stored<T>(plane[0] + (plane[1] - plane[0]) * f[2]);
}

template <int mode, class Real> inline Real cubicKernel(Real d) {
    return mode == 4   ? ownpi_Cubic0Kernel(d)
           : mode == 5 ? ownpi_Cubic1Kernel(d)
           : mode == 6 ? ownpi_Cubic2Kernel(d)
                       : ownpi_Cubic3Kernel(d);
}

template <class T, int mode> __attribute__((noinline)) T cubicVoxel(const SampleSource<T>& src, const double s[3]) {
    int tap[3][4];
    float w[3][4];
    for (int k = 0; k < 3; ++k) {
        const AxisBase at = axisBase(s[k], src.high[k]);
        const long double f = float(at.fraction);
        for (int t = 0; t < 4; ++t) {
            w[k][t] = float(cubicKernel<mode>((t - 1) - f));
            tap[k][t] = kept(at.base - 1 + t, src.low[k], src.high[k]);
        }
    }
    const auto weighted = [](const float* weight, const long double* v) {
        return weight[0] * v[0] + weight[1] * v[1] + weight[2] * v[2] + weight[3] * v[3];
    };
    long double planes[4];
    for (int z = 0; z < 4; ++z) {
        long double rows[4];
        for (int y = 0; y < 4; ++y) {
            const T* const r = src.planes[tap[2][z]] + tap[1][y] * src.step;
            const long double taps[4] = {(long double)r[tap[0][0]], (long double)r[tap[0][1]],
                                         (long double)r[tap[0][2]], (long double)r[tap[0][3]]};
            rows[y] = weighted(w[0], taps);
        }
        planes[z] = weighted(w[1], rows);
    }
    return stored<T>(weighted(w[2], planes));
}

// ---- Chunks of voxels, stage by stage. ----

constexpr int kChunk = 16;

// Positions of a chunk: kChunk numbers an axis, all inside the box.
struct Positions {
    const double* s[3];
};

// The stages of a chunk hand over through memory: vectors are stored and read voxel by voxel, and the other way round.
// The compiler would rather take vectors to pieces, which takes longer.
inline void stageDone() {
    asm volatile("" ::: "memory");
}

// What the sums of a voxel type run in. 8-bit voxels are rounded far more coarsely than floats are.
template <class T> struct RealOf { using Type = double; };
template <> struct RealOf<uint8_t> { using Type = float; };

// Rounded to a voxel; bits of *doubt are set where the sum's error leaves the result open.
//   32f  the error is at most 2^-50 of `size`
//   else at most `error`; sums may leave the range of the type
template <class T, class Real> inline T settled(Real sum, Real error, int* doubt) {
    constexpr int kMost = T(~T(0));
    const int low = int(sum + (Real(kHalfUp) - error));
    const int high = int(sum + (Real(kHalfUp) + error));
    *doubt |= low ^ high;
    return T(low < 0 ? 0 : low > kMost ? kMost : low);
}
template <> inline float settled<float, double>(double sum, double size, int* doubt) {
    return roundDoubtfully(sum, size, doubt);
}

// With infinite taps a weight decides between infinity and NaN by being 0 or next to it.
constexpr float kLargest = 3.4028234663852886e38f;

// Voxels by the definition: those of a mask.
constexpr unsigned kAll = (1u << kChunk) - 1;
template <class Policy, class T>
__attribute__((noinline)) void redo(const SampleSource<T>& src, const Positions& at, unsigned mask, T* out) {
    for (; mask; mask &= mask - 1) {
        const int x = __builtin_ctz(mask);
        const double s[3] = {at.s[0][x], at.s[1][x], at.s[2][x]};
        out[x] = Policy::value(src, s);
    }
}
inline unsigned maskOf(const int* doubt) {
    unsigned mask = 0;
    for (int x = 0; x < kChunk; ++x) mask |= unsigned(doubt[x] != 0) << x;
    return mask;
}

struct Interval {
    int begin, end;
};

// ---- Rows along x of the source: y and z are the same for a whole run, as for scales, shifts and turns about x. ----
//
// The rows that a run takes part in are combined into one line first, each of its voxels once; then the line is
// interpolated along x. Sums are those of a chunk in another order, with as many roundings.

constexpr int kSpan = 192; // voxels of a line; runs that span more go through chunks

// A run: x positions (padded to whole chunks by repetition) and the place of the line.
struct Aligned {
    const double* x;
    int count;
    double y, z;
    int first, span; // voxels of the line along x, beyond the box's ends too
};

template <class Policy, class T>
__attribute__((noinline)) void redoAligned(const SampleSource<T>& src, const Aligned& run, int x, const int* doubt,
                                           T* out) {
    for (int i = 0; i < kChunk; ++i) {
        const double s[3] = {run.x[x + i], run.y, run.z};
        if (doubt[i]) out[i] = Policy::value(src, s);
    }
}

// Repeats the line's first and last voxels within the box beyond it.
template <class V, class T> inline void padLine(const SampleSource<T>& src, const Aligned& run, V* line) {
    const int begin = src.low[0] - run.first, end = src.high[0] + 1 - run.first;
    for (int i = 0; i < begin; ++i) line[i] = line[begin];
    for (int i = end; i < run.span; ++i) line[i] = line[end - 1];
}
template <class T> inline Interval lineInside(const SampleSource<T>& src, const Aligned& run) {
    const int begin = src.low[0] - run.first, end = src.high[0] + 1 - run.first;
    return {begin > 0 ? begin : 0, end < run.span ? end : run.span};
}

// body(i) for each i of a range, in blocks of a fixed length: the compiler's vectors are then no longer than a block and
// leave no rest. The last block may overlap the one before.
template <class Body> inline void eachBlock(Interval range, const Body& body) {
    int i = range.begin;
    while (range.end - i >= kChunk) {
        for (int j = 0; j < kChunk; ++j) body(i + j);
        i += kChunk;
        if (i < range.end && range.end - i < kChunk) i = range.end - kChunk;
    }
    for (; i < range.end; ++i) body(i);
}

// Chunks of a run: whole ones straight into the row.
template <class T, class Chunk> inline void eachChunk(const Aligned& run, T* dst, const Chunk& chunk) {
    for (int x = 0; x < run.count; x += kChunk) {
        T out[kChunk];
        const bool whole = run.count - x >= kChunk;
        chunk(x, whole ? dst + x : out);
        for (int i = x; !whole && i < run.count; ++i) dst[i] = out[i - x];
    }
}

inline float sizeOf(float x) {
    return __builtin_fabsf(x);
}
inline float larger(float a, float b) {
    return a > b ? a : b;
}

template <class T> struct Nearest {
    static T value(const SampleSource<T>& src, const double s[3]) { return nearestVoxel(src, s); }

    static void aligned(const SampleSource<T>& src, const Aligned& run, T* dst) {
        const T* const row = src.planes[int(run.z + kHalfUp)] + int(run.y + kHalfUp) * src.step;
        eachChunk(run, dst, [&](int x, T* out) {
            alignas(64) int index[kChunk];
            for (int i = 0; i < kChunk; ++i) index[i] = int(run.x[x + i] + kHalfUp);
            stageDone();
            for (int i = 0; i < kChunk; ++i) out[i] = row[index[i]];
        });
    }

    static void chunk(const SampleSource<T>& src, const Positions& at, T* out) {
        alignas(64) int plane[kChunk], offset[kChunk];
        const int step = int(src.step);
#if defined(ZENR_LEVEL_avx512)
        const __m512i z = truncated16(at.s[2], kHalfUp), y = truncated16(at.s[1], kHalfUp);
        const __m512i flat =
            _mm512_add_epi32(_mm512_mullo_epi32(y, _mm512_set1_epi32(step)), truncated16(at.s[0], kHalfUp));
        if (src.regular) {
            const __m512i slice = _mm512_sub_epi32(z, _mm512_set1_epi32(src.low[2]));
            _mm512_store_si512(offset,
                               _mm512_add_epi32(flat, _mm512_mullo_epi32(slice, _mm512_set1_epi32(src.planeStep))));
            stageDone();
            const T* const origin = src.planes[src.low[2]];
            for (int x = 0; x < kChunk; ++x) out[x] = origin[offset[x]];
            return;
        }
        _mm512_store_si512(plane, z);
        _mm512_store_si512(offset, flat);
        stageDone();
        for (int x = 0; x < kChunk; ++x) out[x] = src.planes[plane[x]][offset[x]];
        return;
#endif
        for (int x = 0; x < kChunk; ++x) {
            plane[x] = int(at.s[2][x] + kHalfUp);
            offset[x] = int(at.s[1][x] + kHalfUp) * step + int(at.s[0][x] + kHalfUp);
        }
        stageDone();
        for (int x = 0; x < kChunk; ++x) out[x] = src.planes[plane[x]][offset[x]];
    }
};

// Base voxels and fractions of a chunk along an axis, as axisBase gives them.
template <class Real> inline void placeAxis(const double* s, int high, int* base, Real* fraction) {
    const double end = high;
    for (int x = 0; x < kChunk; ++x) {
        const double snapped = s[x] + kSnap;
        const int i = int(snapped);
        base[x] = i < high ? i : high - 1;
        fraction[x] = Real(snapped >= end ? 1 : s[x] - i);
    }
}

// Two neighbours along x, read at once.
template <class T> struct Pair;
template <> struct Pair<uint8_t> {
    using Type = uint16_t;
    static int first(Type p) { return p & 0xFF; }
    static int second(Type p) { return p >> 8; }
};
template <> struct Pair<uint16_t> {
    using Type = uint32_t;
    static int first(Type p) { return int(p & 0xFFFF); }
    static int second(Type p) { return int(p >> 16); }
};
template <> struct Pair<float> {
    struct Type {
        float a, b;
    };
    static float first(Type p) { return p.a; }
    static float second(Type p) { return p.b; }
};

template <class T> struct Linear {
    using Real = typename RealOf<T>::Type;
    // Each stage adds at most 3.5 roundings (5 in double, with those of 80 bits) of values no larger than the largest
    // tap, and passes on what it got: 2^-12 for 8u, and 2^-48 of the tap in double, is more than three make.
    static constexpr Real kError = sizeof(T) == 1 ? Real(2.9296875e-4) : Real(1e-9);
    static T value(const SampleSource<T>& src, const double s[3]) { return linearVoxel(src, s); }

    static void aligned(const SampleSource<T>& src, const Aligned& run, T* dst) {
        const AxisBase y = axisBase(run.y, src.high[1]), z = axisBase(run.z, src.high[2]);
        const T* row[4];
        for (int r = 0; r < 4; ++r)
            row[r] = src.planes[kept(z.base + (r >> 1), src.low[2], src.high[2])] +
                     kept(y.base + (r & 1), src.low[1], src.high[1]) * src.step + run.first;
        const Real fy = Real(y.fraction), fz = Real(z.fraction);
        alignas(64) Real line[kSpan];
        alignas(64) float size[kSpan];
        const Interval in = lineInside(src, run);
        eachBlock(in, [&](int i) {
            const Real a = row[0][i], b = row[1][i], c = row[2][i], d = row[3][i];
            const Real low = a + (b - a) * fy, high = c + (d - c) * fy;
            line[i] = low + (high - low) * fz;
        });
        padLine(src, run, line);
        if constexpr (sizeof(T) == 4) {
            eachBlock(in, [&](int i) {
                size[i] =
                    larger(larger(sizeOf(row[0][i]), sizeOf(row[1][i])), larger(sizeOf(row[2][i]), sizeOf(row[3][i])));
            });
            padLine(src, run, size);
        }
        eachChunk(run, dst, [&](int x, T* out) {
            alignas(64) int base[kChunk], doubt[kChunk];
            alignas(64) Real f[kChunk], a[kChunk], b[kChunk];
            alignas(64) float most[kChunk] = {};
            placeAxis(run.x + x, src.high[0], base, f);
            stageDone();
            for (int i = 0; i < kChunk; ++i) {
                const int at = base[i] - run.first;
                a[i] = line[at];
                b[i] = line[at + 1];
                if constexpr (sizeof(T) == 4) most[i] = larger(size[at], size[at + 1]);
            }
            stageDone();
            int any = 0;
            for (int i = 0; i < kChunk; ++i) {
                doubt[i] = most[i] > kLargest;
                out[i] =
                    settled<T>(a[i] + (b[i] - a[i]) * f[i], sizeof(T) == 4 ? Real(most[i]) * 4 : kError, &doubt[i]);
                any |= doubt[i];
            }
            if (__builtin_expect(any != 0, 0)) redoAligned<Linear>(src, run, x, doubt, out);
        });
    }

    static void chunk(const SampleSource<T>& src, const Positions& at, T* out) {
        // Along an axis of one voxel base and base + 1 would be two.
        for (int k = 0; k < 3; ++k)
            if (src.low[k] == src.high[k]) return redo<Linear>(src, at, kAll, out);
#if defined(ZENR_LEVEL_avx512)
        return chunk16(src, at, out);
#endif
        using Pairs = Pair<T>;
        alignas(64) int base[3][kChunk], offset[kChunk];
        alignas(64) Real f[3][kChunk];
        alignas(64) typename Pairs::Type pair[4][kChunk];
        for (int k = 0; k < 3; ++k) placeAxis(at.s[k], src.high[k], base[k], f[k]);
        const int step = int(src.step);
        for (int x = 0; x < kChunk; ++x) offset[x] = base[1][x] * step + base[0][x];
        stageDone();
        for (int x = 0; x < kChunk; ++x) {
            const T* const* const planes = src.planes + base[2][x];
            const T* const low = planes[0] + offset[x];
            const T* const high = planes[1] + offset[x];
            __builtin_memcpy(&pair[0][x], low, sizeof pair[0][x]);
            __builtin_memcpy(&pair[1][x], low + step, sizeof pair[0][x]);
            __builtin_memcpy(&pair[2][x], high, sizeof pair[0][x]);
            __builtin_memcpy(&pair[3][x], high + step, sizeof pair[0][x]);
        }
        stageDone();
        alignas(64) int doubt[kChunk];
        int any = 0;
        for (int x = 0; x < kChunk; ++x) {
            Real row[4];
            float most = 0;
            for (int r = 0; r < 4; ++r) {
                const auto a = Pairs::first(pair[r][x]), b = Pairs::second(pair[r][x]);
                if constexpr (sizeof(T) == 4) {
                    most = __builtin_fabsf(a) > most ? __builtin_fabsf(a) : most;
                    most = __builtin_fabsf(b) > most ? __builtin_fabsf(b) : most;
                }
                row[r] = Real(a) + (Real(b) - Real(a)) * f[0][x];
            }
            const Real low = row[0] + (row[1] - row[0]) * f[1][x];
            const Real high = row[2] + (row[3] - row[2]) * f[1][x];
            const Real v = low + (high - low) * f[2][x];
            doubt[x] = most > kLargest;
            out[x] = settled<T>(v, sizeof(T) == 4 ? Real(most) * 4 : kError, &doubt[x]);
            any |= doubt[x];
        }
        if (__builtin_expect(any != 0, 0)) redo<Linear>(src, at, maskOf(doubt), out);
    }

#if defined(ZENR_LEVEL_avx512)
    static void chunk16(const SampleSource<T>& src, const Positions& at, T* out) {
        using Real16 = typename Real16Of<Real>::Type;
        const auto x = place16<Real16>(at.s[0], src.high[0], kSnap), y = place16<Real16>(at.s[1], src.high[1], kSnap),
                   z = place16<Real16>(at.s[2], src.high[2], kSnap);
        const __m512i flat = _mm512_add_epi32(_mm512_mullo_epi32(y.base, _mm512_set1_epi32(int(src.step))), x.base);
        alignas(64) int offset[kChunk];
        unsigned doubt;
        const auto blendAll = [&](const auto& tap) {
            typename Pairs16<T>::Type pair[4];
            for (int r = 0; r < 4; ++r) pair[r] = pairs16(out, [&](int k) { return tap(r, k); });
            Real16 row[4];
            for (int r = 0; r < 4; ++r)
                row[r] = blend(Real16::of(pair[r].first), Real16::of(pair[r].second), x.fraction);
            const Real16 sum = blend(blend(row[0], row[1], y.fraction), blend(row[2], row[3], y.fraction), z.fraction);
            if constexpr (sizeof(T) == 4) {
                __m512 most = _mm512_setzero_ps();
                for (int r = 0; r < 4; ++r)
                    most =
                        _mm512_max_ps(_mm512_abs_ps(pair[r].first), _mm512_max_ps(_mm512_abs_ps(pair[r].second), most));
                const __m512d unit = _mm512_set1_pd(3.552713678800501e-15); // 2^-48
                const Real16 size = Real16::of(most);
                doubt = settle16(out, sum, {_mm512_mul_pd(size.low, unit), _mm512_mul_pd(size.high, unit)}, 0) |
                        _mm512_cmp_ps_mask(most, _mm512_set1_ps(kLargest), _CMP_GT_OQ);
            } else {
                doubt = settle16(out, sum, all16(kError), Real(kHalfUp));
            }
        };
        if (src.regular) {
            const __m512i slice = _mm512_sub_epi32(z.base, _mm512_set1_epi32(src.low[2]));
            _mm512_store_si512(offset,
                               _mm512_add_epi32(flat, _mm512_mullo_epi32(slice, _mm512_set1_epi32(src.planeStep))));
            stageDone();
            const T* const origin = src.planes[src.low[2]];
            const T* const row[4] = {origin, origin + src.step, origin + src.planeStep,
                                     origin + src.planeStep + src.step};
            blendAll([&](int r, int k) { return row[r] + offset[k]; });
        } else {
            alignas(64) int plane[kChunk];
            _mm512_store_si512(plane, z.base);
            _mm512_store_si512(offset, flat);
            stageDone();
            blendAll(
                [&](int r, int k) { return src.planes[plane[k] + (r >> 1)] + offset[k] + (r & 1 ? src.step : 0); });
        }
        if (__builtin_expect(doubt != 0, 0)) redo<Linear>(src, at, doubt, out);
    }
#endif
};

// Four neighbours along x, as numbers to sum in.
typedef float Float4 __attribute__((vector_size(16)));
typedef double Double4 __attribute__((vector_size(32)));
inline Float4 load4(const uint8_t* p) {
    int32_t bytes;
    __builtin_memcpy(&bytes, p, 4);
#if defined(__SSE4_1__)
    return (Float4)_mm_cvtepi32_ps(_mm_cvtepu8_epi32(_mm_cvtsi32_si128(bytes)));
#else
    const __m128i zero = _mm_setzero_si128();
    return (Float4)_mm_cvtepi32_ps(_mm_unpacklo_epi16(_mm_unpacklo_epi8(_mm_cvtsi32_si128(bytes), zero), zero));
#endif
}
inline Double4 load4(const uint16_t* p) {
    const __m128i words = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p));
#if defined(__AVX2__)
    return (Double4)_mm256_cvtepi32_pd(_mm_cvtepu16_epi32(words));
#else
    const __m128i v = _mm_unpacklo_epi16(words, _mm_setzero_si128());
    const __m128d low = _mm_cvtepi32_pd(v), high = _mm_cvtepi32_pd(_mm_shuffle_epi32(v, 0xEE));
    return Double4{low[0], low[1], high[0], high[1]};
#endif
}
inline Double4 load4(const float* p) {
    const __m128 v = _mm_loadu_ps(p);
#if defined(__AVX2__)
    return (Double4)_mm256_cvtps_pd(v);
#else
    const __m128d low = _mm_cvtps_pd(v), high = _mm_cvtps_pd(_mm_movehl_ps(v, v));
    return Double4{low[0], low[1], high[0], high[1]};
#endif
}

// Weights as polynomials of the fraction. The definition's coefficients are doubles next to these, and its cancellations
// are others: both together differ by less than 2^-49 for fractions from -1e-7 to 1 (where two weights change branch, but
// are continuous).
// Real may be a vector of doubles.
template <int mode, class Real> inline void weightPolynomials(Real f, Real w[4]) {
    const Real g = 1 - f;
    if constexpr (mode == 4) {
        w[0] = f * g * (f - 2) * (1.0 / 6);
        w[1] = g * (1 + f) * (1 - 0.5 * f);
        w[2] = f * (1 + g) * (1 - 0.5 * g);
        w[3] = f * g * (g - 2) * (1.0 / 6);
    } else {
        constexpr double B = mode == 5 ? 1 : mode == 6 ? 0 : 0.5, C = mode == 5 ? 0 : mode == 6 ? 0.5 : 0.3;
        constexpr double k3 = (12 - 9 * B - 6 * C) / 6, k2 = (-18 + 12 * B + 6 * C) / 6, k0 = (6 - 2 * B) / 6;
        // The outer branch about t = 2: u = 2 - t.
        constexpr double o3 = (B + 6 * C) / 6, o2 = -C;
        w[0] = g * g * (o2 + o3 * g);
        w[1] = k0 + f * f * (k2 + k3 * f);
        w[2] = k0 + g * g * (k2 + k3 * g);
        w[3] = f * f * (o2 + o3 * f);
    }
}

constexpr double kWeightError = 1.7763568394002505e-15; // 2^-49

// Cubic weights of a chunk along an axis, each rounded to float. `error` grows by what the roundings leave open: the
// weights defined differ from these by no more, all four together.
template <int mode> inline void weighAxis(const double* fraction, double (*w)[kChunk], double* error) {
    for (int x = 0; x < kChunk; ++x) {
        const double f = float(fraction[x]);
        double v[4];
        weightPolynomials<mode, double>(f, v);
        // A little before the base voxel the definition takes its branches of distances beyond 1, with other slopes.
        const double e = kWeightError + (f < 0 ? -2 * f : 0);
        double open = 0;
        for (int t = 0; t < 4; ++t) {
            const float low = float(v[t] - e), high = float(v[t] + e);
            w[t][x] = low;
            open += double(high) - double(low);
        }
        error[x] += open;
    }
}

// The weights of one fraction, as they are defined.
template <int mode> inline void axisWeights(float f, float w[4]) {
    double v[4];
    weightPolynomials<mode, double>(f, v);
    const double e = kWeightError + (f < 0 ? -2.0 * f : 0);
    bool open = false;
    for (int t = 0; t < 4; ++t) {
        w[t] = float(v[t] - e);
        open |= w[t] != float(v[t] + e);
    }
    if (open)
        for (int t = 0; t < 4; ++t) w[t] = float(cubicKernel<mode>((t - 1) - (long double)f));
}

inline Float4 largest(Float4 a, Float4 b) {
    return (Float4)_mm_max_ps((__m128)a, (__m128)b);
}
inline float sizes(const float* p, Float4* most) {
    const __m128 v = _mm_and_ps(_mm_loadu_ps(p), _mm_castsi128_ps(_mm_set1_epi32(0x7FFFFFFF)));
    *most = largest((Float4)v, *most);
    return 0;
}

template <class T, int mode> struct Cubic {
    using Real = typename RealOf<T>::Type;
    using Real4 = decltype(load4((const T*)nullptr));
    static T value(const SampleSource<T>& src, const double s[3]) { return cubicVoxel<T, mode>(src, s); }

    static void aligned(const SampleSource<T>& src, const Aligned& run, T* dst) {
        const AxisBase y = axisBase(run.y, src.high[1]), z = axisBase(run.z, src.high[2]);
        float wy[4], wz[4];
        axisWeights<mode>(float(y.fraction), wy);
        axisWeights<mode>(float(z.fraction), wz);
        const T* row[16];
        Real weight[16];
        for (int r = 0; r < 16; ++r) {
            row[r] = src.planes[kept(z.base - 1 + (r >> 2), src.low[2], src.high[2])] +
                     kept(y.base - 1 + (r & 3), src.low[1], src.high[1]) * src.step + run.first;
            weight[r] = Real(wz[r >> 2]) * Real(wy[r & 3]);
        }
        alignas(64) Real line[kSpan];
        alignas(64) float size[kSpan];
        const Interval in = lineInside(src, run);
        eachBlock(in, [&](int i) {
            Real sum = weight[0] * Real(row[0][i]);
#pragma GCC unroll 16
            for (int r = 1; r < 16; ++r) sum += weight[r] * Real(row[r][i]);
            line[i] = sum;
        });
        padLine(src, run, line);
        if constexpr (sizeof(T) == 4) {
            eachBlock(in, [&](int i) {
                float most = 0;
#pragma GCC unroll 16
                for (int r = 0; r < 16; ++r) most = larger(sizeOf(row[r][i]), most);
                size[i] = most;
            });
            padLine(src, run, size);
        }
        eachChunk(run, dst, [&](int x, T* out) {
            alignas(64) int base[kChunk], doubt[kChunk];
            alignas(64) double f[kChunk], w[4][kChunk], error[kChunk] = {};
            alignas(64) Real tap[4][kChunk];
            alignas(64) float most[kChunk] = {};
            placeAxis(run.x + x, src.high[0], base, f);
            weighAxis<mode>(f, w, error);
            stageDone();
            for (int i = 0; i < kChunk; ++i) {
                const int at = base[i] - 1 - run.first;
                for (int t = 0; t < 4; ++t) tap[t][i] = line[at + t];
                if constexpr (sizeof(T) == 4)
                    most[i] = larger(larger(size[at], size[at + 1]), larger(size[at + 2], size[at + 3]));
            }
            stageDone();
            int any = 0;
            for (int i = 0; i < kChunk; ++i) {
                const Real sum = (tap[0][i] * Real(w[0][i]) + tap[1][i] * Real(w[1][i])) +
                                 (tap[2][i] * Real(w[2][i]) + tap[3][i] * Real(w[3][i]));
                doubt[i] = most[i] > kLargest;
                out[i] = settled<T>(sum, bound(error[i], most[i]), &doubt[i]);
                any |= doubt[i];
            }
            if (__builtin_expect(any != 0, 0)) redoAligned<Cubic>(src, run, x, doubt, out);
        });
    }

    // Weights of a chunk: per axis and tap.
    struct alignas(64) Weights {
        double w[3][4][kChunk];
    };

    // The sum of a voxel whose base is base; the largest of its taps in size for 32f.
    static Real sum(const SampleSource<T>& src, const int base[3], const Weights& weights, int x, float* most) {
        ptrdiff_t row[4];
        const T* const* plane[4];
        bool edge = false;
        for (int k = 0; k < 3; ++k) edge |= base[k] - 1 < src.low[k] || base[k] + 2 > src.high[k];
        for (int t = 0; t < 4; ++t) {
            const int j = base[1] - 1 + t, k = base[2] - 1 + t;
            row[t] = (edge ? kept(j, src.low[1], src.high[1]) : j) * src.step;
            plane[t] = src.planes + (edge ? kept(k, src.low[2], src.high[2]) : k);
        }
        const auto splat = [](double v) { return Real4{} + Real(v); };
        const Real4 wy[4] = {splat(weights.w[1][0][x]), splat(weights.w[1][1][x]), splat(weights.w[1][2][x]),
                             splat(weights.w[1][3][x])};
        const Real4 wx = {Real(weights.w[0][0][x]), Real(weights.w[0][1][x]), Real(weights.w[0][2][x]),
                          Real(weights.w[0][3][x])};
        Real4 total = {};
        Float4 size = {};
        const auto add = [&](auto load) {
            for (int k = 0; k < 4; ++k) {
                const T* const p = *plane[k];
                const Real4 t = wy[0] * load(p + row[0]) + wy[1] * load(p + row[1]) + wy[2] * load(p + row[2]) +
                                wy[3] * load(p + row[3]);
                total += t * splat(weights.w[2][k][x]);
            }
        };
        const auto loaded = [&](const T* p) {
            if constexpr (sizeof(T) == 4) sizes(p, &size);
            return load4(p);
        };
        if (!edge || (base[0] - 1 >= src.low[0] && base[0] + 2 <= src.high[0])) {
            add([&](const T* p) { return loaded(p + base[0] - 1); });
        } else {
            int tap[4];
            for (int t = 0; t < 4; ++t) tap[t] = kept(base[0] - 1 + t, src.low[0], src.high[0]);
            add([&](const T* p) {
                const T taps[4] = {p[tap[0]], p[tap[1]], p[tap[2]], p[tap[3]]};
                return loaded(taps);
            });
        }
        if constexpr (sizeof(T) == 4) {
            const float a = size[0] > size[1] ? size[0] : size[1], b = size[2] > size[3] ? size[2] : size[3];
            *most = a > b ? a : b;
        }
        const Real4 v = total * wx;
        return (v[0] + v[2]) + (v[1] + v[3]);
    }

    static void chunk(const SampleSource<T>& src, const Positions& at, T* out) {
#if defined(ZENR_LEVEL_avx512)
        if (chunk16(src, at, out)) return;
#endif
        alignas(64) int base[3][kChunk];
        alignas(64) double f[3][kChunk], error[kChunk] = {};
        Weights weights;
        for (int k = 0; k < 3; ++k) {
            placeAxis(at.s[k], src.high[k], base[k], f[k]);
            weighAxis<mode>(f[k], weights.w[k], error);
        }
        stageDone();
        alignas(64) Real sums[kChunk];
        alignas(64) float most[kChunk];
        for (int x = 0; x < kChunk; ++x) {
            most[x] = 0;
            const int b[3] = {base[0][x], base[1][x], base[2][x]};
            sums[x] = sum(src, b, weights, x, &most[x]);
        }
        stageDone();
        alignas(64) int doubt[kChunk];
        int any = 0;
        for (int x = 0; x < kChunk; ++x) {
            doubt[x] = most[x] > kLargest;
            out[x] = settled<T>(sums[x], bound(error[x], most[x]), &doubt[x]);
            any |= doubt[x];
        }
        if (__builtin_expect(any != 0, 0)) redo<Cubic>(src, at, maskOf(doubt), out);
    }

#if defined(ZENR_LEVEL_avx512)
    // A chunk whose taps all lie inside the box, of a source with regular planes; false, and nothing done, for others.
    static bool chunk16(const SampleSource<T>& src, const Positions& at, T* out) {
        if (!src.regular) return false;
        alignas(64) Real w[3][4][kChunk];
        alignas(64) int offset[kChunk];
        unsigned open = 0;
        __m512i flat = _mm512_setzero_si512();
        __mmask16 edge = 0;
        const int steps[3] = {1, int(src.step), src.planeStep}, origin[3] = {0, 0, src.low[2]};
        for (int k = 0; k < 3; ++k) {
            const auto placed = place16<Floats16>(at.s[k], src.high[k], kSnap);
            edge |= _mm512_cmple_epi32_mask(placed.base, _mm512_set1_epi32(src.low[k])) |
                    _mm512_cmpge_epi32_mask(placed.base, _mm512_set1_epi32(src.high[k] - 1));
            const __m512i from = _mm512_sub_epi32(placed.base, _mm512_set1_epi32(origin[k] + 1));
            flat = _mm512_add_epi32(flat, _mm512_mullo_epi32(from, _mm512_set1_epi32(steps[k])));
            const auto f = Doubles16::of(placed.fraction.v);
            Double8 low[4], high[4];
            weightPolynomials<mode>(Double8(f.low), low);
            weightPolynomials<mode>(Double8(f.high), high);
            if constexpr (sizeof(T) == 1) {
                for (int t = 0; t < 4; ++t) _mm512_store_ps(w[k][t], Floats16::of(__m512d(low[t]), __m512d(high[t])).v);
            } else {
                for (int t = 0; t < 4; ++t)
                    open |= unsigned(roundWeights8(__m512d(low[t]), weightError(f.low), w[k][t])) |
                            unsigned(roundWeights8(__m512d(high[t]), weightError(f.high), w[k][t] + 8)) << 8;
            }
        }
        // Fractions next to 0 leave many weights open; the other way puts up with that.
        if (edge || __builtin_popcount(open) > 2) return false;
        _mm512_store_si512(offset, flat);
        stageDone();
        alignas(64) Real sums[kChunk];
        alignas(64) float most[kChunk] = {};
        const T* const first = src.planes[src.low[2]];
        for (int x = 0; x < kChunk; ++x) sums[x] = cubicSum(first + offset[x], src.step, src.planeStep, w, x, &most[x]);
        stageDone();
        unsigned doubt = open;
        if constexpr (sizeof(T) == 4) {
            const __m512 size = _mm512_load_ps(most);
            const __m512d unit = _mm512_set1_pd(1.4210854715202004e-14); // 2^-46
            doubt |= settle16(out, {_mm512_load_pd(sums), _mm512_load_pd(sums + 8)},
                              {_mm512_mul_pd(firstHalf(size), unit), _mm512_mul_pd(secondHalf(size), unit)}, 0);
            doubt |= _mm512_cmp_ps_mask(size, _mm512_set1_ps(kLargest), _CMP_GT_OQ);
        } else if constexpr (sizeof(T) == 2) {
            doubt |= settle16(out, {_mm512_load_pd(sums), _mm512_load_pd(sums + 8)}, all16(2e-9), kHalfUp);
        } else {
            doubt |= settle16(out, {_mm512_load_ps(sums)}, all16(1.5e-3f), float(kHalfUp));
        }
        if (__builtin_expect(doubt != 0, 0)) redo<Cubic>(src, at, doubt, out);
        return true;
    }

    // As weighAxis has it.
    static __m512d weightError(__m512d f) {
        const __m512d least = _mm512_set1_pd(kWeightError);
        return _mm512_max_pd(least, _mm512_sub_pd(least, _mm512_add_pd(f, f)));
    }
#endif

    // What settled() needs to know. The sizes of four weights sum to 1.25 at most, so the terms of the sum to twice the
    // largest tap: 21 roundings, and what is open about the weights.
    static Real bound(double open, float most) {
        if constexpr (sizeof(T) == 4) return most * (16 + open * 2.251799813685248e15); // 2^51
        if constexpr (sizeof(T) == 2) return 2e-9 + open * 131072;
        return Real(1e-3 + open * 512);
    }
};

// ---- Rows. ----

constexpr int kRun = 64; // voxels of a row whose positions are computed before the first is sampled

// Room for a last chunk that is not full.
struct alignas(64) Run {
    double s[3][kRun + kChunk];
};

inline uint64_t bitsOf(double x) {
    return __builtin_bit_cast(uint64_t, x);
}

// Whether additions of `advance` lead from `first` to `last`, with multiples of `step` in between: all of them lie
// within the same two powers of two, so that ulps are the same and the same advance is added every time, `advance`
// rounded to whole ulps; but no sum may be a tie, which is rounded now up and now down.
inline bool evenly(double first, double last, double advance, double step) {
    constexpr int kMantissa = 52;
    constexpr uint64_t kFraction = (uint64_t(1) << kMantissa) - 1;
    const uint64_t a = bitsOf(first), b = bitsOf(last), exponent = a >> kMantissa & 0x7FF;
    const double ulp = __builtin_bit_cast(double, (exponent - kMantissa) << kMantissa);
    const bool same = ((a ^ b) >> kMantissa) == 0 && (a & kFraction) != 0 && (b & kFraction) != 0;
    return same && exponent > kMantissa && __builtin_fabs(advance - step) * 2 != ulp;
}

// Positions of the next voxels of a row, exactly as repeated addition gives them.
inline void nextPositions(double* position, double advance, int count, double* s) {
    const double first = *position, step = (first + advance) - first, last = first + (count - 1) * step;
    if (__builtin_expect(evenly(first, last, advance, step), 1)) {
        for (int x = 0; x < count; x += kChunk)
            for (int i = 0; i < kChunk; ++i) s[x + i] = first + (x + i) * step;
        *position = last + advance;
    } else if (count > kChunk) {
        for (int x = 0; x < count; x += kChunk)
            nextPositions(position, advance, count - x < kChunk ? count - x : kChunk, s + x);
    } else {
        double next = first;
        for (int x = 0; x < count; ++x) {
            s[x] = next;
            next += advance;
        }
        *position = next;
    }
}

// The voxels of a run that are inside: an interval, because positions are monotonous also when rounded.
inline Interval insideOf(const double* s, int count, double advance, double low, double high) {
    if (s[0] >= low && s[0] <= high && s[count - 1] >= low && s[count - 1] <= high) return {0, count};
    int below = 0, above = 0;
    for (int x = 0; x < count; ++x) {
        below += !(s[x] >= low);
        above += s[x] > high;
    }
    return advance < 0 ? Interval{above, count - below} : Interval{below, count - above};
}

// Whether a position is the same for a whole row. One of -0 becomes +0.
inline bool stays(double position, double advance) {
    return advance == 0 && (position != 0 || bitsOf(position) == 0);
}

template <class T, class Policy>
void warpRow(const SampleSource<T>& src, T* dst, int count, double position[3], const double advance[3]) {
    if (!src.narrow) {
        for (int x = 0; x < count; ++x) {
            if (inside(src, position)) dst[x] = Policy::value(src, position);
            for (int k = 0; k < 3; ++k) position[k] += advance[k];
        }
        return;
    }
    const bool alongX = stays(position[1], advance[1]) && stays(position[2], advance[2]);
    for (int x = 0; x < count; x += kRun) {
        const int n = count - x < kRun ? count - x : kRun;
        Run run;
        Interval in = {0, n};
        for (int k = 0; k < 3; ++k) {
            // cppcheck-suppress uninitvar  // written there
            nextPositions(&position[k], advance[k], n, run.s[k]);
            const Interval axis = insideOf(run.s[k], n, advance[k], src.low[k], src.high[k]);
            in.begin = axis.begin > in.begin ? axis.begin : in.begin;
            in.end = axis.end < in.end ? axis.end : in.end;
        }
        if (in.begin >= in.end) continue;
        const int padded = (in.end - in.begin + kChunk - 1) / kChunk * kChunk;
        if (alongX) {
            const int a = axisBase(run.s[0][in.begin], src.high[0]).base,
                      b = axisBase(run.s[0][in.end - 1], src.high[0]).base;
            const int first = (a < b ? a : b) - 1, span = (a < b ? b : a) + 2 - first + 1;
            if (span <= kSpan) {
                for (int i = in.end; i < in.begin + padded; ++i) run.s[0][i] = run.s[0][in.end - 1];
                Policy::aligned(src, {run.s[0] + in.begin, in.end - in.begin, run.s[1][0], run.s[2][0], first, span},
                                dst + x + in.begin);
                continue;
            }
        }
        for (int k = 0; k < 3; ++k)
            for (int i = in.end; i < in.begin + padded; ++i) run.s[k][i] = run.s[k][in.end - 1];
        for (int i = in.begin; i < in.end; i += kChunk) {
            T out[kChunk];
            const bool whole = in.end - i >= kChunk;
            Policy::chunk(src, {run.s[0] + i, run.s[1] + i, run.s[2] + i}, whole ? dst + x + i : out);
            for (int j = i; !whole && j < in.end; ++j) dst[x + j] = out[j - i];
        }
    }
}

template <class T, class Policy>
void remapRow(const SampleSource<T>& src, T* dst, int count, const float* const map[3]) {
    if (!src.narrow) {
        for (int x = 0; x < count; ++x) {
            const double position[3] = {map[0][x], map[1][x], map[2][x]};
            if (inside(src, position)) dst[x] = Policy::value(src, position);
        }
        return;
    }
    for (int x = 0; x < count; x += kChunk) {
        const int n = count - x < kChunk ? count - x : kChunk;
        alignas(64) double s[3][kChunk];
        alignas(64) int out[kChunk] = {};
        for (int k = 0; k < 3; ++k) {
            float padded[kChunk];
            const float* from = map[k] + x;
            if (n < kChunk) {
                for (int i = 0; i < kChunk; ++i) padded[i] = i < n ? from[i] : __builtin_nanf("");
                from = padded;
            }
            const double low = src.low[k], high = src.high[k];
            for (int i = 0; i < kChunk; ++i) {
                s[k][i] = from[i];
                out[i] |= !(s[k][i] >= low) | !(s[k][i] <= high);
            }
        }
        int outside = 0;
        for (int i = 0; i < kChunk; ++i) outside += out[i];
        if (outside == kChunk) continue;
        // Voxels outside are computed somewhere inside, for nothing.
        if (outside)
            for (int k = 0; k < 3; ++k)
                for (int i = 0; i < kChunk; ++i) s[k][i] = out[i] ? src.low[k] : s[k][i];
        T voxels[kChunk];
        Policy::chunk(src, {s[0], s[1], s[2]}, outside ? voxels : dst + x);
        for (int i = 0; outside && i < kChunk; ++i)
            if (!out[i]) dst[x + i] = voxels[i];
    }
}

} // namespace

constexpr auto ownpr_WarpAffine8N = &warpRow<uint8_t, Nearest<uint8_t>>;
constexpr auto ownpr_WarpAffine8L = &warpRow<uint8_t, Linear<uint8_t>>;
constexpr auto ownpr_WarpAffine8C0 = &warpRow<uint8_t, Cubic<uint8_t, 4>>;
constexpr auto ownpr_WarpAffine8C1 = &warpRow<uint8_t, Cubic<uint8_t, 5>>;
constexpr auto ownpr_WarpAffine8C2 = &warpRow<uint8_t, Cubic<uint8_t, 6>>;
constexpr auto ownpr_WarpAffine8C3 = &warpRow<uint8_t, Cubic<uint8_t, 7>>;
constexpr auto ownpr_WarpAffine16N = &warpRow<uint16_t, Nearest<uint16_t>>;
constexpr auto ownpr_WarpAffine16L = &warpRow<uint16_t, Linear<uint16_t>>;
constexpr auto ownpr_WarpAffine16C0 = &warpRow<uint16_t, Cubic<uint16_t, 4>>;
constexpr auto ownpr_WarpAffine16C1 = &warpRow<uint16_t, Cubic<uint16_t, 5>>;
constexpr auto ownpr_WarpAffine16C2 = &warpRow<uint16_t, Cubic<uint16_t, 6>>;
constexpr auto ownpr_WarpAffine16C3 = &warpRow<uint16_t, Cubic<uint16_t, 7>>;
constexpr auto ownpr_WarpAffine32N = &warpRow<float, Nearest<float>>;
constexpr auto ownpr_WarpAffine32L = &warpRow<float, Linear<float>>;
constexpr auto ownpr_WarpAffine32C0 = &warpRow<float, Cubic<float, 4>>;
constexpr auto ownpr_WarpAffine32C1 = &warpRow<float, Cubic<float, 5>>;
constexpr auto ownpr_WarpAffine32C2 = &warpRow<float, Cubic<float, 6>>;
constexpr auto ownpr_WarpAffine32C3 = &warpRow<float, Cubic<float, 7>>;

constexpr auto ownpr_Remap8N = &remapRow<uint8_t, Nearest<uint8_t>>;
constexpr auto ownpr_Remap8L = &remapRow<uint8_t, Linear<uint8_t>>;
constexpr auto ownpr_Remap8C0 = &remapRow<uint8_t, Cubic<uint8_t, 4>>;
constexpr auto ownpr_Remap8C1 = &remapRow<uint8_t, Cubic<uint8_t, 5>>;
constexpr auto ownpr_Remap8C2 = &remapRow<uint8_t, Cubic<uint8_t, 6>>;
constexpr auto ownpr_Remap8C3 = &remapRow<uint8_t, Cubic<uint8_t, 7>>;
constexpr auto ownpr_Remap16N = &remapRow<uint16_t, Nearest<uint16_t>>;
constexpr auto ownpr_Remap16L = &remapRow<uint16_t, Linear<uint16_t>>;
constexpr auto ownpr_Remap16C0 = &remapRow<uint16_t, Cubic<uint16_t, 4>>;
constexpr auto ownpr_Remap16C1 = &remapRow<uint16_t, Cubic<uint16_t, 5>>;
constexpr auto ownpr_Remap16C2 = &remapRow<uint16_t, Cubic<uint16_t, 6>>;
constexpr auto ownpr_Remap16C3 = &remapRow<uint16_t, Cubic<uint16_t, 7>>;
constexpr auto ownpr_Remap32N = &remapRow<float, Nearest<float>>;
constexpr auto ownpr_Remap32L = &remapRow<float, Linear<float>>;
constexpr auto ownpr_Remap32C0 = &remapRow<float, Cubic<float, 4>>;
constexpr auto ownpr_Remap32C1 = &remapRow<float, Cubic<float, 5>>;
constexpr auto ownpr_Remap32C2 = &remapRow<float, Cubic<float, 6>>;
constexpr auto ownpr_Remap32C3 = &remapRow<float, Cubic<float, 7>>;

extern const AllSampleKernels kSample;
const AllSampleKernels kSample = {
    {
        {nullptr, ownpr_WarpAffine8N, ownpr_WarpAffine8L, nullptr, ownpr_WarpAffine8C0, ownpr_WarpAffine8C1,
         ownpr_WarpAffine8C2, ownpr_WarpAffine8C3},
        {nullptr, ownpr_Remap8N, ownpr_Remap8L, nullptr, ownpr_Remap8C0, ownpr_Remap8C1, ownpr_Remap8C2,
         ownpr_Remap8C3},
    },
    {
        {nullptr, ownpr_WarpAffine16N, ownpr_WarpAffine16L, nullptr, ownpr_WarpAffine16C0, ownpr_WarpAffine16C1,
         ownpr_WarpAffine16C2, ownpr_WarpAffine16C3},
        {nullptr, ownpr_Remap16N, ownpr_Remap16L, nullptr, ownpr_Remap16C0, ownpr_Remap16C1, ownpr_Remap16C2,
         ownpr_Remap16C3},
    },
    {
        {nullptr, ownpr_WarpAffine32N, ownpr_WarpAffine32L, nullptr, ownpr_WarpAffine32C0, ownpr_WarpAffine32C1,
         ownpr_WarpAffine32C2, ownpr_WarpAffine32C3},
        {nullptr, ownpr_Remap32N, ownpr_Remap32L, nullptr, ownpr_Remap32C0, ownpr_Remap32C1, ownpr_Remap32C2,
         ownpr_Remap32C3},
    },
};

} // namespace ZENR_LEVEL
} // namespace zenr
