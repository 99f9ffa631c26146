// The split search of the surface-area-heuristic builder: which plane, if any, divides a node. Compiled once per level.
#include "kdtree/pr_avlopsahsrch.h"

#include <float.h>
#include <omp.h>

#include "frame/prprim.h"
#include "kdtree/pr_avlopsahsweep.h"
#include "zencore.h"

namespace zenr {
namespace ZENR_LEVEL {

namespace {

constexpr float kFlat = 1e-5f; // an extent up to this is none
constexpr double kSmallestThreshold = 1e-5;
constexpr double kSmallestSection = 1e-9;
constexpr float kEmptyShare = 0.1f;  // an empty slab of more than this share of the extent is cut off
constexpr double kEmptyBonus = 0.7f; // and its price reduced to this
// A region that forks costs microseconds, and much more where the processors are busy; smaller nodes run the same
// sections in the calling thread.
constexpr int kForkCount = 16384;

constexpr int kNextAxis[5] = {1, 2, 0, 1, 2};

// One axis of a node under search. What is written field by field is not copied as a whole on the way to the result:
// the wide loads of a copy would wait for all the stores before it.
struct AxisSearch {
    bool usable = false;
    bool open = false; // the sweep has to run
    float sum;         // S
    Pricing pricing;
    AxisScan scan;
    Candidate slab;  // the cheapest cut of empty space
    Candidate swept; // the cheapest plane of the sweep
    double price = DBL_MAX;

    double cost() const { return price * sum; }
};

// Everything but the sweep: the axis' prices and its empty slabs. All arithmetic is in double on coordinates that are
// floats.
void searchSlabs(const SearchInput& input, int axis, AxisSearch& search) {
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
    search.usable = true;
    search.sum = float(e1 + e2);
    const double section = e1 * e2;
    search.pricing = Pricing{min, max, section < kSmallestSection ? 0.0 : section / search.sum};
    const double rest = search.pricing.rest;
    const int n = input.count;

    scanAxis(input.lo[axis], input.hi[axis], n, search.scan);
    const float first = search.scan.first;
    const float last = search.scan.last;

    // Planar events in the candidate plane stay with the other triangles, which the flags say too.
    const double gap = double(kEmptyShare) * extent;
    const bool below = first - min > gap;
    const bool above = max - last > gap;
    const double lower = below ? (max - first + rest) * n * kEmptyBonus : DBL_MAX;
    const double upper = above ? (last - min + rest) * n * kEmptyBonus : DBL_MAX;
    const bool isUpper = upper < lower;
    search.slab.price = search.price = isUpper ? upper : lower;
    search.slab.position = isUpper ? last : first;
    search.slab.left = isUpper ? n : 0;
    search.slab.right = isUpper ? 0 : n;
    search.slab.flag = !isUpper;
    search.swept.price = DBL_MAX;
    // Without planar events an empty slab is final; with them the sweep competes against the reduced price.
    search.open = !(below || above) || search.scan.inPlane > 0;
}

// A bound below all prices of the axis, when all triangles start before the first one ends: a plane then leaves all of
// them either on its upper side, at the last start at the highest, or on its lower side, at the first end at the lowest.
// It spares most of the sweeps of the smallest nodes.
double leastPrice(const AxisSearch& search, int count) {
    const AxisScan& scan = search.scan;
    if (scan.inPlane > 0 || !(scan.lastStart < scan.firstEnd)) return 0;
    constexpr double slack = 1e-12;
    const double above = search.pricing.max - scan.lastStart;
    const double below = scan.firstEnd - search.pricing.min;
    return count * ((above < below ? above : below) + search.pricing.rest) * (1 - slack);
}

// `limit`: a cost that need not be found exactly when it lies above.
void searchPlanes(const SearchInput& input, int axis, double limit, AxisSearch& search) {
    if (!search.open) return;
    if (leastPrice(search, input.count) * search.sum > limit) return;
    uint32_t* const* const scratch = input.scratch + 2 * axis;
    const AxisEvents events{input.lo[axis],
                            input.hi[axis],
                            input.count,
                            search.scan.inPlane,
                            {reinterpret_cast<float*>(scratch[0]), reinterpret_cast<float*>(scratch[1])},
                            input.capacity};
    sweepAxis(events, search.pricing, limit / search.sum, search.swept);
    if (search.swept.price < search.price) search.price = search.swept.price;
}

// The axis' record, whose cost is Q on entry and stays so when the axis is passed over.
void storeRecord(const AxisSearch& search, int axis, SplitRecord& record) {
    if (!search.usable) return;
    const Candidate& best = search.swept.price < search.slab.price ? search.swept : search.slab;
    record.cost = search.cost();
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
    const double bound = nodeCostQ - double(threshold) / count;
    return bound + 1e-9 * nodeCostQ;
}

// Ties go to the higher axis, deliberately. With a NaN among the costs no split results; -1 says that.
int chooseAxis(const double (&cost)[3], long double threshold, int count, double nodeCostQ) {
    const int axis = cost[1] <= cost[0] ? (cost[2] > cost[1] ? 1 : 2) : (cost[2] <= cost[0] ? 2 : 0);
    const long double gain = count * ((long double)(nodeCostQ) - (long double)(cost[axis]));
    return threshold < gain ? axis : -1;
}

void searchAxis(const SearchInput& input, int axis, double limit, SplitRecord& record) {
    AxisSearch search;
    searchSlabs(input, axis, search);
    searchPlanes(input, axis, limit, search);
    storeRecord(search, axis, record);
}

void localFindBestSplitSortSearch_ST(const SearchInput& input, SplitRecord& split) {
    const double q = split.cost;
    const long double threshold = thresholdOf(input, q);
    // What one axis reaches the others have to beat, so the slabs, which cost little, come first.
    double limit = greatestUsefulCost(q, threshold, input.count);
    double cost[3] = {q, q, q};
    AxisSearch search[3];
    for (int axis = 0; axis < 3; ++axis) {
        searchSlabs(input, axis, search[axis]);
        if (search[axis].usable && search[axis].cost() < limit) limit = search[axis].cost();
    }
    for (int axis = 0; axis < 3; ++axis) {
        if (!search[axis].usable) continue;
        searchPlanes(input, axis, limit, search[axis]);
        cost[axis] = search[axis].cost();
        if (cost[axis] < limit) limit = cost[axis];
    }
    const int axis = chooseAxis(cost, threshold, input.count, q);
    if (axis < 0)
        split.axis = -1;
    else
        storeRecord(search[axis], axis, split);
}

void localFindBestSplitSortSearch_MT(const SearchInput& input, SplitRecord& split) {
    const double q = split.cost;
    SplitRecord axes[3];
    for (SplitRecord& record : axes) record = SplitRecord{q, 0, -1, 0, 0, 1};
    const float* const box = input.box;
    int usable[3];
    int n = 0;
    for (int axis = 0; axis < 3; ++axis)
        if (double(box[axis + 3]) - box[axis] > kFlat) usable[n++] = axis;
    // One thread for each usable axis, but never more than the library may use, and none for a node too small to repay
    // them: then the same sections run one after the other in the calling thread.
    const int allowed = input.count >= kForkCount && !omp_in_parallel() ? ownGetNumThreads() : 1;
    if (allowed == 1) {
        localFindBestSplitSortSearch_ST(input, split);
        return;
    }
    const long double threshold = thresholdOf(input, q);
    const double limit = greatestUsefulCost(q, threshold, input.count);
    if (n == 3) {
#pragma omp parallel sections num_threads(allowed < 3 ? allowed : 3)
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
#pragma omp parallel sections num_threads(2)
        {
#pragma omp section
            searchAxis(input, axis0, limit, axes[axis0]);
#pragma omp section
            searchAxis(input, axis1, limit, axes[axis1]);
        }
    }
    const int axis = chooseAxis({axes[0].cost, axes[1].cost, axes[2].cost}, threshold, input.count, q);
    if (axis < 0)
        split.axis = -1;
    else
        zensCopy_32s(reinterpret_cast<const int*>(&axes[axis]), reinterpret_cast<int*>(&split), 7);
}

} // namespace

extern const SahKernels kSah = {localFindBestSplitSortSearch_ST, localFindBestSplitSortSearch_MT, scanAxis, sweepAxis};

} // namespace ZENR_LEVEL
} // namespace zenr
