// Meshes of the ray benchmarks: files go through the example programs' loader; models are set out on a floor.
#include "meshes.h"

#include <dirent.h>
#include <stdio.h>
#include <sys/stat.h>

#include "failure.h"
#include "mesh.h"

namespace {

const std::string kDir = ZENR_MESHES_DIR "/"; // what scripts/bench-meshes fetched, and dumps

bool exists(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

// ---- Files --------------------------------------------------------------------------------------------------------

// Every .obj below a folder whose subfolder has one of the names (any, when there are none), in the order of the names.
std::vector<std::string> models(const std::string& folder, const std::vector<std::string>& wanted) {
    std::vector<std::string> found;
    if (DIR* dir = opendir(folder.c_str())) {
        while (const dirent* entry = readdir(dir)) {
            const std::string name = entry->d_name;
            if (name[0] == '.' || (!wanted.empty() && std::find(wanted.begin(), wanted.end(), name) == wanted.end()))
                continue;
            if (DIR* inner = opendir((folder + "/" + name).c_str())) {
                while (const dirent* file = readdir(inner)) {
                    const std::string leaf = file->d_name;
                    if (leaf.size() > 4 && leaf.substr(leaf.size() - 4) == ".obj")
                        found.push_back(folder + "/" + name + "/" + leaf);
                }
                closedir(inner);
            }
        }
        closedir(dir);
    }
    std::sort(found.begin(), found.end());
    return found;
}

// Moved and scaled so that its box has the given largest extent and stands with its middle at x, z and its foot at y = 0.
void place(::Mesh& mesh, float size, float x, float z) {
    float lo[3] = {3e38f, 3e38f, 3e38f}, hi[3] = {-3e38f, -3e38f, -3e38f};
    for (size_t i = 0; i < mesh.vertices.size(); ++i) {
        lo[i % 3] = std::min(lo[i % 3], mesh.vertices[i]);
        hi[i % 3] = std::max(hi[i % 3], mesh.vertices[i]);
    }
    const float extent = std::max({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]});
    const float scale = extent > 0 ? size / extent : 1.f;
    const float at[3] = {x - scale * (lo[0] + hi[0]) / 2, -scale * lo[1], z - scale * (lo[2] + hi[2]) / 2};
    for (size_t i = 0; i < mesh.vertices.size(); ++i) mesh.vertices[i] = mesh.vertices[i] * scale + at[i % 3];
}

void append(::Mesh& to, const ::Mesh& from) {
    const int first = to.vertexCount();
    to.vertices.insert(to.vertices.end(), from.vertices.begin(), from.vertices.end());
    for (size_t i = 0; i < from.triangles.size(); ++i)
        to.triangles.push_back(from.triangles[i] + (i % 4 == 3 ? 0 : first));
}

// Models in the cells of a square floor.
::Mesh setOut(const std::vector<std::string>& paths) {
    ::Mesh all;
    int side = 1;
    while (side * side < int(paths.size())) ++side;
    int cell = 0;
    for (const std::string& path : paths) {
        try {
            ::Mesh one = ::loadMesh(path);
            place(one, 0.9f, float(cell % side), float(cell / side));
            append(all, one);
            ++cell;
        } catch (const Failure& failure) {
            fprintf(stderr, "%s\n", failure.what());
        }
    }
    return all;
}

struct FileMesh {
    const char* name;
    const char* path; // a file, or a folder of models
    std::vector<std::string> wanted;
};

const std::vector<FileMesh>& fileMeshes() {
    static const std::vector<FileMesh> all = {
        {"horse", "/usr/share/glmark2/models/horse.3ds", {}},
        {"bunny", "/usr/share/glmark2/models/bunny.obj", {}},
        {"dragon2", ZENR_MESHES_DIR "/dragon_vrip_res2.ply", {}},
        {"dragon", ZENR_MESHES_DIR "/dragon_vrip.ply", {}},
        {"grove",
         ZENR_MESHES_DIR "/scopia",
         {"japaneseMaple", "sycamoreMaple", "copperBeech", "ficusTree", "poplar", "peachBlossom", "pineSnow"}},
        {"showroom", ZENR_MESHES_DIR "/blendswap-cc-0", {}},
    };
    return all;
}

::Mesh readFiles(const FileMesh& which) {
    struct stat info;
    if (stat(which.path, &info) != 0) return ::Mesh();
    if (S_ISDIR(info.st_mode)) return setOut(models(which.path, which.wanted));
    return ::loadMesh(which.path);
}

// ---- Procedural ---------------------------------------------------------------------------------------------------

// Concentric spheres with bumps, one inside the other: a ray from outside meets many surfaces.
reference::Mesh shells(int count, int levels) {
    const reference::Mesh ball = reference::sphere(levels);
    reference::Mesh all;
    for (int s = 0; s < count; ++s) {
        const int first = all.vertexCount();
        const float radius = float(s + 1) / float(count);
        for (size_t i = 0; i < ball.vertices.size(); i += 3) {
            const float* p = &ball.vertices[i];
            const float r = radius * (1 + 0.02f * sinf(9 * p[0] + float(s)) * sinf(11 * p[1]) * sinf(7 * p[2]));
            all.addVertex(p[0] * r, p[1] * r, p[2] * r);
        }
        for (size_t t = 0; t < ball.triangles.size(); t += 4)
            all.add(first + ball.triangles[t], first + ball.triangles[t + 1], first + ball.triangles[t + 2]);
    }
    return all;
}

} // namespace

namespace bench {

const std::vector<std::string>& meshNames() {
    static const std::vector<std::string> names = {"horse",    "bunny",   "dragon2", "dragon", "grove",
                                                   "showroom", "terrain", "sphere",  "soup",   "shell"};
    return names;
}

Mesh loadMesh(const std::string& name) {
    ::Mesh mesh;
    const auto take = [&mesh](const reference::Mesh& made) {
        mesh.vertices = made.vertices;
        mesh.triangles = made.triangles;
    };
    if (name == "terrain") take(reference::terrain(1024));
    if (name == "sphere") take(reference::sphere(8));
    if (name == "soup") take(reference::soup(1000000, 0.01f, 1));
    if (name == "shell") take(shells(16, 6));
    try {
        for (const FileMesh& which : fileMeshes()) {
            if (name != which.name) continue;
            const std::string dump = kDir + name + ".mesh";
            if (exists(dump)) {
                mesh = ::loadMesh(dump);
                continue;
            }
            mesh = readFiles(which);
            if (mesh.triangles.empty()) continue;
            const std::vector<unsigned char> bytes = dumpMesh(mesh);
            if (FILE* file = fopen(dump.c_str(), "wb")) {
                const bool whole = fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
                if (fclose(file) != 0 || !whole) remove(dump.c_str());
            }
        }
        if (mesh.triangles.empty() && exists(name)) mesh = ::loadMesh(name);
    } catch (const Failure& failure) {
        fprintf(stderr, "%s\n", failure.what());
        mesh = ::Mesh();
    }
    place(mesh, 10, 0, 0);
    Mesh result;
    result.vertices = std::move(mesh.vertices);
    result.triangles = std::move(mesh.triangles);
    return result;
}

} // namespace bench
