// From linear light to the bytes of picture files, and sRGB.
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

// Linear light of an sRGB value from 0 to 1.
double linearOfSrgb(double srgb);

// A PNG file of rows of red, green, blue bytes.
std::vector<unsigned char> encodePng(int width, int height, const std::vector<uint8_t>& rgb);

// A Radiance HDR file of rows of linear red, green, blue.
std::vector<unsigned char> encodeHdr(int width, int height, const std::vector<float>& rgb);
