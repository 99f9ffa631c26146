// Volume resize: the exported functions.
#include "frame/export.h"
#include "frame/prmem.h"
#include "volume/prresset.h"

namespace zenr {
namespace {

// Routines per type and layout.
template <class T>
using BlockResize = ZenStatus(Level, BlockVolume<const T>, ZenrVolume, BlockVolume<T>, const ResizeGeometry&, int,
                              unsigned char*, size_t);
template <class T>
using PlaneResize = ZenStatus(Level, PlaneVolume<const T>, ZenrVolume, PlaneVolume<T>, const ResizeGeometry&, int,
                              unsigned char*, size_t);
constexpr BlockResize<uint8_t>* ownrResize_8u_C1V = &resizeVolume<uint8_t>;
constexpr BlockResize<uint16_t>* ownrResize_16u_C1V = &resizeVolume<uint16_t>;
constexpr BlockResize<float>* ownrResize_32f_C1V = &resizeVolume<float>;
constexpr PlaneResize<uint8_t>* ownrResize_8u_C1PV = &resizeVolume<uint8_t>;
constexpr PlaneResize<uint16_t>* ownrResize_16u_C1PV = &resizeVolume<uint16_t>;
constexpr PlaneResize<float>* ownrResize_32f_C1PV = &resizeVolume<float>;

// A call's scale along an axis, and what it maps onto what.
struct AxisTask {
    double factor;
    double shift;
    int srcBegin;
    int srcLength; // of the source box
    int srcSize;   // of the volume
    int dstBegin;
    int dstLength;
};

// Destination range of an axis; false when it is empty. The constants differ on purpose: a mapped start of exactly
// k + 0.5 gives k, a mapped end of exactly k + 0.5 gives k + 1, so a voxel whose centre lies on the mapped edge is
// written. Bounds that are no number leave nothing: their comparisons are false.
bool trim(const AxisTask& task, int* first, int* end) {
    const int rest = task.srcSize - task.srcBegin;
    const double srcEnd = task.srcBegin + double(rest < task.srcLength ? rest : task.srcLength);
    const double low = task.srcBegin * task.factor + task.shift;
    const double high = srcEnd * task.factor + task.shift;
    const double boxEnd = double(task.dstBegin) + task.dstLength;
    if (!(low < boxEnd && high > task.dstBegin)) return false;
    const double from = (low > task.dstBegin ? low : task.dstBegin) + 0.4999999999;
    const double to = (high < boxEnd ? high : boxEnd) + 0.5000000001;
    // Both lie between 0 and the end of the box, which may be just beyond the integers.
    constexpr double kMost = 0x7FFFFFFF;
    *first = int(from < kMost ? from : kMost);
    *end = int(to < kMost ? to : kMost);
    return *first < *end;
}

} // namespace

ZenStatus ownrPreludeToResize(ZenrVolume volume, ZenrBox src, ZenrBox dst, const double factor[3],
                              const double shift[3], ResizeGeometry* g) {
    if (src.x >= volume.width || src.y >= volume.height || src.z >= volume.depth) return zenStsRoiOutside;
    const AxisTask tasks[3] = {{factor[0], shift[0], src.x, src.width, volume.width, dst.x, dst.width},
                               {factor[1], shift[1], src.y, src.height, volume.height, dst.y, dst.height},
                               {factor[2], shift[2], src.z, src.depth, volume.depth, dst.z, dst.depth}};
    for (int k = 0; k < 3; ++k)
        if (!trim(tasks[k], &g->first[k], &g->end[k])) return zenStsNoOperation;
    for (int k = 0; k < 3; ++k) {
        g->inverse[k] = 1 / factor[k];
        g->offset[k] = -shift[k] / factor[k];
        g->count[k] = g->end[k] - g->first[k];
    }
    return zenStsNoErr;
}

namespace {

// What both layouts share of the checks and the call.
struct ResizeArguments {
    ZenrVolume srcVolume;
    ZenrBox srcRoi;
    ZenrBox dstRoi;
    double factor[3];
    double shift[3];
    int mode;
    unsigned char* buffer;
};

template <class Source, class Destination>
ZenStatus resizeChecked(ZenStatus (*routine)(Level, Source, ZenrVolume, Destination, const ResizeGeometry&, int,
                                             unsigned char*, size_t),
                        Source src, Destination dst, bool nullPointer, const ResizeArguments& a) {
    ResizeGeometry g;
    if (nullPointer || !a.buffer) return zenStsNullPtrErr;
    if (badVolume(a.srcVolume)) return zenStsSizeErr;
    if (badBox(a.srcRoi)) return zenStsSizeErr;
    if (badBox(a.dstRoi)) return zenStsSizeErr;
    // Ordered comparisons: a NaN factor passes, and ends in an empty region.
    if (a.factor[0] <= 0 || a.factor[1] <= 0 || a.factor[2] <= 0) return zenStsResizeFactorErr;
    if (badMode(a.mode)) return zenStsInterpolationErr;
    if (const ZenStatus status = ownrPreludeToResize(a.srcVolume, a.srcRoi, a.dstRoi, a.factor, a.shift, &g))
        return status;
    const Level level = levelFor((long long)g.count[0] * g.count[1] * g.count[2]);
    return routine(level, src, a.srcVolume, dst, g, a.mode, a.buffer, resizeBufferBytes(a.dstRoi, a.mode));
}

} // namespace
} // namespace zenr

using namespace zenr;

ZENR_EXPORT ZenStatus zenrResizeGetBufSize(ZenrBox srcRoi, ZenrBox dstRoi, int nChannel, int interpolation,
                                           int* pSize) {
    if (!pSize) return zenStsNullPtrErr;
    if (badBox(srcRoi)) return zenStsSizeErr;
    if (badBox(dstRoi)) return zenStsSizeErr;
    if (nChannel != 1) return zenStsNumChannelsErr;
    if (badMode(interpolation)) return zenStsInterpolationErr;
    const int threads = ownGetNumThreads();
    const long long bytes = (long long)resizeBufferBytes(dstRoi, interpolation) * (threads < 1 ? 1 : threads);
    *pSize = int(bytes < 0x7FFFFFFF ? bytes : 0x7FFFFFFF);
    return zenStsNoErr;
}

ZENR_EXPORT ZenStatus zenrResize_8u_C1V(const uint8_t* pSrc, ZenrVolume srcVolume, int srcStep, int srcPlaneStep,
                                        ZenrBox srcRoi, uint8_t* pDst, int dstStep, int dstPlaneStep, ZenrBox dstRoi,
                                        double xFactor, double yFactor, double zFactor, double xShift, double yShift,
                                        double zShift, int interpolation, uint8_t* pBuffer) {
    const BlockVolume<const uint8_t> src = {pSrc, elementStep<uint8_t>(srcStep), elementStep<uint8_t>(srcPlaneStep)};
    const BlockVolume<uint8_t> dst = {pDst, elementStep<uint8_t>(dstStep), elementStep<uint8_t>(dstPlaneStep)};
    return resizeChecked(
        ownrResize_8u_C1V, src, dst, !pSrc || !pDst,
        {srcVolume, srcRoi, dstRoi, {xFactor, yFactor, zFactor}, {xShift, yShift, zShift}, interpolation, pBuffer});
}

ZENR_EXPORT ZenStatus zenrResize_16u_C1V(const uint16_t* pSrc, ZenrVolume srcVolume, int srcStep, int srcPlaneStep,
                                         ZenrBox srcRoi, uint16_t* pDst, int dstStep, int dstPlaneStep, ZenrBox dstRoi,
                                         double xFactor, double yFactor, double zFactor, double xShift, double yShift,
                                         double zShift, int interpolation, uint8_t* pBuffer) {
    const BlockVolume<const uint16_t> src = {pSrc, elementStep<uint16_t>(srcStep), elementStep<uint16_t>(srcPlaneStep)};
    const BlockVolume<uint16_t> dst = {pDst, elementStep<uint16_t>(dstStep), elementStep<uint16_t>(dstPlaneStep)};
    return resizeChecked(
        ownrResize_16u_C1V, src, dst, !pSrc || !pDst,
        {srcVolume, srcRoi, dstRoi, {xFactor, yFactor, zFactor}, {xShift, yShift, zShift}, interpolation, pBuffer});
}

ZENR_EXPORT ZenStatus zenrResize_32f_C1V(const float* pSrc, ZenrVolume srcVolume, int srcStep, int srcPlaneStep,
                                         ZenrBox srcRoi, float* pDst, int dstStep, int dstPlaneStep, ZenrBox dstRoi,
                                         double xFactor, double yFactor, double zFactor, double xShift, double yShift,
                                         double zShift, int interpolation, uint8_t* pBuffer) {
    const BlockVolume<const float> src = {pSrc, elementStep<float>(srcStep), elementStep<float>(srcPlaneStep)};
    const BlockVolume<float> dst = {pDst, elementStep<float>(dstStep), elementStep<float>(dstPlaneStep)};
    return resizeChecked(
        ownrResize_32f_C1V, src, dst, !pSrc || !pDst,
        {srcVolume, srcRoi, dstRoi, {xFactor, yFactor, zFactor}, {xShift, yShift, zShift}, interpolation, pBuffer});
}

ZENR_EXPORT ZenStatus zenrResize_8u_C1PV(const uint8_t* const* pSrc, ZenrVolume srcVolume, int srcStep, ZenrBox srcRoi,
                                         uint8_t* const* pDst, int dstStep, ZenrBox dstRoi, double xFactor,
                                         double yFactor, double zFactor, double xShift, double yShift, double zShift,
                                         int interpolation, uint8_t* pBuffer) {
    const PlaneVolume<const uint8_t> src = {pSrc, elementStep<uint8_t>(srcStep)};
    const PlaneVolume<uint8_t> dst = {pDst, elementStep<uint8_t>(dstStep)};
    return resizeChecked(
        ownrResize_8u_C1PV, src, dst, !pSrc || !pDst,
        {srcVolume, srcRoi, dstRoi, {xFactor, yFactor, zFactor}, {xShift, yShift, zShift}, interpolation, pBuffer});
}

ZENR_EXPORT ZenStatus zenrResize_16u_C1PV(const uint16_t* const* pSrc, ZenrVolume srcVolume, int srcStep,
                                          ZenrBox srcRoi, uint16_t* const* pDst, int dstStep, ZenrBox dstRoi,
                                          double xFactor, double yFactor, double zFactor, double xShift, double yShift,
                                          double zShift, int interpolation, uint8_t* pBuffer) {
    const PlaneVolume<const uint16_t> src = {pSrc, elementStep<uint16_t>(srcStep)};
    const PlaneVolume<uint16_t> dst = {pDst, elementStep<uint16_t>(dstStep)};
    return resizeChecked(
        ownrResize_16u_C1PV, src, dst, !pSrc || !pDst,
        {srcVolume, srcRoi, dstRoi, {xFactor, yFactor, zFactor}, {xShift, yShift, zShift}, interpolation, pBuffer});
}

ZENR_EXPORT ZenStatus zenrResize_32f_C1PV(const float* const* pSrc, ZenrVolume srcVolume, int srcStep, ZenrBox srcRoi,
                                          float* const* pDst, int dstStep, ZenrBox dstRoi, double xFactor,
                                          double yFactor, double zFactor, double xShift, double yShift, double zShift,
                                          int interpolation, uint8_t* pBuffer) {
    const PlaneVolume<const float> src = {pSrc, elementStep<float>(srcStep)};
    const PlaneVolume<float> dst = {pDst, elementStep<float>(dstStep)};
    return resizeChecked(
        ownrResize_32f_C1PV, src, dst, !pSrc || !pDst,
        {srcVolume, srcRoi, dstRoi, {xFactor, yFactor, zFactor}, {xShift, yShift, zShift}, interpolation, pBuffer});
}
