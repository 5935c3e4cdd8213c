// Effects and clips, and the image-effect suite over them. Images come from
// an instance clip's image source and go back to the host's ledger; the
// image memory entries, which no plug-in of ours needs, are unsupported.
#include "effect.h"

#include <cstring>

#include "handles.h"
#include "host.h"
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

// What an instance's clip says about its images; unconnected RGBA float over
// frames 0..0 until the driver of the host says otherwise.
void defineClipInstanceProperties(PropertySet& p) {
    p.defineString(kOfxImageEffectPropPixelDepth, 1, {kOfxBitDepthFloat});
    p.defineString(kOfxImageEffectPropComponents, 1, {kOfxImageComponentRGBA});
    p.defineString(kOfxImageClipPropUnmappedPixelDepth, 1, {kOfxBitDepthFloat});
    p.defineString(kOfxImageClipPropUnmappedComponents, 1, {kOfxImageComponentRGBA});
    p.defineString(kOfxImageEffectPropPreMultiplication, 1, {kOfxImagePreMultiplied});
    p.defineDouble(kOfxImagePropPixelAspectRatio, 1, {1.0});
    p.defineDouble(kOfxImageEffectPropFrameRate, 1, {25.0});
    p.defineDouble(kOfxImageEffectPropFrameRange, 2, {0.0, 0.0});
    p.defineString(kOfxImageClipPropFieldOrder, 1, {kOfxImageFieldNone});
    p.defineInt(kOfxImageClipPropConnected, 1, {0});
    p.defineDouble(kOfxImageEffectPropUnmappedFrameRange, 2, {0.0, 0.0});
    p.defineDouble(kOfxImageEffectPropUnmappedFrameRate, 1, {25.0});
    p.defineInt(kOfxImageClipPropContinuousSamples, 1, {0});
}

void defineEffectInstanceProperties(PropertySet& p) {
    p.definePointer(kOfxPropInstanceData, 1);
    p.defineDouble(kOfxImageEffectPropProjectSize, 2, {0.0, 0.0});
    p.defineDouble(kOfxImageEffectPropProjectOffset, 2, {0.0, 0.0});
    p.defineDouble(kOfxImageEffectPropProjectExtent, 2, {0.0, 0.0});
    p.defineDouble("OfxImageEffectPropProjectPixelAspectRatio", 1, {1.0});
    p.defineDouble(kOfxImageEffectInstancePropEffectDuration, 1, {1.0});
    p.defineDouble(kOfxImageEffectPropFrameRate, 1, {25.0});
    p.defineInt(kOfxPropIsInteractive, 1, {0});
}

}  // namespace

Clip::Clip(const std::string& name) : name_(name) {
    defineClipProperties(properties_, name);
    handle_ = static_cast<OfxImageClipHandle>(registerHandle(this, HandleKind::Clip));
}

Clip::Clip(const Clip& descriptor, bool instance) : name_(descriptor.name_) {
    properties_.copyFrom(descriptor.properties_);
    if (instance) defineClipInstanceProperties(properties_);
    handle_ = static_cast<OfxImageClipHandle>(registerHandle(this, HandleKind::Clip));
}

void Clip::setConnected(bool connected) {
    properties_.assign(kOfxImageClipPropConnected, {connected ? 1 : 0});
}

void Clip::setFormat(const std::string& depth, const std::string& components,
                     const std::string& premultiplication) {
    properties_.assign(kOfxImageEffectPropPixelDepth, {depth});
    properties_.assign(kOfxImageClipPropUnmappedPixelDepth, {depth});
    properties_.assign(kOfxImageEffectPropComponents, {components});
    properties_.assign(kOfxImageClipPropUnmappedComponents, {components});
    properties_.assign(kOfxImageEffectPropPreMultiplication, {premultiplication});
}

void Clip::setFrameRange(double first, double last) {
    properties_.assign(kOfxImageEffectPropFrameRange, {first, last});
    properties_.assign(kOfxImageEffectPropUnmappedFrameRange, {first, last});
}

void Clip::setRegionOfDefinition(OfxRectD rod) {
    rod_ = rod;
}

void Clip::setImage(std::shared_ptr<ImageBuffer> image) {
    source_ = [image = std::move(image)](OfxTime) { return image; };
}

void Clip::setImageSource(ImageSource source) {
    source_ = std::move(source);
}

std::shared_ptr<ImageBuffer> Clip::imageAt(OfxTime time) const {
    return source_ ? source_(time) : nullptr;
}

OfxStatus Clip::regionOfDefinition(OfxTime time, OfxRectD* rod) const {
    if (rod_) {
        *rod = *rod_;
        return kOfxStatOK;
    }
    std::shared_ptr<ImageBuffer> image = imageAt(time);
    if (!image) return kOfxStatFailed;
    const OfxRectI& b = image->format().bounds;
    *rod = {double(b.x1), double(b.y1), double(b.x2), double(b.y2)};
    return kOfxStatOK;
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
ImageEffect::ImageEffect(const std::string& context) : ImageEffect() {
    properties_.defineString(kOfxImageEffectPropContext, 1, {context});
}

ImageEffect::ImageEffect(const ImageEffect& descriptor, const std::string& context) : instance_(true) {
    properties_.copyFrom(descriptor.properties_);
    defineEffectInstanceProperties(properties_);
    properties_.defineString(kOfxImageEffectPropContext, 1, {context});
    params_.properties().copyFrom(descriptor.params_.properties());
    for (const auto& p : descriptor.params_.params()) params_.adopt(*p);
    for (const auto& c : descriptor.clips_) clips_.push_back(std::make_unique<Clip>(*c, true));
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
thread_local OfxPointD tImageRenderScale = {1.0, 1.0};
}  // namespace

void setImageRenderScale(OfxPointD scale) {
    tImageRenderScale = scale;
}
OfxPointD imageRenderScale() {
    return tImageRenderScale;
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

// The whole image at that time whatever the region asked for: a host may
// give more than was asked.
OfxStatus clipGetImage(OfxImageClipHandle handle, OfxTime time, const OfxRectD*,
                       OfxPropertySetHandle* image) {
    Clip* clip = Clip::fromHandle(handle);
    Host* host = Host::current();
    if (!clip) return kOfxStatErrBadHandle;
    if (!image) return kOfxStatErrValue;
    *image = nullptr;
    if (!host) return kOfxStatErrFatal;
    clip->countImageRequest();
    std::shared_ptr<ImageBuffer> buffer = clip->imageAt(time);
    if (!buffer) return kOfxStatFailed;
    *image = host->images().handOut(std::move(buffer), time, imageRenderScale());
    return kOfxStatOK;
}

OfxStatus clipReleaseImage(OfxPropertySetHandle image) {
    Host* host = Host::current();
    if (!host) return kOfxStatErrFatal;
    return host->images().release(image);
}

OfxStatus clipGetRegionOfDefinition(OfxImageClipHandle handle, OfxTime time, OfxRectD* rod) {
    Clip* clip = Clip::fromHandle(handle);
    if (!clip) return kOfxStatErrBadHandle;
    if (!rod) return kOfxStatErrValue;
    return clip->regionOfDefinition(time, rod);
}

int effectAbort(OfxImageEffectHandle) {
    Host* host = Host::current();
    return host ? host->abort().answer() : 0;
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
