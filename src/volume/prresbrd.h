// Border rows of a resampled plane and border slices: taps are clamped to the volume, the passes are the interior's.
#pragma once
#include "volume/prresset.h"

namespace zenr {

// What the slots of the ring of rows hold: a source row, -1 for none, and the bound of its elements.
template <class P> struct RowTags {
    int row[P::kTaps];
    typename P::Bound bound[P::kTaps];
};

// Rows [begin, end) of the block, resampled from source plane p along x and y into its slot of the ring of planes.
template <class P, bool border>
void planeRows(const ResizeBlock<P>& block, Slice<const typename P::Voxel> src, int p, int begin, int end,
               RowTags<P>* tags);

constexpr auto ownpr_CalcBorder8plL = &planeRows<Linear<uint8_t>, true>;
constexpr auto ownpr_CalcBorder16plL = &planeRows<Linear<uint16_t>, true>;
constexpr auto ownpr_CalcBorder32plL = &planeRows<Linear<float>, true>;
constexpr auto ownpr_CalcBorder8plC = &planeRows<Cubic<uint8_t>, true>;
constexpr auto ownpr_CalcBorder16plC = &planeRows<Cubic<uint16_t>, true>;
constexpr auto ownpr_CalcBorder32plC = &planeRows<Cubic<float>, true>;

// What a slice of the block is made from: its source planes, where their resampled images stand, and the weights.
template <class P> struct DepthTaps {
    int plane[P::kTaps];
    Slice<const typename P::Voxel> src[P::kTaps];
    typename P::Weights weights;
};

// Voxels of a row whose bits are set in `doubts`, counted from column `part.begin` on, by the chain of all passes; how
// many.
inline int settleVoxels(const ResizeBlock<QuickCubic>& block, const DepthTaps<QuickCubic>& taps, int y,
                        const Part& part, const uint64_t* doubts, uint8_t* dst) {
    int count = 0;
    for (int word = 0; part.begin + word * 64 < part.end; ++word) {
        for (uint64_t bits = doubts[word]; bits; bits &= bits - 1, ++count) {
            const int x = part.begin + word * 64 + __builtin_ctzll(bits);
            int columns[4], rows[4];
            QuickCubic::borderTaps(block.axis[0], block.index[x], columns);
            QuickCubic::borderTaps(block.axis[1], block.rowBase[y], rows);
            uint8_t voxels[4][16];
            float wx[4];
            for (int j = 0; j < 4; ++j)
                for (int k = 0; k < 4; ++k) {
                    const uint8_t* const row = taps.src[k].row(rows[j]);
                    for (int i = 0; i < 4; ++i) voxels[i][4 * j + k] = row[columns[i]];
                }
            for (int i = 0; i < 4; ++i) wx[i] = block.weights[x + ptrdiff_t(i) * block.weightStep];
            dst[x] = block.kernels->voxel(voxels, wx, block.rowWeights[y].tap, taps.weights.tap);
        }
    }
    return count;
}

// One destination slice of the block; at a border some taps are the same. How many voxels had to be done again.
template <class P> int depthRows(const ResizeBlock<P>& block, const DepthTaps<P>& taps, Slice<typename P::Voxel> dst) {
    int again = 0;
    for (int y = 0; y < block.height; ++y) {
        typename P::Bound bound;
        for (int k = 0; k < P::kTaps; ++k) join(&bound, block.ringBounds(taps.plane[k])[y]);
        const Part part = partOf(bound, block.width);
        typename P::Voxel* const row = dst.row(y);
        clearOutside(part, row, block.width);
        if (part.begin == part.end) continue;
        const typename P::Inter* rows[P::kTaps];
        for (int k = 0; k < P::kTaps; ++k)
            rows[k] = block.ringPlane(taps.plane[k]) + ptrdiff_t(y) * block.stride + part.begin;
        const int n = part.end - part.begin;
        if constexpr (P::kDoubts) {
            uint64_t doubts[kMostColumns / 64];
            block.kernels->dep(rows, taps.weights.tap, row + part.begin, doubts, n);
            again += settleVoxels(block, taps, y, part, doubts, row);
        } else if constexpr (P::kMostAgain) {
            again += P::depth(*block.kernels, rows, taps.weights, bound, row, n);
        } else {
            P::depth(*block.kernels, rows, taps.weights, countedFrom(bound, part.begin), row + part.begin, n);
        }
    }
    return again;
}

// A border slice: the planes are those of the clamped taps, so an edge plane stands for all that lie beyond it.
template <class P>
int depthBorder(const ResizeBlock<P>& block, int base, DepthTaps<P> taps, Slice<typename P::Voxel> dst) {
    P::borderTaps(block.axis[2], base, taps.plane);
    return depthRows(block, taps, dst);
}

constexpr auto ownpr_DepBorder8plL = &depthBorder<Linear<uint8_t>>;
constexpr auto ownpr_DepBorder16plL = &depthBorder<Linear<uint16_t>>;
constexpr auto ownpr_DepBorder32plL = &depthBorder<Linear<float>>;
constexpr auto ownpr_DepBorder8plC = &depthBorder<Cubic<uint8_t>>;
constexpr auto ownpr_DepBorder16plC = &depthBorder<Cubic<uint16_t>>;
constexpr auto ownpr_DepBorder32plC = &depthBorder<Cubic<float>>;

} // namespace zenr
