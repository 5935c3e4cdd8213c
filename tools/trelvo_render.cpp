// trelvo-render: the command-line OFX host that ships with the plug-in, for
// batch and render-farm work. It renders image sequences through the
// plug-in (any format OpenImageIO reads and writes), checks everything it
// can before the first frame, writes every frame under a temporary name
// first, and stops cleanly on Ctrl-C. --list and --describe show what any
// OFX bundle declares.
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "effect.h"
#include "frames.h"
#include "host.h"
#include "image_file.h"
#include "ofxImageEffect.h"
#include "plugin.h"
#include "progress_report.h"
#include "render_session.h"

namespace {

const char* const kUsage =
    "usage: trelvo-render --source SRC --vectors VEC --output OUT [--frames RANGE] [options]\n"
    "       trelvo-render --list | --describe [--plugin PATH]\n"
    "\n"
    "Files are read and written through OpenImageIO (EXR, DPX, TIFF, PNG, JPEG, ...). A sequence\n"
    "names its frame number with #### or %04d: --source shot/beauty.####.exr.\n"
    "\n"
    "Render:\n"
    "  --source PATH        the picture to blur (RGBA, RGB, Y or YA)\n"
    "  --vectors PATH       its motion vectors, one frame each, or one file for all frames\n"
    "  --output PATH        where the result goes; its folder must exist\n"
    "  --frames RANGE       7 | 1-100 | 1-100x2 | 1,5,10-20 (default: the source frames on disk)\n"
    "  --amount V           Blur Amount, valMBAmount\n"
    "  --max-displace V     Max Displacement in pixels, valMaxDisplace: the vectors' full scale\n"
    "  --scale-x V          Vector Scale X, valVecScaleX\n"
    "  --scale-y V          Vector Scale Y, valVecScaleY\n"
    "  --param NAME=V       any double parameter by its OFX name (repeatable)\n"
    "  --proxy S            render scale S in (0, 1]: images are scaled to S and rendered at it\n"
    "  --unpremultiplied    the source's colour is not multiplied by its alpha\n"
    "  --premultiplied      the source's colour is multiplied by its alpha (the default,\n"
    "                       unless the file says otherwise)\n"
    "  --depth D            output depth: 8, 16, half or float (default: the effect's choice)\n"
    "  --compression NAME   output compression where the format has one (zip, piz, dwaa, lzw, ...)\n"
    "  --threads N          processors the host reports to the plug-in, and the cores the\n"
    "                       render keeps to (default: all)\n"
    "  --quiet              no progress, only warnings and errors\n"
    "\n"
    "Inspect:\n"
    "  --list               the plug-ins in the bundle\n"
    "  --describe           load the plug-in, print what it declares and its parameters\n"
    "  --plugin PATH        the plug-in bundle folder or its .ofx binary\n"
    "                       (default: " TRELVO_DEFAULT_PLUGIN
    ",\n"
    "                        or " TRELVO_INSTALLED_PLUGIN
    " when that doesn't exist)\n"
    "  --help               show this text\n"
    "\n"
    "Exit status: 0 done, 1 a render or file failed, 2 bad usage or input, 130 interrupted.\n";

struct ParamSetting {
    std::string option;  // as the user wrote it, for messages
    std::string name;
    double value;
};

struct Options {
    bool describe = false;
    bool list = false;
    bool help = false;
    bool quiet = false;
    std::string plugin;
    std::string source, vectors, output, frames;
    std::string depth, compression;
    std::string premultiplication;  // "", "premultiplied" or "unpremultiplied"
    double proxy = 1.0;
    long threads = 0;
    std::vector<ParamSetting> params;
};

// A whole, finite number; false on anything else.
bool parseDouble(const std::string& text, double& value) {
    if (text.empty()) return false;
    char* end = nullptr;
    errno = 0;
    value = std::strtod(text.c_str(), &end);
    return !errno && *end == '\0' && std::isfinite(value);
}

// One entry per option; an option with a value gets it as the argument.
// apply gives an error text, empty when the value is fine.
struct OptionRule {
    const char* name;
    bool takesValue;
    std::function<std::string(Options&, const std::string&)> apply;
};

std::function<std::string(Options&, const std::string&)> paramOption(const char* option, const char* name) {
    return [option, name](Options& o, const std::string& v) -> std::string {
        double value;
        if (!parseDouble(v, value))
            return std::string("option '") + option + "': '" + v + "' is not a number";
        o.params.push_back({std::string(option) + " " + v, name, value});
        return "";
    };
}

const std::vector<OptionRule>& optionRules() {
    static const std::vector<OptionRule> rules = {
        {"--describe", false,
         [](Options& o, const std::string&) { return o.describe = true, std::string(); }},
        {"--list", false, [](Options& o, const std::string&) { return o.list = true, std::string(); }},
        {"--help", false, [](Options& o, const std::string&) { return o.help = true, std::string(); }},
        {"--quiet", false, [](Options& o, const std::string&) { return o.quiet = true, std::string(); }},
        {"--plugin", true, [](Options& o, const std::string& v) { return o.plugin = v, std::string(); }},
        {"--source", true, [](Options& o, const std::string& v) { return o.source = v, std::string(); }},
        {"--vectors", true, [](Options& o, const std::string& v) { return o.vectors = v, std::string(); }},
        {"--output", true, [](Options& o, const std::string& v) { return o.output = v, std::string(); }},
        {"--frames", true, [](Options& o, const std::string& v) { return o.frames = v, std::string(); }},
        {"--compression", true,
         [](Options& o, const std::string& v) { return o.compression = v, std::string(); }},
        {"--depth", true,
         [](Options& o, const std::string& v) {
             if (v.empty() || !isOutputDepth(v))
                 return "option '--depth': '" + v + "' is not 8, 16, half or float";
             o.depth = v;
             return std::string();
         }},
        {"--unpremultiplied", false,
         [](Options& o, const std::string&) {
             return o.premultiplication = "unpremultiplied", std::string();
         }},
        {"--premultiplied", false,
         [](Options& o, const std::string&) { return o.premultiplication = "premultiplied", std::string(); }},
        {"--proxy", true,
         [](Options& o, const std::string& v) {
             if (!parseDouble(v, o.proxy) || o.proxy <= 0.0 || o.proxy > 1.0)
                 return "option '--proxy': '" + v + "' is not a scale in (0, 1]";
             return std::string();
         }},
        {"--threads", true,
         [](Options& o, const std::string& v) {
             char* end = nullptr;
             o.threads = std::strtol(v.c_str(), &end, 10);
             if (v.empty() || *end || o.threads < 1 || o.threads > 1024)
                 return "option '--threads': '" + v + "' is not a count from 1 to 1024";
             return std::string();
         }},
        {"--amount", true, paramOption("--amount", "valMBAmount")},
        {"--max-displace", true, paramOption("--max-displace", "valMaxDisplace")},
        {"--scale-x", true, paramOption("--scale-x", "valVecScaleX")},
        {"--scale-y", true, paramOption("--scale-y", "valVecScaleY")},
        {"--param", true,
         [](Options& o, const std::string& v) {
             const size_t equals = v.find('=');
             double value;
             if (equals == std::string::npos || equals == 0 || !parseDouble(v.substr(equals + 1), value))
                 return "option '--param': '" + v + "' is not NAME=NUMBER";
             o.params.push_back({"--param " + v, v.substr(0, equals), value});
             return std::string();
         }},
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
        error = rule->apply(options, value);
        if (!error.empty()) return false;
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

// Describe (and in the general context), Load and Unload for every plug-in
// of the binary; --list stops at the record. Gives the exit code.
int describe(const std::string& path, bool full) {
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

// Ctrl-C and a farm's SIGTERM end the frame through the host's abort. A
// lock-free atomic: written by the handler, read by the render's watcher thread.
std::atomic<int> gStopSignal{0};
static_assert(std::atomic<int>::is_always_lock_free, "the signal handler needs a lock-free flag");

void onStopSignal(int signal) {
    gStopSignal.store(signal);
}

void installStopHandlers() {
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

int stopStatus() {
    return 128 + gStopSignal.load();
}

std::string folderOf(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// The colours the plug-in paints a frame it could not render (and then
// reports success), with what each means here.
const char* failureMeaning(const HostPixels& image) {
    if (image.width <= 0 || image.height <= 0) return nullptr;
    float first[4];
    for (int c = 0; c < 4; ++c) first[c] = image.at(0, 0, c);
    for (int y = 0; y < image.height; ++y)
        for (int x = 0; x < image.width; ++x)
            for (int c = 0; c < 4; ++c)
                if (image.at(x, y, c) != first[c]) return nullptr;
    static const struct {
        float rgba[4];
        const char* meaning;
    } colours[] = {
        {{1.0f, 0.0f, 0.0f, 1.0f},
         "solid red: the plug-in failed (an input unconnected, missing or alpha-only, or the engine failed)"},
        {{0.9f, 0.6f, 0.0f, 1.0f}, "solid orange: the render was aborted"},
        {{0.0f, 0.0f, 0.0f, 0.0f}, "transparent black: no source or vector frame at this time"},
    };
    // One code of an 8-bit image either way.
    for (const auto& colour : colours) {
        bool same = true;
        for (int c = 0; c < 4; ++c) same = same && std::fabs(first[c] - colour.rgba[c]) <= 1.0f / 255.0f;
        if (same) return colour.meaning;
    }
    return nullptr;
}

struct Job {
    SequencePath source, vectors, output;
    std::vector<int> frames;
};

// Everything that can be checked before the first frame: paths, frames on
// disk, the output folder. Gives false with a message naming the culprit.
bool planJob(const Options& o, Job& job, std::string& error) {
    if (o.source.empty() || o.vectors.empty() || o.output.empty()) {
        error = "rendering needs --source, --vectors and --output";
        return false;
    }
    if (!job.source.parse(o.source, error) || !job.vectors.parse(o.vectors, error) ||
        !job.output.parse(o.output, error))
        return false;
    if (!o.frames.empty()) {
        if (!parseFrames(o.frames, job.frames, error)) return false;
    } else if (job.source.isSequence()) {
        job.frames = job.source.framesOnDisk();
        if (job.frames.empty()) {
            error = "--source '" + o.source + "': no frames on disk match it";
            return false;
        }
    } else {
        job.frames = {1};
    }
    if (job.frames.size() > 1 && !job.output.isSequence()) {
        error = "--output '" + o.output + "' needs a frame pattern (#### or %04d) to hold " +
                std::to_string(job.frames.size()) + " frames";
        return false;
    }
    for (int frame : job.frames) {
        if (!exists(job.source.frame(frame))) {
            error = "source frame " + std::to_string(frame) + " is missing: " + job.source.frame(frame);
            return false;
        }
        if (!exists(job.vectors.frame(frame))) {
            error = "vector frame " + std::to_string(frame) + " is missing: " + job.vectors.frame(frame);
            return false;
        }
    }
    const std::string folder = folderOf(o.output);
    struct stat info;
    if (stat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        error = "--output: the folder '" + folder + "' does not exist";
        return false;
    }
    if (access(folder.c_str(), W_OK | X_OK) != 0) {
        error = "--output: the folder '" + folder + "' is not writable";
        return false;
    }
    return true;
}

// Every --param and named option against what the plug-in defined.
bool checkParams(const std::vector<ParamSetting>& settings, const std::vector<ParamInfo>& defined,
                 std::string& error) {
    for (const ParamSetting& s : settings) {
        const ParamInfo* info = nullptr;
        for (const ParamInfo& p : defined)
            if (p.name == s.name) info = &p;
        if (!info) {
            std::string names;
            for (const ParamInfo& p : defined) names += (names.empty() ? "" : ", ") + p.name;
            error = "unknown parameter '" + s.name + "' (" + s.option + "); the plug-in's parameters are " +
                    names;
            return false;
        }
        if (!(s.value >= info->min && s.value <= info->max)) {
            char range[128];
            std::snprintf(range, sizeof range, "%g to %g", info->min, info->max);
            error = s.option + ": " + s.name + " (" + info->label + ") must be from " + range;
            return false;
        }
    }
    return true;
}

// The frames in order. Gives the exit code.
int renderFrames(const Options& o, const Job& job, RenderSession& session, ProgressReport& progress,
                 std::atomic<unsigned long>& frameStartPolls) {
    std::string error;
    FrameInputs inputs;
    inputs.firstFrame = job.frames.front();
    inputs.lastFrame = job.frames.front();
    for (int f : job.frames) {
        inputs.firstFrame = std::min<double>(inputs.firstFrame, f);
        inputs.lastFrame = std::max<double>(inputs.lastFrame, f);
    }
    inputs.renderScale = o.proxy;
    const WriteSettings writeSettings{o.depth, o.compression};
    int warnings = 0;
    for (int frame : job.frames) {
        if (gStopSignal) break;
        frameStartPolls = session.abortPolls();
        progress.frameStarted(frame);
        HostPixels source, vectors, output;
        if (!readHostPixels(job.source.frame(frame), {o.proxy, false}, source, error) ||
            !readHostPixels(job.vectors.frame(frame), {o.proxy, true}, vectors, error)) {
            progress.message("trelvo-render: " + error);
            progress.finish();
            return 1;
        }
        if (o.premultiplication == "unpremultiplied" && source.alpha != AlphaState::Opaque)
            source.alpha = AlphaState::Unpremultiplied;
        else if (o.premultiplication == "premultiplied" && source.alpha != AlphaState::Opaque)
            source.alpha = AlphaState::Premultiplied;
        inputs.source = &source;
        inputs.vectors = &vectors;
        if (!session.render(frame, inputs, output, error)) {
            progress.message("trelvo-render: frame " + std::to_string(frame) + ": " + error);
            progress.finish();
            return 1;
        }
        for (const std::string& text : session.takeMessages())
            progress.message("trelvo-render: plug-in " + text);
        // An aborted frame is never written: it would be orange.
        if (gStopSignal) break;
        if (const char* meaning = failureMeaning(output)) {
            ++warnings;
            progress.message("trelvo-render: warning: frame " + std::to_string(frame) + " came back " +
                             meaning);
        }
        output.fileHeader = source.fileHeader;
        output.alpha = source.alpha;
        const std::string path = job.output.frame(frame);
        if (!writeHostPixels(path, output, writeSettings, error)) {
            progress.message("trelvo-render: " + error);
            progress.finish();
            return 1;
        }
        progress.frameDone(path);
    }
    progress.finish();
    if (gStopSignal) {
        std::fprintf(stderr, "trelvo-render: interrupted; the frame in progress was not written\n");
        return stopStatus();
    }
    if (warnings)
        std::fprintf(stderr, "trelvo-render: %d frame%s came back in a failure colour\n", warnings,
                     warnings == 1 ? "" : "s");
    return 0;
}

// --threads: the host reports N processors, and the process keeps to N of
// the cores it may use, so that a plug-in which sizes its pool from the
// machine (ours does, on hosts it doesn't single out) still uses N at a time.
// Threads started later inherit the mask.
void limitCores(long threads) {
    cpu_set_t allowed, chosen;
    if (threads <= 0 || sched_getaffinity(0, sizeof allowed, &allowed) != 0) return;
    CPU_ZERO(&chosen);
    long taken = 0;
    for (int cpu = 0; cpu < CPU_SETSIZE && taken < threads; ++cpu)
        if (CPU_ISSET(cpu, &allowed)) {
            CPU_SET(cpu, &chosen);
            ++taken;
        }
    sched_setaffinity(0, sizeof chosen, &chosen);
}

int renderJob(const Options& o) {
    Job job;
    std::string error;
    if (!planJob(o, job, error)) {
        std::fprintf(stderr, "trelvo-render: %s\n", error.c_str());
        return 2;
    }
    limitCores(o.threads);
    RenderSession session(static_cast<unsigned>(o.threads));
    if (!session.open(o.plugin.empty() ? defaultPlugin() : o.plugin, error)) {
        std::fprintf(stderr, "trelvo-render: %s\n", error.c_str());
        return 1;
    }
    if (!checkParams(o.params, session.params(), error)) {
        std::fprintf(stderr, "trelvo-render: %s\n", error.c_str());
        return 2;
    }
    for (const ParamSetting& s : o.params) session.setParam(s.name, s.value);

    const ProgressReport::Style style = o.quiet                 ? ProgressReport::Style::Quiet
                                        : isatty(STDERR_FILENO) ? ProgressReport::Style::Bar
                                                                : ProgressReport::Style::Lines;
    ProgressReport progress(stderr, style, static_cast<int>(job.frames.size()));
    installStopHandlers();
    // The watcher turns a stop signal into the host's abort answer and feeds
    // the bar with the plug-in's abort polls of the current frame.
    std::atomic<bool> finished{false};
    std::atomic<unsigned long> frameStartPolls{0};
    std::thread watcher([&] {
        while (!finished) {
            if (gStopSignal) session.abort();
            const unsigned long polls = session.abortPolls(), start = frameStartPolls;
            progress.ticks(polls >= start ? static_cast<long>(polls - start) : 0);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    });
    const int status = renderFrames(o, job, session, progress, frameStartPolls);
    finished = true;
    watcher.join();
    return status;
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
    if (options.describe || options.list)
        return describe(options.plugin.empty() ? defaultPlugin() : options.plugin, options.describe);
    if (options.source.empty() && options.vectors.empty() && options.output.empty()) {
        std::fprintf(stderr, "trelvo-render: nothing to do\n\n%s", kUsage);
        return 2;
    }
    return renderJob(options);
}
