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

// Runs body(range, thread, team) once per thread of a team of ownGetNumThreads(), at most `limit`, or as many as the
// runtime gives: when it declines to fork, once in the calling thread for everything.
template <class Body> void parallelTeam(int total, int limit, const Body& body) {
    int chunk = 0;
    int remainder = 0;
    const int wanted = ownGetNumThreads();
#pragma omp parallel num_threads(wanted < limit ? wanted : limit) shared(chunk, remainder)
    {
        const int team = omp_get_num_threads();
#pragma omp master
        {
            chunk = total / team;
            remainder = total % team;
        }
#pragma omp barrier
        const int t = omp_get_thread_num();
        body(splitRange(chunk, remainder, t, team), t, team);
    }
}

// Runs body(begin, count) once per thread of a team of ownGetNumThreads().
template <class Body> void parallelSplit(int total, const Body& body) {
    parallelTeam(total, 0x7FFFFFFF, [&](Range range, int, int) { body(range.begin, range.count); });
}

} // namespace zenr
