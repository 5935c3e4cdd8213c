// trelvo-render: the command-line OFX host that ships with the plug-in, for
// batch and render-farm work. It renders image sequences through the
// plug-in (any format OpenImageIO reads and writes), checks everything it
// can before the first frame, writes every frame under a temporary name
// first, and stops cleanly on Ctrl-C. --list and --describe show what any
// OFX bundle declares. The jobs live in files of their own: the command line
// (render_options), the description (describe_plugin), the pre-flight check
// (render_plan) and the frame loop (frame_loop).
#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "describe_plugin.h"
#include "footage_motion.h"
#include "frame_loop.h"
#include "heap_tuning.h"
#include "render_options.h"
#include "render_plan.h"

namespace {

bool exists(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

std::string defaultPlugin() {
    return exists(TRELVO_DEFAULT_PLUGIN) ? TRELVO_DEFAULT_PLUGIN : TRELVO_INSTALLED_PLUGIN;
}

}  // namespace

int main(int argc, char** argv) {
    keepFrameBuffersInTheHeap();
    const std::string usage = renderUsage(TRELVO_DEFAULT_PLUGIN, TRELVO_INSTALLED_PLUGIN);
    RenderOptions options;
    std::string error;
    if (!parseRenderOptions(argc, argv, options, error)) {
        std::fprintf(stderr, "trelvo-render: %s\n\n%s", error.c_str(), usage.c_str());
        return 2;
    }
    if (options.help) {
        std::fputs(usage.c_str(), stdout);
        return 0;
    }
    const std::string plugin = options.plugin.empty() ? defaultPlugin() : options.plugin;
    if (options.describe || options.list) return describePlugins(plugin, options.describe);
    if (options.source.empty() && options.vectors.empty() && options.output.empty()) {
        std::fprintf(stderr, "trelvo-render: nothing to do\n\n%s", usage.c_str());
        return 2;
    }
    RenderJob job;
    if (!planRender(options, job, error)) {
        std::fprintf(stderr, "trelvo-render: %s\n", error.c_str());
        return 2;
    }
    if (job.inputs.estimate) {
        keepOpenCvSerialUnderThreadSanitizer();
        job.inputs.motion = footageMotionSource(job.source, job.inputs.sourceChannels,
                                                job.inputs.footageFirst, job.inputs.footageLast,
                                                estimateSettingsFor(options.vectorInput.estimatePreset));
    }
    return renderJob(options, job, plugin);
}
