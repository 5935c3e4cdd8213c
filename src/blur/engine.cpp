// TrelvoVectorsBlur: the one call that turns a source frame and a vector frame
// into the output frame. It owns the order of the stages and the temporaries:
// the flow at the vector frame's size, and the fill's levels carved from one
// block of their own, two host allocations a frame. Each stage lives in its
// own library. PLErr ends here and becomes the return code.
#include <cstddef>

#include "blur/motion_blur.h"
#include "image/qvimage.h"
#include "licence/licence.h"
#include "vectors/decode.h"
#include "vectors/fill.h"
#include "vectors/scale_flow.h"

int32_t TrelvoVectorsBlur(QVImage* output, QVImage* source, QVImage* vectors, int64_t mode, int64_t stamp,
                          QVIdleAndProgressClass* progress, float amount, float maxDisplace, float scaleX,
                          float scaleY) {
    if (!output || !source || !vectors) return PLErrFailed;
    QVIdleAndProgressClass engineProgress(progress);
    PLImage* out = output->internalImage();
    PLImage* src = source->internalImage();
    PLImage* vec = vectors->internalImage();
    if (!out || !src || !vec) return PLErrFailed;
    // The shell admits only RGBA vectors; anything else would leave the flow unwritten.
    if (out->numChannels != 4 || src->numChannels != 4 || vec->numChannels != 4) return PLErrFailed;
    if (out->pixelType != src->pixelType || out->width != src->width || out->height != src->height)
        return PLErrFailed;

    const int32_t blurMode = mode == PLBlurBilinear ? PLBlurBilinear : PLBlurNearest;
    try {
        if (vec->width < 1 || vec->height < 1) throw PLErrFailed;
        // The flow and the fill's levels in two blocks: one would do, but a
        // block that large is mapped afresh on every frame by a plain malloc.
        const size_t pixels = static_cast<size_t>(vec->width) * static_cast<size_t>(vec->height);
        QVMemBlock<uint8_t> levels(PLFlowFillBytes(vec->width, vec->height));  // throws past any memory
        QVMemBlock<float> flowBlock(pixels * 2);
        PLImage flowImage(flowBlock.get(), vec->width, vec->height, 2, PLPixelFloat, 0);
        PLImage* flow = &flowImage;
        // Decoded, with a hole wherever alpha is not white, and filled.
        PLDecodeAndFillFlow(maxDisplace, flow, vec, progress, levels.get());
        PLScaleFlow(scaleX, scaleY, flow);
        // Not "amount < 0": a NaN amount takes the negative branch.
        if (amount >= 0.0f) {
            PLMotionBlur(out, src, flow, blurMode, 1, &engineProgress, false, amount);
        } else {
            PLMotionBlur(out, src, flow, blurMode, 1, &engineProgress, false, 0.5f);
            engineProgress.reportCurrent();
            PLBlendMP(amount, out, src);
            engineProgress.reportCurrent();
        }
        if (stamp != 0) TrelvoDemoImprint(output->internalImage(), 0.5f);
    } catch (PLErr e) {
        return e;
    } catch (...) {
        // Nothing but PLErr is thrown below; should that change, the host still
        // gets a failure rather than an exception.
        return PLErrFailed;
    }
    return PLErrNone;
}
