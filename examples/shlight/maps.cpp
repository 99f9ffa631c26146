// Four panels and the gaps between them.
#include "maps.h"

#include <cstdint>

#include "image.h"

namespace {

constexpr int kGap = 8;
constexpr uint8_t kPaper = 24;

// Too bright is orange, too dark is blue; both grow from black.
void differenceColour(double difference, double* rgb) {
    static constexpr double kAbove[3] = {1.0, 0.45, 0.05}, kBelow[3] = {0.08, 0.40, 1.0};
    for (int k = 0; k < 3; ++k) rgb[k] = difference > 0 ? kAbove[k] * difference : kBelow[k] * -difference;
}

} // namespace

std::vector<unsigned char> drawMaps(const Maps& maps, const Display& display) {
    const int width = maps.original.width, height = maps.original.height;
    const int wholeWidth = 2 * width + 3 * kGap, wholeHeight = 2 * height + 3 * kGap;
    std::vector<uint8_t> rgb(3 * static_cast<size_t>(wholeWidth) * wholeHeight, kPaper);
    const SrgbEncoder encode;
    // colour(pixel, rgb) gives the linear colour of a pixel of the panel.
    const auto panel = [&](int column, int row, const auto& colour) {
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                double linear[3];
                colour(static_cast<size_t>(y) * width + x, linear);
                const size_t to = static_cast<size_t>(kGap + row * (height + kGap) + y) * wholeWidth + kGap +
                                  column * (width + kGap) + x;
                for (int k = 0; k < 3; ++k) rgb[3 * to + k] = encode(linear[k]);
            }
    };
    const auto light = [&](const Environment& map) {
        return [&](size_t pixel, double* linear) {
            for (int k = 0; k < 3; ++k) linear[k] = display(map.rgb[3 * pixel + k]);
        };
    };
    panel(0, 0, light(maps.original));
    panel(1, 0, light(maps.reconstructed));
    panel(0, 1, light(maps.matt));
    panel(1, 1, [&](size_t pixel, double* linear) {
        double difference = 0;
        for (int k = 0; k < 3; ++k)
            difference += display(maps.reconstructed.rgb[3 * pixel + k]) - display(maps.original.rgb[3 * pixel + k]);
        differenceColour(difference / 3, linear);
    });
    return encodePng(wholeWidth, wholeHeight, rgb);
}

Negative negativeOf(const Environment& map) {
    Negative negative;
    double solidAngle = 0, whole = 0;
    for (int y = 0; y < map.height; ++y) {
        const double pixel = map.row(y).solidAngle;
        for (int x = 0; x < map.width; ++x) {
            const float* rgb = &map.rgb[3 * (static_cast<size_t>(y) * map.width + x)];
            const double least = std::min({rgb[0], rgb[1], rgb[2]});
            if (least < 0) solidAngle += pixel;
            negative.lowest = std::min(negative.lowest, least);
            whole += pixel;
        }
    }
    negative.share = solidAngle / whole;
    return negative;
}
