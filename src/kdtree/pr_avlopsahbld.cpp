// The surface-area-heuristic builder's frame: memory context and budget, scene box, first references, and the
// compaction of the working tree into the packed format.
#include "kdtree/pr_avlopsahbld.h"

#include <omp.h>
#include <string.h>

#include "frame/prmem.h"
#include "frame/prprim.h"
#include "kdtree/kdtree.h"
#include "kdtree/pr_avlopsahphase.h"
#include "zencore.h"

namespace zenr {

namespace {

void emptyChain(BlockHeader& head) {
    head.next = head.prev = &head;
    head.start = head.end = head.cursor = nullptr;
}

void releaseChain(BlockHeader& head) {
    for (BlockHeader* block = head.next; block != &head;) {
        BlockHeader* const next = block->next;
        zensFree(block->start);
        zensFree(block);
        block = next;
    }
}

void* mallocWords(uint32_t bytes) {
    return zensMalloc_32s(int(bytes / 4));
}

void makePool(Pool& pool, uint32_t bytes) {
    pool.start = pool.cursor = static_cast<char*>(mallocWords(bytes));
    pool.end = pool.start ? pool.start + bytes : nullptr;
}

} // namespace

ZenStatus ownMemCreateContext(MemContext** pContext, uint32_t budget, const float* vertices, const int* triangles,
                              int vertexCount, int triangleCount) {
    const uint32_t nv = uint32_t(vertexCount);
    const uint32_t nt = uint32_t(triangleCount);
    if (budget < minimumBudget(nv, nt)) return zenStsMemAllocErr;

    MemContext* const context = static_cast<MemContext*>(mallocWords(sizeof(MemContext)));
    if (!context) return zenStsMemAllocErr;
    context->budget = budget;
    int64_t remaining = int64_t(budget) - kContextCharge;
    for (int i = 0; i < kScratchArrays; ++i) {
        context->scratch[i] = static_cast<uint32_t*>(zensMalloc_32s(triangleCount));
        remaining -= 4 * int64_t(nt);
    }
    context->vertices = vertices;
    context->verticesEnd = context->verticesLimit = vertices + size_t(nv) * 3;
    context->triangles = triangles;
    context->trianglesEnd = context->trianglesLimit = triangles + size_t(nt) * 4;
    makePool(context->poolA, poolBytesA(nt));
    remaining -= poolBytesA(nt);
    makePool(context->poolB, poolBytesB(nv));
    remaining -= poolBytesB(nv);
    // Pool B may cost more than its share of the minimum. An overdrawn account is kept recognisable, whatever its size:
    // its word stays above the budget's.
    const int64_t lowest = int64_t(budget) - 0xFFFFFFFFll;
    context->remaining = uint32_t(remaining < lowest ? lowest : remaining);
    memset(context->freeArrays, 0, sizeof context->freeArrays);
    emptyChain(context->nodeBlocks);
    emptyChain(context->listBlocks);
    emptyChain(context->arrayBlocks);
    *pContext = context;
    return zenStsNoErr;
}

bool contextComplete(const MemContext& context, int triangleCount) {
    bool complete = context.poolA.start && context.poolB.start;
    for (int i = 0; i < kScratchArrays && triangleCount > 0; ++i) complete = complete && context.scratch[i];
    return complete;
}

void releaseContext(MemContext* context) {
    releaseChain(context->nodeBlocks);
    releaseChain(context->listBlocks);
    releaseChain(context->arrayBlocks);
    zensFree(context->poolB.start);
    zensFree(context->poolA.start);
    for (int i = 0; i < kScratchArrays; ++i) zensFree(context->scratch[i]);
    zensFree(context);
}

// Threads that build subtrees meet here and in nextBlock() alone, and by atomic steps instead of a lock: an OpenMP lock
// without a name is the caller's too, who would wait for himself when he builds under one.
BlockHeader* takeBlock(MemContext& context, BlockHeader& chain) {
    uint32_t remaining = __atomic_load_n(&context.remaining, __ATOMIC_RELAXED);
    do {
        if (!budgetAllowsBlock(context, remaining)) return nullptr;
    } while (!__atomic_compare_exchange_n(&context.remaining, &remaining, remaining - kBlockCharge, false,
                                          __ATOMIC_RELAXED, __ATOMIC_RELAXED));
    BlockHeader* const block = static_cast<BlockHeader*>(mallocWords(sizeof(BlockHeader)));
    char* const start = block ? static_cast<char*>(mallocWords(kBlockBytes)) : nullptr;
    if (!start) {
        if (block) zensFree(block);
        __atomic_fetch_add(&context.remaining, kBlockCharge, __ATOMIC_RELAXED);
        return nullptr;
    }
    block->start = block->cursor = start;
    block->end = start + kBlockBytes;
    // Last of the chain. Who replaces a last block is the only one to set its link; nobody walks the chain meanwhile.
    block->next = &chain;
    BlockHeader* last = __atomic_load_n(&chain.prev, __ATOMIC_RELAXED);
    do block->prev = last;
    while (!__atomic_compare_exchange_n(&chain.prev, &last, block, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED));
    last->next = block;
    return block;
}

void startOver(MemContext& context, BlockTables& tables) {
    context.remaining += (tables.nodeCount + tables.listCount + tables.arrayCount) * kBlockCharge;
    tables.nodeCount = tables.listCount = tables.arrayCount = 0;
    BlockHeader* const chains[] = {&context.nodeBlocks, &context.listBlocks, &context.arrayBlocks};
    for (BlockHeader* chain : chains) {
        releaseChain(*chain);
        emptyChain(*chain);
    }
    memset(context.freeArrays, 0, sizeof context.freeArrays);
    context.poolA.cursor = context.poolA.start;
    context.poolB.cursor = context.poolB.start;
}

// ---- Compaction
// ------------------------------------------------------------------------------------------------------

namespace {

constexpr uint32_t kGreatestInline = 0x1FFFFFFFu;

void sortThree(uint32_t t[3]) {
    for (int pass = 0; pass < 2; ++pass)
        for (int i = 0; i < 2 - pass; ++i)
            if (t[i] > t[i + 1]) {
                const uint32_t swap = t[i];
                t[i] = t[i + 1];
                t[i + 1] = swap;
            }
}

// Reads the numbers of a leaf of 1 to 3 triangles and tells whether they fit into the node itself; three come sorted.
bool inlineNumbers(const BlockTables& tables, const WorkNode& leaf, uint32_t t[3]) {
    const uint32_t count = leaf.value;
    if (count < 1 || count > 3) return false;
    uint32_t all = 0;
    for (uint32_t i = 0; i < count; ++i) all |= t[i] = listWord(tables, leaf.link, i);
    if (all >> 31) return false;
    if (count == 2) return t[0] <= kGreatestInline || t[1] <= kGreatestInline;
    if (count == 3) {
        sortThree(t);
        return t[1] <= kGreatestInline && t[1] - t[0] <= 0x7FFF && t[2] - t[1] <= 0xFFFF;
    }
    return true;
}

uint64_t listBytesOf(const BlockTables& tables, const WorkNode& leaf) {
    uint32_t t[3];
    return inlineNumbers(tables, leaf, t) ? 0 : 4 * uint64_t(leaf.value);
}

// Adds the bytes of a subtree, its top node included. Recursion follows first children only.
void localEstimateTotalCompactTreeSize(const BlockTables& tables, const WorkNode* node, uint64_t& nodeBytes,
                                       uint64_t& listBytes) {
    for (;;) {
        nodeBytes += 8;
        if (node->kind == kWorkLeaf) break;
        const WorkNode* const pair = nodeAt(tables, node->link);
        localEstimateTotalCompactTreeSize(tables, pair, nodeBytes, listBytes);
        node = pair + 1;
    }
    listBytes += listBytesOf(tables, *node);
}

// Where the packing writes next, as byte offsets in the block.
struct PackCursors {
    char* block;
    uint32_t pair;
    uint32_t list;
};

void store(const PackCursors& cursors, uint32_t at, uint32_t word) {
    memcpy(cursors.block + at, &word, 4);
}

void packLeaf(const BlockTables& tables, const WorkNode& leaf, uint32_t slot, PackCursors& cursors) {
    uint32_t t[3];
    if (!inlineNumbers(tables, leaf, t)) {
        store(cursors, slot, slot - cursors.list);
        store(cursors, slot + 4, leaf.value);
        for (uint32_t i = 0; i < leaf.value; ++i, cursors.list += 4)
            store(cursors, cursors.list, listWord(tables, leaf.link, i));
        return;
    }
    uint32_t w0 = t[0];
    uint32_t w1 = 0;
    if (leaf.value == 2) {
        // The number in w1 has 29 bits only: the second triangle takes that place when the first does not fit.
        const bool firstFits = t[0] <= kGreatestInline;
        w0 = firstFits ? t[1] : t[0];
        w1 = (firstFits ? t[0] : t[1]) << 2;
    } else if (leaf.value == 3) {
        w0 = (t[1] - t[0]) << 16 | (t[2] - t[1]);
        w1 = t[1] << 2;
    }
    store(cursors, slot, kLeafBit | w0);
    store(cursors, slot + 4, kInlineBit | w1 | leaf.value);
}

// Writes a subtree, its top node into the given slot. Recursion follows first children only.
void localTreePacking(const BlockTables& tables, const WorkNode* node, uint32_t slot, PackCursors& cursors) {
    while (node->kind != kWorkLeaf) {
        const uint32_t pair = cursors.pair;
        cursors.pair += 16;
        store(cursors, slot, (pair - slot) | node->kind);
        store(cursors, slot + 4, node->value);
        const WorkNode* const children = nodeAt(tables, node->link);
        localTreePacking(tables, children, pair, cursors);
        node = children + 1;
        slot = pair + 8;
    }
    packLeaf(tables, *node, slot, cursors);
}

} // namespace

ZenStatus ownCompactTreeRepresentation(const BlockTables& tables, const WorkNode& root, ZenrKDTreeNode** pTree,
                                       int* pSize) {
    const InPhase phase(Phase::packing);
    uint64_t nodeBytes = kTreeHeadBytes;
    uint64_t listBytes = 0;
    if (root.kind == kWorkLeaf) {
        listBytes = listBytesOf(tables, root);
    } else {
        const WorkNode* const pair = nodeAt(tables, root.link);
        localEstimateTotalCompactTreeSize(tables, pair, nodeBytes, listBytes);
        localEstimateTotalCompactTreeSize(tables, pair + 1, nodeBytes, listBytes);
    }
    // Offsets in the format and the reported size have 31 bits: a greater block cannot exist.
    const uint64_t total = nodeBytes + listBytes;
    if (total > 0x7FFFFFFFu) return zenStsMemAllocErr;
    char* const block = static_cast<char*>(zensMalloc_64s(int(total / 8 + 1)));
    if (!block) return zenStsMemAllocErr;

    // The root is written as any node is: its pair is the first, right after the head.
    PackCursors cursors{block, kTreeHeadBytes, uint32_t(nodeBytes)};
    store(cursors, 8, 0);
    store(cursors, 12, 0);
    localTreePacking(tables, &root, 0, cursors);
    *pTree = reinterpret_cast<ZenrKDTreeNode*>(block);
    *pSize = int(total);
    return zenStsNoErr;
}

// ---- Build
// -----------------------------------------------------------------------------------------------------------

namespace {

bool finite(float x) {
    return x - x == 0;
}

// Box of all vertices, used or not. Coordinates that are NaN or infinite are passed over: one stray vertex would
// otherwise leave the whole mesh without a tree. Without a finite coordinate on an axis, its bounds are 0.
void boxOfVertices(const float* vertices, uint32_t count, float* box) {
    bool seen[3] = {};
    float found[6] = {};
    for (uint32_t i = 0; i < count; ++i)
        for (int a = 0; a < 3; ++a) {
            const float x = vertices[size_t(i) * 3 + a];
            if (!finite(x)) continue;
            if (!seen[a] || x < found[a]) found[a] = x;
            if (!seen[a] || x > found[a + 3]) found[a + 3] = x;
            seen[a] = true;
        }
    zensCopy_32f(found, box, 6);
}

// The root's references. A triangle with a coordinate that is NaN or infinite is left out of the tree: it has no plane
// that a ray could hit, and no place. Returns how many there are.
uint32_t firstReferences(const Geometry& geometry, uint32_t triangleCount, TriRef* refs) {
    uint32_t n = 0;
    for (uint32_t t = 0; t < triangleCount; ++t) {
        TriRef ref{t << 5 | 3, 0, kWholeTriangle};
        if (geometry.vertexCount > 0) {
            const uint32_t* const corners = pointArray(geometry, ref);
            bool usable = true;
            for (int k = 0; k < 3; ++k) {
                const float* const p = pointAt(geometry, corners[k]);
                usable = usable && finite(p[0]) && finite(p[1]) && finite(p[2]);
            }
            if (!usable) continue;
            ref.selectors = selectBounds(geometry, corners, 3);
        }
        refs[n++] = ref;
    }
    return n;
}

// Meshes of fewer triangles do not repay a team.
constexpr int kTeamTriangles = 16384;

ZenStatus subdivide(Builder& builder, Level level, int triangleCount, float optimizationRatio, int maxDepth,
                    int threads, WorkNode*& root) {
    MemContext& context = *builder.context;
    root = reinterpret_cast<WorkNode*>(takeRecords(context.poolA, 1));
    TriRef* const refs = reinterpret_cast<TriRef*>(takeRecords(context.poolA, uint32_t(triangleCount)));
    if (!root || !refs) return zenStsNoMemErr;
    const Geometry geometry{context.vertices, reinterpret_cast<const float*>(context.poolB.start), context.triangles,
                            builder.tables.arrays, uint32_t(size_t(context.verticesEnd - context.vertices) / 3)};
    const uint32_t n = firstReferences(geometry, uint32_t(triangleCount), refs);
    context.poolA.cursor = reinterpret_cast<char*>(refs + n);
    *root = WorkNode{kWorkLeaf, n, 0};
    return ownOptimizationPSAH(builder, *root, level, optimizationRatio, maxDepth, threads);
}

ZenStatus build(Builder& builder, Level level, int vertexCount, int triangleCount, ZenrKDTreeNode** pTree, int* pSize,
                float optimizationRatio, int maxDepth, const float* boundBox) {
    MemContext& context = *builder.context;
    if (!contextComplete(context, triangleCount)) return zenStsMemAllocErr;
    // A triangle's number shares its word with the number of points; pool A could not hold as many anyway.
    if (triangleCount >= 1 << 27) return zenStsNoMemErr;
    for (int k = 0; k < 6; ++k) builder.box[k] = 0;
    if (boundBox)
        zensCopy_32f(boundBox, builder.box, 6);
    else if (vertexCount > 0)
        boxOfVertices(context.vertices, uint32_t(vertexCount), builder.box);

    // Without vertices nothing may be read, whatever box was given: the root stays a leaf of all triangles.
    const int depth = vertexCount > 0 ? maxDepth : 0;
    const int allowed = triangleCount >= kTeamTriangles && !omp_in_parallel() ? ownGetNumThreads() : 1;
    WorkNode* root = nullptr;
    ZenStatus status = subdivide(builder, level, triangleCount, optimizationRatio, depth, allowed, root);
    if (status == zenStsNoMemErr && allowed > 1) {
        // Threads need more memory than one: what that decides is whether the budget is enough.
        startOver(context, builder.tables);
        status = subdivide(builder, level, triangleCount, optimizationRatio, depth, 1, root);
    }
    if (status != zenStsNoErr) return status;
    return ownCompactTreeRepresentation(builder.tables, *root, pTree, pSize);
}

} // namespace

ZenStatus ownKDTBldPSAH_ML(const float* vertices, const int* triangles, int vertexCount, int triangleCount,
                           ZenrKDTreeNode** pTree, int* pSize, float optimizationRatio, int maxDepth, uint32_t budget,
                           const float* boundBox) {
    // On i386 leaving a wide level costs too much to do it for each node.
    const Level level = sizeof(void*) == 8 ? bestLevel() : Level::sse2;
    Builder builder;
    const ZenStatus created =
        ownMemCreateContext(&builder.context, budget, vertices, triangles, vertexCount, triangleCount);
    if (created != zenStsNoErr) return created;
    builder.tables.nodeCount = builder.tables.listCount = builder.tables.arrayCount = 0;
    const ZenStatus status =
        build(builder, level, vertexCount, triangleCount, pTree, pSize, optimizationRatio, maxDepth, boundBox);
    releaseContext(builder.context);
    return status;
}

} // namespace zenr
