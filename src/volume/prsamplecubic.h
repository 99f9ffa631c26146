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
template <int mode, class Number, class Real> inline void weightPolynomials(Real f, Real w[4]) {
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
            if (__builtin_expect(any != 0, 0)) redoAligned<Cubic>(src, run, x, maskOf(doubt), out);
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
    static void column(const SampleSource<T>& src, const Column& at, Ahead ahead, T* out) {
        alignas(64) double s[3][kChunk];
        __builtin_memcpy(s, &at, sizeof s);
        chunk(src, {s[0], s[1], s[2]}, ahead, out);
    }

    static void chunk(const SampleSource<T>& src, const Positions& at, [[maybe_unused]] Ahead ahead, T* out) {
#if defined(ZENR_LEVEL_avx512)
        return chunk16(src, at, ahead, out);
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
    // The same in whole registers.
    static void chunk16(const SampleSource<T>& src, const Positions& at, Ahead ahead, T* out) {
        alignas(64) int base[3][kChunk];
        alignas(64) T copied[kChunk][64];
        Taps16<T> taps;
        __m512i flat = _mm512_setzero_si512();
        __mmask16 edge = src.regular ? 0 : 0xFFFF;
        Real16 fraction[3];
        const int steps[3] = {1, int(src.step), src.planeStep}, origin[3] = {0, 0, src.low[2]};
        for (int k = 0; k < 3; ++k) {
            const auto placed = place16<Floats16>(at.s[k], src.high[k], kSnap);
            edge |= _mm512_cmple_epi32_mask(placed.base, _mm512_set1_epi32(src.low[k])) |
                    _mm512_cmpge_epi32_mask(placed.base, _mm512_set1_epi32(src.high[k] - 1));
            const __m512i from = _mm512_sub_epi32(placed.base, _mm512_set1_epi32(origin[k] + 1));
            flat = _mm512_add_epi32(flat, _mm512_mullo_epi32(from, _mm512_set1_epi32(steps[k])));
            _mm512_store_si512(base[k], placed.base);
            fraction[k] = Real16::of(placed.fraction.v);
        }
        _mm512_store_si512(taps.offset, flat);
        for (auto& group : taps.group) group = {src.planes[src.low[2]], src.step, src.planeStep};
        stageDone();
        ask(src.planes[src.low[2]], taps.offset, ahead);
        if (__builtin_expect(edge != 0, 0)) copyEdges(src, base, edge, copied, &taps);
        unsigned doubt;
        if constexpr (sizeof(T) == 1) {
            Rows16 rows;
            stageDone();
            collectRows16(taps, &rows);
            stageDone();
            Float16 w[3][4];
            for (int k = 0; k < 3; ++k) weightPolynomials<mode, float>(Float16(fraction[k].v), w[k]);
            const __m512 sum = sumRows16(rows, RowWeights16(w[0]), w[1], w[2]);
            doubt = settle16(out, {_mm512_mul_ps(sum, _mm512_set1_ps(kRowUnit))}, all16(kErrorOf8), float(kHalfUp));
        } else {
            DoubleWeights16 weights;
            Columns16 columns;
            alignas(64) double open[kChunk] = {};
            unsigned apart = 0;
            for (int k = 0; k < 3; ++k)
                apart |= weigh8(fraction[k].low, weights.w[k], 0) | weigh8(fraction[k].high, weights.w[k], 8);
            if (__builtin_expect(apart != 0, 0)) weighOpen(src, at, weights.w, open);
            stageDone();
            sumColumns16(taps, weights.w, &columns);
            stageDone();
            const Doubles16 sum = {sumRows8(columns.sum, weights.w[0], 0), sumRows8(columns.sum + 8, weights.w[0], 8)};
            const Doubles16 gap = {_mm512_load_pd(open), _mm512_load_pd(open + 8)};
            const auto add = [](double scale, Doubles16 gap, double least) {
                return Doubles16{_mm512_fmadd_pd(gap.low, _mm512_set1_pd(scale), _mm512_set1_pd(least)),
                                 _mm512_fmadd_pd(gap.high, _mm512_set1_pd(scale), _mm512_set1_pd(least))};
            };
            if constexpr (sizeof(T) == 4) {
                const Doubles16 size = {largest8(columns.size), largest8(columns.size + 8)};
                const Doubles16 share = add(2, gap, kShare);
                doubt =
                    settle16(out, sum, {_mm512_mul_pd(size.low, share.low), _mm512_mul_pd(size.high, share.high)}, 0);
                const __m512d most = _mm512_set1_pd(kLargest);
                doubt |= _mm512_cmp_pd_mask(size.low, most, _CMP_NLE_UQ) |
                         unsigned(_mm512_cmp_pd_mask(size.high, most, _CMP_NLE_UQ)) << 8;
            } else {
                doubt = settle16(out, sum, add(131072, gap, kErrorOf16), kHalfUp);
            }
        }
        if (__builtin_expect(doubt != 0, 0)) redo<Cubic>(src, at, doubt, out);
    }
    using Real16 = typename Real16Of<Real>::Type;

    // A chunk of a line; false, and nothing done, where roundings of weights are open.
    static bool interpolate16(const SampleSource<T>& src, const Aligned& run, int x, const Real* line,
                              const float* size, T* out) {
        const auto placed = place16<Floats16>(run.x + x, src.high[0], kSnap);
        const Real16 fraction = Real16::of(placed.fraction.v);
        const __m512i at = _mm512_sub_epi32(placed.base, _mm512_set1_epi32(1 + run.first));
        unsigned doubt;
        if constexpr (sizeof(T) == 1) {
            Float16 w[4], tap[4];
            weightPolynomials<mode, float>(Float16(fraction.v), w);
            lineTaps<4>(line, at, tap);
            __m512 sum = __m512(tap[0] * w[0]);
            for (int t = 1; t < 4; ++t) sum = _mm512_fmadd_ps(__m512(tap[t]), __m512(w[t]), sum);
            doubt = settle16(out, {sum}, all16(kErrorOfLine8), float(kHalfUp));
        } else {
            alignas(64) double w[4][kChunk];
            if (weigh8(fraction.low, w, 0) | weigh8(fraction.high, w, 8)) return false;
            const Doubles16 sum = {sumLine8(line, _mm512_castsi512_si256(at), w, 0),
                                   sumLine8(line, _mm512_extracti64x4_epi64(at, 1), w, 8)};
            if constexpr (sizeof(T) == 4) {
                Float16 tap[4];
                lineTaps<4>(size, at, tap);
                const __m512 most = _mm512_max_ps(_mm512_max_ps(__m512(tap[0]), __m512(tap[1])),
                                                  _mm512_max_ps(__m512(tap[2]), __m512(tap[3])));
                const __m512d share = _mm512_set1_pd(kShare);
                doubt = settle16(out, sum,
                                 {_mm512_mul_pd(firstHalf(most), share), _mm512_mul_pd(secondHalf(most), share)}, 0);
                doubt |= _mm512_cmp_ps_mask(most, _mm512_set1_ps(kLargest), _CMP_NLE_UQ);
            } else {
                doubt = settle16(out, sum, all16(kErrorOf16), kHalfUp);
            }
        }
        if (__builtin_expect(doubt != 0, 0)) redoAligned<Cubic>(src, run, x, doubt, out);
        return true;
    }

    static unsigned weigh8(__m512d f, double (*w)[kChunk], int at) {
        // As weighAxis has it; but weights of whole positions are known.
        const __m512d least = _mm512_set1_pd(kWeightError), one = _mm512_set1_pd(1);
        const __mmask8 between =
            _mm512_cmp_pd_mask(f, _mm512_setzero_pd(), _CMP_NEQ_OQ) & _mm512_cmp_pd_mask(f, one, _CMP_NEQ_OQ);
        const __m512d error = _mm512_maskz_max_pd(between, least, _mm512_sub_pd(least, _mm512_add_pd(f, f)));
        Double8 v[4];
        weightPolynomials<mode, double>(Double8(f), v);
        return roundWeights8(v, error, w, at);
    }

    // Fractions next to 0 leave many weights open.
    static __attribute__((noinline)) void weighOpen(const SampleSource<T>& src, const Positions& at,
                                                    double (*w)[4][kChunk], double* open) {
        alignas(64) int base[kChunk];
        alignas(64) double f[kChunk];
        for (int k = 0; k < 3; ++k) {
            placeAxis(at.s[k], src.high[k], base, f);
            weighAxis<mode>(f, w[k], open);
        }
    }

    // Groups with voxels whose bits are set take their taps from copies.
    static __attribute__((noinline)) void copyEdges(const SampleSource<T>& src, const int (*base)[kChunk],
                                                    unsigned edge, T (*copied)[64], Taps16<T>* taps) {
        constexpr unsigned kOne = (1u << kGroup) - 1;
        for (int g = 0; g < kChunk; g += kGroup) {
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
    static constexpr int kRest = kLineRest;
#endif

#if !defined(ZENR_LEVEL_avx512)
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
