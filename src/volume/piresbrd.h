// Border columns of a resampled row: each position's taps are clamped to the row.
#pragma once
#include "volume/prresset.h"

namespace zenr {

// Enough columns for a kernel to go about its work in whole vectors.
constexpr int kBorderColumns = 16;

// Columns [begin, end) of one row, through the interior's kernel: the voxels that their taps span are laid side by side
// first, the row's end voxels standing for what lies beyond. Columns inside come out as they would by themselves.
template <class P>
void borderColumns(const ResizeBlock<P>& block, const typename P::Voxel* src, const typename P::Bound& bound, Care care,
                   typename P::RowInter* dst, int begin, int end) {
    const AxisMap& axis = block.axis[0];
    constexpr int kMost = 128;
    typename P::Voxel voxels[kMost];
    for (int x = begin; x < end;) {
        int n = end - x < kBorderColumns ? end - x : kBorderColumns;
        const int first = block.index[x] + P::kFirstTap;
        // In a strong reduction every column stands alone: nothing but its taps is needed between its first and last.
        while (n > 1 && (long long)block.index[x + n - 1] + P::kFirstTap + P::kTaps - first > kMost) n = 1;
        const int count = block.index[x + n - 1] + P::kFirstTap + P::kTaps - first;
        // Those before the row, those of it, those after it.
        const int before = first < 0 ? (-first < count ? -first : count) : 0;
        const int rest = axis.size - first < count ? axis.size - first : count;
        int i = 0;
        for (; i < before; ++i) voxels[i] = src[0];
        for (; i < rest; ++i) voxels[i] = src[first + i];
        for (; i < count; ++i) voxels[i] = src[axis.size - 1];
        P::row(*block.kernels, voxels - first, dst + x, block.index + x, block.weights + x, block.weightStep,
               block.guarded + x, countedFrom(bound, x), care, n);
        x += n;
    }
}

constexpr auto ownpi_CalcBorder8plL = &borderColumns<Linear<uint8_t>>;
constexpr auto ownpi_CalcBorder16plL = &borderColumns<Linear<uint16_t>>;
constexpr auto ownpi_CalcBorder32plL = &borderColumns<Linear<float>>;
constexpr auto ownpi_CalcBorder8plC = &borderColumns<Cubic<uint8_t>>;
constexpr auto ownpi_CalcBorder16plC = &borderColumns<Cubic<uint16_t>>;
constexpr auto ownpi_CalcBorder32plC = &borderColumns<Cubic<float>>;

} // namespace zenr
