// Where a build's time goes. The benchmark compiles the builder once more with ZENR_SAH_PHASES and then reads the
// processor's clock at every change of phase; in the library nothing of this is left.
#pragma once

#if defined(ZENR_SAH_PHASES)
#include <stdint.h>
#include <x86intrin.h>
#endif

namespace zenr {

enum class Phase { other, extents, search, bins, sort, sweep, distribution, clipping, leaves, packing, count };

#if defined(ZENR_SAH_PHASES)

// Ticks by phase; whoever measures defines it, and builds with one thread.
struct PhaseClock {
    uint64_t ticks[int(Phase::count)];
    uint64_t since;
    Phase now;
};
extern PhaseClock phaseClock;

__attribute__((always_inline)) inline void enterPhase(Phase phase) {
    const uint64_t at = __rdtsc();
    phaseClock.ticks[int(phaseClock.now)] += at - phaseClock.since;
    phaseClock.since = at;
    phaseClock.now = phase;
}

// A phase for the length of a scope; the one around it goes on afterwards.
class InPhase {
public:
    __attribute__((always_inline)) explicit InPhase(Phase phase) : around_(phaseClock.now) { enterPhase(phase); }
    __attribute__((always_inline)) ~InPhase() { enterPhase(around_); }
    InPhase(const InPhase&) = delete;
    InPhase& operator=(const InPhase&) = delete;

private:
    Phase around_;
};

#else

class InPhase {
public:
    __attribute__((always_inline)) explicit InPhase(Phase) {}
};

#endif

} // namespace zenr
