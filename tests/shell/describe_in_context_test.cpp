// The effect's interface as each kind of host receives it through the built
// module: three RGBA clips, four double parameters with their defaults inside
// their ranges, a page listing them, the hidden parameter on Nuke and Fusion
// only (twice on Fusion), and nothing at all in any other context.
#include <string>
#include <vector>

#include "common/plugin_session.h"

using namespace trelvotest;

TEST(DescribeInContext, ClipsParametersPageAndTheHiddenParameterByHost) {
    const char* numeric[] = {"valMBAmount", "valMaxDisplace", "valVecScaleX", "valVecScaleY"};
    // Host name and how often the hidden parameter is defined: the host tests
    // compare 20 bytes of Nuke's name and 18 of Fusion's.
    const std::pair<const char*, size_t> hosts[] = {{"com.corvane.trelvo-render", 0}, {kToxik, 0},
                                                    {"uk.co.thefoundry.nu", 0},       {kNuke, 1},
                                                    {"uk.co.thefoundry.nukeX 12", 1}, {kFusion, 2}};
    for (const auto& [host, hidden] : hosts) {
        SCOPED_TRACE(host);
        Session s(hostNamed(host));
        s.describe();
        ImageEffect& d = *s.plugin().contextDescriptor();
        std::vector<std::string> clips;
        for (const auto& clip : d.clips()) {
            clips.push_back(clip->name());
            EXPECT_EQ(clip->properties().values(kOfxImageEffectPropSupportedComponents),
                      Values{std::string(kOfxImageComponentRGBA)});
            EXPECT_EQ(clip->properties().values(kOfxImageEffectPropSupportsTiles), Values{0});
        }
        EXPECT_EQ(clips, (std::vector<std::string>{"Output", "Source", "Motion Vectors"}));
        Values children;
        for (const char* name : numeric) {
            ofxhost::Param* p = d.param(name);
            ASSERT_NE(p, nullptr) << name;
            EXPECT_EQ(p->type(), kOfxParamTypeDouble);
            const auto value = [&](const char* property) {
                return std::get<double>(p->properties().values(property).at(0));
            };
            EXPECT_LE(value(kOfxParamPropMin), value(kOfxParamPropDefault)) << name;
            EXPECT_LE(value(kOfxParamPropDefault), value(kOfxParamPropMax)) << name;
            children.push_back(std::string(name));
        }
        size_t defined = 0;
        for (const auto& definition : d.params().definitions()) defined += definition.name == "QFXCustomData";
        EXPECT_EQ(defined, hidden);
        if (hidden) children.push_back(std::string("QFXCustomData"));
        EXPECT_EQ(d.param("Main")->properties().values(kOfxParamPropPageChild), children);
    }
}

TEST(DescribeInContext, EveryOtherContextFailsAndDefinesNothing) {
    for (const char* context :
         {kOfxImageEffectContextFilter, kOfxImageEffectContextGenerator, kOfxImageEffectContextTransition,
          kOfxImageEffectContextPaint, "", "OfxImageEffectContextGeneralX", "OfxImageEffectContextGenera"}) {
        Session s(hostNamed(kFusion));  // the host that would define the most
        s.describe(context);
        ImageEffect& d = *s.plugin().contextDescriptor();
        EXPECT_TRUE(d.clips().empty() && d.params().definitions().empty() && d.properties().writes().empty())
            << '"' << context << '"';
    }
}
