// Environment maps: light from all directions, as an equirectangular picture in linear light.
#pragma once
#include <string>
#include <vector>

#include "vec.h"

// The map's own axes: z is up, x points to the middle of the map, y to its left quarter (one that is looked at from
// inside: columns go to the right).
struct Environment {
    int width = 0, height = 0; // width = 2 * height
    std::vector<float> rgb;    // rows from the top, each from left to right

    // Sines and cosines of the columns' angles, at the middle of the pixels.
    struct Columns {
        std::vector<double> sine, cosine;
    };
    Columns columns() const;
    // Height and radius of a circle of directions: the middle of a row. And what a pixel of it takes of the sphere.
    struct Row {
        double up, radius, solidAngle;
    };
    Row row(int y) const;

    // Light from a direction, interpolated between the pixels.
    void lookUp(const Vec& direction, float* colour) const;
};

// Reads PNG (8 or 16 bits, sRGB) or Radiance HDR.
Environment loadEnvironment(const std::string& path);

// A hazy sky: blue above, bright at the horizon, clouds, the sun with its glow, dull ground. In front of the middle.
Environment makeSky(double sunDegrees);

// The mean over blocks of pixels, no wider than asked.
Environment reduced(const Environment& environment, int width);
