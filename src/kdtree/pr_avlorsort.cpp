// Radix sort of floats: one counting pass and three scatter passes, least significant digit first.
#include "kdtree/pr_avlorsort.h"

#include "frame/prprim.h"

namespace zenr {

namespace {

// The float array is worked on as words in place.
typedef uint32_t Pattern __attribute__((may_alias));

// Key: 31 .. 22 digit 3 | 21 .. 11 digit 2 | 10 .. 0 digit 1
constexpr unsigned kDigitValues = 2048;
inline uint32_t localDigit1(uint32_t key) {
    return key & 0x7FFu;
}
inline uint32_t localDigit2(uint32_t key) {
    return key >> 11 & 0x7FFu;
}
inline uint32_t localDigit3(uint32_t key) {
    return key >> 22;
}

constexpr uint32_t kSign = 0x80000000u;

// Unsigned keys order like the floats: a negative float's bits all turn over, a positive one's sign alone.
inline uint32_t localKeyOf(uint32_t pattern) {
    return pattern ^ (pattern & kSign ? 0xFFFFFFFFu : kSign);
}
inline uint32_t localPatternOf(uint32_t key) {
    return key ^ (key & kSign ? kSign : 0xFFFFFFFFu);
}

} // namespace

int ownRadixSortAccend_32f_px(float* data, uint32_t* scratch, unsigned n) {
    Pattern* const keys = reinterpret_cast<Pattern*>(data);
    Pattern* const other = scratch;
    uint32_t histogram[3][kDigitValues];
    zensZero_32s(reinterpret_cast<int32_t*>(&histogram[0][0]), 3 * kDigitValues);

    for (unsigned i = 0; i < n; ++i) {
        const uint32_t key = localKeyOf(keys[i]);
        keys[i] = key;
        ++histogram[0][localDigit1(key)];
        ++histogram[1][localDigit2(key)];
        ++histogram[2][localDigit3(key)];
    }

    // Each counter becomes the place before its digit's first one (so -1 for the smallest): a placement increments
    // first.
    uint32_t total[3] = {0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu};
    for (unsigned v = 0; v < kDigitValues; ++v) {
        for (int d = 0; d < 3; ++d) {
            const uint32_t here = histogram[d][v];
            histogram[d][v] = total[d];
            total[d] += here;
        }
    }

    for (unsigned i = 0; i < n; ++i) other[++histogram[0][localDigit1(keys[i])]] = keys[i];
    for (unsigned i = 0; i < n; ++i) keys[++histogram[1][localDigit2(other[i])]] = other[i];
    for (unsigned i = 0; i < n; ++i) other[++histogram[2][localDigit3(keys[i])]] = localPatternOf(keys[i]);

    // Nothing to copy is no error here: the status of an empty copy is of no interest.
    zensCopy_32f(reinterpret_cast<const float*>(scratch), data, int(n));
    return 0;
}

} // namespace zenr
