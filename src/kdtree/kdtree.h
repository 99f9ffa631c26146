// The packed tree's node format and the builders behind zenrKDTreeBuildAlloc.
#pragma once
#include <stdint.h>

#include "zenr.h"

namespace zenr {

// Bits of a node's first word; the format is drawn in zenr.h.
constexpr uint32_t kLeafBit = 0x80000000u;
constexpr uint32_t kAxisMask = 3u;
constexpr uint32_t kChildOffsetMask = 0xFFFFFFF8u;
constexpr uint32_t kListOffsetMask = 0xFFFFFFFCu;
// Bits of a leaf's second word.
constexpr uint32_t kInlineBit = 0x80000000u;
constexpr uint32_t kInlineCountMask = 3u;
// A block begins with the root and two zero words.
constexpr uint32_t kTreeHeadBytes = 16;

constexpr int kMaxTreeDepth = 50;

// One general leaf with the triangles 0 .. count - 1.
ZenStatus ownKDTBldSmpl_TL(int count, ZenrKDTreeNode** pTree, int* pSize);

// The surface-area-heuristic builder, within `budget` bytes of working memory; boundBox may be null.
ZenStatus ownKDTBldPSAH_ML(const float* vertices, const int* triangles, int vertexCount, int triangleCount,
                           ZenrKDTreeNode** pTree, int* pSize, float optimizationRatio, int maxDepth, uint32_t budget,
                           const float* boundBox);

} // namespace zenr
