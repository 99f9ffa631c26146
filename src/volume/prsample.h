// What affine warp and remap share: a source as their row kernels see it, and the kernels, which differ in where the
// positions of a row come from.
#pragma once
#include <stddef.h>
#include <stdint.h>

#include "frame/dispatch.h"
#include "volume/prvolume.h"

namespace zenr {

// The planes of a volume and the box of it that may be read; axes x, y, z, both ends inclusive.
template <class T> struct SampleSource {
    const T* const* planes;
    ptrdiff_t step; // from row to row, in elements
    int low[3];
    int high[3];
    bool narrow;   // offsets within a plane fit an int
    bool regular;  // so do those from the box's first plane, as planes lie at equal distances
    int planeStep; // of a regular source
};

// Finds out how the source's planes lie.
template <class T> void surveyPlanes(SampleSource<T>* src) {
    constexpr long long kMost = 0x7FFFFFFF;
    const long long step = src->step < 0 ? -(long long)src->step : src->step;
    src->narrow = step < kMost && (src->high[1] + 1LL) * step + src->high[0] < kMost;
    src->regular = false;
    src->planeStep = 0;
    const int depth = src->high[2] - src->low[2] + 1;
    const auto at = [&](int z) { return (long long)reinterpret_cast<intptr_t>(src->planes[src->low[2] + z]); };
    const long long bytes = depth > 1 ? at(1) - at(0) : 0, distance = bytes / (long long)sizeof(T);
    const long long size = distance < 0 ? -distance : distance;
    if (!src->narrow || bytes % (long long)sizeof(T) != 0) return;
    if (size > kMost || size * depth + (src->high[1] + 1LL) * step + src->high[0] >= kMost) return;
    for (int z = 2; z < depth; ++z)
        if (at(z) - at(z - 1) != bytes) return;
    src->regular = true;
    src->planeStep = int(distance);
}

// For a box that starts inside the volume; what lies beyond the volume is cut off.
template <class T> SampleSource<T> sampleSource(const T* const* planes, int stepBytes, ZenrVolume volume, ZenrBox box) {
    const auto last = [](int first, int length, int size) {
        return first + (size - first < length ? size - first : length) - 1;
    };
    SampleSource<T> src;
    src.planes = planes;
    src.step = elementStep<T>(stepBytes);
    src.low[0] = box.x, src.high[0] = last(box.x, box.width, volume.width);
    src.low[1] = box.y, src.high[1] = last(box.y, box.height, volume.height);
    src.low[2] = box.z, src.high[2] = last(box.z, box.depth, volume.depth);
    surveyPlanes(&src);
    return src;
}

// Taps of an interpolation along each axis.
constexpr int tapsOf(int mode) {
    return mode == kNearest ? 1 : mode == kLinear ? 2 : 4;
}

// For voxels of a regular source at positions that differ by `way`: about how far from the first tap of one of them that
// tap of the other lies which no voxel on the way has had yet. 0 where it does not matter.
template <class T> ptrdiff_t voxelsAhead(const SampleSource<T>& src, const double way[3], int taps) {
    constexpr double kFar = 64; // what lies so far apart shares no voxels anyway
    const ptrdiff_t steps[3] = {1, src.step, src.planeStep};
    ptrdiff_t ahead = 0;
    for (int k = 0; k < 3; ++k)
        if (src.regular && way[k] > -kFar && way[k] < kFar)
            ahead += steps[k] * (way[k] < 0 ? int(way[k] - 0.5) : int(way[k] + 0.5) + taps - 1);
    return ahead;
}

constexpr bool boxOutside(ZenrVolume volume, ZenrBox box) {
    return box.x >= volume.width || box.y >= volume.height || box.z >= volume.depth;
}

// Cubic interpolation takes four voxels along each axis of the volume, linear two; with fewer, a simpler mode stands in.
constexpr int modeFor(ZenrVolume volume, int mode) {
    const auto thinner = [&](int size) { return volume.width < size || volume.height < size || volume.depth < size; };
    if (mode >= kCubicFirst && thinner(4)) mode = kLinear;
    return thinner(2) ? kNearest : mode;
}

// Voxels of a region, as far as a choice between levels needs them.
constexpr long long voxelsOf(int width, int height, int depth) {
    const long long plane = (long long)width * height;
    return plane < 0x7FFFFFFF ? plane * depth : plane;
}

// Rows of a destination that a warp samples together, and where they are in the source.
constexpr int kTileRows = 16;
constexpr int kTileSlices = 16;
constexpr int kSideBySide = 16; // room is a multiple of it
template <class T> struct WarpTile {
    static constexpr int kMost = kTileRows * kTileSlices;
    static_assert(kMost % kSideBySide == 0);
    int rows;
    ptrdiff_t ahead; // from a voxel's first tap to what the next slice reads first, as voxelsAhead has it
    T* row[kMost];
    alignas(64) double position[3][kMost];
};

// Voxels of destination rows. Where a position lies outside the source's box, or is no number, the voxel is left as it is.
//   warp   voxels [x, x + count) of all rows of a tile, whose positions are those of voxel x; they grow by `advance`
//          from voxel to voxel, by additions in double, and are left at the voxel behind the last
//   remap  `count` voxels from dst on; map: the positions' x, y and z
template <class T>
using WarpRows = void(const SampleSource<T>& src, WarpTile<T>* tile, int x, int count, const double advance[3]);
template <class T> using RemapRow = void(const SampleSource<T>& src, T* dst, int count, const float* const map[3]);

constexpr int kModeCount = 8; // tables are indexed by mode; 0 and 3 are empty

template <class T> struct SampleKernels {
    WarpRows<T>* warp[kModeCount];
    RemapRow<T>* remap[kModeCount];
};

namespace sse2 {
extern const SampleKernels<uint8_t> kSample8;
extern const SampleKernels<uint16_t> kSample16;
extern const SampleKernels<float> kSample32;
} // namespace sse2
namespace avx2 {
extern const SampleKernels<uint8_t> kSample8;
extern const SampleKernels<uint16_t> kSample16;
extern const SampleKernels<float> kSample32;
} // namespace avx2
namespace avx512 {
extern const SampleKernels<uint8_t> kSample8;
extern const SampleKernels<uint16_t> kSample16;
extern const SampleKernels<float> kSample32;
} // namespace avx512
inline const SampleKernels<uint8_t>& kernelsFor(Level level, uint8_t) {
    return pick(level, sse2::kSample8, avx2::kSample8, avx512::kSample8);
}
inline const SampleKernels<uint16_t>& kernelsFor(Level level, uint16_t) {
    return pick(level, sse2::kSample16, avx2::kSample16, avx512::kSample16);
}
inline const SampleKernels<float>& kernelsFor(Level level, float) {
    return pick(level, sse2::kSample32, avx2::kSample32, avx512::kSample32);
}
template <class T> const SampleKernels<T>& sampleKernels(Level level) {
    return kernelsFor(level, T());
}

} // namespace zenr
