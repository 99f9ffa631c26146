// Angles through series of our own: the last bits of sin(), tan() and atan2() depend on the library.
#pragma once

constexpr double kPi = 3.14159265358979323846;

// Of an angle of at most one turn.
void sineCosine(double degrees, double& sine, double& cosine);
double tangent(double degrees);

// The angle of the point (x, y) from the x axis, in turns: above -1/2, at most 1/2. 0 for (0, 0).
double turnsOf(double y, double x);
