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

    static void column(const SampleSource<T>& src, const Column& at, Ahead ahead, T* out) {
        alignas(64) int plane[kChunk], offset[kChunk];
        if (src.regular) {
            regularOffsets(src, at, kHalfUp, offset);
            const T* const origin = src.planes[src.low[2]];
            ask(origin, offset, ahead);
            for (int x = 0; x < kChunk; ++x) put(out + x, origin[offset[x]]);
            return;
        }
        planeOffsets(src, at, kHalfUp, plane, offset);
        for (int x = 0; x < kChunk; ++x) put(out + x, src.planes[plane[x]][offset[x]]);
    }
};

} // namespace
} // namespace ZENR_LEVEL
} // namespace zenr
