#include "render_plan.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <set>
#include <utility>

namespace {

bool exists(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

// --vectors estimate reads no vector clip: the options that describe one are
// refused rather than ignored.
bool checkEstimateOptions(const RenderOptions& o, std::string& error) {
    const std::vector<std::string> given = vectorOptionsGiven(o.vectorInput);
    if (!given.empty()) {
        error = given.front() +
                " describes a vector clip; with --vectors estimate the motion comes from the " +
                "Source itself";
        return false;
    }
    return true;
}

}  // namespace

std::string folderOf(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool checkNoInputOverwritten(const SequencePath& output, const std::vector<const SequencePath*>& inputs,
                             const std::vector<int>& frames, std::string& error) {
    std::set<std::pair<dev_t, ino_t>> read;
    struct stat info;
    for (const SequencePath* input : inputs)
        for (int frame : frames)
            if (stat(input->frame(frame).c_str(), &info) == 0) read.insert({info.st_dev, info.st_ino});
    for (int frame : frames) {
        const std::string path = output.frame(frame);
        if (stat(path.c_str(), &info) == 0 && read.count({info.st_dev, info.st_ino})) {
            error = "--output: frame " + std::to_string(frame) + " would overwrite " + path +
                    ", which the job reads";
            return false;
        }
    }
    return true;
}

bool planRender(const RenderOptions& o, RenderJob& job, std::string& error) {
    if (o.source.empty() || o.vectors.empty() || o.output.empty()) {
        error = "rendering needs --source, --vectors and --output";
        return false;
    }
    const bool estimate = o.vectors == kEstimateVectors;
    if (!job.source.parse(o.source, error) || (!estimate && !job.vectors.parse(o.vectors, error)) ||
        !job.output.parse(o.output, error) ||
        !(estimate ? checkEstimateOptions(o, error) : checkVectorOptions(o.vectorInput, error)))
        return false;
    if (o.vectorInput.inPixels() || estimate)
        for (const ParamSetting& s : o.params)
            if (s.name == "valMaxDisplace") {
                error = s.option + ": with " + (estimate ? "--vectors estimate" : "vectors in pixels") +
                        " the tool chooses Max Displacement itself; leave it out";
                return false;
            }
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
        if (!estimate && !exists(job.vectors.frame(frame))) {
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
    if (estimate)
        return checkNoInputOverwritten(job.output, {&job.source}, job.frames, error) &&
               planFootage(job.source, o.sourceLayer, job.frames, job.inputs, error);
    return checkNoInputOverwritten(job.output, {&job.source, &job.vectors}, job.frames, error) &&
           planInputs(&job.source, o.sourceLayer, job.vectors, job.frames, o.vectorInput, job.inputs, error);
}

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
