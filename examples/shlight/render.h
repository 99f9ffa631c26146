// The mesh in the light of its environment.
#pragma once
#include <cstdint>
#include <vector>

#include "camera.h"
#include "display.h"
#include "environment.h"
#include "harmonics.h"
#include "options.h"
#include "scene.h"

struct Lighting {
    const Environment& map;
    const Basis& basis;
    const Light& light;  // as projected: what the background shows if asked to
    const Light& matt;   // gathered around normals
    const Light& glossy; // gathered around mirrored rays
};

struct Picture {
    std::vector<uint8_t> rgb;
    int64_t rays = 0, hits = 0;
    int threads = 1;
    double seconds = 0;
    double lowest = 0; // most negative light that met the mesh
};

Picture render(const Scene& scene, const Camera& camera, const Lighting& lighting, const Display& display,
               const Options& options);
