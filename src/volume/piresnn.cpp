// The nearest-neighbour rows of volume resize, once per level.
#include "volume/piresnn.h"

#include "frame/simd.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

template <class T> void rowNearest(const T* __restrict src, const int* __restrict index, T* __restrict dst, int n) {
    for (int x = 0; x < n; ++x) dst[x] = src[index[x]];
}

#if defined(__AVX2__)
template <class T> ZENR_INLINE __m256i windowPair(const T* low, const T* high) {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(low))),
                                   _mm_loadu_si128(reinterpret_cast<const __m128i*>(high)), 1);
}
template <int columns, class T> ZENR_INLINE __m256i group32(const T* src, const NearestGroup<T>& g) {
    const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(g.bytes));
    const __m256i even = _mm256_shuffle_epi8(windowPair(src + g.window[0], src + g.window[2]), bytes);
    if constexpr (columns == NearestGroup<T>::kVoxels) return even;
    const __m256i odd = _mm256_shuffle_epi8(windowPair(src + g.window[1], src + g.window[3]), bytes);
    return _mm256_blend_epi16(even, odd, 0xF0);
}
template <int columns> ZENR_INLINE __m256i group32(const float* src, const NearestGroup<float>& g) {
    const __m256i at = _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(g.voxels)));
    const __m256 low = _mm256_permutevar8x32_ps(_mm256_loadu_ps(src + g.window[0]), at);
    if constexpr (columns == NearestGroup<float>::kVoxels) return _mm256_castps_si256(low);
    const __m256 high = _mm256_permutevar8x32_ps(_mm256_loadu_ps(src + g.window[1]), at);
    return _mm256_castps_si256(_mm256_blend_ps(low, high, 0xF0));
}
template <int columns, class T> ZENR_INLINE void groupsOf(const T* src, const NearestGroup<T>* g, T* dst, int n) {
    const auto put = [&](int x) __attribute__((always_inline)) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + x), group32<columns>(src, *g++));
    };
    int x = 0;
    for (; x <= n - NearestGroup<T>::kColumns; x += NearestGroup<T>::kColumns) put(x);
    if (x < n) put(n - NearestGroup<T>::kColumns);
}
template <class T> void rowGroups(const T* src, const NearestGroup<T>* groups, int columns, T* dst, int n) {
    if (columns == NearestGroup<T>::kVoxels)
        groupsOf<NearestGroup<T>::kVoxels>(src, groups, dst, n);
    else
        groupsOf<NearestGroup<T>::kVoxels / 2>(src, groups, dst, n);
}
#else
template <class T> constexpr decltype(NearestKernels<T>::rowGroups) rowGroups = nullptr;
#endif

} // namespace

constexpr auto ownResize8plN = &rowNearest<uint8_t>;
constexpr auto ownResize16plN = &rowNearest<uint16_t>;
constexpr auto ownResize32plN = &rowNearest<float>;

extern const AllNearestKernels kNearestRows;
const AllNearestKernels kNearestRows = {
    {ownResize8plN, rowGroups<uint8_t>},
    {ownResize16plN, rowGroups<uint16_t>},
    {ownResize32plN, rowGroups<float>},
};

} // namespace ZENR_LEVEL
} // namespace zenr
