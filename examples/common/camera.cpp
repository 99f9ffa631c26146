// Placing the eye.
#include "camera.h"

#include <algorithm>
#include <cmath>

#include "angles.h"
#include "failure.h"

namespace {

// A direction across `up`, from which the automatic eye looks: +z for meshes with y up, -y for those with z up.
Vec frontOf(const Vec& up) {
    const Vec front = std::abs(up.z) < 0.9 ? Vec{0, 0, 1} : Vec{0, -1, 0};
    return normalised(front - up * dot(front, up));
}

// How far back the eye must be to have all corners of the mesh's box in the picture, with a margin around them.
double framingDistance(const Scene& scene, const Vec& back, const Vec& up, double halfWidth, double halfHeight) {
    const Vec right = normalised(cross(up, back)), top = cross(back, right);
    double distance = 0;
    for (int corner = 0; corner < 8; ++corner) {
        const Vec& half = scene.half;
        const Vec p{corner & 1 ? half.x : -half.x, corner & 2 ? half.y : -half.y, corner & 4 ? half.z : -half.z};
        distance = std::max(distance, dot(p, back) + std::abs(dot(p, right)) / halfWidth);
        distance = std::max(distance, dot(p, back) + std::abs(dot(p, top)) / halfHeight);
    }
    return 1.1 * distance;
}

} // namespace

Camera makeCamera(const CameraOptions& options, const Scene& scene) {
    Camera camera;
    const Vec& up = scene.up;
    const double halfHeight = tangent(options.fov / 2);
    const double aspect = static_cast<double>(options.width) / options.height;

    camera.target = options.target ? scene.fit(*options.target) : Vec{};
    if (options.eye) {
        camera.eye = scene.fit(*options.eye);
    } else {
        double sinTurn, cosTurn, sinTilt, cosTilt;
        sineCosine(options.turn, sinTurn, cosTurn);
        sineCosine(options.tilt, sinTilt, cosTilt);
        const Vec front = frontOf(up);
        const Vec around = front * cosTurn + cross(up, front) * sinTurn;
        const Vec back = normalised(around * cosTilt + up * sinTilt);
        camera.eye = camera.target + back * framingDistance(scene, back, up, halfHeight * aspect, halfHeight);
    }

    camera.back = normalised(camera.eye - camera.target);
    if (!(length(camera.back) > 0)) throw Failure("--eye: must not be at the target");
    camera.right = normalised(cross(up, camera.back));
    if (!(length(camera.right) > 0)) throw Failure("--up: must not be the viewing direction");
    camera.up = cross(camera.back, camera.right);

    const int rays = options.height * options.samples;
    const double step = 2 * halfHeight / rays;
    const Vec widthStep = camera.right * step, heightStep = camera.up * -step;
    const double firstX = -0.5 * (options.width * options.samples - 1), firstY = -0.5 * (rays - 1);
    toFloats(camera.eye, camera.origin);
    toFloats(widthStep, camera.widthStep);
    toFloats(heightStep, camera.heightStep);
    toFloats(camera.back * -1 + widthStep * firstX + heightStep * firstY, camera.plane);
    return camera;
}
