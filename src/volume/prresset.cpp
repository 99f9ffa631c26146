// Volume resize, inside: division into blocks, scratch memory, rings of rows and planes.
#include "volume/prresset.h"

#include "frame/parallel.h"
#include "frame/prprim.h"
#include "volume/piresbrd.h"
#include "volume/prresbrd.h"

namespace zenr {

void ownpi_CubicWeights(int mode, const float* fractions, int n, float* weights) {
    using Real = long double;
    Real (*const kernel)(Real) = mode == 4   ? &ownpi_Cubic0Kernel<Real>
                                 : mode == 5 ? &ownpi_Cubic1Kernel<Real>
                                 : mode == 6 ? &ownpi_Cubic2Kernel<Real>
                                             : &ownpi_Cubic3Kernel<Real>;
    for (int i = 0; i < n; ++i) {
        const Real f = fractions[i];
        weights[4 * i] = float(kernel(-1 - f));
        weights[4 * i + 1] = float(kernel(-f));
        weights[4 * i + 2] = float(kernel(1 - f));
        weights[4 * i + 3] = float(kernel(2 - f));
    }
}

namespace {

constexpr int kAlign = 64;

// Passes in single precision need no bounds, nor anything but groups for their rows.
template <class P> constexpr bool kBrackets = false;
template <> constexpr bool kBrackets<BracketLinear> = true;

constexpr size_t roundUp(size_t n, size_t multiple) {
    return (n + multiple - 1) / multiple * multiple;
}

template <class P> const typename P::Kernels& kernelsOf(Level level) {
    if constexpr (P::kDoubts)
        return quickCubicKernels(level);
    else if constexpr (P::kTaps == 4)
        return cubicKernels(level);
    else if constexpr (kBrackets<P>)
        return linearKernels(level).single;
    else if constexpr (sizeof(typename P::Voxel) == 1)
        return linearKernels(level).u8;
    else if constexpr (sizeof(typename P::Voxel) == 2)
        return linearKernels(level).u16;
    else
        return linearKernels(level).f32;
}

// Whether the level has kernels for the quick policy.
template <class P> bool hasQuick(Level level) {
    using Quick = typename QuickPolicy<P>::Type;
    if constexpr (kBrackets<Quick>) return kernelsOf<Quick>(level).col != nullptr;
    return Quick::kMostAgain != 0;
}

constexpr int least(long long a, long long b) {
    return int(a < b ? a : b);
}

// Hands out pieces of the work memory, each on a cache line of its own; without a base it only counts.
class Arena {
public:
    explicit Arena(unsigned char* base) : base_(base) {}
    template <class E> E* take(size_t count) {
        E* const piece = base_ ? reinterpret_cast<E*>(base_ + used_) : nullptr;
        used_ += roundUp(count * sizeof(E), kAlign);
        return piece;
    }
    size_t used() const { return used_; }

private:
    unsigned char* base_;
    size_t used_ = 0;
};

// The one layout of a thread's scratch memory, for counting and for carving.
template <class P> size_t layOut(Arena arena, int width, int height, ResizeBlock<P>* block) {
    const size_t stride = roundUp(size_t(width), kAlign);
    block->width = width;
    block->height = height;
    block->stride = int(stride);
    block->index = arena.take<int>(size_t(width));
    block->weightStep = int(roundUp(size_t(width), 16));
    block->weights = arena.take<typename P::Weight>(P::kWeightsPerColumn * size_t(block->weightStep));
    block->guarded = arena.take<int>(sizeof(typename P::Inter) == 4 ? size_t(block->weightStep) : 0);
    block->rowBase = arena.take<int>(size_t(height));
    block->rowWeights = arena.take<typename P::Weights>(size_t(height));
    block->rowRing = arena.take<typename P::RowInter>(P::kTaps * stride);
    block->planeRing = arena.take<typename P::Inter>(P::kTaps * stride * size_t(height));
    block->groupCount = P::kGroup ? int(roundUp(size_t(width), 16)) / P::kGroup : 0;
    block->groups = arena.take<typename P::Group>(size_t(block->groupCount));
    block->planeBounds = arena.take<typename P::Bound>(P::kTaps * size_t(height));
    return arena.used();
}

// What a block needs under either policy.
template <class P> size_t scratchBytes(int width, int height) {
    using Quick = typename QuickPolicy<P>::Type;
    ResizeBlock<P> block;
    ResizeBlock<Quick> quick;
    const size_t bytes = layOut<P>(Arena(nullptr), width, height, &block);
    const size_t quickBytes = layOut<Quick>(Arena(nullptr), width, height, &quick);
    return bytes > quickBytes ? bytes : quickBytes;
}

// The first column whose base index is not below `base`.
inline int firstFrom(const int* index, int width, int base) {
    int low = 0, high = width;
    while (low < high) {
        const int middle = (low + high) / 2;
        if (index[middle] < base)
            low = middle + 1;
        else
            high = middle;
    }
    return low;
}

// The same, where it is most likely one of `most` columns from x on, or the one behind them.
inline int firstNear(const int* index, int width, int base, int x, int most) {
    if ((x > 0 && index[x - 1] >= base) || (x + most < width && index[x + most] < base))
        return firstFrom(index, width, base);
    const int last = x + most < width ? x + most : width;
    int before = 0;
    for (int i = x; i < last; ++i) before += index[i] < base; // a loop that ends early would end unforeseen
    return x + before;
}

// Moves begin and end of a bound from the source columns that are read to the block's columns: to those that have a tap
// in between. Taps beyond the row are its end voxels.
template <class P> void moveRange(const ResizeBlock<P>& block, RowBound* bound) {
    const int* const index = block.index;
    const int width = block.width;
    if (bound->begin >= bound->end) {
        bound->begin = width;
        bound->end = 0;
        return;
    }
    // Columns lie evenly, but for rounding.
    const auto about = [&](int base) { return int((double(base) - index[0]) * block.columnsPerVoxel); };
    const int margin = int(block.columnsPerVoxel) + 2;
    if (bound->begin > 0) {
        const int base = block.firstColumn + bound->begin - P::kFirstTap - P::kTaps + 1;
        int x = about(base) - margin;
        x = x < 0 ? 0 : x < width ? x : width;
        bound->begin = firstNear(index, width, base, x, 2 * margin + 1);
    }
    if (bound->end < block.usedColumns) {
        const int base = block.firstColumn + bound->end - P::kFirstTap;
        int x = about(base) - margin;
        x = x < 0 ? 0 : x < width ? x : width;
        bound->end = firstNear(index, width, base, x, 2 * margin + 1);
    } else {
        bound->end = width;
    }
}
template <class P> void moveRange(const ResizeBlock<P>&, FarBound*) {}

// A source row's columns, in groups, border and interior alike.
template <class P>
void groupedColumns(const ResizeBlock<P>& block, const typename P::Voxel* src, const typename P::Bound& bound,
                    Care care, typename P::RowInter* dst) {
    if constexpr (P::kGroup)
        P::rowGroups(*block.kernels, src, dst, block.groups, block.groupCount, block.groupWidth, block.weights,
                     block.guarded, bound, care);
}
// The same, by row kernels that see to the border themselves.
template <class P>
void wholeRow(const ResizeBlock<P>& block, const typename P::Voxel* src, const typename P::Bound& bound, Care care,
              typename P::RowInter* dst, const Part& part) {
    if constexpr (P::kWholeRows)
        P::row(*block.kernels, src, dst + part.begin, block.index + part.begin, block.weights + part.begin,
               block.weightStep, block.guarded + part.begin, countedFrom(bound, part.begin), care,
               part.end - part.begin, block.axis[0].size);
}
// The same, the interior by itself.
template <class P>
void singleColumns(const ResizeBlock<P>& block, const typename P::Voxel* src, const typename P::Bound& bound, Care care,
                   typename P::RowInter* dst, const Part& part) {
    const auto within = [&](int x) { return x < part.begin ? part.begin : x < part.end ? x : part.end; };
    const int interior = within(block.columns.interior);
    const int trailing = within(block.columns.trailing);
    if (trailing > interior)
        P::row(*block.kernels, src, dst + interior, block.index + interior, block.weights + interior, block.weightStep,
               block.guarded + interior, countedFrom(bound, interior), care, trailing - interior);
    borderColumns<P>(block, src, bound, care, dst, part.begin, interior);
    borderColumns<P>(block, src, bound, care, dst, trailing, part.end);
}

// Source rows are asked for ahead of time: a row to come soon; or, by passes that take them faster than they come, one
// further ahead, into L2, where the source is too large for caches, and smaller ones take a tenth longer that way. Cubic
// passes of small voxels are slow enough for rows to come by themselves.
template <class T> bool isFarSource(const AxisMap* axis) {
    return double(axis[0].size) * axis[1].size * axis[2].size * sizeof(T) >= 12 << 20;
}
// Into so many levels of caches, from the last on. (Functions that only do this are dropped where they are not inlined.)
template <int levels, class T> inline __attribute__((always_inline)) void prefetchRow(const T* from, int count) {
    for (ptrdiff_t x = 0; x < count; x += 64 / int(sizeof(T))) __builtin_prefetch(from + x, 0, levels);
}
template <class P> constexpr bool kAsksFar = kBrackets<P> || (P::kTaps == 2 && sizeof(typename P::Voxel) < 4);
template <class P> constexpr int kAskRows = kAsksFar<P> ? 32 / int(sizeof(typename P::Voxel)) : 2;
template <class P> bool asksAhead(const AxisMap* axis) {
    if (!kAsksFar<P>) return sizeof(typename P::Voxel) == 4;
    return isFarSource<typename P::Voxel>(axis);
}
template <class P>
inline __attribute__((always_inline)) void askAhead(const ResizeBlock<P>& block, const typename P::Voxel* src) {
    constexpr int kLevels = kAsksFar<P> ? 2 : 3;
    prefetchRow<kLevels>(src + block.firstColumn, block.usedColumns);
}

// A source row, resampled along x, and the bounds of the result. (Bounds are written in place: a copy of a record waits
// until the stores of its fields are through.)
template <class P>
void resampleRow(const ResizeBlock<P>& block, const typename P::Voxel* src, typename P::RowInter* dst,
                 typename P::Bound* bound) {
    if constexpr (kBrackets<P>) {
        block.kernels->rowGroups(src, block.groups, block.groupWidth, block.weights, dst, block.width);
    } else {
        P::sourceBound(*block.kernels, src + block.firstColumn, block.usedColumns, bound);
        moveRange(block, bound);
        const Care care = P::rowCare(*bound, block.exactColumns, block.columnGrowth);
        if (block.groupWidth) {
            groupedColumns(block, src, *bound, care, dst);
        } else {
            const Part part = partOf(*bound, block.width);
            clearOutside(part, dst, block.width);
            if (block.wholeRows && part.begin < part.end)
                wholeRow(block, src, *bound, care, dst, part);
            else
                singleColumns(block, src, *bound, care, dst, part);
        }
        grow(*bound, block.columnGrowth, bound);
    }
}

} // namespace

template <class P, bool border>
void planeRows(const ResizeBlock<P>& block, Slice<const typename P::Voxel> src, int p, int begin, int end,
               RowTags<P>* tags) {
    typename P::Inter* const plane = block.ringPlane(p);
    typename P::Bound* const bounds = block.ringBounds(p);
    for (int y = begin; y < end; ++y) {
        int taps[P::kTaps];
        if (border)
            P::borderTaps(block.axis[1], block.rowBase[y], taps);
        else
            for (int k = 0; k < P::kTaps; ++k) taps[k] = block.rowBase[y] + P::kFirstTap + k;

        // Rows that the last destination row left in the ring stay; the others are resampled along x.
        typename P::Bound bound;
        for (int k = 0; k < P::kTaps; ++k) {
            const int slot = taps[k] & (P::kTaps - 1);
            if (tags->row[slot] != taps[k]) {
                tags->row[slot] = taps[k];
                if (block.asksAhead) askAhead(block, src.row(block.axis[1].clamped(taps[k] + kAskRows<P>)));
                resampleRow(block, src.row(taps[k]), block.ringRow(taps[k]), &tags->bound[slot]);
            }
            join(&bound, tags->bound[slot]);
        }
        const typename P::Weights& weights = block.rowWeights[y];
        typename P::Inter* const row = plane + ptrdiff_t(y) * block.stride;
        const Part part = partOf(bound, block.width);
        clearOutside(part, row, block.width);
        if (part.begin < part.end) {
            const typename P::RowInter* rows[P::kTaps];
            for (int k = 0; k < P::kTaps; ++k) rows[k] = block.ringRow(taps[k]) + part.begin;
            P::column(*block.kernels, rows, weights, countedFrom(bound, part.begin), row + part.begin,
                      part.end - part.begin);
        }
        grow(bound, P::growth(weights), &bounds[y]);
    }
}

constexpr auto ownrResize8plL = &planeRows<Linear<uint8_t>, false>;
constexpr auto ownrResize16plL = &planeRows<Linear<uint16_t>, false>;
constexpr auto ownrResize32plL = &planeRows<Linear<float>, false>;
constexpr auto ownrResize8plC = &planeRows<Cubic<uint8_t>, false>;
constexpr auto ownrResize16plC = &planeRows<Cubic<uint16_t>, false>;
constexpr auto ownrResize32plC = &planeRows<Cubic<float>, false>;

namespace {

// The routines of a family, interior and border.
template <class P> struct Routines {
    decltype(&planeRows<P, false>) interiorRows;
    decltype(&planeRows<P, true>) borderRows;
    decltype(&depthBorder<P>) borderSlice;
};
template <class P> constexpr Routines<P> kRoutines = {&planeRows<P, false>, &planeRows<P, true>, &depthBorder<P>};
template <>
constexpr Routines<Linear<uint8_t>> kRoutines<Linear<uint8_t>> = {ownrResize8plL, ownpr_CalcBorder8plL,
                                                                  ownpr_DepBorder8plL};
template <>
constexpr Routines<Linear<uint16_t>> kRoutines<Linear<uint16_t>> = {ownrResize16plL, ownpr_CalcBorder16plL,
                                                                    ownpr_DepBorder16plL};
template <>
constexpr Routines<Linear<float>> kRoutines<Linear<float>> = {ownrResize32plL, ownpr_CalcBorder32plL,
                                                              ownpr_DepBorder32plL};
template <>
constexpr Routines<Cubic<uint8_t>> kRoutines<Cubic<uint8_t>> = {ownrResize8plC, ownpr_CalcBorder8plC,
                                                                ownpr_DepBorder8plC};
template <>
constexpr Routines<Cubic<uint16_t>> kRoutines<Cubic<uint16_t>> = {ownrResize16plC, ownpr_CalcBorder16plC,
                                                                  ownpr_DepBorder16plC};
template <>
constexpr Routines<Cubic<float>> kRoutines<Cubic<float>> = {ownrResize32plC, ownpr_CalcBorder32plC,
                                                            ownpr_DepBorder32plC};

// Positions are monotonic, so those inside are one run; whatever follows it counts as trailing.
template <class P> Runs divide(const int* base, int count, int size) {
    Runs runs;
    runs.interior = 0;
    while (runs.interior < count && !tapsInside<P>(base[runs.interior], size)) ++runs.interior;
    runs.trailing = runs.interior;
    while (runs.trailing < count && tapsInside<P>(base[runs.trailing], size)) ++runs.trailing;
    return runs;
}

template <class P> void tabulateColumns(const P& policy, ResizeBlock<P>* block, int first) {
    block->exactColumns = true;
    block->columnGrowth = {1, 1, 1};
    for (int x = 0; x < block->width; ++x) {
        const AxisMap::Sample s = block->axis[0].sample(first + x);
        block->index[x] = s.base;
        const typename P::Weights weights = policy.weights(s.fraction);
        P::store(weights, block->weights + x, block->weightStep);
        block->columnGrowth = together(block->columnGrowth, P::growth(weights));
        if constexpr (sizeof(typename P::Inter) == 4) {
            const bool exact = P::exactColumn(weights);
            block->guarded[x] = exact ? 0 : -1;
            block->exactColumns = block->exactColumns && exact;
        }
    }
    block->columns = divide<P>(block->index, block->width, block->axis[0].size);
    // Columns of the interior join the border's few until those make a whole group.
    Runs& runs = block->columns;
    const int whole = least(block->width, kBorderColumns);
    if (runs.interior > 0 && runs.interior < whole) runs.interior = whole;
    if (runs.trailing < block->width && runs.trailing > block->width - whole) runs.trailing = block->width - whole;
    if (runs.trailing < runs.interior) runs.trailing = runs.interior;
    const AxisMap& axis = block->axis[0];
    block->firstColumn = axis.clamped(block->index[0] + P::kFirstTap);
    const int last = axis.clamped(block->index[block->width - 1] + P::kFirstTap + P::kTaps - 1);
    block->usedColumns = last - block->firstColumn + 1;
    const int voxels = block->index[block->width - 1] - block->index[0];
    block->columnsPerVoxel = voxels > 0 ? (block->width - 1) / double(voxels) : 0;
    block->groupWidth = 0;
    if constexpr (P::kGroup) {
        for (int x = block->width; P::kGroup == 8 && x < block->weightStep; ++x) {
            block->weights[x] = 0;
            block->guarded[x] = 0;
        }
        if (block->kernels->rowGroups)
            block->groupWidth = P::group(block->index, block->weights, block->width, axis.size, block->groups);
    }
    block->wholeRows = false;
    if constexpr (P::kWholeRows) {
        const int reach = P::reach(*block->kernels);
        block->wholeRows = reach > 0 && block->width >= 16 && axis.size < 1 << 30;
        for (int x = 0; x + 15 < block->width; ++x)
            block->wholeRows = block->wholeRows && block->index[x + 15] - block->index[x] + P::kTaps <= reach;
    }
}

template <class P> void tabulateRows(const P& policy, ResizeBlock<P>* block, int first) {
    for (int y = 0; y < block->height; ++y) {
        const AxisMap::Sample s = block->axis[1].sample(first + y);
        block->rowBase[y] = s.base;
        block->rowWeights[y] = policy.weights(s.fraction);
    }
    block->rows = divide<P>(block->rowBase, block->height, block->axis[1].size);
    block->asksAhead = asksAhead<P>(block->axis);
}

// One source plane, resampled into its slot of the ring of planes.
template <class P> void resamplePlane(const ResizeBlock<P>& block, Slice<const typename P::Voxel> src, int p) {
    RowTags<P> tags;
    for (int k = 0; k < P::kTaps; ++k) tags.row[k] = -1;
    kRoutines<P>.borderRows(block, src, p, 0, block.rows.interior, &tags);
    kRoutines<P>.interiorRows(block, src, p, block.rows.interior, block.rows.trailing, &tags);
    kRoutines<P>.borderRows(block, src, p, block.rows.trailing, block.height, &tags);
}

// Destination slices [first, first + count) of a block of columns and rows; how many of them were done. A quick policy
// gives up once it had to do too much of a slice again.
template <class P, class Source, class Destination>
int resizeSlices(const P& policy, const ResizeBlock<P>& block, const Source& src, const Destination& dst, int firstX,
                 int firstY, int first, int count) {
    int tag[P::kTaps];
    for (int k = 0; k < P::kTaps; ++k) tag[k] = -1;
    const AxisMap& axis = block.axis[2];
    for (int i = 0; i < count; ++i) {
        const int z = first + i;
        const AxisMap::Sample s = axis.sample(z);
        const bool inside = tapsInside<P>(s.base, axis.size);
        DepthTaps<P> taps;
        taps.weights = policy.weights(s.fraction);
        if (inside)
            for (int k = 0; k < P::kTaps; ++k) taps.plane[k] = s.base + P::kFirstTap + k;
        else
            P::borderTaps(axis, s.base, taps.plane);
        for (int k = 0; k < P::kTaps; ++k) {
            const int plane = taps.plane[k];
            const int slot = plane & (P::kTaps - 1);
            taps.src[k] = src.slice(plane);
            if (tag[slot] != plane) resamplePlane(block, taps.src[k], plane);
            tag[slot] = plane;
        }
        Slice<typename P::Voxel> out = dst.slice(z);
        out.base = out.row(firstY) + firstX;
        const int again = inside ? depthRows(block, taps, out) : kRoutines<P>.borderSlice(block, s.base, taps, out);
        if (P::kMostAgain && again > block.width * block.height / P::kMostAgain) return i + 1;
    }
    return count;
}

// Blocks have as many rows as keep the ring of planes in L2.
constexpr size_t kRingBytes = 512 << 10;

// Columns and rows of a block, within the destination range.
struct BlockArea {
    int x, y, columns, rows;
};

// Slices of a share for one block; how many were done.
template <class P, class Source, class Destination>
int resizeBlock(const P& policy, Level level, const Source& src, ZenrVolume srcVolume, const Destination& dst,
                const ResizeGeometry& g, const BlockArea& area, int firstSlice, int sliceCount,
                unsigned char* scratch) {
    ResizeBlock<P> block;
    block.kernels = &kernelsOf<P>(level);
    block.axis[0] = {g.inverse[0], g.offset[0], srcVolume.width};
    block.axis[1] = {g.inverse[1], g.offset[1], srcVolume.height};
    block.axis[2] = {g.inverse[2], g.offset[2], srcVolume.depth};
    layOut<P>(Arena(scratch), area.columns, area.rows, &block);
    tabulateColumns(policy, &block, g.first[0] + area.x);
    tabulateRows(policy, &block, g.first[1] + area.y);
    return resizeSlices(policy, block, src, dst, g.first[0] + area.x, g.first[1] + area.y, firstSlice, sliceCount);
}

// A thread's share of slices, within its share of the work memory.
template <class P, class Source, class Destination>
void resizeShare(const P& policy, Level level, const Source& src, ZenrVolume srcVolume, const Destination& dst,
                 const ResizeGeometry& g, int firstSlice, int sliceCount, unsigned char* scratch, size_t bytes) {
    if (sliceCount < 1) return;
    int columns = least(g.count[0], kMostColumns);
    while (scratchBytes<P>(columns, 1) > bytes) columns = (columns + 1) / 2;
    const size_t ringRow = P::kTaps * roundUp(size_t(columns), kAlign) * sizeof(typename P::Inter);
    int rows = kRingBytes / ringRow > 8 ? int(kRingBytes / ringRow) : 8;
    // All of a size, and none for a few rows more: each block begins with rows that the one before had, too.
    const int blocks = int((g.count[1] + (long long)rows - 1 - rows / 8) / rows);
    rows = blocks > 1 ? int((g.count[1] + (long long)blocks - 1) / blocks) : g.count[1];
    while (scratchBytes<P>(columns, rows) > bytes) --rows;

    for (int x = 0; x < g.count[0]; x += least(columns, g.count[0] - x)) {
        for (int y = 0; y < g.count[1]; y += least(rows, g.count[1] - y)) {
            const BlockArea area = {x, y, least(columns, g.count[0] - x), least(rows, g.count[1] - y)};
            int done = 0;
            if (hasQuick<P>(level))
                done = resizeBlock(typename QuickPolicy<P>::Type{{policy.mode}}, level, src, srcVolume, dst, g, area,
                                   firstSlice, sliceCount, scratch);
            if (done < sliceCount)
                resizeBlock(policy, level, src, srcVolume, dst, g, area, firstSlice + done, sliceCount - done, scratch);
        }
    }
}

// Calls share(first slice, count, thread, team): for every thread of a team of at most maxTeam, or once.
template <class Share> void splitSlices(const ResizeGeometry& g, size_t maxTeam, const Share& share) {
    const bool small = g.count[0] < 16 || g.count[1] < 16 || g.count[2] < 16;
    if (small || maxTeam < 2 || ownGetNumThreads() < 2)
        share(g.first[2], g.count[2], 0, 1);
    else
        parallelTeam(g.count[2], int(maxTeam < 0x7FFF ? maxTeam : 0x7FFF),
                     [&](Range range, int t, int team) { share(g.first[2] + range.begin, range.count, t, team); });
}

template <class P, class Source, class Destination>
ZenStatus resizeInterpolated(const P& policy, Level level, const Source& src, ZenrVolume srcVolume,
                             const Destination& dst, const ResizeGeometry& g, unsigned char* scratch, size_t bytes) {
    // The smallest block of a thread; a team is kept to what the memory has room for.
    const size_t smallest = scratchBytes<P>(least(g.count[0], kAlign), 1);
    splitSlices(g, bytes / smallest, [&](int first, int count, int t, int team) {
        const WideScope scope(level);
        const size_t part = bytes / size_t(team) / kAlign * kAlign;
        resizeShare(policy, level, src, srcVolume, dst, g, first, count, scratch + part * size_t(t), part);
    });
    return zenStsNoErr;
}

template <class T> const NearestKernels<T>& nearestOf(Level level) {
    if constexpr (sizeof(T) == 1)
        return nearestKernels(level).u8;
    else if constexpr (sizeof(T) == 2)
        return nearestKernels(level).u16;
    else
        return nearestKernels(level).f32;
}

inline ZenStatus copyPlane(const uint8_t* src, uint8_t* dst, int step, ZenrSize size) {
    return zeniCopy_8u_C1R(src, step, dst, step, size);
}
inline ZenStatus copyPlane(const uint16_t* src, uint16_t* dst, int step, ZenrSize size) {
    return zeniCopy_16u_C1R(src, step, dst, step, size);
}
inline ZenStatus copyPlane(const float* src, float* dst, int step, ZenrSize size) {
    return zeniCopy_32f_C1R(src, step, dst, step, size);
}

// Reductions leave rows out, and what fetches lines unasked starts anew at each row. Where the source is too large for
// caches, rows are asked for so many destination rows ahead; enlargements and small sources take a tenth longer that way.
constexpr int kRowsAhead = 8;

// A block's columns and rows in the source. Columns are in wide groups where `registers`, how many a window has, is not 0;
// in groups where `share`, how many of them share a window, is not 0; otherwise the table has them one by one.
template <class T> struct NearestBlock {
    const NearestKernels<T>* kernels;
    int firstX, width;
    int firstY, height;
    int registers;
    int share;
    int* columns;
    int* rows;
    int firstColumn, endColumn; // of the source
    int rowsAhead;

    template <class Group> Group* groups() const { return reinterpret_cast<Group*>(columns); }
    bool grouped() const { return registers || share; }
    void copyRow(const T* src, T* dst) const {
        if (registers)
            kernels->rowWide(src, groups<NearestWide<T>>(), registers, dst, width);
        else if (share)
            kernels->rowGroups(src, groups<NearestGroup<T>>(), share, dst, width);
        else
            kernels->row(src, columns, dst, width);
    }
};

template <class T> void tabulate(const AxisMap* axis, const int* first, NearestBlock<T>* block) {
    const auto column = [&](int x) { return axis[0].nearest(first[0] + block->firstX + x); };
    const NearestKernels<T>& k = *block->kernels;
    block->registers = block->share = 0;
    if (k.rowWide)
        block->registers = groupNearest(column, block->width, axis[0].size, block->template groups<NearestWide<T>>());
    if (!block->registers && k.rowGroups)
        block->share = groupNearest(column, block->width, axis[0].size, block->template groups<NearestGroup<T>>());
    if (!block->grouped())
        for (int i = 0; i < block->width; ++i) block->columns[i] = column(i);
    for (int i = 0; i < block->height; ++i) block->rows[i] = axis[1].nearest(first[1] + block->firstY + i);
    block->firstColumn = column(0);
    block->endColumn = column(block->width - 1) + 1;
    block->rowsAhead = axis[1].inverse > 1 && isFarSource<T>(axis) ? kRowsAhead : 0;
}

// A share of slices of a block.
template <class T, class Source, class Destination>
ZenStatus nearestSlices(const NearestBlock<T>& block, const Source& src, const AxisMap& depth, const Destination& dst,
                        const int* origin, int first, int count) {
    const int firstX = origin[0] + block.firstX, firstY = origin[1] + block.firstY;
    const int width = block.width, height = block.height;
    const int* const rows = block.rows;
    int last = -1;
    for (int i = 0; i < count; ++i) {
        const int z = first + i;
        const int plane = depth.nearest(z);
        Slice<T> out = dst.slice(z);
        out.base = out.row(firstY) + firstX;
        // What the row or the slice before it had, too, is copied. In groups it is gathered again: that takes no longer, reads
        // less memory than a slice has, and does not wait for the stores of the row before.
        if (plane == last && !block.grouped()) {
            const T* const before = dst.slice(z - 1).row(firstY) + firstX;
            const ZenStatus status = copyPlane(before, out.base, int(out.step * ptrdiff_t(sizeof(T))), {width, height});
            if (status != zenStsNoErr) return status;
            continue;
        }
        last = plane;
        const Slice<const T> in = src.slice(plane);
        for (int y = 0; y < height; ++y) {
            T* const row = out.row(y);
            if (block.rowsAhead && y + block.rowsAhead < height)
                prefetchRow<3>(in.row(rows[y + block.rowsAhead]) + block.firstColumn,
                               block.endColumn - block.firstColumn);
            if (!block.grouped() && y > 0 && rows[y] == rows[y - 1])
                __builtin_memcpy(row, out.row(y - 1), size_t(width) * sizeof(T));
            else
                block.copyRow(in.row(rows[y]), row);
        }
    }
    return zenStsNoErr;
}

template <class T, class Source, class Destination>
ZenStatus resizeNearest(Level level, const Source& src, ZenrVolume srcVolume, const Destination& dst,
                        const ResizeGeometry& g, unsigned char* scratch, size_t bytes) {
    const AxisMap axis[3] = {{g.inverse[0], g.offset[0], srcVolume.width},
                             {g.inverse[1], g.offset[1], srcVolume.height},
                             {g.inverse[2], g.offset[2], srcVolume.depth}};
    // The tables are shared by all threads. They hold all columns, in steps of sixteen, and all rows, unless the reported
    // size reached its limit.
    const long long entries = (long long)(bytes / sizeof(int));
    const long long all = (g.count[0] + 15ll) & ~15ll;
    const int tableColumns = least(all, all + g.count[1] <= entries ? all : entries / 32 * 16);
    NearestBlock<T> block;
    block.kernels = &nearestOf<T>(level);
    block.columns = reinterpret_cast<int*>(scratch);
    block.rows = block.columns + tableColumns;
    const int tableRows = least(g.count[1], entries - tableColumns);

    ZenStatus status = zenStsNoErr;
    for (int x = 0; x < g.count[0] && !status; x += least(tableColumns, g.count[0] - x)) {
        block.firstX = x;
        block.width = least(tableColumns, g.count[0] - x);
        for (int y = 0; y < g.count[1] && !status; y += least(tableRows, g.count[1] - y)) {
            block.firstY = y;
            block.height = least(tableRows, g.count[1] - y);
            tabulate(axis, g.first, &block);
            splitSlices(g, size_t(ownGetNumThreads() < 1 ? 1 : ownGetNumThreads()),
                        [&](int first, int count, int, int) {
                            const WideScope scope(level);
                            const ZenStatus mine = nearestSlices(block, src, axis[2], dst, g.first, first, count);
#pragma omp atomic write
                            status = mine;
                        });
        }
    }
    return status;
}

} // namespace

template <class T, class Source, class Destination>
ZenStatus resizeVolume(Level level, Source src, ZenrVolume srcVolume, Destination dst, const ResizeGeometry& geometry,
                       int mode, unsigned char* buffer, size_t bytes) {
    const size_t skip = (kAlign - reinterpret_cast<uintptr_t>(buffer) % kAlign) % kAlign;
    buffer += skip;
    bytes -= skip;
    if (mode == kNearest) return resizeNearest<T>(level, src, srcVolume, dst, geometry, buffer, bytes);
    if (mode == kLinear)
        return resizeInterpolated(Linear<T>{mode}, level, src, srcVolume, dst, geometry, buffer, bytes);
    return resizeInterpolated(Cubic<T>{mode}, level, src, srcVolume, dst, geometry, buffer, bytes);
}

template ZenStatus resizeVolume<uint8_t>(Level, BlockVolume<const uint8_t>, ZenrVolume, BlockVolume<uint8_t>,
                                         const ResizeGeometry&, int, unsigned char*, size_t);
template ZenStatus resizeVolume<uint16_t>(Level, BlockVolume<const uint16_t>, ZenrVolume, BlockVolume<uint16_t>,
                                          const ResizeGeometry&, int, unsigned char*, size_t);
template ZenStatus resizeVolume<float>(Level, BlockVolume<const float>, ZenrVolume, BlockVolume<float>,
                                       const ResizeGeometry&, int, unsigned char*, size_t);
template ZenStatus resizeVolume<uint8_t>(Level, PlaneVolume<const uint8_t>, ZenrVolume, PlaneVolume<uint8_t>,
                                         const ResizeGeometry&, int, unsigned char*, size_t);
template ZenStatus resizeVolume<uint16_t>(Level, PlaneVolume<const uint16_t>, ZenrVolume, PlaneVolume<uint16_t>,
                                          const ResizeGeometry&, int, unsigned char*, size_t);
template ZenStatus resizeVolume<float>(Level, PlaneVolume<const float>, ZenrVolume, PlaneVolume<float>,
                                       const ResizeGeometry&, int, unsigned char*, size_t);

size_t resizeBufferBytes(ZenrBox dstRoi, int mode) {
    // The sum of the table, weight and intermediate areas, in 64 bits: with boxes of up to 2^31 it passes 2^63 only
    // where it is far beyond the limit anyway, so the product of the two dimensions is limited first.
    const long long w = dstRoi.width, h = dstRoi.height, d = dstRoi.depth;
    const auto up = [](long long n, long long multiple) { return (n + multiple - 1) & ~(multiple - 1); };
    const auto low = [](long long n) { return n & ~63ll; };
    constexpr long long kMost = 0x7FFFFFFF;
    long long s;
    if (mode == kNearest) {
        s = (((w + 15) >> 4) + ((h + 15) >> 4) + ((d + 15) >> 4)) * 64;
    } else {
        const int taps = mode == kLinear ? 2 : 4;
        const long long perRow = taps * up(w, 64);
        if (h > kMost / perRow) return kMost;
        const long long common = up(w, 16) + up(h, 16) + up(d, 16) + up(h, 64) + up(w, 64) + up(d, 64) + h * perRow;
        if (mode == kLinear)
            s = 4 * (common + low(2 * w + 127) + low(8 * (w + h) + 127));
        else
            s = 4 * (common + 2 * low(4 * w + 255) + low(4 * h + 255) + low(4 * d + 255) + low(48 * (w + h) + 255));
    }
    return size_t(s + 64 < kMost ? s + 64 : kMost);
}

size_t resizeScratchBytes(int voxelBytes, int mode, int columns, int rows) {
    if (mode == kLinear)
        return voxelBytes == 4 ? scratchBytes<Linear<float>>(columns, rows)
                               : scratchBytes<Linear<uint16_t>>(columns, rows);
    return scratchBytes<Cubic<float>>(columns, rows);
}

} // namespace zenr
