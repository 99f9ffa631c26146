// Volume filtering: the exported functions, and the planning of a call.
#include "filter/prfilter.h"

#include "frame/export.h"

namespace zenr {

// The paths of a call keep programs and sums on the stack: each its own, not the sum of all of them.
#define ZENR_OWN_FRAME __attribute__((noinline))

// Bytes to whole voxels, rounded towards minus infinity: an odd step loses its last byte.
static ptrdiff_t voxelStep(int bytes) {
    return bytes >> 1;
}

static bool badVolume(const ZenrVolume& v) {
    return v.width < 1 || v.height < 1 || v.depth < 1;
}

FilterJob ownFilterJob(const int16_t* const pSrc[], int srcStep, int16_t* const pDst[], int dstStep,
                       ZenrVolume dstVolume, const int32_t* pKernel, ZenrVolume kernelVolume, ZenrPoint anchor,
                       int divisor) {
    // The anchor is not checked: 64 bits, so that no difference overflows.
    const int64_t x = int64_t(anchor.x) - (kernelVolume.width - 1);
    const int64_t y = int64_t(anchor.y) - (kernelVolume.height - 1);
    const int64_t z = int64_t(anchor.z) - (kernelVolume.depth - 1);
    const ptrdiff_t step = voxelStep(srcStep);
    return {pSrc + ptrdiff_t(z), ptrdiff_t(y * step + x), step, pDst, voxelStep(dstStep), dstVolume, pKernel,
            kernelVolume,        int32_t(divisor)};
}

// ---- The kernel as the planning sees it ----------------------------------------------------------------------------

// Mirrored weights with strides: tap (kx, ky, kz) reads column x + kx, row y + ky, plane z + kz.
struct Weights {
    const int32_t* first;
    ptrdiff_t strideX, strideY, strideZ;
    int width, height, depth;

    int32_t at(int kx, int ky, int kz) const { return first[kx * strideX + ky * strideY + kz * strideZ]; }
};

static Weights mirrored(const FilterJob& job) {
    const ZenrVolume& k = job.kernelSize;
    const ptrdiff_t row = k.width, plane = row * k.height;
    return {job.kernel + plane * k.depth - 1, -1, -row, -plane, k.width, k.height, k.depth};
}

static int64_t sizeOf(int32_t w) {
    return w < 0 ? -int64_t(w) : int64_t(w);
}

// A product wraps at 32 bits for some voxel: 65536 * 32768 just fits with one sign, and not with the other.
constexpr int64_t kLargestUnwrapped = 65535;
static bool wraps(int32_t w) {
    return sizeOf(w) > kLargestUnwrapped;
}

// Sums of products of voxels with weights whose sizes sum to this fit 32 bits: 65535 * 32768 < 2^31.
constexpr int64_t kNarrowSum = 65535;

// A weight as a sum of parts that fit 16 bits. -32768 is left out: a pair of those would overflow with the voxels
// -32768.
constexpr int32_t kLargestPart = 32767;
static int32_t partOf(int32_t w, int part) {
    for (;; --part) {
        const int32_t p = w > kLargestPart ? kLargestPart : w < -kLargestPart ? -kLargestPart : w;
        if (part == 0) return p;
        w -= p;
    }
}

static int32_t packPair(int32_t first, int32_t second) {
    return int32_t((uint32_t(first) & 0xFFFFu) | uint32_t(second) << 16);
}

// ---- Programs ------------------------------------------------------------------------------------------------------

struct Counts {
    int64_t sum;     // of the sizes of all weights
    int64_t largest; // size of a weight whose products do not wrap
};

static Counts countWeights(const Weights& k) {
    Counts c = {0, 0};
    for (int z = 0; z < k.depth; ++z)
        for (int y = 0; y < k.height; ++y)
            for (int x = 0; x < k.width; ++x) {
                const int32_t w = k.at(x, y, z);
                c.sum += sizeOf(w);
                if (!wraps(w) && sizeOf(w) > c.largest) c.largest = sizeOf(w);
            }
    return c;
}

static int partsOf(const Counts& counts) {
    return int((counts.largest + kLargestPart - 1) / kLargestPart);
}

// Writes the programs of a kernel one after the other: as many as its size needs, usually one.
class PairPlanner {
public:
    PairPlanner(const Weights& k, ptrdiff_t step) : k_(k), step_(step), parts_(partsOf(countWeights(k))) { restart(); }

    void restart() { part_ = z_ = y_ = x_ = 0; }
    bool done() const { return part_ == parts_; }

    void next(FilterProgram& p) {
        p.entryCount = p.segmentCount = 0;
        plane_ = -1;
        while (!done() && p.entryCount + FilterProgram::kPiece < FilterProgram::kEntries &&
               p.segmentCount + FilterProgram::kPiece < FilterProgram::kSegments) {
            const int end = k_.width - x_ < FilterProgram::kPiece ? k_.width : x_ + FilterProgram::kPiece;
            addPiece(p, x_, end);
            x_ = end;
            if (x_ == k_.width) x_ = 0, ++y_;
            if (y_ == k_.height) y_ = 0, ++z_;
            if (z_ == k_.depth) z_ = 0, ++part_;
        }
    }

private:
    int32_t weight(int kx) const {
        const int32_t w = k_.at(kx, y_, z_);
        return wraps(w) ? 0 : partOf(w, part_);
    }

    // Taps begin <= kx < end of a row. A load at o serves the even outputs with taps o and o + 1, the odd ones with
    // taps o - 1 and o, and o itself is a tap: so nothing outside the neighbourhood is read.
    void addPiece(FilterProgram& p, int begin, int end) {
        int even = begin, odd = begin; // taps before these are served
        for (;;) {
            while (even < end && weight(even) == 0) ++even;
            while (odd < end && weight(odd) == 0) ++odd;
            const int first = even < odd ? even : odd;
            if (first >= end) break;
            // When only the odd outputs still miss this tap, the load one further on serves them with two.
            const int o = even > odd && odd + 1 < end ? odd + 1 : first;
            const int32_t e0 = even <= o ? weight(o) : 0, e1 = o + 1 < end && even <= o + 1 ? weight(o + 1) : 0;
            const int32_t o0 = o - 1 >= odd ? weight(o - 1) : 0, o1 = odd <= o ? weight(o) : 0;
            add(p, o, e0, e1, o0, o1);
            if (even <= o + 1) even = o + 2;
            if (odd <= o) odd = o + 1;
        }
    }

    void add(FilterProgram& p, int kx, int32_t e0, int32_t e1, int32_t o0, int32_t o1) {
        const int64_t e = sizeOf(e0) + sizeOf(e1), o = sizeOf(o0) + sizeOf(o1);
        if (plane_ != z_ || evenSum_ + e > kNarrowSum || oddSum_ + o > kNarrowSum) {
            p.segment[p.segmentCount++] = {z_, p.entryCount, p.entryCount};
            plane_ = z_;
            evenSum_ = oddSum_ = 0;
        }
        evenSum_ += e, oddSum_ += o;
        p.entry[p.entryCount++] = {y_ * step_ + kx, packPair(e0, e1), packPair(o0, o1)};
        p.segment[p.segmentCount - 1].end = p.entryCount;
    }

    const Weights k_;
    ptrdiff_t step_;
    int parts_;
    int part_, z_, y_, x_;
    int plane_ = -1; // of the current segment
    int64_t evenSum_ = 0, oddSum_ = 0;
};

// The same for the taps whose products wrap.
class SinglePlanner {
public:
    SinglePlanner(const Weights& k, ptrdiff_t step) : k_(k), step_(step) { restart(); }

    void restart() { z_ = y_ = x_ = 0; }
    bool done() const { return z_ == k_.depth; }

    void next(FilterProgram& p) {
        p.entryCount = p.segmentCount = 0;
        int plane = -1;
        while (!done() && p.entryCount < FilterProgram::kPiece) {
            const int32_t w = k_.at(x_, y_, z_);
            if (wraps(w)) {
                if (plane != z_) p.segment[p.segmentCount++] = {z_, p.entryCount, p.entryCount};
                plane = z_;
                const int32_t low = int16_t(uint32_t(w) & 0xFFFFu);
                const int32_t high = int32_t((uint32_t(w) - uint32_t(low)) >> 16);
                p.entry[p.entryCount++] = {y_ * step_ + x_, packPair(low, low), packPair(high, high)};
                p.segment[p.segmentCount - 1].end = p.entryCount;
            }
            if (++x_ == k_.width) x_ = 0, ++y_;
            if (y_ == k_.height) y_ = 0, ++z_;
        }
    }

private:
    const Weights k_;
    ptrdiff_t step_;
    int z_, y_, x_;
};

// A planner with its program: a kernel that fits one program is planned once, others anew for every tile.
template <class Planner> class Programs {
public:
    explicit Programs(const Planner& planner) : planner_(planner) {
        planner_.next(program_);
        single_ = planner_.done();
    }

    // Hands one program after the other to run(program, add, last), where add is false for the first.
    template <class Run> void forEach(const Run& run) {
        if (single_) {
            run(program_, false, true);
            return;
        }
        planner_.restart();
        for (bool add = false; !planner_.done(); add = true) {
            planner_.next(program_);
            run(program_, add, planner_.done());
        }
    }

    int entries() const { return program_.entryCount; }

private:
    Planner planner_;
    bool single_;
    FilterProgram program_;
};

// ---- Division ------------------------------------------------------------------------------------------------------

// bound: no sum is larger in size; below 0 for wide sums, whose division is always by a reciprocal.
static FilterDivision planDivision(int32_t divisor, int64_t bound) {
    FilterDivision d = {FilterDivision::reciprocal, 0, 0, 1.0 / divisor, 0};
    d.high = d.low;
    const bool powerOfTwo = divisor > 0 && (divisor & (divisor - 1)) == 0;
    if (powerOfTwo) {
        // The reciprocal is exact, and so are quotients and ties; adding half is cheaper where it cannot overflow.
        if (bound < 0) return d;
        if (divisor == 1) d.mode = FilterDivision::none;
        if (divisor > 1 && bound + divisor / 2 <= INT32_MAX) {
            d.mode = FilterDivision::shift;
            d.half = divisor / 2;
            while (int32_t(1) << d.bits != divisor) ++d.bits;
        }
        return d;
    }
    // The rounding of a product is at most 2^-53 of it, and of the reciprocal too, so within the range of the result
    // both are far below 1 / (2 * 2^31), the least distance from a tie. An odd divisor has no ties. With an even one
    // the reciprocals are moved by 2^-50 of their size: more than all roundings, so that a tie's two quotients lie on
    // either side of it, and still too little to reach another tie.
    if (divisor % 2 == 0) {
        constexpr double kNudge = 1.0 / 1125899906842624.0;
        d.mode = FilterDivision::reciprocalWithTies;
        d.high = d.low * (1.0 + kNudge);
        d.low = d.low * (1.0 - kNudge);
    }
    return d;
}

// ---- Tiles ---------------------------------------------------------------------------------------------------------

constexpr int kTileWidth = 128;
constexpr int kTileRows = 16;

constexpr int kSlabBytes = 384 * 1024;

// Walks the tiles of the destination's columns and of its rows from begin to end: body(tile, x, y), whose tile lacks
// its planes.
template <class Body>
static void overTiles(const FilterKernels& kernels, const FilterJob& job, int64_t begin, int64_t end, int rows,
                      const Body& body) {
    const int lanes = [&] {
        int n = kernels.lanes;
        while (n > job.size.width) n /= 2;
        return n;
    }();
    for (int64_t y = begin; y < end; y += rows)
        for (int64_t start = 0; start < job.size.width; start += kTileWidth) {
            // A narrow rest is widened towards the left to one vector.
            const int64_t x = start < job.size.width - lanes ? start : job.size.width - lanes;
            FilterTile tile = {};
            tile.origin = job.srcOrigin + ptrdiff_t(y * job.srcStep + x);
            tile.step = job.srcStep;
            tile.rows = int(end - y < rows ? end - y : rows);
            tile.width = int(job.size.width - x < kTileWidth ? job.size.width - x : kTileWidth);
            tile.lanes = lanes;
            tile.stride = (tile.width + lanes - 1) / lanes * lanes;
            body(tile, int(x), int(y));
        }
}

// Gives a tile its target in plane z.
static void aim(FilterTile& tile, const FilterJob& job, ptrdiff_t z, int x, int y) {
    tile.target = job.dst[z] + y * job.dstStep + x;
    tile.targetStep = job.dstStep;
    tile.targetRows = tile.rows;
}

// Tiles plane by plane: body(tile). Rows are taken in slabs, so high that the planes which a slab's next plane
// needs again stay in the second-level cache, and otherwise as high as can be: memory is read in long runs.
template <class Body> static void overPlanes(const FilterKernels& kernels, const FilterJob& job, const Body& body) {
    const int64_t rowBytes = (int64_t(job.size.width) + job.kernelSize.width) * 2 * (int64_t(job.kernelSize.depth) + 1);
    const int64_t groups = kSlabBytes / (rowBytes * kTileRows);
    const int64_t slab = (groups < 1 ? 1 : groups) * kTileRows;
    for (int64_t y0 = 0; y0 < job.size.height; y0 += slab) {
        const int64_t y1 = y0 + slab < job.size.height ? y0 + slab : job.size.height;
        for (int z = 0; z < job.size.depth; ++z)
            overTiles(kernels, job, y0, y1, kTileRows, [&](FilterTile& tile, int x, int y) {
                tile.planes = job.src + z;
                tile.ahead = z + 1 < job.size.depth ? job.src[ptrdiff_t(z) + job.kernelSize.depth] : nullptr;
                aim(tile, job, z, x, y);
                body(tile);
            });
    }
}

static ZENR_OWN_FRAME void filterNarrow(const FilterKernels& kernels, const FilterJob& job, const Weights& weights,
                                        const FilterDivision& division) {
    Programs<PairPlanner> pairs(PairPlanner(weights, job.srcStep));
    alignas(64) int32_t sums[kTileRows * kTileWidth];
    overPlanes(kernels, job, [&](const FilterTile& tile) {
        pairs.forEach([&](const FilterProgram& program, bool add, bool last) {
            kernels.narrowPairs(program, tile, sums, add, last ? &division : nullptr);
        });
    });
}

static ZENR_OWN_FRAME void filterWide(const FilterKernels& kernels, const FilterJob& job, const Weights& weights,
                                      const FilterDivision& division) {
    Programs<PairPlanner> pairs(PairPlanner(weights, job.srcStep));
    Programs<SinglePlanner> singles(SinglePlanner(weights, job.srcStep));
    alignas(64) int32_t low[kTileRows * kTileWidth];
    alignas(64) int32_t high[kTileRows * kTileWidth];
    overPlanes(kernels, job, [&](const FilterTile& tile) {
        if (pairs.entries() > 0)
            pairs.forEach([&](const FilterProgram& program, bool add, bool) {
                kernels.widePairs(program, tile, low, high, add);
            });
        if (singles.entries() > 0)
            singles.forEach([&](const FilterProgram& program, bool add, bool) {
                kernels.wideSingles(program, tile, low, high, add || pairs.entries() > 0);
            });
        kernels.finishWide(division, tile, low, high);
    });
}

// ---- Factored kernels ----------------------------------------------------------------------------------------------

constexpr int kFactorTaps = 33; // along an axis
constexpr int kBaseTaps = 2048; // of what remains
// Tile rows that the ring of planes holds: half of the first-level cache, and more of it where a plane's rows overlap.
constexpr int kRingRows = 64;
constexpr int kTallRingRows = 112;

enum Axis { axisX, axisY, axisZ };

// The kernel is factor (along one axis) times base (the other two), or it is not: decided exactly.
struct Split {
    int32_t factor[kFactorTaps];
    int32_t base[kBaseTaps]; // rows of it along the first of the other axes
};

static int32_t gcd(int32_t a, int32_t b) {
    while (b != 0) {
        const int32_t r = a % b;
        a = b, b = r;
    }
    return a < 0 ? -a : a;
}

// Only for kernels of narrow sums, so no product here overflows. The line through an element that is not zero, divided
// by the greatest common divisor, has to be the factor if there is one: it has no common divisor left, so what remains
// is integer too.
static bool split(const Weights& k, Axis axis, Split& out) {
    const int size[] = {k.width, k.height, k.depth};
    const ptrdiff_t stride[] = {k.strideX, k.strideY, k.strideZ};
    const Axis first = axis == axisX ? axisY : axisX, second = axis == axisZ ? axisY : axisZ;
    const int taps = size[axis], width = size[first], rows = size[second];
    const ptrdiff_t along = stride[axis];
    if (taps < 2 || taps > kFactorTaps || int64_t(width) * rows > kBaseTaps) return false;

    const int32_t* pivot = nullptr; // where the line begins
    int t0 = 0;
    for (int r = 0; r < rows && !pivot; ++r)
        for (int i = 0; i < width && !pivot; ++i)
            for (int t = 0; t < taps && !pivot; ++t) {
                const int32_t* line = k.first + i * stride[first] + r * stride[second];
                if (line[t * along] != 0) pivot = line, t0 = t;
            }
    if (!pivot) return false;
    int32_t divisor = 0;
    for (int t = 0; t < taps; ++t) divisor = gcd(divisor, pivot[t * along]);
    for (int t = 0; t < taps; ++t) out.factor[t] = pivot[t * along] / divisor;

    for (int r = 0; r < rows; ++r)
        for (int i = 0; i < width; ++i) {
            const int32_t* line = k.first + i * stride[first] + r * stride[second];
            const int32_t b = line[t0 * along] / out.factor[t0];
            for (int t = 0; t < taps; ++t)
                if (line[t * along] != int64_t(b) * out.factor[t]) return false;
            out.base[r * width + i] = b;
        }
    return true;
}

// The taps of a factor that are not zero: of rows, of planes, or of both.
struct Taps {
    static constexpr int kMost = 128;

    int rows, planes; // with the zeros
    int count;
    int32_t weight[kMost];
    int row[kMost], plane[kMost];

    bool none() const { return rows * planes == 1; } // the weight is then 1
};

// False when there are too many.
static bool tapsOf(const int32_t* factor, int rows, int planes, Taps& taps) {
    taps.rows = rows, taps.planes = planes;
    taps.count = 0;
    for (int p = 0; p < planes; ++p)
        for (int r = 0; r < rows; ++r) {
            const int32_t w = *factor++;
            if (w == 0) continue;
            if (taps.count == Taps::kMost) return false;
            taps.weight[taps.count] = w;
            taps.row[taps.count] = r;
            taps.plane[taps.count++] = p;
        }
    return true;
}

static void noTaps(Taps& taps) {
    static const int32_t kUnit = 1;
    tapsOf(&kUnit, 1, 1, taps);
}

static int tileRowsFor(const Taps& ring) {
    const int rows = (ring.rows > 1 ? kTallRingRows : kRingRows) / ring.planes - (ring.rows - 1);
    return rows < kTileRows ? rows : kTileRows;
}

// Vector operations per two registers of 32-bit sums, that is for one vector of voxels.
static ZENR_OWN_FRAME double costOfPairs(const Weights& weights) {
    PairPlanner planner(weights, 0);
    FilterProgram program;
    double cost = 4;
    while (!planner.done()) {
        planner.next(program);
        cost += 4.0 * program.entryCount;
    }
    return cost;
}
static double costOfTaps(const FilterKernels& kernels, const Taps& taps) {
    return taps.none() ? 0 : 4 + 2.0 * taps.count * (1 + kernels.multiplyCost);
}

// A kernel as up to three factors, which follow each other: pairs along x, and perhaps along another axis; taps along
// y; taps along z, or along y and z, out of a ring of planes.
struct Plan {
    Weights base;
    Taps yTaps;
    Taps ringTaps;
};

static ZENR_OWN_FRAME void filterFactored(const FilterKernels& kernels, const FilterJob& job, const Plan& plan,
                                          const FilterDivision& division) {
    const Taps &yTaps = plan.yTaps, &ringTaps = plan.ringTaps;
    Programs<PairPlanner> pairs(PairPlanner(plan.base, job.srcStep));
    alignas(64) int32_t stage[(kTileRows + kFactorTaps - 1) * kTileWidth];
    alignas(64) int32_t ring[kTallRingRows * kTileWidth];
    alignas(64) int32_t sums[kTileRows * kTileWidth];
    const int rows = tileRowsFor(ringTaps);
    const int ringPlane = (rows + ringTaps.rows - 1) * kTileWidth;
    overTiles(kernels, job, 0, job.size.height, rows, [&](FilterTile& tile, int x, int y) {
        const int32_t* in[Taps::kMost];
        const int64_t planes = int64_t(job.size.depth) + ringTaps.planes - 1;
        for (int64_t p = 0; p < planes; ++p) {
            const ptrdiff_t z = ptrdiff_t(p) - (ringTaps.planes - 1);
            int32_t* plane = ring + p % ringTaps.planes * ringPlane;
            const int planeRows = tile.rows + ringTaps.rows - 1;
            if (z >= 0) aim(tile, job, z, x, y);
            FilterTile tall = tile;
            tall.rows = planeRows + yTaps.rows - 1;
            tall.planes = job.src + ptrdiff_t(p);
            tall.ahead = p + 1 < planes ? job.src[ptrdiff_t(p) + plan.base.depth] : nullptr;
            int32_t* first = yTaps.none() ? plane : stage;
            pairs.forEach([&](const FilterProgram& program, bool add, bool) {
                kernels.narrowPairs(program, tall, first, add, nullptr);
            });
            if (!yTaps.none()) {
                for (int t = 0; t < yTaps.count; ++t) in[t] = stage + yTaps.row[t] * tile.stride;
                kernels.combine(in, yTaps.weight, yTaps.count, plane, planeRows * tile.stride);
            }
            if (z < 0) continue;
            const int32_t* done = plane;
            if (!ringTaps.none()) {
                for (int t = 0; t < ringTaps.count; ++t)
                    in[t] =
                        ring + (z + ringTaps.plane[t]) % ringTaps.planes * ringPlane + ringTaps.row[t] * tile.stride;
                kernels.combine(in, ringTaps.weight, ringTaps.count, sums, tile.rows * tile.stride);
                done = sums;
            }
            kernels.finishNarrow(division, tile, done);
        }
    });
}

// The cheapest way for a kernel of narrow sums.
static ZENR_OWN_FRAME void filterNarrowBest(const FilterKernels& kernels, const FilterJob& job, const Weights& k,
                                            const FilterDivision& division) {
    double least = costOfPairs(k);
    Plan best, plan;
    bool factored = false;
    const auto consider = [&] {
        const int rows = tileRowsFor(plan.ringTaps);
        if (rows < 4) return;
        const double cost = costOfPairs(plan.base) * (rows + plan.yTaps.rows + plan.ringTaps.rows - 2) / rows +
                            costOfTaps(kernels, plan.yTaps) + costOfTaps(kernels, plan.ringTaps);
        if (cost >= least) return;
        least = cost;
        best = plan;
        factored = true;
    };
    Split alongX, alongY, alongZ, alongBoth;
    // A row alone has nothing left to be combined.
    if (k.height * int64_t(k.depth) > 1 && split(k, axisX, alongX) &&
        tapsOf(alongX.base, k.height, k.depth, plan.ringTaps)) {
        plan.base = {alongX.factor, 1, 0, 0, k.width, 1, 1};
        noTaps(plan.yTaps);
        consider();
    }
    if (split(k, axisY, alongY) && tapsOf(alongY.factor, k.height, 1, plan.yTaps)) {
        plan.base = {alongY.base, 1, 0, k.width, k.width, 1, k.depth};
        noTaps(plan.ringTaps);
        consider();
    }
    if (split(k, axisZ, alongZ) && tapsOf(alongZ.factor, 1, k.depth, plan.ringTaps)) {
        plan.base = {alongZ.base, 1, k.width, 0, k.width, k.height, 1};
        noTaps(plan.yTaps);
        consider();
        if (split(plan.base, axisY, alongBoth) && tapsOf(alongBoth.factor, k.height, 1, plan.yTaps)) {
            plan.base = {alongBoth.base, 1, 0, 0, k.width, 1, 1};
            consider();
        }
    }
    if (factored)
        filterFactored(kernels, job, best, division);
    else
        filterNarrow(kernels, job, k, division);
}

// ---- Sources that are overwritten ----------------------------------------------------------------------------------

// Addresses from the first to behind the last byte.
struct Extent {
    uintptr_t begin, end;

    bool meets(const Extent& other) const { return begin < other.end && other.begin < end; }
    void include(const Extent& other) {
        if (other.begin < begin) begin = other.begin;
        if (other.end > end) end = other.end;
    }
};

static Extent extentOf(const int16_t* first, ptrdiff_t step, int64_t width, int64_t rows) {
    const uintptr_t top = uintptr_t(first), bottom = top + uintptr_t(step * ptrdiff_t(rows - 1)) * sizeof *first;
    return {step < 0 ? bottom : top, (step < 0 ? top : bottom) + uintptr_t(width) * sizeof *first};
}
static Extent sourceExtent(const FilterJob& job, int64_t z) {
    return extentOf(job.src[z] + job.srcOrigin, job.srcStep, int64_t(job.size.width) + job.kernelSize.width - 1,
                    int64_t(job.size.height) + job.kernelSize.height - 1);
}
static Extent targetExtent(const FilterJob& job, int64_t z) {
    return extentOf(job.dst[z], job.dstStep, job.size.width, job.size.height);
}

// Whether the source may hold voxels that the call writes: whether planes of both meet. Planes of narrow regions that
// lie beside each other in one larger volume count as meeting, which costs their caller time only.
static bool overlaps(const FilterJob& job) {
    const int64_t planes = int64_t(job.size.depth) + job.kernelSize.depth - 1;
    Extent source = sourceExtent(job, 0), target = targetExtent(job, 0);
    for (int64_t z = 1; z < planes; ++z) source.include(sourceExtent(job, z));
    for (int64_t z = 1; z < job.size.depth; ++z) target.include(targetExtent(job, z));
    if (!source.meets(target)) return false;
    for (int64_t d = 0; d < job.size.depth; ++d) {
        const Extent written = targetExtent(job, d);
        if (!written.meets(source)) continue;
        for (int64_t s = 0; s < planes; ++s)
            if (written.meets(sourceExtent(job, s))) return true;
    }
    return false;
}

void ownFilter(const FilterKernels& kernels, const FilterJob& job) {
    const Weights weights = mirrored(job);
    // Terms that a wide sum may have, so that neither of its words overflows: a tap has at most three parts, and every
    // part at most one segment for either of two entries.
    const int64_t taps = int64_t(job.kernelSize.width) * job.kernelSize.height * job.kernelSize.depth;
    constexpr int64_t kWideTaps = 65535 / 6;
    const Counts counts = countWeights(weights);

    if (overlaps(job))
        kernels.inOrder(job);
    else if (job.size.width < 8)
        kernels.plain(job);
    else if (counts.sum <= kNarrowSum)
        filterNarrowBest(kernels, job, weights, planDivision(job.divisor, counts.sum * 32768));
    else if (taps <= kWideTaps)
        filterWide(kernels, job, weights, planDivision(job.divisor, -1));
    else
        kernels.plain(job);
}

} // namespace zenr

using namespace zenr;

ZENR_EXPORT ZenStatus zenrFilterGetBufSize(ZenrVolume dstVolume, ZenrVolume kernelVolume, int numChannels,
                                           uint32_t* pSize) {
    if (!pSize) return zenStsNullPtrErr;
    if (badVolume(dstVolume) || badVolume(kernelVolume)) return zenStsSizeErr;
    if (numChannels != 1) return zenStsNumChannelsErr;
    *pSize = 0;
    return zenStsNoErr;
}

ZENR_EXPORT ZenStatus zenrFilter_16s_C1PV(const int16_t* const pSrc[], int srcStep, int16_t* const pDst[], int dstStep,
                                          ZenrVolume dstVolume, const int32_t* pKernel, ZenrVolume kernelVolume,
                                          ZenrPoint anchor, int divisor, uint8_t* pBuffer) {
    (void)pBuffer;
    if (!pSrc || !pDst || !pKernel) return zenStsNullPtrErr;
    if (badVolume(dstVolume) || badVolume(kernelVolume)) return zenStsSizeErr;
    // The most negative divisor has no size that fits its type, and would have passed for a power of two.
    if (divisor == 0 || divisor == INT32_MIN) return zenStsSizeErr;

    const Level level = levelFor(int64_t(dstVolume.width) * dstVolume.height * dstVolume.depth);
    WideScope scope(level);
    ownFilter(filterKernels(level),
              ownFilterJob(pSrc, srcStep, pDst, dstStep, dstVolume, pKernel, kernelVolume, anchor, divisor));
    return zenStsNoErr;
}
