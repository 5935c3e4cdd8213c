// Decoding of the vector clip into the flow image. Red and green hold the two
// components as a signed fraction of the maximum displacement, alpha says
// whether the pixel carries a vector. Integer codes are decoded in double so
// that 127 and 32767 give exactly zero motion; float samples stay in float.
#include "vectors/decode.h"

#include <memory>

#include "image/image_ops.h"
#include "image/pixel_format.h"
#include "mp/isa_rows.h"
#include "mp/kqmp.h"
#include "vectors/fill.h"

namespace {

// Pixels a row may hold for the fixed steps of two flow floats and four vector
// samples. For the images the engine makes this is the width; an image of
// fewer channels, which the channel test lets through, is cut short rather
// than read or written past its row.
int32_t DecodablePixels(const PLImage* flow, const PLImage* vectors) {
    int64_t n = flow->width;
    const int64_t flowRoom = static_cast<int64_t>(flow->width) * flow->numChannels / 2;
    const int64_t vectorRoom = static_cast<int64_t>(vectors->width) * vectors->numChannels / 4;
    if (flowRoom < n) n = flowRoom;
    if (vectorRoom < n) n = vectorRoom;
    return static_cast<int32_t>(n);
}

// The divisor is one below white (254, 65534), so that the middle codes 127
// and 32767 stand for exactly zero motion.
template <typename P>
PL_INLINE_HOT void DecodeIntegerRows(const PLImage* flow, const PLImage* vectors, double m, int32_t n,
                                     int32_t firstRow, int32_t lastRow) {
    using T = typename P::Element;
    const double span = static_cast<double>(P::kWhite) - 1.0;
    for (int32_t y = firstRow; y <= lastRow; ++y) {
        uint8_t* out = flow->Row(y);
        const uint8_t* in = vectors->Row(y);
        for (int32_t x = 0; x < n; ++x, out += 2 * sizeof(float), in += 4 * sizeof(T)) {
            float dx = 0.0f;
            float dy = 0.0f;
            if (P::Load(in + 3 * sizeof(T)) != 0) {
                const int32_t r = P::Load(in);
                const int32_t g = P::Load(in + sizeof(T));
                dx = static_cast<float>((static_cast<double>(r + r) / span - 1.0) * m);
                dy = static_cast<float>((static_cast<double>(g + g) / span - 1.0) * m);
            }
            PLStoreElement<float>(out, dx);
            PLStoreElement<float>(out + sizeof(float), dy);
        }
    }
}

PL_INLINE_HOT void DecodeFloatRows(const PLImage* flow, const PLImage* vectors, float m, int32_t n,
                                   int32_t firstRow, int32_t lastRow) {
    for (int32_t y = firstRow; y <= lastRow; ++y) {
        uint8_t* out = flow->Row(y);
        const uint8_t* in = vectors->Row(y);
        for (int32_t x = 0; x < n; ++x, out += 2 * sizeof(float), in += 4 * sizeof(float)) {
            float dx = 0.0f;
            float dy = 0.0f;
            // NaN alpha compares unequal and is decoded; -0.0 equals zero.
            if (PLLoadElement<float>(in + 3 * sizeof(float)) != 0.0f) {
                const float r = PLLoadElement<float>(in);
                const float g = PLLoadElement<float>(in + sizeof(float));
                dx = ((r + r) - 1.0f) * m;
                dy = ((g + g) - 1.0f) * m;
            }
            PLStoreElement<float>(out, dx);
            PLStoreElement<float>(out + sizeof(float), dy);
        }
    }
}

PL_INLINE_HOT void DecodeRows(int32_t, bool, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    const PLImage* flow = args->next<PLImage*>();
    const PLImage* vectors = args->next<const PLImage*>();
    const float maxDisplace = *args->next<const float*>();
    const int32_t n = DecodablePixels(flow, vectors);
    PLVisitPixelType(vectors->pixelType, [&](auto pixel) {
        using P = decltype(pixel);
        if constexpr (P::kIsFloat)
            DecodeFloatRows(flow, vectors, maxDisplace, n, firstRow, lastRow);
        else
            DecodeIntegerRows<P>(flow, vectors, maxDisplace, n, firstRow, lastRow);
    });
}

}  // namespace

void PLDecodeMotionVectors(float maxDisplace, PLImage* flow, const PLImage* vectors) {
    if (!flow || !vectors) return;
    // Either channel count alone admits the pair.
    if (!(flow->numChannels == 2 || vectors->numChannels == 4)) return;
    if (PLDimensionsDiffer(flow, vectors)) return;
    if (flow->pixelType != PLPixelFloat) return;
    kqmp_runrows(flow->height, kqmp_forisa<DecodeRows>(), flow, vectors, &maxDisplace);
}

void PLDecodeAndFillMotionVectors(float maxDisplace, PLImage* flow, const PLImage* vectors) {
    if (!flow || !vectors) return;
    if (flow->width != vectors->width || flow->height != vectors->height) return;
    if (flow->pixelType != PLPixelFloat || flow->numChannels != 2 || vectors->numChannels != 4) return;
    PLDecodeMotionVectors(maxDisplace, flow, vectors);
    std::unique_ptr<PLImage> mask(new PLImage(vectors->width, vectors->height, 1, vectors->pixelType, 0));
    PLCopyChannelIntoChannel(mask.get(), 0, vectors, 3);
    PLInvertImage(mask.get());
    PLFillFlowHoles(flow, mask.get(), nullptr);
}
