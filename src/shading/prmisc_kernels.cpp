// Ray and shading kernels, compiled once per level.
//
// Products and sums are in double, in the order written, and each result is rounded to float once. Where float
// arithmetic stands instead, it gives the same bits, and the place says why.
//
// Shape of the loops: an element's inputs are all read before its first output is written, so that outputs may be
// inputs; `ivdep` tells the compiler that elements do not depend on each other, which it cannot see through a dozen
// pointers. Masks select with bit operations of the mask's own width rather than with conditions: behind a condition
// the compiler would move the loads too, and processors without masked loads would then get no vectors at all. A
// decision made in double is first turned into a float that says the same.
#include <stddef.h>
#include <stdint.h>

#include "frame/prconst.h"
#include "shading/shading.h"

namespace zenr::ZENR_LEVEL {
namespace {

// All ones for an active ray, else 0.
inline int32_t activeBits(int mask) {
    return ~(mask >> 31);
}
inline int32_t bitsIf(bool condition) {
    return -int32_t(condition);
}

// x, or 0 where no bits are set.
inline float keep(int32_t bits, float x) {
    return __builtin_bit_cast(float, __builtin_bit_cast(int32_t, x) & bits);
}

// x where the bits are set, elsewhere y; to the bit, NaNs included.
inline float choose(int32_t bits, float x, float y) {
    return __builtin_bit_cast(float,
                              (__builtin_bit_cast(int32_t, x) & bits) | (__builtin_bit_cast(int32_t, y) & ~bits));
}

// ---- Rays and hit points -------------------------------------------------------------------------------------------

void castEye(const float origin[3], const float widthStep[3], const float heightStep[3], double x0, double y0,
             float* const direction[3], int width, int height) {
    float* dx = direction[0];
    float* dy = direction[1];
    float* dz = direction[2];
    const double wx = widthStep[0], wy = widthStep[1], wz = widthStep[2];
    const double hx = heightStep[0], hy = heightStep[1], hz = heightStep[2];
    const double ox = origin[0], oy = origin[1], oz = origin[2];
    for (int row = 0; row < height; ++row) {
        const double y = row + y0;
        const double startX = hx * y + ox, startY = hy * y + oy, startZ = hz * y + oz;
#pragma GCC ivdep
        for (int column = 0; column < width; ++column) {
            const double x = column + x0;
            dx[column] = float(startX + wx * x);
            dy[column] = float(startY + wy * x);
            dz[column] = float(startZ + wz * x);
        }
        dx += width;
        dy += width;
        dz += width;
    }
}

void castReflection(const float* const incident[3], const int* mask, const float* const normal[3],
                    float* const reflected[3], int count) {
    const float *ix = incident[0], *iy = incident[1], *iz = incident[2];
    const float *nx = normal[0], *ny = normal[1], *nz = normal[2];
    float *rx = reflected[0], *ry = reflected[1], *rz = reflected[2];
#pragma GCC ivdep
    for (int i = 0; i < count; ++i) {
        const double inX = ix[i], inY = iy[i], inZ = iz[i];
        const double nX = nx[i], nY = ny[i], nZ = nz[i];
        const int32_t active = activeBits(mask[i]);
        const double d = inX * nX + inY * nY + inZ * nZ;
        const float x = float(inX - nX * (d + d)), y = float(inY - nY * (d + d)), z = float(inZ - nZ * (d + d));
        rx[i] = keep(active, x);
        ry[i] = keep(active, y);
        rz[i] = keep(active, z);
    }
}

void castShadow(const float light[3], const float* side, const float* const normal[3], const float* const point[3],
                int* mask, float* cosine, float* const shadowDirection[3], int count) {
    // A tenth of a degree in radians: what grazes the surface by less counts as unlit.
    constexpr double kGrazing = 0.0017453292;
    const double lx = light[0], ly = light[1], lz = light[2];
    const float *nx = normal[0], *ny = normal[1], *nz = normal[2];
    const float *px = point[0], *py = point[1], *pz = point[2];
    float *sx = shadowDirection[0], *sy = shadowDirection[1], *sz = shadowDirection[2];
#pragma GCC ivdep
    for (int i = 0; i < count; ++i) {
        const double nX = nx[i], nY = ny[i], nZ = nz[i];
        const double x = px[i] - lx, y = py[i] - ly, z = pz[i] - lz;
        const double towards = side[i];
        const int wasActive = mask[i];
        const double dot = nX * x + nY * y + nZ * z;
        const double size = __builtin_fabs(dot);
        // A NaN is not grazing, but then fails the test of the side.
        const double lit = size < kGrazing ? 0.0 : dot;
        const float cosineHere = float(towards * lit > 0.0 ? size : 0.0);
        // A lit ray's cosine is at least kGrazing, thus not 0 as a float either.
        const int32_t active = activeBits(wasActive) & bitsIf(cosineHere != 0.f);
        const float outX = float(x), outY = float(y), outZ = float(z);
        cosine[i] = keep(active, cosineHere);
        sx[i] = keep(active, outX);
        sy[i] = keep(active, outY);
        sz[i] = keep(active, outZ);
        // An inactive ray keeps its mask; an active one turns into -1 unless it is lit.
        mask[i] = wasActive | ~(active | (wasActive >> 31));
    }
}

struct SharedOrigin {
    double x, y, z;
    double atX(int) const { return x; }
    double atY(int) const { return y; }
    double atZ(int) const { return z; }
};

struct OriginPerRay {
    const float *x, *y, *z;
    double atX(int i) const { return x[i]; }
    double atY(int i) const { return y[i]; }
    double atZ(int i) const { return z[i]; }
};

template <class Origin>
inline void hitPoint(Origin origin, const float* const direction[3], const float* distance, const int* mask,
                     float* const hit[3], int count, double eps) {
    const float *dx = direction[0], *dy = direction[1], *dz = direction[2];
    float *hx = hit[0], *hy = hit[1], *hz = hit[2];
#pragma GCC ivdep
    for (int i = 0; i < count; ++i) {
        const double t = distance[i];
        const float x = float(dx[i] * eps * t + origin.atX(i));
        const float y = float(dy[i] * eps * t + origin.atY(i));
        const float z = float(dz[i] * eps * t + origin.atZ(i));
        const int32_t active = activeBits(mask[i]);
        hx[i] = keep(active, x);
        hy[i] = keep(active, y);
        hz[i] = keep(active, z);
    }
}

void hitPointS0(const float origin[3], const float* const direction[3], const float* distance, const int* mask,
                float* const hit[3], int count, float eps) {
    hitPoint(SharedOrigin{origin[0], origin[1], origin[2]}, direction, distance, mask, hit, count, eps);
}

void hitPointM0(const float* const origin[3], const float* const direction[3], const float* distance, const int* mask,
                float* const hit[3], int count, float eps) {
    hitPoint(OriginPerRay{origin[0], origin[1], origin[2]}, direction, distance, mask, hit, count, eps);
}

void distAttenuation(const float light[3], const float* const point[3], const int* mask, float* distance, int count) {
    const double lx = light[0], ly = light[1], lz = light[2];
    const float *px = point[0], *py = point[1], *pz = point[2];
#pragma GCC ivdep
    for (int i = 0; i < count; ++i) {
        const double x = px[i] - lx, y = py[i] - ly, z = pz[i] - lz;
        const double q = x * x + y * y + z * z;
        // A NaN is not below 1 and passes on.
        const float clamped = float(__builtin_sqrt(q < 1.0 ? 1.0 : q));
        distance[i] = choose(activeBits(mask[i]), clamped, 1.f);
    }
}

// ---- Normals -------------------------------------------------------------------------------------------------------

// What indices select is first gathered into planes on the stack, element by element, and then worked on in vectors.
constexpr int kBlock = 128;
constexpr float kZero[3] = {0.f, 0.f, 0.f};

void triangleNormal(const float* vertices, const int* triangles, float* normals, int count) {
    float p[9][kBlock];
    float n[3][kBlock];
    while (count > 0) {
        const int size = count < kBlock ? count : kBlock;
        for (int j = 0; j < size; ++j) {
            for (int corner = 0; corner < 3; ++corner) {
                const float* vertex = vertices + 3 * ptrdiff_t(triangles[4 * j + corner]);
                for (int k = 0; k < 3; ++k) p[3 * corner + k][j] = vertex[k];
            }
        }
        for (int j = 0; j < size; ++j) {
            const double x2 = p[6][j], y2 = p[7][j], z2 = p[8][j];
            const double e1x = p[0][j] - x2, e1y = p[1][j] - y2, e1z = p[2][j] - z2;
            const double e2x = p[3][j] - x2, e2y = p[4][j] - y2, e2z = p[5][j] - z2;
            const double x = e1y * e2z - e1z * e2y;
            const double y = e1z * e2x - e2z * e1x;
            const double z = e1x * e2y - e1y * e2x;
            const double q = y * y + z * z + x * x;
            const double length = __builtin_sqrt(q);
            // A NaN is not small: it reaches the normal.
            const bool small = q < 2.220446049250313e-16;
            n[0][j] = float(small ? 0.0 : x / length);
            n[1][j] = float(small ? 0.0 : y / length);
            n[2][j] = float(small ? 0.0 : z / length);
        }
        for (int j = 0; j < size; ++j)
            for (int k = 0; k < 3; ++k) normals[3 * j + k] = n[k][j];
        triangles += 4 * size;
        normals += 3 * size;
        count -= size;
    }
}

void surfFlatNormal(const float* triangleNormals, const int* triangle, float* const normal[3], int count) {
    float *nx = normal[0], *ny = normal[1], *nz = normal[2];
    for (int i = 0; i < count; ++i) {
        const ptrdiff_t j = triangle[i];
        const float* n = j >= 0 ? triangleNormals + 3 * j : kZero;
        const float x = n[0], y = n[1], z = n[2];
        nx[i] = x;
        ny[i] = y;
        nz[i] = z;
    }
}

void surfSmoothNormal(const float* vertexNormals, const int* triangles, const int* triangle, const float* const hit[2],
                      float* const normal[3], int count, int triangleStride) {
    float p[9][kBlock];
    const float *u0 = hit[0], *v0 = hit[1];
    float *nx = normal[0], *ny = normal[1], *nz = normal[2];
    while (count > 0) {
        const int size = count < kBlock ? count : kBlock;
        for (int i = 0; i < size; ++i) {
            const ptrdiff_t j = triangle[i];
            const bool active = j >= 0;
            // A missed ray selects nothing: neither its triangle nor a vertex is read.
            const int* corners = active ? triangles + j * triangleStride : nullptr;
            for (int corner = 0; corner < 3; ++corner) {
                const float* vertex = active ? vertexNormals + 3 * ptrdiff_t(corners[corner]) : kZero;
                for (int k = 0; k < 3; ++k) p[3 * corner + k][i] = vertex[k];
            }
        }
#pragma GCC ivdep
        for (int i = 0; i < size; ++i) {
            const double u = u0[i], v = v0[i];
            const double w = float(1.0 - u - v);
            const double x = p[0][i] * u + p[3][i] * v + p[6][i] * w;
            const double y = p[1][i] * u + p[4][i] * v + p[7][i] * w;
            const double z = p[2][i] * u + p[5][i] * v + p[8][i] * w;
            const float q = float(y * y + z * z + x * x);
            // The root of a float, correctly rounded to float, is the same by way of double.
            const double r = __builtin_sqrtf(q);
            const float outX = float(x / r), outY = float(y / r), outZ = float(z / r);
            // The single-precision epsilon; a NaN is not small and reaches the normal.
            const int32_t normalised = activeBits(triangle[i]) & ~bitsIf(q < 1.1920929e-7f);
            nx[i] = keep(normalised, outX);
            ny[i] = keep(normalised, outY);
            nz[i] = keep(normalised, outZ);
        }
        triangle += size;
        u0 += size;
        v0 += size;
        nx += size;
        ny += size;
        nz += size;
        count -= size;
    }
}

// ---- Masked arithmetic ---------------------------------------------------------------------------------------------

void dot(const float* const a[3], const float* const b[3], const int* mask, float* dot, int count) {
    const float *ax = a[0], *ay = a[1], *az = a[2];
    const float *bx = b[0], *by = b[1], *bz = b[2];
#pragma GCC ivdep
    for (int i = 0; i < count; ++i) {
        const double aX = ax[i], aY = ay[i], aZ = az[i];
        const float d = float(aX * bx[i] + aY * by[i] + aZ * bz[i]);
        dot[i] = keep(activeBits(mask[i]), d);
    }
}

void dotChangeNorm(const float* const a[3], const int* mask, float* const normal[3], float* dot, int count) {
    const float *ax = a[0], *ay = a[1], *az = a[2];
    float *nx = normal[0], *ny = normal[1], *nz = normal[2];
#pragma GCC ivdep
    for (int i = 0; i < count; ++i) {
        const double aX = ax[i], aY = ay[i], aZ = az[i];
        const float x = nx[i], y = ny[i], z = nz[i];
        const double d = aX * x + aY * y + aZ * z;
        const int32_t active = activeBits(mask[i]);
        // The decision is the double's: d may be positive and yet 0 as a float. A NaN keeps the normal.
        const float facesAway = float(d > 0.0 ? 1.0 : 0.0);
        const float dotHere = float(d > 0.0 ? -d : d);
        const int32_t turn = active & bitsIf(facesAway != 0.f);
        // Selected rather than multiplied by a sign, so that a normal that is kept is kept to the bit.
        nx[i] = choose(turn, -x, x);
        ny[i] = choose(turn, -y, y);
        nz[i] = choose(turn, -z, z);
        dot[i] = keep(active, dotHere);
    }
}

// A product of two floats is exact in double, so the float product is the same.
void mulC1(const float* src, const int* mask, float* srcDst, int count) {
#pragma GCC ivdep
    for (int i = 0; i < count; ++i) {
        const float product = srcDst[i] * src[i];
        srcDst[i] = keep(activeBits(mask[i]), product);
    }
}

void mulC1P3(const float* src, const int* mask, float* const srcDst[3], int count) {
    float *dx = srcDst[0], *dy = srcDst[1], *dz = srcDst[2];
#pragma GCC ivdep
    for (int i = 0; i < count; ++i) {
        const float s = src[i];
        const float x = dx[i] * s, y = dy[i] * s, z = dz[i] * s;
        const int32_t active = activeBits(mask[i]);
        dx[i] = keep(active, x);
        dy[i] = keep(active, y);
        dz[i] = keep(active, z);
    }
}

// The float quotient is the double quotient rounded to float: a quotient of two 24-bit numbers is either a midpoint
// between floats or further from it than 53 bits can miss.
void divC1(const float* src, const int* mask, float* srcDst, int count) {
    const float inf = zenConstantOfINF_32f.value;
    const float negInf = zenConstantOfINF_NEG_32f.value;
    const float nan = zenConstantOfNAN_32f.value;
#pragma GCC ivdep
    for (int i = 0; i < count; ++i) {
        const float a = srcDst[i], b = src[i];
        const float quotient = a / b;
        const float byZero = a > 0.f ? inf : a < 0.f ? negInf : nan;
        const float result = b == 0.f ? byZero : quotient;
        srcDst[i] = keep(activeBits(mask[i]), result);
    }
}

void addMulMul(const float c[3], const float* s, const float* const src[3], const int* mask, float* const srcDst[3],
               int count) {
    const double cx = c[0], cy = c[1], cz = c[2];
    const float *sx = src[0], *sy = src[1], *sz = src[2];
    float *dx = srcDst[0], *dy = srcDst[1], *dz = srcDst[2];
#pragma GCC ivdep
    for (int i = 0; i < count; ++i) {
        const double factor = s[i];
        const float oldX = dx[i], oldY = dy[i], oldZ = dz[i];
        const float x = float(sx[i] * cx * factor + oldX);
        const float y = float(sy[i] * cy * factor + oldY);
        const float z = float(sz[i] * cz * factor + oldZ);
        const int32_t active = activeBits(mask[i]);
        dx[i] = choose(active, x, oldX);
        dy[i] = choose(active, y, oldY);
        dz[i] = choose(active, z, oldZ);
    }
}

} // namespace

extern const ShadingKernels kShading = {
    castEye,        castReflection, castShadow,       hitPointS0, hitPointM0,    distAttenuation,
    triangleNormal, surfFlatNormal, surfSmoothNormal, dot,        dotChangeNorm, mulC1,
    mulC1P3,        divC1,          addMulMul};

} // namespace zenr::ZENR_LEVEL
