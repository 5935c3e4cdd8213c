// The separable filter, its kernel makers and the bilinear resampler. Expected
// values come from impulse responses and hand-computed sums, from linear ramps
// whose bilinear interpolation is exact, and from plain pixel-at-a-time
// versions of both operations that the blocked ones must match bit for bit.
#include "resample.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
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

// An image over its own bytes: rows optionally padded by an odd count of
// bytes (so float rows lose their alignment), the padding holding 0x5a.
struct TestImage {
    std::vector<uint8_t> bytes;
    ImagePtr image;
};

TestImage MakeTestImage(int32_t w, int32_t h, int32_t channels, int32_t type, int32_t flipped, bool padded) {
    const int32_t rowBytes = w * channels * PLElementSize(type) + (padded ? 7 : 0);
    TestImage t;
    t.bytes.assign(static_cast<size_t>(rowBytes) * h + 4, 0x5a);
    t.image.reset(new PLImage(t.bytes.data() + (padded ? 1 : 0), w, h, rowBytes, channels, type, flipped));
    return t;
}

float Element(const PLImage* im, int32_t x, int32_t y, int32_t c) {
    if (im->pixelType == PLPixelUChar) return Get<uint8_t>(im, x, y, c);
    if (im->pixelType == PLPixelUShort) return Get<uint16_t>(im, x, y, c);
    return Get<float>(im, x, y, c);
}

// Integers round by adding a half and wrap; floats lose a negative zero.
void StoreElement(PLImage* im, int32_t x, int32_t y, int32_t c, float v) {
    if (im->pixelType == PLPixelUChar)
        Set<uint8_t>(im, x, y, c, static_cast<uint8_t>(PLTruncI32(v + 0.5f)));
    else if (im->pixelType == PLPixelUShort)
        Set<uint16_t>(im, x, y, c, static_cast<uint16_t>(PLTruncI32(v + 0.5f)));
    else
        Set<float>(im, x, y, c, v + 0.0f);
}

// Noise over the type's range; floats also get negative zeros and infinities.
void FillNoise(PLImage* im, uint32_t seed) {
    for (int32_t y = 0; y < im->height; ++y)
        for (int32_t x = 0; x < im->width; ++x)
            for (int32_t c = 0; c < im->numChannels; ++c) {
                float v = Noise(seed);
                if (im->pixelType == PLPixelUChar) v = std::floor(v * 256.0f);
                if (im->pixelType == PLPixelUShort) v = std::floor(v * 65536.0f);
                if (im->pixelType == PLPixelFloat) {
                    const float pick = Noise(seed);
                    v = pick < 0.02f   ? -0.0f
                        : pick < 0.03f ? (x % 2 ? 1.0f : -1.0f) * std::numeric_limits<float>::infinity()
                                       : v * 200.0f - 100.0f;
                }
                if (im->pixelType == PLPixelFloat)
                    Set<float>(im, x, y, c, v);
                else
                    StoreElement(im, x, y, c, v);
            }
}

// The line filter as its rules read, one output at a time over one line.
std::vector<float> ReferenceLine(std::vector<float> line, const float* w, int32_t taps, int32_t r) {
    const int32_t n = static_cast<int32_t>(line.size());
    line.resize(line.size() + static_cast<size_t>(taps), 0.0f);
    std::vector<float> out(static_cast<size_t>(n));
    for (int32_t i = 0; i < r && i < n; ++i) {
        float sum = 0.0f, norm = 0.0f;
        for (int32_t j = 0; j <= i + r && j < n; ++j) {
            norm += w[r - i + j];
            sum += line[j] * w[r - i + j];
        }
        out[i] = sum / norm;
    }
    for (int32_t i = n - r; i <= n - 1; ++i) {
        if (i < 0) break;
        float sum = 0.0f, norm = 0.0f;
        for (int32_t j = n - 1; j >= (i - r > 0 ? i - r : 0); --j) {
            norm += w[r + j - i];
            sum += line[j] * w[r + j - i];
        }
        out[i] = sum / norm;
    }
    for (int32_t i = r; i < n - r; ++i) {
        float sum = 0.0f;
        for (int32_t t = 0; t < taps; ++t) sum += line[i - r + t] * w[t];
        out[i] = sum;
    }
    return out;
}

void ReferenceFilter(PLImage* im, int32_t r, int32_t taps, const float* w, int32_t axes) {
    for (int32_t c = 0; c < im->numChannels; ++c) {
        if (axes == 0 || axes == 2)
            for (int32_t y = 0; y < im->height; ++y) {
                std::vector<float> line;
                for (int32_t x = 0; x < im->width; ++x) line.push_back(Element(im, x, y, c));
                const std::vector<float> out = ReferenceLine(line, w, taps, r);
                for (int32_t x = 0; x < im->width; ++x) StoreElement(im, x, y, c, out[x]);
            }
        if (axes != 1 && axes != 2)
            for (int32_t x = 0; x < im->width; ++x) {
                std::vector<float> line;
                for (int32_t y = 0; y < im->height; ++y) line.push_back(Element(im, x, y, c));
                const std::vector<float> out = ReferenceLine(line, w, taps, r);
                for (int32_t y = 0; y < im->height; ++y) StoreElement(im, x, y, c, out[y]);
            }
    }
}

TEST(SeparableFilter, MatchesTheLineAtATimeFilterBitForBit) {
    // Radius 1, 2 and 5 with full kernels, 1.5 with two taps reaching past
    // the line, and 30 wider than every image here.
    struct Kernel {
        float radius;
        int32_t taps;
    };
    const Kernel kernels[] = {{1.0f, 3}, {2.0f, 5}, {5.0f, 11}, {1.5f, 5}, {30.0f, 61}};
    // 5x30 puts a line exactly as long as a radius of 5 and of 30: its right
    // edge loop runs and overrides the left one, in the other summing order.
    const int32_t sizes[][2] = {{1, 40}, {40, 1}, {2, 2}, {37, 53}, {5, 30}};
    const int32_t types[] = {PLPixelUChar, PLPixelUShort, PLPixelFloat};
    uint32_t seed = 21;
    for (const Kernel& k : kernels) {
        std::vector<float> w(static_cast<size_t>(k.taps));
        for (float& v : w) v = 0.02f + Noise(seed) / static_cast<float>(k.taps);
        const int32_t r = static_cast<int32_t>(k.radius);
        for (const auto& size : sizes)
            for (int32_t type : types)
                for (int32_t channels = 1; channels <= 4; ++channels)
                    for (int32_t layout = 0; layout < 3; ++layout)
                        for (int32_t axes = 0; axes < 4; ++axes)
                            for (int32_t threads : {1, 2}) {
                                const int32_t flipped = layout > 0 ? 1 : 0;
                                const bool padded = layout == 2;
                                TestImage fast =
                                    MakeTestImage(size[0], size[1], channels, type, flipped, padded);
                                TestImage plain =
                                    MakeTestImage(size[0], size[1], channels, type, flipped, padded);
                                FillNoise(fast.image.get(), seed + static_cast<uint32_t>(axes));
                                FillNoise(plain.image.get(), seed + static_cast<uint32_t>(axes));
                                {
                                    ThreadLimit limit(threads);
                                    PLSeparableFilter(k.radius, fast.image.get(), k.taps, w.data(), axes);
                                }
                                ReferenceFilter(plain.image.get(), r, k.taps, w.data(), axes);
                                ASSERT_EQ(fast.bytes, plain.bytes)
                                    << "radius " << k.radius << " " << size[0] << "x" << size[1] << " type "
                                    << type << " channels " << channels << " layout " << layout << " axes "
                                    << axes << " threads " << threads;
                            }
    }
}

// The resampler as its rules read, pixel by pixel.
void ReferenceResample(PLImage* dst, const PLImage* src, float stepX, float stepY) {
    struct Tap {
        int32_t index, next;
        float fraction;
    };
    auto map = [](int32_t x, float step, int32_t last) {
        const float u = static_cast<float>(x) * step;
        Tap t{PLTruncI32(u), 1, 0.0f};
        t.fraction = u - static_cast<float>(t.index);
        if (t.index >= last) {
            t.index = last - 1;
            t.fraction = 1.0f;
        }
        if (t.index < 0) t = {0, 0, t.fraction};
        return t;
    };
    const float ratio = dst->whitePoint / src->whitePoint;
    for (int32_t y = 0; y < dst->height; ++y)
        for (int32_t x = 0; x < dst->width; ++x) {
            const Tap tx = map(x, stepX, src->lastColumn);
            const Tap ty = map(y, stepY, src->lastRow);
            const float fx = tx.fraction, fy = ty.fraction;
            for (int32_t c = 0; c < dst->numChannels; ++c) {
                const float a = Element(src, tx.index, ty.index, c);
                const float b = Element(src, tx.index + tx.next, ty.index, c);
                const float cl = Element(src, tx.index, ty.index + ty.next, c);
                const float d = Element(src, tx.index + tx.next, ty.index + ty.next, c);
                float value;
                if (dst->numChannels == 4) {
                    value = a * ((1.0f - fx) - fy + fx * fy) + b * (fx - fx * fy) + cl * (fy - fx * fy) +
                            d * (fx * fy);
                } else {
                    const float top = (b - a) * fx + a;
                    const float bottom = (d - cl) * fx + cl;
                    value = (bottom - top) * fy + top;
                }
                if (src->whitePoint != dst->whitePoint) value = value * ratio;
                StoreElement(dst, x, y, c, value);
            }
        }
}

TEST(Resample, MatchesThePixelAtATimeResamplerBitForBit) {
    // Spans wider than the worker's column span of 128, single rows and
    // columns, enlargements that reuse source rows and reductions that don't.
    const int32_t sizes[][4] = {{300, 7, 150, 3}, {150, 3, 301, 8}, {37, 53, 19, 26}, {37, 53, 73, 105},
                                {1, 9, 4, 17},    {9, 1, 17, 4},    {2, 2, 2, 2},     {5, 4, 1, 1}};
    const int32_t types[] = {PLPixelUChar, PLPixelUShort, PLPixelFloat};
    uint32_t seed = 5;
    for (const auto& size : sizes)
        for (int32_t dt : types)
            for (int32_t st : types)
                for (int32_t channels = 1; channels <= 4; ++channels)
                    for (int32_t layout = 0; layout < 3; ++layout)
                        for (int32_t threads : {1, 2}) {
                            TestImage src =
                                MakeTestImage(size[0], size[1], channels, st, layout == 1, layout == 2);
                            FillNoise(src.image.get(), ++seed);
                            if (dt == st && layout == 2) src.image->whitePoint = 0.5f * src.image->whitePoint;
                            TestImage fast =
                                MakeTestImage(size[2], size[3], channels, dt, layout != 1, layout == 2);
                            TestImage plain =
                                MakeTestImage(size[2], size[3], channels, dt, layout != 1, layout == 2);
                            // The push's steps, the reciprocal of the enlargement, differ
                            // in the last bits from the quotient of PLResample.
                            const bool push = layout == 1 && size[2] > 1 && size[3] > 1;
                            const float stepX = push ? 1.0f / (static_cast<float>(size[2] - 1) /
                                                               static_cast<float>(size[0] - 1))
                                                     : (size[2] == 1 ? 0.0f
                                                                     : static_cast<float>(size[0] - 1) /
                                                                           static_cast<float>(size[2] - 1));
                            const float stepY = push ? 1.0f / (static_cast<float>(size[3] - 1) /
                                                               static_cast<float>(size[1] - 1))
                                                     : (size[3] == 1 ? 0.0f
                                                                     : static_cast<float>(size[1] - 1) /
                                                                           static_cast<float>(size[3] - 1));
                            {
                                ThreadLimit limit(threads);
                                if (push)
                                    PLResampleWithSteps(fast.image.get(), src.image.get(), stepX, stepY);
                                else
                                    PLResample(fast.image.get(), src.image.get());
                            }
                            ReferenceResample(plain.image.get(), src.image.get(), stepX, stepY);
                            ASSERT_EQ(fast.bytes, plain.bytes)
                                << size[0] << "x" << size[1] << " to " << size[2] << "x" << size[3] << " src "
                                << st << " dst " << dt << " channels " << channels << " layout " << layout
                                << " threads " << threads;
                        }
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
