// The shared vector and image primitives.
//
// This file is compiled without loop distribution (src/CMakeLists.txt): the compiler would otherwise replace the
// copying and clearing loops by calls of memcpy and memset, and the point of those loops is to spare short runs the
// call.
#include "frame/prprim.h"

#include <stdint.h>
#include <string.h>

#include "frame/prvec_kernels.h"

namespace zenr {

namespace {

// Above this many bytes the platform's copy is worth its call.
constexpr ptrdiff_t kPlatformBytes = 3200;

// Below this length a dot product in extended precision is over before a proof pays.
constexpr int kProvenFrom = 16;

// Elements as they lie in memory: of any type behind the pointer, at any address (row steps are arbitrary bytes). They
// are records because a template would take a plain type without these attributes.
typedef uint8_t Element8;
struct __attribute__((packed, may_alias)) Element16 {
    uint16_t bits;
};
struct __attribute__((packed, may_alias)) Element32 {
    uint32_t bits;
};
typedef uint32_t Word32Aligned __attribute__((may_alias));

// Bytes between the starts of two areas, whichever comes first. Addresses are subtracted as unsigned numbers, because
// on a 32-bit machine two areas can be 2 GiB apart.
uintptr_t localDistance(const void* pSrc, const void* pDst) {
    const uintptr_t src = uintptr_t(pSrc);
    const uintptr_t dst = uintptr_t(pDst);
    return dst > src ? dst - src : src - dst;
}

// count elements, first to last. For overlapping areas the order shows in the result.
template <class Element> void localCopyForward(const void* pSrc, void* pDst, ptrdiff_t count) {
    if (count < 1) return;
    const uintptr_t bytes = uintptr_t(count) * sizeof(Element);
    const uintptr_t distance = localDistance(pSrc, pDst);
    if (distance > bytes && bytes > uintptr_t(kPlatformBytes)) {
        memcpy(pDst, pSrc, bytes);
    } else if (distance >= bytes) {
        const Element* __restrict src = static_cast<const Element*>(pSrc);
        Element* __restrict dst = static_cast<Element*>(pDst);
        for (ptrdiff_t i = 0; i < count; ++i) dst[i] = src[i];
    } else {
        const Element* src = static_cast<const Element*>(pSrc);
        Element* dst = static_cast<Element*>(pDst);
        for (ptrdiff_t i = 0; i < count; ++i) {
            dst[i] = src[i];
            // One by one: the compiler's own test for overlap takes for granted that elements overlap wholly or not at
            // all, and would vectorise a copy by less than an element.
            asm volatile("" ::: "memory");
        }
    }
}

template <class Element>
ZenStatus localCopyRows(const void* pSrc, int srcStep, void* pDst, int dstStep, ZenrSize roiSize) {
    if (!pSrc || !pDst) return zenStsNullPtrErr;
    if (roiSize.width < 1 || roiSize.height < 1) return zenStsSizeErr;
    const uint8_t* src = static_cast<const uint8_t*>(pSrc);
    uint8_t* dst = static_cast<uint8_t*>(pDst);
    for (int y = 0; y < roiSize.height; ++y) {
        localCopyForward<Element>(src, dst, roiSize.width);
        src += srcStep;
        dst += dstStep;
    }
    return zenStsNoErr;
}

inline void localSwap(float& a, float& b) {
    const float t = a;
    a = b;
    b = t;
}

// Below ten elements: the greatest goes to the top, the first of equals, then the rest again.
void localSelectionSort(float* a, int lo, int hi) {
    for (; hi > lo; --hi) {
        int greatest = lo;
        for (int k = lo + 1; k <= hi; ++k)
            if (a[k] > a[greatest]) greatest = k;
        localSwap(a[greatest], a[hi]);
    }
}

struct Segment {
    int lo;
    int hi;
};

} // namespace

void ownsCopy_8u(const void* pSrc, void* pDst, ptrdiff_t len) {
    localCopyForward<Element8>(pSrc, pDst, len);
}

void ownsZero_8u(void* pDst, ptrdiff_t len) {
    uint8_t* dst = static_cast<uint8_t*>(pDst);
    for (; len > 0 && uintptr_t(dst) % 4 != 0; --len) *dst++ = 0;
    for (; len >= 32; len -= 32, dst += 32) {
        Word32Aligned* words = reinterpret_cast<Word32Aligned*>(dst);
        for (int k = 0; k < 8; ++k) words[k] = 0;
    }
    for (; len > 0; --len) *dst++ = 0;
}

ZenStatus zensCopy_32f(const float* pSrc, float* pDst, int len) {
    if (!pSrc || !pDst) return zenStsNullPtrErr;
    if (len < 1) return zenStsSizeErr;
    ownsCopy_8u(pSrc, pDst, ptrdiff_t(len) * 4);
    return zenStsNoErr;
}

ZenStatus zensCopy_32s(const int32_t* pSrc, int32_t* pDst, int len) {
    if (!pSrc || !pDst) return zenStsNullPtrErr;
    if (len < 1) return zenStsSizeErr;
    ownsCopy_8u(pSrc, pDst, ptrdiff_t(len) * 4);
    return zenStsNoErr;
}

ZenStatus zensZero_16s(int16_t* pDst, int len) {
    if (!pDst) return zenStsNullPtrErr;
    if (len < 1) return zenStsSizeErr;
    ownsZero_8u(pDst, ptrdiff_t(len) * 2);
    return zenStsNoErr;
}

ZenStatus zensZero_32s(int32_t* pDst, int len) {
    if (!pDst) return zenStsNullPtrErr;
    if (len < 1) return zenStsSizeErr;
    ownsZero_8u(pDst, ptrdiff_t(len) * 4);
    return zenStsNoErr;
}

ZenStatus zensZero_32f(float* pDst, int len) {
    if (!pDst) return zenStsNullPtrErr;
    if (len < 1) return zenStsSizeErr;
    ownsZero_8u(pDst, ptrdiff_t(len) * 4);
    return zenStsNoErr;
}

ZenStatus zensAdd_32f_I(const float* pSrc, float* pSrcDst, int len) {
    if (!pSrc || !pSrcDst) return zenStsNullPtrErr;
    if (len < 1) return zenStsSizeErr;
    for (int i = 0; i < len; ++i) pSrcDst[i] = pSrcDst[i] + pSrc[i];
    return zenStsNoErr;
}

ZenStatus zensMulC_32f(const float* pSrc, float val, float* pDst, int len) {
    if (!pSrc || !pDst) return zenStsNullPtrErr;
    if (len < 1) return zenStsSizeErr;
    if (val == 1.0f) return zensCopy_32f(pSrc, pDst, len);
    if (val == 0.0f) return zensZero_32f(pDst, len);
    for (int i = 0; i < len; ++i) pDst[i] = pSrc[i] * val;
    return zenStsNoErr;
}

ZenStatus zensMulC_32f_I(float val, float* pSrcDst, int len) {
    if (!pSrcDst) return zenStsNullPtrErr;
    if (len < 1) return zenStsSizeErr;
    if (val == 1.0f) return zenStsNoErr;
    if (val == 0.0f) return zensZero_32f(pSrcDst, len);
    for (int i = 0; i < len; ++i) pSrcDst[i] = pSrcDst[i] * val;
    return zenStsNoErr;
}

void DotProd_32f(Level level, const float* pSrc1, const float* pSrc2, int len, float* pDp) {
    if (len >= kProvenFrom) {
        const WideScope scope(level);
        float result;
        if (vectorKernels(level).dot(pSrc1, pSrc2, len, &result)) {
            *pDp = result;
            return;
        }
    }
    long double sum = 0;
    for (int i = 0; i < len; ++i) sum += static_cast<long double>(pSrc1[i]) * pSrc2[i];
    *pDp = float(sum);
}

ZenStatus zensDotProd_32f(const float* pSrc1, const float* pSrc2, int len, float* pDp) {
    if (!pSrc1 || !pSrc2 || !pDp) return zenStsNullPtrErr;
    if (len < 1) return zenStsSizeErr;
    DotProd_32f(levelFor(len), pSrc1, pSrc2, len, pDp);
    return zenStsNoErr;
}

// A quicksort without recursion. The side that is pushed is always the longer one, so that at most 31 segments wait.
ZenStatus zensSortAscend_32f_I(float* pSrcDst, int len) {
    if (!pSrcDst) return zenStsNullPtrErr;
    if (len < 1) return zenStsSizeErr;
    if (len == 1) return zenStsNoErr;

    float* const a = pSrcDst;
    Segment waiting[32];
    int count = 1;
    int lo = 0;
    int hi = len - 1;
    while (count != 0) {
        const int n = hi - lo + 1;
        if (n <= 9) {
            localSelectionSort(a, lo, hi);
            if (--count == 0) break;
            // cppcheck-suppress uninitvar  // the first one counted is this one, which waits nowhere
            lo = waiting[count].lo;
            hi = waiting[count].hi;
            continue;
        }

        // Median of three: the greatest of them goes to hi, which later stops the upward scan unless all are equal.
        const int mid = lo + n / 2;
        if (a[hi] < a[lo]) localSwap(a[hi], a[lo]);
        if (a[mid] > a[hi]) localSwap(a[mid], a[hi]);
        if (a[lo] > a[mid]) localSwap(a[lo], a[mid]);
        const float pivot = a[mid];

        int i = lo + 1;
        int j = hi;
        while (j > i) {
            // Bounded by the segment: where nothing in it exceeds the pivot, the scan would leave it.
            while (i < hi && a[i] <= pivot) ++i;
            while (a[j] > pivot && j > i) --j;
            if (i >= j) break;
            localSwap(a[i], a[j]);
            --j;
            ++i;
        }
        // Elements equal to the pivot at the seam are in their final place.
        while (i > lo && a[i] >= pivot) --i;
        while (j < hi && a[j] <= pivot) ++j;

        if (i == hi) {
            // Only a NaN at hi, which no comparison moves, leaves the whole segment to the left side; the element stays
            // where it is, as the same segment again would come out the same again, for ever.
            --hi;
        } else if (i - lo >= hi - j) {
            if (j != hi) waiting[count++] = {lo, i}; // longer or equal side waits
            if (j != hi)
                lo = j;
            else
                hi = i;
        } else {
            if (i != lo) waiting[count++] = {j, hi};
            if (i != lo)
                hi = i;
            else
                lo = j;
        }
    }
    return zenStsNoErr;
}

ZenStatus zeniCopy_8u_C1R(const uint8_t* pSrc, int srcStep, uint8_t* pDst, int dstStep, ZenrSize roiSize) {
    return localCopyRows<Element8>(pSrc, srcStep, pDst, dstStep, roiSize);
}

ZenStatus zeniCopy_16s_C1R(const int16_t* pSrc, int srcStep, int16_t* pDst, int dstStep, ZenrSize roiSize) {
    return localCopyRows<Element16>(pSrc, srcStep, pDst, dstStep, roiSize);
}

ZenStatus zeniCopy_16u_C1R(const uint16_t* pSrc, int srcStep, uint16_t* pDst, int dstStep, ZenrSize roiSize) {
    return zeniCopy_16s_C1R(reinterpret_cast<const int16_t*>(pSrc), srcStep, reinterpret_cast<int16_t*>(pDst), dstStep,
                            roiSize);
}

ZenStatus zeniCopy_32f_C1R(const float* pSrc, int srcStep, float* pDst, int dstStep, ZenrSize roiSize) {
    return localCopyRows<Element32>(pSrc, srcStep, pDst, dstStep, roiSize);
}

} // namespace zenr
