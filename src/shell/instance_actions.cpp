// Instance, region, time and render actions. Until they are built the host is
// told to use its default behaviour.
#include <cstring>

#include "ofx_plugin.h"

OfxStatus describeInContext(OfxImageEffectHandle, OfxPropertySetHandle) { return kOfxStatReplyDefault; }
OfxStatus createInstance(OfxImageEffectHandle) { return kOfxStatReplyDefault; }
bool IsGeneralEffect(OfxImageEffectHandle) { return false; }
OfxStatus isIdentity(OfxImageEffectHandle, OfxPropertySetHandle, OfxPropertySetHandle) { return kOfxStatReplyDefault; }
OfxStatus render(OfxImageEffectHandle, OfxPropertySetHandle, OfxPropertySetHandle) { return kOfxStatReplyDefault; }
OfxStatus getSpatialRoD(OfxImageEffectHandle, OfxPropertySetHandle, OfxPropertySetHandle) {
    return kOfxStatReplyDefault;
}
OfxStatus getToxikSpatialRoD(OfxImageEffectHandle, OfxPropertySetHandle, OfxPropertySetHandle) {
    return kOfxStatReplyDefault;
}
OfxStatus getSpatialRoI(OfxImageEffectHandle, OfxPropertySetHandle, OfxPropertySetHandle) {
    return kOfxStatReplyDefault;
}
OfxStatus getClipPreferences(OfxImageEffectHandle, OfxPropertySetHandle, OfxPropertySetHandle) {
    return kOfxStatReplyDefault;
}
OfxStatus getTemporalDomain(OfxImageEffectHandle, OfxPropertySetHandle, OfxPropertySetHandle) {
    return kOfxStatReplyDefault;
}
OfxStatus getFramesNeeded(OfxImageEffectHandle, OfxPropertySetHandle, OfxPropertySetHandle) {
    return kOfxStatReplyDefault;
}

// No parameter change affects another; the reads lead nowhere.
OfxStatus instanceChanged(OfxImageEffectHandle, OfxPropertySetHandle inArgs, OfxPropertySetHandle) {
    if (!gPropHost) return kOfxStatReplyDefault;
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

OfxStatus syncPrivatData(OfxImageEffectHandle, OfxPropertySetHandle, OfxPropertySetHandle) {
    return kOfxStatReplyDefault;
}
