// The environment and what the harmonics make of it, side by side.
#pragma once
#include <vector>

#include "display.h"
#include "environment.h"

struct Maps {
    Environment original, reconstructed, matt; // of the same size
};

// A PNG of four panels: original, reconstruction; matt, difference of the first two.
std::vector<unsigned char> drawMaps(const Maps& maps, const Display& display);

// What lies below zero in a map.
struct Negative {
    double share = 0;  // of the sphere, where any colour is negative
    double lowest = 0; // the most negative value
};
Negative negativeOf(const Environment& map);
