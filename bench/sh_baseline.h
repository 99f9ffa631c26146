// The plain loops that the spherical harmonics are measured against.
#pragma once

namespace shbase {

struct Tables {
    float a[136], b[136];    // of the recurrence over floats
    double da[136], db[136]; // the same factors in double, of the closed form
    double diagonal[16];     // of Y(m, m) / Re (x + iy)^m
};

void closedForm(const Tables& t, const float* x, const float* y, const float* z, int n, float* dst, int L);
void recurrence(const Tables& t, const float* x, const float* y, const float* z, int n, float* dst, int L);
// type 0 is the closed form, 1 the recurrence; channels planes of samples or results, and of coefficients.
void forward(const Tables& t, int type, const float* x, const float* y, const float* z, const float* const* src,
             int channels, int n, float* const* coeffs, int L);
template <class Sum>
void inverse(const Tables& t, int type, const float* x, const float* y, const float* z, const float* const* coeffs,
             int channels, int n, float* const* dst, int L);

} // namespace shbase
