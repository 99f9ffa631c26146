// Series, summed until terms no longer count.
#include "angles.h"

#include <cmath>

void sineCosine(double degrees, double& sine, double& cosine) {
    const double x = degrees * (kPi / 180);
    sine = cosine = 0;
    double term = 1; // x^n / n!
    for (int n = 0; n < 60; ++n) {
        const double signedTerm = n % 4 < 2 ? term : -term;
        (n % 2 ? sine : cosine) += signedTerm;
        term *= x / (n + 1);
    }
}

double tangent(double degrees) {
    double sine, cosine;
    sineCosine(degrees, sine, cosine);
    return sine / cosine;
}

double turnsOf(double y, double x) {
    const double larger = std::fmax(std::abs(x), std::abs(y));
    if (!(larger > 0)) return 0;
    // Halved three times, the angle's tangent is below 0.1: tan(a/2) = t / (1 + sqrt(1 + t^2)).
    double t = std::fmin(std::abs(x), std::abs(y)) / larger;
    for (int half = 0; half < 3; ++half) t /= 1 + std::sqrt(1 + t * t);
    double angle = 0, power = t;
    for (int n = 1; n < 19; n += 2) {
        angle += (n % 4 == 1 ? power : -power) / n;
        power *= t * t;
    }
    angle *= 8 / (2 * kPi);
    if (std::abs(y) > std::abs(x)) angle = 0.25 - angle;
    if (x < 0) angle = 0.5 - angle;
    return y < 0 ? -angle : angle;
}
