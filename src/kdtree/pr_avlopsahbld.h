// The working state of the surface-area-heuristic builder: memory context, working nodes, triangle references. Shared
// by the set-up and compaction (pr_avlopsahbld) and the subdivision (pr_avlopsahopt).
#pragma once
#include <stddef.h>
#include <stdint.h>

#include "frame/dispatch.h"
#include "zenr.h"

namespace zenr {

constexpr uint32_t kMiB = 0x100000u;
constexpr uint32_t kBlockBytes = 16 * kMiB;
constexpr uint32_t kBlockWordsLog2 = 22;
constexpr uint32_t kBlockWords = 1u << kBlockWordsLog2;
static_assert(kBlockWords * 4 == kBlockBytes, "a link's low bits count the words of a block");
// What a further block costs: itself and its header, which is five words in the reference product.
constexpr uint32_t kBlockHeaderCharge = 20;
constexpr uint32_t kBlockCharge = kBlockBytes + kBlockHeaderCharge;
// The record of the context is 51 words in the reference product; x86-64 charges the same, so that a budget means the
// same there.
constexpr uint32_t kContextCharge = 204;
constexpr int kScratchArrays = 12;
constexpr int kSizeClasses = 10;
// A budget has 32 bits, so no build can hold more blocks than this.
constexpr uint32_t kMaxBlocks = 256;

// Header of a 16 MiB block, and (with the three last words 0) head of a chain of blocks.
struct BlockHeader {
    BlockHeader* next;
    BlockHeader* prev;
    char* start;
    char* end;
    char* cursor;
};

struct Pool {
    char* start;
    char* end;
    char* cursor;
};

struct MemContext {
    uint32_t budget;
    uint32_t remaining; // see budgetAllowsBlock()
    const float* vertices;
    const float* verticesEnd;
    const float* verticesLimit;
    const int* triangles;
    const int* trianglesEnd;
    const int* trianglesLimit;
    Pool poolA; // root node and reference lists, used like a stack
    Pool poolB; // points made by cutting, used like a stack
    // Extents of references, least and greatest coordinate on each axis; then two for each axis' events.
    uint32_t* scratch[kScratchArrays];
    BlockHeader nodeBlocks;
    BlockHeader listBlocks;
    uint32_t freeArrays[kSizeClasses]; // link of the first free point array of each size class, plus 1; 0 = none
    BlockHeader arrayBlocks;
};
#if defined(__i386__)
static_assert(sizeof(MemContext) == kContextCharge && sizeof(BlockHeader) == kBlockHeaderCharge, "as charged");
#endif

// A node of the working tree. Links are 32 bits on every flavour: block number << 22 | word in the block.
struct WorkNode {
    uint32_t kind;  // 0, 1, 2: interior, split on that axis; kWorkLeaf
    uint32_t value; // interior: the split position's bits; leaf: number of triangles
    uint32_t link;  // interior: the pair of children (node blocks); leaf: the triangle list (list blocks)
};
constexpr uint32_t kWorkLeaf = 3;
static_assert(sizeof(WorkNode) == 12, "a working record has 12 bytes");

// A triangle, or the part of it that lies in a node's box, as a convex polygon.
struct TriRef {
    uint32_t id;        // triangle number << 5 | number of polygon points
    uint32_t selectors; // bits 5a.. : point of the upper bound on axis a; bits 15+5a.. : of the lower bound
    uint32_t points;    // the polygon's array of point numbers (array blocks), or kWholeTriangle
};
static_assert(sizeof(TriRef) == 12, "a working record has 12 bytes");
// An uncut triangle needs no array of its own: its entry in the index array serves.
constexpr uint32_t kWholeTriangle = 0xFFFFFFFFu;
constexpr uint32_t kMaxPolygonPoints = 31;

// Where links lead: the blocks of each kind, in the order in which they were taken.
struct BlockTables {
    char* nodes[kMaxBlocks];
    uint32_t* lists[kMaxBlocks];
    uint32_t* arrays[kMaxBlocks];
    uint32_t nodeCount;
    uint32_t listCount;
    uint32_t arrayCount;
};

inline WorkNode* nodeAt(const BlockTables& tables, uint32_t link) {
    return reinterpret_cast<WorkNode*>(tables.nodes[link >> kBlockWordsLog2] + size_t(link & (kBlockWords - 1)) * 4);
}
// Word i of a leaf's list. The words of all list blocks are numbered through, and a list may run on into the next.
inline uint32_t& listWord(const BlockTables& tables, uint32_t link, uint32_t i) {
    const uint32_t at = link + i;
    return tables.lists[at >> kBlockWordsLog2][at & (kBlockWords - 1)];
}

// The smallest budget that a mesh is accepted with, in 32-bit arithmetic that wraps.
constexpr uint32_t minimumBudget(uint32_t vertexCount, uint32_t triangleCount) {
    return 12u * vertexCount + 48u * triangleCount + 36u * triangleCount + 0x20000F4u;
}
// The shifts differ deliberately: 16 MiB for every whole 4 MiB of vertices.
constexpr uint32_t poolBytesB(uint32_t vertexCount) {
    return ((12u * vertexCount) >> 22 << 24) + kBlockBytes;
}
constexpr uint32_t poolBytesA(uint32_t triangleCount) {
    return ((36u * triangleCount) & 0xFF000000u) + kBlockBytes;
}

// zenStsMemAllocErr, with nothing allocated, when the budget is below the minimum. Allocations behind that check are
// not tested here: contextComplete() tells.
ZenStatus ownMemCreateContext(MemContext** pContext, uint32_t budget, const float* vertices, const int* triangles,
                              int vertexCount, int triangleCount);
bool contextComplete(const MemContext& context, int triangleCount);
// Releases everything that the context holds, and the context.
void releaseContext(MemContext* context);
// Gives all blocks back and empties the pools, for a build from the beginning.
void startOver(MemContext& context, BlockTables& tables);

// Whether the remaining budget pays for one more block. The fixed pools may have overdrawn it: then `remaining` has
// wrapped above the budget.
inline bool budgetAllowsBlock(const MemContext& context, uint32_t remaining) {
    return remaining <= context.budget && remaining >= kBlockCharge;
}
// One more block at the end of a chain; null when the budget does not pay for it or there is no memory.
BlockHeader* takeBlock(MemContext& context, BlockHeader& chain);

// Takes n records of 12 bytes from a pool; null, with the cursor left where it was, when that would reach its end.
inline char* takeRecords(Pool& pool, uint64_t n) {
    const uint64_t bytes = 12 * n;
    if (bytes >= uint64_t(pool.end - pool.cursor)) return nullptr;
    char* const taken = pool.cursor;
    pool.cursor += bytes;
    return taken;
}

// Copies a working tree into one new block of packed nodes. The working tree is left as it is.
ZenStatus ownCompactTreeRepresentation(const BlockTables& tables, const WorkNode& root, ZenrKDTreeNode** pTree,
                                       int* pSize);

// Everything that reading a reference needs.
struct Geometry {
    const float* vertices;
    const float* cutPoints; // pool B
    const int* triangles;
    uint32_t* const* arrays; // blocks of point arrays
    uint32_t vertexCount;    // point numbers from here on are in pool B
};

inline const uint32_t* pointArray(const Geometry& geometry, const TriRef& ref) {
    if (ref.points == kWholeTriangle)
        return reinterpret_cast<const uint32_t*>(geometry.triangles) + size_t(ref.id >> 5) * 4;
    return geometry.arrays[ref.points >> kBlockWordsLog2] + (ref.points & (kBlockWords - 1));
}
inline const float* pointAt(const Geometry& geometry, uint32_t point) {
    return point < geometry.vertexCount ? geometry.vertices + size_t(point) * 3
                                        : geometry.cutPoints + size_t(point - geometry.vertexCount) * 3;
}

// A build under way: what all threads share.
struct Builder {
    MemContext* context;
    BlockTables tables;
    float box[6];
};

enum BlockKind { kNodeBlocks, kListBlocks, kArrayBlocks, kBlockKinds };

// What one thread builds with: all of the context's memory, or a part of it.
struct Workspace {
    Pool* poolA;
    Pool* poolB;
    uint32_t* freeArrays;
    uint32_t* scratch[kScratchArrays];
    int capacity;                     // words of each scratch array
    BlockHeader* blocks[kBlockKinds]; // the ones in use
    uint32_t blockNumbers[kBlockKinds];
};
Workspace wholeWorkspace(Builder& builder, int triangleCount);
// Takes a further block into use; false when the budget does not pay for it or there is no memory.
bool nextBlock(Builder& builder, Workspace& space, BlockKind kind);

// Half the surface of a box times a number of triangles.
double nodeCost(const float* box, int count);
// F for an optimisation ratio.
long double costFactor(float optimizationRatio);

// Subdivides the root, whose references end at pool A's cursor, until every leaf is decided. With more than one thread
// it may run out of memory that one thread would find enough.
ZenStatus ownOptimizationPSAH(Builder& builder, WorkNode& root, Level level, float optimizationRatio, int maxDepth,
                              int threads);

// Selectors of a polygon: the first point with the least and with the greatest coordinate on each axis.
uint32_t selectBounds(const Geometry& geometry, const uint32_t* points, uint32_t count);

// One side of a cut reference, and its bounds.
struct CutPart {
    TriRef ref;
    float lo[3];
    float hi[3];
};
// Cuts a reference that straddles a plane. A status, because new points and arrays can run out of memory.
ZenStatus cutReference(Builder& builder, Workspace& space, const Geometry& geometry, const TriRef& ref, int axis,
                       float split, CutPart& lower, CutPart& upper);
// Returns a reference's point array for reuse.
void returnArray(Builder& builder, Workspace& space, const TriRef& ref);

} // namespace zenr
