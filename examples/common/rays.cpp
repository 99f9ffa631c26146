// The steps from a tile to normals, each one call for the whole block.
#include "rays.h"

#include <algorithm>
#include <cfloat>
#include <chrono>

double seconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double traceEye(const Camera& camera, const ZenrIntersectContext& context, const Tiles& tiles, const Tile& tile,
                Hits& hits) {
    zenrCastEye_32f(camera.plane, camera.widthStep, camera.heightStep, tiles.side(), tiles.side(), tile.column,
                    tile.row, hits.direction, tile.rays);
    std::fill_n(hits.distance.begin(), tile.rays.width * tile.rays.height, FLT_MAX);
    const double start = seconds();
    zenrIntersectEyeSO_32f(camera.origin, hits.direction, hits.distance.data(), hits.weightPlane, hits.triangle.data(),
                           &context, tile.rays);
    return seconds() - start;
}

void surfaceNormals(const Scene& scene, Hits& hits, int n) {
    const int* triangle = hits.triangle.data();
    if (scene.flat)
        zenrSurfFlatNormal_32f(scene.normals.data(), triangle, hits.normal, n);
    else
        zenrSurfSmoothNormal_32f(scene.normals.data(), scene.mesh.triangles.data(), triangle, hits.weightPlane,
                                 hits.normal, n, 4);
}

void facingNormals(const Scene& scene, Hits& hits, int n) {
    surfaceNormals(scene, hits, n);
    zenrDotChangeNorm_32f_IM(hits.direction, hits.triangle.data(), hits.normal, hits.facing.data(), n);
}
