// What is known of the sizes of a row's elements; it decides how much of a row's sums has to be checked.
#pragma once

namespace zenr {

// No finite element exceeds `most` in size, and no other but 0 falls below `least`. A `most` of 0 also says that sums are
// exact in double, whatever the elements.
struct RowBound {
    float most;
    float least;
};

// Elements so close to each other (and zeros) that sums with short weights are exact in double: in units of 2^-10 of the
// least element's last place, they stay below 2^53.
static inline bool isClose(const RowBound& bound) {
    return bound.most <= bound.least * 0x1p17f;
}

// Weights that are multiples of 2^-10 make sums that often lie half-way between two floats.
static inline bool isShort(double w) {
    const double scaled = w * 1024;
    return scaled == double(int(scaled));
}

} // namespace zenr
