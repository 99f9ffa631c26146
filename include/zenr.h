/* zenr.h - libzenrpx: performance primitives for realistic rendering. This header is the manual.
 *
 * Every function works on memory of the caller's, checks its arguments in the order in which its statuses are listed
 * (the first that fails decides, and nothing is written then), and is complete when it returns. There is nothing to
 * initialise and no state: any function may be called from any number of threads at once, on the same inputs too, as
 * long as their outputs do not overlap. Nothing but what is listed is checked.
 *
 * Results are defined to the bit: they do not depend on the processor, the number of threads, the shape of a block or
 * the position in an array, and are the same in the 32-bit and the 64-bit library (docs/numeric.md).
 *
 * Words used throughout
 *   planar        three arrays, one each for x, y and z: `const float* const v[3]`, element i of each belongs to ray i.
 *   mesh          vertices: float triples x y z. Triangles: four ints each - the indices of the three vertices, then a
 *                 word that no function reads (a material number, say). A triangle's number is its position.
 *   ray block     width * height rays in row-major order without padding; sizes below 1 mean no rays.
 *   ray mask      one int per ray: active when >= 0. A kernel that switches a ray off writes -1.
 *   distance      in multiples of the ray's direction, which need not have unit length.
 *   weights       barycentric: hit[0] is the weight of the triangle's first vertex, hit[1] of its second; the third has
 *                 1 - hit[0] - hit[1].
 */
#ifndef ZENR_H
#define ZENR_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Statuses: 0 success, negative errors, positive warnings (acceptable arguments, nothing written). ------------ */

typedef enum ZenStatus {
    zenStsRoiOutside = 40,        /* warning: a source region starts outside its volume */
    zenStsNoOperation = 1,        /* warning: the destination region left after trimming is empty */
    zenStsNoErr = 0,              /* success */
    zenStsMemAllocErr = -4,       /* no memory, or a memory limit given by the caller is too small */
    zenStsBadArgErr = -5,         /* a parameter record carries an unknown tag */
    zenStsSizeErr = -6,           /* a size or count that is zero or negative where it must not be */
    zenStsBadTypeErr = -7,        /* an unknown computation type, or an order above its limit */
    zenStsNullPtrErr = -8,        /* a required pointer is null */
    zenStsNoMemErr = -9,          /* a builder's memory budget ran out during the work */
    zenStsOutOfRangeErr = -11,    /* a parameter outside its range */
    zenStsInterpolationErr = -22, /* an unsupported interpolation mode */
    zenStsResizeFactorErr = -23,  /* an unusable resize factor */
    zenStsNumChannelsErr = -53,   /* an unsupported number of channels or planes */
    zenStsCoeffErr = -56          /* unusable transform coefficients: singular or degenerate */
} ZenStatus;

/* ---- Version ----------------------------------------------------------------------------------------------------- */

typedef struct ZenrLibraryVersion {
    int32_t major;
    int32_t minor;
    int32_t majorBuild;
    int32_t build;
    char targetCpu[4];   /* processor code, NUL-padded */
    const char* name;    /* soname of the library */
    const char* version; /* version as text */
    const char* buildDate;
} ZenrLibraryVersion;

/* The version record: constant, always the same address, never to be freed. */
const ZenrLibraryVersion* zenrGetLibVersion(void);

/* ---- Shared records ---------------------------------------------------------------------------------------------- */

/* Size of a block of rays. Passed by value. */
typedef struct ZenrSize {
    int32_t width;
    int32_t height;
} ZenrSize;

/* Size of a volume, of a region of one, or of a kernel. Passed by value. */
typedef struct ZenrVolume {
    int32_t width;
    int32_t height;
    int32_t depth;
} ZenrVolume;

/* A region of a volume: its first voxel and its size. Passed by value. */
typedef struct ZenrBox {
    int32_t x;
    int32_t y;
    int32_t z;
    int32_t width;
    int32_t height;
    int32_t depth;
} ZenrBox;

/* A position in a volume or a kernel. Passed by value. */
typedef struct ZenrPoint {
    int32_t x;
    int32_t y;
    int32_t z;
} ZenrPoint;

/* ---- Scene: bounding box and triangle records -------------------------------------------------------------------- */

/* Bounding box of `count` vertices (float triples), slightly enlarged.
 *   box  out: minimum x, y, z, maximum x, y, z. Each bound is moved outwards by 0.0001f times the largest magnitude
 *        among the six extremes (at least the smallest normal float). A NaN coordinate is passed over.
 * count < 1 gives an inverted box (every minimum above every maximum). `box` is not tested.
 * Statuses: zenStsNullPtrErr (vertices). */
ZenStatus zenrSetBoundBox_32f(const float* vertices, int count, float* box);

/* One record per triangle: its plane and edges, projected along the dominant axis k of its normal N onto the axes a, b.
 * With the vertices P0, P1, P2: E1 = P0 - P2, E2 = P1 - P2, N = E1 x E2, s = -1 for k = y, otherwise 1. */
typedef struct ZenrTriangleAccel {
    uint32_t axes; /* 16*k + 4*a + b, bit 31 set when the plane is perpendicular to axis k; 0: degenerate triangle */
    float nA;      /* N[a] / N[k] */
    float pK;      /* P2[k] */
    float nB;      /* N[b] / N[k] */
    float pA;      /* P2[a] */
    float pB;      /* P2[b] */
    float e2A;     /* s * E2[a] / N[k] */
    float e2B;     /* s * E2[b] / N[k] */
    float e1A;     /* s * E1[a] / N[k] */
    float e1B;     /* s * E1[b] / N[k] */
} ZenrTriangleAccel;

/* Bytes of one ZenrTriangleAccel (40). Statuses: zenStsNullPtrErr (size). */
ZenStatus zenrTriangleAccelGetSize(int* size);

/* Fills `count` records, one per triangle, in order; below 1 nothing. Nothing is checked: pointers must be valid and
 * indices within the vertex array. A triangle without area gets a record of zeros, which no ray hits. Always
 * zenStsNoErr. */
ZenStatus zenrTriangleAccelInit(ZenrTriangleAccel* accel, const float* vertices, const int* triangles, int count);

/* ---- kd-tree ----------------------------------------------------------------------------------------------------- */

/* A node of the packed tree. The tree is one block that refers to itself by byte offsets only, so that it may be copied,
 * moved, stored in a file and used by either flavour of the library. A block starts with the root and two zero words;
 * child pairs follow, then the leaves' lists.
 *
 *   interior   w0: 0 | offset to the pair of children, bits 3..30 | 0 | axis, bits 0..1      w1: split position (float)
 *              children: the lower side first, the upper side 8 bytes later
 *   general    w0: minus the byte offset to the list (bit 31 set)                             w1: count >= 0
 *   leaf       list: `count` triangle numbers
 *   inline     w0: 1 | 31 bits                       w1: 1 | b, bits 2..30 | count, bits 0..1
 *   leaf       count 1: triangle w0 bits 0..30.  2: w0 bits 0..30, and b.
 *              3: b - (w0 bits 16..30), b, b + (w0 bits 0..15) */
typedef struct ZenrKDTreeNode {
    uint32_t w0;
    uint32_t w1;
} ZenrKDTreeNode;

/* The two builders, as tags of ZenrKDTreeBuildParams. */
enum {
    zenKDTBuildSimple = 0x499D3DC2, /* one leaf with all triangles: for a handful of triangles, and for testing */
    zenKDTBuildSAH = 0x2D07705B     /* surface-area heuristic, within a memory budget */
};

typedef struct ZenrKDTreeBuildParams {
    uint32_t tag;            /* zenKDTBuildSimple: only this and the next field are read; or zenKDTBuildSAH */
    int32_t maxDepth;        /* greatest number of interior levels, 0..50 */
    float optimizationRatio; /* 0..1: 0 a small tree that is quick to build, 1 the most subdivided */
    uint32_t memoryLimitMB;  /* working memory for the build in MiB, from 33 up */
    const float* pBoundBox;  /* scene box (minimum x, y, z, maximum x, y, z), or null: the box of all vertices */
} ZenrKDTreeBuildParams;

/* Builds the tree of a mesh.
 *   pDstKDTree      out: the root, first word of a new block; release it with zenrKDTreeFree
 *   pSrcVert        srcVertSize vertices (float triples)
 *   pSrcTriInx      srcTriSize triangles (four ints each); the indices are trusted
 *   pDstKDTreeSize  out: size of the block in bytes
 *   pParam          a ZenrKDTreeBuildParams
 * Zero vertices or triangles are allowed. On failure neither output is written.
 * Statuses, in check order:
 *   zenStsNullPtrErr     pDstKDTree, pSrcVert, pSrcTriInx, pDstKDTreeSize null
 *   zenStsSizeErr        srcVertSize < 0; srcTriSize < 0
 *   zenStsNullPtrErr     pParam null
 *   zenStsBadArgErr      unknown tag
 *   zenStsOutOfRangeErr  maxDepth outside 0..50; SAH: optimizationRatio < 0 or > 1 (a NaN passes)
 *   zenStsMemAllocErr    SAH: memoryLimitMB * 2^19 modulo 2^32 below 2^24 (values below 32, and multiples of 8192), or
 *                        below what the mesh needs at least; or no memory for the block
 *   zenStsNoMemErr       SAH: the budget ran out during the build */
ZenStatus zenrKDTreeBuildAlloc(ZenrKDTreeNode** pDstKDTree, const float* pSrcVert, const int* pSrcTriInx,
                               int srcVertSize, int srcTriSize, int* pDstKDTreeSize, const void* pParam);

/* Releases a tree of zenrKDTreeBuildAlloc; null is allowed. */
void zenrKDTreeFree(ZenrKDTreeNode* pTree);

/* ---- Intersection of ray blocks ---------------------------------------------------------------------------------- */

/* The scene as the intersectors read it; may be shared by any number of concurrent calls. */
typedef struct ZenrIntersectContext {
    const float* boundBox;                  /* six floats of zenrSetBoundBox_32f */
    const ZenrTriangleAccel* triangleAccel; /* records of zenrTriangleAccelInit */
    const ZenrKDTreeNode* rootNode;         /* tree over the same triangles */
} ZenrIntersectContext;

/* The intersectors run on the calling thread, allocate nothing and check nothing; they always return zenStsNoErr. The
 * stack they need stays below 256 KiB. A ray's result does not depend on which other rays are in its block.
 *
 * To know: records hold edges rounded to float, so that a ray aimed exactly at the edge between two triangles can pass
 * between them. A direction component of at most 2^-23 in size takes a stand-in reciprocal. Up to 50 far children can
 * be pending for a ray, which is what trees of depth 50 need; should a foreign tree need more, the ray ends with what
 * it has found so far. */

/* Nearest hit, each ray with its own origin.
 *   origin, direction  planar
 *   distance           in: greatest distance; out: distance of the hit. A hit must be nearer than the distance by more
 *                      than 1e-5
 *   hit                out: two planes of weights
 *   triangle           out: number of the triangle, or -1
 * distance and hit stay as they are where nothing is hit. */
ZenStatus zenrIntersectMO_32f(const float* const origin[3], const float* const direction[3], float* distance,
                              float* const hit[2], int* triangle, const ZenrIntersectContext* context,
                              ZenrSize blockSize);

/* Nearest hit of rays that share one origin (x, y, z). As zenrIntersectMO_32f, but any hit nearer than the distance
 * counts. */
ZenStatus zenrIntersectEyeSO_32f(const float origin[3], const float* const direction[3], float* distance,
                                 float* const hit[2], int* triangle, const ZenrIntersectContext* context,
                                 ZenrSize blockSize);

/* Is anything on the segment from origin to origin + direction, its ends excluded?
 *   triangle  out: number of the first blocker found (not the nearest), or -1
 *   mask      in: rays with a negative mask are not traced (triangle -1); out: -1 for blocked rays
 * The context's boundBox is not read. */
ZenStatus zenrIntersectAnySO_32f(const float origin[3], const float* const direction[3], int* triangle, int* mask,
                                 ZenrSize blockSize, const ZenrIntersectContext* context);

/* Up to maxHits successive hits of rays that share one origin.
 *   distance, hit, triangle  maxHits layers of width * height elements each: layer L of ray i is element
 *                            L * width * height + i
 *   distance                 in: layer 0 holds each ray's greatest distance to its first hit (later ones are limited by
 *                            the box alone); out: distance of each hit from the origin. The layer that ends a ray's
 *                            search without a hit (other than layer 0) holds FLT_MAX; layers after it are not written
 *   triangle                 out: numbers, -1 in all layers from the first without a hit on
 * A triangle is not reported twice in a row, nor while among the first (L mod 8) entries of the ring of the last 8. */
ZenStatus zenrIntersectMultipleSO_32f(const float origin[3], const float* const direction[3], float* distance,
                                      float* const hit[2], int* triangle, ZenrSize blockSize, int maxHits,
                                      const ZenrIntersectContext* context);

/* ---- Rays and hit points ----------------------------------------------------------------------------------------- */

/* All kernels of this and the next section: a count below 1 is zenStsNoErr and writes nothing, after the null checks.
 * The tests for null cover just the arguments listed. Arithmetic is in double and rounded once when stored. Outputs may
 * be the inputs themselves (element for element: all inputs of an element are read before its outputs are written), but
 * must not overlap them otherwise, nor each other. */

/* Directions of the eye rays of one tile: direction[k][r*width + c] = heightStep[k]*y + imagePlaneOrigin[k] +
 * widthStep[k]*x, with x = c + tileWidth*tileColumn and y = r + tileHeight*tileRow: points of the image plane seen from
 * the eye, not normalised.
 * Statuses: zenStsNullPtrErr (direction). */
ZenStatus zenrCastEye_32f(const float imagePlaneOrigin[3], const float widthStep[3], const float heightStep[3],
                          int tileWidth, int tileHeight, int tileColumn, int tileRow, float* const direction[3],
                          ZenrSize blockSize);

/* reflected = I - N * 2(I.N) for active rays, 0 for the others; nothing is normalised.
 * Statuses: zenStsNullPtrErr (incident, mask, normal, reflected). */
ZenStatus zenrCastReflectionRay_32f(const float* const incident[3], const int* mask, const float* const normal[3],
                                    float* const reflected[3], int count);

/* Shadow rays from a point light to surface points: shadowDirection = P - L, so that a blocker lies between 0 and 1.
 *   side             per ray, a signed factor: the dot product of the viewing direction with the same normal, typically
 *   mask             in, out: -1 where N.(P - L) is below pi/1800 in size, or side * N.(P - L) is not positive
 *   cosine           out: |N.(P - L)| of the rays that stay active, otherwise 0
 *   shadowDirection  out: 0 for inactive rays
 * Statuses: zenStsNullPtrErr (side, normal, point, mask, cosine, shadowDirection). */
ZenStatus zenrCastShadowSO_32f(const float light[3], const float* side, const float* const normal[3],
                               const float* const point[3], int* mask, float* cosine, float* const shadowDirection[3],
                               int count);

/* hitPoint = direction * eps * distance + origin for active rays, 0 for the others. eps is a factor: slightly below 1 it
 * pulls the point off the surface, towards the origin. S0: one origin; M0: one per ray.
 * Statuses: zenStsNullPtrErr (S0: direction, distance, mask, hitPoint; M0: origin too). */
ZenStatus zenrHitPoint3DEpsS0_32f_M(const float origin[3], const float* const direction[3], const float* distance,
                                    const int* mask, float* const hitPoint[3], int count, float eps);
ZenStatus zenrHitPoint3DEpsM0_32f_M(const float* const origin[3], const float* const direction[3],
                                    const float* distance, const int* mask, float* const hitPoint[3], int count,
                                    float eps);

/* distance = |P - L|, but at least 1: a divisor that never amplifies. 1 for inactive rays.
 * Statuses: zenStsNullPtrErr (point, mask, distance). */
ZenStatus zenrDistAttenuationSO_32f_M(const float light[3], const float* const point[3], const int* mask,
                                      float* distance, int count);

/* ---- Normals and masked arithmetic ------------------------------------------------------------------------------- */

/* Unit normals of `count` triangles, float triples: E1 x E2 normalised; 0 for a triangle whose |E1 x E2|^2 is below
 * 2.220446049250313e-16. Uses ownGetNumThreads() threads, or just the caller's for up to 64 triangles and inside a
 * parallel region of the caller's. Indices are trusted.
 * Statuses: zenStsNullPtrErr (vertices, triangles, normals). */
ZenStatus zenrTriangleNormal_32f(const float* vertices, const int* triangles, float* normals, int count);

/* Normal of each ray's triangle: normal[k][i] = triangleNormals[3 * triangle[i] + k]; 0 where triangle[i] < 0.
 * Statuses: zenStsNullPtrErr (triangleNormals, triangle). */
ZenStatus zenrSurfFlatNormal_32f(const float* triangleNormals, const int* triangle, float* const normal[3], int count);

/* Normal at each ray's hit point: the vertex normals (float triples) of triangle[i] weighted with hit, normalised; 0
 * where triangle[i] < 0 or the squared length is below 2^-23.
 *   triangles, triangleStride  triangle j's three vertex indices are the first ints at j * triangleStride (4 for a mesh
 *                              as above)
 * Statuses: zenStsNullPtrErr (vertexNormals, triangles, triangle, hit, normal). */
ZenStatus zenrSurfSmoothNormal_32f(const float* vertexNormals, const int* triangles, const int* triangle,
                                   const float* const hit[2], float* const normal[3], int count, int triangleStride);

/* dot = a.b; inactive: 0. Statuses: zenStsNullPtrErr (a, b, mask, dot). */
ZenStatus zenrDot_32f_P3C1M(const float* const a[3], const float* const b[3], const int* mask, float* dot, int count);

/* Turns normals against the rays a: d = a.normal; where d > 0 the normal is negated and dot = -d, otherwise dot = d.
 * Inactive: dot 0, normal unchanged. Statuses: zenStsNullPtrErr (a, mask, normal, dot). */
ZenStatus zenrDotChangeNorm_32f_IM(const float* const a[3], const int* mask, float* const normal[3], float* dot,
                                   int count);

/* srcDst = srcDst * src; inactive: 0. No pointer is tested: always zenStsNoErr. */
ZenStatus zenrMul_32f_C1IM(const float* src, const int* mask, float* srcDst, int count);

/* srcDst[k] = srcDst[k] * src for the three planes; inactive: 0. Statuses: zenStsNullPtrErr (src, mask, srcDst). */
ZenStatus zenrMul_32f_C1P3IM(const float* src, const int* mask, float* const srcDst[3], int count);

/* srcDst = srcDst / src; where src is 0 (of either sign): +infinity, -infinity or the NaN 0xFFC00000 for a positive,
 * negative or other srcDst. Inactive: 0. Statuses: zenStsNullPtrErr (src, srcDst). */
ZenStatus zenrDiv_32f_C1IM(const float* src, const int* mask, float* srcDst, int count);

/* srcDst[k] = src[k] * c[k] * s + srcDst[k]; inactive: unchanged. Statuses: zenStsNullPtrErr (s, src, mask, srcDst). */
ZenStatus zenrAddMulMul_32f_AC1P3IM(const float c[3], const float* s, const float* const src[3], const int* mask,
                                    float* const srcDst[3], int count);

/* ---- Volume filter ----------------------------------------------------------------------------------------------- */

/* Work memory of zenrFilter_16s_C1PV: it needs none.
 *   pSize  out: 0
 * Statuses, in check order:
 *   zenStsNullPtrErr      pSize null
 *   zenStsSizeErr         a size below 1
 *   zenStsNumChannelsErr  numChannels other than 1 */
ZenStatus zenrFilterGetBufSize(ZenrVolume dstVolume, ZenrVolume kernelVolume, int numChannels, uint32_t* pSize);

/* Convolution of 16-bit voxels with a kernel of 32-bit integers:
 *
 *   dst(x, y, z) = sum of K(kx, ky, kz) * src(x + anchor.x - kx, y + anchor.y - ky, z + anchor.z - kz) / divisor
 *
 * over the whole kernel (which is thus applied mirrored). A product wraps at 32 bits, the sum has 64; the quotient is
 * rounded to the nearest integer, half to even, and saturated.
 *   pSrc, pDst         arrays of plane pointers, one per z; voxel (x, y) of a plane is y rows and x voxels after its
 *                      pointer
 *   srcStep, dstStep   from row to row in bytes, may be negative; an odd step is rounded down to whole voxels
 *   dstVolume          size of the region written
 *   pKernel            kernelVolume.width * height * depth weights: plane by plane, row by row
 *   anchor             the kernel position that lies on the output voxel; any
 *   divisor            not 0
 *   pBuffer            not used, may be null
 * There is no border: the source must exist from anchor - (kernel size - 1) to anchor + (region size - 1) on each axis,
 * so pSrc and its planes may have to be indexed below 0. Where source and destination overlap, each voxel is stored before
 * the next is computed: along x, then y, then z; that takes several times as long. Neither the steps, the anchor, the
 * plane pointers nor pBuffer are checked. Runs on the calling thread and allocates nothing; the stack it needs stays below 128 KiB.
 * Statuses, in check order:
 *   zenStsNullPtrErr  pSrc, pDst, pKernel null
 *   zenStsSizeErr     a size below 1; divisor 0 or -2147483648 */
ZenStatus zenrFilter_16s_C1PV(const int16_t* const pSrc[], int srcStep, int16_t* const pDst[], int dstStep,
                              ZenrVolume dstVolume, const int32_t* pKernel, ZenrVolume kernelVolume, ZenrPoint anchor,
                              int divisor, uint8_t* pBuffer);

/* ---- Volumes: resize --------------------------------------------------------------------------------------------- */

/* Volumes have one channel of uint8_t (8u), uint16_t (16u) or float (32f) voxels, in one of two layouts: V, one block
 * with a step from row to row and from slice to slice; PV, an array of pointers to slices that share one step from row
 * to row. Steps are in bytes, whole multiples of a voxel (what is left over is ignored), and may be negative; a pointer
 * is that of voxel (0, 0, 0), an array of pointers starts with slice 0. */

/* Interpolation modes. 3 is not one. */
enum {
    zenInterNearest = 1,
    zenInterLinear = 2,
    zenInterCubicLagrange = 4,   /* polynomial through 4 samples */
    zenInterCubicBSpline = 5,    /* smooths, also at whole positions */
    zenInterCubicCatmullRom = 6, /* B = 0, C = 1/2 */
    zenInterCubicB05C03 = 7      /* B = 1/2, C = 3/10; smooths */
};

/* Bytes of work memory for a resize into the box dstRoi, for as many threads as the library would use now; the resize
 * may be called with any number of threads and stays within the size. What exceeds 2^31 - 1 is reported as 2^31 - 1,
 * which is then enough.
 *   srcRoi         only checked
 *   nChannel       1
 *   pSize          out
 * Statuses, in check order:
 *   zenStsNullPtrErr        pSize
 *   zenStsSizeErr           srcRoi, then dstRoi: x, y, z < 0, width, height, depth < 1
 *   zenStsNumChannelsErr    nChannel
 *   zenStsInterpolationErr  interpolation */
ZenStatus zenrResizeGetBufSize(ZenrBox srcRoi, ZenrBox dstRoi, int nChannel, int interpolation, int* pSize);

/* Scales a volume: destination = source * factor + shift along each axis, in voxels, with voxel centres at half-integers.
 *   pSrc, srcVolume        the source and its size; interpolation reads all of it, not only the box
 *   srcRoi                 box of the source that is mapped; what lies beyond the volume is cut off
 *   pDst, dstRoi           the destination, and the box of it that may be written. Of this box, the voxels whose centres
 *                          lie in the mapped source box (or on its edge) are written, the others are left alone
 *   xFactor .. zShift      scales, greater than 0, and shifts
 *   interpolation          a mode. Beyond the source volume its edge voxels are repeated
 *   pBuffer                work memory of zenrResizeGetBufSize for the same boxes and mode, of any alignment
 * Results: 8u and 16u are rounded and clamped to their range, 32f is not clamped (cubic modes may overshoot). Source and
 * destination must not overlap. Uses ownGetNumThreads() threads where the region has at least 16 voxels along each axis.
 * Statuses, in check order:
 *   zenStsNullPtrErr        pSrc, pDst, pBuffer
 *   zenStsSizeErr           srcVolume < 1; srcRoi or dstRoi with x, y, z < 0 or width, height, depth < 1
 *   zenStsResizeFactorErr   a factor <= 0 (a NaN passes, and leads to zenStsNoOperation)
 *   zenStsInterpolationErr  interpolation
 *   zenStsRoiOutside        srcRoi starts outside the volume
 *   zenStsNoOperation       no voxel of dstRoi lies in the mapped source box, or its bounds are no numbers */
ZenStatus zenrResize_8u_C1V(const uint8_t* pSrc, ZenrVolume srcVolume, int srcStep, int srcPlaneStep, ZenrBox srcRoi,
                            uint8_t* pDst, int dstStep, int dstPlaneStep, ZenrBox dstRoi, double xFactor,
                            double yFactor, double zFactor, double xShift, double yShift, double zShift,
                            int interpolation, uint8_t* pBuffer);
ZenStatus zenrResize_16u_C1V(const uint16_t* pSrc, ZenrVolume srcVolume, int srcStep, int srcPlaneStep, ZenrBox srcRoi,
                             uint16_t* pDst, int dstStep, int dstPlaneStep, ZenrBox dstRoi, double xFactor,
                             double yFactor, double zFactor, double xShift, double yShift, double zShift,
                             int interpolation, uint8_t* pBuffer);
ZenStatus zenrResize_32f_C1V(const float* pSrc, ZenrVolume srcVolume, int srcStep, int srcPlaneStep, ZenrBox srcRoi,
                             float* pDst, int dstStep, int dstPlaneStep, ZenrBox dstRoi, double xFactor, double yFactor,
                             double zFactor, double xShift, double yShift, double zShift, int interpolation,
                             uint8_t* pBuffer);
ZenStatus zenrResize_8u_C1PV(const uint8_t* const* pSrc, ZenrVolume srcVolume, int srcStep, ZenrBox srcRoi,
                             uint8_t* const* pDst, int dstStep, ZenrBox dstRoi, double xFactor, double yFactor,
                             double zFactor, double xShift, double yShift, double zShift, int interpolation,
                             uint8_t* pBuffer);
ZenStatus zenrResize_16u_C1PV(const uint16_t* const* pSrc, ZenrVolume srcVolume, int srcStep, ZenrBox srcRoi,
                              uint16_t* const* pDst, int dstStep, ZenrBox dstRoi, double xFactor, double yFactor,
                              double zFactor, double xShift, double yShift, double zShift, int interpolation,
                              uint8_t* pBuffer);
ZenStatus zenrResize_32f_C1PV(const float* const* pSrc, ZenrVolume srcVolume, int srcStep, ZenrBox srcRoi,
                              float* const* pDst, int dstStep, ZenrBox dstRoi, double xFactor, double yFactor,
                              double zFactor, double xShift, double yShift, double zShift, int interpolation,
                              uint8_t* pBuffer);

/* ---- Spherical harmonics ----------------------------------------------------------------------------------------- */

/* Real, orthonormal over the unit sphere, with the Condon-Shortley phase: Y(0,0) = 0.28209479, Y(1,-1..1) =
 * -0.48860252 y, 0.48860252 z, -0.48860252 x. Bands 0..15.
 *   directions    pX, pY, pZ: len floats each. Meant to be unit vectors; used as given
 *   order L       the highest band
 *   coefficients  one channel: (L+1)^2 floats, Y(l,m) at index l*l + l + m
 * All functions of this section run on the calling thread and allocate nothing. */

/* Evaluation state, at the start of a block of zenrSHGetSize_32f bytes; the block of a state of type 1 continues with its
 * tables. It is read only after zenrSHInit_32f, and may be shared by concurrent calls. */
typedef struct ZenrSHState {
    uint32_t maxOrder; /* highest band that the state serves */
    int32_t type;      /* 0: closed form, accurate to float rounding. 1: recurrence over floats, within a few 1e-6 */
#if defined(__i386__)
    const float* tableA; /* type 1: the tables inside the block, which must not be moved; type 0: null */
    const float* tableB;
#else
    uint32_t tableA; /* type 1: byte offsets of the tables from the block's start; type 0: 0 */
    uint32_t tableB;
#endif
} ZenrSHState;

/* Bytes of a state of order L.
 * Statuses, in check order: zenStsNullPtrErr (pSize); zenStsBadTypeErr (type not 0 or 1); zenStsSizeErr (type 0: L > 15;
 * type 1 has no limit, though nothing evaluates above 15). */
ZenStatus zenrSHGetSize_32f(uint32_t L, int32_t type, uint32_t* pSize);

/* Makes a state in a block of the size above, which should start on a 16-byte boundary (as zenMalloc's do): the tables of
 * type 1 start on such a boundary, and need up to 15 bytes more in any other block.
 * Statuses, in check order: zenStsNullPtrErr (pState); zenStsSizeErr (type 0: L > 15); zenStsBadTypeErr (type). */
ZenStatus zenrSHInit_32f(ZenrSHState* pState, uint32_t L, int32_t type);

/* All bands 0..L.
 *   pDst  out: (L+1)^2 values of direction 0, then those of direction 1 ...
 * A negative len writes nothing.
 * Statuses, in check order: zenStsNullPtrErr (pX, pY, pZ, pDst, pState); zenStsSizeErr (len 0); zenStsBadTypeErr (L above
 * the state's order, unknown type, L > 15). */
ZenStatus zenrSH_32f(const float* pX, const float* pY, const float* pZ, int len, float* pDst, uint32_t L,
                     const ZenrSHState* pState);

/* Band L alone, in closed form.
 *   pDst  out: 2L+1 values, m = -L..L, of each direction
 * A negative len writes nothing.
 * Statuses, in check order: zenStsNullPtrErr (pX, pY, pZ, pDst); zenStsBadTypeErr (L > 15); zenStsSizeErr (len 0). */
ZenStatus zenrSHBand_32f(const float* pX, const float* pY, const float* pZ, int len, float* pDst, uint32_t L);

/* Forward transforms: coefficient k += sample i * Y_k(direction i), in the order of the samples. Coefficients are not
 * cleared first (several calls accumulate), and nothing is weighted: for an integral over the sphere multiply the samples
 * by their solid angles. A sample of 0 contributes 0 whatever the direction.
 *   pSrc           C1: len samples. C3P3: len triples. P3: three planes of len samples
 *   pSrcDstCoeffs  in, out: one channel (C1) or an array of three (C3P3, P3), which may be the same one or overlap: each
 *                  sample's channels are then added in turn
 * A negative len writes nothing.
 * Statuses, in check order: zenStsNullPtrErr (any pointer, or any of an array's three); zenStsSizeErr (len 0);
 * zenStsBadTypeErr (L above the state's order or above 15, unknown type). */
ZenStatus zenrSHTFwd_32f_C1I(const float* pX, const float* pY, const float* pZ, const float* pSrc, int len,
                             float* pSrcDstCoeffs, uint32_t L, const ZenrSHState* pState);
ZenStatus zenrSHTFwd_32f_C3P3I(const float* pX, const float* pY, const float* pZ, const float* pSrc, int len,
                               float* const pSrcDstCoeffs[3], uint32_t L, const ZenrSHState* pState);
ZenStatus zenrSHTFwd_32f_P3I(const float* pX, const float* pY, const float* pZ, const float* const pSrc[3], int len,
                             float* const pSrcDstCoeffs[3], uint32_t L, const ZenrSHState* pState);

/* Inverse transforms: result i = the sum over k of coefficient k * Y_k(direction i), summed in extended precision and
 * rounded once.
 *   pSrcCoeffs  one channel (C1) or an array of three (P3, P3C3)
 *   pDst        out: C1: len values. P3: three planes of len values. P3C3: len triples
 * A negative len writes nothing. Statuses as for the forward transforms. */
ZenStatus zenrSHTInv_32f_C1(const float* pSrcCoeffs, uint32_t L, const float* pX, const float* pY, const float* pZ,
                            float* pDst, int len, const ZenrSHState* pState);
ZenStatus zenrSHTInv_32f_P3(const float* const pSrcCoeffs[3], uint32_t L, const float* pX, const float* pY,
                            const float* pZ, float* const pDst[3], int len, const ZenrSHState* pState);
ZenStatus zenrSHTInv_32f_P3C3(const float* const pSrcCoeffs[3], uint32_t L, const float* pX, const float* pY,
                              const float* pZ, float* pDst, int len, const ZenrSHState* pState);

/* ---- Volumes: affine warp and remap ------------------------------------------------------------------------------ */

/* Both trace every voxel of a destination back into a source and interpolate there. Volumes are in the PV layout (see
 * volume resize above): arrays of pointers to slices, steps in bytes. Voxel centres lie at whole coordinates.
 *
 * The source's box is what may be read: whatever lies beyond srcVolume is cut off from srcRoi. A voxel of the destination
 * whose position in the source lies outside the box (before its first or behind its last voxel along any axis, however
 * little), or is no number, is left as it is. Near the box's edges cubic interpolation repeats its edge voxels.
 *
 * A volume of fewer than 4 voxels along any axis is interpolated linearly when a cubic mode is asked for, one of fewer
 * than 2 by the nearest voxel.
 *
 * Results: 8u and 16u are rounded and clamped to their range, 32f is not clamped (cubic modes may overshoot). Source and
 * destination must not overlap. ownGetNumThreads() threads are used where the region has at least 16 voxels along each
 * axis. */

/* Bytes of work memory for a warp: 0, as it needs none.
 *   srcRoi, dstRoi, interpolation  only checked
 *   nChannel       1
 *   pSize          out
 * Statuses, in check order:
 *   zenStsNullPtrErr        pSize
 *   zenStsSizeErr           srcRoi, then dstRoi: x, y, z < 0, width, height, depth < 1
 *   zenStsNumChannelsErr    nChannel
 *   zenStsInterpolationErr  interpolation */
ZenStatus zenrWarpAffineGetBufSize(ZenrBox srcRoi, ZenrBox dstRoi, int nChannel, int interpolation, int* pSize);

/* Affine warp.
 *   pSrc, srcVolume, srcRoi  the source, its size, and its box
 *   pDst, dstRoi             the destination, and its box that is written; slices dstRoi.z and on are used
 *   coeffs                   12 numbers, three rows of four: x' = c[0] x + c[1] y + c[2] z + c[3], then y', z'; takes
 *                            source to destination coordinates. Not checked for null
 *   interpolation            a mode
 * A matrix that is singular, or nearly so (a determinant below 1e-10 in size), without being degenerate in the way
 * described below, writes nothing and returns zenStsNoErr.
 * Statuses, in check order:
 *   zenStsNullPtrErr        pSrc, pDst
 *   zenStsSizeErr           srcVolume < 1; srcRoi, then dstRoi with x, y, z < 0 or width, height, depth < 1
 *   zenStsCoeffErr          the diagonal of coeffs is 0, or its rows for y' and z' are parallel
 *   zenStsInterpolationErr  interpolation
 *   zenStsRoiOutside        srcRoi starts outside the volume */
ZenStatus zenrWarpAffine_8u_C1PV(const uint8_t* const* pSrc, ZenrVolume srcVolume, int srcStep, ZenrBox srcRoi,
                                 uint8_t* const* pDst, int dstStep, ZenrBox dstRoi, const double* coeffs,
                                 int interpolation);
ZenStatus zenrWarpAffine_16u_C1PV(const uint16_t* const* pSrc, ZenrVolume srcVolume, int srcStep, ZenrBox srcRoi,
                                  uint16_t* const* pDst, int dstStep, ZenrBox dstRoi, const double* coeffs,
                                  int interpolation);
ZenStatus zenrWarpAffine_32f_C1PV(const float* const* pSrc, ZenrVolume srcVolume, int srcStep, ZenrBox srcRoi,
                                  float* const* pDst, int dstStep, ZenrBox dstRoi, const double* coeffs,
                                  int interpolation);

/* Remap: positions are given voxel by voxel.
 *   pSrc, srcVolume, srcRoi  the source, its size, and its box
 *   pxMap, pyMap, pzMap      per destination voxel the x, y and z of its position, in coordinates of the source volume:
 *                            three arrays of pointers to slices, which share mapStep
 *   pDst, dstVolume          the destination and its size; all of it is walked
 *   interpolation            a mode
 * Statuses, in check order:
 *   zenStsNullPtrErr        pSrc, pDst, then pxMap, pyMap, pzMap
 *   zenStsSizeErr           srcVolume < 1; srcRoi with x, y, z < 0 or width, height, depth < 1; dstVolume < 1
 *   zenStsInterpolationErr  interpolation
 *   zenStsRoiOutside        srcRoi starts outside the volume */
ZenStatus zenrRemap_8u_C1PV(const uint8_t* const* pSrc, ZenrVolume srcVolume, int srcStep, ZenrBox srcRoi,
                            const float* const* pxMap, const float* const* pyMap, const float* const* pzMap,
                            int mapStep, uint8_t* const* pDst, int dstStep, ZenrVolume dstVolume, int interpolation);
ZenStatus zenrRemap_16u_C1PV(const uint16_t* const* pSrc, ZenrVolume srcVolume, int srcStep, ZenrBox srcRoi,
                             const float* const* pxMap, const float* const* pyMap, const float* const* pzMap,
                             int mapStep, uint16_t* const* pDst, int dstStep, ZenrVolume dstVolume, int interpolation);
ZenStatus zenrRemap_32f_C1PV(const float* const* pSrc, ZenrVolume srcVolume, int srcStep, ZenrBox srcRoi,
                             const float* const* pxMap, const float* const* pyMap, const float* const* pzMap,
                             int mapStep, float* const* pDst, int dstStep, ZenrVolume dstVolume, int interpolation);

#ifdef __cplusplus
}
#endif
#endif
