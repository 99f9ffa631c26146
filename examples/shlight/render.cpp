// Eye rays, normals and mirrored rays by the library's block functions; light for all hits of a tile in one call.
#include "render.h"

#include <algorithm>
#include <memory>

#include "angles.h"
#include "image.h"
#include "rays.h"
#include "tiles.h"

namespace {

constexpr double kColour[3] = {0.80, 0.74, 0.66}; // of the mesh: its matt reflectivity

class Shader {
public:
    Shader(const Scene& scene, const Camera& camera, const Lighting& lighting, const Options& options, size_t rays)
        : scene_(scene), camera_(camera), lighting_(lighting), options_(options), context_(scene.context()),
          hits_(rays), side_(rays), mirrored_(rays), direction_(rays), matt_(rays), glossy_(rays), colour_(rays),
          hitRays_(rays) {
        // The map's axes in the scene: what is seen over the mesh's shoulder, from the automatic eye with --turn 0, is
        // the middle of the map.
        const Vec front = normalised((std::abs(scene.up.z) < 0.9 ? Vec{0, 0, -1} : Vec{0, 1, 0}));
        const Vec ahead = normalised(front - scene.up * dot(front, scene.up)), left = cross(scene.up, ahead);
        double sine, cosine;
        sineCosine(options.turnEnvironment, sine, cosine);
        axes_[0] = ahead * cosine + left * sine;
        axes_[1] = left * cosine - ahead * sine;
        axes_[2] = scene.up;
    }

    // Colours of a tile's rays.
    void shade(const Tiles& tiles, const Tile& tile) {
        const int n = tile.rays.width * tile.rays.height;
        traceEye(camera_, context_, tiles, tile, hits_);
        turnNormals(n);
        zenrCastReflectionRay_32f(hits_.direction, hits_.triangle.data(), hits_.normal, mirrored_, n);
        rays += n;
        lightSurfaces(n);
        lightBackground(n);
    }
    float colour(int channel, int ray) { return colour_[channel][ray]; }

    int64_t rays = 0, hits = 0;
    double lowest = 0;

private:
    // Direction number `to` of the next evaluation: a vector of the scene in the map's axes.
    void set(int to, const Vec& v) {
        const Vec unit = normalised(v);
        for (int k = 0; k < 3; ++k) direction_[k][to] = static_cast<float>(dot(unit, axes_[k]));
    }
    static Vec at(float* const* planes, int i) { return {planes[0][i], planes[1][i], planes[2][i]}; }

    // Normals on the side of the triangles that is seen. The side is the triangle's, not the smooth normal's: that one
    // leans away from the eye at the rim of a rounded shape, and turned there it would take light from behind.
    void turnNormals(int n) {
        surfaceNormals(scene_, hits_, n);
        zenrSurfFlatNormal_32f(scene_.triangleNormals.data(), hits_.triangle.data(), side_, n);
        for (int i = 0; i < n; ++i) {
            if (hits_.triangle[i] < 0 || dot(at(side_, i), at(hits_.direction, i)) <= 0) continue;
            for (int k = 0; k < 3; ++k) hits_.normal[k][i] = -hits_.normal[k][i];
        }
    }

    // The numbers of the rays that hit (or miss) go to hitRays_.
    int select(int n, bool hit) {
        int count = 0;
        for (int i = 0; i < n; ++i)
            if ((hits_.triangle[i] >= 0) == hit) hitRays_[count++] = i;
        return count;
    }

    void lightSurfaces(int n) {
        const int count = select(n, true);
        hits += count;
        for (int j = 0; j < count; ++j) set(j, at(hits_.normal, hitRays_[j]));
        evaluate(lighting_.matt, lighting_.basis, direction_, count, matt_);
        for (int j = 0; j < count; ++j) set(j, at(mirrored_, hitRays_[j]));
        evaluate(lighting_.glossy, lighting_.basis, direction_, count, glossy_);
        for (int k = 0; k < 3; ++k)
            for (int j = 0; j < count; ++j) {
                const double matt = matt_[k][j], glossy = glossy_[k][j];
                lowest = std::min(lowest, matt);
                colour_[k][hitRays_[j]] = static_cast<float>(kColour[k] * (1 - options_.gloss) * std::max(0.0, matt) +
                                                             options_.gloss * std::max(0.0, glossy));
            }
    }

    void lightBackground(int n) {
        const int count = select(n, false);
        for (int j = 0; j < count; ++j) set(j, at(hits_.direction, hitRays_[j]));
        if (!options_.sharpBackground) evaluate(lighting_.light, lighting_.basis, direction_, count, matt_);
        for (int j = 0; j < count; ++j) {
            float rgb[3];
            if (options_.sharpBackground) lighting_.map.lookUp(at(direction_, j), rgb);
            for (int k = 0; k < 3; ++k) colour_[k][hitRays_[j]] = options_.sharpBackground ? rgb[k] : matt_[k][j];
        }
    }

    const Scene& scene_;
    const Camera& camera_;
    const Lighting& lighting_;
    const Options& options_;
    const ZenrIntersectContext context_;
    Vec axes_[3];
    Hits hits_;
    Planes side_;
    Planes mirrored_, direction_, matt_, glossy_, colour_;
    std::vector<int> hitRays_;
};

} // namespace

Picture render(const Scene& scene, const Camera& camera, const Lighting& lighting, const Display& display,
               const Options& options) {
    const Tiles tiles(options, options.tile);
    const SrgbEncoder encode;
    Picture picture;
    picture.rgb.resize(3 * static_cast<size_t>(options.width) * options.height);
    picture.threads = tiles.threads(options.threads);

    // Memory is taken here, where its lack can still be reported.
    std::vector<std::unique_ptr<Shader>> shaders;
    for (int t = 0; t < picture.threads; ++t)
        shaders.push_back(std::make_unique<Shader>(scene, camera, lighting, options, tiles.mostRays()));

    const double start = seconds();
    tiles.forEach(picture.threads, options.quiet, [&](int thread, const Tile& tile) {
        Shader& shader = *shaders[thread];
        shader.shade(tiles, tile);
        for (int y = 0; y < tile.height; ++y)
            for (int x = 0; x < tile.width; ++x) {
                const size_t pixel = static_cast<size_t>(tile.top + y) * options.width + tile.left + x;
                for (int k = 0; k < 3; ++k)
                    picture.rgb[3 * pixel + k] =
                        encode(tiles.mean(tile, x, y, [&](int ray) { return display(shader.colour(k, ray)); }));
            }
        return int64_t{tile.rays.width} * tile.rays.height;
    });
    picture.seconds = seconds() - start;
    for (const auto& shader : shaders) {
        picture.rays += shader->rays;
        picture.hits += shader->hits;
        picture.lowest = std::min(picture.lowest, shader->lowest);
    }
    return picture;
}
