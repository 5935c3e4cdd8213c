// The host image wrapper: binding host memory to a QVImageInternal without
// copying, the mapping between host and library terms, and the alpha
// conversions and fill that the render action runs on wrapped images.
#include "image/qvimage.h"

#include "image/image_ops.h"
#include "image/pixel_format.h"

namespace {

int32_t FlippedForOrigin(int32_t origin) {
    return origin == QVOriginFlipped ? 1 : 0;
}
int32_t OriginForFlipped(int32_t flipped) {
    return flipped ? QVOriginFlipped : QVOriginInOrder;
}

}  // namespace

QVImageInternal::QVImageInternal() : PLImage(nullptr, 0, 0, 0, 0, PLPixelUChar, 0) {}

QVImageInternal::~QVImageInternal() = default;

QVImage::QVImage() = default;

QVImage::~QVImage() {
    if (ownsInternal == 1 && internal) delete internal;
    internal = nullptr;
}

PLErr QVImage::allocateInternal() {
    // Only an internal image this wrapper made is deleted; one adopted by
    // wrapImage belongs to its owner.
    if (ownsInternal == 1 && internal) delete internal;
    ownsInternal = 0;
    internal = nullptr;
    internal = new QVImageInternal();
    ownsInternal = 1;
    return PLErrNone;
}

PLErr QVImage::rebind(void* pixels, int32_t w, int32_t h, int32_t rb, int32_t org, int32_t type,
                      int32_t channels) {
    if (!internal) return PLErrFailed;
    // Host pixel types 0 to 2 are the only ones in the contract; any other would
    // give a record without an element reader.
    if (!PLIsPathType(type)) return PLErrFailed;
    internal->SetData(pixels, w, h, rb, channels, type, FlippedForOrigin(org));
    return PLErrNone;
}

PLErr QVImage::wrapHostPixels(void* pixels, int32_t w, int32_t h, int32_t rb, int32_t org, int32_t type) {
    return wrapFourChannels(pixels, w, h, rb, org, type, 1, 1, 0, 1, 2, 3);
}

PLErr QVImage::wrapFourChannels(void* pixels, int32_t w, int32_t h, int32_t rb, int32_t org, int32_t type,
                                int32_t flagA, int32_t flagB, int32_t red, int32_t green, int32_t blue,
                                int32_t alpha) {
    if (PLErr e = rebind(pixels, w, h, rb, org, type, 4)) return e;
    internal->formatFlagA = flagA == 1 ? 1 : 0;
    internal->formatFlagB = flagB == 1 ? 1 : 0;
    internal->redIndex = red;
    internal->greenIndex = green;
    internal->blueIndex = blue;
    internal->alphaIndex = alpha;
    syncFromInternal(org, type);
    return PLErrNone;
}

PLErr QVImage::wrapThreeChannels(void* pixels, int32_t w, int32_t h, int32_t rb, int32_t org, int32_t type) {
    if (PLErr e = rebind(pixels, w, h, rb, org, type, 3)) return e;
    internal->formatFlagA = 0;
    internal->formatFlagB = 1;
    internal->redIndex = 0;
    internal->greenIndex = 1;
    internal->blueIndex = 2;
    syncFromInternal(org, type);
    return PLErrNone;
}

PLErr QVImage::wrapTwoChannels(void* pixels, int32_t w, int32_t h, int32_t rb, int32_t org, int32_t type) {
    if (PLErr e = rebind(pixels, w, h, rb, org, type, 2)) return e;
    internal->formatFlagA = 0;
    internal->formatFlagB = 1;
    internal->redIndex = 0;
    internal->greenIndex = 1;
    syncFromInternal(org, type);
    return PLErrNone;
}

PLErr QVImage::wrapOneChannel(void* pixels, int32_t w, int32_t h, int32_t rb, int32_t org, int32_t type) {
    if (PLErr e = rebind(pixels, w, h, rb, org, type, 1)) return e;
    internal->formatFlagA = 0;
    internal->formatFlagB = 1;
    internal->redIndex = 0;
    internal->greenIndex = 0;
    internal->blueIndex = 0;
    internal->alphaIndex = 0;
    syncFromInternal(org, type);
    return PLErrNone;
}

PLErr QVImage::wrapImage(QVImageInternal* image) {
    // An internal image this wrapper made would otherwise be lost.
    if (ownsInternal == 1 && internal && internal != image) delete internal;
    ownsInternal = 0;
    internal = image;
    if (!image) return PLErrFailed;
    void* pixels = image->data;
    const int32_t org = OriginForFlipped(image->flipped);
    switch (image->numChannels) {
        case 4:
            return wrapFourChannels(pixels, image->width, image->height, image->rowBytes, org,
                                    image->pixelType, image->formatFlagA, image->formatFlagB, image->redIndex,
                                    image->greenIndex, image->blueIndex, image->alphaIndex);
        case 3:
            return wrapThreeChannels(pixels, image->width, image->height, image->rowBytes, org,
                                     image->pixelType);
        case 2:
            return wrapTwoChannels(pixels, image->width, image->height, image->rowBytes, org,
                                   image->pixelType);
        case 1:
            return wrapOneChannel(pixels, image->width, image->height, image->rowBytes, org,
                                  image->pixelType);
        default:
            return PLErrNone;
    }
}

void QVImage::syncFromInternal(int32_t org, int32_t type) {
    if (!internal) throw PLErrFailed;
    pixelStride = internal->pixelStride;
    rowBytes = internal->rowBytes;
    rowStep = internal->rowStep;
    data = internal->data;
    lastRow = internal->lastRow;
    lastColumn = internal->lastColumn;
    width = internal->width;
    height = internal->height;
    origin = org;
    pixelType = type;
}

PLImage* QVImage::internalImage() const {
    if (!internal || width == 0 || height == 0) return nullptr;
    return internal;
}

PLErr QVImage::convertAlpha(int32_t mode) {
    if (!internal) return PLErrFailed;
    PLImage* image = internalImage();
    if (!image) return PLErrNone;
    if (mode == QVAlphaPremultiply)
        PLPremultiply(image);
    else if (mode == QVAlphaUnpremultiply)
        PLUnpremultiply(image);
    return PLErrNone;
}

PLErr QVImage::fill(float red, float green, float blue, float alpha) {
    PLImage* image = internalImage();
    if (!image) return PLErrNone;
    const float colour[4] = {red, green, blue, alpha};
    try {
        PLFillImage(image, colour);
    } catch (PLErr e) {
        return e;
    }
    return PLErrNone;
}

int32_t QVImage::getWidth() const {
    return internal ? internal->width : 0;
}
int32_t QVImage::getHeight() const {
    return internal ? internal->height : 0;
}
int32_t QVImage::getChannels() const {
    return internal ? internal->numChannels : 0;
}
int32_t QVImage::getRedIndex() const {
    return internal ? internal->redIndex : 0;
}
int32_t QVImage::getGreenIndex() const {
    return internal ? internal->greenIndex : 0;
}
int32_t QVImage::getBlueIndex() const {
    return internal ? internal->blueIndex : 0;
}
int32_t QVImage::getAlphaIndex() const {
    return internal ? internal->alphaIndex : 0;
}

PLErr QVImage::getImageInfo(void** pixels, int32_t* w, int32_t* h, int32_t* rb, int32_t* org, int32_t* type,
                            int32_t* channels, int32_t* red, int32_t* green, int32_t* blue,
                            int32_t* alpha) const {
    if (!internal) return PLErrFailed;
    *pixels = internal->data;
    *w = internal->width;
    *h = internal->height;
    *rb = internal->rowBytes;
    *org = OriginForFlipped(internal->flipped);
    *type = internal->pixelType;
    *channels = internal->numChannels;
    *red = internal->redIndex;
    *green = internal->greenIndex;
    *blue = internal->blueIndex;
    *alpha = internal->alphaIndex;
    return PLErrNone;
}
