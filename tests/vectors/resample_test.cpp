// The separable filter, its kernel makers and the bilinear resampler. Expected
// values come from impulse responses and hand-computed sums, from ramps whose
// bilinear interpolation is exact, and from plain pixel-at-a-time versions of
// both operations that the blocked, threaded ones must match bit for bit.
#include "image/resample.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "base/plerr.h"
#include "image/filters.h"
#include "image_helpers.h"

namespace {

const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();

// A one-row float image holding `values`, and its row read back.
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

TEST(SeparableFilter, ImpulseResponsesAndRenormalisedEdges) {
    ImagePtr im = Line({1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1});
    PLBinomial5Blur(im.get(), 2);
    // Interior: the kernel itself around x = 5. Edges: the taps that fall off
    // are dropped and the rest renormalised; the right edge sums from the far end.
    const float a = 0.0625f, b = 0.25f, c = 0.375f;
    EXPECT_EQ(Row0(im.get()), (std::vector<float>{c / (c + b + a), b / (b + c + b + a), a, a, b, c, b, a, a,
                                                  b / (a + b + c + b), c / (a + b + c)}));
    // Gaussian of radius 3: base two with sigma 1, weights 2^-(d*d) over their
    // float sum 1 + 2 * (1/2 + 1/16 + 1/512), exact.
    std::vector<float> impulse(21, 0.0f);
    impulse[10] = 1.0f;
    ImagePtr g = Line(impulse);
    PLGaussianBlur(3.0f, g.get(), 2);
    const float sum = 2.12890625f;
    const float expected[4] = {1.0f / sum, 0.5f / sum, 0.0625f / sum, (1.0f / 512.0f) / sum};
    for (int d = 0; d <= 3; ++d) {
        EXPECT_EQ(Get<float>(g.get(), 10 + d, 0, 0), expected[d]) << d;
        EXPECT_EQ(Get<float>(g.get(), 10 - d, 0, 0), expected[d]) << d;
    }
    // Integer results are rounded by adding a half.
    ImagePtr bytes = MakeImage(5, 1, 1, PLPixelUChar);
    FillAll<uint8_t>(bytes.get(), 0);
    Set<uint8_t>(bytes.get(), 2, 0, 0, 255);
    PLBinomial3Blur(bytes.get(), 2);
    EXPECT_EQ(Get<uint8_t>(bytes.get(), 1, 0, 0), 64) << "63.75 rounds up";
    EXPECT_EQ(Get<uint8_t>(bytes.get(), 2, 0, 0), 128) << "127.5 rounds up";
}

TEST(SeparableFilter, ConstantImagesStayConstantButTheFractionalBox) {
    void (*const makers[])(PLImage*) = {
        [](PLImage* im) { PLGaussianBlur(5.0f, im, 0); }, [](PLImage* im) { PLGaussianBlur(2.7f, im, 0); },
        [](PLImage* im) { PLBoxBlur(2.0f, im, 0); },      [](PLImage* im) { PLCosineBlur(3.5f, im, 0); },
        [](PLImage* im) { PLBinomial3Blur(im, 0); },      [](PLImage* im) { PLBinomial5Blur(im, 0); }};
    for (size_t m = 0; m < 6; ++m) {
        ImagePtr bytes = MakeImage(13, 9, 4, PLPixelUChar);
        ImagePtr shorts = MakeImage(13, 9, 3, PLPixelUShort, 1);
        ImagePtr floats = MakeImage(13, 9, 1, PLPixelFloat);
        FillAll<uint8_t>(bytes.get(), 200);
        FillAll<uint16_t>(shorts.get(), 40000);
        FillAll<float>(floats.get(), 0.7f);
        for (PLImage* im : {bytes.get(), shorts.get(), floats.get()}) makers[m](im);
        for (int32_t y = 0; y < 9; ++y)
            for (int32_t x = 0; x < 13; ++x) {
                EXPECT_EQ(Get<uint8_t>(bytes.get(), x, y, 3), 200) << "maker " << m << " " << x << "," << y;
                EXPECT_EQ(Get<uint16_t>(shorts.get(), x, y, 2), 40000)
                    << "maker " << m << " " << x << "," << y;
                // Only the float sum of the normalised weights stands between.
                EXPECT_NEAR(Get<float>(floats.get(), x, y, 0), 0.7f, 3e-7f) << "maker " << m;
            }
    }
    // Radius 1.5: five taps 0.5, 1, 1, 1, 0.5 over 5 spanning i - 1 .. i + 3;
    // the edges renormalise, the last interior sums run past the line.
    ImagePtr box = Line(std::vector<float>(10, 1.0f));
    PLBoxBlur(1.5f, box.get(), 2);
    const float want[10] = {1.0f, 0.8f, 0.8f, 0.8f, 0.8f, 0.8f, 0.8f, 0.7f, 0.5f, 1.0f};
    for (int i = 0; i < 10; ++i) EXPECT_NEAR(Get<float>(box.get(), i, 0, 0), want[i], 1e-7f) << i;
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
    PLSeparableFilter(kNaN, im.get(), 3, kernel, 0);
    PLGaussianBlur(kNaN, im.get(), 0);
    PLGaussianBlur(-4.0f, im.get(), 0);
    PLBoxBlur(3e9f, im.get(), 0);
    PLCosineBlur(kInf, im.get(), 0);
    EXPECT_TRUE(SameBytes(im.get(), original.get()));
}

// An image over its own bytes: rows optionally padded by an odd count of bytes
// (so float rows lose their alignment), the padding holding 0x5a.
struct TestImage {
    std::vector<uint8_t> bytes;
    ImagePtr image;
};

TestImage MakeTestImage(int32_t w, int32_t h, int32_t channels, int32_t type, int32_t flipped, bool padded) {
    const int32_t rowBytes = w * channels * PLElementSize(type) + (padded ? 7 : 0);
    TestImage t{std::vector<uint8_t>(static_cast<size_t>(rowBytes) * h + 4, 0x5a), nullptr};
    t.image.reset(new PLImage(t.bytes.data() + (padded ? 1 : 0), w, h, rowBytes, channels, type, flipped));
    return t;
}

float Element(const PLImage* im, int32_t x, int32_t y, int32_t c) {
    float v;
    im->GetChannel(x, y, &v, c);
    return v;
}

// Integers round by adding a half and wrap; floats lose a negative zero.
void StoreElement(PLImage* im, int32_t x, int32_t y, int32_t c, float v) {
    if (im->pixelType == PLPixelUChar) Set<uint8_t>(im, x, y, c, static_cast<uint8_t>(PLTruncI32(v + 0.5f)));
    if (im->pixelType == PLPixelUShort)
        Set<uint16_t>(im, x, y, c, static_cast<uint16_t>(PLTruncI32(v + 0.5f)));
    if (im->pixelType == PLPixelFloat) Set<float>(im, x, y, c, v + 0.0f);
}

// Noise over the type's range; floats also get negative zeros and infinities.
void FillNoise(PLImage* im, uint32_t seed) {
    for (int32_t y = 0; y < im->height; ++y)
        for (int32_t x = 0; x < im->width; ++x)
            for (int32_t c = 0; c < im->numChannels; ++c) {
                const float v = Noise(seed), pick = Noise(seed);
                if (im->pixelType == PLPixelFloat)
                    Set<float>(im, x, y, c,
                               pick < 0.02f   ? -0.0f
                               : pick < 0.03f ? (x % 2 ? kInf : -kInf)
                                              : v * 200 - 100);
                else
                    StoreElement(im, x, y, c,
                                 std::floor(v * (im->pixelType == PLPixelUChar ? 256.0f : 65536.0f)));
            }
}

// The line filter as its rules read, one output at a time: the right edge,
// summed from the far end, wins over the left unless the line is shorter than
// the radius; interior taps past the end add nothing; the interior is not divided.
std::vector<float> ReferenceLine(std::vector<float> line, const float* w, int32_t taps, int32_t r) {
    const int32_t n = static_cast<int32_t>(line.size());
    line.resize(line.size() + static_cast<size_t>(taps), 0.0f);
    std::vector<float> out(static_cast<size_t>(n));
    for (int32_t i = 0; i < n; ++i) {
        float sum = 0.0f, norm = 0.0f;
        if (i >= n - r && n >= r) {
            for (int32_t j = n - 1; j >= std::max(i - r, 0); --j)
                sum += line[j] * w[r + j - i], norm += w[r + j - i];
        } else if (i < r) {
            for (int32_t j = 0; j <= i + r && j < n; ++j) sum += line[j] * w[r - i + j], norm += w[r - i + j];
        } else {
            for (int32_t t = 0; t < taps; ++t) sum += line[i - r + t] * w[t];
            norm = 1.0f;
        }
        out[i] = sum / norm;
    }
    return out;
}

// Rows for axes 0 and 2, columns for every axes but 1 and 2.
void ReferenceFilter(PLImage* im, int32_t r, int32_t taps, const float* w, int32_t axes) {
    for (int32_t c = 0; c < im->numChannels; ++c)
        for (int32_t pass = 0; pass < 2; ++pass) {
            if (pass == 0 ? axes != 0 && axes != 2 : axes == 1 || axes == 2) continue;
            const int32_t lines = pass ? im->width : im->height, length = pass ? im->height : im->width;
            for (int32_t l = 0; l < lines; ++l) {
                std::vector<float> line;
                for (int32_t i = 0; i < length; ++i)
                    line.push_back(pass ? Element(im, l, i, c) : Element(im, i, l, c));
                const std::vector<float> out = ReferenceLine(line, w, taps, r);
                for (int32_t i = 0; i < length; ++i) StoreElement(im, pass ? l : i, pass ? i : l, c, out[i]);
            }
        }
}

TEST(SeparableFilter, MatchesTheLineAtATimeFilterOnOneAndTwoThreads) {
    // Radius 1, 2 and 5 with full kernels, 1.5 with two taps reaching past the
    // line, 30 wider than every image. 5x30 has a line exactly as long as a
    // radius of 5 and of 30, where the right edge loop overrides the left.
    const struct {
        float radius;
        int32_t taps;
    } kernels[] = {{1.0f, 3}, {2.0f, 5}, {5.0f, 11}, {1.5f, 5}, {30.0f, 61}};
    const int32_t sizes[][2] = {{1, 40}, {40, 1}, {2, 2}, {37, 53}, {5, 30}};
    uint32_t seed = 21;
    for (const auto& k : kernels) {
        std::vector<float> w(static_cast<size_t>(k.taps));
        for (float& v : w) v = 0.02f + Noise(seed) / static_cast<float>(k.taps);
        for (const auto& size : sizes)
            for (int32_t type : {PLPixelUChar, PLPixelUShort, PLPixelFloat})
                for (int32_t channels = 1; channels <= 4; ++channels)
                    for (int32_t layout = 0; layout < 3; ++layout)  // plain, flipped, flipped and padded
                        for (int32_t axes : {0, 1, 2, 3, -1})
                            for (int32_t threads : {1, 2}) {
                                TestImage fast =
                                    MakeTestImage(size[0], size[1], channels, type, layout > 0, layout == 2);
                                TestImage plain =
                                    MakeTestImage(size[0], size[1], channels, type, layout > 0, layout == 2);
                                FillNoise(fast.image.get(), seed + static_cast<uint32_t>(axes));
                                FillNoise(plain.image.get(), seed + static_cast<uint32_t>(axes));
                                {
                                    ThreadLimit limit(threads);
                                    PLSeparableFilter(k.radius, fast.image.get(), k.taps, w.data(), axes);
                                }
                                ReferenceFilter(plain.image.get(), static_cast<int32_t>(k.radius), k.taps,
                                                w.data(), axes);
                                ASSERT_EQ(fast.bytes, plain.bytes)
                                    << "radius " << k.radius << " " << size[0] << "x" << size[1] << " type "
                                    << type << " channels " << channels << " layout " << layout << " axes "
                                    << axes << " threads " << threads;
                            }
    }
}

// The resampler as its rules read, pixel by pixel: a position past the last
// column takes the last cell at fraction 1; a one-pixel source its own pixel.
void ReferenceResample(PLImage* dst, const PLImage* src, float stepX, float stepY) {
    struct Tap {
        int32_t index, next;
        float fraction;
    };
    const auto map = [](int32_t x, float step, int32_t last) {
        const float u = static_cast<float>(x) * step;
        Tap t{PLTruncI32(u), 1, u - static_cast<float>(PLTruncI32(u))};
        if (t.index >= last) t = {last - 1, 1, 1.0f};
        if (t.index < 0) t = {0, 0, t.fraction};
        return t;
    };
    for (int32_t y = 0; y < dst->height; ++y)
        for (int32_t x = 0; x < dst->width; ++x) {
            const Tap tx = map(x, stepX, src->lastColumn), ty = map(y, stepY, src->lastRow);
            const float fx = tx.fraction, fy = ty.fraction;
            for (int32_t c = 0; c < dst->numChannels; ++c) {
                const float a = Element(src, tx.index, ty.index, c);
                const float b = Element(src, tx.index + tx.next, ty.index, c);
                const float cl = Element(src, tx.index, ty.index + ty.next, c);
                const float d = Element(src, tx.index + tx.next, ty.index + ty.next, c);
                float value;
                if (dst->numChannels == 4) {  // corner weights
                    value = a * ((1.0f - fx) - fy + fx * fy) + b * (fx - fx * fy) + cl * (fy - fx * fy) +
                            d * (fx * fy);
                } else {
                    const float top = (b - a) * fx + a, bottom = (d - cl) * fx + cl;
                    value = (bottom - top) * fy + top;
                }
                if (src->whitePoint != dst->whitePoint) value = value * (dst->whitePoint / src->whitePoint);
                StoreElement(dst, x, y, c, value);
            }
        }
}

TEST(Resample, MatchesThePixelAtATimeResamplerOnOneAndTwoThreads) {
    // Spans wider than the worker's column span of 128, single rows and
    // columns, enlargements that reuse source rows and reductions that don't.
    const int32_t sizes[][4] = {{300, 7, 150, 3}, {150, 3, 301, 8}, {37, 53, 19, 26}, {37, 53, 73, 105},
                                {1, 9, 4, 17},    {9, 1, 17, 4},    {2, 2, 2, 2},     {5, 4, 1, 1}};
    const int32_t types[] = {PLPixelUChar, PLPixelUShort, PLPixelFloat};
    uint32_t seed = 5;
    for (const auto& s : sizes)
        for (int32_t dt : types)
            for (int32_t st : types)
                for (int32_t channels = 1; channels <= 4; ++channels)
                    for (int32_t layout = 0; layout < 3; ++layout)
                        for (int32_t threads : {1, 2}) {
                            TestImage src = MakeTestImage(s[0], s[1], channels, st, layout == 1, layout == 2);
                            FillNoise(src.image.get(), ++seed);
                            if (dt == st && layout == 2) src.image->whitePoint = 0.5f * src.image->whitePoint;
                            TestImage fast =
                                MakeTestImage(s[2], s[3], channels, dt, layout != 1, layout == 2);
                            TestImage plain =
                                MakeTestImage(s[2], s[3], channels, dt, layout != 1, layout == 2);
                            // The push's steps, the reciprocal of the enlargement, differ
                            // in the last bits from the quotient of PLResample.
                            const bool push = layout == 1 && s[2] > 1 && s[3] > 1;
                            const auto step = [&](int32_t from, int32_t to) {
                                const float f = static_cast<float>(from - 1), t = static_cast<float>(to - 1);
                                return push ? 1.0f / (t / f) : to == 1 ? 0.0f : f / t;
                            };
                            {
                                ThreadLimit limit(threads);
                                if (push)
                                    PLResampleWithSteps(fast.image.get(), src.image.get(), step(s[0], s[2]),
                                                        step(s[1], s[3]));
                                else
                                    PLResample(fast.image.get(), src.image.get());
                            }
                            ReferenceResample(plain.image.get(), src.image.get(), step(s[0], s[2]),
                                              step(s[1], s[3]));
                            ASSERT_EQ(fast.bytes, plain.bytes)
                                << s[0] << "x" << s[1] << " to " << s[2] << "x" << s[3] << " src " << st
                                << " dst " << dt << " channels " << channels << " layout " << layout
                                << " threads " << threads;
                        }
}

TEST(Resample, CornersMeetCornersAndRangesFollowTheWhitePoints) {
    ImagePtr four = MakeImage(4, 1, 1, PLPixelFloat);
    PLResample(four.get(), Line({0, 1, 2, 3, 4, 5, 6, 7, 8, 9}).get());
    EXPECT_EQ(Row0(four.get()), (std::vector<float>{0, 3, 6, 9}));
    ImagePtr five = MakeImage(5, 1, 1, PLPixelFloat);
    PLResample(five.get(), Line({0, 1, 2}).get());
    EXPECT_EQ(Row0(five.get()), (std::vector<float>{0, 0.5f, 1, 1.5f, 2}));
    // Halving 1920 is not a decimation: column 1 lies at 1919/959.
    std::vector<float> wide(1920);
    for (int i = 0; i < 1920; ++i) wide[static_cast<size_t>(i)] = static_cast<float>(i);
    ImagePtr half = MakeImage(960, 1, 1, PLPixelFloat);
    PLResample(half.get(), Line(wide).get());
    EXPECT_NEAR(Get<float>(half.get(), 1, 0, 0), 1919.0 / 959.0, 1e-5);
    EXPECT_EQ(Get<float>(half.get(), 959, 0, 0), 1919.0f);

    ImagePtr bytes = MakeImage(2, 1, 1, PLPixelUChar);
    Set<uint8_t>(bytes.get(), 0, 0, 0, 0);
    Set<uint8_t>(bytes.get(), 1, 0, 0, 255);
    ImagePtr floats = MakeImage(2, 1, 1, PLPixelFloat);
    PLResample(floats.get(), bytes.get());
    EXPECT_EQ(Get<float>(floats.get(), 0, 0, 0), 0.0f);
    EXPECT_NEAR(Get<float>(floats.get(), 1, 0, 0), 1.0f, 1.2e-7f);
    ImagePtr back = MakeImage(3, 1, 1, PLPixelUChar);
    PLResample(back.get(), Line({1.0f, 0.5f, 0.498f}).get());
    EXPECT_EQ(Get<uint8_t>(back.get(), 0, 0, 0), 255);
    EXPECT_EQ(Get<uint8_t>(back.get(), 1, 0, 0), 128) << "127.5 + 0.5";
    EXPECT_EQ(Get<uint8_t>(back.get(), 2, 0, 0), 127);
    ImagePtr shorts = MakeImage(2, 1, 1, PLPixelUShort);
    PLResample(shorts.get(), bytes.get());
    EXPECT_EQ(Get<uint16_t>(shorts.get(), 1, 0, 0), 65535) << "255 * 257";
}

TEST(Resample, GuardsUnequalChannelsAndSinglePixelImages) {
    try {
        PLResample(MakeImage(4, 4, 1, PLPixelFloat).get(), MakeImage(4, 4, 2, PLPixelFloat).get());
        FAIL() << "no exception";
    } catch (PLErr e) {
        EXPECT_EQ(e, PLErrFailed);
    }
    // A destination one column wide has no span to divide by: it takes the
    // source's first column. A source one column wide gives that column.
    ImagePtr src = MakeImage(4, 3, 1, PLPixelFloat);
    for (int32_t y = 0; y < 3; ++y)
        for (int32_t x = 0; x < 4; ++x) Set<float>(src.get(), x, y, 0, static_cast<float>(10 * y + x));
    ImagePtr column = MakeImage(1, 3, 1, PLPixelFloat), dot = MakeImage(1, 1, 1, PLPixelFloat);
    ImagePtr wide = MakeImage(5, 5, 1, PLPixelFloat), big = MakeImage(3, 2, 1, PLPixelFloat);
    PLResample(column.get(), src.get());
    PLResample(dot.get(), src.get());
    PLResample(wide.get(), column.get());
    PLResample(big.get(), dot.get());
    for (int32_t y = 0; y < 3; ++y) EXPECT_EQ(Get<float>(column.get(), 0, y, 0), 10.0f * y);
    EXPECT_EQ(Get<float>(dot.get(), 0, 0, 0), 0.0f);
    for (int32_t y = 0; y < 5; ++y)
        for (int32_t x = 0; x < 5; ++x) EXPECT_EQ(Get<float>(wide.get(), x, y, 0), 5.0f * y) << x << "," << y;
    for (int32_t y = 0; y < 2; ++y)
        for (int32_t x = 0; x < 3; ++x) EXPECT_EQ(Get<float>(big.get(), x, y, 0), 0.0f);
}

}  // namespace
