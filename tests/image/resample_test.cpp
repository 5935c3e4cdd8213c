// The bilinear resampler, bit for bit against a plain pixel-at-a-time one.
#include "image/resample.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "base/plerr.h"
#include "common/library.h"

namespace {

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
                const float a = Value(*src, tx.index, ty.index, c);
                const float b = Value(*src, tx.index + tx.next, ty.index, c);
                const float cl = Value(*src, tx.index, ty.index + ty.next, c);
                const float d = Value(*src, tx.index + tx.next, ty.index + ty.next, c);
                float value;
                if (dst->numChannels == 4) {  // corner weights
                    value = a * ((1.0f - fx) - fy + fx * fy) + b * (fx - fx * fy) + cl * (fy - fx * fy) +
                            d * (fx * fy);
                } else {
                    const float top = (b - a) * fx + a, bottom = (d - cl) * fx + cl;
                    value = (bottom - top) * fy + top;
                }
                if (src->whitePoint != dst->whitePoint) value = value * (dst->whitePoint / src->whitePoint);
                StoreRounded(*dst, x, y, c, value);
            }
        }
}

TEST(Resample, MatchesThePixelAtATimeResamplerOnOneAndTwoThreads) {
    // Corners meet corners (300 to 150 is no decimation); spans over the worker's
    // 128 columns, enlargements reusing rows, single pixels, rows and columns.
    const int32_t sizes[][4] = {{300, 7, 150, 3}, {150, 3, 301, 8}, {37, 53, 19, 26}, {37, 53, 73, 105},
                                {1, 9, 4, 17},    {9, 1, 17, 4},    {2, 2, 2, 2},     {5, 4, 1, 1},
                                {4, 3, 1, 3},     {1, 1, 3, 2}};
    const int32_t types[] = {PLPixelUChar, PLPixelUShort, PLPixelFloat};
    uint32_t seed = 5;
    for (const auto& s : sizes)
        for (int32_t dt : types)
            for (int32_t st : types)
                for (int32_t channels = 1; channels <= 4; ++channels)
                    for (int32_t layout = 0; layout < 3; ++layout)
                        for (int32_t threads : {1, 2}) {
                            OutsideImage src(s[0], s[1], channels, st, layout == 1, layout == 2 ? 7 : 0);
                            FillNoise(src.image, ++seed);
                            if (dt == st && layout == 2) src.image.whitePoint = 0.5f * src.image.whitePoint;
                            OutsideImage fast(s[2], s[3], channels, dt, layout != 1, layout == 2 ? 7 : 0),
                                plain(s[2], s[3], channels, dt, layout != 1, layout == 2 ? 7 : 0);
                            // The push's steps, the reciprocal of the enlargement, differ
                            // in the last bits from the quotient of PLResample.
                            const bool push = layout == 1 && s[2] > 1 && s[3] > 1;
                            const auto step = [&](int32_t from, int32_t to) {
                                const float f = static_cast<float>(from - 1), t = static_cast<float>(to - 1);
                                return push ? 1.0f / (t / f) : to == 1 ? 0.0f : f / t;
                            };
                            ThreadLimit limit(threads);
                            if (push)
                                PLResampleWithSteps(&fast.image, &src.image, step(s[0], s[2]),
                                                    step(s[1], s[3]));
                            else
                                PLResample(&fast.image, &src.image);
                            ReferenceResample(&plain.image, &src.image, step(s[0], s[2]), step(s[1], s[3]));
                            ASSERT_EQ(fast.bytes, plain.bytes)
                                << s[0] << "x" << s[1] << " to " << s[2] << "x" << s[3] << " src " << st
                                << " dst " << dt << " channels " << channels << " layout " << layout
                                << " threads " << threads;
                        }
}

}  // namespace
