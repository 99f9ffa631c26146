// The exported build functions: checks, then the builder that the parameter record's tag names.
#include "frame/export.h"
#include "frame/prmem.h"
#include "kdtree/kdtree.h"

using namespace zenr;

namespace {

constexpr bool badDepth(int maxDepth) {
    return maxDepth < 0 || maxDepth > kMaxTreeDepth;
}

// Half the byte count, with 32-bit wrap-around, against half of 32 MiB: deliberately so, although the builder is then
// given the whole byte count, which wraps elsewhere (4096 passes here and arrives there as 0).
constexpr bool budgetTooSmall(uint32_t limitMB) {
    return (limitMB << 19) < (1u << 24);
}

} // namespace

ZENR_EXPORT ZenStatus zenrKDTreeBuildAlloc(ZenrKDTreeNode** pDstKDTree, const float* pSrcVert, const int* pSrcTriInx,
                                           int srcVertSize, int srcTriSize, int* pDstKDTreeSize, const void* pParam) {
    if (!pDstKDTree) return zenStsNullPtrErr;
    if (!pSrcVert) return zenStsNullPtrErr;
    if (!pSrcTriInx) return zenStsNullPtrErr;
    if (!pDstKDTreeSize) return zenStsNullPtrErr;
    if (srcVertSize < 0) return zenStsSizeErr;
    if (srcTriSize < 0) return zenStsSizeErr;
    if (!pParam) return zenStsNullPtrErr;

    // The simple variant may be a record of two fields: nothing after them is touched before the tag is known.
    const ZenrKDTreeBuildParams* params = static_cast<const ZenrKDTreeBuildParams*>(pParam);
    if (params->tag == zenKDTBuildSimple) {
        if (badDepth(params->maxDepth)) return zenStsOutOfRangeErr;
        return ownKDTBldSmpl_TL(srcTriSize, pDstKDTree, pDstKDTreeSize);
    }
    if (params->tag == zenKDTBuildSAH) {
        if (badDepth(params->maxDepth)) return zenStsOutOfRangeErr;
        // Ordered comparisons: a NaN passes both.
        if (params->optimizationRatio < 0.f) return zenStsOutOfRangeErr;
        if (params->optimizationRatio > 1.f) return zenStsOutOfRangeErr;
        if (budgetTooSmall(params->memoryLimitMB)) return zenStsMemAllocErr;
        return ownKDTBldPSAH_ML(pSrcVert, pSrcTriInx, srcVertSize, srcTriSize, pDstKDTree, pDstKDTreeSize,
                                params->optimizationRatio, params->maxDepth, params->memoryLimitMB << 20,
                                params->pBoundBox);
    }
    return zenStsBadArgErr;
}

ZENR_EXPORT void zenrKDTreeFree(ZenrKDTreeNode* pTree) {
    zensFree(pTree);
}
