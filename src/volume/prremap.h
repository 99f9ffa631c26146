// Remap, inside: the routines that walk a destination, one per type and mode.
#pragma once
#include "volume/prsample.h"

namespace zenr {

template <class T> struct RemapTask {
    SampleSource<T> src;
    const float* const* map[3]; // planes of the positions' x, y and z
    ptrdiff_t mapStep;          // steps in elements
    T* const* dst;
    ptrdiff_t dstStep;
    ZenrVolume size; // of the destination
};

// Slices [first, first + count) of the destination and of the maps.
template <class T> using RemapVolume = void(Level level, const RemapTask<T>& task, int first, int count);

// The routines of a type, indexed by mode.
template <class T> RemapVolume<T>* const* remapVolumes();

} // namespace zenr
