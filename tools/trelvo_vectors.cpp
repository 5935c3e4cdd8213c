// trelvo-vectors: writes motion vectors as a clip in the plug-in's encoding,
// for OFX hosts to feed to its Motion Vectors input: from a renderer's
// motion pass in pixels (any channels, or a renderer's layout by name), or
// estimated from plain footage (--vectors estimate). The
// Max Displacement the clip needs is printed and stored in every file.
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "flow_preview.h"
#include "footage_motion.h"
#include "frames.h"
#include "heap_tuning.h"
#include "option_table.h"
#include "render_plan.h"
#include "stop_signal.h"
#include "vector_clip.h"
#include "vector_input.h"

namespace {

struct Options {
    bool help = false;
    bool quiet = false;
    bool strict = false;
    std::string source, sourceLayer;  // the footage of --vectors estimate
    std::string vectors, output, frames, depth = "float", compression;
    std::string preview;  // --preview: the vectors as colour, to look at
    double maxDisplace = 0.0;
    VectorOptions vectorInput;
};

std::vector<OptionRule<Options>> makeRules() {
    std::vector<OptionRule<Options>> rules = {
        {"--help", false, [](Options& o, const std::string&) { return o.help = true, std::string(); }},
        {"--quiet", false, [](Options& o, const std::string&) { return o.quiet = true, std::string(); }},
        {"--strict", false, [](Options& o, const std::string&) { return o.strict = true, std::string(); }},
        {"--vectors", true, [](Options& o, const std::string& v) { return o.vectors = v, std::string(); }},
        {"--source", true, [](Options& o, const std::string& v) { return o.source = v, std::string(); }},
        {"--source-layer", true,
         [](Options& o, const std::string& v) {
             if (v.empty()) return std::string("option '--source-layer' needs a layer name");
             o.sourceLayer = v;
             return std::string();
         }},
        {"--output", true, [](Options& o, const std::string& v) { return o.output = v, std::string(); }},
        {"--frames", true, [](Options& o, const std::string& v) { return o.frames = v, std::string(); }},
        {"--preview", true, [](Options& o, const std::string& v) { return o.preview = v, std::string(); }},
        {"--compression", true,
         [](Options& o, const std::string& v) { return o.compression = v, std::string(); }},
        {"--depth", true,
         [](Options& o, const std::string& v) {
             if (v != "float" && v != "16") return "option '--depth': '" + v + "' is not float or 16";
             o.depth = v;
             return std::string();
         }},
        {"--max-displace", true,
         [](Options& o, const std::string& v) {
             if (!parseDouble(v, o.maxDisplace) || o.maxDisplace <= 0.0 || o.maxDisplace > 10000.0)
                 return "option '--max-displace': '" + v +
                        "' is not a number of pixels above 0, at most 10000";
             return std::string();
         }},
    };
    addOptionRules(rules, &Options::vectorInput, vectorOptionRules());
    return rules;
}

std::string usage() {
    return std::string(
               "usage: trelvo-vectors --vectors PASS --output CLIP [--frames RANGE] [options]\n"
               "       trelvo-vectors --source FOOTAGE --vectors estimate --output CLIP [--frames RANGE]\n"
               "\n"
               "Writes motion vectors as a vector clip in the plug-in's encoding, for any OFX host to feed\n"
               "to its Motion Vectors input: from a motion pass in pixels, or estimated from plain footage.\n"
               "Prints the Max Displacement to set in the host, and stores it in every file. A sequence\n"
               "names its frame number with #### or %04d.\n"
               "\n"
               "  --vectors PATH       the motion pass, in pixels per frame; or estimate: the motion of\n"
               "                       the --source footage, estimated from its frames (centred on each\n"
               "                       frame, one-sided at the footage's first and last frame on disk,\n"
               "                       holes where it is unreliable)\n"
               "  --source PATH        with --vectors estimate: the footage, a sequence\n"
               "  --estimate-preset P  medium (default), fast or ultrafast: the optical flow's care; fast\n"
               "                       and ultrafast are 3 and 4 times faster, their vectors less exact\n"
               "  --source-layer NAME  its R, G, B from layer NAME of a multilayer file\n"
               "  --output PATH        the clip to write: .exr (float), or .tif/.png with --depth 16;\n"
               "                       its folder must exist\n"
               "  --frames RANGE       7 | 1-100 | 1-100x2 | 1,5,10-20 (default: the pass's or the\n"
               "                       footage's frames on disk)\n"
               "  --depth D            float (default: c = 0.5 + 0.5 d/M) or 16 (c = 32767 + 32767 d/M)\n"
               "  --max-displace M     encode with this M instead of the smallest power of two that holds\n"
               "                       the clip's largest vector (one reading of the pass less)\n"
               "  --compression NAME   output compression where the format has one (zip, piz, lzw, ...)\n"
               "  --preview PATH       also write each frame's vectors as a picture to look at (.png,\n"
               "                       .jpg): hue the direction (right red, up yellow-green, left cyan,\n"
               "                       down violet), saturation the length (white: still, full colour:\n"
               "                       Max Displacement), holes black\n"
               "  --strict             a frame with no known vector is an error, not a warning\n"
               "  --quiet              no progress, only warnings, errors and the Max Displacement\n"
               "\n"
               "Channels of a pass (checked on every frame's file before the first frame):\n") +
           vectorOptionsHelp(false) +
           "\n"
           "Exit status: 0 done, 1 a file failed, 2 bad usage or input, 130 interrupted.\n";
}

// The clip's format by its file name: float where it holds float, 16 bits
// where it holds 16-bit integers.
bool checkOutputFormat(const std::string& path, const std::string& depth, std::string& error) {
    const size_t dot = path.find_last_of('.');
    std::string ext = dot == std::string::npos ? "" : path.substr(dot + 1);
    for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const bool tiff = ext == "tif" || ext == "tiff";
    if (ext == "exr" && depth == "16")
        error = "--output '" + path + "': EXR holds no 16-bit integers; write .tif or .png with --depth 16";
    else if (ext == "png" && depth == "float")
        error = "--output '" + path + "': PNG holds no float; add --depth 16";
    else if (ext != "exr" && ext != "png" && !tiff)
        error = "--output '" + path + "': write a vector clip as .exr (float), .tif or .png (--depth 16)";
    return error.empty();
}

// A preview is an 8-bit picture.
bool checkPreviewFormat(const std::string& path, std::string& error) {
    const size_t dot = path.find_last_of('.');
    std::string ext = dot == std::string::npos ? "" : path.substr(dot + 1);
    for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (ext != "png" && ext != "jpg" && ext != "jpeg" && ext != "tif" && ext != "tiff")
        error = "--preview '" + path + "': write a preview as .png, .jpg or .tif";
    return error.empty();
}

// Everything that can be checked before the first frame. Gives the exit code
// of a failure, or 0 with the job and the inputs planned; `input` is what
// the frames are read from, the pass or the footage.
int plan(Options& o, VectorClipJob& job, InputPlan& inputs, SequencePath& input, std::string& error) {
    if (o.vectors.empty() || o.output.empty()) {
        error = "writing a clip needs --vectors and --output";
        return 2;
    }
    const bool estimate = o.vectors == kEstimateVectors;
    if (estimate) {
        const std::vector<std::string> given = vectorOptionsGiven(o.vectorInput);
        if (o.source.empty())
            error = "--vectors estimate needs the footage: --source PATH";
        else if (!given.empty())
            error = given.front() +
                    " describes a motion pass; with --vectors estimate the motion comes from " +
                    "the --source footage";
    } else if (!o.source.empty() || !o.sourceLayer.empty()) {
        error = std::string(o.source.empty() ? "--source-layer" : "--source") +
                " is the footage of --vectors estimate; a motion pass is named with --vectors alone";
    } else if (o.vectorInput.units == "encoded") {
        error =
            "--vector-units encoded: trelvo-vectors reads motion in pixels; a clip in the plug-in's encoding "
            "needs no conversion";
    }
    if (!error.empty()) return 2;
    if (!estimate) o.vectorInput.units = "pixels";
    const std::string inputOption = estimate ? "--source" : "--vectors";
    if (!input.parse(estimate ? o.source : o.vectors, error) || !job.output.parse(o.output, error) ||
        (!estimate && !checkVectorOptions(o.vectorInput, error)) ||
        !checkOutputFormat(o.output, o.depth, error))
        return 2;
    if (!o.frames.empty()) {
        if (!parseFrames(o.frames, job.frames, error)) return 2;
    } else if (input.isSequence()) {
        job.frames = input.framesOnDisk();
        if (job.frames.empty()) {
            error = inputOption + " '" + input.path() + "': no frames on disk match it";
            return 2;
        }
    } else {
        job.frames = {1};
    }
    if (job.frames.size() > 1 && !job.output.isSequence()) {
        error = "--output '" + o.output + "' needs a frame pattern (#### or %04d) to hold " +
                std::to_string(job.frames.size()) + " frames";
        return 2;
    }
    for (int frame : job.frames) {
        struct stat info;
        if (stat(input.frame(frame).c_str(), &info) != 0) {
            error = std::string(estimate ? "source" : "vector") + " frame " + std::to_string(frame) +
                    " is missing: " + input.frame(frame);
            return 2;
        }
    }
    if (!o.preview.empty() && (!job.preview.parse(o.preview, error) || !checkPreviewFormat(o.preview, error)))
        return 2;
    if (o.preview == o.output) {
        error = "--preview and --output name the same files";
        return 2;
    }
    if (job.frames.size() > 1 && !o.preview.empty() && !job.preview.isSequence()) {
        error = "--preview '" + o.preview + "' needs a frame pattern (#### or %04d) to hold " +
                std::to_string(job.frames.size()) + " frames";
        return 2;
    }
    for (const auto& [option, path] : {std::pair{"--output", o.output}, std::pair{"--preview", o.preview}}) {
        if (path.empty()) continue;
        const std::string folder = folderOf(path);
        struct stat info;
        if (stat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
            error = std::string(option) + ": the folder '" + folder + "' does not exist";
            return 2;
        }
        if (access(folder.c_str(), W_OK | X_OK) != 0) {
            error = std::string(option) + ": the folder '" + folder + "' is not writable";
            return 2;
        }
    }
    if (!checkNoInputOverwritten(job.output, {&input}, job.frames, error) ||
        (!o.preview.empty() && !checkNoInputOverwritten(job.preview, {&input}, job.frames, error)) ||
        !(estimate ? planFootage(input, o.sourceLayer, job.frames, inputs, error)
                   : planInputs(nullptr, "", input, job.frames, o.vectorInput, inputs, error)))
        return 2;
    job.depth = o.depth == "16" ? PixelDepth::Short : PixelDepth::Float;
    job.compression = o.compression;
    job.maxDisplace = o.maxDisplace;
    job.strict = o.strict;
    job.keepMotion = estimate;
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    keepFrameBuffersInTheHeap();
    Options options;
    std::string error;
    static const std::vector<OptionRule<Options>> rules = makeRules();
    if (!parseOptionTable(argc, argv, rules, options, error)) {
        std::fprintf(stderr, "trelvo-vectors: %s\n\n%s", error.c_str(), usage().c_str());
        return 2;
    }
    if (options.help) {
        std::fputs(usage().c_str(), stdout);
        return 0;
    }
    VectorClipJob job;
    InputPlan inputs;
    SequencePath input;
    if (const int status = plan(options, job, inputs, input, error)) {
        std::fprintf(stderr, "trelvo-vectors: %s\n", error.c_str());
        return status;
    }
    if (!options.preview.empty()) job.writePreview = writeFlowPreview;
    if (inputs.estimate) {
        keepOpenCvSerialUnderThreadSanitizer();
        inputs.motion =
            footageMotionSource(input, inputs.sourceChannels, inputs.footageFirst, inputs.footageLast,
                                estimateSettingsFor(options.vectorInput.estimatePreset));
    }
    installStopHandlers();
    const ProgressReport::Style style = options.quiet           ? ProgressReport::Style::Quiet
                                        : isatty(STDERR_FILENO) ? ProgressReport::Style::Bar
                                                                : ProgressReport::Style::Lines;
    return writeVectorClip(job, *inputs.motion, style);
}
