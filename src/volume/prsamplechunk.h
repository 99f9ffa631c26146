// Chunks of voxels of warp and remap, stage by stage: what the modes share.
#pragma once
#include "volume/presround.h"
#include "volume/prsamplevoxel.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

inline constexpr int kChunk = 16;

// Positions of a chunk, all inside the box: kChunk numbers an axis, but for rows along x a single y and z.
struct Positions {
    const double* s[3];
    bool alongX = false;
};

// The stages of a chunk hand over through memory: vectors are stored and read voxel by voxel, and the other way round.
// The compiler would rather take vectors to pieces, which takes longer.
inline void stageDone() {
    asm volatile("" ::: "memory");
}

// What the sums of a voxel type run in. 8-bit voxels are rounded far more coarsely than floats are.
template <class T> struct RealOf { using Type = double; };
template <> struct RealOf<uint8_t> { using Type = float; };

// Rounded to a voxel; bits of *doubt are set where the sum's error leaves the result open.
//   32f  the error is at most 2^-50 of `size`
//   else at most `error`; sums may leave the range of the type
template <class T, class Real> inline T settled(Real sum, Real error, int* doubt) {
    constexpr int kMost = T(~T(0));
    const int low = int(sum + (Real(kHalfUp) - error));
    const int high = int(sum + (Real(kHalfUp) + error));
    *doubt |= low ^ high;
    return T(low < 0 ? 0 : low > kMost ? kMost : low);
}
template <> inline float settled<float, double>(double sum, double size, int* doubt) {
    return roundDoubtfully(sum, size, doubt);
}

// With infinite taps a weight decides between infinity and NaN by being 0 or next to it.
inline constexpr float kLargest = 3.4028234663852886e38f;

// Voxels by the definition: those of a mask.
inline constexpr unsigned kAll = (1u << kChunk) - 1;
template <class Policy, class T>
__attribute__((noinline)) void redo(const SampleSource<T>& src, const Positions& at, unsigned mask, T* out) {
    for (; mask; mask &= mask - 1) {
        const int x = __builtin_ctz(mask);
        const int other = at.alongX ? 0 : x;
        const double s[3] = {at.s[0][x], at.s[1][other], at.s[2][other]};
        out[x] = Policy::value(src, s);
    }
}
inline unsigned maskOf(const int* doubt) {
    unsigned mask = 0;
    for (int x = 0; x < kChunk; ++x) mask |= unsigned(doubt[x] != 0) << x;
    return mask;
}

struct Interval {
    int begin, end;
};

// ---- Rows along x of the source: y and z are the same for a whole run, as for scales, shifts and turns about x. ----
//
// The rows that a run takes part in are combined into one line first, each of its voxels once; then the line is
// interpolated along x. Sums are those of a chunk in another order, with as many roundings.

inline constexpr int kSpan = 192; // voxels of a line; runs that span more go through chunks

// A run: x positions (padded to whole chunks by repetition) and the place of the line.
struct Aligned {
    const double* x;
    int count;
    double y, z;
    int first, span; // voxels of the line along x, beyond the box's ends too
    Positions from(int i) const { return {{x + i, &y, &z}, true}; }
};

// Repeats the line's first and last voxels within the box beyond it.
template <class V, class T> inline void padLine(const SampleSource<T>& src, const Aligned& run, V* line) {
    const int begin = src.low[0] - run.first, end = src.high[0] + 1 - run.first;
    for (int i = 0; i < begin; ++i) line[i] = line[begin];
    for (int i = end; i < run.span; ++i) line[i] = line[end - 1];
}
template <class T> inline Interval lineInside(const SampleSource<T>& src, const Aligned& run) {
    const int begin = src.low[0] - run.first, end = src.high[0] + 1 - run.first;
    return {begin > 0 ? begin : 0, end < run.span ? end : run.span};
}

// body(i) for each i of a range, in blocks of a fixed length: the compiler's vectors are then no longer than a block and
// leave no rest. The last block may overlap the one before. What the body writes is none of what it reads.
template <class Body> inline void eachBlock(Interval range, const Body& body) {
    int i = range.begin;
    while (range.end - i >= kChunk) {
#pragma GCC ivdep
        for (int j = 0; j < kChunk; ++j) body(i + j);
        i += kChunk;
        if (i < range.end && range.end - i < kChunk) i = range.end - kChunk;
    }
    for (; i < range.end; ++i) body(i);
}

// Chunks of a run: whole ones straight into the row.
template <class T, class Chunk> inline void eachChunk(const Aligned& run, T* dst, const Chunk& chunk) {
    for (int x = 0; x < run.count; x += kChunk) {
        T out[kChunk];
        const bool whole = run.count - x >= kChunk;
        chunk(x, whole ? dst + x : out);
        for (int i = x; !whole && i < run.count; ++i) dst[i] = out[i - x];
    }
}

// a * b + c, where a rounding more or less does not matter.
template <class Real> inline Real multiplyAdd(Real a, Real b, Real c) {
#if defined(__FMA__)
    if constexpr (sizeof(Real) == 4)
        return __builtin_fmaf(a, b, c);
    else
        return __builtin_fma(a, b, c);
#else
    return a * b + c;
#endif
}

inline float sizeOf(float x) {
    return __builtin_fabsf(x);
}
inline float larger(float a, float b) {
    return a > b ? a : b;
}

// Base voxels and fractions along an axis, as axisBase gives them.
template <int count, class Real> inline void placeAxis(const double* s, int high, int* base, Real* fraction) {
    const double end = high;
    for (int x = 0; x < count; ++x) {
        const double snapped = s[x] + kSnap;
        const int i = int(snapped);
        base[x] = i < high ? i : high - 1;
        fraction[x] = Real(snapped >= end ? 1 : s[x] - i);
    }
}

} // namespace
} // namespace ZENR_LEVEL
} // namespace zenr
