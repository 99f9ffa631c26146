// Spherical harmonics: the evaluation state, and the exported functions.
#include "sh/prsh.h"

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "frame/export.h"

namespace zenr {

namespace {

static_assert(sizeof(ZenrSHState) == 16, "the tables start at byte 16 of a state on a 16-byte boundary");

enum { kClosedForm = 0, kRecurrence = 1 };

// Arithmetic of sizes is in 32 bits, as sizes are reported.
uint32_t stateSize(uint32_t L, int32_t type) {
    if (type == kClosedForm) return sizeof(ZenrSHState);
    return (((L + 1) * (L + 2) / 2 * 4 + 15) / 16 * 32) | 16u;
}

constexpr uintptr_t alignUp(uintptr_t address) {
    return (address + 15) & ~uintptr_t(15);
}

// On x86-64 two pointers would not fit a state of 16 bytes: offsets from the block's start stand in their place.
#if defined(__i386__)
void setTables(ZenrSHState* state, float* a, float* b) {
    state->tableA = a;
    state->tableB = b;
}
const float* tableA(const ZenrSHState* state) {
    return state->tableA;
}
const float* tableB(const ZenrSHState* state) {
    return state->tableB;
}
#else
void setTables(ZenrSHState* state, float* a, float* b) {
    char* base = reinterpret_cast<char*>(state);
    state->tableA = uint32_t(reinterpret_cast<char*>(a) - base);
    state->tableB = uint32_t(reinterpret_cast<char*>(b) - base);
}
const float* tableA(const ZenrSHState* state) {
    return reinterpret_cast<const float*>(reinterpret_cast<const char*>(state) + state->tableA);
}
const float* tableB(const ZenrSHState* state) {
    return reinterpret_cast<const float*>(reinterpret_cast<const char*>(state) + state->tableB);
}
#endif

// Every square root of the recurrence. Bands 0 and 1 have three entries also when the state ends with band 0: that
// block has room for them.
void fillTables(float* a, float* b, uint32_t L) {
    const long double pi = 3.14159265358979323846264338327950288L;
    const long double r = __builtin_sqrtl(4 * pi);
    a[0] = float(1 / r);
    a[1] = float(__builtin_sqrtl(3.0L) / r);
    a[2] = float(-__builtin_sqrtl(3.0L) / r);
    size_t group = 3;
    for (uint32_t band = 2; band <= L && band != 0; group += size_t(band) + 1, ++band) {
        const long double l = band;
        for (uint32_t order = 0; order < band; ++order) {
            const long double k = order;
            const long double gap = l * l - k * k;
            a[group + order] = float(__builtin_sqrtl((4 * l * l - 1) / gap));
            b[group + order] = float(-__builtin_sqrtl(((l - 1) * (l - 1) - k * k) * (2 * l + 1) / (gap * (2 * l - 3))));
        }
        a[group + band] = float(-__builtin_sqrtl((2 * l + 1) / (2 * l)));
    }
}

constexpr int valuesOf(int L) {
    return (L + 1) * (L + 1);
}

// The level for so many directions of so many values: four values cost about a nanosecond.
Level levelForValues(int len, int values) {
    return levelFor((long long)len * (values + 3) / 4);
}

ZenStatus ownrSHBand_32f(Level level, const ShDirections& dirs, float* pDst, int L) {
    WideScope scope(level);
    shKernels(level).band[L](dirs, pDst);
    return zenStsNoErr;
}

ShBasis basisOf(const ZenrSHState* state, int L) {
    if (state->type == kClosedForm) return {nullptr, nullptr, L};
    return {tableA(state), tableB(state), L};
}

// What all transforms check once their pointers are known to be there.
ZenStatus checkTransform(int len, uint32_t L, const ZenrSHState* pState) {
    if (len == 0) return zenStsSizeErr;
    if (L > pState->maxOrder) return zenStsBadTypeErr;
    if (L > uint32_t(kShMaxOrder)) return zenStsBadTypeErr;
    if (pState->type != kClosedForm && pState->type != kRecurrence) return zenStsBadTypeErr;
    return zenStsNoErr;
}

bool anyNull(const float* const planes[3]) {
    return !planes[0] || !planes[1] || !planes[2];
}

bool meet(const float* a, const float* b, int values) {
    const uintptr_t p = reinterpret_cast<uintptr_t>(a);
    const uintptr_t q = reinterpret_cast<uintptr_t>(b);
    return (p < q ? q - p : p - q) < size_t(values) * sizeof(float);
}

// Channels that share coefficients (one plane for all three, say) add to them in turn, direction by direction. The
// kernels hold the sums of all channels at once, so that the last would win.
void forwardInTurn(const ShKernels& kernels, const ShBasis& basis, const ShDirections& dirs, const ShSamples& samples,
                   float* const coeffs[3]) {
    for (int i = 0; i < dirs.count; ++i) {
        for (int c = 0; c < samples.channels; ++c) {
            float* const plane[3] = {coeffs[c], nullptr, nullptr};
            kernels.forward(basis, {dirs.x + i, dirs.y + i, dirs.z + i, 1},
                            {{samples.channel[c] + ptrdiff_t(i) * samples.step, nullptr, nullptr}, 1, 1}, plane);
        }
    }
}

ZenStatus ownrSHTFwd_32f(Level level, const ShDirections& dirs, const ShSamples& samples, float* const coeffs[3],
                         const ShBasis& basis) {
    if (dirs.count < 0) return zenStsNoErr;
    WideScope scope(level);
    const int values = valuesOf(basis.order);
    if (samples.channels == 3 && (meet(coeffs[0], coeffs[1], values) || meet(coeffs[0], coeffs[2], values) ||
                                  meet(coeffs[1], coeffs[2], values)))
        forwardInTurn(shKernels(level), basis, dirs, samples, coeffs);
    else
        shKernels(level).forward(basis, dirs, samples, coeffs);
    return zenStsNoErr;
}

ZenStatus ownrSHTInv_32f(Level level, const float* const coeffs[3], const ShDirections& dirs, const ShResults& results,
                         const ShBasis& basis) {
    if (dirs.count < 0) return zenStsNoErr;
    WideScope scope(level);
    shKernels(level).inverse(basis, dirs, coeffs, results);
    return zenStsNoErr;
}

} // namespace

ZenStatus ownrSH15direct_32f(Level level, const float* pX, const float* pY, const float* pZ, int len, float* pDst,
                             int L) {
    if (L < 0 || L > kShMaxOrder) return zenStsBadTypeErr;
    if (len < 1) return zenStsNoErr;
    WideScope scope(level);
    shKernels(level).bands({nullptr, nullptr, L}, {pX, pY, pZ, len}, pDst);
    return zenStsNoErr;
}

ZenStatus ownrSHrecurr_32f(Level level, const float* pA, const float* pB, const float* pX, const float* pY,
                           const float* pZ, int len, float* pDst, int L) {
    if (L < 0 || L > kShMaxOrder) return zenStsBadTypeErr;
    if (len < 1) return zenStsNoErr;
    WideScope scope(level);
    shKernels(level).bands({pA, pB, L}, {pX, pY, pZ, len}, pDst);
    return zenStsNoErr;
}

} // namespace zenr

using namespace zenr;

ZENR_EXPORT ZenStatus zenrSHGetSize_32f(uint32_t L, int32_t type, uint32_t* pSize) {
    if (!pSize) return zenStsNullPtrErr;
    if (type != kClosedForm && type != kRecurrence) return zenStsBadTypeErr;
    if (type == kClosedForm && L > uint32_t(kShMaxOrder)) return zenStsSizeErr;
    *pSize = stateSize(L, type);
    return zenStsNoErr;
}

ZENR_EXPORT ZenStatus zenrSHInit_32f(ZenrSHState* pState, uint32_t L, int32_t type) {
    if (!pState) return zenStsNullPtrErr;
    if (type == kClosedForm && L > uint32_t(kShMaxOrder)) return zenStsSizeErr;
    if (type != kClosedForm && type != kRecurrence) return zenStsBadTypeErr;
    memset(pState, 0, stateSize(L, type));
    pState->maxOrder = L;
    pState->type = type;
    if (type == kRecurrence) {
        const size_t entries = size_t((L + 1) * (L + 2) / 2);
        const uintptr_t a = alignUp(reinterpret_cast<uintptr_t>(pState)) + 16;
        const uintptr_t b = alignUp(a + entries * sizeof(float));
        setTables(pState, reinterpret_cast<float*>(a), reinterpret_cast<float*>(b));
        fillTables(reinterpret_cast<float*>(a), reinterpret_cast<float*>(b), L);
    }
    return zenStsNoErr;
}

ZENR_EXPORT ZenStatus zenrSH_32f(const float* pX, const float* pY, const float* pZ, int len, float* pDst, uint32_t L,
                                 const ZenrSHState* pState) {
    if (!pX || !pY || !pZ || !pDst || !pState) return zenStsNullPtrErr;
    if (len == 0) return zenStsSizeErr;
    if (L > pState->maxOrder) return zenStsBadTypeErr;
    // An order above 15 is refused by the evaluators, in which case the level does not matter.
    const Level level = levelForValues(len, L > uint32_t(kShMaxOrder) ? 0 : valuesOf(int(L)));
    if (pState->type == kClosedForm) return ownrSH15direct_32f(level, pX, pY, pZ, len, pDst, int(L));
    if (pState->type == kRecurrence)
        return ownrSHrecurr_32f(level, tableA(pState), tableB(pState), pX, pY, pZ, len, pDst, int(L));
    return zenStsBadTypeErr;
}

ZENR_EXPORT ZenStatus zenrSHBand_32f(const float* pX, const float* pY, const float* pZ, int len, float* pDst,
                                     uint32_t L) {
    if (!pX || !pY || !pZ || !pDst) return zenStsNullPtrErr;
    if (L > uint32_t(kShMaxOrder)) return zenStsBadTypeErr;
    if (len == 0) return zenStsSizeErr;
    if (len < 0) return zenStsNoErr;
    return ownrSHBand_32f(levelForValues(len, 2 * int(L) + 1), {pX, pY, pZ, len}, pDst, int(L));
}

ZENR_EXPORT ZenStatus zenrSHTFwd_32f_C1I(const float* pX, const float* pY, const float* pZ, const float* pSrc, int len,
                                         float* pSrcDstCoeffs, uint32_t L, const ZenrSHState* pState) {
    if (!pX || !pY || !pZ || !pSrc || !pSrcDstCoeffs || !pState) return zenStsNullPtrErr;
    if (const ZenStatus status = checkTransform(len, L, pState)) return status;
    float* const coeffs[3] = {pSrcDstCoeffs, nullptr, nullptr};
    return ownrSHTFwd_32f(levelForValues(len, valuesOf(int(L))), {pX, pY, pZ, len}, {{pSrc, nullptr, nullptr}, 1, 1},
                          coeffs, basisOf(pState, int(L)));
}

ZENR_EXPORT ZenStatus zenrSHTFwd_32f_C3P3I(const float* pX, const float* pY, const float* pZ, const float* pSrc,
                                           int len, float* const pSrcDstCoeffs[3], uint32_t L,
                                           const ZenrSHState* pState) {
    if (!pX || !pY || !pZ || !pSrc || !pSrcDstCoeffs || !pState) return zenStsNullPtrErr;
    if (anyNull(pSrcDstCoeffs)) return zenStsNullPtrErr;
    if (const ZenStatus status = checkTransform(len, L, pState)) return status;
    return ownrSHTFwd_32f(levelForValues(len, valuesOf(int(L))), {pX, pY, pZ, len}, {{pSrc, pSrc + 1, pSrc + 2}, 3, 3},
                          pSrcDstCoeffs, basisOf(pState, int(L)));
}

ZENR_EXPORT ZenStatus zenrSHTFwd_32f_P3I(const float* pX, const float* pY, const float* pZ, const float* const pSrc[3],
                                         int len, float* const pSrcDstCoeffs[3], uint32_t L,
                                         const ZenrSHState* pState) {
    if (!pX || !pY || !pZ || !pSrc || !pSrcDstCoeffs || !pState) return zenStsNullPtrErr;
    if (anyNull(pSrc) || anyNull(pSrcDstCoeffs)) return zenStsNullPtrErr;
    if (const ZenStatus status = checkTransform(len, L, pState)) return status;
    return ownrSHTFwd_32f(levelForValues(len, valuesOf(int(L))), {pX, pY, pZ, len}, {{pSrc[0], pSrc[1], pSrc[2]}, 3, 1},
                          pSrcDstCoeffs, basisOf(pState, int(L)));
}

ZENR_EXPORT ZenStatus zenrSHTInv_32f_C1(const float* pSrcCoeffs, uint32_t L, const float* pX, const float* pY,
                                        const float* pZ, float* pDst, int len, const ZenrSHState* pState) {
    if (!pSrcCoeffs || !pX || !pY || !pZ || !pDst || !pState) return zenStsNullPtrErr;
    if (const ZenStatus status = checkTransform(len, L, pState)) return status;
    const float* const coeffs[3] = {pSrcCoeffs, nullptr, nullptr};
    return ownrSHTInv_32f(levelForValues(len, valuesOf(int(L))), coeffs, {pX, pY, pZ, len},
                          {{pDst, nullptr, nullptr}, 1, 1}, basisOf(pState, int(L)));
}

ZENR_EXPORT ZenStatus zenrSHTInv_32f_P3(const float* const pSrcCoeffs[3], uint32_t L, const float* pX, const float* pY,
                                        const float* pZ, float* const pDst[3], int len, const ZenrSHState* pState) {
    if (!pSrcCoeffs || !pX || !pY || !pZ || !pDst || !pState) return zenStsNullPtrErr;
    if (anyNull(pSrcCoeffs) || anyNull(pDst)) return zenStsNullPtrErr;
    if (const ZenStatus status = checkTransform(len, L, pState)) return status;
    return ownrSHTInv_32f(levelForValues(len, valuesOf(int(L))), pSrcCoeffs, {pX, pY, pZ, len},
                          {{pDst[0], pDst[1], pDst[2]}, 3, 1}, basisOf(pState, int(L)));
}

ZENR_EXPORT ZenStatus zenrSHTInv_32f_P3C3(const float* const pSrcCoeffs[3], uint32_t L, const float* pX,
                                          const float* pY, const float* pZ, float* pDst, int len,
                                          const ZenrSHState* pState) {
    if (!pSrcCoeffs || !pX || !pY || !pZ || !pDst || !pState) return zenStsNullPtrErr;
    if (anyNull(pSrcCoeffs)) return zenStsNullPtrErr;
    if (const ZenStatus status = checkTransform(len, L, pState)) return status;
    return ownrSHTInv_32f(levelForValues(len, valuesOf(int(L))), pSrcCoeffs, {pX, pY, pZ, len},
                          {{pDst, pDst + 1, pDst + 2}, 3, 3}, basisOf(pState, int(L)));
}
