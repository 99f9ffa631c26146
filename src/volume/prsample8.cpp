// The row kernels of affine warp and remap for 8-bit voxels, once per level.
#include "volume/prsample.h"
#include "volume/prsamplecubic.h"
#include "volume/prsamplelinear.h"
#include "volume/prsamplenearest.h"
#include "volume/prsampleremap.h"
#include "volume/prsamplewarp.h"

namespace zenr {
namespace ZENR_LEVEL {

constexpr auto ownpr_WarpAffine8N = &warpRows<uint8_t, Nearest<uint8_t>>;
constexpr auto ownpr_WarpAffine8L = &warpRows<uint8_t, Linear<uint8_t>>;
constexpr auto ownpr_WarpAffine8C0 = &warpRows<uint8_t, Cubic<uint8_t, 4>>;
constexpr auto ownpr_WarpAffine8C1 = &warpRows<uint8_t, Cubic<uint8_t, 5>>;
constexpr auto ownpr_WarpAffine8C2 = &warpRows<uint8_t, Cubic<uint8_t, 6>>;
constexpr auto ownpr_WarpAffine8C3 = &warpRows<uint8_t, Cubic<uint8_t, 7>>;

constexpr auto ownpr_Remap8N = &remapRow<uint8_t, Nearest<uint8_t>>;
constexpr auto ownpr_Remap8L = &remapRow<uint8_t, Linear<uint8_t>>;
constexpr auto ownpr_Remap8C0 = &remapRow<uint8_t, Cubic<uint8_t, 4>>;
constexpr auto ownpr_Remap8C1 = &remapRow<uint8_t, Cubic<uint8_t, 5>>;
constexpr auto ownpr_Remap8C2 = &remapRow<uint8_t, Cubic<uint8_t, 6>>;
constexpr auto ownpr_Remap8C3 = &remapRow<uint8_t, Cubic<uint8_t, 7>>;

extern const SampleKernels<uint8_t> kSample8;
const SampleKernels<uint8_t> kSample8 = {
    {nullptr, ownpr_WarpAffine8N, ownpr_WarpAffine8L, nullptr, ownpr_WarpAffine8C0, ownpr_WarpAffine8C1,
     ownpr_WarpAffine8C2, ownpr_WarpAffine8C3},
    {nullptr, ownpr_Remap8N, ownpr_Remap8L, nullptr, ownpr_Remap8C0, ownpr_Remap8C1, ownpr_Remap8C2, ownpr_Remap8C3},
};

} // namespace ZENR_LEVEL
} // namespace zenr
