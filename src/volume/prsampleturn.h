// A block of voxels that was made column by column, as rows.
#pragma once
#include "volume/prsamplechunk.h"

namespace zenr {
namespace ZENR_LEVEL {
namespace {

// A vector of 16 bytes, at every level: what is square in it is turned in registers.
template <class T> struct Sixteen { typedef T Type __attribute__((vector_size(16))); };

inline Sixteen<uint8_t>::Type firstHalves(Sixteen<uint8_t>::Type a, Sixteen<uint8_t>::Type b) {
    return __builtin_shufflevector(a, b, 0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5, 21, 6, 22, 7, 23);
}
inline Sixteen<uint8_t>::Type secondHalves(Sixteen<uint8_t>::Type a, Sixteen<uint8_t>::Type b) {
    return __builtin_shufflevector(a, b, 8, 24, 9, 25, 10, 26, 11, 27, 12, 28, 13, 29, 14, 30, 15, 31);
}
inline Sixteen<uint16_t>::Type firstHalves(Sixteen<uint16_t>::Type a, Sixteen<uint16_t>::Type b) {
    return __builtin_shufflevector(a, b, 0, 8, 1, 9, 2, 10, 3, 11);
}
inline Sixteen<uint16_t>::Type secondHalves(Sixteen<uint16_t>::Type a, Sixteen<uint16_t>::Type b) {
    return __builtin_shufflevector(a, b, 4, 12, 5, 13, 6, 14, 7, 15);
}
inline Sixteen<float>::Type firstHalves(Sixteen<float>::Type a, Sixteen<float>::Type b) {
    return __builtin_shufflevector(a, b, 0, 4, 1, 5);
}
inline Sixteen<float>::Type secondHalves(Sixteen<float>::Type a, Sixteen<float>::Type b) {
    return __builtin_shufflevector(a, b, 2, 6, 3, 7);
}

// block[c][r] becomes row[r][x + c]. To interleave the first half of a square's vectors with the second, as often as
// its edge is halved, turns it.
template <class T> void turned(const T (*block)[kChunk], T* const* row, int x) {
    using Vector = typename Sixteen<T>::Type;
    constexpr int kEdge = 16 / int(sizeof(T));
    for (int r = 0; r < kChunk; r += kEdge)
        for (int c = 0; c < kChunk; c += kEdge) {
            Vector v[kEdge], w[kEdge];
#pragma GCC unroll 16
            for (int i = 0; i < kEdge; ++i) __builtin_memcpy(&v[i], &block[c + i][r], sizeof v[i]);
#pragma GCC unroll 4
            for (int edge = kEdge; edge > 1; edge /= 2) {
#pragma GCC unroll 8
                for (int i = 0; i < kEdge / 2; ++i) {
                    w[2 * i] = firstHalves(v[i], v[i + kEdge / 2]);
                    w[2 * i + 1] = secondHalves(v[i], v[i + kEdge / 2]);
                }
#pragma GCC unroll 16
                for (int i = 0; i < kEdge; ++i) v[i] = w[i];
            }
#pragma GCC unroll 16
            for (int i = 0; i < kEdge; ++i) __builtin_memcpy(row[r + i] + x + c, &v[i], sizeof v[i]);
        }
}

} // namespace
} // namespace ZENR_LEVEL
} // namespace zenr
