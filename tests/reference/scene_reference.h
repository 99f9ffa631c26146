// Plain definitions of the scene records: evaluated in double, rounded to float where a value is stored.
#pragma once
#include <math.h>
#include <stdint.h>

#include <algorithm>
#include <array>

namespace reference {

inline std::array<float, 6> boundBox(const float* vertices, int count) {
    const float huge = 3.40282346638528859812e38f;
    std::array<float, 6> box{huge, huge, huge, -huge, -huge, -huge};
    for (int i = 0; i < 3 * count; ++i) {
        if (vertices[i] < box[i % 3]) box[i % 3] = vertices[i];
        if (vertices[i] > box[3 + i % 3]) box[3 + i % 3] = vertices[i];
    }
    float size = 1.17549435e-38f;
    for (float bound : box) size = std::max(size, std::fabs(bound));
    const long double m = (long double)0.0001f * size;
    for (int i = 0; i < 6; ++i) box[i] = float(double(i < 3 ? box[i] - m : box[i] + m));
    return box;
}

// The ten words of a record.
inline std::array<uint32_t, 10> triangleRecord(const float* P0, const float* P1, const float* P2) {
    struct V {
        double c[3];
    };
    const V E1{{double(P0[0]) - P2[0], double(P0[1]) - P2[1], double(P0[2]) - P2[2]}};
    const V E2{{double(P1[0]) - P2[0], double(P1[1]) - P2[1], double(P1[2]) - P2[2]}};
    V N;
    N.c[0] = E1.c[1] * E2.c[2] - E1.c[2] * E2.c[1];
    N.c[1] = E1.c[2] * E2.c[0] - E1.c[0] * E2.c[2];
    N.c[2] = E1.c[0] * E2.c[1] - E1.c[1] * E2.c[0];
    const double x = std::fabs(N.c[0]), y = std::fabs(N.c[1]), z = std::fabs(N.c[2]);
    const bool unordered = std::isnan(x) || std::isnan(y);
    char axis = (y <= x || unordered) ? 'x' : 'y';
    if ((axis == 'x' ? x : y) < z) axis = 'z';
    const int k = axis - 'x';
    const int a = axis == 'x' ? 1 : 0;
    const int b = axis == 'z' ? 1 : 2;
    const int s = axis == 'y' ? -1 : 1;
    std::array<uint32_t, 10> words{};
    if (N.c[k] == 0) return words;
    const float r = float(1 / N.c[k]);
    const bool tilted = !(std::fabs(N.c[b]) < 2.220446049250313e-16) || !(std::fabs(N.c[a]) < 2.220446049250313e-16);
    const double q = double(r) * s;
    const float fields[9] = {tilted ? float(N.c[a] * r) : 0.f,
                             P2[k],
                             tilted ? float(N.c[b] * r) : 0.f,
                             P2[a],
                             P2[b],
                             float(E2.c[a] * q),
                             float(E2.c[b] * q),
                             float(E1.c[a] * q),
                             float(E1.c[b] * q)};
    words[0] = uint32_t(16 * k + 4 * a + b);
    if (!tilted) words[0] |= 1u << 31;
    for (int i = 0; i < 9; ++i) __builtin_memcpy(&words[1 + i], &fields[i], 4);
    return words;
}

} // namespace reference
