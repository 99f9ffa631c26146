// Volume filtering: the exported functions, and the planning of a call.
#include "filter/prfilter.h"

#include "frame/export.h"

namespace zenr {

// Bytes to whole voxels, rounded towards minus infinity: an odd step loses its last byte.
static ptrdiff_t voxelStep(int bytes) {
    return bytes >> 1;
}

static bool badVolume(const ZenrVolume& v) {
    return v.width < 1 || v.height < 1 || v.depth < 1;
}

FilterJob ownFilterJob(const int16_t* const pSrc[], int srcStep, int16_t* const pDst[], int dstStep,
                       ZenrVolume dstVolume, const int32_t* pKernel, ZenrVolume kernelVolume, ZenrPoint anchor,
                       int divisor) {
    // The anchor is not checked: 64 bits, so that no difference overflows.
    const int64_t x = int64_t(anchor.x) - (kernelVolume.width - 1);
    const int64_t y = int64_t(anchor.y) - (kernelVolume.height - 1);
    const int64_t z = int64_t(anchor.z) - (kernelVolume.depth - 1);
    const ptrdiff_t step = voxelStep(srcStep);
    return {pSrc + ptrdiff_t(z), ptrdiff_t(y * step + x), step, pDst, voxelStep(dstStep), dstVolume, pKernel,
            kernelVolume,        int32_t(divisor)};
}

void ownFilter(Level level, const FilterJob& job) {
    filterKernels(level).plain(job);
}

} // namespace zenr

using namespace zenr;

ZENR_EXPORT ZenStatus zenrFilterGetBufSize(ZenrVolume dstVolume, ZenrVolume kernelVolume, int numChannels,
                                           uint32_t* pSize) {
    if (!pSize) return zenStsNullPtrErr;
    if (badVolume(dstVolume) || badVolume(kernelVolume)) return zenStsSizeErr;
    if (numChannels != 1) return zenStsNumChannelsErr;
    *pSize = 0;
    return zenStsNoErr;
}

ZENR_EXPORT ZenStatus zenrFilter_16s_C1PV(const int16_t* const pSrc[], int srcStep, int16_t* const pDst[], int dstStep,
                                          ZenrVolume dstVolume, const int32_t* pKernel, ZenrVolume kernelVolume,
                                          ZenrPoint anchor, int divisor, uint8_t* pBuffer) {
    (void)pBuffer;
    if (!pSrc || !pDst || !pKernel) return zenStsNullPtrErr;
    if (badVolume(dstVolume) || badVolume(kernelVolume)) return zenStsSizeErr;
    // The most negative divisor has no size that fits its type, and would have passed for a power of two.
    if (divisor == 0 || divisor == INT32_MIN) return zenStsSizeErr;

    const Level level = levelFor(int64_t(dstVolume.width) * dstVolume.height * dstVolume.depth);
    WideScope scope(level);
    ownFilter(level, ownFilterJob(pSrc, srcStep, pDst, dstStep, dstVolume, pKernel, kernelVolume, anchor, divisor));
    return zenStsNoErr;
}
