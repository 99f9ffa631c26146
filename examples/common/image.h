// From linear light to the bytes of a PNG file.
#pragma once
#include <cstdint>
#include <vector>

// The sRGB byte of a linear value, clamped to 0..1, rounded to nearest. A NaN gives 0.
class SrgbEncoder {
public:
    SrgbEncoder();
    uint8_t operator()(double linear) const;

private:
    double threshold_[255]; // least linear value of the byte i + 1
};

// A PNG file of rows of red, green, blue bytes.
std::vector<unsigned char> encodePng(int width, int height, const std::vector<uint8_t>& rgb);
