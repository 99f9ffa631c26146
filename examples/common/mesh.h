// Triangle meshes: loading, a binary dump that needs no library to read, vertex normals.
#pragma once
#include <string>
#include <vector>

// What the last word of a triangle says here; the library does not read it.
enum Material : int { kMaterialMesh = 0, kMaterialGround = 1 };

struct Mesh {
    std::vector<float> vertices; // x y z each
    std::vector<int> triangles;  // three vertex indices and a Material each

    int vertexCount() const { return static_cast<int>(vertices.size() / 3); }
    int triangleCount() const { return static_cast<int>(triangles.size() / 4); }
};

// Reads a dump, or, where assimp was there at build time, any mesh file that it knows (parts placed as the file says,
// triangulated, merged, vertices at the same place joined). What it returns has at least one triangle, finite
// coordinates and valid indices; anything else is a Failure.
Mesh loadMesh(const std::string& path);

// Dump: "ZRMESH\r\n", then little-endian 32-bit words: version (1), a checksum of all that follows (FNV-1a), number of
// vertices, number of triangles; then the vertices (three floats each) and the triangles (three indices each).
std::vector<unsigned char> dumpMesh(const Mesh& mesh);

// One unit vector per vertex: the sum of its triangles' normals, weighted with their areas. Summed in double in the
// order of the triangles, so that the result is the same everywhere.
std::vector<float> vertexNormals(const Mesh& mesh);
