// The render rig the render tests share: one instance with all three clips
// connected and an image on each, rendered with the checks every frame must
// pass, and the colours a frame can end in.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "common/plugin_session.h"

namespace trelvotest {

inline double white(const std::string& depth) {
    return depth == kOfxBitDepthByte ? 255.0 : depth == kOfxBitDepthShort ? 65535.0 : 1.0;
}

// The code of a vector component that stands for the fraction f of the
// maximum displacement: 127 + 127 f, 32767 + 32767 f, 0.5 + 0.5 f.
inline double vectorCode(const std::string& depth, double f) {
    if (depth == kOfxBitDepthByte) return 127.0 + 127.0 * f;
    if (depth == kOfxBitDepthShort) return 32767.0 + 32767.0 * f;
    return 0.5 + 0.5 * f;
}

// One instance with all three clips connected over frames 0..10, an image
// on each, and the parameters at amount 1, maximum displacement 4, scales 1.
struct Rig {
    explicit Rig(HostConfig config = {}, const std::string& depthIn = kOfxBitDepthByte,
                 OfxRectI bounds = {0, 0, 24, 4}, int sourcePadding = 0, int outputPadding = 0)
        : s(std::move(config)), depth(depthIn) {
        e = &s.instance();
        source = makeImage(bounds, depth, sourcePadding);
        vectors = makeImage(bounds, depth);
        output = makeImage(bounds, depth, outputPadding);
        for (auto [name, image] :
             {std::pair{"Source", source}, {"Motion Vectors", vectors}, {"Output", output}}) {
            ofxhost::Clip* clip = e->clip(name);
            clip->setConnected(true);
            clip->setFormat(depth, kOfxImageComponentRGBA);
            clip->setFrameRange(0.0, 10.0);
            clip->setImage(image);
        }
        for (auto [name, value] : {std::pair{"valMBAmount", 1.0},
                                   {"valMaxDisplace", 4.0},
                                   {"valVecScaleX", 1.0},
                                   {"valVecScaleY", 1.0}})
            e->param(name)->setValue(value);
        uniformVectors(0.0);
    }
    // Every vector the same horizontal fraction f of the maximum displacement.
    void uniformVectors(double f) {
        fillPixels(*vectors, {vectorCode(depth, f), vectorCode(depth, 0.0), 0.0, white(depth)});
    }
    // Renders and checks what every frame must leave behind.
    ActionResult render(OfxTime time = 0.0, OfxPointD scale = {1.0, 1.0}) {
        ofxhost::RenderArgs args;
        args.time = time;
        args.renderScale = scale;
        ActionResult r = s.plugin().render(args);
        EXPECT_TRUE(r.memoryBalanced())
            << "allocations " << r.memoryAfter.allocations - r.memoryBefore.allocations << ", frees "
            << r.memoryAfter.frees - r.memoryBefore.frees;
        EXPECT_TRUE(r.imagesReleased()) << r.imagesAfter.outstanding() << " images outstanding";
        EXPECT_EQ(s.host().images().counts().outstanding(), 0u);
        return r;
    }

    Session s;
    std::string depth;
    ImageEffect* e;
    std::shared_ptr<ImageBuffer> source, vectors, output;
};

// Every pixel of the image has this colour (in element values), as far as
// it has channels: a one-channel image holds the colour's first value.
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

}  // namespace trelvotest
