// What the user asks for on the command line.
#pragma once
#include <optional>
#include <string>

#include "camera.h"
#include "scene.h"
#include "tiles.h"

struct Options : CameraOptions, SceneOptions, WorkOptions {
    std::string mesh;
    std::string output;
    std::string dump;
    bool render = true; // false: only a dump is asked for
    bool showCost = false;
    std::optional<Vec> light;
    double mirror = 0.35, gloss = 0; // reflectivity of the ground and of the mesh
};

// Reads the command line. Empty when there is nothing left to do (--help). Throws Failure on anything unusable.
std::optional<Options> readOptions(int argc, char** argv);
