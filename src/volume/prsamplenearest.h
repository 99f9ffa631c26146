// Warp and remap by the nearest voxel.
#pragma once
#include "volume/prsamplechunk.h"
#include "volume/prsamplevec.h"

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

} // namespace
} // namespace ZENR_LEVEL
} // namespace zenr
