#include "render_case.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <limits>

namespace trelvofuzz {
namespace {

using ofxhost::ImageFormat;

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Picks one of the values; no bytes pick the first.
template <typename T, size_t N>
T pick(FuzzedDataProvider& in, const T (&values)[N]) {
    return values[in.ConsumeIntegralInRange<size_t>(0, N - 1)];
}

// A double: `plain`, one of the values that break arithmetic, or any bit pattern at all.
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

ParamCase decodeParam(FuzzedDataProvider& in, double plain) {
    ParamCase p;
    if (in.ConsumeIntegralInRange(0, 15) != 15) p.value = decodeDouble(in, plain);
    return p;
}

ofxhost::HostConfig decodeHost(FuzzedDataProvider& in) {
    // Names that match the plug-in's host tests (by their compared prefixes:
    // 20, 18 and 13 bytes) and one that falls a byte short.
    static const char* const kNames[] = {
        "com.corvane.trelvo-render", "uk.co.thefoundry.nuke", "uk.co.thefoundry.nuk", "uk.co.thefoundry.nu",
        "com.eyeonline.Fusion",      "Autodesk Toxik",        "Autodesk Toxi",        ""};
    // 0 asks the machine; more than the pool's 1024 slots, and counts that turn negative as int.
    static const unsigned int kCPUs[] = {0,    1,    2,    3,           4,           16,         1023,
                                         1024, 1025, 2000, 0x7fffffffu, 0x80000000u, 0xffffffffu};
    ofxhost::HostConfig host;
    host.name = pick(in, kNames);
    host.numCPUs = pick(in, kCPUs);
    // The host's own pool stays small whatever it reports: shares run in turn on two threads.
    host.threadLimit = 2;
    host.callerRunsShareZero = !in.ConsumeBool();
    host.background = !in.ConsumeBool();
    host.multipleClipDepths = !in.ConsumeBool();
    return host;
}

// Most cases are tiny frames; some are tall enough for their rows to be
// shared among threads, or wide.
void decodeSize(FuzzedDataProvider& in, int& width, int& height) {
    switch (in.ConsumeIntegralInRange(0, 3)) {
        case 0:
            width = in.ConsumeIntegralInRange(0, 4);
            height = in.ConsumeIntegralInRange(0, 4);
            break;
        case 1:
            width = in.ConsumeIntegralInRange(0, 24);
            height = in.ConsumeIntegralInRange(0, 24);
            break;
        case 2:
            width = in.ConsumeIntegralInRange(1, 3);
            height = in.ConsumeIntegralInRange(16, 700);
            break;
        default:
            width = in.ConsumeIntegralInRange(0, 300);
            height = in.ConsumeIntegralInRange(0, 3);
    }
}

const char* const kDepths[] = {kOfxBitDepthFloat, kOfxBitDepthByte, kOfxBitDepthShort,
                               kOfxBitDepthHalf,  kOfxBitDepthNone, "OfxBitDepthDouble"};
const char* const kComponents[] = {kOfxImageComponentRGBA, kOfxImageComponentAlpha, kOfxImageComponentRGB,
                                   "OfxImageComponentYUVA"};

// What the three images of a frame share unless an image's own bytes say
// otherwise: a host hands them at one size and depth, as a rule.
struct Shape {
    int width = 0, height = 0;
    const char* depth = kOfxBitDepthFloat;
    const char* components = kOfxImageComponentRGBA;
};

Shape decodeShape(FuzzedDataProvider& in) {
    Shape shape;
    decodeSize(in, shape.width, shape.height);
    shape.depth = pick(in, kDepths);
    shape.components = pick(in, kComponents);
    return shape;
}

ImageCase decodeImage(FuzzedDataProvider& in, const Shape& shape) {
    ImageCase image;
    ImageFormat& f = image.format;
    f.guardBytes = kGuardBytes;

    int width = shape.width, height = shape.height;
    if (in.ConsumeBool()) decodeSize(in, width, height);
    f.depth = in.ConsumeBool() ? pick(in, kDepths) : shape.depth;
    f.components = in.ConsumeBool() ? pick(in, kComponents) : shape.components;
    static const char* const kStates[] = {kOfxImagePreMultiplied, kOfxImageUnPreMultiplied, kOfxImageOpaque};
    f.premultiplication = pick(in, kStates);

    // What the host leaves unanswered, or hands as a null pointer. The
    // storage still follows the depth and components chosen above.
    static const std::vector<std::string> kUnanswered[] = {
        {},
        {kOfxImageEffectPropPixelDepth},
        {kOfxImageEffectPropComponents},
        {kOfxImageEffectPropPixelDepth, kOfxImageEffectPropComponents},
        {kOfxImageEffectPropPreMultiplication},
        {kOfxImagePropRowBytes},
        {kOfxImagePropBounds},
        {kOfxImagePropData},
    };
    const size_t unanswered = in.ConsumeIntegralInRange<size_t>(0, std::size(kUnanswered));
    if (unanswered < std::size(kUnanswered))
        f.unanswered.insert(kUnanswered[unanswered].begin(), kUnanswered[unanswered].end());
    else
        f.nullData = true;

    const int pixelBytes =
        width * ofxhost::componentCount(f.components) * ofxhost::bytesPerComponent(f.depth);
    switch (in.ConsumeIntegralInRange(0, 5)) {
        case 0:  // packed
            break;
        case 1:  // padded, at any alignment
            f.rowPadding = in.ConsumeIntegralInRange(1, 64);
            break;
        case 2:  // top-down
            f.rowBytes = -(pixelBytes + in.ConsumeIntegralInRange(0, 16));
            break;
        case 3:  // rows shorter than their pixels: they overlap
            f.rowBytes = pixelBytes > 0 ? in.ConsumeIntegralInRange(1 - pixelBytes, pixelBytes - 1) : 0;
            break;
        case 4:  // rows 64 MiB apart, either way: the frame spans gigabytes
            f.sparse = true;
            f.rowBytes = in.ConsumeBool() ? -(1 << 26) : 1 << 26;
            height = std::min(height, 40);
            break;
        default:  // rows as far apart as an int allows
            f.sparse = true;
            f.rowBytes = in.ConsumeBool() ? INT_MIN : INT_MAX;
            height = std::min(height, 3);
    }

    // The origin, ordinary or at the ends of int, where a width computed in
    // 32 bits from a stated rectangle would overflow.
    int x1 = 0, y1 = 0;
    switch (in.ConsumeIntegralInRange(0, 3)) {
        case 1:
            x1 = in.ConsumeIntegralInRange(-8, 8);
            y1 = in.ConsumeIntegralInRange(-8, 8);
            break;
        case 2:
            x1 = INT_MIN;
            y1 = INT_MIN;
            break;
        case 3:
            x1 = INT_MAX - width;
            y1 = INT_MAX - height;
            break;
        default:
            break;
    }
    f.bounds = {x1, y1, x1 + width, y1 + height};

    // Bounds stated otherwise than the pixels held: never more pixels than
    // there are (that would be the host lying about its memory), but fewer,
    // moved, of negative size or wider than an int.
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
            break;
        default:
            break;
    }

    image.pattern = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(0, 24));
    return image;
}

ClipCase decodeClip(FuzzedDataProvider& in, const Shape& shape) {
    const int state = in.ConsumeIntegralInRange(0, 2);  // 1: no image at the time, 2: unconnected
    ClipCase clip;
    clip.connected = state != 2;
    clip.image = decodeImage(in, shape);
    clip.image.present = state != 1;
    return clip;
}

}  // namespace

RenderCase decodeCase(FuzzedDataProvider& in) {
    // The images first: a short input varies them, and leaves the rest plain.
    RenderCase c;
    const Shape shape = decodeShape(in);
    c.output = decodeClip(in, shape);
    c.source = decodeClip(in, shape);
    c.vectors = decodeClip(in, shape);
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
            break;
        default:
            break;
    }
    c.renderScale.x = decodeDouble(in, 1.0);
    c.renderScale.y = decodeDouble(in, 1.0);
    if (in.ConsumeIntegralInRange(0, 3) == 3) c.abortAfter = in.ConsumeIntegralInRange<uint64_t>(0, 64);
    if (in.ConsumeIntegralInRange(0, 3) == 3)
        c.allocationsBeforeFailure = in.ConsumeIntegralInRange<uint64_t>(0, 40);
    c.otherActions = in.ConsumeBool();
    return c;
}

namespace {

std::string text(double v) {
    char buffer[40];
    std::snprintf(buffer, sizeof buffer, "%.17g", v);
    return buffer;
}

std::string text(const OfxRectI& r) {
    return "(" + std::to_string(r.x1) + ", " + std::to_string(r.y1) + ", " + std::to_string(r.x2) + ", " +
           std::to_string(r.y2) + ")";
}

std::string describeClip(const char* name, const ClipCase& clip) {
    const ImageFormat& f = clip.image.format;
    std::string line = std::string(name) + ": " + (clip.connected ? "connected" : "unconnected") +
                       (clip.image.present ? "" : ", no image") + ", " + f.depth + " " + f.components + " " +
                       f.premultiplication + ", bounds " + text(f.bounds);
    if (f.statedBounds) line += " stated " + text(*f.statedBounds);
    if (f.rowBytes) line += ", row bytes " + std::to_string(*f.rowBytes);
    if (f.rowPadding) line += ", padding " + std::to_string(f.rowPadding);
    if (f.sparse) line += ", sparse";
    if (f.nullData) line += ", null data";
    for (const std::string& p : f.unanswered) line += ", " + p + " unanswered";
    line += ", pattern";
    for (uint8_t b : clip.image.pattern) line += " " + std::to_string(b);
    return line + "\n";
}

std::string describeParam(const char* name, const ParamCase& p) {
    return std::string(" ") + name + " " + (p.value ? text(*p.value) : "unanswered");
}

}  // namespace

std::string describeCase(const RenderCase& c) {
    std::string s = "host '" + c.host.name + "', " + std::to_string(c.host.numCPUs) + " processors" +
                    (c.host.callerRunsShareZero ? "" : ", spawns every share") +
                    (c.host.background ? ", background" : "") +
                    (c.host.multipleClipDepths ? "" : ", one clip depth") + (c.demo ? ", demo" : "") + "\n";
    s += "time " + text(c.time) + ", frames " + text(c.firstFrame) + " to " + text(c.lastFrame) +
         ", render scale " + text(c.renderScale.x) + " " + text(c.renderScale.y) + "\n";
    s += "parameters" + describeParam("amount", c.amount) + describeParam("max displacement", c.maxDisplace) +
         describeParam("scale x", c.scaleX) + describeParam("scale y", c.scaleY) + "\n";
    if (c.abortAfter) s += "aborts after " + std::to_string(*c.abortAfter) + " calls\n";
    if (c.allocationsBeforeFailure)
        s += "allocation fails after " + std::to_string(*c.allocationsBeforeFailure) + "\n";
    return s + describeClip("Output", c.output) + describeClip("Source", c.source) +
           describeClip("Motion Vectors", c.vectors);
}

void fillPixels(ofxhost::ImageBuffer& image, const std::vector<uint8_t>& pattern) {
    using F = std::numeric_limits<float>;
    static const float kSpecial[] = {0.0f,          1.0f,           0.5f,        F::quiet_NaN(),
                                     F::infinity(), -F::infinity(), -0.0f,       F::denorm_min(),
                                     F::max(),      -F::max(),      1e30f,       -1.0f,
                                     2.0f,          1.0000001f,     0.99999994f, 0.50000006f};
    if (pattern.empty()) return;  // the buffer starts zeroed
    const int element = image.bytesPerComponent();
    const OfxRectI& b = image.format().bounds;
    size_t next = 0;
    auto take = [&] { return pattern[next++ % pattern.size()]; };
    for (int y = b.y1; y < b.y2; ++y)
        for (int x = b.x1; x < b.x2; ++x)
            for (int c = 0; c < image.components() && element > 0; ++c) {
                auto* p = static_cast<unsigned char*>(image.at(x, y, c));
                if (element == 1) {
                    *p = take();
                } else if (element == 2) {
                    const uint8_t low = take();
                    const uint16_t v = static_cast<uint16_t>(low | take() << 8);
                    std::memcpy(p, &v, sizeof v);
                } else {
                    const uint8_t code = take();
                    const float v = code < std::size(kSpecial) ? kSpecial[code] : (code - 16) / 239.0f;
                    std::memcpy(p, &v, sizeof v);
                }
            }
}

}  // namespace trelvofuzz
