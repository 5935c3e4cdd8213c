// The blend: the stores and clears of the four-channel row worker in each
// pixel type, the shortcuts and quiet refusals of the driver, and the older
// single-threaded blend with its fields and its table (exhaustively, and from
// two threads at once).
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

TEST(Blend, CompatibleImages) {
    ImagePtr a = MakeImage(4, 4, 4, PLPixelUShort), b = MakeImage(4, 4, 4, PLPixelUShort),
             rgb = MakeImage(4, 4, 3, PLPixelUShort), two = MakeImage(4, 4, 2, PLPixelUShort),
             tall = MakeImage(4, 5, 4, PLPixelUShort), flipped = MakeImage(4, 4, 4, PLPixelUShort, 1),
             fraction = MakeImage(4, 4, 4, PLPixelFractionUShort);  // same element size
    EXPECT_EQ(PLBlendCompatible(a.get(), b.get()), 1);
    EXPECT_EQ(PLBlendCompatible(rgb.get(), rgb.get()), 1);
    EXPECT_EQ(PLBlendCompatible(two.get(), two.get()), 0);
    for (const PLImage* other :
         {rgb.get(), tall.get(), flipped.get(), fraction.get(), static_cast<PLImage*>(nullptr)})
        EXPECT_EQ(PLBlendCompatible(a.get(), other), 0) << other;
}

// Every pair of 8-bit values through the three-channel table.
TEST(Blend, ThreeUCharChannelsEveryPair) {
    for (float t : {0.3f, -1.5f, 2.25f}) {
        ImagePtr first = Pattern(256, 256, 3, PLPixelUChar, [](int32_t x, int32_t, int32_t) { return x; });
        ImagePtr second = Pattern(256, 256, 3, PLPixelUChar, [](int32_t, int32_t y, int32_t) { return y; });
        ASSERT_EQ(PLBlend(t, first.get(), second.get(), 1), 1);
        for (int32_t i = 0; i < 256; ++i)
            for (int32_t j = 0; j < 256; ++j) {
                float v = static_cast<float>(i) * (1.0f - t) + static_cast<float>(j) * t + 0.5f;
                if (t < 0.0f || t > 1.0f) v = v < 0.0f ? 0.0f : (v > 255.0f ? 255.0f : v);
                ASSERT_EQ(Get<uint8_t>(*first, j, i, 2), static_cast<uint8_t>(v))
                    << "t " << t << ", " << i << ", " << j;
            }
    }
}

TEST(Blend, FieldsFourChannelsAndFloatWhite) {
    ImagePtr first = MakeImage(3, 6, 3, PLPixelUChar), second = MakeImage(3, 6, 3, PLPixelUChar);
    const struct {
        float t;
        int32_t fieldMode, firstRow, rowStep;
    } cases[] = {{0.5f, 1, 0, 1}, {0.5f, 3, 1, 2}, {0.5f, 2, 0, 2},
                 {0.0f, 3, 1, 2}, {0.0f, 0, 0, 2}, {1.0f, 1, 0, 99}};
    for (const auto& c : cases) {
        FillBytes(*first, 100);
        FillBytes(*second, 200);
        ASSERT_EQ(PLBlend(c.t, first.get(), second.get(), c.fieldMode), 1);
        for (int32_t y = 0; y < 6; ++y) {
            const bool selected = y >= c.firstRow && (y - c.firstRow) % c.rowStep == 0 && c.t != 1.0f;
            EXPECT_EQ(Get<uint8_t>(*first, 1, y, 1), selected ? (c.t == 0.0f ? 200 : 150) : 100)
                << "t " << c.t << ", field mode " << c.fieldMode << ", row " << y;
        }
    }
    // t = 2: colours (300, 60, 300) over alpha 300 are divided by 300/255;
    // colour 200 above alpha 100 is lowered to it.
    ImagePtr four = Pixels(PLPixelUChar, {{200, 60, 250, 250}, {200, 20, 0, 100}});
    ASSERT_EQ(
        PLBlend(2.0f, four.get(), Pixels(PLPixelUChar, {{100, 60, 200, 200}, {200, 20, 0, 100}}).get(), 1),
        1);
    EXPECT_EQ(Pixel(*four, 0), (std::vector<float>{255, 51, 255, 255}));
    EXPECT_EQ(Pixel(*four, 1), (std::vector<float>{100, 20, 0, 100}));

    ImagePtr f = MakeImage(2, 2, 3, PLPixelFloat), s = MakeImage(2, 2, 3, PLPixelFloat);
    s->whitePoint = 2.0f;
    testing::internal::CaptureStderr();
    EXPECT_EQ(PLBlend(0.5f, f.get(), s.get(), 1), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "PLBlend: float image doesn't have 1.0 for white point\n");
}

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
