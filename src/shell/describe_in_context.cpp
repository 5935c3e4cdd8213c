// The effect's interface as the host sees it: one context, three clips, four
// numeric parameters, a hidden data parameter on two hosts, and one page.
#include <cstring>

#include "shell/effect_names.h"
#include "shell/ofx_plugin.h"

namespace {

struct NumericParam {
    const char* name;
    double displayMin, displayMax, min, max, defaultValue;
    const char* hint;
    const char* label;
};

constexpr NumericParam kNumericParams[] = {
    {kAmountParam, -2.0, 10.0, -2.0, 10.0, 0.5, "Value: amount of MotionBlur", "Blur Amount"},
    {kMaxDisplaceParam, 0.0, 10000.0, 0.0, 10000.0, 64.0, "Value: Max Displacement", "Max Displacement"},
    {kVectorScaleXParam, -2.0, 10.0, -2.0, 10.0, 1.0, "Value: Vector Scale X", "Vector Scale X"},
    {kVectorScaleYParam, -2.0, 10.0, -2.0, 10.0, 1.0, "Value: Vector Scale Y", "Vector Scale Y"},
};

constexpr const char* kHiddenHint = "Custom data string, do not edit!";

}  // namespace

OfxStatus describeInContext(OfxImageEffectHandle effect, OfxPropertySetHandle inArgs) {
    OfxPropertySuiteV1* p = gPropHost;
    char* context = nullptr;
    p->propGetString(inArgs, kOfxImageEffectPropContext, 0, &context);
    if (!context || std::strcmp(context, kOfxImageEffectContextGeneral) != 0) return kOfxStatFailed;

    OfxPropertySetHandle props = nullptr;
    gEffectHost->clipDefine(effect, kOutputClip, &props);
    p->propSetString(props, kOfxImageEffectPropSupportedComponents, 0, kOfxImageComponentRGBA);
    p->propSetString(props, kOfxImageEffectPropSupportedComponents, 0, kOfxImageComponentRGBA);
    p->propSetInt(props, kOfxImageEffectPropSupportsTiles, 0, 0);

    props = nullptr;
    gEffectHost->clipDefine(effect, kSourceClip, &props);
    p->propSetInt(props, kOfxImageClipPropOptional, 0, 0);
    p->propSetInt(props, kOfxImageEffectPropTemporalClipAccess, 0, 0);
    p->propSetString(props, kOfxImageEffectPropSupportedComponents, 0, kOfxImageComponentRGBA);
    p->propSetInt(props, kOfxImageEffectPropSupportsTiles, 0, 0);

    props = nullptr;
    gEffectHost->clipDefine(effect, kMotionVectorsClip, &props);
    p->propSetString(props, kOfxImageEffectPropSupportedComponents, 0, kOfxImageComponentRGBA);
    p->propSetInt(props, kOfxImageClipPropOptional, 0, 0);
    p->propSetInt(props, kOfxImageEffectPropTemporalClipAccess, 0, 0);
    p->propSetInt(props, kOfxImageEffectPropSupportsTiles, 0, 0);

    OfxParamSetHandle params = nullptr;
    gEffectHost->getParamSet(effect, &params);

    for (const NumericParam& n : kNumericParams) {
        props = nullptr;
        gParamHost->paramDefine(params, kOfxParamTypeDouble, n.name, &props);
        p->propSetString(props, kOfxParamPropDoubleType, 0, kOfxParamDoubleTypeScale);
        p->propSetDouble(props, kOfxParamPropDisplayMin, 0, n.displayMin);
        p->propSetDouble(props, kOfxParamPropDisplayMax, 0, n.displayMax);
        p->propSetDouble(props, kOfxParamPropMin, 0, n.min);
        p->propSetDouble(props, kOfxParamPropMax, 0, n.max);
        p->propSetDouble(props, kOfxParamPropDefault, 0, n.defaultValue);
        p->propSetString(props, kOfxParamPropHint, 0, n.hint);
        p->propSetString(props, kOfxParamPropScriptName, 0, n.name);
        p->propSetString(props, kOfxPropLabel, 0, n.label);
    }

    // The licence layer's data: 256 letters and the terminating zero.
    char hiddenDefault[257];
    std::memset(hiddenDefault, 'a', 256);
    hiddenDefault[256] = '\0';

    const bool nuke = hostIsNuke();
    const bool fusion = hostIsFusion();
    if (nuke || fusion) {
        props = nullptr;
        gParamHost->paramDefine(params, kOfxParamTypeCustom, kCustomDataParam, &props);
        p->propSetInt(props, kOfxParamPropEvaluateOnChange, 0, 0);
        p->propSetInt(props, kOfxParamPropPersistant, 0, 1);
        p->propSetString(props, kOfxParamPropDefault, 0, hiddenDefault);
        p->propSetString(props, kOfxPropLabel, 0, kCustomDataScriptName);
        p->propSetString(props, kOfxParamPropScriptName, 0, kCustomDataScriptName);
        p->propSetString(props, kOfxParamPropHint, 0, kHiddenHint);
        p->propSetInt(props, kOfxParamPropSecret, 0, 1);
    }
    if (fusion) {
        // Defined a second time under the same name; the properties go to
        // whatever handle the host left in the variable.
        gParamHost->paramDefine(params, kOfxParamTypeString, kCustomDataParam, &props);
        p->propSetInt(props, kOfxParamPropEvaluateOnChange, 0, 0);
        p->propSetInt(props, kOfxParamPropPersistant, 0, 1);
        p->propSetString(props, kOfxParamPropDefault, 0, hiddenDefault);
        p->propSetString(props, kOfxPropLabel, 0, "license");
        p->propSetString(props, kOfxParamPropScriptName, 0, kCustomDataScriptName);
        p->propSetString(props, kOfxParamPropHint, 0, kHiddenHint);
        p->propSetInt(props, kOfxParamPropEnabled, 0, 0);
        p->propSetInt(props, kOfxParamPropSecret, 0, 1);
    }

    props = nullptr;
    gParamHost->paramDefine(params, kOfxParamTypePage, kMainPage, &props);
    for (int i = 0; i < 4; ++i) p->propSetString(props, kOfxParamPropPageChild, i, kNumericParams[i].name);
    if (fusion || nuke) p->propSetString(props, kOfxParamPropPageChild, 4, kCustomDataParam);
    return kOfxStatOK;
}
