// The separable filter and its kernel makers. Expected values come from
// impulse responses and hand-computed sums, and from a plain line-at-a-time
// version of the filter that the blocked, threaded one must match bit for bit.
#include "image/filters.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "base/plerr.h"
#include "common/library.h"

namespace {

const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();

// A one-row float image holding `values`, and its row read back.
ImagePtr Line(const std::vector<float>& values) {
    ImagePtr im = MakeImage(static_cast<int32_t>(values.size()), 1, 1, PLPixelFloat);
    for (size_t i = 0; i < values.size(); ++i) Set<float>(*im, static_cast<int32_t>(i), 0, 0, values[i]);
    return im;
}

std::vector<float> Row0(const PLImage* im) {
    std::vector<float> out;
    for (int32_t x = 0; x < im->width; ++x) out.push_back(Get<float>(*im, x, 0, 0));
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
        EXPECT_EQ(Get<float>(*g, 10 + d, 0, 0), expected[d]) << d;
        EXPECT_EQ(Get<float>(*g, 10 - d, 0, 0), expected[d]) << d;
    }
    // Integer results are rounded by adding a half.
    ImagePtr bytes = MakeImage(5, 1, 1, PLPixelUChar);
    FillAll<uint8_t>(*bytes, 0);
    Set<uint8_t>(*bytes, 2, 0, 0, 255);
    PLBinomial3Blur(bytes.get(), 2);
    EXPECT_EQ(Get<uint8_t>(*bytes, 1, 0, 0), 64) << "63.75 rounds up";
    EXPECT_EQ(Get<uint8_t>(*bytes, 2, 0, 0), 128) << "127.5 rounds up";
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
        FillAll<uint8_t>(*bytes, 200);
        FillAll<uint16_t>(*shorts, 40000);
        FillAll<float>(*floats, 0.7f);
        for (PLImage* im : {bytes.get(), shorts.get(), floats.get()}) makers[m](im);
        for (int32_t y = 0; y < 9; ++y)
            for (int32_t x = 0; x < 13; ++x) {
                EXPECT_EQ(Get<uint8_t>(*bytes, x, y, 3), 200) << "maker " << m << " " << x << "," << y;
                EXPECT_EQ(Get<uint16_t>(*shorts, x, y, 2), 40000) << "maker " << m << " " << x << "," << y;
                // Only the float sum of the normalised weights stands between.
                EXPECT_NEAR(Get<float>(*floats, x, y, 0), 0.7f, 3e-7f) << "maker " << m;
            }
    }
    // Radius 1.5: five taps 0.5, 1, 1, 1, 0.5 over 5 spanning i - 1 .. i + 3;
    // the edges renormalise, the last interior sums run past the line.
    ImagePtr box = Line(std::vector<float>(10, 1.0f));
    PLBoxBlur(1.5f, box.get(), 2);
    const float want[10] = {1.0f, 0.8f, 0.8f, 0.8f, 0.8f, 0.8f, 0.8f, 0.7f, 0.5f, 1.0f};
    for (int i = 0; i < 10; ++i) EXPECT_NEAR(Get<float>(*box, i, 0, 0), want[i], 1e-7f) << i;
}

TEST(SeparableFilter, UnusableRadiiAndKernelsDoNothing) {
    ImagePtr im = MakeImage(6, 6, 1, PLPixelFloat);
    uint32_t state = 3;
    for (int32_t y = 0; y < 6; ++y)
        for (int32_t x = 0; x < 6; ++x) Set<float>(*im, x, y, 0, Noise(state));
    ImagePtr original = CopyOf(*im);
    const float kernel[3] = {0.25f, 0.5f, 0.25f};
    PLSeparableFilter(0.0009f, im.get(), 3, kernel, 0);
    PLSeparableFilter(2.0f, im.get(), 3, kernel, 0);  // five taps needed for radius 2
    PLSeparableFilter(kNaN, im.get(), 3, kernel, 0);
    PLGaussianBlur(kNaN, im.get(), 0);
    PLGaussianBlur(-4.0f, im.get(), 0);
    PLBoxBlur(3e9f, im.get(), 0);
    PLCosineBlur(kInf, im.get(), 0);
    EXPECT_TRUE(RowBytes(*im) == RowBytes(*original));
}

float Element(const PLImage* im, int32_t x, int32_t y, int32_t c) {
    return Value(*im, x, y, c);
}

// Integers round by adding a half and wrap; floats lose a negative zero.
void StoreElement(PLImage* im, int32_t x, int32_t y, int32_t c, float v) {
    if (im->pixelType == PLPixelUChar) Set<uint8_t>(*im, x, y, c, static_cast<uint8_t>(PLTruncI32(v + 0.5f)));
    if (im->pixelType == PLPixelUShort)
        Set<uint16_t>(*im, x, y, c, static_cast<uint16_t>(PLTruncI32(v + 0.5f)));
    if (im->pixelType == PLPixelFloat) Set<float>(*im, x, y, c, v + 0.0f);
}

// Noise over the type's range; floats also get negative zeros and infinities.
void FillNoise(PLImage* im, uint32_t seed) {
    for (int32_t y = 0; y < im->height; ++y)
        for (int32_t x = 0; x < im->width; ++x)
            for (int32_t c = 0; c < im->numChannels; ++c) {
                const float v = Noise(seed), pick = Noise(seed);
                if (im->pixelType == PLPixelFloat)
                    Set<float>(*im, x, y, c,
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
                                OutsideImage fast(size[0], size[1], channels, type, layout > 0,
                                                  layout == 2 ? 7 : 0);
                                OutsideImage plain(size[0], size[1], channels, type, layout > 0,
                                                   layout == 2 ? 7 : 0);
                                FillNoise(&fast.image, seed + static_cast<uint32_t>(axes));
                                FillNoise(&plain.image, seed + static_cast<uint32_t>(axes));
                                {
                                    ThreadLimit limit(threads);
                                    PLSeparableFilter(k.radius, &fast.image, k.taps, w.data(), axes);
                                }
                                ReferenceFilter(&plain.image, static_cast<int32_t>(k.radius), k.taps,
                                                w.data(), axes);
                                ASSERT_EQ(fast.bytes, plain.bytes)
                                    << "radius " << k.radius << " " << size[0] << "x" << size[1] << " type "
                                    << type << " channels " << channels << " layout " << layout << " axes "
                                    << axes << " threads " << threads;
                            }
    }
}

}  // namespace
