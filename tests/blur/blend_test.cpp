// The blend: the stores and clears of the four-channel row worker in each
// pixel type, the shortcuts and quiet refusals of the driver, and the older
// single-threaded blend with its fields and its table (exhaustively, and from
// two threads at once).
#include <cmath>
#include <thread>

#include "blur_test_util.h"
#include "kqmp.h"
#include "motion_blur.h"

namespace {

template <typename T>
void SetPixel(PLImage& image, int32_t x, int32_t y, T r, T g, T b, T a) {
    At<T>(image, x, y, 0) = r;
    At<T>(image, x, y, 1) = g;
    At<T>(image, x, y, 2) = b;
    At<T>(image, x, y, 3) = a;
}

template <typename T>
std::vector<T> Pixel(const PLImage& image, int32_t x, int32_t y) {
    std::vector<T> values;
    for (int32_t c = 0; c < image.numChannels; ++c) values.push_back(At<T>(image, x, y, c));
    return values;
}

TEST(BlendMP, UCharRoundsColoursTruncatesAlphaAndClearsWithoutAlpha) {
    ImagePtr first = MakeImage(4, 1, 4, PLPixelUChar);
    ImagePtr second = MakeImage(4, 1, 4, PLPixelUChar);
    // 255 + (250 - 255) * 0.06 = 254.7 in colour and in alpha.
    SetPixel<uint8_t>(*first, 0, 0, 250, 0, 255, 250);
    SetPixel<uint8_t>(*second, 0, 0, 255, 0, 255, 255);
    ASSERT_TRUE(PLBlendMP(0.06f, first.get(), second.get()));
    EXPECT_EQ(Pixel<uint8_t>(*first, 0, 0), (std::vector<uint8_t>{255, 0, 255, 254}));

    // t = -1: colours overshoot and clamp at both ends, alpha stops at white.
    SetPixel<uint8_t>(*first, 1, 0, 100, 120, 60, 100);
    SetPixel<uint8_t>(*second, 1, 0, 250, 20, 60, 200);
    // Extrapolated alpha below zero, and exactly zero: the pixel is cleared.
    SetPixel<uint8_t>(*first, 2, 0, 90, 90, 90, 100);
    SetPixel<uint8_t>(*second, 2, 0, 10, 10, 10, 10);
    SetPixel<uint8_t>(*first, 3, 0, 30, 40, 50, 100);
    SetPixel<uint8_t>(*second, 3, 0, 90, 90, 90, 50);
    ASSERT_TRUE(PLBlendMP(-1.0f, first.get(), second.get()));
    EXPECT_EQ(Pixel<uint8_t>(*first, 1, 0), (std::vector<uint8_t>{255, 0, 60, 255}));
    EXPECT_EQ(Pixel<uint8_t>(*first, 2, 0), (std::vector<uint8_t>{0, 0, 0, 0}));
    EXPECT_EQ(Pixel<uint8_t>(*first, 3, 0), (std::vector<uint8_t>{0, 0, 0, 0}));
}

TEST(BlendMP, UShortAndFloatStores) {
    ImagePtr first = MakeImage(2, 1, 4, PLPixelUShort);
    ImagePtr second = MakeImage(2, 1, 4, PLPixelUShort);
    // 65535 + (65530 - 65535) * 0.06 = 65534.7.
    SetPixel<uint16_t>(*first, 0, 0, 65530, 1000, 0, 65530);
    SetPixel<uint16_t>(*second, 0, 0, 65535, 3000, 0, 65535);
    SetPixel<uint16_t>(*first, 1, 0, 7, 7, 7, 0);
    SetPixel<uint16_t>(*second, 1, 0, 7, 7, 7, 0);
    ASSERT_TRUE(PLBlendMP(0.06f, first.get(), second.get()));
    EXPECT_EQ(Pixel<uint16_t>(*first, 0, 0), (std::vector<uint16_t>{65535, 2880, 0, 65534}));
    EXPECT_EQ(Pixel<uint16_t>(*first, 1, 0), (std::vector<uint16_t>{0, 0, 0, 0})) << "no alpha, no colour";

    ImagePtr f = MakeImage(1, 1, 4, PLPixelFloat);
    ImagePtr s = MakeImage(1, 1, 4, PLPixelFloat);
    SetPixel<float>(*f, 0, 0, 0.85f, 0.3f, 2.5f, 0.85f);
    SetPixel<float>(*s, 0, 0, 1.0f, 0.1f, 0.5f, 1.0f);
    ASSERT_TRUE(PLBlendMP(-2.0f, f.get(), s.get()));
    const float colour = (0.85f - 1.0f) * -2.0f + 1.0f;
    ASSERT_GT(colour, 1.29f);
    EXPECT_EQ(Pixel<float>(*f, 0, 0),
              (std::vector<float>{colour, (0.3f - 0.1f) * -2.0f + 0.1f, (2.5f - 0.5f) * -2.0f + 0.5f, 1.0f}))
        << "float colours are not clamped; alpha stops at white";
}

TEST(BlendMP, ShortcutsAndQuietRefusals) {
    ImagePtr first = MakeImage(5, 3, 4, PLPixelUChar);
    ImagePtr second = MakeImage(5, 3, 4, PLPixelUChar);
    for (int32_t y = 0; y < 3; ++y)
        for (int32_t i = 0; i < 20; ++i) {
            first->Row(y)[i] = static_cast<uint8_t>(3 * i + y);
            second->Row(y)[i] = static_cast<uint8_t>(200 - 5 * i - y);
        }
    const std::vector<uint8_t> before = RowBytes(*first);

    EXPECT_TRUE(PLBlendMP(1.0f, first.get(), second.get()));
    EXPECT_EQ(RowBytes(*first), before) << "t = 1 keeps the first image";

    ImagePtr wider = MakeImage(6, 3, 4, PLPixelUChar);
    EXPECT_TRUE(PLBlendMP(-1.0f, first.get(), wider.get()));
    EXPECT_EQ(RowBytes(*first), before) << "images that differ are left alone";

    ImagePtr flipped = MakeImage(5, 3, 4, PLPixelUChar, 1);
    EXPECT_TRUE(PLBlendMP(-1.0f, first.get(), flipped.get()));
    EXPECT_EQ(RowBytes(*first), before) << "another row order is left alone";

    ImagePtr threeChannels = MakeImage(5, 3, 3, PLPixelUChar);
    EXPECT_TRUE(PLBlendMP(-1.0f, first.get(), threeChannels.get()))
        << "the older blend refuses, true all the same";
    EXPECT_EQ(RowBytes(*first), before);
    EXPECT_FALSE(PLBlendMP(-1.0f, threeChannels.get(), first.get())) << "the older blend's answer comes back";
    EXPECT_FALSE(PLBlendMP(-1.0f, nullptr, first.get()));

    EXPECT_TRUE(PLBlendMP(0.0f, first.get(), second.get()));
    EXPECT_EQ(RowBytes(*first), RowBytes(*second)) << "t = 0 copies the second image";

    // A NaN t blends: the alpha it gives is not above white, so it is white.
    ImagePtr again = MakeImage(5, 3, 4, PLPixelUChar);
    FillBytes(*again, 100);
    EXPECT_TRUE(PLBlendMP(std::nanf(""), again.get(), second.get()));
    for (int32_t y = 0; y < 3; ++y)
        for (int32_t x = 0; x < 5; ++x) EXPECT_EQ(At<uint8_t>(*again, x, y, 3), 255);
}

TEST(BlendMP, ThreadCountDoesNotChangeTheResult) {
    std::vector<uint8_t> results[2];
    for (int32_t threads = 1; threads <= 2; ++threads) {
        setThreadCount(threads);
        ImagePtr first = MakeImage(30, 64, 4, PLPixelFloat);
        ImagePtr second = MakeImage(30, 64, 4, PLPixelFloat);
        for (int32_t y = 0; y < 64; ++y)
            for (int32_t x = 0; x < 30; ++x)
                for (int32_t c = 0; c < 4; ++c) {
                    At<float>(*first, x, y, c) = static_cast<float>((x * 7 + y * 3 + c) % 17) / 16.0f;
                    At<float>(*second, x, y, c) = static_cast<float>((x * 5 + y * 11 + c) % 13) / 12.0f;
                }
        PLBlendMP(-0.7f, first.get(), second.get());
        results[threads - 1] = RowBytes(*first);
    }
    setThreadCount(0);
    EXPECT_EQ(results[0], results[1]);
}

TEST(BlendCompatible, AgreementAndChannelCounts) {
    ImagePtr a = MakeImage(4, 4, 4, PLPixelUShort);
    ImagePtr b = MakeImage(4, 4, 4, PLPixelUShort);
    ImagePtr rgb = MakeImage(4, 4, 3, PLPixelUShort);
    ImagePtr rgb2 = MakeImage(4, 4, 3, PLPixelUShort);
    ImagePtr two = MakeImage(4, 4, 2, PLPixelUShort);
    ImagePtr two2 = MakeImage(4, 4, 2, PLPixelUShort);
    ImagePtr tall = MakeImage(4, 5, 4, PLPixelUShort);
    ImagePtr flipped = MakeImage(4, 4, 4, PLPixelUShort, 1);
    ImagePtr fraction = MakeImage(4, 4, 4, PLPixelFractionUShort);  // same element size
    EXPECT_EQ(PLBlendCompatible(a.get(), b.get()), 1);
    EXPECT_EQ(PLBlendCompatible(rgb.get(), rgb2.get()), 1);
    EXPECT_EQ(PLBlendCompatible(two.get(), two2.get()), 0);
    EXPECT_EQ(PLBlendCompatible(a.get(), rgb.get()), 0);
    EXPECT_EQ(PLBlendCompatible(a.get(), tall.get()), 0);
    EXPECT_EQ(PLBlendCompatible(a.get(), flipped.get()), 0);
    EXPECT_EQ(PLBlendCompatible(a.get(), fraction.get()), 0);
    EXPECT_EQ(PLBlendCompatible(a.get(), nullptr), 0);
}

// Every pair of 8-bit values through the three-channel table.
TEST(Blend, ThreeUCharChannelsEveryPair) {
    ImagePtr first = MakeImage(256, 256, 3, PLPixelUChar);
    ImagePtr second = MakeImage(256, 256, 3, PLPixelUChar);
    for (float t : {0.3f, -1.5f, 2.25f}) {
        for (int32_t i = 0; i < 256; ++i)
            for (int32_t j = 0; j < 256; ++j)
                for (int32_t c = 0; c < 3; ++c) {
                    At<uint8_t>(*second, j, i, c) = static_cast<uint8_t>(i);
                    At<uint8_t>(*first, j, i, c) = static_cast<uint8_t>(j);
                }
        ASSERT_EQ(PLBlend(t, first.get(), second.get(), 1), 1);
        for (int32_t i = 0; i < 256; ++i)
            for (int32_t j = 0; j < 256; ++j) {
                float v = static_cast<float>(i) * (1.0f - t) + static_cast<float>(j) * t + 0.5f;
                if (t < 0.0f || t > 1.0f) v = v < 0.0f ? 0.0f : (v > 255.0f ? 255.0f : v);
                ASSERT_EQ(At<uint8_t>(*first, j, i, 2), static_cast<uint8_t>(v))
                    << "t " << t << ", " << i << ", " << j;
            }
    }
}

TEST(Blend, FieldsShortcutsAndFloatWhite) {
    ImagePtr first = MakeImage(3, 6, 3, PLPixelUChar);
    ImagePtr second = MakeImage(3, 6, 3, PLPixelUChar);
    struct Case {
        float t;
        int32_t fieldMode;
        int32_t firstRow, rowStep;
    };
    for (const Case& c : {Case{0.5f, 1, 0, 1}, Case{0.5f, 3, 1, 2}, Case{0.5f, 2, 0, 2}, Case{0.0f, 3, 1, 2},
                          Case{0.0f, 0, 0, 2}}) {
        FillBytes(*first, 100);
        FillBytes(*second, 200);
        ASSERT_EQ(PLBlend(c.t, first.get(), second.get(), c.fieldMode), 1);
        const uint8_t blended = c.t == 0.0f ? 200 : 150;
        for (int32_t y = 0; y < 6; ++y) {
            const bool selected = y >= c.firstRow && (y - c.firstRow) % c.rowStep == 0;
            EXPECT_EQ(At<uint8_t>(*first, 1, y, 1), selected ? blended : 100)
                << "t " << c.t << ", field mode " << c.fieldMode << ", row " << y;
        }
    }
    FillBytes(*first, 100);
    EXPECT_EQ(PLBlend(1.0f, first.get(), second.get(), 1), 1);
    EXPECT_EQ(At<uint8_t>(*first, 0, 0), 100);

    ImagePtr f = MakeImage(2, 2, 3, PLPixelFloat);
    ImagePtr s = MakeImage(2, 2, 3, PLPixelFloat);
    FillBytes(*f, 0);
    FillBytes(*s, 0);
    s->whitePoint = 2.0f;
    testing::internal::CaptureStderr();
    EXPECT_EQ(PLBlend(0.5f, f.get(), s.get(), 1), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "PLBlend: float image doesn't have 1.0 for white point\n");
}

TEST(Blend, FourChannelsDivideOutAlphaAboveWhite) {
    ImagePtr first = MakeImage(2, 1, 4, PLPixelUChar);
    ImagePtr second = MakeImage(2, 1, 4, PLPixelUChar);
    // t = 2: colours (300, 60, 300), alpha 300, a ratio of 300/255 divides the colours.
    SetPixel<uint8_t>(*first, 0, 0, 200, 60, 250, 250);
    SetPixel<uint8_t>(*second, 0, 0, 100, 60, 200, 200);
    // Colour 200 above alpha 100 is lowered to it.
    SetPixel<uint8_t>(*first, 1, 0, 200, 20, 0, 100);
    SetPixel<uint8_t>(*second, 1, 0, 200, 20, 0, 100);
    ASSERT_EQ(PLBlend(2.0f, first.get(), second.get(), 1), 1);
    EXPECT_EQ(Pixel<uint8_t>(*first, 0, 0), (std::vector<uint8_t>{255, 51, 255, 255}));
    EXPECT_EQ(Pixel<uint8_t>(*first, 1, 0), (std::vector<uint8_t>{100, 20, 0, 100}));
}

TEST(Blend, ConcurrentCallersEachGetTheirOwnTable) {
    auto run = [](float t, std::vector<uint8_t>* result) {
        ImagePtr first = MakeImage(256, 64, 3, PLPixelUChar);
        ImagePtr second = MakeImage(256, 64, 3, PLPixelUChar);
        for (int32_t y = 0; y < 64; ++y)
            for (int32_t i = 0; i < 256 * 3; ++i) {
                first->Row(y)[i] = static_cast<uint8_t>(i / 3);
                second->Row(y)[i] = static_cast<uint8_t>(y * 4 + i % 3);
            }
        for (int repeat = 0; repeat < 20; ++repeat) {
            ImagePtr work = MakeImage(256, 64, 3, PLPixelUChar);
            for (int32_t y = 0; y < 64; ++y) std::memcpy(work->Row(y), first->Row(y), 256 * 3);
            PLBlend(t, work.get(), second.get(), 1);
            if (repeat == 0) {
                *result = RowBytes(*work);
            } else if (RowBytes(*work) != *result) {
                result->clear();
                return;
            }
        }
    };
    std::vector<uint8_t> alone[2], together[2];
    run(0.25f, &alone[0]);
    run(-2.0f, &alone[1]);
    std::thread a(run, 0.25f, &together[0]);
    std::thread b(run, -2.0f, &together[1]);
    a.join();
    b.join();
    EXPECT_EQ(together[0], alone[0]);
    EXPECT_EQ(together[1], alone[1]);
}

}  // namespace
