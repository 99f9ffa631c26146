// Clocks, and the least time of several runs: the machines are shared.
#pragma once
#include <time.h>

inline double secondsOf(clockid_t clock) {
    timespec t;
    clock_gettime(clock, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}
// The processor time of this process, on which other load on the machine counts less, and which has that of threads a peer
// starts unasked; and the time of the wall for teams.
inline double processSeconds() {
    return secondsOf(CLOCK_PROCESS_CPUTIME_ID);
}
inline double wallSeconds() {
    return secondsOf(CLOCK_MONOTONIC);
}

// The least time of a run of `work`, of at least two and of as many as fit into about so many seconds.
template <class Work> double leastSeconds(double clock(), double budget, const Work& work, int mostRuns = 1 << 30) {
    double least = 1e9, spent = 0;
    for (int i = 0; i < 2 || (i < mostRuns && spent < budget); ++i) {
        const double begin = clock();
        work();
        const double took = clock() - begin;
        least = took < least ? took : least;
        spent += took;
    }
    return least;
}
