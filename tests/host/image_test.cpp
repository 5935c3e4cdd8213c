// Host images: the guards that see a write outside them, clipGetImage and the
// ledger that sees every image back, and the abort rule. (Layouts and image
// properties show in every render test through the host, unanswered ones and
// null data in its refusals.)
#include <gtest/gtest.h>

#include <thread>

#include "effect.h"
#include "host.h"

using namespace ofxhost;

// Top-down rows: the data pointer at the bottom row, the last in memory, and
// guards that see a byte written past it; sparse rows zeroed and guarded.
TEST(HostImage, LayoutsAndTheirGuards) {
    ImageFormat f;
    f.bounds = {0, 0, 4, 3};  // float RGBA: 64 bytes of pixels a row
    f.guardBytes = 8;
    f.rowBytes = -80;
    ImageBuffer topDown(f);
    EXPECT_EQ(topDown.bytes().size(), 8u + 240u + 8u);
    EXPECT_EQ(static_cast<unsigned char*>(topDown.data()), topDown.bytes().data() + 8 + 2 * 80);
    EXPECT_EQ(static_cast<char*>(topDown.at(1, 2, 3)) - static_cast<char*>(topDown.data()), -160 + 16 + 12);
    EXPECT_TRUE(topDown.guardsIntact());
    static_cast<unsigned char*>(topDown.data())[80] = 0;  // one byte past the last row in memory
    EXPECT_FALSE(topDown.guardsIntact());

    f.rowBytes = 1 << 30;  // rows a gigabyte apart cost only the pages touched
    f.sparse = true;
    ImageBuffer sparse(f);
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
    auto buffer = std::make_shared<ImageBuffer>(ImageFormat());
    clip.setImageSource([buffer](OfxTime t) { return t == 1.0 ? buffer : nullptr; });

    OfxPropertySetHandle image = nullptr;
    EXPECT_EQ(suite->clipGetImage(clip.handle(), 2.0, nullptr, &image), kOfxStatFailed);
    EXPECT_EQ(image, nullptr);
    ASSERT_EQ(suite->clipGetImage(clip.handle(), 1.0, nullptr, &image), kOfxStatOK);
    void* data = nullptr;
    props->propGetPointer(image, kOfxImagePropData, 0, &data);
    EXPECT_EQ(data, buffer->data());
    EXPECT_EQ(host.images().counts().outstanding(), 1u);

    EXPECT_EQ(suite->clipReleaseImage(image), kOfxStatOK);
    EXPECT_EQ(suite->clipReleaseImage(image), kOfxStatErrBadHandle) << "released twice";
    EXPECT_EQ(props->propGetPointer(image, kOfxImagePropData, 0, &data), kOfxStatErrBadHandle);
    EXPECT_EQ(host.images().counts().outstanding(), 0u);
    EXPECT_EQ(host.images().counts().badReleases, 1u);
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
