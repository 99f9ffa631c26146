// Directions of pixels; reading maps; the built-in sky.
#include "environment.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "angles.h"
#include "failure.h"
#include "file.h"
#include "image.h"

#define STB_IMAGE_IMPLEMENTATION
#define STB_IMAGE_STATIC
#define STBI_ONLY_PNG
#define STBI_ONLY_HDR
#define STBI_NO_STDIO
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-function"
#include <stb/stb_image.h>
#pragma GCC diagnostic pop

namespace {

// ---- Files --------------------------------------------------------------------------------------------------------

template <class T> struct StbFree {
    void operator()(T* pixels) const { stbi_image_free(pixels); }
};
template <class T> using Pixels = std::unique_ptr<T[], StbFree<T>>;

std::vector<float> linearOf16() {
    std::vector<float> table(65536);
    for (int i = 0; i < 65536; ++i) table[i] = static_cast<float>(linearOfSrgb(i / 65535.0));
    return table;
}

// Whether a Radiance picture has all its rows. The decoder takes what is missing for black, and never returns from a row
// that ends, or is damaged, between two runs.
bool holdsRows(const std::vector<unsigned char>& bytes, int width, int height) {
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    const size_t header = text.find("\n\n"); // then a line with the size
    const size_t line = header == text.npos ? text.npos : text.find('\n', header + 2);
    if (line == text.npos) return false;
    size_t at = line + 1;
    const auto plain = [&] { return bytes.size() - at >= size_t(4) * width * height; };
    if (width < 8 || width >= 32768) return plain();
    for (int y = 0; y < height; ++y) {
        if (bytes.size() - at < 4) return false;
        if (bytes[at] != 2 || bytes[at + 1] != 2 || bytes[at + 2] >= 128) return y == 0 && plain();
        at += 4;
        for (int component = 0; component < 4; ++component) {
            for (int x = 0; x < width;) {
                if (at >= bytes.size()) return false;
                const int code = bytes[at++], count = code > 128 ? code - 128 : code;
                at += code > 128 ? 1 : size_t(count);
                x += count;
                if (count == 0 || x > width || at > bytes.size()) return false;
            }
        }
    }
    return true;
}

} // namespace

Environment loadEnvironment(const std::string& path) {
    const std::vector<unsigned char> bytes = readFile(path);
    if (bytes.size() > INT_MAX) throw Failure(path + ": file is too large");
    const int size = static_cast<int>(bytes.size());
    Environment map;
    int channels = 0;
    // The shape is looked at first: a picture of another kind need not be decoded.
    if (!stbi_info_from_memory(bytes.data(), size, &map.width, &map.height, &channels))
        throw Failure(path + ": neither a PNG nor a Radiance HDR picture");
    if (map.width != 2 * map.height)
        throw Failure(path + ": has " + std::to_string(map.width) + " x " + std::to_string(map.height) +
                      " pixels, but an equirectangular map is twice as wide as it is high");
    const size_t values = static_cast<size_t>(map.width) * map.height * 3;
    const auto undecoded = [&] { return Failure(path + ": cannot be decoded: " + stbi_failure_reason()); };
    if (stbi_is_hdr_from_memory(bytes.data(), size)) {
        if (!holdsRows(bytes, map.width, map.height)) throw Failure(path + ": is cut off or damaged");
        const Pixels<float> pixels(stbi_loadf_from_memory(bytes.data(), size, &map.width, &map.height, &channels, 3));
        if (!pixels) throw undecoded();
        map.rgb.assign(pixels.get(), pixels.get() + values);
    } else {
        const Pixels<uint16_t> pixels(
            stbi_load_16_from_memory(bytes.data(), size, &map.width, &map.height, &channels, 3));
        if (!pixels) throw undecoded();
        const std::vector<float> linear = linearOf16();
        map.rgb.resize(values);
        std::transform(pixels.get(), pixels.get() + values, map.rgb.begin(), [&](uint16_t v) { return linear[v]; });
    }
    return map;
}

// ---- Directions ---------------------------------------------------------------------------------------------------

Environment::Columns Environment::columns() const {
    Columns columns{std::vector<double>(width), std::vector<double>(width)};
    for (int x = 0; x < width; ++x) sineCosine(180 - 360 * (x + 0.5) / width, columns.sine[x], columns.cosine[x]);
    return columns;
}

Environment::Row Environment::row(int y) const {
    double radius, up, unused, top, bottom;
    sineCosine(180 * (y + 0.5) / height, radius, up);
    sineCosine(180.0 * y / height, unused, top);
    sineCosine(180.0 * (y + 1) / height, unused, bottom);
    return {up, radius, 2 * kPi / width * (top - bottom)};
}

void Environment::lookUp(const Vec& direction, float* colour) const {
    const double radius = std::sqrt(direction.x * direction.x + direction.y * direction.y);
    // Half a pixel less: whole numbers are the middles of pixels.
    const double x = (0.5 - turnsOf(direction.y, direction.x)) * width - 0.5;
    const double y = std::clamp((0.25 - turnsOf(direction.z, radius)) * 2 * height - 0.5, 0.0, height - 1.0);
    const double left = std::floor(x), top = std::floor(y);
    const int x0 = (static_cast<int>(left) + width) % width, x1 = (x0 + 1) % width;
    const int y0 = static_cast<int>(top), y1 = std::min(y0 + 1, height - 1);
    const double fx = x - left, fy = y - top;
    const auto at = [&](int px, int py, int k) { return rgb[3 * (static_cast<size_t>(py) * width + px) + k]; };
    for (int k = 0; k < 3; ++k) {
        const double upper = at(x0, y0, k) * (1 - fx) + at(x1, y0, k) * fx;
        const double lower = at(x0, y1, k) * (1 - fx) + at(x1, y1, k) * fx;
        colour[k] = static_cast<float>(upper * (1 - fy) + lower * fy);
    }
}

Environment reduced(const Environment& from, int width) {
    const int block = (from.width + width - 1) / width;
    if (block <= 1) return from;
    Environment to;
    to.height = std::max(1, from.height / block);
    to.width = 2 * to.height;
    to.rgb.resize(static_cast<size_t>(to.width) * to.height * 3);
    for (int y = 0; y < to.height; ++y) {
        const int top = static_cast<int>(int64_t(y) * from.height / to.height),
                  bottom = static_cast<int>(int64_t(y + 1) * from.height / to.height);
        for (int x = 0; x < to.width; ++x) {
            const int left = static_cast<int>(int64_t(x) * from.width / to.width),
                      right = static_cast<int>(int64_t(x + 1) * from.width / to.width);
            for (int k = 0; k < 3; ++k) {
                double sum = 0;
                for (int v = top; v < bottom; ++v)
                    for (int u = left; u < right; ++u)
                        sum += from.rgb[3 * (static_cast<size_t>(v) * from.width + u) + k];
                to.rgb[3 * (static_cast<size_t>(y) * to.width + x) + k] =
                    static_cast<float>(sum / ((bottom - top) * (right - left)));
            }
        }
    }
    return to;
}

// ---- The sky ------------------------------------------------------------------------------------------------------

namespace {

constexpr int kSkyHeight = 512;
constexpr Vec kZenith{0.07, 0.16, 0.42}, kHaze{0.50, 0.55, 0.60};
constexpr Vec kSunlight{1.0, 0.80, 0.52}, kCloud{0.66, 0.66, 0.68}, kShade{0.22, 0.24, 0.29};
constexpr Vec kEarth{0.085, 0.062, 0.04};

Vec mix(const Vec& a, const Vec& b, double share) {
    return a + (b - a) * share;
}

double smoothStep(double from, double to, double x) {
    const double t = std::clamp((x - from) / (to - from), 0.0, 1.0);
    return t * t * (3 - 2 * t);
}

// A number from 0 to 1 for each point of a grid.
double grain(int x, int y) {
    uint32_t h = static_cast<uint32_t>(x) * 0x9E3779B1u ^ static_cast<uint32_t>(y) * 0x85EBCA77u;
    h = (h ^ h >> 15) * 0x2C1B3C6Du;
    h = (h ^ h >> 12) * 0x297A2D39u;
    return (h ^ h >> 15) / 4294967295.0;
}

double smoothGrain(double x, double y) {
    const double left = std::floor(x), top = std::floor(y);
    const int u = static_cast<int>(left), v = static_cast<int>(top);
    const double fx = smoothStep(0, 1, x - left), fy = smoothStep(0, 1, y - top);
    const double upper = grain(u, v) * (1 - fx) + grain(u + 1, v) * fx;
    const double lower = grain(u, v + 1) * (1 - fx) + grain(u + 1, v + 1) * fx;
    return upper * (1 - fy) + lower * fy;
}

// Grain upon finer grain.
double billows(double x, double y) {
    double sum = 0, weight = 0.5;
    for (int octave = 0; octave < 6; ++octave, weight /= 2) {
        sum += weight * smoothGrain(x, y);
        // Turned, so that the grids do not show.
        const double turned = 1.62 * x + 1.18 * y + 17.3;
        y = 1.62 * y - 1.18 * x + 5.1;
        x = turned;
    }
    return sum;
}

Vec skyLight(const Vec& d, const Vec& sun) {
    const double away = 1 - dot(d, sun); // half the square of the angle, near the sun
    const double glow = 1 / ((1 + 12 * away) * (1 + 12 * away));
    if (d.z < 0) {
        // The ground brightens towards the horizon, where haze hides it.
        const double far = 1 / (1 - 14 * d.z);
        return mix(kEarth, (kHaze + kSunlight * (0.5 * glow)) * 0.8, far * far);
    }
    const double low = 1 - d.z;
    Vec light = mix(kZenith, kHaze, low * low * low * low) + kSunlight * (0.9 * glow);

    // Clouds in a layer above a round earth, bright where the sun is behind their edge.
    const double reach = 1 / (d.z + 0.12);
    const double density = billows(2.1 * d.x * reach + 40, 2.1 * d.y * reach + 40);
    const double cover = 0.9 * smoothStep(0.47, 0.62, density) * smoothStep(0.02, 0.25, d.z);
    const Vec cloud = mix(kCloud, kShade, 0.9 * smoothStep(0.52, 0.80, density)) + kSunlight * (1.3 * glow);
    light = mix(light, cloud, cover);

    // The disc, larger than life so that pixels resolve it, and the bright haze around it.
    const double disc = 60 * smoothStep(0.0055, 0.0035, away) + 16 / ((1 + 60 * away) * (1 + 60 * away));
    return light + kSunlight * (disc * (1 - 0.5 * cover));
}

} // namespace

Environment makeSky(double sunDegrees) {
    Environment sky;
    sky.height = kSkyHeight;
    sky.width = 2 * kSkyHeight;
    sky.rgb.resize(static_cast<size_t>(sky.width) * sky.height * 3);
    double sine, cosine, turnSine, turnCosine;
    sineCosine(sunDegrees, sine, cosine);
    sineCosine(100, turnSine, turnCosine); // to the left of who looks at the middle of the map
    const Vec sun{cosine * turnCosine, cosine * turnSine, sine};
    const Environment::Columns columns = sky.columns();
    for (int y = 0; y < sky.height; ++y) {
        const Environment::Row row = sky.row(y);
        for (int x = 0; x < sky.width; ++x)
            toFloats(skyLight({row.radius * columns.cosine[x], row.radius * columns.sine[x], row.up}, sun),
                     &sky.rgb[3 * (static_cast<size_t>(y) * sky.width + x)]);
    }
    return sky;
}
