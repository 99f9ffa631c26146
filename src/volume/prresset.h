// Volume resize, inside: the geometry of a call, the interpolation policies, and the routine per type and layout.
#pragma once
#include <stddef.h>
#include <stdint.h>

#include "frame/dispatch.h"
#include "volume/pirescub.h"
#include "volume/pireslin.h"
#include "volume/piresnn.h"
#include "volume/presgroup.h"
#include "volume/prvolume.h"

namespace zenr {

// What a call's factors, shifts and boxes come to; axes x, y, z.
struct ResizeGeometry {
    double inverse[3]; // 1 / factor
    double offset[3];  // -shift / factor
    int first[3];      // destination range
    int end[3];        // exclusive
    int count[3];
};

// Trims the boxes and fills the record; zenStsRoiOutside or zenStsNoOperation when nothing is left. For well-formed
// arguments.
ZenStatus ownrPreludeToResize(ZenrVolume volume, ZenrBox src, ZenrBox dst, const double factor[3],
                              const double shift[3], ResizeGeometry* geometry);

// Destination coordinates of one axis in the source.
struct AxisMap {
    double inverse;
    double offset;
    int size; // of the source volume

    // Voxel centres lie at half-integers, hence the halves. `base` is the voxel at or before the position, kept within
    // three voxels of the volume, which changes no tap: taps are clamped to the volume. A position that is no number
    // (from an infinite inverse) is taken for one before the volume.
    struct Sample {
        int base;
        float fraction;
    };
    Sample sample(int d) const {
        const double s = (d + 0.5) * inverse - 0.5 + offset;
        const double whole = __builtin_floor(s);
        const float fraction = float(s - whole);
        const double most = double(size) + 2;
        const int base = whole >= -3 ? (whole <= most           ? int(whole)
                                        : size > 0x7FFFFFFF - 2 ? 0x7FFFFFFF
                                                                : size + 2)
                                     : -3;
        return {base, fraction == fraction ? fraction : 0.f};
    }

    // The epsilon gives a destination centre on a boundary between two source voxels the lower one.
    int nearest(int d) const {
        const double s = (d + 0.5) * inverse - 1e-10 + offset;
        return s >= 1 ? (s < size ? int(s) : size - 1) : 0;
    }

    int clamped(int tap) const { return tap < 0 ? 0 : tap > size - 1 ? size - 1 : tap; }
};

// Blocks are no wider than this.
constexpr int kMostColumns = 1024;

template <class P> struct ResizeBlock;

// Interpolation policies. A policy knows its number of taps, how a base index becomes taps, and how its passes are
// called; the worker knows everything else.

// The border rule of linear taps: before the volume both are its first voxel, after it both its last.
inline void linearBorderTaps(const AxisMap& axis, int base, int* taps) {
    taps[0] = axis.clamped(base);
    taps[1] = base < 0 ? 0 : axis.clamped(base + 1);
}

// Integers in fixed point.
template <class T> struct Linear {
    using Voxel = T;
    using Inter = uint16_t;    // of planes resampled along x and y
    using RowInter = uint16_t; // of rows resampled along x
    using Weight = uint16_t;   // of a row's column, as stored
    using Weights = uint16_t;  // of a destination row or slice
    using Bound = FarBound;
    using Kernels = LinearKernels<T>;
    static constexpr int kTaps = 2;
    static constexpr int kFirstTap = 0; // relative to the base index
    static constexpr int kWeightsPerColumn = 1;
    static constexpr bool kDoubts = false;    // whether the depth pass leaves voxels to be done again
    static constexpr int kMostAgain = 0;      // of so many voxels one may be done twice; 0 where none is
    static constexpr bool kWholeRows = false; // whether row kernels may see to the border themselves
    static constexpr int kGroup = 16;         // columns of a group; 0 if rows are never done in groups
    using Group = FixedGroup;
    int mode;

    Weights weights(float f) const { return weightQ14(f); }
    static void store(const Weights& w, Weight* column, int) { *column = w; }
    static void borderTaps(const AxisMap& axis, int base, int* taps) { linearBorderTaps(axis, base, taps); }
    static Growth growth(const Weights&) { return {1, 1, 1}; }
    static Care rowCare(const Bound&, bool, const Growth&) { return Care::none; }
    static void sourceBound(const Kernels& k, const T* src, int n, Bound* bound) { bound->far = k.far(src, n); }
    static int group(const int* index, const Weight* weights, int n, int size, Group* groups) {
        return groupColumns<T>(index, weights, n, size, groups);
    }
    static void rowGroups(const Kernels& k, const T* src, RowInter* dst, const Group* groups, int count, int columns,
                          const Weight*, const int*, const Bound& bound, Care) {
        k.rowGroups(src, groups, count, columns, bound.far, dst);
    }
    static void row(const Kernels& k, const T* src, RowInter* dst, const int* index, const Weight* weights, int,
                    const int*, const Bound&, Care, int n) {
        k.row(src, index, weights, dst, n);
    }
    static void column(const Kernels& k, const RowInter* const* r, const Weights& w, const Bound& bound, Inter* dst,
                       int n) {
        k.col(r[0], r[1], w, bound.far, dst, n);
    }
    static void depth(const Kernels& k, const Inter* const* p, const Weights& w, const Bound& bound, T* dst, int n) {
        k.dep(p[0], p[1], w, bound.far, dst, n);
    }
};

template <> struct Linear<float> {
    using Voxel = float;
    using Inter = float;
    using RowInter = double;
    using Weight = double;
    using Weights = float;
    using Bound = RowBound;
    using Kernels = LinearKernels<float>;
    static constexpr int kTaps = 2;
    static constexpr int kFirstTap = 0;
    static constexpr int kWeightsPerColumn = 1;
    static constexpr bool kDoubts = false;
    static constexpr int kMostAgain = 0;
    static constexpr bool kWholeRows = false;
    static constexpr int kGroup = 8;
    using Group = FloatGroup;
    int mode;

    Weights weights(float f) const { return f; }
    static void store(const Weights& w, Weight* column, int) { *column = w; }
    static void borderTaps(const AxisMap& axis, int base, int* taps) { linearBorderTaps(axis, base, taps); }

    // No pass makes an element larger than its operands, nor smaller than its share of the least; sums are multiples of
    // the last place of f, which also is that of 1 - f. Weights next to 0 and 1 do not keep the latter, and the half-way
    // test does not serve them.
    static Growth growth(const Weights& w) {
        if (w == 0) return {1, 1, 1};
        const float rest = 1 - w;
        const float share = w < rest ? w : rest;
        if (!(share >= 0x1p-10f)) return {1, 0, 0};
        return {1, share * 0.99f, isShort(w) ? 0x1p-10f : w * 0x1p-24f};
    }
    static Care halfwayCare(const Bound& b, const Growth& g) {
        return isNormal(grownLeast(b, g)) ? Care::halfway : Care::full;
    }
    static Care columnCare(const Bound& b, const Weights& w) {
        if (isShort(w)) return isClose(b) ? Care::none : Care::full;
        return halfwayCare(b, growth(w));
    }
    static Care rowCare(const Bound& b, bool exactColumns, const Growth& g) {
        return exactColumns && isClose(b) ? Care::none : halfwayCare(b, g);
    }
    static bool exactColumn(const Weights& w) { return isShort(w); }
    static void sourceBound(const Kernels& k, const float* src, int n, Bound* bound) { k.boundOf(src, n, bound); }
    static int group(const int* index, const Weight*, int n, int size, Group* groups) {
        return groupColumns(index, n, size, groups);
    }
    static void rowGroups(const Kernels& k, const float* src, RowInter* dst, const Group* groups, int count,
                          int columns, const Weight* weights, const int* guarded, const Bound& bound, Care care) {
        k.rowGroups(src, groups, count, columns, weights, guarded, bound, care, dst);
    }
    static void row(const Kernels& k, const float* src, RowInter* dst, const int* index, const Weight* weights, int,
                    const int* guarded, const Bound& bound, Care care, int n) {
        k.row(src, index, weights, guarded, bound, care, dst, n);
    }
    static void column(const Kernels& k, const RowInter* const* r, const Weights& w, const Bound& bound, Inter* dst,
                       int n) {
        k.col(r[0], r[1], w, bound, columnCare(bound, w), dst, n);
    }
    static void depth(const Kernels& k, const Inter* const* p, const Weights& w, const Bound& bound, float* dst,
                      int n) {
        k.dep(p[0], p[1], w, bound, columnCare(bound, w), dst, n);
    }
};

// The same passes in single precision; rows are always done in groups.
struct BracketLinear : Linear<float> {
    static constexpr int kMostAgain = 64; // rows have four times as many by then
    using RowInter = float;
    using Weight = float;
    using Bound = NoBound;
    using Kernels = BracketKernels;
    using Group = BracketGroup;
    static constexpr int kGroup = 16;

    static void store(const Weights& w, Weight* column, int) { *column = w; }
    static int group(const int* index, const Weight* weights, int n, int size, Group* groups) {
        return groupColumns(index, weights, n, size, groups);
    }
    static void column(const Kernels& k, const float* const* r, const Weights& w, const Bound&, float* dst, int n) {
        k.col(r[0], r[1], w, dst, n);
    }
    static int depth(const Kernels& k, const float* const* p, const Weights& w, const Bound&, float* dst, int n) {
        return k.dep(p[0], p[1], w, dst, n);
    }
};

template <class T> struct Cubic {
    using Voxel = T;
    using Inter = float;
    using RowInter = double;
    using Weight = double; // a float, in the type that sums run in
    struct Weights {
        float tap[4];
        float unit; // of which they are multiples: 1 to 2^-10, or 0 if those are too large
    };
    using Kernels = CubicKernels;
    static constexpr int kTaps = 4;
    static constexpr int kFirstTap = -1;
    static constexpr int kWeightsPerColumn = 4;
    using Bound = RowBound;
    static constexpr bool kDoubts = false;
    static constexpr int kMostAgain = 0;
    static constexpr bool kWholeRows = true;
    static constexpr int kGroup = 0;
    using Group = char;
    int mode;

    Weights weights(float f) const {
        Weights w;
        ownpi_CubicWeights(mode, &f, 1, w.tap);
        w.unit = 1;
        for (float tap : w.tap)
            while (w.unit != 0 && tap / w.unit != float(int(tap / w.unit))) w.unit = isShort(tap) ? w.unit / 2 : 0;
        return w;
    }
    template <class Element> static void store(const Weights& w, Element* column, int step) {
        for (int k = 0; k < 4; ++k) column[ptrdiff_t(k) * step] = w.tap[k];
    }

    // Each tap is clamped by itself, also in a volume of fewer than four voxels.
    static void borderTaps(const AxisMap& axis, int base, int* taps) {
        for (int k = 0; k < 4; ++k) taps[k] = axis.clamped(base - 1 + k);
    }

    // Sums are multiples of the weights' unit times that of the elements; as some weights are negative, sums may be of
    // any size below `most`. They are exact where they stay below 2^53 units.
    static Growth growth(const Weights& w) { return {kMostWeights, 0, w.unit}; }
    static Care columnCare(const RowBound& b, const Weights& w) {
        return b.most <= b.least * w.unit * 0x1p27f ? Care::none : Care::full;
    }
    static Care rowCare(const RowBound& b, bool exactColumns, const Growth&) {
        return exactColumns && isClose(b) ? Care::none : Care::full;
    }
    // Integer voxels: products of 8 or 16 bits with 24 bits of a weight, in sums of less than twice the largest voxel,
    // lose none of 53 bits unless a weight is tiny.
    static bool exactColumn(const Weights& w) {
        for (double tap : w.tap) {
            constexpr double kLeast = sizeof(T) == 1 ? 0x1p-21 : 0x1p-13;
            const bool tiny = tap != 0 && tap < kLeast && tap > -kLeast;
            if (sizeof(T) == 4 ? !isShort(tap) : tiny) return false;
        }
        return true;
    }
    static void sourceBound(const Kernels& k, const T* src, int n, RowBound* bound) {
        if constexpr (sizeof(T) == 1)
            k.bound8(src, n, bound);
        else if constexpr (sizeof(T) == 2)
            k.bound16(src, n, bound);
        else
            k.bound32(src, n, bound);
        bound->mixed = true; // as the sums are
    }
    static void row(const Kernels& k, const T* src, double* dst, const int* index, const double* weights,
                    int weightStep, const int* guarded, const RowBound& bound, Care care, int n, int size = 0) {
        if constexpr (sizeof(T) == 1)
            k.row8(src, dst, index, weights, weightStep, guarded, bound, care, size, n);
        else if constexpr (sizeof(T) == 2)
            k.row16(src, dst, index, weights, weightStep, guarded, bound, care, size, n);
        else
            k.row32(src, dst, index, weights, weightStep, guarded, bound, care, size, n);
    }
    static int reach(const Kernels& k) { return k.reach; }
    static void column(const Kernels& k, const double* const* r, const Weights& w, const RowBound& bound, float* dst,
                       int n) {
        k.col(r, w.tap, bound, columnCare(bound, w), dst, n);
    }
    static void depth(const Kernels& k, const float* const* p, const Weights& w, const RowBound& bound, T* dst, int n) {
        if constexpr (sizeof(T) == 1)
            k.dep8(p, w.tap, dst, n);
        else if constexpr (sizeof(T) == 2)
            k.dep16(p, w.tap, dst, n);
        else
            k.dep32(p, w.tap, bound, columnCare(bound, w), dst, n);
    }
};

// 8-bit voxels by sums in float, as far as those are certain.
struct QuickCubic : Cubic<uint8_t> {
    using RowInter = float;
    using Weight = float;
    using Kernels = QuickCubicKernels;

    static constexpr bool kDoubts = true;
    static constexpr int kMostAgain = 32;
    static constexpr bool kWholeRows = false;
    static bool exactColumn(const Weights&) { return true; }
    static void sourceBound(const Kernels& k, const uint8_t* src, int n, RowBound* bound) { k.bound(src, n, bound); }
    static void row(const Kernels& k, const uint8_t* src, float* dst, const int* index, const float* weights,
                    int weightStep, const int*, const RowBound&, Care, int n) {
        k.row(src, dst, index, weights, weightStep, n);
    }
    static void column(const Kernels& k, const float* const* r, const Weights& w, const RowBound&, float* dst, int n) {
        k.col(r, w.tap, dst, n);
    }
};

// The policy that is tried before another: it has the same results, in less time as long as few voxels are done again.
template <class P> struct QuickPolicy { using Type = P; };
template <> struct QuickPolicy<Linear<float>> { using Type = BracketLinear; };
template <> struct QuickPolicy<Cubic<uint8_t>> { using Type = QuickCubic; };

// Destination positions of an axis, divided by whether their taps lie inside the volume: [0, interior) before it,
// [interior, trailing) inside, [trailing, count) after it.
struct Runs {
    int interior;
    int trailing;
};
template <class P> constexpr bool tapsInside(int base, int size) {
    return base + P::kFirstTap >= 0 && base + P::kFirstTap + P::kTaps <= size;
}

// A block of destination columns and rows, with the tables and intermediates that its slices share. Source rows
// resampled along x stand in a ring of one row per tap, planes resampled along x and y in a ring of one plane per tap:
// source row r (plane p) in slot r (p) modulo the number of taps, so that what the next row or slice needs is found.
template <class P> struct ResizeBlock {
    using Inter = typename P::Inter;
    using RowInter = typename P::RowInter;
    using Bound = typename P::Bound;

    const typename P::Kernels* kernels;
    AxisMap axis[3];
    int width;  // destination columns
    int height; // destination rows
    int stride; // of rows of intermediates, in elements
    Runs columns;
    Runs rows;
    double columnsPerVoxel;
    bool wholeRows;  // their kernel sees to the border
    bool asksAhead;  // for source rows that are to come
    int firstColumn; // source columns that are read
    int usedColumns;
    int* index;                  // per column: base
    typename P::Weight* weights; // per column; those of the next tap are weightStep further on
    int weightStep;
    int* guarded;                    // per column, where intermediates are floats; see the row passes
    int* rowBase;                    // per row
    typename P::Weights* rowWeights; // per row
    RowInter* rowRing;
    Inter* planeRing;
    bool exactColumns;         // none of them is guarded
    Growth columnGrowth;       // of rows resampled along x
    typename P::Group* groups; // of columns, if groupWidth is not 0
    int groupCount;
    int groupWidth;     // columns that share a window
    Bound* planeBounds; // per row of each plane in the ring

    Bound* ringBounds(int p) const { return planeBounds + ptrdiff_t(p & (P::kTaps - 1)) * height; }
    RowInter* ringRow(int r) const { return rowRing + ptrdiff_t(r & (P::kTaps - 1)) * stride; }
    Inter* ringPlane(int p) const { return planeRing + ptrdiff_t(p & (P::kTaps - 1)) * stride * height; }
};

// The routine per type and layout. Reads all of the source volume, writes the geometry's destination range, uses at
// most `bytes` bytes of the buffer whatever the number of threads.
template <class T, class Source, class Destination>
ZenStatus resizeVolume(Level level, Source src, ZenrVolume srcVolume, Destination dst, const ResizeGeometry& geometry,
                       int mode, unsigned char* buffer, size_t bytes);

// Bytes of work memory of one thread for a destination box, as the size query adds them up, plus the 64 by which a
// buffer may be misaligned. A single thread and any team fit within this; what does not fit a signed 32-bit size is
// reported as the largest, and nothing beyond that is used.
size_t resizeBufferBytes(ZenrBox dstRoi, int mode);

// What a thread needs for blocks of `columns` by `rows`; the test of the size query compares.
size_t resizeScratchBytes(int voxelBytes, int mode, int columns, int rows);

} // namespace zenr
