// The separable filter: unusable radii, and bit for bit against a plain line filter.
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

}  // namespace
