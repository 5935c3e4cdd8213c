// The blend: the stores and clears of the four-channel row worker in each
// pixel type, the shortcuts and quiet refusals of the driver, and the older
// single-threaded blend's table from two threads at once.
#include <cmath>
#include <thread>

#include "blur/motion_blur.h"
#include "common/library.h"

namespace {

// A row of four-channel pixels, one {r, g, b, a} per column, and one read back.
ImagePtr Pixels(int32_t type, std::vector<std::vector<float>> pixels) {
    return Pattern(static_cast<int32_t>(pixels.size()), 1, 4, type,
                   [&](int32_t x, int32_t, int32_t c) { return pixels[x][c]; });
}

std::vector<float> Pixel(const PLImage& image, int32_t x) {
    return {Value(image, x, 0, 0), Value(image, x, 0, 1), Value(image, x, 0, 2), Value(image, x, 0, 3)};
}

TEST(BlendMP, StoresRoundColoursTruncateAlphaAndClearWithoutAlpha) {
    const struct {
        const char* what;
        int32_t type;
        float t;
        std::vector<float> first, second, want;
    } cases[] = {
        // 255 + (250 - 255) * 0.06 = 254.7 rounds in colour, truncates in alpha.
        {"8-bit rounding", PLPixelUChar, 0.06f, {250, 0, 255, 250}, {255, 0, 255, 255}, {255, 0, 255, 254}},
        {"colours clamp at both ends, alpha at white",
         PLPixelUChar,
         -1.0f,
         {100, 120, 60, 100},
         {250, 20, 60, 200},
         {255, 0, 60, 255}},
        {"alpha below zero clears", PLPixelUChar, -1.0f, {90, 90, 90, 100}, {10, 10, 10, 10}, {0, 0, 0, 0}},
        {"alpha at zero clears", PLPixelUChar, -1.0f, {30, 40, 50, 100}, {90, 90, 90, 50}, {0, 0, 0, 0}},
        {"16-bit rounding",
         PLPixelUShort,
         0.06f,
         {65530, 1000, 0, 65530},
         {65535, 3000, 0, 65535},
         {65535, 2880, 0, 65534}},
        {"16-bit no alpha", PLPixelUShort, 0.06f, {7, 7, 7, 0}, {7, 7, 7, 0}, {0, 0, 0, 0}},
        // Float colours are not clamped; alpha stops at white.
        {"float",
         PLPixelFloat,
         -2.0f,
         {0.85f, 0.3f, 2.5f, 0.85f},
         {1.0f, 0.1f, 0.5f, 1.0f},
         {(0.85f - 1.0f) * -2.0f + 1.0f, (0.3f - 0.1f) * -2.0f + 0.1f, (2.5f - 0.5f) * -2.0f + 0.5f, 1.0f}},
    };
    for (const auto& c : cases) {
        ImagePtr first = Pixels(c.type, {c.first});
        ASSERT_TRUE(PLBlendMP(c.t, first.get(), Pixels(c.type, {c.second}).get()));
        EXPECT_EQ(Pixel(*first, 0), c.want) << c.what;
    }
}

TEST(BlendMP, ShortcutsQuietRefusalsAndThreads) {
    auto pattern = [](int k) {
        return Pattern(5, 3, 4, PLPixelUChar, [=](int32_t x, int32_t y, int32_t c) {
            return k > 0 ? 3 * (x * 4 + c) + y : 200 - 5 * (x * 4 + c) - y;
        });
    };
    ImagePtr first = pattern(1), second = pattern(-1);
    const std::vector<uint8_t> before = RowBytes(*first);
    ImagePtr wider = MakeImage(6, 3, 4, PLPixelUChar), flipped = MakeImage(5, 3, 4, PLPixelUChar, 1),
             three = MakeImage(5, 3, 3, PLPixelUChar);
    EXPECT_TRUE(PLBlendMP(1.0f, first.get(), second.get())) << "t = 1 keeps the first image";
    EXPECT_TRUE(PLBlendMP(-1.0f, first.get(), wider.get())) << "images that differ are left alone";
    EXPECT_TRUE(PLBlendMP(-1.0f, first.get(), flipped.get())) << "another row order is left alone";
    EXPECT_TRUE(PLBlendMP(-1.0f, first.get(), three.get())) << "the older blend refuses, true all the same";
    EXPECT_EQ(RowBytes(*first), before);
    EXPECT_FALSE(PLBlendMP(-1.0f, three.get(), first.get())) << "the older blend's answer comes back";
    EXPECT_FALSE(PLBlendMP(-1.0f, nullptr, first.get()));
    EXPECT_TRUE(PLBlendMP(0.0f, first.get(), second.get()));
    EXPECT_EQ(RowBytes(*first), RowBytes(*second)) << "t = 0 copies the second image";
    // A NaN t blends: the colours and alpha it gives store as white.
    FillBytes(*first, 100);
    EXPECT_TRUE(PLBlendMP(std::nanf(""), first.get(), second.get()));
    EXPECT_EQ(RowBytes(*first), std::vector<uint8_t>(5 * 3 * 4, 255));

    std::vector<uint8_t> results[2];
    for (int32_t threads = 1; threads <= 2; ++threads) {
        ThreadLimit limit(threads);
        ImagePtr a = Pattern(30, 64, 4, PLPixelFloat, [](int32_t x, int32_t y, int32_t c) {
            return ((x * 7 + y * 3 + c) % 17) / 16.0f;
        });
        ImagePtr b = Pattern(30, 64, 4, PLPixelFloat, [](int32_t x, int32_t y, int32_t c) {
            return ((x * 5 + y * 11 + c) % 13) / 12.0f;
        });
        PLBlendMP(-0.7f, a.get(), b.get());
        results[threads - 1] = RowBytes(*a);
    }
    EXPECT_EQ(results[0], results[1]) << "one thread against two";
}

// The single-threaded blend is kept for completeness, off the plug-in's path;
// of it stays what a fault in its shared table would break.
TEST(Blend, ConcurrentCallersEachGetTheirOwnTable) {
    auto run = [](float t, std::vector<uint8_t>* result) {
        ImagePtr second =
            Pattern(256, 64, 3, PLPixelUChar, [](int32_t, int32_t y, int32_t c) { return y * 4 + c; });
        for (int repeat = 0; repeat < 20; ++repeat) {
            ImagePtr work = Pattern(256, 64, 3, PLPixelUChar, [](int32_t x, int32_t, int32_t) { return x; });
            PLBlend(t, work.get(), second.get(), 1);
            if (repeat == 0)
                *result = RowBytes(*work);
            else if (RowBytes(*work) != *result)
                return result->clear();
        }
    };
    std::vector<uint8_t> alone[2], together[2];
    run(0.25f, &alone[0]);
    run(-2.0f, &alone[1]);
    std::thread a(run, 0.25f, &together[0]), b(run, -2.0f, &together[1]);
    a.join();
    b.join();
    EXPECT_EQ(together[0], alone[0]);
    EXPECT_EQ(together[1], alone[1]);
}

}  // namespace
