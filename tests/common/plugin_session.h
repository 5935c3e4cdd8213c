// What the tests through the built module share: a session of one host with
// the module freshly loaded, a render rig of one instance, host images.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "host.h"
#include "ofxImageEffect.h"
#include "plugin.h"

namespace trelvotest {

using namespace ofxhost;  // the host the tests drive
using Values = std::vector<PropertyValue>;
using BufferPtr = std::shared_ptr<ImageBuffer>;

inline constexpr const char* kOurs = "com.corvane.trelvo-render";
inline constexpr const char* kNuke = "uk.co.thefoundry.nuke";
inline constexpr const char* kFusion = "com.eyeonline.Fusion";
inline constexpr const char* kClips[] = {"Source", "Motion Vectors", "Output"};

inline HostConfig hostNamed(const std::string& name, unsigned int cpus = 0) {
    HostConfig config;
    config.name = name;
    config.numCPUs = cpus;
    return config;
}

// Torn down in the safe order: instance, Unload, dlclose, host.
class Session {
  public:
    explicit Session(HostConfig config = {}) : host_(std::move(config)) {
        std::string error;
        bundle_ = Bundle::open(TRELVO_PLUGIN_BINARY, error);
        if (!bundle_) throw std::runtime_error(error);
        plugin_ = std::make_unique<Plugin>(host_, *bundle_->plugin(0));
    }
    ~Session() {
        if (plugin_->instance()) plugin_->destroyInstance();
        plugin_->unload();
        plugin_.reset();
        bundle_.reset();
    }
    Host& host() { return host_; }
    Bundle& bundle() { return *bundle_; }
    Plugin& plugin() { return *plugin_; }

    // setHost, Describe, Load and Describe in context, all expected to succeed.
    void describe(const std::string& context = kOfxImageEffectContextGeneral) {
        plugin_->setHost();
        ASSERT_EQ(plugin_->describe(), kOfxStatOK);
        ASSERT_EQ(plugin_->load(), kOfxStatOK);
        ASSERT_EQ(plugin_->describeInContext(context).status,
                  context == kOfxImageEffectContextGeneral ? kOfxStatOK : kOfxStatFailed);
    }
    // The above and a general instance.
    ImageEffect& instance() {
        if (!plugin_->instance()) {
            describe();
            EXPECT_EQ(plugin_->createInstance().status, kOfxStatOK);
        }
        return *plugin_->instance();
    }

  private:
    Host host_;
    std::unique_ptr<Bundle> bundle_;
    std::unique_ptr<Plugin> plugin_;
};

inline BufferPtr makeImage(OfxRectI bounds, const std::string& depth, int rowPadding = 0,
                           const std::string& components = kOfxImageComponentRGBA) {
    ImageFormat format;
    format.bounds = bounds;
    format.depth = depth;
    format.components = components;
    format.rowPadding = rowPadding;
    return std::make_shared<ImageBuffer>(format);
}

// A component as a double, and back, in the buffer's own element type.
inline double component(const ImageBuffer& image, int x, int y, int c) {
    const int bytes = image.bytesPerComponent();
    return bytes == 1   ? image.value<unsigned char>(x, y, c)
           : bytes == 2 ? image.value<unsigned short>(x, y, c)
                        : image.value<float>(x, y, c);
}

inline void setComponent(ImageBuffer& image, int x, int y, int c, double value) {
    const int bytes = image.bytesPerComponent();
    if (bytes == 1) image.value<unsigned char>(x, y, c) = static_cast<unsigned char>(value);
    if (bytes == 2) image.value<unsigned short>(x, y, c) = static_cast<unsigned short>(value);
    if (bytes == 4) image.value<float>(x, y, c) = static_cast<float>(value);
}

inline void fillPixels(ImageBuffer& image, const std::vector<double>& rgba) {
    const OfxRectI& b = image.format().bounds;
    for (int y = b.y1; y < b.y2; ++y)
        for (int x = b.x1; x < b.x2; ++x)
            for (int c = 0; c < image.components(); ++c)
                setComponent(image, x, y, c, rgba[static_cast<size_t>(c)]);
}

inline double white(const std::string& depth) {
    return depth == kOfxBitDepthByte ? 255.0 : depth == kOfxBitDepthShort ? 65535.0 : 1.0;
}

// The code of a vector component for the fraction f of the maximum displacement.
inline double vectorCode(const std::string& depth, double f) {
    if (depth == kOfxBitDepthByte) return 127.0 + 127.0 * f;
    if (depth == kOfxBitDepthShort) return 32767.0 + 32767.0 * f;
    return 0.5 + 0.5 * f;
}

// A Source with varied alpha, vectors with holes and a motion growing by row.
inline void fillPattern(ImageBuffer& source, ImageBuffer& vectors, const std::string& depth, int seed) {
    const double top = white(depth);
    const OfxRectI& b = source.format().bounds;
    for (int y = b.y1; y < b.y2; ++y)
        for (int x = b.x1; x < b.x2; ++x) {
            const double a = ((x * 7 + y * 3 + seed) % 5 + 1) / 5.0;
            for (int c = 0; c < 3; ++c)
                setComponent(source, x, y, c, ((x * (c + 2) + y * 5 + seed) % 17) / 16.0 * a * top);
            setComponent(source, x, y, 3, a * top);
            setComponent(vectors, x, y, 0, vectorCode(depth, 0.75 - 0.1 * seed));
            setComponent(vectors, x, y, 1, vectorCode(depth, (y - b.y1) / 70.0));
            setComponent(vectors, x, y, 3, (x + y + seed) % 9 == 0 ? 0.0 : top);
        }
}

// The clips connected over frames 0..10, amount 1, maximum displacement 4.
inline void connectClips(ImageEffect& e) {
    for (const char* name : kClips) {
        e.clip(name)->setConnected(true);
        e.clip(name)->setFrameRange(0.0, 10.0);
    }
    for (auto [name, value] : {std::pair{"valMBAmount", 1.0},
                               {"valMaxDisplace", 4.0},
                               {"valVecScaleX", 1.0},
                               {"valVecScaleY", 1.0}})
        e.param(name)->setValue(value);
}

// One instance with the clips connected, an image of the depth on each, zero vectors.
struct Rig {
    explicit Rig(HostConfig config = {}, const std::string& depthIn = kOfxBitDepthByte,
                 OfxRectI bounds = {0, 0, 24, 4}, int sourcePadding = 0, int outputPadding = 0)
        : s(std::move(config)), depth(depthIn), e(&s.instance()) {
        source = makeImage(bounds, depth, sourcePadding);
        vectors = makeImage(bounds, depth);
        output = makeImage(bounds, depth, outputPadding);
        connectClips(*e);
        for (const char* name : kClips) {
            e->clip(name)->setFormat(depth, kOfxImageComponentRGBA);
            e->clip(name)->setImage(image(name));
        }
        uniformVectors(0.0);
    }
    BufferPtr& image(const std::string& clip) {
        return clip == "Source" ? source : clip == "Output" ? output : vectors;
    }
    void uniformVectors(double f) {
        fillPixels(*vectors, {vectorCode(depth, f), vectorCode(depth, 0.0), 0.0, white(depth)});
    }
    // Renders and checks what every frame must leave behind.
    ActionResult render(OfxTime time = 0.0, OfxPointD scale = {1.0, 1.0}) {
        RenderArgs args;
        args.time = time;
        args.renderScale = scale;
        ActionResult r = s.plugin().render(args);
        EXPECT_TRUE(r.memoryBalanced()) << r.memoryAfter.liveBytes << " bytes live after";
        EXPECT_TRUE(r.imagesReleased()) << r.imagesAfter.outstanding() << " images outstanding";
        EXPECT_EQ(s.host().images().counts().outstanding(), 0u);
        return r;
    }

    Session s;
    std::string depth;
    ImageEffect* e;
    BufferPtr source, vectors, output;
};

// Every pixel has this colour (element values), as far as it has channels.
inline ::testing::AssertionResult allPixels(const ImageBuffer& image, const std::vector<double>& rgba) {
    const OfxRectI& b = image.format().bounds;
    for (int y = b.y1; y < b.y2; ++y)
        for (int x = b.x1; x < b.x2; ++x)
            for (int c = 0; c < image.components(); ++c)
                if (component(image, x, y, c) != rgba[static_cast<size_t>(c)])
                    return ::testing::AssertionFailure()
                           << "pixel (" << x << ", " << y << ") channel " << c << " is "
                           << component(image, x, y, c) << ", not " << rgba[static_cast<size_t>(c)];
    return ::testing::AssertionSuccess();
}

inline const std::vector<double> kRed = {255, 0, 0, 255};
inline const std::vector<double> kOrange = {229, 153, 0, 255};  // 0.9f and 0.6f lie just below their decimals
inline const std::vector<double> kBlack = {0, 0, 0, 0};
inline const std::vector<double> kMarker = {7, 7, 7, 7};
inline const std::vector<double> kGrey = {40, 80, 120, 255};

}  // namespace trelvotest
