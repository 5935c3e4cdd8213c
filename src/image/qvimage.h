// QVImage: the wrapper in which an image travels between the host and the
// engine. It points at memory someone else owns, without copying a pixel,
// describes it in the host's terms (origin, host pixel type) and carries the
// PLImage through which the library works on it.
#pragma once

#include <cstdint>

#include "base/plerr.h"
#include "base/qvmem.h"
#include "image/plimage.h"

// Where a wrap's logical row 0 lies: origin 0 stores rows bottom-up, which
// the image record calls flipped; origin 1 has row 0 first in memory.
enum QVOrigin : int32_t {
    QVOriginFlipped = 0,
    QVOriginInOrder = 1,
};

// What convertAlpha does; any other mode does nothing.
enum QVAlphaMode : int32_t {
    QVAlphaUnpremultiply = 1,
    QVAlphaPremultiply = 2,
};

// The image proper of a wrapper: a PLImage plus the channel layout it was wrapped with.
class QVImageInternal : public PLImage {
  public:
    QVImageInternal();  // empty: no data, 0 x 0, no channels
    ~QVImageInternal() override;

    int32_t formatFlagA = 0;
    int32_t formatFlagB = 0;
    int32_t redIndex = 0;
    int32_t greenIndex = 0;
    int32_t blueIndex = 0;
    int32_t alphaIndex = 0;
};

class QVImage : public QVMem {
  public:
    QVImage();
    virtual ~QVImage();

    QVImage(const QVImage&) = delete;
    QVImage& operator=(const QVImage&) = delete;

    // Replaces internal by a new empty one that this wrapper owns. Throws PLErrOutOfMemory.
    PLErr allocateInternal();

    // The wrap of a host image: four channels in the order red, green, blue,
    // alpha; origin a QVOrigin; pixel type PLPixelUChar, PLPixelUShort or PLPixelFloat.
    PLErr wrapHostPixels(void* data, int32_t width, int32_t height, int32_t rowBytes, int32_t origin,
                         int32_t pixelType);
    PLErr wrapFourChannels(void* data, int32_t width, int32_t height, int32_t rowBytes, int32_t origin,
                           int32_t pixelType, int32_t flagA, int32_t flagB, int32_t red, int32_t green,
                           int32_t blue, int32_t alpha);
    PLErr wrapThreeChannels(void* data, int32_t width, int32_t height, int32_t rowBytes, int32_t origin,
                            int32_t pixelType);
    // Kept for completeness: the render action wraps four, three and one channels only.
    PLErr wrapTwoChannels(void* data, int32_t width, int32_t height, int32_t rowBytes, int32_t origin,
                          int32_t pixelType);
    PLErr wrapOneChannel(void* data, int32_t width, int32_t height, int32_t rowBytes, int32_t origin,
                         int32_t pixelType);
    // Adopts an image that stays its owner's and rewraps it on its own fields.
    // Kept for completeness, like getImageInfo below.
    PLErr wrapImage(QVImageInternal* image);

    // Refreshes the cached fields from internal. Throws PLErrFailed without one.
    void syncFromInternal(int32_t origin, int32_t pixelType);

    // The image to work on: null without internal or with no pixels.
    PLImage* internalImage() const;

    // Un-premultiplies or premultiplies in place by QVAlphaMode; other modes do nothing.
    PLErr convertAlpha(int32_t mode);
    // Paints the whole image with a colour given in 0 to 1.
    PLErr fill(float red, float green, float blue, float alpha);

    int32_t getWidth() const;
    int32_t getHeight() const;
    int32_t getChannels() const;
    int32_t getRedIndex() const;
    int32_t getGreenIndex() const;
    int32_t getBlueIndex() const;
    int32_t getAlphaIndex() const;
    // Everything at once, in host terms. PLErrFailed without internal.
    PLErr getImageInfo(void** data, int32_t* width, int32_t* height, int32_t* rowBytes, int32_t* origin,
                       int32_t* pixelType, int32_t* channels, int32_t* red, int32_t* green, int32_t* blue,
                       int32_t* alpha) const;

    // A cache of internal's layout, refreshed by syncFromInternal.
    int32_t pixelStride = 0;
    int32_t rowBytes = 0;
    int32_t rowStep = 0;
    uint8_t* data = nullptr;
    int32_t origin = 0;
    int32_t lastRow = 0;
    int32_t lastColumn = 0;
    int32_t height = 0;
    int32_t width = 0;
    int32_t pixelType = 0;
    QVImageInternal* internal = nullptr;
    uint8_t ownsInternal = 0;

  private:
    PLErr rebind(void* data, int32_t width, int32_t height, int32_t rowBytes, int32_t origin,
                 int32_t pixelType, int32_t channels);
};
