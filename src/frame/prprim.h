// The vector and image primitives that the subsystems share: copy, clear, add, scale, dot product, sort, and the copy
// of a two-dimensional region. They check their arguments like exported functions, allocate nothing and stay on the
// calling thread. Counts are elements, steps are bytes.
#pragma once
#include <stddef.h>

#include "frame/dispatch.h"
#include "zenr.h"

namespace zenr {

// Copies bytes from the first to the last, so that a copy onto overlapping memory at a higher address repeats the
// leading bytes: deliberately not a move. len < 1: nothing.
void ownsCopy_8u(const void* pSrc, void* pDst, ptrdiff_t len);
// Clears bytes. len < 1: nothing.
void ownsZero_8u(void* pDst, ptrdiff_t len);

// Statuses of all that follow, in check order: zenStsNullPtrErr for any null pointer, zenStsSizeErr for a count, width
// or height below 1. Nothing is written then.

ZenStatus zensCopy_32f(const float* pSrc, float* pDst, int len);
ZenStatus zensCopy_32s(const int32_t* pSrc, int32_t* pDst, int len);
ZenStatus zensZero_16s(int16_t* pDst, int len);
ZenStatus zensZero_32s(int32_t* pDst, int len);
ZenStatus zensZero_32f(float* pDst, int len);

// pSrcDst[i] += pSrc[i].
ZenStatus zensAdd_32f_I(const float* pSrc, float* pSrcDst, int len);

// pDst[i] = pSrc[i] * val; a val of 1 copies, a val of 0 (either sign) gives +0 whatever the elements are.
ZenStatus zensMulC_32f(const float* pSrc, float val, float* pDst, int len);
ZenStatus zensMulC_32f_I(float val, float* pSrcDst, int len);

// *pDp = the sum of pSrc1[i] * pSrc2[i], added in index order in extended precision and rounded once.
ZenStatus zensDotProd_32f(const float* pSrc1, const float* pSrc2, int len, float* pDp);
// Its worker: no checks; len < 1 stores 0.
void DotProd_32f(Level level, const float* pSrc1, const float* pSrc2, int len, float* pDp);

// Sorts ascending, in place. -0 and +0 are equal and may come in either order (the same one for the same input). With
// NaNs among the elements the result is a permutation, but no more is promised.
ZenStatus zensSortAscend_32f_I(float* pSrcDst, int len);

// Copies roiSize.height rows, top to bottom, of roiSize.width elements, first to last (see ownsCopy_8u about overlap;
// the unit of the copy is one element).
ZenStatus zeniCopy_8u_C1R(const uint8_t* pSrc, int srcStep, uint8_t* pDst, int dstStep, ZenrSize roiSize);
ZenStatus zeniCopy_16s_C1R(const int16_t* pSrc, int srcStep, int16_t* pDst, int dstStep, ZenrSize roiSize);
ZenStatus zeniCopy_16u_C1R(const uint16_t* pSrc, int srcStep, uint16_t* pDst, int dstStep, ZenrSize roiSize);
ZenStatus zeniCopy_32f_C1R(const float* pSrc, int srcStep, float* pDst, int dstStep, ZenrSize roiSize);

} // namespace zenr
