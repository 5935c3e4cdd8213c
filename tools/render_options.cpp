#include "render_options.h"

#include <functional>

#include "image_file.h"
#include "option_table.h"

std::string renderUsage(const std::string& defaultPlugin, const std::string& installedPlugin) {
    return "usage: trelvo-render --source SRC --vectors VEC --output OUT [--frames RANGE] [options]\n"
           "       trelvo-render --list | --describe [--plugin PATH]\n"
           "\n"
           "Files are read and written through OpenImageIO (EXR, DPX, TIFF, PNG, JPEG, ...). A sequence\n"
           "names its frame number with #### or %04d: --source shot/beauty.####.exr.\n"
           "\n"
           "Render:\n"
           "  --source PATH        the picture to blur (RGBA, RGB, Y or YA, or a layer of it)\n"
           "  --vectors PATH       its motion vectors, one frame each, or one file for all frames; or\n"
           "                       estimate: estimated from the Source sequence itself (its frames on\n"
           "                       disk; centred on each frame, one-sided at the first and last)\n"
           "  --estimate-preset P  with --vectors estimate: medium (default), fast or ultrafast, the\n"
           "                       optical flow's care; fast and ultrafast are 3 and 4 times faster\n"
           "  --output PATH        where the result goes; its folder must exist\n"
           "  --frames RANGE       7 | 1-100 | 1-100x2 | 1,5,10-20 (default: the source frames on disk)\n"
           "  --amount V           Blur Amount, valMBAmount: the shutter in frames (0.5: a 180-degree\n"
           "                       shutter)\n"
           "  --max-displace V     Max Displacement in pixels, valMaxDisplace: the vectors' full scale\n"
           "                       (encoded vectors only; for vectors in pixels or estimated the tool\n"
           "                       chooses it)\n"
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
           "  --strict             a vector frame with no known vector is an error, not a warning\n"
           "\n"
           "Channels and vectors (checked on every frame's file before the first frame):\n"
           "  --source-layer NAME  the Source's R, G, B, A from layer NAME, e.g. ViewLayer.Combined\n" +
           vectorOptionsHelp(true) +
           "\n"
           "Inspect:\n"
           "  --list               the plug-ins in the bundle\n"
           "  --describe           load the plug-in, print what it declares and its parameters\n"
           "  --plugin PATH        the plug-in bundle folder or its .ofx binary\n"
           "                       (default: " +
           defaultPlugin + ",\n                        or " + installedPlugin +
           " when that doesn't exist)\n"
           "  --help               show this text\n"
           "\n"
           "Exit status: 0 done, 1 a render or file failed, 2 bad usage or input, 130 interrupted.\n";
}

namespace {

std::function<std::string(RenderOptions&, const std::string&)> paramOption(const char* option,
                                                                           const char* name) {
    return [option, name](RenderOptions& o, const std::string& v) -> std::string {
        double value;
        if (!parseDouble(v, value))
            return std::string("option '") + option + "': '" + v + "' is not a number";
        o.params.push_back({std::string(option) + " " + v, name, value});
        return "";
    };
}

std::vector<OptionRule<RenderOptions>> makeRules() {
    std::vector<OptionRule<RenderOptions>> rules = {
        {"--describe", false,
         [](RenderOptions& o, const std::string&) { return o.describe = true, std::string(); }},
        {"--list", false, [](RenderOptions& o, const std::string&) { return o.list = true, std::string(); }},
        {"--help", false, [](RenderOptions& o, const std::string&) { return o.help = true, std::string(); }},
        {"--quiet", false,
         [](RenderOptions& o, const std::string&) { return o.quiet = true, std::string(); }},
        {"--plugin", true,
         [](RenderOptions& o, const std::string& v) { return o.plugin = v, std::string(); }},
        {"--source", true,
         [](RenderOptions& o, const std::string& v) { return o.source = v, std::string(); }},
        {"--vectors", true,
         [](RenderOptions& o, const std::string& v) { return o.vectors = v, std::string(); }},
        {"--output", true,
         [](RenderOptions& o, const std::string& v) { return o.output = v, std::string(); }},
        {"--frames", true,
         [](RenderOptions& o, const std::string& v) { return o.frames = v, std::string(); }},
        {"--compression", true,
         [](RenderOptions& o, const std::string& v) { return o.compression = v, std::string(); }},
        {"--depth", true,
         [](RenderOptions& o, const std::string& v) {
             if (v.empty() || !isOutputDepth(v))
                 return "option '--depth': '" + v + "' is not 8, 16, half or float";
             o.depth = v;
             return std::string();
         }},
        {"--unpremultiplied", false,
         [](RenderOptions& o, const std::string&) {
             return o.premultiplication = "unpremultiplied", std::string();
         }},
        {"--premultiplied", false,
         [](RenderOptions& o, const std::string&) {
             return o.premultiplication = "premultiplied", std::string();
         }},
        {"--proxy", true,
         [](RenderOptions& o, const std::string& v) {
             if (!parseDouble(v, o.proxy) || o.proxy <= 0.0 || o.proxy > 1.0)
                 return "option '--proxy': '" + v + "' is not a scale in (0, 1]";
             return std::string();
         }},
        {"--threads", true,
         [](RenderOptions& o, const std::string& v) {
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
         [](RenderOptions& o, const std::string& v) {
             const size_t equals = v.find('=');
             double value;
             if (equals == std::string::npos || equals == 0 || !parseDouble(v.substr(equals + 1), value))
                 return "option '--param': '" + v + "' is not NAME=NUMBER";
             o.params.push_back({"--param " + v, v.substr(0, equals), value});
             return std::string();
         }},
        {"--source-layer", true,
         [](RenderOptions& o, const std::string& v) {
             if (v.empty()) return std::string("option '--source-layer' needs a layer name");
             o.sourceLayer = v;
             return std::string();
         }},
        {"--strict", false,
         [](RenderOptions& o, const std::string&) { return o.strict = true, std::string(); }},
    };
    addOptionRules(rules, &RenderOptions::vectorInput, vectorOptionRules());
    return rules;
}

}  // namespace

bool parseRenderOptions(int argc, char** argv, RenderOptions& options, std::string& error) {
    static const std::vector<OptionRule<RenderOptions>> rules = makeRules();
    return parseOptionTable(argc, argv, rules, options, error);
}
