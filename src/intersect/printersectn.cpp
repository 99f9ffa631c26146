// The intersectors: exported functions, and the block routines that choose between packets and single rays.
#include "frame/export.h"
#include "intersect/intersect.h"
#include "intersect/prpackets.h"

namespace zenr {

namespace {

// Below so many rays a packet costs more to set up than it saves.
constexpr size_t kFewRays = 3;

inline size_t rayCount(int width, int height) {
    return width < 1 || height < 1 ? 0 : size_t(width) * size_t(height);
}

inline const PacketKernels& kernels(Level level) {
    return pick(level, sse2::kPackets, avx2::kPackets, avx512::kPackets);
}

} // namespace

void ownIntersectBlock(Level level, const float* const origin[3], const float* const direction[3], const float* box,
                       const ZenrTriangleAccel* accel, const ZenrKDTreeNode* root, float* distance, float* const hit[2],
                       int* triangle, int width, int height) {
    const size_t count = rayCount(width, height);
    if (count == 0) return;
    if (count < kFewRays) return oneRayBlock(origin, direction, box, accel, root, distance, hit, triangle, count);
    kernels(level).nearest(
        {box, accel, root, nullptr, origin, direction, distance, hit, triangle, nullptr, width, height, 1});
}

void ownIntersectEyeBlock(Level level, const float origin[3], const float* const direction[3], const float* box,
                          const ZenrTriangleAccel* accel, const ZenrKDTreeNode* root, float* distance,
                          float* const hit[2], int* triangle, int width, int height) {
    const size_t count = rayCount(width, height);
    if (count == 0) return;
    if (count < kFewRays) return oneRayEyeBlock(origin, direction, box, accel, root, distance, hit, triangle, count);
    kernels(level).eye(
        {box, accel, root, origin, nullptr, direction, distance, hit, triangle, nullptr, width, height, 1});
}

ZenStatus ownIntersectAnyBlock(Level level, const float origin[3], const float* const direction[3],
                               const ZenrTriangleAccel* accel, const ZenrKDTreeNode* root, int* triangle, int* mask,
                               int width, int height) {
    const size_t count = rayCount(width, height);
    if (count == 0) return zenStsNoErr;
    if (count < kFewRays)
        oneRayAnyBlock(origin, direction, accel, root, triangle, mask, count);
    else
        kernels(level).any(
            {nullptr, accel, root, origin, nullptr, direction, nullptr, nullptr, triangle, mask, width, height, 1});
    return zenStsNoErr;
}

void ownIntersectMultipleBlock(Level level, const float origin[3], const float* const direction[3], const float* box,
                               const ZenrTriangleAccel* accel, const ZenrKDTreeNode* root, float* distance,
                               float* const hit[2], int* triangle, int width, int height, int maxHits) {
    const size_t count = rayCount(width, height);
    if (count == 0 || maxHits < 1) return;
    for (size_t i = 0; i < count * size_t(maxHits); ++i) triangle[i] = -1;
    if (count < kFewRays)
        return oneRayMultipleBlock(origin, direction, box, accel, root, distance, hit, triangle, count, count, maxHits);
    kernels(level).multiple(
        {box, accel, root, origin, nullptr, direction, distance, hit, triangle, nullptr, width, height, maxHits});
}

} // namespace zenr

// ---- Exported functions -------------------------------------------------------------------------------------------

using namespace zenr;

namespace {

inline Level levelFor(ZenrSize size) {
    return zenr::levelFor((long long)size.width * size.height);
}

} // namespace

ZENR_EXPORT ZenStatus zenrIntersectMO_32f(const float* const origin[3], const float* const direction[3],
                                          float* distance, float* const hit[2], int* triangle,
                                          const ZenrIntersectContext* context, ZenrSize blockSize) {
    const Level level = levelFor(blockSize);
    const WideScope scope(level);
    ownIntersectBlock(level, origin, direction, context->boundBox, context->triangleAccel, context->rootNode, distance,
                      hit, triangle, blockSize.width, blockSize.height);
    return zenStsNoErr;
}

ZENR_EXPORT ZenStatus zenrIntersectEyeSO_32f(const float origin[3], const float* const direction[3], float* distance,
                                             float* const hit[2], int* triangle, const ZenrIntersectContext* context,
                                             ZenrSize blockSize) {
    const Level level = levelFor(blockSize);
    const WideScope scope(level);
    ownIntersectEyeBlock(level, origin, direction, context->boundBox, context->triangleAccel, context->rootNode,
                         distance, hit, triangle, blockSize.width, blockSize.height);
    return zenStsNoErr;
}

ZENR_EXPORT ZenStatus zenrIntersectAnySO_32f(const float origin[3], const float* const direction[3], int* triangle,
                                             int* mask, ZenrSize blockSize, const ZenrIntersectContext* context) {
    const Level level = levelFor(blockSize);
    const WideScope scope(level);
    return ownIntersectAnyBlock(level, origin, direction, context->triangleAccel, context->rootNode, triangle, mask,
                                blockSize.width, blockSize.height);
}

ZENR_EXPORT ZenStatus zenrIntersectMultipleSO_32f(const float origin[3], const float* const direction[3],
                                                  float* distance, float* const hit[2], int* triangle,
                                                  ZenrSize blockSize, int maxHits,
                                                  const ZenrIntersectContext* context) {
    const Level level = levelFor(blockSize);
    const WideScope scope(level);
    ownIntersectMultipleBlock(level, origin, direction, context->boundBox, context->triangleAccel, context->rootNode,
                              distance, hit, triangle, blockSize.width, blockSize.height, maxHits);
    return zenStsNoErr;
}
