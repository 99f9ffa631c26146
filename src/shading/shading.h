// Ray and shading kernels: the table of a level, and the one worker with threads. For shells, tests and benchmarks;
// level sources see ShadingKernels only.
#pragma once
#include "frame/dispatch.h"

namespace zenr {

// One slot a kernel. Counts are at least 1. Planar operands are arrays of three plane pointers. Outputs may be inputs
// element for element: a kernel has read all inputs of an element before it writes the element's outputs.
struct ShadingKernels {
    // The tile's first element has the image coordinates x0, y0.
    void (*castEye)(const float origin[3], const float widthStep[3], const float heightStep[3], double x0, double y0,
                    float* const direction[3], int width, int height);
    void (*castReflection)(const float* const incident[3], const int* mask, const float* const normal[3],
                           float* const reflected[3], int count);
    void (*castShadow)(const float light[3], const float* side, const float* const normal[3],
                       const float* const point[3], int* mask, float* cosine, float* const shadowDirection[3],
                       int count);
    void (*hitPointS0)(const float origin[3], const float* const direction[3], const float* distance, const int* mask,
                       float* const hitPoint[3], int count, float eps);
    void (*hitPointM0)(const float* const origin[3], const float* const direction[3], const float* distance,
                       const int* mask, float* const hitPoint[3], int count, float eps);
    void (*distAttenuation)(const float light[3], const float* const point[3], const int* mask, float* distance,
                            int count);
    // `triangles` and `normals` start at the first of `count` triangles.
    void (*triangleNormal)(const float* vertices, const int* triangles, float* normals, int count);
    void (*surfFlatNormal)(const float* triangleNormals, const int* triangle, float* const normal[3], int count);
    void (*surfSmoothNormal)(const float* vertexNormals, const int* triangles, const int* triangle,
                             const float* const hit[2], float* const normal[3], int count, int triangleStride);
    void (*dot)(const float* const a[3], const float* const b[3], const int* mask, float* dot, int count);
    void (*dotChangeNorm)(const float* const a[3], const int* mask, float* const normal[3], float* dot, int count);
    void (*mulC1)(const float* src, const int* mask, float* srcDst, int count);
    void (*mulC1P3)(const float* src, const int* mask, float* const srcDst[3], int count);
    void (*divC1)(const float* src, const int* mask, float* srcDst, int count);
    void (*addMulMul)(const float c[3], const float* s, const float* const src[3], const int* mask,
                      float* const srcDst[3], int count);
};

// clang-format off
namespace sse2   { extern const ShadingKernels kShading; }
namespace avx2   { extern const ShadingKernels kShading; }
namespace avx512 { extern const ShadingKernels kShading; }
// clang-format on

inline const ShadingKernels& shadingKernels(Level level) {
    return pick(level, sse2::kShading, avx2::kShading, avx512::kShading);
}

// The normals of all triangles, by ownGetNumThreads() threads.
void ownTriangleNormal(Level level, const float* vertices, const int* triangles, float* normals, int count);

} // namespace zenr
