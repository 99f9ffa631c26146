// Every table of filter kernels that this processor can run, for tests and benchmarks.
#pragma once
#include <vector>

#include "filter/prfilter.h"

namespace zenrtest {

struct FilterTable {
    const char* name;
    zenr::Level level;
    const zenr::FilterKernels& kernels;
};

inline std::vector<FilterTable> filterTables() {
    using zenr::Level;
    std::vector<FilterTable> all{{"sse2", Level::sse2, zenr::sse2::kFilter}};
    if (zenr::bestLevel() >= Level::avx2) all.push_back({"avx2", Level::avx2, zenr::avx2::kFilter});
    if (zenr::bestLevel() >= Level::avx512) all.push_back({"avx512", Level::avx512, zenr::avx512::kFilter});
    if (zenr::hasDotProducts(zenr::bestLevel())) all.push_back({"+dot", Level::avx512, zenr::avx512::kFilterDot});
    return all;
}

} // namespace zenrtest
