// Images as the host hands them to a plug-in. The host owns the pixels: an
// ImageBuffer is filled and read by whoever drives the host (a test, the
// renderer), and clipGetImage wraps it in an Image, a property set under a
// handle of its own kind, until clipReleaseImage gives it back. Rows are
// stored bottom-up as OFX has them, so the data pointer is the bottom row.
// A format can also describe what no well-behaved host hands out (rows
// top-down or overlapping, properties left unanswered), with guard bytes and
// guard pages that show a plug-in writing outside the buffer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "ofxImageEffect.h"
#include "property_set.h"

namespace ofxhost {

struct ImageFormat {
    OfxRectI bounds = {0, 0, 0, 0};  // x2, y2 exclusive; any origin, may be empty
    std::string depth = kOfxBitDepthFloat;
    std::string components = kOfxImageComponentRGBA;
    std::string premultiplication = kOfxImagePreMultiplied;
    int rowPadding = 0;  // bytes after each row's pixels
    double pixelAspect = 1.0;
    std::string field = kOfxImageFieldNone;
    bool nullData = false;  // hand the plug-in a null data pointer
    // Row bytes as stated to the plug-in, instead of the row's pixels plus
    // rowPadding: a negative value stores the rows top-down (data still points
    // at the bottom row, the highest one in memory), one shorter than the
    // row's pixels makes rows overlap. The buffer spans exactly what the rows
    // reach.
    std::optional<int> rowBytes;
    // Bounds as stated, where they differ from those of the pixels held.
    std::optional<OfxRectI> statedBounds;
    std::set<std::string> unanswered;  // image properties left undefined, so a read of them fails
    size_t guardBytes = 0;             // a known pattern on both sides of the rows; see guardsIntact()
    // Storage from an anonymous mapping between two inaccessible pages:
    // untouched pages cost no memory, so a layout may span gigabytes, and an
    // access far past either end faults at once. bytes() is then empty.
    bool sparse = false;
};

// Bytes per component of a depth text: 1 for Byte, 2 for Short and Half, 0 for
// None, 4 for Float and for a text no host knows.
int bytesPerComponent(const std::string& depth);
// Components per pixel: 1 for Alpha, 3 for RGB, 4 otherwise.
int componentCount(const std::string& components);

class ImageBuffer {
  public:
    explicit ImageBuffer(ImageFormat format);  // pixels zeroed
    ~ImageBuffer();
    ImageBuffer(const ImageBuffer&) = delete;
    ImageBuffer& operator=(const ImageBuffer&) = delete;

    const ImageFormat& format() const { return format_; }
    int width() const;
    int height() const;
    int components() const;
    int bytesPerComponent() const;
    int pixelBytes() const;
    int rowBytes() const;  // as stated, so negative for rows stored top-down
    // Bytes from the first byte of the lowest row in memory to the end of the
    // highest: its padding included, or its pixels where rows overlap.
    size_t spanBytes() const;
    // The bottom row; never null (an empty image still has one byte), so that
    // only ImageFormat::nullData gives the plug-in a null pointer.
    void* data();
    const void* data() const;
    // Whether the guard bytes on both sides still hold their pattern.
    bool guardsIntact() const;
    // Component c of the pixel at (x, y) in image coordinates (within bounds).
    void* at(int x, int y, int c = 0);
    const void* at(int x, int y, int c = 0) const;
    template <typename T>
    T& value(int x, int y, int c) {
        return *static_cast<T*>(at(x, y, c));
    }
    template <typename T>
    const T& value(int x, int y, int c) const {
        return *static_cast<const T*>(at(x, y, c));
    }
    // The whole storage: the leading guard bytes, the rows as stored, the
    // trailing guard bytes. Empty for a sparse buffer.
    std::vector<unsigned char>& bytes() { return bytes_; }
    const std::vector<unsigned char>& bytes() const { return bytes_; }

  private:
    unsigned char* storage();
    const unsigned char* storage() const;

    ImageFormat format_;
    std::vector<unsigned char> bytes_;
    void* mapping_ = nullptr;  // a sparse buffer's mapping, guard pages included
    size_t mappingBytes_ = 0;
    size_t storageBytes_ = 0;  // guard bytes, span, guard bytes
};

// One image handed out: its properties point into the buffer, which it keeps
// alive until it is released.
class Image {
  public:
    Image(std::shared_ptr<ImageBuffer> buffer, OfxTime time, OfxPointD renderScale, uint64_t uniqueId);
    OfxPropertySetHandle handle() const { return properties_.handle(); }
    PropertySet& properties() { return properties_; }
    const std::shared_ptr<ImageBuffer>& buffer() const { return buffer_; }
    OfxTime time() const { return time_; }

  private:
    std::shared_ptr<ImageBuffer> buffer_;
    OfxTime time_;
    PropertySet properties_;
};

// The images out with the plug-in. Thread-safe: renders may run on several threads.
class ImageLedger {
  public:
    struct Counts {
        uint64_t handedOut = 0;
        uint64_t released = 0;
        uint64_t badReleases = 0;  // handles that were no outstanding image
        uint64_t outstanding() const { return handedOut - released; }
    };

    // Registers a new image and gives its handle.
    OfxPropertySetHandle handOut(std::shared_ptr<ImageBuffer> buffer, OfxTime time, OfxPointD renderScale);
    OfxStatus release(OfxPropertySetHandle handle);
    Counts counts() const;

  private:
    mutable std::mutex mutex_;
    std::unordered_map<OfxPropertySetHandle, std::unique_ptr<Image>> live_;
    Counts counts_;
};

}  // namespace ofxhost
