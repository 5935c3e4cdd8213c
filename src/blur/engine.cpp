// TrelvoVectorsBlur: the one call that turns a source frame and a vector frame
// into the output frame. It owns the order of the stages and the temporaries:
// flow and validity mask at the vector frame's size, and the fill's levels
// carved from one block of their own, three host allocations a frame. Each
// stage lives in its own library. PLErr ends here and becomes the return code.
#include <cstddef>

#include "blur/motion_blur.h"
#include "image/image_ops.h"
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
    if (out->numChannels != 4 || src->numChannels != 4) return PLErrFailed;
    if (out->pixelType != src->pixelType || out->width != src->width || out->height != src->height)
        return PLErrFailed;

    const int32_t blurMode = mode == PLBlurBilinear ? PLBlurBilinear : PLBlurNearest;
    try {
        if (vec->width < 1 || vec->height < 1) throw PLErrFailed;
        // Flow, mask and the fill's levels in three blocks: one would do, but a
        // block that large is mapped afresh on every frame by a plain malloc.
        const size_t pixels = static_cast<size_t>(vec->width) * static_cast<size_t>(vec->height);
        const size_t maskElement = vec->bytesPerElement > 0 ? static_cast<size_t>(vec->bytesPerElement) : 1;
        QVMemBlock<uint8_t> levels(PLFlowFillBytes(vec->width, vec->height));  // throws past any memory
        QVMemBlock<float> flowBlock(pixels * 2);
        QVMemBlock<uint8_t> maskBlock(pixels * maskElement);
        PLImage flowImage(flowBlock.get(), vec->width, vec->height, 2, PLPixelFloat, 0);
        PLImage maskImage(maskBlock.get(), vec->width, vec->height, 1, vec->pixelType, 0);
        PLImage* flow = &flowImage;
        PLImage* mask = &maskImage;
        PLDecodeMotionVectors(maxDisplace, flow, vec);
        PLCopyChannelIntoChannel(mask, 0, vec, 3);
        PLInvertImage(mask);
        PLFillFlow(flow, mask, progress, levels.get());
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
