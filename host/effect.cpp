// Effects and clips, and the image-effect suite over them. Only what a
// plug-in needs to describe itself works yet; the entries that need an
// instance with images answer kOfxStatErrUnsupported.
#include "effect.h"

#include <cstring>

#include "handles.h"
#include "ofxOld.h"
#include "suites.h"

namespace ofxhost {
namespace {

// The properties of an effect descriptor, with the defaults the standard gives.
void defineEffectProperties(PropertySet& p) {
    p.defineString(kOfxPropType, 1, {kOfxTypeImageEffect});
    p.defineString(kOfxPropLabel, 1, {""});
    p.defineString(kOfxPropShortLabel, 1, {""});
    p.defineString(kOfxPropLongLabel, 1, {""});
    p.defineInt(kOfxPropVersion, 0, {});
    p.defineString(kOfxPropVersionLabel, 1, {""});
    p.defineString(kOfxPropPluginDescription, 1, {""});
    p.defineString(kOfxPluginPropFilePath, 1, {""});
    p.defineString(kOfxImageEffectPropSupportedContexts, 0, {});
    p.defineString(kOfxImageEffectPluginPropGrouping, 1, {""});
    p.defineInt(kOfxImageEffectPluginPropSingleInstance, 1, {0});
    p.defineString(kOfxImageEffectPluginRenderThreadSafety, 1, {kOfxImageEffectRenderInstanceSafe});
    p.defineInt(kOfxImageEffectPluginPropHostFrameThreading, 1, {1});
    p.definePointer(kOfxImageEffectPluginPropOverlayInteractV1, 1);
    p.defineInt(kOfxImageEffectPropSupportsMultiResolution, 1, {1});
    p.defineInt(kOfxImageEffectPropSupportsTiles, 1, {1});
    p.defineInt(kOfxImageEffectPropTemporalClipAccess, 1, {0});
    p.defineString(kOfxImageEffectPropSupportedPixelDepths, 0, {});
    p.defineInt(kOfxImageEffectPluginPropFieldRenderTwiceAlways, 1, {1});
    p.defineInt(kOfxImageEffectPropSupportsMultipleClipDepths, 1, {0});
    p.defineInt(kOfxImageEffectPropSupportsMultipleClipPARs, 1, {0});
    p.defineString(kOfxImageEffectPropClipPreferencesSlaveParam, 0, {});
    p.defineInt(kOfxImageEffectInstancePropSequentialRender, 1, {0});
    p.defineInt(kOfxImageEffectPropInAnalysis, 1, {0});
}

void defineClipProperties(PropertySet& p, const std::string& name) {
    p.defineString(kOfxPropType, 1, {kOfxTypeClip});
    p.defineString(kOfxPropName, 1, {name});
    p.defineString(kOfxPropLabel, 1, {name});
    p.defineString(kOfxPropShortLabel, 1, {name});
    p.defineString(kOfxPropLongLabel, 1, {name});
    p.defineString(kOfxImageEffectPropSupportedComponents, 0, {});
    p.defineInt(kOfxImageEffectPropTemporalClipAccess, 1, {0});
    p.defineInt(kOfxImageClipPropOptional, 1, {0});
    p.defineString(kOfxImageClipPropFieldExtraction, 1, {kOfxImageFieldDoubled});
    p.defineInt(kOfxImageClipPropIsMask, 1, {0});
    p.defineInt(kOfxImageEffectPropSupportsTiles, 1, {1});
}

}  // namespace

Clip::Clip(const std::string& name) : name_(name) {
    defineClipProperties(properties_, name);
    handle_ = static_cast<OfxImageClipHandle>(registerHandle(this, HandleKind::Clip));
}
Clip::~Clip() {
    unregisterHandle(handle_);
}
Clip* Clip::fromHandle(OfxImageClipHandle handle) {
    return ofxhost::fromHandle<Clip>(handle, HandleKind::Clip);
}

ImageEffect::ImageEffect() {
    defineEffectProperties(properties_);
    handle_ = static_cast<OfxImageEffectHandle>(registerHandle(this, HandleKind::ImageEffect));
}
ImageEffect::~ImageEffect() {
    unregisterHandle(handle_);
}
ImageEffect* ImageEffect::fromHandle(OfxImageEffectHandle handle) {
    return ofxhost::fromHandle<ImageEffect>(handle, HandleKind::ImageEffect);
}

OfxStatus ImageEffect::defineClip(const char* name, Clip** clip) {
    if (!name || !*name) return kOfxStatErrValue;
    if (this->clip(name)) return kOfxStatErrExists;
    clips_.push_back(std::make_unique<Clip>(name));
    *clip = clips_.back().get();
    return kOfxStatOK;
}

Clip* ImageEffect::clip(const char* name) const {
    for (const auto& c : clips_)
        if (c->name() == name) return c.get();
    return nullptr;
}

namespace {

OfxStatus getPropertySet(OfxImageEffectHandle handle, OfxPropertySetHandle* props) {
    ImageEffect* effect = ImageEffect::fromHandle(handle);
    if (!effect) return kOfxStatErrBadHandle;
    if (!props) return kOfxStatErrValue;
    *props = effect->properties().handle();
    return kOfxStatOK;
}

OfxStatus getParamSet(OfxImageEffectHandle handle, OfxParamSetHandle* params) {
    ImageEffect* effect = ImageEffect::fromHandle(handle);
    if (!effect) return kOfxStatErrBadHandle;
    if (!params) return kOfxStatErrValue;
    *params = effect->params().handle();
    return kOfxStatOK;
}

OfxStatus clipDefine(OfxImageEffectHandle handle, const char* name, OfxPropertySetHandle* props) {
    ImageEffect* effect = ImageEffect::fromHandle(handle);
    if (!effect) return kOfxStatErrBadHandle;
    Clip* clip = nullptr;
    OfxStatus status = effect->defineClip(name, &clip);
    if (status == kOfxStatOK && props) *props = clip->properties().handle();
    return status;
}

OfxStatus clipGetHandle(OfxImageEffectHandle handle, const char* name, OfxImageClipHandle* clipHandle,
                        OfxPropertySetHandle* props) {
    ImageEffect* effect = ImageEffect::fromHandle(handle);
    if (!effect) return kOfxStatErrBadHandle;
    Clip* clip = name ? effect->clip(name) : nullptr;
    if (!clip) return kOfxStatErrUnknown;
    if (clipHandle) *clipHandle = clip->handle();
    if (props) *props = clip->properties().handle();
    return kOfxStatOK;
}

OfxStatus clipGetPropertySet(OfxImageClipHandle handle, OfxPropertySetHandle* props) {
    Clip* clip = Clip::fromHandle(handle);
    if (!clip) return kOfxStatErrBadHandle;
    if (!props) return kOfxStatErrValue;
    *props = clip->properties().handle();
    return kOfxStatOK;
}

OfxStatus clipGetImage(OfxImageClipHandle, OfxTime, const OfxRectD*, OfxPropertySetHandle*) {
    return kOfxStatErrUnsupported;
}
OfxStatus clipReleaseImage(OfxPropertySetHandle) {
    return kOfxStatErrUnsupported;
}
OfxStatus clipGetRegionOfDefinition(OfxImageClipHandle, OfxTime, OfxRectD*) {
    return kOfxStatErrUnsupported;
}
int effectAbort(OfxImageEffectHandle) {
    return 0;
}
OfxStatus imageMemoryAlloc(OfxImageEffectHandle, size_t, OfxImageMemoryHandle*) {
    return kOfxStatErrUnsupported;
}
OfxStatus imageMemoryFree(OfxImageMemoryHandle) {
    return kOfxStatErrUnsupported;
}
OfxStatus imageMemoryLock(OfxImageMemoryHandle, void**) {
    return kOfxStatErrUnsupported;
}
OfxStatus imageMemoryUnlock(OfxImageMemoryHandle) {
    return kOfxStatErrUnsupported;
}

const OfxImageEffectSuiteV1 kImageEffectSuite = {
    getPropertySet,     getParamSet,      clipDefine,       clipGetHandle,
    clipGetPropertySet, clipGetImage,     clipReleaseImage, clipGetRegionOfDefinition,
    effectAbort,        imageMemoryAlloc, imageMemoryFree,  imageMemoryLock,
    imageMemoryUnlock,
};

}  // namespace

const OfxImageEffectSuiteV1* imageEffectSuite() {
    return &kImageEffectSuite;
}

}  // namespace ofxhost
