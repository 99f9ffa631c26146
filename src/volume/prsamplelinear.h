// Linear warp and remap.
#pragma once
#include "volume/prsamplecolumn.h"
#include "volume/prsampleline.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

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
        alignas(64) Real line[kSpan + kRest];
        alignas(64) float size[kSpan];
        const Interval in = lineInside(src, run);
        Interval rest = in;
#if defined(ZENR_LEVEL_avx512)
        if constexpr (sizeof(T) == 1) rest.begin = blendRows4(row, fy, fz, in, line);
#endif
        eachBlock(rest, [&](int i) {
            const Real a = row[0][i], b = row[1][i], c = row[2][i], d = row[3][i];
            const Real low = multiplyAdd(b - a, fy, a), high = multiplyAdd(d - c, fy, c);
            line[i] = multiplyAdd(high - low, fz, low);
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
#if defined(ZENR_LEVEL_avx512)
            if constexpr (sizeof(T) == 1) return interpolate16(src, run, x, line, out);
#endif
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
            if (__builtin_expect(any != 0, 0)) redoAligned<Linear>(src, run, x, maskOf(doubt), out);
        });
    }

#if defined(ZENR_LEVEL_avx512)
    static constexpr int kRest = sizeof(T) == 1 ? kLineRest : 0;

    static void interpolate16(const SampleSource<T>& src, const Aligned& run, int x, const float* line, T* out) {
        const auto placed = place16<Floats16>(run.x + x, src.high[0], kSnap);
        Float16 tap[2];
        lineTaps<2>(line, _mm512_sub_epi32(placed.base, _mm512_set1_epi32(run.first)), tap);
        const Floats16 sum = blend(Floats16{__m512(tap[0])}, Floats16{__m512(tap[1])}, placed.fraction);
        const unsigned doubt = settle16(out, sum, all16(kError), float(kHalfUp));
        if (__builtin_expect(doubt != 0, 0)) redoAligned<Linear>(src, run, x, doubt, out);
    }
#else
    static constexpr int kRest = 0;
#endif

    static constexpr bool kFloats = false;
    static void column(const SampleSource<T>& src, const Column& at, [[maybe_unused]] Ahead ahead, T* out) {
        // Along an axis of one voxel base and base + 1 would be two.
        bool thin = false;
        for (int k = 0; k < 3; ++k) thin |= src.low[k] == src.high[k];
        if (__builtin_expect(thin, 0)) return redoColumn<Linear>(src, at, kAll, out);
#if defined(ZENR_LEVEL_avx512)
        column16(src, at, ahead, out);
#else
        alignas(64) double s[3][kChunk];
        __builtin_memcpy(s, &at, sizeof s);
        chunk(src, {{s[0], s[1], s[2]}}, out);
#endif
    }

#if !defined(ZENR_LEVEL_avx512)
    __attribute__((noinline)) static void chunk(const SampleSource<T>& src, const Positions& at, T* out) {
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
#else
    __attribute__((always_inline)) static void column16(const SampleSource<T>& src, const Column& at, Ahead ahead,
                                                        T* out) {
        using Real16 = typename Real16Of<Real>::Type;
        const auto x = place16<Real16>(at.s[0][0], at.s[0][1], src.high[0], kSnap),
                   y = place16<Real16>(at.s[1][0], at.s[1][1], src.high[1], kSnap),
                   z = place16<Real16>(at.s[2][0], at.s[2][1], src.high[2], kSnap);
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
            ask(origin, offset, ahead);
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
        if (__builtin_expect(doubt != 0, 0)) redoColumn<Linear>(src, at, doubt, out);
    }
#endif
};

} // namespace
} // namespace ZENR_LEVEL
} // namespace zenr
