// A progress bar with rays per second on stderr.
#pragma once
#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>

// Redrawn in place on a terminal; elsewhere a line per quarter of the work. Threads may report at once.
class Progress {
public:
    Progress(int tiles, bool quiet);
    void tileDone(int64_t rays);
    void finish();

private:
    void draw(int done, int64_t rays, const char* end) const;

    const int tiles_;
    const bool quiet_, terminal_;
    const std::chrono::steady_clock::time_point start_;
    std::atomic<int> done_{0};
    std::atomic<int64_t> rays_{0};
    std::mutex drawing_;
    std::chrono::steady_clock::time_point drawn_;
    int quarters_ = 0;
};
