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
};

// For a box that starts inside the volume; what lies beyond the volume is cut off.
template <class T> SampleSource<T> sampleSource(const T* const* planes, int stepBytes, ZenrVolume volume, ZenrBox box) {
    const auto last = [](int first, int length, int size) {
        return first + (size - first < length ? size - first : length) - 1;
    };
    return {planes,
            elementStep<T>(stepBytes),
            {box.x, box.y, box.z},
            {last(box.x, box.width, volume.width), last(box.y, box.height, volume.height),
             last(box.z, box.depth, volume.depth)}};
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

// `count` voxels of a destination row. Where a position lies outside the source's box, or is no number, the voxel is
// left as it is.
//   warp   position: that of the first voxel; it grows by `advance` from voxel to voxel, by additions in double, and is
//          left at the voxel behind the last
//   remap  map: the positions' x, y and z
template <class T>
using WarpRow = void(const SampleSource<T>& src, T* dst, int count, double position[3], const double advance[3]);
template <class T> using RemapRow = void(const SampleSource<T>& src, T* dst, int count, const float* const map[3]);

constexpr int kModeCount = 8; // tables are indexed by mode; 0 and 3 are empty

template <class T> struct SampleKernels {
    WarpRow<T>* warp[kModeCount];
    RemapRow<T>* remap[kModeCount];
};

struct AllSampleKernels {
    SampleKernels<uint8_t> u8;
    SampleKernels<uint16_t> u16;
    SampleKernels<float> f32;
};

namespace sse2 {
extern const AllSampleKernels kSample;
}
namespace avx2 {
extern const AllSampleKernels kSample;
}
namespace avx512 {
extern const AllSampleKernels kSample;
}
inline const SampleKernels<uint8_t>& kernelsFor(const AllSampleKernels& k, uint8_t) {
    return k.u8;
}
inline const SampleKernels<uint16_t>& kernelsFor(const AllSampleKernels& k, uint16_t) {
    return k.u16;
}
inline const SampleKernels<float>& kernelsFor(const AllSampleKernels& k, float) {
    return k.f32;
}
template <class T> const SampleKernels<T>& sampleKernels(Level level) {
    return kernelsFor(pick(level, sse2::kSample, avx2::kSample, avx512::kSample), T());
}

} // namespace zenr
