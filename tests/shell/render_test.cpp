// The render action through the built module and the host.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/plugin_session.h"

using namespace trelvotest;

namespace {

// The Output against the Source blurred horizontally by k columns each way:
// k + 1 samples forward from the pixel, then k backward, each walk ending at
// the first column outside, summed in float in that order, times 1 / count.
void expectHorizontalBlur(const Rig& rig, int k) {
    const OfxRectI& b = rig.source->format().bounds;
    const float top = static_cast<float>(white(rig.depth));
    for (int y = b.y1; y < b.y2; ++y)
        for (int x = b.x1; x < b.x2; ++x)
            for (int c = 0; c < 4; ++c) {
                float sum = 0.0f, count = 0.0f;
                for (int i = x; i <= x + k && i < b.x2; ++i, ++count)
                    sum += static_cast<float>(component(*rig.source, i, y, c));
                for (int i = x - 1; i >= x - k && i >= b.x1; --i, ++count)
                    sum += static_cast<float>(component(*rig.source, i, y, c));
                const float mean = sum * (1.0f / count);
                ASSERT_EQ(component(*rig.output, x, y, c),
                          rig.depth == kOfxBitDepthFloat
                              ? mean
                              : static_cast<int>(std::clamp(mean + 0.5f, 0.0f, top)))
                    << rig.depth << " pixel (" << x << ", " << y << ") channel " << c << ", k " << k;
            }
}

}  // namespace

// Offset bounds and padded rows; vectors of the maximum displacement 4 at
// amount 1 give a half-length of 2 (five samples), 1 at half scale (three).
TEST(Render, WholeFramesInEachDepthAndScaleMatchTheWalkRules) {
    const OfxRectI bounds = {-5, 3, 19, 8};
    for (const std::string depth : {kOfxBitDepthByte, kOfxBitDepthShort, kOfxBitDepthFloat}) {
        for (double scale : {1.0, 0.5}) {
            SCOPED_TRACE(testing::Message() << depth << ", scale " << scale);
            const double step = depth == kOfxBitDepthByte ? 8.0 : depth == kOfxBitDepthShort ? 2000.0 : 0.125;
            Rig rig({}, depth, bounds, 12, 4);
            for (int y = bounds.y1; y < bounds.y2; ++y)
                for (int x = bounds.x1; x < bounds.x2; ++x) {
                    const int i = x - bounds.x1;
                    for (auto [c, v] : {std::pair{0, i}, {1, 23 - i}, {2, i == 9 ? 20 : 3}})
                        setComponent(*rig.source, x, y, c, v * step);
                    setComponent(*rig.source, x, y, 3, white(depth));
                }
            rig.uniformVectors(1.0);
            EXPECT_EQ(rig.render(0.0, {scale, scale}).status, kOfxStatOK);
            expectHorizontalBlur(rig, scale == 1.0 ? 2 : 1);
            const int rowBytes = rig.output->rowBytes();
            for (int y = 0; y < 5; ++y)
                for (int k = rowBytes - 4; k < rowBytes; ++k)
                    EXPECT_EQ(rig.output->bytes()[static_cast<size_t>(y * rowBytes + k)], 0)
                        << "padding written";
        }
    }
}

TEST(Render, EveryFailurePathShowsItsColourAndReportsSuccess) {
    using SetUp = std::function<void(Rig&)>;
    auto image = [](const char* clip, BufferPtr i) {
        return [clip, i](Rig& r) { r.e->clip(clip)->setImage(i); };
    };
    auto like = [](const char* components, bool nullData = false) {
        ImageFormat f = makeImage({0, 0, 24, 4}, kOfxBitDepthByte, 0, components)->format();
        f.nullData = nullData;
        return std::make_shared<ImageBuffer>(f);
    };
    auto unconnected = [](const char* clip) {
        return [clip](Rig& r) { r.e->clip(clip)->setConnected(false); };
    };
    // The first check, before the Output is wrapped, passes.
    auto aborting = [](SetUp f) {
        return [f](Rig& r) {
            f(r);
            r.s.host().abort().afterCalls(1);
        };
    };
    const struct {
        const char* cause;
        SetUp setUp;
        const std::vector<double>* colour;  // null: untouched
        OfxTime time = 0.0;
    } cases[] = {
        {"no Output image", image("Output", nullptr), nullptr},
        {"no Output data", image("Output", like(kOfxImageComponentRGBA, true)), nullptr},
        {"abort before anything is wrapped", [](Rig& r) { r.s.host().abort().always(); }, nullptr},
        {"abort during the engine's run", aborting([](Rig& r) { r.uniformVectors(1.0); }), &kOrange},
        {"time before the Source's range", [](Rig&) {}, &kBlack, -0.5},
        {"time after the Source's range", [](Rig&) {}, &kBlack, 10.001},
        {"no vector image", image("Motion Vectors", nullptr), &kBlack},
        {"no vector image while aborting", aborting(image("Motion Vectors", nullptr)), &kOrange},
        {"Source unconnected", unconnected("Source"), &kRed},
        {"Source unconnected while aborting", aborting(unconnected("Source")), &kRed},
        {"vectors unconnected", unconnected("Motion Vectors"), &kRed},
        {"vectors unconnected while aborting", aborting(unconnected("Motion Vectors")), &kOrange},
        {"no Source image", image("Source", nullptr), &kRed},
        {"no vector data", image("Motion Vectors", like(kOfxImageComponentRGBA, true)), &kRed},
        {"Source of alpha alone", image("Source", like(kOfxImageComponentAlpha)), &kRed},
        {"vectors of alpha alone", image("Motion Vectors", like(kOfxImageComponentAlpha)), &kRed},
        {"zero-width Output (an unconnected Source would paint it red)",
         [](Rig& r) {
             r.e->clip("Output")->setImage(makeImage({5, 5, 5, 9}, kOfxBitDepthByte));
             r.e->clip("Source")->setConnected(false);
         },
         nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.cause);
        Rig rig;
        fillPixels(*rig.output, kMarker);
        c.setUp(rig);
        EXPECT_EQ(rig.render(c.time).status, kOfxStatOK);
        EXPECT_TRUE(allPixels(*rig.output, c.colour ? *c.colour : kMarker));
    }
}

TEST(Render, OutOfMemoryReachesTheHostAsErrMemoryWithImagesBack) {
    Rig rig;
    rig.uniformVectors(1.0);
    // The Output wrapper gets its block, the Source wrapper doesn't.
    rig.s.host().memory().failAfter(static_cast<int64_t>(rig.s.host().memory().counts().allocations) + 1);
    ActionResult r = rig.render();
    EXPECT_EQ(r.status, kOfxStatErrMemory);
    EXPECT_EQ(r.imagesAfter.handedOut - r.imagesBefore.handedOut, 2u) << "Output and Source";
}

// Fusion's last frame loses its fraction, towards zero: a range ending at
// -1.2 reaches -1 there.
TEST(Render, FramesAtBothEndsOfTheRangeAndFusionsWholeLastFrame) {
    for (const std::string host : {kOurs, kFusion}) {
        const bool fusion = host == kFusion;
        for (auto [first, last, time, renders] : {std::tuple{2.0, 10.5, 2.0, true},
                                                  {2.0, 10.5, 10.5, !fusion},
                                                  {2.0, 10.5, 10.2, !fusion},
                                                  {2.0, 10.5, 10.0, true},
                                                  {-3.5, -1.2, -1.0, fusion}}) {
            SCOPED_TRACE(testing::Message() << host << ": time " << time << " in " << first << ".." << last);
            Rig rig(hostNamed(host));
            fillPixels(*rig.source, kGrey);
            rig.e->clip("Source")->setFrameRange(first, last);
            EXPECT_EQ(rig.render(time).status, kOfxStatOK);
            EXPECT_TRUE(allPixels(*rig.output, renders ? kGrey : kBlack));
        }
    }
}

// Float, so that (un)premultiplying by one half is exact. Nuke converts
// neither clip; the others convert a straight Source in place (also when the
// frame fails) and render into a straight Output.
TEST(Render, PremultiplicationByHost) {
    const std::vector<double> straight = {0.5, 0.25, 1.0, 0.5}, premultiplied = {0.25, 0.125, 0.5, 0.5};
    for (const std::string host : {kOurs, kNuke, kFusion}) {
        const bool nuke = host == kNuke;
        for (auto [clip, fails] : {std::pair{"Source", false}, {"Source", true}, {"Output", false}}) {
            SCOPED_TRACE(testing::Message()
                         << host << ": an un-premultiplied " << clip << (fails ? ", failing" : ""));
            const bool source = clip == std::string("Source");
            Rig rig(hostNamed(host), kOfxBitDepthFloat);
            ImageFormat f = rig.image(clip)->format();
            f.premultiplication = kOfxImageUnPreMultiplied;
            rig.image(clip) = std::make_shared<ImageBuffer>(f);
            rig.e->clip(clip)->setImage(rig.image(clip));
            fillPixels(*rig.source, source ? straight : premultiplied);
            if (fails) rig.e->clip("Motion Vectors")->setImage(nullptr);
            EXPECT_EQ(rig.render().status, kOfxStatOK);
            EXPECT_TRUE(allPixels(*rig.source, source && nuke ? straight : premultiplied));
            EXPECT_TRUE(allPixels(*rig.output, fails ? kBlack : source == nuke ? straight : premultiplied));
        }
    }
}

TEST(Render, DemoModeWarnsOnceInABackgroundRender) {
    // Background demo, interactive demo, licensed, demo on a silent host (interactive).
    for (int mode : {0, 1, 2, 3}) {
        SCOPED_TRACE(mode);
        if (mode != 2) setenv("TRELVO_DEMO", "1", 1);
        HostConfig config;
        config.background = mode == 0 || mode == 3;
        if (mode == 3) config.omittedProperties = {kOfxImageEffectHostPropIsBackground};
        Rig rig(config);
        for (int frame = 0; frame < 3; ++frame) EXPECT_EQ(rig.render(frame).status, kOfxStatOK);
        unsetenv("TRELVO_DEMO");
        const auto& sent = rig.s.host().messages().all();
        ASSERT_EQ(sent.size(), mode == 0 ? 1u : 0u);
        for (const auto& m : sent)
            EXPECT_NE(m.text.find("Did not find a valid license for TrelvoVectors."), std::string::npos);
    }
}

// Two first frames of a background demo at once, each warning held until
// both have warned: no race on the flag (under tsan), one or two warnings.
TEST(Render, TwoFirstFramesAtOnceShareTheWarningFlag) {
    setenv("TRELVO_DEMO", "1", 1);
    std::mutex mutex;
    std::condition_variable bothWarned;
    int warned = 0;
    HostConfig config;
    config.onMessage = [&](const Message&) {
        std::unique_lock lock(mutex);
        if (++warned == 2) bothWarned.notify_all();
        // Not for ever: a flag that lets only one frame warn is right too.
        bothWarned.wait_for(lock, std::chrono::seconds(2), [&] { return warned >= 2; });
    };
    Rig rig(config);
    // Each frame its own Output, so the two renders write apart.
    const BufferPtr outputs[2] = {makeImage({0, 0, 24, 4}, kOfxBitDepthByte),
                                  makeImage({0, 0, 24, 4}, kOfxBitDepthByte)};
    rig.e->clip("Output")->setImageSource([outputs](OfxTime t) { return outputs[t == 0.0 ? 0 : 1]; });
    OfxStatus statuses[2] = {kOfxStatFailed, kOfxStatFailed};
    const auto render = [&](int i) {
        RenderArgs args;
        args.time = i;
        statuses[i] = rig.s.plugin().render(args).status;
    };
    std::thread first(render, 0), second(render, 1);
    first.join();
    second.join();
    unsetenv("TRELVO_DEMO");
    EXPECT_EQ(statuses[0], kOfxStatOK);
    EXPECT_EQ(statuses[1], kOfxStatOK);
    const size_t warnings = rig.s.host().messages().all().size();
    EXPECT_TRUE(warnings == 1 || warnings == 2) << warnings << " warnings";
    EXPECT_EQ(outputs[0]->bytes(), outputs[1]->bytes()) << "the same frame";
}
