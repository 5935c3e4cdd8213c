// PLImage: the plain image record that every kernel reads directly.
// It says where the pixels lie and how they are laid out, nothing more; the
// derived fields (stride, last indices, signed row step) are computed once at
// initialisation so that inner loops keep them in registers.
#pragma once

#include <cstdint>

#include "base/qvmem.h"
#include "image/plconvert.h"

enum PLPixelType : int32_t {
    PLPixelUChar = 0,
    PLPixelUShort = 1,
    PLPixelFloat = 2,
    PLPixelChar = 3,
    PLPixelShort = 4,
    PLPixelFractionShort = 5,
    PLPixelFractionUShort = 6,
    PLPixelDouble = 7,
    PLPixelLong = 8,
};

// Element sizes by pixel type. PLPixelLong is listed as 4 although its reader
// and writer move 8 bytes: neighbouring elements of such an image overlap.
extern const int32_t PLBytesPerElement[9];
int32_t PLElementSize(int32_t pixelType);  // PLBytesPerElement, 0 for an unknown type

using PLElementReader = void (*)(float* out, const void* element);

// Reader and writer of one element of each pixel type (no clamping, no rounding).
PLElementReader PLElementReaderFor(int32_t pixelType);  // null above 8
void PLFloatToElement(int32_t pixelType, void* element, float value);

class PLImage : public QVMem {
  public:
    // Allocated pixels, rowBytes = width * pixelStride. Throws on exhaustion.
    PLImage(int32_t width, int32_t height, int32_t numChannels, int32_t pixelType, int32_t flipped);
    // Allocated pixels; throws only if throwOnFailure, else sets errorCode.
    PLImage(bool throwOnFailure, int32_t width, int32_t height, int32_t numChannels, int32_t pixelType,
            int32_t flipped);
    // Outside memory with the owner's row bytes.
    PLImage(void* data, int32_t width, int32_t height, int32_t rowBytes, int32_t numChannels,
            int32_t pixelType, int32_t flipped);
    PLImage(bool throwOnFailure, void* data, int32_t width, int32_t height, int32_t rowBytes,
            int32_t numChannels, int32_t pixelType, int32_t flipped);
    // Outside memory, packed rows.
    PLImage(void* data, int32_t width, int32_t height, int32_t numChannels, int32_t pixelType,
            int32_t flipped);
    PLImage(bool throwOnFailure, void* data, int32_t width, int32_t height, int32_t numChannels,
            int32_t pixelType, int32_t flipped);
    virtual ~PLImage();

    PLImage(const PLImage&) = delete;
    PLImage& operator=(const PLImage&) = delete;

    // Rebinds to outside memory and recomputes everything. Neither tests data
    // for null nor frees memory the object owned.
    void SetData(void* data, int32_t width, int32_t height, int32_t rowBytes, int32_t numChannels,
                 int32_t pixelType, int32_t flipped);
    void Init(bool allocate, int32_t rethrow);

    // Slow per-pixel access, for paths kept for completeness; kernels walk rows.
    void GetPixel(int32_t x, int32_t y, float* out) const;
    void GetChannel(int32_t x, int32_t y, float* out, int32_t channel) const;
    void SetPixel(int32_t x, int32_t y, const float* in);

    // Address of logical row y, honouring flipped.
    uint8_t* Row(int32_t y) const { return data + PLOffset(flipped ? lastRow - y : y, rowBytes); }

    int32_t numChannels = 0;
    int32_t width = 0;
    int32_t height = 0;
    int32_t errorCode = 0;
    int32_t pixelType = 0;
    int32_t flipped = 0;
    int32_t bytesPerElement = 0;
    int32_t pixelStride = 0;
    int32_t rowBytes = 0;
    int32_t ownsData = 0;
    uint8_t* data = nullptr;
    float whitePoint = 0.0f;
    int32_t colourMode = 0;
    int32_t colourFlags = 0;
    int32_t lastRow = 0;
    int32_t lastColumn = 0;
    int32_t rowStep = 0;
    PLElementReader elementToFloat = nullptr;

  private:
    void InitOutside(bool throwOnFailure, void* data, int32_t width, int32_t height, int32_t rowBytes,
                     int32_t numChannels, int32_t pixelType, int32_t flipped);
};

// An image with pixels to work on: not null, with data, at least one pixel wide and high.
inline bool PLHasPixels(const PLImage* image) {
    return image && image->data && image->width > 0 && image->height > 0;
}

// Guards before an operation: each is true when the two are NOT fit to go together.
bool PLDimensionsDiffer(const PLImage* a, const PLImage* b);
bool PLDimensionsOrChannelsDiffer(const PLImage* a, const PLImage* b);
bool PLDimensionsOrTypeDiffer(const PLImage* a, const PLImage* b);
bool PLLayoutsDiffer(const PLImage* a, const PLImage* b);
bool PLImagesDiffer(const PLImage* a, const PLImage* b);
bool PLFormatsDiffer(const PLImage* a, const PLImage* b);
