// From light to what a picture shows.
#pragma once
#include <algorithm>

// Negative light, which truncated series have, is shown as none. Highlights are rolled off so that kWhite times middle
// grey, and what is brighter, is white (Reinhard's operator with a white point).
class Display {
public:
    explicit Display(double scale) : scale_(scale) {}
    double operator()(double light) const {
        const double x = scale_ * light;
        if (!(x > 0)) return 0;
        return std::min(1.0, x * (1 + x / (kWhite * kWhite)) / (1 + x));
    }

private:
    static constexpr double kWhite = 6;
    double scale_;
};
