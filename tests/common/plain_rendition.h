// The engine's stages put as plainly as they go: one thread, the portable
// loops, and the hole fill as first written, channel by channel, each level
// copied before it is smoothed. The fast engine is compared with it bit for
// bit, and the benchmark times it beside the engine.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "blur/motion_blur.h"
#include "image/filters.h"
#include "image/image_ops.h"
#include "image/pixel_format.h"
#include "image/qvimage.h"
#include "image/resample.h"
#include "licence/licence.h"
#include "mp/kqmp.h"
#include "vectors/decode.h"
#include "vectors/fill.h"
#include "vectors/scale_flow.h"

namespace plain {

using Level = std::unique_ptr<PLImage>;

inline float* At(const PLImage* image, int32_t x, int32_t y) {
    return reinterpret_cast<float*>(image->Row(y) + PLOffset(x, image->pixelStride));
}

inline void Divide(const PLImage* filled, const PLImage* values, const PLImage* weights) {
    for (int32_t y = 0; y < filled->height; ++y)
        for (int32_t x = 0; x < filled->width; ++x)
            if (*At(weights, x, y) != 0.0f) *At(filled, x, y) = *At(values, x, y) / *At(weights, x, y);
}

// One channel of `image` filled where `mask` is not zero.
inline void FillChannel(PLImage* image, int32_t channel, const PLImage* mask) {
    std::vector<Level> values, weights, filled, scratch;
    int32_t w = image->width, h = image->height;
    // Halved (never below 2) up to the first 2 x 2 level past the finest.
    for (;;) {
        for (auto* levels : {&values, &weights, &filled, &scratch})
            levels->emplace_back(new PLImage(w, h, 1, PLPixelFloat, 0));
        if (w == 2 && h == 2 && values.size() > 1) break;
        w = w / 2 > 2 ? w / 2 : 2;
        h = h / 2 > 2 ? h / 2 : 2;
    }
    const int32_t top = static_cast<int32_t>(values.size()) - 1;
    PLCopyChannelIntoChannel(values[0].get(), 0, image, channel);
    PLVisitPixelType(mask->pixelType, [&](auto maskPixel) {
        using M = decltype(maskPixel);
        for (int32_t y = 0; y < image->height; ++y)
            for (int32_t x = 0; x < image->width; ++x) {
                const bool known = M::Load(mask->Row(y) + PLOffset(x, mask->pixelStride)) == 0;
                *At(weights[0].get(), x, y) = known ? 1.0f : 0.0f;
                if (!known) *At(values[0].get(), x, y) = 0.0f;
            }
    });
    for (size_t l = 1; l < values.size(); ++l)
        for (auto pair : {std::make_pair(&values, &filled), std::make_pair(&weights, &scratch)}) {
            PLCopyImage((*pair.second)[l - 1].get(), (*pair.first)[l - 1].get());
            PLBinomial5Blur((*pair.second)[l - 1].get(), 0);
            PLResample((*pair.first)[l].get(), (*pair.second)[l - 1].get());
        }
    PLClearImage(filled[top].get());
    for (int32_t l = top; l >= 0; --l) {
        PLImage* f = filled[l].get();
        Divide(f, values[l].get(), weights[l].get());
        PLSmoothLevel(f, 0, 1);
        if (l == 0) {
            Divide(f, values[0].get(), weights[0].get());
        } else {
            PLImage* to = filled[l - 1].get();
            const float stepX =
                to->width == 1
                    ? 0.0f
                    : 1.0f / (static_cast<float>(to->width - 1) / static_cast<float>(f->width - 1));
            const float stepY =
                to->height == 1
                    ? 0.0f
                    : 1.0f / (static_cast<float>(to->height - 1) / static_cast<float>(f->height - 1));
            PLResampleWithSteps(to, f, stepX, stepY);
        }
    }
    PLCopyChannelIntoChannel(image, channel, filled[0].get(), 0);
}

// The engine entry's stages, on one thread; throws what they throw.
inline void Engine(PLImage* out, const PLImage* src, const PLImage* vec, int32_t mode, bool stamp,
                   float amount, float maxDisplace, float scaleX, float scaleY) {
    setThreadCount(1);
    PLImage flow(vec->width, vec->height, 2, PLPixelFloat, 0);
    PLImage mask(vec->width, vec->height, 1, vec->pixelType, 0);
    PLDecodeMotionVectors(maxDisplace, &flow, vec);
    PLCopyChannelIntoChannel(&mask, 0, vec, 3);
    PLInvertImage(&mask);
    for (int32_t c = 0; c < 2; ++c) FillChannel(&flow, c, &mask);
    PLScaleFlow(scaleX, scaleY, &flow);
    const int32_t blurMode = mode == PLBlurBilinear ? PLBlurBilinear : PLBlurNearest;
    PLMotionBlur(out, src, &flow, blurMode, 1, nullptr, false, amount >= 0.0f ? amount : 0.5f);
    if (!(amount >= 0.0f)) PLBlendMP(amount, out, src);
    if (stamp) TrelvoDemoImprint(out, 0.5f);
    setThreadCount(0);
}

}  // namespace plain
