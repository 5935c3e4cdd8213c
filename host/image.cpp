// Host-owned pixels, the images handed out over them, and their ledger.
#include "image.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <new>

namespace ofxhost {

namespace {

// The guard pattern's byte at position i: varied, so that a stray fill of one
// value is seen wherever it lands.
unsigned char guardByte(size_t i) {
    return static_cast<unsigned char>(0xA5u ^ (i * 31u));
}

size_t pageBytes() {
    return static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace

int bytesPerComponent(const std::string& depth) {
    if (depth == kOfxBitDepthByte) return 1;
    if (depth == kOfxBitDepthShort || depth == kOfxBitDepthHalf) return 2;
    if (depth == kOfxBitDepthNone) return 0;
    return 4;
}

int componentCount(const std::string& components) {
    if (components == kOfxImageComponentAlpha) return 1;
    if (components == kOfxImageComponentRGB) return 3;
    return 4;
}

ImageBuffer::ImageBuffer(ImageFormat format) : format_(std::move(format)) {
    storageBytes_ = 2 * format_.guardBytes + std::max<size_t>(spanBytes(), 1);
    if (format_.sparse) {
        // The storage ends (to within 16 bytes, kept for alignment) where the
        // trailing inaccessible page begins.
        const size_t page = pageBytes();
        const size_t pages = (storageBytes_ + page - 1) / page * page;
        mappingBytes_ = pages + 2 * page;
        mapping_ = mmap(nullptr, mappingBytes_, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (mapping_ == MAP_FAILED) {
            mapping_ = nullptr;
            throw std::bad_alloc();
        }
        auto* bytes = static_cast<unsigned char*>(mapping_);
        mprotect(bytes, page, PROT_NONE);
        mprotect(bytes + page + pages, page, PROT_NONE);
    } else {
        bytes_.assign(storageBytes_, 0);
    }
    unsigned char* begin = storage();
    for (size_t i = 0; i < format_.guardBytes; ++i) {
        begin[i] = guardByte(i);
        begin[storageBytes_ - format_.guardBytes + i] = guardByte(i);
    }
}

ImageBuffer::~ImageBuffer() {
    if (mapping_) munmap(mapping_, mappingBytes_);
}

unsigned char* ImageBuffer::storage() {
    return const_cast<unsigned char*>(static_cast<const ImageBuffer*>(this)->storage());
}

const unsigned char* ImageBuffer::storage() const {
    if (!mapping_) return bytes_.data();
    const size_t page = pageBytes();
    const size_t pages = mappingBytes_ - 2 * page;
    return static_cast<const unsigned char*>(mapping_) + page + ((pages - storageBytes_) & ~size_t{15});
}

void* ImageBuffer::data() {
    return const_cast<void*>(static_cast<const ImageBuffer*>(this)->data());
}

const void* ImageBuffer::data() const {
    // Rows stored top-down put the bottom row last.
    const int rb = rowBytes();
    const size_t bottom = rb < 0 && height() > 0 ? static_cast<size_t>(height() - 1) *
                                                       static_cast<size_t>(-static_cast<int64_t>(rb))
                                                 : 0;
    return storage() + format_.guardBytes + bottom;
}

size_t ImageBuffer::spanBytes() const {
    if (height() == 0) return 0;
    const size_t step = static_cast<size_t>(std::abs(static_cast<int64_t>(rowBytes())));
    const size_t pixels = static_cast<size_t>(width()) * static_cast<size_t>(pixelBytes());
    return static_cast<size_t>(height() - 1) * step + std::max(step, pixels);
}

bool ImageBuffer::guardsIntact() const {
    const unsigned char* begin = storage();
    for (size_t i = 0; i < format_.guardBytes; ++i)
        if (begin[i] != guardByte(i) || begin[storageBytes_ - format_.guardBytes + i] != guardByte(i))
            return false;
    return true;
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
    if (format_.rowBytes) return *format_.rowBytes;
    return width() * pixelBytes() + format_.rowPadding;
}

void* ImageBuffer::at(int x, int y, int c) {
    return const_cast<void*>(static_cast<const ImageBuffer*>(this)->at(x, y, c));
}

const void* ImageBuffer::at(int x, int y, int c) const {
    const ptrdiff_t offset = static_cast<ptrdiff_t>(y - format_.bounds.y1) * rowBytes() +
                             static_cast<ptrdiff_t>(x - format_.bounds.x1) * pixelBytes() +
                             static_cast<ptrdiff_t>(c) * bytesPerComponent();
    return static_cast<const unsigned char*>(data()) + offset;
}

Image::Image(std::shared_ptr<ImageBuffer> buffer, OfxTime time, OfxPointD renderScale, uint64_t uniqueId)
    : buffer_(std::move(buffer)), time_(time), properties_(HandleKind::Image) {
    const ImageFormat& f = buffer_->format();
    const OfxRectI& b = f.statedBounds ? *f.statedBounds : f.bounds;
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
    for (const std::string& name : f.unanswered) p.remove(name);
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
