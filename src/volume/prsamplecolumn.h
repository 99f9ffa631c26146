// Positions of rows side by side: one voxel of each, in registers.
#pragma once
#include "volume/prsamplevec.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

struct Column {
    Doubles s[3][kParts];
};

// The flags as bits, the first voxel's lowest.
inline unsigned bitsOf(const Flags* flags) {
    unsigned bits = 0;
    for (int p = 0; p < kParts; ++p) bits |= bitsOf(flags[p]) << (p * kLanes);
    return bits;
}

ZENR_INLINE void move(Column* at, const double advance[3]) {
#pragma GCC unroll 3
    for (int k = 0; k < 3; ++k)
#pragma GCC unroll 4
        for (int p = 0; p < kParts; ++p) at->s[k][p] += advance[k];
}

enum class Whereabouts { inside, edge, outside };

// Of this and the next columns, `count` in all. The last one is estimated, so near the box's edges nothing is said.
template <class T>
inline Whereabouts whereabouts(const SampleSource<T>& src, const Column& at, const double advance[3], int count) {
    constexpr double kSlack = 9.094947017729282e-13; // 2^-40; rounding makes up 2^-46 at the most
    Flags in[kParts], out[kParts];
    for (int p = 0; p < kParts; ++p) in[p] = ~Flags{}, out[p] = Flags{};
    for (int k = 0; k < 3; ++k) {
        const double way = (count - 1) * advance[k], low = src.low[k], high = src.high[k];
        for (int p = 0; p < kParts; ++p) {
            const Doubles a = at.s[k][p], b = a + way;
            const Doubles slack = ((a < 0 ? -a : a) + (b < 0 ? -b : b)) * kSlack;
            const Doubles least = (a < b ? a : b) - slack, most = (a < b ? b : a) + slack;
            in[p] &= (least >= low) & (most <= high);
            out[p] |= (most < low) | (least > high);
        }
    }
    constexpr unsigned kAll = (1u << kChunk) - 1;
    return bitsOf(in) == kAll ? Whereabouts::inside : bitsOf(out) == kAll ? Whereabouts::outside : Whereabouts::edge;
}

// Puts voxels that are outside somewhere inside, where they may be sampled for nothing. Returns their bits.
template <class T> inline unsigned putInside(const SampleSource<T>& src, Column* at) {
    Flags out[kParts];
    for (int p = 0; p < kParts; ++p) out[p] = Flags{};
    for (int k = 0; k < 3; ++k) {
        const Doubles low = Doubles{} + src.low[k], high = Doubles{} + src.high[k];
        for (int p = 0; p < kParts; ++p) {
            const Doubles s = at->s[k][p], above = s >= low ? s : low, in = above <= high ? above : high;
            out[p] |= in != s;
            at->s[k][p] = in;
        }
    }
    return bitsOf(out);
}

// Columns are sampled several at a time, in two stages: all of them are placed before the first voxel is fetched, so that
// no load waits for an address that was just computed.
inline constexpr int kColumns = kChunk;

// Where the voxels of a column are: how far from the start of a regular source's first plane, or of which plane.
struct Places {
    alignas(64) int offset[kChunk];
    alignas(64) int plane[kChunk]; // of sources that are not regular
};

#if defined(ZENR_WIDE)
// For whole numbers as doubles, in which offsets are exact and cost one conversion.
template <class T> ZENR_INLINE void locate(const SampleSource<T>& src, const Doubles (*at)[kParts], Places* places) {
    const Doubles step = Doubles{} + double(src.step), planeStep = Doubles{} + src.planeStep;
    const auto flat = [&](int p) ZENR_INLINED { return multiplyAdd(at[1][p], step, at[0][p]); };
    const auto deep = [&](int p) ZENR_INLINED { return multiplyAdd(at[2][p] - src.low[2], planeStep, flat(p)); };
    const auto store = [](Ints v, int* to) ZENR_INLINED { __builtin_memcpy(to, &v, sizeof v); };
    for (int p = 0; p < kParts; p += 2) {
        if (src.regular) {
            store(integers(deep(p), deep(p + 1)), &places->offset[p * kLanes]);
        } else {
            store(integers(flat(p), flat(p + 1)), &places->offset[p * kLanes]);
            store(integers(at[2][p], at[2][p + 1]), &places->plane[p * kLanes]);
        }
    }
}
#endif

// Of positions that are inside, truncated after an addition.
template <class T> inline void locate(const SampleSource<T>& src, const Column& at, double add, Places* places) {
#if defined(ZENR_WIDE)
    Doubles whole[3][kParts];
#pragma GCC unroll 3
    for (int k = 0; k < 3; ++k)
#pragma GCC unroll 4
        for (int p = 0; p < kParts; ++p) whole[k][p] = truncated(at.s[k][p] + add);
    locate(src, whole, places);
#else
    alignas(64) double s[3][kChunk];
    __builtin_memcpy(s, &at, sizeof s);
    const int step = int(src.step), planeStep = src.planeStep, low = src.low[2];
    for (int x = 0; x < kChunk; ++x) {
        const int flat = int(s[1][x] + add) * step + int(s[0][x] + add), plane = int(s[2][x] + add);
        places->offset[x] = src.regular ? (plane - low) * planeStep + flat : flat;
        places->plane[x] = plane;
    }
#endif
}

// A chunk's voxels whose bits are set.
template <class T> inline void putThose(unsigned bits, const T* voxels, T* dst) {
    for (bits &= kAll; bits; bits &= bits - 1) {
        const int x = __builtin_ctz(bits);
        dst[x] = voxels[x];
    }
}

// Voxels by the definition: those of a mask.
template <class Policy, class T>
__attribute__((noinline)) void redoColumn(const SampleSource<T>& src, const Column& at, unsigned mask, T* out) {
    alignas(64) double s[3][kChunk];
    __builtin_memcpy(s, &at, sizeof s);
    redo<Policy>(src, {{s[0], s[1], s[2]}}, mask, out);
}

// Asks for voxels that will be needed when this slice is done: of every fourth position, as a line serves several
// columns, and which of them changes from column to column. Inlined, because the compiler drops calls that only ask.
inline constexpr int kAskEvery = 4;
template <class T> ZENR_INLINE void ask(const T* origin, const int* offset, int count, ptrdiff_t ahead, int column) {
    if (!ahead) return;
    const T* const at = origin + ahead;
    for (int x = column % kAskEvery; x < count; x += kAskEvery) __builtin_prefetch(at + offset[x]);
}

} // namespace
} // namespace ZENR_LEVEL
} // namespace zenr
