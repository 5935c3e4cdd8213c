// The effect's interface and the questions a host asks an instance before
// rendering, answered by the built module: the clips and parameters each kind
// of host is given, identity, clip preferences, regions, time domain, frames
// needed.
#include <cmath>
#include <string>
#include <vector>

#include "common/plugin_session.h"

using namespace trelvotest;

namespace {

using Writes = std::vector<PropertyWrite>;

PropertyWrite write(const std::string& name, int index, PropertyValue value, OfxStatus status = kOfxStatOK) {
    return PropertyWrite{name, index, std::move(value), status};
}

Writes rectWrites(const std::string& name, OfxRectD r, OfxStatus status = kOfxStatOK) {
    return {write(name, 0, r.x1, status), write(name, 1, r.y1, status), write(name, 2, r.x2, status),
            write(name, 3, r.y2, status)};
}

}  // namespace

// Three RGBA clips without tiles, a page listing every parameter once (the
// hidden one on Nuke and Fusion only, defined twice on Fusion), each double's
// default inside its range.
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
        Values listed, page = d.param("Main")->properties().values(kOfxParamPropPageChild);
        int hiddenDefined = 0;
        for (const auto& definition : d.params().definitions()) {
            hiddenDefined += definition.name == "QFXCustomData";
            if (definition.type == kOfxParamTypePage ||
                (definition.name == "QFXCustomData" && hiddenDefined > 1))
                continue;
            listed.push_back(definition.name);
            if (definition.type != kOfxParamTypeDouble) continue;
            const PropertySet& p = d.param(definition.name)->properties();
            const auto value = [&](const char* property) {
                return std::get<double>(p.values(property).at(0));
            };
            EXPECT_LE(value(kOfxParamPropMin), value(kOfxParamPropDefault)) << definition.name;
            EXPECT_LE(value(kOfxParamPropDefault), value(kOfxParamPropMax)) << definition.name;
        }
        EXPECT_EQ(hiddenDefined, hidden);
        EXPECT_EQ(page, listed) << "the page lists the parameters in the order defined";
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

TEST(InstanceActions, IdentityByWindowWidthThenByAmount) {
    Session s;
    Param& amount = *s.instance().param("valMBAmount");
    const struct {
        OfxRectI window;
        double amount;
        bool identity;
    } cases[] = {
        {{0, 0, 31, 1}, 0.5, true},       // 7 - 0: narrow, the amount isn't asked
        {{-3, 0, 29, 1}, 0.5, true},      // -3 / 4 is 0, 29 / 4 is 7
        {{0, 0, 31, 100000}, 0.5, true},  // height plays no part
        {{-7, 0, 24, 1}, 0.5, true},      // 6 - (-1)
        {{0, 0, 32, 1}, 0.5, false},      // 8 - 0: the amount decides
        {{-4, 0, 28, 1}, 0.5, false},     // 7 - (-1)
        {{0, 0, 1000, 1}, 0.5, false},    {{0, 0, 32, 1}, 0.0, true},   {{0, 0, 32, 1}, -0.0, true},
        {{0, 0, 32, 1}, 0.000001, false}, {{0, 0, 32, 1}, -2.0, false}, {{0, 0, 32, 1}, std::nan(""), false},
    };
    const Writes named = {write(kOfxPropName, 0, std::string("Source"))},
                 timed = {write(kOfxPropTime, 0, 12.5)};
    for (const auto& c : cases) {
        amount.setValue(c.amount);
        const uint64_t asked = amount.valueRequests();
        ActionResult r = s.plugin().isIdentity(12.5, c.window);
        const bool wide = c.window.x2 / 4 - c.window.x1 / 4 > 7;
        SCOPED_TRACE(testing::Message()
                     << "window x " << c.window.x1 << ".." << c.window.x2 << ", amount " << c.amount);
        EXPECT_EQ(amount.valueRequests() - asked, wide ? 1u : 0u);
        EXPECT_EQ(r.status, c.identity ? kOfxStatOK : kOfxStatReplyDefault);
        EXPECT_EQ(r.outArgs->writes(), c.identity ? named : Writes{});
        EXPECT_EQ(r.inArgs->writes(), c.identity ? timed : Writes{}) << "the time goes into inArgs";
    }
}

TEST(InstanceActions, ClipPreferencesFollowTheSourceUnmappedFormat) {
    const struct {
        const char* depth;
        const char* components;
        const char* outDepth;
        const char* outComponents;
    } cases[] = {
        {kOfxBitDepthByte, kOfxImageComponentRGBA, kOfxBitDepthByte, kOfxImageComponentRGBA},
        {kOfxBitDepthShort, kOfxImageComponentRGB, kOfxBitDepthShort, kOfxImageComponentRGBA},
        {kOfxBitDepthFloat, kOfxImageComponentAlpha, kOfxBitDepthFloat, kOfxImageComponentAlpha},
        {"OfxBitDepthHalf", kOfxImageComponentRGBA, kOfxBitDepthFloat, kOfxImageComponentRGBA},
        {"OfxBitDepthByteX", "OfxImageComponentAlphaX", kOfxBitDepthFloat, kOfxImageComponentRGBA},
        {"", "", kOfxBitDepthFloat, kOfxImageComponentRGBA},
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
            Writes expected = {write("OfxImageClipPropComponents_Output", 0, std::string(c.outComponents))};
            if (mixed) expected.push_back(write("OfxImageClipPropDepth_Output", 0, std::string(c.outDepth)));
            // Neither is an out property of this action; a host refuses both.
            expected.push_back(write(kOfxImageClipPropFieldExtraction, 0, std::string(kOfxImageFieldBoth),
                                     kOfxStatErrUnknown));
            expected.push_back(write(kOfxImageEffectPropTemporalClipAccess, 0, 0, kOfxStatErrUnknown));
            EXPECT_EQ(r.outArgs->writes(), expected);
            EXPECT_EQ(r.out("OfxImageClipPropDepth_Output"),
                      Values{std::string(mixed ? c.outDepth : "OfxBitDepthByte")})
                << "without mixed depths the host's own choice stands";
        }
    }
}

TEST(InstanceActions, RegionsOfInterestGoToTheSourceAndToBareClipNames) {
    const OfxRectD roi = {-4.0, 8.5, 96.0, 54.0};
    for (bool outputConnected : {false, true}) {
        for (bool vectorsConnected : {false, true}) {
            Session s;
            ImageEffect& e = s.instance();
            e.clip("Source")->setConnected(true);
            e.clip("Output")->setConnected(outputConnected);
            e.clip("Motion Vectors")->setConnected(vectorsConnected);
            ActionResult r = s.plugin().regionsOfInterest(2.0, roi);
            EXPECT_EQ(r.status, kOfxStatOK);
            Writes expected = rectWrites("OfxImageClipPropRoI_Source", roi);
            for (auto [connected, name] :
                 {std::pair{outputConnected, "Output"}, {vectorsConnected, "Motion Vectors"}})
                if (connected)
                    for (const PropertyWrite& w : rectWrites(name, roi, kOfxStatErrUnknown))
                        expected.push_back(w);
            EXPECT_EQ(r.outArgs->writes(), expected)
                << "Output " << outputConnected << ", vectors " << vectorsConnected;
            EXPECT_EQ(r.out("OfxImageClipPropRoI_Motion Vectors"), (Values{-4.0, 8.5, 96.0, 54.0}))
                << "the vectors' own RoI property keeps the host's default";
        }
    }
}

TEST(InstanceActions, RegionOfDefinitionTimeDomainAndFramesNeeded) {
    Session s;
    ImageEffect& e = s.instance();
    e.clip("Source")->setRegionOfDefinition({-10.5, 2.0, 300.0, 400.25});
    e.clip("Motion Vectors")->setRegionOfDefinition({0.0, 0.0, 1000.0, 1000.0});
    ActionResult r = s.plugin().regionOfDefinition(3.0);
    EXPECT_EQ(r.status, kOfxStatOK);
    EXPECT_EQ(r.outArgs->writes(),
              rectWrites(kOfxImageEffectPropRegionOfDefinition, {-10.5, 2.0, 300.0, 400.25}))
        << "the Source's alone";

    e.clip("Source")->setFrameRange(1.0, 100.0);
    e.clip("Motion Vectors")->setFrameRange(10.0, 20.5);
    r = s.plugin().timeDomain();
    EXPECT_EQ(r.status, kOfxStatOK);
    EXPECT_EQ(r.out(kOfxImageEffectPropFrameRange), (Values{10.0, 20.5})) << "the vectors' range";
    e.clip("Motion Vectors")->properties().remove(kOfxImageEffectPropFrameRange);
    r = s.plugin().timeDomain();
    EXPECT_EQ(r.out(kOfxImageEffectPropFrameRange), (Values{1.0, 100.0})) << "a host that doesn't answer";

    r = s.plugin().framesNeeded(7.25);
    EXPECT_EQ(r.status, kOfxStatOK);
    EXPECT_EQ(r.outArgs->writes(), (Writes{write("OfxImageClipPropFrameRange_Source", 0, 7.25),
                                           write("OfxImageClipPropFrameRange_Source", 1, 7.25),
                                           write("OfxImageClipPropFrameRange_Motion Vectors", 0, 7.25),
                                           write("OfxImageClipPropFrameRange_Motion Vectors", 1, 7.25)}));
}
