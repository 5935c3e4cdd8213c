// The pull-and-push hole fill. Coarse levels let a fixed small smoothing act
// like a wide one on the full image, so holes of any size are crossed in
// near-linear time; known pixels get their exact value back at the end.
#include "vectors/fill.h"

#include <memory>

#include "image/filters.h"
#include "image/image_ops.h"
#include "image/pixel_format.h"
#include "image/resample.h"
#include "mp/kqmp.h"
#include "vectors/fill.h"

namespace {

int32_t HalveLevel(int32_t size) {
    const int32_t half = size / 2;
    return half > 2 ? half : 2;
}

int64_t PixelCount(const PLImage* image) {
    return static_cast<int64_t>(image->width) * image->height;
}

// Level 0 weights: 1 where the mask is zero (the value is kept), else 0 with
// the value cleared, so values[0] holds value times weight. A NaN mask sample
// of a float mask is not zero and makes a hole.
template <typename MaskPixel>
void LoadRows(int32_t, bool, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    const PLImage* values = args->next<PLImage*>();
    const PLImage* weights = args->next<PLImage*>();
    const PLImage* mask = args->next<const PLImage*>();
    for (int32_t y = firstRow; y <= lastRow; ++y) {
        uint8_t* v = values->Row(y);
        uint8_t* w = weights->Row(y);
        const uint8_t* m = mask->Row(y);
        for (int32_t x = 0; x < values->width; ++x) {
            const size_t e = static_cast<size_t>(x) * sizeof(float);
            if (MaskPixel::Load(m + PLOffset(x, mask->pixelStride)) == 0) {
                PLStoreElement<float>(w + e, 1.0f);
            } else {
                PLStoreElement<float>(w + e, 0.0f);
                PLStoreElement<float>(v + e, 0.0f);
            }
        }
    }
}

// Any non-zero weight, however small, counts; a zero weight keeps what the
// level holds already.
void DivideRows(int32_t, bool, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    const PLImage* filled = args->next<PLImage*>();
    const PLImage* values = args->next<const PLImage*>();
    const PLImage* weights = args->next<const PLImage*>();
    for (int32_t y = firstRow; y <= lastRow; ++y) {
        uint8_t* f = filled->Row(y);
        const uint8_t* v = values->Row(y);
        const uint8_t* w = weights->Row(y);
        for (int32_t x = 0; x < filled->width; ++x) {
            const size_t e = static_cast<size_t>(x) * sizeof(float);
            const float weight = PLLoadElement<float>(w + e);
            if (weight != 0.0f) PLStoreElement<float>(f + e, PLLoadElement<float>(v + e) / weight);
        }
    }
}

void Divide(PLImage* filled, const PLImage* values, const PLImage* weights) {
    kqmp_runrows(filled->height, DivideRows, filled, values, weights);
}

// Smooth a copy of one level and reduce it into the next.
void Reduce(const PLImage* from, PLImage* work, PLImage* to) {
    PLCopyImage(work, from);
    PLBinomial5Blur(work, 0);
    PLResample(to, work);
}

// The enlarging bilinear push of a coarse level into the next finer one,
// corner to corner, with the step taken as the reciprocal of the enlargement.
void Push(PLImage* dst, const PLImage* src) {
    if (dst->pixelType != PLPixelFloat || src->pixelType != PLPixelFloat ||
        dst->numChannels != src->numChannels)
        throw PLErrFailed;
    // A destination one pixel wide (or high) has no span; its only pixel takes
    // the source's first.
    const float stepX =
        dst->width == 1 ? 0.0f
                        : 1.0f / (static_cast<float>(dst->width - 1) / static_cast<float>(src->width - 1));
    const float stepY =
        dst->height == 1 ? 0.0f
                         : 1.0f / (static_cast<float>(dst->height - 1) / static_cast<float>(src->height - 1));
    PLResampleWithSteps(dst, src, stepX, stepY);
}

}  // namespace

PLSingleChannelFill::PLSingleChannelFill(int32_t throwOnError, int32_t w, int32_t h) : width(w), height(h) {
    build(throwOnError);
}

PLSingleChannelFill::PLSingleChannelFill(int32_t w, int32_t h) : width(w), height(h) {
    build(1);
}

PLSingleChannelFill::~PLSingleChannelFill() {
    release();
}

void PLSingleChannelFill::build(int32_t throwOnError) {
    try {
        if (width < 1 || height < 1) throw PLErrFailed;
        // Halve until both sizes are 2; the level past the top one is built
        // and never read.
        lastLevel = 1;
        int32_t w = width;
        int32_t h = height;
        do {
            topLevel = lastLevel;
            w = HalveLevel(w);
            h = HalveLevel(h);
            ++lastLevel;
        } while (w != 2 || h != 2);

        // Arrays of image pointers, so the pointer's size. NOLINTNEXTLINE(bugprone-sizeof-expression)
        const size_t arrayBytes = static_cast<size_t>(lastLevel + 1) * sizeof(PLImage*);
        PLImage*** arrays[4] = {&filled, &values, &weights, &scratch};
        for (PLImage*** array : arrays) {
            *array = static_cast<PLImage**>(QVMemNew(arrayBytes));
            for (int32_t l = 0; l <= lastLevel; ++l) (*array)[l] = nullptr;
        }
        w = width;
        h = height;
        for (int32_t l = 0; l <= lastLevel; ++l) {
            if (l > 0) {
                w = HalveLevel(w);
                h = HalveLevel(h);
            }
            for (PLImage*** array : arrays) {
                (*array)[l] = new PLImage(false, w, h, 1, PLPixelFloat, 0);
                if ((*array)[l]->errorCode != 0) throw static_cast<PLErr>((*array)[l]->errorCode);
            }
        }
    } catch (PLErr e) {
        release();
        error = e;
        if (throwOnError == 1) throw e;
    }
}

void PLSingleChannelFill::release() {
    PLImage*** arrays[4] = {&filled, &values, &weights, &scratch};
    for (PLImage*** array : arrays) {
        if (!*array) continue;
        for (int32_t l = 0; l <= lastLevel; ++l) delete (*array)[l];
        QVMemFree(*array);
        *array = nullptr;
    }
}

void PLSingleChannelFill::load(const PLImage* image, int32_t channel, const PLImage* mask) {
    if (!values || PLDimensionsDiffer(values[0], image) || PLDimensionsDiffer(values[0], mask)) return;
    if (channel < 0 || channel >= image->numChannels || !PLIsPathType(mask->pixelType)) return;

    PLCopyChannelIntoChannel(values[0], 0, image, channel);
    PLVisitPixelType(mask->pixelType, [&](auto maskPixel) {
        kqmp_runrows(height, LoadRows<decltype(maskPixel)>, values[0], weights[0], mask);
    });
    for (int32_t l = 1; l <= lastLevel; ++l) {
        Reduce(values[l - 1], filled[l - 1], values[l]);
        Reduce(weights[l - 1], scratch[l - 1], weights[l]);
    }
}

void PLSingleChannelFill::fill(QVIdleAndProgressClass* progress, int32_t mode) {
    if (!filled) return;
    QVIdleAndProgressClass local(progress);
    float total = 0.0f;
    for (int32_t p = 0; p < passes; ++p)
        for (int32_t l = topLevel; l >= 0; --l) total += static_cast<float>(PixelCount(values[l]));
    PLClearImage(filled[topLevel]);
    if (mode != 0) return;
    passes = 1;
    float done = 0.0f;
    for (int32_t l = topLevel; l >= 0; --l) {
        Divide(filled[l], values[l], weights[l]);
        for (int32_t p = 0; p < passes; ++p) {
            PLSmoothLevel(filled[l], 0, 1);
            local.reportCurrent();
        }
        // At level 0 the weights of known pixels are exactly 1, so this puts
        // their decoded values back; holes keep the smoothed value.
        if (l == 0)
            Divide(filled[0], values[0], weights[0]);
        else
            Push(filled[l - 1], filled[l]);
        done += static_cast<float>(PixelCount(values[l]));
        local.ProgressIdle(done / total);
    }
}

void PLFillFlowHoles(PLImage* image, const PLImage* mask, QVIdleAndProgressClass* progress) {
    if (PLDimensionsDiffer(image, mask)) return;
    if (!PLIsPathType(image->pixelType) || !PLIsPathType(mask->pixelType)) return;
    std::unique_ptr<PLSingleChannelFill> fill(new PLSingleChannelFill(1, image->width, image->height));
    for (int32_t c = 0; c < image->numChannels; ++c) {
        fill->load(image, c, mask);
        fill->fill(progress, 0);
        PLCopyChannelIntoChannel(image, c, fill->filled[0], 0);
    }
}

void PLSmoothLevel(PLImage* image, int32_t variant, int32_t strength) {
    switch (strength) {
        case 0:
            PLBoxBlur(2.0f, image, 0);
            break;
        case 1:
            PLGaussianBlur(variant == 1 ? 7.0f : 5.0f, image, 0);
            break;
        case 2:
            PLGaussianBlur(variant == 1 ? 5.0f : 3.0f, image, 0);
            break;
        default:
            break;
    }
}
