// What the user asks for on the command line.
#pragma once
#include <optional>
#include <string>

#include "vec.h"

enum class Builder { simple, sah, automatic };

struct Options {
    std::string mesh;
    std::string output;
    std::string dump;
    bool render = true; // false: only a dump is asked for

    int width = 640, height = 480;
    int samples = 2; // samples * samples rays a pixel
    bool showCost = false;

    std::optional<Vec> eye, target, light;
    Vec up{0, 1, 0};
    double fov = 36, turn = 30, tilt = 20; // degrees

    Builder builder = Builder::automatic;
    double ratio = 0.5;
    int depth = 50;
    int memory = 1024;

    bool ground = true;
    bool flat = false;
    double mirror = 0.35, gloss = 0; // reflectivity of the ground and of the mesh

    int threads = 0; // 0: as many as the OpenMP runtime would use
    int tile = 32;
    bool quiet = false;
};

// Reads the command line. Empty when there is nothing left to do (--help). Throws Failure on anything unusable.
std::optional<Options> readOptions(int argc, char** argv);
