// What the user asks for on the command line.
#pragma once
#include <optional>
#include <string>

#include "camera.h"
#include "scene.h"
#include "tiles.h"

struct Options : CameraOptions, SceneOptions, WorkOptions {
    std::string mesh;            // empty: no picture of a mesh
    std::string environment;     // empty: the built-in sky
    std::string output;          // picture of the mesh
    std::string maps;            // picture of the maps
    std::string saveEnvironment; // Radiance HDR

    int order = 8;
    bool recurrence = false; // how the basis is evaluated
    bool window = false;     // damp the bands by Lanczos's factors
    double sun = 38;         // degrees above the horizon of the built-in sky
    double turnEnvironment = 0;

    double gloss = 0.25; // weight of the mirrored light
    double shine = 40;   // exponent of its lobe
    bool sharpBackground = true;
    double exposure = 0; // stops
};

// Reads the command line. Empty when there is nothing left to do (--help). Throws Failure on anything unusable.
std::optional<Options> readOptions(int argc, char** argv);
