// Loading and checking meshes; mesh dumps; vertex normals.
#include "mesh.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <numeric>

#ifdef EXAMPLES_WITH_ASSIMP
#include <assimp/Importer.hpp>
#include <assimp/postprocess.h>
#include <assimp/scene.h>
#endif

#include "failure.h"
#include "file.h"
#include "vec.h"

namespace {

// ---- Dumps ------------------------------------------------------------------------------------------------------

constexpr unsigned char kMagic[8] = {'Z', 'R', 'M', 'E', 'S', 'H', '\r', '\n'};
constexpr uint32_t kVersion = 1;
constexpr size_t kHeaderBytes = sizeof kMagic + 4 * sizeof(uint32_t);
constexpr size_t kChecked = sizeof kMagic + 2 * sizeof(uint32_t); // the checksum covers all from here on

uint32_t checksum(const unsigned char* bytes, size_t count) {
    uint32_t sum = 2166136261u;
    for (size_t i = 0; i < count; ++i) sum = (sum ^ bytes[i]) * 16777619u;
    return sum;
}

bool isDump(const std::vector<unsigned char>& bytes) {
    return bytes.size() >= sizeof kMagic && std::memcmp(bytes.data(), kMagic, sizeof kMagic) == 0;
}

Mesh readDump(const std::string& path, const std::vector<unsigned char>& bytes) {
    if (bytes.size() < kHeaderBytes) throw Failure(path + ": mesh dump is cut off");
    uint32_t header[4];
    std::memcpy(header, bytes.data() + sizeof kMagic, sizeof header);
    if (header[0] != kVersion) throw Failure(path + ": mesh dump of unknown version " + std::to_string(header[0]));
    // In 64 bits, so that no count, however wrong, can make the expected size wrap around to the real one.
    const uint64_t vertices = header[2];
    const uint64_t triangles = header[3];
    const uint64_t expected = kHeaderBytes + 12 * vertices + 12 * triangles;
    if (expected != bytes.size())
        throw Failure(path + ": mesh dump has " + std::to_string(bytes.size()) + " bytes, its counts ask for " +
                      std::to_string(expected));
    if (checksum(bytes.data() + kChecked, bytes.size() - kChecked) != header[1])
        throw Failure(path + ": mesh dump is damaged (wrong checksum)");

    Mesh mesh;
    const unsigned char* from = bytes.data() + kHeaderBytes;
    mesh.vertices.resize(3 * vertices);
    if (vertices > 0) std::memcpy(mesh.vertices.data(), from, 12 * vertices);
    from += 12 * vertices;
    mesh.triangles.resize(4 * triangles);
    for (size_t j = 0; j < triangles; ++j, from += 12) {
        std::memcpy(&mesh.triangles[4 * j], from, 12);
        mesh.triangles[4 * j + 3] = kMaterialMesh;
    }
    return mesh;
}

// ---- Mesh files -------------------------------------------------------------------------------------------------

#ifdef EXAMPLES_WITH_ASSIMP

// Appends the meshes of a node and of its children, placed where the file says.
void appendNode(const aiScene& scene, const aiNode& node, const aiMatrix4x4& parent, Mesh& out) {
    const aiMatrix4x4 place = parent * node.mTransformation;
    for (unsigned m = 0; m < node.mNumMeshes; ++m) {
        const aiMesh& part = *scene.mMeshes[node.mMeshes[m]];
        const size_t first = out.vertices.size() / 3;
        if (first + part.mNumVertices > INT_MAX / 3 || out.triangles.size() / 4 + part.mNumFaces > INT_MAX / 4)
            throw Failure("mesh is too large");
        for (unsigned i = 0; i < part.mNumVertices; ++i) {
            const aiVector3D p = place * part.mVertices[i];
            out.vertices.insert(out.vertices.end(), {p.x, p.y, p.z});
        }
        for (unsigned f = 0; f < part.mNumFaces; ++f) {
            const aiFace& face = part.mFaces[f];
            if (face.mNumIndices != 3) continue; // points and lines
            for (int k = 0; k < 3; ++k) out.triangles.push_back(static_cast<int>(first + face.mIndices[k]));
            out.triangles.push_back(kMaterialMesh);
        }
    }
    for (unsigned c = 0; c < node.mNumChildren; ++c) appendNode(scene, *node.mChildren[c], place, out);
}

// Joins vertices at exactly the same place and drops those without a triangle, so that normals are smooth across the
// seams that files have for textures or, as STL, between any two triangles. The order of first use is kept.
void joinVertices(Mesh& mesh) {
    const float* v = mesh.vertices.data();
    std::vector<int> order(mesh.vertexCount());
    std::iota(order.begin(), order.end(), 0);
    const auto before = [v](int a, int b) {
        return std::lexicographical_compare(v + 3 * a, v + 3 * a + 3, v + 3 * b, v + 3 * b + 3);
    };
    std::stable_sort(order.begin(), order.end(), before);
    std::vector<int> same(order.size()); // the first vertex at the same place
    for (size_t i = 0; i < order.size(); ++i)
        same[order[i]] = i > 0 && !before(order[i - 1], order[i]) ? same[order[i - 1]] : order[i];

    std::vector<int> number(order.size(), -1);
    std::vector<float> joined;
    for (size_t i = 0; i < mesh.triangles.size(); ++i) {
        if (i % 4 == 3) continue;
        const int from = same[mesh.triangles[i]];
        if (number[from] < 0) {
            number[from] = static_cast<int>(joined.size() / 3);
            joined.insert(joined.end(), v + 3 * from, v + 3 * from + 3);
        }
        mesh.triangles[i] = number[from];
    }
    mesh.vertices = std::move(joined);
}

Mesh importFile(const std::string& path) {
    Assimp::Importer importer;
    const aiScene* scene = importer.ReadFile(path, aiProcess_Triangulate);
    if (!scene || !scene->mRootNode) {
        std::string why = importer.GetErrorString();
        std::replace(why.begin(), why.end(), '\n', ' ');
        throw Failure(path + ": cannot be read as a mesh: " + why);
    }
    Mesh mesh;
    appendNode(*scene, *scene->mRootNode, aiMatrix4x4(), mesh);
    return mesh;
}

#endif

// ---- Checks -----------------------------------------------------------------------------------------------------

// The library trusts indices and carries on with any coordinates; a user is better served by a word about them.
void checkMesh(const std::string& path, const Mesh& mesh) {
    if (mesh.triangles.empty()) throw Failure(path + ": mesh has no triangles");
    if (mesh.vertices.size() / 3 > INT_MAX / 3 || mesh.triangles.size() / 4 > INT_MAX / 4)
        throw Failure(path + ": mesh is too large");
    for (size_t i = 0; i < mesh.vertices.size(); ++i)
        if (!std::isfinite(mesh.vertices[i]))
            throw Failure(path + ": vertex " + std::to_string(i / 3) + " has a coordinate that is not a finite number");
    for (size_t i = 0; i < mesh.triangles.size(); ++i)
        if (i % 4 != 3 && (mesh.triangles[i] < 0 || mesh.triangles[i] >= mesh.vertexCount()))
            throw Failure(path + ": triangle " + std::to_string(i / 4) + " refers to a vertex that is not there");
}

} // namespace

Mesh loadMesh(const std::string& path) {
    const std::vector<unsigned char> bytes = readFile(path);
    if (bytes.empty()) throw Failure(path + ": file is empty");
    if (isDump(bytes)) {
        Mesh mesh = readDump(path, bytes);
        checkMesh(path, mesh);
        return mesh;
    }
#ifdef EXAMPLES_WITH_ASSIMP
    Mesh mesh = importFile(path);
    checkMesh(path, mesh);
    joinVertices(mesh);
    return mesh;
#else
    throw Failure(path + ": not a mesh dump (this build reads only those; the 64-bit raytrace makes them with --dump)");
#endif
}

std::vector<unsigned char> dumpMesh(const Mesh& mesh) {
    const size_t vertexBytes = mesh.vertices.size() * sizeof(float);
    std::vector<unsigned char> bytes(kHeaderBytes + vertexBytes + 12 * static_cast<size_t>(mesh.triangleCount()));
    unsigned char* to = bytes.data() + kHeaderBytes;
    std::memcpy(to, mesh.vertices.data(), vertexBytes);
    to += vertexBytes;
    for (int j = 0; j < mesh.triangleCount(); ++j, to += 12)
        std::memcpy(to, &mesh.triangles[4 * static_cast<size_t>(j)], 12);

    uint32_t header[4] = {kVersion, 0, static_cast<uint32_t>(mesh.vertexCount()),
                          static_cast<uint32_t>(mesh.triangleCount())};
    std::memcpy(bytes.data(), kMagic, sizeof kMagic);
    std::memcpy(bytes.data() + sizeof kMagic, header, sizeof header);
    header[1] = checksum(bytes.data() + kChecked, bytes.size() - kChecked);
    std::memcpy(bytes.data() + sizeof kMagic, header, sizeof header);
    return bytes;
}

std::vector<float> vertexNormals(const Mesh& mesh) {
    std::vector<Vec> sums(mesh.vertexCount());
    for (int j = 0; j < mesh.triangleCount(); ++j) {
        const int* corner = &mesh.triangles[4 * static_cast<size_t>(j)];
        const Vec p2 = toVec(&mesh.vertices[3 * static_cast<size_t>(corner[2])]);
        const Vec e1 = toVec(&mesh.vertices[3 * static_cast<size_t>(corner[0])]) - p2;
        const Vec e2 = toVec(&mesh.vertices[3 * static_cast<size_t>(corner[1])]) - p2;
        const Vec twiceArea = cross(e1, e2);
        for (int k = 0; k < 3; ++k) sums[corner[k]] = sums[corner[k]] + twiceArea;
    }
    std::vector<float> normals(mesh.vertices.size());
    for (size_t i = 0; i < sums.size(); ++i) toFloats(normalised(sums[i]), &normals[3 * i]);
    return normals;
}
