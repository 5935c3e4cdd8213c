#include "render_session.h"

#include <variant>

#include "effect.h"
#include "host.h"
#include "image.h"
#include "ofxImageEffect.h"
#include "plugin.h"

namespace {

double firstDouble(const ofxhost::PropertySet& props, const char* name, double fallback) {
    std::vector<ofxhost::PropertyValue> values = props.values(name);
    if (values.empty() || !std::holds_alternative<double>(values[0])) return fallback;
    return std::get<double>(values[0]);
}

std::string firstString(const std::vector<ofxhost::PropertyValue>& values) {
    if (values.empty() || !std::holds_alternative<std::string>(values[0])) return "";
    return std::get<std::string>(values[0]);
}

const char* depthText(PixelDepth depth) {
    switch (depth) {
        case PixelDepth::Byte:
            return kOfxBitDepthByte;
        case PixelDepth::Short:
            return kOfxBitDepthShort;
        case PixelDepth::Float:
            break;
    }
    return kOfxBitDepthFloat;
}

const char* alphaText(AlphaState alpha) {
    switch (alpha) {
        case AlphaState::Opaque:
            return kOfxImageOpaque;
        case AlphaState::Unpremultiplied:
            return kOfxImageUnPreMultiplied;
        case AlphaState::Premultiplied:
            break;
    }
    return kOfxImagePreMultiplied;
}

// The host's buffer for a picture in memory: same layout, rows bottom-up.
std::shared_ptr<ofxhost::ImageBuffer> bufferOf(const HostPixels& pixels) {
    ofxhost::ImageFormat format;
    format.bounds = {0, 0, pixels.width, pixels.height};
    format.depth = depthText(pixels.depth);
    format.premultiplication = alphaText(pixels.alpha);
    auto buffer = std::make_shared<ofxhost::ImageBuffer>(format);
    buffer->bytes() = pixels.data;
    return buffer;
}

const char* statusName(OfxStatus status) {
    switch (status) {
        case kOfxStatFailed:
            return "kOfxStatFailed";
        case kOfxStatErrFatal:
            return "kOfxStatErrFatal";
        case kOfxStatErrMemory:
            return "kOfxStatErrMemory";
        case kOfxStatErrBadHandle:
            return "kOfxStatErrBadHandle";
        case kOfxStatErrBadIndex:
            return "kOfxStatErrBadIndex";
        case kOfxStatErrValue:
            return "kOfxStatErrValue";
        case kOfxStatErrUnsupported:
            return "kOfxStatErrUnsupported";
        default:
            return "an error status";
    }
}

}  // namespace

struct RenderSession::State {
    explicit State(unsigned threads) : host(makeConfig(threads)) {}
    static ofxhost::HostConfig makeConfig(unsigned threads) {
        ofxhost::HostConfig config;
        config.numCPUs = threads;
        return config;
    }

    ofxhost::Host host;
    std::unique_ptr<ofxhost::Bundle> bundle;
    std::unique_ptr<ofxhost::Plugin> plugin;
    bool loaded = false;
    std::string identifier;
    std::vector<ParamInfo> params;
    size_t messagesSeen = 0;
};

RenderSession::RenderSession(unsigned threads) : state_(std::make_unique<State>(threads)) {
    state_->host.abort().whileRaised();
}

RenderSession::~RenderSession() {
    if (state_->plugin && state_->plugin->instance()) state_->plugin->destroyInstance();
    if (state_->loaded) state_->plugin->unload();
    state_->plugin.reset();
}

bool RenderSession::open(const std::string& bundlePath, std::string& error) {
    State& s = *state_;
    s.bundle = ofxhost::Bundle::open(bundlePath, error);
    if (!s.bundle) return false;
    OfxPlugin* record = nullptr;
    for (int i = 0; i < s.bundle->numberOfPlugins() && !record; ++i) {
        OfxPlugin* candidate = s.bundle->plugin(i);
        if (candidate && candidate->pluginApi &&
            std::string(candidate->pluginApi) == kOfxImageEffectPluginApi)
            record = candidate;
    }
    if (!record) {
        error = s.bundle->path() + ": holds no image-effect plug-in";
        return false;
    }
    s.identifier = record->pluginIdentifier ? record->pluginIdentifier : "";
    s.plugin = std::make_unique<ofxhost::Plugin>(s.host, *record, s.bundle->path());
    s.plugin->setHost();
    if (s.plugin->describe() != kOfxStatOK) {
        error = s.identifier + ": Describe failed";
        return false;
    }
    if (s.plugin->load() != kOfxStatOK) {
        error = s.identifier + ": Load failed";
        return false;
    }
    s.loaded = true;
    if (s.plugin->describeInContext(kOfxImageEffectContextGeneral).status != kOfxStatOK) {
        error = s.identifier + ": has no general context";
        return false;
    }
    if (s.plugin->createInstance(kOfxImageEffectContextGeneral).status != kOfxStatOK) {
        error = s.identifier + ": refused to create an instance";
        return false;
    }
    for (const auto& param : s.plugin->instance()->params().params()) {
        if (param->type() != kOfxParamTypeDouble) continue;
        const ofxhost::PropertySet& p = param->properties();
        s.params.push_back({param->name(), firstString(p.values(kOfxPropLabel)),
                            firstString(p.values(kOfxParamPropHint)), firstDouble(p, kOfxParamPropMin, 0.0),
                            firstDouble(p, kOfxParamPropMax, 0.0),
                            firstDouble(p, kOfxParamPropDefault, 0.0)});
    }
    return true;
}

const std::string& RenderSession::identifier() const {
    return state_->identifier;
}

const std::vector<ParamInfo>& RenderSession::params() const {
    return state_->params;
}

void RenderSession::setParam(const std::string& name, double value) {
    if (ofxhost::Param* param = state_->plugin->instance()->param(name)) param->setValue(value);
}

void RenderSession::abort() {
    state_->host.abort().raise();
}

unsigned long RenderSession::abortPolls() const {
    return static_cast<unsigned long>(state_->host.abort().calls());
}

std::vector<std::string> RenderSession::takeMessages() {
    std::vector<ofxhost::Message> all = state_->host.messages().all();
    std::vector<std::string> texts;
    for (size_t i = state_->messagesSeen; i < all.size(); ++i)
        texts.push_back(all[i].type + ": " + all[i].text);
    state_->messagesSeen = all.size();
    return texts;
}

bool RenderSession::render(double time, const FrameInputs& inputs, HostPixels& output, std::string& error) {
    ofxhost::Plugin& plugin = *state_->plugin;
    ofxhost::ImageEffect& instance = *plugin.instance();
    ofxhost::Clip* sourceClip = instance.clip(kOfxImageEffectSimpleSourceClipName);
    ofxhost::Clip* outputClip = instance.clip(kOfxImageEffectOutputClipName);
    if (!sourceClip || !outputClip) {
        error = "the plug-in defined no Source or Output clip";
        return false;
    }
    // Every other input clip (ours has one: Motion Vectors) gets the vectors.
    std::shared_ptr<ofxhost::ImageBuffer> source = bufferOf(*inputs.source);
    std::shared_ptr<ofxhost::ImageBuffer> vectors = bufferOf(*inputs.vectors);
    for (const auto& clip : instance.clips()) {
        if (clip.get() == outputClip) continue;
        const HostPixels& pixels = clip.get() == sourceClip ? *inputs.source : *inputs.vectors;
        clip->setConnected(true);
        clip->setFormat(depthText(pixels.depth), kOfxImageComponentRGBA, alphaText(pixels.alpha));
        clip->setFrameRange(inputs.firstFrame, inputs.lastFrame);
        clip->setImage(clip.get() == sourceClip ? source : vectors);
    }
    outputClip->setConnected(true);
    outputClip->setFormat(depthText(inputs.source->depth), kOfxImageComponentRGBA,
                          alphaText(inputs.source->alpha));
    outputClip->setFrameRange(inputs.firstFrame, inputs.lastFrame);

    ofxhost::ActionResult preferences = plugin.clipPreferences();
    std::string depth = firstString(preferences.out("OfxImageClipPropDepth_Output"));
    if (depth.empty()) depth = depthText(inputs.source->depth);
    outputClip->setFormat(depth, kOfxImageComponentRGBA, alphaText(inputs.source->alpha));

    ofxhost::ImageFormat format;
    format.bounds = {0, 0, inputs.source->width, inputs.source->height};
    format.depth = depth;
    format.premultiplication = alphaText(inputs.source->alpha);
    auto result = std::make_shared<ofxhost::ImageBuffer>(format);
    outputClip->setImage(result);

    const OfxPointD scale = {inputs.renderScale, inputs.renderScale};
    ofxhost::ActionResult identity = plugin.isIdentity(time, format.bounds, scale);
    const std::string identityClip = firstString(identity.out(kOfxPropName));
    ofxhost::Clip* passThrough = identity.status == kOfxStatOK ? instance.clip(identityClip) : nullptr;
    if (passThrough && passThrough->imageAt(time) &&
        passThrough->imageAt(time)->bytes().size() == result->bytes().size()) {
        result->bytes() = passThrough->imageAt(time)->bytes();
    } else {
        ofxhost::RenderArgs args;
        args.time = time;
        args.renderScale = scale;
        args.sequential = true;
        const OfxStatus status = plugin.render(args).status;
        if (status != kOfxStatOK) {
            error = "the plug-in's render failed with " + std::string(statusName(status)) + " (" +
                    std::to_string(status) + ")";
            return false;
        }
    }
    output.width = result->width();
    output.height = result->height();
    output.depth = depth == kOfxBitDepthByte    ? PixelDepth::Byte
                   : depth == kOfxBitDepthShort ? PixelDepth::Short
                                                : PixelDepth::Float;
    output.alpha = inputs.source->alpha;
    output.data = std::move(result->bytes());
    outputClip->setImage(nullptr);
    return true;
}
