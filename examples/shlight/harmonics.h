// Light as spherical harmonics: projection of a map, energy of the bands, lobes, evaluation.
#pragma once
#include <memory>
#include <vector>

#include <zencore.h>
#include <zenr.h>

#include "environment.h"

// A state of the library for an order, evaluated in closed form or by recurrence.
class Basis {
public:
    Basis(int order, bool recurrence);
    int order() const { return order_; }
    const ZenrSHState* state() const { return state_.get(); }

private:
    struct Free {
        void operator()(ZenrSHState* state) const { zenFree(state); }
    };
    int order_;
    std::unique_ptr<ZenrSHState, Free> state_;
};

// Coefficients of red, green and blue, all bands up to an order.
class Light {
public:
    explicit Light(int order);
    int order() const { return order_; }
    float* const* planes() { return plane_; }
    const float* const* planes() const { return plane_; }
    Light(const Light& other);
    Light& operator=(const Light&) = delete;

private:
    int order_;
    std::vector<float> values_;
    float* plane_[3];
};

// Integrals of the map times each function of the basis, over the sphere.
Light project(const Environment& map, const Basis& basis, int threads);

// Integrals of the squared coefficients' light in each band: sums to the energy of the map (below) when no band is left
// out.
std::vector<Vec> bandEnergies(const Light& light);
Vec mapEnergy(const Environment& map);

// The light with each band scaled: by Lanczos's factors, which damp rings,
Light windowed(const Light& light);
// or gathered by a lobe max(0, cosine)^power of integral 1 around each direction. A matt white surface reflects what a
// lobe of power 1 gathers around its normal.
Light gathered(const Light& light, double power);

// Light from n directions (planar, in the map's axes). Values can be negative: truncated series ring.
void evaluate(const Light& light, const Basis& basis, const float* const direction[3], int n, float* const out[3]);
// From the directions of a map's pixels, into them.
void evaluate(const Light& light, const Basis& basis, Environment& map, int threads);
