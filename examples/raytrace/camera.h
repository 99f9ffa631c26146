// The eye and its image plane, in scene coordinates, in the form that zenrCastEye_32f takes.
#pragma once
#include "options.h"
#include "scene.h"

struct Camera {
    Vec eye, target;
    Vec right, up, back; // of the picture: orthogonal unit vectors
    float origin[3];     // the eye
    float plane[3];      // from the eye to the first ray's point of the image plane, top left
    float widthStep[3];  // from a ray to the next in its row
    float heightStep[3]; // from a row of rays to the next
};

// Rays are numbered through the picture: width * samples in a row, height * samples rows.
Camera makeCamera(const Options& options, const Scene& scene);

// Where the light is when the user names no place: above and to the left of the eye.
Vec lightPosition(const Options& options, const Scene& scene, const Camera& camera);
