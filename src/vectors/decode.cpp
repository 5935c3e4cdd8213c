// Decoding of the vector clip into the flow image, a pixel at a time by
// PLDecodeVector.
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

template <typename P>
PL_INLINE_HOT void DecodePixelRows(const PLImage* flow, const PLImage* vectors, float maxDisplace, int32_t n,
                                   int32_t firstRow, int32_t lastRow) {
    constexpr size_t kVectorPixel = 4 * sizeof(typename P::Element);
    for (int32_t y = firstRow; y <= lastRow; ++y) {
        uint8_t* out = flow->Row(y);
        const uint8_t* in = vectors->Row(y);
        for (int32_t x = 0; x < n; ++x, out += 2 * sizeof(float), in += kVectorPixel) {
            float dx, dy;
            PLDecodeVector<P>(in, maxDisplace, dx, dy);
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
        DecodePixelRows<decltype(pixel)>(flow, vectors, maxDisplace, n, firstRow, lastRow);
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
