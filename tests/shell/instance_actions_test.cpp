// The effect's interface and the questions a host asks an instance before
// rendering, answered by the built module.
#include <cmath>
#include <string>
#include <vector>

#include "common/plugin_session.h"

using namespace trelvotest;

// Three RGBA clips without tiles, a page listing every parameter once (the
// hidden one on Nuke and Fusion only, defined twice on Fusion).
TEST(DescribeInContext, ClipsAndAPageOfEveryParameterByHost) {
    for (const auto& [host, hidden] : {std::pair{kOurs, 0}, {kNuke, 1}, {kFusion, 2}}) {
        SCOPED_TRACE(host);
        Session s(hostNamed(host));
        s.describe();
        ImageEffect& d = *s.plugin().contextDescriptor();
        EXPECT_EQ(d.clips().size(), 3u);
        for (const auto& clip : d.clips()) {
            EXPECT_EQ(clip->properties().values(kOfxImageEffectPropSupportedComponents),
                      Values{std::string(kOfxImageComponentRGBA)});
            EXPECT_EQ(clip->properties().values(kOfxImageEffectPropSupportsTiles), Values{0});
        }
        Values listed;
        int hiddenDefined = 0;
        for (const auto& definition : d.params().definitions()) {
            hiddenDefined += definition.name == "QFXCustomData";
            if (definition.type != kOfxParamTypePage &&
                (definition.name != "QFXCustomData" || hiddenDefined == 1))
                listed.push_back(definition.name);
        }
        EXPECT_EQ(hiddenDefined, hidden);
        EXPECT_EQ(d.param("Main")->properties().values(kOfxParamPropPageChild), listed)
            << "in the order defined";
        EXPECT_EQ(listed.size(), 4u + (hidden ? 1 : 0));
    }
}

TEST(DescribeInContext, EveryOtherContextFailsDefinesNothingAndMakesNoInstance) {
    for (const char* context : {kOfxImageEffectContextFilter, kOfxImageEffectContextGenerator,
                                kOfxImageEffectContextTransition, "", "OfxImageEffectContextGeneralX"}) {
        Session s(hostNamed(kFusion));  // the host that would define the most
        s.describe(context);
        ImageEffect& d = *s.plugin().contextDescriptor();
        SCOPED_TRACE(testing::Message() << '"' << context << '"');
        EXPECT_TRUE(d.clips().empty() && d.params().definitions().empty() && d.properties().writes().empty());
        EXPECT_EQ(s.plugin().createInstance().status, *context ? kOfxStatFailed : kOfxStatOK)
            << "an empty context creates a general instance";
    }
}

// Identity when the window, in whole steps of 4 rounded towards zero, spans
// at most 7; otherwise the amount decides, read only then.
TEST(InstanceActions, IdentityByWindowWidthThenByAmount) {
    Session s;
    Param& amount = *s.instance().param("valMBAmount");
    const struct {
        OfxRectI window;
        double amount;
        bool identity;
    } cases[] = {
        {{0, 0, 31, 100000}, 0.5, true}, {{-3, 0, 29, 1}, 0.5, true},
        {{0, 0, 32, 1}, 0.5, false},     {{-4, 0, 28, 1}, 0.5, false},
        {{0, 0, 32, 1}, 0.0, true},      {{0, 0, 32, 1}, 0.000001, false},
        {{0, 0, 32, 1}, -2.0, false},    {{0, 0, 32, 1}, std::nan(""), false},
    };
    for (const auto& c : cases) {
        amount.setValue(c.amount);
        const uint64_t asked = amount.valueRequests();
        ActionResult r = s.plugin().isIdentity(12.5, c.window);
        SCOPED_TRACE(testing::Message()
                     << "window x " << c.window.x1 << ".." << c.window.x2 << ", amount " << c.amount);
        EXPECT_EQ(amount.valueRequests() - asked, c.window.x2 / 4 - c.window.x1 / 4 > 7 ? 1u : 0u);
        EXPECT_EQ(r.status, c.identity ? kOfxStatOK : kOfxStatReplyDefault);
        EXPECT_EQ(r.out(kOfxPropName), Values{std::string(c.identity ? "Source" : "")});
    }
}

// The Output takes the Source's components (RGB as RGBA) and, where the host
// allows mixed depths, its depth; anything unknown maps to float RGBA.
TEST(InstanceActions, ClipPreferencesFollowTheSourceUnmappedFormat) {
    const struct {
        const char *depth, *components, *outDepth, *outComponents;
    } cases[] = {
        {kOfxBitDepthByte, kOfxImageComponentRGBA, kOfxBitDepthByte, kOfxImageComponentRGBA},
        {kOfxBitDepthShort, kOfxImageComponentRGB, kOfxBitDepthShort, kOfxImageComponentRGBA},
        {kOfxBitDepthFloat, kOfxImageComponentAlpha, kOfxBitDepthFloat, kOfxImageComponentAlpha},
        {"OfxBitDepthHalf", kOfxImageComponentRGBA, kOfxBitDepthFloat, kOfxImageComponentRGBA},
        {"OfxBitDepthByteX", "OfxImageComponentAlphaX", kOfxBitDepthFloat, kOfxImageComponentRGBA},
    };
    // Mixed depths answered yes, no, or not at all (taken for yes).
    for (auto [mixed, answered] : {std::pair{true, true}, {false, true}, {true, false}}) {
        HostConfig config;
        config.multipleClipDepths = mixed;
        if (!answered) config.omittedProperties = {kOfxImageEffectPropSupportsMultipleClipDepths};
        Session s(config);
        ImageEffect& e = s.instance();
        for (const auto& c : cases) {
            SCOPED_TRACE(testing::Message()
                         << c.depth << " " << c.components << (mixed ? "" : " without mixed depths"));
            e.clip("Source")->setFormat(c.depth, c.components);
            e.clip("Output")->setFormat(kOfxBitDepthByte, kOfxImageComponentRGB);
            ActionResult r = s.plugin().clipPreferences();
            EXPECT_EQ(r.status, kOfxStatOK);
            EXPECT_EQ(r.out("OfxImageClipPropComponents_Output"), Values{std::string(c.outComponents)});
            EXPECT_EQ(r.out("OfxImageClipPropDepth_Output"),
                      Values{std::string(mixed ? c.outDepth : kOfxBitDepthByte)});
        }
    }
}

// RoI to the Source alone, the Source's RoD, the vectors' time domain (else
// the Source's), one frame of each input.
TEST(InstanceActions, RegionsTimeDomainAndFramesNeeded) {
    Session s;
    ImageEffect& e = s.instance();
    connectClips(e);
    const OfxRectD roi = {-4.0, 8.5, 96.0, 54.0};
    ActionResult r = s.plugin().regionsOfInterest(2.0, roi);
    EXPECT_EQ(r.status, kOfxStatOK);
    EXPECT_EQ(r.out("OfxImageClipPropRoI_Source"), (Values{-4.0, 8.5, 96.0, 54.0}));
    EXPECT_EQ(r.out("OfxImageClipPropRoI_Motion Vectors"), (Values{-4.0, 8.5, 96.0, 54.0}));

    e.clip("Source")->setRegionOfDefinition({-10.5, 2.0, 300.0, 400.25});
    e.clip("Motion Vectors")->setRegionOfDefinition({0.0, 0.0, 1000.0, 1000.0});
    r = s.plugin().regionOfDefinition(3.0);
    EXPECT_EQ(r.status, kOfxStatOK);
    EXPECT_EQ(r.out(kOfxImageEffectPropRegionOfDefinition), (Values{-10.5, 2.0, 300.0, 400.25}));

    e.clip("Source")->setFrameRange(1.0, 100.0);
    e.clip("Motion Vectors")->setFrameRange(10.0, 20.5);
    r = s.plugin().timeDomain();
    EXPECT_EQ(r.status, kOfxStatOK);
    EXPECT_EQ(r.out(kOfxImageEffectPropFrameRange), (Values{10.0, 20.5}));
    e.clip("Motion Vectors")->properties().remove(kOfxImageEffectPropFrameRange);
    EXPECT_EQ(s.plugin().timeDomain().out(kOfxImageEffectPropFrameRange), (Values{1.0, 100.0}));

    r = s.plugin().framesNeeded(7.25);
    EXPECT_EQ(r.status, kOfxStatOK);
    EXPECT_EQ(r.out("OfxImageClipPropFrameRange_Source"), (Values{7.25, 7.25}));
    EXPECT_EQ(r.out("OfxImageClipPropFrameRange_Motion Vectors"), (Values{7.25, 7.25}));
}
