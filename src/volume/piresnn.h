// Nearest neighbour: rows copied through a table of source columns.
#pragma once
#include <stdint.h>

#include "frame/dispatch.h"

namespace zenr {

template <class T> using RowNearest = void(const T* src, const int* index, T* dst, int n);

struct NearestKernels {
    RowNearest<uint8_t>* row8;
    RowNearest<uint16_t>* row16;
    RowNearest<float>* row32;
};

namespace sse2 {
extern const NearestKernels kNearestRows;
}
namespace avx2 {
extern const NearestKernels kNearestRows;
}
namespace avx512 {
extern const NearestKernels kNearestRows;
}
inline const NearestKernels& nearestKernels(Level level) {
    return pick(level, sse2::kNearestRows, avx2::kNearestRows, avx512::kNearestRows);
}

} // namespace zenr
