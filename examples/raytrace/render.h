// Rendering a scene tile by tile, every step on whole blocks of rays by the library's functions.
#pragma once
#include <cstdint>
#include <vector>

#include "camera.h"
#include "options.h"
#include "scene.h"

// Rays of one kind, and the time that the intersectors took for them, summed over the threads.
struct RayCount {
    int64_t rays = 0;
    double seconds = 0;

    void operator+=(const RayCount& other) {
        rays += other.rays;
        seconds += other.seconds;
    }
};

struct Picture {
    std::vector<uint8_t> rgb;
    RayCount eye, shadow, reflection;
    int threads = 1;
    double seconds = 0;
    // With --show cost: steps per eye ray on average, of the busiest pixel, and those painted in the hottest colour.
    double meanSteps = 0, mostSteps = 0, hottestSteps = 0;
};

// Where the light is; when the user names no place, above and to the left of the eye.
Vec lightPosition(const Options& options, const Scene& scene, const Camera& camera);

Picture render(const Scene& scene, const Camera& camera, const Vec& light, const Options& options);
