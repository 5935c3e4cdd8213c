#include "render_session.h"

#include <variant>

#include "effect.h"
#include "host.h"
#include "ofxImageEffect.h"
#include "plugin.h"

namespace {

double firstDouble(const ofxhost::PropertySet& props, const char* name, double fallback) {
    std::vector<ofxhost::PropertyValue> values = props.values(name);
    if (values.empty() || !std::holds_alternative<double>(values[0])) return fallback;
    return std::get<double>(values[0]);
}

std::string firstString(const ofxhost::PropertySet& props, const char* name) {
    std::vector<ofxhost::PropertyValue> values = props.values(name);
    if (values.empty() || !std::holds_alternative<std::string>(values[0])) return "";
    return std::get<std::string>(values[0]);
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
    std::unique_ptr<ofxhost::ImageEffect> contextDescriptor;
    bool loaded = false;
    std::string identifier;
    std::vector<ParamInfo> params;
    std::vector<std::pair<std::string, double>> values;
    std::function<bool()> abortPoll;
};

RenderSession::RenderSession(unsigned threads) : state_(std::make_unique<State>(threads)) {}

RenderSession::~RenderSession() {
    if (state_->loaded) state_->plugin->unload();
    state_->contextDescriptor.reset();
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
    s.contextDescriptor = std::make_unique<ofxhost::ImageEffect>();
    ofxhost::PropertySet inArgs;
    inArgs.defineString(kOfxImageEffectPropContext, 1, {kOfxImageEffectContextGeneral});
    if (s.plugin->action(kOfxImageEffectActionDescribeInContext, s.contextDescriptor->handle(),
                         inArgs.handle()) != kOfxStatOK) {
        error = s.identifier + ": has no general context";
        return false;
    }
    for (const auto& param : s.contextDescriptor->params().params()) {
        if (param->type() != kOfxParamTypeDouble) continue;
        const ofxhost::PropertySet& p = param->properties();
        s.params.push_back({param->name(), firstString(p, kOfxPropLabel), firstString(p, kOfxParamPropHint),
                            firstDouble(p, kOfxParamPropMin, 0.0), firstDouble(p, kOfxParamPropMax, 0.0),
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
    state_->values.emplace_back(name, value);
}

void RenderSession::onAbortPoll(std::function<bool()> poll) {
    state_->abortPoll = std::move(poll);
}

bool RenderSession::render(double, const FrameInputs&, HostPixels&, std::string& error) {
    error = "this host cannot render yet: it has no instances with images";
    return false;
}
