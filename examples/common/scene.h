// Everything that rays meet: mesh and ground, box, records, tree.
#pragma once
#include <memory>
#include <string>
#include <vector>

#include <zenr.h>

#include "mesh.h"
#include "vec.h"

enum class Builder { simple, sah, automatic };

struct SceneOptions {
    Vec up{0, 1, 0};
    bool ground = true;
    bool flat = false; // facets instead of smooth normals
    Builder builder = Builder::automatic;
    double ratio = 0.5;
    int depth = 50;
    int memory = 1024; // of the sah builder, in MiB
};

// Mesh coordinates to scene coordinates: the mesh's middle at 0, its largest extent 10. The tracer's offsets and
// thresholds are meant for scenes of about that size.
struct Fit {
    Vec middle;
    double scale = 1;

    Vec operator()(const Vec& p) const { return (p - middle) * scale; }
};

struct Scene {
    Mesh mesh; // in scene coordinates, the ground's two triangles last
    Fit fit;
    Vec half;          // half the diagonal of the mesh's box, whose middle is 0
    double radius = 0; // of the sphere around that box
    Vec up;            // of unit length
    Vec groundMiddle;  // and its half side, 0 without a ground
    double groundHalf = 0;
    bool flat = false;
    std::vector<float> triangleNormals;
    std::vector<float> normals; // of the vertices; flat: of the triangles

    float box[6] = {};
    std::vector<ZenrTriangleAccel> records;
    std::unique_ptr<ZenrKDTreeNode, void (*)(ZenrKDTreeNode*)> tree{nullptr, zenrKDTreeFree};
    int treeBytes = 0;
    bool sah = false;
    std::string note; // what the user should know about the tree
    double buildSeconds = 0;

    ZenrIntersectContext context() const { return {box, records.data(), tree.get()}; }
};

Scene makeScene(Mesh mesh, const SceneOptions& options);
