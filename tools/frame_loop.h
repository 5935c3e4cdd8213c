// trelvo-render's frame loop: the plug-in opened once, then one frame after
// another read, rendered through it, checked for the failure colours and
// written, with the progress report fed and Ctrl-C turned into the host's
// abort.
#pragma once

#include <string>

#include "render_options.h"
#include "render_plan.h"

// Renders a planned job with the plug-in bundle at `plugin`. Gives the exit
// code: 0 done, 1 a file or the plug-in failed, 2 a parameter the plug-in
// refuses, 128 + signal when stopped.
int renderJob(const RenderOptions& options, const RenderJob& job, const std::string& plugin);
