// Ray and shading functions: checks, choice of the level, and the split of the triangle normals over threads.
#include <stdint.h>

#include "frame/export.h"
#include "shading/shading.h"
#include "zencore.h"
#include "zenr.h"

namespace zenr {
namespace {

// Runs one kernel on the calling thread.
template <class... Params, class... Args>
inline void ownShade(Level level, void (*ShadingKernels::*kernel)(Params...), Args... args) {
    const WideScope scope(level);
    (shadingKernels(level).*kernel)(args...);
}

// The product of a tile's size and index as 32 bits hold it: defined, and the same in both flavours, when it overflows.
inline int32_t tileOffset(int size, int index) {
    return int32_t(uint32_t(size) * uint32_t(index));
}

} // namespace

void ownTriangleNormal(Level level, const float* vertices, const int* triangles, float* normals, int count) {
    // The schedule deals in groups, so that no two threads write the same cache line except at the ends of their
    // chunks, and small meshes do not pay for a team.
    constexpr int kGroup = 64;
    const int groups = count / kGroup + (count % kGroup != 0);
#pragma omp parallel num_threads(ownGetNumThreads()) if (groups > 1)
    {
        const WideScope scope(level);
#pragma omp for schedule(static)
        for (int group = 0; group < groups; ++group) {
            const size_t first = size_t(group) * kGroup;
            const int size = group == groups - 1 ? count - int(first) : kGroup;
            shadingKernels(level).triangleNormal(vertices, triangles + 4 * first, normals + 3 * first, size);
        }
    }
}

} // namespace zenr

using namespace zenr;

ZENR_EXPORT ZenStatus zenrCastEye_32f(const float imagePlaneOrigin[3], const float widthStep[3],
                                      const float heightStep[3], int tileWidth, int tileHeight, int tileColumn,
                                      int tileRow, float* const direction[3], ZenrSize blockSize) {
    if (!direction) return zenStsNullPtrErr;
    if (blockSize.width < 1 || blockSize.height < 1) return zenStsNoErr;
    ownShade(levelFor((long long)blockSize.width * blockSize.height), &ShadingKernels::castEye, imagePlaneOrigin,
             widthStep, heightStep, tileOffset(tileWidth, tileColumn), tileOffset(tileHeight, tileRow), direction,
             blockSize.width, blockSize.height);
    return zenStsNoErr;
}

ZENR_EXPORT ZenStatus zenrCastReflectionRay_32f(const float* const incident[3], const int* mask,
                                                const float* const normal[3], float* const reflected[3], int count) {
    if (!incident || !mask || !normal || !reflected) return zenStsNullPtrErr;
    if (count < 1) return zenStsNoErr;
    ownShade(levelFor(count), &ShadingKernels::castReflection, incident, mask, normal, reflected, count);
    return zenStsNoErr;
}

ZENR_EXPORT ZenStatus zenrCastShadowSO_32f(const float light[3], const float* side, const float* const normal[3],
                                           const float* const point[3], int* mask, float* cosine,
                                           float* const shadowDirection[3], int count) {
    if (!side || !normal || !point || !mask || !cosine || !shadowDirection) return zenStsNullPtrErr;
    if (count < 1) return zenStsNoErr;
    ownShade(levelFor(count), &ShadingKernels::castShadow, light, side, normal, point, mask, cosine, shadowDirection,
             count);
    return zenStsNoErr;
}

ZENR_EXPORT ZenStatus zenrHitPoint3DEpsS0_32f_M(const float origin[3], const float* const direction[3],
                                                const float* distance, const int* mask, float* const hitPoint[3],
                                                int count, float eps) {
    if (!direction || !distance || !mask || !hitPoint) return zenStsNullPtrErr;
    if (count < 1) return zenStsNoErr;
    ownShade(levelFor(count), &ShadingKernels::hitPointS0, origin, direction, distance, mask, hitPoint, count, eps);
    return zenStsNoErr;
}

ZENR_EXPORT ZenStatus zenrHitPoint3DEpsM0_32f_M(const float* const origin[3], const float* const direction[3],
                                                const float* distance, const int* mask, float* const hitPoint[3],
                                                int count, float eps) {
    if (!origin || !direction || !distance || !mask || !hitPoint) return zenStsNullPtrErr;
    if (count < 1) return zenStsNoErr;
    ownShade(levelFor(count), &ShadingKernels::hitPointM0, origin, direction, distance, mask, hitPoint, count, eps);
    return zenStsNoErr;
}

ZENR_EXPORT ZenStatus zenrDistAttenuationSO_32f_M(const float light[3], const float* const point[3], const int* mask,
                                                  float* distance, int count) {
    if (!point || !mask || !distance) return zenStsNullPtrErr;
    if (count < 1) return zenStsNoErr;
    ownShade(levelFor(count), &ShadingKernels::distAttenuation, light, point, mask, distance, count);
    return zenStsNoErr;
}

ZENR_EXPORT ZenStatus zenrTriangleNormal_32f(const float* vertices, const int* triangles, float* normals, int count) {
    if (!vertices || !triangles || !normals) return zenStsNullPtrErr;
    if (count < 1) return zenStsNoErr;
    ownTriangleNormal(levelFor(count), vertices, triangles, normals, count);
    return zenStsNoErr;
}

ZENR_EXPORT ZenStatus zenrSurfFlatNormal_32f(const float* triangleNormals, const int* triangle, float* const normal[3],
                                             int count) {
    if (!triangleNormals || !triangle) return zenStsNullPtrErr;
    if (count < 1) return zenStsNoErr;
    ownShade(levelFor(count), &ShadingKernels::surfFlatNormal, triangleNormals, triangle, normal, count);
    return zenStsNoErr;
}

ZENR_EXPORT ZenStatus zenrSurfSmoothNormal_32f(const float* vertexNormals, const int* triangles, const int* triangle,
                                               const float* const hit[2], float* const normal[3], int count,
                                               int triangleStride) {
    if (!vertexNormals || !triangles || !triangle || !hit || !normal) return zenStsNullPtrErr;
    if (count < 1) return zenStsNoErr;
    ownShade(levelFor(count), &ShadingKernels::surfSmoothNormal, vertexNormals, triangles, triangle, hit, normal, count,
             triangleStride);
    return zenStsNoErr;
}

ZENR_EXPORT ZenStatus zenrDot_32f_P3C1M(const float* const a[3], const float* const b[3], const int* mask, float* dot,
                                        int count) {
    if (!a || !b || !mask || !dot) return zenStsNullPtrErr;
    if (count < 1) return zenStsNoErr;
    ownShade(levelFor(count), &ShadingKernels::dot, a, b, mask, dot, count);
    return zenStsNoErr;
}

ZENR_EXPORT ZenStatus zenrDotChangeNorm_32f_IM(const float* const a[3], const int* mask, float* const normal[3],
                                               float* dot, int count) {
    if (!a || !mask || !normal || !dot) return zenStsNullPtrErr;
    if (count < 1) return zenStsNoErr;
    ownShade(levelFor(count), &ShadingKernels::dotChangeNorm, a, mask, normal, dot, count);
    return zenStsNoErr;
}

ZENR_EXPORT ZenStatus zenrMul_32f_C1IM(const float* src, const int* mask, float* srcDst, int count) {
    // Deliberately without a test for null.
    if (count < 1) return zenStsNoErr;
    ownShade(levelFor(count), &ShadingKernels::mulC1, src, mask, srcDst, count);
    return zenStsNoErr;
}

ZENR_EXPORT ZenStatus zenrMul_32f_C1P3IM(const float* src, const int* mask, float* const srcDst[3], int count) {
    if (!src || !mask || !srcDst) return zenStsNullPtrErr;
    if (count < 1) return zenStsNoErr;
    ownShade(levelFor(count), &ShadingKernels::mulC1P3, src, mask, srcDst, count);
    return zenStsNoErr;
}

ZENR_EXPORT ZenStatus zenrDiv_32f_C1IM(const float* src, const int* mask, float* srcDst, int count) {
    // Deliberately without a test of the mask.
    if (!src || !srcDst) return zenStsNullPtrErr;
    if (count < 1) return zenStsNoErr;
    ownShade(levelFor(count), &ShadingKernels::divC1, src, mask, srcDst, count);
    return zenStsNoErr;
}

ZENR_EXPORT ZenStatus zenrAddMulMul_32f_AC1P3IM(const float c[3], const float* s, const float* const src[3],
                                                const int* mask, float* const srcDst[3], int count) {
    if (!s || !src || !mask || !srcDst) return zenStsNullPtrErr;
    if (count < 1) return zenStsNoErr;
    ownShade(levelFor(count), &ShadingKernels::addMulMul, c, s, src, mask, srcDst, count);
    return zenStsNoErr;
}
