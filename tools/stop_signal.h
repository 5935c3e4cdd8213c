// Ctrl-C and a render farm's SIGTERM, turned into a flag the tools poll
// between (and, through the host's abort, inside) frames, so a job stops
// cleanly with no partial file instead of dying mid-write.
#pragma once

// Routes SIGINT and SIGTERM to the flag from now on.
void installStopHandlers();
// The signal that asked to stop, 0 while none has.
int stopSignal();
// The exit status for it: 128 + the signal, as a shell reports it.
int stopStatus();
