// Warp and remap by the nearest voxel.
#pragma once
#include "volume/prsamplecolumn.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

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

    // The compiler would put small voxels together by shifts, which takes longer than to store them one by one.
    static void put(T* to, T voxel) { *static_cast<volatile T*>(to) = voxel; }

#if defined(ZENR_WIDE)
    // Whole chunks of a remap of a regular source, positions as floats: truncated, and one more where the double rule would
    // round up, which holds for every float below 2^24.
    static constexpr bool kFloats = true;
    static bool takesFloats(const SampleSource<T>& src) {
        constexpr int kBelow = 1 << 24;
        return src.regular && src.high[0] < kBelow && src.high[1] < kBelow && src.high[2] < kBelow;
    }
    static void floats(const SampleSource<T>& src, const float* const map[3], int x, int chunks, T* dst) {
        const int steps[3] = {1, int(src.step), src.planeStep};
        Places places[kColumns];
        unsigned in[kColumns];
        for (int c = 0; c < chunks; ++c) {
            in[c] = 0;
            for (int i = 0; i < kChunk; i += kWide) {
                Floats s[3];
                Ints there = ~Ints{};
                for (int k = 0; k < 3; ++k) {
                    __builtin_memcpy(&s[k], map[k] + x + c * kChunk + i, sizeof s[k]);
                    there &= (s[k] >= float(src.low[k])) & (s[k] <= float(src.high[k]));
                }
                Ints flat = Ints{} - src.low[2] * src.planeStep;
                for (int k = 0; k < 3; ++k) {
                    const Floats at = there ? s[k] : Floats{} + float(src.low[k]);
                    const Ints whole = __builtin_convertvector(at, Ints);
                    const Ints up = at - __builtin_convertvector(whole, Floats) >= 0.49999991f;
                    flat += (whole - up) * steps[k];
                }
                __builtin_memcpy(&places[c].offset[i], &flat, sizeof flat);
                in[c] |= bitsOf(there) << i;
            }
        }
        stageDone();
        const T* const origin = src.planes[src.low[2]];
        for (int c = 0; c < chunks; ++c) {
            const int* const offset = places[c].offset;
            T* const to = dst + x + c * kChunk;
            if (in[c] == kAll) {
                for (int i = 0; i < kChunk; ++i) put(to + i, origin[offset[i]]);
            } else {
                for (unsigned bits = in[c]; bits; bits &= bits - 1)
                    to[__builtin_ctz(bits)] = origin[offset[__builtin_ctz(bits)]];
            }
        }
    }
#else
    static constexpr bool kFloats = false;
#endif

    static void columns(const SampleSource<T>& src, const Column* at, int count, ptrdiff_t ahead, T (*out)[kChunk]) {
        Places places[kColumns];
        const T* const origin = src.planes[src.low[2]];
        for (int c = 0; c < count; ++c) {
            locate(src, at[c], kHalfUp, &places[c]);
            stageDone();
            ask(origin, places[c].offset, kChunk, ahead, c);
        }
        for (int c = 0; c < count; ++c) {
            const int *const offset = places[c].offset, *const plane = places[c].plane;
            if (src.regular)
                for (int x = 0; x < kChunk; ++x) put(out[c] + x, origin[offset[x]]);
            else
                for (int x = 0; x < kChunk; ++x) put(out[c] + x, src.planes[plane[x]][offset[x]]);
        }
    }
};

} // namespace
} // namespace ZENR_LEVEL
} // namespace zenr
