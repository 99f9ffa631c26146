// The nearest-neighbour rows of volume resize, once per level.
#include "volume/piresnn.h"

#include "volume/presvec.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

template <class T>
inline void copyPlain(const T* __restrict src, const int* __restrict index, T* __restrict dst, int n) {
    for (int x = 0; x < n; ++x) dst[x] = src[index[x]];
}

#if defined(ZENR_LEVEL_avx512)
template <class T> void rowNearest(const T* src, const int* index, T* dst, int n) {
    constexpr int kGroup = 32;
    if (n < kGroup) return copyPlain(src, index, dst, n);
    for (int begin = 0; begin < n; begin += kGroup) {
        const int x = n - begin < kGroup ? n - kGroup : begin; // the last group may overlap the one before
        if (!nearestGroup(src, index + x, dst + x)) copyPlain(src, index + x, dst + x, kGroup);
    }
}
#else
template <class T> void rowNearest(const T* src, const int* index, T* dst, int n) {
    copyPlain(src, index, dst, n);
}
#endif

} // namespace

constexpr auto ownResize8plN = &rowNearest<uint8_t>;
constexpr auto ownResize16plN = &rowNearest<uint16_t>;
constexpr auto ownResize32plN = &rowNearest<float>;

extern const NearestKernels kNearestRows;
const NearestKernels kNearestRows = {ownResize8plN, ownResize16plN, ownResize32plN};

} // namespace ZENR_LEVEL
} // namespace zenr
