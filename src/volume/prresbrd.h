// Border rows of a resampled plane and border slices: taps are clamped to the volume, the passes are the interior's.
#pragma once
#include "volume/prresset.h"

namespace zenr {

// What the slots of the ring of rows hold: a source row, -1 for none, and the bound of its elements.
template <class P> struct RowTags {
    int row[P::kTaps];
    float bound[P::kTaps];
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

// One destination slice of the block out of the source planes of its taps; at a border some are the same.
template <class P>
void depthRows(const ResizeBlock<P>& block, const int* taps, const typename P::Weights& weights,
               Slice<typename P::Voxel> dst) {
    for (int y = 0; y < block.height; ++y) {
        const typename P::Inter* rows[P::kTaps];
        float bound = 0;
        for (int k = 0; k < P::kTaps; ++k) {
            rows[k] = block.ringPlane(taps[k]) + ptrdiff_t(y) * block.stride;
            const float mine = block.ringBounds(taps[k])[y];
            bound = mine > bound ? mine : bound;
        }
        P::depth(*block.kernels, rows, weights, bound, dst.row(y), block.width);
    }
}

// A border slice: the planes are those of the clamped taps, so an edge plane stands for all that lie beyond it.
template <class P>
void depthBorder(const ResizeBlock<P>& block, int base, const typename P::Weights& weights,
                 Slice<typename P::Voxel> dst) {
    int taps[P::kTaps];
    P::borderTaps(block.axis[2], base, taps);
    depthRows(block, taps, weights, dst);
}

constexpr auto ownpr_DepBorder8plL = &depthBorder<Linear<uint8_t>>;
constexpr auto ownpr_DepBorder16plL = &depthBorder<Linear<uint16_t>>;
constexpr auto ownpr_DepBorder32plL = &depthBorder<Linear<float>>;
constexpr auto ownpr_DepBorder8plC = &depthBorder<Cubic<uint8_t>>;
constexpr auto ownpr_DepBorder16plC = &depthBorder<Cubic<uint16_t>>;
constexpr auto ownpr_DepBorder32plC = &depthBorder<Cubic<float>>;

} // namespace zenr
