// TrelvoVectorsBlur: the one call that turns a source frame and a vector frame
// into the output frame. It owns the order of the stages and the two
// temporaries (flow and validity mask, at the vector frame's size); each stage
// lives in its own library. PLErr ends here and becomes the return code.
#include <memory>

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
    // Declared flow first, so the mask goes first on every way out.
    std::unique_ptr<PLImage> flow;
    std::unique_ptr<PLImage> mask;
    try {
        flow.reset(new PLImage(vec->width, vec->height, 2, PLPixelFloat, 0));
        mask.reset(new PLImage(vec->width, vec->height, 1, vec->pixelType, 0));
        PLDecodeMotionVectors(maxDisplace, flow.get(), vec);
        PLCopyChannelIntoChannel(mask.get(), 0, vec, 3);
        PLInvertImage(mask.get());
        PLFillFlowHoles(flow.get(), mask.get(), progress);
        PLScaleFlow(scaleX, scaleY, flow.get());
        // Not "amount < 0": a NaN amount takes the negative branch.
        if (amount >= 0.0f) {
            PLMotionBlur(out, src, flow.get(), blurMode, 1, &engineProgress, false, amount);
        } else {
            PLMotionBlur(out, src, flow.get(), blurMode, 1, &engineProgress, false, 0.5f);
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
