// The questions a host asks about an instance before rendering: its regions,
// the frames and formats it needs, whether it does anything at all. The Output
// follows "Source"; "Motion Vectors" comes along; each frame needs only the
// same frame of both inputs. Nothing here holds state.
#include <cstring>

#include "shell/effect_names.h"
#include "shell/ofx_plugin.h"

namespace {

struct ClipEntry {
    const char* clipName;
    const char* clipRoIProperty;
};

// In the order of their index: Source, Output, Motion Vectors.
constexpr ClipEntry clipTable[3] = {
    {kSourceClip, kSourceRoIProperty},
    {kOutputClip, kOutputRoIProperty},
    {kMotionVectorsClip, kMotionVectorsRoIProperty},
};

int32_t DepthCode(const char* depth) {
    if (!depth) return 0;
    if (std::strcmp(depth, kOfxBitDepthByte) == 0) return 8;
    if (std::strcmp(depth, kOfxBitDepthShort) == 0) return 16;
    if (std::strcmp(depth, kOfxBitDepthFloat) == 0) return 32;
    return 0;
}

}  // namespace

bool IsGeneralEffect(OfxImageEffectHandle effect) {
    OfxPropertySetHandle props = nullptr;
    gEffectHost->getPropertySet(effect, &props);
    char* context = nullptr;
    gPropHost->propGetString(props, kOfxImageEffectPropContext, 0, &context);
    if (!context) return false;
    return std::strcmp(context, kOfxImageEffectContextGeneral) == 0;
}

OfxStatus createInstance(OfxImageEffectHandle effect) {
    OfxPropertySetHandle props = nullptr;
    OfxParamSetHandle params = nullptr;
    char* context = nullptr;
    gEffectHost->getPropertySet(effect, &props);
    gEffectHost->getParamSet(effect, &params);
    gPropHost->propGetString(props, kOfxImageEffectPropContext, 0, &context);
    return IsGeneralEffect(effect) ? kOfxStatOK : kOfxStatFailed;
}

OfxStatus getSpatialRoD(OfxImageEffectHandle effect, OfxPropertySetHandle inArgs,
                        OfxPropertySetHandle outArgs) {
    OfxTime time = 0.0;
    gPropHost->propGetDouble(inArgs, kOfxPropTime, 0, &time);
    OfxImageClipHandle source = nullptr;
    gEffectHost->clipGetHandle(effect, kSourceClip, &source, nullptr);
    OfxRectD rod = {0.0, 0.0, 0.0, 0.0};
    gEffectHost->clipGetRegionOfDefinition(source, time, &rod);
    char* name = nullptr;
    gPropHost->propGetString(inArgs, kOfxPropName, 0, &name);
    gPropHost->propSetDoubleN(outArgs, kOfxImageEffectPropRegionOfDefinition, 4, &rod.x1);
    return kOfxStatOK;
}

// An alternative region of definition, kept for hosts that want the vectors'
// region; no action calls it.
OfxStatus getToxikSpatialRoD(OfxImageEffectHandle effect, OfxPropertySetHandle inArgs,
                             OfxPropertySetHandle outArgs) {
    OfxTime time = 0.0;
    gPropHost->propGetDouble(inArgs, kOfxPropTime, 0, &time);
    OfxRectD rod = {0.0, 0.0, 0.0, 0.0};
    OfxImageClipHandle clip = nullptr;
    gEffectHost->clipGetHandle(effect, kSourceClip, &clip, nullptr);
    OfxStatus status = gEffectHost->clipGetRegionOfDefinition(clip, time, &rod);
    if (status == kOfxStatErrMemory) return kOfxStatErrMemory;
    if (status == kOfxStatOK) {
        clip = nullptr;
        gEffectHost->clipGetHandle(effect, kMotionVectorsClip, &clip, nullptr);
        status = gEffectHost->clipGetRegionOfDefinition(clip, time, &rod);
        if (status == kOfxStatErrMemory) return kOfxStatErrMemory;
    }
    if (status != kOfxStatOK) rod.x1 = rod.y1 = rod.x2 = rod.y2 = -2147483648.0;
    gPropHost->propSetDoubleN(outArgs, kOfxImageEffectPropRegionOfDefinition, 4, &rod.x1);
    return kOfxStatOK;
}

OfxStatus getSpatialRoI(OfxImageEffectHandle effect, OfxPropertySetHandle inArgs,
                        OfxPropertySetHandle outArgs) {
    double roi[4] = {0.0, 0.0, 0.0, 0.0};
    gPropHost->propGetDoubleN(inArgs, kOfxImageEffectPropRegionOfInterest, 4, roi);
    gPropHost->propSetDoubleN(outArgs, clipTable[0].clipRoIProperty, 4, roi);
    for (int i = 1; i <= 2; ++i) {
        if (!IsGeneralEffect(effect)) continue;
        OfxImageClipHandle clip = nullptr;
        OfxPropertySetHandle clipProps = nullptr;
        gEffectHost->clipGetHandle(effect, clipTable[i].clipName, &clip, &clipProps);
        int connected = 0;
        gPropHost->propGetInt(clipProps, kOfxImageClipPropConnected, 0, &connected);
        // Written under the bare clip name, not the RoI property: as it has always been.
        if (connected) gPropHost->propSetDoubleN(outArgs, clipTable[i].clipName, 4, roi);
    }
    return kOfxStatOK;
}

OfxStatus getClipPreferences(OfxImageEffectHandle effect, OfxPropertySetHandle,
                             OfxPropertySetHandle outArgs) {
    OfxImageClipHandle source = nullptr;
    OfxPropertySetHandle sourceProps = nullptr;
    gEffectHost->clipGetHandle(effect, kSourceClip, &source, &sourceProps);
    char* depth = nullptr;
    char* components = nullptr;
    gPropHost->propGetString(sourceProps, kOfxImageClipPropUnmappedPixelDepth, 0, &depth);
    gPropHost->propGetString(sourceProps, kOfxImageClipPropUnmappedComponents, 0, &components);
    const int32_t code = DepthCode(depth);

    const char* outComponents = components && std::strcmp(components, kOfxImageComponentAlpha) == 0
                                    ? kOfxImageComponentAlpha
                                    : kOfxImageComponentRGBA;
    const char* outDepth = code == 8 ? kOfxBitDepthByte : code == 16 ? kOfxBitDepthShort : kOfxBitDepthFloat;

    gPropHost->propSetString(outArgs, kOutputComponentsProperty, 0, outComponents);
    if (gHostSupportsMultipleBitDepths) gPropHost->propSetString(outArgs, kOutputDepthProperty, 0, outDepth);
    gPropHost->propSetString(outArgs, kOfxImageClipPropFieldExtraction, 0, kOfxImageFieldBoth);
    gPropHost->propSetInt(outArgs, kOfxImageEffectPropTemporalClipAccess, 0, 0);
    return kOfxStatOK;
}

OfxStatus isIdentity(OfxImageEffectHandle effect, OfxPropertySetHandle inArgs, OfxPropertySetHandle outArgs) {
    OfxTime time = 0.0;
    int window[4] = {0, 0, 0, 0};
    gPropHost->propGetDouble(inArgs, kOfxPropTime, 0, &time);
    gPropHost->propGetIntN(inArgs, kOfxImageEffectPropRenderWindow, 4, window);
    // A window less than about 32 pixels wide is passed through; x alone decides.
    if (window[2] / 4 - window[0] / 4 > 7) {
        OfxParamSetHandle params = nullptr;
        OfxParamHandle amountParam = nullptr;
        double amount = __builtin_nan("");  // unanswered: render it
        gEffectHost->getParamSet(effect, &params);
        gParamHost->paramGetHandle(params, kAmountParam, &amountParam, nullptr);
        if (amountParam) gParamHost->paramGetValueAtTime(amountParam, time, &amount);
        if (!(amount == 0.0)) return kOfxStatReplyDefault;
    }
    gPropHost->propSetString(outArgs, kOfxPropName, 0, kSourceClip);
    gPropHost->propSetDouble(inArgs, kOfxPropTime, 0, time);  // into inArgs: a fixed quirk of the action
    return kOfxStatOK;
}

// No parameter change affects another; the reads lead nowhere.
OfxStatus instanceChanged(OfxImageEffectHandle, OfxPropertySetHandle inArgs, OfxPropertySetHandle) {
    char* reason = nullptr;
    gPropHost->propGetString(inArgs, kOfxPropChangeReason, 0, &reason);
    if (reason && std::strcmp(reason, kOfxChangeUserEdited) == 0) {
        char* type = nullptr;
        char* name = nullptr;
        gPropHost->propGetString(inArgs, kOfxPropType, 0, &type);
        gPropHost->propGetString(inArgs, kOfxPropName, 0, &name);
    }
    return kOfxStatReplyDefault;
}

OfxStatus getTemporalDomain(OfxImageEffectHandle effect, OfxPropertySetHandle, OfxPropertySetHandle outArgs) {
    double range[2] = {0.0, 0.0};
    OfxImageClipHandle clip = nullptr;
    OfxPropertySetHandle props = nullptr;
    gEffectHost->clipGetHandle(effect, kSourceClip, &clip, &props);
    gPropHost->propGetDoubleN(props, kOfxImageEffectPropFrameRange, 2, range);
    // The vectors' range replaces the Source's where the host answers.
    clip = nullptr;
    props = nullptr;
    gEffectHost->clipGetHandle(effect, kMotionVectorsClip, &clip, &props);
    gPropHost->propGetDoubleN(props, kOfxImageEffectPropFrameRange, 2, range);
    gPropHost->propSetDoubleN(outArgs, kOfxImageEffectPropFrameRange, 2, range);
    return kOfxStatOK;
}

OfxStatus getFramesNeeded(OfxImageEffectHandle, OfxPropertySetHandle inArgs, OfxPropertySetHandle outArgs) {
    OfxTime time = 0.0;
    int window[4] = {0, 0, 0, 0};
    gPropHost->propGetDouble(inArgs, kOfxPropTime, 0, &time);
    gPropHost->propGetIntN(inArgs, kOfxImageEffectPropRenderWindow, 4, window);
    const double range[2] = {time, time};
    gPropHost->propSetDoubleN(outArgs, kSourceFramesProperty, 2, range);
    gPropHost->propSetDoubleN(outArgs, kMotionVectorsFramesProperty, 2, range);
    return kOfxStatOK;
}

OfxStatus syncPrivatData(OfxImageEffectHandle, OfxPropertySetHandle, OfxPropertySetHandle) {
    return kOfxStatReplyDefault;
}
