// The vector and image primitives by their plain definitions.
#pragma once
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace zenrref {

// unit bytes at a time, first to last.
inline void copyForward(const void* src, void* dst, size_t units, size_t unit) {
    for (size_t i = 0; i < units; ++i) {
        unsigned char element[8];
        memcpy(element, static_cast<const unsigned char*>(src) + i * unit, unit);
        memcpy(static_cast<unsigned char*>(dst) + i * unit, element, unit);
    }
}

inline float dot(const float* x, const float* y, int n) {
    long double sum = 0.0L;
    for (int i = 0; i < n; ++i) {
        const long double product = static_cast<long double>(x[i]) * static_cast<long double>(y[i]);
        sum = sum + product;
    }
    return static_cast<float>(sum);
}

// What a sort did, for the tests that ask how it went about it.
struct SortTrace {
    int partitions = 0;
    size_t deepest = 0;
};

// The quicksort step by step. Which of two equal elements (-0 and +0) comes first is part of the definition. Input
// without NaNs.
inline SortTrace sortAscend(std::vector<float>& a) {
    SortTrace trace;
    std::vector<std::pair<int, int>> stack;
    stack.push_back({0, int(a.size()) - 1});
    while (!stack.empty()) {
        trace.deepest = std::max(trace.deepest, stack.size() - 1);
        int lo = stack.back().first, hi = stack.back().second;
        stack.pop_back();
        if (hi - lo + 1 <= 9) {
            while (hi > lo) {
                // max_element returns the first of the greatest.
                std::iter_swap(std::max_element(a.begin() + lo, a.begin() + hi + 1), a.begin() + hi);
                --hi;
            }
            continue;
        }
        ++trace.partitions;
        const int mid = lo + (hi - lo + 1) / 2;
        if (a.at(hi) < a.at(lo)) std::swap(a.at(hi), a.at(lo));
        if (a.at(mid) > a.at(hi)) std::swap(a.at(mid), a.at(hi));
        if (a.at(lo) > a.at(mid)) std::swap(a.at(lo), a.at(mid));
        const float pivot = a.at(mid);
        int i = lo + 1, j = hi;
        while (j > i) {
            while (i < hi && a.at(i) <= pivot) i++;
            while (a.at(j) > pivot && j > i) j--;
            if (!(i < j)) break;
            std::swap(a.at(i), a.at(j));
            j--;
            i++;
        }
        while (i > lo && a.at(i) >= pivot) i--;
        while (j < hi && a.at(j) <= pivot) j++;
        const std::pair<int, int> left(lo, i), right(j, hi);
        // The next one is on top of the stack: the shorter side, or the one that is more than a single element.
        if (i - lo >= hi - j) {
            if (j != hi) {
                stack.push_back(left);
                stack.push_back(right);
            } else {
                stack.push_back(left);
            }
        } else {
            if (i != lo) {
                stack.push_back(right);
                stack.push_back(left);
            } else {
                stack.push_back(right);
            }
        }
    }
    return trace;
}

// A stable sort in the order of the bit patterns: negative ones by falling magnitude, then positive ones by rising.
inline void radixOrder(std::vector<uint32_t>& patterns) {
    std::stable_sort(patterns.begin(), patterns.end(), [](uint32_t p, uint32_t q) {
        const bool pNegative = p >> 31, qNegative = q >> 31;
        if (pNegative != qNegative) return pNegative;
        return pNegative ? q < p : p < q;
    });
}

} // namespace zenrref
