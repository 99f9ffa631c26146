// What is known of the elements of a row; it decides how much of the sums of them has to be checked.
#pragma once

namespace zenr {

// No finite element exceeds `most` in size. A `most` of 0 also says that sums are exact in double, whatever the elements.
//
// `least` is 0 if nothing more is known. Otherwise all elements are finite, and multiples of one power of two that is
// not below 2^-24 * least; without `mixed` none is negative, and none but zeros falls below `least`.
//
// Elements outside [begin, end) are +0, and so is any sum of nothing but those: some weight is positive. The background
// of a scan makes up much of a volume.
struct RowBound {
    float most = 0;
    float least = 0x1p127f;
    bool mixed = false;
    int begin = 0x7FFFFFFF, end = 0; // as it stands, a bound of nothing
};

// Of 16-bit voxels, only whether any may exceed 32767 is of interest.
struct FarBound {
    bool far = false;
};

// Where passes find out by themselves.
struct NoBound {};

// How far a pass may move bounds: factors of `most`, and of `least` with and without negative elements.
struct Growth {
    float most;
    float positive;
    float mixed;
};
static inline Growth together(const Growth& a, const Growth& b) {
    return {a.most > b.most ? a.most : b.most, a.positive < b.positive ? a.positive : b.positive,
            a.mixed < b.mixed ? a.mixed : b.mixed};
}

// Bounds are changed field by field: a copy of a whole record waits until the stores of its fields are through.
static inline void join(RowBound* a, const RowBound& b) {
    a->most = a->most > b.most ? a->most : b.most;
    a->least = a->least < b.least ? a->least : b.least;
    a->mixed = a->mixed || b.mixed;
    a->begin = a->begin < b.begin ? a->begin : b.begin;
    a->end = a->end > b.end ? a->end : b.end;
}
static inline void join(FarBound* a, const FarBound& b) {
    a->far = a->far || b.far;
}
static inline void join(NoBound*, const NoBound&) {}
static inline float grownLeast(const RowBound& b, const Growth& g) {
    return b.least * (b.mixed ? g.mixed : g.positive);
}
static inline void grow(const RowBound& b, const Growth& g, RowBound* to) {
    to->most = b.most * g.most;
    to->least = grownLeast(b, g);
    to->mixed = b.mixed;
    to->begin = b.begin;
    to->end = b.end;
}
static inline void grow(const FarBound& b, const Growth&, FarBound* to) {
    to->far = b.far;
}
static inline void grow(const NoBound&, const Growth&, NoBound*) {}

// The same bounds, for elements counted from column x on.
static inline RowBound countedFrom(const RowBound& b, int x) {
    return {b.most, b.least, b.mixed, b.begin - x, b.end - x};
}
static inline FarBound countedFrom(const FarBound& b, int) {
    return b;
}
static inline NoBound countedFrom(const NoBound& b, int) {
    return b;
}

// The elements of a row that take computing: sixteen or more, from a multiple of sixteen on, as far as there are as many.
struct Part {
    int begin, end;
};
static inline Part partOf(const RowBound& b, int n) {
    int begin = b.begin > 0 ? b.begin & ~15 : 0;
    const int end = b.end < n ? (b.end + 15) & ~15 : n;
    if (b.begin >= b.end || begin >= n || end <= 0) return {0, 0};
    if (end > n - 16 && begin > n - 16) begin = n > 16 ? n - 16 : 0;
    return {begin, end < n ? end : n};
}
static inline Part partOf(const FarBound&, int n) {
    return {0, n};
}
static inline Part partOf(const NoBound&, int n) {
    return {0, n};
}
template <class Element> static inline void clearOutside(const Part& part, Element* dst, int n) {
    __builtin_memset(dst, 0, unsigned(part.begin) * sizeof(Element));
    __builtin_memset(dst + part.end, 0, unsigned(n - part.end) * sizeof(Element));
}

// Elements so close to each other (and zeros) that sums with short weights are exact in double: in units of 2^-10 of
// the least element's last place, they stay below 2^53.
static inline bool isClose(const RowBound& bound) {
    return bound.most <= bound.least * 0x1p17f;
}

// Neither an element nor a multiple of its unit is anywhere near the smallest normal float.
static inline bool isNormal(float least) {
    return least >= 0x1p-100f;
}

// Weights that are multiples of 2^-10 make sums that often lie half-way between two floats.
static inline bool isShort(double w) {
    const double scaled = w * 1024;
    return scaled == double(int(scaled));
}

// What a pass has to check of its sums.
enum class Care {
    none,    // they are exact in double
    halfway, // whether a half-way point between two floats is near; see presguard.h
    full,
};

} // namespace zenr
