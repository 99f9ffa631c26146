// The subdivision of the surface-area-heuristic builder: the loop that asks for a node's plane and distributes its
// references, and the threads that share a tree's subtrees.
#include <omp.h>
#include <string.h>

#include "frame/parallel.h"
#include "frame/prmem.h"
#include "kdtree/kdtree.h"
#include "kdtree/pr_avlopsahbld.h"
#include "kdtree/pr_avlopsahphase.h"
#include "kdtree/pr_avlopsahsrch.h"

namespace zenr {

double nodeCost(const float* box, int count) {
    const long double ex = (long double)(box[3]) - box[0];
    const long double ey = (long double)(box[4]) - box[1];
    const long double ez = (long double)(box[5]) - box[2];
    return double(count * (ex * (ey + ez) + ey * ez));
}

long double costFactor(float optimizationRatio) {
    return (10.0L - 9.0L * optimizationRatio) * (long double)(0.5057569742202759);
}

Workspace wholeWorkspace(Builder& builder, int triangleCount) {
    MemContext& context = *builder.context;
    Workspace space{&context.poolA,
                    &context.poolB,
                    context.freeArrays,
                    {},
                    triangleCount,
                    {&context.nodeBlocks, &context.listBlocks, &context.arrayBlocks},
                    {}};
    for (int i = 0; i < kScratchArrays; ++i) space.scratch[i] = context.scratch[i];
    return space;
}

bool nextBlock(Builder& builder, Workspace& space, BlockKind kind) {
    MemContext& context = *builder.context;
    BlockTables& tables = builder.tables;
    BlockHeader* const chains[kBlockKinds] = {&context.nodeBlocks, &context.listBlocks, &context.arrayBlocks};
    BlockHeader* const block = takeBlock(context, *chains[kind]);
    if (!block) return false;
    const auto taken = [](uint32_t& count) { return __atomic_fetch_add(&count, 1u, __ATOMIC_RELAXED); };
    uint32_t* const words = reinterpret_cast<uint32_t*>(block->start);
    uint32_t& number = space.blockNumbers[kind];
    if (kind == kNodeBlocks)
        tables.nodes[number = taken(tables.nodeCount)] = block->start;
    else if (kind == kListBlocks)
        tables.lists[number = taken(tables.listCount)] = words;
    else
        tables.arrays[number = taken(tables.arrayCount)] = words;
    space.blocks[kind] = block;
    return true;
}

namespace {

// Link of the root, which lies in pool A; children lie in node blocks.
constexpr uint32_t kRootLink = 0xFFFFFFFFu;

// A node that waits. Its references end at the pool A cursor of the item.
struct Item {
    uint32_t node;
    float box[6];
    int32_t depth;
    uint32_t cursorA;
    uint32_t cursorB;
};
static_assert(sizeof(Item) == 40, "ten words");

// Subtrees that are left to a team: their references lie at the far end of pool A.
constexpr int kMaxTasks = 256;
struct Tasks {
    Item items[kMaxTasks];
    int count = 0;
    uint32_t limit; // nodes of so many references are left
};

bool takePair(Builder& builder, Workspace& space, uint32_t& link) {
    BlockHeader* block = space.blocks[kNodeBlocks];
    constexpr uint32_t bytes = 2 * sizeof(WorkNode);
    if (size_t(block->end - block->cursor) < bytes) {
        if (!nextBlock(builder, space, kNodeBlocks)) return false;
        block = space.blocks[kNodeBlocks];
    }
    link = space.blockNumbers[kNodeBlocks] << kBlockWordsLog2 | uint32_t(block->cursor - block->start) / 4;
    block->cursor += bytes;
    return true;
}

// Writes a leaf's list. A list that a whole block could not hold runs on through as many blocks as it needs; a thread
// of a team has no such lists.
bool writeList(Builder& builder, Workspace& space, const TriRef* refs, uint32_t n, uint32_t& link) {
    if (n == 0) return true;
    const InPhase phase(Phase::leaves);
    BlockHeader* block = space.blocks[kListBlocks];
    uint32_t free = uint32_t(block->end - block->cursor) / 4;
    if (free < n && (free == 0 || n <= kBlockWords)) {
        if (!nextBlock(builder, space, kListBlocks)) return false;
        block = space.blocks[kListBlocks];
        free = kBlockWords;
    }
    link = space.blockNumbers[kListBlocks] << kBlockWordsLog2 | (kBlockWords - free);
    for (uint32_t i = 0; i < n;) {
        if (free == 0) {
            if (!nextBlock(builder, space, kListBlocks)) return false;
            block = space.blocks[kListBlocks];
            free = kBlockWords;
        }
        const uint32_t stop = n - i < free ? n : i + free;
        uint32_t* const words = reinterpret_cast<uint32_t*>(block->cursor) - i;
        free -= stop - i;
        block->cursor += size_t(stop - i) * 4;
        for (; i < stop; ++i) words[i] = refs[i].id >> 5;
    }
    for (uint32_t i = 0; i < n; ++i) returnArray(builder, space, refs[i]);
    return true;
}

// Within a node's box: with a scene box given by the caller that does not hold the whole mesh, what lies outside
// belongs to the cells at the boundary. Adding 0 turns -0 into +0, so that equal coordinates have equal bits whichever
// sort they go through.
inline float within(float x, float min, float max) {
    return (x < min ? min : x > max ? max : x) + 0.0f;
}

// A few words that were written one by one a moment ago are best moved one by one: a wide load would wait until all of
// them have reached the cache.
constexpr uint32_t kFewToMove = 12;

inline void moveDown(TriRef* to, const TriRef* from, uint32_t n) {
    if (n > kFewToMove) {
        memmove(to, from, n * sizeof(TriRef));
    } else {
        for (uint32_t i = 0; i < n; ++i) {
            to[i].id = from[i].id;
            to[i].selectors = from[i].selectors;
            to[i].points = from[i].points;
        }
    }
}

class Subdivision {
public:
    // `tasks`: where to leave subtrees, or null.
    Subdivision(Builder& builder, Workspace& space, WorkNode& root, Level level, float optimizationRatio, int maxDepth,
                Tasks* tasks)
        : builder_(builder), space_(space), root_(root), maxDepth_(maxDepth),
          tasks_(tasks), geometry_{builder.context->vertices,
                                   reinterpret_cast<const float*>(builder.context->poolB.start),
                                   builder.context->triangles, builder.tables.arrays,
                                   uint32_t(size_t(builder.context->verticesEnd - builder.context->vertices) / 3)},
          kernels_(sahKernels(level)), factor_(costFactor(optimizationRatio)) {}

    // Subdivides an item whose references end at pool A's cursor.
    ZenStatus run(Item item) {
        Extents extents{0, false};
        for (;;) {
            WorkNode& node = nodeOf(item.node);
            const uint32_t n = node.value;
            TriRef* const refs = reinterpret_cast<TriRef*>(space_.poolA->cursor) - n;
            if (tasks_ && leave(item, refs, n)) {
                space_.poolA->cursor = reinterpret_cast<char*>(refs);
            } else {
                SplitRecord split{0, 0, -1, 0, 0, 1};
                if (item.depth < maxDepth_ && n > 0) {
                    if (!extents.held) gatherExtents(item, refs, n, extents);
                    search(item, int(n), extents, split);
                }
                if (split.axis >= 0) {
                    const ZenStatus status = splitNode(item, node, refs, split, extents);
                    if (status != zenStsNoErr) return status;
                    continue;
                }
                if (!writeList(builder_, space_, refs, n, node.link)) return zenStsNoMemErr;
            }
            if (pending_ == 0) return zenStsNoErr;
            item = stack_[--pending_];
            extents = waiting_[pending_];
            space_.poolA->cursor = builder_.context->poolA.start + item.cursorA;
            // Points of subtrees that are left to others stay.
            if (!tasks_) space_.poolB->cursor = builder_.context->poolB.start + item.cursorB;
        }
    }

private:
    // Where in the scratch arrays the extents of a node's references lie, or may be put.
    struct Extents {
        uint32_t at;
        bool held;
    };

    WorkNode& nodeOf(uint32_t link) { return link == kRootLink ? root_ : *nodeAt(builder_.tables, link); }
    float* lo(int axis, uint32_t at) { return reinterpret_cast<float*>(space_.scratch[axis]) + at; }
    float* hi(int axis, uint32_t at) { return reinterpret_cast<float*>(space_.scratch[3 + axis]) + at; }

    // Leaves a subtree to the team. Its references move to the far end of pool A, out of the way.
    bool leave(const Item& item, const TriRef* refs, uint32_t n) {
        Pool& pool = *space_.poolA;
        if (n > tasks_->limit || n == 0 || tasks_->count == kMaxTasks) return false;
        const size_t bytes = n * sizeof(TriRef);
        if (size_t(pool.end - pool.cursor) <= bytes) return false;
        pool.end -= bytes;
        memcpy(pool.end, refs, bytes);
        Item& task = tasks_->items[tasks_->count++];
        task = item;
        task.cursorA = uint32_t(pool.end - builder_.context->poolA.start);
        return true;
    }

    void gatherExtents(const Item& item, const TriRef* refs, uint32_t n, Extents& extents) {
        const InPhase phase(Phase::extents);
        for (uint32_t i = 0; i < n; ++i) {
            const TriRef ref = refs[i];
            const uint32_t* const points = pointArray(geometry_, ref);
            for (int a = 0; a < 3; ++a) {
                const float least = pointAt(geometry_, points[ref.selectors >> (15 + 5 * a) & 31])[a];
                const float greatest = pointAt(geometry_, points[ref.selectors >> (5 * a) & 31])[a];
                lo(a, extents.at)[i] = within(least, item.box[a], item.box[a + 3]);
                hi(a, extents.at)[i] = within(greatest, item.box[a], item.box[a + 3]);
            }
        }
        extents.held = true;
    }

    void search(const Item& item, int n, const Extents& extents, SplitRecord& split) {
        const InPhase phase(Phase::search);
        const uint32_t at = extents.at;
        const SearchInput input{{lo(0, at), lo(1, at), lo(2, at)},
                                {hi(0, at), hi(1, at), hi(2, at)},
                                n,
                                item.box,
                                space_.scratch + 6,
                                space_.capacity,
                                factor_};
        split.cost = nodeCost(item.box, n);
        if (n <= kSingleThreadCount)
            kernels_.searchAlone(input, split);
        else
            kernels_.searchTogether(input, split);
    }

    // Turns the item's node into an interior one, and the item into the child to go on with.
    ZenStatus splitNode(Item& item, WorkNode& node, TriRef* refs, const SplitRecord& split, Extents& extents) {
        uint32_t pair;
        if (!takePair(builder_, space_, pair)) return zenStsNoMemErr;
        WorkNode* const children = nodeAt(builder_.tables, pair);
        children[0] = children[1] = node;
        node.kind = uint32_t(split.axis);
        memcpy(&node.value, &split.position, 4);
        node.link = pair;
        ++item.depth;
        // An empty side leaves references and extents as they are.
        if (split.left == 0) {
            children[0] = WorkNode{kWorkLeaf, 0, 0};
            item.node = pair + 3;
            item.box[split.axis] = split.position;
            return zenStsNoErr;
        }
        if (split.right == 0) {
            children[1] = WorkNode{kWorkLeaf, 0, 0};
            item.node = pair;
            item.box[split.axis + 3] = split.position;
            return zenStsNoErr;
        }
        Item& lower = stack_[pending_];
        lower = item;
        lower.node = pair;
        lower.box[split.axis + 3] = split.position;
        item.node = pair + 3;
        item.box[split.axis] = split.position;
        uint32_t counts[2] = {};
        const ZenStatus status = distribute(lower, item, refs, children[0].value, split, extents, counts);
        if (status != zenStsNoErr) return status;
        children[0].value = counts[0];
        children[1].value = counts[1];
        lower.cursorA = uint32_t(reinterpret_cast<char*>(refs + counts[0]) - builder_.context->poolA.start);
        lower.cursorB = uint32_t(space_.poolB->cursor - builder_.context->poolB.start);
        ++pending_;
        return zenStsNoErr;
    }

    void storeExtents(const CutPart& part, const float* box, float* const lows[3], float* const highs[3], uint32_t i) {
        for (int a = 0; a < 3; ++a) {
            lows[a][i] = within(part.lo[a], box[a], box[a + 3]);
            highs[a][i] = within(part.hi[a], box[a], box[a + 3]);
        }
    }

    // Distributes n references, the last ones in pool A, with their extents. The node's own list is of no more use, so
    // the lower side's is written over it (there are never more of them than were read) and the upper side's, collected
    // above, is moved down to follow it: the pool holds nothing but what still waits. Extents go the same way, except
    // that the lower side's are given up, to be gathered again later, where there is no room for both.
    ZenStatus distribute(const Item& lowerItem, const Item& upperItem, TriRef* refs, uint32_t n,
                         const SplitRecord& split, Extents& extents, uint32_t counts[2]) {
        const InPhase phase(Phase::distribution);
        Pool& pool = *space_.poolA;
        const int axis = split.axis;
        const float plane = split.position;
        char* const mark = pool.cursor;
        // Both sides' reservations must fit. They are exactly what is needed: the search counts by the same
        // comparisons. The upper side is nevertheless checked as it is written.
        if (!takeRecords(pool, uint32_t(split.left)) || !takeRecords(pool, uint32_t(split.right)))
            return zenStsNoMemErr;
        pool.cursor = mark;
        TriRef* const upperRefs = reinterpret_cast<TriRef*>(mark);
        const size_t room = size_t(pool.end - mark) / sizeof(TriRef);
        float* lows[3];
        float* highs[3];
        float* upperLows[3];
        float* upperHighs[3];
        for (int a = 0; a < 3; ++a) {
            lows[a] = lo(a, extents.at);
            highs[a] = hi(a, extents.at);
            upperLows[a] = reinterpret_cast<float*>(space_.scratch[6 + 2 * a]);
            upperHighs[a] = reinterpret_cast<float*>(space_.scratch[7 + 2 * a]);
        }
        const float* const from = lows[axis];
        const float* const to = highs[axis];
        uint32_t l = 0;
        uint32_t u = 0;
        for (uint32_t i = 0; i < n; ++i) {
            bool below = to[i] <= plane;
            bool above = from[i] >= plane;
            if (u >= room) return zenStsNoMemErr;
            const TriRef ref = refs[i];
            if (!below && !above) {
                CutPart parts[2];
                const ZenStatus status =
                    cutReference(builder_, space_, geometry_, ref, axis, plane, parts[0], parts[1]);
                if (status != zenStsNoErr) return status;
                refs[l] = parts[0].ref;
                storeExtents(parts[0], lowerItem.box, lows, highs, l++);
                upperRefs[u] = parts[1].ref;
                storeExtents(parts[1], upperItem.box, upperLows, upperHighs, u++);
                continue;
            }
            const bool inPlane = below && above;
            below = inPlane ? split.flag == 0 : below;
            // Written to both sides and counted on one: which it is is hard to foretell.
            refs[l] = ref;
            upperRefs[u] = ref;
            for (int a = 0; a < 3; ++a) {
                const float least = lows[a][i];
                const float greatest = highs[a][i];
                lows[a][l] = least;
                highs[a][l] = greatest;
                upperLows[a][u] = least;
                upperHighs[a][u] = greatest;
            }
            l += below;
            u += !below;
        }
        counts[0] = l;
        counts[1] = u;
        moveDown(refs + l, upperRefs, u);
        pool.cursor = reinterpret_cast<char*>(refs + l + u);
        waiting_[pending_] = Extents{extents.at, extents.at + l + u <= uint32_t(space_.capacity)};
        if (waiting_[pending_].held) extents.at += l;
        if (u > kFewToMove) {
            for (int a = 0; a < 3; ++a) {
                memcpy(lo(a, extents.at), upperLows[a], u * sizeof(float));
                memcpy(hi(a, extents.at), upperHighs[a], u * sizeof(float));
            }
        } else {
            for (int a = 0; a < 3; ++a) {
                lows[a] = lo(a, extents.at);
                highs[a] = hi(a, extents.at);
            }
            for (uint32_t i = 0; i < u; ++i)
                for (int a = 0; a < 3; ++a) {
                    lows[a][i] = upperLows[a][i];
                    highs[a][i] = upperHighs[a][i];
                }
        }
        return zenStsNoErr;
    }

    Builder& builder_;
    Workspace& space_;
    WorkNode& root_;
    const int maxDepth_;
    Tasks* const tasks_;
    const Geometry geometry_;
    const SahKernels& kernels_;
    const long double factor_;
    Item stack_[kMaxTreeDepth];
    Extents waiting_[kMaxTreeDepth];
    int pending_ = 0;
};

Item rootItem(const Builder& builder) {
    Item item{kRootLink, {}, 0, 0, 0};
    memcpy(item.box, builder.box, sizeof item.box);
    return item;
}

// Part t of `team` equal parts of what a pool has left, a whole number of 12-byte records.
Pool partOf(const Pool& pool, int t, int team) {
    const size_t bytes = size_t(pool.end - pool.cursor) / 12 / size_t(team) * 12;
    char* const start = pool.cursor + size_t(t) * bytes;
    return Pool{start, start + bytes, start};
}

// A tree that several threads build: the calling thread subdivides down to subtrees that are small beside the whole,
// and the team takes those one by one, the largest first. Which thread builds a subtree, and where its records lie,
// leaves no trace in the packed tree.
class TeamBuild {
public:
    TeamBuild(Builder& builder, WorkNode& root, Level level, float optimizationRatio, int maxDepth, int triangleCount)
        : builder_(builder), root_(root), level_(level), optimizationRatio_(optimizationRatio), maxDepth_(maxDepth),
          triangleCount_(triangleCount) {}

    ZenStatus run(int threads) {
        Pool& pool = builder_.context->poolA;
        char* const end = pool.end;
        // Small enough for an even split among the threads, and for a thread's share of the scratch arrays.
        tasks_.limit = root_.value / uint32_t(8 * threads);
        Workspace space = wholeWorkspace(builder_, triangleCount_);
        ZenStatus status =
            Subdivision(builder_, space, root_, level_, optimizationRatio_, maxDepth_, &tasks_).run(rootItem(builder_));
        if (status == zenStsNoErr) status = buildTasks(space, threads);
        pool.end = end;
        return status;
    }

private:
    uint32_t sizeOf(const Item& item) { return nodeAt(builder_.tables, item.node)->value; }

    void sortTasks() {
        for (int i = 1; i < tasks_.count; ++i) {
            const Item item = tasks_.items[i];
            int at = i;
            for (; at > 0 && sizeOf(tasks_.items[at - 1]) < sizeOf(item); --at) tasks_.items[at] = tasks_.items[at - 1];
            tasks_.items[at] = item;
        }
    }

    ZenStatus buildTasks(const Workspace& whole, int threads) {
        sortTasks();
        int next = 0;
        int failed = 0;
        const MemContext& context = *builder_.context;
        parallelTeam(tasks_.count, threads, [&](Range, int t, int team) {
            Pool poolA = partOf(context.poolA, t, team);
            Pool poolB = partOf(context.poolB, t, team);
            char* const startB = poolB.start;
            uint32_t freeArrays[kSizeClasses] = {};
            Workspace space{&poolA, &poolB, freeArrays, {}, whole.capacity / team, {}, {}};
            for (int i = 0; i < kScratchArrays; ++i) space.scratch[i] = whole.scratch[i] + size_t(t) * space.capacity;
            // The calling thread goes on with its own blocks.
            BlockHeader none{};
            for (int i = 0; i < kBlockKinds; ++i) {
                space.blocks[i] = t == 0 ? whole.blocks[i] : &none;
                space.blockNumbers[i] = whole.blockNumbers[i];
            }
            Subdivision subdivision(builder_, space, root_, level_, optimizationRatio_, maxDepth_, nullptr);
            for (;;) {
                int task;
                int stop;
#pragma omp atomic capture
                task = next++;
#pragma omp atomic read
                stop = failed;
                if (task >= tasks_.count || stop) break;
                const Item& item = tasks_.items[task];
                poolA.cursor = poolA.start;
                poolB.cursor = startB;
                const uint32_t n = sizeOf(item);
                char* const refs = takeRecords(poolA, n);
                ZenStatus status = zenStsNoMemErr;
                if (refs && n <= uint32_t(space.capacity) && n <= kBlockWords) {
                    memcpy(refs, context.poolA.start + item.cursorA, n * sizeof(TriRef));
                    status = subdivision.run(item);
                }
                if (status != zenStsNoErr) {
#pragma omp atomic write
                    failed = 1;
                }
            }
        });
        return failed ? zenStsNoMemErr : zenStsNoErr;
    }

    Builder& builder_;
    WorkNode& root_;
    const Level level_;
    const float optimizationRatio_;
    const int maxDepth_;
    const int triangleCount_;
    Tasks tasks_;
};

} // namespace

ZenStatus ownOptimizationPSAH(Builder& builder, WorkNode& root, Level level, float optimizationRatio, int maxDepth,
                              int threads) {
    const MemContext& context = *builder.context;
    const int triangleCount = int(size_t(context.trianglesEnd - context.triangles) / 4);
    if (threads > 1) return TeamBuild(builder, root, level, optimizationRatio, maxDepth, triangleCount).run(threads);
    Workspace space = wholeWorkspace(builder, triangleCount);
    return Subdivision(builder, space, root, level, optimizationRatio, maxDepth, nullptr).run(rootItem(builder));
}

} // namespace zenr
