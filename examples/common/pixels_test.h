// Pictures that a program under test has written, as pixels. Included once a test program: it brings the decoder's code.
#pragma once
#include <array>
#include <string>
#include <vector>

#define STB_IMAGE_IMPLEMENTATION
#define STB_IMAGE_STATIC
#define STBI_ONLY_PNG
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-function"
#include <stb/stb_image.h>
#pragma GCC diagnostic pop

struct Pixels {
    int width = 0, height = 0;
    std::vector<std::array<int, 3>> rgb;

    const std::array<int, 3>& at(int x, int y) const { return rgb[static_cast<size_t>(y) * width + x]; }
};

// The pixels of a PNG file's bytes; none where it is no picture.
inline Pixels decode(const std::string& png) {
    Pixels pixels;
    int channels = 0;
    unsigned char* data =
        stbi_load_from_memory(reinterpret_cast<const unsigned char*>(png.data()), static_cast<int>(png.size()),
                              &pixels.width, &pixels.height, &channels, 3);
    if (!data) return pixels;
    for (int i = 0; i < pixels.width * pixels.height; ++i)
        pixels.rgb.push_back({data[3 * i], data[3 * i + 1], data[3 * i + 2]});
    stbi_image_free(data);
    return pixels;
}
