// The effect's interface as each kind of host receives it through the built
// module: clips and their properties in order, the four numeric parameters,
// the hidden parameter on Nuke and Fusion only, the page, and the refusal of
// every context but the general one.
#include <string>
#include <vector>

#include "plugin_session.h"

using namespace trelvotest;
using ofxhost::ParamDefinition;

namespace {

PropertyWrite str(const char* name, const std::string& value, int index = 0) {
    return PropertyWrite{name, index, value, kOfxStatOK};
}
PropertyWrite num(const char* name, int value) {
    return PropertyWrite{name, 0, value, kOfxStatOK};
}
PropertyWrite dbl(const char* name, double value) {
    return PropertyWrite{name, 0, value, kOfxStatOK};
}

const std::string k256(256, 'a');

struct Numeric {
    const char* name;
    double displayMin, displayMax, min, max, def;
    const char* hint;
    const char* label;
};
const Numeric kNumeric[] = {
    {"valMBAmount", -2.0, 10.0, -2.0, 10.0, 0.5, "Value: amount of MotionBlur", "Blur Amount"},
    {"valMaxDisplace", 0.0, 10000.0, 0.0, 10000.0, 64.0, "Value: Max Displacement", "Max Displacement"},
    {"valVecScaleX", -2.0, 10.0, -2.0, 10.0, 1.0, "Value: Vector Scale X", "Vector Scale X"},
    {"valVecScaleY", -2.0, 10.0, -2.0, 10.0, 1.0, "Value: Vector Scale Y", "Vector Scale Y"},
};

// The hidden parameter's properties; the string form has its own label and
// is disabled.
std::vector<PropertyWrite> hiddenWrites(bool asString) {
    std::vector<PropertyWrite> w = {num(kOfxParamPropEvaluateOnChange, 0),
                                    num(kOfxParamPropPersistant, 1),
                                    str(kOfxParamPropDefault, k256),
                                    str(kOfxPropLabel, asString ? "license" : "CustomData_DoNotEdit"),
                                    str(kOfxParamPropScriptName, "CustomData_DoNotEdit"),
                                    str(kOfxParamPropHint, "Custom data string, do not edit!")};
    if (asString) w.push_back(num(kOfxParamPropEnabled, 0));
    w.push_back(num(kOfxParamPropSecret, 1));
    return w;
}

// Everything that doesn't depend on the host: clips, numeric parameters and
// the page's first four children.
void expectCommonInterface(ImageEffect& d, const std::string& host) {
    SCOPED_TRACE(host);
    const auto& clips = d.clips();
    ASSERT_EQ(clips.size(), 3u);
    EXPECT_EQ(clips[0]->name(), "Output");
    EXPECT_EQ(clips[1]->name(), "Source");
    EXPECT_EQ(clips[2]->name(), "Motion Vectors");
    EXPECT_EQ(clips[0]->properties().writes(),
              (std::vector<PropertyWrite>{str(kOfxImageEffectPropSupportedComponents, kOfxImageComponentRGBA),
                                          str(kOfxImageEffectPropSupportedComponents, kOfxImageComponentRGBA),
                                          num(kOfxImageEffectPropSupportsTiles, 0)}));
    EXPECT_EQ(clips[1]->properties().writes(),
              (std::vector<PropertyWrite>{num(kOfxImageClipPropOptional, 0),
                                          num(kOfxImageEffectPropTemporalClipAccess, 0),
                                          str(kOfxImageEffectPropSupportedComponents, kOfxImageComponentRGBA),
                                          num(kOfxImageEffectPropSupportsTiles, 0)}));
    EXPECT_EQ(clips[2]->properties().writes(),
              (std::vector<PropertyWrite>{str(kOfxImageEffectPropSupportedComponents, kOfxImageComponentRGBA),
                                          num(kOfxImageClipPropOptional, 0),
                                          num(kOfxImageEffectPropTemporalClipAccess, 0),
                                          num(kOfxImageEffectPropSupportsTiles, 0)}));
    EXPECT_EQ(clips[0]->properties().values(kOfxImageEffectPropSupportedComponents),
              Values{std::string(kOfxImageComponentRGBA)})
        << "the second write replaces index 0, it doesn't add an entry";

    for (const Numeric& n : kNumeric) {
        SCOPED_TRACE(n.name);
        ofxhost::Param* p = d.param(n.name);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(p->type(), kOfxParamTypeDouble);
        EXPECT_EQ(p->properties().writes(),
                  (std::vector<PropertyWrite>{
                      str(kOfxParamPropDoubleType, kOfxParamDoubleTypeScale),
                      dbl(kOfxParamPropDisplayMin, n.displayMin), dbl(kOfxParamPropDisplayMax, n.displayMax),
                      dbl(kOfxParamPropMin, n.min), dbl(kOfxParamPropMax, n.max),
                      dbl(kOfxParamPropDefault, n.def), str(kOfxParamPropHint, n.hint),
                      str(kOfxParamPropScriptName, n.name), str(kOfxPropLabel, n.label)}));
    }
    ofxhost::Param* page = d.param("Main");
    ASSERT_NE(page, nullptr);
    EXPECT_EQ(page->type(), kOfxParamTypePage);
    Values children = page->properties().values(kOfxParamPropPageChild);
    ASSERT_GE(children.size(), 4u);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(children[static_cast<size_t>(i)], PropertyValue(std::string(kNumeric[i].name)));
}

std::vector<ParamDefinition> definitions(std::vector<ParamDefinition> hidden) {
    std::vector<ParamDefinition> all;
    for (const Numeric& n : kNumeric) all.push_back({kOfxParamTypeDouble, n.name, kOfxStatOK});
    for (const ParamDefinition& h : hidden) all.push_back(h);
    all.push_back({kOfxParamTypePage, "Main", kOfxStatOK});
    return all;
}

}  // namespace

TEST(DescribeInContext, TheHiddenParameterOnNukeOnceAndOnFusionTwice) {
    const ParamDefinition custom = {kOfxParamTypeCustom, "QFXCustomData", kOfxStatOK};
    // Our host refuses Fusion's second name, so the string form's properties
    // land on the handle left in the variable: the custom parameter's.
    const ParamDefinition refused = {kOfxParamTypeString, "QFXCustomData", kOfxStatErrExists};
    std::vector<PropertyWrite> both = hiddenWrites(false);
    for (const PropertyWrite& w : hiddenWrites(true)) both.push_back(w);
    const struct {
        const char* host;
        std::vector<ParamDefinition> hidden;
        std::vector<PropertyWrite> writes;
    } rows[] = {
        {"com.corvane.trelvo-render", {}, {}},  {kToxik, {}, {}},
        {"uk.co.thefoundry.nu", {}, {}},        {"com.eyeonline.Fus", {}, {}},
        {kNuke, {custom}, hiddenWrites(false)}, {"uk.co.thefoundry.nukeX 12", {custom}, hiddenWrites(false)},
        {kFusion, {custom, refused}, both},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.host);
        Session s(hostNamed(row.host));
        s.describe();
        ImageEffect& d = *s.plugin().contextDescriptor();
        expectCommonInterface(d, row.host);
        EXPECT_EQ(d.params().definitions(), definitions(row.hidden));
        Values children = d.param("Main")->properties().values(kOfxParamPropPageChild);
        ofxhost::Param* hidden = d.param("QFXCustomData");
        if (row.hidden.empty()) {
            EXPECT_EQ(hidden, nullptr);
            EXPECT_EQ(children.size(), 4u);
            continue;
        }
        ASSERT_NE(hidden, nullptr);
        EXPECT_EQ(hidden->type(), kOfxParamTypeCustom);
        EXPECT_EQ(hidden->properties().writes(), row.writes);
        ASSERT_EQ(children.size(), 5u);
        EXPECT_EQ(children[4], PropertyValue(std::string("QFXCustomData")));
    }
}

TEST(DescribeInContext, EveryOtherContextFailsAndDefinesNothing) {
    for (const char* context :
         {kOfxImageEffectContextFilter, kOfxImageEffectContextGenerator, kOfxImageEffectContextTransition,
          kOfxImageEffectContextPaint, "", "OfxImageEffectContextGeneralX", "OfxImageEffectContextGenera"}) {
        Session s(hostNamed(kFusion));  // the host that would define the most
        s.describe(context);
        ImageEffect& d = *s.plugin().contextDescriptor();
        EXPECT_TRUE(d.clips().empty()) << '"' << context << '"';
        EXPECT_TRUE(d.params().definitions().empty()) << '"' << context << '"';
        EXPECT_TRUE(d.properties().writes().empty()) << '"' << context << '"';
    }
}
