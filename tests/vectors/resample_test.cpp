// The separable filter, its kernel makers and the bilinear resampler. Expected
// values come from impulse responses and hand-computed sums, and from linear
// ramps whose bilinear interpolation is exact.
#include "resample.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "image_helpers.h"
#include "plerr.h"

namespace {

// A one-row float image holding `values`.
ImagePtr Line(const std::vector<float>& values) {
    ImagePtr im = MakeImage(static_cast<int32_t>(values.size()), 1, 1, PLPixelFloat);
    for (size_t i = 0; i < values.size(); ++i) Set<float>(im.get(), static_cast<int32_t>(i), 0, 0, values[i]);
    return im;
}

std::vector<float> Row0(const PLImage* im) {
    std::vector<float> out;
    for (int32_t x = 0; x < im->width; ++x) out.push_back(Get<float>(im, x, 0, 0));
    return out;
}

// The weights of a kernel maker, read as the response of a long row to an
// impulse in its middle (adding zeros is exact).
template <typename Blur>
std::vector<float> KernelOf(int32_t taps, Blur blur) {
    std::vector<float> impulse(static_cast<size_t>(taps) * 3, 0.0f);
    impulse[impulse.size() / 2] = 1.0f;
    ImagePtr im = Line(impulse);
    blur(im.get());
    const std::vector<float> out = Row0(im.get());
    return std::vector<float>(out.begin() + static_cast<long>(impulse.size() / 2 - taps / 2),
                              out.begin() + static_cast<long>(impulse.size() / 2 + taps / 2 + 1));
}

TEST(SeparableFilter, BinomialImpulseAndRenormalisedEdges) {
    ImagePtr im = Line({1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1});
    PLBinomial5Blur(im.get(), 2);
    const std::vector<float> out = Row0(im.get());
    // Interior: the kernel itself around x = 5.
    EXPECT_EQ(out[3], 1.0f / 16.0f);
    EXPECT_EQ(out[4], 0.25f);
    EXPECT_EQ(out[5], 0.375f);
    EXPECT_EQ(out[6], 0.25f);
    EXPECT_EQ(out[7], 1.0f / 16.0f);
    // Left edge: the taps that fall off are dropped and the rest renormalised.
    EXPECT_EQ(out[0], 0.375f / (0.375f + 0.25f + 0.0625f));
    EXPECT_EQ(out[1], 0.25f / (0.25f + 0.375f + 0.25f + 0.0625f));
    EXPECT_EQ(out[2], 0.0625f);
    // Right edge mirrors it (accumulated from the far end).
    EXPECT_EQ(out[10], 0.375f / (0.0625f + 0.25f + 0.375f));
    EXPECT_EQ(out[9], 0.25f / (0.0625f + 0.25f + 0.375f + 0.25f));
}

TEST(SeparableFilter, GaussianIsBaseTwoWithSigmaAThirdOfTheRadius) {
    // Radius 3: s = 1 and the weights are 2^-(d*d) over their float sum,
    // 1 + 2 * (1/2 + 1/16 + 1/512), exact.
    const std::vector<float> k = KernelOf(7, [](PLImage* im) { PLGaussianBlur(3.0f, im, 2); });
    const float sum = 2.12890625f;
    const float expected[4] = {1.0f / sum, 0.5f / sum, 0.0625f / sum, (1.0f / 512.0f) / sum};
    for (int d = 0; d <= 3; ++d) {
        EXPECT_EQ(k[3 + d], expected[d]) << d;
        EXPECT_EQ(k[3 - d], expected[d]) << d;
    }
}

TEST(SeparableFilter, LineShorterThanTheKernelUsesOnlyTheEdgeLoops) {
    const std::vector<float> w = KernelOf(11, [](PLImage* im) { PLGaussianBlur(5.0f, im, 2); });
    ImagePtr im = Line({0.0f, 1.0f});
    PLGaussianBlur(5.0f, im.get(), 2);
    EXPECT_EQ(Get<float>(im.get(), 0, 0, 0), w[6] / (w[5] + w[6]));
    EXPECT_EQ(Get<float>(im.get(), 1, 0, 0), w[5] / (w[4] + w[5]));
}

TEST(SeparableFilter, ConstantImagesStayConstantEdgesIncluded) {
    struct Maker {
        const char* name;
        void (*blur)(PLImage*);
    };
    const Maker makers[] = {
        {"gaussian 5", [](PLImage* im) { PLGaussianBlur(5.0f, im, 0); }},
        {"gaussian 2.7", [](PLImage* im) { PLGaussianBlur(2.7f, im, 0); }},
        {"box 2", [](PLImage* im) { PLBoxBlur(2.0f, im, 0); }},
        {"cosine 3.5", [](PLImage* im) { PLCosineBlur(3.5f, im, 0); }},
        {"binomial 3", [](PLImage* im) { PLBinomial3Blur(im, 0); }},
        {"binomial 5", [](PLImage* im) { PLBinomial5Blur(im, 0); }},
    };
    for (const Maker& m : makers) {
        ImagePtr bytes = MakeImage(13, 9, 4, PLPixelUChar);
        FillAll<uint8_t>(bytes.get(), 200);
        m.blur(bytes.get());
        ImagePtr shorts = MakeImage(13, 9, 3, PLPixelUShort, 1);
        FillAll<uint16_t>(shorts.get(), 40000);
        m.blur(shorts.get());
        ImagePtr floats = MakeImage(13, 9, 1, PLPixelFloat);
        FillAll<float>(floats.get(), 0.7f);
        m.blur(floats.get());
        for (int32_t y = 0; y < 9; ++y)
            for (int32_t x = 0; x < 13; ++x) {
                EXPECT_EQ(Get<uint8_t>(bytes.get(), x, y, 3), 200) << m.name << " " << x << "," << y;
                EXPECT_EQ(Get<uint16_t>(shorts.get(), x, y, 2), 40000) << m.name << " " << x << "," << y;
                // Only the float sum of the normalised weights stands between.
                EXPECT_NEAR(Get<float>(floats.get(), x, y, 0), 0.7f, 3e-7f) << m.name << " " << x << "," << y;
            }
    }
}

TEST(SeparableFilter, FractionalBoxDarkensAndReachesFurtherRight) {
    // Radius 1.5: five taps 0.5, 1, 1, 1, 0.5 over 5, spanning i - 1 .. i + 3.
    ImagePtr im = Line(std::vector<float>(10, 1.0f));
    PLBoxBlur(1.5f, im.get(), 2);
    const std::vector<float> out = Row0(im.get());
    EXPECT_EQ(out[0], 1.0f) << "edges renormalise";
    EXPECT_EQ(out[9], 1.0f);
    for (int i = 1; i <= 6; ++i) EXPECT_NEAR(out[i], 0.8f, 1e-7f) << i;
    // The last two interior sums run past the line, where nothing is added.
    EXPECT_NEAR(out[7], 0.7f, 1e-7f);
    EXPECT_NEAR(out[8], 0.5f, 1e-7f);
}

TEST(SeparableFilter, AxesSelectThePasses) {
    // Rows constant along x, varying along y: a row pass changes nothing.
    ImagePtr im = MakeImage(8, 8, 1, PLPixelFloat);
    for (int32_t y = 0; y < 8; ++y)
        for (int32_t x = 0; x < 8; ++x) Set<float>(im.get(), x, y, 0, static_cast<float>(y * y));
    ImagePtr original = CopyOf(im.get());
    PLBinomial3Blur(im.get(), 1);
    EXPECT_TRUE(SameBytes(im.get(), original.get())) << "axes 1: no pass";
    PLBinomial3Blur(im.get(), 2);
    EXPECT_TRUE(SameBytes(im.get(), original.get())) << "axes 2: rows only";
    for (int32_t axes : {0, 3, -1}) {
        ImagePtr copy = CopyOf(original.get());
        PLBinomial3Blur(copy.get(), axes);
        EXPECT_EQ(Get<float>(copy.get(), 3, 2, 0), 0.25f * 1 + 0.5f * 4 + 0.25f * 9) << "axes " << axes;
    }
}

TEST(SeparableFilter, ColumnPassOfAFlippedImageIsTheRowPassOfItsTranspose) {
    const int32_t w = 23, h = 37;
    ImagePtr a = MakeImage(w, h, 2, PLPixelFloat, 1);
    ImagePtr b = MakeImage(h, w, 2, PLPixelFloat, 0);
    uint32_t state = 7;
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x)
            for (int32_t c = 0; c < 2; ++c) {
                const float v = Noise(state);
                Set<float>(a.get(), x, y, c, v);
                Set<float>(b.get(), y, x, c, v);
            }
    PLGaussianBlur(4.0f, a.get(), 3);
    PLGaussianBlur(4.0f, b.get(), 2);
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x)
            for (int32_t c = 0; c < 2; ++c)
                ASSERT_EQ(Bits(Get<float>(a.get(), x, y, c)), Bits(Get<float>(b.get(), y, x, c)))
                    << x << "," << y << "," << c;
}

TEST(SeparableFilter, IntegerResultsAreRoundedByAddingAHalf) {
    ImagePtr im = MakeImage(5, 1, 1, PLPixelUChar);
    const uint8_t line[5] = {0, 0, 255, 0, 0};
    for (int32_t x = 0; x < 5; ++x) Set<uint8_t>(im.get(), x, 0, 0, line[x]);
    PLBinomial3Blur(im.get(), 2);
    EXPECT_EQ(Get<uint8_t>(im.get(), 1, 0, 0), 64) << "63.75 rounds up";
    EXPECT_EQ(Get<uint8_t>(im.get(), 2, 0, 0), 128) << "127.5 rounds up";
    EXPECT_EQ(Get<uint8_t>(im.get(), 3, 0, 0), 64);
}

TEST(SeparableFilter, UnusableRadiiAndKernelsDoNothing) {
    ImagePtr im = MakeImage(6, 6, 1, PLPixelFloat);
    uint32_t state = 3;
    for (int32_t y = 0; y < 6; ++y)
        for (int32_t x = 0; x < 6; ++x) Set<float>(im.get(), x, y, 0, Noise(state));
    ImagePtr original = CopyOf(im.get());
    const float kernel[3] = {0.25f, 0.5f, 0.25f};
    PLSeparableFilter(0.0009f, im.get(), 3, kernel, 0);
    PLSeparableFilter(2.0f, im.get(), 3, kernel, 0);  // five taps needed for radius 2
    PLSeparableFilter(std::numeric_limits<float>::quiet_NaN(), im.get(), 3, kernel, 0);
    PLGaussianBlur(std::numeric_limits<float>::quiet_NaN(), im.get(), 0);
    PLGaussianBlur(-4.0f, im.get(), 0);
    PLBoxBlur(3e9f, im.get(), 0);
    PLCosineBlur(std::numeric_limits<float>::infinity(), im.get(), 0);
    EXPECT_TRUE(SameBytes(im.get(), original.get()));
}

TEST(SeparableFilter, OneThreadAndTwoThreadsAgreeBitForBit) {
    const int32_t w = 70, h = 45;
    ImagePtr floats = MakeImage(w, h, 3, PLPixelFloat);
    ImagePtr bytes = MakeImage(w, h, 4, PLPixelUChar, 1);
    uint32_t state = 11;
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) {
            for (int32_t c = 0; c < 3; ++c) Set<float>(floats.get(), x, y, c, Noise(state));
            for (int32_t c = 0; c < 4; ++c)
                Set<uint8_t>(bytes.get(), x, y, c, static_cast<uint8_t>(Noise(state) * 255.0f));
        }
    ImagePtr floats2 = CopyOf(floats.get());
    ImagePtr bytes2 = CopyOf(bytes.get());
    {
        ThreadLimit one(1);
        PLGaussianBlur(5.0f, floats.get(), 0);
        PLBoxBlur(2.0f, bytes.get(), 0);
    }
    {
        ThreadLimit two(2);
        PLGaussianBlur(5.0f, floats2.get(), 0);
        PLBoxBlur(2.0f, bytes2.get(), 0);
    }
    EXPECT_TRUE(SameBytes(floats.get(), floats2.get()));
    EXPECT_TRUE(SameBytes(bytes.get(), bytes2.get()));
}

TEST(Resample, EqualSizesReproduceTheSource) {
    ImagePtr bytes = MakeImage(7, 5, 4, PLPixelUChar);
    ImagePtr ramp = MakeImage(7, 5, 1, PLPixelFloat, 1);
    ImagePtr noise = MakeImage(7, 5, 4, PLPixelFloat);
    uint32_t state = 5;
    for (int32_t y = 0; y < 5; ++y)
        for (int32_t x = 0; x < 7; ++x) {
            Set<float>(ramp.get(), x, y, 0, static_cast<float>(x * 3 - y * 11));
            for (int32_t c = 0; c < 4; ++c) {
                Set<uint8_t>(bytes.get(), x, y, c, static_cast<uint8_t>(Noise(state) * 255.0f));
                Set<float>(noise.get(), x, y, c, Noise(state));
            }
        }
    // The last column and row go through the clamp with a fraction of 1, which
    // is exact for integer samples and for the corner weights of four channels.
    for (const PLImage* src : {bytes.get(), ramp.get(), noise.get()}) {
        ImagePtr dst = MakeImage(7, 5, src->numChannels, src->pixelType);
        PLResample(dst.get(), src);
        for (int32_t y = 0; y < 5; ++y)
            for (int32_t x = 0; x < 7; ++x)
                for (int32_t c = 0; c < src->numChannels; ++c) {
                    if (src->pixelType == PLPixelUChar)
                        ASSERT_EQ(Get<uint8_t>(dst.get(), x, y, c), Get<uint8_t>(src, x, y, c));
                    else
                        ASSERT_EQ(Bits(Get<float>(dst.get(), x, y, c)), Bits(Get<float>(src, x, y, c)))
                            << x << "," << y << " channels " << src->numChannels;
                }
    }
}

TEST(Resample, CornersMeetCorners) {
    ImagePtr ramp = Line({0, 1, 2, 3, 4, 5, 6, 7, 8, 9});
    ImagePtr four = MakeImage(4, 1, 1, PLPixelFloat);
    PLResample(four.get(), ramp.get());
    EXPECT_EQ(Row0(four.get()), (std::vector<float>{0, 3, 6, 9}));

    ImagePtr three = Line({0, 1, 2});
    ImagePtr five = MakeImage(5, 1, 1, PLPixelFloat);
    PLResample(five.get(), three.get());
    EXPECT_EQ(Row0(five.get()), (std::vector<float>{0, 0.5f, 1, 1.5f, 2}));

    // Halving 1920 is not a decimation: column 1 lies at 1919/959.
    std::vector<float> wide(1920);
    for (int i = 0; i < 1920; ++i) wide[static_cast<size_t>(i)] = static_cast<float>(i);
    ImagePtr src = Line(wide);
    ImagePtr half = MakeImage(960, 1, 1, PLPixelFloat);
    PLResample(half.get(), src.get());
    EXPECT_NEAR(Get<float>(half.get(), 1, 0, 0), 1919.0 / 959.0, 1e-5);
    EXPECT_EQ(Get<float>(half.get(), 959, 0, 0), 1919.0f);
}

// Every member of the product: destination type x channels x source type x
// white points. The source is the plane 4x + 8y + c + 1, resampled from 3x2 to
// 5x3, so every sample lands on a half step and the bilinear value
// 2x + 4y + c + 1 is exact; only the white-point ratio and the store remain.
TEST(Resample, EveryMemberWritesItsCombination) {
    const int32_t types[3] = {PLPixelUChar, PLPixelUShort, PLPixelFloat};
    for (int32_t dt : types)
        for (int32_t channels = 1; channels <= 4; ++channels)
            for (int32_t st : types)
                for (bool sameWhite : {true, false}) {
                    ImagePtr src = MakeImage(3, 2, channels, st, channels % 2);
                    for (int32_t y = 0; y < 2; ++y)
                        for (int32_t x = 0; x < 3; ++x)
                            for (int32_t c = 0; c < channels; ++c) {
                                const float v = static_cast<float>(4 * x + 8 * y + c + 1);
                                PLFloatToElement(
                                    st, src->Row(y) + x * src->pixelStride + c * src->bytesPerElement, v);
                            }
                    ImagePtr dst = MakeImage(5, 3, channels, dt);
                    std::memset(dst->data, 0xab, static_cast<size_t>(dst->rowBytes) * dst->height);
                    // Equal white points are forced by hand where the types differ.
                    if (sameWhite) src->whitePoint = dst->whitePoint;
                    if (!sameWhite && st == dt) src->whitePoint = 2.0f * dst->whitePoint;
                    const float ratio = dst->whitePoint / src->whitePoint;
                    PLResample(dst.get(), src.get());
                    for (int32_t y = 0; y < 3; ++y)
                        for (int32_t x = 0; x < 5; ++x)
                            for (int32_t c = 0; c < channels; ++c) {
                                float v = static_cast<float>(2 * x + 4 * y + c + 1);
                                if (!sameWhite) v = v * ratio;
                                float got;
                                dst->GetChannel(x, y, &got, c);
                                float expected = v;
                                if (dt == PLPixelUChar)
                                    expected = static_cast<float>(static_cast<uint8_t>(PLTruncI32(v + 0.5f)));
                                if (dt == PLPixelUShort)
                                    expected =
                                        static_cast<float>(static_cast<uint16_t>(PLTruncI32(v + 0.5f)));
                                ASSERT_EQ(got, expected)
                                    << "dst " << dt << " channels " << channels << " src " << st
                                    << " same white " << sameWhite << " at " << x << "," << y << "," << c;
                            }
                }
}

TEST(Resample, RangesFollowTheWhitePoints) {
    ImagePtr bytes = MakeImage(2, 1, 1, PLPixelUChar);
    Set<uint8_t>(bytes.get(), 0, 0, 0, 0);
    Set<uint8_t>(bytes.get(), 1, 0, 0, 255);
    ImagePtr floats = MakeImage(2, 1, 1, PLPixelFloat);
    PLResample(floats.get(), bytes.get());
    EXPECT_EQ(Get<float>(floats.get(), 0, 0, 0), 0.0f);
    EXPECT_NEAR(Get<float>(floats.get(), 1, 0, 0), 1.0f, 1.2e-7f);

    ImagePtr back = MakeImage(3, 1, 1, PLPixelUChar);
    ImagePtr line = Line({1.0f, 0.5f, 0.498f});
    PLResample(back.get(), line.get());
    EXPECT_EQ(Get<uint8_t>(back.get(), 0, 0, 0), 255);
    EXPECT_EQ(Get<uint8_t>(back.get(), 1, 0, 0), 128) << "127.5 + 0.5";
    EXPECT_EQ(Get<uint8_t>(back.get(), 2, 0, 0), 127);

    ImagePtr shorts = MakeImage(2, 1, 1, PLPixelUShort);
    PLResample(shorts.get(), bytes.get());
    EXPECT_EQ(Get<uint16_t>(shorts.get(), 1, 0, 0), 65535) << "255 * 257";
}

TEST(Resample, UnequalChannelCountsThrowFailed) {
    ImagePtr a = MakeImage(4, 4, 1, PLPixelFloat);
    ImagePtr b = MakeImage(4, 4, 2, PLPixelFloat);
    try {
        PLResample(a.get(), b.get());
        FAIL() << "no exception";
    } catch (PLErr e) {
        EXPECT_EQ(e, PLErrFailed);
    }
}

TEST(Resample, SinglePixelWideImagesAreDefined) {
    // A destination one column wide has no span to divide by: it takes the
    // source's first column. A source one column wide gives that column.
    ImagePtr src = MakeImage(4, 3, 1, PLPixelFloat);
    for (int32_t y = 0; y < 3; ++y)
        for (int32_t x = 0; x < 4; ++x) Set<float>(src.get(), x, y, 0, static_cast<float>(10 * y + x));
    ImagePtr column = MakeImage(1, 3, 1, PLPixelFloat);
    PLResample(column.get(), src.get());
    for (int32_t y = 0; y < 3; ++y) EXPECT_EQ(Get<float>(column.get(), 0, y, 0), 10.0f * y);
    ImagePtr dot = MakeImage(1, 1, 1, PLPixelFloat);
    PLResample(dot.get(), src.get());
    EXPECT_EQ(Get<float>(dot.get(), 0, 0, 0), 0.0f);

    ImagePtr wide = MakeImage(5, 5, 1, PLPixelFloat);
    PLResample(wide.get(), column.get());
    for (int32_t y = 0; y < 5; ++y)
        for (int32_t x = 0; x < 5; ++x) EXPECT_EQ(Get<float>(wide.get(), x, y, 0), 5.0f * y) << x << "," << y;
    ImagePtr big = MakeImage(3, 2, 1, PLPixelFloat);
    PLResample(big.get(), dot.get());
    for (int32_t y = 0; y < 2; ++y)
        for (int32_t x = 0; x < 3; ++x) EXPECT_EQ(Get<float>(big.get(), x, y, 0), 0.0f);
}

}  // namespace
