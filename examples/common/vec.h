// Three doubles with the usual operators: positions and directions outside the inner loops. The square root is the only
// function of the mathematical library used in these programs, because its result is the same everywhere.
#pragma once
#include <cmath>

struct Vec {
    double x = 0, y = 0, z = 0;

    double operator[](int k) const { return k == 0 ? x : k == 1 ? y : z; }
};

inline Vec operator+(const Vec& a, const Vec& b) {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}
inline Vec operator-(const Vec& a, const Vec& b) {
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
inline Vec operator*(const Vec& a, double s) {
    return {a.x * s, a.y * s, a.z * s};
}
inline double dot(const Vec& a, const Vec& b) {
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
inline Vec cross(const Vec& a, const Vec& b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
inline double length(const Vec& a) {
    return std::sqrt(dot(a, a));
}
// Zero stays zero.
inline Vec normalised(const Vec& a) {
    const double l = length(a);
    return l > 0 ? a * (1 / l) : a;
}
inline Vec toVec(const float* p) {
    return {p[0], p[1], p[2]};
}
inline void toFloats(const Vec& v, float* p) {
    p[0] = static_cast<float>(v.x);
    p[1] = static_cast<float>(v.y);
    p[2] = static_cast<float>(v.z);
}
