// Whole-image operations: each public function is a driver that validates its
// images once and hands rows to a file-static worker through the thread layer.
// Per-type code sits only at the load/store edge, in the pixel-format module;
// the row loops are written once and instantiated per pixel type.
#include "image/image_ops.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <type_traits>

#include "image/pixel_format.h"
#include "mp/isa_rows.h"
#include "mp/kqmp.h"

namespace {

// True when the w x h rectangle at (x, y), whose rows are accessed over
// rowLength bytes from pixel x, lies wholly inside the image.
bool RectInside(const PLImage* image, int32_t x, int32_t y, int32_t w, int32_t h, int64_t rowLength) {
    return x >= 0 && y >= 0 && w > 0 && h > 0 && static_cast<int64_t>(y) + h <= image->height &&
           static_cast<int64_t>(x) * image->pixelStride + rowLength <=
               static_cast<int64_t>(image->width) * image->pixelStride;
}

// Treats the range as one contiguous run of floats from the lower of its two end
// rows; exact only for packed rows, which is what its callers pass.
void ScaleFloatRows(int32_t, bool, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    PLImage* image = args->next<PLImage*>();
    const float factor = *args->next<const float*>();
    uint8_t* first = image->Row(firstRow);
    uint8_t* last = image->Row(lastRow);
    uint8_t* run = first < last ? first : last;
    const int64_t count = static_cast<int64_t>(lastRow - firstRow + 1) * image->width * image->numChannels;
    for (int64_t i = 0; i < count; ++i) {
        uint8_t* p = run + i * 4;
        PLStoreElement<float>(p, PLLoadElement<float>(p) * factor);
    }
}

template <typename P>
void PremultiplyRows(int32_t, bool, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    using T = typename P::Element;
    PLImage* image = args->next<PLImage*>();
    const int32_t width = image->width;
    for (int32_t y = firstRow; y <= lastRow; ++y) {
        uint8_t* p = image->Row(y);
        for (int32_t x = 0; x < width; ++x, p += 4 * sizeof(T)) {
            const T a = P::Load(p + 3 * sizeof(T));
            if constexpr (P::kIsFloat) {
                for (int c = 0; c < 3; ++c) P::Store(p + c * sizeof(T), P::Load(p + c * sizeof(T)) * a);
            } else {
                const float f = static_cast<float>(a) * P::kInverseWhite;
                for (int c = 0; c < 3; ++c)
                    P::Store(p + c * sizeof(T), P::RoundInDouble(P::LoadFloat(p + c * sizeof(T)) * f));
            }
        }
    }
}

template <typename P>
void UnpremultiplyRows(int32_t, bool, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    using T = typename P::Element;
    PLImage* image = args->next<PLImage*>();
    const int32_t width = image->width;
    for (int32_t y = firstRow; y <= lastRow; ++y) {
        uint8_t* p = image->Row(y);
        for (int32_t x = 0; x < width; ++x, p += 4 * sizeof(T)) {
            const T a = P::Load(p + 3 * sizeof(T));
            if (a == 0) continue;
            if constexpr (P::kIsFloat) {
                // No clamp: a float colour may come out above 1.0.
                const float f = 1.0f / a;
                for (int c = 0; c < 3; ++c) P::Store(p + c * sizeof(T), P::Load(p + c * sizeof(T)) * f);
            } else {
                const float f = static_cast<float>(static_cast<double>(P::kWhite) / a);
                for (int c = 0; c < 3; ++c) {
                    float v = P::LoadFloat(p + c * sizeof(T)) * f;
                    if (v > P::kWhite) v = P::kWhite;
                    P::Store(p + c * sizeof(T), P::RoundInDouble(v));
                }
            }
        }
    }
}

// Covers width elements of each row whatever numChannels is: the whole row of
// the one-channel masks it is meant for.
template <typename P>
PL_INLINE_HOT void InvertRows(int32_t, bool, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    PLImage* image = args->next<PLImage*>();
    const int32_t width = image->width;
    for (int32_t y = firstRow; y <= lastRow; ++y) {
        uint8_t* p = image->Row(y);
        for (int32_t i = 0; i < width; ++i, p += sizeof(typename P::Element))
            P::Store(p, P::Complement(P::Load(p)));
    }
}

void ClearRows(int32_t, bool, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    PLImage* image = args->next<PLImage*>();
    const size_t length = static_cast<size_t>(image->pixelStride) * static_cast<size_t>(image->width);
    for (int32_t y = firstRow; y <= lastRow; ++y) std::memset(image->Row(y), 0, length);
}

template <typename DstPixel, typename SrcPixel>
PL_INLINE_HOT void CopyChannelRows(int32_t, bool, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    using Dst = typename DstPixel::Element;
    using Src = typename SrcPixel::Element;
    PLImage* dst = args->next<PLImage*>();
    const int32_t dstChannel = *args->next<const int32_t*>();
    const PLImage* src = args->next<const PLImage*>();
    const int32_t srcChannel = *args->next<const int32_t*>();
    const int32_t width = dst->width;
    for (int32_t y = firstRow; y <= lastRow; ++y) {
        uint8_t* d = dst->Row(y) + dstChannel * sizeof(Dst);
        const uint8_t* s = src->Row(y) + srcChannel * sizeof(Src);
        for (int32_t x = 0; x < width; ++x, d += dst->pixelStride, s += src->pixelStride)
            PLConvertElement<DstPixel, SrcPixel>(d, s);
    }
}

void CopyRows(int32_t, bool, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    PLImage* dst = args->next<PLImage*>();
    const PLImage* src = args->next<const PLImage*>();
    const size_t length = static_cast<size_t>(dst->pixelStride) * static_cast<size_t>(dst->width);
    for (int32_t y = firstRow; y <= lastRow; ++y) std::memcpy(dst->Row(y), src->Row(y), length);
}

// The rectangle copy between types: the first image of the list is read at its
// origin and the second written at its own, element by element.
template <typename ReadPixel, typename WritePixel>
void ConvertRectRows(int32_t, bool, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    using Read = typename ReadPixel::Element;
    using Write = typename WritePixel::Element;
    const PLImage* from = args->next<const PLImage*>();
    PLImage* to = args->next<PLImage*>();
    const int32_t fromX = *args->next<const int32_t*>();
    const int32_t fromY = *args->next<const int32_t*>();
    const int32_t toX = *args->next<const int32_t*>();
    const int32_t toY = *args->next<const int32_t*>();
    const int32_t width = *args->next<const int32_t*>();
    const int32_t channels = from->numChannels;
    for (int32_t row = firstRow; row <= lastRow; ++row) {
        const uint8_t* s = from->Row(fromY + row) + PLOffset(fromX, from->pixelStride);
        uint8_t* d = to->Row(toY + row) + PLOffset(toX, to->pixelStride);
        for (int32_t x = 0; x < width; ++x, s += from->pixelStride, d += to->pixelStride) {
            for (int32_t c = 0; c < channels; ++c)
                PLConvertElement<WritePixel, ReadPixel>(d + c * sizeof(Write), s + c * sizeof(Read));
        }
    }
}

void FillRows(int32_t, bool, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    PLImage* image = args->next<PLImage*>();
    const uint8_t* pixel = args->next<const uint8_t*>();
    const int32_t stride = image->pixelStride;
    for (int32_t y = firstRow; y <= lastRow; ++y) {
        uint8_t* p = image->Row(y);
        for (int32_t x = 0; x < image->width; ++x, p += stride)
            std::memcpy(p, pixel, static_cast<size_t>(stride));
    }
}

bool PassesAlphaTest(const PLImage* image) {
    if (!PLHasPixels(image) || image->numChannels != 4 || !PLIsPathType(image->pixelType)) return false;
    return image->pixelType != PLPixelFloat || image->whitePoint == 1.0f;
}

// Into an integer type rounded and clamped to its range; from an integer into
// float the number unchanged; the same type bit for bit.
template <typename DstPixel, typename SrcPixel>
void CopyConvertingRows(int32_t, bool, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    using D = typename DstPixel::Element;
    using S = typename SrcPixel::Element;
    const PLImage* dst = args->next<PLImage*>();
    const int32_t dstChannel = args->next<int32_t>();
    const PLImage* src = args->next<const PLImage*>();
    const int32_t srcChannel = args->next<int32_t>();
    for (int32_t y = firstRow; y <= lastRow; ++y) {
        uint8_t* out = dst->Row(y) + static_cast<size_t>(dstChannel) * sizeof(D);
        const uint8_t* in = src->Row(y) + static_cast<size_t>(srcChannel) * sizeof(S);
        for (int32_t x = 0; x < dst->width; ++x) {
            uint8_t* o = out + PLOffset(x, dst->pixelStride);
            const uint8_t* i = in + PLOffset(x, src->pixelStride);
            if constexpr (std::is_same_v<D, S>) {
                DstPixel::Store(o, SrcPixel::Load(i));
            } else if constexpr (DstPixel::kIsFloat) {
                DstPixel::Store(o, SrcPixel::LoadFloat(i));
            } else {
                DstPixel::Store(o, DstPixel::RoundClamp(SrcPixel::LoadFloat(i)));
            }
        }
    }
}

}  // namespace

void PLScaleImage(float factor, PLImage* image) {
    if (std::fabs(static_cast<double>(factor) - 1.0) < 1e-06) return;
    if (!PLHasPixels(image)) return;
    if (image->pixelType == PLPixelFloat) {
        kqmp_runrows(image->height, ScaleFloatRows, image, &factor);
        return;
    }
    // GetPixel and SetPixel have no loops for the other types, so scaling them
    // would write whatever the scratch array held.
    if (!PLIsPathType(image->pixelType)) return;
    QVMemBlock<float> block(static_cast<size_t>(image->numChannels));
    float* scratch = block.get();
    for (int32_t y = 0; y < image->height; ++y) {
        for (int32_t x = 0; x < image->width; ++x) {
            image->GetPixel(x, y, scratch);
            for (int32_t c = 0; c < image->numChannels; ++c) scratch[c] = scratch[c] * factor;
            image->SetPixel(x, y, scratch);
        }
    }
}

void PLPremultiply(PLImage* image) {
    if (!PassesAlphaTest(image)) return;
    PLVisitPixelType(image->pixelType, [&](auto pixel) {
        kqmp_runrows(image->height, PremultiplyRows<decltype(pixel)>, image);
    });
}

void PLUnpremultiply(PLImage* image) {
    if (!PassesAlphaTest(image)) return;
    PLVisitPixelType(image->pixelType, [&](auto pixel) {
        kqmp_runrows(image->height, UnpremultiplyRows<decltype(pixel)>, image);
    });
}

void PLInvertImage(PLImage* image) {
    if (!PLHasPixels(image)) return;
    PLVisitPixelType(image->pixelType, [&](auto pixel) {
        kqmp_runrows(image->height, kqmp_forisa<InvertRows<decltype(pixel)>>(), image);
    });
}

void PLClearImage(PLImage* image) {
    if (!PLHasPixels(image)) return;
    kqmp_runrows(image->height, ClearRows, image);
}

void PLCopyChannelIntoChannel(PLImage* dst, int32_t dstChannel, const PLImage* src, int32_t srcChannel) {
    if (!dst || !src) return;
    if (dst->width != src->width || dst->height != src->height) {
        std::fprintf(stderr, "CopyCHannelIntoCHannel: incompatible images!\n");
        return;
    }
    if (!PLHasPixels(dst) || !PLHasPixels(src)) return;
    if (dstChannel < 0 || dstChannel >= dst->numChannels || srcChannel < 0 || srcChannel >= src->numChannels)
        return;
    PLVisitPixelType(dst->pixelType, [&](auto dstPixel) {
        PLVisitPixelType(src->pixelType, [&](auto srcPixel) {
            kqmp_runrows(dst->height, kqmp_forisa<CopyChannelRows<decltype(dstPixel), decltype(srcPixel)>>(),
                         dst, &dstChannel, src, &srcChannel);
        });
    });
}

void PLCopyImage(PLImage* dst, const PLImage* src) {
    if (!PLHasPixels(dst) || !PLHasPixels(src)) return;
    // Only dst supplies the lengths; a src that is smaller would be read past its end.
    if (src->height < dst->height || static_cast<int64_t>(src->width) * src->pixelStride <
                                         static_cast<int64_t>(dst->width) * dst->pixelStride)
        return;
    kqmp_runrows(dst->height, CopyRows, dst, src);
}

void PLCopyImagePart(PLImage* dst, int32_t dstX, int32_t dstY, PLImage* src, int32_t srcX, int32_t srcY,
                     int32_t width, int32_t height) {
    if (!PLHasPixels(dst) || !PLHasPixels(src)) return;
    if (dst->pixelType == src->pixelType) {
        if (dstX == 0 && dstY == 0 && srcX == 0 && srcY == 0 && width == dst->width && width == src->width &&
            height == dst->height && height == src->height) {
            PLCopyImage(dst, src);
            return;
        }
        const int64_t length = static_cast<int64_t>(width) * dst->pixelStride;
        if (!RectInside(dst, dstX, dstY, width, height, length) ||
            !RectInside(src, srcX, srcY, width, height, length))
            return;
        for (int32_t row = 0; row < height; ++row) {
            std::memcpy(dst->Row(dstY + row) + PLOffset(dstX, dst->pixelStride),
                        src->Row(srcY + row) + PLOffset(srcX, src->pixelStride), static_cast<size_t>(length));
        }
        return;
    }
    // Between types the data travels from dst at (dstX, dstY) into src at
    // (srcX, srcY): the direction has always been so and callers rely on nothing else.
    if (dst->numChannels != src->numChannels) return;
    if (!RectInside(dst, dstX, dstY, width, height, static_cast<int64_t>(width) * dst->pixelStride) ||
        !RectInside(src, srcX, srcY, width, height, static_cast<int64_t>(width) * src->pixelStride))
        return;
    PLVisitPixelType(dst->pixelType, [&](auto readPixel) {
        PLVisitPixelType(src->pixelType, [&](auto writePixel) {
            kqmp_runrows(height, ConvertRectRows<decltype(readPixel), decltype(writePixel)>, dst, src, &dstX,
                         &dstY, &srcX, &srcY, &width);
        });
    });
}

void PLFillImage(PLImage* image, const float colour[4]) {
    if (!PLHasPixels(image) || image->numChannels < 1 || image->numChannels > 4) return;
    uint8_t colourPixel[4 * sizeof(float)];
    const bool known = PLVisitPixelType(image->pixelType, [&](auto traits) {
        using P = decltype(traits);
        using T = typename P::Element;
        for (int32_t c = 0; c < image->numChannels; ++c) {
            T v;
            if constexpr (P::kIsFloat) {
                v = colour[c] * image->whitePoint;
            } else {
                // The rounding differs between the types on purpose: see kFillRounding.
                v = static_cast<T>(PLTruncI32(
                    static_cast<double>(colour[c]) * static_cast<double>(P::kWhite) + P::kFillRounding));
            }
            P::Store(colourPixel + c * sizeof(T), v);
        }
    });
    if (known) kqmp_runrows(image->height, FillRows, image, static_cast<const uint8_t*>(colourPixel));
}

void PLCopyChannelConverting(PLImage* dst, int32_t dstChannel, const PLImage* src, int32_t srcChannel) {
    if (PLDimensionsDiffer(dst, src) || !PLIsPathType(dst->pixelType) || !PLIsPathType(src->pixelType))
        return;
    if (dstChannel < 0 || dstChannel >= dst->numChannels || srcChannel < 0 || srcChannel >= src->numChannels)
        return;
    PLVisitPixelType(dst->pixelType, [&](auto dstPixel) {
        PLVisitPixelType(src->pixelType, [&](auto srcPixel) {
            kqmp_runrows(dst->height, CopyConvertingRows<decltype(dstPixel), decltype(srcPixel)>, dst,
                         dstChannel, src, srcChannel);
        });
    });
}
