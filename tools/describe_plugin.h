// trelvo-render --list and --describe: what any OFX bundle declares, printed
// for a person. Loads the binary through the embedded host and runs Describe
// (and, with the full description, Describe in Context, Load and Unload) for
// every plug-in in it, so a broken bundle shows which action failed.
#pragma once

#include <string>

// Prints to standard output; --list (full = false) stops at each plug-in's
// record. Gives the exit code: 0, or 1 when the bundle or an action failed.
int describePlugins(const std::string& path, bool full);
