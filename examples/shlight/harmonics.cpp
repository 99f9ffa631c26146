// Projection row by row; factors of bands; evaluation.
#include "harmonics.h"

#include <cmath>
#include <omp.h>

#include "angles.h"
#include "failure.h"

Basis::Basis(int order, bool recurrence) : order_(order) {
    const int type = recurrence ? 1 : 0;
    uint32_t bytes = 0;
    zenrSHGetSize_32f(static_cast<uint32_t>(order), type, &bytes);
    state_.reset(static_cast<ZenrSHState*>(zenMalloc(bytes)));
    if (!state_) throw std::bad_alloc();
    zenrSHInit_32f(state_.get(), static_cast<uint32_t>(order), type);
}

Light::Light(int order) : order_(order), values_(3 * (order + 1) * (order + 1)) {
    for (int k = 0; k < 3; ++k) plane_[k] = &values_[static_cast<size_t>(k) * (order + 1) * (order + 1)];
}

Light::Light(const Light& other) : Light(other.order_) {
    values_ = other.values_;
}

namespace {

// Directions of a row's pixels. Threads have one each, made where a lack of memory can still be reported.
struct RowOfDirections {
    explicit RowOfDirections(int width) : x(width), y(width), z(width), weighted(3 * static_cast<size_t>(width)) {}

    void set(const Environment::Row& row, const Environment::Columns& columns) {
        for (size_t i = 0; i < x.size(); ++i) {
            x[i] = static_cast<float>(row.radius * columns.cosine[i]);
            y[i] = static_cast<float>(row.radius * columns.sine[i]);
            z[i] = static_cast<float>(row.up);
        }
    }

    std::vector<float> x, y, z;
    std::vector<float> weighted; // light times solid angle
};

Light scaled(const Light& light, const std::vector<double>& factors) {
    Light result(light);
    for (int l = 0; l <= light.order(); ++l)
        for (int k = 0; k < 3; ++k)
            for (int i = l * l; i < (l + 1) * (l + 1); ++i)
                result.planes()[k][i] = static_cast<float>(result.planes()[k][i] * factors[l]);
    return result;
}

} // namespace

Light project(const Environment& map, const Basis& basis, int threads) {
    const Environment::Columns columns = map.columns();
    const int values = (basis.order() + 1) * (basis.order() + 1);
    // The library adds in float. A row is short enough for that; rows are added in double, in their order.
    std::vector<Light> rows(map.height, Light(basis.order()));
    std::vector<RowOfDirections> scratch(threads, RowOfDirections(map.width));
#pragma omp parallel for schedule(static) num_threads(threads)
    for (int y = 0; y < map.height; ++y) {
        RowOfDirections& d = scratch[omp_get_thread_num()];
        const Environment::Row row = map.row(y);
        d.set(row, columns);
        const float* from = &map.rgb[3 * static_cast<size_t>(y) * map.width];
        for (size_t i = 0; i < d.weighted.size(); ++i) d.weighted[i] = static_cast<float>(from[i] * row.solidAngle);
        zenrSHTFwd_32f_C3P3I(d.x.data(), d.y.data(), d.z.data(), d.weighted.data(), map.width, rows[y].planes(),
                             static_cast<uint32_t>(basis.order()), basis.state());
    }
    Light light(basis.order());
    for (int k = 0; k < 3; ++k)
        for (int i = 0; i < values; ++i) {
            double sum = 0;
            for (const Light& row : rows) sum += row.planes()[k][i];
            light.planes()[k][i] = static_cast<float>(sum);
            if (!std::isfinite(light.planes()[k][i]))
                throw Failure("the environment is too bright: its light does not add up to a finite number");
        }
    return light;
}

std::vector<Vec> bandEnergies(const Light& light) {
    std::vector<Vec> bands;
    for (int l = 0; l <= light.order(); ++l) {
        double sum[3] = {0, 0, 0};
        for (int k = 0; k < 3; ++k)
            for (int i = l * l; i < (l + 1) * (l + 1); ++i)
                sum[k] += static_cast<double>(light.planes()[k][i]) * light.planes()[k][i];
        bands.push_back({sum[0], sum[1], sum[2]});
    }
    return bands;
}

Vec mapEnergy(const Environment& map) {
    double sum[3] = {0, 0, 0};
    for (int y = 0; y < map.height; ++y) {
        const double solidAngle = map.row(y).solidAngle;
        const float* from = &map.rgb[3 * static_cast<size_t>(y) * map.width];
        for (int i = 0; i < 3 * map.width; ++i) sum[i % 3] += solidAngle * from[i] * from[i];
    }
    return {sum[0], sum[1], sum[2]};
}

Light windowed(const Light& light) {
    std::vector<double> factors{1};
    for (int l = 1; l <= light.order(); ++l) {
        const double turn = 1.0 * l / (light.order() + 1);
        double sine, cosine;
        sineCosine(180 * turn, sine, cosine);
        factors.push_back(sine / (kPi * turn));
    }
    return scaled(light, factors);
}

// Integrals of the lobe times the Legendre polynomials: each follows from the one two bands below.
Light gathered(const Light& light, double power) {
    std::vector<double> factors{1, (power + 1) / (power + 2)};
    for (int l = 2; l <= light.order(); ++l) factors.push_back(factors[l - 2] * (power + 2 - l) / (power + 1 + l));
    return scaled(light, factors);
}

void evaluate(const Light& light, const Basis& basis, const float* const direction[3], int n, float* const out[3]) {
    if (n == 0) return;
    zenrSHTInv_32f_P3(light.planes(), static_cast<uint32_t>(light.order()), direction[0], direction[1], direction[2],
                      out, n, basis.state());
}

void evaluate(const Light& light, const Basis& basis, Environment& map, int threads) {
    const Environment::Columns columns = map.columns();
    std::vector<RowOfDirections> scratch(threads, RowOfDirections(map.width));
#pragma omp parallel for schedule(static) num_threads(threads)
    for (int y = 0; y < map.height; ++y) {
        RowOfDirections& d = scratch[omp_get_thread_num()];
        d.set(map.row(y), columns);
        zenrSHTInv_32f_P3C3(light.planes(), static_cast<uint32_t>(light.order()), d.x.data(), d.y.data(), d.z.data(),
                            &map.rgb[3 * static_cast<size_t>(y) * map.width], map.width, basis.state());
    }
}
