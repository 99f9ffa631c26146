// Border rows of a resampled plane and border slices: taps are clamped to the volume, the passes are the interior's.
#pragma once
#include "volume/prresset.h"

namespace zenr {

// Rows [begin, end) of the block, resampled from one source plane along x and y. `tag` holds the source row in each
// slot of the ring of rows, -1 for none.
template <class P, bool border>
void planeRows(const ResizeBlock<P>& block, Slice<const typename P::Voxel> src, typename P::Inter* plane, int begin,
               int end, int* tag);

constexpr auto ownpr_CalcBorder8plL = &planeRows<Linear<uint8_t>, true>;
constexpr auto ownpr_CalcBorder16plL = &planeRows<Linear<uint16_t>, true>;
constexpr auto ownpr_CalcBorder32plL = &planeRows<Linear<float>, true>;
constexpr auto ownpr_CalcBorder8plC = &planeRows<Cubic<uint8_t>, true>;
constexpr auto ownpr_CalcBorder16plC = &planeRows<Cubic<uint16_t>, true>;
constexpr auto ownpr_CalcBorder32plC = &planeRows<Cubic<float>, true>;

// One destination slice of the block out of planes given in the order of its taps; at a border some are the same.
template <class P>
void depthRows(const ResizeBlock<P>& block, const typename P::Inter* const* planes, const typename P::Weights& weights,
               Slice<typename P::Voxel> dst) {
    for (int y = 0; y < block.height; ++y) {
        const typename P::Inter* rows[P::kTaps];
        for (int k = 0; k < P::kTaps; ++k) rows[k] = planes[k] + ptrdiff_t(y) * block.stride;
        P::depth(*block.kernels, rows, weights, dst.row(y), block.width);
    }
}

// A border slice: the planes are those of the clamped taps, so an edge plane stands for all that lie beyond it.
template <class P>
void depthBorder(const ResizeBlock<P>& block, int base, const typename P::Weights& weights,
                 Slice<typename P::Voxel> dst) {
    int taps[P::kTaps];
    P::borderTaps(block.axis[2], base, taps);
    const typename P::Inter* planes[P::kTaps];
    for (int k = 0; k < P::kTaps; ++k) planes[k] = block.ringPlane(taps[k]);
    depthRows(block, planes, weights, dst);
}

constexpr auto ownpr_DepBorder8plL = &depthBorder<Linear<uint8_t>>;
constexpr auto ownpr_DepBorder16plL = &depthBorder<Linear<uint16_t>>;
constexpr auto ownpr_DepBorder32plL = &depthBorder<Linear<float>>;
constexpr auto ownpr_DepBorder8plC = &depthBorder<Cubic<uint8_t>>;
constexpr auto ownpr_DepBorder16plC = &depthBorder<Cubic<uint16_t>>;
constexpr auto ownpr_DepBorder32plC = &depthBorder<Cubic<float>>;

} // namespace zenr
