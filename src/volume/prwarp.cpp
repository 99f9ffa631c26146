// Affine warp of volumes: the exported functions.
#include "volume/prwarp.h"

#include "frame/export.h"
#include "frame/parallel.h"

namespace zenr {
namespace {

double sizeOf(double x) {
    return __builtin_fabs(x);
}

// Whether two products that ought to be equal in a singular matrix are told apart. Ordered comparisons: a NaN is not.
bool apart(double t, double u) {
    constexpr double kTiny = 1e-200;
    constexpr double kRelative = 1e-10;
    return sizeOf(t) > kTiny ? sizeOf((t - u) / t) > kRelative : sizeOf(u) > kRelative;
}

// Without a diagonal, or with rows y' and z' parallel. A matrix that is nearly singular in another way passes, and is
// found when it is inverted.
bool degenerate(const double* c) {
    constexpr double kTiny = 1e-100;
    if (sizeOf(c[0]) <= kTiny && sizeOf(c[5]) <= kTiny && sizeOf(c[10]) <= kTiny) return true;
    return !apart(c[5] * c[10], c[6] * c[9]) && !apart(c[10] * c[4], c[6] * c[8]) && !apart(c[9] * c[4], c[8] * c[5]);
}

} // namespace

ZenStatus ownrGetInverseMatrix(const double c[12], double inverse[12]) {
    constexpr double kLeast = 1e-10;
    // Cofactors: a<row><column> is the entry of the adjugate.
    const double a00 = c[5] * c[10] - c[9] * c[6];
    const double a10 = -(c[4] * c[10] - c[8] * c[6]);
    const double a20 = c[4] * c[9] - c[8] * c[5];
    const double det = c[0] * a00 + c[1] * a10 + c[2] * a20;
    if (-kLeast < det && det < kLeast) return zenStsCoeffErr;
    const double a01 = -(c[1] * c[10] - c[9] * c[2]);
    const double a11 = c[0] * c[10] - c[8] * c[2];
    const double a21 = -(c[0] * c[9] - c[8] * c[1]);
    const double a02 = c[1] * c[6] - c[5] * c[2];
    const double a12 = -(c[0] * c[6] - c[4] * c[2]);
    const double a22 = c[0] * c[5] - c[4] * c[1];
    const double rows[3][3] = {{a00, a01, a02}, {a10, a11, a12}, {a20, a21, a22}};
    for (int r = 0; r < 3; ++r) {
        for (int k = 0; k < 3; ++k) inverse[4 * r + k] = rows[r][k] / det;
        inverse[4 * r + 3] = -(rows[r][0] * c[3] + rows[r][1] * c[7] + rows[r][2] * c[11]) / det;
    }
    return zenStsNoErr;
}

namespace {

// The destination in tiles, so that neighbouring rows find their source voxels in the cache. Where rows go along x of the
// source, they find them in any case, and longer ones cost less.
constexpr int kTileColumns = 64;
constexpr int kLongColumns = 256;

constexpr int least(int a, int b) {
    return a < b ? a : b;
}

// Where the first voxel of a destination row lies in the source. One order of operations, so that every row can be
// computed by itself: no result depends on how rows are shared out.
double rowStart(const double* inverse, double x, double y, double z) {
    return inverse[0] * x + inverse[1] * y + inverse[2] * z + inverse[3];
}

// Rows [y, y + rows) of slices [z, z + slices).
template <class T>
void warpTile(WarpRows<T>* kernel, const WarpTask<T>& task, int taps, int y, int rows, int z, int slices) {
    const double advance[3] = {task.inverse[0], task.inverse[4], task.inverse[8]};
    WarpTile<T> tile;
    tile.rows = 0;
    const double slice[3] = {task.inverse[2], task.inverse[6], task.inverse[10]};
    tile.ahead = voxelsAhead(task.src, slice, taps);
    for (int k = z; k < z + slices; ++k)
        for (int j = y; j < y + rows; ++j, ++tile.rows) {
            tile.row[tile.rows] = task.dst[k] + ptrdiff_t(j) * task.dstStep + task.box.x;
            for (int axis = 0; axis < 3; ++axis)
                tile.position[axis][tile.rows] = rowStart(task.inverse + 4 * axis, task.box.x, j, k);
        }
    const int columns = advance[1] == 0 && advance[2] == 0 ? kLongColumns : kTileColumns;
    for (int x = 0; x < task.box.width; x += columns)
        kernel(task.src, &tile, x, least(task.box.width - x, columns), advance);
}

template <class T, int mode> void warpVolume(Level level, const WarpTask<T>& task, int first, int count) {
    const WideScope scope(level);
    WarpRows<T>* const kernel = sampleKernels<T>(level).warp[mode];
    for (int z = 0; z < count; z += kTileSlices)
        for (int y = 0; y < task.box.height; y += kTileRows)
            warpTile(kernel, task, tapsOf(mode), task.box.y + y, least(task.box.height - y, kTileRows), first + z,
                     least(count - z, kTileSlices));
}

constexpr WarpVolume<uint8_t>* ownrWarpAffine8N = &warpVolume<uint8_t, 1>;
constexpr WarpVolume<uint8_t>* ownrWarpAffine8L = &warpVolume<uint8_t, 2>;
constexpr WarpVolume<uint8_t>* ownrWarpAffine8C0 = &warpVolume<uint8_t, 4>;
constexpr WarpVolume<uint8_t>* ownrWarpAffine8C1 = &warpVolume<uint8_t, 5>;
constexpr WarpVolume<uint8_t>* ownrWarpAffine8C2 = &warpVolume<uint8_t, 6>;
constexpr WarpVolume<uint8_t>* ownrWarpAffine8C3 = &warpVolume<uint8_t, 7>;
constexpr WarpVolume<uint16_t>* ownrWarpAffine16N = &warpVolume<uint16_t, 1>;
constexpr WarpVolume<uint16_t>* ownrWarpAffine16L = &warpVolume<uint16_t, 2>;
constexpr WarpVolume<uint16_t>* ownrWarpAffine16C0 = &warpVolume<uint16_t, 4>;
constexpr WarpVolume<uint16_t>* ownrWarpAffine16C1 = &warpVolume<uint16_t, 5>;
constexpr WarpVolume<uint16_t>* ownrWarpAffine16C2 = &warpVolume<uint16_t, 6>;
constexpr WarpVolume<uint16_t>* ownrWarpAffine16C3 = &warpVolume<uint16_t, 7>;
constexpr WarpVolume<float>* ownrWarpAffine32N = &warpVolume<float, 1>;
constexpr WarpVolume<float>* ownrWarpAffine32L = &warpVolume<float, 2>;
constexpr WarpVolume<float>* ownrWarpAffine32C0 = &warpVolume<float, 4>;
constexpr WarpVolume<float>* ownrWarpAffine32C1 = &warpVolume<float, 5>;
constexpr WarpVolume<float>* ownrWarpAffine32C2 = &warpVolume<float, 6>;
constexpr WarpVolume<float>* ownrWarpAffine32C3 = &warpVolume<float, 7>;

// One table per type, indexed by mode.
constexpr struct {
    WarpVolume<uint8_t>* u8[kModeCount];
    WarpVolume<uint16_t>* u16[kModeCount];
    WarpVolume<float>* f32[kModeCount];
    WarpVolume<uint8_t>* const* of(uint8_t) const { return u8; }
    WarpVolume<uint16_t>* const* of(uint16_t) const { return u16; }
    WarpVolume<float>* const* of(float) const { return f32; }
} ownrWarpAffineInter = {{nullptr, ownrWarpAffine8N, ownrWarpAffine8L, nullptr, ownrWarpAffine8C0, ownrWarpAffine8C1,
                          ownrWarpAffine8C2, ownrWarpAffine8C3},
                         {nullptr, ownrWarpAffine16N, ownrWarpAffine16L, nullptr, ownrWarpAffine16C0,
                          ownrWarpAffine16C1, ownrWarpAffine16C2, ownrWarpAffine16C3},
                         {nullptr, ownrWarpAffine32N, ownrWarpAffine32L, nullptr, ownrWarpAffine32C0,
                          ownrWarpAffine32C1, ownrWarpAffine32C2, ownrWarpAffine32C3}};

template <class T> void warpAll(Level level, WarpVolume<T>* routine, const WarpTask<T>& task) {
    const ZenrBox& box = task.box;
    const bool small = box.width < 16 || box.height < 16 || box.depth < 16;
    if (small || ownGetNumThreads() < 2)
        routine(level, task, box.z, box.depth);
    else
        parallelSplit(box.depth, [&](int begin, int count) { routine(level, task, box.z + begin, count); });
}

template <class T>
ZenStatus warpChecked(const T* const* pSrc, ZenrVolume srcVolume, int srcStep, const ZenrBox& srcRoi, T* const* pDst,
                      int dstStep, const ZenrBox& dstRoi, const double* coeffs, int interpolation) {
    WarpTask<T> task;
    if (!pSrc || !pDst) return zenStsNullPtrErr;
    if (badVolume(srcVolume)) return zenStsSizeErr;
    if (badBox(srcRoi)) return zenStsSizeErr;
    if (badBox(dstRoi)) return zenStsSizeErr;
    if (degenerate(coeffs)) return zenStsCoeffErr;
    if (badMode(interpolation)) return zenStsInterpolationErr;
    if (boxOutside(srcVolume, srcRoi)) return zenStsRoiOutside;
    // Deliberately no error: what is nearly singular without being degenerate maps nothing, and is no failure.
    if (ownrGetInverseMatrix(coeffs, task.inverse) != zenStsNoErr) return zenStsNoErr;
    task.src = sampleSource(pSrc, srcStep, srcVolume, srcRoi);
    task.dst = pDst;
    task.dstStep = elementStep<T>(dstStep);
    task.box = dstRoi;
    warpAll(levelFor(voxelsOf(dstRoi.width, dstRoi.height, dstRoi.depth)),
            warpVolumes<T>()[modeFor(srcVolume, interpolation)], task);
    return zenStsNoErr;
}

} // namespace

template <class T> WarpVolume<T>* const* warpVolumes() {
    return ownrWarpAffineInter.of(T());
}
template WarpVolume<uint8_t>* const* warpVolumes<uint8_t>();
template WarpVolume<uint16_t>* const* warpVolumes<uint16_t>();
template WarpVolume<float>* const* warpVolumes<float>();

} // namespace zenr

using namespace zenr;

ZENR_EXPORT ZenStatus zenrWarpAffineGetBufSize(ZenrBox srcRoi, ZenrBox dstRoi, int nChannel, int interpolation,
                                               int* pSize) {
    if (!pSize) return zenStsNullPtrErr;
    if (badBox(srcRoi)) return zenStsSizeErr;
    if (badBox(dstRoi)) return zenStsSizeErr;
    if (nChannel != 1) return zenStsNumChannelsErr;
    if (badMode(interpolation)) return zenStsInterpolationErr;
    *pSize = 0;
    return zenStsNoErr;
}

ZENR_EXPORT ZenStatus zenrWarpAffine_8u_C1PV(const uint8_t* const* pSrc, ZenrVolume srcVolume, int srcStep,
                                             ZenrBox srcRoi, uint8_t* const* pDst, int dstStep, ZenrBox dstRoi,
                                             const double* coeffs, int interpolation) {
    return warpChecked(pSrc, srcVolume, srcStep, srcRoi, pDst, dstStep, dstRoi, coeffs, interpolation);
}

ZENR_EXPORT ZenStatus zenrWarpAffine_16u_C1PV(const uint16_t* const* pSrc, ZenrVolume srcVolume, int srcStep,
                                              ZenrBox srcRoi, uint16_t* const* pDst, int dstStep, ZenrBox dstRoi,
                                              const double* coeffs, int interpolation) {
    return warpChecked(pSrc, srcVolume, srcStep, srcRoi, pDst, dstStep, dstRoi, coeffs, interpolation);
}

ZENR_EXPORT ZenStatus zenrWarpAffine_32f_C1PV(const float* const* pSrc, ZenrVolume srcVolume, int srcStep,
                                              ZenrBox srcRoi, float* const* pDst, int dstStep, ZenrBox dstRoi,
                                              const double* coeffs, int interpolation) {
    return warpChecked(pSrc, srcVolume, srcStep, srcRoi, pDst, dstStep, dstRoi, coeffs, interpolation);
}
