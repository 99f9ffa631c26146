// The block routines behind the exported intersectors.
#pragma once
#include "zenr.h"

namespace zenr {

void ownIntersectBlock(const float* const origin[3], const float* const direction[3], const float* box,
                       const ZenrTriangleAccel* accel, const ZenrKDTreeNode* root, float* distance, float* const hit[2],
                       int* triangle, int width, int height);

void ownIntersectEyeBlock(const float origin[3], const float* const direction[3], const float* box,
                          const ZenrTriangleAccel* accel, const ZenrKDTreeNode* root, float* distance,
                          float* const hit[2], int* triangle, int width, int height);

ZenStatus ownIntersectAnyBlock(const float origin[3], const float* const direction[3], const ZenrTriangleAccel* accel,
                               const ZenrKDTreeNode* root, int* triangle, int* mask, int width, int height);

void ownIntersectMultipleBlock(const float origin[3], const float* const direction[3], const float* box,
                               const ZenrTriangleAccel* accel, const ZenrKDTreeNode* root, float* distance,
                               float* const hit[2], int* triangle, int width, int height, int maxHits);

} // namespace zenr
