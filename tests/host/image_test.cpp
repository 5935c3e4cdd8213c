// Host images: a buffer's layout, clipGetImage and the ledger that sees every
// image back, and the abort rule. (The image properties' values show in every
// render test through the host, unanswered ones and null data in its refusals.)
#include <gtest/gtest.h>

#include <thread>

#include "effect.h"
#include "host.h"

using namespace ofxhost;

namespace {

ptrdiff_t offset(ImageBuffer& image, int x, int y, int c = 0) {
    return static_cast<char*>(image.at(x, y, c)) - static_cast<char*>(image.data());
}

}  // namespace

TEST(HostImage, LayoutsSpanExactlyWhatTheirRowsReach) {
    ImageFormat f;
    f.bounds = {-3, 10, 2, 13};  // 5 x 3 RGBA short, bottom row first
    f.depth = kOfxBitDepthShort;
    f.rowPadding = 6;
    ImageBuffer padded(f);
    EXPECT_EQ(padded.rowBytes(), 5 * 8 + 6);
    EXPECT_EQ(padded.bytes().size(), 3u * 46u);
    EXPECT_EQ(offset(padded, -3, 10), 0);
    EXPECT_EQ(offset(padded, 1, 12, 3), 2 * 46 + 4 * 8 + 3 * 2);
    f.bounds = {4, 4, 4, 9};
    EXPECT_NE(ImageBuffer(f).data(), nullptr) << "only nullData gives a null pointer";

    f = ImageFormat();
    f.bounds = {0, 0, 4, 3};  // float RGBA: 64 bytes of pixels a row
    f.guardBytes = 8;
    f.rowBytes = -80;
    ImageBuffer topDown(f);
    EXPECT_EQ(topDown.spanBytes(), 3u * 80u);
    EXPECT_EQ(topDown.bytes().size(), 8u + 240u + 8u);
    EXPECT_EQ(static_cast<unsigned char*>(topDown.data()), topDown.bytes().data() + 8 + 2 * 80)
        << "the bottom row is the last in memory";
    EXPECT_EQ(offset(topDown, 0, 2), -160);
    EXPECT_TRUE(topDown.guardsIntact());
    static_cast<unsigned char*>(topDown.data())[80] = 0;  // one byte past the last row in memory
    EXPECT_FALSE(topDown.guardsIntact());
    f.rowBytes = 16;  // rows overlap: the last row's pixels end the span
    EXPECT_EQ(ImageBuffer(f).spanBytes(), 2u * 16u + 64u);
    f.rowBytes = 0;
    EXPECT_EQ(ImageBuffer(f).spanBytes(), 64u);

    f.rowBytes = 1 << 30;  // rows a gigabyte apart cost only the pages touched
    f.sparse = true;
    ImageBuffer sparse(f);
    EXPECT_TRUE(sparse.bytes().empty());
    sparse.value<float>(3, 2, 3) = 1.0f;
    EXPECT_EQ(sparse.value<float>(3, 2, 3), 1.0f);
    EXPECT_EQ(sparse.value<float>(0, 1, 0), 0.0f) << "zeroed";
    EXPECT_TRUE(sparse.guardsIntact());
}

TEST(HostImage, ClipGivesPropertySetsAndTheLedgerTakesThemBack) {
    Host host;
    auto* suite = static_cast<const OfxImageEffectSuiteV1*>(host.fetchSuite(kOfxImageEffectSuite, 1));
    auto* props = static_cast<const OfxPropertySuiteV1*>(host.fetchSuite(kOfxPropertySuite, 1));
    ImageEffect descriptor(kOfxImageEffectContextGeneral);
    Clip* d = nullptr;
    ASSERT_EQ(descriptor.defineClip("Source", &d), kOfxStatOK);
    ImageEffect instance(descriptor, kOfxImageEffectContextGeneral);
    Clip& clip = *instance.clip("Source");
    ImageFormat f;
    f.bounds = {2, 3, 6, 5};
    auto buffer = std::make_shared<ImageBuffer>(f);
    clip.setImageSource([buffer](OfxTime t) { return t == 1.0 ? buffer : nullptr; });

    OfxPropertySetHandle image = nullptr;
    EXPECT_EQ(suite->clipGetImage(clip.handle(), 2.0, nullptr, &image), kOfxStatFailed);
    EXPECT_EQ(image, nullptr);
    ASSERT_EQ(suite->clipGetImage(clip.handle(), 1.0, nullptr, &image), kOfxStatOK);
    void* data = nullptr;
    props->propGetPointer(image, kOfxImagePropData, 0, &data);
    EXPECT_EQ(data, buffer->data());
    EXPECT_EQ(clip.imageRequests(), 2u);
    EXPECT_EQ(host.images().counts().outstanding(), 1u);
    OfxRectD rod = {};
    EXPECT_EQ(suite->clipGetRegionOfDefinition(clip.handle(), 1.0, &rod), kOfxStatOK);
    EXPECT_EQ(rod.x2, 6.0) << "the image's bounds without a region set";

    EXPECT_EQ(suite->clipReleaseImage(clip.properties().handle()), kOfxStatErrBadHandle) << "not an image";
    EXPECT_EQ(suite->clipReleaseImage(image), kOfxStatOK);
    EXPECT_EQ(suite->clipReleaseImage(image), kOfxStatErrBadHandle) << "released twice";
    EXPECT_EQ(props->propGetPointer(image, kOfxImagePropData, 0, &data), kOfxStatErrBadHandle);
    EXPECT_EQ(host.images().counts().outstanding(), 0u);
    EXPECT_EQ(host.images().counts().badReleases, 2u);
}

TEST(HostImage, AbortFollowsItsRuleAndCountsEveryCall) {
    Host host;
    auto* suite = static_cast<const OfxImageEffectSuiteV1*>(host.fetchSuite(kOfxImageEffectSuite, 1));
    ImageEffect effect;
    std::string answers;
    auto ask = [&](int n) {
        for (int i = 0; i < n; ++i) answers += std::to_string(suite->abort(effect.handle()));
    };
    ask(1);
    host.abort().always();
    ask(1);
    host.abort().afterCalls(2);
    ask(3);
    host.abort().whileRaised();
    ask(1);
    std::thread([&] { host.abort().raise(); }).join();
    ask(1);
    EXPECT_EQ(answers, "0100101");
    EXPECT_EQ(host.abort().calls(), 7u);
}
