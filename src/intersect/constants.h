// Numbers that every path of the intersectors shares.
#pragma once

namespace zenr {

constexpr float kParallel = 1.1920929e-7f;         // a direction component up to this size counts as parallel
constexpr float kParallelInverse = 83886.08f;      // its reciprocal for rays with their own origins, and for segments
constexpr float kParallelInverseEye = 838860800.f; // deliberately another one for rays from an eye
constexpr float kBehindBox = 1e-4f;                // how far the interval reaches past the box

constexpr float kDeterminantGate = 1.1920929e-6f; // below it a ray with its own origin counts as in the plane
constexpr float kNearerBy = 1e-5f;                // how much nearer a hit of such a ray must be
constexpr float kSplitTolerance = 1e-5f;
constexpr float kSplitToleranceMultiple = 1.9e-4f;
constexpr float kSegmentEnd = 1.0001f; // where the walk along a segment ends; blockers count up to 1
constexpr int kRing = 8;               // hit triangles that a successive search looks back at

} // namespace zenr
