// The effect's interface as each kind of host receives it through the built
// module: three RGBA clips without tiles, a page listing every parameter once
// (the hidden one on Nuke and Fusion only, defined twice on Fusion), each
// double's default inside its range, and nothing at all in any other context.
#include <string>
#include <vector>

#include "common/plugin_session.h"

using namespace trelvotest;

TEST(DescribeInContext, ClipsAndAPageOfEveryParameterByHost) {
    for (const auto& [host, hidden] : {std::pair{"com.corvane.trelvo-render", 0}, {kNuke, 1}, {kFusion, 2}}) {
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
            const ofxhost::PropertySet& p = d.param(definition.name)->properties();
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

TEST(DescribeInContext, EveryOtherContextFailsAndDefinesNothing) {
    for (const char* context : {kOfxImageEffectContextFilter, kOfxImageEffectContextGenerator,
                                kOfxImageEffectContextTransition, "", "OfxImageEffectContextGeneralX"}) {
        Session s(hostNamed(kFusion));  // the host that would define the most
        s.describe(context);
        ImageEffect& d = *s.plugin().contextDescriptor();
        EXPECT_TRUE(d.clips().empty() && d.params().definitions().empty() && d.properties().writes().empty())
            << '"' << context << '"';
    }
}
