// Nearest neighbour: rows copied through a table of source columns.
#pragma once
#include <stdint.h>

#include "frame/dispatch.h"

namespace zenr {

template <class T> using RowNearest = void(const T* src, const int* index, T* dst, int n);

// The columns of 32 destination bytes, and where they find their voxels (presgroup.h): sixteen bytes share a window of
// sixteen bytes, or eight do; the latter in windows 0 and 2, sixteen bytes in all, and 1 and 3.
template <class T> struct NearestGroup {
    static constexpr int kColumns = 32 / int(sizeof(T));
    static constexpr int kVoxels = 16 / int(sizeof(T)); // of a window
    uint8_t bytes[32];
    int window[4];
};
// Eight or four floats share a window of eight.
template <> struct NearestGroup<float> {
    static constexpr int kColumns = 8;
    static constexpr int kVoxels = 8;
    uint8_t voxels[8];
    int window[2];
};
// 64 bytes of columns that share one window of one or two whole registers, where the level permutes those.
template <class T> struct NearestWide {
    static constexpr int kColumns = 64 / int(sizeof(T));
    uint8_t voxels[kColumns];
    int window;
};
// Permutations move pairs of bytes: those that have the even columns' bytes, those that have the odd columns', and which
// byte of a pair it is.
template <> struct NearestWide<uint8_t> {
    static constexpr int kColumns = 64;
    uint8_t even[32];
    uint8_t odd[32];
    uint8_t turn[64];
    int window;
};
// Where groups serve, they stand in the place of a table of columns, whose length is a multiple of sixteen. It is tightest
// where there is a column more than one group has, which takes a second group.
template <class Group> constexpr bool kFits = 2 * sizeof(Group) <= ((Group::kColumns + 16) & ~15) * sizeof(int);
static_assert(kFits<NearestGroup<uint8_t>> && kFits<NearestGroup<uint16_t>> && kFits<NearestGroup<float>>, "");
static_assert(kFits<NearestWide<uint8_t>> && kFits<NearestWide<uint16_t>> && kFits<NearestWide<float>>, "");

template <class T> struct NearestKernels {
    RowNearest<T>* row;
    // n columns, at least those of a group; the last group has the last columns. Null at levels that have no shuffles.
    void (*rowGroups)(const T* src, const NearestGroup<T>* groups, int columns, T* dst, int n);
    // Likewise. Null where registers of 64 bytes are not permuted.
    void (*rowWide)(const T* src, const NearestWide<T>* groups, int registers, T* dst, int n);
};

struct AllNearestKernels {
    NearestKernels<uint8_t> u8;
    NearestKernels<uint16_t> u16;
    NearestKernels<float> f32;
};

namespace sse2 {
extern const AllNearestKernels kNearestRows;
}
namespace avx2 {
extern const AllNearestKernels kNearestRows;
}
namespace avx512 {
extern const AllNearestKernels kNearestRows;
}
inline const AllNearestKernels& nearestKernels(Level level) {
    return pick(level, sse2::kNearestRows, avx2::kNearestRows, avx512::kNearestRows);
}

} // namespace zenr
