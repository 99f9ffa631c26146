// The meshes of the ray benchmarks: scans, models and procedural ones, by name.
#pragma once
#include <string>
#include <vector>

#include "reference/meshes.h"

namespace bench {

using reference::Mesh;

// Names that mean something whether or not the mesh is there.
const std::vector<std::string>& meshNames();

// A mesh by its name or the path of a mesh file, its largest extent 10; without triangles where it is not to be had. A
// named mesh that comes from files is kept as a dump beside them, so that the next run, and the 32-bit program, which has
// no importer, read it at once.
Mesh loadMesh(const std::string& name);

} // namespace bench
