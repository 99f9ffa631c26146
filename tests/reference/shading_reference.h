// Plain definitions of the ray and shading functions, one element at a time, in double: what the kernels are compared
// with. Shares nothing with the library.
#pragma once
#include <stdint.h>
#include <string.h>

#include <cmath>

namespace reference {

inline float nanWord() {
    const uint32_t bits = 0xFFC00000u;
    float x;
    memcpy(&x, &bits, 4);
    return x;
}

// Coordinates x, y of an image element, given a tile's size and index: the product wraps like a 32-bit register.
inline double tileCoordinate(int counter, int size, int index) {
    int64_t product = (int64_t(size) * index) % (int64_t(1) << 32);
    if (product < -(int64_t(1) << 31)) product += int64_t(1) << 32;
    if (product >= (int64_t(1) << 31)) product -= int64_t(1) << 32;
    return double(counter) + double(product);
}

inline float eyeDirection(float origin, float widthStep, float heightStep, double x, double y) {
    const double row = double(heightStep) * y;
    const double start = row + double(origin);
    return float(start + double(widthStep) * x);
}

inline double dot3(const double a[3], const double b[3]) {
    const double first = a[0] * b[0];
    const double second = first + a[1] * b[1];
    return second + a[2] * b[2];
}

inline void reflection(const float incident[3], int mask, const float normal[3], float out[3]) {
    if (mask < 0) {
        out[0] = out[1] = out[2] = 0;
        return;
    }
    const double i[3] = {incident[0], incident[1], incident[2]};
    const double n[3] = {normal[0], normal[1], normal[2]};
    const double d = dot3(i, n);
    const double twice = d + d;
    for (int k = 0; k < 3; ++k) out[k] = float(i[k] - n[k] * twice);
}

inline void shadow(const float light[3], float side, const float normal[3], const float point[3], int* mask,
                   float* cosine, float direction[3]) {
    *cosine = 0;
    direction[0] = direction[1] = direction[2] = 0;
    if (*mask < 0) return;
    const double n[3] = {normal[0], normal[1], normal[2]};
    double path[3];
    for (int k = 0; k < 3; ++k) path[k] = double(point[k]) - double(light[k]);
    double d = dot3(n, path);
    if (std::fabs(d) < 0.0017453292) d = 0;
    if (double(side) * d > 0) {
        *cosine = float(std::fabs(d));
        for (int k = 0; k < 3; ++k) direction[k] = float(path[k]);
    } else {
        *mask = -1;
    }
}

inline float hitPoint(float origin, float direction, float distance, int mask, float eps) {
    if (mask < 0) return 0;
    double step = double(direction) * double(eps);
    step = step * double(distance);
    return float(step + double(origin));
}

inline float attenuation(const float light[3], const float point[3], int mask) {
    if (mask < 0) return 1;
    double path[3];
    for (int k = 0; k < 3; ++k) path[k] = double(point[k]) - double(light[k]);
    const double q = dot3(path, path);
    if (q < 1) return 1;
    return float(std::sqrt(q));
}

// x, y, z squared and added in the order y, z, x.
inline double lengthSquared(const double n[3]) {
    const double yz = n[1] * n[1] + n[2] * n[2];
    return yz + n[0] * n[0];
}

inline void triangleNormal(const float* vertices, const int* triangle, float out[3]) {
    double e1[3], e2[3], n[3];
    for (int k = 0; k < 3; ++k) {
        const double last = vertices[3 * triangle[2] + k];
        e1[k] = double(vertices[3 * triangle[0] + k]) - last;
        e2[k] = double(vertices[3 * triangle[1] + k]) - last;
    }
    n[0] = e1[1] * e2[2] - e1[2] * e2[1];
    n[1] = e1[2] * e2[0] - e2[2] * e1[0];
    n[2] = e1[0] * e2[1] - e1[1] * e2[0];
    const double q = lengthSquared(n);
    for (int k = 0; k < 3; ++k) out[k] = q < 2.220446049250313e-16 ? 0.f : float(n[k] / std::sqrt(q));
}

inline void flatNormal(const float* triangleNormals, int triangle, float out[3]) {
    for (int k = 0; k < 3; ++k) out[k] = triangle >= 0 ? triangleNormals[3 * triangle + k] : 0.f;
}

inline void smoothNormal(const float* vertexNormals, const int* triangles, int stride, int triangle, float u, float v,
                         float out[3]) {
    out[0] = out[1] = out[2] = 0;
    if (triangle < 0) return;
    const int* corners = triangles + int64_t(stride) * triangle;
    const volatile float w = float(1.0 - double(u) - double(v));
    double n[3];
    for (int k = 0; k < 3; ++k) {
        const double first = double(vertexNormals[3 * corners[0] + k]) * double(u);
        const double second = double(vertexNormals[3 * corners[1] + k]) * double(v);
        const double third = double(vertexNormals[3 * corners[2] + k]) * double(w);
        n[k] = first + second + third;
    }
    const volatile float q = float(lengthSquared(n));
    if (q < 1.1920929e-7f) return;
    const volatile float r = float(std::sqrt(double(q)));
    for (int k = 0; k < 3; ++k) out[k] = float(n[k] / double(r));
}

inline float dot(const float a[3], const float b[3], int mask) {
    const double x[3] = {a[0], a[1], a[2]}, y[3] = {b[0], b[1], b[2]};
    return mask < 0 ? 0.f : float(dot3(x, y));
}

inline void dotChangeNorm(const float a[3], int mask, float normal[3], float* out) {
    *out = 0;
    if (mask < 0) return;
    const double x[3] = {a[0], a[1], a[2]}, y[3] = {normal[0], normal[1], normal[2]};
    const double d = dot3(x, y);
    *out = float(d);
    if (d > 0) {
        for (int k = 0; k < 3; ++k) normal[k] = -normal[k];
        *out = float(-d);
    }
}

inline float product(float a, float b, int mask) {
    return mask < 0 ? 0.f : float(double(a) * double(b));
}

inline float quotient(float a, float b, int mask) {
    if (mask < 0) return 0;
    if (b == 0) return a > 0 ? INFINITY : a < 0 ? -INFINITY : nanWord();
    return float(double(a) / double(b));
}

inline float accumulated(float c, float s, float src, float old, int mask) {
    if (mask < 0) return old;
    double term = double(src) * double(c);
    term = term * double(s);
    return float(term + double(old));
}

} // namespace reference
