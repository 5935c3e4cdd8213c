// The blend: stores and clears per pixel type, shortcuts, threads, the older blend's table.
#include <cmath>
#include <thread>

#include "blur/motion_blur.h"
#include "common/library.h"

namespace {

// A w x 1 four-channel image, every pixel {r, g, b, a}.
ImagePtr Pixel(int32_t type, const float (&rgba)[4], int32_t w = 1) {
    return Pattern(w, 1, 4, type, [&](int32_t, int32_t, int32_t c) { return rgba[c]; });
}

TEST(BlendMP, StoresRoundColoursTruncateAlphaAndClearWithoutAlpha) {
    const int32_t U8 = PLPixelUChar, U16 = PLPixelUShort, F = PLPixelFloat;
    const auto e = [](float a, float b) { return (a - b) * -2.0f + b; };  // float colours don't clamp
    const struct {
        const char* what;
        int32_t type;
        float t, first[4], second[4], want[4];
    } cases[] = {
        // 255 + (250 - 255) * 0.06 = 254.7 rounds in colour, truncates in alpha.
        {"8-bit round", U8, 0.06f, {250, 0, 255, 250}, {255, 0, 255, 255}, {255, 0, 255, 254}},
        {"8-bit clamps, alpha at white", U8, -1, {100, 120, 60, 100}, {250, 20, 60, 200}, {255, 0, 60, 255}},
        {"alpha below zero clears", U8, -1, {90, 90, 90, 100}, {10, 10, 10, 10}, {0, 0, 0, 0}},
        {"alpha at zero clears", U8, -1, {30, 40, 50, 100}, {90, 90, 90, 50}, {0, 0, 0, 0}},
        {"16-bit", U16, .06f, {65530, 1000, 0, 65530}, {65535, 3000, 0, 65535}, {65535, 2880, 0, 65534}},
        {"16-bit no alpha", U16, 0.06f, {7, 7, 7, 0}, {7, 7, 7, 0}, {0, 0, 0, 0}},
        {"float", F, -2, {.8f, .3f, 2.5f, .8f}, {1, .1f, .5f, 1}, {e(.8f, 1), e(.3f, .1f), e(2.5f, .5f), 1}},
    };
    for (const auto& c : cases) {
        ImagePtr first = Pixel(c.type, c.first);
        ASSERT_TRUE(PLBlendMP(c.t, first.get(), Pixel(c.type, c.second).get()));
        for (int32_t ch = 0; ch < 4; ++ch)
            EXPECT_EQ(Value(*first, 0, 0, ch), c.want[ch]) << c.what << " " << ch;
    }
}

TEST(BlendMP, ShortcutsNaNAndThreads) {
    ImagePtr first = MakeImage(5, 3, 4, PLPixelUChar), second = MakeImage(5, 3, 4, PLPixelUChar);
    Scribble(*first, 1);
    Scribble(*second, 2);
    const std::vector<uint8_t> before = RowBytes(*first);
    EXPECT_TRUE(PLBlendMP(1.0f, first.get(), second.get())) << "t = 1 keeps the first image";
    EXPECT_EQ(RowBytes(*first), before);
    EXPECT_TRUE(PLBlendMP(0.0f, first.get(), second.get()));
    EXPECT_EQ(RowBytes(*first), RowBytes(*second)) << "t = 0 copies the second image";
    // A NaN t blends: the colours and alpha it gives store as white.
    FillBytes(*first, 100);
    EXPECT_TRUE(PLBlendMP(std::nanf(""), first.get(), second.get()));
    EXPECT_EQ(RowBytes(*first), std::vector<uint8_t>(5 * 3 * 4, 255));

    std::vector<uint8_t> results[2];
    ImagePtr b = MakeImage(30, 64, 4, PLPixelFloat);
    FillNoise(*b, 2);
    for (int32_t threads = 1; threads <= 2; ++threads) {
        ThreadLimit limit(threads);
        ImagePtr a = MakeImage(30, 64, 4, PLPixelFloat);
        FillNoise(*a, 1);
        PLBlendMP(-0.7f, a.get(), b.get());
        results[threads - 1] = RowBytes(*a);
    }
    EXPECT_EQ(results[0], results[1]) << "one thread against two";
}

// The single-threaded blend is off the plug-in's path: only its shared table is checked.
TEST(Blend, ConcurrentCallersEachGetTheirOwnTable) {
    auto run = [](float t, std::vector<uint8_t>* result) {
        ImagePtr second =
            Pattern(256, 64, 3, PLPixelUChar, [](int32_t, int32_t y, int32_t c) { return y * 4 + c; });
        for (int repeat = 0; repeat < 20; ++repeat) {
            ImagePtr work = Pattern(256, 64, 3, PLPixelUChar, [](int32_t x, int32_t, int32_t) { return x; });
            PLBlend(t, work.get(), second.get(), 1);
            if (repeat == 0) *result = RowBytes(*work);
            if (RowBytes(*work) != *result) return result->clear();
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
