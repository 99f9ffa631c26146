// Volume filtering: what the exported functions, the planning and the kernels of a level share.
//
// A call is planned once from its weights, such that the arithmetic chosen provably gives the sum that 64 bits would:
//
//   narrow    the sizes of all weights sum to at most 65535: every partial sum of products fits 32 bits
//   wide      any weights: pairs of 16-bit products are summed in 32 bits as long as that is proven to fit, then added
//             to a sum that is kept in two words; weights whose products wrap go one by one
//   factored  narrow, and the kernel is a product of vectors, or of a vector and a plane: passes of lower dimension.
//             32-bit arithmetic wraps in between, but the sum at the end fits
//   plain     what is left: volumes narrower than a register, and kernels beyond the counts of the wide sums
//   in order  destinations that overlap the source: voxel after voxel, because later ones may read earlier ones
//
// The volume is walked in tiles whose sums stay in the first-level cache. A tile's sums are kept in blocks of one
// vector of voxels (`lanes`): the sums of its even voxels, then those of its odd ones, as the multiply-add of pairs
// delivers them. The last block of a row overlaps the one before it, so that nothing outside is read or written.
#pragma once
#include <stddef.h>
#include <stdint.h>

#include "frame/dispatch.h"
#include "zenr.h"

namespace zenr {

// One call of the filter: steps in voxels, and the source anchored, so that tap (kx, ky, kz) of the mirrored kernel
// (the last element first) reads plane z + kz, row y + ky, column x + kx from these origins.
struct FilterJob {
    const int16_t* const* src; // plane array, moved by the anchor
    ptrdiff_t srcOrigin;       // voxels from a plane's pointer to what output (0, 0) reads first
    ptrdiff_t srcStep;
    int16_t* const* dst;
    ptrdiff_t dstStep;
    ZenrVolume size;
    const int32_t* kernel; // as the caller stores it: mirrored tap t is element count - 1 - t
    ZenrVolume kernelSize;
    int32_t divisor;
};

// One load of a vector of voxels. In a program of pairs, `even` holds the 16-bit weights of voxels 2i and 2i + 1 of the
// load for the even output 2i (first one in the low half), `odd` those for the odd output 2i + 1. In a program of
// single taps `even` holds the low, `odd` the high 16 bits of the weight, both twice.
struct FilterEntry {
    ptrdiff_t offset; // voxels
    int32_t even;
    int32_t odd;
};

// Entries that read one plane, and whose sum fits 32 bits.
struct FilterSegment {
    ptrdiff_t plane;
    int32_t begin;
    int32_t end;
};

struct FilterProgram {
    static constexpr int kEntries = 768;
    static constexpr int kSegments = 384;
    // Taps of one kernel row that are planned at a time, and single taps in a program: the sums of their upper and
    // lower halves are kept in 16 bits.
    static constexpr int kPiece = 255;

    int entryCount;
    int segmentCount;
    FilterSegment segment[kSegments];
    FilterEntry entry[kEntries];
};

// Where a tile reads and what shape it has. Row r of the sums starts at r * stride.
struct FilterTile {
    const int16_t* const* planes;
    ptrdiff_t origin; // voxels from a plane's pointer to the first voxel of the first output's neighbourhood
    ptrdiff_t step;
    int rows;
    int width;
    int lanes;  // 8, 16 or 32, at most width
    int stride; // width rounded up to whole lanes
    // Where the results go, targetRows rows; and the plane that the next tiles need besides, or null. Both are fetched
    // while the sums are formed: tiles jump from plane to plane, which no processor foresees, and fetching in one burst
    // would only queue up.
    int16_t* target;
    ptrdiff_t targetStep;
    int targetRows;
    const int16_t* ahead;
};

// sum / divisor, half to even.
struct FilterDivision {
    enum Mode { none, shift, reciprocal, reciprocalWithTies } mode;
    int32_t bits; // mode shift
    int32_t half;
    // The reciprocal; where ties are possible, one that is slightly too small and one that is slightly too large: their
    // quotients round to different integers at ties only.
    double low;
    double high;
};

struct FilterKernels {
    int lanes;        // the most voxels of a vector
    int multiplyCost; // of a 32-bit multiplication, in additions
    // Sums of a tile; `add` to what is there. With a division the narrow ones go on to voxels of the target. The wide ones keep the sum as high * 2^16 + the remainder, which is (low - high * 2^16) modulo 2^32.
    void (*narrowPairs)(const FilterProgram& program, const FilterTile& tile, int32_t* sums, bool add,
                        const FilterDivision* division);
    void (*widePairs)(const FilterProgram& program, const FilterTile& tile, int32_t* low, int32_t* high, bool add);
    void (*wideSingles)(const FilterProgram& program, const FilterTile& tile, int32_t* low, int32_t* high, bool add);
    // out[i] = sum of weight[t] * in[t][i] modulo 2^32; count is a multiple of 8.
    void (*combine)(const int32_t* const* in, const int32_t* weight, int taps, int32_t* out, int count);
    // Sums to voxels of the target.
    void (*finishNarrow)(const FilterDivision& division, const FilterTile& tile, const int32_t* sums);
    void (*finishWide)(const FilterDivision& division, const FilterTile& tile, const int32_t* low, const int32_t* high);
    // The whole job by plain loops over rows, in 64 bits: for any kernel and any width.
    void (*plain)(const FilterJob& job);
    // The same, each voxel stored before the next is computed.
    void (*inOrder)(const FilterJob& job);
};

namespace sse2 {
extern const FilterKernels kFilter;
}
namespace avx2 {
extern const FilterKernels kFilter;
}
namespace avx512 {
extern const FilterKernels kFilter;
extern const FilterKernels kFilterDot; // for processors with hasDotProducts()
} // namespace avx512

// Processors of the level avx512 multiply pairs and add to a sum in one instruction, or do not.
inline bool hasDotProducts(Level level) {
    return level == Level::avx512 && __builtin_cpu_supports("avx512vnni");
}

inline const FilterKernels& filterKernels(Level level) {
    if (hasDotProducts(level)) return avx512::kFilterDot;
    return pick(level, sse2::kFilter, avx2::kFilter, avx512::kFilter);
}

// The worker of zenrFilter_16s_C1PV: plans the call and runs it.
void ownFilter(const FilterKernels& kernels, const FilterJob& job);

// The arguments as a job. Nothing is checked.
FilterJob ownFilterJob(const int16_t* const pSrc[], int srcStep, int16_t* const pDst[], int dstStep,
                       ZenrVolume dstVolume, const int32_t* pKernel, ZenrVolume kernelVolume, ZenrPoint anchor,
                       int divisor);

} // namespace zenr
