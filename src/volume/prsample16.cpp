// The row kernels of affine warp and remap for 16-bit voxels, once per level.
#include "volume/prsample.h"
#include "volume/prsamplecubic.h"
#include "volume/prsamplelinear.h"
#include "volume/prsamplenearest.h"
#include "volume/prsampleremap.h"
#include "volume/prsamplewarp.h"

namespace zenr {
namespace ZENR_LEVEL {

constexpr auto ownpr_WarpAffine16N = &warpRows<uint16_t, Nearest<uint16_t>>;
constexpr auto ownpr_WarpAffine16L = &warpRows<uint16_t, Linear<uint16_t>>;
constexpr auto ownpr_WarpAffine16C0 = &warpRows<uint16_t, Cubic<uint16_t, 4>>;
constexpr auto ownpr_WarpAffine16C1 = &warpRows<uint16_t, Cubic<uint16_t, 5>>;
constexpr auto ownpr_WarpAffine16C2 = &warpRows<uint16_t, Cubic<uint16_t, 6>>;
constexpr auto ownpr_WarpAffine16C3 = &warpRows<uint16_t, Cubic<uint16_t, 7>>;

constexpr auto ownpr_Remap16N = &remapRow<uint16_t, Nearest<uint16_t>>;
constexpr auto ownpr_Remap16L = &remapRow<uint16_t, Linear<uint16_t>>;
constexpr auto ownpr_Remap16C0 = &remapRow<uint16_t, Cubic<uint16_t, 4>>;
constexpr auto ownpr_Remap16C1 = &remapRow<uint16_t, Cubic<uint16_t, 5>>;
constexpr auto ownpr_Remap16C2 = &remapRow<uint16_t, Cubic<uint16_t, 6>>;
constexpr auto ownpr_Remap16C3 = &remapRow<uint16_t, Cubic<uint16_t, 7>>;

extern const SampleKernels<uint16_t> kSample16;
const SampleKernels<uint16_t> kSample16 = {
    {nullptr, ownpr_WarpAffine16N, ownpr_WarpAffine16L, nullptr, ownpr_WarpAffine16C0, ownpr_WarpAffine16C1,
     ownpr_WarpAffine16C2, ownpr_WarpAffine16C3},
    {nullptr, ownpr_Remap16N, ownpr_Remap16L, nullptr, ownpr_Remap16C0, ownpr_Remap16C1, ownpr_Remap16C2,
     ownpr_Remap16C3},
};

} // namespace ZENR_LEVEL
} // namespace zenr
