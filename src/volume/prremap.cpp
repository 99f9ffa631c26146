// Remap of volumes: the exported functions.
#include "volume/prremap.h"

#include "frame/export.h"
#include "frame/parallel.h"

namespace zenr {
namespace {

constexpr int kTileColumns = 256;

constexpr int least(int a, int b) {
    return a < b ? a : b;
}

// One tile of the destination, so that neighbouring rows find their source voxels in the cache.
template <class T>
void remapTile(RemapRow<T>* kernel, const RemapTask<T>& task, int x, int columns, int y, int rows, int z, int slices) {
    for (int k = z; k < z + slices; ++k)
        for (int j = y; j < y + rows; ++j) {
            const ptrdiff_t offset = ptrdiff_t(j) * task.mapStep + x;
            const float* const map[3] = {task.map[0][k] + offset, task.map[1][k] + offset, task.map[2][k] + offset};
            kernel(task.src, task.dst[k] + ptrdiff_t(j) * task.dstStep + x, columns, map);
        }
}

template <class T, int mode> void remapVolume(Level level, const RemapTask<T>& task, int first, int count) {
    const WideScope scope(level);
    RemapRow<T>* const kernel = sampleKernels<T>(level).remap[mode];
    const ZenrVolume& size = task.size;
    for (int z = 0; z < count; z += kTileSlices)
        for (int y = 0; y < size.height; y += kTileRows)
            for (int x = 0; x < size.width; x += kTileColumns)
                remapTile(kernel, task, x, least(size.width - x, kTileColumns), y, least(size.height - y, kTileRows),
                          first + z, least(count - z, kTileSlices));
}

constexpr RemapVolume<uint8_t>* ownrRemap8N = &remapVolume<uint8_t, 1>;
constexpr RemapVolume<uint8_t>* ownrRemap8L = &remapVolume<uint8_t, 2>;
constexpr RemapVolume<uint8_t>* ownrRemap8C0 = &remapVolume<uint8_t, 4>;
constexpr RemapVolume<uint8_t>* ownrRemap8C1 = &remapVolume<uint8_t, 5>;
constexpr RemapVolume<uint8_t>* ownrRemap8C2 = &remapVolume<uint8_t, 6>;
constexpr RemapVolume<uint8_t>* ownrRemap8C3 = &remapVolume<uint8_t, 7>;
constexpr RemapVolume<uint16_t>* ownrRemap16N = &remapVolume<uint16_t, 1>;
constexpr RemapVolume<uint16_t>* ownrRemap16L = &remapVolume<uint16_t, 2>;
constexpr RemapVolume<uint16_t>* ownrRemap16C0 = &remapVolume<uint16_t, 4>;
constexpr RemapVolume<uint16_t>* ownrRemap16C1 = &remapVolume<uint16_t, 5>;
constexpr RemapVolume<uint16_t>* ownrRemap16C2 = &remapVolume<uint16_t, 6>;
constexpr RemapVolume<uint16_t>* ownrRemap16C3 = &remapVolume<uint16_t, 7>;
constexpr RemapVolume<float>* ownrRemap32N = &remapVolume<float, 1>;
constexpr RemapVolume<float>* ownrRemap32L = &remapVolume<float, 2>;
constexpr RemapVolume<float>* ownrRemap32C0 = &remapVolume<float, 4>;
constexpr RemapVolume<float>* ownrRemap32C1 = &remapVolume<float, 5>;
constexpr RemapVolume<float>* ownrRemap32C2 = &remapVolume<float, 6>;
constexpr RemapVolume<float>* ownrRemap32C3 = &remapVolume<float, 7>;

// One table per type, indexed by mode.
constexpr struct {
    RemapVolume<uint8_t>* u8[kModeCount];
    RemapVolume<uint16_t>* u16[kModeCount];
    RemapVolume<float>* f32[kModeCount];
    RemapVolume<uint8_t>* const* of(uint8_t) const { return u8; }
    RemapVolume<uint16_t>* const* of(uint16_t) const { return u16; }
    RemapVolume<float>* const* of(float) const { return f32; }
} ownrRemapInter = {
    {nullptr, ownrRemap8N, ownrRemap8L, nullptr, ownrRemap8C0, ownrRemap8C1, ownrRemap8C2, ownrRemap8C3},
    {nullptr, ownrRemap16N, ownrRemap16L, nullptr, ownrRemap16C0, ownrRemap16C1, ownrRemap16C2, ownrRemap16C3},
    {nullptr, ownrRemap32N, ownrRemap32L, nullptr, ownrRemap32C0, ownrRemap32C1, ownrRemap32C2, ownrRemap32C3}};

template <class T> void remapAll(Level level, RemapVolume<T>* routine, const RemapTask<T>& task) {
    const ZenrVolume& size = task.size;
    const bool small = size.width < 16 || size.height < 16 || size.depth < 16;
    if (small || ownGetNumThreads() < 2)
        routine(level, task, 0, size.depth);
    else
        parallelSplit(size.depth, [&](int begin, int count) { routine(level, task, begin, count); });
}

struct RemapMaps {
    const float* const* plane[3];
    int step; // in bytes
};

template <class T>
ZenStatus remapChecked(const T* const* pSrc, ZenrVolume srcVolume, int srcStep, const ZenrBox& srcRoi,
                       const RemapMaps& maps, T* const* pDst, int dstStep, ZenrVolume dstVolume, int interpolation) {
    if (!pSrc || !pDst) return zenStsNullPtrErr;
    if (!maps.plane[0] || !maps.plane[1] || !maps.plane[2]) return zenStsNullPtrErr;
    if (badVolume(srcVolume)) return zenStsSizeErr;
    if (badBox(srcRoi)) return zenStsSizeErr;
    if (badVolume(dstVolume)) return zenStsSizeErr;
    if (badMode(interpolation)) return zenStsInterpolationErr;
    if (boxOutside(srcVolume, srcRoi)) return zenStsRoiOutside;
    const RemapTask<T> task = {sampleSource(pSrc, srcStep, srcVolume, srcRoi),
                               {maps.plane[0], maps.plane[1], maps.plane[2]},
                               elementStep<float>(maps.step),
                               pDst,
                               elementStep<T>(dstStep),
                               dstVolume};
    remapAll(levelFor(voxelsOf(dstVolume.width, dstVolume.height, dstVolume.depth)),
             remapVolumes<T>()[modeFor(srcVolume, interpolation)], task);
    return zenStsNoErr;
}

} // namespace

template <class T> RemapVolume<T>* const* remapVolumes() {
    return ownrRemapInter.of(T());
}
template RemapVolume<uint8_t>* const* remapVolumes<uint8_t>();
template RemapVolume<uint16_t>* const* remapVolumes<uint16_t>();
template RemapVolume<float>* const* remapVolumes<float>();

} // namespace zenr

using namespace zenr;

ZENR_EXPORT ZenStatus zenrRemap_8u_C1PV(const uint8_t* const* pSrc, ZenrVolume srcVolume, int srcStep, ZenrBox srcRoi,
                                        const float* const* pxMap, const float* const* pyMap, const float* const* pzMap,
                                        int mapStep, uint8_t* const* pDst, int dstStep, ZenrVolume dstVolume,
                                        int interpolation) {
    return remapChecked(pSrc, srcVolume, srcStep, srcRoi, {{pxMap, pyMap, pzMap}, mapStep}, pDst, dstStep, dstVolume,
                        interpolation);
}

ZENR_EXPORT ZenStatus zenrRemap_16u_C1PV(const uint16_t* const* pSrc, ZenrVolume srcVolume, int srcStep, ZenrBox srcRoi,
                                         const float* const* pxMap, const float* const* pyMap,
                                         const float* const* pzMap, int mapStep, uint16_t* const* pDst, int dstStep,
                                         ZenrVolume dstVolume, int interpolation) {
    return remapChecked(pSrc, srcVolume, srcStep, srcRoi, {{pxMap, pyMap, pzMap}, mapStep}, pDst, dstStep, dstVolume,
                        interpolation);
}

ZENR_EXPORT ZenStatus zenrRemap_32f_C1PV(const float* const* pSrc, ZenrVolume srcVolume, int srcStep, ZenrBox srcRoi,
                                         const float* const* pxMap, const float* const* pyMap,
                                         const float* const* pzMap, int mapStep, float* const* pDst, int dstStep,
                                         ZenrVolume dstVolume, int interpolation) {
    return remapChecked(pSrc, srcVolume, srcStep, srcRoi, {{pxMap, pyMap, pzMap}, mapStep}, pDst, dstStep, dstVolume,
                        interpolation);
}
