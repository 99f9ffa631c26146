// Grey panels on a dark sheet.
#include "picture.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <functional>

#include "image.h"

namespace {

constexpr int kGap = 6;

struct Panel {
    int width, height;
    std::vector<float> values;
};

Panel panel(int width, int height, const std::function<float(int, int)>& value) {
    Panel p{width, height, {}};
    // Rows upwards: the last axis of a scan points to the head.
    for (int y = height - 1; y >= 0; --y) {
        for (int x = 0; x < width; ++x) p.values.push_back(value(x, y));
    }
    return p;
}

std::vector<Panel> panels(const Volume& v) {
    const auto at = [&](int x, int y, int z) { return v.value((size_t(z) * v.height + y) * v.width + x); };
    return {panel(v.width, v.height, [&](int x, int y) { return at(x, y, v.depth / 2); }),
            panel(v.width, v.depth, [&](int x, int z) { return at(x, v.height / 2, z); }),
            panel(v.height, v.depth, [&](int y, int z) { return at(v.width / 2, y, z); }),
            panel(v.width, v.depth, [&](int x, int z) {
                float most = at(x, 0, z);
                for (int y = 1; y < v.height; ++y) most = std::max(most, at(x, y, z));
                return most;
            })};
}

} // namespace

std::vector<unsigned char> contactSheet(const std::vector<const Volume*>& volumes) {
    // The grey scale: from the least value to one that all but a thousandth of the first volume's voxels stay below.
    std::vector<float> sorted;
    for (size_t i = 0; i < volumes[0]->count(); ++i) {
        if (std::isfinite(volumes[0]->value(i))) sorted.push_back(volumes[0]->value(i));
    }
    float low = 0, high = 1;
    if (!sorted.empty()) {
        low = *std::min_element(sorted.begin(), sorted.end());
        const auto nth = sorted.begin() + ptrdiff_t(double(sorted.size() - 1) * 0.999);
        std::nth_element(sorted.begin(), nth, sorted.end());
        high = *nth > low ? *nth : low + 1;
    }

    std::vector<std::vector<Panel>> rows;
    int width = 0, height = kGap;
    for (const Volume* v : volumes) {
        rows.push_back(panels(*v));
        int across = kGap, tall = 0;
        for (const Panel& p : rows.back()) {
            across += p.width + kGap;
            tall = std::max(tall, p.height);
        }
        width = std::max(width, across);
        height += tall + kGap;
    }
    std::vector<uint8_t> rgb(size_t(width) * height * 3, 24);
    int top = kGap;
    for (const auto& row : rows) {
        int left = kGap, tall = 0;
        for (const Panel& p : row) {
            for (int y = 0; y < p.height; ++y) {
                for (int x = 0; x < p.width; ++x) {
                    const float grey = (p.values[size_t(y) * p.width + x] - low) / (high - low);
                    const uint8_t byte = grey > 0 ? uint8_t(std::min(grey, 1.f) * 255 + 0.5f) : 0;
                    std::fill_n(&rgb[(size_t(top + y) * width + left + x) * 3], 3, byte);
                }
            }
            left += p.width + kGap;
            tall = std::max(tall, p.height);
        }
        top += tall + kGap;
    }
    return encodePng(width, height, rgb);
}
