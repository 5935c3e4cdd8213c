// The whole-image operations by hand, on flipped and padded rows, one thread against several.
#include "image/image_ops.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "common/library.h"

// 8-bit alphas 0, 1, 254, 255 and values rounding each way; 16 bits; float unclamped.
TEST(PLPremultiply, NamedCasesBothWays) {
    const int32_t U8 = PLPixelUChar, U16 = PLPixelUShort, F = PLPixelFloat;
    const struct {
        bool un;
        int32_t type;
        float in[4], want[4];
    } cases[] = {
        {false, U8, {1, 255, 128, 128}, {1, 128, 64, 128}},  // 0.502 up, 64.25 down
        {false, U8, {1, 255, 128, 127}, {0, 127, 64, 127}},  // 0.498 down, 63.75 up
        {false, U8, {200, 255, 1, 0}, {0, 0, 0, 0}},
        {false, U8, {200, 255, 1, 255}, {200, 255, 1, 255}},
        {false, U8, {255, 128, 1, 254}, {254, 127, 1, 254}},
        {true, U8, {200, 7, 1, 0}, {200, 7, 1, 0}},             // alpha 0 leaves the pixel
        {true, U8, {50, 100, 101, 100}, {128, 255, 255, 100}},  // 127.5 rounds up; above alpha clamps
        {true, U8, {1, 253, 126, 254}, {1, 254, 126, 254}},     // 253.996 up, 126.496 down
        {true, U8, {0, 1, 2, 1}, {0, 255, 255, 1}},
        {true, U8, {200, 0, 255, 255}, {200, 0, 255, 255}},
        // 20000.3, 10000.2, 1.00002; 19999.7, clamped, 1.99997.
        {false, U16, {40000, 20000, 2, 32768}, {20000, 10000, 1, 32768}},
        {false, U16, {65535, 1234, 0, 65535}, {65535, 1234, 0, 65535}},
        {false, F, {2, .5f, -1, .25f}, {.5f, .125f, -.25f, .25f}},
        {true, U16, {10000, 40000, 1, 32768}, {20000, 65535, 2, 32768}},
        {true, F, {2, .25f, 0, .5f}, {4, .5f, 0, .5f}},
    };
    for (const auto& k : cases) {
        ImagePtr im = Pattern(1, 1, 4, k.type, [&](int32_t, int32_t, int32_t c) { return k.in[c]; });
        k.un ? PLUnpremultiply(im.get()) : PLPremultiply(im.get());
        for (int32_t c = 0; c < 4; ++c)
            EXPECT_EQ(Value(*im, 0, 0, c), k.want[c]) << k.un << " " << k.in[0] << " " << k.in[3];
    }
}

TEST(PLInvertImage, OneChannelMasks) {
    PLImage shorts(3, 1, 1, PLPixelUShort, 1), floats(2, 1, 1, PLPixelFloat, 0);
    Put<uint16_t>(shorts, 0, 0, {0, 65535, 258});
    Put<float>(floats, 0, 0, {0.25f, -0.5f});
    PLInvertImage(&shorts);
    PLInvertImage(&floats);
    EXPECT_EQ(Get<uint16_t>(shorts, 0, 0, 0), 65535);
    EXPECT_EQ(Get<uint16_t>(shorts, 1, 0, 0), 0);
    EXPECT_EQ(Get<uint16_t>(shorts, 2, 0, 0), 65277);
    EXPECT_EQ(Row0(floats), (std::vector<float>{0.75f, 1.5f}));
}

// The plug-in's copies: like types and into float, between matching images.
TEST(PLCopyChannelIntoChannel, LikeTypesAndIntoFloat) {
    PLImage shorts(6, 1, 2, PLPixelUShort, 0);
    for (int32_t x = 0; x < 6; ++x) Put<uint16_t>(shorts, x, 0, {7, uint16_t(x * 13107)});
    PLImage floats(6, 1, 3, PLPixelFloat, 1);
    FillAll<float>(floats, -1.0f);
    PLCopyChannelIntoChannel(&floats, 1, &shorts, 1);
    for (int32_t x = 0; x < 6; ++x) {
        EXPECT_EQ(Get<float>(floats, x, 0, 1), float(x * 13107)) << "the value, not normalised";
        EXPECT_EQ(Get<float>(floats, x, 0, 0), -1.0f) << "other channels untouched";
    }
    PLImage nanSource(1, 1, 1, PLPixelFloat, 0), nanTarget(1, 1, 2, PLPixelFloat, 0);
    Set<uint32_t>(nanSource, 0, 0, 0, 0x7FA12345);  // a signalling NaN survives a same-type copy
    PLCopyChannelIntoChannel(&nanTarget, 1, &nanSource, 0);
    EXPECT_EQ(Get<uint32_t>(nanTarget, 0, 0, 1), 0x7FA12345u);
}

TEST(PLFillImage, ChannelCountsWhitePointAndPadding) {
    const float colour[4] = {0.5f, 0.25f, 1.0f, 0.0f};
    OutsideImage rgb(3, 17, 3, PLPixelUShort, 1);
    PLFillImage(&rgb.image, colour);
    for (int32_t y = 0; y < 17; ++y)
        for (int32_t x = 0; x < 3; ++x) {
            ASSERT_EQ(Get<uint16_t>(rgb.image, x, y, 0), 32767);  // 32767.999 truncates
            ASSERT_EQ(Get<uint16_t>(rgb.image, x, y, 1), 16384);  // 16384.249
            ASSERT_EQ(Get<uint16_t>(rgb.image, x, y, 2), 65535);
        }
    EXPECT_TRUE(rgb.GuardsIntact());
    PLImage grey(2, 2, 1, PLPixelUChar, 0), floats(1, 1, 2, PLPixelFloat, 0);
    floats.whitePoint = 4.0f;
    for (PLImage* im : {&grey, &floats}) PLFillImage(im, colour);
    EXPECT_EQ(Get<uint8_t>(grey, 1, 1, 0), 128);
    EXPECT_EQ(Get<float>(floats, 0, 0, 0), 2.0f);
}

// One thread against three; the copy keeps the picture between row orders.
TEST(ImageOps, PaddingSurvivesAndOneThreadAndSeveralGiveTheSameBits) {
    std::vector<uint8_t> results[2];
    for (int32_t threads : {1, 3}) {
        ThreadLimit limit(threads);
        PLImage rgba(64, 101, 4, PLPixelFloat, 1), shorts(64, 101, 4, PLPixelUShort, 0);
        OutsideImage bytes(64, 101, 4, PLPixelUChar, 1), copy(64, 101, 4, PLPixelUShort, 1);
        Scribble(rgba, 11);
        Scribble(bytes.image, 12);
        Scribble(shorts, 13);
        PLUnpremultiply(&rgba);
        PLPremultiply(&bytes.image);
        PLUnpremultiply(&bytes.image);
        PLUnpremultiply(&shorts);
        PLInvertImage(&shorts);
        PLCopyChannelIntoChannel(&bytes.image, 1, &rgba, 2);
        PLCopyImage(&copy.image, &shorts);
        EXPECT_EQ(RowBytes(copy.image), RowBytes(shorts));
        for (const PLImage* im : {&rgba, &bytes.image, &copy.image})
            for (uint8_t b : RowBytes(*im)) results[threads > 1].push_back(b);
        PLClearImage(&shorts);
        PLClearImage(&bytes.image);
        EXPECT_EQ(RowBytes(shorts), std::vector<uint8_t>(64 * 101 * 8, 0));
        EXPECT_EQ(RowBytes(bytes.image), std::vector<uint8_t>(64 * 101 * 4, 0));
        EXPECT_TRUE(bytes.GuardsIntact() && copy.GuardsIntact()) << threads << " threads";
    }
    EXPECT_EQ(results[0], results[1]);
    PLClearImage(nullptr);
}

// Off the plug-in's path, one check each: integers scale unclamped, a part copy
// lands where told, the converting copy rounds and clamps into integers.
TEST(ImageOps, OffPathOperationsKeepTheirRules) {
    PLImage shorts(1, 1, 2, PLPixelUShort, 1), src(8, 6, 2, PLPixelUChar, 0), dst(20, 6, 2, PLPixelUChar, 1);
    Put<uint16_t>(shorts, 0, 0, {40000, 7});
    PLScaleImage(2.0f, &shorts);
    EXPECT_EQ(Get<uint16_t>(shorts, 0, 0, 0), 80000 - 65536) << "the low 16 bits";
    Scribble(src, 3);
    PLCopyImagePart(&dst, 10, 1, &src, 0, 2, 8, 4);
    EXPECT_EQ(Get<uint8_t>(dst, 17, 4, 1), Get<uint8_t>(src, 7, 5, 1));
    ImagePtr values = Line({-3.0f, 2.5f, 254.6f, 300.0f, 70000.0f}), bytes = MakeImage(5, 1, 1, PLPixelUChar);
    PLCopyChannelConverting(bytes.get(), 0, values.get(), 0);
    EXPECT_EQ(RowBytes(*bytes), (std::vector<uint8_t>{0, 3, 255, 255, 255}));
}
