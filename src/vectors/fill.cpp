// The pull-and-push hole fill. Coarse levels let a fixed small smoothing act
// like a wide one on the full image, so holes of any size are crossed in
// near-linear time; known pixels get their exact value back at the end.
#include "vectors/fill.h"

#include <cstring>
#include <memory>
#include <optional>

#include "image/filters.h"
#include "image/image_ops.h"
#include "image/pixel_format.h"
#include "image/resample.h"
#include "mp/isa_rows.h"
#include "mp/kqmp.h"
#include "vectors/decode.h"

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

// The two-channel fill's levels: finest first, halved up to the first 2 x 2
// level past the finest, the top one. Each level has its values (two
// channels) and weights (one) and, above the finest, its filled image (two),
// at 64-byte aligned offsets into one scratch block.
constexpr int32_t kMaxLevels = 40;
constexpr size_t kAlignment = 64;

struct FlowLevels {
    int32_t count = 0;
    int32_t width[kMaxLevels] = {};
    int32_t height[kMaxLevels] = {};
    size_t values[kMaxLevels] = {};
    size_t weights[kMaxLevels] = {};
    size_t filled[kMaxLevels] = {};
    size_t bytes = 0;
};

size_t Aligned(size_t bytes) {
    return (bytes + kAlignment - 1) / kAlignment * kAlignment;
}

FlowLevels LayOut(int32_t width, int32_t height) {
    if (width < 1 || height < 1) throw PLErrFailed;
    // Far past any memory; keeps the sums below from wrapping.
    if (static_cast<uint64_t>(width) * static_cast<uint64_t>(height) > (uint64_t{1} << 56))
        throw PLErrOutOfMemory;
    FlowLevels levels;
    int32_t w = width;
    int32_t h = height;
    for (;;) {
        const int32_t l = levels.count++;
        levels.width[l] = w;
        levels.height[l] = h;
        const size_t pixels = static_cast<size_t>(w) * static_cast<size_t>(h);
        levels.values[l] = levels.bytes;
        levels.bytes += Aligned(pixels * 2 * sizeof(float));
        levels.weights[l] = levels.bytes;
        levels.bytes += Aligned(pixels * sizeof(float));
        if (l > 0) {
            levels.filled[l] = levels.bytes;
            levels.bytes += Aligned(pixels * 2 * sizeof(float));
            if (w == 2 && h == 2) break;
        }
        w = HalveLevel(w);
        h = HalveLevel(h);
    }
    return levels;
}

PLImage LevelImage(uint8_t* scratch, size_t offset, const FlowLevels& levels, int32_t l, int32_t channels) {
    return PLImage(scratch + offset, levels.width[l], levels.height[l], channels, PLPixelFloat, 0);
}

// The flow's own memory as a level-0 image of one or two float channels.
PLImage FlowMemory(const PLImage* flow, int32_t channels) {
    return PLImage(flow->data, flow->width, flow->height, flow->rowBytes, channels, PLPixelFloat,
                   flow->flipped);
}

// Level l's filled image; level 0's is the flow's memory.
PLImage FilledLevel(const PLImage* flow, uint8_t* scratch, const FlowLevels& levels, int32_t l,
                    int32_t channels) {
    if (l == 0) return FlowMemory(flow, channels);
    return LevelImage(scratch, levels.filled[l], levels, l, channels);
}

PL_INLINE_HOT uint32_t FloatBits(float f) {
    uint32_t bits;
    std::memcpy(&bits, &f, sizeof bits);
    return bits;
}

PL_INLINE_HOT float BitsFloat(uint32_t bits) {
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}

// Pixel x of level 0: weight 1 and the vector (dx, dy) where it is known,
// weight 0 and a cleared vector elsewhere. The choice is a mask on the bits,
// so that it takes no branch: holes come and go too often along a row to be
// predicted.
PL_INLINE_HOT void StoreLevelPixel(bool known, float dx, float dy, float* v, float* w, int32_t x) {
    const uint32_t keep = 0u - static_cast<uint32_t>(known);
    w[x] = BitsFloat(FloatBits(1.0f) & keep);
    v[2 * x] = BitsFloat(FloatBits(dx) & keep);
    v[2 * x + 1] = BitsFloat(FloatBits(dy) & keep);
}

// Level 0 of both pyramids at once: weight 1 and the vector where the mask is
// zero, weight 0 and a cleared vector elsewhere.
template <typename MaskPixel>
PL_INLINE_HOT void LoadFlowRows(int32_t, bool, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    const PLImage* values = args->next<PLImage*>();
    const PLImage* weights = args->next<PLImage*>();
    const PLImage* flow = args->next<const PLImage*>();
    const PLImage* mask = args->next<const PLImage*>();
    for (int32_t y = firstRow; y <= lastRow; ++y) {
        float* v = reinterpret_cast<float*>(values->Row(y));
        float* w = reinterpret_cast<float*>(weights->Row(y));
        const float* f = reinterpret_cast<const float*>(flow->Row(y));
        const uint8_t* m = mask->Row(y);
        for (int32_t x = 0; x < values->width; ++x) {
            const bool known = MaskPixel::Load(m + PLOffset(x, mask->pixelStride)) == 0;
            StoreLevelPixel(known, f[2 * x], f[2 * x + 1], v, w, x);
        }
    }
}

// DivideRows for both channels over one weight. The top level has nothing
// pushed into it: where the weight is zero it takes zero.
template <bool kTop>
PL_INLINE_HOT void DivideFlowRows(int32_t, bool, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    const PLImage* filled = args->next<PLImage*>();
    const PLImage* values = args->next<const PLImage*>();
    const PLImage* weights = args->next<const PLImage*>();
    for (int32_t y = firstRow; y <= lastRow; ++y) {
        float* f = reinterpret_cast<float*>(filled->Row(y));
        const float* v = reinterpret_cast<const float*>(values->Row(y));
        const float* w = reinterpret_cast<const float*>(weights->Row(y));
        // Two pixels (four quotients) at a time, without branches: where the
        // weight is zero the quotient is taken by 1 and thrown away.
        using Four = float __attribute__((vector_size(16)));
        int32_t x = 0;
        for (; x + 2 <= filled->width; x += 2) {
            Four value, kept = {};
            std::memcpy(&value, v + 2 * x, sizeof value);
            if constexpr (!kTop) std::memcpy(&kept, f + 2 * x, sizeof kept);
            const Four weight = {w[x], w[x], w[x + 1], w[x + 1]};
            const auto known = weight != 0.0f;
            const Four quotient = value / (known ? weight : Four{} + 1.0f);
            const Four result = known ? quotient : kept;
            std::memcpy(f + 2 * x, &result, sizeof result);
        }
        for (; x < filled->width; ++x) {
            if (w[x] != 0.0f) {
                f[2 * x] = v[2 * x] / w[x];
                f[2 * x + 1] = v[2 * x + 1] / w[x];
            } else if (kTop) {
                f[2 * x] = 0.0f;
                f[2 * x + 1] = 0.0f;
            }
        }
    }
}

template <bool kTop>
void DivideFlow(PLImage* filled, const PLImage* values, const PLImage* weights) {
    kqmp_runrows(filled->height, kqmp_forisa<DivideFlowRows<kTop>>(), filled, values, weights);
}

}  // namespace

size_t PLFlowFillBytes(int32_t width, int32_t height) {
    return LayOut(width, height).bytes;
}

namespace {

// Level 0 straight from the vector clip: the flow PLDecodeMotionVectors would
// give and the mask the engine makes (alpha complemented), loaded as
// LoadFlowRows loads them, without either image. A known pixel's alpha is
// white, never zero, so it is always decoded; integer codes are looked up in
// `codes`, made by PLDecodeCode.
template <typename VectorPixel>
PL_INLINE_HOT void LoadVectorRows(int32_t, bool, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    using T = typename VectorPixel::Element;
    const PLImage* values = args->next<PLImage*>();
    const PLImage* weights = args->next<PLImage*>();
    const PLImage* vectors = args->next<const PLImage*>();
    const float maxDisplace = *args->next<const float*>();
    const float* codes = args->next<const float*>();
    for (int32_t y = firstRow; y <= lastRow; ++y) {
        float* v = reinterpret_cast<float*>(values->Row(y));
        float* w = reinterpret_cast<float*>(weights->Row(y));
        const uint8_t* in = vectors->Row(y);
        for (int32_t x = 0; x < values->width; ++x, in += 4 * sizeof(T)) {
            float dx, dy;
            if constexpr (VectorPixel::kIsFloat) {
                PLDecodeVector<VectorPixel>(in, maxDisplace, dx, dy);
            } else {
                dx = codes[VectorPixel::Load(in)];
                dy = codes[VectorPixel::Load(in + sizeof(T))];
            }
            const T hole = VectorPixel::Complement(VectorPixel::Load(in + 3 * sizeof(T)));
            StoreLevelPixel(hole == 0, dx, dy, v, w, x);
        }
    }
}

// The fill from a loaded level 0 on.
void FillLoaded(PLImage* flow, const FlowLevels& levels, QVIdleAndProgressClass* progress, uint8_t* scratch);

}  // namespace

void PLFillFlow(PLImage* flow, const PLImage* mask, QVIdleAndProgressClass* progress, uint8_t* scratch) {
    if (!flow || !mask || !scratch || PLDimensionsDiffer(flow, mask)) return;
    if (flow->numChannels != 2 || flow->pixelType != PLPixelFloat || !PLIsPathType(mask->pixelType)) return;
    const FlowLevels levels = LayOut(flow->width, flow->height);
    PLImage v = LevelImage(scratch, levels.values[0], levels, 0, 2);
    PLImage w = LevelImage(scratch, levels.weights[0], levels, 0, 1);
    PLVisitPixelType(mask->pixelType, [&](auto maskPixel) {
        kqmp_runrows(flow->height, kqmp_forisa<LoadFlowRows<decltype(maskPixel)>>(), &v, &w, flow, mask);
    });
    FillLoaded(flow, levels, progress, scratch);
}

void PLDecodeAndFillFlow(float maxDisplace, PLImage* flow, const PLImage* vectors,
                         QVIdleAndProgressClass* progress, uint8_t* scratch) {
    if (!flow || !vectors || !scratch || PLDimensionsDiffer(flow, vectors)) return;
    if (flow->numChannels != 2 || flow->pixelType != PLPixelFloat || vectors->numChannels != 4 ||
        !PLIsPathType(vectors->pixelType))
        return;
    const FlowLevels levels = LayOut(flow->width, flow->height);
    PLImage v = LevelImage(scratch, levels.values[0], levels, 0, 2);
    PLImage w = LevelImage(scratch, levels.weights[0], levels, 0, 1);
    PLVisitPixelType(vectors->pixelType, [&](auto vectorPixel) {
        using P = decltype(vectorPixel);
        // Every code's motion, once: a division in double per sample otherwise.
        std::optional<QVMemBlock<float>> codes;
        if constexpr (!P::kIsFloat) {
            codes.emplace(static_cast<size_t>(P::kWhite) + 1);
            for (int32_t c = 0; c <= static_cast<int32_t>(P::kWhite); ++c)
                codes->get()[c] = PLDecodeCode<P>(c, maxDisplace);
        }
        kqmp_runrows(flow->height, kqmp_forisa<LoadVectorRows<P>>(), &v, &w, vectors, &maxDisplace,
                     static_cast<const float*>(codes ? codes->get() : nullptr));
    });
    FillLoaded(flow, levels, progress, scratch);
}

namespace {

void FillLoaded(PLImage* flow, const FlowLevels& levels, QVIdleAndProgressClass* progress, uint8_t* scratch) {
    const int32_t top = levels.count - 1;
    auto values = [&](int32_t l) { return LevelImage(scratch, levels.values[l], levels, l, 2); };
    auto weights = [&](int32_t l) { return LevelImage(scratch, levels.weights[l], levels, l, 1); };
    {
        // One work block for every reduce: level 0's values ask the most.
        const PLImage finest = values(0), next = values(1);
        const size_t workBytes = PLBinomial5ReduceBytes(&next, &finest);
        QVMemBlock<uint8_t> work(workBytes);
        for (int32_t l = 1; l <= top; ++l) {
            const PLImage fromValues = values(l - 1);
            const PLImage fromWeights = weights(l - 1);
            PLImage toValues = values(l);
            PLImage toWeights = weights(l);
            PLBinomial5Reduce(&toValues, &fromValues, work.get(), workBytes);
            PLBinomial5Reduce(&toWeights, &fromWeights, work.get(), workBytes);
        }
    }

    QVIdleAndProgressClass local(progress);
    float total = 0.0f;
    for (int32_t l = top; l >= 0; --l)
        total += static_cast<float>(static_cast<int64_t>(levels.width[l]) * levels.height[l]);
    float done = 0.0f;
    for (int32_t l = top; l >= 0; --l) {
        PLImage level = FilledLevel(flow, scratch, levels, l, 2);
        PLImage* filled = l == 0 ? flow : &level;
        PLImage v = values(l);
        const PLImage w = weights(l);
        if (l == 0) {
            // Known pixels take their value back after the smoothing, so only
            // the holes are smoothed, in two passes with the divisions inside;
            // level 0's values are not needed after it.
            PLGaussianBlurHoles(5.0f, flow, &v, &w);
            local.reportCurrent();
        } else {
            if (l == top)
                DivideFlow<true>(filled, &v, &w);
            else
                DivideFlow<false>(filled, &v, &w);
            PLSmoothLevel(filled, 0, 1);
            local.reportCurrent();
            PLImage finer = FilledLevel(flow, scratch, levels, l - 1, 2);
            Push(l == 1 ? flow : &finer, filled);
        }
        done += static_cast<float>(static_cast<int64_t>(levels.width[l]) * levels.height[l]);
        local.ProgressIdle(done / total);
    }
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
