// Exported functions called with a stack that is aligned to 4 bytes only, as callers built for the older 32-bit
// convention do: results are those of an ordinary call, and nothing faults.
#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include <vector>

#include "zencore.h"
#include "zenr.h"

namespace {

// Calls a C function whose arguments are 32-bit words, with the stack pointer (at the call instruction, where the
// convention asks for a multiple of 16) `shift` bytes below one.
int callShifted(const void* function, const std::vector<uint32_t>& words, int shift) {
    const int below = ((shift - 4 * int(words.size())) % 16 + 16) % 16;
    int result;
    int count = int(words.size());
    asm volatile("movl %%esp, %%esi\n\t"
                 "andl $-16, %%esp\n\t"
                 "subl %%ecx, %%esp\n\t"
                 "1: testl %%edx, %%edx\n\t"
                 "jz 2f\n\t"
                 "decl %%edx\n\t"
                 "pushl (%%edi,%%edx,4)\n\t"
                 "jmp 1b\n\t"
                 "2: call *%%eax\n\t"
                 "movl %%esi, %%esp"
                 : "=a"(result), "+d"(count)
                 : "a"(function), "D"(words.data()), "c"(below)
                 : "esi", "memory", "cc", "xmm0", "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "xmm6", "xmm7");
    return result;
}

uint32_t word(const void* p) {
    return uint32_t(reinterpret_cast<uintptr_t>(p));
}
uint32_t word(int value) {
    return uint32_t(value);
}
template <class F> const void* address(F* function) {
    return reinterpret_cast<const void*>(function);
}

// Where the stack pointer stood before the call, modulo 16.
__attribute__((noinline)) int stackAtCall() {
    return int((reinterpret_cast<uintptr_t>(__builtin_frame_address(0)) + 8) % 16);
}

constexpr int kShifts[] = {0, 4, 8, 12};

TEST(Stack, TheHarnessShiftsIt) {
    for (int shift : kShifts) {
        EXPECT_EQ(callShifted(address(&stackAtCall), {}, shift), (16 - shift) % 16);
        EXPECT_EQ(callShifted(address(&stackAtCall), {1, 2, 3}, shift), (16 - shift) % 16);
    }
}

TEST(Stack, CoreLibrary) {
    for (int shift : kShifts) {
        EXPECT_GE(callShifted(address(&ownGetNumThreads), {}, shift), 1);
        const int block = callShifted(address(&zenMalloc), {1000}, shift);
        ASSERT_NE(block, 0);
        EXPECT_EQ(block % 64, 0);
        callShifted(address(&zenFree), {word(block)}, shift);
    }
}

TEST(Stack, SceneAndIntersection) {
    const float vertices[] = {-1, -1, 2, 1, -1, 2, 0, 1, 2.5f, -2, -2, 4, 2, -2, 4, 0, 2, 4};
    const int triangles[] = {0, 1, 2, 0, 3, 4, 5, 0};
    constexpr int kWidth = 40, kHeight = 10, kRays = kWidth * kHeight;
    std::vector<float> d[3], hit[2], distance(kRays), expected;
    for (auto& plane : d) plane.resize(kRays, 1.f);
    for (auto& plane : hit) plane.resize(kRays);
    for (int i = 0; i < kRays; ++i) {
        d[0][i] = (i % kWidth - 20) * .03f;
        d[1][i] = (i / kWidth - 5) * .1f;
    }
    const float origin[3] = {.01f, .02f, 0};
    const float* const direction[3] = {d[0].data(), d[1].data(), d[2].data()};
    float* const weights[2] = {hit[0].data(), hit[1].data()};
    std::vector<int> triangle(kRays), expectedTriangle;
    for (int shift : kShifts) {
        float box[6];
        ZenrTriangleAccel accel[2];
        ZenrKDTreeBuildParams params = {};
        params.tag = zenKDTBuildSimple;
        ZenrKDTreeNode* tree = nullptr;
        int size = 0;
        EXPECT_EQ(callShifted(address(&zenrSetBoundBox_32f), {word(vertices), 6, word(box)}, shift), 0);
        EXPECT_EQ(
            callShifted(address(&zenrTriangleAccelInit), {word(accel), word(vertices), word(triangles), 2}, shift), 0);
        ASSERT_EQ(callShifted(address(&zenrKDTreeBuildAlloc),
                              {word(&tree), word(vertices), word(triangles), 6, 2, word(&size), word(&params)}, shift),
                  0);
        const ZenrIntersectContext context = {box, accel, tree};
        distance.assign(kRays, 100.f);
        EXPECT_EQ(callShifted(address(&zenrIntersectEyeSO_32f),
                              {word(origin), word(direction), word(distance.data()), word(weights),
                               word(triangle.data()), word(&context), word(kWidth), word(kHeight)},
                              shift),
                  0);
        callShifted(address(&zenrKDTreeFree), {word(tree)}, shift);
        if (shift == 0) {
            expected = distance;
            expectedTriangle = triangle;
            EXPECT_NE(std::vector<int>(kRays, -1), triangle) << "no ray hits anything";
        }
        EXPECT_EQ(0, memcmp(expected.data(), distance.data(), kRays * sizeof(float)));
        EXPECT_EQ(expectedTriangle, triangle);
    }
}

} // namespace
