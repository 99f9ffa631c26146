// Affine warp, inside: the inverse transform, and the routines that walk a destination, one per type and mode.
#pragma once
#include "volume/prsample.h"

namespace zenr {

// Of a 3x4 matrix, rows for x', y', z'. zenStsCoeffErr when it is nearly singular. Nothing is written then.
ZenStatus ownrGetInverseMatrix(const double coeffs[12], double inverse[12]);

template <class T> struct WarpTask {
    SampleSource<T> src;
    T* const* dst;
    ptrdiff_t dstStep; // in elements
    ZenrBox box;       // of the destination
    double inverse[12];
};

// Slices [first, first + count) of the destination.
template <class T> using WarpVolume = void(Level level, const WarpTask<T>& task, int first, int count);

// The routines of a type, indexed by mode.
template <class T> WarpVolume<T>* const* warpVolumes();

} // namespace zenr
