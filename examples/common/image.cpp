// sRGB without pow(), whose last bits differ between mathematical libraries; PNG and Radiance HDR.
#include "image.h"

#include <algorithm>

#include "failure.h"
#include "writer.h"

namespace {

// x^(1/5) for x in (0, 1] by Newton's method, from above: it falls until rounding stops it.
double fifthRoot(double x) {
    double root = 1;
    for (;;) {
        const double power4 = root * root * root * root;
        const double next = (4 * root + x / power4) / 5;
        if (!(next < root)) return root;
        root = next;
    }
}

void append(void* context, void* data, int size) {
    auto& bytes = *static_cast<std::vector<unsigned char>*>(context);
    const auto* from = static_cast<const unsigned char*>(data);
    bytes.insert(bytes.end(), from, from + size);
}

} // namespace

// ((s + 0.055) / 1.055)^2.4 above the linear toe.
double linearOfSrgb(double srgb) {
    if (srgb <= 0.04045) return srgb / 12.92;
    const double base = (srgb + 0.055) / 1.055;
    return base * base * fifthRoot(base * base);
}

SrgbEncoder::SrgbEncoder() {
    for (int i = 0; i < 255; ++i) threshold_[i] = linearOfSrgb((i + 0.5) / 255);
}

uint8_t SrgbEncoder::operator()(double linear) const {
    if (!(linear > 0)) return 0;
    return static_cast<uint8_t>(std::upper_bound(threshold_, threshold_ + 255, linear) - threshold_);
}

std::vector<unsigned char> encodePng(int width, int height, const std::vector<uint8_t>& rgb) {
    std::vector<unsigned char> bytes;
    if (!stbi_write_png_to_func(append, &bytes, width, height, 3, rgb.data(), 3 * width))
        throw Failure("the picture cannot be encoded: no memory");
    return bytes;
}

std::vector<unsigned char> encodeHdr(int width, int height, const std::vector<float>& rgb) {
    std::vector<unsigned char> bytes;
    if (!stbi_write_hdr_to_func(append, &bytes, width, height, 3, rgb.data()))
        throw Failure("the picture cannot be encoded: no memory");
    return bytes;
}
