// The progress bar.
#include "progress.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <unistd.h>

using Clock = std::chrono::steady_clock;

Progress::Progress(int tiles, bool quiet)
    : tiles_(tiles), quiet_(quiet), terminal_(isatty(STDERR_FILENO) == 1), start_(Clock::now()), drawn_(start_) {}

void Progress::draw(int done, int64_t rays, const char* end) const {
    const double seconds = std::chrono::duration<double>(Clock::now() - start_).count();
    const int width = 32, full = static_cast<int>(static_cast<int64_t>(width) * done / tiles_);
    const std::string bar = std::string(full, '#') + std::string(width - full, '.');
    std::fprintf(stderr, "%s[%s] %3d %%  %6.2f Mrays/s%s", terminal_ ? "\r" : "", bar.c_str(),
                 static_cast<int>(100LL * done / tiles_), static_cast<double>(rays) / std::max(seconds, 1e-9) / 1e6,
                 end);
    std::fflush(stderr);
}

void Progress::tileDone(int64_t rays) {
    const int done = ++done_;
    const int64_t total = rays_ += rays;
    if (quiet_) return;
    // Whoever finds another thread drawing has nothing newer to show.
    const std::unique_lock<std::mutex> lock(drawing_, std::try_to_lock);
    if (!lock) return;
    if (terminal_) {
        const auto now = Clock::now();
        if (now - drawn_ < std::chrono::milliseconds(100)) return;
        drawn_ = now;
        draw(done, total, "");
    } else if (const int quarters = static_cast<int>(4LL * done / tiles_); quarters > quarters_ && done < tiles_) {
        quarters_ = quarters;
        draw(done, total, "\n");
    }
}

void Progress::finish() {
    if (!quiet_) draw(done_, rays_, "\n");
}
