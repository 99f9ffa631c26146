// The block routines behind the exported intersectors, and the one-ray path that defines their results.
#pragma once
#include <stddef.h>

#include "frame/dispatch.h"
#include "zenr.h"

namespace zenr {

// Blocks of rays at an instruction-set level. Whatever the level and the block's shape, each ray gets the bits that the
// one-ray path gives it.
void ownIntersectBlock(Level level, const float* const origin[3], const float* const direction[3], const float* box,
                       const ZenrTriangleAccel* accel, const ZenrKDTreeNode* root, float* distance, float* const hit[2],
                       int* triangle, int width, int height);

void ownIntersectEyeBlock(Level level, const float origin[3], const float* const direction[3], const float* box,
                          const ZenrTriangleAccel* accel, const ZenrKDTreeNode* root, float* distance,
                          float* const hit[2], int* triangle, int width, int height);

ZenStatus ownIntersectAnyBlock(Level level, const float origin[3], const float* const direction[3],
                               const ZenrTriangleAccel* accel, const ZenrKDTreeNode* root, int* triangle, int* mask,
                               int width, int height);

void ownIntersectMultipleBlock(Level level, const float origin[3], const float* const direction[3], const float* box,
                               const ZenrTriangleAccel* accel, const ZenrKDTreeNode* root, float* distance,
                               float* const hit[2], int* triangle, int width, int height, int maxHits);

// One ray after the other, `count` of them.
void oneRayBlock(const float* const origin[3], const float* const direction[3], const float* box,
                 const ZenrTriangleAccel* accel, const ZenrKDTreeNode* root, float* distance, float* const hit[2],
                 int* triangle, size_t count);

void oneRayEyeBlock(const float origin[3], const float* const direction[3], const float* box,
                    const ZenrTriangleAccel* accel, const ZenrKDTreeNode* root, float* distance, float* const hit[2],
                    int* triangle, size_t count);

void oneRayAnyBlock(const float origin[3], const float* const direction[3], const ZenrTriangleAccel* accel,
                    const ZenrKDTreeNode* root, int* triangle, int* mask, size_t count);

// Layers of outputs are `stride` elements apart; triangle numbers are -1 beforehand.
void oneRayMultipleBlock(const float origin[3], const float* const direction[3], const float* box,
                         const ZenrTriangleAccel* accel, const ZenrKDTreeNode* root, float* distance,
                         float* const hit[2], int* triangle, size_t count, size_t stride, int maxHits);

} // namespace zenr
