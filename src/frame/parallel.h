// The thread split, which exists once: every parallel operation of the library divides its outermost dimension here.
#pragma once
#include <omp.h>

#include "zencore.h"

#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void*);
extern "C" void __tsan_release(void*);
#endif

namespace zenr {

struct Range {
    int begin;
    int count;
};

// Thread t of a team of `team` threads takes total / team items from t * (total / team) on; the whole remainder goes to
// the last thread.
constexpr Range splitRange(int chunk, int remainder, int t, int team) {
    return {t * chunk, t == team - 1 ? chunk + remainder : chunk};
}

// The OpenMP runtime is not built for the thread sanitizer, which does not see what its barriers order: it is told that what
// came before reached() happened before what comes after passed(), of the same barrier.
inline void reached([[maybe_unused]] void* barrier) {
#if defined(__SANITIZE_THREAD__)
    __tsan_release(barrier);
#endif
}
inline void passed([[maybe_unused]] void* barrier) {
#if defined(__SANITIZE_THREAD__)
    __tsan_acquire(barrier);
#endif
}

// Runs body(range, thread, team) once per thread of a team of ownGetNumThreads(), at most `limit`, or as many as the
// runtime gives: when it declines to fork, once in the calling thread for everything.
template <class Body> void parallelTeam(int total, int limit, const Body& body) {
    int chunk = 0;
    int remainder = 0;
    const int wanted = ownGetNumThreads();
    reached(&chunk);
#pragma omp parallel num_threads(wanted < limit ? wanted : limit) shared(chunk, remainder)
    {
        passed(&chunk);
        const int team = omp_get_num_threads();
#pragma omp master
        {
            chunk = total / team;
            remainder = total % team;
        }
        reached(&chunk);
#pragma omp barrier
        passed(&chunk);
        const int t = omp_get_thread_num();
        body(splitRange(chunk, remainder, t, team), t, team);
        reached(&chunk);
    }
    passed(&chunk);
}

// Runs body(begin, count) once per thread of a team of ownGetNumThreads().
template <class Body> void parallelSplit(int total, const Body& body) {
    parallelTeam(total, 0x7FFFFFFF, [&](Range range, int, int) { body(range.begin, range.count); });
}

} // namespace zenr
