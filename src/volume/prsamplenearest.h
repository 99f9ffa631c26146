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
    // Positions as floats, of a regular source: truncated, and one more where the double rule would round up, which
    // holds for every float below 2^24. `there` says which are given. Returns those that are outside.
    static constexpr bool kFloats = true;
    static constexpr int kBelow = 1 << 24;
    static unsigned floats(const SampleSource<T>& src, const float* const map[3], int x, unsigned there, T* dst,
                           T* voxels) {
        const int steps[3] = {1, int(src.step), src.planeStep};
        __m512 s[3];
        __mmask16 in = __mmask16(there);
        for (int k = 0; k < 3; ++k) {
            s[k] = _mm512_maskz_loadu_ps(__mmask16(there), map[k] + x);
            in = _mm512_mask_cmp_ps_mask(in, s[k], _mm512_set1_ps(float(src.low[k])), _CMP_GE_OQ);
            in = _mm512_mask_cmp_ps_mask(in, s[k], _mm512_set1_ps(float(src.high[k])), _CMP_LE_OQ);
        }
        if (!in) return kAll;
        __m512i flat = _mm512_set1_epi32(-src.low[2] * src.planeStep);
        for (int k = 0; k < 3; ++k) {
            const __m512 at = _mm512_mask_mov_ps(_mm512_set1_ps(float(src.low[k])), in, s[k]);
            const __m512 whole = _mm512_roundscale_ps(at, _MM_FROUND_TO_ZERO);
            const __mmask16 up = _mm512_cmp_ps_mask(_mm512_sub_ps(at, whole), _mm512_set1_ps(0.49999991f), _CMP_GE_OQ);
            __m512i i = _mm512_cvttps_epi32(whole);
            i = _mm512_mask_add_epi32(i, up, i, _mm512_set1_epi32(1));
            flat = _mm512_add_epi32(flat, k ? _mm512_mullo_epi32(i, _mm512_set1_epi32(steps[k])) : i);
        }
        alignas(64) int offset[kChunk];
        _mm512_store_si512(offset, flat);
        stageDone();
        const T* const origin = src.planes[src.low[2]];
        const unsigned out = ~unsigned(in) & kAll;
        T* const to = out ? voxels : dst;
        for (int i = 0; i < kChunk; ++i) put(to + i, origin[offset[i]]);
        return out;
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
