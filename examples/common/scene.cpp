// Fits the mesh, lays the ground under it, and has box, records and tree made.
#include "scene.h"

#include <algorithm>
#include <cfloat>
#include <chrono>
#include <cmath>

#include "failure.h"

namespace {

constexpr double kSceneExtent = 10;
constexpr double kGroundHalf = 40;

void fitMesh(Scene& scene) {
    double low[3] = {DBL_MAX, DBL_MAX, DBL_MAX}, high[3] = {-DBL_MAX, -DBL_MAX, -DBL_MAX};
    std::vector<float>& v = scene.mesh.vertices;
    for (size_t i = 0; i < v.size(); ++i) {
        low[i % 3] = std::min<double>(low[i % 3], v[i]);
        high[i % 3] = std::max<double>(high[i % 3], v[i]);
    }
    const Vec diagonal{high[0] - low[0], high[1] - low[1], high[2] - low[2]};
    const double extent = std::max({diagonal.x, diagonal.y, diagonal.z});
    if (!(extent > 0)) throw Failure("mesh has no extent: all its vertices are at one point");
    scene.fit.middle = {(low[0] + high[0]) / 2, (low[1] + high[1]) / 2, (low[2] + high[2]) / 2};
    scene.fit.scale = kSceneExtent / extent;
    scene.half = diagonal * (scene.fit.scale / 2);
    scene.radius = length(scene.half);
    for (size_t i = 0; i < v.size(); i += 3) toFloats(scene.fit(toVec(&v[i])), &v[i]);
}

// Two triangles, perpendicular to `up`, touching the mesh from below.
void addGround(Scene& scene) {
    const Vec& up = scene.up;
    Mesh& mesh = scene.mesh;
    double lowest = DBL_MAX;
    for (size_t i = 0; i < mesh.vertices.size(); i += 3) lowest = std::min(lowest, dot(toVec(&mesh.vertices[i]), up));
    scene.groundMiddle = up * lowest;
    scene.groundHalf = kGroundHalf;

    const Vec side = normalised(cross(up, std::abs(up.x) < 0.7 ? Vec{1, 0, 0} : Vec{0, 0, 1})) * kGroundHalf;
    const Vec other = cross(up, side);
    const Vec corners[4] = {side + other, side * -1 + other, side * -1 - other, side - other};
    const int first = mesh.vertexCount();
    for (const Vec& corner : corners) {
        float p[3];
        toFloats(scene.groundMiddle + corner, p);
        mesh.vertices.insert(mesh.vertices.end(), p, p + 3);
    }
    mesh.triangles.insert(mesh.triangles.end(), {first, first + 1, first + 2, kMaterialGround});
    mesh.triangles.insert(mesh.triangles.end(), {first, first + 2, first + 3, kMaterialGround});
}

ZenStatus build(Scene& scene, const SceneOptions& options, bool sah) {
    ZenrKDTreeBuildParams params{};
    params.tag = sah ? zenKDTBuildSAH : zenKDTBuildSimple;
    params.maxDepth = options.depth;
    params.optimizationRatio = static_cast<float>(options.ratio);
    params.memoryLimitMB = static_cast<uint32_t>(options.memory);
    params.pBoundBox = scene.box;
    ZenrKDTreeNode* root = nullptr;
    const ZenStatus status =
        zenrKDTreeBuildAlloc(&root, scene.mesh.vertices.data(), scene.mesh.triangles.data(), scene.mesh.vertexCount(),
                             scene.mesh.triangleCount(), &scene.treeBytes, &params);
    if (status == zenStsNoErr) {
        scene.tree.reset(root);
        scene.sah = sah;
    }
    return status;
}

void buildTree(Scene& scene, const SceneOptions& options) {
    ZenStatus status = build(scene, options, options.builder != Builder::simple);
    if (status != zenStsNoErr && options.builder == Builder::automatic) {
        scene.note = "the sah builder failed with status " + std::to_string(status) + " within " +
                     std::to_string(options.memory) + " MiB: simple tree, every ray tests every triangle";
        status = build(scene, options, false);
    }
    if (status == zenStsMemAllocErr || status == zenStsNoMemErr)
        throw Failure("the tree cannot be built: not enough memory (--memory gives the sah builder more)");
    if (status != zenStsNoErr) throw Failure("the tree cannot be built: status " + std::to_string(status));
}

} // namespace

Scene makeScene(Mesh mesh, const SceneOptions& options) {
    Scene scene;
    scene.mesh = std::move(mesh);
    fitMesh(scene);
    scene.up = normalised(options.up);
    if (options.ground) addGround(scene);

    scene.flat = options.flat;
    scene.triangleNormals.resize(3 * static_cast<size_t>(scene.mesh.triangleCount()));
    zenrTriangleNormal_32f(scene.mesh.vertices.data(), scene.mesh.triangles.data(), scene.triangleNormals.data(),
                           scene.mesh.triangleCount());
    scene.normals = scene.flat ? scene.triangleNormals : vertexNormals(scene.mesh);

    const auto start = std::chrono::steady_clock::now();
    zenrSetBoundBox_32f(scene.mesh.vertices.data(), scene.mesh.vertexCount(), scene.box);
    scene.records.resize(scene.mesh.triangleCount());
    zenrTriangleAccelInit(scene.records.data(), scene.mesh.vertices.data(), scene.mesh.triangles.data(),
                          scene.mesh.triangleCount());
    buildTree(scene, options);
    scene.buildSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return scene;
}
