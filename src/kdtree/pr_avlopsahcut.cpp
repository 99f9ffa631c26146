// References as polygons: their bounds, and how a plane cuts them in two.
#include <string.h>

#include "kdtree/pr_avlopsahbld.h"
#include "kdtree/pr_avlopsahphase.h"

namespace zenr {

namespace {

// Bounds of a polygon while its points are added, and which point was the first to reach each. x, y, z, nothing.
typedef float Place __attribute__((vector_size(16)));
typedef int32_t Which __attribute__((vector_size(16)));

struct Bounds {
    Place lo;
    Place hi;
    Which least;
    Which greatest;

    static Place at(const float* p) { return Place{p[0], p[1], p[2], 0}; }
    void start(Place p) {
        lo = hi = p;
        least = greatest = Which{};
    }
    void add(Place p, int32_t index) {
        const Which i = Which{} + index;
        const Which below = p < lo;
        const Which above = p > hi;
        lo = below ? p : lo;
        hi = above ? p : hi;
        least = below ? i : least;
        greatest = above ? i : greatest;
    }
    uint32_t selectors() const {
        uint32_t packed = 0;
        for (int axis = 0; axis < 3; ++axis)
            packed |= uint32_t(greatest[axis]) << (5 * axis) | uint32_t(least[axis]) << (15 + 5 * axis);
        return packed;
    }
};

// Point arrays come in ten sizes and are reused by size: nearly all polygons have 3 to 9 points.
constexpr uint32_t kClassPoints[kSizeClasses] = {4, 5, 6, 7, 8, 10, 12, 16, 24, 32};

int sizeClass(uint32_t points) {
    if (points <= 8) return points <= 4 ? 0 : int(points) - 4;
    int c = 5;
    while (kClassPoints[c] < points) ++c;
    return c;
}

uint32_t* arrayAt(const BlockTables& tables, uint32_t link) {
    return tables.arrays[link >> kBlockWordsLog2] + (link & (kBlockWords - 1));
}

bool takeArray(Builder& builder, Workspace& space, uint32_t points, uint32_t& link) {
    const int c = sizeClass(points);
    if (space.freeArrays[c]) {
        link = space.freeArrays[c] - 1;
        space.freeArrays[c] = *arrayAt(builder.tables, link);
        return true;
    }
    const uint32_t bytes = kClassPoints[c] * 4;
    BlockHeader* block = space.blocks[kArrayBlocks];
    if (size_t(block->end - block->cursor) < bytes) {
        if (!nextBlock(builder, space, kArrayBlocks)) return false;
        block = space.blocks[kArrayBlocks];
    }
    link = space.blockNumbers[kArrayBlocks] << kBlockWordsLog2 | uint32_t(block->cursor - block->start) / 4;
    block->cursor += bytes;
    return true;
}

float clampBetween(float x, float a, float b) {
    const float lo = a < b ? a : b;
    const float hi = a < b ? b : a;
    return x < lo ? lo : x > hi ? hi : x;
}

// Where the edge between two points crosses the plane. Always computed from the end below the plane, and from the two
// ends alone, so that the two triangles of an edge get the same point bit for bit; kept within the edge's box, so that
// a polygon never grows; and exactly in the plane.
void crossing(const float* below, const float* above, int axis, float split, float* point) {
    const double t = (double(split) - below[axis]) / (double(above[axis]) - below[axis]);
    for (int a = 0; a < 3; ++a)
        point[a] = clampBetween(float(below[a] + t * (double(above[a]) - below[a])), below[a], above[a]);
    point[axis] = split;
}

// One side of a cut polygon while it is walked. A convex polygon gains at most one point a cut; rounding can leave it
// slightly concave, and then it can cross the plane more often, at worst once an edge.
struct Side {
    uint32_t points[2 * kMaxPolygonPoints + 2];
    uint32_t count = 0;
    Bounds bounds;
    void add(uint32_t point, Place place) {
        if (count == 0)
            bounds.start(place);
        else
            bounds.add(place, int32_t(count));
        points[count++] = point;
    }
};

// Number of a new point in pool B.
uint32_t pointNumber(const Geometry& geometry, const char* point) {
    return geometry.vertexCount + uint32_t((point - reinterpret_cast<const char*>(geometry.cutPoints)) / 12);
}

// Rule for a side that has more points than a reference can number, which only rounding could bring about: the side
// becomes the closed path through the eight corners of its box. Any cut of that path has the bounds of the cut box, so
// the triangle is at worst listed in a leaf that it does not reach, and never missing.
bool boxPath(const Geometry& geometry, Pool& pool, Side& side) {
    char* const taken = takeRecords(pool, 8);
    if (!taken) return false;
    float* const corners = reinterpret_cast<float*>(taken);
    const uint32_t first = pointNumber(geometry, taken);
    const Place lo = side.bounds.lo;
    const Place hi = side.bounds.hi;
    side.count = 0;
    for (uint32_t i = 0; i < 8; ++i) {
        const uint32_t gray = i ^ i >> 1; // neighbours on the path differ in one coordinate
        for (int a = 0; a < 3; ++a) corners[3 * i + a] = gray >> a & 1 ? hi[a] : lo[a];
        side.add(first + i, Bounds::at(corners + 3 * i));
    }
    return true;
}

} // namespace

uint32_t selectBounds(const Geometry& geometry, const uint32_t* points, uint32_t count) {
    Bounds bounds;
    bounds.start(Bounds::at(pointAt(geometry, points[0])));
    for (uint32_t i = 1; i < count; ++i) bounds.add(Bounds::at(pointAt(geometry, points[i])), int32_t(i));
    return bounds.selectors();
}

void returnArray(Builder& builder, Workspace& space, const TriRef& ref) {
    if (ref.points == kWholeTriangle) return;
    uint32_t& first = space.freeArrays[sizeClass(ref.id & 31)];
    *arrayAt(builder.tables, ref.points) = first;
    first = ref.points + 1;
}

ZenStatus cutReference(Builder& builder, Workspace& space, const Geometry& geometry, const TriRef& ref, int axis,
                       float split, CutPart& lower, CutPart& upper) {
    const InPhase phase(Phase::clipping);
    Pool& pool = *space.poolB;
    Side sides[2];
    const uint32_t count = ref.id & 31;
    uint32_t at = ref.selectors >> (15 + 5 * axis) & 31;
    const uint32_t* const points = pointArray(geometry, ref);
    const float* p = pointAt(geometry, points[at]);
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t next = at + 1 < count ? at + 1 : 0;
        const float* const q = pointAt(geometry, points[next]);
        // A point in the plane belongs to both sides, and needs no crossing.
        if (p[axis] <= split) sides[0].add(points[at], Bounds::at(p));
        if (p[axis] >= split) sides[1].add(points[at], Bounds::at(p));
        const bool rising = p[axis] < split && q[axis] > split;
        if (rising || (p[axis] > split && q[axis] < split)) {
            char* const taken = takeRecords(pool, 1);
            if (!taken) return zenStsNoMemErr;
            float* const made = reinterpret_cast<float*>(taken);
            crossing(rising ? p : q, rising ? q : p, axis, split, made);
            const uint32_t point = pointNumber(geometry, taken);
            const Place place = Bounds::at(made);
            sides[0].add(point, place);
            sides[1].add(point, place);
        }
        at = next;
        p = q;
    }
    returnArray(builder, space, ref);
    CutPart* const parts[2] = {&lower, &upper};
    for (int s = 0; s < 2; ++s) {
        Side& side = sides[s];
        if (side.count > kMaxPolygonPoints && !boxPath(geometry, pool, side)) return zenStsNoMemErr;
        CutPart& part = *parts[s];
        part.ref.id = (ref.id & ~31u) | side.count;
        part.ref.selectors = side.bounds.selectors();
        if (!takeArray(builder, space, side.count, part.ref.points)) return zenStsNoMemErr;
        uint32_t* const array = arrayAt(builder.tables, part.ref.points);
        for (uint32_t i = 0; i < side.count; ++i) array[i] = side.points[i];
        for (int a = 0; a < 3; ++a) {
            part.lo[a] = side.bounds.lo[a];
            part.hi[a] = side.bounds.hi[a];
        }
    }
    return zenStsNoErr;
}

} // namespace zenr
