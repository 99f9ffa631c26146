// What the program does to volumes, through the library.
#pragma once
#include <functional>
#include <string>
#include <vector>

#include "volume.h"

// Called after each part of a long operation with the share that is done, 0..1.
using Report = std::function<void(double)>;

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
