// The separable filter: unusable radii, and bit for bit against a plain line filter.
#include "image/filters.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "base/isa.h"
#include "base/plerr.h"
#include "common/library.h"
#include "image/resample.h"

namespace {

const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();

TEST(SeparableFilter, UnusableRadiiAndKernelsDoNothing) {
    ImagePtr im = MakeImage(6, 6, 1, PLPixelFloat);
    FillNoise(*im, 3);
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
                    line.push_back(pass ? Value(*im, l, i, c) : Value(*im, i, l, c));
                const std::vector<float> out = ReferenceLine(line, w, taps, r);
                for (int32_t i = 0; i < length; ++i) StoreRounded(*im, pass ? l : i, pass ? i : l, c, out[i]);
            }
        }
}

TEST(SeparableFilter, MatchesTheLineAtATimeFilterOnOneAndTwoThreads) {
    // Full kernels; 1.5 with two taps past the line; 30 wider than every image.
    // 5x30 has lines exactly as long as radius 5 and 30 (right edge wins).
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
                                const int32_t padding = layout / 2 * 7;
                                OutsideImage fast(size[0], size[1], channels, type, layout > 0, padding),
                                    plain(size[0], size[1], channels, type, layout > 0, padding);
                                FillNoise(fast.image, seed + static_cast<uint32_t>(axes));
                                FillNoise(plain.image, seed + static_cast<uint32_t>(axes));
                                ThreadLimit limit(threads);
                                PLSeparableFilter(k.radius, &fast.image, k.taps, w.data(), axes);
                                ReferenceFilter(&plain.image, static_cast<int32_t>(k.radius), k.taps,
                                                w.data(), axes);
                                ASSERT_EQ(fast.bytes, plain.bytes)
                                    << "radius " << k.radius << " " << size[0] << "x" << size[1] << " type "
                                    << type << " channels " << channels << " layout " << layout << " axes "
                                    << axes << " threads " << threads;
                            }
    }
}

// The fill's finest level the long way: known pixels set to value / weight,
// both axes smoothed, known pixels set again.
void SetKnown(PLImage* im, const PLImage& values, const PLImage& weights) {
    for (int32_t y = 0; y < im->height; ++y)
        for (int32_t x = 0; x < im->width; ++x) {
            const float w = Get<float>(weights, x, y, 0);
            if (w != 0.0f)
                for (int32_t c = 0; c < im->numChannels; ++c)
                    Set<float>(*im, x, y, c, Get<float>(values, x, y, c) / w);
        }
}

// Bit for bit, except that a NaN may have either sign: which NaN an addition
// of two returns is the compiler's choice of operand order, and the flow's
// NaNs walk one sample whatever their sign.
bool SameUpToNaNSigns(const PLImage& a, const PLImage& b) {
    for (int32_t y = 0; y < a.height; ++y)
        for (int32_t x = 0; x < a.width; ++x)
            for (int32_t c = 0; c < a.numChannels; ++c) {
                const float p = Get<float>(a, x, y, c), q = Get<float>(b, x, y, c);
                if (Bits(p) != Bits(q) && !(std::isnan(p) && std::isnan(q))) return false;
            }
    return true;
}

TEST(GaussianBlurHoles, MatchesDivideSmoothDivideOnEveryPathAndThreadCount) {
    // Weights: holes (0, -0) in 4 x 4 blocks or scattered, none, all; known
    // weights 1, fractions and NaN; values and image with NaN, infinities and
    // huge values. Lines shorter than the radius, one pixel, and a width whose
    // elements leave a partial column block.
    const int32_t sizes[][2] = {{1, 40}, {40, 1}, {2, 2}, {37, 53}, {5, 30}, {9, 70}};
    uint32_t seed = 5;
    for (const auto& size : sizes)
        for (int32_t channels : {1, 2, 3})
            for (int32_t layout = 0; layout < 3; ++layout)  // plain, flipped, flipped and padded
                for (int32_t holes = 0; holes < 4; ++holes)
                    for (float radius : {5.0f, 2.0f, 0.5f}) {
                        const int32_t w = size[0], h = size[1], padding = layout / 2 * 12;
                        OutsideImage image(w, h, channels, PLPixelFloat, layout > 0, padding),
                            values(w, h, channels, PLPixelFloat, layout > 0, padding),
                            weights(w, h, 1, PLPixelFloat, layout > 0, padding);
                        FillNoise(image.image, ++seed);
                        FillNoise(values.image, ++seed);
                        const float specials[] = {kNaN, -kNaN, kInf, -kInf, 3e38f, -0.0f};
                        for (int32_t y = 0; y < h; ++y)
                            for (int32_t x = 0; x < w; ++x) {
                                const float n = Noise(seed);
                                const bool hole = holes == 0   ? ((x / 4 + y / 4) % 3 == 0)
                                                  : holes == 1 ? n < 0.3f
                                                               : holes == 3;
                                const float known = n < 0.8f ? 1.0f : n < 0.9f ? 0.37f : kNaN;
                                Set<float>(weights.image, x, y, 0, hole ? (n < 0.15f ? -0.0f : 0.0f) : known);
                                if (Noise(seed) < 0.05f)
                                    Set<float>(values.image, x, y, (x + y) % channels,
                                               specials[(x * 7 + y) % 6]);
                                if (Noise(seed) < 0.05f)
                                    Set<float>(image.image, x, y, (x + 2 * y) % channels,
                                               specials[(x + y * 5) % 6]);
                            }
                        ImagePtr expected = CopyOf(image.image);
                        SetKnown(expected.get(), values.image, weights.image);
                        PLGaussianBlur(radius, expected.get(), 0);
                        SetKnown(expected.get(), values.image, weights.image);
                        for (int32_t isa = PLIsaBaseline; isa <= PLMachineIsa(); ++isa)
                            for (int32_t threads : {1, 2}) {
                                PLUseIsa(static_cast<PLIsa>(isa));
                                ThreadLimit limit(threads);
                                OutsideImage out(w, h, channels, PLPixelFloat, layout > 0, padding);
                                OutsideImage work(w, h, channels, PLPixelFloat, layout > 0, padding);
                                out.bytes = image.bytes;
                                work.bytes = values.bytes;
                                PLGaussianBlurHoles(radius, &out.image, &work.image, &weights.image);
                                ASSERT_TRUE(SameUpToNaNSigns(out.image, *expected))
                                    << w << "x" << h << " channels " << channels << " layout " << layout
                                    << " holes " << holes << " radius " << radius << " "
                                    << PLIsaName(static_cast<PLIsa>(isa)) << ", " << threads << " threads";
                                ASSERT_TRUE(out.GuardsIntact() && work.GuardsIntact());
                            }
                        PLUseIsa(PLMachineIsa());
                    }
}

TEST(GaussianBlurHoles, RefusesWhatItCannotSmooth) {
    ImagePtr image = MakeImage(8, 6, 2, PLPixelFloat), values = MakeImage(8, 6, 2, PLPixelFloat),
             weights = MakeImage(8, 6, 1, PLPixelFloat);
    ImagePtr narrow = MakeImage(7, 6, 1, PLPixelFloat), bytes = MakeImage(8, 6, 1, PLPixelUChar),
             three = MakeImage(8, 6, 3, PLPixelFloat);
    EXPECT_THROW(PLGaussianBlurHoles(5.0f, image.get(), values.get(), narrow.get()), PLErr);
    EXPECT_THROW(PLGaussianBlurHoles(5.0f, image.get(), values.get(), bytes.get()), PLErr);
    EXPECT_THROW(PLGaussianBlurHoles(5.0f, image.get(), three.get(), weights.get()), PLErr);
    EXPECT_THROW(PLGaussianBlurHoles(kNaN, image.get(), values.get(), weights.get()), PLErr);
    EXPECT_NO_THROW(PLGaussianBlurHoles(5.0f, image.get(), values.get(), nullptr));
}

TEST(Binomial5Reduce, MatchesBlurThenResampleOnEveryPathAndThreadCount) {
    // Halving as the fill does, odd and even; lines shorter than the kernel;
    // one-pixel sides; a destination no smaller than its source.
    const int32_t sizes[][4] = {{37, 53, 18, 26}, {40, 1, 20, 2}, {1, 40, 2, 20}, {2, 2, 2, 2},
                                {5, 30, 2, 15},   {71, 9, 35, 4}, {3, 3, 7, 5},   {300, 7, 150, 3}};
    uint32_t seed = 40;
    for (const auto& size : sizes)
        for (int32_t channels : {1, 2, 3})
            for (int32_t layout = 0; layout < 3; ++layout) {  // plain, flipped, flipped and padded
                const int32_t padding = layout / 2 * 12;
                OutsideImage from(size[0], size[1], channels, PLPixelFloat, layout > 0, padding);
                FillNoise(from.image, ++seed);
                const float specials[] = {kNaN, kInf, -kInf, 3e38f, -0.0f};
                for (int32_t k = 0; k < 4; ++k)
                    Set<float>(from.image, (k * 7) % size[0], (k * 5) % size[1], k % channels,
                               specials[(seed + k) % 5]);
                ImagePtr blurred = CopyOf(from.image);
                PLBinomial5Blur(blurred.get(), 0);
                ImagePtr expected = MakeImage(size[2], size[3], channels, PLPixelFloat);
                PLResample(expected.get(), blurred.get());
                for (int32_t isa = PLIsaBaseline; isa <= PLMachineIsa(); ++isa)
                    for (int32_t threads : {1, 2}) {
                        PLUseIsa(static_cast<PLIsa>(isa));
                        ThreadLimit limit(threads);
                        OutsideImage to(size[2], size[3], channels, PLPixelFloat, layout > 0, padding);
                        // Work space of its own, given, or given too small.
                        std::vector<uint8_t> work(PLBinomial5ReduceBytes(&to.image, &from.image));
                        if (layout == 2) work.resize(work.size() / 2);
                        if (layout == 0)
                            PLBinomial5Reduce(&to.image, &from.image);
                        else
                            PLBinomial5Reduce(&to.image, &from.image, work.data(), work.size());
                        ASSERT_TRUE(SameUpToNaNSigns(to.image, *expected))
                            << size[0] << "x" << size[1] << " to " << size[2] << "x" << size[3]
                            << " channels " << channels << " layout " << layout << " "
                            << PLIsaName(static_cast<PLIsa>(isa)) << ", " << threads << " threads";
                        ASSERT_TRUE(to.GuardsIntact());
                    }
                PLUseIsa(PLMachineIsa());
            }
    ImagePtr four = MakeImage(8, 8, 4, PLPixelFloat), half = MakeImage(4, 4, 4, PLPixelFloat),
             bytes = MakeImage(8, 8, 2, PLPixelUChar), two = MakeImage(4, 4, 2, PLPixelFloat);
    EXPECT_THROW(PLBinomial5Reduce(half.get(), four.get()), PLErr);
    EXPECT_THROW(PLBinomial5Reduce(two.get(), bytes.get()), PLErr);
}

}  // namespace
