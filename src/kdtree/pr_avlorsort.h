// Radix sort of floats, for the split search's event lists above the size where a comparison sort is quicker.
#pragma once
#include <stdint.h>

namespace zenr {

// Sorts data[0..n-1] ascending, n < 2^31; scratch takes n words and holds the sorted patterns at the end. Stable; -0
// comes before +0, NaNs lie beyond the infinity of their sign. Always 0.
int ownRadixSortAccend_32f_px(float* data, uint32_t* scratch, unsigned n);

} // namespace zenr
