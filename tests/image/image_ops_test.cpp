// Tests of the whole-image operations: the arithmetic of each against values
// derived by hand or in closed form, flipped rows and padding, the guards that
// turn out-of-range input into a no-op, and one thread against several.
#include "image/image_ops.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "common/library.h"

TEST(PLPremultiply, EveryEightBitCodeSixteenBitFloatAndRejectedImages) {
    // c * a / 255 never lies within 1/510 of a rounding boundary, far more than
    // the float error, so the single-precision path must equal exact rounding.
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

    PLImage shorts(2, 1, 4, PLPixelUShort, 0);
    Put<uint16_t>(shorts, 0, 0, {40000, 20000, 2, 32768});
    Put<uint16_t>(shorts, 1, 0, {65535, 1234, 0, 65535});
    PLPremultiply(&shorts);
    EXPECT_EQ(Get<uint16_t>(shorts, 0, 0, 0), 20000);  // 20000.305
    EXPECT_EQ(Get<uint16_t>(shorts, 0, 0, 1), 10000);  // 10000.153
    EXPECT_EQ(Get<uint16_t>(shorts, 0, 0, 2), 1);      // 1.00002 + 0.5
    EXPECT_EQ(Get<uint16_t>(shorts, 1, 0, 1), 1234);

    PLImage floats(1, 1, 4, PLPixelFloat, 0);
    Put<float>(floats, 0, 0, {2.0f, 0.5f, -1.0f, 0.25f});
    PLPremultiply(&floats);
    EXPECT_EQ(Get<float>(floats, 0, 0, 0), 0.5f);
    EXPECT_EQ(Get<float>(floats, 0, 0, 2), -0.25f);
    EXPECT_EQ(Get<float>(floats, 0, 0, 3), 0.25f);
    floats.whitePoint = 255.0f;
    PLPremultiply(&floats);
    PLUnpremultiply(&floats);
    EXPECT_EQ(Get<float>(floats, 0, 0, 0), 0.5f) << "a float image with another white point is left alone";
    PLImage rgb(1, 1, 3, PLPixelUChar, 0);
    Put<uint8_t>(rgb, 0, 0, {200, 100, 0});
    PLPremultiply(&rgb);
    PLUnpremultiply(&rgb);
    EXPECT_EQ(Get<uint8_t>(rgb, 0, 0, 0), 200) << "three channels are left alone";
}

TEST(PLUnpremultiply, EveryEightBitCodeSixteenBitAndFloat) {
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
            const int32_t got = Get<uint8_t>(image, c, a, 0);
            if (c >= a) {
                ASSERT_EQ(got, 255) << "c " << c << " a " << a;
            } else if ((2 * c * 255) % a == 0 && (2 * c * 255 / a) % 2 == 1) {
                // Exactly halfway: rounds through an inexact float quotient.
                ++ties;
                ASSERT_TRUE(got == (2 * c * 255 / a) / 2 || got == (2 * c * 255 / a + 1) / 2);
            } else {
                ASSERT_EQ(got, (2 * c * 255 + a) / (2 * a)) << "c " << c << " a " << a;
            }
        }
    EXPECT_GT(ties, 0);
    EXPECT_EQ(Get<uint8_t>(image, 50, 100, 0), 128) << "50 * 255 / 100 is 127.5: half rounds up";

    PLImage shorts(1, 1, 4, PLPixelUShort, 0);
    Put<uint16_t>(shorts, 0, 0, {10000, 40000, 1, 32768});
    PLUnpremultiply(&shorts);
    EXPECT_EQ(Get<uint16_t>(shorts, 0, 0, 0), 20000);  // 19999.69
    EXPECT_EQ(Get<uint16_t>(shorts, 0, 0, 1), 65535);  // clamped
    EXPECT_EQ(Get<uint16_t>(shorts, 0, 0, 2), 2);      // 1.99997
    PLImage floats(1, 1, 4, PLPixelFloat, 0);
    Put<float>(floats, 0, 0, {2.0f, 0.25f, 0.0f, 0.5f});
    PLUnpremultiply(&floats);
    EXPECT_EQ(Get<float>(floats, 0, 0, 0), 4.0f) << "no clamp for float";
    EXPECT_EQ(Get<float>(floats, 0, 0, 1), 0.5f);
}

TEST(PLInvertImage, OneChannelWholeRowsWiderImagesOnlyTheFirstWidthElements) {
    PLImage shorts(3, 1, 1, PLPixelUShort, 1);
    Put<uint16_t>(shorts, 0, 0, {0, 65535, 258});
    PLInvertImage(&shorts);
    EXPECT_EQ(Get<uint16_t>(shorts, 0, 0, 0), 65535);
    EXPECT_EQ(Get<uint16_t>(shorts, 1, 0, 0), 0);
    EXPECT_EQ(Get<uint16_t>(shorts, 2, 0, 0), 65277);

    PLImage rgba(4, 2, 4, PLPixelFloat, 0);
    for (int32_t y = 0; y < 2; ++y)
        for (int32_t x = 0; x < 4; ++x) Put<float>(rgba, x, y, {0.25f, 0.25f, 0.25f, 0.25f});
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
    PLImage nanSource(1, 1, 1, PLPixelFloat, 0);
    const uint32_t payload = 0x7FA12345;  // a signalling NaN survives a same-type copy bit for bit
    std::memcpy(nanSource.data, &payload, 4);
    PLImage nanTarget(1, 1, 2, PLPixelFloat, 0);
    PLCopyChannelIntoChannel(&nanTarget, 1, &nanSource, 0);
    EXPECT_EQ(std::memcmp(nanTarget.data + 4, &payload, 4), 0);

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

TEST(PLCopyImage, FlippedToUnflippedKeepsThePictureAndSmallerSourcesAreRefused) {
    ThreadLimit limit(2);
    PLImage src(7, 40, 3, PLPixelUShort, 1);
    Scribble(src, 9);
    OutsideImage dst(7, 40, 3, PLPixelUShort, 0);
    PLCopyImage(&dst.image, &src);
    for (int32_t y = 0; y < 40; ++y) {
        ASSERT_EQ(std::memcmp(dst.image.Row(y), src.Row(y), 42), 0) << "row " << y;
        ASSERT_EQ(std::memcmp(dst.image.data + y * dst.rowBytes, src.data + (39 - y) * src.rowBytes, 42), 0);
    }
    EXPECT_TRUE(dst.GuardsIntact());

    PLImage shorter(7, 39, 3, PLPixelUShort, 0), narrower(6, 40, 3, PLPixelUShort, 0);
    PLCopyImage(&dst.image, &shorter);
    PLCopyImage(&dst.image, &narrower);
    EXPECT_EQ(RowBytes(dst.image), RowBytes(src)) << "a smaller source would be read past its end: no copy";
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
    PLImage grey(2, 2, 1, PLPixelUChar, 0);
    PLFillImage(&grey, colour);
    EXPECT_EQ(Get<uint8_t>(grey, 1, 1, 0), 128);
    PLImage floats(1, 1, 2, PLPixelFloat, 0);
    floats.whitePoint = 4.0f;
    PLFillImage(&floats, colour);
    EXPECT_EQ(Get<float>(floats, 0, 0, 0), 2.0f);
    PLImage five(2, 1, 5, PLPixelUChar, 0);
    std::memset(five.data, 7, 10);
    PLFillImage(&five, colour);
    for (int32_t i = 0; i < 10; ++i) EXPECT_EQ(five.data[i], 7) << "five channels are left alone";
}

TEST(ImageOps, PaddingSurvivesAndOneThreadAndSeveralGiveTheSameBits) {
    auto run = [](int32_t threads, PLImage& rgba, OutsideImage& bytes, PLImage& shorts, PLImage& copy) {
        ThreadLimit limit(threads);
        Scribble(rgba, 11);
        Scribble(bytes.image, 12);
        Scribble(shorts, 13);
        PLUnpremultiply(&rgba);
        PLPremultiply(&bytes.image);
        PLUnpremultiply(&bytes.image);
        PLUnpremultiply(&shorts);
        PLInvertImage(&shorts);
        PLCopyChannelIntoChannel(&bytes.image, 1, &rgba, 2);
        PLCopyImage(&copy, &shorts);
        PLClearImage(&shorts);
        EXPECT_TRUE(bytes.GuardsIntact()) << threads << " threads";
    };
    PLImage rgba1(64, 101, 4, PLPixelFloat, 1), rgba3(64, 101, 4, PLPixelFloat, 1);
    OutsideImage bytes1(64, 101, 4, PLPixelUChar, 1), bytes3(64, 101, 4, PLPixelUChar, 1);
    PLImage shorts1(64, 101, 4, PLPixelUShort, 0), shorts3(64, 101, 4, PLPixelUShort, 0);
    PLImage copy1(64, 101, 4, PLPixelUShort, 1), copy3(64, 101, 4, PLPixelUShort, 1);
    run(1, rgba1, bytes1, shorts1, copy1);
    run(3, rgba3, bytes3, shorts3, copy3);
    EXPECT_EQ(RowBytes(rgba1), RowBytes(rgba3));
    EXPECT_EQ(RowBytes(bytes1.image), RowBytes(bytes3.image));
    EXPECT_EQ(RowBytes(copy1), RowBytes(copy3));
    for (int32_t i = 0; i < 64 * 4 * 2 * 101; ++i) ASSERT_EQ(shorts3.data[i], 0) << "cleared";
    PLClearImage(&bytes3.image);
    EXPECT_EQ(Get<uint8_t>(bytes3.image, 63, 100, 3), 0);
    EXPECT_TRUE(bytes3.GuardsIntact());
    PLClearImage(nullptr);
}

// Kept for completeness, off the plug-in's path: a factor near 1 is a no-op,
// integers scale without a clamp; a part copy outside either image is a no-op;
// the converting channel copy rounds and clamps into integers.
TEST(ImageOps, OffPathOperationsKeepTheirRules) {
    PLImage floats(3, 2, 2, PLPixelFloat, 0);
    Scribble(floats, 1);
    const std::vector<uint8_t> scribbled = RowBytes(floats);
    PLScaleImage(1.0000001f, &floats);
    PLScaleImage(0.9999995f, &floats);
    EXPECT_TRUE(RowBytes(floats) == scribbled)
        << "factors within 1e-6 of 1 change nothing, NaN bytes included";
    PLImage shorts(1, 1, 2, PLPixelUShort, 1);
    Put<uint16_t>(shorts, 0, 0, {40000, 7});
    PLScaleImage(2.0f, &shorts);
    EXPECT_EQ(Get<uint16_t>(shorts, 0, 0, 0), 80000 - 65536) << "no clamp: the low 16 bits";

    PLImage src(8, 6, 2, PLPixelUChar, 0), dst(20, 6, 2, PLPixelUChar, 1);
    Scribble(src, 3);
    Scribble(dst, 4);
    const std::vector<uint8_t> before = RowBytes(dst);
    PLCopyImagePart(&dst, 13, 0, &src, 0, 0, 8, 4);  // past dst's right edge
    PLCopyImagePart(&dst, 0, 0, &src, 1, 0, 8, 4);   // past src's right edge
    PLCopyImagePart(&dst, 0, 3, &src, 0, 0, 8, 4);   // past dst's last row
    PLCopyImagePart(&dst, -1, 0, &src, 0, 0, 2, 2);  // negative origin
    PLCopyImagePart(&dst, 0, 0, &src, 0, 0, -2, 2);  // negative width
    EXPECT_EQ(RowBytes(dst), before);
    PLCopyImagePart(&dst, 10, 1, &src, 0, 2, 8, 4);
    EXPECT_EQ(Get<uint8_t>(dst, 17, 4, 1), Get<uint8_t>(src, 7, 5, 1));

    const struct {
        float in;
        uint8_t uchar;
        uint16_t ushort;
    } cases[] = {{-3.0f, 0, 0},      {2.4f, 2, 2},       {2.5f, 3, 3},
                 {254.6f, 255, 255}, {300.0f, 255, 300}, {70000.0f, 255, 65535}};
    ImagePtr values = MakeImage(6, 1, 2, PLPixelFloat);
    for (int32_t x = 0; x < 6; ++x) Set<float>(*values, x, 0, 1, cases[x].in);
    ImagePtr bytes = MakeImage(6, 1, 3, PLPixelUChar), words = MakeImage(6, 1, 1, PLPixelUShort);
    FillAll<uint8_t>(*bytes, 9);
    PLCopyChannelConverting(bytes.get(), 2, values.get(), 1);
    PLCopyChannelConverting(words.get(), 0, values.get(), 1);
    for (int32_t x = 0; x < 6; ++x) {
        EXPECT_EQ(Get<uint8_t>(*bytes, x, 0, 2), cases[x].uchar) << cases[x].in;
        EXPECT_EQ(Get<uint16_t>(*words, x, 0, 0), cases[x].ushort) << cases[x].in;
        EXPECT_EQ(Get<uint8_t>(*bytes, x, 0, 0), 9) << "other channels untouched";
    }
}
