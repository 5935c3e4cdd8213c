#include "image/plimage.h"

#include <cstring>
#include <type_traits>

#include "image/pixel_format.h"

namespace {

template <typename Pixel>
void ReadElement(float* out, const void* element) {
    *out = Pixel::ToFloat(Pixel::Load(element));
}

}  // namespace

const int32_t PLBytesPerElement[9] = {PLPixel<PLPixelUChar>::kBytes,
                                      PLPixel<PLPixelUShort>::kBytes,
                                      PLPixel<PLPixelFloat>::kBytes,
                                      PLPixel<PLPixelChar>::kBytes,
                                      PLPixel<PLPixelShort>::kBytes,
                                      PLPixel<PLPixelFractionShort>::kBytes,
                                      PLPixel<PLPixelFractionUShort>::kBytes,
                                      PLPixel<PLPixelDouble>::kBytes,
                                      PLPixel<PLPixelLong>::kBytes};

int32_t PLElementSize(int32_t pixelType) {
    // An unknown type gets 0 rather than a read past the table.
    int32_t size = 0;
    PLVisitAnyPixelType(pixelType, [&](auto pixel) { size = decltype(pixel)::kBytes; });
    return size;
}

PLElementReader PLElementReaderFor(int32_t pixelType) {
    PLElementReader reader = nullptr;
    PLVisitAnyPixelType(pixelType, [&](auto pixel) { reader = &ReadElement<decltype(pixel)>; });
    return reader;
}

void PLFloatToElement(int32_t pixelType, void* e, float v) {
    PLVisitAnyPixelType(pixelType, [&](auto pixel) {
        using Pixel = decltype(pixel);
        Pixel::Store(e, Pixel::Truncate(v));
    });
}

PLImage::PLImage(int32_t w, int32_t h, int32_t nc, int32_t pt, int32_t fl)
    : numChannels(nc), width(w), height(h), pixelType(pt), flipped(fl) {
    Init(true, 1);
}

PLImage::PLImage(bool throwOnFailure, int32_t w, int32_t h, int32_t nc, int32_t pt, int32_t fl)
    : numChannels(nc), width(w), height(h), pixelType(pt), flipped(fl) {
    Init(true, throwOnFailure ? 1 : 0);
}

PLImage::PLImage(void* d, int32_t w, int32_t h, int32_t rb, int32_t nc, int32_t pt, int32_t fl) {
    InitOutside(false, d, w, h, rb, nc, pt, fl);
}

PLImage::PLImage(bool throwOnFailure, void* d, int32_t w, int32_t h, int32_t rb, int32_t nc, int32_t pt,
                 int32_t fl) {
    InitOutside(throwOnFailure, d, w, h, rb, nc, pt, fl);
}

PLImage::PLImage(void* d, int32_t w, int32_t h, int32_t nc, int32_t pt, int32_t fl) {
    InitOutside(false, d, w, h, PLMul32(PLMul32(w, PLElementSize(pt)), nc), nc, pt, fl);
}

PLImage::PLImage(bool throwOnFailure, void* d, int32_t w, int32_t h, int32_t nc, int32_t pt, int32_t fl) {
    InitOutside(throwOnFailure, d, w, h, PLMul32(PLMul32(w, PLElementSize(pt)), nc), nc, pt, fl);
}

void PLImage::InitOutside(bool throwOnFailure, void* d, int32_t w, int32_t h, int32_t rb, int32_t nc,
                          int32_t pt, int32_t fl) {
    errorCode = 0;
    numChannels = nc;
    data = static_cast<uint8_t*>(d);
    rowBytes = rb;
    pixelType = pt;
    flipped = fl;
    if (!d) {
        // An empty image: it may only be tested and destroyed.
        width = 0;
        height = 0;
        return;
    }
    width = w;
    height = h;
    Init(false, throwOnFailure ? 1 : 0);
}

PLImage::~PLImage() {
    if (ownsData && data) QVMemFree(data);
}

void PLImage::SetData(void* d, int32_t w, int32_t h, int32_t rb, int32_t nc, int32_t pt, int32_t fl) {
    data = static_cast<uint8_t*>(d);
    width = w;
    height = h;
    rowBytes = rb;
    numChannels = nc;
    pixelType = pt;
    flipped = fl;
    Init(false, 0);
}

void PLImage::Init(bool allocate, int32_t rethrow) {
    colourFlags = 0;
    colourMode = 3;
    errorCode = 0;
    bytesPerElement = PLElementSize(pixelType);
    pixelStride = PLMul32(bytesPerElement, numChannels);
    if (allocate) {
        try {
            // A row that int32 row bytes cannot state is more than can be had.
            const int64_t row = static_cast<int64_t>(width) * pixelStride;
            if (row > INT32_MAX) throw PLErrOutOfMemory;
            rowBytes = static_cast<int32_t>(row);
            int64_t size = static_cast<int64_t>(rowBytes) * static_cast<int64_t>(height);
            // The 8-byte reader of PLPixelLong runs 4 bytes past its element; pad
            // the block so that the last element stays inside what we own.
            if (pixelType == PLPixelLong) size += 4;
            // A negative product cannot be allocated: treat it as exhaustion
            // rather than handing a huge size_t to the allocator.
            if (size < 0) throw PLErrOutOfMemory;
            data = static_cast<uint8_t*>(QVMemNew(static_cast<size_t>(size)));
            ownsData = 1;
        } catch (PLErr e) {
            data = nullptr;
            ownsData = 0;
            errorCode = e;
            if (rethrow == 1) throw e;
            return;
        }
    } else {
        ownsData = 0;
    }
    lastRow = height - 1;
    lastColumn = width - 1;
    rowStep = flipped ? -rowBytes : rowBytes;
    // Only the path types have a white point; the others leave the field as it was.
    PLVisitPixelType(pixelType, [&](auto pixel) { whitePoint = decltype(pixel)::kWhite; });
    elementToFloat = PLElementReaderFor(pixelType);
}

void PLImage::GetPixel(int32_t x, int32_t y, float* out) const {
    const uint8_t* row = Row(y);
    PLVisitPixelType(pixelType, [&](auto pixel) {
        // The float branch has always read the row as 16-bit elements, like
        // the ushort branch; float images are scaled by a worker of their own.
        using Read = std::conditional_t<decltype(pixel)::kIsFloat, PLPixel<PLPixelUShort>, decltype(pixel)>;
        const uint8_t* p =
            row + PLOffset(x, numChannels) * static_cast<ptrdiff_t>(sizeof(typename Read::Element));
        for (int32_t c = 0; c < numChannels; ++c)
            out[c] = Read::LoadFloat(p + c * static_cast<ptrdiff_t>(sizeof(typename Read::Element)));
    });
}

void PLImage::GetChannel(int32_t x, int32_t y, float* out, int32_t channel) const {
    const uint8_t* p = Row(y) + PLOffset(x, pixelStride) + PLOffset(channel, bytesPerElement);
    if (pixelType == PLPixelFloat)
        *out = PLLoadElement<float>(p);
    else if (elementToFloat)  // null for an unknown type: read nothing rather than jump to null
        elementToFloat(out, p);
}

void PLImage::SetPixel(int32_t x, int32_t y, const float* in) {
    uint8_t* p = Row(y) + PLOffset(x, pixelStride);
    if (pixelType == PLPixelFloat) {
        std::memcpy(p, in, static_cast<size_t>(numChannels) * 4);
        return;
    }
    PLVisitAnyPixelType(pixelType, [&](auto pixel) {
        using Pixel = decltype(pixel);
        for (int32_t c = 0; c < numChannels; ++c)
            Pixel::Store(p + c * bytesPerElement, Pixel::Truncate(in[c]));
    });
}

bool PLDimensionsDiffer(const PLImage* a, const PLImage* b) {
    return !a || !b || a->height != b->height || a->width != b->width || !a->data || !b->data;
}

bool PLDimensionsOrChannelsDiffer(const PLImage* a, const PLImage* b) {
    return PLDimensionsDiffer(a, b) || a->numChannels != b->numChannels;
}

bool PLDimensionsOrTypeDiffer(const PLImage* a, const PLImage* b) {
    return PLDimensionsDiffer(a, b) || a->pixelType != b->pixelType;
}

bool PLLayoutsDiffer(const PLImage* a, const PLImage* b) {
    return !a || !b || PLDimensionsDiffer(a, b) || a->numChannels != b->numChannels ||
           a->bytesPerElement != b->bytesPerElement;
}

bool PLImagesDiffer(const PLImage* a, const PLImage* b) {
    return PLDimensionsDiffer(a, b) || a->pixelType != b->pixelType || a->numChannels != b->numChannels ||
           a->bytesPerElement != b->bytesPerElement;
}

bool PLFormatsDiffer(const PLImage* a, const PLImage* b) {
    return a->pixelType != b->pixelType || a->numChannels != b->numChannels ||
           a->bytesPerElement != b->bytesPerElement || !a->data || !b->data || a->whitePoint != b->whitePoint;
}
