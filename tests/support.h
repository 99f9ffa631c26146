// What the tests share: the levels of this processor, repeatable random inputs, bit comparison, guarded buffers.
#pragma once
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <random>
#include <vector>

#include "frame/dispatch.h"

namespace zenrtest {

// The levels that this processor can run, baseline first.
inline std::vector<zenr::Level> levels() {
    std::vector<zenr::Level> all{zenr::Level::sse2};
    if (zenr::bestLevel() >= zenr::Level::avx2) all.push_back(zenr::Level::avx2);
    if (zenr::bestLevel() >= zenr::Level::avx512) all.push_back(zenr::Level::avx512);
    return all;
}

inline const char* levelName(zenr::Level level) {
    return level == zenr::Level::sse2 ? "sse2" : level == zenr::Level::avx2 ? "avx2" : "avx512";
}

// A number of rounds, less under emulation, which is some thirty times slower.
inline int rounds(int full) {
    static const bool brief = getenv("ZENR_TEST_SHORT") != nullptr;
    return brief ? (full + 29) / 30 : full;
}

inline uint32_t bitsOf(float x) {
    uint32_t b;
    memcpy(&b, &x, 4);
    return b;
}
inline float floatOf(uint32_t b) {
    float x;
    memcpy(&x, &b, 4);
    return x;
}
// Equal bits; any two NaNs count as equal, because the sign and payload of a computed NaN are not defined.
inline bool sameFloat(float a, float b) {
    return bitsOf(a) == bitsOf(b) || (a != a && b != b);
}

// Floats as a kernel may meet them: mostly moderate, some tiny, huge, denormal, infinite, NaN, signed zeros, equal.
class Floats {
public:
    explicit Floats(uint32_t seed) : engine_(seed) {}
    float moderate() { return std::uniform_real_distribution<float>(-4.f, 4.f)(engine_); }
    float any() {
        static const float special[] = {0.f,     -0.f,     1.f,      -1.f,      1e-45f, -1e-45f,       1.17549435e-38f,
                                        3.4e38f, -3.4e38f, INFINITY, -INFINITY, NAN,    1.1920929e-7f, 16777216.f};
        const uint32_t r = engine_();
        if (r % 16 == 0) return special[(r >> 8) % (sizeof special / sizeof *special)];
        if (r % 16 == 1) return floatOf(engine_());
        return moderate();
    }
    uint32_t bits() { return uint32_t(engine_()); }

private:
    std::mt19937 engine_;
};

// A block of exactly n elements between two pages that fault when touched: the end or the start lies at the page's
// edge (to the alignment of T).
template <class T> class Guarded {
public:
    enum Side { atEnd, atStart };
    explicit Guarded(size_t n, Side side = atEnd) : count_(n) {
        const size_t page = size_t(sysconf(_SC_PAGESIZE));
        const size_t bytes = n * sizeof(T);
        const size_t body = (bytes + page - 1) / page * page;
        total_ = body + 2 * page;
        base_ = static_cast<char*>(mmap(nullptr, total_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        if (base_ == MAP_FAILED) abort();
        mprotect(base_, page, PROT_NONE);
        mprotect(base_ + page + body, page, PROT_NONE);
        data_ = reinterpret_cast<T*>(side == atEnd ? base_ + page + body - bytes : base_ + page);
    }
    ~Guarded() { munmap(base_, total_); }
    Guarded(const Guarded&) = delete;
    Guarded& operator=(const Guarded&) = delete;
    T* data() { return data_; }
    const T* data() const { return data_; }
    T& operator[](size_t i) { return data_[i]; }
    size_t size() const { return count_; }

private:
    char* base_;
    size_t total_;
    T* data_;
    size_t count_;
};

} // namespace zenrtest
