// The eye and its image plane, in scene coordinates, in the form that zenrCastEye_32f takes.
#pragma once
#include <optional>

#include "scene.h"

struct CameraOptions {
    int width = 640, height = 480;
    int samples = 2; // samples * samples rays a pixel
    std::optional<Vec> eye, target;
    double fov = 36, turn = 30, tilt = 20; // degrees
};

struct Camera {
    Vec eye, target;
    Vec right, up, back; // of the picture: orthogonal unit vectors
    float origin[3];     // the eye
    float plane[3];      // from the eye to the first ray's point of the image plane, top left
    float widthStep[3];  // from a ray to the next in its row
    float heightStep[3]; // from a row of rays to the next
};

// Rays are numbered through the picture: width * samples in a row, height * samples rows.
Camera makeCamera(const CameraOptions& options, const Scene& scene);
