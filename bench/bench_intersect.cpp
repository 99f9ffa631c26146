// Rays a second of the four searches, on scans, models and procedural meshes: every level and block shape, beside the
// one-ray path and beside the best of Embree's interfaces for the same rays in the same run. The bits of every level are
// compared with the one-ray path's, and its hits with Embree's, after the timing. Figures to read are ratios.
//   bench_intersect [--mesh NAME|FILE,...] [--rays eye,close,shadow,bounce,hits8] [--size 1024] [--ratio 0]
//                   [--block 64x64,...] [--level sse2,avx2,avx512] [--seconds 0.5] [--no-peer] [--no-one-ray]
//                   [--benchmark_out=FILE]
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "intersect/intersect.h"
#include "meshes.h"
#include "timing.h"
#include "zencore.h"
#include "zenr.h"
#ifdef ZENR_HAVE_EMBREE
#include "embree_mesh.h"
#endif

namespace {

using bench::Mesh;
using zenr::Level;

constexpr int kLayers = 8;

struct Options {
    std::vector<std::string> meshes = bench::meshNames();
    std::vector<std::string> kinds = {"eye", "close", "shadow", "bounce", "hits8"};
    std::vector<ZenrSize> blocks = {{64, 64}};
    std::vector<std::string> levels = {"sse2", "avx2", "avx512"};
    int size = 1024;
    float ratio = 0;
    double seconds = 0.5;
    bool peer = true, oneRay = true;
    FILE* json = nullptr;
};

// Least time of several runs of `work`, each after `prepare`, within about so many seconds.
template <class Prepare, class Work> double best(double seconds, const Prepare& prepare, const Work& work) {
    double least = 1e9, spent = 0;
    for (int i = 0; i < 2 || spent < seconds; ++i) {
        prepare();
        const double begin = processSeconds();
        work();
        const double took = processSeconds() - begin;
        least = std::min(least, took);
        spent += took;
    }
    return least;
}

struct Vec {
    float x, y, z;
};
Vec operator+(Vec a, Vec b) {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}
Vec operator-(Vec a, Vec b) {
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
Vec operator*(Vec a, float s) {
    return {a.x * s, a.y * s, a.z * s};
}
Vec cross(Vec a, Vec b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
float dot(Vec a, Vec b) {
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
Vec unit(Vec a) {
    return a * (1 / sqrtf(dot(a, a)));
}

// Rays in the order in which blocks take them: block after block, rows within a block.
struct Rays {
    Vec eye{}; // common origin, if there is one
    std::vector<Vec> from, toward;
    std::vector<float> plane[6]; // the same in planes
    std::vector<float> distance, hit0, hit1;
    std::vector<int> triangle, mask;
    float maximum = 1e30f;

    size_t count() const { return toward.size(); }
    void add(Vec o, Vec d, bool active = true) {
        from.push_back(o);
        toward.push_back(d);
        mask.push_back(active ? 0 : -1);
    }
    size_t active() const { return size_t(std::count(mask.begin(), mask.end(), 0)); }
    void finish(int layers) {
        for (int k = 0; k < 6; ++k) plane[k].resize(count());
        for (size_t i = 0; i < count(); ++i) {
            const float parts[6] = {from[i].x, from[i].y, from[i].z, toward[i].x, toward[i].y, toward[i].z};
            for (int k = 0; k < 6; ++k) plane[k][i] = parts[k];
        }
        distance.assign(count() * layers, 0);
        hit0.assign(count() * layers, 0);
        hit1.assign(count() * layers, 0);
        triangle.assign(count() * layers, -1);
    }
};

struct Scene {
    Mesh mesh;
    float box[6];
    std::vector<ZenrTriangleAccel> accel;
    ZenrKDTreeNode* tree = nullptr;
    int bytes = 0;

    Scene(Mesh m, float ratio) : mesh(std::move(m)) {
        zenrSetBoundBox_32f(mesh.vertices.data(), mesh.vertexCount(), box);
        accel.resize(size_t(mesh.triangleCount()));
        zenrTriangleAccelInit(accel.data(), mesh.vertices.data(), mesh.triangles.data(), mesh.triangleCount());
        const uint32_t budget = uint32_t(96 + double(mesh.triangleCount()) * 1200 / (1 << 20));
        const ZenrKDTreeBuildParams params = {zenKDTBuildSAH, 50, ratio, budget, nullptr};
        const ZenStatus status = zenrKDTreeBuildAlloc(&tree, mesh.vertices.data(), mesh.triangles.data(),
                                                      mesh.vertexCount(), mesh.triangleCount(), &bytes, &params);
        if (status != zenStsNoErr) {
            fprintf(stderr, "the tree cannot be built: %d\n", status);
            exit(1);
        }
    }
    ~Scene() { zenrKDTreeFree(tree); }
    Scene(const Scene&) = delete;

    Vec vertex(int j, int v) const {
        const float* p = &mesh.vertices[3 * size_t(mesh.triangles[4 * size_t(j) + size_t(v)])];
        return {p[0], p[1], p[2]};
    }
};

// ---- The searches of this library ---------------------------------------------------------------------------------

enum Kind { eye, shadow, bounce, hits8 };

// All rays, block after block. Without a level: one ray at a time.
void trace(Kind kind, const Scene& scene, Rays& rays, ZenrSize block, const Level* level) {
    const size_t area = size_t(block.width) * size_t(block.height);
    const size_t count = rays.count();
    const float o[3] = {rays.eye.x, rays.eye.y, rays.eye.z};
    // Outputs of several layers are as long as their block: each block has its own stretch of the arrays.
    const size_t layers = kind == hits8 ? kLayers : 1;
    for (size_t i = 0; i < count; i += area) {
        const size_t n = std::min(area, count - i);
        const int width = n == area ? block.width : int(n), height = n == area ? block.height : 1;
        const float* const from[3] = {&rays.plane[0][i], &rays.plane[1][i], &rays.plane[2][i]};
        const float* const toward[3] = {&rays.plane[3][i], &rays.plane[4][i], &rays.plane[5][i]};
        float* const hit[2] = {&rays.hit0[i * layers], &rays.hit1[i * layers]};
        float* const distance = &rays.distance[i * layers];
        int* const triangle = &rays.triangle[i * layers];
        const ZenrTriangleAccel* accel = scene.accel.data();
        switch (kind) {
        case eye:
            level ? zenr::ownIntersectEyeBlock(*level, o, toward, scene.box, accel, scene.tree, distance, hit, triangle,
                                               width, height)
                  : zenr::oneRayEyeBlock(o, toward, scene.box, accel, scene.tree, distance, hit, triangle, n);
            break;
        case shadow:
            level ? (void)zenr::ownIntersectAnyBlock(*level, o, toward, accel, scene.tree, triangle, &rays.mask[i],
                                                     width, height)
                  : zenr::oneRayAnyBlock(o, toward, accel, scene.tree, triangle, &rays.mask[i], n);
            break;
        case bounce:
            level ? zenr::ownIntersectBlock(*level, from, toward, scene.box, accel, scene.tree, distance, hit, triangle,
                                            width, height)
                  : zenr::oneRayBlock(from, toward, scene.box, accel, scene.tree, distance, hit, triangle, n);
            break;
        case hits8:
            if (!level) std::fill(triangle, triangle + n * kLayers, -1);
            level ? zenr::ownIntersectMultipleBlock(*level, o, toward, scene.box, accel, scene.tree, distance, hit,
                                                    triangle, width, height, kLayers)
                  : zenr::oneRayMultipleBlock(o, toward, scene.box, accel, scene.tree, distance, hit, triangle, n, n,
                                              kLayers);
        }
    }
}

void reset(Rays& rays, const std::vector<int>& mask) {
    std::fill(rays.distance.begin(), rays.distance.end(), rays.maximum);
    std::fill(rays.hit0.begin(), rays.hit0.end(), 0.f);
    std::fill(rays.hit1.begin(), rays.hit1.end(), 0.f);
    rays.mask = mask;
}

bool sameBits(const Rays& a, const Rays& b) {
    const auto same = [](const auto& x, const auto& y) {
        return x.size() == y.size() && memcmp(x.data(), y.data(), x.size() * sizeof x[0]) == 0;
    };
    return same(a.triangle, b.triangle) && same(a.distance, b.distance) && same(a.hit0, b.hit0) &&
           same(a.hit1, b.hit1) && same(a.mask, b.mask);
}

// ---- The rays -----------------------------------------------------------------------------------------------------

Vec boxMiddle(const float* box) {
    return {(box[0] + box[3]) / 2, (box[1] + box[4]) / 2, (box[2] + box[5]) / 2};
}

// A picture that the box fills, from its front and a little above; nearer by `closer`.
Rays eyeRays(const Scene& scene, int size, float closer, ZenrSize block, int layers) {
    const Vec middle = boxMiddle(scene.box);
    const Vec corner = Vec{scene.box[3], scene.box[4], scene.box[5]} - middle;
    const float tangent = 0.41421356f; // half of 45 degrees
    const Vec back = unit({0.35f, 0.3f, 1});
    Rays rays;
    rays.eye = middle + back * (sqrtf(dot(corner, corner)) / tangent / closer);
    const Vec right = unit(cross({0, 1, 0}, back)), up = cross(back, right);
    const int bw = std::min(block.width, size), bh = std::min(block.height, size);
    for (int by = 0; by + bh <= size; by += bh)
        for (int bx = 0; bx + bw <= size; bx += bw)
            for (int y = by; y < by + bh; ++y)
                for (int x = bx; x < bx + bw; ++x) {
                    const float u = (2 * (float(x) + 0.5f) / float(size) - 1) * tangent;
                    const float v = (1 - 2 * (float(y) + 0.5f) / float(size)) * tangent;
                    rays.add(rays.eye, right * u + up * v - back);
                }
    rays.finish(layers);
    return rays;
}

struct Surface {
    Vec point, normal;
};

// Where the eye rays hit, and the side of the surface that the eye sees.
bool surfaceAt(const Scene& scene, const Rays& rays, size_t i, Surface& s) {
    const int j = rays.triangle[i];
    if (j < 0) return false;
    const Vec a = scene.vertex(j, 0), b = scene.vertex(j, 1), c = scene.vertex(j, 2);
    s.point = rays.from[i] + rays.toward[i] * rays.distance[i];
    s.normal = unit(cross(a - c, b - c));
    if (dot(s.normal, rays.toward[i]) > 0) s.normal = s.normal * -1.f;
    return true;
}

Rays shadowRays(const Scene& scene, const Rays& seen) {
    Rays rays;
    rays.eye = boxMiddle(scene.box) + Vec{4, 10, 6};
    rays.maximum = 1;
    for (size_t i = 0; i < seen.count(); ++i) {
        Surface s{};
        const bool hit = surfaceAt(scene, seen, i, s);
        rays.add(rays.eye, (s.point - rays.eye) * 0.9995f, hit);
    }
    rays.finish(1);
    return rays;
}

// One ray from each hit point into the half space above the surface, cosine-distributed; misses are left out.
Rays bounceRays(const Scene& scene, const Rays& seen) {
    std::mt19937 random(7);
    std::uniform_real_distribution<float> part(0, 1);
    Rays rays;
    for (size_t i = 0; i < seen.count(); ++i) {
        Surface s;
        if (!surfaceAt(scene, seen, i, s)) continue;
        const float angle = 6.2831853f * part(random), z = 2 * part(random) - 1, r = sqrtf(1 - z * z);
        const Vec d = s.normal * 1.0001f + Vec{r * cosf(angle), r * sinf(angle), z};
        rays.add(s.point + s.normal * 1e-3f, unit(d));
    }
    rays.finish(1);
    return rays;
}

// ---- Embree -------------------------------------------------------------------------------------------------------

struct PeerResult {
    double seconds = 0;
    std::string how;
    double robustSeconds = 0;
    std::vector<int> triangle; // of the robust mode's single rays
    std::vector<float> distance;
};

#ifdef ZENR_HAVE_EMBREE

// The nearest kLayers hits of a ray, gathered while it is traced.
struct Gather {
    RTCIntersectContext context;
    int count;
    float t[kLayers];
    unsigned id[kLayers];
};

void gatherHit(const RTCFilterFunctionNArguments* args) {
    Gather& g = *reinterpret_cast<Gather*>(args->context);
    RTCRay* ray = reinterpret_cast<RTCRay*>(args->ray);
    const RTCHit* hit = reinterpret_cast<const RTCHit*>(args->hit);
    const float t = ray->tfar;
    int at = g.count < kLayers ? g.count++ : kLayers - 1;
    while (at > 0 && g.t[at - 1] > t) {
        g.t[at] = g.t[at - 1];
        g.id[at] = g.id[at - 1];
        --at;
    }
    g.t[at] = t;
    g.id[at] = hit->primID;
    // The ray goes on, as far as the farthest hit that is wanted; when it is accepted, its end is the ray's.
    if (g.count < kLayers) {
        args->valid[0] = 0;
    } else {
        ray->tfar = g.t[kLayers - 1];
        args->valid[0] = t <= ray->tfar ? -1 : 0;
    }
}

class Peer {
public:
    Peer(const Mesh& mesh, const char* config, bool robust, bool filtered) : device_(rtcNewDevice(config)) {
        scene_ = rtcNewScene(device_);
        if (robust) rtcSetSceneFlags(scene_, RTC_SCENE_FLAG_ROBUST);
        RTCGeometry geometry = embreeMesh(device_, mesh);
        if (filtered) rtcSetGeometryIntersectFilterFunction(geometry, gatherHit);
        rtcCommitGeometry(geometry);
        rtcAttachGeometry(scene_, geometry);
        rtcReleaseGeometry(geometry);
        rtcCommitScene(scene_);
    }
    ~Peer() {
        rtcReleaseScene(scene_);
        rtcReleaseDevice(device_);
    }
    Peer(const Peer&) = delete;
    RTCScene scene() const { return scene_; }

private:
    RTCDevice device_;
    RTCScene scene_;
};

RTCIntersectContext contextFor(bool coherent) {
    RTCIntersectContext context;
    rtcInitIntersectContext(&context);
    context.flags = coherent ? RTC_INTERSECT_CONTEXT_FLAG_COHERENT : RTC_INTERSECT_CONTEXT_FLAG_INCOHERENT;
    return context;
}

// The rays of each packet of 16: squares of four by four within a block that allows them. Inactive rays are left out.
std::vector<size_t> packetOrder(const Rays& rays, ZenrSize block) {
    std::vector<size_t> order;
    const size_t area = size_t(block.width) * size_t(block.height);
    const bool squares = block.width % 4 == 0 && block.height % 4 == 0 && rays.count() % area == 0 && rays.eye.x != 0;
    for (size_t i = 0; i < rays.count(); ++i) {
        size_t at = i;
        if (squares) {
            const size_t in = i % area, square = in / 16, lane = in % 16, across = size_t(block.width) / 4;
            at = i - in + (square / across * 4 + lane / 4) * size_t(block.width) + square % across * 4 + lane % 4;
        }
        if (rays.mask[at] >= 0) order.push_back(at);
    }
    return order;
}

template <class Packet> void fillLane(Packet& p, size_t lane, const Rays& rays, size_t i) {
    p.org_x[lane] = rays.from[i].x;
    p.org_y[lane] = rays.from[i].y;
    p.org_z[lane] = rays.from[i].z;
    p.dir_x[lane] = rays.toward[i].x;
    p.dir_y[lane] = rays.toward[i].y;
    p.dir_z[lane] = rays.toward[i].z;
    p.tnear[lane] = 0;
    p.tfar[lane] = rays.maximum;
    p.time[lane] = 0;
    p.mask[lane] = 0xFFFFFFFFu;
    p.flags[lane] = 0;
}

RTCRay singleRay(const Rays& rays, size_t i) {
    const Vec o = rays.from[i], d = rays.toward[i];
    return {o.x, o.y, o.z, 0, d.x, d.y, d.z, 0, rays.maximum, 0xFFFFFFFFu, unsigned(i), 0};
}

struct alignas(64) Valid16 {
    int lane[16];
};

double timeSingles(RTCScene scene, Kind kind, const Rays& rays, const std::vector<size_t>& order, double seconds,
                   PeerResult* keep) {
    std::vector<RTCRayHit> all(order.size());
    const auto prepare = [&] {
        for (size_t i = 0; i < order.size(); ++i) {
            all[i].ray = singleRay(rays, order[i]);
            all[i].hit.geomID = all[i].hit.primID = RTC_INVALID_GEOMETRY_ID;
            all[i].hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
        }
    };
    RTCIntersectContext context = contextFor(kind == eye);
    const double took = best(seconds, prepare, [&] {
        if (kind == shadow) {
            for (RTCRayHit& r : all) rtcOccluded1(scene, &context, &r.ray);
        } else {
            for (RTCRayHit& r : all) rtcIntersect1(scene, &context, &r);
        }
    });
    if (keep) {
        keep->triangle.assign(rays.count(), -1);
        keep->distance.assign(rays.count(), rays.maximum);
        for (size_t i = 0; i < order.size(); ++i) {
            keep->distance[order[i]] = all[i].ray.tfar;
            keep->triangle[order[i]] = kind == shadow ? (all[i].ray.tfar < 0 ? 0 : -1) : int(all[i].hit.primID);
        }
    }
    return took;
}

double timeStreams(RTCScene scene, Kind kind, const Rays& rays, const std::vector<size_t>& order, bool coherent,
                   double seconds) {
    std::vector<RTCRayHit> all(order.size());
    const auto prepare = [&] {
        for (size_t i = 0; i < order.size(); ++i) {
            all[i].ray = singleRay(rays, order[i]);
            all[i].hit.geomID = RTC_INVALID_GEOMETRY_ID;
            all[i].hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
        }
    };
    RTCIntersectContext context = contextFor(coherent);
    return best(seconds, prepare, [&] {
        for (size_t i = 0; i < all.size(); i += 64) {
            const unsigned n = unsigned(std::min<size_t>(64, all.size() - i));
            if (kind == shadow)
                rtcOccluded1M(scene, &context, &all[i].ray, n, sizeof(RTCRayHit));
            else
                rtcIntersect1M(scene, &context, &all[i], n, sizeof(RTCRayHit));
        }
    });
}

template <class Packet, int N, class Trace>
double timePackets(const Rays& rays, const std::vector<size_t>& order, bool coherent, double seconds,
                   const Trace& traceOne) {
    std::vector<Packet> all((order.size() + N - 1) / N);
    const auto prepare = [&] {
        memset(static_cast<void*>(all.data()), 0xFF, all.size() * sizeof(Packet)); // also: no hit
        for (size_t i = 0; i < order.size(); ++i) fillLane(all[i / N].ray, i % N, rays, order[i]);
    };
    RTCIntersectContext context = contextFor(coherent);
    return best(seconds, prepare, [&] {
        for (size_t i = 0; i < all.size(); ++i) {
            Valid16 valid;
            for (int lane = 0; lane < N; ++lane) valid.lane[lane] = i * N + size_t(lane) < order.size() ? -1 : 0;
            traceOne(valid.lane, &context, all[i]);
        }
    });
}

double timeGather(RTCScene scene, const Rays& rays, double seconds, PeerResult* keep) {
    Gather g;
    rtcInitIntersectContext(&g.context);
    std::vector<float> nearest(rays.count());
    std::vector<int> id(rays.count());
    const double took = best(
        seconds, [] {},
        [&] {
            for (size_t i = 0; i < rays.count(); ++i) {
                RTCRayHit r;
                r.ray = singleRay(rays, i);
                r.hit.geomID = r.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
                g.count = 0;
                rtcIntersect1(scene, &g.context, &r);
                nearest[i] = g.count ? g.t[0] : rays.maximum;
                id[i] = g.count ? int(g.id[0]) : -1;
            }
        });
    if (keep) keep->distance = nearest, keep->triangle = id;
    return took;
}

PeerResult peerResult(const Mesh& mesh, Kind kind, const Rays& rays, ZenrSize block, const Options& options) {
    PeerResult result;
    const std::vector<size_t> order = packetOrder(rays, block);
    const double seconds = options.seconds / 4;
    for (const bool robust : {true, false}) {
        double least = 1e9;
        for (const char* config : {"threads=1", "threads=1,isa=avx512"}) {
            const Peer peer(mesh, config, robust, kind == hits8);
            RTCScene scene = peer.scene();
            const auto note = [&](const char* how, double took) {
                if (took >= least) return;
                least = took;
                if (!robust) result.how = std::string(how) + (strchr(config, ',') ? " avx512" : "");
            };
            PeerResult* keep = robust ? &result : nullptr;
            if (kind == hits8) {
                note("filter", timeGather(scene, rays, seconds, keep));
                continue;
            }
            note("1", timeSingles(scene, kind, rays, order, seconds, keep));
            note("1M", timeStreams(scene, kind, rays, order, false, seconds));
            for (const bool coherent : {false, true}) {
                if (kind == bounce && coherent) continue;
                if (kind == shadow) {
                    note(coherent ? "16c" : "16",
                         timePackets<RTCRayHit16, 16>(rays, order, coherent, seconds,
                                                      [&](const int* v, RTCIntersectContext* c, RTCRayHit16& p) {
                                                          rtcOccluded16(v, scene, c, &p.ray);
                                                      }));
                } else {
                    note(coherent ? "16c" : "16",
                         timePackets<RTCRayHit16, 16>(rays, order, coherent, seconds,
                                                      [&](const int* v, RTCIntersectContext* c, RTCRayHit16& p) {
                                                          rtcIntersect16(v, scene, c, &p);
                                                      }));
                }
            }
            if (kind == bounce)
                note("8", timePackets<RTCRayHit8, 8>(rays, order, false, seconds,
                                                     [&](const int* v, RTCIntersectContext* c, RTCRayHit8& p) {
                                                         rtcIntersect8(v, scene, c, &p);
                                                     }));
        }
        (robust ? result.robustSeconds : result.seconds) = least;
    }
    return result;
}

#else

PeerResult peerResult(const Mesh&, Kind, const Rays&, ZenrSize, const Options&) {
    return PeerResult();
}

#endif

// Rays that hit one thing here and another there: not the same triangle, nor the same distance within 1e-4.
size_t differing(Kind kind, const Rays& rays, const PeerResult& peer, ZenrSize block) {
    size_t count = 0;
    const size_t area = size_t(block.width) * size_t(block.height);
    for (size_t i = 0; i < rays.count(); ++i) {
        const size_t at = kind == hits8 ? i / area * area * kLayers + i % area : i;
        const int mine = rays.triangle[at], other = peer.triangle[i];
        if (kind == shadow) {
            count += (mine >= 0) != (other >= 0);
            continue;
        }
        if (mine == other) continue;
        const float a = rays.distance[at], b = peer.distance[i];
        count += !(fabsf(a - b) <= 1e-4f * fabsf(b));
    }
    return count;
}

// ---- The table ----------------------------------------------------------------------------------------------------

struct Mean {
    double logs = 0;
    int count = 0;
    void add(double x) { logs += log(x), ++count; }
    double value() const { return count ? exp(logs / count) : 0; }
};

struct Means {
    std::string kind;
    Mean peer, robust, one;
};

Level levelOf(const std::string& name) {
    return name == "avx512" ? Level::avx512 : name == "avx2" ? Level::avx2 : Level::sse2;
}

void runKind(const std::string& meshName, const std::string& kindName, const Scene& scene, ZenrSize block,
             const Options& options, std::vector<Means>& means) {
    const Kind kind = kindName == "shadow" ? shadow : kindName == "bounce" ? bounce : kindName == "hits8" ? hits8 : eye;
    const Level top = zenr::bestLevel();
    const size_t area = size_t(block.width) * size_t(block.height);
    Rays rays = eyeRays(scene, options.size, kindName == "close" ? 2.f : 1.f, block, kind == hits8 ? kLayers : 1);
    if (kind == shadow || kind == bounce) {
        reset(rays, std::vector<int>(rays.mask));
        trace(eye, scene, rays, block, &top);
        rays = kind == shadow ? shadowRays(scene, rays) : bounceRays(scene, rays);
    }
    const std::vector<int> mask = rays.mask;
    const double active = double(rays.active());
    PeerResult peer;
    if (options.peer) peer = peerResult(scene.mesh, kind, rays, block, options);
    double one = 0;
    Rays want = rays;
    if (options.oneRay)
        one = best(
            options.seconds, [&] { reset(want, mask); }, [&] { trace(kind, scene, want, block, nullptr); });

    for (const std::string& name : options.levels) {
        const Level level = levelOf(name);
        if (level > top) continue;
        const double took = best(
            options.seconds, [&] { reset(rays, mask); }, [&] { trace(kind, scene, rays, block, &level); });
        const bool exact = !options.oneRay || sameBits(rays, want);
        printf("%-9s %-7s %-7s %4dx%-4d %8.2f Mray/s", meshName.c_str(), kindName.c_str(), name.c_str(), block.width,
               block.height, active / took / 1e6);
        if (one > 0) printf("  /one-ray %5.2f %s", one / took, exact ? "same bits" : "OTHER BITS");
        if (peer.seconds > 0) {
            const size_t wrong = differing(kind, rays, peer, kind == hits8 ? block : ZenrSize{int(area), 1});
            printf("  /Embree %.2f (%.1f, %s)  /robust %.2f  differing %zu", peer.seconds / took,
                   active / peer.seconds / 1e6, peer.how.c_str(), peer.robustSeconds / took, wrong);
        }
        printf("\n");
        fflush(stdout);
        const std::string key = kindName + " " + name;
        auto at = std::find_if(means.begin(), means.end(), [&](const Means& m) { return m.kind == key; });
        if (at == means.end()) at = means.insert(means.end(), Means{key, {}, {}, {}});
        if (peer.seconds > 0) at->peer.add(peer.seconds / took), at->robust.add(peer.robustSeconds / took);
        if (one > 0) at->one.add(one / took);
        if (options.json)
            fprintf(options.json,
                    "%s\n{\"mesh\": \"%s\", \"rays\": \"%s\", \"level\": \"%s\", \"block\": \"%dx%d\", "
                    "\"mrays\": %.3f, \"ratio_one_ray\": %.3f, \"ratio_embree\": %.3f, \"ratio_robust\": %.3f, "
                    "\"exact\": %s}",
                    ftell(options.json) > 1 ? "," : "", meshName.c_str(), kindName.c_str(), name.c_str(), block.width,
                    block.height, active / took / 1e6, one / took, peer.seconds / took, peer.robustSeconds / took,
                    exact ? "true" : "false");
    }
}

std::vector<std::string> listOf(const char* text) {
    std::vector<std::string> parts(1);
    for (; *text; ++text) {
        if (*text == ',')
            parts.emplace_back();
        else
            parts.back() += *text;
    }
    return parts;
}

int usage() {
    fprintf(stderr, "usage: bench_intersect [--mesh NAME|FILE,...] [--rays eye,close,shadow,bounce,hits8] [--size N]\n"
                    "       [--ratio R] [--block WxH,...] [--level sse2,avx2,avx512] [--seconds S] [--no-peer]\n"
                    "       [--no-one-ray] [--benchmark_out=FILE]\n");
    return 2;
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--no-peer") {
            options.peer = false;
        } else if (word == "--no-one-ray") {
            options.oneRay = false;
        } else if (word.rfind("--benchmark_out=", 0) == 0) {
            options.json = fopen(word.c_str() + 16, "w");
            if (options.json) fputc('[', options.json);
        } else if (word.rfind("--benchmark_", 0) == 0) {
            continue;
        } else if (i + 1 >= argc) {
            return usage();
        } else {
            const char* value = argv[++i];
            if (word == "--mesh") {
                options.meshes = listOf(value);
            } else if (word == "--rays") {
                options.kinds = listOf(value);
            } else if (word == "--size") {
                options.size = atoi(value);
            } else if (word == "--ratio") {
                options.ratio = float(atof(value));
            } else if (word == "--seconds") {
                options.seconds = atof(value);
            } else if (word == "--level") {
                options.levels = listOf(value);
            } else if (word == "--block") {
                options.blocks.clear();
                for (const std::string& b : listOf(value)) {
                    ZenrSize size{0, 0};
                    if (sscanf(b.c_str(), "%dx%d", &size.width, &size.height) != 2 || size.width < 1 || size.height < 1)
                        return usage();
                    options.blocks.push_back(size);
                }
            } else {
                return usage();
            }
        }
    }
    zenSetNumThreads(1);
    std::vector<Means> means;
    for (const std::string& name : options.meshes) {
        Mesh mesh = bench::loadMesh(name);
        if (mesh.triangleCount() == 0) {
            printf("%s is not there (scripts/bench-meshes)\n", name.c_str());
            continue;
        }
        const Scene scene(std::move(mesh), options.ratio);
        printf("# %s: %d triangles, tree of %.1f MB at ratio %.1f\n", name.c_str(), scene.mesh.triangleCount(),
               scene.bytes / 1e6, double(options.ratio));
        for (const ZenrSize block : options.blocks)
            for (const std::string& kind : options.kinds) runKind(name, kind, scene, block, options, means);
    }
    for (const Means& m : means)
        if (means.size() && m.one.count + m.peer.count > 1)
            printf("geometric mean of %-14s /one-ray %5.2f  /Embree %.2f  /robust %.2f\n", m.kind.c_str(),
                   m.one.value(), m.peer.value(), m.robust.value());
    if (options.json) {
        fprintf(options.json, "\n]\n");
        fclose(options.json);
    }
}
