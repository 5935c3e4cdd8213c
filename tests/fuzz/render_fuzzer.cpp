// libFuzzer target: the built plug-in bundle through the embedded host, a
// whole render case decoded from the fuzzer's bytes. Beyond the sanitizers,
// every case checks the render's status, that the Output is written only
// inside its stated pixels, the vectors never and the Source only by
// premultiplication in place, and that every image and memory block comes
// back. A failed check prints what broke and the case, and aborts (libFuzzer
// keeps the input); TRELVO_FUZZ_DESCRIBE=1 prints every case as it runs.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "plugin.h"

namespace {

using ofxhost::ActionResult;
using ofxhost::ImageBuffer;
using ofxhost::ImageFormat;

// The case. Every choice reads its own bytes, and no bytes read the plain
// one: our own host, connected clips, a small blur, packed RGBA float rows.
struct ClipCase {
    bool connected = true;
    bool present = true;  // the clip has an image at the render's time
    ImageFormat format;
    std::vector<uint8_t> pattern;  // the elements' values, repeated over the image
};

struct RenderCase {
    ofxhost::HostConfig host;
    bool demo = false;  // TRELVO_DEMO=1: the frame gets the demo imprint
    ClipCase output, source, vectors;
    double firstFrame = 0.0, lastFrame = 10.0;  // the Source's frame range
    double time = 0.0;
    OfxPointD renderScale = {1.0, 1.0};
    // The four parameters; none: the host leaves it unanswered.
    std::optional<double> amount, maxDisplace, scaleX, scaleY;
    std::optional<uint64_t> abortAfter;                // the abort answers 0 this many calls, then 1
    std::optional<uint64_t> allocationsBeforeFailure;  // later host allocations fail
    bool otherActions = false;  // also the clip preference, region, frame and identity actions
};

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

template <typename T, size_t N>
T pick(FuzzedDataProvider& in, const T (&values)[N]) {
    return values[in.ConsumeIntegralInRange<size_t>(0, N - 1)];
}

// `plain`, one of the values that break arithmetic, or any bit pattern.
double decodeDouble(FuzzedDataProvider& in, double plain) {
    static const double kValues[] = {0.0,    1.0,   -1.0, 0.5,   2.0,  -2.0, 10.0, 10.5, 64.0,    10000.0,
                                     1e-300, 1e300, kInf, -kInf, kNaN, -0.0, 1e-7, 0.25, 16384.0, 4e9};
    const size_t choice = in.ConsumeIntegralInRange<size_t>(0, std::size(kValues) + 1);
    if (choice == 0) return plain;
    if (choice <= std::size(kValues)) return kValues[choice - 1];
    const uint64_t bits = in.ConsumeIntegral<uint64_t>();
    double value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

std::optional<double> decodeParam(FuzzedDataProvider& in, double plain) {
    if (in.ConsumeIntegralInRange(0, 15) == 15) return std::nullopt;
    return decodeDouble(in, plain);
}

ofxhost::HostConfig decodeHost(FuzzedDataProvider& in) {
    // Names the plug-in tells hosts by (prefixes of 20, 18 and 13 bytes), and a byte short.
    static const char* const kNames[] = {
        "com.corvane.trelvo-render", "uk.co.thefoundry.nuke", "uk.co.thefoundry.nuk", "uk.co.thefoundry.nu",
        "com.eyeonline.Fusion",      "Autodesk Toxik",        "Autodesk Toxi",        ""};
    // 0 asks the machine; more than the pool's 1024 slots, and counts negative as int.
    static const unsigned int kCPUs[] = {0,    1,    2,    3,           4,           16,         1023,
                                         1024, 1025, 2000, 0x7fffffffu, 0x80000000u, 0xffffffffu};
    ofxhost::HostConfig host;
    host.name = pick(in, kNames);
    host.numCPUs = pick(in, kCPUs);
    host.threadLimit = 2;  // whatever it reports, the host's pool stays small
    host.callerRunsShareZero = !in.ConsumeBool();
    host.background = !in.ConsumeBool();
    host.multipleClipDepths = !in.ConsumeBool();
    return host;
}

// Mostly tiny frames; some tall enough for their rows to be shared among threads, or wide.
void decodeSize(FuzzedDataProvider& in, int& width, int& height) {
    static const int kRanges[][4] = {{0, 4, 0, 4}, {0, 24, 0, 24}, {1, 3, 16, 700}, {0, 300, 0, 3}};
    const int* r = kRanges[in.ConsumeIntegralInRange(0, 3)];
    width = in.ConsumeIntegralInRange(r[0], r[1]);
    height = in.ConsumeIntegralInRange(r[2], r[3]);
}

const char* const kDepths[] = {kOfxBitDepthFloat, kOfxBitDepthByte, kOfxBitDepthShort,
                               kOfxBitDepthHalf,  kOfxBitDepthNone, "OfxBitDepthDouble"};
const char* const kComponents[] = {kOfxImageComponentRGBA, kOfxImageComponentAlpha, kOfxImageComponentRGB,
                                   "OfxImageComponentYUVA"};

// The clip's state, then its image: of the frame's shared size, depth and
// components unless its own bytes say otherwise.
ClipCase decodeClip(FuzzedDataProvider& in, const ImageFormat& shared, int width, int height) {
    const int state = in.ConsumeIntegralInRange(0, 2);  // 1: no image at the time, 2: unconnected
    ClipCase clip;
    clip.connected = state != 2;
    clip.present = state != 1;
    ImageFormat& f = clip.format;
    f.guardBytes = 32;
    if (in.ConsumeBool()) decodeSize(in, width, height);
    f.depth = in.ConsumeBool() ? pick(in, kDepths) : shared.depth;
    f.components = in.ConsumeBool() ? pick(in, kComponents) : shared.components;
    static const char* const kStates[] = {kOfxImagePreMultiplied, kOfxImageUnPreMultiplied, kOfxImageOpaque};
    f.premultiplication = pick(in, kStates);

    // Properties the host leaves unanswered, or a null data pointer; the
    // storage still follows the depth and components.
    static const std::vector<std::string> kUnanswered[] = {
        {},
        {kOfxImageEffectPropPixelDepth},
        {kOfxImageEffectPropComponents},
        {kOfxImageEffectPropPixelDepth, kOfxImageEffectPropComponents},
        {kOfxImageEffectPropPreMultiplication},
        {kOfxImagePropRowBytes},
        {kOfxImagePropBounds},
        {kOfxImagePropData}};
    const size_t unanswered = in.ConsumeIntegralInRange<size_t>(0, std::size(kUnanswered));
    if (unanswered < std::size(kUnanswered))
        f.unanswered.insert(kUnanswered[unanswered].begin(), kUnanswered[unanswered].end());
    else
        f.nullData = true;

    const int pixelBytes =
        width * ofxhost::componentCount(f.components) * ofxhost::bytesPerComponent(f.depth);
    const int layout = in.ConsumeIntegralInRange(0, 5);
    switch (layout) {
        case 1:  // padded, at any alignment
            f.rowPadding = in.ConsumeIntegralInRange(1, 64);
            break;
        case 2:  // top-down
            f.rowBytes = -(pixelBytes + in.ConsumeIntegralInRange(0, 16));
            break;
        case 3:  // rows shorter than their pixels: they overlap
            f.rowBytes = pixelBytes > 0 ? in.ConsumeIntegralInRange(1 - pixelBytes, pixelBytes - 1) : 0;
            break;
        case 4:  // rows 64 MiB (4) or as far as an int allows (5) apart, either
        case 5:  // way: the frame spans gigabytes
            f.sparse = true;
            f.rowBytes =
                in.ConsumeBool() ? (layout == 4 ? -(1 << 26) : INT_MIN) : (layout == 4 ? 1 << 26 : INT_MAX);
            height = std::min(height, layout == 4 ? 40 : 3);
    }

    // The origin, ordinary or at the ends of int, where a width computed in
    // 32 bits from a stated rectangle overflows.
    const int origin = in.ConsumeIntegralInRange(0, 3);
    auto start = [&](int size) {
        return origin == 1   ? in.ConsumeIntegralInRange(-8, 8)
               : origin == 2 ? INT_MIN
               : origin == 3 ? INT_MAX - size
                             : 0;
    };
    const int x1 = start(width), y1 = start(height);
    f.bounds = {x1, y1, x1 + width, y1 + height};

    // Bounds stated otherwise than the pixels held: never more pixels than
    // there are, but fewer, moved, of negative size or wider than an int.
    switch (in.ConsumeIntegralInRange(0, 4)) {
        case 1: {
            const int w = in.ConsumeIntegralInRange(0, width), h = in.ConsumeIntegralInRange(0, height);
            const int x = in.ConsumeIntegralInRange(-4, 4), y = in.ConsumeIntegralInRange(-4, 4);
            f.statedBounds = OfxRectI{x, y, x + w, y + h};
            break;
        }
        case 2:
            f.statedBounds = in.ConsumeBool() ? OfxRectI{0, 0, -in.ConsumeIntegralInRange(1, 8), height}
                                              : OfxRectI{0, 0, width, -in.ConsumeIntegralInRange(1, 8)};
            break;
        case 3:
            f.statedBounds = in.ConsumeBool() ? OfxRectI{INT_MIN, 0, INT_MAX, height}
                                              : OfxRectI{0, INT_MIN, width, INT_MAX};
            break;
        case 4:
            f.statedBounds = OfxRectI{INT_MAX - width, INT_MIN, INT_MAX, INT_MIN + height};
    }
    clip.pattern = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(0, 24));
    return clip;
}

// The images first: a short input varies them, and leaves the rest plain.
RenderCase decodeCase(FuzzedDataProvider& in) {
    RenderCase c;
    ImageFormat shared;
    int width, height;
    decodeSize(in, width, height);
    shared.depth = pick(in, kDepths);
    shared.components = pick(in, kComponents);
    c.output = decodeClip(in, shared, width, height);
    c.source = decodeClip(in, shared, width, height);
    c.vectors = decodeClip(in, shared, width, height);
    c.amount = decodeParam(in, 1.0);
    c.maxDisplace = decodeParam(in, 4.0);
    c.scaleX = decodeParam(in, 1.0);
    c.scaleY = decodeParam(in, 1.0);
    c.host = decodeHost(in);
    c.demo = in.ConsumeBool();
    c.time = decodeDouble(in, 0.0);
    switch (in.ConsumeIntegralInRange(0, 2)) {
        case 1:
            c.firstFrame = c.lastFrame = c.time;
            break;
        case 2:
            c.firstFrame = decodeDouble(in, 0.0);
            c.lastFrame = decodeDouble(in, 10.0);
    }
    c.renderScale.x = decodeDouble(in, 1.0);
    c.renderScale.y = decodeDouble(in, 1.0);
    if (in.ConsumeIntegralInRange(0, 3) == 3) c.abortAfter = in.ConsumeIntegralInRange<uint64_t>(0, 64);
    if (in.ConsumeIntegralInRange(0, 3) == 3)
        c.allocationsBeforeFailure = in.ConsumeIntegralInRange<uint64_t>(0, 40);
    c.otherActions = in.ConsumeBool();
    return c;
}

std::string text(double v) {
    char buffer[40];
    std::snprintf(buffer, sizeof buffer, "%.17g", v);
    return buffer;
}

std::string text(const OfxRectI& r) {
    return "(" + std::to_string(r.x1) + ", " + std::to_string(r.y1) + ", " + std::to_string(r.x2) + ", " +
           std::to_string(r.y2) + ")";
}

std::string text(const char* name, const std::optional<double>& p) {
    return std::string(" ") + name + " " + (p ? text(*p) : "unanswered");
}

std::string text(const char* name, const ClipCase& clip) {
    const ImageFormat& f = clip.format;
    std::string line = std::string(name) + ": " + (clip.connected ? "connected" : "unconnected") +
                       (clip.present ? "" : ", no image") + ", " + f.depth + " " + f.components + " " +
                       f.premultiplication + ", bounds " + text(f.bounds);
    if (f.statedBounds) line += " stated " + text(*f.statedBounds);
    if (f.rowBytes) line += ", row bytes " + std::to_string(*f.rowBytes);
    if (f.rowPadding) line += ", padding " + std::to_string(f.rowPadding);
    if (f.sparse) line += ", sparse";
    if (f.nullData) line += ", null data";
    for (const std::string& p : f.unanswered) line += ", " + p + " unanswered";
    line += ", pattern";
    for (uint8_t b : clip.pattern) line += " " + std::to_string(b);
    return line + "\n";
}

// The case in words, one line per part, for the report of a finding.
std::string describeCase(const RenderCase& c) {
    std::string s = "host '" + c.host.name + "', " + std::to_string(c.host.numCPUs) + " processors" +
                    (c.host.callerRunsShareZero ? "" : ", spawns every share") +
                    (c.host.background ? ", background" : "") +
                    (c.host.multipleClipDepths ? "" : ", one clip depth") + (c.demo ? ", demo" : "") +
                    (c.otherActions ? ", other actions" : "") + "\n";
    s += "time " + text(c.time) + ", frames " + text(c.firstFrame) + " to " + text(c.lastFrame) +
         ", render scale " + text(c.renderScale.x) + " " + text(c.renderScale.y) + "\n";
    s += "parameters" + text("amount", c.amount) + text("max displacement", c.maxDisplace) +
         text("scale x", c.scaleX) + text("scale y", c.scaleY) + "\n";
    if (c.abortAfter) s += "aborts after " + std::to_string(*c.abortAfter) + " calls\n";
    if (c.allocationsBeforeFailure)
        s += "allocation fails after " + std::to_string(*c.allocationsBeforeFailure) + "\n";
    return s + text("Output", c.output) + text("Source", c.source) + text("Motion Vectors", c.vectors);
}

// The pattern's values into every element: a byte each at 8 bits, two at 16
// (half too); at float, a byte picks a special value or a fraction of white.
void fillPixels(ImageBuffer& image, const std::vector<uint8_t>& pattern) {
    using F = std::numeric_limits<float>;
    static const float kSpecial[] = {0.0f,          1.0f,           0.5f,        F::quiet_NaN(),
                                     F::infinity(), -F::infinity(), -0.0f,       F::denorm_min(),
                                     F::max(),      -F::max(),      1e30f,       -1.0f,
                                     2.0f,          1.0000001f,     0.99999994f, 0.50000006f};
    const int element = image.bytesPerComponent();
    if (pattern.empty() || element == 0) return;  // the buffer starts zeroed
    const OfxRectI& b = image.format().bounds;
    size_t next = 0;
    auto take = [&] { return pattern[next++ % pattern.size()]; };
    for (int y = b.y1; y < b.y2; ++y)
        for (int x = b.x1; x < b.x2; ++x)
            for (int c = 0; c < image.components(); ++c) {
                auto* p = static_cast<unsigned char*>(image.at(x, y, c));
                if (element == 4) {
                    const uint8_t code = take();
                    const float v = code < std::size(kSpecial) ? kSpecial[code] : (code - 16) / 239.0f;
                    std::memcpy(p, &v, sizeof v);
                } else {
                    for (int k = 0; k < element; ++k) p[k] = take();  // 16 bits: the low byte first
                }
            }
}

// One host and one plug-in for the whole run, described in its context once;
// each case sends Describe, Load, the instance's actions and Unload. The
// bundle stays loaded: its coverage counters are registered at load.
ofxhost::Bundle* gBundle = nullptr;
ofxhost::Host* gHost = nullptr;
ofxhost::Plugin* gPlugin = nullptr;
const RenderCase* gCase = nullptr;  // the case running, for the report of a finding

void expect(bool ok, const std::string& what) {
    if (ok) return;
    std::fprintf(stderr, "render_fuzzer: %s\n", what.c_str());
    if (gCase) std::fprintf(stderr, "%s", describeCase(*gCase).c_str());
    std::fflush(stderr);
    std::abort();
}

void expectBalanced(const ActionResult& r, const std::string& action) {
    expect(r.imagesReleased(), action + ": an image was not released, or a handle released twice");
    expect(r.memoryBalanced(), action + ": host memory was not given back, or freed twice");
}

bool answered(const ImageFormat& f, const char* property) {
    return f.unanswered.count(property) == 0;
}

// The pixels the plug-in may lay out from what the host states (an
// unanswered property reads as empty); none for depths and components other
// than RGBA, RGB, Alpha in 8, 16 or 32 bits, missing data, bounds of negative
// or more than int size, or rows too short for their pixels.
struct Region {
    int64_t width = 0, height = 0;
    int pixelBytes = 0, element = 0;
};

std::optional<Region> readableRegion(const ClipCase& clip, const ImageBuffer& buffer) {
    const ImageFormat& f = clip.format;
    auto oneOf = [](const std::string& value, std::initializer_list<const char*> known) {
        return std::find(known.begin(), known.end(), value) != known.end();
    };
    if (!clip.present || f.nullData || !answered(f, kOfxImagePropData) ||
        !answered(f, kOfxImageEffectPropPixelDepth) || !answered(f, kOfxImageEffectPropComponents) ||
        !oneOf(f.depth, {kOfxBitDepthByte, kOfxBitDepthShort, kOfxBitDepthFloat}) ||
        !oneOf(f.components, {kOfxImageComponentRGBA, kOfxImageComponentRGB, kOfxImageComponentAlpha}))
        return std::nullopt;
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

// The bytes the plug-in must leave alone, with the region's cleared: in plain
// storage all of them, guard bytes and padding included; sparse storage
// through its rows (too far apart to overlap; its guard pages catch the rest).
std::vector<unsigned char> outsideRegion(const ImageBuffer& b, const std::optional<Region>& region) {
    std::vector<unsigned char> bytes = b.bytes();
    const size_t rowLength = static_cast<size_t>(b.width()) * static_cast<size_t>(b.pixelBytes());
    if (b.bytes().empty())
        for (int y = 0; y < b.height(); ++y) bytes.insert(bytes.end(), row(b, y), row(b, y) + rowLength);
    for (int64_t y = 0; region && y < region->height; ++y) {
        const ptrdiff_t start = b.bytes().empty() ? static_cast<ptrdiff_t>(static_cast<size_t>(y) * rowLength)
                                                  : row(b, y) - b.bytes().data();
        std::fill_n(bytes.begin() + start, region->width * region->pixelBytes, 0);
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

// Whether `after` is the RGBA pixels `before` premultiplied, computed apart
// from the plug-in's code: colour times alpha in single precision, any NaN
// equal to any other (the order of a product's operands decides which NaN it
// carries); for integers alpha times the reciprocal of white as a float,
// rounded by adding 0.5 in double precision and truncating.
template <typename T>
bool premultiplied(const std::vector<unsigned char>& before, const std::vector<unsigned char>& after,
                   float reciprocal) {
    for (size_t i = 0; i + 4 * sizeof(T) <= before.size(); i += 4 * sizeof(T)) {
        T in[4], out[4];
        std::memcpy(in, &before[i], sizeof in);
        std::memcpy(out, &after[i], sizeof out);
        for (int c = 0; c < 4; ++c) {
            T expected = in[c];
            if (c < 3 && std::is_floating_point_v<T>) expected = static_cast<T>(in[c] * in[3]);
            if (c < 3 && !std::is_floating_point_v<T>)
                expected = static_cast<T>(static_cast<double>(in[c] * (in[3] * reciprocal)) + 0.5);
            if (std::memcmp(&expected, &out[c], sizeof(T)) != 0 &&
                !(std::isnan(expected) && std::isnan(out[c])))
                return false;
        }
    }
    return true;
}

// An image handed to the plug-in: the region it may write (none for the
// vectors), and what it held there and elsewhere before the render.
struct Watched {
    const char* clip;
    const ClipCase& state;
    std::shared_ptr<ImageBuffer> buffer;
    std::optional<Region> region;
    std::vector<unsigned char> outside, inside;

    bool outsideUnchanged() const {
        return buffer->guardsIntact() && outsideRegion(*buffer, region) == outside;
    }
};

void runCase(const RenderCase& c) {
    setenv("TRELVO_DEMO", c.demo ? "1" : "0", 1);
    ofxhost::Host& host = *gHost;
    ofxhost::Plugin& plugin = *gPlugin;
    host.reconfigure(c.host);
    plugin.clearActions();
    expect(plugin.describe() == kOfxStatOK, "Describe failed");
    expect(plugin.load() == kOfxStatOK, "Load failed");
    expect(plugin.createInstance().status == kOfxStatOK, "Create instance failed");
    ofxhost::ImageEffect& effect = *plugin.instance();

    Watched images[] = {{kOfxImageEffectOutputClipName, c.output, {}, {}, {}, {}},
                        {kOfxImageEffectSimpleSourceClipName, c.source, {}, {}, {}, {}},
                        {"Motion Vectors", c.vectors, {}, {}, {}, {}}};
    for (Watched& image : images) {
        const ImageFormat& f = image.state.format;
        ofxhost::Clip* clip = effect.clip(image.clip);
        expect(clip != nullptr, std::string("no clip ") + image.clip);
        clip->setConnected(image.state.connected);
        clip->setFormat(f.depth, f.components, f.premultiplication);
        clip->setFrameRange(c.firstFrame, c.lastFrame);
        if (image.state.present) {
            image.buffer = std::make_shared<ImageBuffer>(f);
            fillPixels(*image.buffer, image.state.pattern);
        }
        clip->setImage(image.buffer);
    }
    auto& [output, source, vectors] = images;
    // The Output may be written where it can be laid out; the Source may be
    // premultiplied in place where it is a readable un-premultiplied RGBA
    // image, except on Nuke; the vectors are read only.
    if (output.buffer) output.region = readableRegion(c.output, *output.buffer);
    const ImageFormat& sf = c.source.format;
    const bool nuke = c.host.name.compare(0, 20, "uk.co.thefoundry.nuk") == 0;  // a 20-byte prefix
    if (source.buffer && !nuke && sf.components == kOfxImageComponentRGBA &&
        answered(sf, kOfxImageEffectPropPreMultiplication) &&
        sf.premultiplication == kOfxImageUnPreMultiplied)
        source.region = readableRegion(c.source, *source.buffer);

    const std::pair<const char*, const std::optional<double>&> params[] = {{"valMBAmount", c.amount},
                                                                           {"valMaxDisplace", c.maxDisplace},
                                                                           {"valVecScaleX", c.scaleX},
                                                                           {"valVecScaleY", c.scaleY}};
    for (const auto& [name, value] : params) {
        ofxhost::Param* param = effect.param(name);
        expect(param != nullptr, std::string("no parameter ") + name);
        if (value)
            param->setValue(*value);
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

    for (Watched& image : images)
        if (image.buffer) {
            image.outside = outsideRegion(*image.buffer, image.region);
            image.inside = inRegion(*image.buffer, image.region);
        }

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
    for (const Watched& image : images)
        if (image.buffer)
            expect(image.outsideUnchanged(),
                   std::string(image.clip) +
                       (image.region ? ": written outside its stated pixels" : ": written, and may not be"));
    if (source.buffer) {
        const std::vector<unsigned char> after = inRegion(*source.buffer, source.region);
        const int element = source.region ? source.region->element : 0;
        const bool premultipliedInPlace =
            element == 1   ? premultiplied<uint8_t>(source.inside, after, 0.003921569f)
            : element == 2 ? premultiplied<uint16_t>(source.inside, after, 1.5259022e-05f)
                           : premultiplied<float>(source.inside, after, 0.0f);
        expect(after == source.inside || premultipliedInPlace,
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
    gBundle = ofxhost::Bundle::open(path ? path : TRELVO_PLUGIN_BINARY, error).release();
    expect(gBundle != nullptr, error);
    gHost = new ofxhost::Host();
    gPlugin = new ofxhost::Plugin(*gHost, *gBundle->plugin(0));
    gPlugin->setHost();
    expect(gPlugin->describe() == kOfxStatOK && gPlugin->load() == kOfxStatOK &&
               gPlugin->describeInContext(kOfxImageEffectContextGeneral).status == kOfxStatOK &&
               gPlugin->unload() == kOfxStatOK,
           "the plug-in does not describe itself in the general context");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    const RenderCase c = decodeCase(in);
    static const bool describe = std::getenv("TRELVO_FUZZ_DESCRIBE") != nullptr;
    if (describe) std::fprintf(stderr, "%s", describeCase(c).c_str());
    gCase = &c;
    runCase(c);
    gCase = nullptr;
    return 0;
}
