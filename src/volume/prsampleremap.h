// A row of a remap: chunks of it, a column each.
#pragma once
#include "volume/prsamplecolumn.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

// Positions of a row's chunk; voxels behind its end are no numbers, and so outside.
inline void readChunk(const float* const map[3], int x, int n, Column* at) {
    alignas(64) double s[3][kChunk];
    for (int k = 0; k < 3; ++k) {
        float padded[kChunk];
        const float* from = map[k] + x;
        if (n < kChunk) {
            for (int i = 0; i < kChunk; ++i) padded[i] = i < n ? from[i] : __builtin_nanf("");
            from = padded;
        }
        // cppcheck-suppress uninitvar  // written above
        for (int i = 0; i < kChunk; ++i) s[k][i] = from[i];
    }
    __builtin_memcpy(at, s, sizeof *at);
}

// Up to kColumns chunks.
template <class T, class Policy>
void remapChunks(const SampleSource<T>& src, T* dst, int count, const float* const map[3], int x) {
    Column column[kColumns];
    unsigned out[kColumns], any = 0;
    int chunks = 0;
    for (int done = 0; done < count; done += kChunk, ++chunks) {
        readChunk(map, x + done, count - done < kChunk ? count - done : kChunk, &column[chunks]);
        out[chunks] = putInside(src, &column[chunks]);
        any |= out[chunks];
    }
    if (!any) return Policy::columns(src, column, chunks, 0, reinterpret_cast<T(*)[kChunk]>(dst + x));
    alignas(64) T voxels[kChunk];
    for (int c = 0; c < chunks; ++c) {
        if (out[c] == kAll) continue;
        Policy::columns(src, &column[c], 1, 0, &voxels);
        putThose(~out[c], voxels, dst + x + c * kChunk);
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
    constexpr int kMost = kColumns * kChunk;
    for (int x = 0; x < count; x += kMost) {
        const int n = count - x < kMost ? count - x : kMost;
        int done = 0;
        if constexpr (Policy::kFloats) {
            if (Policy::takesFloats(src)) {
                Policy::floats(src, map, x, n / kChunk, dst);
                done = n - n % kChunk;
            }
        }
        if (done < n) remapChunks<T, Policy>(src, dst, n - done, map, x + done);
    }
}

} // namespace
} // namespace ZENR_LEVEL
} // namespace zenr
