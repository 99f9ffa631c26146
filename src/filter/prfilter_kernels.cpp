// Volume filtering: the loops over voxels, compiled once per level.
#include "filter/prfilter.h"

namespace zenr {
namespace ZENR_LEVEL {

// 1.5 * 2^52: adding it to a double of at most 2^51 in size rounds that to an integer, half to even.
constexpr double kRounder = 6755399441055744.0;

// sum / divisor, half to even, saturated: the one rule behind all kinds of divisors. A quotient in double is exact
// enough: a sum above 2^53, which the conversion may round, saturates whatever the divisor; below, quotients within the
// range of the result are either exact ties, which double represents, or at least 1 / (2 * 2^31) away from one, far
// more than their rounding.
static inline int16_t quotient(int64_t sum, double divisor) {
    double v = double(sum) / divisor;
    v = v < 40000.0 ? v : 40000.0;
    v = v > -40000.0 ? v : -40000.0;
    const int t = int(v + kRounder - kRounder);
    return int16_t(t > 32767 ? 32767 : t < -32768 ? -32768 : t);
}

static void plain(const FilterJob& job) {
    constexpr int kColumns = 256;
    const ZenrVolume& k = job.kernelSize;
    for (int z = 0; z < job.size.depth; ++z)
        for (int y = 0; y < job.size.height; ++y)
            for (int x0 = 0; x0 < job.size.width; x0 += kColumns) {
                const int n = job.size.width - x0 < kColumns ? job.size.width - x0 : kColumns;
                int64_t sum[kColumns];
                for (int x = 0; x < n; ++x) sum[x] = 0;
                const int32_t* weight = job.kernel + size_t(k.width) * size_t(k.height) * size_t(k.depth);
                for (int kz = 0; kz < k.depth; ++kz)
                    for (int ky = 0; ky < k.height; ++ky)
                        for (int kx = 0; kx < k.width; ++kx) {
                            const uint32_t w = uint32_t(*--weight);
                            if (w == 0) continue;
                            const int16_t* s = job.src[ptrdiff_t(z) + kz] + job.srcOrigin +
                                               (ptrdiff_t(y) + ky) * job.srcStep + x0 + kx;
                            // The product wraps, the sum does not.
                            for (int x = 0; x < n; ++x) sum[x] += int32_t(w * uint32_t(int32_t(s[x])));
                        }
                int16_t* d = job.dst[z] + y * job.dstStep + x0;
                for (int x = 0; x < n; ++x) d[x] = quotient(sum[x], job.divisor);
            }
}

const FilterKernels kFilter = {plain};

} // namespace ZENR_LEVEL
} // namespace zenr
