// What the tests through the built module share: a session of one host with
// the module freshly loaded (fresh globals), torn down in the safe order
// (instance, Unload, dlclose, host), and small helpers for host images.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "host.h"
#include "ofxImageEffect.h"
#include "plugin.h"

namespace trelvotest {

using ofxhost::ActionResult;
using ofxhost::Bundle;
using ofxhost::Host;
using ofxhost::HostConfig;
using ofxhost::ImageBuffer;
using ofxhost::ImageEffect;
using ofxhost::ImageFormat;
using ofxhost::Plugin;
using ofxhost::PropertyValue;
using ofxhost::PropertyWrite;
using Values = std::vector<PropertyValue>;

inline constexpr const char* kNuke = "uk.co.thefoundry.nuke";
inline constexpr const char* kFusion = "com.eyeonline.Fusion";
inline constexpr const char* kToxik = "Autodesk Toxik";

inline HostConfig hostNamed(const std::string& name) {
    HostConfig config;
    config.name = name;
    return config;
}

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

inline std::shared_ptr<ImageBuffer> makeImage(OfxRectI bounds, const std::string& depth, int rowPadding = 0,
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
    switch (image.bytesPerComponent()) {
        case 1:
            return image.value<unsigned char>(x, y, c);
        case 2:
            return image.value<unsigned short>(x, y, c);
        default:
            return image.value<float>(x, y, c);
    }
}

inline void setComponent(ImageBuffer& image, int x, int y, int c, double value) {
    switch (image.bytesPerComponent()) {
        case 1:
            image.value<unsigned char>(x, y, c) = static_cast<unsigned char>(value);
            break;
        case 2:
            image.value<unsigned short>(x, y, c) = static_cast<unsigned short>(value);
            break;
        default:
            image.value<float>(x, y, c) = static_cast<float>(value);
    }
}

inline void fillPixels(ImageBuffer& image, const std::vector<double>& rgba) {
    const OfxRectI& b = image.format().bounds;
    for (int y = b.y1; y < b.y2; ++y)
        for (int x = b.x1; x < b.x2; ++x)
            for (int c = 0; c < image.components(); ++c)
                setComponent(image, x, y, c, rgba[static_cast<size_t>(c)]);
}

}  // namespace trelvotest
