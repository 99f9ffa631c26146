// Plain scalar definitions of the spherical harmonics: the recurrence over floats, the same in extended precision
// without intermediate rounding (the functions themselves), and the two transforms.
#pragma once
#include <math.h>
#include <stdint.h>

#include <vector>

namespace shref {

inline size_t groupStart(unsigned l) {
    return l < 2 ? 0 : 3 + (size_t(l) * (l + 1) / 2 - 3);
}

// Tables of a state: three entries for bands 0 and 1, l + 1 for each later band.
inline void tables(unsigned L, std::vector<float>& a, std::vector<float>& b) {
    const size_t n = L == 0 ? 3 : size_t(L + 1) * (L + 2) / 2;
    a.assign(n, 0.f);
    b.assign(n, 0.f);
    const long double r = sqrtl(4 * 3.14159265358979323846264338327950288L);
    a[0] = float(1 / r);
    a[1] = float(sqrtl(3.0L) / r);
    a[2] = float(-sqrtl(3.0L) / r);
    for (unsigned band = 2; band <= L; ++band) {
        const long double l = band;
        float* al = &a[groupStart(band)];
        float* bl = &b[groupStart(band)];
        for (unsigned i = 0; i < band; ++i) {
            const long double k = i;
            al[i] = float(sqrtl((4 * l * l - 1) / (l * l - k * k)));
            bl[i] = float(-sqrtl(((l - 1) * (l - 1) - k * k) * (2 * l + 1) / ((l * l - k * k) * (2 * l - 3))));
        }
        al[band] = float(-sqrtl((2 * l + 1) / (2 * l)));
    }
}

// One direction by the recurrence, every operation in float.
inline void recurrence(const std::vector<float>& a, const std::vector<float>& b, unsigned L, float x, float y, float z,
                       float* dst) {
    const auto S = [dst](int l, int m) -> float& { return dst[l * l + l + m]; };
    S(0, 0) = a[0];
    if (L == 0) return;
    S(1, -1) = a[2] * y;
    S(1, 0) = a[1] * z;
    S(1, 1) = a[2] * x;
    for (int l = 2; l <= int(L); ++l) {
        const float* A = &a[groupStart(unsigned(l))];
        const float* B = &b[groupStart(unsigned(l))];
        S(l, l) = A[l] * (S(l - 1, l - 1) * x - S(l - 1, -(l - 1)) * y);
        S(l, -l) = A[l] * (S(l - 1, -(l - 1)) * x + S(l - 1, l - 1) * y);
        S(l, l - 1) = A[l - 1] * z * S(l - 1, l - 1);
        S(l, -(l - 1)) = A[l - 1] * z * S(l - 1, -(l - 1));
        S(l, 0) = A[0] * z * S(l - 1, 0) + B[0] * S(l - 2, 0);
        for (int k = 1; k <= l - 2; ++k) {
            S(l, k) = A[k] * z * S(l - 1, k) + B[k] * S(l - 2, k);
            S(l, -k) = A[k] * z * S(l - 1, -k) + B[k] * S(l - 2, -k);
        }
    }
}

// The functions themselves, to extended precision.
inline void exact(unsigned L, long double x, long double y, long double z, long double* dst) {
    const auto S = [dst](int l, int m) -> long double& { return dst[l * l + l + m]; };
    const long double r = sqrtl(4 * 3.14159265358979323846264338327950288L);
    S(0, 0) = 1 / r;
    if (L == 0) return;
    S(1, -1) = -sqrtl(3.0L) / r * y;
    S(1, 0) = sqrtl(3.0L) / r * z;
    S(1, 1) = -sqrtl(3.0L) / r * x;
    for (int l = 2; l <= int(L); ++l) {
        const long double s = -sqrtl((2 * l + 1) / (2.0L * l));
        S(l, l) = s * (S(l - 1, l - 1) * x - S(l - 1, -(l - 1)) * y);
        S(l, -l) = s * (S(l - 1, -(l - 1)) * x + S(l - 1, l - 1) * y);
        for (int k = 0; k <= l - 1; ++k) {
            const long double A = sqrtl((4.0L * l * l - 1) / (l * l - k * k));
            const long double B =
                -sqrtl((((l - 1) * (l - 1) - k * k) * (2.0L * l + 1)) / ((l * l - k * k) * (2.0L * l - 3)));
            for (int sign = 1; sign >= (k ? -1 : 1); sign -= 2) {
                long double v = A * z * S(l - 1, sign * k);
                if (k <= l - 2) v += B * S(l - 2, sign * k);
                S(l, sign * k) = v;
            }
        }
    }
}

// Adds one sample's contribution: `basis` holds the n float values of its direction.
inline void forward(const float* basis, size_t n, float sample, float* coeffs) {
    for (size_t k = 0; k < n; ++k) {
        const float product = sample == 1.f ? basis[k] : sample == 0.f ? 0.f : basis[k] * sample;
        coeffs[k] = coeffs[k] + product;
    }
}

inline float inverse(const float* basis, size_t n, const float* coeffs) {
    long double sum = 0;
    for (size_t k = 0; k < n; ++k) sum += (long double)basis[k] * (long double)coeffs[k];
    return float(sum);
}

} // namespace shref
