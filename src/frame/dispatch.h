// Choice of an instruction-set level. A level is an argument that travels down to the workers: exported functions pass
// levelFor(), tests and benchmarks pass each level that the processor has. There is no state and no configuration.
#pragma once

namespace zenr {

enum class Level { sse2, avx2, avx512 };

// The widest level that processor and operating system support.
Level bestLevel();

// The level to use for a call of so many elements (rays, triangles, voxels). On i386 a wide level costs about 100 ns at
// its end (see WideScope), so small calls stay on the baseline there.
Level levelFor(long long elements);

// The table of a level out of a subsystem's three.
template <class Table>
constexpr const Table& pick(Level level, const Table& sse2, const Table& avx2, const Table& avx512) {
    return level == Level::avx512 ? avx512 : level == Level::avx2 ? avx2 : sse2;
}

#if defined(__i386__)
void clearUpperState();
#else
inline void clearUpperState() {}
#endif

// Stands around the kernel calls of a thread. In 32-bit mode neither vzeroupper nor vzeroall clears the dirty upper
// halves of the vector registers on some processors, and SSE code of the caller would then run 2.6 times slower until
// the next context switch; restoring the initial state of that component clears it. On x86-64 it costs nothing.
class WideScope {
public:
    explicit WideScope(Level level) : wide_(level != Level::sse2) {}
    ~WideScope() {
        if (wide_) clearUpperState();
    }
    WideScope(const WideScope&) = delete;
    WideScope& operator=(const WideScope&) = delete;

private:
    bool wide_;
};

} // namespace zenr
