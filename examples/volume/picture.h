// A sheet that shows volumes: three orthogonal slices through the middle and a maximum intensity projection each.
#pragma once
#include <vector>

#include "volume.h"

// One row of four panels per volume, all in the grey scale of the first. The bytes of a PNG file.
std::vector<unsigned char> contactSheet(const std::vector<const Volume*>& volumes);
