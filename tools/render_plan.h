// trelvo-render's pre-flight check: everything that can be found wrong
// before the first frame is found then, so a job either fails at once with
// a message naming the file or option, or renders every frame it was given.
#pragma once

#include <string>
#include <vector>

#include "frames.h"
#include "render_options.h"
#include "render_session.h"
#include "vector_input.h"

struct RenderJob {
    SequencePath source, vectors, output;
    std::vector<int> frames;
    InputPlan inputs;  // the channels of every frame's files, the vectors' units
};

// Paths, frame range, frames on disk, the output folder, the options of the
// vector clip and the channels of every frame's files. Gives false with a
// message naming the culprit.
bool planRender(const RenderOptions& options, RenderJob& job, std::string& error);

// Every --param and named option against what the plug-in defined: known
// name, value inside its range.
bool checkParams(const std::vector<ParamSetting>& settings, const std::vector<ParamInfo>& defined,
                 std::string& error);

// False with a message when a frame written to `output` would replace a file
// the job still reads: any frame of the `inputs`.
bool checkNoInputOverwritten(const SequencePath& output, const std::vector<const SequencePath*>& inputs,
                             const std::vector<int>& frames, std::string& error);

// The folder a path's file is in ("." for a bare name).
std::string folderOf(const std::string& path);
