// The thread split, which exists once: every parallel operation of the library divides its outermost dimension here.
#pragma once
#include <omp.h>

#include "zencore.h"

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

// Runs body(begin, count) once per thread of a team of ownGetNumThreads() or as many as the runtime gives: when it
// declines to fork, once in the calling thread for everything.
template <class Body> void parallelSplit(int total, const Body& body) {
    int chunk = 0;
    int remainder = 0;
#pragma omp parallel num_threads(ownGetNumThreads()) shared(chunk, remainder)
    {
        const int team = omp_get_num_threads();
#pragma omp master
        {
            chunk = total / team;
            remainder = total % team;
        }
#pragma omp barrier
        const Range range = splitRange(chunk, remainder, omp_get_thread_num(), team);
        body(range.begin, range.count);
    }
}

} // namespace zenr
