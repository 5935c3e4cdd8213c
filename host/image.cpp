// Host-owned pixels, the images handed out over them, and their ledger.
#include "image.h"

#include <algorithm>

namespace ofxhost {

int bytesPerComponent(const std::string& depth) {
    if (depth == kOfxBitDepthByte) return 1;
    if (depth == kOfxBitDepthShort) return 2;
    return 4;
}

int componentCount(const std::string& components) {
    if (components == kOfxImageComponentAlpha) return 1;
    if (components == kOfxImageComponentRGB) return 3;
    return 4;
}

ImageBuffer::ImageBuffer(ImageFormat format) : format_(std::move(format)) {
    size_t size = static_cast<size_t>(rowBytes()) * static_cast<size_t>(height());
    bytes_.assign(std::max<size_t>(size, 1), 0);
}

int ImageBuffer::width() const {
    return std::max(0, format_.bounds.x2 - format_.bounds.x1);
}
int ImageBuffer::height() const {
    return std::max(0, format_.bounds.y2 - format_.bounds.y1);
}
int ImageBuffer::components() const {
    return componentCount(format_.components);
}
int ImageBuffer::bytesPerComponent() const {
    return ofxhost::bytesPerComponent(format_.depth);
}
int ImageBuffer::pixelBytes() const {
    return components() * bytesPerComponent();
}
int ImageBuffer::rowBytes() const {
    return width() * pixelBytes() + format_.rowPadding;
}

void* ImageBuffer::at(int x, int y, int c) {
    return const_cast<void*>(static_cast<const ImageBuffer*>(this)->at(x, y, c));
}

const void* ImageBuffer::at(int x, int y, int c) const {
    size_t offset = static_cast<size_t>(y - format_.bounds.y1) * static_cast<size_t>(rowBytes()) +
                    static_cast<size_t>(x - format_.bounds.x1) * static_cast<size_t>(pixelBytes()) +
                    static_cast<size_t>(c) * static_cast<size_t>(bytesPerComponent());
    return bytes_.data() + offset;
}

Image::Image(std::shared_ptr<ImageBuffer> buffer, OfxTime time, OfxPointD renderScale, uint64_t uniqueId)
    : buffer_(std::move(buffer)), time_(time), properties_(HandleKind::Image) {
    const ImageFormat& f = buffer_->format();
    const OfxRectI& b = f.bounds;
    PropertySet& p = properties_;
    p.defineString(kOfxPropType, 1, {kOfxTypeImage});
    p.defineString(kOfxImageEffectPropPixelDepth, 1, {f.depth});
    p.defineString(kOfxImageEffectPropComponents, 1, {f.components});
    p.defineString(kOfxImageEffectPropPreMultiplication, 1, {f.premultiplication});
    p.defineDouble(kOfxImageEffectPropRenderScale, 2, {renderScale.x, renderScale.y});
    p.defineDouble(kOfxImagePropPixelAspectRatio, 1, {f.pixelAspect});
    p.definePointer(kOfxImagePropData, 1);
    if (!f.nullData) p.assign(kOfxImagePropData, {buffer_->data()});
    p.defineInt(kOfxImagePropBounds, 4, {b.x1, b.y1, b.x2, b.y2});
    p.defineInt(kOfxImagePropRegionOfDefinition, 4, {b.x1, b.y1, b.x2, b.y2});
    p.defineInt(kOfxImagePropRowBytes, 1, {buffer_->rowBytes()});
    p.defineString(kOfxImagePropField, 1, {f.field});
    p.defineString(kOfxImagePropUniqueIdentifier, 1, {"image-" + std::to_string(uniqueId)});
}

OfxPropertySetHandle ImageLedger::handOut(std::shared_ptr<ImageBuffer> buffer, OfxTime time,
                                          OfxPointD renderScale) {
    std::lock_guard lock(mutex_);
    auto image = std::make_unique<Image>(std::move(buffer), time, renderScale, counts_.handedOut + 1);
    OfxPropertySetHandle handle = image->handle();
    live_[handle] = std::move(image);
    ++counts_.handedOut;
    return handle;
}

OfxStatus ImageLedger::release(OfxPropertySetHandle handle) {
    std::unique_ptr<Image> image;  // dies outside the lock
    std::lock_guard lock(mutex_);
    auto it = live_.find(handle);
    if (it == live_.end()) {
        ++counts_.badReleases;
        return kOfxStatErrBadHandle;
    }
    image = std::move(it->second);
    live_.erase(it);
    ++counts_.released;
    return kOfxStatOK;
}

ImageLedger::Counts ImageLedger::counts() const {
    std::lock_guard lock(mutex_);
    return counts_;
}

}  // namespace ofxhost
