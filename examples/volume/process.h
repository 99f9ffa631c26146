// What the program does to volumes, through the library.
#pragma once
#include <array>
#include <functional>
#include <string>
#include <vector>

#include "volume.h"

// Called after each part of a long operation with the share that is done, 0..1.
using Report = std::function<void(double)>;

constexpr int kSlab = 64; // slices at a time: enough for the library to share among threads

// Fails where a status of the library is an error.
void check(int status, const char* what);

// Interpolation by name: nearest, linear, and the cubic ones. Fails for any other name.
int interpolationOf(const std::string& name);
const std::vector<std::string>& interpolationNames();

Volume resized(const Volume& source, const double factor[3], int interpolation, const Report& report);

// A kernel of whole numbers, x fastest, and what its sums are divided by.
struct Kernel {
    int width = 1, height = 1, depth = 1;
    std::vector<int32_t> weights;
    int divisor = 1;
};
Kernel kernelOf(const std::string& name); // one of kernelNames(), or the path of a kernel file
const std::vector<std::string>& kernelNames();

// Edges are repeated outwards. Voxels must fit 16 signed bits.
Volume filtered(const Volume& source, const Kernel& kernel, const Report& report);

// Three rows of four: source to result coordinates, in voxels.
using Matrix = std::array<double, 12>;
// Scales along the axes, turns about an axis, and shifts; the centre of the volume stays where it is but for the shift.
Matrix aboutCentre(const Volume& volume, double degrees, const double axis[3], const double scale[3],
                   const double shift[3]);

// A result of the source's size; 0 where it has no counterpart in the source.
Volume warped(const Volume& source, const Matrix& matrix, int interpolation, const Report& report);

// Where each voxel of a result is taken from: its displacement from its own place, in voxels.
struct Field {
    std::vector<float> x, y, z;
};
Field readField(const std::string& path, const Volume& volume); // raw floats: all of x, then of y, then of z
// Turns slices about the middle of the volume: the first by nothing, the last by `degrees`.
Field twist(const Volume& volume, double degrees);

// As for warped. The field becomes the positions themselves.
Volume remapped(const Volume& source, Field&& field, int interpolation, const Report& report);
