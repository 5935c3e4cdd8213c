// trelvo-render: the command-line OFX host that ships with the plug-in. It
// loads a plug-in bundle through the embedded host library; --describe sends
// Describe and Load, prints what each plug-in of the binary declared, and
// unloads it again.
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "effect.h"
#include "host.h"
#include "ofxImageEffect.h"
#include "plugin.h"

namespace {

const char* const kUsage =
    "usage: trelvo-render --describe [--plugin PATH]\n"
    "\n"
    "  --describe      load the plug-in, send Describe and Load, print what it declares, unload it\n"
    "  --plugin PATH   the plug-in bundle folder or its .ofx binary\n"
    "                  (default: " TRELVO_DEFAULT_PLUGIN
    ",\n"
    "                   or " TRELVO_INSTALLED_PLUGIN
    " when that doesn't exist)\n"
    "  --help          show this text\n";

struct Options {
    bool describe = false;
    bool help = false;
    std::string plugin;
};

// One entry per option; an option with a value gets it as the argument.
struct OptionRule {
    const char* name;
    bool takesValue;
    std::function<void(Options&, const std::string&)> apply;
};

const std::vector<OptionRule>& optionRules() {
    static const std::vector<OptionRule> rules = {
        {"--describe", false, [](Options& o, const std::string&) { o.describe = true; }},
        {"--help", false, [](Options& o, const std::string&) { o.help = true; }},
        {"--plugin", true, [](Options& o, const std::string& v) { o.plugin = v; }},
    };
    return rules;
}

// Accepts "--name value" and "--name=value". Gives false with a message for
// anything it doesn't know.
bool parseOptions(int argc, char** argv, Options& options, std::string& error) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        std::string name = arg;
        std::string value;
        bool inlineValue = false;
        size_t equals = arg.find('=');
        if (arg.rfind("--", 0) == 0 && equals != std::string::npos) {
            name = arg.substr(0, equals);
            value = arg.substr(equals + 1);
            inlineValue = true;
        }
        const OptionRule* rule = nullptr;
        for (const OptionRule& s : optionRules())
            if (name == s.name) rule = &s;
        if (!rule) {
            error = "unknown option '" + arg + "'";
            return false;
        }
        if (rule->takesValue && !inlineValue) {
            if (i + 1 >= argc) {
                error = "option '" + name + "' needs a value";
                return false;
            }
            value = argv[++i];
        } else if (!rule->takesValue && inlineValue) {
            error = "option '" + name + "' takes no value";
            return false;
        }
        rule->apply(options, value);
    }
    return true;
}

bool exists(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

std::string defaultPlugin() {
    return exists(TRELVO_DEFAULT_PLUGIN) ? TRELVO_DEFAULT_PLUGIN : TRELVO_INSTALLED_PLUGIN;
}

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

// Describe, Load and Unload for every plug-in of the binary. Gives the exit code.
int describe(const std::string& path) {
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

        ofxhost::Plugin plugin(host, *record, bundle->path());
        plugin.setHost();
        OfxStatus described = plugin.describe();
        if (described == kOfxStatOK) printDescriptor(plugin.descriptor()->properties());
        plugin.load();
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

}  // namespace

int main(int argc, char** argv) {
    Options options;
    std::string error;
    if (!parseOptions(argc, argv, options, error)) {
        std::fprintf(stderr, "trelvo-render: %s\n\n%s", error.c_str(), kUsage);
        return 2;
    }
    if (options.help) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (!options.describe) {
        std::fprintf(stderr, "trelvo-render: nothing to do\n\n%s", kUsage);
        return 2;
    }
    return describe(options.plugin.empty() ? defaultPlugin() : options.plugin);
}
