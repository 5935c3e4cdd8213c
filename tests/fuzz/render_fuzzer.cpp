// libFuzzer target: the built plug-in bundle, driven through the embedded host
// with a whole render case decoded from the fuzzer's bytes (render_case.h):
// Describe, Load, an instance, the render, DestroyInstance and Unload, on the
// host reconfigured for the case. Beyond what the sanitizers see, every case
// checks what a host relies on:
// - render answers a status it may answer: success, out of memory only when
//   an allocation failed, a bad handle or index;
// - the Output is written only inside the pixels its stated bounds and row
//   bytes hold (guard bytes, row padding and unstated columns show a stray
//   write), and not at all when it cannot be laid out;
// - the vectors are never written, the Source only by the premultiplication
//   of an un-premultiplied Source, in place;
// - every image and memory block handed out during an action is given back
//   by its end, and nothing the host's memory suite gave is left at Unload.
// A failed check prints what broke and the case, and aborts, so that libFuzzer
// keeps the input; TRELVO_FUZZ_DESCRIBE=1 prints every case as it runs.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "plugin.h"
#include "render_case.h"

namespace {

using ofxhost::ActionResult;
using ofxhost::ImageBuffer;
using ofxhost::ImageFormat;
using trelvofuzz::ImageCase;
using trelvofuzz::RenderCase;

// One host and one plug-in for the whole run, described in its context once:
// each case reconfigures the host and sends Describe, Load, the instance's
// actions and Unload, as a host does that loads the plug-in again and again.
// The bundle stays loaded: its coverage counters are registered at load.
struct Session {
    std::unique_ptr<ofxhost::Bundle> bundle;
    ofxhost::Host host;
    std::unique_ptr<ofxhost::Plugin> plugin;
};
Session* gSession = nullptr;

const RenderCase* gCase = nullptr;  // the case running, for the report of a finding

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "render_fuzzer: %s\n", what.c_str());
    if (gCase) std::fprintf(stderr, "%s", trelvofuzz::describeCase(*gCase).c_str());
    std::fflush(stderr);
    std::abort();
}

void expect(bool ok, const std::string& what) {
    if (!ok) fail(what);
}

void expectBalanced(const ActionResult& r, const std::string& action) {
    expect(r.imagesReleased(), action + ": an image was not released, or a handle released twice");
    expect(r.memoryBalanced(), action + ": host memory was not given back, or freed twice");
}

bool answered(const ImageFormat& f, const char* property) {
    return f.unanswered.count(property) == 0;
}

// The pixels the plug-in may lay out in an image, from what the host states
// (a property left unanswered reads as the plug-in presets it: empty), or
// none where the depth or components are not RGBA, RGB or Alpha in 8, 16 or
// 32 bits, the data is missing, the bounds are of negative or more than int
// size, or the rows are too short for their pixels.
struct Region {
    int64_t width = 0, height = 0;
    int pixelBytes = 0;
    int element = 0;
};

std::optional<Region> readableRegion(const ImageCase& image, const ImageBuffer& buffer) {
    const ImageFormat& f = image.format;
    if (!image.present || f.nullData || !answered(f, kOfxImagePropData)) return std::nullopt;
    if (!answered(f, kOfxImageEffectPropPixelDepth) || !answered(f, kOfxImageEffectPropComponents))
        return std::nullopt;
    const bool declaredDepth =
        f.depth == kOfxBitDepthByte || f.depth == kOfxBitDepthShort || f.depth == kOfxBitDepthFloat;
    const bool knownComponents = f.components == kOfxImageComponentRGBA ||
                                 f.components == kOfxImageComponentRGB ||
                                 f.components == kOfxImageComponentAlpha;
    if (!declaredDepth || !knownComponents) return std::nullopt;
    Region r;
    if (answered(f, kOfxImagePropBounds)) {
        const OfxRectI b = f.statedBounds ? *f.statedBounds : f.bounds;
        r.width = static_cast<int64_t>(b.x2) - b.x1;
        r.height = static_cast<int64_t>(b.y2) - b.y1;
    }
    if (r.width < 0 || r.height < 0 || r.width > INT32_MAX || r.height > INT32_MAX) return std::nullopt;
    r.element = ofxhost::bytesPerComponent(f.depth);
    r.pixelBytes = ofxhost::componentCount(f.components) * r.element;
    const int64_t rowBytes = answered(f, kOfxImagePropRowBytes) ? buffer.rowBytes() : 0;
    if (r.width > 0 && r.height > 0 && std::abs(rowBytes) < r.width * r.pixelBytes) return std::nullopt;
    return r;
}

// Row y, from the bottom, as the host states it.
const unsigned char* row(const ImageBuffer& b, int64_t y) {
    return static_cast<const unsigned char*>(b.data()) + static_cast<ptrdiff_t>(y) * b.rowBytes();
}

// The bytes of a buffer the plug-in must leave alone, with those of the
// region it may write cleared. In plain storage that is all of it, guard
// bytes and padding included. Sparse storage is seen through its rows, which
// lie too far apart to overlap; its guard pages catch a write further out.
std::vector<unsigned char> outsideRegion(const ImageBuffer& b, const std::optional<Region>& region) {
    std::vector<unsigned char> bytes;
    const size_t rowLength = static_cast<size_t>(b.width()) * static_cast<size_t>(b.pixelBytes());
    if (b.bytes().empty()) {
        for (int y = 0; y < b.height(); ++y) bytes.insert(bytes.end(), row(b, y), row(b, y) + rowLength);
        for (int64_t y = 0; region && y < region->height; ++y)
            std::fill_n(bytes.begin() + static_cast<ptrdiff_t>(static_cast<size_t>(y) * rowLength),
                        region->width * region->pixelBytes, 0);
    } else {
        bytes = b.bytes();
        for (int64_t y = 0; region && y < region->height; ++y)
            std::fill_n(bytes.begin() + (row(b, y) - b.bytes().data()), region->width * region->pixelBytes,
                        0);
    }
    return bytes;
}

// The region's pixels, row after row from the bottom.
std::vector<unsigned char> inRegion(const ImageBuffer& b, const std::optional<Region>& region) {
    std::vector<unsigned char> bytes;
    for (int64_t y = 0; region && y < region->height; ++y)
        bytes.insert(bytes.end(), row(b, y), row(b, y) + region->width * region->pixelBytes);
    return bytes;
}

// The premultiplication of RGBA pixels, computed apart from the plug-in's
// code: colour times alpha in single precision; for integers, alpha times
// the reciprocal of white as a float, rounded by adding 0.5 in double
// precision and truncating.
std::vector<unsigned char> premultiplied(std::vector<unsigned char> pixels, int element) {
    for (size_t i = 0; i + 4 * element <= pixels.size(); i += 4 * element) {
        unsigned char* p = &pixels[i];
        if (element == 1) {
            const float f = p[3] * 0.003921569f;
            for (int c = 0; c < 3; ++c)
                p[c] = static_cast<unsigned char>(static_cast<double>(p[c] * f) + 0.5);
        } else if (element == 2) {
            uint16_t v[4];
            std::memcpy(v, p, sizeof v);
            const float f = v[3] * 1.5259022e-05f;
            for (int c = 0; c < 3; ++c) v[c] = static_cast<uint16_t>(static_cast<double>(v[c] * f) + 0.5);
            std::memcpy(p, v, sizeof v);
        } else {
            float v[4];
            std::memcpy(v, p, sizeof v);
            for (int c = 0; c < 3; ++c) v[c] = v[c] * v[3];
            std::memcpy(p, v, sizeof v);
        }
    }
    return pixels;
}

// Equal element by element, any NaN equal to any other: the order of a
// product's operands decides which NaN it carries.
bool sameElements(const std::vector<unsigned char>& a, const std::vector<unsigned char>& b, int element) {
    if (a.size() != b.size()) return false;
    if (element != 4) return a == b;
    for (size_t i = 0; i + 4 <= a.size(); i += 4) {
        float x, y;
        std::memcpy(&x, &a[i], 4);
        std::memcpy(&y, &b[i], 4);
        if (std::memcmp(&x, &y, 4) != 0 && !(std::isnan(x) && std::isnan(y))) return false;
    }
    return true;
}

// An image handed to the plug-in, with what it held before the render: the
// region it may write (none for the vectors), and everything else.
struct Watched {
    std::shared_ptr<ImageBuffer> buffer;
    std::optional<Region> region;
    std::vector<unsigned char> outside, inside;

    void take() {
        outside = outsideRegion(*buffer, region);
        inside = inRegion(*buffer, region);
    }
    bool outsideUnchanged() const {
        return buffer->guardsIntact() && outsideRegion(*buffer, region) == outside;
    }
};

bool hostIsNuke(const std::string& name) {
    return name.compare(0, 20, "uk.co.thefoundry.nuke", 20) == 0 && name.size() >= 20;
}

void runCase(const RenderCase& c) {
    setenv("TRELVO_DEMO", c.demo ? "1" : "0", 1);
    ofxhost::Host& host = gSession->host;
    ofxhost::Plugin& plugin = *gSession->plugin;
    host.reconfigure(c.host);
    plugin.clearActions();
    expect(plugin.describe() == kOfxStatOK, "Describe failed");
    expect(plugin.load() == kOfxStatOK, "Load failed");
    expect(plugin.createInstance().status == kOfxStatOK, "Create instance failed");
    ofxhost::ImageEffect& effect = *plugin.instance();

    struct Input {
        const char* clip;
        const trelvofuzz::ClipCase& state;
        Watched image;
    } inputs[] = {{kOfxImageEffectOutputClipName, c.output, {}},
                  {kOfxImageEffectSimpleSourceClipName, c.source, {}},
                  {"Motion Vectors", c.vectors, {}}};
    for (Input& input : inputs) {
        const ImageCase& image = input.state.image;
        ofxhost::Clip* clip = effect.clip(input.clip);
        expect(clip != nullptr, std::string("no clip ") + input.clip);
        clip->setConnected(input.state.connected);
        clip->setFormat(image.format.depth, image.format.components, image.format.premultiplication);
        clip->setFrameRange(c.firstFrame, c.lastFrame);
        if (image.present) {
            input.image.buffer = std::make_shared<ImageBuffer>(image.format);
            trelvofuzz::fillPixels(*input.image.buffer, image.pattern);
        }
        clip->setImage(input.image.buffer);
    }
    Watched& output = inputs[0].image;
    Watched& source = inputs[1].image;
    Watched& vectors = inputs[2].image;
    // The Output may be written where it can be laid out; the Source may be
    // premultiplied in place where it is a readable un-premultiplied RGBA
    // image, except on Nuke; the vectors are read only.
    if (output.buffer) output.region = readableRegion(c.output.image, *output.buffer);
    const ImageFormat& sourceFormat = c.source.image.format;
    const bool sourcePremultiplies = !hostIsNuke(c.host.name) &&
                                     sourceFormat.components == kOfxImageComponentRGBA &&
                                     answered(sourceFormat, kOfxImageEffectPropPreMultiplication) &&
                                     sourceFormat.premultiplication == kOfxImageUnPreMultiplied;
    if (source.buffer && sourcePremultiplies) source.region = readableRegion(c.source.image, *source.buffer);

    const std::pair<const char*, const trelvofuzz::ParamCase&> params[] = {{"valMBAmount", c.amount},
                                                                           {"valMaxDisplace", c.maxDisplace},
                                                                           {"valVecScaleX", c.scaleX},
                                                                           {"valVecScaleY", c.scaleY}};
    for (const auto& [name, value] : params) {
        ofxhost::Param* param = effect.param(name);
        expect(param != nullptr, std::string("no parameter ") + name);
        if (value.value)
            param->setValue(*value.value);
        else
            param->setAnswer(kOfxStatFailed);
    }

    if (c.otherActions) {
        const OfxRectI b = output.buffer ? output.buffer->format().bounds : OfxRectI{0, 0, 0, 0};
        const OfxRectD roi = {double(b.x1), double(b.y1), double(b.x2), double(b.y2)};
        expectBalanced(plugin.clipPreferences(), "clip preferences");
        expectBalanced(plugin.regionOfDefinition(c.time, c.renderScale), "region of definition");
        expectBalanced(plugin.regionsOfInterest(c.time, roi, c.renderScale), "regions of interest");
        expectBalanced(plugin.framesNeeded(c.time), "frames needed");
        expectBalanced(plugin.timeDomain(), "time domain");
        expectBalanced(plugin.isIdentity(c.time, b, c.renderScale), "is identity");
    }

    for (Input& input : inputs)
        if (input.image.buffer) input.image.take();

    if (c.abortAfter) host.abort().afterCalls(*c.abortAfter);
    if (c.allocationsBeforeFailure)
        host.memory().failAfter(
            static_cast<int64_t>(host.memory().counts().allocations + *c.allocationsBeforeFailure));
    ofxhost::RenderArgs args;
    args.time = c.time;
    args.renderScale = c.renderScale;
    const ActionResult r = plugin.render(args);
    host.memory().failAfter(-1);
    host.abort().never();

    expectBalanced(r, "render");
    const bool memoryFailed = r.memoryAfter.failedAllocations > r.memoryBefore.failedAllocations;
    expect(r.status == kOfxStatOK || (r.status == kOfxStatErrMemory && memoryFailed) ||
               r.status == kOfxStatErrBadHandle || r.status == kOfxStatErrBadIndex,
           "render returned status " + std::to_string(r.status) +
               (memoryFailed ? " after a failed allocation" : ""));
    if (output.buffer)
        expect(output.outsideUnchanged(), output.region ? "the Output was written outside its stated pixels"
                                                        : "an Output that cannot be laid out was written");
    if (vectors.buffer) expect(vectors.outsideUnchanged(), "the vectors were written");
    if (source.buffer) {
        expect(source.outsideUnchanged(),
               source.region ? "the Source was written outside its stated pixels" : "the Source was written");
        const std::vector<unsigned char> after = inRegion(*source.buffer, source.region);
        if (source.region && after != source.inside)
            expect(sameElements(after, premultiplied(source.inside, source.region->element),
                                source.region->element),
                   "the Source was written otherwise than premultiplied");
    }

    expectBalanced(plugin.destroyInstance(), "destroy instance");
    expect(plugin.unload() == kOfxStatOK, "Unload failed");
    expect(host.images().counts().outstanding() == 0, "images outstanding after Unload");
    expect(host.memory().counts().liveBytes == 0, "host memory still held after Unload");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const char* path = std::getenv("TRELVO_FUZZ_PLUGIN");
    std::string error;
    std::unique_ptr<ofxhost::Bundle> bundle =
        ofxhost::Bundle::open(path ? path : TRELVO_PLUGIN_BINARY, error);
    if (!bundle) fail(error);
    gSession = new Session{std::move(bundle), ofxhost::Host(), nullptr};
    gSession->plugin = std::make_unique<ofxhost::Plugin>(gSession->host, *gSession->bundle->plugin(0));
    ofxhost::Plugin& plugin = *gSession->plugin;
    plugin.setHost();
    expect(plugin.describe() == kOfxStatOK && plugin.load() == kOfxStatOK &&
               plugin.describeInContext(kOfxImageEffectContextGeneral).status == kOfxStatOK &&
               plugin.unload() == kOfxStatOK,
           "the plug-in does not describe itself in the general context");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    const RenderCase c = trelvofuzz::decodeCase(in);
    static const bool describe = std::getenv("TRELVO_FUZZ_DESCRIBE") != nullptr;
    if (describe) std::fprintf(stderr, "%s", trelvofuzz::describeCase(c).c_str());
    gCase = &c;
    runCase(c);
    gCase = nullptr;
    return 0;
}
