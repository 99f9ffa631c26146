// The row kernels of affine warp and remap for 32-bit float voxels, once per level.
#include "volume/prsample.h"
#include "volume/prsamplecubic.h"
#include "volume/prsamplelinear.h"
#include "volume/prsamplenearest.h"
#include "volume/prsampleremap.h"
#include "volume/prsamplewarp.h"

namespace zenr {
namespace ZENR_LEVEL {

constexpr auto ownpr_WarpAffine32N = &warpRows<float, Nearest<float>>;
constexpr auto ownpr_WarpAffine32L = &warpRows<float, Linear<float>>;
constexpr auto ownpr_WarpAffine32C0 = &warpRows<float, Cubic<float, 4>>;
constexpr auto ownpr_WarpAffine32C1 = &warpRows<float, Cubic<float, 5>>;
constexpr auto ownpr_WarpAffine32C2 = &warpRows<float, Cubic<float, 6>>;
constexpr auto ownpr_WarpAffine32C3 = &warpRows<float, Cubic<float, 7>>;

constexpr auto ownpr_Remap32N = &remapRow<float, Nearest<float>>;
constexpr auto ownpr_Remap32L = &remapRow<float, Linear<float>>;
constexpr auto ownpr_Remap32C0 = &remapRow<float, Cubic<float, 4>>;
constexpr auto ownpr_Remap32C1 = &remapRow<float, Cubic<float, 5>>;
constexpr auto ownpr_Remap32C2 = &remapRow<float, Cubic<float, 6>>;
constexpr auto ownpr_Remap32C3 = &remapRow<float, Cubic<float, 7>>;

extern const SampleKernels<float> kSample32;
const SampleKernels<float> kSample32 = {
    {nullptr, ownpr_WarpAffine32N, ownpr_WarpAffine32L, nullptr, ownpr_WarpAffine32C0, ownpr_WarpAffine32C1,
     ownpr_WarpAffine32C2, ownpr_WarpAffine32C3},
    {nullptr, ownpr_Remap32N, ownpr_Remap32L, nullptr, ownpr_Remap32C0, ownpr_Remap32C1, ownpr_Remap32C2,
     ownpr_Remap32C3},
};

} // namespace ZENR_LEVEL
} // namespace zenr
