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
            placeAxis<kChunk>(run.x + x, src.high[0], base, f);
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
            if (__builtin_expect(any != 0, 0)) redo<Linear>(src, run.from(x), maskOf(doubt), out);
        });
    }

#if defined(ZENR_LEVEL_avx512)
    static constexpr int kRest = sizeof(T) == 1 ? kLineRest : 0;

    static void interpolate16(const SampleSource<T>& src, const Aligned& run, int x, const float* line, T* out) {
        const auto at = placed<WideFloats>(run.x + x, src.high[0]);
        Floats tap[2];
        lineTaps<2>(line, at.base - run.first, tap);
        const unsigned doubt =
            settle(out, blend(WideFloats{tap[0]}, WideFloats{tap[1]}, at.fraction), WideFloats::all(kError));
        if (__builtin_expect(doubt != 0, 0)) redo<Linear>(src, run.from(x), doubt, out);
    }
#else
    static constexpr int kRest = 0;
#endif

    static constexpr bool kFloats = false;
    static void columns(const SampleSource<T>& src, const Column* at, int count, [[maybe_unused]] ptrdiff_t ahead,
                        T (*out)[kChunk]) {
        // Along an axis of one voxel base and base + 1 would be two.
        bool thin = false;
        for (int k = 0; k < 3; ++k) thin |= src.low[k] == src.high[k];
        if (__builtin_expect(thin, 0)) {
            for (int c = 0; c < count; ++c) redoColumn<Linear>(src, at[c], kAll, out[c]);
            return;
        }
#if defined(ZENR_WIDE)
        WidePlaces places[kColumns];
        for (int c = 0; c < count; ++c) {
            place(src, at[c], &places[c]);
            stageDone();
            ask(src.planes[src.low[2]], places[c].offset, kChunk, ahead, c);
        }
        stageDone();
        for (int c = 0; c < count; ++c) {
            const unsigned doubt =
                src.regular ? sampleRegular(src, places[c], out[c]) : samplePlanes(src, places[c], out[c]);
            if (__builtin_expect(doubt != 0, 0)) redoColumn<Linear>(src, at[c], doubt, out[c]);
        }
#else
        for (int c = 0; c < count; ++c) {
            alignas(64) double s[3][kChunk];
            __builtin_memcpy(s, &at[c], sizeof s);
            chunk(src, {{s[0], s[1], s[2]}}, out[c]);
        }
#endif
    }

#if defined(ZENR_WIDE)
    using Wide = typename WideOf<Real>::Type;
    struct WidePlaces : Places {
        Wide fraction[3][kChunk / kWide];
    };

    static ZENR_INLINE void place(const SampleSource<T>& src, const Column& at, WidePlaces* places) {
        Doubles base[3][kParts];
#pragma GCC unroll 3
        for (int k = 0; k < 3; ++k)
#pragma GCC unroll 2
            for (int p = 0; p < kParts; p += 2) {
                Doubles f[2];
                for (int i = 0; i < 2; ++i) base[k][p + i] = baseOf(at.s[k][p + i], src.high[k], &f[i]);
                places->fraction[k][p / 2] = Wide::of(f[0], f[1]);
            }
        locate(src, base, places);
    }

    static unsigned sampleRegular(const SampleSource<T>& src, const WidePlaces& places, T* out) {
        const T* const origin = src.planes[src.low[2]];
        const T* const row[4] = {origin, origin + src.step, origin + src.planeStep, origin + src.planeStep + src.step};
        return sample(places, out, [&](int r, int x) ZENR_INLINED { return row[r] + places.offset[x]; });
    }
    static unsigned samplePlanes(const SampleSource<T>& src, const WidePlaces& places, T* out) {
        return sample(places, out, [&](int r, int x) ZENR_INLINED {
            return src.planes[places.plane[x] + (r >> 1)] + places.offset[x] + (r & 1 ? src.step : 0);
        });
    }

    // A column whose voxels' pairs of rows begin at tap(row, voxel). Returns the bits of those in doubt.
    template <class Tap> static ZENR_INLINE unsigned sample(const WidePlaces& places, T* out, const Tap& tap) {
        unsigned doubt = 0;
        for (int part = 0; part < kChunk / kWide; ++part) {
            const int first = part * kWide;
            const auto &x = places.fraction[0][part], &y = places.fraction[1][part], &z = places.fraction[2][part];
            const auto rowPairs = [&](int r) ZENR_INLINED {
                return pairs(out, [&](int i) ZENR_INLINED { return tap(r, first + i); });
            };
            const auto a = rowPairs(0), b = rowPairs(1), c = rowPairs(2), d = rowPairs(3);
            const auto along = [&](const auto& p)
                                   ZENR_INLINED { return blend(Wide::of(p.first), Wide::of(p.second), x); };
            const Wide sum = blend(blend(along(a), along(b), y), blend(along(c), along(d), y), z);
            unsigned open;
            if constexpr (sizeof(T) == 4) {
                Floats most = Floats{};
                const auto add = [&](const auto& p)
                                     ZENR_INLINED { most = larger(sizes(p.first), larger(sizes(p.second), most)); };
                add(a), add(b), add(c), add(d);
                const Wide size = Wide::of(most);
                open = settle(out + first, sum, {size.low * kShare, size.high * kShare}) | bitsOf(most > kLargest);
            } else {
                open = settle(out + first, sum, Wide::all(kError));
            }
            doubt |= open << first;
        }
        return doubt;
    }
    static constexpr double kShare = 3.552713678800501e-15; // 2^-48, of the largest tap
#else
    __attribute__((noinline)) static void chunk(const SampleSource<T>& src, const Positions& at, T* out) {
        using Pairs = Pair<T>;
        alignas(64) int base[3][kChunk], offset[kChunk];
        alignas(64) Real f[3][kChunk];
        alignas(64) typename Pairs::Type pair[4][kChunk];
        for (int k = 0; k < 3; ++k) placeAxis<kChunk>(at.s[k], src.high[k], base[k], f[k]);
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
#endif
};

} // namespace
} // namespace ZENR_LEVEL
} // namespace zenr
