// What the volume transforms share: checks of their arguments, views of the two layouts, interpolation modes.
#pragma once
#include <stddef.h>

#include "zenr.h"

namespace zenr {

constexpr int kNearest = 1;
constexpr int kLinear = 2;
constexpr int kCubicFirst = 4; // 3 is no mode, on purpose
constexpr int kCubicLast = 7;

constexpr bool badMode(int mode) {
    return mode != kNearest && mode != kLinear && !(mode >= kCubicFirst && mode <= kCubicLast);
}
constexpr bool badVolume(ZenrVolume v) {
    return v.width < 1 || v.height < 1 || v.depth < 1;
}
constexpr bool badBox(ZenrBox b) {
    return b.x < 0 || b.width < 1 || b.y < 0 || b.height < 1 || b.z < 0 || b.depth < 1;
}

// One slice of a volume. Steps count elements and are as wide as a pointer; they may be negative.
template <class T> struct Slice {
    T* base;
    ptrdiff_t step;
    T* row(int y) const { return base + ptrdiff_t(y) * step; }
};

// The two layouts differ in nothing but where a slice starts.
template <class T> struct BlockVolume {
    T* base;
    ptrdiff_t step;
    ptrdiff_t planeStep;
    Slice<T> slice(int z) const { return {base + ptrdiff_t(z) * planeStep, step}; }
};
template <class T> struct PlaneVolume {
    T* const* planes;
    ptrdiff_t step;
    Slice<T> slice(int z) const { return {planes[z], step}; }
};

// Steps come in bytes; what a voxel does not divide is dropped.
template <class T> constexpr ptrdiff_t elementStep(int bytes) {
    return bytes / int(sizeof(T));
}

} // namespace zenr
