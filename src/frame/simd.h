// Whole vector registers for level kernels whose speed plain loops do not reach: the few operations that compiler
// vectors have no operator for. Everything is in the level's own namespace, because it is compiled once per level.
#pragma once
// The intrinsics for 512 bits merge into registers that are left undefined on purpose.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>
#pragma GCC diagnostic pop
#include <stddef.h>
#include <stdint.h>

#define ZENR_INLINE inline __attribute__((always_inline))

namespace zenr {
namespace ZENR_LEVEL {

// The widest register of the level, in bytes; the narrower ones are there too.
#if defined(__AVX512BW__)
constexpr int kSimdBytes = 64;
#elif defined(__AVX2__)
constexpr int kSimdBytes = 32;
#else
constexpr int kSimdBytes = 16;
#endif

template <int Bytes> struct Simd {
    typedef int16_t I16 __attribute__((vector_size(Bytes), may_alias));
    typedef uint16_t U16 __attribute__((vector_size(Bytes), may_alias));
    typedef int32_t I32 __attribute__((vector_size(Bytes), may_alias));
    typedef double F64 __attribute__((vector_size(Bytes), may_alias));
    // The same at any address that suits the element.
    typedef int16_t I16u __attribute__((vector_size(Bytes), may_alias, aligned(2)));
    typedef int32_t I32u __attribute__((vector_size(Bytes), may_alias, aligned(4)));

    static ZENR_INLINE I16 load16(const int16_t* p) { return *reinterpret_cast<const I16u*>(p); }
    // The same, loaded once however often it is used: a load that crosses a cache line costs more than an operation, and
    // the compiler would put one into each of them.
    static ZENR_INLINE I16 loadOnce16(const int16_t* p) {
        I16 v = load16(p);
#if defined(__AVX512BW__)
        asm("" : "+v"(v));
#else
        asm("" : "+x"(v));
#endif
        return v;
    }
    static ZENR_INLINE void store16(int16_t* p, I16 v) {
        *reinterpret_cast<I16u*>(p) = v;
    }
    static ZENR_INLINE I32 load32(const int32_t* p) {
        return *reinterpret_cast<const I32u*>(p);
    }
    static ZENR_INLINE void store32(int32_t* p, I32 v) {
        *reinterpret_cast<I32u*>(p) = v;
    }
    static ZENR_INLINE I32 all32(int32_t x) {
        return I32{} + x;
    }
    static ZENR_INLINE F64 all64(double x) {
        return F64{} + x;
    }

    // a[2i] * b[2i] + a[2i+1] * b[2i+1] in 32 bits.
    static ZENR_INLINE I32 madd(I16 a, I16 b) {
#if defined(__AVX512BW__)
        if constexpr (Bytes == 64) return (I32)_mm512_madd_epi16((__m512i)a, (__m512i)b);
#endif
#if defined(__AVX2__)
        if constexpr (Bytes == 32) return (I32)_mm256_madd_epi16((__m256i)a, (__m256i)b);
#endif
        if constexpr (Bytes == 16) return (I32)_mm_madd_epi16((__m128i)a, (__m128i)b);
    }

    // The upper halves of the signed 32-bit products.
    static ZENR_INLINE I16 mulHigh(I16 a, I16 b) {
#if defined(__AVX512BW__)
        if constexpr (Bytes == 64) return (I16)_mm512_mulhi_epi16((__m512i)a, (__m512i)b);
#endif
#if defined(__AVX2__)
        if constexpr (Bytes == 32) return (I16)_mm256_mulhi_epi16((__m256i)a, (__m256i)b);
#endif
        if constexpr (Bytes == 16) return (I16)_mm_mulhi_epi16((__m128i)a, (__m128i)b);
    }

    // Within each 16 bytes: a0 b0 a1 b1, and a2 b2 a3 b3.
    static ZENR_INLINE I32 unpackLow(I32 a, I32 b) {
#if defined(__AVX512BW__)
        if constexpr (Bytes == 64) return (I32)_mm512_unpacklo_epi32((__m512i)a, (__m512i)b);
#endif
#if defined(__AVX2__)
        if constexpr (Bytes == 32) return (I32)_mm256_unpacklo_epi32((__m256i)a, (__m256i)b);
#endif
        if constexpr (Bytes == 16) return (I32)_mm_unpacklo_epi32((__m128i)a, (__m128i)b);
    }
    static ZENR_INLINE I32 unpackHigh(I32 a, I32 b) {
#if defined(__AVX512BW__)
        if constexpr (Bytes == 64) return (I32)_mm512_unpackhi_epi32((__m512i)a, (__m512i)b);
#endif
#if defined(__AVX2__)
        if constexpr (Bytes == 32) return (I32)_mm256_unpackhi_epi32((__m256i)a, (__m256i)b);
#endif
        if constexpr (Bytes == 16) return (I32)_mm_unpackhi_epi32((__m128i)a, (__m128i)b);
    }

    // The even 32-bit words of a and b, as those two unpacked them.
    static ZENR_INLINE I32 evenWords(F64 a, F64 b) {
#if defined(__AVX512BW__)
        if constexpr (Bytes == 64) return (I32)_mm512_shuffle_ps((__m512)a, (__m512)b, 0x88);
#endif
#if defined(__AVX2__)
        if constexpr (Bytes == 32) return (I32)_mm256_shuffle_ps((__m256)a, (__m256)b, 0x88);
#endif
        if constexpr (Bytes == 16) return (I32)_mm_shuffle_ps((__m128)a, (__m128)b, 0x88);
    }

    static ZENR_INLINE F64 smaller(F64 a, F64 b) {
#if defined(__AVX512BW__)
        if constexpr (Bytes == 64) return (F64)_mm512_min_pd((__m512d)a, (__m512d)b);
#endif
#if defined(__AVX2__)
        if constexpr (Bytes == 32) return (F64)_mm256_min_pd((__m256d)a, (__m256d)b);
#endif
        if constexpr (Bytes == 16) return (F64)_mm_min_pd((__m128d)a, (__m128d)b);
    }
    static ZENR_INLINE F64 larger(F64 a, F64 b) {
#if defined(__AVX512BW__)
        if constexpr (Bytes == 64) return (F64)_mm512_max_pd((__m512d)a, (__m512d)b);
#endif
#if defined(__AVX2__)
        if constexpr (Bytes == 32) return (F64)_mm256_max_pd((__m256d)a, (__m256d)b);
#endif
        if constexpr (Bytes == 16) return (F64)_mm_max_pd((__m128d)a, (__m128d)b);
    }

    // even0 odd0 even1 odd1 ..., saturated to 16 bits.
    static ZENR_INLINE I16 interleave16(I32 even, I32 odd) {
#if defined(__AVX512BW__)
        if constexpr (Bytes == 64) {
            const __m512i p = _mm512_packs_epi32((__m512i)even, (__m512i)odd);
            return (I16)_mm512_unpacklo_epi16(p, _mm512_unpackhi_epi64(p, p));
        }
#endif
#if defined(__AVX2__)
        if constexpr (Bytes == 32) {
            const __m256i p = _mm256_packs_epi32((__m256i)even, (__m256i)odd);
            return (I16)_mm256_unpacklo_epi16(p, _mm256_unpackhi_epi64(p, p));
        }
#endif
        if constexpr (Bytes == 16) {
            const __m128i p = _mm_packs_epi32((__m128i)even, (__m128i)odd);
            return (I16)_mm_unpacklo_epi16(p, _mm_unpackhi_epi64(p, p));
        }
    }
};

} // namespace ZENR_LEVEL
} // namespace zenr
