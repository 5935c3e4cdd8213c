// The whole-image operations against values derived by hand or in closed form,
// flipped and padded rows, the guards that make a no-op, one thread against several.
#include "image/image_ops.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "common/library.h"

// Every 8-bit code against exact rounding: c * a / 255 never lies within 1/510
// of a rounding boundary, far more than the float error.
TEST(PLPremultiply, EveryEightBitCode) {
    PLImage image(256, 256, 4, PLPixelUChar, 0);
    for (int32_t a = 0; a < 256; ++a)
        for (int32_t c = 0; c < 256; ++c)
            Put<uint8_t>(image, c, a, {uint8_t(c), uint8_t(255 - c), uint8_t(c / 2), uint8_t(a)});
    PLPremultiply(&image);
    for (int32_t a = 0; a < 256; ++a)
        for (int32_t c = 0; c < 256; ++c) {
            ASSERT_EQ(Get<uint8_t>(image, c, a, 0), (2 * c * a + 255) / 510) << "c " << c << " a " << a;
            ASSERT_EQ(Get<uint8_t>(image, c, a, 1), (2 * (255 - c) * a + 255) / 510);
            ASSERT_EQ(Get<uint8_t>(image, c, a, 3), a);
        }
}

TEST(PLUnpremultiply, EveryEightBitCode) {
    PLImage image(256, 256, 4, PLPixelUChar, 0);
    for (int32_t a = 0; a < 256; ++a)
        for (int32_t c = 0; c < 256; ++c) Put<uint8_t>(image, c, a, {uint8_t(c), 7, 0, uint8_t(a)});
    PLUnpremultiply(&image);
    int ties = 0;
    for (int32_t c = 0; c < 256; ++c) {
        ASSERT_EQ(Get<uint8_t>(image, c, 0, 0), c) << "alpha 0 leaves the pixel";
        ASSERT_EQ(Get<uint8_t>(image, c, 0, 1), 7);
    }
    for (int32_t a = 1; a < 256; ++a)
        for (int32_t c = 0; c < 256; ++c) {
            const int32_t got = Get<uint8_t>(image, c, a, 0), twice = 2 * c * 255 / a;
            if (c >= a) {
                ASSERT_EQ(got, 255) << "c " << c << " a " << a;
            } else if ((2 * c * 255) % a == 0 && twice % 2 == 1) {  // halfway: an inexact float quotient
                ++ties;
                ASSERT_TRUE(got == twice / 2 || got == (twice + 1) / 2);
            } else {
                ASSERT_EQ(got, (2 * c * 255 + a) / (2 * a)) << "c " << c << " a " << a;
            }
        }
    EXPECT_GT(ties, 0);
    EXPECT_EQ(Get<uint8_t>(image, 50, 100, 0), 128) << "50 * 255 / 100 is 127.5: half rounds up";
}

// 16 bits and float, by hand; float is not clamped; a float image with another
// white point and a three-channel image are left alone.
TEST(PLPremultiply, SixteenBitFloatAndImagesLeftAlone) {
    const struct {
        bool un;
        int32_t type;
        float in[4], want[4];
    } cases[] = {
        // 20000.3, 10000.2, 1.00002; 19999.7, clamped, 1.99997.
        {false, PLPixelUShort, {40000, 20000, 2, 32768}, {20000, 10000, 1, 32768}},
        {false, PLPixelUShort, {65535, 1234, 0, 65535}, {65535, 1234, 0, 65535}},
        {false, PLPixelFloat, {2, .5f, -1, .25f}, {.5f, .125f, -.25f, .25f}},
        {true, PLPixelUShort, {10000, 40000, 1, 32768}, {20000, 65535, 2, 32768}},
        {true, PLPixelFloat, {2, .25f, 0, .5f}, {4, .5f, 0, .5f}},
    };
    for (const auto& k : cases) {
        ImagePtr im = Pattern(1, 1, 4, k.type, [&](int32_t, int32_t, int32_t c) { return k.in[c]; });
        k.un ? PLUnpremultiply(im.get()) : PLPremultiply(im.get());
        for (int32_t c = 0; c < 4; ++c) EXPECT_EQ(Value(*im, 0, 0, c), k.want[c]) << k.un << " " << k.in[0];
    }
    PLImage floats(1, 1, 4, PLPixelFloat, 0), rgb(1, 1, 3, PLPixelUChar, 0);
    Put<float>(floats, 0, 0, {0.5f, 0.5f, 0.5f, 0.25f});
    Put<uint8_t>(rgb, 0, 0, {200, 100, 0});
    floats.whitePoint = 255.0f;
    for (PLImage* im : {&floats, &rgb}) {
        PLPremultiply(im);
        PLUnpremultiply(im);
    }
    EXPECT_EQ(Get<float>(floats, 0, 0, 0), 0.5f);
    EXPECT_EQ(Get<uint8_t>(rgb, 0, 0, 0), 200);
}

TEST(PLInvertImage, OneChannelWholeRowsWiderImagesOnlyTheFirstWidthElements) {
    PLImage shorts(3, 1, 1, PLPixelUShort, 1);
    Put<uint16_t>(shorts, 0, 0, {0, 65535, 258});
    PLInvertImage(&shorts);
    EXPECT_EQ(Get<uint16_t>(shorts, 0, 0, 0), 65535);
    EXPECT_EQ(Get<uint16_t>(shorts, 1, 0, 0), 0);
    EXPECT_EQ(Get<uint16_t>(shorts, 2, 0, 0), 65277);

    PLImage rgba(4, 2, 4, PLPixelFloat, 0);
    FillAll<float>(rgba, 0.25f);
    PLInvertImage(&rgba);
    for (int32_t y = 0; y < 2; ++y)
        for (int32_t i = 0; i < 16; ++i)
            EXPECT_EQ(Get<float>(rgba, i / 4, y, i % 4), i < 4 ? 0.75f : 0.25f)
                << "element " << i << " row " << y;
}

// The plug-in copies between like types and into float; conversions into
// integers are off its path.
TEST(PLCopyChannelIntoChannel, LikeTypesAndIntoFloatAndGuards) {
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

    PLImage a(4, 4, 2, PLPixelUChar, 0), taller(4, 5, 2, PLPixelUChar, 0), c(4, 4, 2, PLPixelUShort, 0);
    std::memset(a.data, 1, 32);
    testing::internal::CaptureStderr();
    PLCopyChannelIntoChannel(&a, 0, &taller, 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "CopyCHannelIntoCHannel: incompatible images!\n");
    PLCopyChannelIntoChannel(&a, 2, &c, 0);
    PLCopyChannelIntoChannel(&a, 0, &c, 2);
    PLCopyChannelIntoChannel(&a, -1, &c, 0);
    for (int32_t i = 0; i < 32; ++i) ASSERT_EQ(a.data[i], 1) << "mismatch or channel out of range";
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
    PLImage grey(2, 2, 1, PLPixelUChar, 0), floats(1, 1, 2, PLPixelFloat, 0), five(2, 1, 5, PLPixelUChar, 0);
    floats.whitePoint = 4.0f;
    FillAll<uint8_t>(five, 7);
    for (PLImage* im : {&grey, &floats, &five}) PLFillImage(im, colour);
    EXPECT_EQ(Get<uint8_t>(grey, 1, 1, 0), 128);
    EXPECT_EQ(Get<float>(floats, 0, 0, 0), 2.0f);
    EXPECT_EQ(RowBytes(five), std::vector<uint8_t>(10, 7)) << "five channels are left alone";
}

// One thread against three; the copy keeps the picture between row orders and
// refuses a smaller source, which it would read past its end.
TEST(ImageOps, PaddingSurvivesAndOneThreadAndSeveralGiveTheSameBits) {
    std::vector<uint8_t> results[2];
    for (int32_t threads : {1, 3}) {
        ThreadLimit limit(threads);
        PLImage rgba(64, 101, 4, PLPixelFloat, 1), shorts(64, 101, 4, PLPixelUShort, 0),
            shorter(64, 100, 4, PLPixelUShort, 0), narrower(63, 101, 4, PLPixelUShort, 0);
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
        PLCopyImage(&copy.image, &shorter);
        PLCopyImage(&copy.image, &narrower);
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

// Kept for completeness, off the plug-in's path, one check each: integers scale
// without a clamp, a part copy lands where it is told, the converting copy
// rounds and clamps into integers.
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
