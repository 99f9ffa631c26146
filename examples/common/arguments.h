// Command lines: kinds of values, and the options that programs with a camera and a scene share.
#pragma once
#include <algorithm>
#include <string>

#include <CLI/CLI.hpp>

#include "camera.h"
#include "scene.h"
#include "tiles.h"

// "X,Y,Z".
Vec readPoint(const std::string& option, const std::string& value);

// Also refuses NaN, which a check for being below or above the range lets through.
template <class T> CLI::Validator within(T low, T high) {
    const std::string range = std::to_string(low) + " to " + std::to_string(high);
    return {[=](std::string& text) {
                T value{};
                if (CLI::detail::lexical_cast(text, value) && value >= low && value <= high) return std::string();
                return "'" + text + "' is not within " + range;
            },
            ""};
}

// False when there is nothing left to do (--help); anything unusable is a Failure of one line.
bool parseArguments(CLI::App& app, int argc, char** argv);

// Size and samples of the picture, the eye, and the direction that points up.
class CameraArguments {
public:
    CameraArguments(CLI::App& app, CameraOptions& camera, SceneOptions& scene)
        : app_(app), camera_(camera), scene_(scene) {}
    void addPicture();
    void addCamera();
    void read(); // once the command line is parsed

private:
    CLI::App& app_;
    CameraOptions& camera_;
    SceneOptions& scene_;
    std::string size_ = "640x480", eye_, target_, up_ = "0,1,0";
};

// How the tree is built.
class TreeArguments {
public:
    TreeArguments(CLI::App& app, SceneOptions& scene) : app_(app), scene_(scene) {}
    void add();
    void read();

private:
    CLI::App& app_;
    SceneOptions& scene_;
    std::string builder_ = "auto";
};

// How the work is shared, and whether it is talked about.
class WorkArguments {
public:
    WorkArguments(CLI::App& app, WorkOptions& work) : app_(app), work_(work) {}
    void add();
    void read(int samples); // per side of a pixel

private:
    CLI::App& app_;
    WorkOptions& work_;
};
