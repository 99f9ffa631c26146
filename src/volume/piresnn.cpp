// The nearest-neighbour rows of volume resize, once per level.
#include "volume/piresnn.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

template <class T> void rowNearest(const T* __restrict src, const int* __restrict index, T* __restrict dst, int n) {
    for (int x = 0; x < n; ++x) dst[x] = src[index[x]];
}

} // namespace

constexpr auto ownResize8plN = &rowNearest<uint8_t>;
constexpr auto ownResize16plN = &rowNearest<uint16_t>;
constexpr auto ownResize32plN = &rowNearest<float>;

extern const NearestKernels kNearestRows;
const NearestKernels kNearestRows = {ownResize8plN, ownResize16plN, ownResize32plN};

} // namespace ZENR_LEVEL
} // namespace zenr
