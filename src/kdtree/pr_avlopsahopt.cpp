// The subdivision of the surface-area-heuristic builder: where to split a node, how its references are distributed and
// cut, and the loop that drives both.
#include "kdtree/pr_avlopsahbld.h"

#include <float.h>
#include <omp.h>
#include <string.h>

#include "frame/prmem.h"
#include "frame/prprim.h"
#include "kdtree/kdtree.h"
#include "kdtree/pr_avlorsort.h"

namespace zenr {

namespace {

constexpr int kSingleThreadCount = 75; // nodes up to this size are searched by the calling thread
constexpr uint32_t kRadixCount = 320;  // up to so many events the comparison sort is quicker
constexpr float kFlat = 1e-5f;         // an extent up to this is none
constexpr double kSmallestThreshold = 1e-5;
constexpr double kSmallestSection = 1e-9;
constexpr float kEmptyShare = 0.1f;  // an empty slab of more than this share of the extent is cut off
constexpr double kEmptyBonus = 0.7f; // and its price reduced to this
// A region that forks costs microseconds, and much more where the processors are busy; smaller nodes run the same
// sections in the calling thread.
constexpr int kForkCount = 16384;

constexpr int kNextAxis[5] = {1, 2, 0, 1, 2};

struct Interval {
    float lo;
    float hi;
};

// Extent of a reference on an axis, clamped to the node's box: with a scene box given by the caller that does not hold
// the whole mesh, what lies outside belongs to the cells at the boundary. Adding 0 turns -0 into +0, so that equal
// coordinates have equal bits whichever sort they go through.
inline Interval extentOf(const Geometry& geometry, const TriRef& ref, int axis, float min, float max) {
    const uint32_t* const points = pointArray(geometry, ref);
    float lo = pointAt(geometry, points[ref.selectors >> (15 + 5 * axis) & 31])[axis];
    float hi = pointAt(geometry, points[ref.selectors >> (5 * axis) & 31])[axis];
    lo = lo < min ? min : lo > max ? max : lo;
    hi = hi < min ? min : hi > max ? max : hi;
    return {lo + 0.0f, hi + 0.0f};
}

struct Events {
    float* starts;
    float* ends;
    float* planar;
    int cut;     // number of starts, and of ends
    int inPlane; // number of planar events
    float first; // least and greatest event of any kind
    float last;
};

void sortEvents(float* events, int count, uint32_t* scratch) {
    if (count < 1) return;
    if (uint32_t(count) > kRadixCount)
        ownRadixSortAccend_32f_px(events, scratch, uint32_t(count));
    else
        zensSortAscend_32f_I(events, count);
}

Events collectEvents(const SearchInput& input, int axis) {
    uint32_t* const* const scratch = input.scratch + 4 * axis;
    Events events{reinterpret_cast<float*>(scratch[0]),
                  reinterpret_cast<float*>(scratch[1]),
                  reinterpret_cast<float*>(scratch[2]),
                  0,
                  0,
                  FLT_MAX,
                  -FLT_MAX};
    const float min = input.box[axis];
    const float max = input.box[axis + 3];
    for (int i = 0; i < input.count; ++i) {
        const Interval extent = extentOf(input.geometry, input.refs[i], axis, min, max);
        events.first = extent.lo < events.first ? extent.lo : events.first;
        events.last = extent.hi > events.last ? extent.hi : events.last;
        // Both places are written and one is kept: which kind comes next is hard to foretell.
        const bool planar = extent.lo == extent.hi;
        events.planar[events.inPlane] = extent.lo;
        events.starts[events.cut] = extent.lo;
        events.ends[events.cut] = extent.hi;
        events.inPlane += planar;
        events.cut += !planar;
    }
    return events;
}

// The terms of a price: count on the lower side * (x - min + R) + count on the upper side * (max - x + R).
struct Pricing {
    double min;
    double max;
    double rest; // R
    double price(double left, double right, double x) const {
        return left * (x - min + rest) + right * (max - x + rest);
    }
};

struct Candidate {
    double price;
    float position;
    int left;
    int right;
    uint32_t flag;
};

// Number of sorted values below x, or up to x.
int countBelow(const float* sorted, int n, float x, bool orEqual) {
    int lo = 0;
    for (int hi = n; lo < hi;) {
        const int mid = lo + (hi - lo) / 2;
        if (sorted[mid] < x || (orEqual && sorted[mid] == x))
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo;
}

// Sweep without planar events over a stretch of the sorted lists: `starts` and `ends` hold the events of the stretch,
// `left` triangles start below it and `right` do not end below it. At a coordinate where triangles end and others
// start, the ends come first: a triangle that ends in the plane does not reach the upper side, one that starts there
// not the lower. Every event is priced as it comes; among events at one coordinate the last end has the true counts,
// and no other one is cheaper, so the counts are taken from the sorted lists once the position is known.
void localLeftRightSearch_NS(const float* starts, int startCount, const float* ends, int endCount, int left, int right,
                             const Pricing& pricing, Candidate& best) {
    const float* start = starts;
    const float* const lastStart = starts + startCount;
    const float* end = ends;
    const float* const lastEnd = ends + endCount;
    double below = left;
    double above = right;
    bool found = false;
    while (start < lastStart && end < lastEnd) {
        const bool isEnd = *end <= *start;
        const float x = isEnd ? *end : *start;
        above -= isEnd ? 1.0 : 0.0;
        const double price = pricing.price(below, above, x);
        if (price < best.price) {
            best.price = price;
            best.position = x;
            found = true;
        }
        below += isEnd ? 0.0 : 1.0;
        end += isEnd;
        start += !isEnd;
    }
    for (; end < lastEnd; ++end) {
        above -= 1.0;
        const double price = pricing.price(below, above, *end);
        if (price < best.price) {
            best.price = price;
            best.position = *end;
            found = true;
        }
    }
    for (; start < lastStart; ++start) {
        const double price = pricing.price(below, above, *start);
        if (price < best.price) {
            best.price = price;
            best.position = *start;
            found = true;
        }
        below += 1.0;
    }
    if (found) {
        best.left = left + countBelow(starts, startCount, best.position, false);
        best.right = right - countBelow(ends, endCount, best.position, true);
        best.flag = 1;
        best.price = pricing.price(best.left, best.right, best.position);
    }
}

constexpr int kMaxBins = 256;
constexpr int kFewForBins = 24; // fewer events are sorted as a whole

// Finds what a sweep over all events finds, with hardly any of them sorted: events are counted in bins of equal width;
// the counts bound the prices in each bin from both sides; and only bins that can hold the cheapest plane are sorted
// and swept. Prices that are all above `limit` are of no interest: then the result's price stays the largest double.
Candidate sweepBins(Events& events, const Pricing& pricing, double limit, uint32_t* scratch) {
    Candidate best{DBL_MAX, 0, 0, 0, 1};
    const int n = events.cut;
    const int bins = n < 100 ? 16 : n < 400 ? 32 : n < 4000 ? 64 : kMaxBins;
    const float base = float(pricing.min);
    const float scale = float(bins / (pricing.max - pricing.min));
    const auto binOf = [=](float x) { // never falls as x grows
        const int bin = int((x - base) * scale);
        return bin < bins ? bin : bins - 1;
    };
    int startsIn[kMaxBins] = {};
    int endsIn[kMaxBins] = {};
    for (int i = 0; i < n; ++i) {
        ++startsIn[binOf(events.starts[i])];
        ++endsIn[binOf(events.ends[i])];
    }
    // Rounding shifts an event across a bin's edge by a few float roundings at most, and a price by a few double ones.
    constexpr double shift = 1e-6;
    constexpr double slack = 1e-12;
    const double width = 1.0 / scale;
    double lowest[kMaxBins];
    double ceiling = limit * (1 + slack);
    int left = 0;
    int right = n;
    for (int b = 0; b < bins; ++b) {
        const int leftAfter = left + startsIn[b];
        const int rightAfter = right - endsIn[b];
        lowest[b] = DBL_MAX;
        if (startsIn[b] + endsIn[b] > 0) {
            const double lo = b * width * (1 - shift);
            const double whole = pricing.max - pricing.min;
            double hi = (b + 1) * width * (1 + shift);
            if (hi > whole || b == bins - 1) hi = whole;
            lowest[b] = (left * (lo + pricing.rest) + rightAfter * (whole - hi + pricing.rest)) * (1 - slack);
            const double highest =
                (leftAfter * (hi + pricing.rest) + right * (whole - lo + pricing.rest)) * (1 + slack);
            if (highest < ceiling) ceiling = highest;
        }
        left = leftAfter;
        right = rightAfter;
    }
    // Keep the events of the bins that remain; they stay in their arrays, which nobody reads again.
    int starts = 0;
    int ends = 0;
    bool any = false;
    for (int b = 0; b < bins; ++b) any = any || lowest[b] <= ceiling;
    if (!any) return best;
    for (int i = 0; i < n; ++i) {
        const float lo = events.starts[i];
        const float hi = events.ends[i];
        events.starts[starts] = lo;
        events.ends[ends] = hi;
        starts += lowest[binOf(lo)] <= ceiling;
        ends += lowest[binOf(hi)] <= ceiling;
    }
    sortEvents(events.starts, starts, scratch);
    sortEvents(events.ends, ends, scratch);
    const float* start = events.starts;
    const float* end = events.ends;
    left = 0;
    right = n;
    for (int b = 0; b < bins; ++b) {
        if (lowest[b] <= ceiling) {
            localLeftRightSearch_NS(start, startsIn[b], end, endsIn[b], left, right, pricing, best);
            start += startsIn[b];
            end += endsIn[b];
        }
        left += startsIn[b];
        right -= endsIn[b];
    }
    return best;
}

// Sweep with planar events: they are counted to the side where they are cheaper, the upper one when that is equal, and
// the flag tells the distribution which.
Candidate localLeftRightSearch(const Events& events, const Pricing& pricing) {
    Candidate best{DBL_MAX, 0, 0, 0, 1};
    const int n = events.cut;
    const int m = events.inPlane;
    int i = 0; // starts below x
    int j = 0; // ends up to x
    int k = 0; // planar events below x
    while (j < n || k < m) {
        float x = j < n ? events.ends[j] : events.planar[k];
        if (i < n && events.starts[i] < x) x = events.starts[i];
        if (k < m && events.planar[k] < x) x = events.planar[k];
        while (j < n && events.ends[j] == x) ++j;
        const int below = k;
        while (k < m && events.planar[k] == x) ++k;
        const int inPlane = k - below;
        const int left = i + below;
        const int right = n - j + m - k;
        const double upper = pricing.price(left, right + inPlane, x);
        if (upper < best.price) best = Candidate{upper, x, left, right + inPlane, 1};
        if (inPlane > 0) {
            const double lower = pricing.price(left + inPlane, right, x);
            if (lower < best.price) best = Candidate{lower, x, left + inPlane, right, 0};
        }
        while (i < n && events.starts[i] == x) ++i;
    }
    return best;
}

// The best plane on one axis into its record, whose cost is Q on entry and stays so when the axis is passed over. All
// arithmetic is in double on coordinates that are floats.
// `limit`: a cost that need not be found exactly when it lies above.
void searchAxis(const SearchInput& input, int axis, double limit, SplitRecord& record) {
    const float* const box = input.box;
    const double min = box[axis];
    const double max = box[axis + 3];
    const double extent = max - min;
    if (!(extent > kFlat)) return;
    const int b = kNextAxis[axis];
    const int c = kNextAxis[axis + 1];
    const double e1 = double(box[b + 3]) - box[b];
    const double e2 = double(box[c + 3]) - box[c];
    if (e1 <= kFlat && e2 <= kFlat) return;
    const float sum = float(e1 + e2);
    const double section = e1 * e2;
    const Pricing pricing{min, max, section < kSmallestSection ? 0.0 : section / sum};
    const int n = input.count;

    Events events = collectEvents(input, axis);
    uint32_t* const sortScratch = input.scratch[4 * axis + 3];
    const float first = events.first;
    const float last = events.last;

    // Empty slabs. Planar events in the candidate plane stay with the other triangles, which the flags say too.
    const double gap = double(kEmptyShare) * extent;
    Candidate best{DBL_MAX, 0, 0, 0, 1};
    bool empty = false;
    if (first - min > gap) {
        best = Candidate{(max - first + pricing.rest) * n * kEmptyBonus, first, 0, n, 1};
        empty = true;
    }
    if (max - last > gap) {
        const double price = (last - min + pricing.rest) * n * kEmptyBonus;
        if (!empty || price < best.price) best = Candidate{price, last, n, 0, 0};
        empty = true;
    }
    // Without planar events an empty slab is final; with them the sweep competes against the reduced price.
    if (events.inPlane > 0) {
        sortEvents(events.starts, events.cut, sortScratch);
        sortEvents(events.ends, events.cut, sortScratch);
        zensSortAscend_32f_I(events.planar, events.inPlane);
        const Candidate swept = localLeftRightSearch(events, pricing);
        if (swept.price < best.price) best = swept;
    } else if (!empty) {
        if (n >= kFewForBins && extent < 1e30) {
            best = sweepBins(events, pricing, limit / sum, sortScratch);
        } else {
            sortEvents(events.starts, n, sortScratch);
            sortEvents(events.ends, n, sortScratch);
            localLeftRightSearch_NS(events.starts, n, events.ends, n, 0, n, pricing, best);
        }
    }
    record.cost = best.price * sum;
    record.position = best.position;
    record.axis = axis;
    record.left = best.left;
    record.right = best.right;
    record.flag = best.flag;
}

// T for a node: F * Q, but never less than a smallest value. A NaN stays, and refuses every split.
long double thresholdOf(const SearchInput& input, double nodeCostQ) {
    const long double threshold = input.factor * nodeCostQ;
    return threshold < kSmallestThreshold ? (long double)(kSmallestThreshold) : threshold;
}

// No cost above this can lead to a split; a little more than the bound itself, to be safe from rounding.
double greatestUsefulCost(double nodeCostQ, long double threshold, int count) {
    const double bound = double(nodeCostQ - threshold / count);
    return bound + 1e-9 * nodeCostQ;
}

// Ties go to the higher axis, deliberately. With a NaN among the costs no split results.
void chooseAxis(const SplitRecord (&axes)[3], long double threshold, int count, double nodeCostQ, SplitRecord& split) {
    const double c0 = axes[0].cost;
    const double c1 = axes[1].cost;
    const double c2 = axes[2].cost;
    const int axis = c1 <= c0 ? (c2 > c1 ? 1 : 2) : (c2 <= c0 ? 2 : 0);
    const long double gain = count * ((long double)(nodeCostQ) - (long double)(axes[axis].cost));
    if (!(threshold < gain)) {
        split.axis = -1;
        return;
    }
    zensCopy_32s(reinterpret_cast<const int*>(&axes[axis]), reinterpret_cast<int*>(&split), 7);
    split.axis = axis;
}

void startRecords(SplitRecord (&axes)[3], double nodeCostQ) {
    for (SplitRecord& record : axes) record = SplitRecord{nodeCostQ, 0, -1, 0, 0, 1};
}

} // namespace

void localFindBestSplitSortSearch_ST(const SearchInput& input, SplitRecord& split) {
    const double q = split.cost;
    SplitRecord axes[3];
    startRecords(axes, q);
    const long double threshold = thresholdOf(input, q);
    double limit = greatestUsefulCost(q, threshold, input.count);
    for (int axis = 0; axis < 3; ++axis) {
        searchAxis(input, axis, limit, axes[axis]);
        if (axes[axis].cost < limit) limit = axes[axis].cost;
    }
    chooseAxis(axes, threshold, input.count, q, split);
}

void localFindBestSplitSortSearch_MT(const SearchInput& input, SplitRecord& split) {
    const double q = split.cost;
    SplitRecord axes[3];
    startRecords(axes, q);
    const float* const box = input.box;
    int usable[3];
    int n = 0;
    for (int axis = 0; axis < 3; ++axis)
        if (double(box[axis + 3]) - box[axis] > kFlat) usable[n++] = axis;
    // One thread for each usable axis, but never more than the library may use, and none for a node too small to repay
    // them: then the same sections run one after the other in the calling thread.
    const long double threshold = thresholdOf(input, q);
    const double limit = greatestUsefulCost(q, threshold, input.count);
    const int allowed = ownGetNumThreads();
    const int team = n < allowed ? n : allowed;
    if (n == 3) {
#pragma omp parallel sections num_threads(team) if (team > 1 && input.count >= kForkCount)
        {
#pragma omp section
            searchAxis(input, 0, limit, axes[0]);
#pragma omp section
            searchAxis(input, 1, limit, axes[1]);
#pragma omp section
            searchAxis(input, 2, limit, axes[2]);
        }
    } else if (n == 2) {
        const int axis0 = usable[0];
        const int axis1 = usable[1];
#pragma omp parallel sections num_threads(team) if (team > 1 && input.count >= kForkCount)
        {
#pragma omp section
            searchAxis(input, axis0, limit, axes[axis0]);
#pragma omp section
            searchAxis(input, axis1, limit, axes[axis1]);
        }
    }
    chooseAxis(axes, threshold, input.count, q, split);
}

double nodeCost(const float* box, int count) {
    const long double ex = (long double)(box[3]) - box[0];
    const long double ey = (long double)(box[4]) - box[1];
    const long double ez = (long double)(box[5]) - box[2];
    return double(count * (ex * (ey + ez) + ey * ez));
}

long double costFactor(float optimizationRatio) {
    return (10.0L - 9.0L * optimizationRatio) * (long double)(0.5057569742202759);
}

// ---- Polygons and their arrays
// ---------------------------------------------------------------------------------------

uint32_t selectBounds(const Geometry& geometry, const uint32_t* points, uint32_t count) {
    uint32_t selectors = 0;
    for (int axis = 0; axis < 3; ++axis) {
        uint32_t least = 0;
        uint32_t greatest = 0;
        float lo = pointAt(geometry, points[0])[axis];
        float hi = lo;
        for (uint32_t i = 1; i < count; ++i) {
            const float x = pointAt(geometry, points[i])[axis];
            if (x < lo) lo = x, least = i;
            if (x > hi) hi = x, greatest = i;
        }
        selectors |= greatest << (5 * axis) | least << (15 + 5 * axis);
    }
    return selectors;
}

namespace {

// Point arrays come in ten sizes and are reused by size: nearly all polygons have 3 to 9 points.
constexpr uint32_t kClassPoints[kSizeClasses] = {4, 5, 6, 7, 8, 10, 12, 16, 24, 32};

int sizeClass(uint32_t points) {
    int c = 0;
    while (kClassPoints[c] < points) ++c;
    return c;
}

uint32_t* arrayAt(const BlockTables& tables, uint32_t link) {
    return tables.arrays[link >> kBlockWordsLog2] + (link & (kBlockWords - 1));
}

bool takeArray(Builder& builder, uint32_t points, uint32_t& link) {
    MemContext& context = *builder.context;
    BlockTables& tables = builder.tables;
    const int c = sizeClass(points);
    if (context.freeArrays[c]) {
        link = context.freeArrays[c] - 1;
        context.freeArrays[c] = *arrayAt(tables, link);
        return true;
    }
    const uint32_t bytes = kClassPoints[c] * 4;
    BlockHeader* block = context.arrayBlocks.prev;
    if (size_t(block->end - block->cursor) < bytes) {
        block = takeBlock(context, context.arrayBlocks);
        if (!block) return false;
        tables.arrays[tables.arrayCount++] = reinterpret_cast<uint32_t*>(block->start);
    }
    link = (tables.arrayCount - 1) << kBlockWordsLog2 | uint32_t(block->cursor - block->start) / 4;
    block->cursor += bytes;
    return true;
}

void returnArray(Builder& builder, const TriRef& ref) {
    if (ref.points == kWholeTriangle) return;
    uint32_t& first = builder.context->freeArrays[sizeClass(ref.id & 31)];
    *arrayAt(builder.tables, ref.points) = first;
    first = ref.points + 1;
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
    void add(uint32_t point) { points[count++] = point; }
};

// Rule for a side that has more points than a reference can number, which only rounding could bring about: the side
// becomes the closed path through the eight corners of its box. Any cut of that path has the bounds of the cut box, so
// the triangle is at worst listed in a leaf that it does not reach, and never missing.
bool boxPath(Geometry& geometry, Pool& pool, Side& side) {
    float lo[3];
    float hi[3];
    for (int a = 0; a < 3; ++a) lo[a] = hi[a] = pointAt(geometry, side.points[0])[a];
    for (uint32_t i = 1; i < side.count; ++i)
        for (int a = 0; a < 3; ++a) {
            const float x = pointAt(geometry, side.points[i])[a];
            if (x < lo[a]) lo[a] = x;
            if (x > hi[a]) hi[a] = x;
        }
    char* const taken = takeRecords(pool, 8);
    if (!taken) return false;
    float* const corners = reinterpret_cast<float*>(taken);
    const uint32_t first = geometry.vertexCount + uint32_t((taken - pool.start) / 12);
    side.count = 0;
    for (uint32_t i = 0; i < 8; ++i) {
        const uint32_t gray = i ^ i >> 1; // neighbours on the path differ in one coordinate
        for (int a = 0; a < 3; ++a) corners[3 * i + a] = gray >> a & 1 ? hi[a] : lo[a];
        side.add(first + i);
    }
    return true;
}

} // namespace

ZenStatus cutReference(Builder& builder, const Geometry& given, const TriRef& ref, int axis, float split, TriRef& lower,
                       TriRef& upper) {
    Geometry geometry = given;
    Pool& pool = builder.context->poolB;
    Side sides[2];
    const uint32_t count = ref.id & 31;
    uint32_t at = ref.selectors >> (15 + 5 * axis) & 31;
    const uint32_t* const points = pointArray(geometry, ref);
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t next = at + 1 < count ? at + 1 : 0;
        const float* const p = pointAt(geometry, points[at]);
        const float* const q = pointAt(geometry, points[next]);
        // A point in the plane belongs to both sides, and needs no crossing.
        if (p[axis] <= split) sides[0].add(points[at]);
        if (p[axis] >= split) sides[1].add(points[at]);
        const bool rising = p[axis] < split && q[axis] > split;
        if (rising || (p[axis] > split && q[axis] < split)) {
            char* const taken = takeRecords(pool, 1);
            if (!taken) return zenStsNoMemErr;
            crossing(rising ? p : q, rising ? q : p, axis, split, reinterpret_cast<float*>(taken));
            const uint32_t point = geometry.vertexCount + uint32_t((taken - pool.start) / 12);
            sides[0].add(point);
            sides[1].add(point);
        }
        at = next;
    }
    returnArray(builder, ref);
    TriRef* const results[2] = {&lower, &upper};
    for (int s = 0; s < 2; ++s) {
        Side& side = sides[s];
        if (side.count > kMaxPolygonPoints && !boxPath(geometry, pool, side)) return zenStsNoMemErr;
        TriRef result{(ref.id & ~31u) | side.count, selectBounds(geometry, side.points, side.count), 0};
        if (!takeArray(builder, side.count, result.points)) return zenStsNoMemErr;
        memcpy(arrayAt(builder.tables, result.points), side.points, side.count * 4);
        *results[s] = result;
    }
    return zenStsNoErr;
}

// ---- Subdivision
// -----------------------------------------------------------------------------------------------------

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

bool takePair(Builder& builder, uint32_t& link) {
    BlockTables& tables = builder.tables;
    BlockHeader* block = builder.context->nodeBlocks.prev;
    constexpr uint32_t bytes = 2 * sizeof(WorkNode);
    if (size_t(block->end - block->cursor) < bytes) {
        block = takeBlock(*builder.context, builder.context->nodeBlocks);
        if (!block) return false;
        tables.nodes[tables.nodeCount++] = block->start;
    }
    link = (tables.nodeCount - 1) << kBlockWordsLog2 | uint32_t(block->cursor - block->start) / 4;
    block->cursor += bytes;
    return true;
}

// Writes a leaf's list. A list that a whole block could not hold runs on through as many blocks as it needs.
bool writeList(Builder& builder, const TriRef* refs, uint32_t n, uint32_t& link) {
    if (n == 0) return true;
    BlockTables& tables = builder.tables;
    MemContext& context = *builder.context;
    BlockHeader* block = context.listBlocks.prev;
    uint32_t free = uint32_t(block->end - block->cursor) / 4;
    if (free < n && (free == 0 || n <= kBlockWords)) {
        block = takeBlock(context, context.listBlocks);
        if (!block) return false;
        tables.lists[tables.listCount++] = reinterpret_cast<uint32_t*>(block->start);
        free = kBlockWords;
    }
    link = (tables.listCount - 1) << kBlockWordsLog2 | (kBlockWords - free);
    for (uint32_t i = 0; i < n; ++i) {
        if (free == 0) {
            block = takeBlock(context, context.listBlocks);
            if (!block) return false;
            tables.lists[tables.listCount++] = reinterpret_cast<uint32_t*>(block->start);
            free = kBlockWords;
        }
        listWord(tables, link, i) = refs[i].id >> 5;
        block->cursor += 4;
        --free;
    }
    for (uint32_t i = 0; i < n; ++i) returnArray(builder, refs[i]);
    return true;
}

class Subdivision {
public:
    Subdivision(Builder& builder, WorkNode& root, float optimizationRatio, int maxDepth)
        : builder_(builder), context_(*builder.context), root_(root),
          maxDepth_(maxDepth), input_{{context_.vertices, reinterpret_cast<const float*>(context_.poolB.start),
                                       context_.triangles, builder.tables.arrays,
                                       uint32_t(size_t(context_.verticesEnd - context_.vertices) / 3)},
                                      nullptr,
                                      0,
                                      nullptr,
                                      context_.scratch,
                                      costFactor(optimizationRatio)} {}

    ZenStatus run() {
        Item item{kRootLink, {}, 0, 0, 0};
        memcpy(item.box, builder_.box, sizeof item.box);
        for (;;) {
            WorkNode& node = nodeOf(item.node);
            const uint32_t n = node.value;
            TriRef* const refs = reinterpret_cast<TriRef*>(context_.poolA.cursor) - n;
            SplitRecord split{0, 0, -1, 0, 0, 1};
            if (item.depth < maxDepth_) search(item, refs, int(n), split);
            if (split.axis >= 0) {
                const ZenStatus status = splitNode(item, node, refs, split);
                if (status != zenStsNoErr) return status;
                continue;
            }
            if (!writeList(builder_, refs, n, node.link)) return zenStsNoMemErr;
            if (pending_ == 0) return zenStsNoErr;
            item = stack_[--pending_];
            context_.poolA.cursor = context_.poolA.start + item.cursorA;
            context_.poolB.cursor = context_.poolB.start + item.cursorB;
        }
    }

private:
    WorkNode& nodeOf(uint32_t link) { return link == kRootLink ? root_ : *nodeAt(builder_.tables, link); }

    void search(const Item& item, const TriRef* refs, int n, SplitRecord& split) {
        input_.refs = refs;
        input_.count = n;
        input_.box = item.box;
        split.cost = nodeCost(item.box, n);
        if (n <= kSingleThreadCount)
            localFindBestSplitSortSearch_ST(input_, split);
        else
            localFindBestSplitSortSearch_MT(input_, split);
    }

    // Turns the item's node into an interior one, and the item into the child to go on with.
    ZenStatus splitNode(Item& item, WorkNode& node, TriRef* refs, const SplitRecord& split) {
        uint32_t pair;
        if (!takePair(builder_, pair)) return zenStsNoMemErr;
        WorkNode* const children = nodeAt(builder_.tables, pair);
        children[0] = children[1] = node;
        node.kind = uint32_t(split.axis);
        memcpy(&node.value, &split.position, 4);
        node.link = pair;
        ++item.depth;
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
        uint32_t counts[2];
        const ZenStatus status = distribute(item, refs, children[0].value, split, counts);
        if (status != zenStsNoErr) return status;
        children[0].value = counts[0];
        children[1].value = counts[1];
        Item& lower = stack_[pending_++];
        lower = item;
        lower.node = pair;
        lower.box[split.axis + 3] = split.position;
        lower.cursorA = uint32_t(reinterpret_cast<char*>(refs + counts[0]) - context_.poolA.start);
        lower.cursorB = uint32_t(context_.poolB.cursor - context_.poolB.start);
        item.node = pair + 3;
        item.box[split.axis] = split.position;
        return zenStsNoErr;
    }

    // Distributes n references, the last ones in pool A. The node's own list is of no more use, so the lower side's is
    // written over it (there are never more of them than were read) and the upper side's, collected above, is moved
    // down to follow it: the pool holds nothing but what still waits.
    ZenStatus distribute(const Item& item, TriRef* refs, uint32_t n, const SplitRecord& split, uint32_t counts[2]) {
        Pool& pool = context_.poolA;
        const int axis = split.axis;
        const float plane = split.position;
        char* const mark = pool.cursor;
        // Both sides' reservations must fit. They are exactly what is needed: the search counts by the same
        // comparisons. The upper side is nevertheless checked as it is written.
        if (!takeRecords(pool, uint32_t(split.left)) || !takeRecords(pool, uint32_t(split.right)))
            return zenStsNoMemErr;
        pool.cursor = mark;
        TriRef* lower = refs;
        TriRef* const upperStart = reinterpret_cast<TriRef*>(mark);
        TriRef* upper = upperStart;
        const TriRef* const upperEnd = upperStart + size_t(pool.end - mark) / sizeof(TriRef);
        for (uint32_t i = 0; i < n; ++i) {
            const TriRef ref = refs[i];
            const Interval extent = extentOf(input_.geometry, ref, axis, item.box[axis], item.box[axis + 3]);
            bool below = extent.hi <= plane;
            bool above = extent.lo >= plane;
            if (below && above) { // in the plane
                below = split.flag == 0;
                above = !below;
            }
            if (!below && upper == upperEnd) return zenStsNoMemErr;
            if (below) {
                *lower++ = ref;
            } else if (above) {
                *upper++ = ref;
            } else {
                const ZenStatus status = cutReference(builder_, input_.geometry, ref, axis, plane, *lower, *upper);
                if (status != zenStsNoErr) return status;
                ++lower;
                ++upper;
            }
        }
        counts[0] = uint32_t(lower - refs);
        counts[1] = uint32_t(upper - upperStart);
        memmove(lower, upperStart, counts[1] * sizeof(TriRef));
        pool.cursor = reinterpret_cast<char*>(lower + counts[1]);
        return zenStsNoErr;
    }

    Builder& builder_;
    MemContext& context_;
    WorkNode& root_;
    const int maxDepth_;
    SearchInput input_;
    Item stack_[kMaxTreeDepth];
    int pending_ = 0;
};

} // namespace

ZenStatus ownOptimizationPSAH(Builder& builder, WorkNode& root, float optimizationRatio, int maxDepth) {
    return Subdivision(builder, root, optimizationRatio, maxDepth).run();
}

} // namespace zenr
