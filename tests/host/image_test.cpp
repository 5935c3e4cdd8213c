// Host images: the layout of a buffer, what clipGetImage hands out over it,
// and the ledger that sees every image back. (Properties left unanswered and
// null data show in the plug-in's render tests, which expect its refusals.)
#include <gtest/gtest.h>

#include <thread>

#include "effect.h"
#include "host.h"

using namespace ofxhost;

namespace {

struct Suites {
    Host host;
    const OfxImageEffectSuiteV1* effect =
        static_cast<const OfxImageEffectSuiteV1*>(host.fetchSuite(kOfxImageEffectSuite, 1));
    const OfxPropertySuiteV1* props =
        static_cast<const OfxPropertySuiteV1*>(host.fetchSuite(kOfxPropertySuite, 1));
};

}  // namespace

TEST(HostImage, BottomRowFirstWithPaddedRowsAtOffsetBounds) {
    ImageFormat f;
    f.bounds = {-3, 10, 2, 13};  // 5 x 3
    f.depth = kOfxBitDepthShort;
    f.rowPadding = 6;
    ImageBuffer image(f);
    EXPECT_EQ(image.rowBytes(), 5 * 8 + 6);
    EXPECT_EQ(image.bytes().size(), 3u * 46u);
    EXPECT_EQ(image.at(-3, 10), image.data()) << "the bottom-left pixel starts the data";
    EXPECT_EQ(static_cast<char*>(image.at(1, 12, 3)) - static_cast<char*>(image.data()),
              2 * 46 + 4 * 8 + 3 * 2);

    f.bounds = {4, 4, 4, 9};
    ImageBuffer empty(f);
    EXPECT_EQ(empty.width(), 0);
    EXPECT_NE(empty.data(), nullptr) << "only nullData gives a null pointer";
    f.depth = kOfxBitDepthByte;
    f.components = kOfxImageComponentAlpha;
    f.bounds = {0, 0, 3, 1};
    f.rowPadding = 0;
    EXPECT_EQ(ImageBuffer(f).rowBytes(), 3);
}

TEST(HostImage, HostileLayoutsSpanExactlyWhatTheirRowsReach) {
    ImageFormat f;
    f.bounds = {0, 0, 4, 3};  // float RGBA: 64 bytes of pixels a row
    f.guardBytes = 8;
    f.rowBytes = -80;
    ImageBuffer topDown(f);
    EXPECT_EQ(topDown.spanBytes(), 2u * 80u + 80u);
    EXPECT_EQ(topDown.bytes().size(), 8u + 240u + 8u);
    EXPECT_EQ(static_cast<unsigned char*>(topDown.data()), topDown.bytes().data() + 8 + 2 * 80)
        << "the bottom row is the last in memory";
    EXPECT_EQ(static_cast<char*>(topDown.at(0, 2)), static_cast<char*>(topDown.data()) - 160);
    EXPECT_TRUE(topDown.guardsIntact());
    static_cast<unsigned char*>(topDown.data())[80] = 0;  // one byte past the bottom row, the last in memory
    EXPECT_FALSE(topDown.guardsIntact());

    f.rowBytes = 16;  // rows overlap: the last row's pixels end the span
    EXPECT_EQ(ImageBuffer(f).spanBytes(), 2u * 16u + 64u);
    f.rowBytes = 0;
    EXPECT_EQ(ImageBuffer(f).spanBytes(), 64u);

    // Rows a gigabyte apart cost only the pages that are touched.
    f.depth = kOfxBitDepthFloat;
    f.rowBytes = 1 << 30;
    f.sparse = true;
    ImageBuffer sparse(f);
    EXPECT_TRUE(sparse.bytes().empty());
    sparse.value<float>(3, 2, 3) = 1.0f;
    EXPECT_EQ(sparse.value<float>(3, 2, 3), 1.0f);
    EXPECT_EQ(sparse.value<float>(0, 1, 0), 0.0f) << "zeroed";
    EXPECT_TRUE(sparse.guardsIntact());
}

TEST(HostImage, ClipGivesPropertySetsAndTheLedgerTakesThemBack) {
    Suites s;
    ImageEffect descriptor(kOfxImageEffectContextGeneral);
    Clip* d = nullptr;
    ASSERT_EQ(descriptor.defineClip("Source", &d), kOfxStatOK);
    ImageEffect instance(descriptor, kOfxImageEffectContextGeneral);
    Clip& clip = *instance.clip("Source");

    ImageFormat f;
    f.bounds = {2, 3, 6, 5};
    f.depth = kOfxBitDepthByte;
    f.premultiplication = kOfxImageUnPreMultiplied;
    f.rowPadding = 4;
    auto buffer = std::make_shared<ImageBuffer>(f);
    clip.setImageSource([buffer](OfxTime t) { return t == 1.0 ? buffer : nullptr; });

    OfxPropertySetHandle image = nullptr;
    EXPECT_EQ(s.effect->clipGetImage(clip.handle(), 2.0, nullptr, &image), kOfxStatFailed);
    EXPECT_EQ(image, nullptr);
    ASSERT_EQ(s.effect->clipGetImage(clip.handle(), 1.0, nullptr, &image), kOfxStatOK);
    int rowBytes = 0, bounds[4] = {};
    void* data = nullptr;
    char* text = nullptr;
    s.props->propGetInt(image, kOfxImagePropRowBytes, 0, &rowBytes);
    s.props->propGetIntN(image, kOfxImagePropBounds, 4, bounds);
    s.props->propGetPointer(image, kOfxImagePropData, 0, &data);
    EXPECT_EQ(rowBytes, 4 * 4 + 4);
    EXPECT_EQ(std::vector<int>(bounds, bounds + 4), (std::vector<int>{2, 3, 6, 5}));
    EXPECT_EQ(data, buffer->data());
    s.props->propGetString(image, kOfxImageEffectPropPreMultiplication, 0, &text);
    EXPECT_STREQ(text, kOfxImageUnPreMultiplied);
    EXPECT_EQ(clip.imageRequests(), 2u);
    EXPECT_EQ(s.host.images().counts().outstanding(), 1u);

    OfxRectD rod = {};
    EXPECT_EQ(s.effect->clipGetRegionOfDefinition(clip.handle(), 1.0, &rod), kOfxStatOK);
    EXPECT_EQ(rod.x2, 6.0) << "the image's bounds without a region set";

    EXPECT_EQ(s.effect->clipReleaseImage(clip.properties().handle()), kOfxStatErrBadHandle) << "not an image";
    EXPECT_EQ(s.effect->clipReleaseImage(image), kOfxStatOK);
    EXPECT_EQ(s.effect->clipReleaseImage(image), kOfxStatErrBadHandle) << "released twice";
    EXPECT_EQ(s.props->propGetInt(image, kOfxImagePropRowBytes, 0, &rowBytes), kOfxStatErrBadHandle);
    ImageLedger::Counts c = s.host.images().counts();
    EXPECT_EQ(c.outstanding(), 0u);
    EXPECT_EQ(c.badReleases, 2u);
}

TEST(HostImage, AbortFollowsItsRuleAndCountsEveryCall) {
    Suites s;
    ImageEffect effect;
    auto ask = [&] { return s.effect->abort(effect.handle()); };
    EXPECT_EQ(ask(), 0);
    s.host.abort().always();
    EXPECT_EQ(ask(), 1);
    s.host.abort().afterCalls(2);
    EXPECT_EQ(ask(), 0);
    EXPECT_EQ(ask(), 0);
    EXPECT_EQ(ask(), 1);
    s.host.abort().whileRaised();
    EXPECT_EQ(ask(), 0);
    std::thread([&] { s.host.abort().raise(); }).join();
    EXPECT_EQ(ask(), 1);
    EXPECT_EQ(s.host.abort().calls(), 7u);
}
