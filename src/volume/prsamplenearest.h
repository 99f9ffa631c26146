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

#if defined(ZENR_LEVEL_avx512)
    // Whole numbers as doubles: offsets are exact in them, and cost one conversion.
    static void column(const SampleSource<T>& src, const Column& at, T* out) {
        alignas(64) int offset[kChunk];
        const __m512d step = _mm512_set1_pd(double(src.step));
        const auto flat = [&](int part) { return fused(whole(at.s[1][part]), step, whole(at.s[0][part])); };
        if (src.regular) {
            const __m512d planeStep = _mm512_set1_pd(src.planeStep), low = _mm512_set1_pd(src.low[2]);
            const auto all = [&](int part) {
                return _mm512_cvttpd_epi32(fused(_mm512_sub_pd(whole(at.s[2][part]), low), planeStep, flat(part)));
            };
            _mm512_store_si512(offset, both(all(0), all(1)));
            stageDone();
            const T* const origin = src.planes[src.low[2]];
            for (int x = 0; x < kChunk; ++x) put(out + x, origin[offset[x]]);
            return;
        }
        alignas(64) int plane[kChunk];
        _mm512_store_si512(plane, both(_mm512_cvttpd_epi32(whole(at.s[2][0])), _mm512_cvttpd_epi32(whole(at.s[2][1]))));
        _mm512_store_si512(offset, both(_mm512_cvttpd_epi32(flat(0)), _mm512_cvttpd_epi32(flat(1))));
        stageDone();
        for (int x = 0; x < kChunk; ++x) put(out + x, src.planes[plane[x]][offset[x]]);
    }
    static __m512d whole(__m512d s) {
        return _mm512_roundscale_pd(_mm512_add_pd(s, _mm512_set1_pd(kHalfUp)), _MM_FROUND_TO_ZERO);
    }
    static __m512d fused(__m512d a, __m512d b, __m512d c) {
        return _mm512_fmadd_pd(a, b, c);
    }
#else
    static void column(const SampleSource<T>& src, const Column& at, T* out) {
        alignas(64) double s[3][kChunk];
        __builtin_memcpy(s, &at, sizeof s);
        alignas(64) int plane[kChunk], offset[kChunk];
        const int step = int(src.step);
        for (int x = 0; x < kChunk; ++x) {
            plane[x] = int(s[2][x] + kHalfUp);
            offset[x] = int(s[1][x] + kHalfUp) * step + int(s[0][x] + kHalfUp);
        }
        stageDone();
        for (int x = 0; x < kChunk; ++x) put(out + x, src.planes[plane[x]][offset[x]]);
    }
#endif
};

} // namespace
} // namespace ZENR_LEVEL
} // namespace zenr
