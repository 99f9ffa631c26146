// Cubic warp and remap: four kernels.
#pragma once
#include <immintrin.h>

#include "volume/prsamplecolumn.h"
#include "volume/prsamplecubicvec.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

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
// Number is double, or float; Real is that or a vector of them.
template <int mode, class Number, class Real> ZENR_INLINE void weightPolynomials(Real f, Real w[4]) {
    const Real g = 1 - f;
    if constexpr (mode == 4) {
        constexpr Number half = 0.5, sixth = Number(1.0 / 6);
        const Real fg = f * g;
        w[0] = fg * (f - 2) * sixth;
        w[1] = (g + fg) * (1 - half * f);
        w[2] = (f + fg) * (1 - half * g);
        w[3] = fg * (g - 2) * sixth;
    } else {
        constexpr double B = mode == 5 ? 1 : mode == 6 ? 0 : 0.5, C = mode == 5 ? 0 : mode == 6 ? 0.5 : 0.3;
        constexpr Number k3 = Number((12 - 9 * B - 6 * C) / 6), k2 = Number((-18 + 12 * B + 6 * C) / 6),
                         k0 = Number((6 - 2 * B) / 6);
        // The outer branch about t = 2: u = 2 - t.
        constexpr Number o3 = Number((B + 6 * C) / 6), o2 = Number(-C);
        const Real f2 = f * f, g2 = g * g;
        w[0] = g2 * (o2 + o3 * g);
        w[1] = k0 + f2 * (k2 + k3 * f);
        w[2] = k0 + g2 * (k2 + k3 * g);
        w[3] = f2 * (o2 + o3 * f);
    }
}

inline constexpr double kWeightError = 1.7763568394002505e-15; // 2^-49

// Cubic weights of voxels along an axis, each rounded to float. `error` grows by what the roundings leave open: the
// weights defined differ from these by no more, all four together.
template <int mode, int count> inline void weighAxis(const double* fraction, double (*w)[count], double* error) {
    for (int x = 0; x < count; ++x) {
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
    weightPolynomials<mode, double>(double(f), v);
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
        alignas(64) Real line[kSpan + kRest];
        alignas(64) float size[kSpan + kRest];
        const Interval in = lineInside(src, run);
        Interval rest = in;
#if defined(ZENR_LEVEL_avx512)
        if constexpr (sizeof(T) == 1) rest.begin = blendRows16(row, weight, in, line);
#endif
        eachBlock(rest, [&](int i) {
            Real sum = weight[0] * Real(row[0][i]);
#pragma GCC unroll 16
            for (int r = 1; r < 16; ++r) sum = multiplyAdd(weight[r], Real(row[r][i]), sum);
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
#if defined(ZENR_LEVEL_avx512)
            if (interpolate16(src, run, x, line, size, out)) return;
#endif
            alignas(64) int base[kChunk], doubt[kChunk];
            alignas(64) double f[kChunk], w[4][kChunk], error[kChunk] = {};
            alignas(64) Real tap[4][kChunk];
            alignas(64) float most[kChunk] = {};
            placeAxis<kChunk>(run.x + x, src.high[0], base, f);
            weighAxis<mode, kChunk>(f, w, error);
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
            if (__builtin_expect(any != 0, 0)) redo<Cubic>(src, run.from(x), maskOf(doubt), out);
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

    static constexpr bool kFloats = false;
    static void columns(const SampleSource<T>& src, const Column* at, int count, [[maybe_unused]] ptrdiff_t ahead,
                        T (*out)[kChunk]) {
        for (int c = 0; c < count; ++c) {
            alignas(64) double s[3][kChunk];
            __builtin_memcpy(s, &at[c], sizeof s);
#if defined(ZENR_WIDE)
            for (int x = 0; x < kChunk; x += kWide) sample(src, {s[0] + x, s[1] + x, s[2] + x}, ahead, c, out[c] + x);
#else
            chunk(src, {s[0], s[1], s[2]}, out[c]);
#endif
        }
    }

#if !defined(ZENR_WIDE)
    static void chunk(const SampleSource<T>& src, const Positions& at, T* out) {
        alignas(64) int base[3][kChunk];
        alignas(64) double f[3][kChunk], error[kChunk] = {};
        Weights weights;
        for (int k = 0; k < 3; ++k) {
            placeAxis<kChunk>(at.s[k], src.high[k], base[k], f[k]);
            weighAxis<mode, kChunk>(f[k], weights.w[k], error);
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

#else
    // The same for a register of voxels.
    static void sample(const SampleSource<T>& src, const Positions& at, ptrdiff_t ahead, int column, T* out) {
        alignas(64) int base[3][kWide];
        alignas(64) T copied[kWide][64];
        WideTaps<T> taps;
        Ints flat = {}, edge = Ints{} - !src.regular;
        Wide fraction[3];
        const int steps[3] = {1, int(src.step), src.planeStep}, origin[3] = {0, 0, src.low[2]};
#pragma GCC unroll 3
        for (int k = 0; k < 3; ++k) {
            const auto axis = placed<WideFloats>(at.s[k], src.high[k]);
            edge |= (axis.base <= src.low[k]) | (axis.base >= src.high[k] - 1);
            flat += (axis.base - (origin[k] + 1)) * steps[k];
            __builtin_memcpy(base[k], &axis.base, sizeof axis.base);
            fraction[k] = Wide::of(axis.fraction.v);
        }
        __builtin_memcpy(taps.offset, &flat, sizeof flat);
        for (auto& group : taps.group) group = {src.planes[src.low[2]], src.step, src.planeStep};
        stageDone();
        ask(src.planes[src.low[2]], taps.offset, kWide, ahead, column);
        const unsigned edges = bitsOf(edge);
        if (__builtin_expect(edges != 0, 0)) copyEdges(src, base, edges, copied, &taps);
        unsigned doubt;
        if constexpr (sizeof(T) == 1) {
            TapRows rows;
            stageDone();
            collectRows(taps, &rows);
            stageDone();
            Floats w[3][4];
#pragma GCC unroll 3
            for (int k = 0; k < 3; ++k) weightPolynomials<mode, float>(fraction[k].v, w[k]);
            const Floats sum = sumOfRows(rows, RowWeights(w[0]), w[1], w[2]);
            doubt = settle(out, {sum * kRowUnit}, Wide::all(kErrorOf8));
        } else {
            WideWeights weights;
            TapColumns columns;
            alignas(64) double open[kWide] = {};
            unsigned apart = 0;
#pragma GCC unroll 3
            for (int k = 0; k < 3; ++k)
                apart |= weigh(fraction[k].low, weights.w[k], 0) | weigh(fraction[k].high, weights.w[k], kLanes);
            if (__builtin_expect(apart != 0, 0)) weighOpen(src, at, weights.w, open);
            stageDone();
            sumColumns(taps, weights.w, &columns);
            stageDone();
            const Wide sum = {sumRows(columns.sum, weights.w[0], 0), sumRows(columns.sum, weights.w[0], kLanes)};
            Doubles gap[2];
            __builtin_memcpy(gap, open, sizeof gap);
            if constexpr (sizeof(T) == 4) {
                const Wide size = {largestOf(columns.size, 0), largestOf(columns.size, kLanes)};
                doubt = settle(out, sum, {size.low * (gap[0] * 2 + kShare), size.high * (gap[1] * 2 + kShare)});
                const double most = kLargest;
                doubt |= bitsOf((Flags)(size.low > most)) | bitsOf((Flags)(size.high > most)) << kLanes;
            } else {
                doubt = settle(out, sum, {gap[0] * 131072 + kErrorOf16, gap[1] * 131072 + kErrorOf16});
            }
        }
        if (__builtin_expect(doubt != 0, 0)) redo<Cubic>(src, at, doubt, out);
    }
    using Wide = typename WideOf<Real>::Type;

#if defined(ZENR_LEVEL_avx512)
    // A chunk of a line; false, and nothing done, where roundings of weights are open.
    static bool interpolate16(const SampleSource<T>& src, const Aligned& run, int x, const Real* line,
                              const float* size, T* out) {
        const auto axis = placed<WideFloats>(run.x + x, src.high[0]);
        const Wide fraction = Wide::of(axis.fraction.v);
        const Ints at = axis.base - (1 + run.first);
        unsigned doubt;
        if constexpr (sizeof(T) == 1) {
            Floats w[4], tap[4];
            weightPolynomials<mode, float>(fraction.v, w);
            lineTaps<4>(line, at, tap);
            Floats sum = tap[0] * w[0];
            for (int t = 1; t < 4; ++t) sum = multiplyAdd(tap[t], w[t], sum);
            doubt = settle(out, {sum}, Wide::all(kErrorOfLine8));
        } else {
            alignas(64) double w[4][kWide];
            if (weigh(fraction.low, w, 0) | weigh(fraction.high, w, kLanes)) return false;
            const Wide sum = {sumLine(line, _mm512_castsi512_si256(__m512i(at)), w, 0),
                              sumLine(line, _mm512_extracti64x4_epi64(__m512i(at), 1), w, kLanes)};
            if constexpr (sizeof(T) == 4) {
                Floats tap[4];
                lineTaps<4>(size, at, tap);
                const Floats most = larger(larger(tap[0], tap[1]), larger(tap[2], tap[3]));
                doubt = settle(out, sum, {lowHalf(most) * kShare, highHalf(most) * kShare});
                doubt |= ~bitsOf(most <= kLargest) & kAll;
            } else {
                doubt = settle(out, sum, Wide::all(kErrorOf16));
            }
        }
        if (__builtin_expect(doubt != 0, 0)) redo<Cubic>(src, run.from(x), doubt, out);
        return true;
    }
#endif

    static ZENR_INLINE unsigned weigh(Doubles f, double (*w)[kWide], int at) {
        // As weighAxis has it; but weights of whole positions are known.
        const Doubles before = kWeightError - (f + f),
                      error = before > kWeightError ? before : Doubles{} + kWeightError;
        Doubles v[4];
        weightPolynomials<mode, double>(f, v);
        return roundWeights(v, (f != 0) & (f != 1) ? error : Doubles{}, w, at);
    }

    // Fractions next to 0 leave many weights open.
    static __attribute__((noinline)) void weighOpen(const SampleSource<T>& src, const Positions& at,
                                                    double (*w)[4][kWide], double* open) {
        alignas(64) int base[kWide];
        alignas(64) double f[kWide];
        for (int k = 0; k < 3; ++k) {
            placeAxis<kWide>(at.s[k], src.high[k], base, f);
            weighAxis<mode, kWide>(f, w[k], open);
        }
    }

    // Groups with voxels whose bits are set take their taps from copies.
    static __attribute__((noinline)) void copyEdges(const SampleSource<T>& src, const int (*base)[kWide], unsigned edge,
                                                    T (*copied)[64], WideTaps<T>* taps) {
        constexpr unsigned kOne = (1u << kGroup) - 1;
        for (int g = 0; g < kWide; g += kGroup) {
            if (!(edge >> g & kOne)) continue;
            taps->group[g / kGroup] = {copied[0], 4, 16};
            for (int x = g; x < g + kGroup; ++x) {
                const int at[3] = {base[0][x], base[1][x], base[2][x]};
                copyTaps(src, at, copied[x]);
                taps->offset[x] = 64 * x;
            }
        }
    }
    // Of sums in float: 255 * 1.5625 times what the weights of three axes may be off, 3.4e-7 together each (2.6e-7 found in
    // 10^7 fractions of each mode); 2.7e-4 for roundings of sums of up to 498, 2^-24 of their value each; 5e-5 for the
    // ends of the interval.
    static constexpr float kErrorOf8 = 8e-4f;
    // Of lines likewise, with 17 roundings before those along x and the weights of one axis alone.
    static constexpr float kErrorOfLine8 = 1e-3f;
    // As bound() has it.
    static constexpr double kErrorOf16 = 2e-9;
    static constexpr double kShare = 1.4210854715202004e-14; // 2^-46, of the largest tap
#endif

#if defined(ZENR_LEVEL_avx512)
    static constexpr int kRest = kLineRest;
#else
    static constexpr int kRest = 0;
#endif

    // What settled() needs to know. The sizes of four weights sum to 1.25 at most, so the terms of the sum to twice the
    // largest tap: 21 roundings, and what is open about the weights.
    static Real bound(double open, float most) {
        if constexpr (sizeof(T) == 4) return most * (16 + open * 2.251799813685248e15); // 2^51
        if constexpr (sizeof(T) == 2) return 2e-9 + open * 131072;
        return Real(1e-3 + open * 512);
    }
};

} // namespace
} // namespace ZENR_LEVEL
} // namespace zenr
