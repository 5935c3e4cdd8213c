// The engine's stages put as plainly as they go: one thread, the baseline
// instruction set, and the hole fill as first written (PLFillFlowHoles:
// channel by channel, each level copied before it is smoothed; its results
// are pinned by the fill's recorded digests). The fast engine is compared with
// it bit for bit, and the benchmark times it beside the engine.
#pragma once

#include <cstdint>

#include "base/isa.h"
#include "blur/motion_blur.h"
#include "image/image_ops.h"
#include "image/qvimage.h"
#include "licence/licence.h"
#include "mp/kqmp.h"
#include "vectors/decode.h"
#include "vectors/fill.h"
#include "vectors/scale_flow.h"

namespace plain {

// The engine entry's stages, on one thread; throws what they throw.
inline void Engine(PLImage* out, const PLImage* src, const PLImage* vec, int32_t mode, bool stamp,
                   float amount, float maxDisplace, float scaleX, float scaleY) {
    setThreadCount(1);
    const PLIsa isa = PLActiveIsa();
    PLUseIsa(PLIsaBaseline);
    PLImage flow(vec->width, vec->height, 2, PLPixelFloat, 0);
    PLImage mask(vec->width, vec->height, 1, vec->pixelType, 0);
    PLDecodeMotionVectors(maxDisplace, &flow, vec);
    PLCopyChannelIntoChannel(&mask, 0, vec, 3);
    PLInvertImage(&mask);
    PLFillFlowHoles(&flow, &mask, nullptr);
    PLScaleFlow(scaleX, scaleY, &flow);
    const int32_t blurMode = mode == PLBlurBilinear ? PLBlurBilinear : PLBlurNearest;
    PLMotionBlur(out, src, &flow, blurMode, 1, nullptr, false, amount >= 0.0f ? amount : 0.5f);
    if (!(amount >= 0.0f)) PLBlendMP(amount, out, src);
    if (stamp) TrelvoDemoImprint(out, 0.5f);
    PLUseIsa(isa);
    setThreadCount(0);
}

}  // namespace plain
