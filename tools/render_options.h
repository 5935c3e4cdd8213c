// trelvo-render's command line: what the user asked for, parsed and checked
// option by option, before anything is opened. Whether the options fit the
// files and the plug-in is the pre-flight check's business (render_plan.h).
#pragma once

#include <string>
#include <vector>

#include "vector_input.h"

struct ParamSetting {
    std::string option;  // as the user wrote it, for messages
    std::string name;
    double value;
};

struct RenderOptions {
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
    std::string sourceLayer;  // --source-layer: the Source's R, G, B, A from this layer
    VectorOptions vectorInput;
    bool strict = false;  // a vector frame with no known vector stops the job
};

// Accepts "--name value" and "--name=value". Gives false with a message for
// anything it doesn't know or a value that is malformed.
bool parseRenderOptions(int argc, char** argv, RenderOptions& options, std::string& error);

// The --help text; the two paths are where the plug-in is looked for by default.
std::string renderUsage(const std::string& defaultPlugin, const std::string& installedPlugin);
