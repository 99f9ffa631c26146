// Spherical harmonics as one would write them by hand; compiled with -O3 -march=native.
#include "sh_baseline.h"

namespace shbase {

namespace {

inline void closedFormOne(const Tables& t, double x, double y, double z, float* dst, int L) {
    double c = 1, s = 0;
    for (int m = 0; m <= L; ++m) {
        double p0 = 0, p1 = t.diagonal[m];
        for (int l = m; l <= L; ++l) {
            if (l > m) {
                const double p2 = t.da[l * (l + 1) / 2 + m] * z * p1 + t.db[l * (l + 1) / 2 + m] * p0;
                p0 = p1;
                p1 = p2;
            }
            dst[l * l + l + m] = float(p1 * c);
            if (m > 0) dst[l * l + l - m] = float(p1 * s);
        }
        const double next = x * c - y * s;
        s = x * s + y * c;
        c = next;
    }
}

inline void recurrenceOne(const Tables& t, float x, float y, float z, float* S, int L) {
    S[0] = t.a[0];
    if (L == 0) return;
    S[1] = t.a[2] * y;
    S[2] = t.a[1] * z;
    S[3] = t.a[2] * x;
    for (int l = 2; l <= L; ++l) {
        const float* a = t.a + l * (l + 1) / 2;
        const float* b = t.b + l * (l + 1) / 2;
        float* here = S + l * l + l;
        const float* below = S + l * l - l;
        const float* below2 = S + l * l - 3 * l + 2;
        here[l] = a[l] * (below[l - 1] * x - below[1 - l] * y);
        here[-l] = a[l] * (below[1 - l] * x + below[l - 1] * y);
        here[l - 1] = a[l - 1] * z * below[l - 1];
        here[1 - l] = a[l - 1] * z * below[1 - l];
        here[0] = a[0] * z * below[0] + b[0] * below2[0];
        for (int k = 1; k <= l - 2; ++k) {
            here[k] = a[k] * z * below[k] + b[k] * below2[k];
            here[-k] = a[k] * z * below[-k] + b[k] * below2[-k];
        }
    }
}

inline void basisOne(const Tables& t, int type, float x, float y, float z, float* dst, int L) {
    if (type)
        recurrenceOne(t, x, y, z, dst, L);
    else
        closedFormOne(t, x, y, z, dst, L);
}

} // namespace

void closedForm(const Tables& t, const float* x, const float* y, const float* z, int n, float* dst, int L) {
    for (int i = 0; i < n; ++i, dst += (L + 1) * (L + 1)) closedFormOne(t, x[i], y[i], z[i], dst, L);
}

void recurrence(const Tables& t, const float* x, const float* y, const float* z, int n, float* dst, int L) {
    for (int i = 0; i < n; ++i, dst += (L + 1) * (L + 1)) recurrenceOne(t, x[i], y[i], z[i], dst, L);
}

void forward(const Tables& t, int type, const float* x, const float* y, const float* z, const float* const* src,
             int channels, int n, float* const* coeffs, int L) {
    float basis[256];
    const int values = (L + 1) * (L + 1);
    for (int i = 0; i < n; ++i) {
        basisOne(t, type, x[i], y[i], z[i], basis, L);
        for (int c = 0; c < channels; ++c) {
            const float v = src[c][i];
            float* out = coeffs[c];
            for (int k = 0; k < values; ++k) out[k] += basis[k] * v;
        }
    }
}

template <class Sum>
void inverse(const Tables& t, int type, const float* x, const float* y, const float* z, const float* const* coeffs,
             int channels, int n, float* const* dst, int L) {
    float basis[256];
    const int values = (L + 1) * (L + 1);
    for (int i = 0; i < n; ++i) {
        basisOne(t, type, x[i], y[i], z[i], basis, L);
        for (int c = 0; c < channels; ++c) {
            Sum sum = 0;
            for (int k = 0; k < values; ++k) sum += Sum(basis[k]) * Sum(coeffs[c][k]);
            dst[c][i] = float(sum);
        }
    }
}
template void inverse<double>(const Tables&, int, const float*, const float*, const float*, const float* const*, int,
                              int, float* const*, int);
template void inverse<long double>(const Tables&, int, const float*, const float*, const float*, const float* const*,
                                   int, int, float* const*, int);

} // namespace shbase
