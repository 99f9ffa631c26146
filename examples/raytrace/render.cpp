// The tracer: eye rays, shading with shadows, one reflection bounce; tiles shared out among threads.
#include "render.h"

#include <algorithm>
#include <cfloat>
#include <memory>

#include "image.h"
#include "rays.h"
#include "tiles.h"
#include "tree.h"

namespace {

constexpr float kWhite[3] = {1, 1, 1};
constexpr float kAmbient[3] = {0.13f, 0.15f, 0.19f};
constexpr float kMeshColour[3] = {0.86f, 0.60f, 0.36f};
constexpr float kGroundColour[3] = {0.30f, 0.32f, 0.36f};
constexpr double kHorizon[3] = {0.52, 0.62, 0.74};
constexpr double kZenith[3] = {0.16, 0.32, 0.62};
constexpr double kExposure = 0.95; // of the light, where the mesh is

// Hit points are pulled back towards where their ray came from, by these factors on the distance, so that neither
// shadow nor reflection rays meet the surface that they start from. Reflection rays can be short: they need more.
constexpr float kEyeEps = 1 - 1e-4f;
constexpr float kReflectionEps = 1 - 1e-3f;

// What is known of the rays of one tile; a thread reuses it for its next tile.
struct Rays : Hits {
    explicit Rays(size_t n)
        : Hits(n), point(n), albedo(n), fog(n), colour(n), mask(n), blocker(n), shadow(n), lit(n), falloff(n) {}

    Planes point;
    Planes albedo;
    std::vector<float> fog; // 0 near, 1 where the ground has faded into the sky
    Planes colour;
    // Scratch of the light's contribution.
    std::vector<int> mask, blocker;
    Planes shadow;
    std::vector<float> lit, falloff;
};

class Tracer {
public:
    Tracer(const Scene& scene, const Camera& camera, const Vec& light, const Options& options, size_t rays)
        : scene_(scene), camera_(camera), options_(options), context_(scene.context()), eyeRays_(rays), bounced_(rays),
          weight_(rays), bounceMask_(rays), ones_(rays, 1.0f) {
        toFloats(light, light_);
        // The light falls off with the square of the distance; at the mesh its colour is what it is without.
        const double reach = std::max(1.0, length(light));
        for (float& c : lightColour_) c = static_cast<float>(kExposure * reach * reach);
    }

    void trace(const Tiles& tiles, const Tile& tile) {
        const int n = tile.rays.width * tile.rays.height;
        eye += {n, traceEye(camera_, context_, tiles, tile, eyeRays_)};
    }

    // Colours of the rays that trace() traced.
    void shade(ZenrSize block) {
        const int n = block.width * block.height;
        zenrHitPoint3DEpsS0_32f_M(camera_.origin, eyeRays_.direction, eyeRays_.distance.data(),
                                  eyeRays_.triangle.data(), eyeRays_.point, n, kEyeEps);
        surface(eyeRays_, n);
        directLight(eyeRays_, block);
        if (weighReflections(n)) {
            reflect(block);
            zenrAddMulMul_32f_AC1P3IM(kWhite, weight_.data(), bounced_.colour, bounceMask_.data(), eyeRays_.colour, n);
        }
        background(eyeRays_, n);
    }

    int steps(int ray) {
        const Vec direction{eyeRays_.direction[0][ray], eyeRays_.direction[1][ray], eyeRays_.direction[2][ray]};
        return countSteps(scene_.tree.get(), scene_.box, toVec(camera_.origin), direction, eyeRays_.distance[ray]);
    }
    float colour(int channel, int ray) { return eyeRays_.colour[channel][ray]; }

    RayCount eye, shadow, reflection;

private:
    int materialOf(int triangle) const { return scene_.mesh.triangles[4 * static_cast<size_t>(triangle) + 3]; }

    // Normals facing the viewer, colours, and how far the ground has faded at the hit points.
    void surface(Rays& rays, int n) {
        const int* triangle = rays.triangle.data();
        facingNormals(scene_, rays, n);
        for (int i = 0; i < n; ++i) {
            rays.fog[i] = 0;
            if (triangle[i] < 0) continue;
            const bool ground = materialOf(triangle[i]) == kMaterialGround;
            for (int k = 0; k < 3; ++k) rays.albedo[k][i] = ground ? kGroundColour[k] : kMeshColour[k];
            if (ground) {
                const Vec away = Vec{rays.point[0][i], rays.point[1][i], rays.point[2][i]} - scene_.groundMiddle;
                const double part = dot(away, away) / (scene_.groundHalf * scene_.groundHalf);
                rays.fog[i] = static_cast<float>(std::min(1.0, part));
            }
        }
    }

    // colour = albedo * (ambient + light * cosine / distance^2), the latter where nothing blocks the light.
    void directLight(Rays& rays, ZenrSize block) {
        const int n = block.width * block.height;
        const int* triangle = rays.triangle.data();
        for (int k = 0; k < 3; ++k) std::fill_n(rays.colour[k], n, 0.0f);
        zenrAddMulMul_32f_AC1P3IM(kAmbient, ones_.data(), rays.albedo, triangle, rays.colour, n);

        // Surfaces that face away from the light need no ray.
        std::copy_n(triangle, n, rays.mask.begin());
        int* mask = rays.mask.data();
        zenrCastShadowSO_32f(light_, rays.facing.data(), rays.normal, rays.point, mask, rays.lit.data(), rays.shadow,
                             n);
        const int64_t cast = std::count_if(mask, mask + n, [](int m) { return m >= 0; });
        if (cast == 0) return;
        const double start = seconds();
        zenrIntersectAnySO_32f(light_, rays.shadow, rays.blocker.data(), mask, block, &context_);
        shadow += {cast, seconds() - start};

        // `lit` is |N . (P - L)|: one division makes it the cosine, two more let it fall off.
        zenrDistAttenuationSO_32f_M(light_, rays.point, mask, rays.falloff.data(), n);
        for (int division = 0; division < 3; ++division)
            zenrDiv_32f_C1IM(rays.falloff.data(), mask, rays.lit.data(), n);
        zenrAddMulMul_32f_AC1P3IM(lightColour_, rays.lit.data(), rays.albedo, mask, rays.colour, n);
    }

    // Rays that miss get the sky; the ground fades into it.
    void background(Rays& rays, int n) {
        for (int i = 0; i < n; ++i) {
            const double fog = rays.triangle[i] < 0 ? 1 : rays.fog[i];
            if (fog == 0) continue;
            const Vec direction{rays.direction[0][i], rays.direction[1][i], rays.direction[2][i]};
            const double height = std::max(0.0, dot(normalised(direction), scene_.up));
            for (int k = 0; k < 3; ++k) {
                const double sky = kHorizon[k] + (kZenith[k] - kHorizon[k]) * height;
                const double own = rays.triangle[i] < 0 ? 0 : rays.colour[k][i];
                rays.colour[k][i] = static_cast<float>(own + (sky - own) * fog);
            }
        }
    }

    // How much each eye ray's surface reflects. False when none does.
    bool weighReflections(int n) {
        bool any = false;
        for (int i = 0; i < n; ++i) {
            const int triangle = eyeRays_.triangle[i];
            double weight = 0;
            if (triangle >= 0) weight = materialOf(triangle) == kMaterialGround ? options_.mirror : options_.gloss;
            bounceMask_[i] = weight > 0 && eyeRays_.fog[i] < 1 ? triangle : -1;
            weight_[i] = static_cast<float>(weight);
            any = any || bounceMask_[i] >= 0;
        }
        return any;
    }

    // Traces and shades the mirrored rays of bounceMask_ into bounced_.
    void reflect(ZenrSize block) {
        const int n = block.width * block.height;
        zenrCastReflectionRay_32f(eyeRays_.direction, bounceMask_.data(), eyeRays_.normal, bounced_.direction, n);
        int64_t cast = 0;
        for (int i = 0; i < n; ++i) {
            // This intersector takes no mask, but nothing is nearer than a negative distance.
            bounced_.distance[i] = bounceMask_[i] >= 0 ? FLT_MAX : -1.0f;
            cast += bounceMask_[i] >= 0;
        }
        const double start = seconds();
        zenrIntersectMO_32f(eyeRays_.point, bounced_.direction, bounced_.distance.data(), bounced_.weightPlane,
                            bounced_.triangle.data(), &context_, block);
        reflection += {cast, seconds() - start};
        zenrHitPoint3DEpsM0_32f_M(eyeRays_.point, bounced_.direction, bounced_.distance.data(),
                                  bounced_.triangle.data(), bounced_.point, n, kReflectionEps);
        surface(bounced_, n);
        directLight(bounced_, block);
        background(bounced_, n);
    }

    const Scene& scene_;
    const Camera& camera_;
    const Options& options_;
    const ZenrIntersectContext context_;
    float light_[3], lightColour_[3];
    Rays eyeRays_, bounced_;
    std::vector<float> weight_;
    std::vector<int> bounceMask_;
    std::vector<float> ones_;
};

// From black over blue, green and yellow to red for 0 to 1.
void heatColour(double heat, uint8_t* rgb) {
    static constexpr double kRamp[5][3] = {{0, 0, 16}, {0, 64, 224}, {0, 208, 96}, {248, 224, 0}, {224, 0, 0}};
    const double place = 4 * std::min(1.0, heat);
    const int step = std::min(3, static_cast<int>(place));
    for (int k = 0; k < 3; ++k)
        rgb[k] = static_cast<uint8_t>(kRamp[step][k] + (kRamp[step + 1][k] - kRamp[step][k]) * (place - step) + 0.5);
}

// Paints steps per pixel; the hottest colour begins where only one pixel in 500 is, lest a single one darkens the rest.
void paintCost(const std::vector<double>& steps, Picture& picture) {
    double sum = 0;
    for (double s : steps) sum += s;
    picture.meanSteps = sum / static_cast<double>(steps.size());
    std::vector<double> sorted(steps);
    std::sort(sorted.begin(), sorted.end());
    picture.mostSteps = sorted.back();
    picture.hottestSteps = std::max(1.0, sorted[sorted.size() - 1 - sorted.size() / 500]);
    for (size_t p = 0; p < steps.size(); ++p) heatColour(steps[p] / picture.hottestSteps, &picture.rgb[3 * p]);
}

} // namespace

Vec lightPosition(const Options& options, const Scene& scene, const Camera& camera) {
    if (options.light) return scene.fit(*options.light);
    const Vec& up = scene.up;
    const Vec toEye = normalised(camera.back - up * dot(camera.back, up));
    return (up * 1.7 + camera.right * -1.2 + toEye * 0.9) * scene.radius;
}

Picture render(const Scene& scene, const Camera& camera, const Vec& light, const Options& options) {
    const Tiles tiles(options, options.tile);
    const size_t pixels = static_cast<size_t>(options.width) * options.height;
    const SrgbEncoder encode;

    Picture picture;
    picture.rgb.resize(3 * pixels);
    std::vector<double> steps(options.showCost ? pixels : 0);
    picture.threads = tiles.threads(options.threads);

    // Memory is taken here, where its lack can still be reported.
    std::vector<std::unique_ptr<Tracer>> tracers;
    for (int t = 0; t < picture.threads; ++t)
        tracers.push_back(std::make_unique<Tracer>(scene, camera, light, options, tiles.mostRays()));

    const double start = seconds();
    tiles.forEach(picture.threads, options.quiet, [&](int thread, const Tile& tile) {
        Tracer& tracer = *tracers[thread];
        const int64_t before = tracer.eye.rays + tracer.shadow.rays + tracer.reflection.rays;
        tracer.trace(tiles, tile);
        if (!options.showCost) tracer.shade(tile.rays);
        for (int y = 0; y < tile.height; ++y)
            for (int x = 0; x < tile.width; ++x) {
                const size_t pixel = static_cast<size_t>(tile.top + y) * options.width + tile.left + x;
                if (options.showCost) {
                    steps[pixel] = tiles.mean(tile, x, y, [&](int ray) { return tracer.steps(ray); });
                    continue;
                }
                for (int k = 0; k < 3; ++k)
                    picture.rgb[3 * pixel + k] =
                        encode(tiles.mean(tile, x, y, [&](int ray) { return std::min(1.0f, tracer.colour(k, ray)); }));
            }
        return tracer.eye.rays + tracer.shadow.rays + tracer.reflection.rays - before;
    });
    picture.seconds = seconds() - start;

    for (const auto& tracer : tracers) {
        picture.eye += tracer->eye;
        picture.shadow += tracer->shadow;
        picture.reflection += tracer->reflection;
    }
    if (options.showCost) paintCost(steps, picture);
    return picture;
}
