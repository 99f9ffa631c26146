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
template <class Group, class T, class Gather>
ZENR_INLINE void throughGroups(const Group* g, T* dst, int n, const Gather& gather) {
    const auto put = [&](int x) __attribute__((always_inline)) {
        const auto voxels = gather(*g++);
        __builtin_memcpy(dst + x, &voxels, sizeof(voxels));
    };
    int x = 0;
    for (; x <= n - Group::kColumns; x += Group::kColumns) put(x);
    if (x < n) put(n - Group::kColumns);
}
template <int columns, class T> void groupsOf(const T* src, const NearestGroup<T>* groups, T* dst, int n) {
    throughGroups(
        groups, dst,
        n, [&](const NearestGroup<T>& g) __attribute__((always_inline)) { return group32<columns>(src, g); });
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

#if defined(__AVX512BW__)
// Few instructions a row, so that the loads of several rows are under way at a time.
template <int registers> ZENR_INLINE __m512i words(const void* window, const uint8_t* at) {
    const __m512i index = _mm512_cvtepu8_epi16(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(at)));
    const __m512i low = _mm512_loadu_si512(window);
    if constexpr (registers == 1) return _mm512_permutexvar_epi16(index, low);
    return _mm512_permutex2var_epi16(low, index, _mm512_loadu_si512(static_cast<const char*>(window) + 64));
}
template <int registers> ZENR_INLINE __m512i group64(const uint8_t* src, const NearestWide<uint8_t>& g) {
    const __m512i turn = _mm512_loadu_si512(g.turn);
    const __m512i even = _mm512_shuffle_epi8(words<registers>(src + g.window, g.even), turn);
    return _mm512_mask_shuffle_epi8(even, 0xAAAAAAAAAAAAAAAAull, words<registers>(src + g.window, g.odd), turn);
}
template <int registers> ZENR_INLINE __m512i group64(const uint16_t* src, const NearestWide<uint16_t>& g) {
    return words<registers>(src + g.window, g.voxels);
}
template <int registers> ZENR_INLINE __m512i group64(const float* src, const NearestWide<float>& g) {
    const __m512i at = _mm512_cvtepu8_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(g.voxels)));
    const __m512i low = _mm512_loadu_si512(src + g.window);
    if constexpr (registers == 1) return _mm512_permutexvar_epi32(at, low);
    return _mm512_permutex2var_epi32(low, at, _mm512_loadu_si512(src + g.window + 16));
}
template <int registers, class T> void wideOf(const T* src, const NearestWide<T>* groups, T* dst, int n) {
    throughGroups(
        groups, dst,
        n, [&](const NearestWide<T>& g) __attribute__((always_inline)) { return group64<registers>(src, g); });
}
template <class T> void rowWide(const T* src, const NearestWide<T>* groups, int registers, T* dst, int n) {
    if (registers == 1)
        wideOf<1>(src, groups, dst, n);
    else
        wideOf<2>(src, groups, dst, n);
}
#else
template <class T> constexpr decltype(NearestKernels<T>::rowWide) rowWide = nullptr;
#endif

} // namespace

constexpr auto ownResize8plN = &rowNearest<uint8_t>;
constexpr auto ownResize16plN = &rowNearest<uint16_t>;
constexpr auto ownResize32plN = &rowNearest<float>;

extern const AllNearestKernels kNearestRows;
const AllNearestKernels kNearestRows = {
    {ownResize8plN, rowGroups<uint8_t>, rowWide<uint8_t>},
    {ownResize16plN, rowGroups<uint16_t>, rowWide<uint16_t>},
    {ownResize32plN, rowGroups<float>, rowWide<float>},
};

} // namespace ZENR_LEVEL
} // namespace zenr
