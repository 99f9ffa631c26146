// Border columns of a resampled row: each position's taps are clamped to the row.
#pragma once
#include "volume/prresset.h"

namespace zenr {

// Columns [begin, end) of one row, through the interior's kernel: a position's taps are laid side by side first.
template <class P>
void borderColumns(const ResizeBlock<P>& block, const typename P::Voxel* src, typename P::Inter* dst, int begin,
                   int end) {
    for (int x = begin; x < end; ++x) {
        int taps[P::kTaps];
        P::borderTaps(block.axis[0], block.index[x], taps);
        typename P::Voxel voxels[P::kTaps];
        for (int k = 0; k < P::kTaps; ++k) voxels[k] = src[taps[k]];
        const typename P::Voxel* const row = voxels;
        typename P::Inter* const out = dst + x;
        const int index = -P::kFirstTap;
        P::row(*block.kernels, &row, &out, 1, &index, block.weights + x, block.stride, 1);
    }
}

constexpr auto ownpi_CalcBorder8plL = &borderColumns<Linear<uint8_t>>;
constexpr auto ownpi_CalcBorder16plL = &borderColumns<Linear<uint16_t>>;
constexpr auto ownpi_CalcBorder32plL = &borderColumns<Linear<float>>;
constexpr auto ownpi_CalcBorder8plC = &borderColumns<Cubic<uint8_t>>;
constexpr auto ownpi_CalcBorder16plC = &borderColumns<Cubic<uint16_t>>;
constexpr auto ownpi_CalcBorder32plC = &borderColumns<Cubic<float>>;

} // namespace zenr
