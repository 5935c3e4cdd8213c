#include "describe_plugin.h"

#include <cstdio>
#include <memory>
#include <variant>
#include <vector>

#include "effect.h"
#include "host.h"
#include "ofxImageEffect.h"
#include "plugin.h"

namespace {

const char* statusName(OfxStatus status) {
    static const char* const names[] = {
        "kOfxStatOK",
        "kOfxStatFailed",
        "kOfxStatErrFatal",
        "kOfxStatErrUnknown",
        "kOfxStatErrMissingHostFeature",
        "kOfxStatErrUnsupported",
        "kOfxStatErrExists",
        "kOfxStatErrFormat",
        "kOfxStatErrMemory",
        "kOfxStatErrBadHandle",
        "kOfxStatErrBadIndex",
        "kOfxStatErrValue",
        "kOfxStatReplyYes",
        "kOfxStatReplyNo",
        "kOfxStatReplyDefault",
    };
    if (status >= 0 && status < static_cast<int>(sizeof names / sizeof names[0])) return names[status];
    return "unknown status";
}

// A property's values as one line: strings plain, comma-separated.
std::string joined(const ofxhost::PropertySet& props, const char* name) {
    std::string line;
    for (const ofxhost::PropertyValue& v : props.values(name)) {
        if (!line.empty()) line += ", ";
        line += std::holds_alternative<std::string>(v) ? std::get<std::string>(v) : ofxhost::toText(v);
    }
    return line.empty() ? "(none)" : line;
}

void printDescriptor(const ofxhost::PropertySet& props) {
    static const struct {
        const char* title;
        const char* property;
    } rows[] = {
        {"Description", kOfxPropPluginDescription},
        {"Label", kOfxPropLabel},
        {"Grouping", kOfxImageEffectPluginPropGrouping},
        {"Supported contexts", kOfxImageEffectPropSupportedContexts},
        {"Supported pixel depths", kOfxImageEffectPropSupportedPixelDepths},
        {"Render thread safety", kOfxImageEffectPluginRenderThreadSafety},
        {"Host frame threading", kOfxImageEffectPluginPropHostFrameThreading},
        {"Single instance", kOfxImageEffectPluginPropSingleInstance},
        {"Supports tiles", kOfxImageEffectPropSupportsTiles},
        {"Supports multi-resolution", kOfxImageEffectPropSupportsMultiResolution},
        {"Multiple clip depths", kOfxImageEffectPropSupportsMultipleClipDepths},
        {"Multiple clip PARs", kOfxImageEffectPropSupportsMultipleClipPARs},
        {"Temporal clip access", kOfxImageEffectPropTemporalClipAccess},
        {"Field render twice always", kOfxImageEffectPluginPropFieldRenderTwiceAlways},
        {"Sequential render", kOfxImageEffectInstancePropSequentialRender},
    };
    for (const auto& row : rows)
        std::printf("  %-27s %s\n", (std::string(row.title) + ":").c_str(),
                    joined(props, row.property).c_str());
}

void printAction(const ofxhost::ActionCall& call) {
    std::printf("  %-27s %d (%s)\n", (call.action + ":").c_str(), call.status, statusName(call.status));
}

// The clips and parameters of the general context, as an effect defines them there.
void printContext(ofxhost::Plugin& plugin) {
    if (plugin.describeInContext(kOfxImageEffectContextGeneral).status != kOfxStatOK) return;
    ofxhost::ImageEffect& effect = *plugin.contextDescriptor();
    std::printf("  Clips (general context):\n");
    for (const auto& clip : effect.clips())
        std::printf("    %-25s %s\n", ("\"" + clip->name() + "\"").c_str(),
                    joined(clip->properties(), kOfxImageEffectPropSupportedComponents).c_str());
    std::printf("  Parameters (general context):\n");
    for (const auto& param : effect.params().params()) {
        ofxhost::PropertySet& p = param->properties();
        if (param->type() == kOfxParamTypePage || param->type() == kOfxParamTypeGroup) continue;
        const bool secret = joined(p, kOfxParamPropSecret) == "1";
        std::printf("    %-25s %s%s", param->name().c_str(), param->type().c_str(),
                    secret ? " (hidden)" : "");
        if (param->type() == kOfxParamTypeDouble || param->type() == kOfxParamTypeInteger)
            std::printf(", %s to %s, default %s, \"%s\"", joined(p, kOfxParamPropMin).c_str(),
                        joined(p, kOfxParamPropMax).c_str(), joined(p, kOfxParamPropDefault).c_str(),
                        joined(p, kOfxPropLabel).c_str());
        std::printf("\n");
    }
}

}  // namespace

int describePlugins(const std::string& path, bool full) {
    // The host outlives the binary: its static destructors run at dlclose.
    ofxhost::Host host;
    std::string error;
    std::unique_ptr<ofxhost::Bundle> bundle = ofxhost::Bundle::open(path, error);
    if (!bundle) {
        std::fprintf(stderr, "trelvo-render: %s\n", error.c_str());
        return 1;
    }
    int failures = 0;
    int count = bundle->numberOfPlugins();
    std::printf("Binary: %s\nPlug-ins: %d\n", bundle->path().c_str(), count);
    for (int i = 0; i < count; ++i) {
        OfxPlugin* record = bundle->plugin(i);
        if (!record) {
            std::printf("\nPlug-in %d: none (OfxGetPlugin gave null)\n", i);
            ++failures;
            continue;
        }
        std::printf("\nPlug-in %d: %s\n", i, record->pluginIdentifier ? record->pluginIdentifier : "(null)");
        std::printf("  %-27s %s, version %d\n", "API:", record->pluginApi ? record->pluginApi : "(null)",
                    record->apiVersion);
        std::printf("  %-27s %u.%u\n", "Version:", record->pluginVersionMajor, record->pluginVersionMinor);
        if (!full) continue;

        ofxhost::Plugin plugin(host, *record, bundle->path());
        plugin.setHost();
        OfxStatus described = plugin.describe();
        if (described == kOfxStatOK) printDescriptor(plugin.descriptor()->properties());
        plugin.load();
        if (described == kOfxStatOK) printContext(plugin);
        plugin.unload();
        std::printf("Actions:\n");
        for (const ofxhost::ActionCall& call : plugin.actions()) {
            printAction(call);
            if (call.status != kOfxStatOK) ++failures;
        }
    }
    std::vector<ofxhost::Message> messages = host.messages().all();
    if (!messages.empty()) std::printf("\nMessages:\n");
    for (const ofxhost::Message& m : messages) std::printf("  %s: %s\n", m.type.c_str(), m.text.c_str());
    return failures ? 1 : 0;
}
